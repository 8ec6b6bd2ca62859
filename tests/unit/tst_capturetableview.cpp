#include "ui/capturetableview.h"

#include "captureviewhelpers.h"

#include <QElapsedTimer>
#include <QHeaderView>
#include <QPainter>
#include <QScrollBar>
#include <QVBoxLayout>
#include <QtTest>

#include <memory>

using namespace CaptureViewHelpers;

namespace {

constexpr int iconSize = 12;

QStringList& messages()
{
    static QStringList printed;
    return printed;
}

void keepMessage(QtMsgType /*type*/, const QMessageLogContext& /*context*/, const QString& text)
{
    if (!text.startsWith(QLatin1String("This plugin does not support ")))  // the offscreen display says so
        messages().append(text);
}

/// Counts what a view asks the model for.
class AskedCapture : public Capture
{
public:
    QVariant data(const QModelIndex& index, int role) const override
    {
        ++questions;
        return Capture::data(index, role);
    }

    mutable int questions = 0;
};

constexpr int textColumns[]
    = {Capture::DeltaTimeColumn,   Capture::SizeColumn,   Capture::TimeOnNetworkColumn,
       Capture::DestinationColumn, Capture::SourceColumn, Capture::DataColumn};
constexpr int wantedWidth = 120;
constexpr int narrowWidth = 710;  // the first window leaves this much on a screen of 1024 pixels

int countOthers(const QImage& image, const QRect& area, const QColor& background)
{
    int pixels = 0;
    for (int y = area.top(); y <= area.bottom(); ++y) {
        for (int x = area.left(); x <= area.right(); ++x)
            pixels += image.pixelColor(x, y) != background;
    }
    return pixels;
}

/// Paints the icon on that background, in the size that the table shows.
QImage pictureOf(const QIcon& icon, const QColor& background)
{
    QImage picture(iconSize, iconSize, QImage::Format_RGB32);
    picture.fill(background);
    QPainter painter(&picture);
    icon.paint(&painter, picture.rect());
    return picture;
}

int countSame(const QImage& one, const QImage& other, const QRect& area)
{
    int pixels = 0;
    for (int y = area.top(); y <= area.bottom(); ++y) {
        for (int x = area.left(); x <= area.right(); ++x)
            pixels += one.pixelColor(x, y) == other.pixelColor(x, y);
    }
    return pixels;
}

/// Counts the pixels that hide the row behind them.
int countOpaque(const QIcon& icon)
{
    const QImage picture = icon.pixmap(iconSize, iconSize).toImage();
    int pixels = 0;
    for (int y = 0; y < picture.height(); ++y) {
        for (int x = 0; x < picture.width(); ++x)
            pixels += picture.pixelColor(x, y).alpha() == 255;
    }
    return pixels;
}

}  // namespace

/// Tests what the view of the captured frames shows and what its switches do.
class TestCaptureTableView : public QObject, private ShownCapture
{
    Q_OBJECT

private slots:
    void init()
    {
        messages().clear();
        _show();
    }

    void cleanup()
    {
        qInstallMessageHandler(nullptr);
        _close();
    }

    // Layout
    void theBarStandsBelowTheTableInItsOrder()
    {
        QVERIFY(qobject_cast<QVBoxLayout*>(_view->layout()));
        QCOMPARE(_view->layout()->itemAt(0)->widget(), _table());
        QCOMPARE(_bar()->count(), 10);
        QCOMPARE(_counter()->text(), QStringLiteral("0"));
        QCOMPARE(_inBar<QLabel>(1)->text(), QStringLiteral("Frames captured."));
        QVERIFY(_bar()->itemAt(2)->spacerItem());
        QCOMPARE(_bar()->stretch(2), 10);
        QCOMPARE(_inBar<QLabel>(3)->text(), QStringLiteral("Cature enabled:"));
        QCOMPARE(_enabled()->text(), QString());
        QCOMPARE(_inBar<QLabel>(5)->text(), QStringLiteral("View follows frames:"));
        QCOMPARE(_follows()->text(), QString());
        QCOMPARE(_inBar<QLabel>(7)->text(), QStringLiteral("Hide addresses:"));
        QCOMPARE(_hidesAddresses()->text(), QString());
        QCOMPARE(_clear()->text(), QStringLiteral("Clear"));
    }

    void theTableIsCompactAndSelectsOneRow()
    {
        QCOMPARE(_table()->model(), _capture.get());
        QCOMPARE(_table()->font().pixelSize(), 10);
        QCOMPARE(_table()->font().family(), _view->font().family());
        QVERIFY(!_table()->showGrid());
        QVERIFY(_table()->alternatingRowColors());
        QCOMPARE(_table()->selectionBehavior(), QAbstractItemView::SelectRows);
        QCOMPARE(_table()->selectionMode(), QAbstractItemView::SingleSelection);
        QVERIFY(_table()->tabKeyNavigation());
        QCOMPARE(_table()->iconSize(), QSize(iconSize, iconSize));
        QVERIFY(_table()->horizontalHeader()->stretchLastSection());
    }

    void theBoxesShowTheFlagsOfAnAttachedModel()
    {
        Capture other;
        other.setEnabled(true);
        other.setViewFollows(true);
        _view->setCaptureModel(&other);
        QVERIFY(_enabled()->isChecked());
        QVERIFY(_follows()->isChecked());
        QVERIFY(other.isEnabled());
        QVERIFY(other.doesViewFollows());
        _view->setCaptureModel(nullptr);
    }

    void aNewModelUnchecksTheBoxes()
    {
        _captureAndFollow();
        Capture other;
        _view->setCaptureModel(nullptr);
        _view->setCaptureModel(&other);
        QVERIFY(!_enabled()->isChecked());
        QVERIFY(!_follows()->isChecked());
        QVERIFY(!other.isEnabled());
        QVERIFY(!other.doesViewFollows());
        _view->setCaptureModel(nullptr);
    }

    void theCounterShowsTheRowsOfAnAttachedModel()
    {
        Capture other;
        other.setEnabled(true);
        add(other, 12);
        _view->setCaptureModel(&other);
        QCOMPARE(_counter()->text(), QStringLiteral("12"));
        _view->setCaptureModel(_capture.get());
        QCOMPARE(_counter()->text(), QStringLiteral("0"));
    }

    void attachingAManyRowedModelAsksForFewCells()
    {
        constexpr int rows = 20000;
        AskedCapture other;
        other.setEnabled(true);
        add(other, rows);
        _view->setCaptureModel(&other);
        QVERIFY(other.questions < rows);
        _view->setCaptureModel(nullptr);
    }

    // Without a model
    void withoutAModelTheSwitchesDoNothing()
    {
        _view->setCaptureModel(nullptr);
        qInstallMessageHandler(keepMessage);
        click(_enabled());
        click(_follows());
        QTest::mouseClick(_clear(), Qt::LeftButton);
        QCOMPARE(messages(), QStringList());
        QCOMPARE(_counter()->text(), QStringLiteral("0"));
        QVERIFY(!_capture->isEnabled());
        QVERIFY(!_capture->doesViewFollows());
    }

    void withoutAModelTheAddressesCanBeHidden()
    {
        _view->setCaptureModel(nullptr);
        click(_hidesAddresses());
        _view->setCaptureModel(_capture.get());
        QCOMPARE(_hiddenColumns(), QList<int>({6, 7}));
    }

    void aDetachedModelIsLeftAlone()
    {
        _captureAndFollow();
        add(*_capture, 2);
        _view->setCaptureModel(nullptr);
        QTest::mouseClick(_clear(), Qt::LeftButton);
        click(_enabled());
        QVERIFY(_capture->isEnabled());
        add(*_capture, 1);
        QCOMPARE(_capture->rowCount(), 3);
        QVERIFY(!_table()->model());
    }

    void aReplacedModelNoLongerCounts()
    {
        Capture other;
        other.setEnabled(true);
        other.setViewFollows(true);
        _captureAndFollow();
        _view->setCaptureModel(&other);
        add(*_capture, 3);
        QCOMPARE(_counter()->text(), QStringLiteral("0"));
        add(other, 1);
        QCOMPARE(_counter()->text(), QStringLiteral("1"));
        _view->setCaptureModel(nullptr);
    }

    void aReplacedModelLeavesNothingBehind()
    {
        const int objects = _view->findChildren<QObject*>().size();
        Capture other;
        for (Capture* model : {static_cast<Capture*>(nullptr), &other, static_cast<Capture*>(nullptr)})
            _view->setCaptureModel(model);
        QCOMPARE(_view->findChildren<QObject*>().size(), objects);
    }

    // Switches
    void aBoxIsWrittenToTheModelAtOnce()
    {
        click(_enabled());
        QVERIFY(_capture->isEnabled());
        QVERIFY(!_capture->doesViewFollows());
        click(_follows());
        QVERIFY(_capture->doesViewFollows());
        click(_enabled());
        QVERIFY(!_capture->isEnabled());
        click(_follows());
        QVERIFY(!_capture->doesViewFollows());
    }

    void theCounterStandsStillWhileFollowingIsOff()
    {
        click(_enabled());
        add(*_capture, 3);
        QCoreApplication::processEvents();
        QCOMPARE(_counter()->text(), QStringLiteral("0"));
        click(_follows());
        QCOMPARE(_counter()->text(), QStringLiteral("0"));
        add(*_capture, 1);
        QCOMPARE(_counter()->text(), QStringLiteral("4"));
    }

    void clearSetsTheCounterToZeroWhileFollowingIsOff()
    {
        _captureAndFollow();
        add(*_capture, 5);
        click(_follows());
        QCOMPARE(_counter()->text(), QStringLiteral("5"));
        QTest::mouseClick(_clear(), Qt::LeftButton);
        QCOMPARE(_counter()->text(), QStringLiteral("0"));
    }

    void clearEmptiesTheModel()
    {
        _captureAndFollow();
        add(*_capture, 5);
        QTest::mouseClick(_clear(), Qt::LeftButton);
        QCOMPARE(_capture->rowCount(), 0);
        QVERIFY(_capture->isEnabled());
        QVERIFY(_capture->doesViewFollows());
    }

    void hidingTheAddressesHidesExactlyTheirColumns()
    {
        QCOMPARE(_hiddenColumns(), QList<int>());
        click(_hidesAddresses());
        QCOMPARE(_hiddenColumns(), QList<int>({6, 7}));
    }

    void showingTheAddressesAgainShowsTheirColumns()
    {
        click(_hidesAddresses());
        click(_hidesAddresses());
        QCOMPARE(_hiddenColumns(), QList<int>());
    }

    void hiddenAddressesStayHiddenInANewModel()
    {
        click(_hidesAddresses());
        Capture other;
        _view->setCaptureModel(nullptr);
        _view->setCaptureModel(&other);
        QCOMPARE(_hiddenColumns(), QList<int>({6, 7}));
        QVERIFY(_hidesAddresses()->isChecked());
        _view->setCaptureModel(nullptr);
    }

    void theLastColumnFillsTheTable()
    {
        click(_enabled());
        add(*_capture, 1);
        QTRY_VERIFY(_lastColumnFillsTheTable());
        _view->resize(windowWidth + 200, windowHeight);
        QTRY_VERIFY(_lastColumnFillsTheTable());
    }

    void theLastColumnFillsTheTableAfterANewModelAndAfterClear()
    {
        Capture other;
        other.setEnabled(true);
        add(other, 1);
        _view->setCaptureModel(nullptr);
        _view->setCaptureModel(&other);
        QTRY_VERIFY(_lastColumnFillsTheTable());
        QTest::mouseClick(_clear(), Qt::LeftButton);
        add(other, 1);
        QTRY_VERIFY(_lastColumnFillsTheTable());
        _view->setCaptureModel(nullptr);
    }

    void theLastColumnFillsTheTableWithTheAddressesHidden()
    {
        Capture other;
        other.setEnabled(true);
        add(other, 1);
        click(_hidesAddresses());
        _view->setCaptureModel(&other);
        QTRY_VERIFY(_lastColumnFillsTheTable());
        click(_hidesAddresses());
        QTRY_VERIFY(_lastColumnFillsTheTable());
        _view->setCaptureModel(nullptr);
    }

    // Widths
    void atItsOwnSizeTheViewShowsAllColumnsAtTheirWidth()
    {
        _showAnew(0);
        QVERIFY(!_table()->horizontalScrollBar()->isVisible());
        for (const int column : textColumns)
            QVERIFY(_table()->columnWidth(column) >= wantedWidth);
    }

    void aNarrowViewShowsAllColumnsAndTheirTitles()
    {
        _showAnew(narrowWidth);
        QVERIFY(!_table()->horizontalScrollBar()->isVisible());
        for (const int column : textColumns)
            QVERIFY2(_showsTheTitle(column), qPrintable(QString::number(column)));
        QVERIFY(_table()->columnWidth(Capture::DataColumn) >= wantedWidth);
    }

    void aNarrowViewShowsAllColumnsOfANewModel()
    {
        _showAnew(narrowWidth);
        Capture other;
        _view->setCaptureModel(&other);
        QTRY_VERIFY(!_table()->horizontalScrollBar()->isVisible());
        QVERIFY(_table()->columnWidth(Capture::DataColumn) >= wantedWidth);
        _view->setCaptureModel(nullptr);
    }

    // Picture
    void theIconsAreSeen()
    {
        click(_enabled());
        Frame frame(
            QByteArray(12, '\xFF'), 1, 2,
            static_cast<Frame::FrameFlags>(Frame::DeliveredInTime | Frame::Broadcast | Frame::CRCError));
        _capture->addFrame(frame);
        QTRY_COMPARE(_table()->verticalHeader()->count(), 1);
        const QImage table = _table()->viewport()->grab().toImage();
        for (int column : {Capture::DeliveryColumn, Capture::BroadcastColumn, Capture::CrcColumn}) {
            const QRect cell = _cell(0, column);
            const QColor background = table.pixelColor(cell.topLeft());
            const auto icon = _capture->data(_capture->index(0, column), Qt::DecorationRole).value<QIcon>();
            const QImage expected = pictureOf(icon, background);
            QVERIFY(countOthers(expected, expected.rect(), background) > 0);
            QCOMPARE(countOthers(table, cell, background),
                     countOthers(expected, expected.rect(), background));
        }
    }

    void theIconsOfTheSelectedRowKeepTheirColours()
    {
        click(_enabled());
        Frame frame(QByteArray(12, '\xFF'), 1, 2,
                    static_cast<Frame::FrameFlags>(Frame::Broadcast | Frame::CRCError));
        _capture->addFrame(frame);
        add(*_capture, 1);
        QTRY_COMPARE(_table()->verticalHeader()->count(), 2);
        const QImage before = _table()->viewport()->grab().toImage();
        for (int row : {0, 1}) {
            QTest::mouseClick(_table()->viewport(), Qt::LeftButton, Qt::NoModifier,
                              _cell(row, Capture::SizeColumn).center());
            const QImage selected = _table()->viewport()->grab().toImage();
            QCOMPARE(countSame(before, selected, _cell(row, Capture::DataColumn)), 0);
            for (int column : {Capture::DeliveryColumn, Capture::BroadcastColumn, Capture::CrcColumn}) {
                const auto icon
                    = _capture->data(_capture->index(row, column), Qt::DecorationRole).value<QIcon>();
                QVERIFY(icon.isNull() || countOpaque(icon) > 0);
                QVERIFY(countSame(before, selected, _cell(row, column)) >= countOpaque(icon));
            }
        }
    }

    void noCellShowsACheckBox()
    {
        click(_enabled());
        add(*_capture, 1);
        QTRY_COMPARE(_table()->verticalHeader()->count(), 1);
        const QImage picture = _table()->viewport()->grab().toImage();
        for (int column : {Capture::DeltaTimeColumn, Capture::SizeColumn, Capture::TimeOnNetworkColumn}) {
            QRect start = _cell(0, column);  // a box would stand here; the text is centred
            start.setWidth(_table()->style()->pixelMetric(QStyle::PM_IndicatorWidth) + 4);
            const QColor background = picture.pixelColor(start.topLeft());
            QCOMPARE(countOthers(picture, start, background), 0);
        }
    }

    void theCounterIsPainted()
    {
        _captureAndFollow();
        const QImage zero = _counter()->grab().toImage();
        add(*_capture, 8);
        QTRY_COMPARE(_table()->verticalHeader()->count(), 8);
        const QImage eight = _view->grab(_counter()->geometry()).toImage();
        QVERIFY(eight != zero);
        QVERIFY(countOthers(eight, eight.rect(), eight.pixelColor(0, 0)) > 0);
    }

    void aHugeFrameIsPaintedQuickly()
    {
        constexpr int size = 4 * 1024 * 1024;
        click(_enabled());
        Frame frame = anyFrame(size);
        _capture->addFrame(frame);
        QTRY_COMPARE(_table()->verticalHeader()->count(), 1);
        QElapsedTimer timer;
        timer.start();
        QVERIFY(!_table()->viewport()->grab().isNull());
        QVERIFY2(timer.elapsed() < 1000, qPrintable(QString::number(timer.elapsed())));
    }

    void usingTheViewPrintsNothing()
    {
        qInstallMessageHandler(keepMessage);
        _captureAndFollow();
        add(*_capture, 100);
        click(_hidesAddresses());
        QTRY_COMPARE(_table()->verticalHeader()->count(), 100);
        QVERIFY(!_view->grab().isNull());
        QTest::mouseClick(_table()->viewport(), Qt::LeftButton, Qt::NoModifier, _cell(99, 0).center());
        QTest::mouseClick(_table()->horizontalHeader()->viewport(), Qt::LeftButton);
        QTest::mouseClick(_clear(), Qt::LeftButton);
        QVERIFY(!_view->grab().isNull());
        QCOMPARE(messages(), QStringList());
    }

private:
    QRect _cell(int row, int column) const
    {
        return _table()->visualRect(_table()->model()->index(row, column));
    }

    bool _lastColumnFillsTheTable() const
    {
        return _cell(0, Capture::DataColumn).right() == _table()->viewport()->rect().right();
    }

    QList<int> _hiddenColumns() const
    {
        QList<int> hidden;
        for (int column = 0; column < Capture::ColumnCount; ++column) {
            if (_table()->isColumnHidden(column))
                hidden.append(column);
        }
        return hidden;
    }

    bool _showsTheTitle(int column) const
    {
        const QHeaderView* header = _table()->horizontalHeader();
        const QString title = _capture->headerData(column, Qt::Horizontal, Qt::DisplayRole).toString();
        const int right = header->sectionViewportPosition(column) + header->sectionSize(column);
        return header->sectionSize(column) > header->fontMetrics().horizontalAdvance(title)
            && right <= header->viewport()->width();
    }

    /// Sets the width before it shows the view, as a window does. Small letters keep the bar narrower than
    /// the table.
    void _showAnew(int width)
    {
        QFont smallFont;
        smallFont.setPixelSize(8);
        _view = std::make_unique<CaptureTableView>(nullptr);
        _view->setFont(smallFont);
        _view->setCaptureModel(_capture.get());
        _view->resize(width > 0 ? width : _view->sizeHint().width(), windowHeight);
        _view->show();
        QVERIFY(QTest::qWaitForWindowExposed(_view.get()));
        _capture->setEnabled(true);
        add(*_capture, 100);
        QTRY_VERIFY(_table()->verticalScrollBar()->isVisible());
    }
};

QTEST_MAIN(TestCaptureTableView)
#include "tst_capturetableview.moc"
