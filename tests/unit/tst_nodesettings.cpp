#include "nodes/nodepropertieswidget.h"

#include "nodeform.h"
#include "nodes/tcpnodepropertieswidget.h"
#include "sockethelpers.h"

#include <QInputDialog>
#include <QSignalSpy>

using namespace FormHelpers;
using namespace TestHelpers;

namespace {

/// Clicks "Assign Address...", types \a text and presses \a key.
void assign(const Form& form, const QString& text, Qt::Key key)
{
    bool isAnswered = false;
    whenDialogOpens([&](QWidget* dialog) {
        isAnswered = true;
        QTest::keyClicks(dialog->focusWidget(), text);
        QTest::keyClick(dialog->focusWidget(), key);
    });
    click(assignButton(form));
    if (!isAnswered)
        qFatal("no dialog");
}

}  // namespace

/// Tests what happens to a node when a user edits its form.
class TestNodeSettings : public QObject
{
    Q_OBJECT

private slots:
    // Identity

    void typingTheNameRenamesTheNode()
    {
        const OneNode one;
        const Form form = openForm(one.node);
        type(field<QLineEdit>(form.get(), QStringLiteral("Name")), QStringLiteral("beta"));
        QCOMPARE(one.node->name(), QStringLiteral("beta"));
    }

    /// Names the node as a program may, with millions of characters: a field would lay them out for seconds.
    void anEndlessNameIsCutInTheFormOnly()
    {
        const OneNode one;
        const QString name(100000, QLatin1Char('n'));
        one.node->setName(name);
        const Form form = openForm(one.node);
        const auto* shown = field<QLineEdit>(form.get(), QStringLiteral("Name"));
        QCOMPARE(shown->text().size(), shown->maxLength());
        QCOMPARE(one.node->name(), name);
    }

    void anAssignedAddressTakesThePlaceOfTheButton()
    {
        const OneNode one{QByteArray()};
        const Form form = openForm(one.node);
        QVERIFY(visibleTexts(form.get()).contains(QStringLiteral("Node Address Empty!")));
        QVERIFY(!visibleTexts(form.get()).contains(QStringLiteral("Node Address")));

        assign(form, QStringLiteral("01:02:0304:05ab"), Qt::Key_Return);
        QCOMPARE(one.node->address(), QByteArray::fromHex("0102030405AB"));
        const QStringList behavior{"[Behavior]", "Node address", "Name", "Promiscuous mode"};
        QTRY_COMPARE(visibleTexts(form.get()).mid(3, 4), behavior);
        QVERIFY(!assignButton(form));
        QVERIFY(!visibleTexts(form.get()).contains(QStringLiteral("Node Address Empty!")));

        const auto* address = field<QLineEdit>(form.get(), QStringLiteral("Node address"));
        QVERIFY(address && address->isVisible() && !address->isEnabled());
        QCOMPARE(address->text(), QStringLiteral("01:02:03:04:05:AB"));
        QCOMPARE(address->inputMask(), QStringLiteral("XX:XX:XX:XX:XX:XX"));
    }

    void theAssignDialogAsksUnderTheMaskOfTheNetwork()
    {
        const OneNode one{QByteArray()};
        TestAccess::parameters(*network()).addressLength = 2;
        const Form form = openForm(one.node);
        QString mask;
        QStringList texts;
        bool isWideModalDialog = false;
        whenDialogOpens([&](QWidget* dialog) {
            const auto* input = qobject_cast<QInputDialog*>(dialog);
            isWideModalDialog = input && input->isModal() && input->width() >= 200;
            mask = dialog->findChild<QLineEdit*>()->inputMask();
            texts = visibleTexts(dialog);
            QTest::keyClick(dialog, Qt::Key_Escape);
        });
        click(assignButton(form));
        QVERIFY(isWideModalDialog);
        QCOMPARE(mask, QStringLiteral("XX:XX"));
        QCOMPARE(texts.first(), QStringLiteral("New Address for the node:"));
        QVERIFY(!form->findChild<QInputDialog*>());
    }

    void anAddressOfTheWrongLengthIsIgnored_data()
    {
        QTest::addColumn<QString>("text");
        QTest::newRow("nothing") << "";
        QTest::newRow("one pair short") << "0102030405";
        QTest::newRow("one digit short") << "0102030405A";
        QTest::newRow("one character no digit") << "0102030405Ax";
        QTest::newRow("three characters no digits") << "010203040xyz";
    }

    void anAddressOfTheWrongLengthIsIgnored()
    {
        QFETCH(QString, text);
        const OneNode one{QByteArray()};
        const Form form = openForm(one.node);
        assign(form, text, Qt::Key_Return);
        QCOMPARE(one.node->address(), QByteArray());
    }

    void oneDigitIsNoAddressWhereAddressesHaveNoBytes()
    {
        const OneNode one{QByteArray()};
        TestAccess::parameters(*network()).addressLength = 0;
        const Form form = openForm(one.node);
        assign(form, QStringLiteral("A"), Qt::Key_Return);
        QVERIFY(assignButton(form));
        QVERIFY(!field<QLineEdit>(form.get(), QStringLiteral("Node address")));
    }

    void aCancelledAssignmentChangesNothing()
    {
        const OneNode one{QByteArray()};
        const Form form = openForm(one.node);
        assign(form, QStringLiteral("010203040506"), Qt::Key_Escape);
        QCOMPARE(one.node->address(), QByteArray());
        QVERIFY(assignButton(form));
        QVERIFY(!form->findChild<QInputDialog*>());
    }

    void theNodeMayGoWhileItsAddressIsAskedFor()
    {
        const OneNode one{QByteArray()};
        const Form form = openForm(one.node);
        whenDialogOpens([&](QWidget* dialog) {
            delete one.node;
            QTest::keyClicks(dialog->focusWidget(), QStringLiteral("010203040506"));
            QTest::keyClick(dialog->focusWidget(), Qt::Key_Return);
        });
        click(assignButton(form));
        QVERIFY(assignButton(form));
    }

    void theFormMayGoWhileTheAddressIsAskedFor()
    {
        const OneNode one{QByteArray()};
        QPointer<QWidget> form = openForm(one.node).release();
        whenDialogOpens([&](QWidget*) { delete form; });
        QMetaObject::invokeMethod(form->findChild<NodePropertiesWidget*>(), "assignAddress");
        QVERIFY(!form);
        QCOMPARE(one.node->address(), QByteArray());
    }

    // Behaviour

    void everySwitchStoresItsState()
    {
        const OneNode one;
        const Form form = openForm(one.node);
        for (const SwitchSetting& setting : switchSettings) {
            for (const Qt::CheckState state : {Qt::Checked, Qt::Unchecked, Qt::PartiallyChecked}) {
                click(checkBox(form, setting.label));
                QCOMPARE(setting.of(*one.node), state);
            }
        }
        const Form defaultsForm = openForm(&defaultNode());
        for (const SwitchSetting& setting : switchSettings) {
            const Qt::CheckState before = setting.of(defaultNode());
            click(checkBox(defaultsForm, setting.label));
            QCOMPARE(setting.of(defaultNode()), before == Qt::Checked ? Qt::Unchecked : Qt::Checked);
        }
    }

    void deactivatingSetsTheDisabledBit()
    {
        const OneNode one;
        one.node->setActive(true, false);
        const Form form = openForm(one.node);
        click(checkBox(form, "Deactivate node"));
        QCOMPARE(TestAccess::flags(*one.node) & disabledBit, disabledBit);
        QVERIFY(!one.node->active());
        QVERIFY(checkBox(openForm(one.node), "Deactivate node")->isChecked());

        click(checkBox(form, "Deactivate node"));
        QVERIFY(one.node->active());
    }

    void theTimeoutIsShownAsFarAsItCounts_data()
    {
        QTest::addColumn<int>("acknowledged");
        QTest::addColumn<int>("own");
        QTest::addColumn<int>("shown");
        QTest::newRow("own") << int(Qt::Checked) << 30 << 30;
        QTest::newRow("own, smallest") << int(Qt::Checked) << 1 << 1;
        QTest::newRow("own of zero") << int(Qt::Checked) << 0 << 70;
        QTest::newRow("not acknowledged") << int(Qt::Unchecked) << 30 << 70;
        QTest::newRow("undecided") << int(Qt::PartiallyChecked) << 30 << 70;
    }

    void theTimeoutIsShownAsFarAsItCounts()
    {
        QFETCH(int, acknowledged);
        QFETCH(int, own);
        const OneNode one;
        TestAccess::acknowledgeTimeout(defaultNode()) = 70;
        TestAccess::framesAcknowledged(*one.node) = static_cast<Qt::CheckState>(acknowledged);
        TestAccess::acknowledgeTimeout(*one.node) = own;
        const Form form = openForm(one.node);
        QTEST(timeoutBox(form)->value(), "shown");
        QCOMPARE(timeoutBox(form)->isEnabled(), acknowledged == Qt::Checked);
        QCOMPARE(TestAccess::acknowledgeTimeout(*one.node), own);
    }

    /// Expects that the node stores each value that its box shows as its own, even the default node's.
    void theTimeoutBoxFollowsTheAcknowledgeSwitch()
    {
        const OneNode one;
        TestAccess::acknowledgeTimeout(defaultNode()) = 70;
        TestAccess::framesAcknowledged(*one.node) = Qt::Unchecked;
        TestAccess::acknowledgeTimeout(*one.node) = 30;
        const Form form = openForm(one.node);
        QCheckBox* acknowledged = checkBox(form, "Frames acknowledged");
        QSpinBox* timeout = timeoutBox(form);
        QCOMPARE(timeout->value(), 70);

        click(acknowledged);  // undecided: the default's, which the box shows already
        QVERIFY(!timeout->isEnabled());
        QCOMPARE(TestAccess::acknowledgeTimeout(*one.node), 30);
        click(acknowledged);  // checked
        QVERIFY(timeout->isEnabled());
        QCOMPARE(timeout->value(), 30);
        click(acknowledged);  // unchecked
        QVERIFY(!timeout->isEnabled());
        QCOMPARE(timeout->value(), 30);
        click(acknowledged);  // undecided
        QCOMPARE(timeout->value(), 70);
        QCOMPARE(TestAccess::acknowledgeTimeout(*one.node), 70);
    }

    void aTypedTimeoutIsStored()
    {
        const OneNode one;
        TestAccess::framesAcknowledged(*one.node) = Qt::Checked;
        const Form form = openForm(one.node);
        type(timeoutBox(form), QStringLiteral("1500"));
        QCOMPARE(TestAccess::acknowledgeTimeout(*one.node), 1500);
    }

    // Comment

    void theCommentIsTheToolTip()
    {
        const OneNode one;
        one.node->setToolTip(QStringLiteral("<b>plain</b>"));
        const Form form = openForm(one.node);
        auto* comment = form->findChild<QTextEdit*>();
        QCOMPARE(comment->toPlainText(), QStringLiteral("<b>plain</b>"));
        type(comment, QStringLiteral("c"));
        QCOMPARE(one.node->toolTip(), QStringLiteral("c"));
    }

    // Appearance

    void chosenColoursAreStored()
    {
        const OneNode one;
        const Form form = openForm(one.node);
        for (const ColorSetting& setting : colorSettings) {
            QVERIFY(!setting.of(*one.node).isValid());
            choose(colorPicker(form, setting.label), {Qt::Key_Right, Qt::Key_Return});
            QCOMPARE(setting.of(*one.node), QColor(Qt::black));
        }
    }

    void theStrokeWidthIsStored()
    {
        const OneNode one;
        TestAccess::strokeWidth(*one.node) = 0.0;  // counts as undecided
        const Form form = openForm(one.node);
        QCOMPARE(strokeBox(form)->value(), 2.0);
        type(strokeBox(form), QStringLiteral("4.5"));
        QCOMPARE(TestAccess::strokeWidth(*one.node), 4.5);
    }

    void everyAppearanceEditShowsTheDefaultButton_data()
    {
        QTest::addColumn<QString>("label");
        for (const ColorSetting& setting : colorSettings)
            QTest::newRow(setting.label) << setting.label;
        for (const char* label : {"Node Stroke With", "Show Node Address", "Show Connection Count"})
            QTest::newRow(label) << label;
    }

    void everyAppearanceEditShowsTheDefaultButton()
    {
        QFETCH(QString, label);
        const OneNode one;
        const Form form = openForm(one.node);
        QCoreApplication::processEvents();
        QVERIFY(!defaultAppearance(form));
        QSignalSpy repaints(network(), SIGNAL(changed(QList<QRectF>)));
        if (auto* picker = colorPicker(form, label))
            choose(picker, {Qt::Key_Right, Qt::Key_Return});
        else
            QTest::keyClick(field<QWidget>(form.get(), label),
                            label.startsWith('S') ? Qt::Key_Space : Qt::Key_Up);
        QVERIFY(defaultAppearance(form));
        QVERIFY(repaints.wait());
    }

    void defaultAppearanceGivesTheOwnValuesUp()
    {
        const OneNode one;
        for (const ColorSetting& setting : colorSettings)
            setting.of(*one.node) = Qt::red;
        TestAccess::strokeWidth(*one.node) = 7;
        TestAccess::showAddress(*one.node) = Qt::Checked;
        TestAccess::showConnectionCount(*one.node) = Qt::Unchecked;
        TestAccess::showName(*one.node) = Qt::Unchecked;
        const Form form = openForm(one.node);

        click(defaultAppearance(form));
        for (const ColorSetting& setting : colorSettings) {
            QVERIFY(!setting.of(*one.node).isValid());
            QCOMPARE(colorPicker(form, setting.label)->currentColor(), setting.of(defaultNode()));
            QCOMPARE(colorPicker(form, setting.label)->text(), QStringLiteral("Default"));
        }
        QCOMPARE(TestAccess::strokeWidth(*one.node), -1.0);
        QCOMPARE(strokeBox(form)->value(), 2.0);
        for (const char* label : {"Show Node Address", "Show Connection Count"})
            QCOMPARE(checkBox(form, label)->checkState(), Qt::PartiallyChecked);
        QCOMPARE(TestAccess::showAddress(*one.node), Qt::PartiallyChecked);
        QCOMPARE(TestAccess::showConnectionCount(*one.node), Qt::PartiallyChecked);
        QCOMPARE(TestAccess::showName(*one.node), Qt::Unchecked);
        QVERIFY(!defaultAppearance(form));
    }

    void theAppearanceOfTheDefaultsRedrawsTheNetwork()
    {
        const OneNode one;
        const Form form = openForm(&defaultNode());
        QCoreApplication::processEvents();
        QSignalSpy redraws(network(), SIGNAL(changed(QList<QRectF>)));
        choose(colorPicker(form, QStringLiteral("TX Node Color")), {Qt::Key_Left, Qt::Key_Return});
        QCOMPARE(TestAccess::txColor(defaultNode()), QColor(Qt::lightGray));
        QVERIFY(redraws.wait());
        type(strokeBox(form), QStringLiteral("4"));
        QCOMPARE(TestAccess::strokeWidth(defaultNode()), 4.0);
        QVERIFY(redraws.wait());
        QVERIFY(!defaultAppearance(form));
    }
};

QTEST_MAIN(TestNodeSettings)
#include "tst_nodesettings.moc"
