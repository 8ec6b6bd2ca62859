#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

/// The simulator's random numbers drawn a second time from the same seed, for links without a deviation of
/// the delay: says of each frame, in the order of sending, what has to become of it. Written from the
/// description of the draws alone, so that it checks the simulator and does not repeat it.
class Replay
{
public:
    Replay(std::uint32_t seed, double reliability, double detection);

    /// Draws the next frame's fate.
    void nextFrame(std::size_t bytes);

    bool arrives() const { return _arrives; }
    const std::string& mask() const { return _mask; }  // of flipped bits; empty: none

private:
    std::uint32_t _draw();
    void _skip(std::uint64_t draws);
    void _drawMask(std::size_t bytes);

    std::uint32_t _state;         // the last number drawn
    std::uint32_t _firstFlipped;  // bits whose draw is at least this are flipped
    double _detection;
    bool _arrives = true;
    std::string _mask;
};
