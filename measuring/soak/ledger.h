#pragma once

#include <QJsonObject>
#include <QObject>

class Connection;
class Network;
class Node;

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
    void begin(Network* network);
    void watch(Node* node);  // a second time: ignored

    /// Counts what a link holds that is about to be broken or deleted.
    void vanishWith(Connection* link);

    QJsonObject totals() const;

private slots:
    void _countSend(int frames);
    void _countDelivery(int frames);
    void _countLeaving() { ++_sums.left; }

private:
    void _countCopies(const Node& node, qint64 size);

    struct Sums {
        qint64 sends = 0;
        qint64 copies = 0;  // one a send and link
        qint64 ontoBrokenLinks = 0;
        qint64 ofBadSize = 0;
        qint64 taken = 0;
        qint64 left = 0;       // delivered or lost
        qint64 delivered = 0;  // to nodes
        qint64 vanished = 0;   // with links that were broken or deleted
    };

    Network* _network = nullptr;  // not owned; dies after the last question for totals
    Sums _sums;
};
