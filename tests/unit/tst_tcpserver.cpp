#include "network/networksimulation.h"
#include "nodes/tcpnode.h"
#include "sockethelpers.h"
#include "testaccess.h"

#include <QGraphicsRectItem>
#include <QtTest>

#include <ctime>
#include <memory>
#include <vector>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

namespace {

const QByteArray leftAddress = hex("020000000001");
const QByteArray rightAddress = hex("020000000002");
const QByteArray marker = hex("05 00000001 06");  // the Identify command

Network* network()
{
    return NetworkSimulation::instance()->network();
}

QList<QTcpSocket*>& pending()
{
    return TestAccess::server(*network()).pending;
}

template <typename Identity> TcpNode* addTcpNode(const Identity& identity)
{
    auto* node = new TcpNode(identity, nullptr);
    network()->addItem(node);
    return node;
}

QByteArray addressMessage(const QByteArray& address)
{
    return control(1, address);
}

QByteArray nameMessage(const QByteArray& name)
{
    return control(5, name);
}

/// A program that the network has accepted and that has not said anything yet.
struct PendingProgram : Program {
    PendingProgram()
        : Program(network()->listeningPort())
    {
        const int others = pending().size();
        if (QTest::qWaitFor([others] { return pending().size() > others; }, patience))
            nodeEnd = pending().last();
    }

    QPointer<QTcpSocket> nodeEnd;
};

/// False unless the program lost its connection and nothing of it is left.
bool isRefused(PendingProgram& program)
{
    return program.waitForEnd() && QTest::qWaitFor([&] { return !program.nodeEnd; }, patience)
        && pending().isEmpty();
}

/// The node that Plug'n'Place has made last; null when it never comes.
TcpNode* waitForNewNode(int nodesBefore = 0)
{
    const QList<TcpNode*>& nodes = TestAccess::allTcpNodes();
    return QTest::qWaitFor([&] { return nodes.size() > nodesBefore; }, patience) ? nodes.last() : nullptr;
}

bool waitUntilAttached(const TcpNode* node)
{
    return QTest::qWaitFor([node] { return node->socket() != nullptr; }, patience);
}

/// Free a moment ago.
quint16 freePort()
{
    QTcpServer server;
    server.listen(QHostAddress::Any);
    return server.serverPort();
}

/// Whether the kernel lets so many wait to be accepted.
bool canWait(int programs)
{
    QFile limit(QStringLiteral("/proc/sys/net/core/somaxconn"));
    return limit.open(QIODevice::ReadOnly) && limit.readAll().trimmed().toInt() >= programs;
}

bool isReachable(quint16 port, const QHostAddress& host = QHostAddress::LocalHost)
{
    QTcpSocket socket;
    socket.connectToHost(host, port);
    return socket.waitForConnected(patience);
}

/// While it lives, this process has no free file descriptor but those that are given back.
class FileDescriptorShortage
{
public:
    FileDescriptorShortage()
    {
        getrlimit(RLIMIT_NOFILE, &_before);
        const int lowest = dup(STDERR_FILENO);
        _taken.push_back(lowest);
        rlimit low = _before;
        low.rlim_cur = static_cast<rlim_t>(lowest) + spare;
        setrlimit(RLIMIT_NOFILE, &low);
        int descriptor = 0;
        while (descriptor >= 0 && _taken.size() <= low.rlim_cur) {
            descriptor = dup(STDERR_FILENO);
            if (descriptor >= 0)
                _taken.push_back(descriptor);
        }
        _isComplete = descriptor < 0 && errno == EMFILE;
    }

    ~FileDescriptorShortage()
    {
        giveBack();
        setrlimit(RLIMIT_NOFILE, &_before);
    }

    Q_DISABLE_COPY_MOVE(FileDescriptorShortage)

    bool isComplete() const { return _isComplete; }

    void giveBack()
    {
        for (const int descriptor : _taken)
            ::close(descriptor);
        _taken.clear();
    }

private:
    static constexpr rlim_t spare = 16;

    rlimit _before = {};
    std::vector<int> _taken;
    bool _isComplete = false;
};

void addRow(const QByteArray& bytes)
{
    QTest::newRow(bytes.toHex(' ').constData()) << bytes;
}

}  // namespace

class TestTcpServer : public QObject
{
    Q_OBJECT

private:
    /// Neither the node that is there nor Plug'n'Place takes the program.
    void _verifyRefused(const QByteArray& identification)
    {
        network()->setTcpPnpEnabled(true);
        TcpNode* node = addTcpNode(leftAddress);
        node->setName(QStringLiteral("Left"));
        PendingProgram program;
        program.send(identification);
        QVERIFY(isRefused(program));
        QVERIFY(!node->socket());
        QCOMPARE(network()->items().size(), 1);
    }

private slots:
    void init()
    {
        qsrand(1);
        NetworkSimulation::newNetworkSimulation();
        network()->setTcpPort(0);
        QVERIFY(network()->setTcpEnabled(true));
    }

    void cleanup()
    {
        NetworkSimulation::deleteNetworkSimulation();
        QVERIFY(TestAccess::allTcpNodes().isEmpty());
    }

    // Starting and stopping

    void aNewNetworkDoesNotListen()
    {
        NetworkSimulation::newNetworkSimulation();

        QCOMPARE(network()->tcpPort(), quint16{8844});
        QVERIFY(!network()->isTcpEnabled());
        QVERIFY(!network()->isTcpPnpEnabled());
        QVERIFY(!network()->isNameUsedForPnpIdentification());
        QCOMPARE(network()->listeningPort(), quint16{0});
    }

    void startingOpensThePort()
    {
        QVERIFY(network()->isTcpEnabled());
        QVERIFY(network()->tcpErrorString().isEmpty());
        QVERIFY(network()->listeningPort() != 0);
        QVERIFY(isReachable(network()->listeningPort()));
    }

    void startingTwiceChangesNothing()
    {
        const quint16 port = network()->listeningPort();
        const PendingProgram program;

        QVERIFY(network()->setTcpEnabled(true));
        QCOMPARE(network()->listeningPort(), port);
        QCOMPARE(pending().size(), 1);
    }

    void stoppingClosesThePort()
    {
        const quint16 port = network()->listeningPort();

        QVERIFY(network()->setTcpEnabled(false));
        QVERIFY(!network()->isTcpEnabled());
        QVERIFY(!isReachable(port));
    }

    void stoppingTwiceIsNoFailure()
    {
        QVERIFY(network()->setTcpEnabled(false));
        QVERIFY(network()->setTcpEnabled(false));
    }

    void aPortInUseCannotBeOpened()
    {
        QTcpServer other;
        QVERIFY(other.listen(QHostAddress::Any));
        network()->setTcpEnabled(false);
        network()->setTcpPort(other.serverPort());

        QVERIFY(!network()->setTcpEnabled(true));
        QVERIFY(!network()->isTcpEnabled());
        QVERIFY(!network()->tcpErrorString().isEmpty());
    }

    void aPortThatBecomesFreeCanBeOpened()
    {
        QTcpServer other;
        QVERIFY(other.listen(QHostAddress::Any));
        network()->setTcpEnabled(false);
        network()->setTcpPort(other.serverPort());
        QVERIFY(!network()->setTcpEnabled(true));
        other.close();

        QVERIFY(network()->setTcpEnabled(true));
        QCOMPARE(network()->listeningPort(), network()->tcpPort());
        QVERIFY(network()->tcpErrorString().isEmpty());
        const PendingProgram program;
        QCOMPARE(pending().size(), 1);
    }

    void bothAddressFamiliesAreServed()
    {
        QTcpServer probe;
        if (!probe.listen(QHostAddress::LocalHostIPv6))
            QSKIP("this machine has no IPv6");

        QVERIFY(isReachable(network()->listeningPort(), QHostAddress::LocalHost));
        QVERIFY(isReachable(network()->listeningPort(), QHostAddress::LocalHostIPv6));
    }

    void changingThePortWhileOffOnlyStoresIt()
    {
        network()->setTcpEnabled(false);
        network()->setTcpPort(freePort());

        QVERIFY(network()->tcpPort() != 0);
        QVERIFY(!network()->isTcpEnabled());
        QVERIFY(!isReachable(network()->tcpPort()));
    }

    void changingThePortMovesAListeningServer()
    {
        const quint16 before = network()->listeningPort();
        PendingProgram program;
        const quint16 port = freePort();
        network()->setTcpPort(port);

        QVERIFY(network()->isTcpEnabled());
        QCOMPARE(network()->tcpPort(), port);
        QCOMPARE(network()->listeningPort(), port);
        QVERIFY(!isReachable(before));
        QVERIFY(isReachable(port));
        QVERIFY(program.waitForEnd());
        QVERIFY(!program.nodeEnd);
    }

    void changingToAPortInUseLeavesTheServerOff()
    {
        QTcpServer other;
        QVERIFY(other.listen(QHostAddress::Any));
        network()->setTcpPort(other.serverPort());

        QVERIFY(!network()->isTcpEnabled());
        QCOMPARE(network()->tcpPort(), other.serverPort());
    }

    void theSamePortAgainDoesNothing()
    {
        const quint16 port = network()->listeningPort();
        const PendingProgram program;
        network()->setTcpPort(network()->tcpPort());

        QCOMPARE(network()->listeningPort(), port);
        QCOMPARE(pending(), QList<QTcpSocket*>{program.nodeEnd});
    }

    void aRestartedServerAcceptsEachProgramOnce()
    {
        for (int i = 0; i < 3; ++i) {
            QVERIFY(network()->setTcpEnabled(false));
            QVERIFY(network()->setTcpEnabled(true));
        }
        const PendingProgram first;
        const PendingProgram second;

        QCOMPARE(pending(), (QList<QTcpSocket*>{first.nodeEnd, second.nodeEnd}));
    }

    // Pending programs

    void everyProgramIsAccepted_data()
    {
        QTest::addColumn<bool>("isPnpEnabled");

        QTest::newRow("Plug'n'Place off") << false;
        QTest::newRow("Plug'n'Place on") << true;
    }

    void everyProgramIsAccepted()
    {
        QFETCH(bool, isPnpEnabled);

        network()->setTcpPnpEnabled(isPnpEnabled);
        const PendingProgram program;
        QCOMPARE(pending(), QList<QTcpSocket*>{program.nodeEnd});
        QVERIFY(network()->items().isEmpty());
    }

    void aSilentProgramStaysPending()
    {
        PendingProgram program;

        QVERIFY(!program.waitForEnd(100));
        QCOMPARE(pending(), QList<QTcpSocket*>{program.nodeEnd});
    }

    void manyProgramsCanBePending()
    {
        constexpr int count = 100;  // more than the toolkit's server keeps by itself
        std::vector<std::unique_ptr<PendingProgram>> programs;
        programs.reserve(count);
        for (int i = 0; i < count; ++i)
            programs.push_back(std::make_unique<PendingProgram>());

        QCOMPARE(pending().size(), count);
    }

    /// Nothing is accepted meanwhile: the kernel has to keep them all.
    void aBurstOfProgramsNeedNotWaitToConnect()
    {
        constexpr int count = 200;  // several times what the toolkit's server lets wait
        if (!canWait(count))
            QSKIP("the kernel lets fewer programs wait");
        std::vector<std::unique_ptr<Program>> programs;
        for (int i = 0; i < count; ++i) {
            programs.push_back(std::make_unique<Program>());
            QVERIFY(programs.back()->connectTo(network()->listeningPort()));
        }
        QTRY_COMPARE(pending().size(), count);
    }

    void aPendingProgramThatGoesAwayIsForgotten()
    {
        PendingProgram program;
        const PendingProgram other;
        program.close();

        QTRY_VERIFY(!program.nodeEnd);
        QCOMPARE(pending(), QList<QTcpSocket*>{other.nodeEnd});
    }

    void aPendingProgramThatIsKilledIsForgotten()
    {
        PendingProgram program;
        program.nodeEnd->write("unread");  // the kernel answers with a reset
        program.nodeEnd->flush();
        program.abort();

        QTRY_VERIFY(!program.nodeEnd);
        QVERIFY(pending().isEmpty());
    }

    void stoppingClosesPendingPrograms()
    {
        PendingProgram first;
        PendingProgram second;
        QVERIFY(network()->setTcpEnabled(false));

        QVERIFY(pending().isEmpty());
        QVERIFY(!first.nodeEnd);
        QVERIFY(!second.nodeEnd);
        QVERIFY(first.waitForEnd());
        QVERIFY(second.waitForEnd());
    }

    void stoppingLeavesAttachedProgramsConnected()
    {
        TcpNode* node = addTcpNode(leftAddress);
        PendingProgram program;
        program.send(addressMessage(leftAddress));
        QVERIFY(waitUntilAttached(node));
        QVERIFY(network()->setTcpEnabled(false));

        program.send(hex("01 00000001 AA"));
        QTRY_COMPARE(node->sendFramesCount(), qint64{1});
        node->sendDebugCommand(TcpNode::IdentifyDC);
        QCOMPARE(program.receive(6), marker);
    }

    void destroyingTheNetworkClosesPendingPrograms()
    {
        PendingProgram silent;
        PendingProgram talking;
        talking.send(addressMessage(leftAddress));  // arrives, but nobody looks any more
        NetworkSimulation::deleteNetworkSimulation();

        QVERIFY(!silent.nodeEnd);
        QVERIFY(!talking.nodeEnd);
        QVERIFY(silent.waitForEnd());
        QVERIFY(talking.waitForEnd());
    }

    void destroyingTheNetworkClosesAttachedPrograms()
    {
        TcpNode* node = addTcpNode(leftAddress);
        PendingProgram program;
        program.send(addressMessage(leftAddress));
        QVERIFY(waitUntilAttached(node));
        NetworkSimulation::deleteNetworkSimulation();

        QVERIFY(!program.nodeEnd);
        QVERIFY(program.waitForEnd());
    }

    void destroyingTheNetworkForgetsRefusedPrograms()
    {
        PendingProgram program;
        QSignalSpy endOfConnection(program.nodeEnd, SIGNAL(disconnected()));
        program.send(hex("06"));
        QVERIFY(endOfConnection.wait(patience));
        QVERIFY(program.nodeEnd);  // waits for the event loop
        NetworkSimulation::deleteNetworkSimulation();

        QVERIFY(!program.nodeEnd);
    }

    void acceptingGoesOnAfterAShortageOfFileDescriptors_data()
    {
        QTest::addColumn<int>("earlierPrograms");
        QTest::newRow("the first program of all") << 0;
        QTest::newRow("behind another program") << 1;
    }

    void acceptingGoesOnAfterAShortageOfFileDescriptors()
    {
        QFETCH(int, earlierPrograms);
        if (qgetenv("LD_PRELOAD").contains("vgpreload"))
            QSKIP("valgrind takes a connection that it has no file descriptor for, and closes it");

        QSignalSpy failures(&TestAccess::server(*network()).server,
                            SIGNAL(acceptError(QAbstractSocket::SocketError)));
        const std::vector<PendingProgram> earlier(static_cast<size_t>(earlierPrograms));
        const Program waiting(network()->listeningPort());
        FileDescriptorShortage shortage;
        QVERIFY(shortage.isComplete());
        QTRY_VERIFY(failures.count() >= 2);  // also a second attempt fails; between the two it rests
        QCOMPARE(pending().size(), earlierPrograms);

        shortage.giveBack();
        QTRY_COMPARE(pending().size(), earlierPrograms + 1);
        const PendingProgram later;
        QCOMPARE(pending().size(), earlierPrograms + 2);
    }

    // Identification by address

    void anAddressAttachesItsNode()
    {
        TcpNode* left = addTcpNode(leftAddress);
        TcpNode* right = addTcpNode(rightAddress);
        PendingProgram program;
        program.send(hex("03 00000007 01 020000000001"));

        QVERIFY(waitUntilAttached(left));
        QCOMPARE(left->socket(), program.nodeEnd.data());
        QCOMPARE(program.nodeEnd->parent(), left);
        QVERIFY(left->active());
        QVERIFY(!right->socket());
        QVERIFY(pending().isEmpty());
    }

    void anAddressOfTheNetworksLengthIsExpected()
    {
        TestAccess::parameters(*network()).addressLength = 2;
        TcpNode* node = addTcpNode(hex("0A0B"));
        PendingProgram tooLong;
        tooLong.send(addressMessage(leftAddress));
        QVERIFY(isRefused(tooLong));

        PendingProgram program;
        program.send(hex("03 00000003 01 0A0B"));
        QVERIFY(waitUntilAttached(node));
    }

    void anythingButAnAddressIsRefused_data()
    {
        QTest::addColumn<QByteArray>("bytes");

        for (const char* type : {"00", "01", "02", "04", "05", "06", "07", "FF"})
            addRow(hex(type) + hex("00000007 01 020000000001"));
        for (const char* length :
             {"00000000", "00000001", "00000006", "00000008", "01000007", "80000007", "FFFFFFFF"})
            addRow(hex("03") + hex(length) + hex("01 020000000001"));
        for (const char* kind : {"00", "02", "03", "04", "05", "06", "FF"})
            addRow(hex("03 00000007") + hex(kind) + hex("020000000001"));
        addRow(hex("03 00000006 01 0200000000"));
        addRow(hex("03 00000008 01 02000000000102"));
        addRow(hex("03 00000005 05 4C656674"));  // a node's name
        addRow("GET / HTTP/1.1\r\n\r\n");
    }

    void anythingButAnAddressIsRefused()
    {
        QFETCH(QByteArray, bytes);

        _verifyRefused(bytes);
    }

    void anAddressCutShortIsRefused()
    {
        network()->setTcpPnpEnabled(true);
        const QByteArray whole = addressMessage(hex("020000000000"));  // bytes read as zero would complete it
        TcpNode* node = addTcpNode(hex("020000000000"));
        for (int length = 1; length < whole.size(); ++length) {
            PendingProgram program;
            program.send(whole.left(length));
            QVERIFY2(isRefused(program), qPrintable(QString::number(length)));
        }

        QVERIFY(!node->socket());
        QCOMPARE(network()->items().size(), 1);
    }

    void theRestOfAnAddressIsNotWaitedFor()
    {
        TcpNode* node = addTcpNode(leftAddress);
        PendingProgram program;
        program.send(hex("03 00000007 01"));
        QTRY_VERIFY(pending().isEmpty());
        program.send(leftAddress);

        QVERIFY(isRefused(program));
        QVERIFY(!node->socket());
    }

    void bytesBehindAnAddressAreReadByTheNode()
    {
        TcpNode* node = addTcpNode(leftAddress);
        PendingProgram program;
        program.send(addressMessage(leftAddress) + hex("01 00000003 AABBCC") + control(5, "Left"));

        QVERIFY(waitUntilAttached(node));
        QTRY_COMPARE(node->name(), QStringLiteral("Left"));
        QCOMPARE(node->sendFramesCount(), qint64{1});
        QCOMPARE(node->sendBytesCount(), qint64{3});
        QVERIFY(node->socket());
    }

    void bytesBehindAnAddressAreReadByANewNode()
    {
        network()->setTcpPnpEnabled(true);
        PendingProgram program;
        program.send(addressMessage(leftAddress) + control(5, "Left"));
        const TcpNode* node = waitForNewNode();

        QVERIFY(node);
        QTRY_COMPARE(node->name(), QStringLiteral("Left"));
    }

    void anIncompleteMessageBehindAnAddressClosesTheConnection()
    {
        TcpNode* node = addTcpNode(leftAddress);
        QSignalSpy changes(node, SIGNAL(connectionStateChanged()));
        PendingProgram program;
        program.send(addressMessage(leftAddress) + hex("01 00000003 AABB"));

        QVERIFY(program.waitForEnd());
        QVERIFY(!node->socket());
        QCOMPARE(node->sendFramesCount(), qint64{0});
        QCOMPARE(changes.count(), 2);  // attached first
    }

    // Identification by name

    void aNameAttachesItsNode()
    {
        network()->setNameUsedForPnpIdentification(true);
        TcpNode* links = addTcpNode(QStringLiteral("Links"));
        TcpNode* right = addTcpNode(QStringLiteral("Right"));
        PendingProgram program;
        program.send(hex("03 00000006 05 4C696E6B73"));

        QVERIFY(waitUntilAttached(links));
        QCOMPARE(links->socket(), program.nodeEnd.data());
        QCOMPARE(program.nodeEnd->parent(), links);
        QVERIFY(links->active());
        QVERIFY(!right->socket());
        QVERIFY(pending().isEmpty());
    }

    void aNameIsReadAsUtf8()
    {
        network()->setNameUsedForPnpIdentification(true);
        const TcpNode* node = addTcpNode(QString::fromUtf8("Z\xC3\xBCge"));
        PendingProgram program;
        program.send(hex("03 00000006 05 5AC3BC6765"));

        QVERIFY(waitUntilAttached(node));
    }

    void anythingButANameIsRefused_data()
    {
        QTest::addColumn<QByteArray>("bytes");

        for (const char* type : {"00", "01", "02", "04", "05", "06", "07", "FF"})
            addRow(hex(type) + hex("00000005 05 4C656674"));
        for (const char* kind : {"00", "01", "02", "03", "04", "06", "FF"})
            addRow(hex("03 00000005") + hex(kind) + hex("4C656674"));
        addRow(hex("03 00000007 01 020000000001"));  // a node's address
    }

    void anythingButANameIsRefused()
    {
        QFETCH(QByteArray, bytes);

        network()->setNameUsedForPnpIdentification(true);
        _verifyRefused(bytes);
    }

    void aNameWithoutItsKindIsRefused()
    {
        network()->setNameUsedForPnpIdentification(true);
        network()->setTcpPnpEnabled(true);
        const QByteArray header = hex("03 00000005");
        for (int length = 1; length <= header.size(); ++length) {
            PendingProgram program;
            program.send(header.left(length));
            QVERIFY2(isRefused(program), qPrintable(QString::number(length)));
        }

        QVERIFY(network()->items().isEmpty());
    }

    void aNameIsWhatHasArrived_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QString>("name");

        QTest::newRow("whole") << hex("03 00000005 05 4C656674") << "Left";
        QTest::newRow("one byte missing") << hex("03 00000005 05 4C6566") << "Lef";
        QTest::newRow("two bytes missing") << hex("03 00000005 05 4C65") << "Le";
        QTest::newRow("one byte there") << hex("03 00000005 05 4C") << "L";
        QTest::newRow("no byte there") << hex("03 00000005 05") << "";
        QTest::newRow("more than announced") << hex("03 00000003 05 4C656674") << "Le";
        QTest::newRow("zero byte within") << hex("03 00000005 05 4C650074") << "Le";
        QTest::newRow("zero byte first") << hex("03 00000005 05 00656674") << "";
        QTest::newRow("no byte announced") << hex("03 00000001 05 4C656674") << "";
        QTest::newRow("length 0") << hex("03 00000000 05 4C656674") << "";
        QTest::newRow("greatest length") << hex("03 FFFFFFFF 05 4C656674") << "Left";
        QTest::newRow("greatest positive length") << hex("03 7FFFFFFF 05 4C656674") << "Left";
        QTest::newRow("smallest negative length") << hex("03 80000000 05 4C656674") << "Left";
    }

    void aNameIsWhatHasArrived()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QString, name);

        network()->setNameUsedForPnpIdentification(true);
        network()->setTcpPnpEnabled(true);
        PendingProgram program;
        program.send(bytes);
        const TcpNode* node = waitForNewNode();
        QVERIFY(node);
        QCOMPARE(node->name(), name);
        QVERIFY(node->active());
    }

    void bytesBehindANameAreLost()
    {
        network()->setNameUsedForPnpIdentification(true);
        TcpNode* node = addTcpNode(QStringLiteral("Left"));
        PendingProgram program;
        program.send(nameMessage("Left") + hex("01 00000003 AABBCC") + hex("06"));
        QVERIFY(waitUntilAttached(node));
        program.send(hex("01 00000001 AA"));

        QTRY_COMPARE(node->sendFramesCount(), qint64{1});
        QCOMPARE(node->sendBytesCount(), qint64{1});
        QVERIFY(node->socket());
    }

    void hostileLengthsTakeNoMemory_data()
    {
        QTest::addColumn<bool>("isByName");
        QTest::addColumn<QByteArray>("bytes");

        for (const char* length : {"FFFFFFFF", "FFFFFFFE", "80000001", "80000000", "7FFFFFFF", "40000000"}) {
            QTest::newRow(qPrintable(QStringLiteral("name ") + length))
                << true << hex("03") + hex(length) + hex("05 41");
            QTest::newRow(qPrintable(QStringLiteral("address ") + length))
                << false << hex("03") + hex(length) + hex("01 020000000001");
        }
    }

    void hostileLengthsTakeNoMemory()
    {
        QFETCH(bool, isByName);
        QFETCH(QByteArray, bytes);

        network()->setNameUsedForPnpIdentification(isByName);
        PendingProgram program;
        const qint64 memoryBefore = peakMemory();
        QVERIFY(memoryBefore > 0);
        program.send(bytes);
        QVERIFY(isRefused(program));
        QVERIFY(peakMemory() - memoryBefore < unremarkableMemory);
    }

    // Matching

    void theTopmostNodeOfANameIsTaken()
    {
        network()->setNameUsedForPnpIdentification(true);
        TcpNode* older = addTcpNode(QStringLiteral("Left"));
        TcpNode* younger = addTcpNode(QStringLiteral("Left"));
        PendingProgram program;
        program.send(nameMessage("Left"));

        QVERIFY(waitUntilAttached(younger));
        QVERIFY(!older->socket());
    }

    void theTopmostNodeOfAnAddressIsTaken()
    {
        TcpNode* older = addTcpNode(leftAddress);
        TcpNode* younger = addTcpNode(leftAddress);
        PendingProgram program;
        program.send(addressMessage(leftAddress));

        QVERIFY(waitUntilAttached(younger));
        QVERIFY(!older->socket());
    }

    void stackingOrderGoesBeforeAge()
    {
        network()->setNameUsedForPnpIdentification(true);
        TcpNode* older = addTcpNode(QStringLiteral("Left"));
        TcpNode* younger = addTcpNode(QStringLiteral("Left"));
        older->setZValue(younger->zValue() + 1);
        PendingProgram program;
        program.send(nameMessage("Left"));

        QVERIFY(waitUntilAttached(older));
        QVERIFY(!younger->socket());
    }

    void aRenamedNodeIsFoundByItsNewNameOnly()
    {
        network()->setNameUsedForPnpIdentification(true);
        TcpNode* node = addTcpNode(QStringLiteral("Old"));
        node->setName(QStringLiteral("New"));
        PendingProgram late;
        late.send(nameMessage("Old"));
        QVERIFY(isRefused(late));

        PendingProgram program;
        program.send(nameMessage("New"));
        QVERIFY(waitUntilAttached(node));
    }

    void aNodeIsFoundByTheAddressThatItsProgramSets()
    {
        TcpNode* node = addTcpNode(leftAddress);
        PendingProgram first;
        first.send(addressMessage(leftAddress) + control(1, rightAddress));
        QTRY_COMPARE(node->address(), rightAddress);

        PendingProgram second;
        second.send(addressMessage(rightAddress));
        QTRY_COMPARE(node->socket(), second.nodeEnd.data());
    }

    void aNodeOfAFileIsFound()
    {
        TcpNode original(leftAddress, nullptr);
        TcpNode* node = addTcpNode(rightAddress);
        QByteArray bytes;
        QDataStream writer(&bytes, QIODevice::WriteOnly);
        writer << static_cast<Node*>(&original);
        QDataStream reader(bytes);
        reader.skipRawData(16);  // the record's header
        reader >> static_cast<Node*>(node);

        PendingProgram program;
        program.send(addressMessage(leftAddress));
        QVERIFY(waitUntilAttached(node));
    }

    void aNodeOutsideTheNetworkIsNotFound()
    {
        TcpNode* node = addTcpNode(leftAddress);
        network()->removeItem(node);
        PendingProgram early;
        early.send(addressMessage(leftAddress));
        QVERIFY(isRefused(early));

        network()->addItem(node);
        PendingProgram program;
        program.send(addressMessage(leftAddress));
        QVERIFY(waitUntilAttached(node));
    }

    /// Sorting all items for each program costs 1 to 9 ms of the processor.
    void identifyingAmongManyNodesTakesNoTimeWorthMentioning()
    {
        constexpr int nodes = 10000;
        constexpr int programs = 100;
        for (int i = 0; i < nodes; ++i)
            addTcpNode(leftAddress + QByteArray::number(i))->setPos(i % 100 * 100, i / 100 * 100);
        TestAccess::parameters(*network()).addressLength = leftAddress.size() + 3;
        std::vector<std::unique_ptr<PendingProgram>> pending;
        for (int i = 0; i < programs; ++i)
            pending.push_back(std::make_unique<PendingProgram>());
        const std::clock_t begin = std::clock();
        for (int i = 0; i < programs; ++i)
            pending[static_cast<size_t>(i)]->send(addressMessage(leftAddress + QByteArray::number(100 + i)));

        QTRY_VERIFY(::pending().isEmpty());
        const double seconds = static_cast<double>(std::clock() - begin) / CLOCKS_PER_SEC;
        QVERIFY2(seconds < 0.05, qPrintable(QString::number(seconds)));
    }

    void plainNodesAndOtherItemsAreNeverMatched_data()
    {
        QTest::addColumn<bool>("isByName");
        QTest::addColumn<QByteArray>("bytes");

        QTest::newRow("name") << true << nameMessage("Left");
        QTest::newRow("empty name") << true << nameMessage("");
        QTest::newRow("address") << false << addressMessage(leftAddress);
    }

    void plainNodesAndOtherItemsAreNeverMatched()
    {
        QFETCH(bool, isByName);
        QFETCH(QByteArray, bytes);

        auto* plain = new Node(leftAddress);
        plain->setName(QStringLiteral("Left"));
        auto* nameless = new Node(QByteArray());
        network()->addItem(plain);
        network()->addItem(nameless);
        network()->addItem(new Connection(plain, nameless));
        network()->addItem(new QGraphicsRectItem(0, 0, 10, 10));
        network()->setNameUsedForPnpIdentification(isByName);
        PendingProgram program;
        program.send(bytes);
        QVERIFY(isRefused(program));
        QVERIFY(!plain->active());
    }

    void theOtherIdentityIsNotMatched()
    {
        TcpNode* named = addTcpNode(QStringLiteral("ABCDEF"));
        PendingProgram byAddress;
        byAddress.send(addressMessage("ABCDEF"));
        QVERIFY(isRefused(byAddress));
        QVERIFY(!named->socket());

        TcpNode* addressed = addTcpNode(QByteArray("GHIJKL"));
        network()->setNameUsedForPnpIdentification(true);
        PendingProgram byName;
        byName.send(nameMessage("GHIJKL"));
        QVERIFY(isRefused(byName));
        QVERIFY(!addressed->socket());
    }

    void programsThatIdentifyBeforeTheyAreAcceptedAreAllAttached_data()
    {
        QTest::addColumn<bool>("isByName");

        QTest::newRow("by address") << false;
        QTest::newRow("by name") << true;
    }

    void programsThatIdentifyBeforeTheyAreAcceptedAreAllAttached()
    {
        QFETCH(bool, isByName);
        constexpr int count = 200;
        if (!canWait(count))
            QSKIP("the kernel lets fewer programs wait");

        TestAccess::server(*network()).nameBasedPnp = isByName;
        std::vector<TcpNode*> nodes;
        std::vector<std::unique_ptr<Program>> programs;
        for (int i = 0; i < count; ++i) {
            const QByteArray address(network()->addressLength(), static_cast<char>(i));
            const QByteArray name = "node " + QByteArray::number(i);
            nodes.push_back(addTcpNode(address));
            nodes.back()->setName(QString::fromLatin1(name));
            programs.push_back(std::make_unique<Program>());
            QVERIFY(programs.back()->connectTo(network()->listeningPort()));
            programs.back()->send(isByName ? nameMessage(name) : addressMessage(address));
        }

        for (size_t i = 0; i < count; ++i) {
            QVERIFY2(waitUntilAttached(nodes[i]), qPrintable(nodes[i]->name()));
            QCOMPARE(nodes[i]->socket()->peerPort(), programs[i]->localPort());
        }
        QVERIFY(pending().isEmpty());
    }

    void aSecondProgramReplacesTheFirst()
    {
        TcpNode* node = addTcpNode(leftAddress);
        PendingProgram first;
        first.send(addressMessage(leftAddress));
        QVERIFY(waitUntilAttached(node));
        PendingProgram second;
        second.send(addressMessage(leftAddress));

        QVERIFY(first.waitForEnd());
        QTRY_VERIFY(!first.nodeEnd);
        QCOMPARE(node->socket(), second.nodeEnd.data());
        QVERIFY(node->active());
        node->sendDebugCommand(TcpNode::IdentifyDC);
        QCOMPARE(second.receive(6), marker);
    }

    void anUnknownProgramIsRefused_data()
    {
        QTest::addColumn<bool>("isByName");
        QTest::addColumn<QByteArray>("bytes");

        QTest::newRow("name") << true << nameMessage("Right");
        QTest::newRow("part of a name") << true << nameMessage("Lef");
        QTest::newRow("other case") << true << nameMessage("left");
        QTest::newRow("empty name") << true << nameMessage("");
        QTest::newRow("address") << false << addressMessage(rightAddress);
    }

    void anUnknownProgramIsRefused()
    {
        QFETCH(bool, isByName);
        QFETCH(QByteArray, bytes);

        TcpNode* node = addTcpNode(leftAddress);
        node->setName(QStringLiteral("Left"));
        network()->setNameUsedForPnpIdentification(isByName);
        PendingProgram program;
        program.send(bytes);
        QVERIFY(isRefused(program));
        QVERIFY(!node->socket());
        QCOMPARE(network()->items().size(), 1);
    }

    void aRefusedProgramLeavesTheOthersAlone()
    {
        TcpNode* node = addTcpNode(leftAddress);
        PendingProgram attached;
        attached.send(addressMessage(leftAddress));
        QVERIFY(waitUntilAttached(node));
        PendingProgram waiting;
        PendingProgram refused;
        refused.send(hex("06"));

        QVERIFY(refused.waitForEnd());
        QTRY_VERIFY(!refused.nodeEnd);
        QCOMPARE(pending(), QList<QTcpSocket*>{waiting.nodeEnd});
        QCOMPARE(node->socket(), attached.nodeEnd.data());
    }

    // Plug'n'Place

    void anUnknownNameMakesANode()
    {
        network()->setTcpPnpEnabled(true);
        network()->setNameUsedForPnpIdentification(true);
        addTcpNode(QStringLiteral("Left"));
        PendingProgram program;
        program.send(nameMessage("Right"));
        const TcpNode* node = waitForNewNode(1);

        QVERIFY(node);
        QCOMPARE(node->name(), QStringLiteral("Right"));
        QVERIFY(node->address().isEmpty());
        QCOMPARE(node->scene(), network());
        QCOMPARE(node->socket(), program.nodeEnd.data());
        QVERIFY(node->active());
    }

    void anUnknownAddressMakesANode()
    {
        network()->setTcpPnpEnabled(true);
        addTcpNode(leftAddress);
        PendingProgram program;
        program.send(addressMessage(rightAddress));
        const TcpNode* node = waitForNewNode(1);

        QVERIFY(node);
        QCOMPARE(node->address(), rightAddress);
        QVERIFY(node->name().isEmpty());
        QCOMPARE(node->scene(), network());
        QCOMPARE(node->socket(), program.nodeEnd.data());
        QVERIFY(node->active());
    }

    void aKnownProgramMakesNoNode()
    {
        network()->setTcpPnpEnabled(true);
        const TcpNode* node = addTcpNode(leftAddress);
        PendingProgram program;
        program.send(addressMessage(leftAddress));

        QVERIFY(waitUntilAttached(node));
        QCOMPARE(network()->items().size(), 1);
    }

    void programsThatIdentifyInABurstAreAllServed()
    {
        network()->setTcpPnpEnabled(true);
        constexpr int count = 10;
        std::vector<std::unique_ptr<Program>> programs;
        for (int i = 0; i < count; ++i) {
            programs.push_back(std::make_unique<Program>());
            QVERIFY(programs.back()->connectTo(network()->listeningPort()));
            programs.back()->send(control(1, QByteArray(network()->addressLength(), static_cast<char>(i))));
        }
        QTRY_COMPARE(TestAccess::allTcpNodes().size(), count);
    }

    void aNewNodeStandsAtTheCentreOfTheScene_data()
    {
        QTest::addColumn<bool>("isByName");
        QTest::addColumn<QByteArray>("bytes");

        QTest::newRow("name") << true << nameMessage("Right");
        QTest::newRow("address") << false << addressMessage(rightAddress);
    }

    void aNewNodeStandsAtTheCentreOfTheScene()
    {
        QFETCH(bool, isByName);
        QFETCH(QByteArray, bytes);

        // The new node, still at the origin, belongs to the scene whose centre is taken.
        auto* far = new QGraphicsRectItem(1000, 500, 10, 10);
        far->setPen(Qt::NoPen);
        network()->addItem(far);
        Node twin(isByName ? QByteArray() : rightAddress);
        twin.setName(isByName ? QStringLiteral("Right") : QString());
        const QPointF centre = twin.boundingRect().united(far->sceneBoundingRect()).center();

        network()->setTcpPnpEnabled(true);
        network()->setNameUsedForPnpIdentification(isByName);
        PendingProgram program;
        program.send(bytes);
        const TcpNode* node = waitForNewNode();
        QVERIFY(node);
        QTRY_COMPARE(node->pos(), centre);
    }

    void aNewNodeStandsInTheCentreOfAnEmptyScene()
    {
        network()->setTcpPnpEnabled(true);
        network()->setSceneRect(-100, 0, 400, 300);
        PendingProgram program;
        program.send(addressMessage(leftAddress));
        const TcpNode* node = waitForNewNode();

        QVERIFY(node);
        QTRY_COMPARE(node->pos(), QPointF(100, 150));
    }

    void aNewNodeIsOnTop()
    {
        network()->setTcpPnpEnabled(true);
        network()->setSceneRect(-100, -100, 200, 200);
        TcpNode* below = addTcpNode(leftAddress);
        PendingProgram program;
        program.send(addressMessage(rightAddress));
        TcpNode* node = waitForNewNode(1);

        QVERIFY(node);
        QTRY_COMPARE(network()->items(QPointF(0, 0)), (QList<QGraphicsItem*>{node, below}));
    }

    void programsExchangeFramesOverNewNodes()
    {
        network()->setTcpPnpEnabled(true);
        PendingProgram left;
        left.send(addressMessage(leftAddress));
        TcpNode* leftNode = waitForNewNode();
        PendingProgram right;
        right.send(addressMessage(rightAddress));
        TcpNode* rightNode = waitForNewNode(1);
        QVERIFY(leftNode);
        QVERIFY(rightNode);
        network()->addItem(new Connection(leftNode, rightNode));

        const QByteArray there = hex("01 0000000E 020000000002 020000000001 4142");
        left.send(there);
        QCOMPARE(right.receive(there.size()), there);
        const QByteArray back = hex("01 0000000D FFFFFFFFFFFF 020000000002 43");
        right.send(back);
        QCOMPARE(left.receive(back.size()), back);
    }
};

QTEST_MAIN(TestTcpServer)
#include "tst_tcpserver.moc"
