#include "network/throttledupdate.h"

#include "network/timeouts.h"

#include <QGraphicsItem>

#include <vector>

namespace {

constexpr int framePeriod = 16;  // ms, some 60 pictures a second

}  // namespace

/// The updates that wait for the end of the present period, of all items of the process.
class ThrottledUpdateQueue
{
public:
    static ThrottledUpdateQueue& instance()
    {
        static ThrottledUpdateQueue queue;
        return queue;
    }

    void append(ThrottledUpdate* update);
    void remove(ThrottledUpdate* update);

private:
    void _repaintPending();

    std::vector<ThrottledUpdate*> _pending;  // not owned
    Timeouts _endOfPeriod{[this] { _repaintPending(); }};
    bool _isPeriodRunning = false;
};

void ThrottledUpdateQueue::append(ThrottledUpdate* update)
{
    if (!_isPeriodRunning) {
        _isPeriodRunning = true;
        _endOfPeriod.start(framePeriod);
        update->_item->update();
        return;
    }
    update->_index = static_cast<int>(_pending.size());
    _pending.push_back(update);
}

void ThrottledUpdateQueue::remove(ThrottledUpdate* update)
{
    ThrottledUpdate* last = _pending.back();
    last->_index = update->_index;
    _pending[static_cast<size_t>(update->_index)] = last;
    _pending.pop_back();
    update->_index = -1;
}

void ThrottledUpdateQueue::_repaintPending()
{
    _isPeriodRunning = !_pending.empty();
    for (ThrottledUpdate* update : _pending) {
        update->_index = -1;
        update->_item->update();
    }
    _pending.clear();
    if (_isPeriodRunning)
        _endOfPeriod.start(framePeriod);
}

ThrottledUpdate::ThrottledUpdate(QGraphicsItem* item)
    : _item(item)
{
}

ThrottledUpdate::~ThrottledUpdate()
{
    if (_index >= 0)
        ThrottledUpdateQueue::instance().remove(this);
}

void ThrottledUpdate::_enqueue()
{
    ThrottledUpdateQueue::instance().append(this);
}
