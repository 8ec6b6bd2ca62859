#include "network/network.h"

#include "editedscene.h"

#include <QGraphicsLineItem>
#include <QSignalSpy>
#include <QtTest>

#include <algorithm>

/// How a user draws a link with the mouse, in a view that is shown.
class TestLinkDrawing : public QObject, protected EditedScene
{
    Q_OBJECT

private:
    static int lineCount()
    {
        const QList<QGraphicsItem*> items = network().items();
        return static_cast<int>(std::count_if(items.begin(), items.end(), [](QGraphicsItem* item) {
            return dynamic_cast<QGraphicsLineItem*>(item);
        }));
    }

private slots:
    void init() { showScene(); }
    void cleanup() { deleteScene(); }

    // Drawings that end as usual

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

        addNode(QPointF(100, -100));  // a third, which both may be joined with
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

    /// Presses the second button while the first is still down.
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
};

QTEST_MAIN(TestLinkDrawing)
#include "tst_linkdrawing.moc"
