#pragma once

#include <QObject>

QT_BEGIN_NAMESPACE
class QTcpSocket;
QT_END_NAMESPACE

/// Closes and deletes a socket that no node uses any more. What has been written is still sent out, if the
/// peer takes it within 3 s. What the peer still writes is thrown away: closed with unread bytes, a socket
/// loses its unsent ones in the kernel.
class LingeringSocket : public QObject
{
    Q_OBJECT

public:
    /// From here on \a owner owns \a socket, and the socket owns this object: both go together.
    LingeringSocket(QTcpSocket* socket, QObject* owner);

private slots:
    void discardInput();

    /// The peer sees the end of the connection behind the last byte.
    void endOutput();

private:
    QTcpSocket* _socket;  // its parent
};
