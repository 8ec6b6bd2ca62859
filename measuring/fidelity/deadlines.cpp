#include "endpoint.h"
#include "frames.h"
#include "options.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <memory>
#include <vector>

namespace {

using std::chrono::milliseconds;

constexpr milliseconds moment{100};
constexpr milliseconds quietTime{50};  // at the end, for what should not come
constexpr int pulsesPerBurst = 2;      // the second is certain to come after a whole look at all sockets

struct Pair {
    Pair(std::uint16_t port, int number, std::size_t frameBytes)
        : frames(2 * number, frameBytes)
        , receiver(port, 2 * number + 1, Endpoint::Awaited)
        , sender(port, 2 * number, Endpoint::Coming)
    {
    }

    Frames frames;
    Endpoint receiver;
    Endpoint sender;
    std::uint64_t sent = 0;
    std::uint64_t received = 0;
    std::uint64_t delivered = 0;  // as the sender was told
    std::uint64_t lost = 0;       // likewise
    std::uint64_t orderErrors = 0;
};

/// Pairs that differ in the sender's deadline alone. Which frames the simulator calls in time says how long
/// their delays were drawn, and no clock is needed for it. The senders send one after the other, and each
/// burst is read before the next one starts, so that the draws have one order.
class Deadlines
{
public:
    explicit Deadlines(const Options& options);

    void run();
    void print() const;

private:
    void _sendBurst(Pair& pair);
    void _awaitPulse();
    void _awaitFrames();
    void _pump(milliseconds patienceForInput);
    void _take(Pair& pair);
    std::uint64_t _received() const;

    const Options _options;
    std::vector<std::unique_ptr<Pair>> _pairs;
    Pulse _pulse;
    std::vector<const Endpoint*> _endpoints;
};

Deadlines::Deadlines(const Options& options)
    : _options(options)
    , _pulse(options.port, 2 * options.pairs)
    , _endpoints{&_pulse.endpoint()}
{
    for (int number = 0; number < options.pairs; ++number) {
        _pairs.push_back(std::make_unique<Pair>(options.port, number, options.frameBytes));
        _endpoints.push_back(&_pairs.back()->receiver);
        _endpoints.push_back(&_pairs.back()->sender);
    }
}

void Deadlines::run()
{
    for (const auto& pair : _pairs) {
        while (pair->sent < _options.frames) {
            _sendBurst(*pair);
            for (int i = 0; i < pulsesPerBurst; ++i)
                _awaitPulse();
        }
    }
    _awaitFrames();
    const Clock::time_point end = Clock::now() + quietTime;
    while (Clock::now() < end)
        _pump(quietTime);
}

void Deadlines::_sendBurst(Pair& pair)
{
    const std::uint64_t burst = Wire::maximalBytesInFlight / pair.frames.messageBytes();
    std::string messages;
    for (const std::uint64_t end = std::min(_options.frames, pair.sent + burst); pair.sent < end; ++pair.sent)
        messages += pair.frames.message(pair.sent);
    pair.sender.send(messages);
}

void Deadlines::_awaitPulse()
{
    _pulse.request();
    const Clock::time_point end = Clock::now() + patience;
    while (!_pulse.hasAnswer()) {
        if (Clock::now() > end)
            fail("the simulator stands still");
        _pump(moment);
    }
}

void Deadlines::_awaitFrames()
{
    Clock::time_point lastProgress = Clock::now();
    std::uint64_t before = 0;
    while (_received() < _options.frames * _pairs.size() && Clock::now() - lastProgress < patience) {
        _pump(moment);
        if (_received() != before)
            lastProgress = Clock::now();
        before = _received();
    }
}

void Deadlines::_pump(milliseconds patienceForInput)
{
    awaitInput(_endpoints, patienceForInput);
    for (const auto& pair : _pairs)
        _take(*pair);
}

void Deadlines::_take(Pair& pair)
{
    pair.receiver.receive([&pair](std::uint8_t, const char* body, std::size_t bytes) {
        pair.orderErrors += std::string(body, bytes) != pair.frames.frame(pair.received);
        ++pair.received;
    });
    pair.sender.receive([&pair](std::uint8_t, const char* body, std::size_t) {
        ++(*body == Wire::Delivered ? pair.delivered : pair.lost);
    });
}

std::uint64_t Deadlines::_received() const
{
    std::uint64_t received = 0;
    for (const auto& pair : _pairs)
        received += pair->received;
    return received;
}

void Deadlines::print() const
{
    std::printf("{\"pairs\": [");
    for (const auto& pair : _pairs) {
        std::printf("%s{\"sent\": %" PRIu64 ", \"received\": %" PRIu64 ", \"delivered\": %" PRIu64
                    ", \"lost\": %" PRIu64 ", \"order_errors\": %" PRIu64 "}",
                    pair == _pairs.front() ? "" : ", ", pair->sent, pair->received, pair->delivered,
                    pair->lost, pair->orderErrors);
    }
    std::printf("]}\n");
}

}  // namespace

void measureDeadlines(const Options& options)
{
    Deadlines deadlines(options);
    deadlines.run();
    deadlines.print();
}
