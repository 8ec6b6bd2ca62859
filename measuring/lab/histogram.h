#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>

/// Counts durations in nanoseconds in buckets that grow with the value: no percentile is off by more than 0.4
/// %.
class Histogram
{
public:
    void add(std::uint64_t nanoseconds)
    {
        ++_counts[bucketOf(nanoseconds)];
        ++_count;
        if (nanoseconds > _maximum)
            _maximum = nanoseconds;
    }

    void clear() { *this = Histogram(); }

    std::uint64_t count() const { return _count; }
    std::uint64_t maximum() const { return _maximum; }

    /// The smallest recorded value that at least this share (0 to 1) of all values does not exceed; 0 if
    /// empty.
    std::uint64_t percentile(double share) const
    {
        const auto rank = static_cast<std::uint64_t>(std::ceil(share * static_cast<double>(_count)));
        std::uint64_t seen = 0;
        for (std::size_t bucket = 0; bucket < _counts.size(); ++bucket) {
            seen += _counts[bucket];
            if (seen > 0 && seen >= rank)
                return std::min(middleOf(bucket), _maximum);
        }
        return 0;
    }

private:
    // Values below 256 have a bucket each; above, every power of two is cut into 128 buckets of equal width.
    static constexpr unsigned precisionBits = 7;
    static constexpr std::uint64_t bucketsPerOctave = 1U << precisionBits;
    static constexpr std::size_t bucketCount = (64 - precisionBits + 1) * bucketsPerOctave;

    static std::size_t bucketOf(std::uint64_t value)
    {
        if (value < 2 * bucketsPerOctave)
            return value;
        const unsigned topBit = 63U - static_cast<unsigned>(__builtin_clzll(value));
        const unsigned shift = topBit - precisionBits;
        return shift * bucketsPerOctave + (value >> shift);
    }

    static std::uint64_t middleOf(std::size_t bucket)
    {
        if (bucket < 2 * bucketsPerOctave)
            return bucket;
        const std::uint64_t shift = bucket / bucketsPerOctave - 1;
        const std::uint64_t lowest = (bucket - shift * bucketsPerOctave) << shift;
        return lowest + ((std::uint64_t{1} << shift) >> 1);
    }

    std::array<std::uint64_t, bucketCount> _counts{};
    std::uint64_t _count = 0;
    std::uint64_t _maximum = 0;
};
