#include "commandline.h"
#include "histogram.h"
#include "processtimes.h"
#include "wire.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;
using std::chrono::milliseconds;

// A frame's bytes behind the two addresses; filler up to the wanted size follows.
constexpr std::size_t kindOffset = 12;
constexpr std::size_t sequenceOffset = 13;  // 64 bits, in this machine's byte order
constexpr std::size_t sendTimeOffset = 21;  // likewise, nanoseconds of the steady clock
constexpr std::size_t fillerOffset = 29;

enum FrameKind : char {
    Probe = 1,  // asks whether the road to the receiver is open; never counted
    Load = 2,
};

constexpr std::size_t readBufferBytes = 64 * 1024;
constexpr int eventsPerWait = 256;
constexpr milliseconds attachGrace{100};  // the identification arrives alone, see _connect()
constexpr milliseconds firstProbeWait{50};
constexpr milliseconds attachTimeout{30000};
constexpr milliseconds quietTime{200};
constexpr milliseconds pollTime{100};
constexpr milliseconds paceTime{1};
constexpr milliseconds deadServerTime{10000};
constexpr double longestHoldUp = 1.0;  // seconds of a paced load that are made good

struct Options {
    std::uint16_t port = 0;
    Wire::Identification identification = Wire::ByAddress;
    Wire::Wiring wiring;
    std::size_t frameBytes = 64;
    std::uint64_t window = 64;           // frames of one sender between it and its slowest receiver
    std::uint64_t batch = 8;             // most messages put into one send()
    bool confirms = false;               // the window also waits for the confirmations
    bool inStep = false;                 // both ends of each pair send, all anew when everything has arrived
    double rate = 0.0;                   // frames per second of all senders; 0: as fast as the window allows
    double warmUp = 0.3;                 // seconds
    double duration = 2.0;               // seconds; not looked at when frames is given
    std::uint64_t frames = 0;            // measured frames; 0: by duration
    std::uint64_t checkpointFrames = 0;  // 0: none
    int lossTimeout = 1000;  // milliseconds without progress until what is in flight counts as lost
    int watchedPid = 0;      // whose processor time is reported; 0: nobody's

    std::size_t messageBytes() const { return Wire::headerBytes + frameBytes; }

    std::uint64_t burst() const { return Wire::maximalBytesInFlight / messageBytes(); }

    bool isPaced() const { return rate > 0; }
    std::size_t lanesPerPair() const { return inStep ? 2 : 1; }

    /// A paced sender fills the links and has no window: what the server has not read yet can grow beyond 16
    /// KiB while others have its processor.
    std::uint64_t effectiveWindow() const
    {
        return isPaced() ? std::numeric_limits<std::uint64_t>::max() : std::min(window, burst());
    }

    /// Without MSG_EOR the kernel joins the messages that wait for a server held up for some 50 ms, and cuts
    /// what it has joined where the receive window ends: in the middle of a message, on which the server
    /// closes.
    int sendFlags() const { return MSG_NOSIGNAL | MSG_DONTWAIT | (isPaced() ? MSG_EOR : 0); }
};

/// One end of a node's socket with the bytes that do not make a whole message yet.
struct Endpoint {
    int fd = -1;
    int node = 0;
    std::size_t lane = 0;
    std::vector<char> input = std::vector<char>(readBufferBytes);
    std::size_t inputBytes = 0;
};

struct Receiver {
    Endpoint endpoint;
    bool reached = false;        // by a probe
    std::uint64_t expected = 0;  // the next frame's number
};

/// One sender with everybody who receives its frames.
struct Lane {
    Endpoint sender;
    std::vector<Receiver> receivers;
    std::string messages;  // a batch of header and frame; only kind, number and time change between sends
    std::uint64_t sent = 0;
    std::uint64_t confirmed = 0;  // also the negative ones
    Clock::time_point lastProgress;
};

struct Snapshot {
    std::uint64_t frames = 0;
    Clock::time_point time;
    ProcessTimes server;
    ProcessTimes client;
};

struct Counters {
    std::uint64_t received = 0;  // by all receivers
    std::uint64_t lost = 0;
    std::uint64_t late = 0;  // arrived after they had been counted as lost
    std::uint64_t damaged = 0;
    std::uint64_t timeouts = 0;
    std::uint64_t confirmedDelivered = 0;
    std::uint64_t confirmedLost = 0;
};

std::uint64_t nanoseconds(Clock::time_point time)
{
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(time.time_since_epoch()).count());
}

template <typename T> T readAs(const char* bytes)
{
    T value{};
    std::memcpy(&value, bytes, sizeof value);
    return value;
}

double microseconds(std::uint64_t nanoseconds)
{
    return static_cast<double>(nanoseconds) / 1e3;
}

/// Whether the kernel has room for a message, at once.
bool isWritable(int socket)
{
    pollfd state{socket, POLLOUT, 0};
    return poll(&state, 1, 0) > 0;
}

void printNumber(const char* name, std::uint64_t value)
{
    std::printf("\"%s\": %" PRIu64 ", ", name, value);
}

void printNumber(const char* name, double value, const char* end = ", ")
{
    std::printf("\"%s\": %.6f%s", name, value, end);
}

std::string frameMessage(const Options& options, int sender, int receiver)
{
    const bool isBroadcast = options.wiring.isStar();
    std::string frame
        = isBroadcast ? std::string(Wire::addressBytes, Wire::broadcastByte) : Wire::nodeAddress(receiver);
    frame += Wire::nodeAddress(sender);
    for (std::size_t i = frame.size(); i < options.frameBytes; ++i)
        frame += static_cast<char>(i);
    return Wire::message(Wire::Frame, frame);
}

/// Drives both ends of every lane over sockets of its own and measures what arrives.
class LoadClient
{
public:
    explicit LoadClient(const Options& options);

    [[nodiscard]] bool run();
    std::string failure() const { return _failure; }
    void printResults() const;

private:
    // Phases
    bool _connectAll();
    bool _attachAll();
    bool _measure();
    bool _drain();

    // Sockets
    bool _connect(Endpoint& endpoint);
    bool _pump(milliseconds patience);
    bool _pumpFor(milliseconds time);
    bool _handleReadable(Endpoint& endpoint);
    bool _handleMessage(const Endpoint& endpoint, const char* message, std::size_t bytes,
                        Clock::time_point now);
    void _takeFrame(const Endpoint& endpoint, const char* frame, std::size_t bytes, Clock::time_point now);
    void _takeLoad(Receiver& receiver, const char* frame, Clock::time_point now);
    bool _isIntact(const Lane& lane, const char* frame, std::size_t bytes) const;
    bool _send(Lane& lane, FrameKind kind, std::uint64_t count);

    // Load
    bool _allReached() const;
    bool _sendProbes();
    std::uint64_t _inFlight(const Lane& lane) const;
    bool _allArrived() const;
    bool _refill(Lane& lane);
    bool _fill(Lane& lane);
    bool _refillAll();
    bool _beginStep();
    bool _pace();
    bool _step();
    bool _checkProgress();
    void _giveUpOnFramesInFlight(Lane& lane);
    bool _isFinished(Clock::time_point begin) const;

    Snapshot _snapshot() const;
    std::uint64_t _frames() const { return _counters.received / _receiversPerLane; }
    void _printSections() const;
    bool _fail(const std::string& reason);

    Options _options;
    int _epoll;
    std::vector<Lane> _lanes;
    std::vector<Endpoint*> _endpoints;  // by descriptor, not owned
    std::uint64_t _receiversPerLane;
    std::string _failure;

    bool _loading = false;
    std::size_t _arrivedLanes = 0;  // in step, from the first on: nothing of theirs is under way
    Clock::time_point _paceBegin;
    std::uint64_t _paced = 0;  // frames sent since then
    Clock::time_point _lastProgressCheck;

    Counters _counters;
    std::uint64_t _messages = 0;       // of any kind
    Histogram _latencies;              // from send() of a frame to the read that brings it
    std::vector<Snapshot> _snapshots;  // begin, checkpoints, end
};

LoadClient::LoadClient(const Options& options)
    : _options(options)
    , _epoll(epoll_create1(0))
    , _lanes(options.wiring.senderCount() * options.lanesPerPair())
    , _receiversPerLane(options.wiring.receiversPerSender())
{
    for (std::size_t i = 0; i < _lanes.size(); ++i) {
        Lane& lane = _lanes[i];
        const bool isWayBack = options.inStep && i % 2 == 1;
        const int first = options.wiring.sender(static_cast<int>(i / options.lanesPerPair()));
        const int sender = isWayBack ? first + 1 : first;
        int receiverNode = isWayBack ? first : first + 1;
        const std::string message = frameMessage(options, sender, receiverNode);
        for (std::uint64_t k = 0; k < options.batch; ++k)
            lane.messages += message;
        lane.sender.node = sender;
        lane.sender.lane = i;
        lane.receivers.resize(_receiversPerLane);
        for (Receiver& receiver : lane.receivers) {
            receiver.endpoint.node = receiverNode++;
            receiver.endpoint.lane = i;
        }
    }
}

bool LoadClient::run()
{
    if (!_connectAll() || !_attachAll() || !_measure())
        return false;
    const bool isDrained = _options.isPaced() || _drain();  // paced links are full on purpose
    return isDrained && (_counters.damaged == 0 || _fail("frames arrived with other contents"));
}

bool LoadClient::_connectAll()
{
    for (Lane& lane : _lanes) {
        if (!_options.inStep && !_connect(lane.sender))
            return false;
        for (Receiver& receiver : lane.receivers) {
            if (!_connect(receiver.endpoint))
                return false;
        }
    }
    if (_options.inStep) {
        for (std::size_t i = 0; i < _lanes.size(); ++i)
            _lanes[i].sender.fd = _lanes[i ^ 1].receivers.front().endpoint.fd;  // where the way back ends
    }
    return _pumpFor(attachGrace);
}

/// Probes until every receiver has seen one: only then are all nodes certain to be attached.
bool LoadClient::_attachAll()
{
    const Clock::time_point begin = Clock::now();
    for (milliseconds wait = firstProbeWait; !_allReached(); wait *= 2) {
        if (Clock::now() - begin > attachTimeout)
            return _fail("not every node could be reached within 30 s");
        if (!_sendProbes())
            return false;
        const Clock::time_point nextProbe = Clock::now() + wait;
        while (!_allReached() && Clock::now() < nextProbe) {
            if (!_pump(paceTime))
                return false;
        }
    }
    // the probes' confirmations, negative ones included, would pass for those of the load
    if (_options.confirms && !_pumpFor(milliseconds(_options.lossTimeout) + quietTime))
        return false;
    _counters = Counters();
    return true;
}

bool LoadClient::_measure()
{
    _loading = true;
    _paceBegin = Clock::now();
    if (!_refillAll())
        return false;
    const Clock::time_point warmUpBegin = Clock::now();
    while (Seconds(Clock::now() - warmUpBegin).count() < _options.warmUp) {
        if (!_step())
            return false;
    }
    _counters = Counters();
    _latencies.clear();
    _snapshots = {_snapshot()};
    while (!_isFinished(_snapshots.front().time)) {
        if (!_step())
            return false;
        const std::uint64_t nextCheckpoint = _options.checkpointFrames * _snapshots.size();
        if (nextCheckpoint > 0 && _frames() >= nextCheckpoint)
            _snapshots.push_back(_snapshot());
    }
    _snapshots.push_back(_snapshot());
    _loading = false;
    return true;
}

/// What is still under way has to arrive or be counted as lost.
bool LoadClient::_drain()
{
    while (!_allArrived()) {
        if (!_pump(pollTime) || !_checkProgress())
            return false;
    }
    return true;
}

/// By name the server throws away whatever it reads together with the identification, so nothing else is sent
/// until attachGrace is over, and then a probe, which may be lost.
bool LoadClient::_connect(Endpoint& endpoint)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(_options.port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    endpoint.fd = socket(AF_INET, SOCK_STREAM, 0);
    if (endpoint.fd < 0 || connect(endpoint.fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        return _fail("cannot connect");
    const int on = 1;
    setsockopt(endpoint.fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = endpoint.fd;
    epoll_ctl(_epoll, EPOLL_CTL_ADD, endpoint.fd, &event);
    _endpoints.resize(std::max<std::size_t>(_endpoints.size(), endpoint.fd + 1));
    _endpoints[endpoint.fd] = &endpoint;
    const std::string message = Wire::identification(_options.identification, endpoint.node);
    const ssize_t sent = send(endpoint.fd, message.data(), message.size(), MSG_NOSIGNAL);
    return sent == static_cast<ssize_t>(message.size()) || _fail("cannot identify");
}

bool LoadClient::_pump(milliseconds patience)
{
    epoll_event events[eventsPerWait];
    const int count = epoll_wait(_epoll, events, eventsPerWait, static_cast<int>(patience.count()));
    for (int i = 0; i < count; ++i) {
        Endpoint& endpoint = *_endpoints[events[i].data.fd];
        if (!_handleReadable(endpoint) || (_loading && !_refill(_lanes[endpoint.lane])))
            return false;
    }
    return true;
}

bool LoadClient::_pumpFor(milliseconds time)
{
    const Clock::time_point end = Clock::now() + time;
    while (Clock::now() < end) {
        if (!_pump(paceTime))
            return false;
    }
    return true;
}

bool LoadClient::_handleReadable(Endpoint& endpoint)
{
    char* input = endpoint.input.data();
    const ssize_t received
        = recv(endpoint.fd, input + endpoint.inputBytes, endpoint.input.size() - endpoint.inputBytes, 0);
    if (received <= 0)
        return _fail("the server dropped " + Wire::nodeName(endpoint.node));
    const Clock::time_point now = Clock::now();
    endpoint.inputBytes += static_cast<std::size_t>(received);
    std::size_t handled = 0;
    while (const std::size_t bytes
           = Wire::wholeMessageBytes(input + handled, endpoint.inputBytes - handled)) {
        if (!_handleMessage(endpoint, input + handled, bytes, now))
            return false;
        handled += bytes;
    }
    endpoint.inputBytes -= handled;
    std::memmove(input, input + handled, endpoint.inputBytes);
    return true;
}

bool LoadClient::_handleMessage(const Endpoint& endpoint, const char* message, std::size_t bytes,
                                Clock::time_point now)
{
    ++_messages;
    Lane& lane = _lanes[endpoint.lane];
    lane.lastProgress = now;
    switch (message[0]) {
    case Wire::Frame:
        _takeFrame(endpoint, message + Wire::headerBytes, bytes - Wire::headerBytes, now);
        return true;
    case Wire::Confirmation:
        ++(message[Wire::headerBytes] == Wire::Delivered ? _counters.confirmedDelivered
                                                         : _counters.confirmedLost);
        if (lane.sent > 0)
            ++lane.confirmed;  // of the load, not of a probe
        return true;
    case Wire::DebugCommand:
        return true;
    default:
        return _fail("message of unknown type " + std::to_string(message[0]));
    }
}

void LoadClient::_takeFrame(const Endpoint& endpoint, const char* frame, std::size_t bytes,
                            Clock::time_point now)
{
    Lane& lane = _lanes[endpoint.lane];
    const int index = endpoint.node - lane.receivers.front().endpoint.node;
    if (index < 0 || !_isIntact(lane, frame, bytes)) {
        ++_counters.damaged;
        return;
    }
    Receiver& receiver = lane.receivers[index];
    if (frame[kindOffset] == Probe)
        receiver.reached = true;
    else
        _takeLoad(receiver, frame, now);
}

void LoadClient::_takeLoad(Receiver& receiver, const char* frame, Clock::time_point now)
{
    const auto sequence = readAs<std::uint64_t>(frame + sequenceOffset);
    if (sequence < receiver.expected) {
        ++_counters.late;
        return;
    }
    _counters.lost += sequence - receiver.expected;  // a link never reorders its frames
    receiver.expected = sequence + 1;
    ++_counters.received;
    _latencies.add(nanoseconds(now) - readAs<std::uint64_t>(frame + sendTimeOffset));
}

bool LoadClient::_isIntact(const Lane& lane, const char* frame, std::size_t bytes) const
{
    const char* sent = lane.messages.data() + Wire::headerBytes;
    return bytes == _options.frameBytes && std::memcmp(frame, sent, kindOffset) == 0
        && std::memcmp(frame + fillerOffset, sent + fillerOffset, bytes - fillerOffset) == 0;
}

/// One send() for \a count messages, at most a batch; the kernel has to take them whole.
bool LoadClient::_send(Lane& lane, FrameKind kind, std::uint64_t count)
{
    const std::uint64_t now = nanoseconds(Clock::now());
    for (std::uint64_t i = 0; i < count; ++i) {
        char* frame = lane.messages.data() + i * _options.messageBytes() + Wire::headerBytes;
        const std::uint64_t sequence = lane.sent + i;
        frame[kindOffset] = kind;
        std::memcpy(frame + sequenceOffset, &sequence, sizeof sequence);
        std::memcpy(frame + sendTimeOffset, &now, sizeof now);
    }
    const std::size_t bytes = count * _options.messageBytes();
    const ssize_t sent = send(lane.sender.fd, lane.messages.data(), bytes, _options.sendFlags());
    if (sent != static_cast<ssize_t>(bytes))
        return _fail("the kernel did not take whole messages of " + Wire::nodeName(lane.sender.node));
    if (kind == Load)
        lane.sent += count;
    return true;
}

bool LoadClient::_allReached() const
{
    const auto isReached = [](const Receiver& receiver) { return receiver.reached; };
    return std::all_of(_lanes.begin(), _lanes.end(), [&](const Lane& lane) {
        return std::all_of(lane.receivers.begin(), lane.receivers.end(), isReached);
    });
}

bool LoadClient::_sendProbes()
{
    for (Lane& lane : _lanes) {
        if (!_send(lane, Probe, 1))
            return false;
    }
    return true;
}

std::uint64_t LoadClient::_inFlight(const Lane& lane) const
{
    std::uint64_t completed = _options.confirms ? std::min(lane.confirmed, lane.sent) : lane.sent;
    for (const Receiver& receiver : lane.receivers)
        completed = std::min(completed, receiver.expected);
    return lane.sent - completed;
}

bool LoadClient::_allArrived() const
{
    return std::all_of(_lanes.begin(), _lanes.end(),
                       [this](const Lane& lane) { return _inFlight(lane) == 0; });
}

bool LoadClient::_refill(Lane& lane)
{
    if (_options.isPaced())
        return true;  // _pace() sends
    return _options.inStep ? _beginStep() : _fill(lane);
}

bool LoadClient::_fill(Lane& lane)
{
    const std::uint64_t inFlight = _inFlight(lane);
    std::uint64_t room = _options.effectiveWindow() - std::min(inFlight, _options.effectiveWindow());
    while (room > 0) {
        const std::uint64_t count = std::min(room, _options.batch);
        if (!_send(lane, Load, count))
            return false;
        room -= count;
    }
    return true;
}

bool LoadClient::_refillAll()
{
    const Clock::time_point now = Clock::now();
    for (Lane& lane : _lanes) {
        lane.lastProgress = now;
        if (!_refill(lane))
            return false;
    }
    return true;
}

/// Lets all send again, once nothing is under way any more.
bool LoadClient::_beginStep()
{
    while (_arrivedLanes < _lanes.size() && _inFlight(_lanes[_arrivedLanes]) == 0)
        ++_arrivedLanes;
    if (_arrivedLanes < _lanes.size())
        return true;
    _arrivedLanes = 0;
    return std::all_of(_lanes.begin(), _lanes.end(), [this](Lane& lane) { return _fill(lane); });
}

/// Sends what is due by now, to the lanes in turn. What a hold-up has left over is made good in bursts of 16
/// KiB, or not at all when it is too much: then the rate is seen to be missed.
bool LoadClient::_pace()
{
    const Clock::time_point now = Clock::now();
    const auto due = static_cast<std::uint64_t>(Seconds(now - _paceBegin).count() * _options.rate);
    const std::uint64_t end = std::min(due, _paced + _options.burst());
    for (; _paced < end; ++_paced) {
        Lane& lane = _lanes[_paced % _lanes.size()];
        if (!isWritable(lane.sender.fd))
            break;
        if (!_send(lane, Load, 1))
            return false;
    }
    if (static_cast<double>(due - _paced) > longestHoldUp * _options.rate) {
        _paceBegin = now;
        _paced = 0;
    }
    return true;
}

bool LoadClient::_step()
{
    const bool isPaced = _options.isPaced();
    return _pump(isPaced ? paceTime : pollTime) && (!isPaced || _pace()) && _checkProgress();
}

/// A frame that a link has corrupted leaves a window of one frame without an event to go on with.
bool LoadClient::_checkProgress()
{
    const Clock::time_point now = Clock::now();
    if (now - _lastProgressCheck < pollTime)
        return true;
    _lastProgressCheck = now;
    for (Lane& lane : _lanes) {
        const auto silence = now - lane.lastProgress;
        if (_inFlight(lane) == 0 || silence < milliseconds(_options.lossTimeout))
            continue;
        if (silence > deadServerTime)
            return _fail("nothing came from the server for 10 s");
        _giveUpOnFramesInFlight(lane);
        if (_loading && !_refill(lane))
            return false;
    }
    return true;
}

void LoadClient::_giveUpOnFramesInFlight(Lane& lane)
{
    ++_counters.timeouts;
    for (Receiver& receiver : lane.receivers) {
        _counters.lost += lane.sent - receiver.expected;
        receiver.expected = lane.sent;
    }
    lane.confirmed = lane.sent;
}

bool LoadClient::_isFinished(Clock::time_point begin) const
{
    if (_options.frames > 0)
        return _frames() >= _options.frames;
    return Seconds(Clock::now() - begin).count() >= _options.duration;
}

Snapshot LoadClient::_snapshot() const
{
    Snapshot snapshot;
    snapshot.frames = _frames();
    snapshot.time = Clock::now();
    if (_options.watchedPid > 0)
        snapshot.server = timesOf(_options.watchedPid);
    snapshot.client = timesOf(getpid());
    return snapshot;
}

/// One object a section: what happened between two checkpoints.
void LoadClient::_printSections() const
{
    std::printf("\"sections\": [");
    for (std::size_t i = 1; i < _snapshots.size(); ++i) {
        const Snapshot& from = _snapshots[i - 1];
        const Snapshot& to = _snapshots[i];
        std::printf(i > 1 ? ", {" : "{");
        printNumber("frames", to.frames - from.frames);
        printNumber("seconds", Seconds(to.time - from.time).count());
        printNumber("server_cpu_seconds", to.server.running - from.server.running, "}");
    }
    std::printf("]");
}

void LoadClient::printResults() const
{
    const Snapshot& begin = _snapshots.front();
    const Snapshot& end = _snapshots.back();
    const double seconds = Seconds(end.time - begin.time).count();
    std::printf("{");
    printNumber("frames", end.frames);
    printNumber("seconds", seconds);
    printNumber("frames_per_second", static_cast<double>(end.frames) / seconds);
    printNumber("server_cpu_seconds", end.server.running - begin.server.running);
    printNumber("server_wait_seconds", end.server.waiting - begin.server.waiting);
    printNumber("client_cpu_seconds", end.client.running - begin.client.running);
    printNumber("client_wait_seconds", end.client.waiting - begin.client.waiting);
    printNumber("latency_median_us", microseconds(_latencies.percentile(0.50)));
    printNumber("latency_p95_us", microseconds(_latencies.percentile(0.95)));
    printNumber("latency_p99_us", microseconds(_latencies.percentile(0.99)));
    printNumber("latency_max_us", microseconds(_latencies.maximum()));
    printNumber("lost", _counters.lost);
    printNumber("late", _counters.late);
    printNumber("timeouts", _counters.timeouts);
    printNumber("confirmed_delivered", _counters.confirmedDelivered);
    printNumber("confirmed_lost", _counters.confirmedLost);
    _printSections();
    std::printf("}\n");
}

bool LoadClient::_fail(const std::string& reason)
{
    if (_failure.empty())
        _failure = reason;
    return false;
}

const char usage[]
    = "usage: lattivo_loadclient --port N [options]\n"
      "  --pairs P | --star LINKS     one sender to one receiver each, or one sender broadcasting (1 pair)\n"
      "  --identify-by name|address   as the server expects it (address)\n"
      "  --size S                     bytes of a frame, at least 29 (64)\n"
      "  --window W                   frames in flight per sender (64); at most what 16 KiB hold\n"
      "  --batch N                    messages put into one send(), at most (8)\n"
      "  --confirm                    the window also waits for confirmations\n"
      "  --in-step                    both ends of each pair send their window, and all send again\n"
      "                               when everything has arrived; not with --star, --confirm or --rate\n"
      "  --rate F                     F frames per second instead of a window\n"
      "  --warm-up S, --duration S    seconds (0.3, 2)\n"
      "  --frames N                   measure N frames instead of a duration\n"
      "  --checkpoint N               figures for every N frames\n"
      "  --loss-timeout MS            without progress until frames count as lost (1000)\n"
      "  --watch-pid PID              report that process's processor time\n"
      "Prints one line of JSON. Exit code 1: the server failed the client, 2: wrong option.\n";

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
    case 'z':
        options.frameBytes = std::strtoul(value, nullptr, 10);
        return options.frameBytes >= fillerOffset && options.messageBytes() <= Wire::maximalBytesInFlight;
    case 'w':
        options.window = std::strtoul(value, nullptr, 10);
        return options.window > 0;
    case 'b':
        options.batch = std::strtoul(value, nullptr, 10);
        return options.batch > 0;
    case 'c':
        options.confirms = true;
        return true;
    case 't':
        options.inStep = true;
        return true;
    case 'r':
        options.rate = std::atof(value);
        return options.rate > 0;
    case 'u':
        options.warmUp = std::atof(value);
        return true;
    case 'd':
        options.duration = std::atof(value);
        return options.duration > 0;
    case 'f':
        options.frames = std::strtoull(value, nullptr, 10);
        return true;
    case 'k':
        options.checkpointFrames = std::strtoull(value, nullptr, 10);
        return true;
    case 'l':
        options.lossTimeout = std::atoi(value);
        return options.lossTimeout > 0;
    case 'x':
        options.watchedPid = std::atoi(value);
        return true;
    default:
        return false;
    }
}

bool readCommandLine(int argc, char** argv, Options& options)
{
    const option known[] = {
        {"port", required_argument, nullptr, 'p'},
        {"pairs", required_argument, nullptr, 'n'},
        {"star", required_argument, nullptr, 's'},
        {"identify-by", required_argument, nullptr, 'i'},
        {"size", required_argument, nullptr, 'z'},
        {"window", required_argument, nullptr, 'w'},
        {"batch", required_argument, nullptr, 'b'},
        {"confirm", no_argument, nullptr, 'c'},
        {"in-step", no_argument, nullptr, 't'},
        {"rate", required_argument, nullptr, 'r'},
        {"warm-up", required_argument, nullptr, 'u'},
        {"duration", required_argument, nullptr, 'd'},
        {"frames", required_argument, nullptr, 'f'},
        {"checkpoint", required_argument, nullptr, 'k'},
        {"loss-timeout", required_argument, nullptr, 'l'},
        {"watch-pid", required_argument, nullptr, 'x'},
        {nullptr, 0, nullptr, 0},
    };
    const auto read = [&](int option, const char* value) { return readOption(option, value, options); };
    if (!readOptions(argc, argv, known, read))
        return false;
    options.batch = std::min(options.batch, options.burst());
    const bool isSteppable = !options.wiring.isStar() && !options.confirms && !options.isPaced();
    return optind == argc && options.port > 0 && (isSteppable || !options.inStep);
}

}  // namespace

int main(int argc, char** argv)
{
    Options options;
    if (!readCommandLine(argc, argv, options)) {
        std::fputs(usage, stderr);
        return 2;
    }
    LoadClient client(options);
    if (!client.run()) {
        std::fprintf(stderr, "lattivo_loadclient: %s\n", client.failure().c_str());
        return EXIT_FAILURE;
    }
    client.printResults();
    return EXIT_SUCCESS;
}
