#pragma once

#include "network/network.h"
#include "testaccess.h"

#include <QJsonObject>
#include <QObject>

#include <algorithm>

/// Keeps account of every frame of one simulation, from outside and to the frame. At any moment between two
/// events
///
///   sends x links = onto broken links + of a bad size + taken      and
///   taken = delivered + lost + vanished + in flight,
///
/// where all but "delivered + lost" (the frames seen to leave their links) and "in flight" (the links' lists)
/// is worked out by the rules of the model: from the size that a node has sent, from what is set at that
/// moment, and from the frames that a link held when it was broken or deleted.
class Ledger : public QObject
{
    Q_OBJECT

public:
    /// Begins a new account. Watch nodes that come later before they get a link.
    void begin(Network* network)
    {
        _network = network;
        _sums = Sums();
        connect(network, SIGNAL(frameLeftLink()), this, SLOT(_countLeaving()));
        const QList<Node*> nodes = itemsOf<Node>(network->items());
        for (Node* node : nodes)
            watch(node);
    }

    /// Does nothing the second time.
    void watch(Node* node)
    {
        if (node->property(sentBytes).isValid())
            return;
        node->setProperty(sentBytes, node->sendBytesCount());
        connect(node, SIGNAL(sendStatisticsChanged(int,int)), this, SLOT(_countSend(int)));
        connect(node, SIGNAL(receivedStatisticsChanged(int,int)), this, SLOT(_countDelivery(int)));
    }

    /// Counts what a link holds that is about to be broken or deleted.
    void vanishWith(Connection* link) { _sums.vanished += TestAccess::framesInFlight(*link).size(); }

    QJsonObject totals() const
    {
        qint64 inFlight = 0;
        const QList<Connection*> links = itemsOf<Connection>(_network->items());
        for (Connection* link : links)
            inFlight += TestAccess::framesInFlight(*link).size();
        return {
            {"sends", _sums.sends},
            {"copies", _sums.copies},
            {"onto_broken_links", _sums.ontoBrokenLinks},
            {"of_bad_size", _sums.ofBadSize},
            {"taken", _sums.copies - _sums.ontoBrokenLinks - _sums.ofBadSize},
            {"delivered", _sums.delivered},
            {"lost", _sums.left - _sums.delivered},
            {"vanished", _sums.vanished},
            {"in_flight", inFlight},
        };
    }

private slots:
    /// Counts a frame, of which the node tells before it hands it to its links. \a frames is 0 when the
    /// statistics are reset; so it is below.
    void _countSend(int frames)
    {
        auto* node = qobject_cast<Node*>(sender());
        const qint64 size = node->sendBytesCount() - node->property(sentBytes).toLongLong();
        node->setProperty(sentBytes, node->sendBytesCount());
        if (frames == 0)
            return;
        ++_sums.sends;
        for (const Connection* link : node->connections()) {
            ++_sums.copies;
            if (link->isBroken())
                ++_sums.ontoBrokenLinks;
            else if (!_isValidSize(size))
                ++_sums.ofBadSize;
        }
    }

    void _countDelivery(int frames) { _sums.delivered += frames != 0; }
    void _countLeaving() { ++_sums.left; }

private:
    /// Tells whether a frame holds both addresses whole and is no longer than the network allows.
    bool _isValidSize(qint64 size) const
    {
        const int lastOffset
            = std::max(_network->sourceAddressOffset(), _network->destinationAddressOffset());
        return size >= qint64{lastOffset} + _network->addressLength()
            && size <= _network->maximalTransferUnit();
    }

    static constexpr char sentBytes[]
        = "sentBytes";  // property of a watched node: how many it had sent before

    struct Sums {
        qint64 sends = 0;
        qint64 copies = 0;  // one a send and link
        qint64 ontoBrokenLinks = 0;
        qint64 ofBadSize = 0;
        qint64 left = 0;       // delivered or lost
        qint64 delivered = 0;  // to nodes
        qint64 vanished = 0;   // with links that were broken or deleted
    };

    Network* _network = nullptr;  // not owned; dies after the last question for totals
    Sums _sums;
};
