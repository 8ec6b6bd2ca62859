#include "network/network.h"

#include "serverhelpers.h"

#include <QGraphicsRectItem>
#include <QtTest>

#include <ctime>
#include <memory>
#include <vector>

using namespace TestHelpers;

/// Which node gets a program that has identified itself.
class TestNodeMatching : public QObject
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

    /// Measures the processor's time: sorting all items for each program costs 1 to 9 ms.
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

        // The scene takes its centre with the new node, which is still at the origin
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

QTEST_MAIN(TestNodeMatching)
#include "tst_nodematching.moc"
