#include "nodes/lingeringsocket.h"

#include <QTcpSocket>
#include <QTimer>

#include <sys/socket.h>

namespace {

constexpr int lingerTime = 3000;  // ms

}  // namespace

LingeringSocket::LingeringSocket(QTcpSocket* socket, QObject* owner)
    : QObject(socket)
    , _socket(socket)
{
    socket->setParent(owner);
    connect(socket, SIGNAL(disconnected()), socket, SLOT(deleteLater()));
    connect(socket, SIGNAL(readyRead()), this, SLOT(discardInput()));
    connect(socket, SIGNAL(bytesWritten(qint64)), this, SLOT(endOutput()));
    QTimer::singleShot(lingerTime, socket, SLOT(deleteLater()));
    discardInput();
    endOutput();
}

void LingeringSocket::discardInput()
{
    _socket->readAll();
}

void LingeringSocket::endOutput()
{
    if (_socket->bytesToWrite() == 0)
        ::shutdown(static_cast<int>(_socket->socketDescriptor()), SHUT_WR);
}
