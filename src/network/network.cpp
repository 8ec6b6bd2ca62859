#include "network/network.h"

#include "core/streamhelpers.h"
#include "network/networkpropertieswidget.h"
#include "network/networksimulation.h"
#include "nodes/tcpnode.h"

#include <QGraphicsView>
#include <QLinearGradient>
#include <QMap>
#include <QMetaMethod>

namespace {

constexpr int backgroundShadeHeight = 200;     // scene units
constexpr int acceptRetryInterval = 200;       // ms
constexpr int bytePairsOfLongestMask = 32768;  // a line edit holds 32767 characters at most

// Bytes in a file before the body of a template record: the kind, and the ids of the ends or the node
constexpr int connectionHeaderSize = 20;
constexpr int nodeHeaderSize = 16;

template <typename Item> void writeItems(QDataStream& stream, const QList<QGraphicsItem*>& all)
{
    const QList<Item*> items = itemsOf<Item>(all);
    stream << static_cast<quint32>(items.size());
    for (Item* item : items)
        stream << item;
}

/// Calls \a readItem once for each announced entry, but not beyond the end of the stream: counting through a
/// damaged count would take minutes. The count of a null list reads as 0.
template <typename ReadItem> void readItems(QDataStream& stream, ReadItem readItem)
{
    quint32 count = 0;
    stream >> count;
    for (quint32 i = 0; i < count && count != Stream::nullArrayLength && !stream.atEnd(); ++i)
        readItem();
}

/// Reads a node. Passes over an entry of another kind without its body, which leaves the stream out of step.
/// The file's trailer then does not fit, and the load fails as a whole.
void readNode(QDataStream& stream, Network& network, QMap<quint64, Node*>& nodes)
{
    qint32 itemType = 0;
    qint32 nodeType = 0;
    quint64 id = 0;
    stream >> itemType;
    if (itemType != NetworkItem::NodeType)
        return;
    stream >> nodeType;
    if (nodeType != Node::TcpNodeKind)
        return;

    Node* node = new TcpNode(QByteArray(), nullptr);
    stream >> id >> node;
    nodes.insert(id, node);
    network.addItem(node);
}

void readConnection(QDataStream& stream, Network& network, const QMap<quint64, Node*>& nodes)
{
    qint32 itemType = 0;
    quint64 firstId = 0;
    quint64 secondId = 0;
    stream >> itemType;
    if (itemType != NetworkItem::ConnectionType)
        return;
    stream >> firstId >> secondId;
    if (!nodes.contains(firstId) || !nodes.contains(secondId))
        return;

    auto* connection = new Connection(nodes.value(firstId), nodes.value(secondId));
    stream >> connection;
    network.addItem(connection);
}

}  // namespace

Network::Network(QWidget* parent)
    : QGraphicsScene(parent)
{
    QLinearGradient background(0, 0, 0, backgroundShadeHeight);
    background.setColorAt(0, QColor(245, 245, 255));
    background.setColorAt(1, Qt::white);
    setBackgroundBrush(background);

    // Qt's index searches lists as long as the network is large when an end of a link moves. That takes
    // seconds for a node with thousands of links. It also keeps, and reads, a link that has gone when a view
    // was scaled in between. Without it, a picture of 10,000 nodes and links takes some 10 ms more.
    setItemIndexMethod(NoIndex);
    _setDefaults();
    _acceptRetry.setInterval(acceptRetryInterval);
    _acceptRetry.setSingleShot(true);
    connect(&_acceptRetry, SIGNAL(timeout()), this, SLOT(_tcpResumeAccepting()));
    connect(&_tcpServer.server,
            SIGNAL(acceptError(QAbstractSocket::SocketError)), &_acceptRetry, SLOT(start()));
    setTcpEnabled(false);
}

/// Deletes sockets and items while the members that they look at are still there.
Network::~Network()
{
    setTcpPnpEnabled(false);
    setTcpEnabled(false);
    _endDrawing();
    clear();
}

void Network::_setDefaults()
{
    _defaultConnection._broken = false;
    _defaultConnection._reliability = 1.0;
    _defaultConnection._errorDetectionReliability = 1.0;
    _defaultConnection._delayMs = 0;
    _defaultConnection._delayDeviationMs = 0;
    _defaultConnection._connectionColor = Qt::darkBlue;
    _defaultConnection._connectionStrokeWidth = 2.0;

    _defaultNode._promiscuousMode = Qt::Unchecked;
    _defaultNode._framesAcknowledged = Qt::Unchecked;
    _defaultNode._frameAcknowledgeTimeout = 0;
    _defaultNode._inactiveColor = Qt::lightGray;
    _defaultNode._activeColor = QColor(155, 155, 255);
    _defaultNode._txColor = QColor(155, 255, 155);
    _defaultNode._rxColor = QColor(255, 255, 155);
    _defaultNode._strokeWidth = 2.0;
    _defaultNode._showName = Qt::Checked;
    _defaultNode._showAddress = Qt::Checked;
    _defaultNode._showConnectionCount = Qt::Checked;
}

NetworkItem* Network::selectedNetworkItem()
{
    const QList<QGraphicsItem*> selection = selectedItems();
    return selection.isEmpty() ? nullptr : dynamic_cast<NetworkItem*>(selection.first());
}

void Network::deleteSelectedNetworkItem()
{
    const QList<QGraphicsItem*> selection = selectedItems();
    if (selection.isEmpty())
        return;

    QGraphicsItem* item = selection.first();
    clearSelection();
    removeItem(item);
    delete item;
    if (isEmpty())
        emit lastNodeDeleted();
}

void Network::noteFrameLeavesLink()
{
    ++_framesLeftLinks;
    emit frameLeftLink();
}

bool Network::isWatched() const
{
    static const QMetaMethod change = QMetaMethod::fromSignal(&QGraphicsScene::changed);
    return !views().isEmpty() || isSignalConnected(change);
}

bool isSceneWatched(const QGraphicsScene& scene)
{
    const auto* network = qobject_cast<const Network*>(&scene);
    return !network || network->isWatched();
}

bool Network::isEmpty() const
{
    return QGraphicsScene::items().isEmpty();
}

/// Lets Qt's index sort the items, and drops it before it looks for a single place.
QList<QGraphicsItem*> Network::items(Qt::SortOrder order) const
{
    auto* scene = const_cast<Network*>(this);
    scene->setItemIndexMethod(BspTreeIndex);
    const QList<QGraphicsItem*> sorted = QGraphicsScene::items(order);
    scene->setItemIndexMethod(NoIndex);
    return sorted;
}

void Network::drawBackground(QPainter* painter, const QRectF& area)
{
    _painting.start();
    QGraphicsScene::drawBackground(painter, area);
}

void Network::drawForeground(QPainter* painter, const QRectF& area)
{
    QGraphicsScene::drawForeground(painter, area);
    ThrottledUpdate::notePainting(_painting.nsecsElapsed());
}

QWidget* Network::propertiesWidget()
{
    return new NetworkPropertiesWidget(nullptr);
}

QString Network::addressInputMask(int length) const
{
    const int wanted = length < 0 ? addressLength() : length;
    const int bytePairs = qBound(1, wanted, bytePairsOfLongestMask);
    return QStringLiteral("XX") + QStringLiteral(":XX").repeated(bytePairs - 1);
}

QDataStream& operator<<(QDataStream& stream, Network& network)
{
    stream << qint32{network.maximalTransferUnit()} << qint32{network.addressLength()};
    stream << qint32{network.destinationAddressOffset()} << qint32{network.sourceAddressOffset()};
    stream << network.broadcastAddress();
    stream << network.isTcpEnabled() << network.tcpPort() << network.isTcpPnpEnabled();
    if (NetworkSimulation::instance()->fileVersion() == 1)
        stream << network.isNameUsedForPnpIdentification();
    stream << network.defaultConnection() << network.defaultNode();

    const QList<QGraphicsItem*> items = network.items(Qt::DescendingOrder);
    writeItems<Node>(stream, items);
    writeItems<Connection>(stream, items);
    return stream;
}

QDataStream& operator>>(QDataStream& stream, Network& network)
{
    bool isTcpEnabled = false;
    stream >> network._network.maximalTransferUnit >> network._network.addressLength;
    stream >> network._network.destinationAddressOffset >> network._network.sourceAddressOffset;
    stream >> network._network.broadcastAddress;
    stream >> isTcpEnabled >> network._tcpServer.port >> network._tcpServer.pnpEnabled;
    if (NetworkSimulation::instance()->fileVersion() == 1)
        stream >> network._tcpServer.nameBasedPnp;
    network.setTcpEnabled(isTcpEnabled);  // reports no failure: the server is then off

    stream.skipRawData(connectionHeaderSize);
    stream >> network.defaultConnection();
    stream.skipRawData(nodeHeaderSize);
    stream >> network.defaultNode();

    QMap<quint64, Node*> nodes;
    readItems(stream, [&] { readNode(stream, network, nodes); });
    readItems(stream, [&] { readConnection(stream, network, nodes); });
    return stream;
}
