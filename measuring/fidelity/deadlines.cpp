#include "measurement.h"

#include <algorithm>
#include <memory>

namespace {

constexpr int pulsesPerBurst = 2;  // the second is certain to come after a whole look at all sockets

/// Pairs that differ in the sender's deadline alone. Which frames the simulator calls in time says how long
/// their delays were drawn, and no clock is needed for it. The senders send one after the other, and each
/// burst is read before the next one starts, so that the draws have one order.
class Deadlines
{
public:
    explicit Deadlines(const Options& options)
        : _options(options)
        , _pulse(options.port, 2 * options.pairs)
    {
        for (int number = 0; number < options.pairs; ++number)
            _pairs.push_back(std::make_unique<Pair>(options, number));
    }

    void run()
    {
        for (const auto& pair : _pairs)
            _send(*pair);
        repeat([this] { return _received() >= _options.frames * _pairs.size(); },
               [this] { return _received(); }, [this](milliseconds wait) { _receive(wait); });
    }

    /// Prints a list of the pairs' values for each figure.
    void print() const
    {
        Figures figures;
        for (const auto& figure : pairFigures) {
            std::vector<std::uint64_t> values;
            for (const auto& pair : _pairs)
                values.push_back((*pair).*figure.value);
            figures.add(figure.name, values);
        }
        figures.print();
    }

private:
    void _send(Pair& pair)
    {
        while (pair.sent < _options.frames) {
            pair.sendUpTo(std::min(_options.frames, pair.sent + pair.burst));
            for (int i = 0; i < pulsesPerBurst; ++i)
                _pulse.roundTrip();
            _receive(milliseconds(0));
        }
    }

    /// Waits for the last pair only, whose frames come last.
    void _receive(milliseconds wait)
    {
        for (const auto& pair : _pairs) {
            pair->receive(pair == _pairs.back() ? wait : milliseconds(0), [&pair](const std::string& frame) {
                pair->orderErrors += frame != pair->frames.frame(pair->received);
            });
        }
    }

    std::uint64_t _received() const
    {
        std::uint64_t received = 0;
        for (const auto& pair : _pairs)
            received += pair->received;
        return received;
    }

    const Options _options;
    std::vector<std::unique_ptr<Pair>> _pairs;
    Pulse _pulse;
};

}  // namespace

void measureDeadlines(const Options& options)
{
    Deadlines deadlines(options);
    deadlines.run();
    deadlines.print();
}
