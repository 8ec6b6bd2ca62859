#pragma once

#include <QByteArray>

class Connection;
class Node;

/// One transmission of raw link-layer bytes from one node to the node at the other end of one connection.
///
/// Its whole fate (valid or not, delay, bit errors, taken by the receiver or not) is drawn when it is built;
/// the connection that carries it only reads the flags. A plain value: copies share the payload's bytes.
class Frame
{
public:
    enum FrameFlags {
        Invalid = 1,    ///< could not be carried; stands alone when the checks set it
        Broadcast = 2,  ///< the destination is the network's broadcast address
        CRCError = 4,   ///< at least one bit was flipped, noticed by the receiver or not
        DeliveredInTime = 8,
        DeliveredLate = 16,  ///< after the sender's deadline
        Delivered = DeliveredInTime | DeliveredLate,
        ForceCapture = 32,  ///< to be recorded in the capture when it leaves the link
        PromiscuousRx
        = 64,  ///< the destination is not the receiving node's own address; so for every broadcast
    };

    /// Simulates the transmission. The nodes and the connection are not owned; with one of them null, a
    /// broken connection or a payload of a bad size the frame is Invalid. \a maxDelay is the sender's
    /// deadline in ms, negative for none. \a effectiveDelay, when not null, receives the drawn delay in ms
    /// (valid frames only).
    Frame(const QByteArray& payload, Node* sourceNode, Node* destinationNode, Connection* connection,
          int maxDelay, int* effectiveDelay, bool forceCapture);

    /// Rebuilds a record from stored values: no nodes, no check, no draw. Time stamps in ms.
    Frame(const QByteArray& payload, quint64 sendTs, quint64 receivedTs, FrameFlags flags);

    /// Whether raw bytes are addressed to every node; false when they are too short to hold the address.
    static bool isBroadcast(QByteArray rawFrame);

    /// Checks the size against the network's parameters as they are now. An invalid frame loses all its other
    /// flags (so it is never captured) and stays invalid.
    bool isValid() const;

    bool isBroadcast() const { return (_flags & Broadcast) != 0; }
    bool isCRCCorrect() const { return (_flags & CRCError) == 0; }
    bool wasDelivered(bool inTime) const { return (_flags & (inTime ? DeliveredInTime : Delivered)) != 0; }
    bool promiscuousReceive() const { return (_flags & PromiscuousRx) != 0; }

    Node* sourceNode() const { return _sourceNode; }
    Node* destinationNode() const { return _destinationNode; }
    quint64 sendTime() const { return _sendMsTs; }
    quint64 receiveTime() const { return _receivedMsTs; }
    QByteArray payload() const { return _payload; }

    /// Cut from the payload; empty, never partial, when the payload is too short.
    QByteArray sourceAddress() const;
    QByteArray destinationAddress() const;

    /// Whether the capture would record the frame now.
    bool isCaptured() const;

    /// The frame leaves the link now: stamps it and offers it to the capture. A lost frame gets a real time
    /// of reception too, on purpose; that it was lost shows in the flags only.
    void nowReceived();
    void neverReceived();

private:
    friend struct TestAccess;

    bool _isTakenByDestination(bool isForReceiver) const;
    void _transmit(const Connection& connection, int deliveryBits);

    Node* _destinationNode;  // not owned; null in frames built from stored values
    Node* _sourceNode;       // likewise
    quint64 _sendMsTs;       // ms, modulo 2^32
    quint64 _receivedMsTs;   // ms, modulo 2^32; all bits set until the frame leaves the link
    mutable int _flags;      // of FrameFlags; isValid() writes it
    QByteArray
        _payload;  // as sent, addresses included; changed only by errors that the receiver did not notice
};
