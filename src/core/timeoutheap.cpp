#include "core/timeoutheap.h"

#include "core/timeouts.h"

#include <cstddef>

TimeoutHeap::~TimeoutHeap()
{
    for (const Entry& entry : _entries)
        entry.timeouts->_heapIndex = -1;
}

void TimeoutHeap::update(Timeouts* timeouts)
{
    if (timeouts->_isEmpty()) {
        remove(timeouts);
        return;
    }
    const Entry entry{timeouts->_nextDueTime(), timeouts};
    if (timeouts->_heapIndex < 0) {
        _entries.push_back(entry);
        _siftUp(static_cast<int>(_entries.size()) - 1);
        return;
    }
    Entry& present = _entries[static_cast<size_t>(timeouts->_heapIndex)];
    const bool isEarlier = entry.dueTime < present.dueTime;
    present = entry;
    if (isEarlier)
        _siftUp(timeouts->_heapIndex);
    else
        _siftDown(timeouts->_heapIndex);
}

void TimeoutHeap::remove(Timeouts* timeouts)
{
    const int index = timeouts->_heapIndex;
    if (index < 0)
        return;

    const Entry last = _entries.back();
    _entries.pop_back();
    timeouts->_heapIndex = -1;
    if (last.timeouts == timeouts)
        return;
    _place(last, index);
    _siftUp(index);
    _siftDown(last.timeouts->_heapIndex);
}

void TimeoutHeap::_place(const Entry& entry, int index)
{
    _entries[static_cast<size_t>(index)] = entry;
    entry.timeouts->_heapIndex = index;
}

void TimeoutHeap::_siftUp(int index)
{
    const Entry moved = _entries[static_cast<size_t>(index)];
    while (index > 0) {
        const int parent = (index - 1) / 2;
        const Entry above = _entries[static_cast<size_t>(parent)];
        if (above.dueTime <= moved.dueTime)
            break;
        _place(above, index);
        index = parent;
    }
    _place(moved, index);
}

void TimeoutHeap::_siftDown(int index)
{
    const Entry moved = _entries[static_cast<size_t>(index)];
    const size_t size = _entries.size();
    for (size_t child = 2 * static_cast<size_t>(index) + 1; child < size; child = 2 * child + 1) {
        if (child + 1 < size && _entries[child + 1].dueTime < _entries[child].dueTime)
            ++child;
        const Entry below = _entries[child];
        if (moved.dueTime <= below.dueTime)
            break;
        _place(below, index);
        index = static_cast<int>(child);
    }
    _place(moved, index);
}
