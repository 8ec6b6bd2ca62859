#include "network/network.h"

#include "network/networksimulation.h"
#include "nodes/tcpnode.h"
#include "testaccess.h"

#include <QGraphicsLineItem>
#include <QLineEdit>
#include <QLinearGradient>
#include <QPointer>
#include <QSignalSpy>
#include <QtTest>

#include <limits>
#include <memory>

class TestNetwork : public QObject
{
    Q_OBJECT

private slots:
    void init() { NetworkSimulation::newNetworkSimulation(); }

    void cleanupTestCase() { NetworkSimulation::deleteNetworkSimulation(); }

    // Items
    void aTcpNodeTellsItsKinds()
    {
        const TcpNode node(QByteArray("\1\2\3\4\5\6", 6), nullptr);
        QCOMPARE(node.type(), 0x10000);
        QCOMPARE(node.nodeType(), 1);
    }

    void aPlainNodeTellsItsKinds()
    {
        const Node node{QByteArray()};
        QCOMPARE(node.type(), 0x10000);
        QCOMPARE(node.nodeType(), -1);
    }

    void aConnectionTellsItsKind()
    {
        const Connection connection(nullptr, nullptr);
        QCOMPARE(connection.type(), 0x10001);
    }

    void theTemplatesArePlainItemsOutsideTheScene()
    {
        QCOMPARE(network().defaultNode()->type(), 0x10000);
        QCOMPARE(network().defaultNode()->nodeType(), -1);
        QCOMPARE(network().defaultConnection()->type(), 0x10001);
        QVERIFY(!network().defaultNode()->scene());
        QVERIFY(!network().defaultConnection()->scene());
        QVERIFY(network().items().isEmpty());
    }

    void aNewItemHasNoParentItem()
    {
        const auto* node = addNode();
        const auto* connection = join(addNode(), addNode());
        QVERIFY(!node->parentItem());
        QVERIFY(!connection->parentItem());
    }

    void otherGraphicsItemsAreNoNetworkItems()
    {
        QGraphicsItem* line = network().addLine(QLineF(0, 0, 10, 10));
        QVERIFY(!dynamic_cast<NetworkItem*>(line));
        QGraphicsItem* node = addNode();
        QVERIFY(dynamic_cast<NetworkItem*>(node));
        QGraphicsItem* connection = join(addNode(), addNode());
        QVERIFY(dynamic_cast<NetworkItem*>(connection));
    }

    void deletingThroughTheBaseDeletesTheWholeItem_data()
    {
        QTest::addColumn<int>("kind");
        QTest::newRow("plain node") << 0;
        QTest::newRow("TCP node") << 1;
        QTest::newRow("connection") << 2;
    }

    void deletingThroughTheBaseDeletesTheWholeItem()
    {
        QFETCH(int, kind);
        NetworkItem* item = nullptr;
        if (kind == 0)
            item = new Node(QByteArray());
        else if (kind == 1)
            item = new TcpNode(QByteArray(), nullptr);
        else
            item = new Connection(nullptr, nullptr);

        const QPointer<QObject> object = dynamic_cast<QObject*>(item);
        QVERIFY(object);
        delete item;
        QVERIFY(!object);
    }

    void everyItemMakesAnEditorOfItsOwnWithoutParent()
    {
        Node plain{QByteArray()};
        NetworkItem* items[] = {&plain, addNode(), join(addNode(), addNode())};
        for (NetworkItem* item : items) {
            const std::unique_ptr<QWidget> one(item->propertiesWidget());
            const std::unique_ptr<QWidget> other(item->propertiesWidget());
            QVERIFY(one);
            QVERIFY(other);
            QVERIFY(one != other);
            QVERIFY(!one->parent());
        }
    }

    // Parameters and templates
    void aNewNetworkHasTheDefaultParameters()
    {
        QCOMPARE(network().maximalTransferUnit(), 255);
        QCOMPARE(network().addressLength(), 6);
        QCOMPARE(network().destinationAddressOffset(), 0);
        QCOMPARE(network().sourceAddressOffset(), 6);
        QCOMPARE(network().broadcastAddress(), QByteArray::fromHex("FFFFFFFFFFFF"));
    }

    void aNewNetworkHasItsServerOff()
    {
        QCOMPARE(network().tcpPort(), quint16(8844));
        QVERIFY(!network().isTcpEnabled());
        QVERIFY(!network().isTcpPnpEnabled());
        QVERIFY(!network().isNameUsedForPnpIdentification());
        QVERIFY(TestAccess::server(network()).pending.isEmpty());
    }

    void aNewNetworkEditsBySelection()
    {
        QCOMPARE(network().editorMode(), Network::Selection);
        QVERIFY(!TestAccess::editor(network()).from);
        QVERIFY(!TestAccess::editor(network()).connectionPreview);
        QVERIFY(!network().parent());
    }

    void theDefaultConnectionDecidesEverySetting()
    {
        Connection& connection = *network().defaultConnection();
        QVERIFY(!connection.isBroken());
        QCOMPARE(connection.reliability(), 1.0);
        QCOMPARE(connection.errorDetectionReliability(), 1.0);
        QCOMPARE(connection.delayMs(), 0);
        QCOMPARE(connection.delayDeviationMs(), 0);
        QCOMPARE(TestAccess::color(connection), QColor(Qt::darkBlue));
        QCOMPARE(TestAccess::strokeWidth(connection), 2.0);
        QVERIFY(!connection.node(0));
        QVERIFY(!connection.node(1));
    }

    void theDefaultNodeDecidesEverySetting()
    {
        Node& node = *network().defaultNode();
        QVERIFY(node.address().isEmpty());
        QVERIFY(node.name().isEmpty());
        QCOMPARE(TestAccess::promiscuousMode(node), Qt::Unchecked);
        QCOMPARE(TestAccess::framesAcknowledged(node), Qt::Unchecked);
        QCOMPARE(TestAccess::acknowledgeTimeout(node), 0);
        QCOMPARE(TestAccess::inactiveColor(node), QColor(Qt::lightGray));
        QCOMPARE(TestAccess::activeColor(node), QColor(155, 155, 255));
        QCOMPARE(TestAccess::txColor(node), QColor(155, 255, 155));
        QCOMPARE(TestAccess::rxColor(node), QColor(255, 255, 155));
        QCOMPARE(TestAccess::strokeWidth(node), 2.0);
        QCOMPARE(TestAccess::showName(node), Qt::Checked);
        QCOMPARE(TestAccess::showAddress(node), Qt::Checked);
        QCOMPARE(TestAccess::showConnectionCount(node), Qt::Checked);
    }

    void theBackgroundFadesFromPaleBlueToWhite()
    {
        const QBrush brush = network().backgroundBrush();
        QCOMPARE(brush.style(), Qt::LinearGradientPattern);
        const auto* gradient = static_cast<const QLinearGradient*>(brush.gradient());
        QCOMPARE(gradient->start(), QPointF(0, 0));
        QCOMPARE(gradient->finalStop(), QPointF(0, 200));
        QCOMPARE(gradient->spread(), QGradient::PadSpread);
        const QGradientStops stops = {{0.0, QColor(245, 245, 255)}, {1.0, QColor(Qt::white)}};
        QCOMPARE(gradient->stops(), stops);
    }

    void theNetworkMakesAnEditorWithoutParent()
    {
        const std::unique_ptr<QWidget> widget(network().propertiesWidget());
        QVERIFY(widget);
        QVERIFY(!widget->parent());
    }

    void plugAndPlaySwitchesAreStored()
    {
        network().setTcpPnpEnabled(true);
        QVERIFY(network().isTcpPnpEnabled());
        QVERIFY(!network().isNameUsedForPnpIdentification());
        network().setNameUsedForPnpIdentification(true);
        QVERIFY(network().isNameUsedForPnpIdentification());
        network().setTcpPnpEnabled(false);
        QVERIFY(!network().isTcpPnpEnabled());
        QVERIFY(network().isNameUsedForPnpIdentification());
    }

    void aPortChangedWhileTheServerIsOffIsOnlyStored()
    {
        network().setTcpPort(0);
        QCOMPARE(network().tcpPort(), quint16(0));
        QVERIFY(!network().isTcpEnabled());
        QCOMPARE(network().listeningPort(), quint16(0));
    }

    // Address mask
    void theAddressMaskHasAPairForEveryByte_data()
    {
        QTest::addColumn<int>("length");
        QTest::addColumn<QString>("mask");
        QTest::newRow("none has a pair all the same") << 0 << "XX";
        QTest::newRow("one") << 1 << "XX";
        QTest::newRow("two") << 2 << "XX:XX";
        QTest::newRow("six") << 6 << "XX:XX:XX:XX:XX:XX";
    }

    void theAddressMaskHasAPairForEveryByte()
    {
        QFETCH(int, length);
        QFETCH(QString, mask);
        QCOMPARE(network().addressInputMask(length), mask);
    }

    void aNegativeMaskLengthMeansTheAddressLength()
    {
        QCOMPARE(network().addressInputMask(-1), QStringLiteral("XX:XX:XX:XX:XX:XX"));
        TestAccess::parameters(network()).addressLength = 3;
        QCOMPARE(network().addressInputMask(-1), QStringLiteral("XX:XX:XX"));
        QCOMPARE(network().addressInputMask(std::numeric_limits<int>::min()), QStringLiteral("XX:XX:XX"));
        TestAccess::parameters(network()).addressLength = -1;
        QCOMPARE(network().addressInputMask(-1), QStringLiteral("XX"));
    }

    void theAddressMaskStopsAtWhatALineEditHolds()
    {
        const int longest = 32768;
        QCOMPARE(network().addressInputMask(longest - 1).size(), 3 * (longest - 1) - 1);
        QCOMPARE(network().addressInputMask(longest).size(), 3 * longest - 1);
        QCOMPARE(network().addressInputMask(longest + 1).size(), 3 * longest - 1);
        QCOMPARE(network().addressInputMask(std::numeric_limits<int>::max()).size(), 3 * longest - 1);
    }

    void theAddressMaskWorksInALineEdit()
    {
        QLineEdit edit;
        edit.setInputMask(network().addressInputMask(3));
        edit.setText(QStringLiteral("0A1B2C"));
        QCOMPARE(edit.text(), QStringLiteral("0A:1B:2C"));
    }

    // Selection and deletion
    void withoutSelectionThereIsNoSelectedItem()
    {
        addNode();
        QVERIFY(!network().selectedNetworkItem());
    }

    void theSelectedItemIsFound_data()
    {
        QTest::addColumn<bool>("isNode");
        QTest::newRow("node") << true;
        QTest::newRow("connection") << false;
    }

    void theSelectedItemIsFound()
    {
        QFETCH(bool, isNode);
        NetworkItem* item = isNode ? static_cast<NetworkItem*>(addNode()) : join(addNode(), addNode());
        item->setSelected(true);
        QCOMPARE(network().selectedNetworkItem(), item);
    }

    void aSelectedItemOfAnotherKindIsNoNetworkItem()
    {
        QGraphicsItem* line = network().addLine(QLineF(0, 0, 10, 10));
        line->setFlag(QGraphicsItem::ItemIsSelectable);
        line->setSelected(true);
        QCOMPARE(network().selectedItems().size(), 1);
        QVERIFY(!network().selectedNetworkItem());
    }

    void deletingWithoutSelectionDoesNothing()
    {
        QSignalSpy lastDeleted(&network(), SIGNAL(lastNodeDeleted()));
        network().deleteSelectedNetworkItem();
        QCOMPARE(lastDeleted.size(), 0);

        addNode();
        network().deleteSelectedNetworkItem();
        QCOMPARE(network().items().size(), 1);
        QCOMPARE(lastDeleted.size(), 0);
    }

    void oneDeleteRemovesOnlyTheFirstSelectedItem()
    {
        QList<QPointer<QObject>> nodes;
        for (int i = 0; i < 3; ++i) {
            auto* node = addNode(QPointF(100 * i, 0));
            node->setSelected(true);
            nodes.append(node);
        }
        QPointer<QObject> first = dynamic_cast<Node*>(network().selectedItems().first());
        network().deleteSelectedNetworkItem();
        QVERIFY(!first);
        QCOMPARE(network().items().size(), 2);
    }

    void deletingClearsTheSelection()
    {
        addNode()->setSelected(true);
        addNode()->setSelected(true);
        network().deleteSelectedNetworkItem();
        QVERIFY(network().selectedItems().isEmpty());
        QVERIFY(!network().selectedNetworkItem());
    }

    void deletingANodeDeletesItsConnections()
    {
        auto* centre = addNode();
        auto* left = addNode(QPointF(-100, 0));
        auto* right = addNode(QPointF(100, 0));
        const QPointer<QObject> toTheLeft = join(centre, left);
        const QPointer<QObject> fromTheRight = join(right, centre);
        const QPointer<QObject> between = join(left, right);
        centre->setSelected(true);
        network().deleteSelectedNetworkItem();
        QVERIFY(!toTheLeft);
        QVERIFY(!fromTheRight);
        QVERIFY(between);
        QCOMPARE(left->connectionCount(), 1);
        QCOMPARE(right->connectionCount(), 1);
        QCOMPARE(network().items().size(), 3);
    }

    void deletingAConnectionLeavesItsNodes()
    {
        auto* one = addNode();
        auto* other = addNode(QPointF(100, 0));
        const QPointer<QObject> connection = join(one, other);
        one->connections().first()->setSelected(true);
        network().deleteSelectedNetworkItem();
        QVERIFY(!connection);
        QCOMPARE(network().items().size(), 2);
        QCOMPARE(one->connectionCount(), 0);
        QCOMPARE(other->connectionCount(), 0);
    }

    void deletingTheLastConnectionWhileNodesRemainIsNotAnnounced()
    {
        QSignalSpy lastDeleted(&network(), SIGNAL(lastNodeDeleted()));
        join(addNode(), addNode())->setSelected(true);
        network().deleteSelectedNetworkItem();
        QCOMPARE(network().items().size(), 2);
        QCOMPARE(lastDeleted.size(), 0);
    }

    void deletingTheLastNodeWithItsConnectionsIsAnnounced()
    {
        QSignalSpy lastDeleted(&network(), SIGNAL(lastNodeDeleted()));
        auto* one = addNode();
        auto* other = addNode(QPointF(100, 0));
        join(one, other);
        one->setSelected(true);
        network().deleteSelectedNetworkItem();
        QCOMPARE(lastDeleted.size(), 0);
        other->setSelected(true);
        network().deleteSelectedNetworkItem();
        QCOMPARE(lastDeleted.size(), 1);
        QVERIFY(network().items().isEmpty());
    }

    void deletingTheLastItemOfAnotherKindIsAnnouncedToo()
    {
        QSignalSpy lastDeleted(&network(), SIGNAL(lastNodeDeleted()));
        QGraphicsItem* line = network().addLine(QLineF(0, 0, 10, 10));
        line->setFlag(QGraphicsItem::ItemIsSelectable);
        line->setSelected(true);
        network().deleteSelectedNetworkItem();
        QVERIFY(network().items().isEmpty());
        QCOMPARE(lastDeleted.size(), 1);
    }

    void aNodeThatIsNotTheLastIsDeletedWithoutAnnouncement()
    {
        QSignalSpy lastDeleted(&network(), SIGNAL(lastNodeDeleted()));
        addNode();
        addNode(QPointF(100, 0))->setSelected(true);
        network().deleteSelectedNetworkItem();
        QCOMPARE(network().items().size(), 1);
        QCOMPARE(lastDeleted.size(), 0);
    }

    // Modes
    void otherModesClearTheSelection_data()
    {
        QTest::addColumn<int>("mode");
        QTest::newRow("node placement") << int(Network::NodePlacement);
        QTest::newRow("connection drawing") << int(Network::ConnectionDrawing);
    }

    void otherModesClearTheSelection()
    {
        QFETCH(int, mode);
        addNode()->setSelected(true);
        network().setEditorMode(static_cast<Network::EditMode>(mode));
        QCOMPARE(int(network().editorMode()), mode);
        QVERIFY(network().selectedItems().isEmpty());
    }

    void theSelectionModeKeepsTheSelection()
    {
        network().setEditorMode(Network::NodePlacement);
        auto* node = addNode();
        node->setSelected(true);
        network().setEditorMode(Network::Selection);
        QCOMPARE(network().editorMode(), Network::Selection);
        QVERIFY(node->isSelected());
    }

    void theModesHaveTheirNumbers()
    {
        QCOMPARE(int(Network::Selection), 0);
        QCOMPARE(int(Network::NodePlacement), 1);
        QCOMPARE(int(Network::ConnectionDrawing), 2);
    }

    // Life
    void itemsDieWithTheirNetwork()
    {
        auto* one = addNode();
        auto* other = addNode();
        const QPointer<QObject> node = one;
        const QPointer<QObject> connection = join(one, other);
        NetworkSimulation::newNetworkSimulation();
        QVERIFY(!node);
        QVERIFY(!connection);
        QVERIFY(network().items().isEmpty());
    }

    void aNetworkOfItsOwnDiesWithADrawingUnderWay()
    {
        auto own = std::make_unique<Network>();
        auto* node = new TcpNode(QByteArray(), nullptr);
        own->addItem(node);
        node->setSelected(true);
        TestAccess::editor(*own).from = node;
        TestAccess::editor(*own).connectionPreview = own->addLine(QLineF(0, 0, 10, 10));
        const QPointer<QObject> watched = node;
        own.reset();
        QVERIFY(!watched);
    }

private:
    static Network& network() { return *NetworkSimulation::instance()->network(); }

    static TcpNode* addNode(const QPointF& position = QPointF())
    {
        auto* node = new TcpNode(QByteArray(), nullptr);
        network().addItem(node);
        node->setPos(position);
        return node;
    }

    static Connection* join(Node* one, Node* other)
    {
        auto* connection = new Connection(one, other);
        network().addItem(connection);
        return connection;
    }
};

QTEST_MAIN(TestNetwork)
#include "tst_network.moc"
