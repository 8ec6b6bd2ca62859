#include "commandline.h"
#include "wire.h"

#include <QtGlobal>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace {

constexpr std::size_t readBufferBytes = 256 * 1024;  // more than any client has in flight
constexpr double drawRange = 2147483647.0;
constexpr double errorDetectionReliability = 1.0;
constexpr int bitsPerByte = 8;
constexpr int eventsPerWait = 256;

struct Options {
    std::uint16_t port = 0;  // 0: any free one
    Wire::Identification identification = Wire::ByAddress;
    Wire::Wiring wiring;
    double reliability = 1.0;  // per bit
    bool draws = true;         // false: every frame crosses its link, and no random number decides it
    unsigned seed = 1;
    bool confirms = false;
    bool strict = false;  // a message that is only partly there is an error
};

struct Client {
    int fd = -1;
    int node = -1;               // -1: not identified yet
    std::string partialMessage;  // kept until the rest arrives; always empty in strict mode
    std::string output;          // collected during one read, then what the kernel did not take
    bool waitsForRoom = false;
};

/// The same draws and comparisons as a simulated link makes; a corrupted frame is always detected and
/// dropped.
bool crossesTheLink(std::size_t frameBytes, double reliability)
{
    bool corrupted = false;
    for (std::size_t bit = 0; bit < frameBytes * bitsPerByte; ++bit) {
        if (!(reliability > qrand() / drawRange))
            corrupted = true;
    }
    if (!corrupted)
        return true;
    return !(errorDetectionReliability > qrand() / drawRange);
}

int listeningSocket(std::uint16_t port)
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool listens = fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0
        && listen(fd, SOMAXCONN) == 0;
    return listens ? fd : -1;
}

std::uint16_t portOf(int fd)
{
    sockaddr_in address{};
    socklen_t length = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

/// SIGINT and SIGTERM as a readable descriptor: they end the event loop like any other event.
int terminationSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    return signalfd(-1, &signals, 0);
}

/// Relays frame messages between the sockets of linked nodes and does nothing that a relay could leave out.
class LimitServer
{
public:
    explicit LimitServer(const Options& options);

    [[nodiscard]] bool listen();
    [[nodiscard]] bool run();

private:
    void _watch(int fd, int operation, std::uint32_t events) const;
    void _accept();
    void _handle(int fd, std::uint32_t events);
    void _read(Client& client);
    std::size_t _relayWholeMessages(Client& client, std::size_t bytes);
    bool _keepRest(Client& client, std::size_t handled, std::size_t bytes);
    bool _handleMessage(Client& client, const char* message, std::size_t bytes);
    bool _identify(Client& client, const char* message, std::size_t bytes);
    void _relay(Client& sender, const char* message, std::size_t bytes);
    bool _crosses(std::size_t frameBytes) const;
    void _flush(Client& client) const;
    void _drop(Client& client);

    Options _options;
    int _epoll;
    int _signals;
    int _listener = -1;
    std::vector<char> _input = std::vector<char>(readBufferBytes);  // of the socket that is being read
    std::map<int, std::unique_ptr<Client>> _clients;                // by descriptor
    std::vector<Client*> _nodes;                                    // not owned; null: nobody is attached
    std::vector<std::vector<int>> _neighbours;                      // by node
    std::uint64_t _frames = 0;
    std::uint64_t _partialMessages = 0;
};

LimitServer::LimitServer(const Options& options)
    : _options(options)
    , _epoll(epoll_create1(0))
    , _signals(terminationSignals())
    , _nodes(options.wiring.nodeCount())
    , _neighbours(options.wiring.nodeCount())
{
    const Wire::Wiring& wiring = options.wiring;
    for (int i = 0; i < wiring.senderCount(); ++i) {
        const int sender = wiring.sender(i);
        for (int receiver = sender + 1; receiver <= sender + wiring.receiversPerSender(); ++receiver) {
            _neighbours[sender].push_back(receiver);
            _neighbours[receiver].push_back(sender);
        }
    }
}

bool LimitServer::listen()
{
    _listener = listeningSocket(_options.port);
    if (_listener < 0)
        return false;
    _watch(_listener, EPOLL_CTL_ADD, EPOLLIN);
    _watch(_signals, EPOLL_CTL_ADD, EPOLLIN);
    std::printf("listening on port %d\n", portOf(_listener));
    std::fflush(stdout);
    return true;
}

bool LimitServer::run()
{
    bool terminated = false;
    while (!terminated) {
        epoll_event events[eventsPerWait];
        const int count = epoll_wait(_epoll, events, eventsPerWait, -1);
        for (int i = 0; i < count; ++i) {
            if (events[i].data.fd == _signals)
                terminated = true;
            else if (events[i].data.fd == _listener)
                _accept();
            else
                _handle(events[i].data.fd, events[i].events);
        }
    }
    std::printf("{\"frames\": %" PRIu64 ", \"partial_messages\": %" PRIu64 "}\n", _frames, _partialMessages);
    return _partialMessages == 0;
}

void LimitServer::_watch(int fd, int operation, std::uint32_t events) const
{
    epoll_event event{};
    event.events = events;
    event.data.fd = fd;
    epoll_ctl(_epoll, operation, fd, &event);
}

void LimitServer::_accept()
{
    const int fd = accept4(_listener, nullptr, nullptr, SOCK_NONBLOCK);
    if (fd < 0)
        return;
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    _clients[fd] = std::make_unique<Client>();
    _clients[fd]->fd = fd;
    _watch(fd, EPOLL_CTL_ADD, EPOLLIN);
}

void LimitServer::_handle(int fd, std::uint32_t events)
{
    const auto found = _clients.find(fd);
    if (found == _clients.end())
        return;
    Client& client = *found->second;
    if (events & EPOLLOUT)
        _flush(client);
    if (events & (EPOLLIN | EPOLLHUP | EPOLLERR))
        _read(client);
}

void LimitServer::_read(Client& client)
{
    const std::size_t kept = client.partialMessage.copy(_input.data(), client.partialMessage.size());
    const ssize_t received = recv(client.fd, _input.data() + kept, _input.size() - kept, 0);
    if (received < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    const std::size_t bytes = kept + static_cast<std::size_t>(std::max<ssize_t>(received, 0));
    const std::size_t handled = received > 0 ? _relayWholeMessages(client, bytes) : 0;
    if (received <= 0 || !_keepRest(client, handled, bytes))
        _drop(client);
}

/// Bytes of the messages that were handled; stops at one that is not understood.
std::size_t LimitServer::_relayWholeMessages(Client& client, std::size_t bytes)
{
    std::size_t handled = 0;
    while (const std::size_t next = Wire::wholeMessageBytes(_input.data() + handled, bytes - handled)) {
        if (!_handleMessage(client, _input.data() + handled, next))
            break;
        handled += next;
    }
    if (client.node < 0)
        return handled;
    for (const int neighbour : _neighbours[client.node]) {
        if (_nodes[neighbour])
            _flush(*_nodes[neighbour]);
    }
    _flush(client);
    return handled;
}

/// False when what follows the handled messages is not the beginning of a message that may still be
/// completed.
bool LimitServer::_keepRest(Client& client, std::size_t handled, std::size_t bytes)
{
    client.partialMessage.assign(_input.data() + handled, bytes - handled);
    if (handled == bytes)
        return true;
    if (Wire::wholeMessageBytes(_input.data() + handled, bytes - handled) > 0)
        return false;
    ++_partialMessages;
    return !_options.strict;
}

bool LimitServer::_handleMessage(Client& client, const char* message, std::size_t bytes)
{
    if (client.node < 0)
        return _identify(client, message, bytes);
    if (message[0] != Wire::Frame)
        return false;
    _relay(client, message, bytes);
    return true;
}

bool LimitServer::_identify(Client& client, const char* message, std::size_t bytes)
{
    const std::string identification(message, bytes);
    for (int node = 0; node < static_cast<int>(_nodes.size()); ++node) {
        if (identification == Wire::identification(_options.identification, node)) {
            client.node = node;
            _nodes[node] = &client;
            return true;
        }
    }
    return false;
}

void LimitServer::_relay(Client& sender, const char* message, std::size_t bytes)
{
    static const std::string confirmations[] = {
        Wire::message(Wire::Confirmation, std::string(1, Wire::NotDelivered)),
        Wire::message(Wire::Confirmation, std::string(1, Wire::Delivered)),
    };
    ++_frames;
    bool delivered = false;
    for (const int neighbour : _neighbours[sender.node]) {
        Client* receiver = _nodes[neighbour];
        if (!receiver || !_crosses(bytes - Wire::headerBytes))
            continue;
        receiver->output.append(message, bytes);
        delivered = true;
    }
    if (_options.confirms)
        sender.output += confirmations[delivered];
}

bool LimitServer::_crosses(std::size_t frameBytes) const
{
    return !_options.draws || crossesTheLink(frameBytes, _options.reliability);
}

void LimitServer::_flush(Client& client) const
{
    if (client.output.empty())
        return;
    const ssize_t sent
        = send(client.fd, client.output.data(), client.output.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent > 0)
        client.output.erase(0, static_cast<std::size_t>(sent));
    const bool waits = !client.output.empty();
    if (waits != client.waitsForRoom)
        _watch(client.fd, EPOLL_CTL_MOD, EPOLLIN | (waits ? std::uint32_t{EPOLLOUT} : 0));
    client.waitsForRoom = waits;
}

void LimitServer::_drop(Client& client)
{
    if (client.node >= 0 && _nodes[client.node] == &client)
        _nodes[client.node] = nullptr;
    const int fd = client.fd;
    _clients.erase(fd);
    close(fd);
}

const char usage[]
    = "usage: lattivo_limitserver [--port N] [--pairs P | --star LINKS] [--identify-by name|address]\n"
      "                           [--confirm] [--reliability R | --no-draws] [--seed N] [--strict]\n";

bool readOption(int option, const char* value, Options& options)
{
    switch (option) {
    case 'p':
        options.port = static_cast<std::uint16_t>(std::atoi(value));
        return true;
    case 'n':
        options.wiring.pairs = std::atoi(value);
        return options.wiring.pairs > 0;
    case 's':
        options.wiring.starLinks = std::atoi(value);
        return options.wiring.starLinks > 0;
    case 'i':
        options.identification = std::string(value) == "name" ? Wire::ByName : Wire::ByAddress;
        return true;
    case 'c':
        options.confirms = true;
        return true;
    case 'r':
        options.reliability = std::atof(value);
        return true;
    case 'd':
        options.draws = false;
        return true;
    case 'e':
        options.seed = static_cast<unsigned>(std::strtoul(value, nullptr, 10));
        return true;
    case 'x':
        options.strict = true;
        return true;
    default:
        return false;
    }
}

bool readCommandLine(int argc, char** argv, Options& options)
{
    const option known[] = {
        {"port", required_argument, nullptr, 'p'}, {"pairs", required_argument, nullptr, 'n'},
        {"star", required_argument, nullptr, 's'}, {"identify-by", required_argument, nullptr, 'i'},
        {"confirm", no_argument, nullptr, 'c'},    {"reliability", required_argument, nullptr, 'r'},
        {"no-draws", no_argument, nullptr, 'd'},   {"seed", required_argument, nullptr, 'e'},
        {"strict", no_argument, nullptr, 'x'},     {nullptr, 0, nullptr, 0},
    };
    const auto read = [&](int option, const char* value) { return readOption(option, value, options); };
    if (!readOptions(argc, argv, known, read))
        return false;
    return optind == argc;
}

}  // namespace

int main(int argc, char** argv)
{
    Options options;
    if (!readCommandLine(argc, argv, options)) {
        std::fputs(usage, stderr);
        return 2;
    }
    qsrand(options.seed);
    LimitServer server(options);
    if (!server.listen()) {
        std::perror("lattivo_limitserver: cannot listen");
        return 1;
    }
    return server.run() ? EXIT_SUCCESS : EXIT_FAILURE;
}
