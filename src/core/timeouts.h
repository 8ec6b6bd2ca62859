#pragma once

#include <QtGlobal>

#include <functional>
#include <queue>
#include <vector>

/// Any number of pending single-shot timeouts of one owner: the handler runs once for each as it falls due.
///
/// Qt searches its own list of timers from end to end, so that one Qt timer a frame stalls the program at
/// some ten thousand frames in flight, and its timers are up to a millisecond late. Here all owners share one
/// timer of the kernel and the cost of a timeout does not grow with their number. Due times are kept to the
/// nanosecond; handlers are never early. Equal or not, the handler runs for each due time of start(). What is
/// still pending when the object is destroyed never runs. GUI thread only.
class Timeouts
{
public:
    enum Punctuality {
        Punctual,   // due times wake the program up, at most a tenth of a millisecond late
        Leisurely,  // they wait up to a millisecond for another reason to wake up
    };

    explicit Timeouts(std::function<void()> handler, Punctuality punctuality = Punctual);
    ~Timeouts();
    Q_DISABLE_COPY_MOVE(Timeouts)

    bool isPending() const { return _heapIndex >= 0; }

    /// Due in \a delay milliseconds (0 or less: on the next pass of the event loop, never inside this call).
    void start(int delay);

    /// As start(), for handlers that are harmless to repeat and one constant \a delay: of the starts within a
    /// millisecond, those between the first and the last have no timeout of their own. Outside of a pass, the
    /// handler runs for what is overdue before this returns. Within one, the time is that of a moment ago.
    void startShared(int delay);

    /// Runs the handler once at the end of the present pass; not for a handler to start itself again. Returns
    /// false, and starts nothing, when no pass is running.
    bool startAtEndOfPass();

    /// What belongs together, such as all messages of one read, while this lives: a pass without due times,
    /// unless one is running already.
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
    // In ns of the monotonic clock. With a constant delay all due times are in order, which costs less than a
    // heap.
    std::vector<qint64> _ordered;  // each at or after the one before
    size_t _firstOrdered = 0;      // those in front of it are over
    std::priority_queue<qint64, std::vector<qint64>, std::greater<qint64>> _unordered;  // the rest
    bool _isEnding = false;  // runs at the end of the present pass
    int _heapIndex = -1;     // place in its heap; -1: nothing is pending
};
