#include "fuzztarget.h"

#include "core/streamhelpers.h"
#include "loadsimulation.h"
#include "network/networksimulation.h"
#include "nodes/tcpnode.h"
#include "testaccess.h"

#include <QDataStream>
#include <QFile>
#include <QImage>
#include <QPainter>
#include <QWidget>

#include <algorithm>
#include <memory>

#include <sys/mman.h>
#include <unistd.h>

namespace {

constexpr int mostForms = 4;        // nodes, and as many links: making a form takes a millisecond
constexpr int mostSenders = 8;      // nodes
constexpr int mostDeliveries = 4;   // frames of a link: to each of a few nodes, and to all
constexpr int longestFrame = 2000;  // bytes
constexpr int pictureSize = 32;     // pixels
constexpr int idSize = 8;
constexpr int tailSize = 2 + 4;  // capture record and trailer
constexpr int countSize = 4;
constexpr int nodeIdOffset = 8;          // within a node record
constexpr int connectionEndsOffset = 4;  // within a link record

Fuzz::Goal loadedOld("a file of version 0 is loaded");
Fuzz::Goal loadedNew("a file of version 1 is loaded");
Fuzz::Goal deliveredUnicast("a frame is delivered to the node that it names, in time");
Fuzz::Goal deliveredBroadcast("a broadcast is delivered");
Fuzz::Goal deliveredPromiscuously("a promiscuous node takes a frame for another one");
Fuzz::Goal deliveredChanged("a frame is delivered with bits that a link has changed");
Fuzz::Goal lost("a link loses a frame");

NetworkSimulation& simulation()
{
    return *NetworkSimulation::instance();
}

Network& network()
{
    return *simulation().network();
}

/// Returns them as a file has them: topmost first.
template <typename Item> QList<Item*> items()
{
    return itemsOf<Item>(network().items(Qt::DescendingOrder));
}

/// Returns the name of an empty file, always the same one, which is in memory only.
QString emptyFile()
{
    static const int descriptor = memfd_create("fuzz", MFD_CLOEXEC);
    Fuzz::require(::ftruncate(descriptor, 0) == 0, "a file can be emptied");
    return QStringLiteral("/proc/self/fd/%1").arg(descriptor);
}

QByteArray saved()
{
    QFile file(emptyFile());
    Fuzz::require(simulation().save(file.fileName()), "a simulation can be saved");
    Fuzz::require(file.open(QIODevice::ReadOnly), "what was written can be read");
    return file.readAll();
}

template <typename Record> QByteArray recordOf(Record* item)
{
    QByteArray bytes;
    QDataStream stream(&bytes, QIODevice::WriteOnly);
    stream.setVersion(Stream::version);
    stream << item;
    return bytes;
}

QByteArray number(int value)
{
    return QByteArray::number(value).rightJustified(idSize, '0');
}

/// What comes first in a file lies lowest once it is loaded: the order turns around from one save to the
/// next.
enum class Order { AsSaved, Reversed };

/// Returns a saved file without what another save of the same simulation may write otherwise: nodes are
/// numbered in their order instead of named by their ids, and the order is that of the first save.
QByteArray normalised(const QByteArray& file, Order order)
{
    QList<Node*> nodes = items<Node>();
    QList<Connection*> connections = items<Connection>();
    if (order == Order::Reversed) {
        std::reverse(nodes.begin(), nodes.end());
        std::reverse(connections.begin(), connections.end());
    }

    QByteArray records;
    for (Node* node : qAsConst(nodes))
        records += recordOf(node).replace(nodeIdOffset, idSize, number(nodes.indexOf(node)));
    for (Connection* connection : qAsConst(connections)) {
        const QByteArray ends
            = number(nodes.indexOf(connection->node(0))) + number(nodes.indexOf(connection->node(1)));
        records += recordOf(connection).replace(connectionEndsOffset, 2 * idSize, ends);
    }

    const int headSize = file.size() - records.size() - 2 * countSize - tailSize;
    const int templateSize = recordOf(network().defaultNode()).size();
    const QByteArray head
        = file.left(headSize).replace(headSize - templateSize + nodeIdOffset, idSize, number(0));
    return head + records + file.right(tailSize);
}

void makeForms()
{
    delete network().propertiesWidget();
    for (Node* node : items<Node>().mid(0, mostForms))
        delete node->propertiesWidget();
    for (Connection* connection : items<Connection>().mid(0, mostForms))
        delete connection->propertiesWidget();
}

/// Paints an area in the middle and all that there is.
void paint()
{
    QImage image(pictureSize, pictureSize, QImage::Format_ARGB32_Premultiplied);
    QPainter painter(&image);
    const QRectF whole(image.rect());
    network().render(&painter, whole, QRectF(-150, -150, 500, 500));
    network().render(&painter, whole, network().itemsBoundingRect());
}

QByteArray frame(const QByteArray& destination)
{
    const qint64 lastOffset = std::max(network().destinationAddressOffset(), network().sourceAddressOffset());
    const qint64 size = qBound<qint64>(0, lastOffset + network().addressLength(), longestFrame);
    QByteArray bytes(static_cast<int>(size), '\x5A');
    const int offset = network().destinationAddressOffset();
    if (offset >= 0 && offset <= bytes.size())
        bytes.replace(offset, destination.size(), destination);
    return bytes;
}

/// Sends frames to every address first, as few are delivered; then to all and to nobody; with the least and
/// the most bytes of a valid frame, and none.
void sendFrames()
{
    QByteArrayList frames;
    const QList<Node*> nodes = items<Node>().mid(0, mostSenders);
    for (Node* node : nodes) {
        node->setActive(true, false);
        frames.append(frame(node->address()));
    }
    frames << frame(network().broadcastAddress()) << frame(QByteArray()) << QByteArray();
    const int mtu = network().maximalTransferUnit();
    if (mtu >= 0 && mtu < longestFrame)
        frames << QByteArray(mtu, '\x01') << QByteArray(mtu + 1, '\x01');

    for (Node* node : nodes) {
        for (const QByteArray& bytes : qAsConst(frames))
            node->dataRequest(bytes);
    }
}

void noteFate(const Frame& frame)
{
    const bool isDelivered = frame.wasDelivered(false);
    const bool isForOther = frame.promiscuousReceive();  // so for every broadcast
    deliveredUnicast.noteIf(frame.wasDelivered(true) && !isForOther);
    deliveredBroadcast.noteIf(isDelivered && frame.isBroadcast());
    deliveredPromiscuously.noteIf(isDelivered && isForOther && !frame.isBroadcast());
    deliveredChanged.noteIf(isDelivered && !frame.isCRCCorrect());
    lost.noteIf(!isDelivered && !frame.isCRCCorrect());
}

/// Delivers the frames whose delay is up by the events, some of each link before their time. The others stay
/// in flight.
void deliverFrames()
{
    Fuzz::passEvents();
    const QList<Connection*> connections = items<Connection>();
    for (Connection* connection : connections) {
        const QList<Frame> inFlight = TestAccess::framesInFlight(*connection).mid(0, mostDeliveries);
        for (const Frame& frame : inFlight) {
            noteFate(frame);
            connection->deliverFrame();
        }
    }
}

void readCapture()
{
    const Capture* capture = simulation().capture();
    const int lastRow = capture->rowCount() - 1;
    for (int column = 0; column < capture->columnCount(); ++column) {
        capture->data(capture->index(0, column));
        capture->data(capture->index(lastRow, column), Qt::ToolTipRole);
        capture->data(capture->index(lastRow, column), Qt::DecorationRole);
    }
    Fuzz::require(simulation().exportPcapDump(emptyFile()), "a dump can be written");
}

/// Deletes a node with frames in flight, while a form of it is open.
void deleteTopmostNode()
{
    const QList<Node*> nodes = items<Node>();
    if (nodes.isEmpty())
        return;
    const std::unique_ptr<QWidget> form(nodes.first()->propertiesWidget());
    nodes.first()->setSelected(true);
    network().deleteSelectedNetworkItem();
    Fuzz::passEvents();
    Fuzz::require(items<Node>().size() == nodes.size() - 1, "one node is deleted");
}

/// Loads \a file, which was \a known when it was saved, and saves again.
void checkReload(const QByteArray& file, const QByteArray& known, bool wasServerOn)
{
    Fuzz::require(loadSimulation(file), "what was saved can be loaded");
    if (network().isTcpEnabled() == wasServerOn)  // else another process has taken the port meanwhile
        Fuzz::require(normalised(saved(), Order::Reversed) == known, "what was loaded is saved as it was");
}

void use()
{
    const QByteArray file = saved();
    const QByteArray known = normalised(file, Order::AsSaved);
    const bool isServerOn = network().isTcpEnabled();
    const bool isCaptureOn = simulation().capture()->isEnabled();
    (simulation().fileVersion() == 0 ? loadedOld : loadedNew).noteIf(true);

    paint();  // nodes without a program
    simulation().capture()->setEnabled(true);
    sendFrames();
    deliverFrames();
    paint();
    readCapture();
    makeForms();
    simulation().capture()->setEnabled(isCaptureOn);
    Fuzz::require(saved() == file, "neither forms nor frames change what is saved");

    deleteTopmostNode();
    checkReload(file, known, isServerOn);
}

}  // namespace

/// The input is a simulation file, which is loaded and, if that is possible, used.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    qsrand(1);
    if (loadSimulation(QByteArray(reinterpret_cast<const char*>(data), static_cast<int>(size))))
        use();
    else
        Fuzz::require(network().items().isEmpty() && !network().isTcpEnabled(),
                      "a failed load leaves nothing");
    Fuzz::deleteNetwork();
    return 0;
}
