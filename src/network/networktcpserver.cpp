#include "core/streamhelpers.h"
#include "network/network.h"
#include "nodes/tcpnode.h"
#include "protocol/bridgeprotocol.h"

#include <QDataStream>
#include <QHostAddress>
#include <QTcpSocket>

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>

namespace {

constexpr int mostUntaken = 1;  // programs that Qt's server holds; we take each from it at once

struct Identification {
    quint8 type = 0;
    quint32 length = 0;  // of what follows: the kind byte and the value
    quint8 kind = 0;

    bool isOfKind(Bridge::NodeControlType wanted) const
    {
        return type == Bridge::NodeControl && kind == wanted;
    }
};

/// Reads the header. Missing bytes read as zero, which no identification begins with.
QDataStream& operator>>(QDataStream& stream, Identification& header)
{
    return stream >> header.type >> header.length >> header.kind;
}

/// Lets more programs wait to be accepted than the 50 of Qt: the kernel would put off the rest of a burst for
/// seconds. A failure changes nothing.
void admitBursts(const QTcpServer& server)
{
    ::listen(static_cast<int>(server.socketDescriptor()), SOMAXCONN);
}

bool isProgramWaiting(const QTcpServer& server)
{
    pollfd listener = {static_cast<int>(server.socketDescriptor()), POLLIN, 0};
    return ::poll(&listener, 1, 0) > 0;
}

/// Ends the connection at once. Deletes \a socket later, since this may run inside one of its signals.
void refuse(QTcpSocket* socket)
{
    socket->abort();
    socket->deleteLater();
}

}  // namespace

bool Network::setTcpEnabled(bool enable)
{
    if (!enable) {
        _stopTcpServer();
        return true;
    }
    return isTcpEnabled() || _startTcpServer();
}

void Network::setTcpPort(quint16 port)
{
    if (port == _tcpServer.port)
        return;
    _tcpServer.port = port;
    if (!isTcpEnabled())
        return;
    setTcpEnabled(false);
    setTcpEnabled(true);
}

quint16 Network::listeningPort() const
{
    return _tcpServer.server.serverPort();
}

QString Network::tcpErrorString() const
{
    return isTcpEnabled() ? QString() : _tcpServer.error;
}

/// Starts the server. Connects the signal afresh each time: a second call for a program finds nothing
/// pending.
bool Network::_startTcpServer()
{
    if (!_tcpServer.server.listen(QHostAddress::Any, _tcpServer.port)) {
        _tcpServer.error = _tcpServer.server.errorString();
        return false;
    }
    admitBursts(_tcpServer.server);
    _tcpServer.server.setMaxPendingConnections(mostUntaken);
    connect(&_tcpServer.server, SIGNAL(newConnection()), this, SLOT(_tcpPnpNewNode()));
    return true;
}

/// Stops the server. Programs that are already attached to a node stay so.
void Network::_stopTcpServer()
{
    if (!isTcpEnabled())
        return;
    _tcpServer.server.close();
    _acceptRetry.stop();
    const QList<QTcpSocket*> sockets = _tcpServer.pending;
    for (QTcpSocket* socket : sockets) {
        _forgetPending(socket);
        socket->close();
        delete socket;
    }
}

void Network::_tcpPnpNewNode()
{
    QTcpSocket* socket = _tcpServer.server.nextPendingConnection();
    if (!socket)
        return;
    if (!isProgramWaiting(_tcpServer.server))
        _restAccepting();
    if (!connect(socket, SIGNAL(readyRead()), this, SLOT(_tcpPnpDataFromPending()))) {
        refuse(socket);
        return;
    }
    connect(socket, SIGNAL(disconnected()), this, SLOT(_tcpPnpPendingDisconnected()));
    _tcpServer.pending.append(socket);
}

/// Keeps Qt's server from accepting while nobody waits, which only a limit of 0 does. The server keeps the
/// first error of its socket. After one "nobody is waiting" it takes a lack of file descriptors for the same,
/// and tries without end.
void Network::_restAccepting()
{
    _tcpServer.server.setMaxPendingConnections(0);
    QMetaObject::invokeMethod(this, "_tcpResumeAccepting", Qt::QueuedConnection);
}

/// Lets Qt's server accept again. It stops for good when it runs out of file descriptors, of which some may
/// be free by now.
void Network::_tcpResumeAccepting()
{
    if (!isTcpEnabled())
        return;
    _tcpServer.server.setMaxPendingConnections(mostUntaken);
    _tcpServer.server.resumeAccepting();
}

void Network::_tcpPnpPendingDisconnected()
{
    auto* socket = qobject_cast<QTcpSocket*>(sender());
    if (!socket)
        return;
    _forgetPending(socket);
    socket->deleteLater();
}

/// Identifies the program by what has arrived with the first signal, without waiting for more.
void Network::_tcpPnpDataFromPending()
{
    auto* socket = qobject_cast<QTcpSocket*>(sender());
    if (!socket)
        return;
    _forgetPending(socket);
    if (_tcpServer.nameBasedPnp)
        _identifyByName(socket);
    else
        _identifyByAddress(socket);
}

void Network::_forgetPending(QTcpSocket* socket)
{
    _tcpServer.pending.removeAll(socket);
    socket->disconnect(this);
}

/// Drops the bytes behind the identification, on purpose: a program that identifies by name sends nothing
/// else until it is attached.
void Network::_identifyByName(QTcpSocket* socket)
{
    const QByteArray arrived = socket->readAll();
    QDataStream stream(arrived);
    stream.setVersion(Stream::version);
    Identification header;
    stream >> header;
    if (!header.isOfKind(Bridge::SetName)) {
        refuse(socket);
        return;
    }
    const quint32 announced = std::max<quint32>(header.length, 1) - 1;
    const QByteArray value = arrived.mid(Bridge::nodeControlHeaderSize);
    const int length = static_cast<int>(std::min<quint32>(announced, static_cast<quint32>(value.size())));
    _attach(socket, Bridge::nameFromBytes(value.left(length)));
}

/// Leaves the bytes behind the identification in the socket, for the node to read.
void Network::_identifyByAddress(QTcpSocket* socket)
{
    const qint64 messageSize = qint64{addressLength()} + Bridge::nodeControlHeaderSize;
    const QByteArray message = socket->read(qBound<qint64>(0, messageSize, socket->bytesAvailable()));
    QDataStream stream(message);
    stream.setVersion(Stream::version);
    Identification header;
    stream >> header;
    const bool hasWholeAddress
        = header.length == messageSize - Bridge::nodeControlHeaderSize + 1 && message.size() == messageSize;
    if (!header.isOfKind(Bridge::SetAddress) || !hasWholeAddress) {
        refuse(socket);
        return;
    }
    _attach(socket, message.mid(Bridge::nodeControlHeaderSize));
}

/// Hands the socket to the topmost TCP node of that identity, or to a new one where Plug'n'Place allows it.
template <typename Identity> void Network::_attach(QTcpSocket* socket, const Identity& identity)
{
    if (TcpNode* node = _topmostTcpNode(_directory.nodes(identity))) {
        node->setSocket(socket);
        node->update();
        return;
    }
    if (!isTcpPnpEnabled()) {
        refuse(socket);
        return;
    }
    auto* node = new TcpNode(identity, socket);
    addItem(node);
    node->setPos(sceneRect().center());  // of the scene with the new node in it
    update();
    emit nodeAdded(node);
}

/// Returns the topmost TCP node among \a candidates, or null. Asks for the order of all items only when there
/// are several.
TcpNode* Network::_topmostTcpNode(const QList<Node*>& candidates) const
{
    const QList<TcpNode*> nodes = itemsOf<TcpNode>(candidates);
    if (nodes.size() <= 1)
        return nodes.value(0);

    const QList<TcpNode*> all = itemsOf<TcpNode>(items(Qt::DescendingOrder));
    return *std::find_if(all.begin(), all.end(), [&nodes](TcpNode* node) { return nodes.contains(node); });
}
