#pragma once

#include <QtGlobal>

QT_BEGIN_NAMESPACE
class QGraphicsItem;
class QGraphicsScene;
QT_END_NAMESPACE

/// Repaints of a scene or of an item in it that programs ask for with their frames and messages, some 60 a
/// second at most however many come.
///
/// The first request after a quiet time repaints at once; those that follow are gathered, so that the picture
/// shown last is always true. What the user changes is repainted with QGraphicsItem::update() and not through
/// here.
class ThrottledUpdate
{
public:
    /// Says whether anybody sees a scene.
    using IsWatched = bool (*)(const QGraphicsScene& scene);

    /// What is repainted is not owned and lives at least as long as this object, which is normally its
    /// member. Nothing is repainted while \a isWatched, unless null, says no.
    explicit ThrottledUpdate(QGraphicsItem* item, IsWatched isWatched = nullptr);
    explicit ThrottledUpdate(QGraphicsScene* scene, IsWatched isWatched = nullptr);
    ~ThrottledUpdate();
    Q_DISABLE_COPY_MOVE(ThrottledUpdate)

    /// To be told how long painting has taken, whatever asked for it: the next repaints for traffic wait as
    /// long, so that half of the time at least is left for the frames and the user.
    static void notePainting(qint64 nanoseconds);

    /// Repaints the whole of it, now or soon.
    void request()
    {
        if (_index < 0)
            _enqueue();
    }

private:
    friend class ThrottledUpdateQueue;

    void _enqueue();
    void _repaint() const;

    QGraphicsItem* _item = nullptr;  // one of these two
    QGraphicsScene* _scene = nullptr;
    IsWatched _isWatched;
    int _index = -1;  // place among those that wait; -1: does not wait
};
