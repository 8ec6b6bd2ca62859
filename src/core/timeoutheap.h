#pragma once

#include <QtGlobal>

#include <vector>

class Timeouts;

/// Sorts the Timeouts that have something pending: the one with the earliest due time comes first.
class TimeoutHeap
{
public:
    ~TimeoutHeap();

    bool isEmpty() const { return _entries.empty(); }

    // Ask only while it is not empty
    qint64 dueTime() const { return _entries.front().dueTime; }  // ns of the monotonic clock
    Timeouts* first() const { return _entries.front().timeouts; }

    /// Puts \a timeouts, which it does not own, into its place. Call it after each new or removed due time.
    void update(Timeouts* timeouts);
    void remove(Timeouts* timeouts);

private:
    struct Entry {
        // The next one. It is kept here because following the pointer costs more than the comparison.
        qint64 dueTime;
        Timeouts* timeouts;
    };

    void _place(const Entry& entry, int index);
    void _siftUp(int index);
    void _siftDown(int index);

    std::vector<Entry> _entries;
};
