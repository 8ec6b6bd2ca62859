#pragma once

#include "lattivo.h"
#include "scriptedpeer.h"

#include <QByteArray>
#include <QString>

#include <memory>

constexpr int shortPause = 50;  // ms

/// A client that is closed with its test.
class Client
{
public:
    explicit Client(quint16 port, const lattivo_options* options = nullptr, const char* host = "127.0.0.1")
    {
        result = lattivo_open(&_client, host, port, options);
    }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
    ~Client() { close(); }

    operator lattivo_client*() const { return _client; }  // NOLINT(google-explicit-constructor)
    QString error() const { return QString::fromUtf8(lattivo_error(_client)); }

    lattivo_result close()
    {
        const lattivo_result closing = lattivo_close(_client);
        _client = nullptr;
        return closing;
    }

    lattivo_result result;  // of opening

private:
    lattivo_client* _client = nullptr;
};

inline lattivo_options shortOptions()
{
    lattivo_options options{};
    options.timeout = shortPause;
    return options;
}

/// A client that is identified by an address, and its far end.
struct Pair {
    explicit Pair(const lattivo_options& options = lattivo_options{}, int receiveBuffer = 0)
        : listener(AF_INET, receiveBuffer)
        , client(listener.port(), &options)
        , peer(listener.accept())
    {
        lattivo_identify_by_address(client, "\x02\0\0\0\0\x01", 6);
        peer->receive(12);
    }
    ~Pair() { peer->close(); }

    lattivo_result receive(int timeout = patience) { return lattivo_receive(client, &message, timeout); }
    QByteArray frame() const
    {
        return {reinterpret_cast<const char*>(message.frame), static_cast<int>(message.size)};
    }

    Listener listener;
    Client client;
    std::unique_ptr<FarEnd> peer;
    lattivo_message message{};
};
