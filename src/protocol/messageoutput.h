#pragma once

#include <QByteArray>

QT_BEGIN_NAMESPACE
class QTcpSocket;
QT_END_NAMESPACE

/// Holds the messages for a program, in order, until its socket or the kernel gets them.
class MessageOutput
{
public:
    int size() const { return _bytes.size(); }
    bool isEmpty() const { return _bytes.isEmpty(); }

    void append(quint8 type, const QByteArray& body);
    void clear();

    /// Gives the kernel what it takes at once. The way through the buffer of \a socket would cost as much
    /// again. Keeps the rest when the kernel is full. Keeps all while older bytes wait in the socket. Also
    /// keeps all after a failure, which the socket reports when it gets the bytes.
    void giveToKernel(const QTcpSocket& socket);

    /// Gives everything to \a socket, which sends it when the event loop finds it writable.
    void giveToSocket(QTcpSocket& socket);

private:
    QByteArray _bytes;
};
