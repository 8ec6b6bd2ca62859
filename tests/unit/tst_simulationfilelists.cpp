#include "network/networksimulation.h"

#include "nodes/tcpnode.h"
#include "storedsimulations.h"
#include "testaccess.h"

#include <QtTest>

using namespace StoredSimulations;

/// The lists of nodes and links in a simulation file.
class TestSimulationFileLists : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        qsrand(1);
        NetworkSimulation::newNetworkSimulation();
    }

    void cleanupTestCase() { NetworkSimulation::deleteNetworkSimulation(); }

    // Order

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

    // Loaded items

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

    // Entries that are passed over

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

    // Odd lists

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
};

QTEST_MAIN(TestSimulationFileLists)
#include "tst_simulationfilelists.moc"
