#include "core/throttle.h"

#include "core/kerneltimer.h"

#include <utility>

namespace {

constexpr int shortestPause = 16;  // ms, some 60 pictures a second

}  // namespace

Throttle::Throttle(std::function<void()> action, int runsAtOnce)
    : _action(std::move(action))
    , _runsAtOnce(runsAtOnce)
    , _runsLeft(runsAtOnce)
{
}

void Throttle::request()
{
    if (_runsLeft > 0) {
        --_runsLeft;
        _run();
        return;
    }
    _isWaiting = true;
    if (!_pause.isPending())
        _pause.start(0);
}

void Throttle::_run()
{
    _isWaiting = false;
    if (!_pause.isPending()) {
        _pauseStart = KernelTimer::now();
        _leastPause = 0;
        _pause.start(shortestPause);
    }
    _action();
}

void Throttle::_endPause()
{
    const qint64 missing = _leastPause - (KernelTimer::now() - _pauseStart);
    if (missing >= KernelTimer::millisecond)
        _pause.start(static_cast<int>(missing / KernelTimer::millisecond));
    else if (_isWaiting)
        _run();
    else
        _runsLeft = _runsAtOnce;
}
