#pragma once

#include "attach.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds patience{20000};  // without any progress

/// The program of one node.
class Endpoint
{
public:
    Endpoint(std::uint16_t port, int node)
        : _node(node)
        , _client(attach(port, node, 0), &lattivo_close)
    {
    }

    /// Waits until the simulator has taken a node that gets confirmations. Sends a frame that is too short:
    /// the simulator draws no random number, and reports it as lost.
    void awaitAttachment()
    {
        send(std::string(2 * addressBytes - 1, '\0'));
        lattivo_message message{};
        _check(lattivo_receive(_client.get(), &message, patience.count()));
    }

    /// Queues a frame.
    void send(const std::string& frame)
    {
        _check(lattivo_send_frame(_client.get(), frame.data(), frame.size(), patience.count()));
    }

    /// Waits until all frames have left.
    void flush() { _check(lattivo_flush(_client.get(), patience.count())); }

    /// Sends what finds room, without waiting; true when all frames have left.
    bool isFlushed()
    {
        const lattivo_result result = lattivo_flush(_client.get(), 0);
        return result != LATTIVO_AGAIN && _check(result);
    }

    /// Reads once, when something has come, and calls \a handle for each message. False: there was none.
    template <typename Handle> bool receive(milliseconds wait, Handle handle)
    {
        lattivo_message message{};
        lattivo_result result = lattivo_receive(_client.get(), &message, wait.count());
        const bool hasReceived = result == LATTIVO_OK;
        while (result == LATTIVO_OK) {
            handle(message);
            result = lattivo_has_more(_client.get()) ? lattivo_receive(_client.get(), &message, 0)
                                                     : LATTIVO_AGAIN;
        }
        return result == LATTIVO_AGAIN ? hasReceived : _check(result);
    }

private:
    /// Ends the measurement when a call has failed or has lasted too long.
    bool _check(lattivo_result result) const
    {
        if (result != LATTIVO_OK)
            fail("node " + std::to_string(_node) + ": "
                 + (result == LATTIVO_AGAIN ? "the simulator stands still" : lattivo_error(_client.get())));
        return true;
    }

    int _node;
    std::unique_ptr<lattivo_client, decltype(&lattivo_close)> _client;
};

/// A node without a link, whose broadcasts the simulator confirms at once and without drawing a random
/// number. An answer to a request that came after frames of other nodes says that those have been read.
class Pulse
{
public:
    Pulse(std::uint16_t port, int node)
        : _endpoint(port, node)
        , _broadcast(std::string(addressBytes, '\xff') + nodeAddress(node))
    {
        _endpoint.awaitAttachment();
    }

    /// Sends a request and waits for the answer, without sleeping. Returns how long that took.
    std::chrono::nanoseconds roundTrip()
    {
        const Clock::time_point begin = Clock::now();
        _endpoint.send(_broadcast);
        _endpoint.flush();
        while (!_endpoint.receive(milliseconds(0), [](const lattivo_message&) {})) {
            if (Clock::now() - begin > patience)
                fail("the simulator stands still");
        }
        return Clock::now() - begin;
    }

private:
    Endpoint _endpoint;
    std::string _broadcast;
};
