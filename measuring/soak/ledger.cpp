#include "ledger.h"

#include "network/network.h"
#include "testaccess.h"

#include <algorithm>

namespace {

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
    _sentBytes.clear();
    for (qint64* count :
         {&_sends, &_copies, &_ontoBrokenLinks, &_ofBadSize, &_taken, &_left, &_delivered, &_vanished})
        *count = 0;
    connect(network, SIGNAL(frameLeftLink()), this, SLOT(_countLeaving()));
    const QList<Node*> nodes = itemsOf<Node>(network->items());
    for (Node* node : nodes)
        watch(node);
}

void Ledger::watch(Node* node)
{
    if (_sentBytes.contains(node))
        return;
    _sentBytes.insert(node, node->sendBytesCount());
    connect(node, SIGNAL(sendStatisticsChanged(int,int)), this, SLOT(_countSend(int)));
    connect(node, SIGNAL(receivedStatisticsChanged(int,int)), this, SLOT(_countDelivery(int)));
    connect(node, SIGNAL(destroyed(QObject*)), this, SLOT(_forget(QObject*)));
}

void Ledger::vanishWith(Connection* link)
{
    _vanished += TestAccess::framesInFlight(*link).size();
}

QJsonObject Ledger::totals() const
{
    return {
        {"sends", _sends},
        {"copies", _copies},
        {"onto_broken_links", _ontoBrokenLinks},
        {"of_bad_size", _ofBadSize},
        {"taken", _taken},
        {"delivered", _delivered},
        {"lost", _left - _delivered},
        {"vanished", _vanished},
        {"in_flight", framesInFlight(*_network)},
    };
}

/// Counts a frame, of which the node tells before it hands it to its links. \a frames is 0 when its
/// statistics are reset.
void Ledger::_countSend(int frames)
{
    const auto* node = qobject_cast<Node*>(sender());
    const qint64 size = node->sendBytesCount() - _sentBytes.value(node);
    _sentBytes[node] = node->sendBytesCount();
    if (frames == 0)
        return;
    ++_sends;
    _countCopies(*node, size);
}

void Ledger::_countCopies(const Node& node, qint64 size)
{
    for (const Connection* link : node.connections()) {
        ++_copies;
        if (link->isBroken())
            ++_ontoBrokenLinks;
        else if (!isValidSize(*_network, size))
            ++_ofBadSize;
        else
            ++_taken;
    }
}

/// Counts a frame that a node got. \a frames is 0 when the statistics are reset.
void Ledger::_countDelivery(int frames)
{
    if (frames != 0)
        ++_delivered;
}
