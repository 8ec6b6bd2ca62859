#include "fuzztarget.h"

#include "network/frame.h"
#include "network/network.h"
#include "network/networksimulation.h"
#include "nodes/tcpnode.h"
#include "protocol/bridgeprotocol.h"
#include "testaccess.h"

#include <QDataStream>
#include <QTcpSocket>
#include <QtEndian>

#include <memory>

namespace {

/// Bits of the input's first byte.
enum Choice : unsigned {
    WantsConfirmations,
    IsReceiverPromiscuous,
    IsLinkNoisy,
    IsLinkBroken,
    HasFurtherLinks,    // one to a third node, and one that leads from the sender to itself
    AreAddressesShort,  // one byte
    HasSenderNoAddress,
    ClosesBeforeItIsRead,  // after each piece
};

constexpr double noisyReliability = 0.99;  // per bit; the receiver notices every error
constexpr quint32 nullLength = 0xFFFFFFFF;

Fuzz::Goal deliveredUnicast("a frame is delivered to the node that it names");
Fuzz::Goal deliveredShort("a frame with short addresses is delivered");
Fuzz::Goal deliveredPromiscuously("a promiscuous receiver takes a frame for another node");
Fuzz::Goal lostToNoise("a noisy link loses a frame");
Fuzz::Goal cameBack("a link from a node to itself brings a frame back");
Fuzz::Goal confirmedUnicast("a frame to one node is confirmed");
Fuzz::Goal confirmedBroadcast("a broadcast is confirmed");
Fuzz::Goal reportedLoss("a frame is reported as lost");
Fuzz::Goal switchedOff("a node that is switched off sends nothing");
Fuzz::Goal switchedOn("a node that was switched on again sends");
Fuzz::Goal gotFirstAddress("a node gets its first address");
Fuzz::Goal detachedByError("an error detaches a program");

struct SentFrame {
    QByteArray bytes;
    QByteArray senderAddress;  // when it was sent
};

/// Tells anew what docs/protocol.md says of messages: which frames a piece makes the node send.
class ExpectedSender
{
public:
    ExpectedSender(const QByteArray& address, int networkAddressLength)
        : _address(address)
        , _networkAddressLength(networkAddressLength)
    {
    }

    QList<SentFrame> framesOf(const QByteArray& piece)
    {
        QList<SentFrame> frames;
        int position = 0;
        while (_isAttached && position < piece.size())
            position = _readMessage(piece, position, &frames);
        return frames;
    }

    bool isAttached() const { return _isAttached; }
    QByteArray address() const { return _address; }

private:
    /// Returns where the next message begins.
    int _readMessage(const QByteArray& piece, int begin, QList<SentFrame>* frames)
    {
        const int type = piece.at(begin);
        const qint64 left = piece.size() - begin - Bridge::headerSize;
        if (left < 0)
            return _end();
        const quint32 word = qFromBigEndian<quint32>(piece.constData() + begin + 1);
        if (type == Bridge::NodeControl)
            return _readControl(piece, begin, word);

        const quint32 length = word == nullLength ? 0 : word;
        if ((type != Bridge::Frame && type != Bridge::Ignored) || length > left)
            return _end();
        const int body = begin + Bridge::headerSize;
        if (type == Bridge::Frame) {
            switchedOff.noteIf(!_isEnabled);
            switchedOn.noteIf(_isEnabled && _wasDisabled);
            if (_isEnabled)
                frames->append({piece.mid(body, static_cast<int>(length)), _address});
        }
        return body + static_cast<int>(length);
    }

    int _readControl(const QByteArray& piece, int begin, quint32 length)
    {
        const int data = begin + Bridge::nodeControlHeaderSize;
        if (data > piece.size())
            return _end();
        const int type = piece.at(begin + Bridge::headerSize);
        const qint64 dataLength = length == 0 ? nullLength : length - 1;
        const bool isColor = type == Bridge::SetColor && dataLength == Bridge::colorSize;
        const bool isRead = type == Bridge::SetAddress || type == Bridge::SetName || isColor;
        if (type < Bridge::SetAddress || type > Bridge::SetName
            || (isRead && dataLength > piece.size() - data))
            return _end();
        if (type == Bridge::Enable || type == Bridge::Disable)
            _isEnabled = type == Bridge::Enable;
        _wasDisabled = _wasDisabled || !_isEnabled;
        if (type == Bridge::SetAddress)
            _setAddress(piece.mid(data, static_cast<int>(dataLength)));
        return isRead ? data + static_cast<int>(dataLength) : data;
    }

    void _setAddress(const QByteArray& address)
    {
        const bool isFirst = _address.isEmpty();
        if (address.size() != (isFirst ? _networkAddressLength : _address.size()))
            return;
        gotFirstAddress.noteIf(isFirst);
        _address = address;
    }

    int _end()
    {
        _isAttached = false;
        return 0;
    }

    QByteArray _address;
    int _networkAddressLength;
    bool _isAttached = true;
    bool _isEnabled = true;
    bool _wasDisabled = false;
};

/// Holds what frames lead to when no bit changes.
struct ExpectedOutcome {
    QByteArrayList delivered;  // to the receiver
    QByteArrayList returned;   // to the sender itself
    int unicasts = 0;          // that are confirmed
    int broadcasts = 0;        // likewise
    int losses = 0;            // that are reported
};

/// Reads what a program gets: every message is whole, known and as long as its kind may be.
struct MessagesToProgram {
    explicit MessagesToProgram(const QByteArray& bytes)
    {
        QDataStream stream(bytes);
        while (!stream.atEnd()) {
            quint8 type = 0;
            QByteArray body;
            stream >> type >> body;
            Fuzz::require(stream.status() == QDataStream::Ok && !body.isEmpty(),
                          "a program gets whole messages");
            if (type == Bridge::Frame)
                frames.append(body);
            else
                outcomes.append(body);
            Fuzz::require(type == Bridge::Frame || type == Bridge::Confirmation,
                          "a program gets what it knows");
        }
        Fuzz::require(confirmations() + losses() == outcomes.size(), "an outcome is one or the other");
    }

    int confirmations() const { return outcomes.count(QByteArray(1, Bridge::FrameDelivered)); }
    int losses() const { return outcomes.count(QByteArray(1, Bridge::FrameNotDelivered)); }

    QByteArrayList frames;
    QByteArrayList outcomes;
};

/// A sender, whose program is the fuzzer, and a receiver with another program at the end of a link.
class Scene : public Fuzz::Scene
{
public:
    explicit Scene(uint8_t choices)
        : Fuzz::Scene(choices)
    {
        auto& parameters = TestAccess::parameters(*_network);
        if (_is(AreAddressesShort)) {
            parameters.addressLength = Fuzz::shortAddressLength;
            parameters.sourceAddressOffset = Fuzz::shortAddressLength;
            parameters.broadcastAddress.truncate(Fuzz::shortAddressLength);
        }
        NetworkSimulation::instance()->capture()->setEnabled(true);
        _sender = _addNode(_is(HasSenderNoAddress) ? 0 : 1, _sendingProgram);
        _receiver = _addNode(2, _receivingProgram);
        _expected = std::make_unique<ExpectedSender>(_sender->address(), _network->addressLength());
        TestAccess::framesAcknowledged(*_sender) = _is(WantsConfirmations) ? Qt::Checked : Qt::Unchecked;
        TestAccess::promiscuousMode(*_receiver) = _is(IsReceiverPromiscuous) ? Qt::Checked : Qt::Unchecked;
        _addLinks();
    }

    void playWith(const QByteArrayList& pieces)
    {
        for (const QByteArray& piece : pieces) {
            _sendingProgram.send(piece);
            if (_is(ClosesBeforeItIsRead))
                _sendingProgram.close();
            else
                _check(piece);
        }
        _sendingProgram.close();
        Fuzz::passEvents(Fuzz::passesOfAFrame);
        Fuzz::require(!_sender->socket() && !_sender->active(), "a node whose program has gone is inactive");
        Fuzz::require(_receiver->socket(), "another program's end does nothing to the receiver");
    }

private:
    TcpNode* _addNode(int number, Fuzz::Program& program)
    {
        const QByteArray identity
            = number == 0 ? QByteArray() : Fuzz::address(number, _network->addressLength());
        auto* socket = new QTcpSocket;
        Fuzz::require(socket->setSocketDescriptor(program.takeSimulatorEnd()), "a descriptor can be adopted");
        auto* node = new TcpNode(identity, socket);
        _network->addItem(node);
        return node;
    }

    void _addLinks()
    {
        auto* link = new Connection(_sender, _receiver);
        TestAccess::reliability(*link) = _is(IsLinkNoisy) ? noisyReliability : 1.0;
        TestAccess::broken(*link) = _is(IsLinkBroken);
        _network->addItem(link);
        if (!_is(HasFurtherLinks))
            return;
        auto* third = new TcpNode(Fuzz::address(3, _network->addressLength()), nullptr);
        _network->addItem(third);
        _network->addItem(new Connection(third, _sender));
        _network->addItem(new Connection(_sender, _sender));
    }

    /// Checks what happens to a piece that has been sent and not yet read.
    void _check(const QByteArray& piece)
    {
        const bool wasAttached = _sender->socket() != nullptr;
        const QList<SentFrame> sent = _expected->framesOf(piece);
        const qint64 sentBefore = _sender->sendFramesCount();
        Fuzz::passEvents(Fuzz::passesOfAFrame);

        const bool isAttached = _sender->socket() != nullptr;
        Fuzz::require(isAttached == _expected->isAttached(), "only an error detaches a program");
        Fuzz::require(_sender->sendFramesCount() - sentBefore == sent.size(), "every whole frame is sent");
        Fuzz::require(_sender->address() == _expected->address(), "a program sets its node's address");
        detachedByError.noteIf(wasAttached && !isAttached);
        _checkReceived(_outcomeOf(sent));
    }

    void _checkReceived(const ExpectedOutcome& expected)
    {
        const MessagesToProgram toReceiver(_receivingProgram.receive());
        const MessagesToProgram toSender(_sendingProgram.receive());
        Fuzz::require(toReceiver.outcomes.isEmpty(), "only a sender gets confirmations");
        Fuzz::require(toSender.frames == expected.returned,
                      "the sender gets the frames that come back to it");
        if (!_is(WantsConfirmations))
            Fuzz::require(toSender.outcomes.isEmpty(), "confirmations come only where they are wanted");
        if (_is(IsLinkNoisy)) {
            lostToNoise.noteIf(toReceiver.frames.size() < expected.delivered.size());
            return;
        }
        Fuzz::require(toReceiver.frames == expected.delivered, "the receiver gets its frames in order");
        Fuzz::require(toSender.confirmations() == expected.unicasts + expected.broadcasts,
                      "every frame that is taken is confirmed");
        Fuzz::require(toSender.losses() == expected.losses,
                      "every frame that nobody takes is reported as lost");
        _noteGoals(expected);
    }

    void _noteGoals(const ExpectedOutcome& outcome) const
    {
        for (const QByteArray& frame : outcome.delivered) {
            const QByteArray destination = frame.left(_network->addressLength());
            const bool isForReceiver = destination == _receiver->address();
            (_is(AreAddressesShort) ? deliveredShort : deliveredUnicast).noteIf(isForReceiver);
            deliveredPromiscuously.noteIf(!isForReceiver && destination != _network->broadcastAddress());
        }
        for (const QByteArray& frame : outcome.returned)
            cameBack.noteIf(!Frame::isBroadcast(frame));
        confirmedUnicast.noteIf(outcome.unicasts > 0 && !_is(AreAddressesShort));
        confirmedBroadcast.noteIf(outcome.broadcasts > 0);
        reportedLoss.noteIf(outcome.losses > 0);
    }

    ExpectedOutcome _outcomeOf(const QList<SentFrame>& frames) const
    {
        ExpectedOutcome outcome;
        for (const SentFrame& frame : frames)
            _addFrame(&outcome, frame);
        if (!_is(WantsConfirmations))
            outcome.broadcasts = 0;
        if (!_is(WantsConfirmations) || !_expected->isAttached()) {
            outcome.unicasts = 0;
            outcome.losses = 0;
        }
        if (!_expected->isAttached())  // it got what is confirmed at once, and nothing else
            outcome.returned.clear();
        return outcome;
    }

    void _addFrame(ExpectedOutcome* outcome, const SentFrame& frame) const
    {
        const int length = _network->addressLength();
        const int size = frame.bytes.size();
        const QByteArray destination = frame.bytes.left(length);
        const bool isValid = size >= 2 * length && size <= _network->maximalTransferUnit();
        const bool isForAll = destination == _network->broadcastAddress();
        const bool isForReceiver = destination == _receiver->address();
        const bool isDelivered
            = isValid && !_is(IsLinkBroken) && (isForAll || isForReceiver || _is(IsReceiverPromiscuous));
        const bool isReturned
            = isValid && _is(HasFurtherLinks) && (isForAll || destination == frame.senderAddress);
        if (isDelivered)
            outcome->delivered.append(frame.bytes);
        if (isReturned)
            outcome->returned.append(frame.bytes);
        if (isForAll)
            outcome->broadcasts += isDelivered || isReturned ? 1 : 0;
        else
            outcome->unicasts += (isDelivered && isForReceiver ? 1 : 0) + (isReturned ? 1 : 0);
        outcome->losses += isDelivered || isReturned ? 0 : 1;
    }

    Fuzz::Program _sendingProgram;
    Fuzz::Program _receivingProgram;
    TcpNode* _sender = nullptr;
    TcpNode* _receiver = nullptr;
    std::unique_ptr<ExpectedSender> _expected;
};

}  // namespace

/// The input is a byte of choices and what the program of an attached node sends.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Fuzz::play<Scene>(data, size);
    return 0;
}
