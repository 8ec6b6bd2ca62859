#include "paintwatch.h"

#include "processorwait.h"

#include <QGraphicsItem>
#include <QGraphicsView>
#include <QPaintEvent>

#include <chrono>

namespace {

/// Reads the same clock as Python's time.monotonic_ns().
qint64 monotonicNanoseconds()
{
    return std::chrono::nanoseconds(std::chrono::steady_clock::now().time_since_epoch()).count();
}

}  // namespace

PaintWatch::PaintWatch(int& argc, char** argv)
    : QApplication(argc, argv)
{
}

void PaintWatch::watch(const QGraphicsView* view, const QGraphicsItem* item)
{
    _view = view;
    _item = item;
}

QPoint PaintWatch::place() const
{
    return _view->viewport()->mapToGlobal(_view->mapFromScene(_item->pos()));
}

/// Notes a picture when the outermost event is done: what was painted has reached the display then.
bool PaintWatch::notify(QObject* receiver, QEvent* event)
{
    if (_isPictureOfItem(receiver, event))
        _painted = place();
    ++_depth;
    const bool isHandled = QApplication::notify(receiver, event);
    --_depth;
    if (_depth == 0 && _painted) {
        _pictures.push_back({monotonicNanoseconds(), processorWait(), *_painted});
        _painted.reset();
    }
    return isHandled;
}

bool PaintWatch::_isPictureOfItem(const QObject* receiver, const QEvent* event) const
{
    if (!_view || event->type() != QEvent::Paint || receiver != _view->viewport())
        return false;
    const QPoint place = _view->mapFromScene(_item->pos());
    return static_cast<const QPaintEvent*>(event)->region().contains(place);
}
