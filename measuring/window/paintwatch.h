#pragma once

#include <QApplication>
#include <QPoint>

#include <optional>
#include <vector>

QT_BEGIN_NAMESPACE
class QGraphicsItem;
class QGraphicsView;
QT_END_NAMESPACE

/// An application that writes down when a view has painted a certain item, and where.
class PaintWatch : public QApplication
{
    Q_OBJECT

public:
    struct Picture {
        qint64 time;   // ns of the monotonic clock, once the picture has been handed to the display
        qint64 wait;   // ns, processorWait() up to then
        QPoint place;  // pixels of the screen, the item's origin
    };

    PaintWatch(int& argc, char** argv);

    /// Neither is owned.
    void watch(const QGraphicsView* view, const QGraphicsItem* item);

    QPoint place() const;  // of the watched item
    const std::vector<Picture>& pictures() const { return _pictures; }

    bool notify(QObject* receiver, QEvent* event) override;

private:
    bool _isPictureOfItem(const QObject* receiver, const QEvent* event) const;

    const QGraphicsView* _view = nullptr;
    const QGraphicsItem* _item = nullptr;
    std::vector<Picture> _pictures;
    std::optional<QPoint> _painted;  // while the painting event is handled
    int _depth = 0;                  // of events that are handled inside others
};
