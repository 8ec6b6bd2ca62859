#pragma once

#include <QByteArray>

class Connection;
class Node;

/// One transmission of raw link-layer bytes from one node to the node at the other end of one link.
///
/// The constructor decides the frame's whole fate: valid or not, delay, bit errors, taken by the receiver or
/// not. The link that carries it only reads the flags. Copies of a frame share the payload's bytes.
class Frame
{
public:
    enum FrameFlags {
        Invalid = 1,    ///< no link can carry it; the checks set it without any other flag
        Broadcast = 2,  ///< the destination is the network's broadcast address
        CRCError = 4,   ///< at least one bit was flipped, whether or not the receiver notices
        DeliveredInTime = 8,
        DeliveredLate = 16,  ///< after the sender's deadline
        Delivered = DeliveredInTime | DeliveredLate,
        ForceCapture = 32,   ///< the capture records it when it leaves the link
        PromiscuousRx = 64,  ///< the destination is not the receiver's own address, as in every broadcast
    };

    /// Simulates the transmission. The nodes and the link are not owned. The frame is Invalid when one of
    /// them is null, the link is broken or the payload has a bad size. \a maxDelay is the sender's deadline
    /// in ms, negative for none. \a effectiveDelay, unless null, receives the drawn delay in ms of a valid
    /// frame.
    Frame(const QByteArray& payload, Node* sourceNode, Node* destinationNode, Connection* connection,
          int maxDelay, int* effectiveDelay, bool forceCapture);

    /// Rebuilds a frame from stored values, without nodes, checks or draws. Time stamps are in ms.
    Frame(const QByteArray& payload, quint64 sendTs, quint64 receivedTs, FrameFlags flags);

    /// Tells whether raw bytes are addressed to every node. False when they are too short for the address.
    static bool isBroadcast(QByteArray rawFrame);

    /// Checks the size against the network's present parameters. An invalid frame stays invalid and loses its
    /// other flags, so that it is never captured.
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

    // Cut from the payload; empty, never partial, when the payload is too short
    QByteArray sourceAddress() const;
    QByteArray destinationAddress() const;

    /// Tells whether the capture would record the frame now.
    bool isCaptured() const;

    /// Stamps the frame, which leaves the link now, and offers it to the capture. A lost frame gets a real
    /// time of reception too, on purpose: only the flags show that it was lost.
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
    QByteArray _payload;     // as sent, with the addresses; only errors that the receiver misses change it
};
