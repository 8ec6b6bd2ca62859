#include "qtcolorpicker.h"

#include "colorpickerfixture.h"

#include <QApplication>
#include <QPointer>
#include <QSignalSpy>
#include <QtTest>

namespace {

constexpr int standardColumns = 5;

int countPixels(const QImage& image, const QColor& color)
{
    int count = 0;
    for (int y = 0; y < image.height(); ++y) {
        for (int x = 0; x < image.width(); ++x)
            count += image.pixel(x, y) == color.rgb();
    }
    return count;
}

}  // namespace

class TestQtColorPicker : public QObject, protected ColorPickerFixture
{
    Q_OBJECT

public slots:
    void deletePicker() { _picker.reset(); }

private slots:
    void initTestCase() { QApplication::setAttribute(Qt::AA_DontUseNativeDialogs); }

    void init() { showPicker(); }
    void cleanup() { deletePickerAndWindow(); }

    // Colours

    void anEmptyPickerIsBlack()
    {
        const QtColorPicker picker(nullptr, -1, true);

        QCOMPARE(picker.currentColor(), QColor(Qt::black));
        QCOMPARE(picker.text(), QString("Black"));
        QVERIFY(!picker.color(0).isValid());
        QVERIFY(picker.colorDialogEnabled());
        QVERIFY(picker.isCheckable());
        QVERIFY(!picker.autoDefault());
        QVERIFY(picker.autoFillBackground());
        QCOMPARE(picker.focusPolicy(), Qt::StrongFocus);
        QCOMPARE(picker.sizePolicy().horizontalPolicy(), QSizePolicy::Minimum);
        QCOMPARE(picker.sizePolicy().verticalPolicy(), QSizePolicy::Fixed);
    }

    void theFirstInsertedColorBecomesCurrentSilently()
    {
        QtColorPicker picker(nullptr, -1, true);
        QSignalSpy changes(&picker, SIGNAL(colorChanged(QColor)));

        picker.insertColor(orange, "Default");
        picker.insertColor(Qt::blue, "Blue", 0);

        QCOMPARE(picker.currentColor(), orange);
        QCOMPARE(picker.text(), QString("Default"));
        QCOMPARE(changes.count(), 0);
    }

    void aColorSetBeforeIsNotReplacedByTheFirstInsertion()
    {
        QtColorPicker picker(nullptr, -1, true);

        picker.setCurrentColor(orange);
        picker.insertColor(Qt::blue, "Blue");

        QCOMPARE(picker.currentColor(), orange);
        QCOMPARE(picker.text(), QString("Custom"));
    }

    void theStandardColorsStandInTheirOrder_data()
    {
        QTest::addColumn<int>("index");
        QTest::addColumn<QColor>("color");
        QTest::newRow("Black") << 0 << QColor(Qt::black);
        QTest::newRow("White") << 1 << QColor(Qt::white);
        QTest::newRow("Red") << 2 << QColor(Qt::red);
        QTest::newRow("Dark red") << 3 << QColor(Qt::darkRed);
        QTest::newRow("Green") << 4 << QColor(Qt::green);
        QTest::newRow("Dark green") << 5 << QColor(Qt::darkGreen);
        QTest::newRow("Blue") << 6 << QColor(Qt::blue);
        QTest::newRow("Dark blue") << 7 << QColor(Qt::darkBlue);
        QTest::newRow("Cyan") << 8 << QColor(Qt::cyan);
        QTest::newRow("Dark cyan") << 9 << QColor(Qt::darkCyan);
        QTest::newRow("Magenta") << 10 << QColor(Qt::magenta);
        QTest::newRow("Dark magenta") << 11 << QColor(Qt::darkMagenta);
        QTest::newRow("Yellow") << 12 << QColor(Qt::yellow);
        QTest::newRow("Dark yellow") << 13 << QColor(Qt::darkYellow);
        QTest::newRow("Gray") << 14 << QColor(Qt::gray);
        QTest::newRow("Dark gray") << 15 << QColor(Qt::darkGray);
        QTest::newRow("Light gray") << 16 << QColor(Qt::lightGray);
    }

    void theStandardColorsStandInTheirOrder()
    {
        QFETCH(int, index);
        QFETCH(QColor, color);

        QCOMPARE(names().size(), standardColorCount);
        QCOMPARE(_picker->color(index), color);
        QCOMPARE(cell(index)->text(), QString(QTest::currentDataTag()));
    }

    void aColorIsInsertedAtItsIndex()
    {
        _picker->insertColor(orange, "Default", 1);
        _picker->insertColor(Qt::transparent, "None", 1000);

        QCOMPARE(names().mid(0, 3), (QList<QString>{"Black", "Default", "White"}));
        QCOMPARE(names().last(), QString("None"));
        QCOMPARE(_picker->color(1), orange);
    }

    void noColorStandsOutsideTheGrid()
    {
        QVERIFY(_picker->color(standardColorCount - 1).isValid());
        QVERIFY(!_picker->color(standardColorCount).isValid());
        QVERIFY(!_picker->color(-1).isValid());
    }

    void settingAColorShowsItsNameAndAnnouncesIt()
    {
        QSignalSpy changes(_picker.get(), SIGNAL(colorChanged(QColor)));

        _picker->setCurrentColor(Qt::darkYellow);

        QCOMPARE(_picker->currentColor(), QColor(Qt::darkYellow));
        QCOMPARE(_picker->text(), QString("Dark yellow"));
        QVERIFY(cell(13)->isSelected());
        QCOMPARE(selectedCount(), 1);
        QCOMPARE(names().size(), standardColorCount);
        QCOMPARE(changes.count(), 1);
        QCOMPARE(changes.first().first().value<QColor>(), QColor(Qt::darkYellow));
    }

    void settingTheSameColorTwiceAnnouncesItOnce()
    {
        QSignalSpy changes(_picker.get(), SIGNAL(colorChanged(QColor)));

        _picker->setCurrentColor(Qt::red);
        _picker->setCurrentColor(Qt::red);

        QCOMPARE(changes.count(), 1);
    }

    void settingAnUnknownColorAddsOneCustomCell()
    {
        _picker->setCurrentColor(orange);

        QCOMPARE(names().size(), standardColorCount + 1);
        QCOMPARE(names().last(), QString("Custom"));
        QCOMPARE(_picker->color(standardColorCount), orange);
        QCOMPARE(_picker->text(), QString("Custom"));
    }

    void settingAnUnknownColorAgainReusesItsCell()
    {
        _picker->setCurrentColor(orange);
        _picker->setCurrentColor(Qt::red);
        _picker->setCurrentColor(orange);

        QCOMPARE(names().count("Custom"), 1);
        QCOMPARE(_picker->currentColor(), orange);
    }

    void theSameColorWrittenAsHsvIsNoOther()
    {
        _picker->setCurrentColor(Qt::red);
        QSignalSpy changes(_picker.get(), SIGNAL(colorChanged(QColor)));

        _picker->setCurrentColor(QColor::fromHsv(0, 255, 255));
        _picker->setCurrentColor(QColor::fromHsv(240, 255, 255));

        QCOMPARE(changes.count(), 1);
        QCOMPARE(_picker->text(), QString("Blue"));
        QCOMPARE(names().size(), standardColorCount);
    }

    void colorsThatDifferInOpacityAreTwo()
    {
        _picker->setCurrentColor(QColor(255, 0, 0, 254));
        _picker->setCurrentColor(QColor(255, 0, 0, 255));

        QCOMPARE(_picker->text(), QString("Red"));
        QCOMPARE(names().size(), standardColorCount + 1);
    }

    void anInvalidColorIsIgnored()
    {
        _picker->setCurrentColor(Qt::red);
        QSignalSpy changes(_picker.get(), SIGNAL(colorChanged(QColor)));

        _picker->setCurrentColor(QColor());

        QCOMPARE(_picker->currentColor(), QColor(Qt::red));
        QCOMPARE(names().size(), standardColorCount);
        QCOMPARE(changes.count(), 0);
    }

    void anInvalidColorIsNotInserted()
    {
        QtColorPicker picker(nullptr, -1, true);

        picker.insertColor(QColor(), "Nothing");
        picker.insertColor(Qt::blue, "Blue");

        QCOMPARE(picker.color(0), QColor(Qt::blue));
        QCOMPARE(picker.text(), QString("Blue"));
    }

    void aListenerMayDeleteThePicker()
    {
        connect(_picker.get(), SIGNAL(colorChanged(QColor)), this, SLOT(deletePicker()));
        open();

        QTest::mouseClick(cell(2), Qt::LeftButton);

        QVERIFY(!_picker);
        QVERIFY(!QApplication::activePopupWidget());
    }

    // Grid

    void theGridIsSquareUnlessColumnsAreGiven_data()
    {
        QTest::addColumn<int>("columns");
        QTest::addColumn<int>("colors");
        QTest::addColumn<int>("expectedColumns");
        QTest::newRow("one") << -1 << 1 << 1;
        QTest::newRow("four") << -1 << 4 << 2;
        QTest::newRow("five") << -1 << 5 << 3;
        QTest::newRow("sixteen") << -1 << 16 << 4;
        QTest::newRow("seventeen") << -1 << 17 << 5;
        QTest::newRow("given") << 8 << 17 << 8;
        QTest::newRow("one column") << 1 << 3 << 1;
    }

    void theGridIsSquareUnlessColumnsAreGiven()
    {
        QFETCH(int, columns);
        QFETCH(int, colors);
        QFETCH(int, expectedColumns);
        setPicker(new QtColorPicker(nullptr, columns, false));
        for (int i = 0; i < colors; ++i)
            _picker->insertColor(QColor(i, i, i), QString::number(i));

        open();

        int inFirstRow = 0;
        for (const ColorPickerItem* item : cells())
            inFirstRow += item->y() == cell(0)->y();
        QCOMPARE(inFirstRow, expectedColumns);
    }

    void theCellsFillTheGridRowByRow()
    {
        open();

        for (int i = 0; i < standardColorCount; ++i) {
            QCOMPARE(cell(i)->x(), cell(0)->x() + i % standardColumns * cell(0)->width());
            QCOMPARE(cell(i)->y(), cell(0)->y() + i / standardColumns * cell(0)->height());
        }
        QCOMPARE(moreButton()->pos(), cell(16)->pos() + QPoint(cell(16)->width(), 0));
        QCOMPARE(grid()->spacing(), 0);
        QCOMPARE(grid()->contentsMargins(), QMargins(1, 1, 1, 1));
    }

    void anOpenPopupGrowsWithItsColors()
    {
        open();
        const QSize before = popup()->size();
        const QSize cellSize = cell(0)->size();

        for (int i = 0; i < 9; ++i)
            _picker->insertColor(QColor(i, 100, 200), "Another");

        QTRY_COMPARE(popup()->width(), before.width() + cellSize.width());  // 26 colours: 6 columns, 5 rows
        QCOMPARE(popup()->height(), before.height() + cellSize.height());
        QTRY_VERIFY(cell(25)->isVisible());
        QVERIFY(!cell(25)->geometry().intersects(moreButton()->geometry()));
    }

    void theMoreButtonHasItsSizeAndFrame()
    {
        open();

        QCOMPARE(moreButton()->size(), QSize(24, 21));
        QCOMPARE(moreButton()->frameRect(), QRect(2, 2, 20, 17));
    }

    void withoutColorDialogThereIsNoMoreButton()
    {
        const QtColorPicker picker(nullptr, -1, false);

        QVERIFY(!picker.colorDialogEnabled());
        QVERIFY(!picker.findChild<ColorPickerButton*>());
    }

    void theColorDialogCanBeSwitched()
    {
        const QPointer<ColorPickerButton> before(moreButton());

        _picker->setColorDialogEnabled(false);
        QVERIFY(!_picker->colorDialogEnabled());
        QVERIFY(!moreButton());
        QTRY_VERIFY(!before);

        _picker->setColorDialogEnabled(true);
        QVERIFY(_picker->colorDialogEnabled());
        open();
        QTRY_VERIFY(moreButton()->isVisible());
    }

    void theNameOfAColorIsItsToolTip()
    {
        QCOMPARE(cell(3)->toolTip(), QString("Dark red"));
        QCOMPARE(cell(3)->accessibleName(), QString("Dark red"));
    }

    // Look

    void theButtonShowsTheColor_data()
    {
        QTest::addColumn<QColor>("ground");
        QTest::newRow("light") << QColor(0xef, 0xef, 0xef);
        QTest::newRow("dark") << QColor(0x2a, 0x2a, 0x2a);
    }

    void theButtonShowsTheColor()
    {
        QFETCH(QColor, ground);
        _window->setPalette(QPalette(ground));

        for (const QColor& color : {QColor(Qt::red), QColor(Qt::magenta)}) {
            QCOMPARE(countPixels(_picker->grab().toImage(), color), 0);
            _picker->setCurrentColor(color);
            QVERIFY(countPixels(_picker->grab().toImage(), color) > 100);
        }
    }

    void aCellShowsItsColor()
    {
        open();

        const QImage image = popup()->grab().toImage();

        for (int i = 0; i < standardColorCount; ++i)
            QCOMPARE(image.pixelColor(cell(i)->geometry().center()), _picker->color(i));
    }

    void aSelectedCellIsMarked()
    {
        open();
        cell(16)->setFocus();
        const QImage plain = cell(2)->grab().toImage();

        popup()->markSelected(cell(2));

        const QImage marked = cell(2)->grab().toImage();
        QCOMPARE(countPixels(plain, cell(2)->palette().color(QPalette::Text)), 0);
        QVERIFY(countPixels(marked, cell(2)->palette().color(QPalette::Text)) > 60);
        QCOMPARE(countPixels(marked, Qt::red), countPixels(plain, Qt::red));
    }

    void theFocusedCellStandsOnTheHighlight()
    {
        open();
        const QColor highlight = popup()->palette().color(QPalette::Highlight);

        cell(2)->setFocus();

        QCOMPARE(cell(2)->grab().toImage().pixelColor(0, 0), highlight);
        QVERIFY(cell(3)->grab().toImage().pixelColor(0, 0) != highlight);
    }

    void aSwatchStandsOutFromItsGround_data() { theButtonShowsTheColor_data(); }

    void aSwatchStandsOutFromItsGround()
    {
        QFETCH(QColor, ground);
        popup()->setPalette(QPalette(ground));
        _picker->insertColor(popup()->palette().color(QPalette::Base), "Ground");
        open();
        ColorPickerItem* item = cell(standardColorCount);

        const QImage image = popup()->grab(item->geometry()).toImage();

        const QColor outside = image.pixelColor(0, 0);
        const QColor outline = image.pixelColor(4, item->height() / 2);
        QCOMPARE(image.pixelColor(item->rect().center()), outside);
        QVERIFY(qAbs(outline.lightness() - outside.lightness()) > 60);
    }

    void theMoreButtonShowsThreeDots()
    {
        open();

        const QImage image = moreButton()->grab().toImage();

        const QColor ink = moreButton()->palette().color(QPalette::ButtonText);
        const int row = moreButton()->frameRect().center().y();
        int dots = 0;
        for (int x = 6; x < 18; ++x)
            dots += image.pixelColor(x, row) == ink && image.pixelColor(x - 1, row) != ink;
        QCOMPARE(dots, 3);
    }
};

QTEST_MAIN(TestQtColorPicker)

#include "tst_qtcolorpicker.moc"
