#include "nodes/tcpnode.h"

#include "core/streamhelpers.h"
#include "network/network.h"
#include "network/networksimulation.h"
#include "nodes/debugactions.h"
#include "nodes/lingeringsocket.h"
#include "nodes/tcpnodepropertieswidget.h"
#include "protocol/bridgeprotocol.h"
#include "protocol/messagereader.h"

#include <QApplication>
#include <QGraphicsSceneContextMenuEvent>
#include <QMenu>
#include <QPointer>
#include <QTcpSocket>

namespace {

constexpr qint64 unsentLimit = qint64{64} * 1024 * 1024;  // bytes, for a program that does not read

// The node handles this much for one program before others have their turn: some milliseconds of work at
// most. It handles a burst of 16 KiB, the most that is safe to have under way, as a whole.
constexpr int mostMessagesAtATime = 1000;
constexpr int mostBytesAtATime = 64 * 1024;

// Bytes that a socket may read ahead
constexpr qint64 unlimited = 0;
constexpr qint64 lessThanItHolds = 1;

constexpr int inactiveColorOffset = 150;

QMenu* newDebugMenu(QWidget* parent)
{
    auto* menu = new QMenu(parent);
    addDebugAction(menu, TcpNode::IdentifyDC);
    menu->addSeparator();
    for (const TcpNode::DebugCommand command :
         {TcpNode::RunContDC, TcpNode::PauseDC, TcpNode::StepDC, TcpNode::ResetDC, TcpNode::QuitDC})
        addDebugAction(menu, command);
    return menu;
}

/// Reads the length word of a message's body. That of a null array reads as 0.
quint32 readBodyLength(MessageReader& reader)
{
    const quint32 length = reader.readWord();
    return length == Stream::nullArrayLength ? 0 : length;
}

}  // namespace

QList<TcpNode*> TcpNode::__allTcpNodes;

TcpNode::TcpNode(const QByteArray& address, QTcpSocket* socket)
    : Node(address)
{
    setSocket(socket);
    __allTcpNodes.append(this);
}

TcpNode::TcpNode(const QString& name, QTcpSocket* socket)
    : Node(name)
{
    setSocket(socket);
    __allTcpNodes.append(this);
}

TcpNode::~TcpNode()
{
    __allTcpNodes.removeOne(this);
    setSocket(nullptr);
}

void TcpNode::setSocket(QTcpSocket* socket)
{
    const bool isNew = socket != _socket;  // the present socket is closed below, and may be deleted
    if (_socket)
        _socket->close();  // normally runs _socketStateChanged()
    if (_socket) {         // but unsent bytes delay the closing
        QTcpSocket* unsent = _socket;
        _detachSocket();
        delete unsent;
    }
    if (isNew && socket && socket->state() == QAbstractSocket::ConnectedState)
        _adoptSocket(socket);
}

void TcpNode::_adoptSocket(QTcpSocket* socket)
{
    _socket = socket;
    _socket->setParent(this);
    // Without this, frames arrive 40 ms late, in bursts.
    _socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
    connect(_socket,
            SIGNAL(stateChanged(QAbstractSocket::SocketState)), this,
                   SLOT(_socketStateChanged(QAbstractSocket::SocketState)));
    connect(_socket, SIGNAL(readyRead()), this, SLOT(_socketDataIndication()));
    if (_socket->bytesAvailable() > 0)  // that came behind an identification by address
        QMetaObject::invokeMethod(this, "_socketDataIndication", Qt::QueuedConnection);
    setActive(true, false);
    emit connectionStateChanged();
}

/// Forgets the socket, which belongs to the caller from here on.
void TcpNode::_detachSocket()
{
    _socket->disconnect(this);
    _socket->setReadBufferSize(unlimited);
    _socket = nullptr;
    _input = MessageReader();
    _output.clear();
    setActive(false, false);
    emit connectionStateChanged();
}

void TcpNode::_socketStateChanged(QAbstractSocket::SocketState state)
{
    const bool isInputWaiting = !_input.atEnd();  // the last messages of a program are handled first
    if (state != QAbstractSocket::UnconnectedState || !_socket || isInputWaiting)
        return;
    _socket->deleteLater();
    _detachSocket();
}

/// Detaches the node at once after a protocol error, whether or not the peer still reads.
void TcpNode::_closeSocket()
{
    if (!_socket)
        return;
    _output.giveToSocket(*_socket);
    QTcpSocket* socket = _socket;
    _detachSocket();
    new LingeringSocket(socket, NetworkSimulation::instance()->network());
}

/// Closes the socket of a program that has stopped reading.
void TcpNode::_abortSocket()
{
    QTcpSocket* socket = _socket;
    _detachSocket();
    socket->abort();
    socket->deleteLater();
}

void TcpNode::_socketDataIndication()
{
    const Timeouts::Pass pass;  // sends all confirmations when it ends
    if (!_socket || !_input.atEnd())
        return;
    _input.peek(*_socket);
    _handleInput();
}

/// Handles a bounded number of messages, then lets the other programs in. Until the rest is handled, all of
/// it stays in the socket too, which stops reading until then.
void TcpNode::_handleInput()
{
    if (!_socket)
        return;
    const QTcpSocket* socket = _socket;
    const int lastStart = _input.position() + mostBytesAtATime;
    for (int i = 0; i < mostMessagesAtATime && _input.position() < lastStart && !_input.atEnd(); ++i) {
        const bool isUnderstood = _handleMessage(_input);
        if (_socket == socket && (!isUnderstood || !_input.isComplete()))
            _closeSocket();
        if (_socket != socket)
            return;  // a message may cost the node its socket
    }
    if (!_input.atEnd()) {
        _socket->setReadBufferSize(lessThanItHolds);
        if (!_furtherInput.isPending())
            _furtherInput.start(0);
        return;
    }
    _socket->skip(_input.size());
    _socket->setReadBufferSize(unlimited);
    _input.clear();
    _socketStateChanged(_socket->state());  // the program may have gone by now
}

/// Handles one message. Does nothing for an incomplete one, which the reader reports. False when the
/// connection has to be closed.
bool TcpNode::_handleMessage(MessageReader& reader)
{
    switch (reader.readByte()) {
    case Bridge::Frame:
        _handleFrame(reader);
        return true;
    case Bridge::NodeControl:
        return _handleNodeControl(reader);
    case Bridge::Ignored:
        reader.skip(readBodyLength(reader));
        return true;
    default:  // also Bridge::Goodbye, whose body goes with the connection
        return false;
    }
}

void TcpNode::_handleFrame(MessageReader& reader)
{
    const QByteArray frame = reader.readBytes(readBodyLength(reader));
    if (reader.isComplete())
        dataRequest(frame);
}

bool TcpNode::_handleNodeControl(MessageReader& reader)
{
    const quint32 length = reader.readWord();
    const quint8 type = reader.readByte();
    if (!reader.isComplete())
        return false;

    const quint32 dataLength = length - 1;  // of a length of 0: more than can ever have arrived
    switch (type) {
    case Bridge::SetAddress:
        _handleAddress(reader, dataLength);
        return true;
    case Bridge::Enable:  // on purpose, announced data bytes begin the next message
        setActive(true, true, WithTraffic);
        return true;
    case Bridge::Disable:  // likewise
        setActive(false, true, WithTraffic);
        return true;
    case Bridge::SetColor:
        _handleColor(reader, dataLength);
        return true;
    case Bridge::SetName:
        _handleName(reader, dataLength);
        return true;
    default:
        return false;
    }
}

/// Reads an address, and drops it when it has the wrong length.
void TcpNode::_handleAddress(MessageReader& reader, quint32 dataLength)
{
    const QByteArray newAddress = reader.readBytes(dataLength);
    if (!reader.isComplete())
        return;
    const int networkLength = NetworkSimulation::instance()->network()->addressLength();
    const bool replacesOne = newAddress.size() == address().size();
    const bool isFirstOne = address().isEmpty() && newAddress.size() == networkLength;
    if (replacesOne || isFirstOne)
        setAddress(newAddress, WithTraffic);
}

/// Reads the active colour, of which the inactive one is a pale version. A component of 212 or more
/// makes the pale one invalid, on purpose: the default node's colour takes its place.
void TcpNode::_handleColor(MessageReader& reader, quint32 dataLength)
{
    if (dataLength != Bridge::colorSize)
        return;  // on purpose, the bytes begin the next message
    const quint8 red = reader.readByte();
    const quint8 green = reader.readByte();
    const quint8 blue = reader.readByte();
    if (!reader.isComplete())
        return;
    setActiveColor(QColor(red, green, blue), WithTraffic);
    setInactiveColor(QColor(red / 2 + inactiveColorOffset, green / 2 + inactiveColorOffset,
                            blue / 2 + inactiveColorOffset),
                     WithTraffic);
}

void TcpNode::_handleName(MessageReader& reader, quint32 dataLength)
{
    const QByteArray name = reader.readBytes(dataLength);
    if (reader.isComplete())
        setName(Bridge::nameFromBytes(name), WithTraffic);
}

void TcpNode::dataIndication(QByteArray frame)
{
    if (!frame.isEmpty())
        _sendMessage(Bridge::Frame, frame);
}

void TcpNode::dataConfirmation(bool delivered)
{
    const char outcome = delivered ? Bridge::FrameDelivered : Bridge::FrameNotDelivered;
    _sendMessage(Bridge::Confirmation, QByteArray(1, outcome));
}

void TcpNode::sendDebugCommand(DebugCommand command)
{
    _sendMessage(Bridge::Debug, QByteArray(1, static_cast<char>(command)));
}

void TcpNode::sendDebugCommandToSelectedOrAll(DebugCommand command)
{
    NetworkItem* selected = NetworkSimulation::instance()->network()->selectedNetworkItem();
    if (auto* node = dynamic_cast<TcpNode*>(selected)) {
        node->sendDebugCommand(command);
        return;
    }
    if (selected)
        return;
    const QList<TcpNode*> nodes = __allTcpNodes;
    for (TcpNode* node : nodes)
        node->sendDebugCommand(command);
}

/// Sends nothing while unattached. Within a pass of deliveries, gathers the messages to the end of the pass.
void TcpNode::_sendMessage(quint8 type, const QByteArray& body)
{
    if (!_socket)
        return;
    _output.append(type, body);
    if (_socket->bytesToWrite() + _output.size() > unsentLimit) {
        _abortSocket();
        return;
    }
    if (!_outputFlush.startAtEndOfPass())
        _output.giveToSocket(*_socket);
}

/// Sends all that one pass of deliveries has written at once, before the event loop would.
void TcpNode::_flushOutput()
{
    if (!_socket)
        return;
    _output.giveToKernel(*_socket);
    if (_output.isEmpty())
        return;
    _output.giveToSocket(*_socket);
    _socket->flush();
}

/// Selects this node alone and sends it the command that the user chooses, if any.
void TcpNode::contextMenuEvent(QGraphicsSceneContextMenuEvent* event)
{
    if (scene() && scene()->selectedItems() != QList<QGraphicsItem*>{this})
        scene()->clearSelection();
    setSelected(true);
    // The menu takes the release that would end the press which has opened it.
    if (QGraphicsItem* pressed = scene() ? scene()->mouseGrabberItem() : nullptr)
        pressed->ungrabMouse();

    // While the menu is open, this node may end, and so may the menu with its parent.
    const QPointer<TcpNode> self = this;
    const QPointer<QMenu> menu = newDebugMenu(QApplication::focusWidget());
    const QAction* chosen = menu->exec(event->screenPos());
    if (self && menu && chosen)
        sendDebugCommand(static_cast<DebugCommand>(chosen->data().toInt()));
    delete menu;
}

QWidget* TcpNode::propertiesWidget()
{
    return new TcpNodePropertiesWidget(this, Node::propertiesWidget());
}
