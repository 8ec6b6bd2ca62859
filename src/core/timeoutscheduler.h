#pragma once

#include "core/kerneltimer.h"
#include "core/timeoutheap.h"

#include <QBasicTimer>
#include <QObject>
#include <QSocketNotifier>

#include <limits>
#include <memory>
#include <vector>

class Timeouts;

/// Runs the handlers of all Timeouts of the process. Lives as long as the application object.
class TimeoutScheduler : public QObject
{
    Q_OBJECT

public:
    static TimeoutScheduler& instance()
    {
        if (!_instance)
            _create();
        return *_instance;
    }

    ~TimeoutScheduler() override;

    /// Begins a pass, which runs what is due and then what is to run at its end. An event loop within a pass
    /// begins no other. Returns false when one is running already.
    bool beginPass();
    void endPass();
    qint64 passTime() const { return _passTime; }  // ns, when the present pass began; -1: none runs

    qint64 readClock() { return _lastReading = KernelTimer::now(); }  // ns of the monotonic clock
    qint64 lastReading() const { return _lastReading; }               // within a pass: a moment ago

    void runAtEndOfPass(Timeouts* timeouts) { _ending.push_back(timeouts); }  // not owned
    void update(Timeouts* timeouts);
    void remove(Timeouts* timeouts);

protected:
    void timerEvent(QTimerEvent* event) override;

private slots:
    void _wakeUp();

private:
    explicit TimeoutScheduler(QObject* parent);

    static void _create();

    void _runPass();
    bool _isDue(const TimeoutHeap& heap) const { return !heap.isEmpty() && heap.dueTime() <= _passTime; }
    void _runLeisurelyHandlers();
    void _runNextHandler(TimeoutHeap& heap);
    void _runEndingHandlers();
    void _arm();
    void _wakeAt(qint64 time);
    TimeoutHeap& _heapOf(const Timeouts& timeouts);

    static constexpr qint64 never = std::numeric_limits<qint64>::max();

    static TimeoutScheduler* _instance;  // the application object's; null before the first use

    TimeoutHeap _punctual;     // wakes up the program
    TimeoutHeap _leisurely;    // waits up to a millisecond for another reason to wake up
    QBasicTimer _nextPass;     // runs while something is due at once
    KernelTimer _wakeUpTimer;  // fires at the end of the earliest due time's wake period, or before it
    std::unique_ptr<QSocketNotifier> _notifier;  // of that timer; null when the kernel gave us none
    QBasicTimer _substitute;                     // a timer of Qt, used while there is no notifier
    qint64 _wakeTime = never;
    qint64 _lastReading = 0;
    qint64 _passTime = -1;           // what falls due up to here runs in the present pass
    std::vector<Timeouts*> _ending;  // to run at its end; null: gone meanwhile
};
