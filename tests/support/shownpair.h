#pragma once

#include "paintedpair.h"

#include <QElapsedTimer>
#include <QGraphicsView>
#include <QMouseEvent>
#include <QPaintEvent>
#include <QPixmap>
#include <QScreen>

#include <algorithm>

namespace Painting {

/// Compares pictures but for the rounding of antialiased edges, which depends on the region that is painted.
inline bool areAlike(const QImage& one, const QImage& other)
{
    constexpr int tolerance = 8;
    if (one.isNull() || one.size() != other.size())
        return false;
    const auto isAlike
        = [](QRgb left, QRgb right) { return left == right || isNear(left, right, tolerance); };
    for (int y = 0; y < one.height(); ++y) {
        const auto* line = reinterpret_cast<const QRgb*>(one.constScanLine(y));
        if (!std::equal(line, line + one.width(), reinterpret_cast<const QRgb*>(other.constScanLine(y)),
                        isAlike))
            return false;
    }
    return true;
}

/// Remembers what was repainted of it.
class RecordingView : public QGraphicsView
{
public:
    using QGraphicsView::QGraphicsView;

    QRegion painted;
    int paintEvents = 0;

protected:
    void paintEvent(QPaintEvent* event) override
    {
        painted += event->region();
        ++paintEvents;
        QGraphicsView::paintEvent(event);
    }
};

}  // namespace Painting

/// A pair in a view that is shown.
class ShownPair : protected PaintedPair
{
protected:
    void endPair()
    {
        _view.reset();
        PaintedPair::endPair();
    }

    void showView()
    {
        _view = std::make_unique<Painting::RecordingView>(&network());
        _view->setRenderHint(QPainter::Antialiasing);
        _view->setFrameShape(QFrame::NoFrame);
        _view->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
        _view->setVerticalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
        _view->setSceneRect(QRectF(QPointF(), Painting::viewSize));
        _view->resize(Painting::viewSize);
        for (Node* node : {_pair->sender, _pair->receiver}) {
            node->setTxColor(QColor(155, 155, 255));  // no flash ends between two pictures
            node->setRxColor(QColor(155, 155, 255));
            TestAccess::flags(*node) &= ~(TestHelpers::transmittingBit | TestHelpers::receivingBit);
        }
        _view->show();
        QVERIFY(QTest::qWaitForWindowExposed(_view.get()));
        QElapsedTimer timer;
        timer.start();
        _view->viewport()->repaint();
        _paintingTime = static_cast<int>(timer.elapsed());
        QVERIFY(waitForPaint());
    }

    /// Waits until all repaints are done that anybody has asked for, those of traffic too: twice as long as
    /// painting takes, on a busy machine.
    bool waitForPaint()
    {
        constexpr int picturePeriod = 16;  // ms, of traffic
        constexpr int windowPeriod = 10;   // ms, of the window system at least
        if (!TestHelpers::passTimeouts(picturePeriod + 4 * _paintingTime))
            return false;
        QTest::qWait(windowPeriod);
        _view->painted = QRegion();
        _view->paintEvents = 0;
        return true;
    }

    /// Returns what the window system has, and paints nothing anew for it.
    QImage screen()
    {
        const QPixmap pixmap = _view->screen()->grabWindow(_view->winId());
        return pixmap.toImage().convertToFormat(QImage::Format_RGB32);
    }

    /// Returns whether a repaint of all changes nothing.
    bool isShownTruly()
    {
        if (!waitForPaint())
            return false;
        const QImage before = screen();
        _view->viewport()->repaint();
        return Painting::areAlike(before, screen());
    }

    QColor shown(const QPointF& position) { return Painting::pixel(screen(), position); }

    void mouse(QEvent::Type type, const QPointF& position, Qt::MouseButton button = Qt::LeftButton,
               Qt::KeyboardModifiers modifiers = Qt::NoModifier)
    {
        const QPoint local = _view->mapFromScene(position);
        const QPoint global = _view->viewport()->mapToGlobal(local);
        const bool isHeld = type != QEvent::MouseButtonRelease;
        QMouseEvent event(type, local, global, type == QEvent::MouseMove ? Qt::NoButton : button,
                          isHeld ? button : Qt::NoButton, modifiers);
        QCoreApplication::sendEvent(_view->viewport(), &event);
    }

    void click(const QPointF& position, Qt::MouseButton button = Qt::LeftButton,
               Qt::KeyboardModifiers modifiers = Qt::NoModifier)
    {
        mouse(QEvent::MouseButtonPress, position, button, modifiers);
        mouse(QEvent::MouseButtonRelease, position, button, modifiers);
    }

    std::unique_ptr<Painting::RecordingView> _view;
    int _paintingTime = 0;  // ms, of the whole view
};
