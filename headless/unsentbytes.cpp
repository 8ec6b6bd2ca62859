#include "unsentbytes.h"

#include "network/network.h"
#include "nodes/tcpnode.h"

#include <QTcpSocket>
#include <QTimer>

/// Also watches the sockets that nodes have let go of, which are the network's while they linger. It watches
/// them until they end. Their programs may still write, and would lose what the kernel has not sent if the
/// process ended before.
UnsentBytes::UnsentBytes(const Network& network)
{
    const QList<TcpNode*> nodes = itemsOf<TcpNode>(network.items());
    for (const TcpNode* node : nodes) {
        if (!node->socket() || node->socket()->bytesToWrite() == 0)
            continue;
        connect(node->socket(), SIGNAL(bytesWritten(qint64)), this, SLOT(_forgetWhenSent()));
        _watch(node->socket());
    }
    const auto lingering = network.findChildren<QTcpSocket*>(QString(), Qt::FindDirectChildrenOnly);
    for (const QTcpSocket* socket : lingering)
        _watch(socket);
}

void UnsentBytes::wait(int longest)
{
    if (_sockets.isEmpty())
        return;
    QTimer::singleShot(longest, &_loop, SLOT(quit()));
    _loop.exec();
}

void UnsentBytes::_watch(const QObject* socket)
{
    connect(socket, SIGNAL(destroyed(QObject*)), this, SLOT(_forget(QObject*)));
    _sockets.insert(socket);
}

void UnsentBytes::_forgetWhenSent()
{
    if (qobject_cast<QTcpSocket*>(sender())->bytesToWrite() == 0)
        _forget(sender());
}

void UnsentBytes::_forget(QObject* socket)
{
    _sockets.remove(socket);
    if (_sockets.isEmpty())
        _loop.quit();
}
