#include "core/throttledupdate.h"

#include "core/timeouts.h"
#include "network/network.h"

#include <QElapsedTimer>
#include <QGraphicsItem>

#include <vector>

namespace {

constexpr int framePeriod = 16;  // ms, some 60 pictures a second
constexpr qint64 nanosecondsPerMillisecond = 1000000;

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
    void notePainting(qint64 nanoseconds) { _paintingTime += nanoseconds; }

private:
    void _startPeriod();
    void _endPeriod();
    void _repaintPending();

    std::vector<ThrottledUpdate*> _pending;  // not owned
    Timeouts _endOfPeriod{[this] { _endPeriod(); }};
    bool _isPeriodRunning = false;
    QElapsedTimer _period;     // since the begin of the present one
    qint64 _paintingTime = 0;  // ns, within the present period
};

void ThrottledUpdateQueue::append(ThrottledUpdate* update)
{
    if (!_isPeriodRunning) {
        _startPeriod();
        update->_repaint();
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

void ThrottledUpdateQueue::_startPeriod()
{
    _isPeriodRunning = true;
    _paintingTime = 0;
    _period.start();
    _endOfPeriod.start(framePeriod);
}

/// Pictures that take long lengthen the period to twice that time.
void ThrottledUpdateQueue::_endPeriod()
{
    const qint64 missing = 2 * _paintingTime - _period.nsecsElapsed();
    if (missing >= nanosecondsPerMillisecond) {
        _endOfPeriod.start(static_cast<int>(missing / nanosecondsPerMillisecond));
        return;
    }
    _isPeriodRunning = false;
    if (!_pending.empty())
        _repaintPending();
}

void ThrottledUpdateQueue::_repaintPending()
{
    _startPeriod();
    for (ThrottledUpdate* update : _pending) {
        update->_index = -1;
        update->_repaint();
    }
    _pending.clear();
}

ThrottledUpdate::ThrottledUpdate(QGraphicsItem* item)
    : _item(item)
{
}

ThrottledUpdate::ThrottledUpdate(QGraphicsScene* scene)
    : _scene(scene)
{
}

ThrottledUpdate::~ThrottledUpdate()
{
    if (_index >= 0)
        ThrottledUpdateQueue::instance().remove(this);
}

void ThrottledUpdate::notePainting(qint64 nanoseconds)
{
    ThrottledUpdateQueue::instance().notePainting(nanoseconds);
}

void ThrottledUpdate::_enqueue()
{
    ThrottledUpdateQueue::instance().append(this);
}

/// Qt's bookkeeping for a repaint costs as much as some frames; for a network that nobody watches it is for
/// nothing.
void ThrottledUpdate::_repaint() const
{
    QGraphicsScene* scene = _item ? _item->scene() : _scene;
    const auto* network = qobject_cast<const Network*>(scene);
    if (network && !network->isWatched())
        return;
    if (_item)
        _item->update();
    else
        scene->update();
}
