#include "fuzztarget.h"

#include "network/bridgeprotocol.h"
#include "network/network.h"
#include "network/networksimulation.h"
#include "nodes/tcpnode.h"
#include "testaccess.h"

#include <QTcpSocket>
#include <QtEndian>

#include <algorithm>

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

constexpr double noisyReliability = 0.99;  // per bit
constexpr int shortAddressLength = 1;
constexpr quint32 nullLength = 0xFFFFFFFF;

QByteArray address(int number, int length)
{
    return QByteArray::fromHex("02000000000").append(static_cast<char>(number)).right(length);
}

QTcpSocket* newSocket(Fuzz::Program& program)
{
    auto* socket = new QTcpSocket;
    Fuzz::require(socket->setSocketDescriptor(program.takeSimulatorEnd()), "a descriptor can be adopted");
    return socket;
}

quint32 wordAt(const QByteArray& bytes, int offset)
{
    return qFromBigEndian<quint32>(bytes.constData() + offset);
}

/// What docs/formats.md says of messages from a program, told anew: which frames a piece makes the node send.
class ExpectedSender
{
public:
    QByteArrayList framesOf(const QByteArray& piece)
    {
        QByteArrayList frames;
        int position = 0;
        while (_isAttached && position < piece.size())
            position = _readMessage(piece, position, &frames);
        return frames;
    }

    bool isAttached() const { return _isAttached; }

private:
    /// Returns where the next message begins.
    int _readMessage(const QByteArray& piece, int begin, QByteArrayList* frames)
    {
        const int type = piece.at(begin);
        const qint64 left = piece.size() - begin - Bridge::headerSize;
        if (left < 0)
            return _end();
        const quint32 word = wordAt(piece, begin + 1);
        if (type == Bridge::NodeControl)
            return _readControl(piece, begin, word);

        const quint32 length = word == nullLength ? 0 : word;
        if ((type != Bridge::Frame && type != Bridge::Ignored) || length > left)
            return _end();
        const int body = begin + Bridge::headerSize;
        if (type == Bridge::Frame && _isEnabled)
            frames->append(piece.mid(body, static_cast<int>(length)));
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
        return isRead ? data + static_cast<int>(dataLength) : data;
    }

    int _end()
    {
        _isAttached = false;
        return 0;
    }

    bool _isAttached = true;
    bool _isEnabled = true;
};

/// The bodies of messages to a program. Every message is whole, known and as long as its kind may be.
struct MessagesToProgram {
    explicit MessagesToProgram(const QByteArray& bytes)
    {
        int position = 0;
        while (position < bytes.size())
            position = _read(bytes, position);
    }

    QByteArrayList frames;
    int confirmations = 0;

private:
    int _read(const QByteArray& bytes, int begin)
    {
        Fuzz::require(bytes.size() - begin > Bridge::headerSize, "a program gets whole messages");
        const quint32 length = wordAt(bytes, begin + 1);
        const QByteArray body = bytes.mid(begin + Bridge::headerSize, static_cast<int>(length));
        Fuzz::require(length > 0 && body.size() == static_cast<int>(length), "a program gets whole bodies");
        if (bytes.at(begin) == Bridge::Frame) {
            frames.append(body);
        } else {
            const int outcome = body.at(0);
            Fuzz::require(bytes.at(begin) == Bridge::Confirmation && length == 1,
                          "a program gets what it knows");
            Fuzz::require(outcome == Bridge::FrameDelivered || outcome == Bridge::FrameNotDelivered,
                          "an outcome is one or the other");
            ++confirmations;
        }
        return begin + Bridge::headerSize + body.size();
    }
};

/// A sender with the program that the fuzzer is, linked to a receiver with a program of its own.
class Scene
{
public:
    explicit Scene(uint8_t choices)
        : _choices(choices)
        , _network(Fuzz::newNetwork())
    {
        auto& parameters = TestAccess::parameters(*_network);
        if (_is(AreAddressesShort)) {
            parameters.addressLength = shortAddressLength;
            parameters.sourceAddressOffset = shortAddressLength;
            parameters.broadcastAddress.truncate(shortAddressLength);
        }
        NetworkSimulation::instance()->capture()->setEnabled(true);
        _sender = _addNode(_is(HasSenderNoAddress) ? 0 : 1, _sendingProgram);
        _receiver = _addNode(2, _receivingProgram);
        TestAccess::framesAcknowledged(*_sender) = _is(WantsConfirmations) ? Qt::Checked : Qt::Unchecked;
        TestAccess::promiscuousMode(*_receiver) = _is(IsReceiverPromiscuous) ? Qt::Checked : Qt::Unchecked;
        _addLinks();
    }
    ~Scene() { Fuzz::deleteNetwork(); }
    Q_DISABLE_COPY_MOVE(Scene)

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
    bool _is(Choice choice) const { return Fuzz::isChosen(_choices, choice); }

    TcpNode* _addNode(int number, Fuzz::Program& program)
    {
        const QByteArray identity = number == 0 ? QByteArray() : address(number, _network->addressLength());
        auto* node = new TcpNode(identity, newSocket(program));
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
        auto* third = new TcpNode(address(3, _network->addressLength()), nullptr);
        _network->addItem(third);
        _network->addItem(new Connection(third, _sender));
        _network->addItem(new Connection(_sender, _sender));
    }

    /// \a piece has been sent and nothing of it was read yet.
    void _check(const QByteArray& piece)
    {
        const bool wasAttached = _sender->socket() != nullptr;
        const QByteArrayList sent = _expected.framesOf(piece);
        const qint64 sentBefore = _sender->sendFramesCount();
        Fuzz::passEvents(Fuzz::passesOfAFrame);

        Fuzz::require((_sender->socket() != nullptr) == _expected.isAttached(),
                      "only an error detaches a program");
        Fuzz::require(_sender->sendFramesCount() - sentBefore == sent.size(), "every whole frame is sent");
        const MessagesToProgram toReceiver(_receivingProgram.receive());
        const MessagesToProgram toSender(_sendingProgram.receive());
        if (!_is(IsLinkNoisy))
            Fuzz::require(toReceiver.frames == _deliveredOf(sent), "the receiver gets its frames in order");
        Fuzz::require(toReceiver.confirmations == 0, "only a sender gets confirmations");
        if (!_is(WantsConfirmations))
            Fuzz::require(toSender.confirmations == 0, "confirmations come only where they are wanted");
        if (!wasAttached)
            Fuzz::require(toSender.frames.isEmpty() && toSender.confirmations == 0,
                          "a detached program gets nothing");
    }

    QByteArrayList _deliveredOf(const QByteArrayList& frames) const
    {
        QByteArrayList delivered;
        const int length = _network->addressLength();
        for (const QByteArray& frame : frames) {
            const QByteArray destination = frame.left(length);
            const bool isValid
                = frame.size() >= 2 * length && frame.size() <= _network->maximalTransferUnit();
            const bool isTaken = destination == _network->broadcastAddress()
                || destination == _receiver->address() || _is(IsReceiverPromiscuous);
            if (isValid && isTaken && !_is(IsLinkBroken))
                delivered.append(frame);
        }
        return delivered;
    }

    uint8_t _choices;
    Network* _network;  // owned by the simulation
    Fuzz::Program _sendingProgram;
    Fuzz::Program _receivingProgram;
    TcpNode* _sender = nullptr;
    TcpNode* _receiver = nullptr;
    ExpectedSender _expected;
};

}  // namespace

/// The input is a byte of choices and what the program of an attached node sends.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Fuzz::Input input(data, size);
    Scene scene(input.takeByte());
    scene.playWith(input.takePieces());
    return 0;
}
