#pragma once

#include <QObject>

QT_BEGIN_NAMESPACE
class QTcpSocket;
QT_END_NAMESPACE

/// Closes and deletes a socket that no node uses any more. Still sends what the node has written, if the peer
/// takes it within 3 s. Throws away what the peer still writes: the kernel would drop the unsent bytes of a
/// socket that is closed with unread ones.
class LingeringSocket : public QObject
{
    Q_OBJECT

public:
    /// From here on \a owner owns \a socket, and the socket owns this object: both go together.
    LingeringSocket(QTcpSocket* socket, QObject* owner);

private slots:
    void discardInput();

    /// Closes the connection behind the last byte, so that the peer sees its end there.
    void endOutput();

private:
    QTcpSocket* _socket;  // its parent
};
