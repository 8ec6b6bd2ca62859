#pragma once

#include "wiring.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>

/// The frames of one sender. Every frame is different, so that one in the place of another shows: its number,
/// scrambled, stands in the source address, which no link looks at, and decides all bytes behind it. A frame
/// whose bits were flipped passes for another one once in 2^38 times at the most.
class Frames
{
public:
    Frames(int sender, std::size_t bytes)
        : _start(nodeAddress(sender + 1))
        , _bytes(bytes)
    {
    }

    std::string frame(std::uint64_t number) const
    {
        std::string frame = _start;
        frame.resize(_bytes);
        const std::uint64_t mark = number * markFactor;
        std::memcpy(frame.data() + _start.size(), &mark, markBytes);
        std::uint64_t word = scrambled(number);
        for (std::size_t i = _start.size() + markBytes; i < _bytes; i += sizeof word) {
            std::memcpy(frame.data() + i, &word, std::min(sizeof word, _bytes - i));
            word = scrambled(word);
        }
        return frame;
    }

    /// Returns which of the first \a count frames this one is; \a count: none of them.
    std::uint64_t numberOf(const std::string& frame, std::uint64_t count) const
    {
        std::uint64_t mark = 0;
        if (frame.size() != _bytes)
            return count;
        std::memcpy(&mark, frame.data() + _start.size(), markBytes);
        const std::uint64_t number = mark * inverse(markFactor) & markMask;
        return number < count && frame == this->frame(number) ? number : count;
    }

private:
    static constexpr std::size_t markBytes = addressBytes;
    static constexpr std::uint64_t markMask = (std::uint64_t{1} << 8 * markBytes) - 1;
    static constexpr std::uint64_t markFactor = 0x5deece66d1U;  // odd, so that it has an inverse

    /// Inverts modulo 2^64. Each step doubles the number of right bits, of which an odd number itself gives
    /// three.
    static constexpr std::uint64_t inverse(std::uint64_t odd)
    {
        std::uint64_t result = odd;
        for (int step = 0; step < 5; ++step)
            result *= 2 - odd * result;
        return result;
    }

    /// Maps one to one; close numbers come out far apart.
    static std::uint64_t scrambled(std::uint64_t word)
    {
        word += 0x9e3779b97f4a7c15U;
        word = (word ^ (word >> 30)) * 0xbf58476d1ce4e5b9U;
        word = (word ^ (word >> 27)) * 0x94d049bb133111ebU;
        return word ^ (word >> 31);
    }

    std::string _start;  // the destination address
    std::size_t _bytes;
};
