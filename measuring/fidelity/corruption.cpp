#include "measurement.h"
#include "replay.h"

#include <algorithm>

namespace {

constexpr unsigned bitsPerByte = 8;

/// One pair, a link without delay; every frame gets an outcome, delivered or lost. Sees what comes out of the
/// link bit by bit.
class Corruption
{
public:
    explicit Corruption(const Options& options)
        : _options(options)
        , _pair(options, 0)
        , _replay(options.seed, options.reliability, options.detection)
        , _framesByFlips(options.frameBytes * bitsPerByte + 1)
        , _flipsByBit(options.frameBytes * bitsPerByte)
    {
    }

    void run()
    {
        repeat([this] { return _outcomes() >= _options.frames && _pair.received >= _pair.delivered; },
               [this] { return _outcomes() + _pair.received; }, [this](milliseconds wait) { _step(wait); });
        while (_replayArrival())
            ++_differences;  // it should have arrived, and has not
    }

    void print() const
    {
        Figures figures;
        for (const auto& figure : pairFigures)
            figures.add(figure.name, _pair.*figure.value);
        figures.add("intact", _intact);
        figures.add("replay_differences", _differences);
        figures.add("frames_by_flips", _framesByFlips);
        figures.add("flips_by_bit", _flipsByBit);
        figures.print();
    }

private:
    std::uint64_t _outcomes() const { return _pair.delivered + _pair.lost; }
    bool _everyCorruptedFrameArrives() const { return _options.detection == 0; }

    void _step(milliseconds wait)
    {
        _pair.sendUpTo(std::min(_options.frames, _outcomes() + _pair.burst));
        _pair.receive(wait, [this](const std::string& frame) { _takeFrame(frame); });
    }

    /// Tells the place of a frame. Where nothing is lost the n-th frame that arrives is the n-th that was
    /// sent. Else only an intact one can be told from the others.
    void _takeFrame(const std::string& frame)
    {
        const std::uint64_t number = _pair.frames.numberOf(frame, _pair.sent);
        const bool isIntact = number < _pair.sent;
        const std::uint64_t expected = _everyCorruptedFrameArrives() ? _pair.received : number;
        _pair.orderErrors += isIntact && (number < _nextIntact || number != expected);
        if (isIntact)
            _nextIntact = number + 1;
        _intact += isIntact;
        _compareWithReplay(frame);
        if (_everyCorruptedFrameArrives())
            _countFlips(frame, _pair.frames.frame(_pair.received));
    }

    void _countFlips(const std::string& frame, const std::string& original)
    {
        if (frame.size() != original.size()) {
            ++_pair.strays;
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

    void _compareWithReplay(const std::string& frame)
    {
        std::string expected;
        if (_replayArrival())
            expected = _pair.frames.frame(_replayed - 1);
        for (std::size_t i = 0; i < std::min(expected.size(), _replay.mask().size()); ++i)
            expected[i] = static_cast<char>(expected[i] ^ _replay.mask()[i]);
        _differences += frame != expected;
    }

    /// Draws on to the next frame that has to arrive; false: none of those that were sent.
    bool _replayArrival()
    {
        while (_replayed < _pair.sent) {
            _replay.nextFrame(_options.frameBytes);
            ++_replayed;
            if (_replay.arrives())
                return true;
        }
        return false;
    }

    const Options _options;
    Pair _pair;
    std::uint64_t _intact = 0;
    std::uint64_t _nextIntact = 0;  // no intact frame of a lower number may come any more

    Replay _replay;
    std::uint64_t _replayed = 0;  // frames
    std::uint64_t _differences = 0;

    std::vector<std::uint64_t> _framesByFlips;
    std::vector<std::uint64_t> _flipsByBit;  // byte by byte, the lowest bit first
};

}  // namespace

void measureCorruption(const Options& options)
{
    Corruption corruption(options);
    corruption.run();
    corruption.print();
}
