#include "nodes/node.h"

#include "testhelpers.h"

#include <QPointer>
#include <QSignalSpy>

#include <functional>
#include <memory>

using namespace TestHelpers;

namespace {

constexpr qint64 twoTo31 = 2147483648;

/// Lists the two numbers of each emission.
QList<QPair<int, int>> emissions(const QSignalSpy& spy)
{
    QList<QPair<int, int>> result;
    for (const QList<QVariant>& arguments : spy)
        result.append({arguments.at(0).toInt(), arguments.at(1).toInt()});
    return result;
}

}  // namespace

class TestNode : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        _pair = std::make_unique<LinkedPair>();
        qsrand(1);
    }

    void cleanup() { _pair.reset(); }

    // Identity and settings

    void aNewNodeHasItsAddressOrItsName()
    {
        const Node byAddress(nodeAddress(5));
        QCOMPARE(byAddress.address(), nodeAddress(5));
        QCOMPARE(byAddress.name(), QString());
        const Node byName(QStringLiteral("Ann"));
        QCOMPARE(byName.name(), QStringLiteral("Ann"));
        QCOMPARE(byName.address(), QByteArray());
    }

    void aNewNodeLeavesAllSettingsUndecided()
    {
        for (Node* node : {new Node(nodeAddress(5)), new Node(QStringLiteral("Ann"))}) {
            const std::unique_ptr<Node> owner(node);
            QCOMPARE(TestAccess::flags(*node), 0);
            QVERIFY(!node->active());
            QCOMPARE(TestAccess::promiscuousMode(*node), Qt::PartiallyChecked);
            QCOMPARE(node->connectionCount(), 0);
            QCOMPARE(node->sendFramesCount(), qint64{0});
            QCOMPARE(node->sendBytesCount(), qint64{0});
            QCOMPARE(node->receivedFramesCount(), qint64{0});
            QCOMPARE(node->receivedBytesCount(), qint64{0});
            QCOMPARE(TestAccess::framesAcknowledged(*node), Qt::PartiallyChecked);
            QCOMPARE(TestAccess::acknowledgeTimeout(*node), -1);
            QVERIFY(!TestAccess::inactiveColor(*node).isValid());
            QVERIFY(!TestAccess::activeColor(*node).isValid());
            QVERIFY(!TestAccess::txColor(*node).isValid());
            QVERIFY(!TestAccess::rxColor(*node).isValid());
            QCOMPARE(TestAccess::strokeWidth(*node), -1.0);
            QCOMPARE(TestAccess::showName(*node), Qt::PartiallyChecked);
            QCOMPARE(TestAccess::showAddress(*node), Qt::PartiallyChecked);
            QCOMPARE(TestAccess::showConnectionCount(*node), Qt::PartiallyChecked);
            QVERIFY(TestAccess::widthForText(*node) > 0);
        }
    }

    void aNewNodeIsASelectableMovableItemAboveTheLinks()
    {
        QCOMPARE(_pair->sender->zValue(), 2.0);
        QVERIFY(_pair->sender->flags() & QGraphicsItem::ItemIsSelectable);
        QVERIFY(_pair->sender->flags() & QGraphicsItem::ItemIsMovable);
    }

    void aPlainNodeTellsItsKind()
    {
        const Node node{QByteArray()};
        QCOMPARE(node.type(), 65536);
        QCOMPARE(node.nodeType(), -1);
        QCOMPARE(network()->defaultNode()->nodeType(), -1);
    }

    void thePropertiesWidgetHasNoParent()
    {
        const std::unique_ptr<QWidget> first(_pair->sender->propertiesWidget());
        const std::unique_ptr<QWidget> second(_pair->sender->propertiesWidget());
        QVERIFY(first && !first->parent());
        QVERIFY(first != second);
    }

    void connectedAndNotDisabledIsActive_data()
    {
        QTest::addColumn<int>("flags");
        QTest::addColumn<bool>("active");
        QTest::newRow("neither") << 0 << false;
        QTest::newRow("connected") << connectedBit << true;
        QTest::newRow("disabled") << disabledBit << false;
        QTest::newRow("connected but disabled") << (connectedBit | disabledBit) << false;
        QTest::newRow("connected with traffic") << (connectedBit | transmittingBit | receivingBit) << true;
        QTest::newRow("traffic alone") << (transmittingBit | receivingBit) << false;
    }

    void connectedAndNotDisabledIsActive()
    {
        QFETCH(int, flags);
        QFETCH(bool, active);
        TestAccess::flags(*_pair->sender) = flags;
        QCOMPARE(_pair->sender->active(), active);
    }

    void settingActiveSwitchesTheMeantBitOnly_data()
    {
        QTest::addColumn<bool>("active");
        QTest::addColumn<bool>("disabling");
        QTest::addColumn<int>("before");
        QTest::addColumn<int>("after");
        const int all = connectedBit | disabledBit | transmittingBit | receivingBit;
        QTest::newRow("connects") << true << false << 0 << connectedBit;
        QTest::newRow("connects what is disabled")
            << true << false << disabledBit << (connectedBit | disabledBit);
        QTest::newRow("disconnects") << false << false << all << (all & ~connectedBit);
        QTest::newRow("enables") << true << true << all << (all & ~disabledBit);
        QTest::newRow("enabling connects nothing") << true << true << disabledBit << 0;
        QTest::newRow("disables") << false << true << connectedBit << (connectedBit | disabledBit);
        QTest::newRow("disables again") << false << true << disabledBit << disabledBit;
    }

    void settingActiveSwitchesTheMeantBitOnly()
    {
        QFETCH(bool, active);
        QFETCH(bool, disabling);
        QFETCH(int, before);
        QFETCH(int, after);
        TestAccess::flags(*_pair->sender) = before;
        _pair->sender->setActive(active, disabling);
        QCOMPARE(TestAccess::flags(*_pair->sender), after);
    }

    void promiscuityFallsBackToTheDefaultNode_data()
    {
        QTest::addColumn<Qt::CheckState>("own");
        QTest::addColumn<Qt::CheckState>("inherited");
        QTest::addColumn<bool>("promiscuous");
        QTest::newRow("own on") << Qt::Checked << Qt::Unchecked << true;
        QTest::newRow("own off") << Qt::Unchecked << Qt::Checked << false;
        QTest::newRow("inherited on") << Qt::PartiallyChecked << Qt::Checked << true;
        QTest::newRow("inherited off") << Qt::PartiallyChecked << Qt::Unchecked << false;
        QTest::newRow("undecided everywhere") << Qt::PartiallyChecked << Qt::PartiallyChecked << false;
    }

    void promiscuityFallsBackToTheDefaultNode()
    {
        QFETCH(Qt::CheckState, own);
        QFETCH(Qt::CheckState, inherited);
        QFETCH(bool, promiscuous);
        TestAccess::promiscuousMode(*_pair->sender) = own;
        TestAccess::promiscuousMode(*network()->defaultNode()) = inherited;
        QCOMPARE(_pair->sender->isInPromiscuousMode(), promiscuous);
    }

    // Links

    void connectionsAreKeptInOrderOfAttachment()
    {
        Connection* second = addLink(addNode(3), _pair->sender);
        Connection* third = addLink(_pair->sender, addNode(4));
        QCOMPARE(_pair->sender->connections(), (QList<Connection*>{_pair->link, second, third}));
        QCOMPARE(_pair->sender->connectionCount(), 3);
    }

    void aConnectionAddedTwiceIsHeldOnce()
    {
        Connection* second = addLink(_pair->sender, addNode(3));
        _pair->sender->addConnection(_pair->link);
        QCOMPARE(_pair->sender->connections(), (QList<Connection*>{_pair->link, second}));
        Connection loop(_pair->sender, _pair->sender);
        QCOMPARE(_pair->sender->connectionCount(), 3);
    }

    void aRemovedConnectionIsForgotten()
    {
        Connection* second = addLink(_pair->sender, addNode(3));
        _pair->sender->removeConnection(_pair->link);
        QCOMPARE(_pair->sender->connections(), QList<Connection*>{second});
        _pair->sender->removeConnection(_pair->link);
        QCOMPARE(_pair->sender->connectionCount(), 1);
        _pair->sender->addConnection(_pair->link);  // so that it is deleted with the node
    }

    // Repaints and labels

    void aNodesOwnChangesRepaintIt_data()
    {
        QTest::addColumn<int>("change");
        QTest::newRow("address") << 0;
        QTest::newRow("inactive colour") << 1;
        QTest::newRow("active colour") << 2;
        QTest::newRow("disabled") << 3;
        QTest::newRow("connection added") << 4;
        QTest::newRow("connection removed") << 5;
    }

    void aNodesOwnChangesRepaintIt()
    {
        QFETCH(int, change);
        RecordingNode* node = _pair->sender;
        const std::function<void()> changes[] = {
            [node] { node->setAddress(nodeAddress(7)); },       [node] { node->setInactiveColor(Qt::red); },
            [node] { node->setActiveColor(Qt::red); },          [node] { node->setActive(false, true); },
            [node, this] { node->addConnection(_pair->link); }, [node] { node->removeConnection(nullptr); },
        };
        node->setPos(500, 500);
        QSignalSpy changed(network(), SIGNAL(changed(QList<QRectF>)));
        QTRY_VERIFY(changed.count() > 0);
        changed.clear();
        changes[change]();
        QTRY_VERIFY(repaints(changed, node->pos()) > 0);
    }

    void trafficColoursDoNotRepaint()
    {
        QSignalSpy changed(network(), SIGNAL(changed(QList<QRectF>)));
        QTRY_VERIFY(changed.count() > 0);
        changed.clear();
        _pair->sender->setTxColor(Qt::red);
        _pair->sender->setRxColor(Qt::blue);
        QVERIFY(passTimeouts(20));
        QCOMPARE(changed.count(), 0);
        QCOMPARE(TestAccess::txColor(*_pair->sender), QColor(Qt::red));
        QCOMPARE(TestAccess::rxColor(*_pair->sender), QColor(Qt::blue));
    }

    void aNewNameRepaintsTheWholeScene()
    {
        network()->setSceneRect(-1000, -1000, 2000, 2000);
        QSignalSpy changed(network(), SIGNAL(changed(QList<QRectF>)));
        QTRY_VERIFY(changed.count() > 0);
        changed.clear();
        _pair->sender->setName(QStringLiteral("Ann"));
        QCOMPARE(_pair->sender->name(), QStringLiteral("Ann"));
        QTRY_VERIFY(repaints(changed, QPointF(900, 900)) > 0);

        Node outside{QByteArray()};
        outside.setName(QStringLiteral("Bob"));
        QCOMPARE(outside.name(), QStringLiteral("Bob"));
    }

    void labelsDecideOnTheTextWidth()
    {
        Node node{QByteArray()};
        QCOMPARE(TestAccess::widthForText(node), 0);
        node.setName(QString(40, QLatin1Char('W')));
        const int width = TestAccess::widthForText(node);
        QVERIFY(width > 0);
        QCOMPARE(node.boundingRect().width(), qreal(qMax(48, width)));
        node.setAddress(QByteArray(100, '\xAB'));
        QVERIFY(TestAccess::widthForText(node) > width);
        node.setAddress(QByteArray());
        QCOMPARE(TestAccess::widthForText(node), width);
        node.setName(QString());
        QCOMPARE(node.boundingRect(), QRectF(-24, -40, 48, 80));
    }

    void labelsAreCutButNotTheTexts()
    {
        constexpr int longest = 10000;  // characters
        const QString name(longest, QLatin1Char('W'));
        const QByteArray address(longest / 2, '\xAB');
        Node node(name);
        const int nameWidth = TestAccess::widthForText(node);
        node.setName(name + QLatin1Char('W'));
        QCOMPARE(TestAccess::widthForText(node), nameWidth);
        QCOMPARE(node.name().size(), longest + 1);
        node.setName(name.left(longest - 1));
        QVERIFY(TestAccess::widthForText(node) < nameWidth);

        node.setName(QString());
        node.setAddress(address);
        const int addressWidth = TestAccess::widthForText(node);
        node.setAddress(address + '\xAB');
        QCOMPARE(TestAccess::widthForText(node), addressWidth);
        QCOMPARE(node.address().size(), longest / 2 + 1);
        node.setAddress(address.left(longest / 2 - 1));
        QVERIFY(TestAccess::widthForText(node) < addressWidth);
    }

    // Counters

    void sendingCountsAndAnnounces()
    {
        QSignalSpy statistics(_pair->sender, SIGNAL(sendStatisticsChanged(int,int)));
        _pair->sender->dataRequest(_pair->unicast());
        _pair->sender->dataRequest(QByteArray("short"));  // refused by the link, but sent
        QCOMPARE(emissions(statistics), (QList<QPair<int, int>>{{1, 12}, {2, 17}}));
        QCOMPARE(_pair->sender->sendFramesCount(), qint64{2});
        QCOMPARE(_pair->sender->sendBytesCount(), qint64{17});
        QCOMPARE(_pair->sender->receivedFramesCount(), qint64{0});
    }

    void receivingCountsAnnouncesAndPassesOn()
    {
        RecordingNode node(nodeAddress(3));  // asks nobody: neither active nor with that address
        QSignalSpy statistics(&node, SIGNAL(receivedStatisticsChanged(int,int)));
        int announcedBefore = 0;
        node.onIndication = [&] { announcedBefore = statistics.count(); };
        node._dataIndication("abc");
        QCOMPARE(node.indications, QList<QByteArray>{"abc"});
        QCOMPARE(announcedBefore, 1);
        node._dataIndication(QByteArray());
        QCOMPARE(emissions(statistics), (QList<QPair<int, int>>{{1, 3}, {2, 3}}));
        QCOMPARE(node.receivedFramesCount(), qint64{2});
        QCOMPARE(node.receivedBytesCount(), qint64{3});
        QCOMPARE(TestAccess::flags(node), receivingBit);
        QCOMPARE(node.sendFramesCount(), qint64{0});
    }

    void countersAreAnnouncedTruncated_data()
    {
        QTest::addColumn<qint64>("frames");
        QTest::addColumn<qint64>("bytes");
        QTest::newRow("around 2^31") << twoTo31 - 1 << twoTo31 - 1;
        QTest::newRow("around 2^32") << 2 * twoTo31 - 1 << 2 * twoTo31 - 12;
        QTest::newRow("far above") << 1000 * twoTo31 + 7 << 5001 * twoTo31 + 8;
    }

    void countersAreAnnouncedTruncated()
    {
        QFETCH(qint64, frames);
        QFETCH(qint64, bytes);
        const auto truncated = [](qint64 value) { return static_cast<int>(static_cast<quint32>(value)); };
        const QList<QPair<int, int>> expected = {{truncated(frames + 1), truncated(bytes + smallestFrame)}};
        TestAccess::sendFrames(*_pair->sender) = frames;
        TestAccess::sendBytes(*_pair->sender) = bytes;
        TestAccess::receivedFrames(*_pair->receiver) = frames;
        TestAccess::receivedBytes(*_pair->receiver) = bytes;
        QSignalSpy sent(_pair->sender, SIGNAL(sendStatisticsChanged(int,int)));
        QSignalSpy received(_pair->receiver, SIGNAL(receivedStatisticsChanged(int,int)));
        _pair->sender->dataRequest(_pair->unicast());
        QTRY_COMPARE(received.count(), 1);
        QCOMPARE(emissions(sent), expected);
        QCOMPARE(emissions(received), expected);
        QCOMPARE(_pair->sender->sendFramesCount(), frames + 1);
        QCOMPARE(_pair->sender->sendBytesCount(), bytes + smallestFrame);
        QCOMPARE(_pair->receiver->receivedFramesCount(), frames + 1);
        QCOMPARE(_pair->receiver->receivedBytesCount(), bytes + smallestFrame);
    }

    void resettingClearsAndAnnouncesAllCounters()
    {
        TestAccess::sendFrames(*_pair->sender) = 1;
        TestAccess::sendBytes(*_pair->sender) = 2;
        TestAccess::receivedFrames(*_pair->sender) = 3;
        TestAccess::receivedBytes(*_pair->sender) = 4;
        QSignalSpy sent(_pair->sender, SIGNAL(sendStatisticsChanged(int,int)));
        QSignalSpy received(_pair->sender, SIGNAL(receivedStatisticsChanged(int,int)));
        _pair->sender->resetStatistics();
        QCOMPARE(_pair->sender->sendFramesCount(), qint64{0});
        QCOMPARE(_pair->sender->sendBytesCount(), qint64{0});
        QCOMPARE(_pair->sender->receivedFramesCount(), qint64{0});
        QCOMPARE(_pair->sender->receivedBytesCount(), qint64{0});
        QCOMPARE(emissions(sent), (QList<QPair<int, int>>{{0, 0}}));
        QCOMPARE(emissions(received), (QList<QPair<int, int>>{{0, 0}}));
    }

    void resettingWithoutTrafficAnnouncesToo()
    {
        QSignalSpy sent(_pair->sender, SIGNAL(sendStatisticsChanged(int,int)));
        QSignalSpy received(_pair->sender, SIGNAL(receivedStatisticsChanged(int,int)));
        _pair->sender->resetStatistics();
        QCOMPARE(sent.count(), 1);
        QCOMPARE(received.count(), 1);
    }

    // Frames

    void everyConnectionCarriesTheFrame()
    {
        RecordingNode* third = addNode(3);
        RecordingNode* fourth = addNode(4);
        QStringList order;
        _pair->receiver->onIndication = [&] { order.append(QStringLiteral("2")); };
        third->onIndication = [&] { order.append(QStringLiteral("3")); };
        fourth->onIndication = [&] { order.append(QStringLiteral("4")); };
        addLink(_pair->sender, fourth);
        addLink(third, _pair->sender);
        _pair->sender->dataRequest(_pair->broadcast());
        QTRY_COMPARE(order.size(), 3);
        QCOMPARE(order.join(QLatin1Char(' ')), QStringLiteral("2 4 3"));
        QCOMPARE(_pair->sender->sendFramesCount(), qint64{1});
        QVERIFY(_pair->sender->indications.isEmpty());
    }

    void aNodeMaySendFromItsIndication()
    {
        constexpr int rounds = 50;
        const QByteArray answer = frameBytes(nodeAddress(1), nodeAddress(2));
        _pair->receiver->onIndication = [&] { _pair->receiver->dataRequest(answer); };
        _pair->sender->onIndication = [&] {
            if (_pair->sender->indications.size() < rounds)
                _pair->sender->dataRequest(_pair->unicast());
        };
        _pair->sender->dataRequest(_pair->unicast());
        QTRY_COMPARE(_pair->sender->indications.size(), rounds);
        QCOMPARE(_pair->receiver->indications.size(), rounds);
    }

    // Deleting

    void deletingANodeDeletesItsLinks()
    {
        const QPointer<Connection> first = _pair->link;
        RecordingNode* third = addNode(3);
        const QPointer<Connection> second = addLink(third, _pair->sender);
        const QPointer<Connection> other = addLink(third, _pair->receiver);
        delete _pair->sender;
        QVERIFY(!first);
        QVERIFY(!second);
        QCOMPARE(_pair->receiver->connections(), QList<Connection*>{other.data()});
        QCOMPARE(third->connections(), QList<Connection*>{other.data()});
        QCOMPARE(network()->items().size(), 3);
    }

    // Places in the scene

    void aRenamedNodeLeavesNoStaleEntry_data()
    {
        QTest::addColumn<bool>("byName");
        QTest::newRow("name") << true;
        QTest::newRow("address") << false;
    }

    void aRenamedNodeLeavesNoStaleEntry()
    {
        QFETCH(bool, byName);
        network()->setSceneRect(-2000, -2000, 4000, 4000);
        _pair->receiver->setPos(1900, 1900);
        RecordingNode* node = _pair->sender;
        const auto setLabel = [&](int length) {
            if (byName)
                node->setName(QString(length, QLatin1Char('W')));
            else
                node->setAddress(QByteArray(length, '\xAB'));
        };
        setLabel(100);
        const QRectF atTheEdge(node->boundingRect().right() - 20, -10, 10, 20);
        QVERIFY(atTheEdge.left() > 200);
        QVERIFY(network()->items(atTheEdge, Qt::IntersectsItemBoundingRect).contains(node));
        setLabel(1);
        QVERIFY(!network()->items(atTheEdge, Qt::IntersectsItemBoundingRect).contains(node));

        node->setSelected(true);
        network()->deleteSelectedNetworkItem();
        QVERIFY(network()->items(atTheEdge, Qt::IntersectsItemBoundingRect).isEmpty());
        QCOMPARE(network()->items().size(), 1);
    }

    void aMovedNodeLeavesNoStaleEntry()
    {
        network()->setSceneRect(-2000, -2000, 4000, 4000);
        TestAccess::strokeWidth(*_pair->link) = 4.0;
        _pair->sender->setPos(-1800, -1800);
        _pair->receiver->setPos(-1000, -1000);
        const QRectF oldPlace(-1850, -1850, 900, 900);
        QCOMPARE(network()->items(oldPlace).size(), 3);
        _pair->sender->setPos(1800, -1800);
        _pair->receiver->setPos(1800, 1800);
        _pair->sender->setSelected(true);
        network()->deleteSelectedNetworkItem();
        QVERIFY(network()->items(oldPlace).isEmpty());
        QCOMPARE(network()->items(network()->sceneRect()), QList<QGraphicsItem*>{_pair->receiver});
    }

private:
    std::unique_ptr<LinkedPair> _pair;
};

QTEST_MAIN(TestNode)
#include "tst_node.moc"
