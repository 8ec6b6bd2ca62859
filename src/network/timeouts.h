#pragma once

#include <QtGlobal>

#include <functional>
#include <queue>
#include <vector>

/// Any number of pending single-shot timeouts of one owner: the handler runs once for each as it falls due.
///
/// The toolkit's own list of timers is searched from end to end, so one toolkit timer a frame stalls the
/// program at some ten thousand frames in flight, and its timers are up to a millisecond late. Here all
/// owners share one timer of the kernel and the cost of a timeout does not grow with their number. Due times
/// are kept to the nanosecond; handlers are never early and wait a tenth of a millisecond at most for others
/// to share a wake-up with. Equal or not, the handler runs for each due time. What is still pending when the
/// object is destroyed never runs. GUI thread only.
class Timeouts
{
public:
    explicit Timeouts(std::function<void()> handler);
    ~Timeouts();
    Q_DISABLE_COPY_MOVE(Timeouts)

    /// Due in \a delay milliseconds (0 or less: on the next pass of the event loop, never inside this call).
    void start(int delay);

    /// As start(), for handlers that are harmless to repeat: due at the end of a millisecond of the clock,
    /// and starts within one millisecond share one timeout. For one constant \a delay.
    void startShared(int delay);

    /// Due at the end of the pass that is running handlers right now; not for a handler to start itself
    /// again. Returns false, and starts nothing, when no pass is running.
    bool startAtEndOfPass();

private:
    friend class TimeoutScheduler;

    void _startAt(qint64 dueTime);

    bool _isEmpty() const { return _hasNoOrdered() && _unordered.empty(); }
    bool _hasNoOrdered() const { return _firstOrdered == _ordered.size(); }
    bool _isOrderedNext() const;
    qint64 _nextDueTime() const { return _isOrderedNext() ? _ordered[_firstOrdered] : _unordered.top(); }
    void _dropNextDueTime();

    std::function<void()> _handler;
    // In ns of the monotonic clock. With a constant delay all due times are in order, which costs less than a
    // heap.
    std::vector<qint64> _ordered;  // each at or after the one before
    size_t _firstOrdered = 0;      // those in front of it are over
    std::priority_queue<qint64, std::vector<qint64>, std::greater<qint64>> _unordered;  // the rest
    int _heapIndex = -1;  // place in the scheduler's heap; -1: nothing is pending
};
