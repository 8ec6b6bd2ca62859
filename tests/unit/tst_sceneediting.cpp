#include "network/network.h"

#include "network/networksimulation.h"
#include "nodes/tcpnode.h"
#include "testaccess.h"

#include <QGraphicsLineItem>
#include <QGraphicsRectItem>
#include <QGraphicsSceneMouseEvent>
#include <QGraphicsView>
#include <QKeyEvent>
#include <QMouseEvent>
#include <QPointer>
#include <QSignalSpy>
#include <QtTest>

#include <algorithm>
#include <memory>

namespace {

const QRectF canvas(-300, -300, 600, 600);

/// Takes the keyboard's focus and counts what it gets of it.
class KeyCounter : public QGraphicsRectItem
{
public:
    KeyCounter()
        : QGraphicsRectItem(-10, -10, 20, 20)
    {
        setFlag(QGraphicsItem::ItemIsFocusable);
    }

    int keys = 0;

protected:
    void keyPressEvent(QKeyEvent* /*event*/) override { ++keys; }
};

}  // namespace

/// Mouse and key events as a user makes them, on a view that is shown.
class TestSceneEditing : public QObject
{
    Q_OBJECT

private:
    static Network& network() { return *NetworkSimulation::instance()->network(); }
    static auto& editor() { return TestAccess::editor(network()); }

    TcpNode* addNode(const QPointF& position)
    {
        auto* node = new TcpNode(QByteArray(), nullptr);
        network().addItem(node);
        node->setPos(position);
        return node;
    }

    Connection* join(Node* one, Node* other)
    {
        auto* connection = new Connection(one, other);
        network().addItem(connection);
        return connection;
    }

    static QList<Connection*> connections()
    {
        QList<Connection*> found;
        const QList<QGraphicsItem*> items = network().items();
        for (QGraphicsItem* item : items) {
            if (auto* connection = dynamic_cast<Connection*>(item))
                found.append(connection);
        }
        return found;
    }

    static int nodeCount()
    {
        const QList<QGraphicsItem*> items = network().items();
        return static_cast<int>(std::count_if(items.begin(), items.end(),
                                              [](QGraphicsItem* item) { return dynamic_cast<Node*>(item); }));
    }

    static int lineCount()
    {
        const QList<QGraphicsItem*> items = network().items();
        return static_cast<int>(std::count_if(items.begin(), items.end(), [](QGraphicsItem* item) {
            return dynamic_cast<QGraphicsLineItem*>(item);
        }));
    }

    /// Returns whether the event was accepted.
    bool send(QEvent::Type type, const QPointF& position, Qt::MouseButton button, Qt::MouseButtons held)
    {
        const QPoint local = _view->mapFromScene(position);
        const QPoint global = _view->viewport()->mapToGlobal(local);
        QMouseEvent event(type, local, global, button, held, Qt::NoModifier);
        QCoreApplication::sendEvent(_view->viewport(), &event);
        return event.isAccepted();
    }

    bool press(const QPointF& position, Qt::MouseButton button = Qt::LeftButton)
    {
        return send(QEvent::MouseButtonPress, position, button, button);
    }

    bool move(const QPointF& position, Qt::MouseButtons held = Qt::LeftButton)
    {
        return send(QEvent::MouseMove, position, Qt::NoButton, held);
    }

    bool release(const QPointF& position, Qt::MouseButton button = Qt::LeftButton)
    {
        return send(QEvent::MouseButtonRelease, position, button, Qt::NoButton);
    }

    void click(const QPointF& position)
    {
        press(position);
        release(position);
    }

    void drag(const QPointF& from, const QPointF& to)
    {
        press(from);
        move((from + to) / 2);
        move(to);
        release(to);
    }

    static bool isAcceptedByTheScene(QEvent::Type type)
    {
        QGraphicsSceneMouseEvent event(type);
        event.setScenePos(QPointF(-200, -200));
        event.setButton(Qt::LeftButton);
        event.ignore();
        QCoreApplication::sendEvent(&network(), &event);
        return event.isAccepted();
    }

    void chooseMode(int mode) { network().setEditorMode(static_cast<Network::EditMode>(mode)); }

private slots:
    void init()
    {
        NetworkSimulation::newNetworkSimulation();
        _view = std::make_unique<QGraphicsView>(&network());
        _view->setSceneRect(canvas);  // fixed: new items shift nothing under the mouse
        _view->resize(700, 700);
        _view->show();
        QVERIFY(QTest::qWaitForWindowExposed(_view.get()));
    }

    void cleanup() { _view.reset(); }

    void cleanupTestCase() { NetworkSimulation::deleteNetworkSimulation(); }

    // Selection

    void aClickSelectsANode()
    {
        auto* node = addNode(QPointF(50, 50));
        addNode(QPointF(-100, -100));
        click(QPointF(50, 50));
        QCOMPARE(network().selectedNetworkItem(), node);
        QCOMPARE(network().selectedItems().size(), 1);
    }

    void aClickSelectsAConnection()
    {
        auto* connection = join(addNode(QPointF(-200, -200)), addNode(QPointF(200, 200)));
        click(QPointF(0, 0));
        QCOMPARE(network().selectedNetworkItem(), connection);
    }

    void aClickOnEmptySpaceClearsTheSelection()
    {
        addNode(QPointF(50, 50))->setSelected(true);
        click(QPointF(-200, -200));
        QVERIFY(network().selectedItems().isEmpty());
        QCOMPARE(nodeCount(), 1);
    }

    void aDraggedNodeMovesWithTheMouse()
    {
        auto* node = addNode(QPointF(0, 0));
        press(QPointF(5, 5));
        move(QPointF(25, 45));
        QCOMPARE(node->pos(), QPointF(20, 40));
        move(QPointF(105, 5));
        QCOMPARE(node->pos(), QPointF(100, 0));
        release(QPointF(105, 5));
        QCOMPARE(node->pos(), QPointF(100, 0));
        move(QPointF(-50, -50), Qt::NoButton);
        QCOMPARE(node->pos(), QPointF(100, 0));
    }

    void connectionsFollowTheirNodeAtEveryMove()
    {
        auto* node = addNode(QPointF(-100, -100));
        auto* connection = join(node, addNode(QPointF(200, 200)));
        QCOMPARE(network().itemAt(QPointF(50, 50), QTransform()), connection);

        QPointF previousMiddle(50, 50);
        press(QPointF(-100, -100));
        for (const QPointF& position :
             {QPointF(-100, 100), QPointF(100, -100), QPointF(0, -250), QPointF(-250, 0)}) {
            move(position);
            QCoreApplication::processEvents();
            const QPointF middle = (position + QPointF(200, 200)) / 2;
            QCOMPARE(network().itemAt(middle, QTransform()), connection);
            QVERIFY(!network().itemAt(previousMiddle, QTransform()));
            previousMiddle = middle;
        }
        release(QPointF(-250, 0));
        QCOMPARE(node->pos(), QPointF(-250, 0));
    }

    void connectionsOfAllDraggedNodesFollow()
    {
        auto* one = addNode(QPointF(-200, -200));
        auto* other = addNode(QPointF(-200, 0));
        auto* upper = join(one, addNode(QPointF(0, -100)));
        auto* lower = join(other, addNode(QPointF(0, 100)));
        one->setSelected(true);
        other->setSelected(true);
        press(QPointF(-200, -200));
        move(QPointF(-100, -250));
        QCoreApplication::processEvents();
        QCOMPARE(one->pos(), QPointF(-100, -250));
        QCOMPARE(other->pos(), QPointF(-100, -50));
        QCOMPARE(network().itemAt(QPointF(-50, -175), QTransform()), upper);
        QCOMPARE(network().itemAt(QPointF(-50, 25), QTransform()), lower);
        QVERIFY(!network().itemAt(QPointF(-100, -150), QTransform()));
        QVERIFY(!network().itemAt(QPointF(-100, 50), QTransform()));
        release(QPointF(-100, -250));
    }

    void aConnectionIsRepaintedWhereItWasAndWhereItIs()
    {
        auto* node = addNode(QPointF(-100, -100));
        join(node, addNode(QPointF(200, 200)));
        press(QPointF(-100, -100));
        QSignalSpy changed(&network(), SIGNAL(changed(QList<QRectF>)));
        QVERIFY(changed.wait());  // the press
        changed.clear();

        move(QPointF(-100, 100));
        QVERIFY(changed.wait());
        QRegion region;
        for (const QRectF& rect : changed.first().first().value<QList<QRectF>>())
            region += rect.toAlignedRect();
        QVERIFY(region.contains(QPoint(50, 50)));
        QVERIFY(region.contains(QPoint(50, 150)));
        release(QPointF(-100, 100));
    }

    void aLinkDeletedInADragIsForgotten()
    {
        auto* node = addNode(QPointF(-100, -100));
        auto* connection = join(node, addNode(QPointF(200, 200)));
        auto* kept = join(node, addNode(QPointF(-200, 200)));
        QCoreApplication::processEvents();
        press(QPointF(-100, -100));
        move(QPointF(-80, -120));
        QCoreApplication::processEvents();
        delete connection;
        move(QPointF(-60, -140));
        QCoreApplication::processEvents();
        QVERIFY(!network().items(canvas).isEmpty());
        QVERIFY(!network().itemAt(QPointF(70, 30), QTransform()));
        release(QPointF(-60, -140));
        QCOMPARE(node->connections(), QList<Connection*>{kept});
    }

    void aNodeDeletedInADragIsForgotten()
    {
        auto* node = addNode(QPointF(-100, -100));
        join(node, addNode(QPointF(200, 200)));
        press(QPointF(-100, -100));
        move(QPointF(-80, -120));
        QTest::keyClick(_view.get(), Qt::Key_Delete);
        QCOMPARE(network().items().size(), 1);
        move(QPointF(-60, -140));
        QCoreApplication::processEvents();
        release(QPointF(-60, -140));
        QCOMPARE(network().items().first()->pos(), QPointF(200, 200));
    }

    void aReleaseRepaintsTheWholeScene()
    {
        addNode(QPointF(-200, -200));
        addNode(QPointF(200, 200));
        press(QPointF(0, 250));
        QCoreApplication::processEvents();
        QSignalSpy changed(&network(), SIGNAL(changed(QList<QRectF>)));
        network().update(QRectF(0, 0, 1, 1));
        QVERIFY(changed.wait());
        changed.clear();

        release(QPointF(0, 250));
        QVERIFY(changed.wait());
        const auto region = changed.first().first().value<QList<QRectF>>();
        QVERIFY(region.contains(network().sceneRect()));
    }

    void aMoveWithNothingSelectedChangesNothing()
    {
        auto* node = addNode(QPointF(0, 0));
        press(QPointF(-200, -200));
        move(QPointF(0, 0));
        release(QPointF(0, 0));
        QCOMPARE(node->pos(), QPointF(0, 0));
        QCOMPARE(network().items().size(), 1);
    }

    // Node placement

    void anyButtonPlacesANode_data()
    {
        QTest::addColumn<int>("button");
        QTest::newRow("left") << int(Qt::LeftButton);
        QTest::newRow("right") << int(Qt::RightButton);
        QTest::newRow("middle") << int(Qt::MiddleButton);
    }

    void anyButtonPlacesANode()
    {
        QFETCH(int, button);
        chooseMode(Network::NodePlacement);
        press(QPointF(40, -60), static_cast<Qt::MouseButton>(button));
        release(QPointF(40, -60), static_cast<Qt::MouseButton>(button));
        QCOMPARE(network().items().size(), 1);
        QCOMPARE(network().items().first()->pos(), QPointF(40, -60));
    }

    void aPlacedNodeIsAFreshTcpNode()
    {
        chooseMode(Network::NodePlacement);
        click(QPointF(40, -60));
        auto* node = dynamic_cast<TcpNode*>(network().items().first());
        QVERIFY(node);
        QCOMPARE(node->type(), 0x10000);
        QCOMPARE(node->nodeType(), 1);
        QVERIFY(node->address().isEmpty());
        QVERIFY(node->name().isEmpty());
        QVERIFY(!node->socket());
        QVERIFY(!node->active());
        QVERIFY(!node->isSelected());
        QCOMPARE(TestAccess::promiscuousMode(*node), Qt::PartiallyChecked);
    }

    void aPressOnANodePlacesAnotherOnTop()
    {
        chooseMode(Network::NodePlacement);
        click(QPointF(40, -60));
        QGraphicsItem* first = network().items().first();
        click(QPointF(40, -60));
        QCOMPARE(nodeCount(), 2);
        QVERIFY(network().itemAt(QPointF(40, -60), QTransform()) != first);
        QCOMPARE(network().itemAt(QPointF(40, -60), QTransform())->pos(), QPointF(40, -60));
    }

    void aDragInNodePlacementPlacesOneNodeAndMovesNone()
    {
        auto* other = addNode(QPointF(0, 0));
        other->setSelected(true);
        chooseMode(Network::NodePlacement);
        drag(QPointF(0, 0), QPointF(100, 100));
        QCOMPARE(nodeCount(), 2);
        QCOMPARE(other->pos(), QPointF(0, 0));
        QVERIFY(!network().itemAt(QPointF(100, 100), QTransform()));
    }

    void aPressInNodePlacementSelectsNothing()
    {
        addNode(QPointF(0, 0));
        chooseMode(Network::NodePlacement);
        click(QPointF(0, 0));
        QVERIFY(network().selectedItems().isEmpty());
    }

    // Connection drawing

    void aDragFromNodeToNodeJoinsThem()
    {
        auto* one = addNode(QPointF(-100, -100));
        auto* other = addNode(QPointF(100, 100));
        chooseMode(Network::ConnectionDrawing);
        drag(QPointF(-100, -100), QPointF(100, 100));
        QCOMPARE(connections().size(), 1);
        Connection* connection = connections().first();
        QCOMPARE(connection->node(0), one);
        QCOMPARE(connection->node(1), other);
        QCOMPARE(one->connections(), QList<Connection*>{connection});
        QCOMPARE(other->connections(), QList<Connection*>{connection});
        QCOMPARE(lineCount(), 0);
        QVERIFY(!editor().from);
        QVERIFY(!editor().connectionPreview);
    }

    void aPressOnANodeShowsAPreview()
    {
        auto* node = addNode(QPointF(-100, -100));
        chooseMode(Network::ConnectionDrawing);
        press(QPointF(-95, -90));
        QCOMPARE(editor().from, node);
        QVERIFY(editor().connectionPreview);
        QCOMPARE(editor().connectionPreview->scene(), &network());
        QCOMPARE(editor().connectionPreview->line(), QLineF(-100, -100, -95, -90));
        QVERIFY(connections().isEmpty());
    }

    void thePreviewLooksLikeTheDefaultConnection()
    {
        addNode(QPointF(-100, -100));
        TestAccess::color(*network().defaultConnection()) = QColor(1, 2, 3);
        TestAccess::strokeWidth(*network().defaultConnection()) = 4.5;
        chooseMode(Network::ConnectionDrawing);
        press(QPointF(-100, -100));
        const QGraphicsLineItem* preview = editor().connectionPreview;
        QCOMPARE(preview->pen(),
                 QPen(QBrush(QColor(1, 2, 3)), 4.5, Qt::SolidLine, Qt::SquareCap, Qt::BevelJoin));
        QCOMPARE(preview->opacity(), 0.5);
        QCOMPARE(preview->zValue(), -1.0);
    }

    void thePreviewRunsFromTheNodeToTheMouse()
    {
        addNode(QPointF(-100, -100));
        chooseMode(Network::ConnectionDrawing);
        press(QPointF(-95, -90));
        for (const QPointF& position : {QPointF(0, 50), QPointF(-200, 120), QPointF(-100, -100)}) {
            move(position);
            QCOMPARE(editor().connectionPreview->line(), QLineF(QPointF(-100, -100), position));
        }
    }

    void thePreviewIsNoNetworkItem()
    {
        addNode(QPointF(-100, -100));
        chooseMode(Network::ConnectionDrawing);
        press(QPointF(-100, -100));
        move(QPointF(100, 100));
        QGraphicsItem* preview = editor().connectionPreview;
        QVERIFY(!dynamic_cast<NetworkItem*>(preview));
        chooseMode(Network::Selection);
        press(QPointF(50, 50), Qt::RightButton);
        QVERIFY(!network().selectedNetworkItem());
    }

    void anyButtonDraws()
    {
        addNode(QPointF(-100, -100));
        addNode(QPointF(100, 100));
        chooseMode(Network::ConnectionDrawing);
        press(QPointF(-100, -100), Qt::RightButton);
        move(QPointF(100, 100), Qt::RightButton);
        release(QPointF(100, 100), Qt::RightButton);
        QCOMPARE(connections().size(), 1);
    }

    void aPressOnEmptySpaceStartsNothing()
    {
        addNode(QPointF(100, 100));
        chooseMode(Network::ConnectionDrawing);
        drag(QPointF(-100, -100), QPointF(100, 100));
        QCOMPARE(network().items().size(), 1);
        QVERIFY(!editor().from);
        QVERIFY(!editor().connectionPreview);
    }

    void aPressOnAConnectionStartsNothing()
    {
        join(addNode(QPointF(-100, -100)), addNode(QPointF(100, 100)));
        addNode(QPointF(200, -200));
        chooseMode(Network::ConnectionDrawing);
        press(QPointF(0, 0));
        QVERIFY(!editor().from);
        QVERIFY(!editor().connectionPreview);
        release(QPointF(200, -200));
        QCOMPARE(connections().size(), 1);
    }

    void aMoveWithoutADrawingMakesNothing()
    {
        addNode(QPointF(0, 0));
        chooseMode(Network::ConnectionDrawing);
        move(QPointF(0, 0), Qt::NoButton);
        move(QPointF(100, 100));
        QCOMPARE(network().items().size(), 1);
        QVERIFY(!editor().from);
    }

    void aReleaseOnTheStartNodeJoinsNothing()
    {
        auto* node = addNode(QPointF(-100, -100));
        chooseMode(Network::ConnectionDrawing);
        press(QPointF(-100, -100));
        move(QPointF(100, 100));
        move(QPointF(-95, -95));
        release(QPointF(-95, -95));
        QCOMPARE(network().items(), QList<QGraphicsItem*>{node});
        QCOMPARE(node->connectionCount(), 0);
        QVERIFY(!editor().from);
    }

    void joinedNodesAreNotJoinedTwice_data()
    {
        QTest::addColumn<bool>("isSameDirection");
        QTest::newRow("same direction") << true;
        QTest::newRow("other direction") << false;
    }

    void joinedNodesAreNotJoinedTwice()
    {
        QFETCH(bool, isSameDirection);
        auto* one = addNode(QPointF(-100, -100));
        auto* other = addNode(QPointF(100, 100));
        isSameDirection ? join(one, other) : join(other, one);
        chooseMode(Network::ConnectionDrawing);
        drag(QPointF(-100, -100), QPointF(100, 100));
        QCOMPARE(connections().size(), 1);
        QCOMPARE(lineCount(), 0);

        addNode(QPointF(100, -100));  // but each of them with a third
        drag(QPointF(-100, -100), QPointF(100, -100));
        drag(QPointF(100, -100), QPointF(100, 100));
        QCOMPARE(connections().size(), 3);
    }

    void aReleaseOnEmptySpaceRemovesThePreview()
    {
        addNode(QPointF(-100, -100));
        addNode(QPointF(100, 100));
        chooseMode(Network::ConnectionDrawing);
        drag(QPointF(-100, -100), QPointF(200, -200));
        QCOMPARE(network().items().size(), 2);
        QVERIFY(!editor().from);
        QVERIFY(!editor().connectionPreview);
    }

    void aReleaseOnAConnectionRemovesThePreview()
    {
        join(addNode(QPointF(-100, -100)), addNode(QPointF(100, 100)));
        addNode(QPointF(200, -200));
        chooseMode(Network::ConnectionDrawing);
        drag(QPointF(200, -200), QPointF(0, 0));
        QCOMPARE(connections().size(), 1);
        QCOMPARE(lineCount(), 0);
        QVERIFY(!editor().connectionPreview);
    }

    void aReleaseWithoutADrawingMakesNothing()
    {
        addNode(QPointF(100, 100));
        chooseMode(Network::ConnectionDrawing);
        release(QPointF(100, 100));
        QCOMPARE(network().items().size(), 1);
    }

    void aReleaseOnAnotherKindOfItemMakesNothing()
    {
        addNode(QPointF(-100, -100));
        network().addRect(QRectF(90, 90, 20, 20));
        chooseMode(Network::ConnectionDrawing);
        drag(QPointF(-100, -100), QPointF(100, 100));
        QCOMPARE(network().items().size(), 2);
        QVERIFY(!editor().from);
    }

    void drawingSelectsAndMovesNothing()
    {
        auto* one = addNode(QPointF(-100, -100));
        auto* other = addNode(QPointF(100, 100));
        chooseMode(Network::ConnectionDrawing);
        drag(QPointF(-100, -100), QPointF(100, 100));
        QVERIFY(network().selectedItems().isEmpty());
        QCOMPARE(one->pos(), QPointF(-100, -100));
        QCOMPARE(other->pos(), QPointF(100, 100));
    }

    void aNewConnectionHasUndecidedSettings()
    {
        addNode(QPointF(-100, -100));
        addNode(QPointF(100, 100));
        chooseMode(Network::ConnectionDrawing);
        drag(QPointF(-100, -100), QPointF(100, 100));
        Connection& connection = *connections().first();
        QVERIFY(!connection.isBroken());
        QVERIFY(connection.reliability() < 0);
        QVERIFY(connection.errorDetectionReliability() < 0);
        QCOMPARE(connection.delayMs(), -1);
        QCOMPARE(connection.delayDeviationMs(), -1);
        QVERIFY(!TestAccess::color(connection).isValid());
        QCOMPARE(TestAccess::strokeWidth(connection), -1.0);
    }

    // Drawings that do not end as usual

    void changingTheModeLeavesTheDrawing_data()
    {
        QTest::addColumn<int>("mode");
        QTest::newRow("selection") << int(Network::Selection);
        QTest::newRow("node placement") << int(Network::NodePlacement);
    }

    void changingTheModeLeavesTheDrawing()
    {
        QFETCH(int, mode);
        auto* one = addNode(QPointF(-100, -100));
        addNode(QPointF(100, 100));
        chooseMode(Network::ConnectionDrawing);
        press(QPointF(-100, -100));
        QGraphicsLineItem* preview = editor().connectionPreview;
        chooseMode(mode);
        QCOMPARE(editor().from, one);
        QCOMPARE(editor().connectionPreview, preview);
        QCOMPARE(preview->scene(), &network());

        chooseMode(Network::ConnectionDrawing);  // back before the release: it joins
        release(QPointF(100, 100));
        QCOMPARE(connections().size(), 1);
        QCOMPARE(lineCount(), 0);
    }

    void aReleaseInAnotherModeEndsTheDrawingWithoutAConnection_data()
    {
        changingTheModeLeavesTheDrawing_data();
    }

    void aReleaseInAnotherModeEndsTheDrawingWithoutAConnection()
    {
        QFETCH(int, mode);
        addNode(QPointF(-100, -100));
        addNode(QPointF(100, 100));
        chooseMode(Network::ConnectionDrawing);
        press(QPointF(-100, -100));
        move(QPointF(100, 100));
        chooseMode(mode);
        release(QPointF(100, 100));
        QCOMPARE(network().items().size(), 2);
        QVERIFY(!editor().from);
        QVERIFY(!editor().connectionPreview);
    }

    void aPressRemovesAnOldPreview_data()
    {
        QTest::addColumn<QPointF>("position");
        QTest::addColumn<int>("lines");
        QTest::newRow("on another node") << QPointF(100, 100) << 1;
        QTest::newRow("on the same node") << QPointF(-100, -100) << 1;
        QTest::newRow("on empty space") << QPointF(200, -200) << 0;
    }

    /// The second button goes down while the first is still held.
    void aPressRemovesAnOldPreview()
    {
        QFETCH(QPointF, position);
        QFETCH(int, lines);
        addNode(QPointF(-100, -100));
        addNode(QPointF(100, 100));
        chooseMode(Network::ConnectionDrawing);
        press(QPointF(-100, -100));
        send(QEvent::MouseButtonPress, position, Qt::RightButton, Qt::LeftButton | Qt::RightButton);
        QCOMPARE(lineCount(), lines);
        QCOMPARE(editor().from != nullptr, lines == 1);
        QCOMPARE(editor().connectionPreview != nullptr, lines == 1);
        if (lines == 1)
            QCOMPARE(editor().from->pos(), position);
        release(QPointF(200, -200));
        QCOMPARE(network().items().size(), 2);
    }

    void deletingTheStartNodeEndsTheDrawing()
    {
        QSignalSpy lastDeleted(&network(), SIGNAL(lastNodeDeleted()));
        auto* node = addNode(QPointF(-100, -100));
        chooseMode(Network::ConnectionDrawing);
        press(QPointF(-100, -100));
        node->setSelected(true);
        QTest::keyClick(_view.get(), Qt::Key_Delete);
        QVERIFY(!editor().from);
        QVERIFY(!editor().connectionPreview);
        QVERIFY(network().items().isEmpty());
        QCOMPARE(lastDeleted.size(), 1);

        addNode(QPointF(100, 100));
        move(QPointF(100, 100));
        release(QPointF(100, 100));
        QCOMPARE(network().items().size(), 1);
    }

    void destroyingTheStartNodeEndsTheDrawing()
    {
        auto* node = addNode(QPointF(-100, -100));
        chooseMode(Network::ConnectionDrawing);
        press(QPointF(-100, -100));
        delete node;
        QVERIFY(!editor().from);
        QVERIFY(!editor().connectionPreview);
        QVERIFY(network().items().isEmpty());
    }

    void deletingAnotherNodeLeavesTheDrawing()
    {
        auto* node = addNode(QPointF(-100, -100));
        auto* other = addNode(QPointF(0, 100));
        auto* end = addNode(QPointF(100, 100));
        chooseMode(Network::ConnectionDrawing);
        press(QPointF(-100, -100));
        other->setSelected(true);
        QTest::keyClick(_view.get(), Qt::Key_Delete);
        QCOMPARE(editor().from, node);
        QVERIFY(editor().connectionPreview);
        release(QPointF(100, 100));
        QCOMPARE(connections().size(), 1);
        QCOMPARE(end->connectionCount(), 1);
    }

    void aNewSimulationForgetsTheDrawing()
    {
        addNode(QPointF(-100, -100));
        chooseMode(Network::ConnectionDrawing);
        press(QPointF(-100, -100));
        NetworkSimulation::newNetworkSimulation();
        _view->setScene(&network());
        QVERIFY(!editor().from);
        QVERIFY(!editor().connectionPreview);
        move(QPointF(100, 100));
        release(QPointF(100, 100));
        QVERIFY(network().items().isEmpty());
    }

    // Double clicks and keys

    void aDoubleClickDoesNothing_data()
    {
        QTest::addColumn<int>("mode");
        QTest::newRow("selection") << int(Network::Selection);
        QTest::newRow("node placement") << int(Network::NodePlacement);
        QTest::newRow("connection drawing") << int(Network::ConnectionDrawing);
    }

    void aDoubleClickDoesNothing()
    {
        QFETCH(int, mode);
        addNode(QPointF(50, 50));
        chooseMode(mode);
        for (const QPointF& position : {QPointF(50, 50), QPointF(-200, -200)}) {
            send(QEvent::MouseButtonDblClick, position, Qt::LeftButton, Qt::LeftButton);
            QCOMPARE(network().items().size(), 1);
            QVERIFY(network().selectedItems().isEmpty());
            QVERIFY(!editor().from);
        }
        QVERIFY(isAcceptedByTheScene(QEvent::GraphicsSceneMouseDoubleClick));
    }

    void everyEventOfTheOtherModesIsAccepted_data()
    {
        QTest::addColumn<int>("mode");
        QTest::newRow("node placement") << int(Network::NodePlacement);
        QTest::newRow("connection drawing") << int(Network::ConnectionDrawing);
    }

    /// On empty space, where the toolkit's own handling ignores the events; a view answers for them by
    /// itself, so the scene is asked directly.
    void everyEventOfTheOtherModesIsAccepted()
    {
        QFETCH(int, mode);
        QVERIFY(!isAcceptedByTheScene(QEvent::GraphicsSceneMousePress));
        chooseMode(mode);
        for (const QEvent::Type type :
             {QEvent::GraphicsSceneMousePress, QEvent::GraphicsSceneMouseMove,
              QEvent::GraphicsSceneMouseRelease, QEvent::GraphicsSceneMouseDoubleClick})
            QVERIFY(isAcceptedByTheScene(type));
    }

    void theDeleteKeyDeletesTheFirstSelectedItem()
    {
        auto* one = addNode(QPointF(-100, -100));
        auto* other = addNode(QPointF(100, 100));
        join(one, other);
        QPointer<QObject> watchedOne = one;
        QPointer<QObject> watchedOther = other;
        one->setSelected(true);
        other->setSelected(true);
        const bool isOneFirst = network().selectedItems().first() == one;
        QTest::keyClick(_view.get(), Qt::Key_Delete);
        QCOMPARE(watchedOne.isNull(), isOneFirst);
        QCOMPARE(watchedOther.isNull(), !isOneFirst);
        QCOMPARE(network().items().size(), 1);
        QVERIFY(network().selectedItems().isEmpty());
    }

    void theDeleteKeyAnnouncesTheLastNode()
    {
        QSignalSpy lastDeleted(&network(), SIGNAL(lastNodeDeleted()));
        addNode(QPointF(0, 0));
        click(QPointF(0, 0));
        QTest::keyClick(_view.get(), Qt::Key_Delete);
        QVERIFY(network().items().isEmpty());
        QCOMPARE(lastDeleted.size(), 1);
    }

    void theDeleteKeyWithNothingSelectedDoesNothing()
    {
        QSignalSpy lastDeleted(&network(), SIGNAL(lastNodeDeleted()));
        QTest::keyClick(_view.get(), Qt::Key_Delete);
        addNode(QPointF(0, 0));
        QTest::keyClick(_view.get(), Qt::Key_Delete);
        QCOMPARE(network().items().size(), 1);
        QCOMPARE(lastDeleted.size(), 0);
    }

    void otherKeysNeverChangeTheScene()
    {
        auto* node = addNode(QPointF(0, 0));
        node->setSelected(true);
        for (const Qt::Key key : {Qt::Key_Backspace, Qt::Key_Escape, Qt::Key_Return, Qt::Key_Left,
                                  Qt::Key_Tab, Qt::Key_Space, Qt::Key_A}) {
            QTest::keyClick(_view.get(), key);
            QCOMPARE(network().items().size(), 1);
            QVERIFY(node->isSelected());
            QCOMPARE(node->pos(), QPointF(0, 0));
            QCOMPARE(network().editorMode(), Network::Selection);
        }
    }

    void itemsReceiveNoKeys()
    {
        auto* counter = new KeyCounter;
        network().addItem(counter);
        network().setFocusItem(counter);
        QCOMPARE(network().focusItem(), counter);
        QTest::keyClick(_view.get(), Qt::Key_A);
        QTest::keyClick(_view.get(), Qt::Key_Delete);
        QCOMPARE(counter->keys, 0);
    }

private:
    std::unique_ptr<QGraphicsView> _view;
};

QTEST_MAIN(TestSceneEditing)
#include "tst_sceneediting.moc"
