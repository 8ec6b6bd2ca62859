#include "commandline.h"
#include "wiring.h"

#include <QtGlobal>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace {

// The server repeats the codes, so that it judges the simulator's.
enum MessageType : char {
    FrameMessage = 1,  // both ways
    Confirmation = 2,  // to the program
    NodeControl = 3,   // from the program
};
constexpr char byAddress = 1;  // a node control that identifies the program
constexpr char delivered = 1;  // confirmations
constexpr char lost = 2;
constexpr std::size_t headerBytes = 5;  // type and 32-bit length, in front of every body

constexpr std::size_t readBufferBytes = 256 * 1024;  // more than any client has in flight
constexpr double drawRange = 2147483647.0;
constexpr double errorDetectionReliability = 1.0;
constexpr int bitsPerByte = 8;
constexpr int eventsPerWait = 256;

struct Options {
    Wiring wiring;
    double reliability = 1.0;     // per bit
    bool isWithoutDraws = false;  // every frame crosses its link, and no random number decides it
    unsigned seed = 1;
    bool confirms = false;
};

struct Client {
    int fd = -1;
    int node = -1;               // -1: not identified yet
    std::string partialMessage;  // kept until the rest arrives
    std::string output;          // collected during one read
};

std::string messageOf(char type, const std::string& body)
{
    std::string bytes(1, type);
    for (int shift = 24; shift >= 0; shift -= 8)
        bytes += static_cast<char>(body.size() >> shift & 0xff);
    return bytes + body;
}

/// Bytes of the first whole message in the buffer, 0 if only a part of one is there.
std::size_t wholeMessageBytes(const char* buffer, std::size_t size)
{
    if (size < headerBytes)
        return 0;
    std::size_t bytes = 0;
    for (std::size_t i = 1; i < headerBytes; ++i)
        bytes = bytes << 8 | static_cast<unsigned char>(buffer[i]);
    bytes += headerBytes;
    return bytes <= size ? bytes : 0;
}

/// Relays frame messages between the sockets of linked nodes and does nothing that a relay could leave out.
class LimitServer
{
public:
    explicit LimitServer(const Options& options)
        : _options(options)
        , _epoll(epoll_create1(0))
        , _nodes(options.wiring.nodeCount())
        , _neighbours(options.wiring.nodeCount())
    {
        const Wiring& wiring = options.wiring;
        for (int i = 0; i < wiring.senderCount(); ++i) {
            const int sender = wiring.sender(i);
            for (int receiver = sender + 1; receiver <= sender + wiring.receiversPerSender(); ++receiver) {
                _neighbours[sender].push_back(receiver);
                _neighbours[receiver].push_back(sender);
            }
        }
    }

    void listen()
    {
        _listener = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        socklen_t size = sizeof address;
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (bind(_listener, reinterpret_cast<sockaddr*>(&address), size) != 0
            || ::listen(_listener, SOMAXCONN) != 0)
            fail("lattivo_limitserver: cannot listen");
        getsockname(_listener, reinterpret_cast<sockaddr*>(&address), &size);
        _watch(_listener);
        std::printf("listening on port %d\n", ntohs(address.sin_port));
        std::fflush(stdout);
    }

    [[noreturn]] void run()
    {
        for (;;) {
            epoll_event events[eventsPerWait];
            const int count = epoll_wait(_epoll, events, eventsPerWait, -1);
            for (int i = 0; i < count; ++i) {
                if (events[i].data.fd == _listener)
                    _accept();
                else
                    _read(*_clients.at(events[i].data.fd));
            }
        }
    }

private:
    void _watch(int fd) const
    {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.fd = fd;
        epoll_ctl(_epoll, EPOLL_CTL_ADD, fd, &event);
    }

    void _accept()
    {
        const int fd = accept(_listener, nullptr, nullptr);
        if (fd < 0)
            return;
        const int on = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        _clients[fd] = std::make_unique<Client>();
        _clients[fd]->fd = fd;
        _watch(fd);
    }

    void _read(Client& client)
    {
        const std::size_t kept = client.partialMessage.copy(_input.data(), client.partialMessage.size());
        const ssize_t received = recv(client.fd, _input.data() + kept, _input.size() - kept, 0);
        if (received <= 0 || !_relayWholeMessages(client, kept + static_cast<std::size_t>(received)))
            _drop(client);
    }

    /// False at a message that is not understood. What is only a part of one is kept.
    bool _relayWholeMessages(Client& client, std::size_t bytes)
    {
        std::size_t handled = 0;
        while (const std::size_t next = wholeMessageBytes(_input.data() + handled, bytes - handled)) {
            const char* message = _input.data() + handled;
            if (client.node >= 0 && message[0] == FrameMessage)
                _relay(client, message, next);
            else if (client.node >= 0 || !_identify(client, message, next))
                return false;
            handled += next;
        }
        client.partialMessage.assign(_input.data() + handled, bytes - handled);
        if (client.node < 0)
            return true;
        for (const int neighbour : _neighbours[client.node]) {
            if (_nodes[neighbour])
                _flush(*_nodes[neighbour]);
        }
        _flush(client);
        return true;
    }

    bool _identify(Client& client, const char* message, std::size_t bytes)
    {
        const std::string identification(message, bytes);
        for (int node = 0; node < static_cast<int>(_nodes.size()); ++node) {
            if (identification == messageOf(NodeControl, byAddress + nodeAddress(node))) {
                client.node = node;
                _nodes[node] = &client;
                return true;
            }
        }
        return false;
    }

    void _relay(Client& sender, const char* message, std::size_t bytes)
    {
        static const std::string confirmations[]
            = {messageOf(Confirmation, {lost}), messageOf(Confirmation, {delivered})};
        bool isDelivered = false;
        for (const int neighbour : _neighbours[sender.node]) {
            Client* receiver = _nodes[neighbour];
            if (!receiver || !_crosses(bytes - headerBytes))
                continue;
            receiver->output.append(message, bytes);
            isDelivered = true;
        }
        if (_options.confirms)
            sender.output += confirmations[isDelivered];
    }

    /// Makes the same draws and comparisons as a simulated link; a corrupted frame is always detected and
    /// dropped.
    bool _crosses(std::size_t frameBytes) const
    {
        if (_options.isWithoutDraws)
            return true;
        bool corrupted = false;
        for (std::size_t bit = 0; bit < frameBytes * bitsPerByte; ++bit) {
            if (!(_options.reliability > qrand() / drawRange))
                corrupted = true;
        }
        return !corrupted || !(errorDetectionReliability > qrand() / drawRange);
    }

    /// May wait: a client has far less in flight than the kernel takes. What is meant for one that has gone
    /// is lost.
    static void _flush(Client& client)
    {
        if (!client.output.empty())
            send(client.fd, client.output.data(), client.output.size(), MSG_NOSIGNAL);
        client.output.clear();
    }

    void _drop(Client& client)
    {
        if (client.node >= 0 && _nodes[client.node] == &client)
            _nodes[client.node] = nullptr;
        const int fd = client.fd;
        _clients.erase(fd);
        close(fd);
    }

    Options _options;
    int _epoll;
    int _listener = -1;
    std::vector<char> _input = std::vector<char>(readBufferBytes);  // of the socket that is being read
    std::map<int, std::unique_ptr<Client>> _clients;                // by descriptor
    std::vector<Client*> _nodes;                                    // not owned; null: nobody is attached
    std::vector<std::vector<int>> _neighbours;                      // by node
};

}  // namespace

int main(int argc, char** argv)
{
    Options options;
    CommandLine line("usage: lattivo_limitserver [options]; ends with SIGTERM");
    line.addNumber("--pairs", options.wiring.pairs, 1, "one sender and one receiver each (1)");
    line.addNumber("--star", options.wiring.starLinks, 1,
                   "receivers of one sender that broadcasts, no pairs");
    line.addFlag("--confirm", options.confirms, "tell senders what became of each frame");
    line.addNumber("--reliability", options.reliability, 0, "of the links, per bit (1)");
    line.addFlag("--no-draws", options.isWithoutDraws, "relay every frame, whatever the reliability");
    line.addNumber("--seed", options.seed, 0, "of the random numbers (1)");
    line.read(argc, argv);

    std::signal(SIGTERM, [](int) { std::_Exit(EXIT_SUCCESS); });
    qsrand(options.seed);
    LimitServer server(options);
    server.listen();
    server.run();
}
