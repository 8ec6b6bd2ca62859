#pragma once

#include <QtGlobal>

#include <functional>
#include <queue>
#include <vector>

/// Holds any number of timeouts of one owner, and runs the owner's handler once for each that falls due.
///
/// Qt searches its list of timers from end to end. One Qt timer a frame would stall the program at some ten
/// thousand frames in flight. Its timers are also up to a millisecond late. Here all owners share one timer
/// of the kernel, and a timeout costs the same however many there are. Due times count nanoseconds, and no
/// handler runs early. Timeouts that fall due together still run the handler once each. Those that are
/// pending when the object dies never run. Use it in the GUI thread only.
class Timeouts
{
public:
    enum Punctuality {
        Punctual,   // due times wake the program up, at most a tenth of a millisecond late
        Leisurely,  // due times wait up to a millisecond for another reason to wake up
    };

    explicit Timeouts(std::function<void()> handler, Punctuality punctuality = Punctual);
    ~Timeouts();
    Q_DISABLE_COPY_MOVE(Timeouts)

    bool isPending() const { return _heapIndex >= 0; }

    /// Runs the handler in \a delay milliseconds. With 0 or less it runs on the next pass of the event loop,
    /// never inside this call.
    void start(int delay);

    /// Does as start(), for one constant \a delay and a handler that may run more often than needed. Of the
    /// starts within a millisecond, only the first and the last get a timeout. Outside of a
    /// pass, the handler runs for what is overdue before this returns. Within one, the time is that of a
    /// moment ago.
    void startShared(int delay);

    /// Runs the handler once at the end of the present pass. A handler may not start itself again in this
    /// way. Returns false, and starts nothing, when no pass is running.
    bool startAtEndOfPass();

    /// Makes one pass of what happens while it lives, such as handling all messages of one read. Within a
    /// pass that is running already, it does nothing.
    class Pass
    {
    public:
        Pass();
        ~Pass();
        Q_DISABLE_COPY_MOVE(Pass)

    private:
        bool _isOutermost;
    };

private:
    friend class TimeoutHeap;
    friend class TimeoutScheduler;

    void _startAt(qint64 dueTime);
    void _runOverdue(qint64 now);

    bool _isEmpty() const { return _hasNoOrdered() && _unordered.empty(); }
    bool _hasNoOrdered() const { return _firstOrdered == _ordered.size(); }
    bool _isOrderedNext() const;
    qint64 _nextDueTime() const { return _isOrderedNext() ? _ordered[_firstOrdered] : _unordered.top(); }
    void _dropNextDueTime();

    std::function<void()> _handler;
    bool _isLeisurely;
    // In ns of the monotonic clock. With a constant delay, due times come in order, which costs less than a
    // heap.
    std::vector<qint64> _ordered;  // each at or after the one before
    size_t _firstOrdered = 0;      // those before it are over
    std::priority_queue<qint64, std::vector<qint64>, std::greater<qint64>> _unordered;  // the rest
    bool _isEnding = false;  // runs at the end of the present pass
    int _heapIndex = -1;     // place in its heap; -1: nothing is pending
};
