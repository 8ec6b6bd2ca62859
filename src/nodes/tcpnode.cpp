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

constexpr qint64 unsentLimit
    = qint64{64} * 1024 * 1024;  // bytes; a program that stops reading is dropped beyond it

// What a program may have handled before others have their turn; they take some milliseconds at most. A burst
// of 16 KiB, the most that is safe to have under way, is handled as a whole.
constexpr int mostMessagesAtATime = 1000;
constexpr int mostBytesAtATime = 64 * 1024;

// Bytes that a socket reads ahead
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

/// The length word of a message's body; that of a null array reads as 0.
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
    const bool isNew = socket != _socket;  // the present one is closed, and may be deleted
    if (_socket)
        _socket->close();  // normally runs _socketStateChanged()
    if (_socket) {         // but unsent bytes hold the closing up
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
    // Without it frames arrive 40 ms late, in bursts.
    _socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
    connect(_socket,
            SIGNAL(stateChanged(QAbstractSocket::SocketState)), this,
                   SLOT(_socketStateChanged(QAbstractSocket::SocketState)));
    connect(_socket, SIGNAL(readyRead()), this, SLOT(_socketDataIndication()));
    if (_socket->bytesAvailable() > 0)  // what followed an identification by address
        QMetaObject::invokeMethod(this, "_socketDataIndication", Qt::QueuedConnection);
    setActive(true, false);
    emit connectionStateChanged();
}

/// The node forgets the socket, which is the caller's from here on.
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
    const bool isInputWaiting = !_input.atEnd();  // what the program has sent before it went is handled first
    if (state != QAbstractSocket::UnconnectedState || !_socket || isInputWaiting)
        return;
    _socket->deleteLater();
    _detachSocket();
}

/// After a protocol error: detaches the node at once, whether or not the peer still reads.
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
    const Timeouts::Pass pass;  // sends all confirmations at its end
    if (!_socket || !_input.atEnd())
        return;
    _input.peek(*_socket);
    _handleInput();
}

/// Handles a bounded number of messages, then lets the other programs in. Until the rest is handled, all of
/// it stays in the socket too, which reads nothing more meanwhile.
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
    _socketStateChanged(_socket->state());  // a program that has gone was waited for
}

/// False when the connection is to be closed. Of an incomplete message, which the reader tells, nothing is
/// done.
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
    default:  // Bridge::Goodbye among them: its body goes with the connection
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
    case Bridge::Enable:  // announced data bytes are not read, on purpose: they begin the next message
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

/// An address of the wrong length is read and dropped.
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

/// The inactive colour is a pale version of the active one. A component above 210 gives an invalid colour, on
/// purpose: the default node's is taken then.
void TcpNode::_handleColor(MessageReader& reader, quint32 dataLength)
{
    if (dataLength != Bridge::colorSize)
        return;  // the bytes are left, on purpose: they begin the next message
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

/// While unattached, nothing. Within a pass of deliveries the messages are gathered to its end.
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

/// Sends what one pass of deliveries has written in one go, without waiting for the event loop to find it.
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

/// For this node only: it becomes the selected one. Dismissing the menu sends nothing.
void TcpNode::contextMenuEvent(QGraphicsSceneContextMenuEvent* event)
{
    if (scene() && scene()->selectedItems() != QList<QGraphicsItem*>{this})
        scene()->clearSelection();
    setSelected(true);
    // The menu takes the release, which would end the press that has opened it.
    if (QGraphicsItem* pressed = scene() ? scene()->mouseGrabberItem() : nullptr)
        pressed->ungrabMouse();

    // The event loop of the menu may see the end of this node, and of the menu with its parent.
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
