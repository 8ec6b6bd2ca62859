#include "nodes/tcpnode.h"

#include "tcphelpers.h"

#include <QtTest>

#include <algorithm>

using namespace TestHelpers;

namespace {

constexpr int burstSize = 300;   // frames
constexpr int muchInput = 2000;  // messages, more than a program may send before others have their turn

/// Makes frames of three bytes possible: destination, source, one byte of data.
void useOneByteAddresses()
{
    auto& parameters = TestAccess::parameters(*network());
    parameters.addressLength = 1;
    parameters.sourceAddressOffset = 1;
    parameters.broadcastAddress = hex("FF");
}

/// Builds frame messages from BB to AA, each of another length or letter. One read takes them all.
QByteArray burstOfFrames()
{
    QByteArray bytes;
    for (int i = 0; i < burstSize; ++i)
        bytes += message(1, hex("AABB") + QByteArray(1 + i % 200, static_cast<char>(i)));
    return bytes;
}

/// The settings that messages from the program can change.
struct NodeState {
    explicit NodeState(TcpNode& node)
        : name(node.name())
        , address(node.address())
        , activeColor(TestAccess::activeColor(node))
        , inactiveColor(TestAccess::inactiveColor(node))
        , flags(TestAccess::flags(node) & ~connectedBit)
        , sendFrames(node.sendFramesCount())
    {
    }

    bool operator==(const NodeState& other) const
    {
        return name == other.name && address == other.address && activeColor == other.activeColor
            && inactiveColor == other.inactiveColor && flags == other.flags && sendFrames == other.sendFrames;
    }

    QString name;
    QByteArray address;
    QColor activeColor;
    QColor inactiveColor;
    int flags;
    qint64 sendFrames;
};

}  // namespace

/// How a node understands what its program sends.
class TestMessagesFromProgram : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        qsrand(1);
        NetworkSimulation::newNetworkSimulation();
    }

    void cleanup()
    {
        NetworkSimulation::deleteNetworkSimulation();
        QVERIFY(TestAccess::allTcpNodes().isEmpty());
    }

    // Frames

    void aFrameIsSent()
    {
        AttachedNode attached;
        attached.program.send(hex("01 00000003 AABBCC"));

        QTRY_COMPARE(attached.node->sendFramesCount(), qint64{1});
        QCOMPARE(attached.node->sendBytesCount(), qint64{3});
        QVERIFY(attached.node->active());
    }

    void aLargeFrameIsReadWhole()
    {
        AttachedNode attached;
        const QByteArray frame(40000, 'x');
        attached.program.send(message(1, frame));

        QTRY_COMPARE(attached.node->sendFramesCount(), qint64{1});
        QCOMPARE(attached.node->sendBytesCount(), qint64{frame.size()});
        QVERIFY(attached.node->active());
    }

    void writesThatFollowOneAnotherAreAllRead()
    {
        AttachedNode attached;
        for (int count = 1; count <= 50; ++count) {
            attached.program.send(message(1, QByteArray(count, 'x')));
            QTRY_COMPARE(attached.node->sendFramesCount(), qint64{count});
        }
        QVERIFY(attached.node->active());
    }

    void aFrameReachesTheProgramAtTheOtherEnd()
    {
        useOneByteAddresses();
        AttachedNode left(hex("BB"));
        AttachedNode right(hex("AA"));
        network()->addItem(new Connection(left.node, right.node));
        left.program.send(hex("01 00000003 AABBCC"));

        QCOMPARE(right.program.receive(8), hex("01 00000003 AABBCC"));
    }

    void aBurstReachesTheProgramAtTheOtherEndInOrder()
    {
        useOneByteAddresses();
        AttachedNode left(hex("BB"));
        AttachedNode right(hex("AA"));
        network()->addItem(new Connection(left.node, right.node));
        const QByteArray burst = burstOfFrames();
        left.program.send(burst);

        QVERIFY(right.program.receive(burst.size()) == burst);
    }

    void confirmationsReachTheSender()
    {
        useOneByteAddresses();
        AttachedNode left(hex("BB"));
        AttachedNode right(hex("AA"));
        network()->addItem(new Connection(left.node, right.node));
        TestAccess::framesAcknowledged(*left.node) = Qt::Checked;
        TestAccess::acknowledgeTimeout(*left.node) = 50;
        left.program.send(hex("01 00000003 AABBCC"));
        QCOMPARE(left.program.receive(6), hex("02 00000001 01"));

        left.program.send(hex("01 00000003 DDBBCC"));  // an address that no node has
        QCOMPARE(left.program.receive(6), hex("02 00000001 02"));
    }

    void eachFrameOfABurstIsConfirmed()
    {
        useOneByteAddresses();
        AttachedNode left(hex("BB"));
        AttachedNode right(hex("AA"));
        network()->addItem(new Connection(left.node, right.node));
        TestAccess::framesAcknowledged(*left.node) = Qt::Checked;
        TestAccess::acknowledgeTimeout(*left.node) = patience;
        left.program.send(burstOfFrames());

        const QByteArray expected = hex("02 00000001 01").repeated(burstSize);
        QCOMPARE(left.program.receive(expected.size()), expected);
    }

    // Much input

    void aProgramThatSendsMuchLetsTheOthersIn()
    {
        AttachedNode busy;
        AttachedNode other;
        busy.program.send(hex("01 00000001 AA").repeated(muchInput));
        other.program.send(hex("01 00000001 BB"));
        QSignalSpy sendings(other.node, SIGNAL(sendStatisticsChanged(int, int)));

        QVERIFY(sendings.wait(patience));
        QVERIFY(busy.node->sendFramesCount() < muchInput);
        QTRY_COMPARE(busy.node->sendFramesCount(), qint64{muchInput});
    }

    void allThatAProgramSendsBeforeItGoesIsHandled()
    {
        AttachedNode attached;
        attached.program.send(hex("01 00000001 AA").repeated(muchInput));
        attached.program.close();

        QVERIFY(attached.waitUntilDetached());
        QCOMPARE(attached.node->sendFramesCount(), qint64{muchInput});
    }

    /// Leaves confirmations unread, which makes the kernel reset the connection.
    void allThatAProgramSendsBeforeItResetsTheConnectionIsHandled()
    {
        useOneByteAddresses();
        AttachedNode attached;
        TestAccess::framesAcknowledged(*attached.node) = Qt::Checked;
        attached.program.send(hex("01 00000002 FFBB").repeated(muchInput));
        attached.program.close();

        QVERIFY(attached.waitUntilDetached());
        QCOMPARE(attached.node->sendFramesCount(), qint64{muchInput});
    }

    void aProtocolErrorFarBehindClosesTheConnection()
    {
        AttachedNode attached;
        attached.program.send(hex("01 00000001 AA").repeated(muchInput) + hex("06") + hex("01 00000001 BB"));

        QVERIFY(attached.waitUntilDetached());
        QCOMPARE(attached.node->sendFramesCount(), qint64{muchInput});
    }

    /// Makes the socket stop reading before it lingers: it must read on, or its input holds it up for 3 s.
    void aProtocolErrorFarBehindLosesNothingWrittenBefore()
    {
        AttachedNode attached;
        attached.node->dataIndication(hex("AA"));
        attached.program.send(hex("01 00000001 AA").repeated(muchInput) + hex("06"));
        QVERIFY(attached.waitUntilDetached());
        attached.program.send(QByteArray(megabyte, 'x'));

        QCOMPARE(attached.program.receiveAll(), hex("01 00000001 AA"));
        QTRY_VERIFY_WITH_TIMEOUT(!attached.nodeEnd, 1000);
    }

    void largeMessagesLetTheOthersInSooner()
    {
        constexpr int size = 10000;
        constexpr int count = 9;
        AttachedNode busy;
        AttachedNode other;
        busy.program.send(message(1, QByteArray(size, 'x')).repeated(count));
        other.program.send(hex("01 00000001 BB"));
        QSignalSpy sendings(other.node, SIGNAL(sendStatisticsChanged(int, int)));

        QVERIFY(sendings.wait(patience));
        QVERIFY(busy.node->sendFramesCount() < count);
        QTRY_COMPARE(busy.node->sendFramesCount(), qint64{count});
    }

    void aNewProgramIsReadFromItsOwnBeginning()
    {
        AttachedNode attached;
        SocketPair other;
        QSignalSpy sendings(attached.node, SIGNAL(sendStatisticsChanged(int, int)));
        attached.program.send(hex("01 00000001 AA").repeated(muchInput));
        QVERIFY(sendings.wait(patience));
        attached.node->setSocket(other.nodeEnd);
        attached.node->resetStatistics();
        other.program.send(hex("01 00000003 AABBCC"));

        QTRY_COMPARE(attached.node->sendFramesCount(), qint64{1});
        QCOMPARE(attached.node->sendBytesCount(), qint64{3});
        QVERIFY(attached.node->active());
    }

    void nothingIsReadWhileAProgramHasMessagesToBeHandled()
    {
        AttachedNode attached;
        const QByteArray input = hex("01 00000001 AA").repeated(muchInput);
        qint64 mostUnread = 0;
        bool isFirst = true;
        connect(attached.node, &Node::sendStatisticsChanged, this, [&] {
            if (isFirst)
                attached.program.send(input);
            isFirst = false;
            mostUnread = std::max(mostUnread, attached.nodeEnd->bytesAvailable());
        });
        attached.program.send(input);

        QTRY_COMPARE(attached.node->sendFramesCount(), qint64{2} * muchInput);
        QCOMPARE(mostUnread, qint64{input.size()});
    }

    // Message by message

    void anEmptyFrameIsARequestToo_data()
    {
        QTest::addColumn<QByteArray>("bytes");

        addRow(hex("01 00000000"));
        addRow(hex("01 FFFFFFFF"));  // the length of a null array
    }

    void anEmptyFrameIsARequestToo()
    {
        QFETCH(QByteArray, bytes);

        AttachedNode attached;
        attached.program.send(bytes + hex("01 00000001 AA"));
        QTRY_COMPARE(attached.node->sendFramesCount(), qint64{2});
        QCOMPARE(attached.node->sendBytesCount(), qint64{1});
        QVERIFY(attached.node->active());
    }

    void messagesInOneWriteAreAllHandled()
    {
        AttachedNode attached;
        attached.program.send(hex("01 00000002 AABB") + control(5, "Left") + hex("04 00000002 0707")
                              + hex("01 00000001 CC") + control(3, QByteArray()));

        QTRY_COMPARE(TestAccess::flags(*attached.node) & disabledBit, disabledBit);
        QCOMPARE(attached.node->sendFramesCount(), qint64{2});
        QCOMPARE(attached.node->sendBytesCount(), qint64{3});
        QCOMPARE(attached.node->name(), QStringLiteral("Left"));
        QVERIFY(attached.node->socket());
    }

    // Node controls

    void anAddressOfTheSameLengthReplacesThePresentOne()
    {
        AttachedNode attached(hex("0102"));  // not the network's length
        attached.program.send(hex("03 00000003 01 0A0B"));

        QTRY_COMPARE(attached.node->address(), hex("0A0B"));
    }

    void aNodeWithoutAddressTakesOneOfTheNetworksLength()
    {
        AttachedNode attached;
        attached.program.send(hex("03 00000007 01 020000000005"));

        QTRY_COMPARE(attached.node->address(), hex("020000000005"));
    }

    void anAddressOfAnotherLengthIsReadAndDropped_data()
    {
        QTest::addColumn<QByteArray>("present");
        QTest::addColumn<QByteArray>("sent");

        QTest::newRow("shorter") << hex("0102") << hex("0A");
        QTest::newRow("longer") << hex("0102") << hex("0A0B0C");
        QTest::newRow("the network's") << hex("0102") << hex("020000000005");
        QTest::newRow("none") << hex("0102") << QByteArray();
        QTest::newRow("no address yet, too short") << QByteArray() << hex("0200000000");
        QTest::newRow("no address yet, too long") << QByteArray() << hex("02000000000506");
    }

    void anAddressOfAnotherLengthIsReadAndDropped()
    {
        QFETCH(QByteArray, present);
        QFETCH(QByteArray, sent);

        AttachedNode attached(present);
        attached.program.send(control(1, sent) + control(5, "next"));
        QTRY_COMPARE(attached.node->name(), QStringLiteral("next"));
        QCOMPARE(attached.node->address(), present);
        QVERIFY(attached.node->socket());
    }

    void theProgramDisablesAndEnablesTheNode()
    {
        AttachedNode attached;
        attached.program.send(hex("03 00000001 03"));
        QTRY_COMPARE(TestAccess::flags(*attached.node), connectedBit | disabledBit);
        QVERIFY(!attached.node->active());

        attached.program.send(hex("03 00000001 02"));
        QTRY_COMPARE(TestAccess::flags(*attached.node), connectedBit);
        QVERIFY(attached.node->active());
    }

    void dataAnnouncedBehindAnActivationIsTheNextMessage_data()
    {
        QTest::addColumn<int>("subType");

        QTest::newRow("enable") << 2;
        QTest::newRow("disable") << 3;
    }

    void dataAnnouncedBehindAnActivationIsTheNextMessage()
    {
        QFETCH(int, subType);

        AttachedNode attached;
        attached.program.send(control(subType, control(5, "data")));
        QTRY_COMPARE(attached.node->name(), QStringLiteral("data"));
        QVERIFY(attached.node->socket());
    }

    void anActivationOfLengthZeroIsUnderstood()
    {
        AttachedNode attached;
        attached.program.send(hex("03 00000000 03") + control(5, "next"));

        QTRY_COMPARE(attached.node->name(), QStringLiteral("next"));
        QCOMPARE(TestAccess::flags(*attached.node), connectedBit | disabledBit);
    }

    void aColorSetsTheActiveAndAPalerInactiveOne_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QColor>("active");
        QTest::addColumn<QColor>("inactive");

        QTest::newRow("even") << hex("03 00000004 04 408020") << QColor(64, 128, 32) << QColor(182, 214, 166);
        QTest::newRow("odd") << hex("03 00000004 04 010305") << QColor(1, 3, 5) << QColor(150, 151, 152);
        QTest::newRow("black") << hex("03 00000004 04 000000") << QColor(0, 0, 0) << QColor(150, 150, 150);
        QTest::newRow("brightest") << hex("03 00000004 04 D3D3D3") << QColor(211, 211, 211)
                                   << QColor(255, 255, 255);
    }

    void aColorSetsTheActiveAndAPalerInactiveOne()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QColor, active);
        QFETCH(QColor, inactive);

        AttachedNode attached;
        attached.program.send(bytes);
        QTRY_COMPARE(TestAccess::activeColor(*attached.node), active);
        QCOMPARE(TestAccess::inactiveColor(*attached.node), inactive);
    }

    void aBrightColorLeavesTheInactiveOneUndecided_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QColor>("active");

        QTest::newRow("orange") << hex("03 00000004 04 FF8000") << QColor(255, 128, 0);
        QTest::newRow("red just too bright") << hex("03 00000004 04 D40000") << QColor(212, 0, 0);
        QTest::newRow("green just too bright") << hex("03 00000004 04 00D400") << QColor(0, 212, 0);
        QTest::newRow("blue just too bright") << hex("03 00000004 04 0000D4") << QColor(0, 0, 212);
    }

    void aBrightColorLeavesTheInactiveOneUndecided()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QColor, active);

        AttachedNode attached;
        attached.node->setInactiveColor(Qt::red);
        attached.program.send(bytes);
        QTRY_COMPARE(TestAccess::activeColor(*attached.node), active);
        QVERIFY(!TestAccess::inactiveColor(*attached.node).isValid());
    }

    void aColorOfAnotherLengthIsTheNextMessage()
    {
        AttachedNode attached;
        attached.program.send(control(4, control(5, "data")));
        QTRY_COMPARE(attached.node->name(), QStringLiteral("data"));
        attached.program.send(controlOfLength(0, 4, control(5, "more")));
        QTRY_COMPARE(attached.node->name(), QStringLiteral("more"));

        QVERIFY(!TestAccess::activeColor(*attached.node).isValid());
        QVERIFY(attached.node->socket());
    }

    void aNameIsTakenAsUtf8UpToAZeroByte_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QString>("name");

        QTest::newRow("ASCII") << hex("03 00000006 05 4C696E6B73") << QStringLiteral("Links");
        QTest::newRow("UTF-8") << hex("03 00000006 05 5AC3BC6765") << QString::fromUtf8("Z\xC3\xBCge");
        QTest::newRow("zero byte within") << hex("03 00000006 05 4142004344") << QStringLiteral("AB");
        QTest::newRow("zero byte first") << hex("03 00000003 05 0041") << QString();
        QTest::newRow("empty") << hex("03 00000001 05") << QString();
    }

    void aNameIsTakenAsUtf8UpToAZeroByte()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QString, name);

        AttachedNode attached;
        attached.node->setName(QStringLiteral("before"));
        attached.program.send(bytes);
        QTRY_COMPARE(attached.node->name(), name);
        QVERIFY(attached.node->socket());
    }

    // Other messages

    void anIgnoredMessageLeavesTheConnectionOpen_data()
    {
        QTest::addColumn<QByteArray>("bytes");

        addRow(hex("04 00000000"));
        addRow(hex("04 FFFFFFFF"));
        addRow(hex("04 00000003 070707"));  // whose body would close the connection
    }

    void anIgnoredMessageLeavesTheConnectionOpen()
    {
        QFETCH(QByteArray, bytes);

        AttachedNode attached;
        attached.program.send(bytes + control(5, "next"));
        QTRY_COMPARE(attached.node->name(), QStringLiteral("next"));
        QVERIFY(attached.node->active());
    }

    void goodbyeClosesTheConnection_data()
    {
        QTest::addColumn<QByteArray>("bytes");

        addRow(hex("07 00000000"));
        addRow(hex("07 FFFFFFFF"));
        addRow(hex("07 00000002 ABCD"));
        addRow(hex("07 00000006 03 00000001 03"));  // whose body would disable the node
    }

    void goodbyeClosesTheConnection()
    {
        QFETCH(QByteArray, bytes);

        AttachedNode attached;
        QSignalSpy changes(attached.node, SIGNAL(connectionStateChanged()));
        attached.program.send(bytes);
        QVERIFY(attached.program.waitForEnd());
        QVERIFY(!attached.node->socket());
        QCOMPARE(TestAccess::flags(*attached.node), 0);
        QCOMPARE(changes.count(), 1);
        QTRY_VERIFY(!attached.nodeEnd);
    }

    void unknownMessageTypesCloseTheConnection()
    {
        for (int type = 0; type <= 255; ++type) {
            if (type == 1 || type == 3 || type == 4 || type == 7)
                continue;
            AttachedNode attached;
            attached.program.send(QByteArray(1, static_cast<char>(type)));
            QVERIFY2(attached.program.waitForEnd(), qPrintable(QString::number(type)));
            QVERIFY2(!attached.node->socket() && !attached.node->active(), qPrintable(QString::number(type)));
        }
    }

    void unknownControlTypesCloseTheConnection()
    {
        for (int subType = 0; subType <= 255; ++subType) {
            if (subType >= 1 && subType <= 5)
                continue;
            AttachedNode attached;
            attached.program.send(control(subType, QByteArray()));
            QVERIFY2(attached.program.waitForEnd(), qPrintable(QString::number(subType)));
            QVERIFY2(!attached.node->socket() && !attached.node->active(),
                     qPrintable(QString::number(subType)));
        }
    }

    void nothingBehindAProtocolErrorIsActedUpon()
    {
        AttachedNode attached;
        attached.program.send(hex("06") + control(5, "too late") + hex("01 00000001 AA"));

        QVERIFY(attached.program.waitForEnd());
        QVERIFY(attached.node->name().isEmpty());
        QCOMPARE(attached.node->sendFramesCount(), qint64{0});
    }

    // Damage

    void anIncompleteMessageIsNotActedUpon_data()
    {
        QTest::addColumn<QByteArray>("whole");

        QTest::newRow("frame") << hex("01 00000003 AABBCC");
        QTest::newRow("address") << hex("03 00000007 01 020000000005");
        QTest::newRow("enable") << hex("03 00000001 02");
        QTest::newRow("disable") << hex("03 00000001 03");
        QTest::newRow("colour") << hex("03 00000004 04 408020");
        QTest::newRow("name") << hex("03 00000006 05 4C696E6B73");
        QTest::newRow("ignored") << hex("04 00000003 AABBCC");
        QTest::newRow("goodbye") << hex("07 00000003 AABBCC");
    }

    void anIncompleteMessageIsNotActedUpon()
    {
        QFETCH(QByteArray, whole);

        for (int length = 1; length < whole.size(); ++length) {
            AttachedNode attached;
            const NodeState before(*attached.node);
            attached.program.send(whole.left(length));
            QVERIFY2(attached.program.waitForEnd(), qPrintable(QString::number(length)));
            QVERIFY2(!attached.node->socket(), qPrintable(QString::number(length)));
            QVERIFY2(NodeState(*attached.node) == before, qPrintable(QString::number(length)));
        }
    }

    void theRestOfAnIncompleteMessageComesTooLate()
    {
        AttachedNode attached;
        attached.program.send(hex("03 00000006 05 4C69"));
        QVERIFY(attached.waitUntilDetached());
        attached.program.send(hex("6E6B73"));

        QVERIFY(attached.program.waitForEnd());
        QVERIFY(attached.node->name().isEmpty());
    }

    void whatCameBeforeAnIncompleteMessageIsActedUpon()
    {
        AttachedNode attached;
        attached.program.send(hex("01 00000003 AABBCC  01 00000003 AABB"));

        QVERIFY(attached.program.waitForEnd());
        QCOMPARE(attached.node->sendFramesCount(), qint64{1});
        QCOMPARE(attached.node->sendBytesCount(), qint64{3});
    }

    void aHostileLengthClosesTheConnectionAndTakesNoMemory_data()
    {
        QTest::addColumn<QByteArray>("bytes");

        const char* const lengths[]
            = {"FFFFFFFE", "80000001", "80000000", "7FFFFFFF", "7FFFFFF0", "40000000"};
        for (const char* length : lengths) {
            for (const char* type : {"01", "04", "07"})
                addRow(hex(type) + hex(length) + QByteArray(20, 'x'));
            for (const char* subType : {"01", "05"})
                addRow(hex("03") + hex(length) + hex(subType) + QByteArray(20, 'x'));
        }
        for (const char* subType : {"01", "05"}) {
            addRow(hex("03 FFFFFFFF") + hex(subType) + QByteArray(20, 'x'));
            addRow(hex("03 00000000") + hex(subType) + QByteArray(20, 'x'));  // one byte less than nothing
        }
    }

    void aHostileLengthClosesTheConnectionAndTakesNoMemory()
    {
        QFETCH(QByteArray, bytes);

        AttachedNode attached;
        const NodeState before(*attached.node);
        const qint64 memoryBefore = peakMemory();
        QVERIFY(memoryBefore > 0);
        attached.program.send(bytes);

        QVERIFY(attached.program.waitForEnd());
        QVERIFY(NodeState(*attached.node) == before);
        QVERIFY(peakMemory() - memoryBefore < unremarkableMemory);
    }
};

QTEST_MAIN(TestMessagesFromProgram)
#include "tst_messagesfromprogram.moc"
