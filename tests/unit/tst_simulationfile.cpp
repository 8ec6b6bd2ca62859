#include "network/networksimulation.h"

#include "nodes/tcpnode.h"
#include "storedsimulations.h"
#include "testaccess.h"

#include <QTcpServer>
#include <QtTest>

using namespace StoredSimulations;

namespace {

QColor colorOf(const Stored::Color& stored)
{
    return stored.kind == 1 ? QColor(stored.red >> 8, stored.green >> 8, stored.blue >> 8) : QColor();
}

}  // namespace

/// Simulation files of each version, byte by byte.
class TestSimulationFile : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        qsrand(1);
        NetworkSimulation::newNetworkSimulation();
    }

    void cleanupTestCase() { NetworkSimulation::deleteNetworkSimulation(); }

    // Bytes of a new simulation

    void aNewSimulationIsTheseBytes()
    {
        const QByteArray head = QByteArray::fromHex("C191277D"
                                                    "00000001"
                                                    "000000FF"
                                                    "00000006"
                                                    "00000000"
                                                    "00000006"
                                                    "00000006"
                                                    "FFFFFFFFFFFF"
                                                    "00"
                                                    "228C"
                                                    "00"
                                                    "00");
        const QByteArray defaultConnection = QByteArray::fromHex("00010001"
                                                                 "0000000000000000"
                                                                 "0000000000000000"
                                                                 "00"
                                                                 "3FF0000000000000"
                                                                 "3FF0000000000000"
                                                                 "00000000"
                                                                 "00000000"
                                                                 "01FFFF0000000080800000"
                                                                 "4000000000000000"
                                                                 "FFFFFFFF");
        ByteWriter defaultNodeId;
        defaultNodeId.u64(nodeFileId(network().defaultNode()));
        const QByteArray defaultNode = QByteArray::fromHex("00010000"
                                                           "FFFFFFFF")
            + defaultNodeId.bytes
            + QByteArray::fromHex("0000000000000000"
                                  "0000000000000000"
                                  "FFFFFFFF"
                                  "00000000"
                                  "00000000"
                                  "00000000"
                                  "01FFFFC0C0C0C0C0C00000"
                                  "01FFFF9B9B9B9BFFFF0000"
                                  "01FFFF9B9BFFFF9B9B0000"
                                  "01FFFFFFFFFFFF9B9B0000"
                                  "4000000000000000"
                                  "00000002"
                                  "00000002"
                                  "00000002"
                                  "FFFFFFFF"
                                  "FFFFFFFF"
                                  "00000000");
        const QByteArray tail = QByteArray::fromHex("00000000"
                                                    "00000000"
                                                    "00"
                                                    "00"
                                                    "C191277D");
        QCOMPARE(saved().toHex(), (head + defaultConnection + defaultNode + tail).toHex());
    }

    void aNewSimulationIsWrittenAsTheRecordsSay()
    {
        Stored::Simulation simulation;
        simulation.defaultNode.id = nodeFileId(network().defaultNode());
        QCOMPARE(saved().toHex(), bytesOf(simulation).toHex());
    }

    // Files of each version

    void aFileIsReadAndWrittenBackEqual_data()
    {
        Stored::Simulation version7;
        version7.version = 7;
        QTest::addColumn<Stored::Simulation>("simulation");
        QTest::newRow("version 1, new") << Stored::Simulation();
        QTest::newRow("version 1, filled") << filledSimulation();
        QTest::newRow("version 0, new") << Stored::newSimulationOfVersion0();
        QTest::newRow("version 0, filled") << filled(Stored::newSimulationOfVersion0());
        QTest::newRow("version 7, new") << version7;
        QTest::newRow("version 7, filled") << filled(version7);
    }

    void aFileIsReadAndWrittenBackEqual()
    {
        QFETCH(Stored::Simulation, simulation);
        QVERIFY(loadSimulation(bytesOf(simulation)));
        QCOMPARE(items<Node>().size(), simulation.nodes.size());
        QCOMPARE(items<Connection>().size(), simulation.connections.size());
        QCOMPARE(saved().toHex(), bytesOf(asSavedAgain(simulation)).toHex());
    }

    void everyParameterOfTheNetworkIsRead()
    {
        QVERIFY(loadSimulation(bytesOf(filledSimulation())));
        QCOMPARE(network().maximalTransferUnit(), 1500);
        QCOMPARE(network().addressLength(), 2);
        QCOMPARE(network().destinationAddressOffset(), 3);
        QCOMPARE(network().sourceAddressOffset(), 5);
        QCOMPARE(network().broadcastAddress(), QByteArray::fromHex("FFFE"));
        QVERIFY(!network().isTcpEnabled());
        QCOMPARE(network().tcpPort(), quint16(0));
        QVERIFY(network().isTcpPnpEnabled());
        QVERIFY(network().isNameUsedForPnpIdentification());
    }

    void everySettingOfANodeIsRead()
    {
        QVERIFY(loadSimulation(bytesOf(filledSimulation())));
        const Stored::Node stored = fullNode();
        Node& node = *itemsAsRead<Node>().first();
        QCOMPARE(node.pos(), QPointF(-12.5, 300.25));
        QCOMPARE(node.address(), stored.address);
        QCOMPARE(TestAccess::flags(node), 2);
        QCOMPARE(TestAccess::framesAcknowledged(node), Qt::Checked);
        QCOMPARE(TestAccess::acknowledgeTimeout(node), 1234);
        QCOMPARE(TestAccess::inactiveColor(node), QColor(1, 2, 3));
        QCOMPARE(TestAccess::activeColor(node), QColor(4, 5, 6));
        QCOMPARE(TestAccess::txColor(node), QColor(7, 8, 9));
        QCOMPARE(TestAccess::rxColor(node), QColor(10, 11, 12));
        QCOMPARE(TestAccess::strokeWidth(node), 3.75);
        QCOMPARE(TestAccess::showAddress(node), Qt::Unchecked);
        QCOMPARE(TestAccess::showConnectionCount(node), Qt::Checked);
        QCOMPARE(TestAccess::showName(node), Qt::PartiallyChecked);
        QCOMPARE(node.name(), stored.name);
        QCOMPARE(node.toolTip(), stored.toolTip);
        QCOMPARE(TestAccess::promiscuousMode(node), Qt::Checked);
    }

    void everySettingOfAConnectionIsRead()
    {
        QVERIFY(loadSimulation(bytesOf(filledSimulation())));
        Connection& connection = *itemsAsRead<Connection>().first();
        QVERIFY(connection.isBroken());
        QCOMPARE(connection.reliability(), 0.75);
        QCOMPARE(connection.errorDetectionReliability(), 0.5);
        QCOMPARE(connection.delayMs(), 20);
        QCOMPARE(connection.delayDeviationMs(), 7);
        QCOMPARE(TestAccess::color(connection), QColor(200, 100, 50));
        QCOMPARE(TestAccess::strokeWidth(connection), 1.25);
        QCOMPARE(connection.toolTip(), QStringLiteral("a link"));
    }

    void theTemplatesAreRead()
    {
        QVERIFY(loadSimulation(bytesOf(filledSimulation())));
        Connection& connection = *network().defaultConnection();
        QVERIFY(connection.isBroken());
        QCOMPARE(connection.reliability(), 0.75);
        QCOMPARE(connection.toolTip(), QStringLiteral("a link"));
        QVERIFY(!connection.node(0));
        QVERIFY(!connection.node(1));
        QVERIFY(!connection.scene());

        Node& node = *network().defaultNode();
        QCOMPARE(node.address(), fullNode().address);
        QCOMPARE(TestAccess::acknowledgeTimeout(node), 1234);
        QCOMPARE(TestAccess::rxColor(node), colorOf(fullNode().rxColor));
        QCOMPARE(TestAccess::promiscuousMode(node), Qt::Checked);
        QCOMPARE(node.connectionCount(), 0);
        QVERIFY(!node.scene());
    }

    void theCaptureSwitchesAreRead_data()
    {
        QTest::addColumn<bool>("isEnabled");
        QTest::addColumn<bool>("follows");
        QTest::newRow("off") << false << false;
        QTest::newRow("enabled") << true << false;
        QTest::newRow("follows") << false << true;
        QTest::newRow("both") << true << true;
    }

    void theCaptureSwitchesAreRead()
    {
        QFETCH(bool, isEnabled);
        QFETCH(bool, follows);
        Stored::Simulation simulation;
        simulation.isCaptureEnabled = isEnabled;
        simulation.doesViewFollow = follows;
        QVERIFY(loadSimulation(bytesOf(simulation)));
        QCOMPARE(NetworkSimulation::instance()->capture()->isEnabled(), isEnabled);
        QCOMPARE(NetworkSimulation::instance()->capture()->doesViewFollows(), follows);
    }

    void readingACaptureRecordDropsItsFrames()
    {
        Capture capture;
        capture.setEnabled(true);
        Frame frame("x", 1, 2, Frame::DeliveredInTime);
        capture.addFrame(frame);
        QSignalSpy reset(&capture, SIGNAL(modelReset()));

        QDataStream stream(QByteArray::fromHex("0001"));
        stream >> capture;
        QCOMPARE(capture.rowCount(), 0);
        QCOMPARE(reset.size(), 1);
        QVERIFY(!capture.isEnabled());
        QVERIFY(capture.doesViewFollows());
    }

    void capturedFramesAndRunTimeStateAreNotStored()
    {
        QVERIFY(loadSimulation(bytesOf(filledSimulation())));
        const QByteArray before = saved();
        Node& node = *items<Node>().first();
        TestAccess::sendFrames(node) = 5;
        TestAccess::receivedBytes(node) = 6;
        TestAccess::lostFrames(*items<Connection>().first()) = 7;
        Frame frame("x", 1, 2, Frame::DeliveredInTime);
        NetworkSimulation::instance()->capture()->addFrame(frame);
        QCOMPARE(NetworkSimulation::instance()->capture()->rowCount(), 1);
        QCOMPARE(saved(), before);
    }

    void ofTheFlagsOnlyTheDisabledBitIsStored()
    {
        network().addItem(new TcpNode(QByteArray(), nullptr));
        Node& node = *items<Node>().first();
        const QByteArray none = saved();
        TestAccess::flags(node) = ~2;
        QCOMPARE(saved(), none);
        TestAccess::flags(node) = 2;
        const QByteArray disabled = saved();
        TestAccess::flags(node) = ~0;
        QCOMPARE(saved(), disabled);
        QVERIFY(disabled != none);
    }

    void ofTheFlagsOnlyTheDisabledBitIsRead()
    {
        Stored::Simulation simulation;
        simulation.nodes = {plainNode(1, 0, 0), plainNode(2, 100, 100), plainNode(3, 200, 200)};
        simulation.nodes[0].flags = -1;
        simulation.nodes[1].flags = ~2;
        QVERIFY(loadSimulation(bytesOf(simulation)));
        const QList<Node*> nodes = itemsAsRead<Node>();
        QCOMPARE(TestAccess::flags(*nodes.at(0)), 2);
        QCOMPARE(TestAccess::flags(*nodes.at(1)), 0);
        QCOMPARE(TestAccess::flags(*nodes.at(2)), 0);
    }

    void aFileOfVersion0KeepsWhatNewObjectsHave()
    {
        QVERIFY(loadSimulation(bytesOf(filled(Stored::newSimulationOfVersion0()))));
        QCOMPARE(NetworkSimulation::instance()->fileVersion(), quint32(0));
        QVERIFY(!network().isNameUsedForPnpIdentification());
        QCOMPARE(TestAccess::promiscuousMode(*network().defaultNode()), Qt::Unchecked);
        const QList<Node*> nodes = items<Node>();
        QCOMPARE(nodes.size(), 3);
        for (Node* node : nodes)
            QCOMPARE(TestAccess::promiscuousMode(*node), Qt::PartiallyChecked);
    }

    void aFileOfVersion0IsSavedAsVersion0()
    {
        QVERIFY(loadSimulation(bytesOf(Stored::newSimulationOfVersion0())));
        const QByteArray bytes = saved();
        QCOMPARE(bytes.left(8),
                 QByteArray::fromHex("C191277C"
                                     "000000FF"));
        QCOMPARE(bytes.right(4), QByteArray::fromHex("C191277C"));
        // no version word, no byte for identification by name, no word for the template's promiscuous mode
        QCOMPARE(bytes.size(), bytesOf(Stored::Simulation()).size() - 4 - 1 - 4);
    }

    void aFileOfVersion7IsKeptAsVersion7()
    {
        Stored::Simulation simulation;
        simulation.version = 7;
        simulation.nodes = {plainNode(1, 0, 0)};
        QVERIFY(loadSimulation(bytesOf(simulation)));
        QCOMPARE(NetworkSimulation::instance()->fileVersion(), quint32(7));
        QCOMPARE(items<Node>().size(), 1);
        QVERIFY(!network().isNameUsedForPnpIdentification());
        QCOMPARE(TestAccess::promiscuousMode(*items<Node>().first()), Qt::PartiallyChecked);
        QCOMPARE(saved().left(8),
                 QByteArray::fromHex("C191277D"
                                     "00000007"));
    }

    void aFileOfVersion7WithFieldsOfVersion1Fails()
    {
        const QByteArray bytes = replaced(bytesOf(filledSimulation()), 4, bigEndian(quint32{7}));
        QVERIFY(!loadSimulation(bytes));
        QVERIFY(isNewAndEmpty());
    }

    void aVersionedFileOfVersion0IsSavedWithoutVersion()
    {
        Stored::Simulation simulation;
        simulation.version = 0;
        QVERIFY(loadSimulation(bytesOf(simulation)));
        QCOMPARE(NetworkSimulation::instance()->fileVersion(), quint32(0));
        QCOMPARE(saved(), bytesOf(asSavedAgain(Stored::newSimulationOfVersion0())));
    }

    void theTwoMagicWordsMustAgree()
    {
        QByteArray version1 = bytesOf(filledSimulation());
        version1[version1.size() - 1] = '\x7C';
        QVERIFY(!loadSimulation(version1));
        QVERIFY(isNewAndEmpty());

        QByteArray version0 = bytesOf(filled(Stored::newSimulationOfVersion0()));
        version0[version0.size() - 1] = '\x7D';
        QVERIFY(!loadSimulation(version0));
        QVERIFY(isNewAndEmpty());
    }

    void bytesBehindTheTrailerAreIgnored()
    {
        QVERIFY(loadSimulation(bytesOf(filledSimulation()) + QByteArray(50, 'x')));
        QCOMPARE(items<Node>().size(), 3);
    }

    // Server

    void theServerIsSwitchedOnByTheFile()
    {
        Stored::Simulation simulation = filledSimulation();
        simulation.isServerOn = true;
        QVERIFY(loadSimulation(bytesOf(simulation)));
        QVERIFY(network().isTcpEnabled());
        QCOMPARE(network().tcpPort(), quint16(0));
        QVERIFY(network().listeningPort() != 0);
        QCOMPARE(saved().toHex(), bytesOf(asSavedAgain(simulation)).toHex());
    }

    void theServerStateIsWritten()
    {
        network().setTcpPort(0);
        Stored::Simulation simulation;
        simulation.port = 0;
        simulation.defaultNode.id = nodeFileId(network().defaultNode());
        QCOMPARE(saved(), bytesOf(simulation));
        QVERIFY(network().setTcpEnabled(true));
        simulation.isServerOn = true;
        QCOMPARE(saved(), bytesOf(simulation));
        network().setTcpEnabled(false);
        simulation.isServerOn = false;
        QCOMPARE(saved(), bytesOf(simulation));
    }

    void aServerThatCannotStartIsNoFailure()
    {
        QTcpServer other;
        QVERIFY(other.listen(QHostAddress::Any));
        Stored::Simulation simulation = filledSimulation();
        simulation.isServerOn = true;
        simulation.port = other.serverPort();
        QVERIFY(loadSimulation(bytesOf(simulation)));
        QVERIFY(!network().isTcpEnabled());
        QCOMPARE(network().tcpPort(), other.serverPort());
        QCOMPARE(items<Node>().size(), 3);
    }
};

QTEST_MAIN(TestSimulationFile)
#include "tst_simulationfile.moc"
