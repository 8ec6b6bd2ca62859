#pragma once

#include "commandline.h"
#include "wire.h"

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds patience{20};  // without any progress

/// The program of one node: its socket, and the bytes that do not make a whole message yet.
class Endpoint
{
public:
    enum Attachment {
        Coming,   // at the simulator's next look
        Awaited,  // only for nodes that get confirmations
    };

    /// Connects and identifies itself by address.
    Endpoint(std::uint16_t port, int node, Attachment attachment);
    ~Endpoint();
    Endpoint(const Endpoint&) = delete;
    Endpoint& operator=(const Endpoint&) = delete;

    int descriptor() const { return _descriptor; }
    void send(const std::string& messages) const;

    /// Reads what has arrived, without waiting, and calls \a handle(type, body, bytes) for each message.
    template <typename Handle> void receive(Handle handle)
    {
        _read();
        std::size_t handled = 0;
        while (const std::size_t bytes
               = Wire::wholeMessageBytes(_input.data() + handled, _inputBytes - handled)) {
            const char* message = _input.data() + handled;
            handle(static_cast<std::uint8_t>(*message), message + Wire::headerBytes,
                   bytes - Wire::headerBytes);
            handled += bytes;
        }
        _discard(handled);
    }

private:
    void _awaitAttachment();
    void _read();
    void _discard(std::size_t bytes);

    int _node;
    int _descriptor;
    std::vector<char> _input;
    std::size_t _inputBytes = 0;
};

/// Waits until one of the endpoints has something to read, or a moment has passed.
void awaitInput(const std::vector<const Endpoint*>& endpoints, std::chrono::milliseconds moment);

/// A node without a link, whose broadcasts the simulator confirms at once and without drawing a random
/// number. An answer to a request that came after frames of other nodes says that those have been read.
class Pulse
{
public:
    Pulse(std::uint16_t port, int node);

    const Endpoint& endpoint() const { return _endpoint; }
    bool isUnderWay() const { return _isUnderWay; }

    void request();

    /// Reads without waiting; true when the answer has come.
    bool hasAnswer();

    std::uint64_t lastRoundTrip() const { return _lastRoundTrip; }  // ns

private:
    Endpoint _endpoint;
    std::string _broadcast;
    bool _isUnderWay = false;
    Clock::time_point _requestTime;
    std::uint64_t _lastRoundTrip = 0;
};
