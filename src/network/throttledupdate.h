#pragma once

#include <QtGlobal>

QT_BEGIN_NAMESPACE
class QGraphicsItem;
QT_END_NAMESPACE

/// Repaints of a scene item that traffic asks for, some 60 a second at most however many frames pass.
///
/// The first request after a quiet time repaints at once; those that follow are gathered, so that the picture
/// shown last is always true. What the user changes is repainted with QGraphicsItem::update() and not through
/// here.
class ThrottledUpdate
{
public:
    /// \a item is not owned and lives at least as long as this object, which is normally its member.
    explicit ThrottledUpdate(QGraphicsItem* item);
    ~ThrottledUpdate();
    Q_DISABLE_COPY_MOVE(ThrottledUpdate)

    /// To be told how long painting has taken, whatever asked for it: the next repaints for traffic wait as
    /// long, so that half of the time at least is left for the frames and the user.
    static void notePainting(qint64 nanoseconds);

    /// Repaints the whole item, now or soon.
    void request()
    {
        if (_index < 0)
            _enqueue();
    }

private:
    friend class ThrottledUpdateQueue;

    void _enqueue();

    QGraphicsItem* _item;
    int _index = -1;  // place among those that wait; -1: does not wait
};
