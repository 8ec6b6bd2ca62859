#include "core/timeoutscheduler.h"

#include "core/timeouts.h"

#include <QCoreApplication>
#include <QTimerEvent>

#include <algorithm>
#include <functional>

namespace {

constexpr qint64 wakePeriod = 100000;   // ns; all that falls due within one shares a wake-up at its end
constexpr int handlersPerReading = 64;  // of the clock; as many take a tenth of a millisecond or so
constexpr qint64 longestLeisure = KernelTimer::millisecond;
constexpr qint64 longestWait = std::numeric_limits<int>::max();  // ms, of a Qt timer

qint64 roundedUpToMilliseconds(qint64 nanoseconds)
{
    return (nanoseconds + KernelTimer::millisecond - 1) / KernelTimer::millisecond;
}

qint64 endOfWakePeriod(qint64 nanoseconds)
{
    return (nanoseconds + wakePeriod - 1) / wakePeriod * wakePeriod;
}

}  // namespace

TimeoutScheduler* TimeoutScheduler::_instance = nullptr;

TimeoutScheduler::TimeoutScheduler(QObject* parent)
    : QObject(parent)
{
    if (!_wakeUpTimer.isValid())
        return;
    _notifier = std::make_unique<QSocketNotifier>(_wakeUpTimer.descriptor(), QSocketNotifier::Read);
    connect(_notifier.get(), SIGNAL(activated(int)), this, SLOT(_wakeUp()));
}

void TimeoutScheduler::_create()
{
    _instance = new TimeoutScheduler(QCoreApplication::instance());
}

TimeoutScheduler::~TimeoutScheduler()
{
    _instance = nullptr;
}

/// Sorts \a timeouts anew. Call it after each new or removed due time.
void TimeoutScheduler::update(Timeouts* timeouts)
{
    _heapOf(*timeouts).update(timeouts);
    if (_passTime < 0)
        _arm();
}

void TimeoutScheduler::remove(Timeouts* timeouts)
{
    _heapOf(*timeouts).remove(timeouts);
    if (timeouts->_isEnding)
        std::replace(_ending.begin(), _ending.end(), timeouts, static_cast<Timeouts*>(nullptr));
}

bool TimeoutScheduler::beginPass()
{
    if (_passTime >= 0)
        return false;
    _passTime = readClock();
    _runLeisurelyHandlers();
    return true;
}

void TimeoutScheduler::endPass()
{
    _runEndingHandlers();
    _passTime = -1;
    _arm();
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
    if (!beginPass())
        return;        // inside an event loop of a handler's own: the pass goes on when the handler is back
    _nextPass.stop();  // or it would fire all the time in that event loop
    for (int i = 1; _isDue(_punctual); ++i) {
        _runNextHandler(_punctual);
        _runLeisurelyHandlers();
        if (i % handlersPerReading == 0)
            readClock();
    }
    endPass();
}

/// Runs what falls due before all that is punctual: however late a pass is, due times keep their order.
void TimeoutScheduler::_runLeisurelyHandlers()
{
    while (_isDue(_leisurely) && (_punctual.isEmpty() || _leisurely.dueTime() <= _punctual.dueTime()))
        _runNextHandler(_leisurely);
}

/// Touches nothing of the Timeouts once it has called the handler, which may delete its owner and them.
void TimeoutScheduler::_runNextHandler(TimeoutHeap& heap)
{
    Timeouts* timeouts = heap.first();
    timeouts->_dropNextDueTime();
    heap.update(timeouts);
    const std::function<void()> handler = timeouts->_handler;
    handler();
}

void TimeoutScheduler::_runEndingHandlers()
{
    for (size_t i = 0; i < _ending.size(); ++i) {
        if (!_ending[i])
            continue;
        _ending[i]->_isEnding = false;
        const std::function<void()> handler = _ending[i]->_handler;
        handler();
    }
    _ending.clear();
}

/// Leaves an earlier wake-up alone: that one arms the next.
void TimeoutScheduler::_arm()
{
    if (_nextPass.isActive())
        return;
    if (!_punctual.isEmpty() && _punctual.dueTime() <= readClock()) {
        _nextPass.start(0, Qt::PreciseTimer, this);
        return;
    }
    qint64 wakeTime = never;
    if (!_punctual.isEmpty())
        wakeTime = endOfWakePeriod(_punctual.dueTime());
    if (!_leisurely.isEmpty())
        wakeTime = std::min(wakeTime, _leisurely.dueTime() + longestLeisure);
    if (wakeTime < _wakeTime)
        _wakeAt(wakeTime);
}

TimeoutHeap& TimeoutScheduler::_heapOf(const Timeouts& timeouts)
{
    return timeouts._isLeisurely ? _leisurely : _punctual;
}

void TimeoutScheduler::_wakeAt(qint64 time)
{
    _wakeTime = time;
    if (_wakeUpTimer.isValid()) {
        _wakeUpTimer.start(time);
        return;
    }
    const qint64 wait = roundedUpToMilliseconds(time - readClock());
    _substitute.start(static_cast<int>(qBound<qint64>(0, wait, longestWait)), Qt::PreciseTimer, this);
}
