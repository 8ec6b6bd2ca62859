#pragma once

#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

struct ProcessTimes {
    double running = 0.0;  // seconds on a processor, user and system
    double waiting = 0.0;  // seconds ready to run while others ran

    ProcessTimes& operator+=(const ProcessTimes& other)
    {
        running += other.running;
        waiting += other.waiting;
        return *this;
    }
};

/// Sum over the threads; from the scheduler, since clock ticks of 10 ms are too coarse for short runs.
inline ProcessTimes timesOf(int pid)
{
    constexpr double nanosecondsPerSecond = 1e9;
    ProcessTimes times;
    std::error_code ignored;
    const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
    for (const auto& task : std::filesystem::directory_iterator(tasks, ignored)) {
        double running = 0.0;
        double waiting = 0.0;
        std::ifstream(task.path() / "schedstat") >> running >> waiting;
        times += {running / nanosecondsPerSecond, waiting / nanosecondsPerSecond};
    }
    return times;
}

/// Returns how long the main thread has waited so far while other programs had its processor core, in ns.
inline double processorWait()
{
    double running = 0.0;
    double waiting = 0.0;
    std::ifstream("/proc/self/schedstat") >> running >> waiting;
    return waiting;
}
