#include "endpoint.h"
#include "frames.h"
#include "options.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <fstream>
#include <vector>

namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;

constexpr milliseconds firstSendPause{20};  // between the attaching and the first frame
constexpr milliseconds longestHoldUp{1};    // that is made good
constexpr int roundTripCount = 500;
constexpr microseconds roundTripPause{500};    // the simulator goes to sleep in it
constexpr std::uint64_t framesPerPulse = 100;  // as few as possible: each one wakes the simulator

/// One sender, one receiver, each frame in a send() of its own. Never sleeps: the clock is read as soon as
/// something has arrived.
class Timing
{
public:
    explicit Timing(const Options& options);

    void run();
    void print() const;

private:
    void _measureRoundTrips();
    bool _isSendDue(Clock::time_point now);
    void _send(Clock::time_point now);
    void _takeFrames();
    void _beat();
    std::uint64_t _nanoseconds(Clock::time_point time) const;

    const Options _options;
    const Frames _frames;
    Endpoint _receiver;
    Endpoint _sender;
    Pulse _pulse;
    const std::uint64_t _unreadLimit;  // frames; more could let the kernel cut one in two

    Clock::time_point _begin;
    Clock::time_point _nextSend;
    std::uint64_t _sentBeforePulse = 0;  // frames
    std::uint64_t _certainlyRead = 0;    // by the simulator
    std::uint64_t _orderErrors = 0;
    std::vector<std::uint64_t> _sentTimes;  // ns
    std::vector<std::uint64_t> _arrivalTimes;
    std::vector<std::uint64_t> _roundTrips;  // ns
};

Timing::Timing(const Options& options)
    : _options(options)
    , _frames(0, options.frameBytes)
    , _receiver(options.port, 1, Endpoint::Awaited)
    , _sender(options.port, 0, Endpoint::Coming)
    , _pulse(options.port, 2)
    , _unreadLimit(Wire::maximalBytesInFlight / _frames.messageBytes())
{
    _sentTimes.reserve(options.frames);
    _arrivalTimes.reserve(options.frames);
}

void Timing::run()
{
    _measureRoundTrips();
    _begin = Clock::now();
    _nextSend = _begin + firstSendPause;
    Clock::time_point lastProgress = _begin;
    std::size_t before = 0;
    while (_arrivalTimes.size() < _options.frames) {
        const Clock::time_point now = Clock::now();
        if (_isSendDue(now))
            _send(now);
        _takeFrames();
        _beat();
        if (_arrivalTimes.size() != before)
            lastProgress = now;
        else if (now - lastProgress > patience)
            fail("a frame does not arrive");
        before = _arrivalTimes.size();
    }
}

/// Of the pulse, one at a time: the road of a frame without a link.
void Timing::_measureRoundTrips()
{
    for (int i = 0; i < roundTripCount; ++i) {
        const Clock::time_point next = Clock::now() + roundTripPause;
        _pulse.request();
        while (!_pulse.hasAnswer()) {
            if (Clock::now() - next > patience)
                fail("the simulator stands still");
        }
        _roundTrips.push_back(_pulse.lastRoundTrip());
        while (Clock::now() < next) { }
    }
}

bool Timing::_isSendDue(Clock::time_point now)
{
    const std::uint64_t sent = _sentTimes.size();
    if (sent == _options.frames || now < _nextSend || sent - _certainlyRead >= _unreadLimit)
        return false;
    return _options.rate > 0 || sent == _arrivalTimes.size();
}

void Timing::_send(Clock::time_point now)
{
    const std::string message = _frames.message(_sentTimes.size());
    _sentTimes.push_back(_nanoseconds(Clock::now()));
    _sender.send(message);
    if (_options.rate > 0)
        _nextSend
            += std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(1 / _options.rate));
    if (now - _nextSend > longestHoldUp)
        _nextSend = now;  // held up: goes on at its pace and makes nothing good
}

void Timing::_takeFrames()
{
    _receiver.receive(
        [this, now = Clock::time_point()](std::uint8_t, const char* body, std::size_t bytes) mutable {
            if (now == Clock::time_point())
                now = Clock::now();  // one reading for all that came in one piece
            _orderErrors += std::string(body, bytes) != _frames.frame(_arrivalTimes.size());
            _arrivalTimes.push_back(_nanoseconds(now));
        });
}

/// Keeps track of what the simulator has read: it looks at all sockets in turn, so that the frames sent
/// before a request have been read when the answer has come, or are about to be.
void Timing::_beat()
{
    if (_pulse.isUnderWay()) {
        if (_pulse.hasAnswer())
            _certainlyRead = _sentBeforePulse;
        return;
    }
    if (_sentTimes.size() - _certainlyRead < framesPerPulse)
        return;
    _sentBeforePulse = _sentTimes.size();
    _pulse.request();
}

std::uint64_t Timing::_nanoseconds(Clock::time_point time) const
{
    return static_cast<std::uint64_t>(std::chrono::nanoseconds(time - _begin).count());
}

/// How long this process has had to wait so far while others had its processor, in ns; 0 when the kernel does
/// not tell.
std::uint64_t processorWait()
{
    std::ifstream file("/proc/self/schedstat");
    std::uint64_t ran = 0;
    std::uint64_t waited = 0;
    return file >> ran >> waited ? waited : 0;
}

void printTimes(const char* name, const std::vector<std::uint64_t>& times, const char* end)
{
    std::printf("\"%s\": [", name);
    for (std::size_t i = 0; i < times.size(); ++i)
        std::printf("%s%" PRIu64, i == 0 ? "" : ", ", times[i]);
    std::printf("]%s", end);
}

void Timing::print() const
{
    std::printf("{\"order_errors\": %" PRIu64 ", \"waited_ns\": %" PRIu64 ", ", _orderErrors,
                processorWait());
    printTimes("sent_ns", _sentTimes, ", ");
    printTimes("arrived_ns", _arrivalTimes, ", ");
    printTimes("round_trips_ns", _roundTrips, "}\n");
}

}  // namespace

void measureTiming(const Options& options)
{
    Timing timing(options);
    timing.run();
    timing.print();
}
