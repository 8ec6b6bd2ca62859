#pragma once

#include <QByteArray>
#include <QElapsedTimer>
#include <QFile>
#include <QPointer>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTcpSocket>
#include <QtEndian>

constexpr int patience = 5000;  // ms; only a failing test waits that long

inline QByteArray hex(const char* digits)
{
    return QByteArray::fromHex(digits);
}

/// Builds a message: type byte, length, body.
inline QByteArray message(int type, const QByteArray& body)
{
    QByteArray bytes(5, static_cast<char>(type));
    qToBigEndian(static_cast<quint32>(body.size()), bytes.data() + 1);
    return bytes + body;
}

/// Builds a node control message with an honest length.
inline QByteArray control(int subType, const QByteArray& data)
{
    return message(3, QByteArray(1, static_cast<char>(subType)) + data);
}

/// Builds a node control message whose length word says \a length, whatever follows.
inline QByteArray controlOfLength(quint32 length, int subType, const QByteArray& data)
{
    QByteArray bytes = control(subType, data);
    qToBigEndian(length, bytes.data() + 1);
    return bytes;
}

/// The program at the far end of a node's connection. Both ends live in this process and thread, so its waits
/// run the simulator too.
class Program
{
public:
    Program() = default;
    explicit Program(quint16 port) { connectTo(port); }

    bool connectTo(quint16 port)
    {
        _socket.connectToHost(QHostAddress::LocalHost, port);
        return _socket.waitForConnected(patience);
    }

    /// Sends in one piece: what fits into the kernel's buffer is all there when the other end looks.
    void send(const QByteArray& bytes)
    {
        _socket.write(bytes);
        _socket.flush();
    }

    /// Returns the next \a size bytes, or fewer when no more come.
    QByteArray receive(qint64 size)
    {
        QSignalSpy arrivals(&_socket, SIGNAL(readyRead()));
        while (_socket.bytesAvailable() < size && arrivals.wait(patience)) { }
        return _socket.read(size);
    }

    /// Returns everything up to the end of the connection.
    QByteArray receiveAll()
    {
        waitForEnd();
        return _socket.readAll();
    }

    /// Returns false when the other end keeps the connection open.
    bool waitForEnd(int timeout = patience)
    {
        QSignalSpy ends(&_socket, SIGNAL(disconnected()));
        return hasEnded() || ends.wait(timeout);
    }

    bool hasEnded() const { return _socket.state() == QAbstractSocket::UnconnectedState; }

    /// Lets the kernel's buffers fill up, which then hold the other end up.
    void stopReading() { _socket.setReadBufferSize(1); }
    void resumeReading(qint64 limit = 0) { _socket.setReadBufferSize(limit); }  // bytes; 0: without limit

    void close() { _socket.close(); }
    void abort() { _socket.abort(); }
    quint16 localPort() const { return _socket.localPort(); }

private:
    QTcpSocket _socket;
};

/// A program and the simulator's end of its connection, without a network in between.
class SocketPair
{
public:
    SocketPair()
    {
        QTcpServer listener;
        listener.listen(QHostAddress::LocalHost);
        program.connectTo(listener.serverPort());
        listener.waitForNewConnection(patience);
        nodeEnd = listener.nextPendingConnection();
        nodeEnd->setParent(nullptr);
    }

    ~SocketPair()
    {
        if (nodeEnd && !nodeEnd->parent())
            delete nodeEnd;
    }

    Q_DISABLE_COPY_MOVE(SocketPair)

    Program program;
    QPointer<QTcpSocket> nodeEnd;  // owned here until something adopts it
};

/// Returns the most memory that this process has ever had mapped, used or not; in bytes.
inline qint64 peakMemory()
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return 0;
    const QByteArray text = status.readAll();
    const QByteArray field = "VmPeak:";
    const int start = text.indexOf(field) + field.size();
    return text.mid(start, text.indexOf("kB", start) - start).trimmed().toLongLong() * 1024;
}

constexpr qint64 unremarkableMemory = 64 * 1024 * 1024;  // bytes; far below what hostile lengths announce
