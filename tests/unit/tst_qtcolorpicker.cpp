#include "qtcolorpicker.h"

#include <QApplication>
#include <QColorDialog>
#include <QDialogButtonBox>
#include <QGridLayout>
#include <QLineEdit>
#include <QPointer>
#include <QScreen>
#include <QSignalSpy>
#include <QTimer>
#include <QVBoxLayout>
#include <QtTest>

#include <functional>
#include <memory>

namespace {

const QColor orange(255, 128, 0);
constexpr int standardColorCount = 17;
constexpr int standardColumns = 5;
constexpr int platformFrame = 2;  // the offscreen platform keeps windows this far off the left and top edge

/// Waits in the background until the colour dialog is up, then answers it as told.
class ColorDialogUser : public QObject
{
    Q_OBJECT

public:
    using Answer = std::function<void(QColorDialog*)>;

    explicit ColorDialogUser(const Answer& answer)
        : _answer(answer)
    {
        connect(&_timer, SIGNAL(timeout()), this, SLOT(lookForDialog()));
        _timer.start(1);
    }

    bool hasAnswered() const { return _hasAnswered; }

private slots:
    void lookForDialog()
    {
        auto* dialog = qobject_cast<QColorDialog*>(QApplication::activeModalWidget());
        if (!dialog)
            return;
        _timer.stop();
        _hasAnswered = true;
        _answer(dialog);
    }

private:
    Answer _answer;
    QTimer _timer;
    bool _hasAnswered = false;
};

void press(QColorDialog* dialog, QDialogButtonBox::StandardButton button)
{
    QTest::mouseClick(dialog->findChild<QDialogButtonBox*>()->button(button), Qt::LeftButton);
}

ColorDialogUser::Answer acceptWith(const QColor& color)
{
    return [color](QColorDialog* dialog) {
        dialog->setCurrentColor(color);
        press(dialog, QDialogButtonBox::Ok);
    };
}

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

class TestQtColorPicker : public QObject
{
    Q_OBJECT

public slots:
    void deletePicker() { _picker.reset(); }
    void disableColorDialog() { _picker->setColorDialogEnabled(false); }

private:
    ColorPickerPopup* popup() const { return _picker->popup; }
    ColorPickerItem* cell(int index) const { return popup()->items.at(index); }
    ColorPickerButton* moreButton() const { return popup()->moreButton; }

    QList<QString> names() const
    {
        QList<QString> result;
        for (const ColorPickerItem* item : qAsConst(popup()->items))
            result.append(item->text());
        return result;
    }

    int selectedCount() const
    {
        int count = 0;
        for (const ColorPickerItem* item : qAsConst(popup()->items))
            count += item->isSelected();
        return count;
    }

    void open()
    {
        QTest::mouseClick(_picker.get(), Qt::LeftButton);
        QTRY_VERIFY(popup()->isVisible());
    }

    void setPicker(QtColorPicker* picker)
    {
        _picker.reset(picker);
        static_cast<QVBoxLayout*>(_window->layout())->insertWidget(0, picker);
    }

private slots:
    void initTestCase() { QApplication::setAttribute(Qt::AA_DontUseNativeDialogs); }

    void init()
    {
        _window = std::make_unique<QWidget>();
        _neighbour = new QLineEdit;
        new QVBoxLayout(_window.get());
        _window->layout()->addWidget(_neighbour);
        setPicker(new QtColorPicker(nullptr, -1, true));
        _picker->setStandardColors();

        _window->move(100, 100);
        _window->show();
        QVERIFY(QTest::qWaitForWindowActive(_window.get()));
    }

    void cleanup()
    {
        _picker.reset();
        _window.reset();
    }

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
        for (const ColorPickerItem* item : qAsConst(popup()->items))
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
        QCOMPARE(popup()->grid->spacing(), 0);
        QCOMPARE(popup()->grid->contentsMargins(), QMargins(1, 1, 1, 1));
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

    void theColorDialogCanBeSwitchedOffByItsOwnAnswer()
    {
        connect(_picker.get(), SIGNAL(colorChanged(QColor)), this, SLOT(disableColorDialog()));
        open();
        ColorDialogUser user(acceptWith(orange));

        QTest::mouseClick(moreButton(), Qt::LeftButton);

        QVERIFY(user.hasAnswered());
        QCOMPARE(_picker->currentColor(), orange);
        QVERIFY(!moreButton());
    }

    void theNameOfAColorIsItsToolTip()
    {
        QCOMPARE(cell(3)->toolTip(), QString("Dark red"));
        QCOMPARE(cell(3)->accessibleName(), QString("Dark red"));
    }

    // Opening and closing

    void aClickOpensThePopupBelowTheButton()
    {
        QTest::mouseClick(_picker.get(), Qt::LeftButton);

        QVERIFY(popup()->isVisible());
        QVERIFY(_picker->isChecked());
        QCOMPARE(popup()->windowType(), Qt::Popup);
        QCOMPARE(popup()->pos(), _picker->mapToGlobal(QPoint(0, _picker->height())));
    }

    void thePopupStaysOnTheScreen_data()
    {
        QTest::addColumn<qreal>("x");  // of the window's centre, in screen widths
        QTest::addColumn<qreal>("y");  // likewise, in screen heights
        QTest::newRow("left") << 0.0 << 0.5;
        QTest::newRow("right") << 1.0 << 0.5;
        QTest::newRow("top") << 0.5 << 0.0;
        QTest::newRow("bottom") << 0.5 << 1.0;
        QTest::newRow("top left") << 0.0 << 0.0;
        QTest::newRow("bottom right") << 1.0 << 1.0;
        QTest::newRow("outside, top left") << -1.0 << -1.0;
        QTest::newRow("outside, bottom right") << 2.0 << 2.0;
    }

    void thePopupStaysOnTheScreen()
    {
        QFETCH(qreal, x);
        QFETCH(qreal, y);
        const QRect screen = _window->screen()->geometry();
        const QPoint centre(screen.left() + qRound(x * screen.width()),
                            screen.top() + qRound(y * screen.height()));
        _window->move(centre - _window->rect().center());
        const QPoint wanted = _picker->mapToGlobal(QPoint(0, _picker->height()));

        open();

        const QRect shown = popup()->geometry();
        QVERIFY(screen.contains(shown));
        const QPoint lastCorner(screen.right() + 1 - shown.width(), screen.bottom() + 1 - shown.height());
        const QPoint expected(qBound(screen.left(), wanted.x(), lastCorner.x()),
                              qBound(screen.top(), wanted.y(), lastCorner.y()));
        QVERIFY((shown.topLeft() - expected).manhattanLength() <= 2 * platformFrame);
    }

    void thePopupOpensAtTheCurrentColor()
    {
        _picker->setCurrentColor(Qt::cyan);

        open();

        QVERIFY(cell(8)->isSelected());
        QVERIFY(cell(8)->hasFocus());
        QCOMPARE(selectedCount(), 1);
    }

    void thePopupOpensAtTheFirstColorWhenNoneIsSelected()
    {
        popup()->show();

        QCOMPARE(selectedCount(), 0);
        QVERIFY(cell(0)->hasFocus());
    }

    void anEmptyPopupTakesTheFocusItself()
    {
        setPicker(new QtColorPicker(nullptr, -1, true));

        open();
        QVERIFY(popup()->hasFocus());

        QTest::keyClick(popup(), Qt::Key_Down);
        QVERIFY(moreButton()->hasFocus());
    }

    void aPressOnTheButtonClosesThePopupForGood()
    {
        open();
        const QPoint inWindow = _picker->mapTo(_window.get(), _picker->rect().center());

        QTest::mousePress(_window->windowHandle(), Qt::LeftButton, Qt::NoModifier, inWindow);
        QTRY_VERIFY(!popup()->isVisible());
        QCoreApplication::processEvents();  // a press that is handed on to the button arrives before the
                                            // release
        QTest::mouseRelease(_window->windowHandle(), Qt::LeftButton, Qt::NoModifier, inWindow);
        QCoreApplication::processEvents();

        QVERIFY(!popup()->isVisible());
        QVERIFY(!_picker->isChecked());
    }

    void aPressElsewhereClosesThePopup()
    {
        _picker->setCurrentColor(Qt::red);
        open();
        const QPoint besidePopup(_neighbour->geometry().right() + 2, _neighbour->geometry().bottom() + 2);

        QTest::mouseClick(_window->windowHandle(), Qt::LeftButton, Qt::NoModifier, besidePopup);

        QTRY_VERIFY(!popup()->isVisible());
        QVERIFY(!_picker->isChecked());
        QCOMPARE(_picker->currentColor(), QColor(Qt::red));
    }

    void settingAColorClosesThePopup()
    {
        open();

        _picker->setCurrentColor(Qt::red);

        QVERIFY(!popup()->isVisible());
        QVERIFY(!_picker->isChecked());
    }

    void uncheckingTheButtonClosesThePopup()
    {
        open();

        _picker->setChecked(false);

        QVERIFY(!popup()->isVisible());
    }

    void hidingTheWindowClosesThePopup()
    {
        open();

        _window->hide();

        QVERIFY(!popup()->isVisible());
        QVERIFY(!_picker->isChecked());
    }

    void aClosedPopupGivesTheFocusBackAndTheButtonUp()
    {
        _neighbour->setFocus();
        _picker->setChecked(true);
        QSignalSpy hidings(popup(), SIGNAL(hid()));

        popup()->hide();

        QCOMPARE(hidings.count(), 1);
        QVERIFY(!_picker->isChecked());
        QTRY_VERIFY(_picker->hasFocus());
    }

    void thePopupDiesWithThePicker()
    {
        open();
        const QPointer<ColorPickerPopup> openPopup(popup());

        _picker.reset();

        QVERIFY(!openPopup);
        QVERIFY(!QApplication::activePopupWidget());
    }

    void execReturnsWhenThePopupIsHidden()
    {
        QSignalSpy selections(popup(), SIGNAL(selected(QColor)));
        QTimer::singleShot(0, popup(), [this] { QTest::mouseClick(cell(6), Qt::LeftButton); });

        popup()->exec();

        QVERIFY(!popup()->isVisible());
        QCOMPARE(selections.count(), 1);
        QCOMPARE(_picker->currentColor(), QColor(Qt::blue));
    }

    void execReturnsWhenThePopupIsDeleted()
    {
        const QPointer<ColorPickerPopup> dyingPopup(popup());
        QTimer::singleShot(0, this, SLOT(deletePicker()));

        dyingPopup->exec();

        QVERIFY(!dyingPopup);
    }

    // Mouse

    void aClickOnACellChoosesIt()
    {
        open();
        QSignalSpy changes(_picker.get(), SIGNAL(colorChanged(QColor)));
        QSignalSpy hidings(popup(), SIGNAL(hid()));

        QTest::mouseClick(cell(4), Qt::LeftButton);

        QCOMPARE(_picker->currentColor(), QColor(Qt::green));
        QCOMPARE(_picker->text(), QString("Green"));
        QVERIFY(cell(4)->isSelected());
        QCOMPARE(selectedCount(), 1);
        QVERIFY(!popup()->isVisible());
        QCOMPARE(hidings.count(), 1);
        QCOMPARE(changes.count(), 1);
    }

    void aClickOnTheCurrentColorOnlyClosesThePopup()
    {
        open();
        QSignalSpy changes(_picker.get(), SIGNAL(colorChanged(QColor)));

        QTest::mouseClick(cell(0), Qt::LeftButton);

        QVERIFY(!popup()->isVisible());
        QCOMPARE(changes.count(), 0);
    }

    void aReleaseBesideTheCellChoosesNothing()
    {
        open();

        QTest::mousePress(cell(4), Qt::LeftButton);
        QTest::mouseRelease(cell(4), Qt::LeftButton, Qt::NoModifier, QPoint(-1, 5));
        QTest::mousePress(moreButton(), Qt::LeftButton);
        QTest::mouseRelease(moreButton(), Qt::LeftButton, Qt::NoModifier, QPoint(-1, 5));

        QVERIFY(popup()->isVisible());
        QCOMPARE(_picker->currentColor(), QColor(Qt::black));
    }

    void aRightClickChoosesNothing()
    {
        open();

        QTest::mouseClick(cell(4), Qt::RightButton);
        QTest::mouseClick(moreButton(), Qt::RightButton);

        QVERIFY(popup()->isVisible());
        QCOMPARE(_picker->currentColor(), QColor(Qt::black));
    }

    void ofTwoEqualCellsTheClickedOneStaysMarked()
    {
        _picker->insertColor(Qt::gray, "Default");
        open();

        QTest::mouseClick(cell(standardColorCount), Qt::LeftButton);
        QCOMPARE(_picker->text(), QString("Default"));

        open();
        QVERIFY(cell(standardColorCount)->isSelected());
        QVERIFY(!cell(14)->isSelected());
    }

    void theFocusFollowsTheMouse()
    {
        open();

        QTest::mouseMove(cell(7));
        QTRY_VERIFY(cell(7)->hasFocus());

        QTest::mouseMove(moreButton());
        QTRY_VERIFY(moreButton()->hasFocus());
    }

    // Keyboard

    void theSpaceBarOpensThePopup()
    {
        _picker->setFocus();

        QTest::keyClick(_picker.get(), Qt::Key_Space);

        QVERIFY(popup()->isVisible());
        QVERIFY(cell(0)->hasFocus());
    }

    void anArrowKeyMovesTheFocus_data()
    {
        // 0 to 16: the colours, 17: the "more" button; rows of five, the last one of three
        QTest::addColumn<int>("from");
        QTest::addColumn<Qt::Key>("key");
        QTest::addColumn<int>("to");
        QTest::newRow("right") << 0 << Qt::Key_Right << 1;
        QTest::newRow("right, on to the next row") << 4 << Qt::Key_Right << 5;
        QTest::newRow("right, to the more button") << 16 << Qt::Key_Right << 17;
        QTest::newRow("right, at the end") << 17 << Qt::Key_Right << 17;
        QTest::newRow("left") << 7 << Qt::Key_Left << 6;
        QTest::newRow("left, back to the row before") << 5 << Qt::Key_Left << 4;
        QTest::newRow("left, at the beginning") << 0 << Qt::Key_Left << 0;
        QTest::newRow("down") << 1 << Qt::Key_Down << 6;
        QTest::newRow("down, into the last row") << 12 << Qt::Key_Down << 17;
        QTest::newRow("down, into the row that is too short") << 14 << Qt::Key_Down << 17;
        QTest::newRow("down, in the last row") << 15 << Qt::Key_Down << 15;
        QTest::newRow("up") << 17 << Qt::Key_Up << 12;
        QTest::newRow("up, in the first row") << 3 << Qt::Key_Up << 3;
        QTest::newRow("home") << 9 << Qt::Key_Home << 0;
        QTest::newRow("end") << 9 << Qt::Key_End << 17;
        QTest::newRow("a letter") << 9 << Qt::Key_A << 9;
    }

    void anArrowKeyMovesTheFocus()
    {
        QFETCH(int, from);
        QFETCH(Qt::Key, key);
        QFETCH(int, to);
        open();
        popup()->_widgetAtPosition(from)->setFocus();

        QTest::keyClick(popup()->focusWidget(), key);

        QCOMPARE(popup()->_focusPosition(), to);
        QVERIFY(popup()->isVisible());
    }

    void theArrowsAreMirroredWithTheLayout()
    {
        popup()->setLayoutDirection(Qt::RightToLeft);
        open();

        QTest::keyClick(cell(0), Qt::Key_Left);

        QVERIFY(cell(1)->hasFocus());
        QVERIFY(cell(1)->x() < cell(0)->x());
    }

    void theTabKeyFollowsTheGrid()
    {
        _picker->insertColor(orange, "Default", 1);
        open();

        QTest::keyClick(cell(0), Qt::Key_Tab);
        QVERIFY(cell(1)->hasFocus());

        QTest::keyClick(cell(standardColorCount), Qt::Key_Tab);
        cell(standardColorCount)->setFocus();
        QTest::keyClick(cell(standardColorCount), Qt::Key_Tab);
        QVERIFY(moreButton()->hasFocus());
    }

    void aKeyChoosesTheFocusedColor_data()
    {
        QTest::addColumn<Qt::Key>("key");
        QTest::newRow("Enter") << Qt::Key_Enter;
        QTest::newRow("Return") << Qt::Key_Return;
        QTest::newRow("Space") << Qt::Key_Space;
    }

    void aKeyChoosesTheFocusedColor()
    {
        QFETCH(Qt::Key, key);
        QSignalSpy changes(_picker.get(), SIGNAL(colorChanged(QColor)));
        _picker->setFocus();
        QTest::keyClick(_picker.get(), Qt::Key_Space);
        QTest::keyClick(popup()->focusWidget(), Qt::Key_Down);
        QTest::keyClick(popup()->focusWidget(), Qt::Key_Right);

        QTest::keyClick(popup()->focusWidget(), key);

        QCOMPARE(_picker->text(), QString("Blue"));
        QCOMPARE(changes.count(), 1);
        QVERIFY(!popup()->isVisible());
        QTRY_VERIFY(_picker->hasFocus());
    }

    void aKeyHeldDownChoosesNothing()
    {
        open();
        cell(2)->setFocus();

        QKeyEvent repeated(QEvent::KeyPress, Qt::Key_Return, Qt::NoModifier, "\r", true);
        QApplication::sendEvent(cell(2), &repeated);

        QVERIFY(popup()->isVisible());
        QCOMPARE(_picker->currentColor(), QColor(Qt::black));
    }

    void escapeClosesThePopupWithoutAChoice()
    {
        open();
        QTest::keyClick(popup()->focusWidget(), Qt::Key_Right);

        QTest::keyClick(popup()->focusWidget(), Qt::Key_Escape);

        QVERIFY(!popup()->isVisible());
        QVERIFY(!_picker->isChecked());
        QCOMPARE(_picker->currentColor(), QColor(Qt::black));
        QTRY_VERIFY(_picker->hasFocus());
    }

    void aKeyOpensTheColorDialog_data() { aKeyChoosesTheFocusedColor_data(); }

    void aKeyOpensTheColorDialog()
    {
        QFETCH(Qt::Key, key);
        open();
        QTest::keyClick(popup()->focusWidget(), Qt::Key_End);
        ColorDialogUser user(acceptWith(orange));

        QTest::keyClick(popup()->focusWidget(), key);

        QVERIFY(user.hasAnswered());
        QCOMPARE(_picker->currentColor(), orange);
    }

    // Colour dialog

    void aColorAcceptedInTheDialogBecomesCurrent()
    {
        open();
        QSignalSpy changes(_picker.get(), SIGNAL(colorChanged(QColor)));
        ColorDialogUser user(acceptWith(orange));

        QTest::mouseClick(moreButton(), Qt::LeftButton);

        QVERIFY(user.hasAnswered());
        QCOMPARE(_picker->currentColor(), orange);
        QCOMPARE(_picker->text(), QString("Custom"));
        QCOMPARE(names().count("Custom"), 1);
        QVERIFY(cell(standardColorCount)->isSelected());
        QCOMPARE(selectedCount(), 1);
        QVERIFY(!popup()->isVisible());
        QCOMPARE(changes.count(), 1);
        QCOMPARE(changes.first().first().value<QColor>(), orange);
    }

    void aColorAcceptedInTheDialogReusesTheCellOfAnEqualOne()
    {
        open();
        QSignalSpy changes(_picker.get(), SIGNAL(colorChanged(QColor)));
        ColorDialogUser user(acceptWith(QColor::fromHsv(240, 255, 255)));

        QTest::mouseClick(moreButton(), Qt::LeftButton);

        QVERIFY(user.hasAnswered());
        QCOMPARE(names().size(), standardColorCount);
        QCOMPARE(_picker->currentColor(), QColor(Qt::blue));
        QCOMPARE(_picker->text(), QString("Blue"));
        QVERIFY(cell(6)->isSelected());
        QCOMPARE(changes.count(), 1);
    }

    void theCurrentColorAcceptedInTheDialogChangesNothing()
    {
        open();
        QSignalSpy changes(_picker.get(), SIGNAL(colorChanged(QColor)));
        ColorDialogUser user([](QColorDialog* dialog) { press(dialog, QDialogButtonBox::Ok); });

        QTest::mouseClick(moreButton(), Qt::LeftButton);

        QVERIFY(user.hasAnswered());
        QCOMPARE(names().size(), standardColorCount);
        QCOMPARE(changes.count(), 0);
    }

    void aTranslucentColorCanBeChosenInTheDialog()
    {
        const QColor translucent(10, 20, 30, 40);
        open();
        ColorDialogUser user(acceptWith(translucent));

        QTest::mouseClick(moreButton(), Qt::LeftButton);

        QCOMPARE(_picker->currentColor(), translucent);
    }

    void aColorAcceptedInAnEmptyPickerIsNotReplacedByTheFirstInsertion()
    {
        setPicker(new QtColorPicker(nullptr, -1, true));
        open();
        ColorDialogUser user(acceptWith(orange));
        QTest::mouseClick(moreButton(), Qt::LeftButton);

        _picker->insertColor(Qt::blue, "Blue");

        QCOMPARE(_picker->currentColor(), orange);
    }

    void aCancelledDialogChangesNothing()
    {
        open();
        QSignalSpy changes(_picker.get(), SIGNAL(colorChanged(QColor)));
        ColorDialogUser user([](QColorDialog* dialog) {
            dialog->setCurrentColor(orange);
            press(dialog, QDialogButtonBox::Cancel);
        });

        QTest::mouseClick(moreButton(), Qt::LeftButton);

        QVERIFY(user.hasAnswered());
        QCOMPARE(names().size(), standardColorCount);
        QCOMPARE(_picker->currentColor(), QColor(Qt::black));
        QCOMPARE(changes.count(), 0);
        QVERIFY(!_picker->isChecked());
    }

    void theDialogStartsAtTheCurrentColorAboveTheWindow()
    {
        _picker->setCurrentColor(Qt::darkCyan);
        open();
        QColor start;
        const QObject* parent = nullptr;
        bool isPopupGone = false;
        ColorDialogUser user([&](QColorDialog* dialog) {
            start = dialog->currentColor();
            parent = dialog->parent();
            isPopupGone = !popup()->isVisible();
            press(dialog, QDialogButtonBox::Cancel);
        });

        QTest::mouseClick(moreButton(), Qt::LeftButton);

        QCOMPARE(start, QColor(Qt::darkCyan));
        QCOMPARE(parent, _picker.get());
        QVERIFY(isPopupGone);
    }

    void thePickerMayBeDeletedWhileTheDialogIsOpen()
    {
        open();
        QPointer<QColorDialog> orphan;
        ColorDialogUser user([&](QColorDialog* dialog) {
            orphan = dialog;
            deletePicker();
        });

        QTest::mouseClick(moreButton(), Qt::LeftButton);

        QVERIFY(user.hasAnswered());
        QVERIFY(!orphan);
        QVERIFY(!QApplication::activeModalWidget());
    }

    void thePopupMayBeDeletedWhileTheDialogIsOpen()
    {
        auto* parent = new QWidget(_window.get());
        auto* lonePopup = new ColorPickerPopup(-1, true, parent);
        lonePopup->insertColor(Qt::red, "Red");
        lonePopup->show();
        ColorDialogUser user([lonePopup](QColorDialog* dialog) {
            delete lonePopup;
            press(dialog, QDialogButtonBox::Ok);
        });

        QTest::mouseClick(lonePopup->moreButton, Qt::LeftButton);

        QVERIFY(user.hasAnswered());
        QVERIFY(parent->children().isEmpty());
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

private:
    std::unique_ptr<QWidget> _window;
    QLineEdit* _neighbour = nullptr;         // child of the window, below the picker
    std::unique_ptr<QtColorPicker> _picker;  // in the window's layout, yet ours to delete; before the window
};

QTEST_MAIN(TestQtColorPicker)

#include "tst_qtcolorpicker.moc"
