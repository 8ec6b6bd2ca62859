#pragma once

#include "core/timeouts.h"

#include <functional>

/// Runs an action as often as it is asked for, but some 60 times a second at most. The last run follows the
/// last request, so that what the action shows is always true.
class Throttle
{
public:
    /// After a quiet time, the first \a runsAtOnce requests run the action at once. Those that follow share
    /// one run at the end of the pause. With 0, the first one waits for the next pass of the event loop.
    explicit Throttle(std::function<void()> action, int runsAtOnce = 1);

    void request();

    /// Adds \a nanoseconds to the least time that the present pause lasts: for actions that take long.
    void lengthenPause(qint64 nanoseconds) { _leastPause += nanoseconds; }

private:
    void _run();
    void _endPause();

    std::function<void()> _action;
    int _runsAtOnce;
    int _runsLeft;            // before requests wait for the end of the pause
    bool _isWaiting = false;  // a request has not been granted yet
    Timeouts _pause{[this] { _endPause(); }};
    qint64 _pauseStart = 0;  // ns of the monotonic clock
    qint64 _leastPause = 0;  // ns
};
