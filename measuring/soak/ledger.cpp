#include "ledger.h"

#include "network/network.h"
#include "testaccess.h"

#include <algorithm>

namespace {

constexpr char sentBytes[] = "sentBytes";  // property of a watched node: how many it had sent before

/// Tells whether a frame holds both addresses whole and is no longer than the network allows.
bool isValidSize(const Network& network, qint64 size)
{
    const int lastOffset = std::max(network.sourceAddressOffset(), network.destinationAddressOffset());
    return size >= qint64{lastOffset} + network.addressLength() && size <= network.maximalTransferUnit();
}

qint64 framesInFlight(const Network& network)
{
    qint64 frames = 0;
    const QList<Connection*> links = itemsOf<Connection>(network.items());
    for (Connection* link : links)
        frames += TestAccess::framesInFlight(*link).size();
    return frames;
}

}  // namespace

void Ledger::begin(Network* network)
{
    _network = network;
    _sums = Sums();
    connect(network, SIGNAL(frameLeftLink()), this, SLOT(_countLeaving()));
    const QList<Node*> nodes = itemsOf<Node>(network->items());
    for (Node* node : nodes)
        watch(node);
}

void Ledger::watch(Node* node)
{
    if (node->property(sentBytes).isValid())
        return;
    node->setProperty(sentBytes, node->sendBytesCount());
    connect(node, SIGNAL(sendStatisticsChanged(int,int)), this, SLOT(_countSend(int)));
    connect(node, SIGNAL(receivedStatisticsChanged(int,int)), this, SLOT(_countDelivery(int)));
}

void Ledger::vanishWith(Connection* link)
{
    _sums.vanished += TestAccess::framesInFlight(*link).size();
}

QJsonObject Ledger::totals() const
{
    return {
        {"sends", _sums.sends},
        {"copies", _sums.copies},
        {"onto_broken_links", _sums.ontoBrokenLinks},
        {"of_bad_size", _sums.ofBadSize},
        {"taken", _sums.taken},
        {"delivered", _sums.delivered},
        {"lost", _sums.left - _sums.delivered},
        {"vanished", _sums.vanished},
        {"in_flight", framesInFlight(*_network)},
    };
}

/// Counts a frame, of which the node tells before it hands it to its links. \a frames is 0 when its
/// statistics are reset.
void Ledger::_countSend(int frames)
{
    auto* node = qobject_cast<Node*>(sender());
    const qint64 size = node->sendBytesCount() - node->property(sentBytes).toLongLong();
    node->setProperty(sentBytes, node->sendBytesCount());
    if (frames == 0)
        return;
    ++_sums.sends;
    _countCopies(*node, size);
}

void Ledger::_countCopies(const Node& node, qint64 size)
{
    for (const Connection* link : node.connections()) {
        ++_sums.copies;
        if (link->isBroken())
            ++_sums.ontoBrokenLinks;
        else if (!isValidSize(*_network, size))
            ++_sums.ofBadSize;
        else
            ++_sums.taken;
    }
}

/// Counts a frame that a node got. \a frames is 0 when the statistics are reset.
void Ledger::_countDelivery(int frames)
{
    if (frames != 0)
        ++_sums.delivered;
}
