#include "measurement.h"
#include "processtimes.h"

#include <unistd.h>

namespace {

using std::chrono::microseconds;

constexpr milliseconds longestHoldUp{1};  // that is made good
constexpr int roundTripCount = 500;
constexpr microseconds roundTripPause{500};  // the simulator goes to sleep in it

/// One pair, each frame in a call of its own. Never sleeps: it reads the clock when something arrives.
class Timing
{
public:
    explicit Timing(const Options& options)
        : _options(options)
        , _pair(options, 0)
        , _pulse(options.port, 2)
    {
        _sentTimes.reserve(options.frames);
        _arrivalTimes.reserve(options.frames);
    }

    void run()
    {
        _measureRoundTrips();
        _nextSend = Clock::now();
        repeat([this] { return _hasAllArrived(); }, [this] { return _arrivalTimes.size(); },
               [this](milliseconds) { _step(); });
        if (!_hasAllArrived())
            fail("a frame does not arrive");
    }

    void print() const
    {
        Figures figures;
        figures.add("order_errors", _pair.orderErrors);
        figures.add("waited_ns", static_cast<std::uint64_t>(timesOf(getpid()).waiting * 1e9));
        figures.add("sent_ns", _sentTimes);
        figures.add("arrived_ns", _arrivalTimes);
        figures.add("round_trips_ns", _roundTrips);
        figures.print();
    }

private:
    /// Measures the road of a frame without a link, one at a time.
    void _measureRoundTrips()
    {
        for (int i = 0; i < roundTripCount; ++i) {
            const Clock::time_point next = Clock::now() + roundTripPause;
            _roundTrips.push_back(static_cast<std::uint64_t>(_pulse.roundTrip().count()));
            while (Clock::now() < next) { }
        }
    }

    bool _hasAllArrived() const { return _arrivalTimes.size() >= _options.frames; }

    void _step()
    {
        const Clock::time_point now = Clock::now();
        if (_isSendDue(now))
            _send(now);
        _takeFrames();
    }

    /// Waits with the next frame while the last one finds no room: the simulator is held up.
    bool _isSendDue(Clock::time_point now)
    {
        const std::uint64_t sent = _sentTimes.size();
        if (sent == _options.frames || now < _nextSend || !_pair.sender.isFlushed())
            return false;
        return _options.rate > 0 || sent == _arrivalTimes.size();
    }

    void _send(Clock::time_point now)
    {
        _pair.sender.send(_pair.frames.frame(_sentTimes.size()));
        _sentTimes.push_back(_nanoseconds(Clock::now()));
        _pair.sender.isFlushed();  // or the next look tells
        if (_options.rate > 0)
            _nextSend += std::chrono::duration_cast<Clock::duration>(
                std::chrono::duration<double>(1 / _options.rate));
        if (now - _nextSend > longestHoldUp)
            _nextSend = now;  // held up: goes on at its pace and makes nothing good
    }

    void _takeFrames()
    {
        _pair.receiver.receive(
            milliseconds(0), [this, now = Clock::time_point()](const lattivo_message& message) mutable {
                if (now == Clock::time_point())
                    now = Clock::now();  // one reading for all that came in one piece
                _pair.orderErrors += Pair::bytesOf(message) != _pair.frames.frame(_arrivalTimes.size());
                _arrivalTimes.push_back(_nanoseconds(now));
            });
    }

    static std::uint64_t _nanoseconds(Clock::time_point time)
    {
        return static_cast<std::uint64_t>(std::chrono::nanoseconds(time.time_since_epoch()).count());
    }

    const Options _options;
    Pair _pair;
    Pulse _pulse;

    Clock::time_point _nextSend;
    std::vector<std::uint64_t> _sentTimes;  // ns
    std::vector<std::uint64_t> _arrivalTimes;
    std::vector<std::uint64_t> _roundTrips;  // ns
};

}  // namespace

void measureTiming(const Options& options)
{
    Timing timing(options);
    timing.run();
    timing.print();
}
