#include "endpoint.h"
#include "frames.h"
#include "options.h"
#include "replay.h"

#include <cinttypes>
#include <cstdio>
#include <vector>

namespace {

using std::chrono::milliseconds;

constexpr milliseconds moment{100};
constexpr milliseconds quietTime{50};  // at the end, for what should not come
constexpr unsigned bitsPerByte = 8;

/// One sender, one receiver, a link without delay; every frame gets an outcome, delivered or lost. Sees what
/// comes out of the link bit by bit.
class Corruption
{
public:
    explicit Corruption(const Options& options);

    void run();
    void print() const;

private:
    void _refill();
    void _pump(milliseconds patienceForInput);
    void _takeOutcome(char outcome);
    void _takeFrame(const std::string& frame);
    void _countFlips(const std::string& frame, const std::string& original);
    void _compareWithReplay(const std::string& frame);
    void _finishReplay();
    std::uint64_t _outcomes() const { return _delivered + _lost; }
    bool _everyCorruptedFrameArrives() const { return _options.detection == 0; }

    const Options _options;
    const Frames _frames;
    Endpoint _receiver;
    Endpoint _sender;
    const std::uint64_t _window;  // frames without an outcome

    std::uint64_t _sent = 0;
    std::uint64_t _delivered = 0;  // as the sender was told
    std::uint64_t _lost = 0;       // likewise
    std::uint64_t _received = 0;
    std::uint64_t _intact = 0;
    std::uint64_t _nextIntact = 0;  // no intact frame of a lower number may come any more
    std::uint64_t _orderErrors = 0;
    std::uint64_t _strays = 0;  // messages that are none of the expected ones

    Replay _replay;
    std::uint64_t _replayed = 0;  // frames
    std::uint64_t _differences = 0;

    std::vector<std::uint64_t> _framesByFlips;
    std::vector<std::uint64_t> _flipsByBit;  // byte by byte, the lowest bit first
};

Corruption::Corruption(const Options& options)
    : _options(options)
    , _frames(0, options.frameBytes)
    , _receiver(options.port, 1, Endpoint::Awaited)
    , _sender(options.port, 0, Endpoint::Coming)
    , _window(Wire::maximalBytesInFlight / _frames.messageBytes())
    , _replay(options.seed, options.reliability, options.detection)
    , _framesByFlips(options.frameBytes * bitsPerByte + 1)
    , _flipsByBit(options.frameBytes * bitsPerByte)
{
}

void Corruption::run()
{
    Clock::time_point lastProgress = Clock::now();
    std::uint64_t before = 0;
    while (_outcomes() < _options.frames || _received < _delivered) {
        _refill();
        _pump(moment);
        if (_outcomes() + _received != before)
            lastProgress = Clock::now();
        else if (Clock::now() - lastProgress > patience)
            break;  // the figures tell
        before = _outcomes() + _received;
    }
    const Clock::time_point end = Clock::now() + quietTime;
    while (Clock::now() < end)
        _pump(quietTime);
    _finishReplay();
}

void Corruption::_refill()
{
    std::string messages;
    for (; _sent < _options.frames && _sent < _outcomes() + _window; ++_sent)
        messages += _frames.message(_sent);
    if (!messages.empty())
        _sender.send(messages);
}

void Corruption::_pump(milliseconds patienceForInput)
{
    awaitInput({&_sender, &_receiver}, patienceForInput);
    _receiver.receive(
        [this](std::uint8_t, const char* body, std::size_t bytes) { _takeFrame(std::string(body, bytes)); });
    _sender.receive([this](std::uint8_t type, const char* body, std::size_t) {
        if (type == Wire::Confirmation)
            _takeOutcome(*body);
        else
            ++_strays;
    });
}

void Corruption::_takeOutcome(char outcome)
{
    ++(outcome == Wire::Delivered ? _delivered : _lost);
}

/// Where nothing is lost the n-th frame that arrives is the n-th that was sent. Else only an intact one can
/// be told from the others.
void Corruption::_takeFrame(const std::string& frame)
{
    const std::uint64_t number = _frames.numberOf(frame, _sent);
    const bool isIntact = number < _sent;
    const std::uint64_t expected = _everyCorruptedFrameArrives() ? _received : number;
    _orderErrors += isIntact && (number < _nextIntact || number != expected);
    if (isIntact)
        _nextIntact = number + 1;
    _intact += isIntact;
    _compareWithReplay(frame);
    if (_everyCorruptedFrameArrives())
        _countFlips(frame, _frames.frame(_received));
    ++_received;
}

void Corruption::_countFlips(const std::string& frame, const std::string& original)
{
    if (frame.size() != original.size()) {
        ++_strays;
        return;
    }
    std::size_t flips = 0;
    for (std::size_t byte = 0; byte < frame.size(); ++byte) {
        const auto mask = static_cast<unsigned char>(frame[byte] ^ original[byte]);
        for (unsigned bit = 0; mask >> bit != 0; ++bit) {
            const unsigned isFlipped = mask >> bit & 1U;
            flips += isFlipped;
            _flipsByBit[byte * bitsPerByte + bit] += isFlipped;
        }
    }
    ++_framesByFlips[flips];
}

void Corruption::_compareWithReplay(const std::string& frame)
{
    while (_replayed < _sent) {
        _replay.nextFrame(_options.frameBytes);
        const std::uint64_t number = _replayed++;
        if (!_replay.arrives())
            continue;
        std::string expected = _frames.frame(number);
        for (std::size_t i = 0; i < _replay.mask().size(); ++i)
            expected[i] = static_cast<char>(expected[i] ^ _replay.mask()[i]);
        _differences += frame != expected;
        return;
    }
    ++_differences;
}

/// What should have arrived and has not.
void Corruption::_finishReplay()
{
    for (; _replayed < _sent; ++_replayed) {
        _replay.nextFrame(_options.frameBytes);
        _differences += _replay.arrives();
    }
}

void Corruption::print() const
{
    const struct {
        const char* name;
        std::uint64_t value;
    } figures[] = {{"sent", _sent},
                   {"received", _received},
                   {"intact", _intact},
                   {"delivered", _delivered},
                   {"lost", _lost},
                   {"strays", _strays},
                   {"order_errors", _orderErrors},
                   {"replay_differences", _differences}};
    std::printf("{");
    for (const auto& figure : figures)
        std::printf("\"%s\": %" PRIu64 ", ", figure.name, figure.value);
    std::printf("\"frames_by_flips\": {");
    const char* separator = "";
    for (std::size_t flips = 0; flips < _framesByFlips.size(); ++flips) {
        if (_framesByFlips[flips] == 0)
            continue;
        std::printf("%s\"%zu\": %" PRIu64, separator, flips, _framesByFlips[flips]);
        separator = ", ";
    }
    std::printf("}, \"flips_by_bit\": [");
    for (std::size_t bit = 0; bit < _flipsByBit.size(); ++bit)
        std::printf("%s%" PRIu64, bit == 0 ? "" : ", ", _flipsByBit[bit]);
    std::printf("]}\n");
}

}  // namespace

void measureCorruption(const Options& options)
{
    Corruption corruption(options);
    corruption.run();
    corruption.print();
}
