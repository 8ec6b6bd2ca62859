#pragma once

#include "capture/capture.h"
#include "ui/capturetableview.h"

#include <QCheckBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QStyle>
#include <QStyleOptionButton>
#include <QTableView>
#include <QtTest>

#include <memory>

/// Shows the table of captured frames in a separate window, for tests that use the mouse.
namespace CaptureViewHelpers {

constexpr int windowWidth = 1200;  // wide enough for all columns
constexpr int windowHeight = 300;

/// Returns a delivered frame.
inline Frame anyFrame(int size = 64)
{
    return {QByteArray(size, '\x5A'), 1000, 1005,
            static_cast<Frame::FrameFlags>(Frame::DeliveredInTime | Frame::ForceCapture)};
}

inline void add(Capture& capture, int count)
{
    for (int i = 0; i < count; ++i) {
        Frame frame = anyFrame();
        capture.addFrame(frame);
    }
}

inline void click(QCheckBox* box)
{
    QStyleOptionButton option;
    option.initFrom(box);
    const QRect mark = box->style()->subElementRect(QStyle::SE_CheckBoxIndicator, &option, box);
    QTest::mouseClick(box, Qt::LeftButton, Qt::NoModifier, mark.center());
}

/// Owns a view that is shown, and its capture. A test class inherits it.
class ShownCapture
{
protected:
    void _show()
    {
        _capture = std::make_unique<Capture>();
        _view = std::make_unique<CaptureTableView>(nullptr);
        _view->resize(windowWidth, windowHeight);
        _view->show();
        QVERIFY(QTest::qWaitForWindowExposed(_view.get()));
        _view->setCaptureModel(_capture.get());
    }

    void _close()
    {
        _view.reset();
        _capture.reset();
    }

    QTableView* _table() const { return _view->findChild<QTableView*>(); }
    QHBoxLayout* _bar() const { return qobject_cast<QHBoxLayout*>(_view->layout()->itemAt(1)->layout()); }
    template <typename Widget> Widget* _inBar(int position) const
    {
        return qobject_cast<Widget*>(_bar()->itemAt(position)->widget());
    }
    QLabel* _counter() const { return _inBar<QLabel>(0); }
    QCheckBox* _enabled() const { return _inBar<QCheckBox>(4); }
    QCheckBox* _follows() const { return _inBar<QCheckBox>(6); }
    QCheckBox* _hidesAddresses() const { return _inBar<QCheckBox>(8); }
    QPushButton* _clear() const { return _inBar<QPushButton>(9); }

    void _captureAndFollow()
    {
        click(_enabled());
        click(_follows());
    }

    std::unique_ptr<Capture> _capture;
    std::unique_ptr<CaptureTableView> _view;
};

}  // namespace CaptureViewHelpers
