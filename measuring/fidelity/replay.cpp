#include "replay.h"

#include <array>

namespace {

constexpr unsigned modulusBits = 31;
constexpr std::uint32_t modulus = 2147483647;
constexpr std::uint32_t multiplier = 48271;
constexpr double scale = 2147483647.0;
constexpr unsigned bitsPerByte = 8;

/// Multiplies modulo 2^31 - 1, where 2^31 is 1: the upper bits are added to the lower ones. Neither factor is
/// 0.
constexpr std::uint32_t product(std::uint32_t a, std::uint32_t b)
{
    const std::uint64_t wide = std::uint64_t{a} * b;
    const auto folded = static_cast<std::uint32_t>((wide & modulus) + (wide >> modulusBits));
    return (folded & modulus) + (folded >> modulusBits);
}

/// Returns what leads from a number to the one after it, to the second after it...
constexpr std::array<std::uint32_t, bitsPerByte> factors()
{
    std::array<std::uint32_t, bitsPerByte> factors{multiplier};
    for (std::size_t i = 1; i < factors.size(); ++i)
        factors[i] = product(factors[i - 1], multiplier);
    return factors;
}

bool isFlipped(std::uint32_t draw, double reliability)
{
    return !(reliability > draw / scale);
}

/// Finds the smallest draw that flips a bit; the modulus itself, which is never drawn, when none does.
std::uint32_t firstFlippedDraw(double reliability)
{
    std::uint32_t low = 0;
    std::uint32_t high = modulus;
    while (low < high) {
        const std::uint32_t middle = low + (high - low) / 2;
        if (isFlipped(middle, reliability))
            high = middle;
        else
            low = middle + 1;
    }
    return low;
}

}  // namespace

Replay::Replay(std::uint32_t seed, double reliability, double detection)
    : _state(seed % modulus == 0 ? 1 : seed % modulus)
    , _firstFlipped(firstFlippedDraw(reliability))
    , _detection(detection)
{
}

void Replay::nextFrame(std::size_t bytes)
{
    _mask.clear();
    _arrives = true;
    if (_firstFlipped >= modulus)
        _skip(bytes * bitsPerByte);
    else
        _drawMask(bytes);
    if (!_mask.empty())
        _arrives = !(_detection > _draw() / scale);
}

std::uint32_t Replay::_draw()
{
    _state = product(_state, multiplier);
    return _state;
}

void Replay::_skip(std::uint64_t draws)
{
    for (std::uint32_t factor = multiplier; draws != 0; draws >>= 1, factor = product(factor, factor)) {
        if (draws & 1)
            _state = product(_state, factor);
    }
}

/// Draws once a bit, the lowest bit of a byte first. The draws of a byte do not wait for one another: else a
/// million long frames would take minutes.
void Replay::_drawMask(std::size_t bytes)
{
    static constexpr auto fromLast = factors();
    for (std::size_t byte = 0; byte < bytes; ++byte) {
        unsigned bits = 0;
        for (unsigned bit = 0; bit < bitsPerByte; ++bit)
            bits |= static_cast<unsigned>(product(_state, fromLast[bit]) >= _firstFlipped) << bit;
        _state = product(_state, fromLast.back());
        if (bits == 0)
            continue;
        if (_mask.empty())
            _mask.assign(bytes, '\0');
        _mask[byte] = static_cast<char>(bits);
    }
}
