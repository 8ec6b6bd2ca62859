#include "network/frame.h"

#include "capture/capture.h"
#include "connections/connection.h"
#include "network/biterrors.h"
#include "network/network.h"
#include "network/networksimulation.h"
#include "nodes/node.h"

#include <QDateTime>
#include <QDebug>
#include <QLoggingCategory>

#include <algorithm>
#include <limits>

namespace {

constexpr quint64 notReceivedYet = std::numeric_limits<quint64>::max();
constexpr double largestDraw = 2147483647.0;
constexpr int bitsPerByte = 8;

Network* currentNetwork()
{
    return NetworkSimulation::instance()->network();
}

/// Milliseconds since the epoch modulo 2^32: 32-bit arithmetic is part of what the capture and its dump show.
/// Read without local time, which would cost some microseconds a reading.
quint64 millisecondTimeStamp()
{
    const auto seconds = static_cast<quint32>(QDateTime::currentMSecsSinceEpoch() / 1000);
    const auto milliseconds = static_cast<quint32>(QDateTime::currentMSecsSinceEpoch() % 1000);
    return seconds * 1000U + milliseconds;
}

QByteArray addressField(const QByteArray& rawFrame, int offset)
{
    const int length = currentNetwork()->addressLength();
    if (rawFrame.size() < qint64{offset} + length)
        return QByteArray();
    return rawFrame.mid(offset, length);
}

/// Spread evenly over base - deviation / 2 to base - deviation / 2 + deviation - 1, but never negative, in
/// ms. A delay or deviation of 0 is undecided too, unlike a reliability of 0.
int drawDelay(const Connection& connection)
{
    const Connection* defaults = currentNetwork()->defaultConnection();
    const int deviation
        = connection.delayDeviationMs() > 0 ? connection.delayDeviationMs() : defaults->delayDeviationMs();
    const int base = connection.delayMs() > 0 ? connection.delayMs() : defaults->delayMs();

    const int offset = deviation > 0 ? deviation / 2 - qrand() % deviation : 0;
    const qint64 delay = qint64{base} - offset;
    return static_cast<int>(qBound<qint64>(0, delay, std::numeric_limits<int>::max()));
}

double effectiveReliability(const Connection& connection)
{
    const double own = connection.reliability();
    return own >= 0 ? own : currentNetwork()->defaultConnection()->reliability();
}

bool drawErrorDetection(const Connection& connection)
{
    const double draw = qrand() / largestDraw;
    const double own = connection.errorDetectionReliability();
    const double detection
        = own >= 0 ? own : currentNetwork()->defaultConnection()->errorDetectionReliability();
    return detection > draw;
}

/// One "*" a flipped bit in the debug output.
void logFlippedBits(const QByteArray& errorMask)
{
    if (!QLoggingCategory::defaultCategory()->isDebugEnabled())
        return;
    for (const char byte : errorMask) {
        for (int bit = 0; bit < bitsPerByte; ++bit) {
            if (static_cast<uchar>(byte) >> bit & 1U)
                qDebug() << "*";
        }
    }
}

void invertBits(QByteArray* payload, const QByteArray& errorMask)
{
    char* bytes = payload->data();
    for (int i = 0; i < payload->size(); ++i)
        bytes[i] = static_cast<char>(bytes[i] ^ errorMask.at(i));
}

}  // namespace

Frame::Frame(const QByteArray& payload, Node* sourceNode, Node* destinationNode, Connection* connection,
             int maxDelay, int* effectiveDelay, bool forceCapture)
    : _destinationNode(destinationNode)
    , _sourceNode(sourceNode)
    , _sendMsTs(millisecondTimeStamp())
    , _receivedMsTs(notReceivedYet)
    , _flags(forceCapture ? ForceCapture : 0)
    , _payload(payload)
{
    if (!connection || !sourceNode || !destinationNode || connection->isBroken()) {
        _flags = Invalid;
        return;
    }
    if (!isValid())
        return;

    const QByteArray destination = destinationAddress();
    if (destination == currentNetwork()->broadcastAddress())
        _flags |= Broadcast;

    const int delay = drawDelay(*connection);  // for every valid frame, taken by the receiver or not
    if (effectiveDelay)
        *effectiveDelay = delay;
    if (_isTakenByDestination(destination))
        _transmit(*connection, _deliveryBits(destination, delay, maxDelay));
}

Frame::Frame(const QByteArray& payload, quint64 sendTs, quint64 receivedTs, FrameFlags flags)
    : _destinationNode(nullptr)
    , _sourceNode(nullptr)
    , _sendMsTs(sendTs)
    , _receivedMsTs(receivedTs)
    , _flags(flags)
    , _payload(payload)
{
}

bool Frame::isBroadcast(QByteArray rawFrame)
{
    const Network* network = currentNetwork();
    const int offset = network->destinationAddressOffset();
    const int length = network->addressLength();
    if (rawFrame.size() < qint64{offset} + length)
        return false;
    return rawFrame.mid(offset, length) == network->broadcastAddress();
}

bool Frame::isValid() const
{
    const Network* network = currentNetwork();
    const int lastOffset = std::max(network->sourceAddressOffset(), network->destinationAddressOffset());
    const bool holdsAddresses = _payload.size() >= qint64{network->addressLength()} + lastOffset;
    if (!holdsAddresses || _payload.size() > network->maximalTransferUnit())
        _flags = Invalid;
    return (_flags & Invalid) == 0;
}

QByteArray Frame::sourceAddress() const
{
    return addressField(_payload, currentNetwork()->sourceAddressOffset());
}

QByteArray Frame::destinationAddress() const
{
    return addressField(_payload, currentNetwork()->destinationAddressOffset());
}

void Frame::nowReceived()
{
    _receivedMsTs = millisecondTimeStamp();
    if (_flags & ForceCapture)
        NetworkSimulation::instance()->capture()->addFrame(*this);
}

void Frame::neverReceived()
{
    nowReceived();
}

/// A broadcast is taken even by a node that is not active.
bool Frame::_isTakenByDestination(const QByteArray& destinationAddress) const
{
    if (isBroadcast())
        return true;
    return _destinationNode->active()
        && (destinationAddress == _destinationNode->address() || _destinationNode->isInPromiscuousMode());
}

int Frame::_deliveryBits(const QByteArray& destinationAddress, int delay, int maxDelay) const
{
    const int promiscuous = destinationAddress != _destinationNode->address() ? PromiscuousRx : 0;
    const bool isLate = maxDelay >= 0 && delay > maxDelay;
    return promiscuous | (isLate ? DeliveredLate : DeliveredInTime);
}

/// Draws the bit errors. The frame is delivered unless the receiver notices one.
void Frame::_transmit(const Connection& connection, int deliveryBits)
{
    const QByteArray errorMask = BitErrors::drawMask(_payload.size(), effectiveReliability(connection));
    if (!errorMask.isEmpty()) {
        _flags |= CRCError;
        logFlippedBits(errorMask);
        if (drawErrorDetection(connection))
            return;
        invertBits(&_payload, errorMask);
    }
    _flags |= deliveryBits;
}
