#include "core/throttledupdate.h"

#include "core/throttle.h"

#include <QGraphicsItem>
#include <QGraphicsScene>

#include <vector>

/// Holds the updates of all items of the process that wait for the end of the present pause.
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

    /// Lengthens the pause to twice the time that its pictures take.
    void notePainting(qint64 nanoseconds) { _throttle.lengthenPause(2 * nanoseconds); }

private:
    void _repaintPending();

    std::vector<ThrottledUpdate*> _pending;  // not owned
    Throttle _throttle{[this] { _repaintPending(); }};
};

void ThrottledUpdateQueue::append(ThrottledUpdate* update)
{
    update->_index = static_cast<int>(_pending.size());
    _pending.push_back(update);
    _throttle.request();
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
    for (ThrottledUpdate* update : _pending) {
        update->_index = -1;
        update->_repaint();
    }
    _pending.clear();
}

ThrottledUpdate::ThrottledUpdate(QGraphicsItem* item, IsWatched isWatched)
    : _item(item)
    , _isWatched(isWatched)
{
}

ThrottledUpdate::ThrottledUpdate(QGraphicsScene* scene, IsWatched isWatched)
    : _scene(scene)
    , _isWatched(isWatched)
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

/// Asks first whether anybody watches: Qt's bookkeeping for a repaint costs as much as some frames.
void ThrottledUpdate::_repaint() const
{
    QGraphicsScene* scene = _item ? _item->scene() : _scene;
    if (!scene || (_isWatched && !_isWatched(*scene)))
        return;
    if (_item)
        _item->update();
    else
        scene->update();
}
