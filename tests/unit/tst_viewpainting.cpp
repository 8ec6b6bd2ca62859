#include "shownpair.h"
#include "sockethelpers.h"

#include <QDoubleSpinBox>
#include <QRegion>
#include <QtTest>

#include <functional>
#include <memory>

using namespace Painting;

/// Tests what a view's window really shows while things change.
class TestViewPainting : public QObject, protected ShownPair
{
    Q_OBJECT

private:
    /// Adds so many nodes that Qt would divide the scene into small places.
    static void addOthers()
    {
        for (int i = 0; i < 200; ++i)
            TestHelpers::addNode(3)->setPos(2 * i, 3 * i);
    }

    /// Deletes the link. A place that has not forgotten it would read it after its end.
    void takeLinkOut()
    {
        link().setSelected(true);
        network().deleteSelectedNetworkItem();
        for (int x = 0; x < viewSize.width(); x += 10) {
            for (int y = 0; y < viewSize.height(); y += 10) {
                const QList<QGraphicsItem*> found = network().items(QRectF(x, y, 10, 10));
                for (QGraphicsItem* item : found)
                    QVERIFY(dynamic_cast<Node*>(item));
            }
        }
    }

private slots:
    void init() { beginPair(); }
    void cleanup() { endPair(); }

    // Traffic

    void framesAppearAndVanishAtOnce_data() { directions(); }

    void framesAppearAndVanishAtOnce()
    {
        QFETCH(QPointF, difference);
        span(difference);
        showView();
        const QPointF edge = across(difference) * 7;
        QCOMPARE(shown(middle + edge), white);

        sendArriving();
        QVERIFY(isShownTruly());
        QVERIFY(isNear(shown(middle), arrivingDot, 8));
        QVERIFY(shown(middle + edge) != white);
        QVERIFY(shown(middle - edge) != white);
        sendLost();
        QVERIFY(isShownTruly());

        link().deliverFrame();
        QVERIFY(isShownTruly());
        QVERIFY(isNear(shown(middle), lostDot, 8));
        link().deliverFrame();
        QVERIFY(isShownTruly());
        QCOMPARE(shown(middle + edge), white);
        QCOMPARE(shown(middle - edge), white);
    }

    void aFrameRepaintsOnlyLinkAndNodes_data() { directions(); }

    void aFrameRepaintsOnlyLinkAndNodes()
    {
        QFETCH(QPointF, difference);
        span(difference);
        showView();
        sendArriving();
        QTRY_VERIFY(_view->painted.contains(middle.toPoint()));
        QRegion expected = link().boundingRect().normalized().adjusted(-12, -12, 12, 12).toAlignedRect();
        for (Node* node : {_pair->sender, _pair->receiver})
            expected += node->sceneBoundingRect().adjusted(-3, -3, 3, 3).toAlignedRect();
        QVERIFY(_view->painted.subtracted(expected).isEmpty());
    }

    void trafficRepaintsSixtyTimesASecond()
    {
        constexpr int time = 500;         // ms
        constexpr int mostPictures = 40;  // 500 / 16 and some
        constexpr int leastPictures = 5;  // on a machine with other things to do
        TestAccess::delay(link()) = 0;
        showView();
        QElapsedTimer timer;
        timer.start();
        int frames = 0;
        while (!timer.hasExpired(time)) {
            sendArriving();
            ++frames;
            QCoreApplication::processEvents();
        }
        QVERIFY(frames > 2 * mostPictures);
        QVERIFY2(_view->paintEvents <= mostPictures, qPrintable(QString::number(_view->paintEvents)));
        QVERIFY(_view->paintEvents >= leastPictures);
        QVERIFY(isShownTruly());
    }

    void messagesOfAProgramRepaintSixtyTimesASecond_data()
    {
        QTest::addColumn<QByteArray>("even");
        QTest::addColumn<QByteArray>("odd");
        QTest::newRow("disable and enable") << control(3, "") << control(2, "");
        QTest::newRow("color") << control(4, hex("FF0000")) << control(4, hex("0000FF"));
        QTest::newRow("address") << control(1, hex("111111111111")) << control(1, hex("AAAAAAAAAAAA"));
        QTest::newRow("name") << control(5, "one") << control(5, "a name much wider than its node");
    }

    void messagesOfAProgramRepaintSixtyTimesASecond()
    {
        QFETCH(QByteArray, even);
        QFETCH(QByteArray, odd);
        constexpr int time = 500;         // ms
        constexpr int mostPictures = 40;  // 500 / 16 and some
        constexpr int leastPictures = 5;  // on a machine with other things to do
        SocketPair pair;
        auto* node = new TcpNode(TestHelpers::nodeAddress(3), pair.nodeEnd);
        network().addItem(node);
        node->setPos(middle);
        showView();
        QElapsedTimer timer;
        timer.start();
        int messages = 0;
        while (!timer.hasExpired(time)) {
            pair.program.send(messages++ % 2 == 0 ? even : odd);
            QCoreApplication::processEvents();
        }
        QVERIFY(messages > 2 * mostPictures);
        QVERIFY2(_view->paintEvents <= mostPictures, qPrintable(QString::number(_view->paintEvents)));
        QVERIFY(_view->paintEvents >= leastPictures);
        QVERIFY(node->socket());
        QVERIFY(isShownTruly());
    }

    // Changes by the user

    void whatTheUserChangesIsPaintedAtOnce()
    {
        showView();
        Node& node = *_pair->sender;
        const std::function<void()> changes[] = {
            [&] { node.setName(QStringLiteral("a new name, and a long one")); },
            [&] { node.setAddress(TestHelpers::nodeAddress(77)); },
            [&] { node.setActive(false, true); },
            [&] { node.setInactiveColor(Qt::red); },
            [&] { node.setActive(true, true); },
            [&] { node.setActiveColor(Qt::green); },
        };
        for (const auto& change : changes) {
            sendArriving();  // the pictures for traffic have to wait for their time
            QCoreApplication::processEvents();
            _view->painted = QRegion();
            change();
            QCoreApplication::processEvents();
            QVERIFY(_view->painted.contains(node.pos().toPoint()));
        }
    }

    void theSelectionSquareAppearsAndVanishes_data() { directions(); }

    void theSelectionSquareAppearsAndVanishes()
    {
        QFETCH(QPointF, difference);
        span(difference);
        showView();
        const QPointF spot = middle - QPointF(3, 3);
        const QColor before = shown(spot);
        link().setSelected(true);
        QVERIFY(isShownTruly());
        QVERIFY(isNear(shown(spot), Qt::darkBlue));
        link().setSelected(false);
        QVERIFY(isShownTruly());
        QCOMPARE(shown(spot), before);
    }

    // No traces

    void aCapsuleUncoveredInPartIsPaintedWhole_data() { directions(); }

    /// Repaints only a strip beside the line, as when a window lets go of it.
    void aCapsuleUncoveredInPartIsPaintedWhole()
    {
        QFETCH(QPointF, difference);
        span(difference);
        sendArriving();
        showView();
        for (const double side : {-1.0, 1.0}) {
            const QPoint spot = (middle + across(difference) * side * 7).toPoint();
            const QColor before = shown(spot);
            QVERIFY(before != white);
            _view->viewport()->repaint(QRect(spot - QPoint(1, 1), QSize(2, 2)));
            QCOMPARE(shown(spot), before);
            QVERIFY(isShownTruly());
        }
    }

    void aDraggedNodeLeavesNoTraces_data() { directions(); }

    void aDraggedNodeLeavesNoTraces()
    {
        QFETCH(QPointF, difference);
        span(difference);
        sendArriving();
        sendLost();
        link().setSelected(true);
        showView();
        const QPointF start = _pair->receiver->pos();
        mouse(QEvent::MouseButtonPress, start);
        for (const QPointF& move : {QPointF(0, 1), QPointF(1, 7), QPointF(-30, -40), QPointF(20, 0),
                                    QPointF(0, 60), QPointF(-300, -200), QPointF(0, 0)}) {
            mouse(QEvent::MouseMove, start + move);
            QCOMPARE(_pair->receiver->pos(),
                     QPointF(_view->mapFromScene(start + move) - _view->mapFromScene(start)) + start);
            QVERIFY(isShownTruly());
        }
        mouse(QEvent::MouseButtonRelease, start);
        QVERIFY(isShownTruly());
    }

    void aDeletedLinkLeavesNoTraces_data() { directions(); }

    void aDeletedLinkLeavesNoTraces()
    {
        QFETCH(QPointF, difference);
        span(difference);
        sendArriving();
        link().setSelected(true);
        showView();
        QVERIFY(shown(middle) != white);
        network().deleteSelectedNetworkItem();
        QVERIFY(isShownTruly());
        QCOMPARE(shown(middle), white);
        QCOMPARE(shown(middle + across(difference) * 7), white);
    }

    void changedWidthsLeaveNoTraces_data() { directions(); }

    void changedWidthsLeaveNoTraces()
    {
        QFETCH(QPointF, difference);
        span(difference);
        showView();
        const QPointF edge = middle + across(difference) * 8;
        for (Connection* edited : {network().defaultConnection(), _pair->link}) {
            const std::unique_ptr<QWidget> form(edited->propertiesWidget());
            const QList<QDoubleSpinBox*> boxes = form->findChildren<QDoubleSpinBox*>();
            QDoubleSpinBox* width = boxes.last();  // behind the two reliabilities
            width->setMaximum(50.0);
            for (const double wide : {20.0, 45.0, 1.0}) {
                width->setValue(wide);
                QVERIFY(isShownTruly());
                QCOMPARE(shown(edge) != white, wide > 1.0);
                sendArriving();
                QVERIFY(isShownTruly());
                link().deliverFrame();
                QVERIFY(isShownTruly());
            }
        }
    }

    void aScaledOrScrolledViewShowsTheTruth_data()
    {
        QTest::addColumn<QPointF>("difference");
        QTest::addColumn<double>("scale");
        for (const double scale : {0.5, 1.0, 1.5, 2.0}) {
            const QByteArray name = QByteArray::number(scale);
            QTest::newRow("level, " + name) << QPointF(160, 0) << scale;
            QTest::newRow("upright, " + name) << QPointF(0, 140) << scale;
            QTest::newRow("slanting, " + name) << QPointF(150, 110) << scale;
        }
    }

    void aScaledOrScrolledViewShowsTheTruth()
    {
        QFETCH(QPointF, difference);
        QFETCH(double, scale);
        span(difference);
        showView();
        _view->setSceneRect(QRectF(-500, -500, 1500, 1500));
        _view->scale(scale, scale);
        for (const QPointF& shift : {QPointF(0, 0), QPointF(17, -31)}) {
            _view->centerOn(middle + shift);
            QVERIFY(isShownTruly());
            sendArriving();
            QVERIFY(isShownTruly());
            link().setSelected(true);
            QVERIFY(isShownTruly());
            _view->viewport()->scroll(0, 0);
            link().deliverFrame();
            link().setSelected(false);
            QVERIFY(isShownTruly());
            _pair->sender->moveBy(3, 4);
            QVERIFY(isShownTruly());
        }
    }

    // Links that go

    void aLinkThatIsTakenOutIsForgotten_data() { directions(); }

    void aLinkThatIsTakenOutIsForgotten()
    {
        QFETCH(QPointF, difference);
        span(difference);
        addOthers();
        showView();
        QVERIFY(!network().items(QRectF(QPointF(), viewSize)).isEmpty());
        _pair->sender->moveBy(-0.25, 0.5);
        QVERIFY(network().items(QRectF(QPointF(), viewSize)).contains(_pair->link));
        _view->setScene(nullptr);
        takeLinkOut();
    }

    void aLinkTakenOutAfterTheViewWasScaledIsForgotten_data() { directions(); }

    /// Scales the view back: an index that Qt kept would look for the link where the scale puts it now.
    void aLinkTakenOutAfterTheViewWasScaledIsForgotten()
    {
        QFETCH(QPointF, difference);
        span(difference);
        addOthers();
        showView();
        _view->scale(0.07, 0.07);
        _pair->sender->moveBy(-0.25, 0.5);
        QVERIFY(network().items(QRectF(QPointF(), viewSize)).contains(_pair->link));
        _view->resetTransform();
        takeLinkOut();
    }

    // Nodes

    void changesOfANodeAreShown()
    {
        showView();
        Node& node = *_pair->sender;
        const QPointF spot = node.pos() - QPointF(0, 18);
        node.setName(QStringLiteral("A rather long name of a node"));
        QVERIFY(isShownTruly());
        node.setName(QStringLiteral("Short"));
        QVERIFY(isShownTruly());
        node.setAddress(QByteArray(12, '\xAB'));
        QVERIFY(isShownTruly());
        node.setAddress(QByteArray());
        QVERIFY(isShownTruly());
        node.setSelected(true);
        QVERIFY(isShownTruly());
        QVERIFY(isNear(shown(node.pos() + QPointF(19, 19)), QColor(155, 155, 255).darker(200)));
        node.setActiveColor(Qt::red);
        QVERIFY(isShownTruly());
        QVERIFY(isNear(shown(spot), Qt::red));
        node.setTxColor(Qt::green);
        sendArriving();
        QTRY_VERIFY(isNear(shown(spot), Qt::green));
        QTRY_VERIFY(!(TestAccess::flags(node) & 4));
        QVERIFY(isShownTruly());
        QVERIFY(isNear(shown(spot), Qt::red));
        node.setActive(false, true);
        QVERIFY(isShownTruly());
        QVERIFY(isNear(shown(spot), Qt::lightGray));
        TestHelpers::addLink(&node, TestHelpers::addNode(3));
        QVERIFY(isShownTruly());
    }

    void theLaterOfTwoNodesOnOneSpotIsOnTop()
    {
        span(QPointF());
        _pair->sender->setActiveColor(Qt::red);
        _pair->receiver->setActiveColor(Qt::green);
        showView();
        QVERIFY(isNear(shown(middle - QPointF(0, 18)), Qt::green));
        QVERIFY(isShownTruly());
        click(middle);
        QCOMPARE(network().selectedItems(), QList<QGraphicsItem*>{_pair->receiver});
    }
};

QTEST_MAIN(TestViewPainting)
#include "tst_viewpainting.moc"
