#include "connections/connectionpropertieswidget.h"

#include "connections/connection.h"
#include "formhelpers.h"
#include "network/networksimulation.h"
#include "testhelpers.h"

#include <QFormLayout>
#include <QGraphicsView>
#include <QSignalSpy>
#include <QVBoxLayout>

#include <limits>

using namespace FormHelpers;
using namespace TestHelpers;

namespace {

Connection& defaults()
{
    return *network()->defaultConnection();
}

Form openForm(Connection* connection)
{
    return open(connection->propertiesWidget());
}

QDoubleSpinBox* percentBox(const Form& form, const char* label)
{
    return field<QDoubleSpinBox>(form.get(), QLatin1String(label));
}

QSpinBox* delayBox(const Form& form)
{
    return field<QSpinBox>(form.get(), QStringLiteral("Transmission Delay [ms]"));
}

QSpinBox* deviationBox(const Form& form)
{
    return field<QSpinBox>(form.get(), QStringLiteral("Tx Delay Deviation [ms]"));
}

QDoubleSpinBox* strokeBox(const Form& form)
{
    return field<QDoubleSpinBox>(form.get(), QStringLiteral("Connection Stroke"));
}

QtColorPicker* colorPicker(const Form& form)
{
    return field<QtColorPicker>(form.get(), QStringLiteral("Connection Color"));
}

QPushButton* defaultBehavior(const Form& form)
{
    return button(form.get(), QStringLiteral("Default Behavior"));
}

QPushButton* defaultAppearance(const Form& form)
{
    return button(form.get(), QStringLiteral("Default Appearance"));
}

int drawnDelay(const LinkedPair& pair)
{
    int delay = -1;
    Frame(pair.unicast(), pair.sender, pair.receiver, pair.link, -1, &delay, true);
    return delay;
}

}  // namespace

class TestConnectionPropertiesWidget : public QObject
{
    Q_OBJECT

private slots:
    void init() { qsrand(1); }

    // What it shows
    void theRowsOfAConnectionStandInOrder()
    {
        const LinkedPair pair;
        TestAccess::delay(*pair.link) = 1;
        TestAccess::strokeWidth(*pair.link) = 1;
        const QStringList expected{"<b>Connection</b>",
                                   "[Behavior]",
                                   "Temporary broken",
                                   "Reliability [%]",
                                   "Error Detection Reliability [%]",
                                   "Transmission Delay [ms]",
                                   "Tx Delay Deviation [ms]",
                                   "(Default Behavior)",
                                   "[Statistics]",
                                   "Frames",
                                   "Frames Lost",
                                   "CRC Errors",
                                   "(Reset Statistics)",
                                   "[Comments]",
                                   "[Appearance]",
                                   "Connection Color",
                                   "Connection Stroke",
                                   "(Default Appearance)"};
        QCOMPARE(visibleTexts(openForm(pair.link).get()), expected);
    }

    void theRowsOfTheDefaultsStandInOrder()
    {
        const LinkedPair pair;
        const QStringList expected{"<b>Connection defaults</b>",
                                   "[Behavior]",
                                   "Reliability [%]",
                                   "Error Detection Reliability [%]",
                                   "Transmission Delay [ms]",
                                   "Tx Delay Deviation [ms]",
                                   "[Appearance]",
                                   "Connection Color",
                                   "Connection Stroke"};
        QCOMPARE(visibleTexts(openForm(&defaults()).get()), expected);
    }

    void numbersHaveTheirLimits_data()
    {
        QTest::addColumn<QString>("label");
        QTest::addColumn<QVector<double>>("limits");
        const QVector<double> percentages{0, 100, 1, 2};
        const QVector<double> milliseconds{0, 2147483647, 10, 0};
        QTest::newRow("reliability") << "Reliability [%]" << percentages;
        QTest::newRow("error detection") << "Error Detection Reliability [%]" << percentages;
        QTest::newRow("delay") << "Transmission Delay [ms]" << milliseconds;
        QTest::newRow("deviation") << "Tx Delay Deviation [ms]" << milliseconds;
        QTest::newRow("stroke") << "Connection Stroke" << QVector<double>{0.1, 10, 0.1, 2};
    }

    void numbersHaveTheirLimits()
    {
        QFETCH(QString, label);
        QFETCH(QVector<double>, limits);
        const LinkedPair pair;
        for (Connection* connection : {pair.link, &defaults()}) {
            const Form form = openForm(connection);
            const auto* box = field<QAbstractSpinBox>(form.get(), label);
            QVERIFY(box);
            QCOMPARE(numberLimits(box), limits);
            QCOMPARE(box->alignment(), Qt::AlignRight);
            QCOMPARE(box->sizePolicy().horizontalPolicy(), QSizePolicy::MinimumExpanding);
            QCOMPARE(box->sizePolicy().verticalPolicy(), QSizePolicy::Preferred);
        }
    }

    void theTabKeyLeadsFromTopToBottom()
    {
        const LinkedPair pair;
        TestAccess::delay(*pair.link) = 1;
        QVERIFY(isTabOrderFromTopToBottom(openForm(pair.link).get()));
    }

    void labelsStandAboveTheirFields()
    {
        const LinkedPair pair;
        const Form form = openForm(pair.link);
        const QList<QFormLayout*> layouts = form->findChildren<QFormLayout*>();
        QCOMPARE(layouts.size(), 3);
        for (const QFormLayout* layout : layouts)
            QCOMPARE(layout->rowWrapPolicy(), QFormLayout::WrapAllRows);
        const auto* title = form->findChild<QLabel*>();
        QCOMPARE(title->alignment(), Qt::AlignHCenter | Qt::AlignBottom);
    }

    void groupsHaveTheirStretch()
    {
        const LinkedPair pair;
        const Form form = openForm(pair.link);
        const auto* layout = qobject_cast<QVBoxLayout*>(form->layout());
        QCOMPARE(layout->contentsMargins(), QMargins(5, 5, 5, 5));
        QList<int> stretches;
        for (int i = 0; i < layout->count(); ++i)
            stretches.append(layout->stretch(i));
        QCOMPARE(stretches, (QList<int>{0, 0, 1, 1, 1, 10}));
    }

    void aFreshConnectionShowsTheDefaultsAndNoDefaultButtons()
    {
        const LinkedPair pair;
        const Form form = openForm(pair.link);
        QCOMPARE(percentBox(form, "Reliability [%]")->text(), QStringLiteral("100.00"));
        QCOMPARE(percentBox(form, "Error Detection Reliability [%]")->text(), QStringLiteral("100.00"));
        QCOMPARE(delayBox(form)->text(), QStringLiteral("0"));
        QCOMPARE(deviationBox(form)->text(), QStringLiteral("0"));
        QCOMPARE(colorPicker(form)->currentColor(), QColor(Qt::darkBlue));
        QCOMPARE(strokeBox(form)->text(), QStringLiteral("2.00"));
        QVERIFY(!field<QCheckBox>(form.get(), "Temporary broken")->isChecked());
        QVERIFY(!defaultBehavior(form));
        QVERIFY(!defaultAppearance(form));
    }

    void ownValuesAreShownWithBothDefaultButtons()
    {
        const LinkedPair pair;
        TestAccess::broken(*pair.link) = true;
        TestAccess::reliability(*pair.link) = 0.25;
        TestAccess::errorDetection(*pair.link) = 0.0;
        TestAccess::delay(*pair.link) = 40;
        TestAccess::deviation(*pair.link) = 7;
        TestAccess::color(*pair.link) = Qt::red;
        TestAccess::strokeWidth(*pair.link) = 3.5;
        const Form form = openForm(pair.link);
        QVERIFY(field<QCheckBox>(form.get(), "Temporary broken")->isChecked());
        QCOMPARE(percentBox(form, "Reliability [%]")->value(), 25.0);
        QCOMPARE(percentBox(form, "Error Detection Reliability [%]")->value(), 0.0);
        QCOMPARE(delayBox(form)->value(), 40);
        QCOMPARE(deviationBox(form)->value(), 7);
        QCOMPARE(colorPicker(form)->currentColor(), QColor(Qt::red));
        QCOMPARE(strokeBox(form)->value(), 3.5);
        QVERIFY(defaultBehavior(form));
        QVERIFY(defaultAppearance(form));
    }

    void numbersThatAreNoProbabilityShowWhatTheyDo_data()
    {
        constexpr double infinity = std::numeric_limits<double>::infinity();
        QTest::addColumn<double>("own");
        QTest::addColumn<double>("inherited");
        QTest::addColumn<QString>("text");
        QTest::newRow("infinity") << infinity << 0.5 << "100.00";
        QTest::newRow("above 1") << 7.0 << 0.5 << "100.00";
        QTest::newRow("negative infinity") << -infinity << 0.5 << "50.00";
        QTest::newRow("undecided, inherited infinity") << -1.0 << infinity << "100.00";
        QTest::newRow("undecided everywhere") << -1.0 << -1.0 << "0.00";
        QTest::newRow("undecided, inherited negative infinity") << -1.0 << -infinity << "0.00";
    }

    void numbersThatAreNoProbabilityShowWhatTheyDo()
    {
        QFETCH(double, own);
        QFETCH(double, inherited);
        QFETCH(QString, text);
        const LinkedPair pair;
        TestAccess::reliability(*pair.link) = own;
        TestAccess::errorDetection(*pair.link) = own;
        TestAccess::reliability(defaults()) = inherited;
        TestAccess::errorDetection(defaults()) = inherited;
        const Form form = openForm(pair.link);
        QCOMPARE(percentBox(form, "Reliability [%]")->text(), text);
        QCOMPARE(percentBox(form, "Error Detection Reliability [%]")->text(), text);
    }

    void eachOwnBehaviorAloneShowsItsButton_data()
    {
        QTest::addColumn<double>("reliability");
        QTest::addColumn<double>("errorDetection");
        QTest::addColumn<int>("delay");
        QTest::addColumn<int>("deviation");
        QTest::newRow("reliability") << 0.0 << -1.0 << -1 << -1;
        QTest::newRow("error detection") << -1.0 << 0.0 << -1 << -1;
        QTest::newRow("delay") << -1.0 << -1.0 << 0 << -1;
        QTest::newRow("deviation") << -1.0 << -1.0 << -1 << 0;
    }

    void eachOwnBehaviorAloneShowsItsButton()
    {
        QFETCH(double, reliability);
        QFETCH(double, errorDetection);
        QFETCH(int, delay);
        QFETCH(int, deviation);
        const LinkedPair pair;
        TestAccess::reliability(*pair.link) = reliability;
        TestAccess::errorDetection(*pair.link) = errorDetection;
        TestAccess::delay(*pair.link) = delay;
        TestAccess::deviation(*pair.link) = deviation;
        const Form form = openForm(pair.link);
        QVERIFY(defaultBehavior(form));
        QVERIFY(!defaultAppearance(form));
    }

    void eachOwnAppearanceAloneShowsItsButton_data()
    {
        QTest::addColumn<QColor>("color");
        QTest::addColumn<double>("strokeWidth");
        QTest::newRow("colour") << QColor(Qt::red) << -1.0;
        QTest::newRow("stroke width") << QColor() << 0.0;
    }

    void eachOwnAppearanceAloneShowsItsButton()
    {
        QFETCH(QColor, color);
        QFETCH(double, strokeWidth);
        const LinkedPair pair;
        TestAccess::color(*pair.link) = color;
        TestAccess::strokeWidth(*pair.link) = strokeWidth;
        const Form form = openForm(pair.link);
        QVERIFY(defaultAppearance(form));
        QVERIFY(!defaultBehavior(form));
    }

    void theStatisticsAreReadOnlyZeros()
    {
        const LinkedPair pair;
        TestAccess::totalFrames(*pair.link) = 5;
        const Form form = openForm(pair.link);
        for (const char* label : {"Frames", "Frames Lost", "CRC Errors"}) {
            const auto* count = field<QLineEdit>(form.get(), QLatin1String(label));
            QVERIFY2(count, label);
            QCOMPARE(count->text(), QStringLiteral("0"));
            QVERIFY(!count->isEnabled());
            QCOMPARE(count->alignment(), Qt::AlignRight);
        }
    }

    void thePickerOfAConnectionOffersTheDefaultColourOnly()
    {
        const LinkedPair pair;
        const Form form = openForm(pair.link);
        QCOMPARE(colorPicker(form)->text(), QStringLiteral("Default"));
        QCOMPARE(colorPicker(form)->color(0), QColor(Qt::darkBlue));
        QVERIFY(!colorPicker(form)->color(1).isValid());
        QVERIFY(colorPicker(form)->colorDialogEnabled());
    }

    void thePickerOfTheDefaultsOffersTheStandardColours()
    {
        const LinkedPair pair;
        const Form form = openForm(&defaults());
        QCOMPARE(colorPicker(form)->text(), QStringLiteral("Dark blue"));
        QCOMPARE(colorPicker(form)->color(0), QColor(Qt::black));
        QCOMPARE(colorPicker(form)->color(16), QColor(Qt::lightGray));
        QVERIFY(!colorPicker(form)->color(17).isValid());
    }

    void aFurtherFormIsTakenInAtTheBottom()
    {
        const LinkedPair pair;
        auto* further = new QWidget;
        (new QVBoxLayout(further))->addWidget(new QLabel(QStringLiteral("further")));
        ConnectionPropertiesWidget form(&defaults(), further);
        QVERIFY(show(&form));
        QCOMPARE(further->parentWidget(), &form);
        QCOMPARE(further->layout()->contentsMargins(), QMargins());
        auto* layout = qobject_cast<QVBoxLayout*>(form.layout());
        QCOMPARE(layout->stretch(layout->indexOf(further)), 1);
        QCOMPARE(visibleTexts(&form).last(), QStringLiteral("further"));
    }

    // What it stores
    void tickingBrokenDropsTheFramesInFlightForGood()
    {
        const LinkedPair pair;
        TestAccess::delay(*pair.link) = 10000;
        pair.sender->dataRequest(pair.unicast());
        QCOMPARE(TestAccess::framesInFlight(*pair.link).size(), 1);
        const Form form = openForm(pair.link);
        auto* broken = field<QCheckBox>(form.get(), QStringLiteral("Temporary broken"));
        QVERIFY(!broken->isTristate());

        click(broken);
        QVERIFY(pair.link->isBroken());
        QVERIFY(TestAccess::framesInFlight(*pair.link).isEmpty());

        click(broken);
        QVERIFY(!pair.link->isBroken());
        QVERIFY(TestAccess::framesInFlight(*pair.link).isEmpty());
    }

    void typedReliabilitiesAreStoredAsFractions()
    {
        const LinkedPair pair;
        const Form form = openForm(pair.link);
        type(percentBox(form, "Reliability [%]"), QStringLiteral("99.5"));
        QCOMPARE(pair.link->reliability(), 0.995);
        QVERIFY(defaultBehavior(form));

        QTest::keyClick(percentBox(form, "Error Detection Reliability [%]"), Qt::Key_Down);
        QCOMPARE(pair.link->errorDetectionReliability(), 0.99);
    }

    void aTypedDelayOfZeroIsStoredButTheDefaultDelayIsUsed()
    {
        const LinkedPair pair;
        TestAccess::delay(defaults()) = 30;
        const Form form = openForm(pair.link);
        QCOMPARE(delayBox(form)->value(), 30);

        type(delayBox(form), QStringLiteral("0"));
        QCOMPARE(pair.link->delayMs(), 0);
        QVERIFY(defaultBehavior(form));
        QCOMPARE(drawnDelay(pair), 30);

        const Form later = openForm(pair.link);
        QCOMPARE(delayBox(later)->value(), 0);
    }

    void aTypedDeviationIsStored()
    {
        const LinkedPair pair;
        const Form form = openForm(pair.link);
        type(deviationBox(form), QStringLiteral("250"));
        QCOMPARE(pair.link->delayDeviationMs(), 250);
        QCOMPARE(pair.link->delayMs(), -1);
        QVERIFY(defaultBehavior(form));
    }

    void defaultBehaviorGivesTheOwnValuesUp()
    {
        const LinkedPair pair;
        TestAccess::reliability(defaults()) = 0.5;
        TestAccess::delay(defaults()) = 11;
        const Form form = openForm(pair.link);
        enter(percentBox(form, "Reliability [%]"), QStringLiteral("90"));
        enter(percentBox(form, "Error Detection Reliability [%]"), QStringLiteral("80"));
        enter(delayBox(form), QStringLiteral("70"));
        enter(deviationBox(form), QStringLiteral("60"));

        click(defaultBehavior(form));
        QCOMPARE(percentBox(form, "Reliability [%]")->value(), 50.0);
        QCOMPARE(percentBox(form, "Error Detection Reliability [%]")->value(), 100.0);
        QCOMPARE(delayBox(form)->value(), 11);
        QCOMPARE(deviationBox(form)->value(), 0);
        QCOMPARE(pair.link->reliability(), -1.0);
        QCOMPARE(pair.link->errorDetectionReliability(), -1.0);
        QCOMPARE(pair.link->delayMs(), -1);
        QCOMPARE(pair.link->delayDeviationMs(), -1);
        QVERIFY(!defaultBehavior(form));
    }

    void defaultBehaviorOnEqualValuesChangesNoBox()
    {
        const LinkedPair pair;
        TestAccess::reliability(*pair.link) = 1.0;
        TestAccess::delay(*pair.link) = 0;
        const Form form = openForm(pair.link);
        QSignalSpy reliabilityChanges(percentBox(form, "Reliability [%]"), SIGNAL(valueChanged(double)));
        QSignalSpy delayChanges(delayBox(form), SIGNAL(valueChanged(int)));

        click(defaultBehavior(form));
        QCOMPARE(reliabilityChanges.size(), 0);
        QCOMPARE(delayChanges.size(), 0);
        QCOMPARE(pair.link->reliability(), -1.0);
        QCOMPARE(pair.link->delayMs(), -1);
        QVERIFY(!defaultBehavior(form));
    }

    void resettingTheStatisticsZeroesTheCounters()
    {
        const LinkedPair pair;
        TestAccess::totalFrames(*pair.link) = 3;
        TestAccess::lostFrames(*pair.link) = 2;
        TestAccess::crcErrors(*pair.link) = 1;
        const Form form = openForm(pair.link);
        click(button(form.get(), QStringLiteral("Reset Statistics")));
        QCOMPARE(pair.link->totalFrames(), 0);
        QCOMPARE(pair.link->lostFrames(), 0);
        QCOMPARE(pair.link->crcErrors(), 0);
    }

    void theCommentIsTheToolTipOnEveryKeystroke()
    {
        const LinkedPair pair;
        pair.link->setToolTip(QStringLiteral("<i>as typed</i>"));
        const Form form = openForm(pair.link);
        auto* comment = form->findChild<QTextEdit*>();
        QCOMPARE(comment->toPlainText(), QStringLiteral("<i>as typed</i>"));

        type(comment, QStringLiteral("a"));
        QCOMPARE(pair.link->toolTip(), QStringLiteral("a"));
        QTest::keyClick(comment, Qt::Key_Return);
        QTest::keyClick(comment, 'b');
        QCOMPARE(pair.link->toolTip(), QStringLiteral("a\nb"));
    }

    void aChosenColourIsStored()
    {
        const LinkedPair pair;
        TestAccess::color(*pair.link) = Qt::red;
        const Form form = openForm(pair.link);
        QCOMPARE(colorPicker(form)->text(), QStringLiteral("Custom"));
        choose(colorPicker(form), {Qt::Key_Left, Qt::Key_Return});
        QCOMPARE(colorPicker(form)->text(), QStringLiteral("Default"));
        QCOMPARE(TestAccess::color(*pair.link), QColor(Qt::darkBlue));
        QVERIFY(defaultAppearance(form));
    }

    void theStrokeWidthIsStoredAndWidensTheBounds()
    {
        const LinkedPair pair;
        pair.receiver->setPos(100, 100);
        const Form form = openForm(pair.link);
        network()->items();  // the scene remembers the bounds of now
        type(strokeBox(form), QStringLiteral("9"));
        QCOMPARE(TestAccess::strokeWidth(*pair.link), 9.0);
        QVERIFY(defaultAppearance(form));
        const QList<QGraphicsItem*> found
            = network()->items(QRectF(104, 104, 4, 4), Qt::IntersectsItemBoundingRect);
        QVERIFY(found.contains(pair.link));
    }

    void defaultAppearanceGivesTheOwnValuesUp()
    {
        const LinkedPair pair;
        TestAccess::color(*pair.link) = Qt::red;
        TestAccess::strokeWidth(*pair.link) = 5;
        const Form form = openForm(pair.link);
        click(defaultAppearance(form));
        QCOMPARE(colorPicker(form)->currentColor(), QColor(Qt::darkBlue));
        QCOMPARE(strokeBox(form)->value(), 2.0);
        QVERIFY(!TestAccess::color(*pair.link).isValid());
        QCOMPARE(TestAccess::strokeWidth(*pair.link), -1.0);
        QVERIFY(!defaultAppearance(form));
    }

    void theDefaultsFormStoresInTheDefaultConnection()
    {
        const LinkedPair pair;
        const Form form = openForm(&defaults());
        enter(percentBox(form, "Reliability [%]"), QStringLiteral("90"));
        enter(percentBox(form, "Error Detection Reliability [%]"), QStringLiteral("80"));
        enter(delayBox(form), QStringLiteral("70"));
        enter(deviationBox(form), QStringLiteral("60"));
        enter(strokeBox(form), QStringLiteral("5"));
        choose(colorPicker(form), {Qt::Key_Left, Qt::Key_Return});
        QCOMPARE(defaults().reliability(), 0.9);
        QCOMPARE(defaults().errorDetectionReliability(), 0.8);
        QCOMPARE(defaults().delayMs(), 70);
        QCOMPARE(defaults().delayDeviationMs(), 60);
        QCOMPARE(TestAccess::strokeWidth(defaults()), 5.0);
        QCOMPARE(TestAccess::color(defaults()), QColor(Qt::blue));  // one step before "Dark blue"
    }

    void theReliabilityOfTheDefaultsRedrawsTheLinksThatFollowIt()
    {
        const LinkedPair pair;
        pair.receiver->setPos(200, 100);
        TestAccess::strokeWidth(*pair.link) = 10;
        QGraphicsView view(network());
        view.setSceneRect(0, 0, 200, 100);
        QVERIFY(show(&view));
        const auto lineColor = [&view] {
            return view.grab(QRect(view.mapFromScene(100, 50), QSize(1, 1))).toImage().pixelColor(0, 0);
        };
        QTRY_COMPARE(lineColor(), QColor(Qt::darkBlue));

        const Form form = openForm(&defaults());
        QSignalSpy redraws(network(), SIGNAL(changed(QList<QRectF>)));
        type(percentBox(form, "Reliability [%]"), QStringLiteral("50"));
        QVERIFY(redraws.wait());
        QVERIFY(lineColor().red() > 100);
    }

    void theAppearanceOfTheDefaultsRedrawsTheLinksThatFollowIt()
    {
        const LinkedPair pair;
        const Form form = openForm(&defaults());
        QTest::qWait(0);
        QSignalSpy redraws(network(), SIGNAL(changed(QList<QRectF>)));
        type(strokeBox(form), QStringLiteral("5"));
        QVERIFY(redraws.wait());
        choose(colorPicker(form), {Qt::Key_Left, Qt::Key_Return});
        QVERIFY(redraws.wait());
    }

    void theOtherDefaultsRedrawNothing()
    {
        const LinkedPair pair;
        const Form form = openForm(&defaults());
        QCoreApplication::processEvents();
        QSignalSpy redraws(network(), SIGNAL(changed(QList<QRectF>)));
        type(percentBox(form, "Error Detection Reliability [%]"), QStringLiteral("50"));
        type(delayBox(form), QStringLiteral("5"));
        type(deviationBox(form), QStringLiteral("5"));
        QVERIFY(passTimeouts(50));
        QCOMPARE(redraws.size(), 0);
    }

    // What it leaves alone

    /// The boxes may show a rounded or cut number.
    void enteringAndLeavingTheFieldsStoresNothing()
    {
        const LinkedPair pair;
        TestAccess::reliability(*pair.link) = 0.999999;
        TestAccess::errorDetection(*pair.link) = 7.0;
        TestAccess::strokeWidth(*pair.link) = 100.0;
        const Form form = openForm(pair.link);
        visitAllFields(form.get());
        QCOMPARE(pair.link->reliability(), 0.999999);
        QCOMPARE(pair.link->errorDetectionReliability(), 7.0);
        QCOMPARE(pair.link->delayMs(), -1);
        QCOMPARE(pair.link->delayDeviationMs(), -1);
        QCOMPARE(TestAccess::strokeWidth(*pair.link), 100.0);
        QVERIFY(!TestAccess::color(*pair.link).isValid());
    }

    void theWheelOverANumberWithoutFocusChangesNothing()
    {
        const LinkedPair pair;
        const Form form = openForm(pair.link);
        QDoubleSpinBox* box = percentBox(form, "Reliability [%]");
        const auto turnWheel = [box] {
            const QPointF place = box->rect().center();
            QWheelEvent event(place, box->mapToGlobal(place.toPoint()), QPoint(), QPoint(0, -120),
                              Qt::NoButton, Qt::NoModifier, Qt::NoScrollPhase, false);
            QApplication::sendEvent(box, &event);
        };
        if (QWidget* focused = form->focusWidget())
            focused->clearFocus();
        turnWheel();
        QCOMPARE(box->value(), 100.0);
        QCOMPARE(pair.link->reliability(), -1.0);

        box->setFocus();
        turnWheel();
        QCOMPARE(box->value(), 99.0);
    }

    void theFormMayOutliveItsConnection()
    {
        const LinkedPair pair;
        const Form form = openForm(pair.link);
        TestAccess::delay(*pair.link) = 1;
        delete pair.link;
        workAllFields(form.get());
        click(button(form.get(), QStringLiteral("Reset Statistics")));
        click(defaultBehavior(form));
        click(defaultAppearance(form));
        QCOMPARE(defaults().delayMs(), 0);
        QVERIFY(!defaultBehavior(form));
    }

    void theFormMayGoWhileAFieldIsEdited()
    {
        const LinkedPair pair;
        Form form = openForm(pair.link);
        type(delayBox(form), QStringLiteral("5"));
        form.reset();
        QCOMPARE(pair.link->delayMs(), 5);

        form = openForm(pair.link);
        QTest::mouseClick(colorPicker(form), Qt::LeftButton);
        QVERIFY(QApplication::activePopupWidget());
        form.reset();
        QVERIFY(!QApplication::activePopupWidget());
    }
};

QTEST_MAIN(TestConnectionPropertiesWidget)
#include "tst_connectionpropertieswidget.moc"
