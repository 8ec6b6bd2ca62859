#pragma once

#include "capture/capture.h"
#include "connections/connection.h"
#include "core/timeouts.h"
#include "network/network.h"
#include "network/networksimulation.h"
#include "nodes/node.h"
#include "testaccess.h"

#include <QByteArray>
#include <QList>
#include <QStringList>
#include <QtTest>

#include <algorithm>
#include <functional>
#include <limits>

/// Builders that the tests of the network model share.
namespace TestHelpers {

constexpr int largestInt = std::numeric_limits<int>::max();
constexpr int smallestInt = std::numeric_limits<int>::min();
constexpr int addressSize = 6;  // of a new network
constexpr int smallestFrame = 2 * addressSize;
constexpr int largestFrame = 255;
constexpr int noDeadline = -1;  // of a frame's confirmation
constexpr int untouched = -77;  // an effective delay that nobody has written

constexpr int connectedBit = 1;  // of a node's state
constexpr int disabledBit = 2;
constexpr int transmittingBit = 4;
constexpr int receivingBit = 8;

inline Network* network()
{
    return NetworkSimulation::instance()->network();
}

inline Capture* capture()
{
    return NetworkSimulation::instance()->capture();
}

inline const QList<Frame>& capturedFrames()
{
    return capture()->capturedFrames();
}

inline QByteArray broadcastAddress()
{
    return QByteArray(addressSize, '\xFF');
}

/// Returns 00 00 00 00 00 NN, a different address for each number from 0 to 255.
inline QByteArray nodeAddress(int number)
{
    return QByteArray(addressSize - 1, '\0') + static_cast<char>(number);
}

/// Builds a frame: destination, source, and a payload of ascending bytes that fills it up to \a size.
inline QByteArray frameBytes(const QByteArray& destination, const QByteArray& source,
                             int size = smallestFrame)
{
    QByteArray bytes = destination + source;
    while (bytes.size() < size)
        bytes.append(static_cast<char>(bytes.size()));
    return bytes;
}

/// A node that writes down what its program would be told.
class RecordingNode : public Node
{
public:
    explicit RecordingNode(const QByteArray& address = QByteArray())
        : Node(address)
    {
    }

    void dataIndication(QByteArray frame) override
    {
        indications.append(frame);
        log.append(QStringLiteral("indication"));
        if (onIndication)
            onIndication();
    }

    void dataConfirmation(bool delivered) override
    {
        confirmations.append(delivered);
        log.append(delivered ? QStringLiteral("confirmed") : QStringLiteral("lost"));
        if (onConfirmation)
            onConfirmation();
    }

    QList<QByteArray> indications;
    QList<bool> confirmations;
    QStringList log;                       // both, in their order
    std::function<void()> onIndication;    // may delete this node
    std::function<void()> onConfirmation;  // likewise
};

/// Adds an active node with the address nodeAddress(\a number) to the network, which owns it.
inline RecordingNode* addNode(int number)
{
    auto* node = new RecordingNode(nodeAddress(number));
    node->setActive(true, false);
    network()->addItem(node);
    return node;
}

inline Connection* addLink(Node* node1, Node* node2)
{
    auto* link = new Connection(node1, node2);
    network()->addItem(link);
    return link;
}

inline void requestConfirmations(Node* node, int timeout = -1)
{
    TestAccess::framesAcknowledged(*node) = Qt::Checked;
    TestAccess::acknowledgeTimeout(*node) = timeout;
}

/// Returns when everything has run that was started before with a delay of at most \a delay ms: timeouts run
/// in the order in which they fall due.
inline bool passTimeouts(int delay = 0)
{
    constexpr int patience = 20000;
    bool isOver = false;
    Timeouts last([&] { isOver = true; });
    last.start(delay);
    return QTest::qWaitFor([&] { return isOver; }, patience);
}

/// Holds a new simulation while it lives: the active nodes 1 (sender) and 2 (receiver), and a link between
/// them. The capture is on. Tests may delete what the network owns.
struct LinkedPair {
    LinkedPair()
        : simulation(NetworkSimulation::newNetworkSimulation())
        , sender(addNode(1))
        , receiver(addNode(2))
        , link(addLink(sender, receiver))
    {
        simulation->capture()->setEnabled(true);
    }
    ~LinkedPair() { NetworkSimulation::deleteNetworkSimulation(); }
    Q_DISABLE_COPY_MOVE(LinkedPair)

    QByteArray unicast(int size = smallestFrame) const
    {
        return frameBytes(nodeAddress(2), nodeAddress(1), size);
    }
    QByteArray toNobody() const { return frameBytes(nodeAddress(9), nodeAddress(1)); }
    QByteArray broadcast() const { return frameBytes(broadcastAddress(), nodeAddress(1)); }

    /// Makes a frame as the link does for the sender: its fate is drawn at once.
    Frame carry(const QByteArray& bytes, int maxDelay = noDeadline, int* delay = nullptr,
                bool forceCapture = false) const
    {
        return Frame(bytes, sender, receiver, link, maxDelay, delay, forceCapture);
    }

    NetworkSimulation* simulation;
    RecordingNode* sender;
    RecordingNode* receiver;
    Connection* link;
};

/// Counts how often \a place was repainted. The scene also announces changes that have no place.
inline int repaints(const QSignalSpy& changed, const QPointF& place)
{
    int count = 0;
    for (const QList<QVariant>& arguments : changed) {
        const auto areas = arguments.first().value<QList<QRectF>>();
        count += std::any_of(areas.begin(), areas.end(), [&](const QRectF& a) { return a.contains(place); });
    }
    return count;
}

}  // namespace TestHelpers
