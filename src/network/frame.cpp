#include "network/frame.h"

#include "capture/capture.h"
#include "connections/connection.h"
#include "core/biterrors.h"
#include "core/ownordefault.h"
#include "network/network.h"
#include "network/networksimulation.h"
#include "nodes/node.h"

#include <QDateTime>
#include <QDebug>
#include <QLoggingCategory>

#include <algorithm>
#include <limits>
#include <string_view>

namespace {

constexpr quint64 notReceivedYet = std::numeric_limits<quint64>::max();
constexpr double largestDraw = 2147483647.0;
constexpr int bitsPerByte = 8;

Network* currentNetwork()
{
    return NetworkSimulation::instance()->network();
}

/// Returns the milliseconds since the epoch modulo 2^32, since the capture and its dump show 32 bits. Does
/// not ask for local time, which takes some microseconds.
quint64 millisecondTimeStamp()
{
    const auto seconds = static_cast<quint32>(QDateTime::currentMSecsSinceEpoch() / 1000);
    const auto milliseconds = static_cast<quint32>(QDateTime::currentMSecsSinceEpoch() % 1000);
    return seconds * 1000U + milliseconds;
}

/// Returns the bytes that mid() would cut out, but where they stand: a copy costs memory from the heap for
/// each frame. Empty when not all of them are there.
std::string_view addressField(const QByteArray& rawFrame, int offset)
{
    const qint64 length = currentNetwork()->addressLength();
    const qint64 size = rawFrame.size();
    if (size < offset + length)
        return {};
    const qint64 begin = std::max(offset, 0);
    const qint64 end = length < 0 ? size : offset + length;  // a negative length means all that follows
    if (end <= begin)
        return {};
    return {rawFrame.constData() + begin, static_cast<size_t>(end - begin)};
}

QByteArray toByteArray(std::string_view bytes)
{
    return QByteArray(bytes.data(), static_cast<int>(bytes.size()));
}

bool operator==(std::string_view bytes, const QByteArray& address)
{
    return bytes == std::string_view(address.constData(), static_cast<size_t>(address.size()));
}

/// Draws a delay in ms, evenly from base - deviation / 2 to base - deviation / 2 + deviation - 1, but never
/// negative. A delay or deviation of 0 means undecided too, unlike a reliability of 0.
int drawDelay(const Connection& connection)
{
    const Connection* defaults = currentNetwork()->defaultConnection();
    const int ownDeviation = connection.delayDeviationMs();
    const int deviation = ownOrDefault(ownDeviation > 0, ownDeviation, defaults->delayDeviationMs());
    const int ownBase = connection.delayMs();
    const int base = ownOrDefault(ownBase > 0, ownBase, defaults->delayMs());

    const int offset = deviation > 0 ? deviation / 2 - qrand() % deviation : 0;
    const qint64 delay = qint64{base} - offset;
    return static_cast<int>(qBound<qint64>(0, delay, std::numeric_limits<int>::max()));
}

double effectiveReliability(const Connection& connection)
{
    const double own = connection.reliability();
    return ownOrDefault(own >= 0, own, currentNetwork()->defaultConnection()->reliability());
}

bool drawErrorDetection(const Connection& connection)
{
    const double draw = qrand() / largestDraw;
    const double own = connection.errorDetectionReliability();
    const double inherited = currentNetwork()->defaultConnection()->errorDetectionReliability();
    return ownOrDefault(own >= 0, own, inherited) > draw;
}

/// Writes a "*" to the debug output for each flipped bit.
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

int deliveryBits(bool isForReceiver, int delay, int maxDelay)
{
    const bool isLate = maxDelay >= 0 && delay > maxDelay;
    return (isForReceiver ? 0 : Frame::PromiscuousRx)
        | (isLate ? Frame::DeliveredLate : Frame::DeliveredInTime);
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

    const std::string_view destination = addressField(_payload, currentNetwork()->destinationAddressOffset());
    if (destination == currentNetwork()->broadcastAddress())
        _flags |= Broadcast;

    const int delay = drawDelay(*connection);  // for every valid frame, taken by the receiver or not
    if (effectiveDelay)
        *effectiveDelay = delay;
    const bool isForReceiver = destination == _destinationNode->address();
    if (_isTakenByDestination(isForReceiver))
        _transmit(*connection, deliveryBits(isForReceiver, delay, maxDelay));
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
    return toByteArray(addressField(_payload, currentNetwork()->sourceAddressOffset()));
}

QByteArray Frame::destinationAddress() const
{
    return toByteArray(addressField(_payload, currentNetwork()->destinationAddressOffset()));
}

bool Frame::isCaptured() const
{
    return (_flags & ForceCapture) != 0 && NetworkSimulation::instance()->capture()->isEnabled();
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

/// Tells whether the receiver takes the frame. Even a node that is not active takes a broadcast.
bool Frame::_isTakenByDestination(bool isForReceiver) const
{
    if (isBroadcast())
        return true;
    return _destinationNode->active() && (isForReceiver || _destinationNode->isInPromiscuousMode());
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
