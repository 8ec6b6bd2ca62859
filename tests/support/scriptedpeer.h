#pragma once

#include <QByteArray>
#include <QtTest>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>

constexpr int patience = 5000;  // ms; only a failing test waits that long

inline QByteArray hex(const char* digits)
{
    return QByteArray::fromHex(digits);
}

/// The far end of a connection; it does what a test says.
class FarEnd
{
public:
    explicit FarEnd(int descriptor)
        : _descriptor(descriptor)
    {
    }
    FarEnd(const FarEnd&) = delete;
    FarEnd& operator=(const FarEnd&) = delete;
    ~FarEnd() { close(); }

    bool isThere() const { return _descriptor >= 0; }

    void close()
    {
        if (_descriptor >= 0)
            ::close(_descriptor);
        _descriptor = -1;
    }

    void send(const QByteArray& bytes)
    {
        QCOMPARE(::send(_descriptor, bytes.constData(), bytes.size(), MSG_NOSIGNAL), bytes.size());
    }

    /// Waits for as many bytes; fewer come when the program has closed.
    QByteArray receive(int size)
    {
        QByteArray bytes(size, '\0');
        int received = 0;
        while (received < size && isReadable()) {
            const ssize_t count = ::recv(_descriptor, bytes.data() + received, size - received, 0);
            if (count <= 0)
                break;
            received += static_cast<int>(count);
        }
        return bytes.left(received);
    }

    bool isReadable(int timeout = patience) const
    {
        pollfd state{_descriptor, POLLIN, 0};
        return ::poll(&state, 1, timeout) > 0;
    }

    int unreadBytes() const
    {
        int bytes = 0;
        ::ioctl(_descriptor, FIONREAD, &bytes);
        return bytes;
    }

private:
    int _descriptor;
};

/// Listens in the place of the simulator.
class Listener
{
public:
    static constexpr int backlog = 10;  // one more program than that can wait

    /// \a receiveBuffer bounds the window that programs see; 0: as large as the kernel makes it.
    explicit Listener(int family = AF_INET, int receiveBuffer = 0)
        : _descriptor(::socket(family, SOCK_STREAM, 0))
    {
        if (receiveBuffer > 0)
            ::setsockopt(_descriptor, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
        sockaddr_in6 address{};
        address.sin6_family = static_cast<sa_family_t>(family);
        address.sin6_addr = in6addr_loopback;
        socklen_t size = sizeof address;
        if (family == AF_INET) {
            auto* address4 = reinterpret_cast<sockaddr_in*>(&address);
            address4->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            size = sizeof *address4;
        }
        _isListening = ::bind(_descriptor, reinterpret_cast<sockaddr*>(&address), size) == 0
            && ::listen(_descriptor, backlog) == 0;
        ::getsockname(_descriptor, reinterpret_cast<sockaddr*>(&address), &size);
        _port = ntohs(address.sin6_port);  // at the same place in both families
    }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;
    ~Listener() { close(); }

    bool isListening() const { return _isListening; }
    quint16 port() const { return _port; }

    bool isProgramWaiting(int timeout = patience) const
    {
        pollfd state{_descriptor, POLLIN, 0};
        return ::poll(&state, 1, timeout) > 0;
    }

    std::unique_ptr<FarEnd> accept() const
    {
        return std::make_unique<FarEnd>(isProgramWaiting() ? ::accept(_descriptor, nullptr, nullptr) : -1);
    }

    void close()
    {
        if (_descriptor >= 0)
            ::close(_descriptor);
        _descriptor = -1;
    }

private:
    int _descriptor;
    bool _isListening = false;
    quint16 _port = 0;
};
