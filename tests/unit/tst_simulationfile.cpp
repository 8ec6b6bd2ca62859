#include "bytewriter.h"
#include "loadsimulation.h"
#include "network/networksimulation.h"
#include "nodes/tcpnode.h"
#include "testaccess.h"

#include <QFile>
#include <QHash>
#include <QImage>
#include <QLoggingCategory>
#include <QPainter>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QtTest>

#include <algorithm>
#include <cmath>
#include <ctime>
#include <limits>
#include <random>

namespace {

constexpr quint32 hugeWords[] = {0xFFFFFFFE, 0xFFFFFFFF, 0x7FFFFFFF, 0x80000000};
constexpr double longestLoad = 1.0;  // seconds of the processor, so that a busy machine fails no test
constexpr quint64 idOfFirst = 0x1122334455667788;
constexpr quint64 idOfSecond = 2;
constexpr quint64 idOfThird = 0xFFFFFFFFFFFFFFFF;

/// No two fields that stand side by side hold the same value.
Stored::Node fullNode()
{
    Stored::Node node;
    node.id = idOfFirst;
    node.x = -12.5;
    node.y = 300.25;
    node.address = QByteArray::fromHex("0A0B0C0D0E0F");
    node.flags = 2;
    node.framesAcknowledged = 2;
    node.acknowledgeTimeout = 1234;
    node.inactiveColor = Stored::rgb(1, 2, 3);
    node.activeColor = Stored::rgb(4, 5, 6);
    node.txColor = Stored::rgb(7, 8, 9);
    node.rxColor = Stored::rgb(10, 11, 12);
    node.strokeWidth = 3.75;
    node.showAddress = 0;
    node.showConnectionCount = 2;
    node.showName = 1;
    node.name = QString::fromUtf8("Gerät \xE2\x82\xAC \xF0\x9F\x93\xA1");
    node.toolTip = QStringLiteral("a comment");
    node.promiscuousMode = 2;
    return node;
}

Stored::Node plainNode(quint64 id, double x, double y)
{
    Stored::Node node;
    node.id = id;
    node.x = x;
    node.y = y;
    return node;
}

Stored::Connection fullConnection()
{
    Stored::Connection connection;
    connection.firstEnd = idOfSecond;
    connection.secondEnd = idOfFirst;
    connection.isBroken = true;
    connection.reliability = 0.75;
    connection.errorDetectionReliability = 0.5;
    connection.delay = 20;
    connection.delayDeviation = 7;
    connection.color = Stored::rgb(200, 100, 50);
    connection.strokeWidth = 1.25;
    connection.toolTip = QStringLiteral("a link");
    return connection;
}

Stored::Connection plainConnection(quint64 firstEnd, quint64 secondEnd)
{
    Stored::Connection connection;
    connection.firstEnd = firstEnd;
    connection.secondEnd = secondEnd;
    return connection;
}

/// Fills \a simulation with three nodes, two connections and no default value.
Stored::Simulation filled(Stored::Simulation simulation)
{
    simulation.maximalTransferUnit = 1500;
    simulation.addressLength = 2;
    simulation.destinationAddressOffset = 3;
    simulation.sourceAddressOffset = 5;
    simulation.broadcastAddress = QByteArray::fromHex("FFFE");
    simulation.port = 0;
    simulation.isPlugAndPlayOn = true;
    simulation.isNameBased = simulation.hasVersionOneFields();
    simulation.defaultConnection = fullConnection();
    simulation.defaultConnection.firstEnd = 0;
    simulation.defaultConnection.secondEnd = 0;
    simulation.defaultNode = fullNode();
    simulation.defaultNode.nodeType = -1;
    simulation.defaultNode.promiscuousMode = simulation.hasVersionOneFields() ? 2 : 0;
    simulation.nodes = {fullNode(), plainNode(idOfSecond, 100, 100), plainNode(idOfThird, -100, 50)};
    if (!simulation.hasVersionOneFields())
        simulation.nodes.first().promiscuousMode = 1;
    simulation.connections = {fullConnection(), plainConnection(idOfFirst, idOfThird)};
    simulation.isCaptureEnabled = true;
    simulation.doesViewFollow = false;
    return simulation;
}

Stored::Simulation filledSimulation()
{
    return filled(Stored::Simulation());
}

QByteArray bytesOf(const Stored::Simulation& simulation)
{
    return Stored::write(simulation).bytes;
}

QByteArray bigEndian(quint32 word)
{
    ByteWriter writer;
    writer.u32(word);
    return writer.bytes;
}

QByteArray bigEndian(double number)
{
    ByteWriter writer;
    writer.f64(number);
    return writer.bytes;
}

QByteArray replaced(QByteArray bytes, int offset, const QByteArray& by)
{
    return bytes.replace(offset, by.size(), by);
}

/// Of a simulation without items; the count of the connections follows.
int nodeCountOffset(const QByteArray& bytes)
{
    return bytes.size() - 4 - 2 - 4 - 4;
}

QColor colorOf(const Stored::Color& stored)
{
    return stored.kind == 1 ? QColor(stored.red >> 8, stored.green >> 8, stored.blue >> 8) : QColor();
}

Network& network()
{
    return *NetworkSimulation::instance()->network();
}

/// Topmost first.
template <typename Item> QList<Item*> items()
{
    QList<Item*> found;
    const QList<QGraphicsItem*> all = network().items(Qt::DescendingOrder);
    for (QGraphicsItem* item : all) {
        if (auto* wanted = dynamic_cast<Item*>(item))
            found.append(wanted);
    }
    return found;
}

/// In the order of the file: what is read later lies on top.
template <typename Item> QList<Item*> itemsAsRead()
{
    QList<Item*> found = items<Item>();
    std::reverse(found.begin(), found.end());
    return found;
}

QByteArray saved()
{
    const QTemporaryDir folder;
    const QString path = folder.filePath(QStringLiteral("a.ltvo"));
    if (!NetworkSimulation::instance()->save(path))
        return QByteArray();
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

/// \a simulation, loaded before, as it is saved again: with the running program's ids and the topmost items
/// first.
Stored::Simulation asSavedAgain(Stored::Simulation simulation)
{
    const QList<Node*> nodes = itemsAsRead<Node>();
    QHash<quint64, quint64> ids;
    for (int i = 0; i < simulation.nodes.size() && i < nodes.size(); ++i) {
        ids[simulation.nodes.at(i).id] = nodeFileId(nodes.at(i));
        simulation.nodes[i].id = nodeFileId(nodes.at(i));
    }
    for (Stored::Connection& connection : simulation.connections) {
        connection.firstEnd = ids.value(connection.firstEnd);
        connection.secondEnd = ids.value(connection.secondEnd);
    }
    simulation.defaultNode.id = nodeFileId(network().defaultNode());
    std::reverse(simulation.nodes.begin(), simulation.nodes.end());
    std::reverse(simulation.connections.begin(), simulation.connections.end());
    return simulation;
}

bool isNewAndEmpty()
{
    return network().items().isEmpty() && network().maximalTransferUnit() == 255
        && NetworkSimulation::instance()->fileVersion() == 1
        && !NetworkSimulation::instance()->capture()->isEnabled() && !network().isTcpEnabled();
}

/// Does with a loaded simulation what a user would: looks at it, lets frames travel, reads the capture,
/// saves.
void exercise()
{
    QImage image(64, 64, QImage::Format_ARGB32_Premultiplied);
    QPainter painter(&image);
    network().render(&painter, QRectF(), QRectF(-150, -150, 500, 500));
    network().items(QRectF(-150, -150, 500, 500));
    network().itemsBoundingRect();
    network().addressInputMask(-1);
    const QList<Node*> nodes = items<Node>();
    for (Node* node : nodes) {
        node->setActive(true, false);
        node->dataRequest(QByteArray(20, '\xFF'));
    }
    const QList<Connection*> connections = items<Connection>();
    for (Connection* connection : connections)
        connection->deliverFrame();
    const Capture* capture = NetworkSimulation::instance()->capture();
    for (int column = 0; column < capture->columnCount(); ++column)
        capture->data(capture->index(0, column));
    QVERIFY(!saved().isEmpty());
}

/// Whether \a bytes could be loaded; fails the test when that, or what is done then, takes too long.
bool loadInTime(const QByteArray& bytes)
{
    const std::clock_t start = std::clock();
    const auto elapsed = [start] { return static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC; };
    const bool isLoaded = loadSimulation(bytes);
    [&] { QVERIFY2(elapsed() < longestLoad, "the load hangs"); }();
    if (isLoaded)
        exercise();
    [&] { QVERIFY2(elapsed() < 2 * longestLoad, "what was loaded hangs"); }();
    return isLoaded;
}

/// The process's largest memory so far, in KiB; -1 when the system does not tell.
int largestMemory()
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    const QList<QByteArray> lines = status.readAll().split('\n');
    for (const QByteArray& line : lines) {
        if (line.startsWith("VmHWM:"))
            return line.simplified().split(' ').at(1).toInt();
    }
    return -1;
}

}  // namespace

Q_DECLARE_METATYPE(Stored::Simulation)

class TestSimulationFile : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QLoggingCategory::setFilterRules(QStringLiteral("default.debug=false"));  // a line a corrupted bit
    }

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

    // Lists

    void nodesAndConnectionsAreWrittenTopmostFirst()
    {
        QVERIFY(loadSimulation(bytesOf(filledSimulation())));
        Node* lowest = itemsAsRead<Node>().first();
        lowest->setZValue(3.0);  // raised above the others
        QCOMPARE(items<Node>().first(), lowest);

        QVERIFY(loadSimulation(saved()));
        const QList<Node*> nodes = itemsAsRead<Node>();
        QCOMPARE(nodes.at(0)->name(), fullNode().name);  // was topmost and stands first in the file
        QCOMPARE(nodes.at(1)->pos(), QPointF(-100, 50));
        QCOMPARE(nodes.at(2)->pos(), QPointF(100, 100));
        const QList<Connection*> connections = itemsAsRead<Connection>();
        QCOMPARE(connections.at(0)->delayMs(), -1);
        QCOMPARE(connections.at(1)->delayMs(), 20);
    }

    void otherItemsAreNotWritten()
    {
        const QByteArray before = saved();
        network().addLine(QLineF(0, 0, 10, 10));
        QCOMPARE(saved(), before);
    }

    void twoRoundTripsGiveTheFirstOrderBack()
    {
        const Stored::Simulation simulation = filledSimulation();
        QVERIFY(loadSimulation(bytesOf(simulation)));
        QVERIFY(loadSimulation(saved()));
        QVERIFY(loadSimulation(saved()));
        QCOMPARE(saved().toHex(), bytesOf(asSavedAgain(simulation)).toHex());
    }

    void theOrderOfTheEndsIsKept()
    {
        QVERIFY(loadSimulation(bytesOf(filledSimulation())));
        const QList<Node*> nodes = itemsAsRead<Node>();
        const QList<Connection*> connections = itemsAsRead<Connection>();
        QCOMPARE(connections.at(0)->node(0), nodes.at(1));
        QCOMPARE(connections.at(0)->node(1), nodes.at(0));
        QCOMPARE(connections.at(1)->node(0), nodes.at(0));
        QCOMPARE(connections.at(1)->node(1), nodes.at(2));
        QCOMPARE(nodes.at(0)->connections(), connections);
        QCOMPARE(nodes.at(1)->connections(), QList<Connection*>{connections.at(0)});
        QCOMPARE(nodes.at(2)->connections(), QList<Connection*>{connections.at(1)});
    }

    void everyLoadedNodeIsAnUnattachedTcpNode()
    {
        QVERIFY(loadSimulation(bytesOf(filledSimulation())));
        const QList<Node*> nodes = items<Node>();
        QCOMPARE(nodes.size(), 3);
        for (Node* node : nodes) {
            auto* tcpNode = dynamic_cast<TcpNode*>(node);
            QVERIFY(tcpNode);
            QVERIFY(!tcpNode->socket());
            QVERIFY(!tcpNode->active());
            QCOMPARE(tcpNode->nodeType(), 1);
        }
    }

    void loadedNodesAreMeasuredByTheirTexts()
    {
        QVERIFY(loadSimulation(bytesOf(filledSimulation())));
        const Node* node = itemsAsRead<Node>().first();
        Node measured(fullNode().name);
        measured.setAddress(fullNode().address);
        QCOMPARE(TestAccess::widthForText(*node), TestAccess::widthForText(measured));
        QVERIFY(TestAccess::widthForText(*node) > 0);
        QCOMPARE(node->boundingRect(), measured.boundingRect());
    }

    void nullAndEmptyTextsAreToldApart()
    {
        Stored::Simulation simulation;
        simulation.nodes = {plainNode(1, 0, 0), plainNode(2, 100, 100)};
        simulation.nodes[0].address = QByteArray("");
        simulation.nodes[0].name = QString::fromLatin1("");
        simulation.nodes[0].toolTip = QString::fromLatin1("");
        QVERIFY(loadSimulation(bytesOf(simulation)));
        QCOMPARE(saved().toHex(), bytesOf(asSavedAgain(simulation)).toHex());
    }

    void theHeadersOfTheTemplatesAreSkipped()
    {
        Stored::Simulation simulation = filledSimulation();
        simulation.defaultConnection.itemType = -1;
        simulation.defaultConnection.firstEnd = idOfFirst;
        simulation.defaultConnection.secondEnd = 0xFFFFFFFFFFFFFFFF;
        simulation.defaultNode.itemType = 0;
        simulation.defaultNode.nodeType = 99;
        simulation.defaultNode.id = idOfFirst;
        QVERIFY(loadSimulation(bytesOf(simulation)));
        QVERIFY(!network().defaultConnection()->node(0));
        QCOMPARE(network().defaultConnection()->delayMs(), 20);
        QCOMPARE(TestAccess::acknowledgeTimeout(*network().defaultNode()), 1234);
        QCOMPARE(items<Node>().size(), 3);
        QCOMPARE(network().defaultNode()->connectionCount(), 0);
    }

    void anUnexpectedItemTypeOfANodeIsPassedOver()
    {
        for (const quint32 itemType : {0x10001U, 0U, 0xFFFFFFFFU}) {
            QByteArray bytes = bytesOf(Stored::Simulation());
            ByteWriter list;
            list.u32(2);
            list.u32(itemType);  // nothing more is read of this entry
            Stored::write(list, plainNode(1, 12, 34), true);
            bytes.replace(nodeCountOffset(bytes), 4, list.bytes);
            QVERIFY(loadSimulation(bytes));
            QCOMPARE(items<Node>().size(), 1);
            QCOMPARE(items<Node>().first()->pos(), QPointF(12, 34));
        }
    }

    void anUnexpectedNodeTypeIsPassedOver()
    {
        for (const quint32 nodeType : {0xFFFFFFFFU, 0U, 2U}) {
            QByteArray bytes = bytesOf(Stored::Simulation());
            ByteWriter list;
            list.u32(2);
            list.u32(0x10000);
            list.u32(nodeType);
            Stored::write(list, plainNode(1, 12, 34), true);
            bytes.replace(nodeCountOffset(bytes), 4, list.bytes);
            QVERIFY(loadSimulation(bytes));
            QCOMPARE(items<Node>().size(), 1);
            QCOMPARE(items<Node>().first()->pos(), QPointF(12, 34));
        }
    }

    void anUnexpectedItemTypeOfAConnectionIsPassedOver()
    {
        Stored::Simulation simulation;
        simulation.nodes = {plainNode(1, 0, 0), plainNode(2, 100, 100)};
        QByteArray bytes = bytesOf(simulation);
        ByteWriter list;
        list.u32(2);
        list.u32(0x10000);
        Stored::write(list, plainConnection(1, 2));
        bytes.replace(bytes.size() - 4 - 2 - 4, 4, list.bytes);
        QVERIFY(loadSimulation(bytes));
        QCOMPARE(items<Connection>().size(), 1);
    }

    void aConnectionWithAnUnknownEndIsPassedOver_data()
    {
        QTest::addColumn<quint64>("firstEnd");
        QTest::addColumn<quint64>("secondEnd");
        QTest::newRow("first") << quint64(3) << quint64(2);
        QTest::newRow("second") << quint64(1) << quint64(3);
        QTest::newRow("both") << quint64(3) << quint64(3);
        QTest::newRow("none") << quint64(0) << quint64(0);
    }

    void aConnectionWithAnUnknownEndIsPassedOver()
    {
        QFETCH(quint64, firstEnd);
        QFETCH(quint64, secondEnd);
        Stored::Simulation simulation;
        simulation.nodes = {plainNode(1, 0, 0), plainNode(2, 100, 100)};
        QByteArray bytes = bytesOf(simulation);
        ByteWriter list;
        list.u32(2);
        list.u32(0x10001);
        list.u64(firstEnd);
        list.u64(secondEnd);  // the body is not read
        Stored::write(list, plainConnection(1, 2));
        bytes.replace(bytes.size() - 4 - 2 - 4, 4, list.bytes);
        QVERIFY(loadSimulation(bytes));
        QCOMPARE(items<Connection>().size(), 1);
        QCOMPARE(items<Connection>().first()->node(0), itemsAsRead<Node>().first());
    }

    void aPassedOverEntryWithABodyFailsTheLoad_data()
    {
        QTest::addColumn<Stored::Simulation>("simulation");
        Stored::Simulation itemType = filledSimulation();
        itemType.nodes[1].itemType = 0x10001;
        QTest::newRow("item type of a node") << itemType;
        Stored::Simulation nodeType = filledSimulation();
        nodeType.nodes[1].nodeType = -1;
        QTest::newRow("node type") << nodeType;
        Stored::Simulation connectionType = filledSimulation();
        connectionType.connections[0].itemType = 0x10000;
        QTest::newRow("item type of a connection") << connectionType;
        Stored::Simulation unknownEnd = filledSimulation();
        unknownEnd.connections[1].secondEnd = 12345;
        QTest::newRow("unknown end") << unknownEnd;
    }

    void aPassedOverEntryWithABodyFailsTheLoad()
    {
        QFETCH(Stored::Simulation, simulation);
        QVERIFY(!loadSimulation(bytesOf(simulation)));
        QVERIFY(isNewAndEmpty());
        QVERIFY(TestAccess::allTcpNodes().isEmpty());
    }

    void ofNodesWithOneIdTheLastGetsTheConnections()
    {
        Stored::Simulation simulation;
        simulation.nodes = {plainNode(1, 0, 0), plainNode(2, 50, 50), plainNode(1, 100, 100)};
        simulation.connections = {plainConnection(1, 2)};
        QVERIFY(loadSimulation(bytesOf(simulation)));
        const QList<Node*> nodes = itemsAsRead<Node>();
        QCOMPARE(nodes.size(), 3);
        QCOMPARE(nodes.at(0)->connectionCount(), 0);
        QCOMPARE(nodes.at(1)->connectionCount(), 1);
        QCOMPARE(nodes.at(2)->connectionCount(), 1);
        QCOMPARE(items<Connection>().first()->node(0), nodes.at(2));
    }

    void aConnectionOfANodeWithItselfLoads()
    {
        Stored::Simulation simulation;
        simulation.nodes = {plainNode(1, 0, 0)};
        simulation.connections = {plainConnection(1, 1)};
        QVERIFY(loadInTime(bytesOf(simulation)));
        QCOMPARE(items<Connection>().size(), 1);
        delete items<Node>().first();
        QVERIFY(network().items().isEmpty());
    }

    void theCountOfANullListReadsAsEmpty()
    {
        const QByteArray bytes = bytesOf(Stored::Simulation());
        const QByteArray nullCount = bigEndian(0xFFFFFFFFU);
        QVERIFY(loadSimulation(replaced(bytes, nodeCountOffset(bytes), nullCount)));
        QVERIFY(loadSimulation(replaced(bytes, nodeCountOffset(bytes) + 4, nullCount)));
        QVERIFY(loadSimulation(replaced(bytes, nodeCountOffset(bytes), nullCount + nullCount)));
        QVERIFY(network().items().isEmpty());
        QVERIFY(!loadSimulation(replaced(bytes, nodeCountOffset(bytes), bigEndian(0xFFFFFFFEU))));
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

    // Damage

    void aFileCutAtAnyLengthFails_data()
    {
        QTest::addColumn<Stored::Simulation>("simulation");
        QTest::newRow("version 1") << filledSimulation();
        QTest::newRow("version 0") << filled(Stored::newSimulationOfVersion0());
    }

    void aFileCutAtAnyLengthFails()
    {
        QFETCH(Stored::Simulation, simulation);
        const QByteArray bytes = bytesOf(simulation);
        QVERIFY(loadInTime(bytes));
        for (int length = 0; length < bytes.size(); ++length) {
            QVERIFY2(!loadInTime(bytes.left(length)), qPrintable(QString::number(length)));
            QVERIFY(isNewAndEmpty());
        }
    }

    void hugeCountsAndLengthsNeitherCrashNorTakeMemory_data() { aFileCutAtAnyLengthFails_data(); }

    void hugeCountsAndLengthsNeitherCrashNorTakeMemory()
    {
        QFETCH(Stored::Simulation, simulation);
        const ByteWriter file = Stored::write(simulation);
        QVERIFY(file.lengthOffsets.size() > 10);
        QVERIFY(loadInTime(file.bytes));
        const int memoryBefore = largestMemory();
        for (const int offset : file.lengthOffsets) {
            for (const quint32 word : hugeWords)
                loadInTime(replaced(file.bytes, offset, bigEndian(word)));
        }
#ifndef __SANITIZE_ADDRESS__  // it keeps what was freed for a while
        QVERIFY(memoryBefore > 0);
        QVERIFY2(largestMemory() - memoryBefore < 32 * 1024, "memory was taken for bytes that are not there");
#else
        Q_UNUSED(memoryBefore)
#endif
    }

    void aHugeCountOverALongFileEndsWithTheFile()
    {
        const QByteArray bytes = bytesOf(Stored::Simulation());
        const QByteArray rest(1024 * 1024, '\0');
        for (const quint32 word : hugeWords) {
            QVERIFY(!loadInTime(bytes.left(nodeCountOffset(bytes)) + bigEndian(word) + rest));
            QVERIFY(!loadInTime(bytes.left(nodeCountOffset(bytes) + 4) + bigEndian(word) + rest));
        }
    }

    void randomBytesAreRefused()
    {
        std::mt19937 generator(1);
        const QByteArray magicWords[] = {QByteArray(), QByteArray::fromHex("C191277C"),
                                         QByteArray::fromHex("C191277D"
                                                             "00000001")};
        for (int round = 0; round < 300; ++round) {
            QByteArray bytes = magicWords[round % 3];
            const int size = static_cast<int>(generator() % 2000);
            for (int i = 0; i < size; ++i)
                bytes += static_cast<char>(generator());
            QVERIFY(!loadInTime(bytes));
            QVERIFY(isNewAndEmpty());
        }
    }

    void randomChangesToAFileAreSurvived()
    {
        std::mt19937 generator(2);
        const QByteArray bytes = bytesOf(filledSimulation());
        int loaded = 0;
        for (int round = 0; round < 500; ++round) {
            QByteArray damaged = bytes;
            for (int change = 0; change <= round % 4; ++change)
                damaged[static_cast<int>(generator() % static_cast<uint>(bytes.size()))]
                    = static_cast<char>(generator());
            if (loadInTime(damaged))
                ++loaded;
        }
        QVERIFY(loaded > 0);  // most changes hit values and not the format
    }

    /// The five numbers of the network that are not checked when they are read.
    void extremeParametersAreSurvived()
    {
        const int extremes[] = {std::numeric_limits<int>::max(), std::numeric_limits<int>::min(), -1, 0};
        for (const int extreme : extremes) {
            for (int field = 0; field < 8; ++field) {
                Stored::Simulation simulation = filledSimulation();
                simulation.nodes[0].flags = 0;
                simulation.connections[0].isBroken = false;
                int* fields[] = {
                    &simulation.maximalTransferUnit,           &simulation.addressLength,
                    &simulation.destinationAddressOffset,      &simulation.sourceAddressOffset,
                    &simulation.nodes[0].acknowledgeTimeout,   &simulation.connections[0].delay,
                    &simulation.connections[0].delayDeviation, &simulation.defaultConnection.delayDeviation};
                *fields[field] = extreme;
                QVERIFY(loadInTime(bytesOf(simulation)));
                QCOMPARE(items<Node>().size(), 3);
            }
        }
    }

    void oddNumbersAreSurvived_data()
    {
        using Limits = std::numeric_limits<double>;
        QTest::addColumn<double>("number");
        QTest::newRow("NaN") << Limits::quiet_NaN();
        QTest::newRow("infinity") << Limits::infinity();
        QTest::newRow("negative infinity") << -Limits::infinity();
        QTest::newRow("largest") << Limits::max();
        QTest::newRow("lowest") << Limits::lowest();
        QTest::newRow("1e9") << 1e9;
        QTest::newRow("-1e9") << -1e9;
        QTest::newRow("smallest") << Limits::denorm_min();
        QTest::newRow("1e-9") << 1e-9;
    }

    void oddNumbersAreSurvived()
    {
        QFETCH(double, number);
        const ByteWriter file = Stored::write(filledSimulation());
        QVERIFY(file.doubleOffsets.size() > 10);
        for (const int offset : file.doubleOffsets) {
            QVERIFY(loadInTime(replaced(file.bytes, offset, bigEndian(number))));
            QCOMPARE(items<Node>().size(), 3);
            QCOMPARE(items<Connection>().size(), 2);
            const QList<QGraphicsItem*> all = network().items();
            for (const QGraphicsItem* item : all) {
                const QRectF bounds = item->sceneBoundingRect();
                QVERIFY(std::isfinite(bounds.left()) && std::isfinite(bounds.top()));
                QVERIFY(std::isfinite(bounds.right()) && std::isfinite(bounds.bottom()));
            }
        }
    }

    void probabilitiesAreReadAsTheyStandButForNaN_data()
    {
        using Limits = std::numeric_limits<double>;
        QTest::addColumn<double>("stored");
        QTest::addColumn<double>("read");
        QTest::newRow("NaN") << Limits::quiet_NaN() << -1.0;
        QTest::newRow("negative NaN") << -Limits::quiet_NaN() << -1.0;
        QTest::newRow("infinity") << Limits::infinity() << Limits::infinity();
        QTest::newRow("negative infinity") << -Limits::infinity() << -Limits::infinity();
        QTest::newRow("above 1") << 7.0 << 7.0;
        QTest::newRow("below 0") << -0.25 << -0.25;
    }

    void probabilitiesAreReadAsTheyStandButForNaN()
    {
        QFETCH(double, stored);
        QFETCH(double, read);
        Stored::Simulation simulation;
        simulation.nodes = {plainNode(idOfFirst, 0, 0), plainNode(idOfSecond, 100, 100)};
        simulation.connections = {plainConnection(idOfFirst, idOfSecond)};
        const auto setAll = [&](double number) {
            for (Stored::Connection* record : {&simulation.defaultConnection, &simulation.connections[0]}) {
                record->reliability = number;
                record->errorDetectionReliability = number;
            }
        };
        setAll(stored);
        QVERIFY(loadSimulation(bytesOf(simulation)));
        for (const Connection* link : {network().defaultConnection(), items<Connection>().first()}) {
            QCOMPARE(link->reliability(), read);
            QCOMPARE(link->errorDetectionReliability(), read);
        }
        setAll(read);
        QCOMPARE(saved(), bytesOf(asSavedAgain(simulation)));
    }

    void positionsAndWidthsAreMovedIntoTheScene_data()
    {
        using Limits = std::numeric_limits<double>;
        QTest::addColumn<double>("stored");
        QTest::addColumn<double>("coordinate");
        QTest::addColumn<double>("width");
        QTest::newRow("NaN") << Limits::quiet_NaN() << 0.0 << -1.0;
        QTest::newRow("infinity") << Limits::infinity() << 0.0 << -1.0;
        QTest::newRow("negative infinity") << -Limits::infinity() << 0.0 << -1.0;
        QTest::newRow("at the far end") << 1e7 << 1e7 << 1e7;
        QTest::newRow("beyond the far end") << 1.1e7 << 1e7 << 1e7;
        QTest::newRow("beyond the other end") << -1.1e7 << -1e7 << -1e7;
    }

    void positionsAndWidthsAreMovedIntoTheScene()
    {
        QFETCH(double, stored);
        QFETCH(double, coordinate);
        QFETCH(double, width);
        Stored::Simulation simulation;
        simulation.nodes = {plainNode(idOfFirst, stored, stored), plainNode(idOfSecond, 100, 100)};
        simulation.nodes[0].strokeWidth = stored;
        simulation.connections = {plainConnection(idOfFirst, idOfSecond)};
        simulation.connections[0].strokeWidth = stored;
        QVERIFY(loadSimulation(bytesOf(simulation)));
        Node& node = *itemsAsRead<Node>().first();
        QCOMPARE(node.pos(), QPointF(coordinate, coordinate));
        QCOMPARE(TestAccess::strokeWidth(node), width);
        QCOMPARE(TestAccess::strokeWidth(*items<Connection>().first()), width);
    }

    void oddSwitchesReadAsUnchecked()
    {
        const ByteWriter file = Stored::write(filledSimulation());
        QCOMPARE(file.checkStateOffsets.size(), 4 * 5);  // the default node and three nodes
        for (const int offset : file.checkStateOffsets) {
            for (const quint32 state : {3U, 0xFFFFFFFFU, 0x7FFFFFFFU, 0x80000000U})
                QVERIFY(loadInTime(replaced(file.bytes, offset, bigEndian(state))));
        }

        Stored::Simulation simulation;
        simulation.nodes = {plainNode(1, 0, 0)};
        simulation.nodes[0].showName = 3;
        simulation.nodes[0].framesAcknowledged = -1;
        simulation.nodes[0].promiscuousMode = 0x7FFFFFFF;
        QVERIFY(loadSimulation(bytesOf(simulation)));
        Node& node = *items<Node>().first();
        QCOMPARE(TestAccess::showName(node), Qt::Unchecked);
        QCOMPARE(TestAccess::framesAcknowledged(node), Qt::Unchecked);
        QCOMPARE(TestAccess::promiscuousMode(node), Qt::Unchecked);
    }

    void oddColorKindsReadAsNoColor()
    {
        const ByteWriter file = Stored::write(filledSimulation());
        QCOMPARE(file.colorOffsets.size(), 1 + 4 * 4 + 2);
        for (const int offset : file.colorOffsets) {
            for (int kind = 0; kind < 256; kind += kind < 8 ? 1 : 31)
                QVERIFY(loadInTime(replaced(file.bytes, offset, QByteArray(1, static_cast<char>(kind)))));
        }

        Stored::Simulation simulation;
        simulation.nodes = {plainNode(1, 0, 0)};
        for (const quint8 kind : {quint8(6), quint8(127), quint8(128), quint8(255)}) {
            simulation.nodes[0].txColor = Stored::rgb(1, 2, 3);
            simulation.nodes[0].txColor.kind = kind;
            QVERIFY(loadSimulation(bytesOf(simulation)));
            QVERIFY(!TestAccess::txColor(*items<Node>().first()).isValid());
        }
    }
};

QTEST_MAIN(TestSimulationFile)
#include "tst_simulationfile.moc"
