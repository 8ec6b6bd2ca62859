#pragma once

#include <cstddef>
#include <cstdint>

/// What one measurement is to do. The simulation file says the same to the simulator.
struct Options {
    std::uint16_t port = 0;
    std::uint64_t frames = 1000;  // of each sender
    std::size_t frameBytes = 12;
    int pairs = 1;             // node 0 sends to node 1, 2 to 3...; a node without a link comes behind them
    double rate = 0.0;         // frames per second; 0: the next one when the last one has arrived
    std::uint32_t seed = 1;    // of the simulator's random numbers
    double reliability = 1.0;  // per bit
    double detection = 1.0;    // per corrupted frame
};

/// Each prints one line of JSON.
void measureCorruption(const Options& options);
void measureDeadlines(const Options& options);
void measureTiming(const Options& options);
