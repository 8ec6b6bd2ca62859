#include "network/network.h"

#include "editedscene.h"

#include <QGraphicsRectItem>
#include <QGraphicsSceneMouseEvent>
#include <QKeyEvent>
#include <QPointer>
#include <QSignalSpy>
#include <QtTest>

#include <algorithm>

namespace {

/// Takes the keyboard and counts the keys that reach it.
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

/// Tests what mouse and keys do in a view that is shown, except for drawing links.
class TestSceneEditing : public QObject, protected EditedScene
{
    Q_OBJECT

private:
    static int nodeCount()
    {
        const QList<QGraphicsItem*> items = network().items();
        return static_cast<int>(std::count_if(items.begin(), items.end(),
                                              [](QGraphicsItem* item) { return dynamic_cast<Node*>(item); }));
    }

    void click(const QPointF& position)
    {
        press(position);
        release(position);
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

private slots:
    void init() { showScene(); }
    void cleanup() { deleteScene(); }

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

    /// Sends events to empty space, where Qt itself would ignore them. They go to the scene, since a view
    /// accepts them on its own.
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
};

QTEST_MAIN(TestSceneEditing)
#include "tst_sceneediting.moc"
