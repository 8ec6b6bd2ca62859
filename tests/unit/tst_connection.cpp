#include "connections/connection.h"

#include "testhelpers.h"

#include <QSignalSpy>

#include <memory>

using namespace TestHelpers;

/// Tests a link as an item between two nodes. Other tests send frames over it.
class TestConnection : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        _pair = std::make_unique<LinkedPair>();
        qsrand(1);
    }

    void cleanup() { _pair.reset(); }

    void aNewLinkLeavesAllSettingsUndecided()
    {
        Connection& link = *_pair->link;
        QVERIFY(!link.isBroken());
        QCOMPARE(link.reliability(), -1.0);
        QCOMPARE(link.errorDetectionReliability(), -1.0);
        QCOMPARE(link.delayMs(), -1);
        QCOMPARE(link.delayDeviationMs(), -1);
        QVERIFY(!TestAccess::color(link).isValid());
        QCOMPARE(TestAccess::strokeWidth(link), -1.0);
        QVERIFY(TestAccess::framesInFlight(link).isEmpty());
        QCOMPARE(link.totalFrames(), qint64{0});
        QCOMPARE(link.lostFrames(), qint64{0});
        QCOMPARE(link.crcErrors(), qint64{0});
    }

    void aNewLinkIsASelectableItemAboveTheGround()
    {
        QCOMPARE(_pair->link->zValue(), 1.0);
        QVERIFY(_pair->link->flags() & QGraphicsItem::ItemIsSelectable);
        QVERIFY(!(_pair->link->flags() & QGraphicsItem::ItemIsMovable));
        QCOMPARE(_pair->link->type(), 65537);
    }

    void theDefaultLinkDecidesAllSettings()
    {
        Connection& link = *network()->defaultConnection();
        QVERIFY(!link.isBroken());
        QCOMPARE(link.reliability(), 1.0);
        QCOMPARE(link.errorDetectionReliability(), 1.0);
        QCOMPARE(link.delayMs(), 0);
        QCOMPARE(link.delayDeviationMs(), 0);
        QCOMPARE(TestAccess::color(link), QColor(Qt::darkBlue));
        QCOMPARE(TestAccess::strokeWidth(link), 2.0);
        QVERIFY(!link.node(0));
        QVERIFY(!link.node(1));
    }

    void constructionRegistersWithBothNodes()
    {
        RecordingNode* third = addNode(3);
        Connection* link = addLink(_pair->sender, third);
        QCOMPARE(_pair->sender->connections(), (QList<Connection*>{_pair->link, link}));
        QCOMPARE(third->connections(), QList<Connection*>{link});
    }

    void aLinkMayLackItsNodes()
    {
        auto half = std::make_unique<Connection>(_pair->sender, nullptr);
        QCOMPARE(_pair->sender->connectionCount(), 2);
        QVERIFY(!half->carryFrame(_pair->unicast(), -1, true, _pair->sender));
        QVERIFY(half->boundingRect().isNull());
        QVERIFY(half->shape().isEmpty());
        half.reset();
        QCOMPARE(_pair->sender->connectionCount(), 1);

        Connection none(nullptr, nullptr);
        QVERIFY(!none.otherNode(nullptr));
        QVERIFY(!none.carryFrame(_pair->unicast(), -1, true, nullptr));
    }

    void destructionUnregistersFromBothNodes()
    {
        delete _pair->link;
        QCOMPARE(_pair->sender->connectionCount(), 0);
        QCOMPARE(_pair->receiver->connectionCount(), 0);
    }

    void nodesAreReachedByTheirIndex()
    {
        QCOMPARE(_pair->link->node(0), static_cast<Node*>(_pair->sender));
        QCOMPARE(_pair->link->node(1), static_cast<Node*>(_pair->receiver));
        QVERIFY(!_pair->link->node(2));
        QVERIFY(!_pair->link->node(-1));
        QVERIFY(!_pair->link->node(largestInt));
        QVERIFY(!_pair->link->node(smallestInt));
    }

    void settingANodeReplacesOneEnd()
    {
        RecordingNode third(nodeAddress(3));
        Connection link(nullptr, nullptr);
        link.setNode(0, &third);
        QCOMPARE(link.node(0), static_cast<Node*>(&third));
        QVERIFY(!link.node(1));
        link.setNode(1, &third);
        link.setNode(0, nullptr);
        QVERIFY(!link.node(0));
        QCOMPARE(link.node(1), static_cast<Node*>(&third));
    }

    void settingANodeLeavesRegistrationsAlone()
    {
        RecordingNode* third = addNode(3);
        _pair->link->setNode(1, third);
        QCOMPARE(third->connectionCount(), 0);
        QCOMPARE(_pair->receiver->connectionCount(), 1);
        _pair->link->setNode(1, _pair->receiver);  // both ends must know when the link is deleted
    }

    void settingANodeBeyondTheEndsChangesNothing()
    {
        RecordingNode* third = addNode(3);
        for (const int index : {2, -1, largestInt, smallestInt})
            _pair->link->setNode(index, third);
        QCOMPARE(_pair->link->node(0), static_cast<Node*>(_pair->sender));
        QCOMPARE(_pair->link->node(1), static_cast<Node*>(_pair->receiver));
    }

    void theOtherNodeIsTheOppositeEnd()
    {
        QCOMPARE(_pair->link->otherNode(_pair->sender), static_cast<Node*>(_pair->receiver));
        QCOMPARE(_pair->link->otherNode(_pair->receiver), static_cast<Node*>(_pair->sender));
        QVERIFY(!_pair->link->otherNode(addNode(3)));
        QVERIFY(!_pair->link->otherNode(nullptr));
    }

    void aStrangersFrameIsRefused()
    {
        RecordingNode* stranger = addNode(3);
        requestConfirmations(stranger);
        QVERIFY(!_pair->link->carryFrame(_pair->broadcast(), -1, true, stranger));
        QVERIFY(TestAccess::framesInFlight(*_pair->link).isEmpty());
        QVERIFY(stranger->log.isEmpty());
    }

    void involvedAreTheTwoEnds()
    {
        QVERIFY(_pair->link->isNodeInvolved(_pair->sender));
        QVERIFY(_pair->link->isNodeInvolved(_pair->receiver));
        QVERIFY(!_pair->link->isNodeInvolved(addNode(3)));
        QVERIFY(!_pair->link->isNodeInvolved(nullptr));
    }

    void statisticsStayAtZero()
    {
        _pair->sender->dataRequest(_pair->unicast());
        _pair->sender->dataRequest(_pair->toNobody());
        QVERIFY(passTimeouts());
        QCOMPARE(_pair->link->totalFrames(), qint64{0});
        QCOMPARE(_pair->link->lostFrames(), qint64{0});
        QCOMPARE(_pair->link->crcErrors(), qint64{0});

        TestAccess::totalFrames(*_pair->link) = 5000000000;
        TestAccess::lostFrames(*_pair->link) = 6000000000;
        TestAccess::crcErrors(*_pair->link) = 7000000000;
        QCOMPARE(_pair->link->totalFrames(), qint64{5000000000});
        QCOMPARE(_pair->link->lostFrames(), qint64{6000000000});
        QCOMPARE(_pair->link->crcErrors(), qint64{7000000000});
        _pair->link->resetStatistics();
        QCOMPARE(_pair->link->totalFrames(), qint64{0});
        QCOMPARE(_pair->link->lostFrames(), qint64{0});
        QCOMPARE(_pair->link->crcErrors(), qint64{0});
    }

    void thePropertiesWidgetHasNoParent()
    {
        const std::unique_ptr<QWidget> first(_pair->link->propertiesWidget());
        const std::unique_ptr<QWidget> second(_pair->link->propertiesWidget());
        QVERIFY(first && !first->parent());
        QVERIFY(first != second);
    }

    void trafficRepaintsTheLink()
    {
        _pair->receiver->setPos(300, 300);
        TestAccess::delay(*_pair->link) = 500;
        QSignalSpy changed(network(), SIGNAL(changed(QList<QRectF>)));
        const auto middleChanged = [&changed] {
            for (const QList<QVariant>& arguments : qAsConst(changed)) {
                for (const QRectF& area : arguments.first().value<QList<QRectF>>()) {
                    if (area.contains(150, 150))
                        return true;
                }
            }
            return false;
        };
        QTRY_VERIFY(changed.count() > 0);  // the new items repaint the scene too
        changed.clear();

        _pair->link->carryFrame(_pair->unicast(), -1, true, _pair->sender);
        QTRY_VERIFY(middleChanged());
        QVERIFY(_pair->receiver->indications.isEmpty());
        QVERIFY(passTimeouts(50));
        changed.clear();
        QTRY_COMPARE(_pair->receiver->indications.size(), 1);
        QTRY_VERIFY(middleChanged());
    }

    void aMovedNodeLeavesNoStaleEntryOfItsLink_data()
    {
        QTest::addColumn<bool>("moveByPieces");
        QTest::newRow("placed anew") << false;
        QTest::newRow("dragged") << true;
    }

    void aMovedNodeLeavesNoStaleEntryOfItsLink()
    {
        QFETCH(bool, moveByPieces);
        network()->setSceneRect(-2000, -2000, 4000, 4000);
        TestAccess::strokeWidth(*_pair->link) = 4.0;
        _pair->sender->setPos(-1800, -1800);
        _pair->receiver->setPos(-900, -900);
        const QRectF oldPlace(-1400, -1400, 100, 100);
        QVERIFY(network()->items(oldPlace).contains(_pair->link));  // the scene knows its place now

        if (moveByPieces) {
            for (int i = 0; i < 90; ++i)
                _pair->sender->moveBy(40, 40);
        } else {
            _pair->sender->setPos(1800, 1800);
        }
        QVERIFY(!network()->items(oldPlace).contains(_pair->link));
        QVERIFY(network()->items(QRectF(1000, 1000, 100, 100)).contains(_pair->link));

        _pair->sender->setPos(1800, -1800);
        network()->clearSelection();
        _pair->link->setSelected(true);
        network()->deleteSelectedNetworkItem();
        QCOMPARE(_pair->sender->connectionCount(), 0);
        QVERIFY(network()->items(oldPlace).isEmpty());
        QVERIFY(network()->items(QRectF(1000, 1000, 100, 100)).isEmpty());
        QCOMPARE(network()->items(network()->sceneRect()).size(), 2);
    }

    void anExchangedNodeLeavesNoStaleEntry()
    {
        network()->setSceneRect(-2000, -2000, 4000, 4000);
        RecordingNode* third = addNode(3);
        TestAccess::strokeWidth(*_pair->link) = 4.0;
        _pair->sender->setPos(-1800, -1800);
        _pair->receiver->setPos(-900, -900);
        third->setPos(1800, 1800);
        const QRectF oldPlace(-1000, -1000, 20, 20);
        QVERIFY(network()->items(oldPlace).contains(_pair->link));

        _pair->link->setNode(0, third);
        QVERIFY(network()->items(QRectF(1000, 1000, 100, 100)).contains(_pair->link));
        QVERIFY(!network()->items(QRectF(-1500, -1500, 100, 100)).contains(_pair->link));
        _pair->link->setNode(0, _pair->sender);
        network()->removeItem(_pair->link);
        delete _pair->link;
        QVERIFY(network()->items(QRectF(-1500, -1500, 100, 100)).isEmpty());
        QVERIFY(network()->items(QRectF(1000, 1000, 100, 100)).isEmpty());
    }

private:
    std::unique_ptr<LinkedPair> _pair;
};

QTEST_MAIN(TestConnection)
#include "tst_connection.moc"
