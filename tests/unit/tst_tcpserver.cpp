#include "network/network.h"

#include "serverhelpers.h"

#include <QtTest>

#include <memory>
#include <vector>

#include <sys/resource.h>
#include <unistd.h>

using namespace TestHelpers;

namespace {

/// Returns a port that was free a moment ago.
quint16 freePort()
{
    QTcpServer server;
    server.listen(QHostAddress::Any);
    return server.serverPort();
}

bool isReachable(quint16 port, const QHostAddress& host = QHostAddress::LocalHost)
{
    QTcpSocket socket;
    socket.connectToHost(host, port);
    return socket.waitForConnected(patience);
}

/// Takes all free file descriptors of this process while it lives, or until it gives them back.
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

}  // namespace

/// The TCP server of a network, and programs that have not identified themselves yet.
class TestTcpServer : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        qsrand(1);
        QVERIFY(listenInNewSimulation());
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
        constexpr int count = 100;  // more than Qt's server keeps by itself
        std::vector<std::unique_ptr<PendingProgram>> programs;
        programs.reserve(count);
        for (int i = 0; i < count; ++i)
            programs.push_back(std::make_unique<PendingProgram>());

        QCOMPARE(pending().size(), count);
    }

    /// Connects without accepting meanwhile: the kernel has to keep all connections.
    void aBurstOfProgramsNeedNotWaitToConnect()
    {
        constexpr int count = 200;  // several times what Qt's server lets wait
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
};

QTEST_MAIN(TestTcpServer)
#include "tst_tcpserver.moc"
