#include "qtcolorpicker.h"

#include "colorpickerfixture.h"

#include <QApplication>
#include <QColorDialog>
#include <QDialogButtonBox>
#include <QPointer>
#include <QSignalSpy>
#include <QTimer>
#include <QtTest>

#include <functional>

namespace {

/// Waits in the background for the colour dialog, then answers it as told.
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

}  // namespace

/// The colour dialog behind the "more" button of a colour picker.
class TestColorPickerDialog : public QObject, protected ColorPickerFixture
{
    Q_OBJECT

public slots:
    void disableColorDialog() { _picker->setColorDialogEnabled(false); }

private slots:
    void initTestCase() { QApplication::setAttribute(Qt::AA_DontUseNativeDialogs); }

    void init() { showPicker(); }
    void cleanup() { deletePickerAndWindow(); }

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
            _picker.reset();
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

        QTest::mouseClick(moreButtonOf(lonePopup), Qt::LeftButton);

        QVERIFY(user.hasAnswered());
        QVERIFY(parent->children().isEmpty());
    }

    void aKeyOpensTheColorDialog_data() { pressingKeys(); }

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
};

QTEST_MAIN(TestColorPickerDialog)

#include "tst_colorpickerdialog.moc"
