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

constexpr int mostUntaken = 1;  // programs that the toolkit's server holds; each is taken from it at once

struct Identification {
    quint8 type = 0;
    quint32 length = 0;  // of what follows: the kind byte and the value
    quint8 kind = 0;

    bool isOfKind(Bridge::NodeControlType wanted) const
    {
        return type == Bridge::NodeControl && kind == wanted;
    }
};

/// Missing bytes read as zero, which no identification begins with.
QDataStream& operator>>(QDataStream& stream, Identification& header)
{
    return stream >> header.type >> header.length >> header.kind;
}

/// The toolkit lets 50 programs wait to be accepted; the rest of a burst would be put off by the kernel for
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

/// Whatever \a socket is in the middle of: this may run inside one of its signals.
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

/// The signal is connected afresh at each start; a second call for the same program finds nothing pending.
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

/// Programs that are attached to a node already stay so.
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

/// The toolkit's server keeps the first error of its socket: after one "nobody is waiting" it takes running
/// out of file descriptors for that too, and asks without end. So it is kept from asking while nobody waits,
/// which only a limit of 0 does.
void Network::_restAccepting()
{
    _tcpServer.server.setMaxPendingConnections(0);
    QMetaObject::invokeMethod(this, "_tcpResumeAccepting", Qt::QueuedConnection);
}

/// The toolkit's server stops accepting for good when it runs out of file descriptors; some may be free again
/// now.
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

/// What has arrived with the first signal decides: there is no waiting for more.
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

/// Bytes behind the identification are lost, on purpose: a program that identifies by name sends nothing else
/// until it has been attached.
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

/// Bytes behind the identification stay in the socket, for the node to read.
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

/// Null when there is no TCP node among \a candidates. Only several need the order of all items.
TcpNode* Network::_topmostTcpNode(const QList<Node*>& candidates) const
{
    const QList<TcpNode*> nodes = itemsOf<TcpNode>(candidates);
    if (nodes.size() <= 1)
        return nodes.value(0);

    const QList<TcpNode*> all = itemsOf<TcpNode>(items(Qt::DescendingOrder));
    return *std::find_if(all.begin(), all.end(), [&nodes](TcpNode* node) { return nodes.contains(node); });
}
