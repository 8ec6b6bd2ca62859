#include "qtcolorpicker.h"

#include "colorpickerfixture.h"

#include <QApplication>
#include <QPointer>
#include <QScreen>
#include <QSignalSpy>
#include <QTimer>
#include <QtTest>

namespace {

constexpr int platformFrame = 2;  // the offscreen platform keeps windows this far off the left and top edge

}  // namespace

/// The popup of a colour picker: how it opens and closes, and what mouse and keys do in it.
class TestColorPickerPopup : public QObject, protected ColorPickerFixture
{
    Q_OBJECT

public slots:
    void deletePicker() { _picker.reset(); }

private slots:
    void initTestCase() { QApplication::setAttribute(Qt::AA_DontUseNativeDialogs); }

    void init() { showPicker(); }
    void cleanup() { deletePickerAndWindow(); }

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
        QCoreApplication::processEvents();  // a press that Qt hands on to the button comes before the release
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
        widgetAt(from)->setFocus();

        QTest::keyClick(popup()->focusWidget(), key);

        QCOMPARE(focusPosition(), to);
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

    void aKeyChoosesTheFocusedColor_data() { pressingKeys(); }

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
};

QTEST_MAIN(TestColorPickerPopup)

#include "tst_colorpickerpopup.moc"
