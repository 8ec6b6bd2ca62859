#include "ui/capturetableview.h"

#include "captureviewhelpers.h"

#include <QElapsedTimer>
#include <QHeaderView>
#include <QScrollBar>
#include <QSignalSpy>

using namespace CaptureViewHelpers;

namespace {

/// Counts how often a widget is painted.
class PaintCounter : public QObject
{
public:
    explicit PaintCounter(QWidget* widget) { widget->installEventFilter(this); }

    bool eventFilter(QObject* /*widget*/, QEvent* event) override
    {
        paints += event->type() == QEvent::Paint;
        return false;
    }

    int paints = 0;
};

}  // namespace

/// Tests how the table and the counter follow the frames that are captured.
class TestCaptureTableFollowing : public QObject, private ShownCapture
{
    Q_OBJECT

private slots:
    void init() { _show(); }
    void cleanup() { _close(); }

    void theCounterIsTrueRightAfterEachFrame()
    {
        _captureAndFollow();
        for (int count = 1; count <= 200; ++count) {
            add(*_capture, 1);
            QCOMPARE(_counter()->text(), QString::number(count));
        }
    }

    void theLastRowIsInViewAfterOneTurnOfTheEventLoop()
    {
        _captureAndFollow();
        add(*_capture, 500);
        QCoreApplication::processEvents();
        QVERIFY(_lastRowIsInView());
        QVERIFY(_table()->verticalScrollBar()->maximum() > 0);
        QCOMPARE(_table()->verticalScrollBar()->value(), _table()->verticalScrollBar()->maximum());
    }

    void withFollowingOffTheViewStaysWhereItIs()
    {
        click(_enabled());
        add(*_capture, 500);
        QTRY_VERIFY(_table()->verticalScrollBar()->maximum() > 0);
        QCOMPARE(_table()->verticalScrollBar()->value(), 0);
    }

    void aUserWhoScrolledUpIsTakenToTheNextFrame()
    {
        _captureAndFollow();
        add(*_capture, 500);
        QCoreApplication::processEvents();
        QTest::keyClick(_table(), Qt::Key_Home, Qt::ControlModifier);
        QCOMPARE(_table()->verticalScrollBar()->value(), 0);
        add(*_capture, 1);
        QTRY_VERIFY(_lastRowIsInView());
    }

    void theTableTakesOverRowsInBursts()
    {
        _captureAndFollow();
        QSignalSpy bursts(_table()->verticalHeader(), SIGNAL(sectionCountChanged(int,int)));
        add(*_capture, 1000);
        QTRY_COMPARE(_table()->verticalHeader()->count(), 1000);
        QCOMPARE(bursts.count(), 1);
    }

    void theTableIsPaintedSixtyTimesASecondAtMost()
    {
        constexpr int duration = 500;  // ms
        _captureAndFollow();
        const PaintCounter table(_table()->viewport());
        const PaintCounter counter(_counter());
        QElapsedTimer timer;
        timer.start();
        while (timer.elapsed() < duration) {
            add(*_capture, 1);
            QCoreApplication::processEvents();
        }
        constexpr int expected = duration * 60 / 1000;
        constexpr int allowance = 8;  // the layout repaints too when the scroll bar and a digit come
        QVERIFY(_capture->rowCount() > 2 * expected);
        QVERIFY2(table.paints <= expected + allowance, qPrintable(QString::number(table.paints)));
        QVERIFY2(counter.paints <= expected + allowance, qPrintable(QString::number(counter.paints)));
        QVERIFY(table.paints > 1);
    }

    void thePictureShownLastIsTrue()
    {
        _captureAndFollow();
        for (int i = 0; i < 50; ++i) {
            add(*_capture, 10);
            QCoreApplication::processEvents();
        }
        const PaintCounter painted(_table()->viewport());
        add(*_capture, 1);
        QTRY_VERIFY(_lastRowIsInView());
        QTRY_VERIFY(painted.paints > 0);
        QCOMPARE(_table()->verticalScrollBar()->value(), _table()->verticalScrollBar()->maximum());
        QCOMPARE(_table()->verticalHeader()->count(), 501);
    }

    void clearInTheMiddleOfABurstLeavesNoRows()
    {
        _captureAndFollow();
        add(*_capture, 100);
        QCoreApplication::processEvents();
        add(*_capture, 100);
        QTest::mouseClick(_clear(), Qt::LeftButton);
        QTest::qWait(50);
        QCOMPARE(_table()->verticalHeader()->count(), 0);
        add(*_capture, 1);
        QTRY_COMPARE(_table()->verticalHeader()->count(), 1);
    }

    void theWindowKeepsItsSizeWhileTheCounterGrows()
    {
        _view->resize(_view->sizeHint());
        const QSize before = _view->size();
        _captureAndFollow();
        add(*_capture, 100000);
        QTRY_COMPARE(_table()->verticalHeader()->count(), 100000);
        QCoreApplication::processEvents();
        QCOMPARE(_view->size(), before);
    }

    void theCounterIsAsWideAsItsNumber()
    {
        const QLabel sample(QStringLiteral("1000"));
        const int small = _counter()->width();
        _captureAndFollow();
        add(*_capture, 1000);
        QTRY_COMPARE(_counter()->width(), sample.sizeHint().width());
        QTest::mouseClick(_clear(), Qt::LeftButton);
        QTRY_COMPARE(_counter()->width(), small);
    }

    void aCounterOfTheSameWidthIsPaintedToo()
    {
        _captureAndFollow();
        add(*_capture, 1);
        QTRY_COMPARE(_table()->verticalHeader()->count(), 1);
        QTest::qWait(50);
        const PaintCounter painted(_counter());
        add(*_capture, 1);
        QTRY_VERIFY(painted.paints > 0);
    }

private:
    bool _lastRowIsInView() const
    {
        return _table()->rowAt(_table()->viewport()->height() - 1) == _table()->model()->rowCount() - 1;
    }
};

QTEST_MAIN(TestCaptureTableFollowing)
#include "tst_capturetablefollowing.moc"
