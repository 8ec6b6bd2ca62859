#include "core/timeouts.h"

#include "core/timeoutscheduler.h"

#include <QCoreApplication>

#include <algorithm>
#include <cstddef>
#include <utility>

namespace {

constexpr size_t fewestReclaimed = 1024;  // due times that are over

}  // namespace

/// Makes the scheduler, which needs a file descriptor, before programs can use them all up.
Timeouts::Timeouts(std::function<void()> handler, Punctuality punctuality)
    : _handler(std::move(handler))
    , _isLeisurely(punctuality == Leisurely)
{
    if (QCoreApplication::instance())
        TimeoutScheduler::instance();
}

Timeouts::~Timeouts()
{
    if (_heapIndex >= 0 || _isEnding)
        TimeoutScheduler::instance().remove(this);
}

void Timeouts::start(int delay)
{
    // It falls due after the present pass, so that two handlers that start each other leave the sockets a
    // turn.
    TimeoutScheduler& scheduler = TimeoutScheduler::instance();
    const qint64 now = std::max(scheduler.readClock(), scheduler.passTime() + 1);
    _startAt(now + std::max(delay, 0) * KernelTimer::millisecond);
}

void Timeouts::startShared(int delay)
{
    TimeoutScheduler& scheduler = TimeoutScheduler::instance();
    const bool isInPass = scheduler.passTime() >= 0;
    const qint64 now = isInPass ? scheduler.lastReading() : scheduler.readClock();
    if (!isInPass && !_isEmpty() && _nextDueTime() <= now)
        _runOverdue(now);
    const qint64 dueTime = now + std::max(delay, 0) * KernelTimer::millisecond;
    const size_t pending = _ordered.size() - _firstOrdered;
    if (pending >= 2 && _ordered[_ordered.size() - 2] > dueTime - KernelTimer::millisecond)
        _ordered.back() = dueTime;
    else
        _startAt(dueTime);
}

/// Runs the handler once for all that is overdue. Such a handler may run more often, and does not delete its
/// owner.
void Timeouts::_runOverdue(qint64 now)
{
    while (!_isEmpty() && _nextDueTime() <= now)
        _dropNextDueTime();
    TimeoutScheduler::instance().update(this);
    _handler();
}

bool Timeouts::startAtEndOfPass()
{
    if (TimeoutScheduler::instance().passTime() < 0)
        return false;
    if (!_isEnding)
        TimeoutScheduler::instance().runAtEndOfPass(this);
    _isEnding = true;
    return true;
}

Timeouts::Pass::Pass()
    : _isOutermost(TimeoutScheduler::instance().beginPass())
{
}

Timeouts::Pass::~Pass()
{
    if (_isOutermost)
        TimeoutScheduler::instance().endPass();
}

void Timeouts::_startAt(qint64 dueTime)
{
    const bool isNext = _heapIndex < 0 || dueTime < _nextDueTime();
    if (_hasNoOrdered() || dueTime >= _ordered.back())
        _ordered.push_back(dueTime);
    else
        _unordered.push(dueTime);
    if (isNext)
        TimeoutScheduler::instance().update(this);
}

/// Tells which of the two holds the next due time. Ask only while one is pending.
bool Timeouts::_isOrderedNext() const
{
    return _unordered.empty() || (!_hasNoOrdered() && _ordered[_firstOrdered] <= _unordered.top());
}

/// Takes the next due time out. Frees the room of those that are over once they are the larger part, so that
/// the cost of each stays constant.
void Timeouts::_dropNextDueTime()
{
    if (!_isOrderedNext()) {
        _unordered.pop();
        return;
    }
    ++_firstOrdered;
    if (_hasNoOrdered() || _firstOrdered > std::max(_ordered.size() / 2, fewestReclaimed)) {
        _ordered.erase(_ordered.begin(), _ordered.begin() + static_cast<std::ptrdiff_t>(_firstOrdered));
        _firstOrdered = 0;
    }
}
