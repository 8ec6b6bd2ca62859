#pragma once

#include "endpoint.h"
#include "frames.h"

#include <cstdio>
#include <vector>

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

/// What a measurement prints: one line of JSON.
class Figures
{
public:
    void add(const std::string& name, std::uint64_t value) { _addText(name, std::to_string(value)); }

    void add(const std::string& name, const std::vector<std::uint64_t>& values)
    {
        std::string text;
        for (const std::uint64_t value : values)
            text += (text.empty() ? "" : ", ") + std::to_string(value);
        _addText(name, "[" + text + "]");
    }

    void print() const { std::printf("{%s}\n", _members.c_str()); }

private:
    void _addText(const std::string& name, const std::string& value)
    {
        _members += (_members.empty() ? "\"" : ", \"") + name + "\": " + value;
    }

    std::string _members;
};

// The simulator might not handle more in one look at the sender's socket.
constexpr std::size_t burstBytes = std::size_t{16} * 1024;

/// A sender and its receiver, and what came of the frames between them.
struct Pair {
    Pair(const Options& options, int number)
        : burst(burstBytes / (LATTIVO_HEADER_SIZE + options.frameBytes))
        , frames(2 * number, options.frameBytes)
        , receiver(options.port, 2 * number + 1)
        , sender(options.port, 2 * number)
    {
        receiver.awaitAttachment();
    }

    /// Sends all frames below the number \a end that have not been sent.
    void sendUpTo(std::uint64_t end)
    {
        for (; sent < end; ++sent)
            sender.send(frames.frame(sent));
        sender.flush();
    }

    /// Counts what has come, and calls \a takeFrame for each frame before it counts. Waits for an outcome.
    template <typename TakeFrame> void receive(milliseconds wait, TakeFrame takeFrame)
    {
        sender.receive(wait, [this](const lattivo_message& message) {
            if (message.type == LATTIVO_MESSAGE_CONFIRMATION)
                ++(message.outcome == LATTIVO_DELIVERED ? delivered : lost);
            else
                ++strays;
        });
        receiver.receive(milliseconds(0), [&](const lattivo_message& message) {
            if (message.type == LATTIVO_MESSAGE_FRAME) {
                takeFrame(bytesOf(message));
                ++received;
            } else {
                ++strays;
            }
        });
    }

    static std::string bytesOf(const lattivo_message& message)
    {
        return {reinterpret_cast<const char*>(message.frame), message.size};
    }

    const std::uint64_t burst;  // frames
    const Frames frames;
    Endpoint receiver;
    Endpoint sender;
    std::uint64_t sent = 0;
    std::uint64_t received = 0;
    std::uint64_t delivered = 0;  // as the sender was told
    std::uint64_t lost = 0;       // likewise
    std::uint64_t orderErrors = 0;
    std::uint64_t strays = 0;  // messages that are none of the expected ones
};

constexpr struct {
    const char* name;
    std::uint64_t Pair::*value;
} pairFigures[]
    = {{"sent", &Pair::sent}, {"received", &Pair::received}, {"delivered", &Pair::delivered},
       {"lost", &Pair::lost}, {"strays", &Pair::strays},     {"order_errors", &Pair::orderErrors}};

/// Calls \a step with the time that it may wait, until all is done. Gives up when \a progress stands still:
/// the figures tell. Goes on for a moment, for what should not come.
template <typename IsDone, typename Progress, typename Step>
void repeat(IsDone isDone, Progress progress, Step step)
{
    constexpr milliseconds moment{10};
    constexpr milliseconds quietTime{50};
    Clock::time_point lastProgress = Clock::now();
    while (!isDone() && Clock::now() - lastProgress < patience) {
        const std::uint64_t before = progress();
        step(moment);
        if (progress() != before)
            lastProgress = Clock::now();
    }
    for (const auto end = Clock::now() + quietTime; Clock::now() < end;)
        step(quietTime);
}
