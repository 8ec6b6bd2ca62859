#include "awaitednodes.h"
#include "nodes/tcpnode.h"
#include "sockethelpers.h"
#include "testhelpers.h"

#include <QTcpSocket>
#include <QtTest>

#include <memory>

namespace {

const QString pump = QStringLiteral("Pump");
const QString valve = QStringLiteral("Valve");

TcpNode* addNode(const QString& name)
{
    auto* node = new TcpNode(name, nullptr);
    TestHelpers::network()->addItem(node);
    return node;
}

void attach(TcpNode* node)
{
    node->setSocket(SocketPair().nodeEnd);
}

void detach(TcpNode* node)
{
    node->setSocket(nullptr);
}

}  // namespace

class TestAwaitedNodes : public QObject
{
    Q_OBJECT

private slots:
    void init() { NetworkSimulation::newNetworkSimulation(); }
    void cleanup()
    {
        _awaited.reset();
        NetworkSimulation::deleteNetworkSimulation();
    }

    void nodesThatGetTheirProgramsAreThere()
    {
        TcpNode* first = addNode(pump);
        TcpNode* second = addNode(valve);
        await({valve, pump});
        QCOMPARE(missing(), QStringList({valve, pump}));
        attach(first);
        QCOMPARE(missing(), QStringList(valve));
        attach(second);
        QCOMPARE(missing(), QStringList());
    }

    void nodesThatHaveTheirProgramsAreThere()
    {
        attach(addNode(pump));
        await({pump, valve});
        QCOMPARE(missing(), QStringList(valve));
    }

    void nodesOfOtherNamesAreNotAwaited()
    {
        TcpNode* other = addNode("other");
        await({pump});
        attach(other);
        QCOMPARE(missing(), QStringList(pump));
    }

    void aNodeThatLosesItsProgramIsMissingAgain()
    {
        TcpNode* node = addNode(pump);
        await({pump, valve});
        attach(node);
        detach(node);
        QCOMPARE(missing(), QStringList({pump, valve}));
    }

    void aNodeThatGetsAnotherProgramStaysThere()
    {
        TcpNode* node = addNode(pump);
        await({pump, valve});
        attach(node);
        attach(node);
        QCOMPARE(missing(), QStringList(valve));
        detach(node);
        QCOMPARE(missing(), QStringList({pump, valve}));
    }

    void aNodeThatDiesIsMissing()
    {
        TcpNode* node = addNode(pump);
        await({pump, valve});
        attach(node);
        delete node;
        QCOMPARE(missing(), QStringList({pump, valve}));
    }

    void ofTwoNodesOfOneNameOneSuffices()
    {
        TcpNode* first = addNode(pump);
        TcpNode* second = addNode(pump);
        await({pump, valve});
        attach(first);
        attach(second);
        detach(first);
        QCOMPARE(missing(), QStringList(valve));
        detach(second);
        QCOMPARE(missing(), QStringList({pump, valve}));
    }

    void anAttachedNodeCountsUnderItsPresentName()
    {
        TcpNode* node = addNode(pump);
        await({pump, valve});
        attach(node);
        node->setName(valve);
        QCOMPARE(missing(), QStringList(pump));
        node->setName("other");
        QCOMPARE(missing(), QStringList({pump, valve}));
        node->setName(pump);
        node->setName(pump);
        QCOMPARE(missing(), QStringList(valve));
    }

    void aNodeThatIsRenamedWithoutAProgramIsMissing()
    {
        TcpNode* node = addNode("other");
        await({pump});
        node->setName(pump);
        QCOMPARE(missing(), QStringList(pump));
        attach(node);
        QCOMPARE(missing(), QStringList());
    }

    void aNodeThatPlugAndPlayMakesIsAwaited()
    {
        Network* network = TestHelpers::network();
        network->setTcpPort(0);
        network->setTcpPnpEnabled(true);
        network->setNameUsedForPnpIdentification(true);
        QVERIFY(network->setTcpEnabled(true));
        await({pump, valve});
        Program program(network->listeningPort());
        program.send(control(5, pump.toLatin1()));
        QTRY_COMPARE(missing(), QStringList(valve));
        program.send(control(5, valve.toLatin1()));
        QTRY_COMPARE(missing(), QStringList(pump));
        program.close();
        QTRY_COMPARE(missing(), QStringList({pump, valve}));
    }

    void aNameGivenTwiceIsOne()
    {
        TcpNode* node = addNode(pump);
        await({pump, pump});
        attach(node);
        QCOMPARE(missing(), QStringList());
    }

private:
    void await(const QStringList& names)
    {
        _awaited = std::make_unique<AwaitedNodes>(names, *TestHelpers::network());
        _spy = std::make_unique<QSignalSpy>(_awaited.get(), SIGNAL(allAttached()));
    }

    /// Returns the names that it misses, and checks that its signal agrees.
    QStringList missing()
    {
        const QStringList names = _awaited->missing();
        const bool isAnnounced = _spy->count() > 0;
        return names.isEmpty() == isAnnounced ? names : QStringList("another than announced");
    }

    std::unique_ptr<AwaitedNodes> _awaited;
    std::unique_ptr<QSignalSpy> _spy;
};

QTEST_MAIN(TestAwaitedNodes)
#include "tst_awaitednodes.moc"
