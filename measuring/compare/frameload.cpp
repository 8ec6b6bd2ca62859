#include "commandline.h"
#include "processtimes.h"

extern "C" {
#include <libvdeplug.h>
}

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;
using std::chrono::milliseconds;

// An Ethernet frame with a type for local experiments; filler up to the wanted size follows the number.
constexpr std::size_t typeOffset = 12;
constexpr char etherType[] = {'\x88', '\xb5'};
constexpr std::size_t kindOffset = 14;
constexpr std::size_t sequenceOffset = 15;  // twice 64 bits, in this machine's byte order
constexpr std::size_t fillerOffset = 31;
constexpr std::size_t largestFrameBytes = 1514;

enum FrameKind : char {
    Probe = 1,  // asks whether the road to the receiver is open; never counted
    Load = 2,
};

constexpr std::size_t framesPerCall = 64;  // of sendmmsg() and recvmmsg()
constexpr milliseconds probeTime{20};
constexpr milliseconds attachTimeout{10000};
constexpr milliseconds lossTime{500};  // without progress: what is in flight is lost
constexpr milliseconds deadTime{5000};

struct Options {
    int senderFd = -1;  // inherited, one frame a datagram
    int receiverFd = -1;
    std::vector<std::string> switches;  // control folders of two VDE switches, instead of descriptors
    std::size_t frameBytes = 64;
    std::uint64_t window = 64;
    double warmUp = 0.3;    // seconds
    double duration = 2.0;  // seconds
    std::vector<int> watchedPids;
};

struct Snapshot {
    Clock::time_point time;
    ProcessTimes servers;
    ProcessTimes client;
};

struct Counters {
    std::uint64_t intact = 0;
    std::uint64_t damaged = 0;
    std::uint64_t damagedBits = 0;
    std::uint64_t lost = 0;
};

/// Buffers for as many frames as one call to the kernel may take.
class FrameBatch
{
public:
    FrameBatch()
    {
        for (std::size_t i = 0; i < framesPerCall; ++i) {
            _vectors[i] = {_frames[i].data(), _frames[i].size()};
            _headers[i].msg_hdr.msg_iov = &_vectors[i];
            _headers[i].msg_hdr.msg_iovlen = 1;
        }
    }
    FrameBatch(const FrameBatch&) = delete;
    FrameBatch& operator=(const FrameBatch&) = delete;

    char* frame(std::size_t index) { return _frames[index].data(); }
    std::size_t bytes(std::size_t index) const { return _headers[index].msg_len; }
    void setBytes(std::size_t index, std::size_t bytes) { _vectors[index].iov_len = bytes; }

    /// Frames that the kernel took or gave; -1 with errno.
    int send(int fd, std::size_t count) { return sendmmsg(fd, _headers.data(), count, MSG_DONTWAIT); }
    int receive(int fd) { return recvmmsg(fd, _headers.data(), framesPerCall, MSG_DONTWAIT, nullptr); }

private:
    std::array<std::array<char, largestFrameBytes>, framesPerCall> _frames{};
    std::array<iovec, framesPerCall> _vectors{};
    std::array<mmsghdr, framesPerCall> _headers{};
};

/// So different that flipped bits of one address hardly ever make the other: a switch would learn a wrong
/// port.
const std::string senderAddress = "\x02\x55\x55\x55\x55\x55";
const std::string receiverAddress = "\x02\xaa\xaa\xaa\xaa\xaa";

std::string frameTemplate(std::size_t bytes, FrameKind kind)
{
    std::string frame = receiverAddress + senderAddress + std::string(etherType, sizeof etherType)
        + static_cast<char>(kind);
    for (std::size_t i = frame.size(); i < bytes; ++i)
        frame += static_cast<char>(i);
    return frame;
}

void writeSequence(char* frame, std::uint64_t sequence)
{
    const std::uint64_t copies[] = {sequence, sequence};
    std::memcpy(frame + sequenceOffset, copies, sizeof copies);
}

/// False when an error shows in it.
bool readSequence(const char* frame, std::uint64_t& sequence)
{
    std::uint64_t copies[2] = {};
    std::memcpy(copies, frame + sequenceOffset, sizeof copies);
    sequence = copies[0];
    return copies[0] == copies[1];
}

/// Where two frames of the same length differ.
std::uint64_t differentBits(const char* left, const char* right, std::size_t bytes)
{
    std::uint64_t bits = 0;
    for (std::size_t i = 0; i < bytes; ++i)
        bits += static_cast<unsigned>(__builtin_popcount(static_cast<unsigned char>(left[i] ^ right[i])));
    return bits;
}

/// Keeps a window of numbered frames between two ends of anything that carries a frame as a datagram.
class FrameLoad
{
public:
    explicit FrameLoad(const Options& options)
        : _options(options)
        , _expectedFrame(frameTemplate(options.frameBytes, Load))
    {
    }

    [[nodiscard]] bool run();
    std::string failure() const { return _failure; }
    void printResults() const;

private:
    bool _open();
    bool _openSwitches();
    bool _attach();
    bool _measure();
    bool _loadFor(double seconds);
    bool _step();
    bool _refill();
    bool _receive();
    void _take(const char* frame, std::size_t bytes);
    bool _checkProgress(bool moved);
    bool _waitForWork() const;
    void _expect(std::uint64_t sequence);
    std::uint64_t _inFlight() const { return _sent - _expected; }
    Snapshot _snapshot() const;
    bool _fail(const std::string& reason);

    Options _options;
    std::vector<std::unique_ptr<VDECONN, int (*)(VDECONN*)>> _ports;  // of the two switches
    int _sender = -1;
    int _receiver = -1;
    FrameBatch _output;
    FrameBatch _input;
    std::string _expectedFrame;  // the next one to arrive
    std::uint64_t _sent = 0;
    std::uint64_t _expected = 0;  // its number
    bool _senderIsFull = false;
    bool _reached = false;  // by a probe
    Clock::time_point _lastProgress;
    Clock::time_point _lastArrival;
    Counters _counters;
    Snapshot _begin;
    Snapshot _end;
    std::string _failure;
};

bool FrameLoad::run()
{
    return _open() && _attach() && _measure();
}

bool FrameLoad::_open()
{
    if (!_options.switches.empty())
        return _openSwitches();
    _sender = _options.senderFd;
    _receiver = _options.receiverFd;
    return true;
}

/// The library attaches to the ports; its data sockets then carry several frames a call.
bool FrameLoad::_openSwitches()
{
    std::string description = "frame load";
    for (std::string& folder : _options.switches)
        _ports.emplace_back(vde_open(folder.data(), description.data(), nullptr), &vde_close);
    if (!_ports[0] || !_ports[1])
        return _fail("cannot attach to a switch");
    _sender = vde_datafd(_ports[0].get());
    _receiver = vde_datafd(_ports[1].get());
    // the switch learns where the receiver is, and need not flood
    const std::string hello
        = senderAddress + receiverAddress + frameTemplate(_options.frameBytes, Probe).substr(typeOffset);
    return send(_receiver, hello.data(), hello.size(), 0) > 0 || _fail("cannot send into a switch");
}

bool FrameLoad::_attach()
{
    const std::string probe = frameTemplate(_options.frameBytes, Probe);
    const Clock::time_point begin = Clock::now();
    while (!_reached) {
        if (Clock::now() - begin > attachTimeout)
            return _fail("no frame reaches the receiver");
        send(_sender, probe.data(), probe.size(), MSG_DONTWAIT);
        pollfd event{_receiver, POLLIN, 0};
        if (poll(&event, 1, static_cast<int>(probeTime.count())) > 0 && !_receive())
            return false;
    }
    return true;
}

bool FrameLoad::_measure()
{
    _lastProgress = _lastArrival = Clock::now();
    if (!_loadFor(_options.warmUp))
        return false;
    _counters = Counters();
    _begin = _snapshot();
    if (!_loadFor(_options.duration))
        return false;
    _end = _snapshot();
    return true;
}

bool FrameLoad::_loadFor(double seconds)
{
    const Clock::time_point begin = Clock::now();
    while (Seconds(Clock::now() - begin).count() < seconds) {
        if (!_step())
            return false;
    }
    return true;
}

bool FrameLoad::_step()
{
    const std::uint64_t before = _expected;
    return _refill() && _waitForWork() && _receive() && _checkProgress(_expected != before);
}

bool FrameLoad::_refill()
{
    while (_inFlight() < _options.window) {
        const auto count = std::min<std::uint64_t>(_options.window - _inFlight(), framesPerCall);
        for (std::size_t i = 0; i < count; ++i) {
            std::memcpy(_output.frame(i), _expectedFrame.data(), _options.frameBytes);
            writeSequence(_output.frame(i), _sent + i);
            _output.setBytes(i, _options.frameBytes);
        }
        const int taken = _output.send(_sender, count);
        _senderIsFull = taken < 0 && (errno == EAGAIN || errno == ENOBUFS);
        if (taken < 0)
            return _senderIsFull || _fail(std::string("cannot send: ") + std::strerror(errno));
        _sent += static_cast<std::uint64_t>(taken);
    }
    return true;
}

bool FrameLoad::_waitForWork() const
{
    pollfd events[] = {{_receiver, POLLIN, 0}, {_sender, POLLOUT, 0}};
    return poll(events, _senderIsFull ? 2 : 1, static_cast<int>(lossTime.count())) >= 0;
}

bool FrameLoad::_receive()
{
    const int count = _input.receive(_receiver);
    if (count < 0)
        return errno == EAGAIN || _fail(std::string("cannot receive: ") + std::strerror(errno));
    for (int i = 0; i < count; ++i)
        _take(_input.frame(i), _input.bytes(i));
    return true;
}

/// Order is kept by everything measured here, so a frame without a readable number is the next one expected.
void FrameLoad::_take(const char* frame, std::size_t bytes)
{
    if (frame[kindOffset] == Probe || _inFlight() == 0 || bytes != _options.frameBytes) {
        _reached = true;
        return;
    }
    std::uint64_t sequence = 0;
    const bool isReadable = readSequence(frame, sequence) && sequence - _expected < _inFlight();
    if (isReadable) {
        _counters.lost += sequence - _expected;
        _expect(sequence);
    }
    const std::uint64_t bits = differentBits(frame, _expectedFrame.data(), bytes);
    ++(bits == 0 ? _counters.intact : _counters.damaged);
    _counters.damagedBits += bits;
    _expect(_expected + 1);
}

void FrameLoad::_expect(std::uint64_t sequence)
{
    _expected = sequence;
    writeSequence(_expectedFrame.data(), sequence);
}

/// A window whose frames were all dropped moves on only by itself.
bool FrameLoad::_checkProgress(bool moved)
{
    const Clock::time_point now = Clock::now();
    if (moved) {
        _lastProgress = _lastArrival = now;
        return true;
    }
    if (now - _lastArrival > deadTime)
        return _fail("nothing arrived for 5 s");
    if (now - _lastProgress > lossTime) {
        _counters.lost += _inFlight();
        _expect(_sent);
        _lastProgress = now;
    }
    return true;
}

Snapshot FrameLoad::_snapshot() const
{
    Snapshot snapshot;
    snapshot.time = Clock::now();
    for (const int pid : _options.watchedPids)
        snapshot.servers += timesOf(pid);
    snapshot.client = timesOf(getpid());
    return snapshot;
}

void FrameLoad::printResults() const
{
    const double seconds = Seconds(_end.time - _begin.time).count();
    std::printf("{\"intact\": %" PRIu64 ", \"damaged\": %" PRIu64 ", \"damaged_bits\": %" PRIu64
                ", \"lost\": %" PRIu64,
                _counters.intact, _counters.damaged, _counters.damagedBits, _counters.lost);
    std::printf(", \"seconds\": %.6f, \"server_cpu_seconds\": %.6f, \"server_wait_seconds\": %.6f", seconds,
                _end.servers.running - _begin.servers.running, _end.servers.waiting - _begin.servers.waiting);
    std::printf(", \"client_cpu_seconds\": %.6f, \"client_wait_seconds\": %.6f}\n",
                _end.client.running - _begin.client.running, _end.client.waiting - _begin.client.waiting);
}

bool FrameLoad::_fail(const std::string& reason)
{
    if (_failure.empty())
        _failure = reason;
    return false;
}

Options readCommandLine(int argc, char** argv)
{
    Options options;
    CommandLine line(
        "usage: lattivo_frameload --vde SWITCH --vde SWITCH | --sender-fd N --receiver-fd N [options]\n"
        "Prints one line of JSON. Exit code 1: the frames do not get through, 2: wrong option.");
    const auto addSwitch = [&](const std::string& folder) {
        options.switches.push_back(folder);
        return true;
    };
    const auto addPid = [&](const std::string& pid) {
        options.watchedPids.push_back(std::atoi(pid.c_str()));
        return true;
    };
    line.addValue("--vde", addSwitch, "control folder of a switch");
    line.addNumber("--sender-fd", options.senderFd, 0, "where frames go in, one a datagram");
    line.addNumber("--receiver-fd", options.receiverFd, 0, "where they come out");
    line.addNumber("--size", options.frameBytes, fillerOffset + 1, "bytes of a frame (64)");
    line.addNumber("--window", options.window, 1, "frames in flight (64)");
    line.addNumber("--warm-up", options.warmUp, 0, "seconds (0.3)");
    line.addNumber("--duration", options.duration, 0, "seconds (2)");
    line.addValue("--watch-pid", addPid, "a process whose processor time is reported; several are added up");
    line.read(argc, argv);
    const bool hasDescriptors = options.senderFd >= 0 && options.receiverFd >= 0;
    if (options.frameBytes > largestFrameBytes || (options.switches.size() == 2) == hasDescriptors)
        line.refuse();
    return options;
}

}  // namespace

int main(int argc, char** argv)
{
    FrameLoad load(readCommandLine(argc, argv));
    if (!load.run()) {
        std::fprintf(stderr, "lattivo_frameload: %s\n", load.failure().c_str());
        return EXIT_FAILURE;
    }
    load.printResults();
    return EXIT_SUCCESS;
}
