#include "network/timeouts.h"

#include <QBasicTimer>
#include <QCoreApplication>
#include <QPointer>
#include <QSocketNotifier>
#include <QTimerEvent>

#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <limits>
#include <memory>
#include <utility>

namespace {

constexpr qint64 nanosecondsPerMillisecond = 1000000;
constexpr qint64 nanosecondsPerSecond = 1000000000;
constexpr qint64 wakePeriod = 100000;  // ns; what falls due within one shares a wake-up at its end
constexpr int sharingPeriod = 10;      // ms
constexpr qint64 longestWait = std::numeric_limits<int>::max();  // ms, of a toolkit timer
constexpr size_t fewestReclaimed = 1024;                         // due times that are over
constexpr qint64 never = std::numeric_limits<qint64>::max();

qint64 monotonicNanoseconds()
{
    return std::chrono::nanoseconds(std::chrono::steady_clock::now().time_since_epoch()).count();
}

qint64 roundedUpToMilliseconds(qint64 nanoseconds)
{
    return (nanoseconds + nanosecondsPerMillisecond - 1) / nanosecondsPerMillisecond;
}

qint64 endOfWakePeriod(qint64 nanoseconds)
{
    return (nanoseconds + wakePeriod - 1) / wakePeriod * wakePeriod;
}

/// The kernel's timer behind a descriptor, since those of the toolkit are up to a millisecond late: as much
/// as the shortest delay of a link. Fires once, at a time of the monotonic clock.
class KernelTimer
{
public:
    KernelTimer()
        : _descriptor(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC))
    {
    }

    ~KernelTimer()
    {
        if (isValid())
            close(_descriptor);
    }

    Q_DISABLE_COPY_MOVE(KernelTimer)

    bool isValid() const { return _descriptor >= 0; }  // false: all descriptors of the process are in use
    int descriptor() const { return _descriptor; }

    void start(qint64 nanoseconds) const
    {
        itimerspec times{};
        times.it_value.tv_sec = nanoseconds / nanosecondsPerSecond;
        times.it_value.tv_nsec = nanoseconds % nanosecondsPerSecond;
        timerfd_settime(_descriptor, TFD_TIMER_ABSTIME, &times, nullptr);
    }

    void takeExpiration() const
    {
        quint64 expirations = 0;
        const ssize_t ignored = read(_descriptor, &expirations, sizeof expirations);
        Q_UNUSED(ignored)
    }

private:
    int _descriptor;
};

}  // namespace

/// Runs the handlers of all Timeouts of the process: a heap of those that have something pending, ordered by
/// their next due time, and two timers. Lives as long as the application object.
class TimeoutScheduler : public QObject
{
    Q_OBJECT

public:
    static TimeoutScheduler& instance();
    ~TimeoutScheduler() override;

    qint64 passTime() const { return _passTime; }

    void update(Timeouts* timeouts);
    void remove(Timeouts* timeouts);

protected:
    void timerEvent(QTimerEvent* event) override;

private slots:
    void _wakeUp();

private:
    explicit TimeoutScheduler(QObject* parent);

    struct Entry {
        // The next one; kept here because following the pointer costs more than the comparison.
        qint64 dueTime;
        Timeouts* timeouts;  // not owned
    };

    void _runPass();
    void _runDueHandlers();
    void _arm();
    void _wakeAt(qint64 time);
    void _place(const Entry& entry, int index);
    void _siftUp(int index);
    void _siftDown(int index);

    std::vector<Entry> _heap;  // the earliest due time first
    QBasicTimer _nextPass;     // runs while something is due at once
    KernelTimer _wakeUpTimer;  // fires at the end of the earliest due time's wake period, or before it
    std::unique_ptr<QSocketNotifier> _notifier;  // of that timer; null when the kernel has none for us
    QBasicTimer _substitute;                     // of the toolkit, used while there is no notifier
    qint64 _wakeTime = never;
    qint64 _passTime = -1;  // what falls due up to here runs in the present pass; -1: none is running
};

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
    _passTime = monotonicNanoseconds();
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
    if (dueTime <= monotonicNanoseconds())
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
    const qint64 wait = roundedUpToMilliseconds(time - monotonicNanoseconds());
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

/// Makes the scheduler before programs can use up the file descriptors, of which it needs one.
Timeouts::Timeouts(std::function<void()> handler)
    : _handler(std::move(handler))
{
    if (QCoreApplication::instance())
        TimeoutScheduler::instance();
}

Timeouts::~Timeouts()
{
    if (_heapIndex >= 0)
        TimeoutScheduler::instance().remove(this);
}

void Timeouts::start(int delay)
{
    // Strictly after the present pass, so that two handlers that start each other leave room for the sockets.
    const qint64 now = std::max(monotonicNanoseconds(), TimeoutScheduler::instance().passTime() + 1);
    _startAt(now + std::max(delay, 0) * nanosecondsPerMillisecond);
}

void Timeouts::startShared(int delay)
{
    const qint64 millisecond = roundedUpToMilliseconds(monotonicNanoseconds());
    if (millisecond < _sharedUntil)
        return;
    _sharedUntil = millisecond + qBound(0, delay, sharingPeriod);
    _startAt((millisecond + std::max(delay, 0)) * nanosecondsPerMillisecond);
}

bool Timeouts::startAtEndOfPass()
{
    const qint64 passTime = TimeoutScheduler::instance().passTime();
    if (passTime < 0)
        return false;
    _startAt(passTime);
    return true;
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

/// Not to be asked while nothing is pending.
bool Timeouts::_isOrderedNext() const
{
    return _unordered.empty() || (!_hasNoOrdered() && _ordered[_firstOrdered] <= _unordered.top());
}

/// Room of those that are over is reclaimed when they are the larger part: a constant cost for each.
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

#include "timeouts.moc"
