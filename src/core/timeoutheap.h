#pragma once

#include <QtGlobal>

#include <vector>

class Timeouts;

/// Those Timeouts that have something pending, the one with the earliest due time first.
class TimeoutHeap
{
public:
    ~TimeoutHeap();

    bool isEmpty() const { return _entries.empty(); }

    // Not to be asked while it is empty
    qint64 dueTime() const { return _entries.front().dueTime; }  // ns of the monotonic clock
    Timeouts* first() const { return _entries.front().timeouts; }

    /// To be called after a due time was added to or taken from \a timeouts, which is not owned.
    void update(Timeouts* timeouts);
    void remove(Timeouts* timeouts);

private:
    struct Entry {
        // The next one; kept here because following the pointer costs more than the comparison.
        qint64 dueTime;
        Timeouts* timeouts;
    };

    void _place(const Entry& entry, int index);
    void _siftUp(int index);
    void _siftDown(int index);

    std::vector<Entry> _entries;
};
