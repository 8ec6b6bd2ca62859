#include "network/timeoutscheduler.h"

#include "network/timeouts.h"

#include <QCoreApplication>
#include <QPointer>
#include <QTimerEvent>

#include <cstddef>
#include <functional>

namespace {

constexpr qint64 nanosecondsPerMillisecond = 1000000;
constexpr qint64 wakePeriod = 100000;  // ns; what falls due within one shares a wake-up at its end
constexpr qint64 longestWait = std::numeric_limits<int>::max();  // ms, of a toolkit timer

qint64 roundedUpToMilliseconds(qint64 nanoseconds)
{
    return (nanoseconds + nanosecondsPerMillisecond - 1) / nanosecondsPerMillisecond;
}

qint64 endOfWakePeriod(qint64 nanoseconds)
{
    return (nanoseconds + wakePeriod - 1) / wakePeriod * wakePeriod;
}

}  // namespace

TimeoutScheduler& TimeoutScheduler::instance()
{
    static QPointer<TimeoutScheduler> scheduler;
    if (!scheduler)
        scheduler = new TimeoutScheduler(QCoreApplication::instance());
    return *scheduler;
}

TimeoutScheduler::TimeoutScheduler(QObject* parent)
    : QObject(parent)
{
    if (!_wakeUpTimer.isValid())
        return;
    _notifier = std::make_unique<QSocketNotifier>(_wakeUpTimer.descriptor(), QSocketNotifier::Read);
    connect(_notifier.get(), SIGNAL(activated(int)), this, SLOT(_wakeUp()));
}

TimeoutScheduler::~TimeoutScheduler()
{
    for (const Entry& entry : _heap)
        entry.timeouts->_heapIndex = -1;
}

/// To be called after a due time was added to or taken from \a timeouts.
void TimeoutScheduler::update(Timeouts* timeouts)
{
    if (timeouts->_isEmpty()) {
        remove(timeouts);
        return;
    }
    const Entry entry{timeouts->_nextDueTime(), timeouts};
    if (timeouts->_heapIndex < 0) {
        timeouts->_heapIndex = static_cast<int>(_heap.size());
        _heap.push_back(entry);
    }
    _place(entry, timeouts->_heapIndex);
    _siftUp(timeouts->_heapIndex);
    _siftDown(timeouts->_heapIndex);
    if (_passTime < 0)
        _arm();
}

void TimeoutScheduler::remove(Timeouts* timeouts)
{
    const int index = timeouts->_heapIndex;
    if (index < 0)
        return;

    const Entry last = _heap.back();
    _heap.pop_back();
    timeouts->_heapIndex = -1;
    if (last.timeouts == timeouts)
        return;
    _place(last, index);
    _siftUp(index);
    _siftDown(last.timeouts->_heapIndex);
}

void TimeoutScheduler::timerEvent(QTimerEvent* event)
{
    if (event->timerId() == _substitute.timerId()) {
        _substitute.stop();
        _wakeTime = never;
    }
    _runPass();
}

void TimeoutScheduler::_wakeUp()
{
    _wakeUpTimer.takeExpiration();
    _wakeTime = never;
    _runPass();
}

void TimeoutScheduler::_runPass()
{
    if (_passTime >= 0)
        return;        // inside an event loop of a handler's own: the pass goes on when the handler is back
    _nextPass.stop();  // or it would fire all the time in that event loop
    _runDueHandlers();
    _arm();
}

/// A handler may delete its owner and with it its Timeouts: nothing of them is touched once it has been
/// called.
void TimeoutScheduler::_runDueHandlers()
{
    _passTime = KernelTimer::now();
    while (!_heap.empty() && _heap.front().dueTime <= _passTime) {
        Timeouts* timeouts = _heap.front().timeouts;
        timeouts->_dropNextDueTime();
        update(timeouts);
        const std::function<void()> handler = timeouts->_handler;
        handler();
    }
    _passTime = -1;
}

/// Leaves an earlier wake-up alone: it arms the right one.
void TimeoutScheduler::_arm()
{
    if (_heap.empty() || _nextPass.isActive())
        return;
    const qint64 dueTime = _heap.front().dueTime;
    if (dueTime <= KernelTimer::now())
        _nextPass.start(0, Qt::PreciseTimer, this);
    else if (endOfWakePeriod(dueTime) < _wakeTime)
        _wakeAt(endOfWakePeriod(dueTime));
}

void TimeoutScheduler::_wakeAt(qint64 time)
{
    _wakeTime = time;
    if (_wakeUpTimer.isValid()) {
        _wakeUpTimer.start(time);
        return;
    }
    const qint64 wait = roundedUpToMilliseconds(time - KernelTimer::now());
    _substitute.start(static_cast<int>(qBound<qint64>(0, wait, longestWait)), Qt::PreciseTimer, this);
}

void TimeoutScheduler::_place(const Entry& entry, int index)
{
    _heap[static_cast<size_t>(index)] = entry;
    entry.timeouts->_heapIndex = index;
}

void TimeoutScheduler::_siftUp(int index)
{
    const Entry moved = _heap[static_cast<size_t>(index)];
    while (index > 0) {
        const int parent = (index - 1) / 2;
        const Entry above = _heap[static_cast<size_t>(parent)];
        if (above.dueTime <= moved.dueTime)
            break;
        _place(above, index);
        index = parent;
    }
    _place(moved, index);
}

void TimeoutScheduler::_siftDown(int index)
{
    const Entry moved = _heap[static_cast<size_t>(index)];
    const size_t size = _heap.size();
    for (size_t child = 2 * static_cast<size_t>(index) + 1; child < size; child = 2 * child + 1) {
        if (child + 1 < size && _heap[child + 1].dueTime < _heap[child].dueTime)
            ++child;
        const Entry below = _heap[child];
        if (moved.dueTime <= below.dueTime)
            break;
        _place(below, index);
        index = static_cast<int>(child);
    }
    _place(moved, index);
}
