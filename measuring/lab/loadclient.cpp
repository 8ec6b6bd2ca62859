#include "attach.h"
#include "commandline.h"
#include "processtimes.h"
#include "wiring.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;
using std::chrono::milliseconds;

/// What a frame holds behind its two addresses; filler up to the wanted size follows.
struct Stamp {
    std::uint64_t number = 0;
    Clock::duration sent{};
};

/// A frame of this number asks whether the road to the receiver is open, and is never counted. The number
/// behind it is 0.
constexpr std::uint64_t probe = ~std::uint64_t{0};

constexpr std::size_t stampOffset = 2 * addressBytes;
constexpr std::size_t fillerOffset = stampOffset + sizeof(Stamp);

constexpr int eventsPerWait = 256;
constexpr std::uint64_t framesPerBatch = 8;    // at most, that leave together
constexpr std::uint64_t framesPerBurst = 256;  // at most, that make good what a paced load owes
constexpr milliseconds firstProbeWait{50};
constexpr milliseconds attachTimeout{30000};
constexpr milliseconds quietTime{200};
constexpr milliseconds pollTime{100};
constexpr milliseconds paceTime{1};
constexpr milliseconds deadServerTime{10000};
constexpr double longestHoldUp = 1.0;  // seconds of a paced load that are made good

struct Options {
    std::uint16_t port = 0;
    Wiring wiring;
    std::size_t frameBytes = 64;
    std::uint64_t window = 64;           // frames of one sender between it and its slowest receiver
    bool confirms = false;               // the window also waits for the confirmations
    bool isInStep = false;               // both ends of each pair send, all anew when everything has arrived
    double rate = 0.0;                   // frames per second of all senders; 0: as fast as the window allows
    double warmUp = 0.3;                 // seconds
    double duration = 2.0;               // seconds; not looked at when frames is given
    std::uint64_t frames = 0;            // measured frames; 0: by duration
    std::uint64_t checkpointFrames = 0;  // 0: none
    int lossTimeout = 1000;  // milliseconds without progress until what is in flight counts as lost
    int watchedPid = 0;      // whose processor time is reported; 0: nobody's

    bool isPaced() const { return rate > 0; }
    int lanesPerPair() const { return isInStep ? 2 : 1; }
};

/// Drives one node.
struct Program {
    lattivo_client* client = nullptr;  // open until the process ends
    std::size_t lane = 0;              // whose frames and confirmations it gets
};

/// One sender with everybody who receives its frames.
struct Lane {
    int sender = 0;                       // a node
    int firstReceiver = 0;                // likewise; the others follow it
    std::vector<std::uint64_t> expected;  // by receiver: the next frame's number
    std::string frame;                    // only the stamp changes between sends
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
};

/// Counts durations in buckets that grow with them, so that no percentile is off by more than 0.4 %. Memory
/// for all durations, taken while they come, would cost 6 % of the frames per second.
class Latencies
{
public:
    void add(float microseconds)
    {
        std::uint32_t bits = 0;
        std::memcpy(&bits, &microseconds, sizeof bits);
        ++_counts[bits >> droppedBits];
        ++_count;
    }

    /// Returns a percentile (share 0 to 1); 0 if nothing was counted.
    double percentile(double share) const
    {
        const double rank = share * static_cast<double>(_count);
        std::uint64_t seen = 0;
        std::uint32_t bucket = 0;
        while (bucket < _counts.size() && (seen == 0 || static_cast<double>(seen) < rank))
            seen += _counts[bucket++];
        const std::uint32_t middle = seen > 0 ? (2 * bucket - 1) << (droppedBits - 1) : 0;
        float microseconds = 0.0F;
        std::memcpy(&microseconds, &middle, sizeof middle);
        return static_cast<double>(microseconds);
    }

private:
    static constexpr unsigned droppedBits = 16;  // sign, exponent and 7 bits of the fraction stay

    std::array<std::uint64_t, 1U << (31 - droppedBits)> _counts{};  // durations have no sign
    std::uint64_t _count = 0;
};

void printNumber(const char* name, double value)
{
    std::printf("\"%s\": %.6f, ", name, value);
}

/// Prints a part of a JSON object: what happened between two snapshots.
void printSection(const Snapshot& from, const Snapshot& to)
{
    printNumber("seconds", Seconds(to.time - from.time).count());
    printNumber("server_cpu_seconds", to.server.running - from.server.running);
    printNumber("server_wait_seconds", to.server.waiting - from.server.waiting);
    printNumber("client_cpu_seconds", to.client.running - from.client.running);
    printNumber("client_wait_seconds", to.client.waiting - from.client.waiting);
    std::printf("\"frames\": %lu", to.frames - from.frames);
}

/// Drives both ends of every lane and measures what arrives.
class LoadClient
{
public:
    explicit LoadClient(const Options& options)
        : _options(options)
        , _epoll(epoll_create1(EPOLL_CLOEXEC))
        , _programs(options.wiring.nodeCount())
        , _lanes(options.wiring.senderCount() * options.lanesPerPair())
    {
        for (std::size_t i = 0; i < _lanes.size(); ++i)
            _wire(i);
    }

    void run()
    {
        _connectAll();
        _reachAll();
        _measure();
        while (!_options.isPaced() && !_hasAllArrived()) {  // paced links are full on purpose
            _pump(pollTime);
            _checkProgress();
        }
    }

    void printResults() const
    {
        std::printf("{");
        printSection(_snapshots.front(), _snapshots.back());
        std::printf(", ");
        printNumber("latency_median_us", _latencies.percentile(0.50));
        printNumber("latency_p99_us", _latencies.percentile(0.99));
        std::printf("\"lost\": %lu, \"sections\": [", _counters.lost);
        for (std::size_t i = 1; i < _snapshots.size(); ++i) {
            std::printf(i > 1 ? ", {" : "{");
            printSection(_snapshots[i - 1], _snapshots[i]);
            std::printf("}");
        }
        std::printf("]}\n");
    }

private:
    // Phases

    void _wire(std::size_t number)
    {
        Lane& lane = _lanes[number];
        const bool isWayBack = _options.isInStep && number % 2 == 1;
        const int first = _options.wiring.sender(static_cast<int>(number) / _options.lanesPerPair());
        lane.sender = isWayBack ? first + 1 : first;
        lane.firstReceiver = isWayBack ? first : first + 1;
        lane.expected.resize(_options.wiring.receiversPerSender());
        const bool isBroadcast = _options.wiring.isStar();
        lane.frame = isBroadcast ? std::string(addressBytes, '\xff') : nodeAddress(lane.firstReceiver);
        lane.frame += nodeAddress(lane.sender);
        while (lane.frame.size() < _options.frameBytes)
            lane.frame += static_cast<char>(lane.frame.size());
        if (!_options.isInStep)
            _programs[lane.sender].lane = number;
        for (std::size_t i = 0; i < lane.expected.size(); ++i) {
            _programs[lane.firstReceiver + i].lane = number;
            _unreached.insert(lane.firstReceiver + static_cast<int>(i));
        }
    }

    void _connectAll()
    {
        for (std::size_t node = 0; node < _programs.size(); ++node) {
            lattivo_client*& client = _programs[node].client;
            client = attach(_options.port, static_cast<int>(node), _options.frameBytes);
            epoll_event event{};
            event.events = EPOLLIN;
            event.data.u64 = node;
            epoll_ctl(_epoll, EPOLL_CTL_ADD, lattivo_descriptor(client), &event);
        }
    }

    /// Probes until every receiver has seen one: only then are all nodes certain to be attached.
    void _reachAll()
    {
        const Clock::time_point begin = Clock::now();
        for (milliseconds wait = firstProbeWait; !_unreached.empty(); wait *= 2) {
            if (Clock::now() - begin > attachTimeout)
                fail("not every node could be reached within 30 s");
            for (Lane& lane : _lanes)
                _send(lane, probe, 1);
            const Clock::time_point nextProbe = Clock::now() + wait;
            while (!_unreached.empty() && Clock::now() < nextProbe)
                _pump(paceTime);
        }
        // the probes' confirmations, negative ones included, would pass for those of the load
        const Clock::time_point end = Clock::now() + milliseconds(_options.lossTimeout) + quietTime;
        while (_options.confirms && Clock::now() < end)
            _pump(paceTime);
    }

    void _measure()
    {
        const Clock::time_point begin = Clock::now();
        _isLoading = true;
        _paceBegin = begin;
        for (Lane& lane : _lanes) {
            lane.lastProgress = begin;
            _refill(lane);
        }
        while (Seconds(Clock::now() - begin).count() < _options.warmUp)
            _step();
        _counters = Counters();
        _latencies = Latencies();
        _snapshots = {_snapshot()};
        while (!_isFinished()) {
            _step();
            const std::uint64_t nextCheckpoint = _options.checkpointFrames * _snapshots.size();
            if (nextCheckpoint > 0 && _frames() >= nextCheckpoint)
                _snapshots.push_back(_snapshot());
        }
        _snapshots.push_back(_snapshot());
        _isLoading = false;
    }

    bool _isFinished() const
    {
        if (_options.frames > 0)
            return _frames() >= _options.frames;
        return Seconds(Clock::now() - _snapshots.front().time).count() >= _options.duration;
    }

    std::uint64_t _frames() const { return _counters.received / _options.wiring.receiversPerSender(); }

    Snapshot _snapshot() const
    {
        return {_frames(), Clock::now(), timesOf(_options.watchedPid), timesOf(getpid())};
    }

    // Receiving

    void _pump(milliseconds patience)
    {
        epoll_event events[eventsPerWait];
        const int count = epoll_wait(_epoll, events, eventsPerWait, static_cast<int>(patience.count()));
        for (int i = 0; i < count; ++i) {
            const auto node = static_cast<int>(events[i].data.u64);
            _receive(node);
            if (_isLoading)
                _refill(_lanes[_programs[node].lane]);
        }
    }

    /// Handles what one read brings.
    void _receive(int node)
    {
        lattivo_client* client = _programs[node].client;
        lattivo_message message{};
        lattivo_result result = lattivo_receive(client, &message, 0);
        const Clock::time_point now = Clock::now();
        while (result == LATTIVO_OK) {
            _handleMessage(node, message, now);
            result = lattivo_has_more(client) ? lattivo_receive(client, &message, 0) : LATTIVO_AGAIN;
        }
        if (result != LATTIVO_AGAIN)
            fail(lattivo_error(client));
    }

    void _handleMessage(int node, const lattivo_message& message, Clock::time_point now)
    {
        Lane& lane = _lanes[_programs[node].lane];
        lane.lastProgress = now;
        if (message.type == LATTIVO_MESSAGE_FRAME)
            _takeFrame(lane, node, reinterpret_cast<const char*>(message.frame), message.size, now);
        else if (message.type == LATTIVO_MESSAGE_CONFIRMATION && lane.sent > 0)
            ++lane.confirmed;  // of the load, not of a probe
    }

    void _takeFrame(Lane& lane, int node, const char* frame, std::size_t bytes, Clock::time_point now)
    {
        if (node < lane.firstReceiver || !_isIntact(lane, frame, bytes))
            fail("a frame arrived with other contents");
        std::uint64_t& expected = lane.expected[node - lane.firstReceiver];
        Stamp stamp;
        std::memcpy(&stamp, frame + stampOffset, sizeof stamp);
        if (stamp.number == probe) {
            _unreached.erase(node);
        } else if (stamp.number >= expected) {          // not one that has been given up
            _counters.lost += stamp.number - expected;  // a link never reorders its frames
            expected = stamp.number + 1;
            ++_counters.received;
            const std::chrono::duration<float, std::micro> latency = now.time_since_epoch() - stamp.sent;
            _latencies.add(latency.count());
        }
    }

    bool _isIntact(const Lane& lane, const char* frame, std::size_t bytes) const
    {
        const char* sent = lane.frame.data();
        return bytes == _options.frameBytes && std::memcmp(frame, sent, stampOffset) == 0
            && std::memcmp(frame + fillerOffset, sent + fillerOffset, bytes - fillerOffset) == 0;
    }

    std::uint64_t _inFlight(const Lane& lane) const
    {
        std::uint64_t completed = _options.confirms ? std::min(lane.confirmed, lane.sent) : lane.sent;
        for (const std::uint64_t expected : lane.expected)
            completed = std::min(completed, expected);
        return lane.sent - completed;
    }

    bool _hasAllArrived() const
    {
        return std::all_of(_lanes.begin(), _lanes.end(),
                           [this](const Lane& lane) { return _inFlight(lane) == 0; });
    }

    // Sending

    /// Sends \a count frames together, from number \a first on. What does not find room, because a paced load
    /// fills the links, follows with the next frame.
    void _send(Lane& lane, std::uint64_t first, std::uint64_t count)
    {
        const auto patience = static_cast<int>(deadServerTime.count());
        lattivo_client* client = _programs[lane.sender].client;
        Stamp stamp{first, Clock::now().time_since_epoch()};
        lane.sent = first + count;
        lattivo_result result = LATTIVO_OK;
        for (; stamp.number != lane.sent && result == LATTIVO_OK; ++stamp.number) {
            std::memcpy(&lane.frame[stampOffset], &stamp, sizeof stamp);
            result = lattivo_send_frame(client, lane.frame.data(), lane.frame.size(), patience);
        }
        if (result == LATTIVO_OK)
            result = lattivo_flush(client, _options.isPaced() ? 0 : patience);
        if (result != LATTIVO_OK && !(_options.isPaced() && result == LATTIVO_AGAIN))
            fail(lattivo_error(client));
    }

    void _refill(Lane& lane)
    {
        if (_options.isInStep)
            _beginStep();
        else if (!_options.isPaced())
            _fill(lane);
    }

    void _fill(Lane& lane)
    {
        while (_inFlight(lane) < _options.window)
            _send(lane, lane.sent, std::min(_options.window - _inFlight(lane), framesPerBatch));
    }

    /// Lets all send again, once nothing is under way any more.
    void _beginStep()
    {
        while (_arrivedLanes < _lanes.size() && _inFlight(_lanes[_arrivedLanes]) == 0)
            ++_arrivedLanes;
        if (_arrivedLanes < _lanes.size())
            return;
        _arrivedLanes = 0;
        for (Lane& lane : _lanes)
            _fill(lane);
    }

    void _step()
    {
        _pump(_options.isPaced() ? paceTime : pollTime);
        if (_options.isPaced())
            _pace();
        _checkProgress();
    }

    /// Sends what is due by now, to the lanes in turn. What a hold-up has left over is made good in bursts,
    /// or not at all when it is too much: then the rate is seen to be missed.
    void _pace()
    {
        const Clock::time_point now = Clock::now();
        const auto due = static_cast<std::uint64_t>(Seconds(now - _paceBegin).count() * _options.rate);
        const std::uint64_t end = std::min(due, _paced + framesPerBurst);
        for (; _paced < end; ++_paced) {
            Lane& lane = _lanes[_paced % _lanes.size()];
            if (lattivo_flush(_programs[lane.sender].client, 0) == LATTIVO_AGAIN)
                break;  // the last one still waits for room
            _send(lane, lane.sent, 1);
        }
        if (static_cast<double>(due - _paced) > longestHoldUp * _options.rate) {
            _paceBegin = now;
            _paced = 0;
        }
    }

    /// A frame that a link has corrupted leaves a window of one frame without an event to go on with.
    void _checkProgress()
    {
        const Clock::time_point now = Clock::now();
        if (now - _lastProgressCheck < pollTime)
            return;
        _lastProgressCheck = now;
        for (Lane& lane : _lanes) {
            const auto silence = now - lane.lastProgress;
            if (_inFlight(lane) == 0 || silence < milliseconds(_options.lossTimeout))
                continue;
            if (silence > deadServerTime)
                fail("nothing came from the server for 10 s");
            _giveUpOnFramesInFlight(lane);
            if (_isLoading)
                _refill(lane);
        }
    }

    void _giveUpOnFramesInFlight(Lane& lane)
    {
        for (std::uint64_t& expected : lane.expected) {
            _counters.lost += lane.sent - expected;
            expected = lane.sent;
        }
        lane.confirmed = lane.sent;
    }

    Options _options;
    int _epoll;
    std::vector<Program> _programs;  // by node
    std::vector<Lane> _lanes;
    std::set<int> _unreached;  // nodes that no probe has reached yet

    bool _isLoading = false;
    std::size_t _arrivedLanes = 0;  // in step, from the first on: nothing of theirs is under way
    Clock::time_point _paceBegin;
    std::uint64_t _paced = 0;  // frames sent since then
    Clock::time_point _lastProgressCheck;

    Counters _counters;
    Latencies _latencies;              // from sending a frame to the read that brings it
    std::vector<Snapshot> _snapshots;  // begin, checkpoints, end
};

Options readCommandLine(int argc, char** argv)
{
    Options options;
    CommandLine line("usage: lattivo_loadclient --port N [options]; prints one line of JSON\n"
                     "Exit code 1: the server failed the client, 2: wrong option.");
    line.addNumber("--port", options.port, 1, "of the server");
    line.addNumber("--pairs", options.wiring.pairs, 1, "one sender and one receiver each (1)");
    line.addNumber("--star", options.wiring.starLinks, 1,
                   "receivers of one sender that broadcasts, no pairs");
    line.addNumber("--size", options.frameBytes, fillerOffset, "bytes of a frame (64)");
    line.addNumber("--window", options.window, 1, "frames in flight per sender (64)");
    line.addFlag("--confirm", options.confirms, "the window also waits for confirmations");
    line.addFlag("--in-step", options.isInStep,
                 "both ends of each pair send their window, and all send again when everything has arrived; "
                 "not with --star, --confirm or --rate");
    line.addNumber("--rate", options.rate, 0, "frames per second of all senders, instead of a window");
    line.addNumber("--warm-up", options.warmUp, 0, "seconds (0.3)");
    line.addNumber("--duration", options.duration, 0, "seconds (2)");
    line.addNumber("--frames", options.frames, 0, "measured frames, instead of a duration");
    line.addNumber("--checkpoint", options.checkpointFrames, 0, "figures for every so many frames");
    line.addNumber("--loss-timeout", options.lossTimeout, 1,
                   "ms without progress until frames count as lost (1000)");
    line.addNumber("--watch-pid", options.watchedPid, 1, "the process whose processor time is reported");
    line.read(argc, argv);
    const bool isSteppable = !options.wiring.isStar() && !options.confirms && !options.isPaced();
    if (options.port == 0 || (options.isInStep && !isSteppable))
        line.refuse();
    return options;
}

}  // namespace

int main(int argc, char** argv)
{
    LoadClient client(readCommandLine(argc, argv));
    client.run();
    client.printResults();
    std::fflush(stdout);
    std::_Exit(EXIT_SUCCESS);  // at once: to close a connection in order is to wait for the simulator
}
