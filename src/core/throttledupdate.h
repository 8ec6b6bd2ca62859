#pragma once

#include <QtGlobal>

QT_BEGIN_NAMESPACE
class QGraphicsItem;
class QGraphicsScene;
QT_END_NAMESPACE

/// Repaints an item, or a whole scene, for the frames and messages of programs: some 60 times a second at
/// most, however many come.
///
/// The first request after a quiet time repaints at once. Later ones are gathered, so that the last picture
/// is always true. What the user changes does not come through here but through QGraphicsItem::update().
class ThrottledUpdate
{
public:
    /// Says whether anybody sees a scene.
    using IsWatched = bool (*)(const QGraphicsScene& scene);

    /// Does not own what it repaints, which lives at least as long: this object is normally its member.
    /// Repaints nothing while \a isWatched says no; null: always repaints.
    explicit ThrottledUpdate(QGraphicsItem* item, IsWatched isWatched = nullptr);
    explicit ThrottledUpdate(QGraphicsScene* scene, IsWatched isWatched = nullptr);
    ~ThrottledUpdate();
    Q_DISABLE_COPY_MOVE(ThrottledUpdate)

    /// Notes how long a picture took, whoever asked for it. The next repaints wait as long, so that frames
    /// and user have at least half of the time.
    static void notePainting(qint64 nanoseconds);

    /// Repaints all of it, now or soon.
    void request()
    {
        if (_index < 0)
            _enqueue();
    }

private:
    friend class ThrottledUpdateQueue;

    void _enqueue();
    void _repaint() const;

    QGraphicsItem* _item = nullptr;  // null when it is a scene
    QGraphicsScene* _scene = nullptr;
    IsWatched _isWatched;
    int _index = -1;  // place among those that wait; -1: it does not wait
};
