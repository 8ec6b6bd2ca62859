#include "nodes/node.h"

#include "testhelpers.h"

#include <QElapsedTimer>
#include <QEventLoop>
#include <QGraphicsView>
#include <QLoggingCategory>
#include <QPointer>
#include <QSignalSpy>

#include <memory>

using namespace TestHelpers;

namespace {

constexpr int connected = 1;  // bits of the node's state
constexpr int disabled = 2;
constexpr int transmitting = 4;
constexpr int receiving = 8;
constexpr int flashDuration = 500;  // ms
constexpr qint64 generous = 2000;   // ms that a busy machine may be late
constexpr int farAway = 100000;     // ms, longer than any test runs
constexpr qint64 twoTo31 = 2147483648;

/// A signal's two numbers of each emission.
QList<QPair<int, int>> emissions(const QSignalSpy& spy)
{
    QList<QPair<int, int>> result;
    for (const QList<QVariant>& arguments : spy)
        result.append({arguments.at(0).toInt(), arguments.at(1).toInt()});
    return result;
}

bool hasChanged(const QSignalSpy& changed, const QPointF& place)
{
    for (const QList<QVariant>& arguments : changed) {
        for (const QRectF& area : arguments.first().value<QList<QRectF>>()) {
            if (area.contains(place))
                return true;
        }
    }
    return false;
}

/// A node that knows how it was painted last.
class PaintedNode : public Node
{
public:
    PaintedNode()
        : Node(nodeAddress(7))
    {
    }

    void paint(QPainter* painter, const QStyleOptionGraphicsItem* option, QWidget* widget) override
    {
        paintedFlags = TestAccess::flags(*this);
        Node::paint(painter, option, widget);
    }

    int paintedFlags = -1;
};

}  // namespace

class TestNode : public QObject
{
    Q_OBJECT

private slots:
    /// The "*" of corrupted bits would fill pages.
    void initTestCase() { QLoggingCategory::setFilterRules(QStringLiteral("default.debug=false")); }

    void init()
    {
        _pair = std::make_unique<LinkedPair>();
        qsrand(1);
    }

    void cleanup() { _pair.reset(); }

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
        QTest::newRow("connected") << connected << true;
        QTest::newRow("disabled") << disabled << false;
        QTest::newRow("connected but disabled") << (connected | disabled) << false;
        QTest::newRow("connected with traffic") << (connected | transmitting | receiving) << true;
        QTest::newRow("traffic alone") << (transmitting | receiving) << false;
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
        const int all = connected | disabled | transmitting | receiving;
        QTest::newRow("connects") << true << false << 0 << connected;
        QTest::newRow("connects what is disabled") << true << false << disabled << (connected | disabled);
        QTest::newRow("disconnects") << false << false << all << (all & ~connected);
        QTest::newRow("enables") << true << true << all << (all & ~disabled);
        QTest::newRow("enabling connects nothing") << true << true << disabled << 0;
        QTest::newRow("disables") << false << true << connected << (connected | disabled);
        QTest::newRow("disables again") << false << true << disabled << disabled;
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
        QTRY_VERIFY(hasChanged(changed, node->pos()));
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
        QTRY_VERIFY(hasChanged(changed, QPointF(900, 900)));

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

    void anInactiveNodeFlashesButSendsNothing_data()
    {
        QTest::addColumn<int>("flags");
        QTest::newRow("not connected") << 0;
        QTest::newRow("connected but disabled") << (connected | disabled);
        QTest::newRow("disabled") << disabled;
    }

    void anInactiveNodeFlashesButSendsNothing()
    {
        QFETCH(int, flags);
        requestConfirmations(_pair->sender, 1);
        TestAccess::flags(*_pair->sender) = flags;
        QSignalSpy statistics(_pair->sender, SIGNAL(sendStatisticsChanged(int,int)));
        _pair->sender->dataRequest(_pair->unicast());
        _pair->sender->dataRequest(_pair->broadcast());
        _pair->sender->dataRequest(_pair->toNobody());
        QCOMPARE(TestAccess::flags(*_pair->sender), flags | transmitting);
        QCOMPARE(statistics.count(), 0);
        QCOMPARE(_pair->sender->sendFramesCount(), qint64{0});
        QCOMPARE(_pair->sender->sendBytesCount(), qint64{0});
        QVERIFY(TestAccess::framesInFlight(*_pair->link).isEmpty());
        QVERIFY(passTimeouts(2));
        QVERIFY(_pair->sender->log.isEmpty());
        QVERIFY(_pair->receiver->log.isEmpty());
    }

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
        QCOMPARE(TestAccess::flags(node), receiving);
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

    void aLoneNodesBroadcastIsConfirmedAtOnce()
    {
        delete _pair->link;
        requestConfirmations(_pair->sender, 1);
        _pair->sender->dataRequest(_pair->broadcast());
        QCOMPARE(_pair->sender->confirmations, QList<bool>{true});
        QCOMPARE(_pair->sender->sendFramesCount(), qint64{1});
        QCOMPARE(_pair->sender->sendBytesCount(), qint64{smallestFrame});
        QVERIFY(passTimeouts(5));
        QCOMPARE(_pair->sender->confirmations.size(), 1);
    }

    void aLoneNodesBroadcastWithoutConfirmationIsOnlyCounted()
    {
        delete _pair->link;
        _pair->sender->dataRequest(_pair->broadcast());
        QVERIFY(passTimeouts(1));
        QVERIFY(_pair->sender->log.isEmpty());
        QCOMPARE(_pair->sender->sendFramesCount(), qint64{1});
    }

    void aLoneNodesUnicastIsReportedLost()
    {
        delete _pair->link;
        requestConfirmations(_pair->sender, 5);
        _pair->sender->dataRequest(_pair->unicast());
        QVERIFY(_pair->sender->log.isEmpty());
        QTRY_COMPARE(_pair->sender->confirmations, QList<bool>{false});
        QVERIFY(passTimeouts(10));
        QCOMPARE(_pair->sender->confirmations.size(), 1);
    }

    void aMalformedFrameIsReportedLost()
    {
        requestConfirmations(_pair->sender, 1);
        _pair->sender->dataRequest(QByteArray(smallestFrame - 1, '\xFF'));
        _pair->sender->dataRequest(QByteArray(largestFrame + 1, '\xFF'));
        QCOMPARE(_pair->sender->sendFramesCount(), qint64{2});
        QTRY_COMPARE(_pair->sender->confirmations, (QList<bool>{false, false}));
    }

    void theLossComesAfterTheTimeout_data()
    {
        QTest::addColumn<int>("own");
        QTest::addColumn<int>("inherited");
        QTest::addColumn<int>("expected");
        QTest::newRow("own") << 60 << farAway << 60;
        QTest::newRow("smallest own") << 1 << farAway << 1;
        QTest::newRow("own of zero is undecided") << 0 << 50 << 50;
        QTest::newRow("own of -1 is undecided") << -1 << 40 << 40;
        QTest::newRow("any negative is undecided") << smallestInt << 30 << 30;
    }

    void theLossComesAfterTheTimeout()
    {
        QFETCH(int, own);
        QFETCH(int, inherited);
        QFETCH(int, expected);
        requestConfirmations(_pair->sender, own);
        TestAccess::acknowledgeTimeout(*network()->defaultNode()) = inherited;
        QElapsedTimer clock;
        qint64 elapsed = -1;
        _pair->sender->onConfirmation = [&] { elapsed = clock.elapsed(); };
        clock.start();
        _pair->sender->dataRequest(_pair->toNobody());
        QTRY_COMPARE(_pair->sender->confirmations, QList<bool>{false});
        QVERIFY(elapsed >= expected);
        QVERIFY(elapsed < expected + generous);
    }

    void withoutAnyTimeoutTheLossComesOnTheNextPass()
    {
        requestConfirmations(_pair->sender, 0);
        _pair->sender->dataRequest(_pair->toNobody());
        QVERIFY(_pair->sender->log.isEmpty());
        QVERIFY(passTimeouts());
        QCOMPARE(_pair->sender->confirmations, QList<bool>{false});

        TestAccess::acknowledgeTimeout(*network()->defaultNode()) = smallestInt;
        _pair->sender->dataRequest(_pair->toNobody());
        QVERIFY(passTimeouts());
        QCOMPARE(_pair->sender->confirmations.size(), 2);
    }

    void confirmationsAreWantedAsSet_data()
    {
        QTest::addColumn<Qt::CheckState>("own");
        QTest::addColumn<Qt::CheckState>("inherited");
        QTest::addColumn<bool>("wanted");
        QTest::newRow("own on") << Qt::Checked << Qt::Unchecked << true;
        QTest::newRow("own off") << Qt::Unchecked << Qt::Checked << false;
        QTest::newRow("inherited on") << Qt::PartiallyChecked << Qt::Checked << true;
        QTest::newRow("inherited off") << Qt::PartiallyChecked << Qt::Unchecked << false;
        QTest::newRow("undecided everywhere") << Qt::PartiallyChecked << Qt::PartiallyChecked << false;
    }

    void confirmationsAreWantedAsSet()
    {
        QFETCH(Qt::CheckState, own);
        QFETCH(Qt::CheckState, inherited);
        QFETCH(bool, wanted);
        TestAccess::framesAcknowledged(*_pair->sender) = own;
        TestAccess::framesAcknowledged(*network()->defaultNode()) = inherited;
        _pair->sender->dataRequest(_pair->unicast());
        QTRY_COMPARE(_pair->receiver->indications.size(), 1);
        QVERIFY(passTimeouts());
        _pair->sender->dataRequest(_pair->toNobody());
        QVERIFY(passTimeouts());
        const QStringList both{QStringLiteral("confirmed"), QStringLiteral("lost")};
        QCOMPARE(_pair->sender->log, wanted ? both : QStringList());

        _pair->sender->log.clear();
        _pair->sender->_dataConfirmation(true);
        _pair->sender->_dataConfirmation(false);
        QCOMPARE(_pair->sender->log, wanted ? both : QStringList());
    }

    void withoutAcknowledgementNothingIsEverConfirmed()
    {
        TestAccess::framesAcknowledged(*_pair->sender) = Qt::Unchecked;
        TestAccess::acknowledgeTimeout(*_pair->sender) = 1;
        _pair->sender->dataRequest(_pair->unicast());
        _pair->sender->dataRequest(_pair->broadcast());
        _pair->sender->dataRequest(_pair->toNobody());
        QTRY_COMPARE(_pair->receiver->indications.size(), 2);
        QVERIFY(passTimeouts(5));
        delete _pair->link;
        _pair->sender->dataRequest(_pair->broadcast());
        _pair->sender->dataRequest(_pair->unicast());
        QVERIFY(passTimeouts(5));
        QVERIFY(_pair->sender->log.isEmpty());
    }

    void aLossIsReportedAfterAcknowledgementWasSwitchedOff()
    {
        requestConfirmations(_pair->sender, 5);
        _pair->sender->dataRequest(_pair->toNobody());
        TestAccess::framesAcknowledged(*_pair->sender) = Qt::Unchecked;
        QTRY_COMPARE(_pair->sender->confirmations, QList<bool>{false});
    }

    void aConfirmationOnTheWayIsDroppedWhenSwitchedOff()
    {
        requestConfirmations(_pair->sender, 5000);
        _pair->sender->dataRequest(_pair->unicast());
        TestAccess::framesAcknowledged(*_pair->sender) = Qt::Unchecked;
        QTRY_COMPARE(_pair->receiver->indications.size(), 1);
        QVERIFY(passTimeouts());
        QVERIFY(_pair->sender->log.isEmpty());
    }

    void frameLostReportsWithoutAsking()
    {
        RecordingNode node;
        QVERIFY(QMetaObject::invokeMethod(&node, "frameLost"));
        QCOMPARE(node.confirmations, QList<bool>{false});
    }

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

    void theTimeoutIsTheLinksDeadlineOnlyWhenConfirmationsAreWanted()
    {
        TestAccess::delay(*_pair->link) = 5;
        TestAccess::acknowledgeTimeout(*_pair->sender) = 4;
        const auto isInTime = [this] {
            _pair->sender->dataRequest(_pair->unicast());
            return TestAccess::framesInFlight(*_pair->link).last().wasDelivered(true);
        };
        QVERIFY(isInTime());
        TestAccess::framesAcknowledged(*_pair->sender) = Qt::Checked;
        QVERIFY(!isInTime());
        TestAccess::acknowledgeTimeout(*_pair->sender) = 5;
        QVERIFY(isInTime());
        TestAccess::acknowledgeTimeout(*_pair->sender) = 0;  // the default node's: no time at all
        QVERIFY(!isInTime());
    }

    void oneDeliveringLinkIsEnough_data()
    {
        QTest::addColumn<bool>("delivererIsLast");
        QTest::newRow("first") << false;
        QTest::newRow("last") << true;
    }

    void oneDeliveringLinkIsEnough()
    {
        QFETCH(bool, delivererIsLast);
        addLink(_pair->sender, addNode(3));
        requestConfirmations(_pair->sender, 5);
        _pair->sender->dataRequest(frameBytes(nodeAddress(delivererIsLast ? 3 : 2), nodeAddress(1)));
        QTRY_COMPARE(_pair->sender->confirmations, QList<bool>{true});
        QVERIFY(passTimeouts(10));
        QCOMPARE(_pair->sender->confirmations.size(), 1);
    }

    void aFrameThatNoLinkDeliversIsLost()
    {
        Connection* second = addLink(_pair->sender, addNode(3));
        TestAccess::broken(*second) = true;
        _pair->receiver->setActive(false, true);
        requestConfirmations(_pair->sender, 5);
        _pair->sender->dataRequest(_pair->unicast());
        QTRY_COMPARE(_pair->sender->confirmations, QList<bool>{false});
    }

    /// Two outcomes for one send, on purpose: the link confirms a broadcast without asking whether it
    /// arrives.
    void anUndeliveredBroadcastIsConfirmedAndLost()
    {
        TestAccess::reliability(*_pair->link) = 0.0;
        TestAccess::errorDetection(*_pair->link) = 1.0;
        requestConfirmations(_pair->sender, 5);
        _pair->sender->dataRequest(_pair->broadcast());
        QCOMPARE(_pair->sender->confirmations, QList<bool>{true});
        QTRY_COMPARE(_pair->sender->confirmations, (QList<bool>{true, false}));
        QVERIFY(_pair->receiver->log.isEmpty());
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

    void flashesEndAfterHalfASecond_data()
    {
        QTest::addColumn<bool>("transmit");
        QTest::newRow("transmit") << true;
        QTest::newRow("receive") << false;
    }

    void flashesEndAfterHalfASecond()
    {
        QFETCH(bool, transmit);
        const int bit = transmit ? transmitting : receiving;
        RecordingNode* node = _pair->sender;
        QElapsedTimer clock;
        clock.start();
        if (transmit)
            node->dataRequest(_pair->toNobody());
        else
            node->_dataIndication("abc");
        QCOMPARE(TestAccess::flags(*node), connected | bit);
        QTRY_COMPARE_WITH_TIMEOUT(TestAccess::flags(*node), connected, flashDuration + int(generous));
        QVERIFY(clock.elapsed() >= flashDuration);
    }

    void theFirstTimerClearsTheFlash_data() { flashesEndAfterHalfASecond_data(); }

    void theFirstTimerClearsTheFlash()
    {
        QFETCH(bool, transmit);
        const int bit = transmit ? transmitting : receiving;
        RecordingNode* node = _pair->sender;
        const auto traffic = [&] {
            if (transmit)
                node->dataRequest(_pair->toNobody());
            else
                node->_dataIndication("abc");
        };
        QElapsedTimer clock;
        clock.start();
        traffic();
        QVERIFY(passTimeouts(flashDuration / 2));
        const qint64 second = clock.elapsed();
        if (second >= flashDuration)
            QSKIP("the machine is too slow to tell the two flashes apart");
        traffic();
        QTRY_VERIFY(!(TestAccess::flags(*node) & bit));
        QVERIFY(clock.elapsed() >= flashDuration);

        // The second timer still runs, and clears what a third frame sets
        if (clock.elapsed() >= second + flashDuration)
            QSKIP("the machine is too slow to tell the two flashes apart");
        const qint64 third = clock.elapsed();
        traffic();
        QVERIFY(TestAccess::flags(*node) & bit);
        QTRY_VERIFY(!(TestAccess::flags(*node) & bit));
        QVERIFY(clock.elapsed() >= second + flashDuration);
        if (clock.elapsed() >= third + flashDuration)
            QSKIP("the machine is too slow to tell which timer it was");
    }

    void framesSoonAfterOneAnotherHaveTimersOfTheirOwn_data() { flashesEndAfterHalfASecond_data(); }

    /// Timeouts run in the order of their due times, however busy the machine is: a timeout of the test's
    /// own, due 2 ms behind a frame's, looks at what that one has left.
    void framesSoonAfterOneAnotherHaveTimersOfTheirOwn()
    {
        QFETCH(bool, transmit);
        RecordingNode* node = _pair->sender;
        const auto traffic = [&] {
            if (transmit)
                node->dataRequest(_pair->toNobody());
            else
                node->_dataIndication("abc");
        };
        int flagsAfterFirst = -1;
        int flagsAfterSecond = -1;
        QEventLoop loop;  // of its own, since QTest's functions look at the timers every 10 ms only
        Timeouts behindFirst([&] {
            flagsAfterFirst = TestAccess::flags(*node);
            traffic();  // the flash that it begins is the second frame's to end
        });
        Timeouts behindSecond([&] {
            flagsAfterSecond = TestAccess::flags(*node);
            loop.quit();
        });
        Timeouts second([&] {
            traffic();
            behindSecond.start(flashDuration + 2);
        });
        traffic();
        behindFirst.start(flashDuration + 2);
        second.start(6);
        loop.exec();
        QCOMPARE(flagsAfterFirst, connected);
        QCOMPARE(flagsAfterSecond, connected);
    }

    void flashesRepaintTheNode()
    {
        _pair->sender->setPos(500, 500);
        QSignalSpy changed(network(), SIGNAL(changed(QList<QRectF>)));
        QTRY_VERIFY(changed.count() > 0);
        QVERIFY(passTimeouts(50));
        changed.clear();
        _pair->sender->_dataIndication("abc");
        QTRY_VERIFY(hasChanged(changed, _pair->sender->pos()));
        QVERIFY(passTimeouts(50));
        changed.clear();
        QTRY_VERIFY(hasChanged(changed, _pair->sender->pos()));  // the end of the flash
    }

    void flashesRepaintAViewThatComesLate()
    {
        auto* node = new PaintedNode;
        network()->addItem(node);
        node->dataRequest("abc");
        QGraphicsView view(network());
        view.show();
        QTRY_VERIFY(node->paintedFlags >= 0);
        QTRY_COMPARE(node->paintedFlags, 0);  // the end of the flash that had begun before
        node->dataRequest("abc");
        QTRY_COMPARE(node->paintedFlags, transmitting);
    }

    /// What had been asked for before would be told to a listener that comes before the toolkit has seen to
    /// it.
    void flashesAskForNoRepaintWhileNobodyWatches()
    {
        _pair->sender->setPos(500, 500);
        QVERIFY(passTimeouts(50));
        _pair->sender->_dataIndication("abc");
        QSignalSpy changed(network(), SIGNAL(changed(QList<QRectF>)));
        QVERIFY(passTimeouts(50));
        QVERIFY(!hasChanged(changed, _pair->sender->pos()));
    }

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

    void aDeletedNodeLosesItsTimers()
    {
        requestConfirmations(_pair->sender, 5);
        _pair->sender->dataRequest(_pair->toNobody());
        _pair->sender->_dataIndication("abc");
        delete _pair->sender;
        QVERIFY(passTimeouts(flashDuration + 5));  // nothing of the node is touched
        QCOMPARE(network()->items().size(), 1);
    }

    void aNodeMayDeleteItselfWhenAFrameIsLost()
    {
        const QPointer<RecordingNode> sender = _pair->sender;
        requestConfirmations(sender, 5);
        sender->onConfirmation = [&sender] { delete sender.data(); };
        sender->dataRequest(_pair->toNobody());
        sender->dataRequest(_pair->toNobody());
        QTRY_VERIFY(!sender);
        QVERIFY(passTimeouts(10));
        QVERIFY(_pair->receiver->log.isEmpty());
    }

    void manyPendingLossesAllArrive()
    {
        constexpr int frameCount = 50000;
        capture()->setEnabled(false);
        requestConfirmations(_pair->sender, 300);
        for (int i = 0; i < frameCount; ++i)
            _pair->sender->dataRequest(_pair->toNobody());
        QTRY_COMPARE_WITH_TIMEOUT(_pair->sender->confirmations.size(), frameCount, 60000);
        QVERIFY(!_pair->sender->confirmations.contains(true));
        QCOMPARE(_pair->sender->sendFramesCount(), qint64{frameCount});
    }

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
