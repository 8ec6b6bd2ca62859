#include "endpoint.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {

constexpr std::size_t inputBufferBytes = std::size_t{256} * 1024;
constexpr std::size_t tooShortBytes = 2 * Wire::addressBytes - 1;

int connectedSocket(std::uint16_t port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int descriptor = socket(AF_INET, SOCK_STREAM, 0);
    if (descriptor < 0 || connect(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        fail("cannot connect");
    const int on = 1;
    setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return descriptor;
}

}  // namespace

Endpoint::Endpoint(std::uint16_t port, int node, Attachment attachment)
    : _node(node)
    , _descriptor(connectedSocket(port))
    , _input(inputBufferBytes)
{
    send(Wire::identification(Wire::ByAddress, node));
    if (attachment == Awaited)
        _awaitAttachment();
}

Endpoint::~Endpoint()
{
    close(_descriptor);
}

/// A frame that is too short makes the simulator draw no random number, and it is reported as lost.
void Endpoint::_awaitAttachment()
{
    send(Wire::message(Wire::Frame, std::string(tooShortBytes, '\0')));
    bool isAttached = false;
    const Clock::time_point end = Clock::now() + patience;
    while (!isAttached) {
        if (Clock::now() > end)
            fail(Wire::nodeName(_node) + " was not taken");
        awaitInput({this}, std::chrono::milliseconds(100));
        receive([&](std::uint8_t type, const char*, std::size_t) {
            isAttached = isAttached || type == Wire::Confirmation;
        });
    }
}

void Endpoint::send(const std::string& messages) const
{
    const ssize_t sent = ::send(_descriptor, messages.data(), messages.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent != static_cast<ssize_t>(messages.size()))
        fail("the kernel did not take all messages of " + Wire::nodeName(_node));
}

void Endpoint::_read()
{
    const ssize_t received
        = recv(_descriptor, _input.data() + _inputBytes, _input.size() - _inputBytes, MSG_DONTWAIT);
    if (received > 0)
        _inputBytes += static_cast<std::size_t>(received);
    else if (received == 0 || (errno != EAGAIN && errno != EINTR))
        fail("the simulator dropped " + Wire::nodeName(_node));
}

void Endpoint::_discard(std::size_t bytes)
{
    _inputBytes -= bytes;
    std::memmove(_input.data(), _input.data() + bytes, _inputBytes);
}

void awaitInput(const std::vector<const Endpoint*>& endpoints, std::chrono::milliseconds moment)
{
    std::vector<pollfd> descriptors;
    descriptors.reserve(endpoints.size());
    for (const Endpoint* endpoint : endpoints)
        descriptors.push_back({endpoint->descriptor(), POLLIN, 0});
    poll(descriptors.data(), descriptors.size(), static_cast<int>(moment.count()));
}

Pulse::Pulse(std::uint16_t port, int node)
    : _endpoint(port, node, Endpoint::Awaited)
    , _broadcast(Wire::message(
          Wire::Frame, std::string(Wire::addressBytes, Wire::broadcastByte) + Wire::nodeAddress(node)))
{
}

void Pulse::request()
{
    _isUnderWay = true;
    _requestTime = Clock::now();
    _endpoint.send(_broadcast);
}

bool Pulse::hasAnswer()
{
    bool isAnswered = false;
    _endpoint.receive([&](std::uint8_t, const char*, std::size_t) { isAnswered = true; });
    if (!isAnswered)
        return false;
    _isUnderWay = false;
    const std::chrono::nanoseconds taken = Clock::now() - _requestTime;
    _lastRoundTrip = static_cast<std::uint64_t>(taken.count());
    return true;
}
