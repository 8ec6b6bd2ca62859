#include "nodes/nodepropertieswidget.h"

#include "formhelpers.h"
#include "network/networksimulation.h"
#include "nodes/tcpnode.h"
#include "nodes/tcpnodepropertieswidget.h"
#include "sockethelpers.h"
#include "testhelpers.h"

#include <QFormLayout>
#include <QInputDialog>
#include <QSignalSpy>
#include <QVBoxLayout>

using namespace FormHelpers;
using namespace TestHelpers;

namespace {

constexpr int disabledBit = 2;

Node& defaults()
{
    return *network()->defaultNode();
}

Form openForm(Node* node)
{
    return open(node->propertiesWidget());
}

QCheckBox* checkBox(const Form& form, const char* label)
{
    return field<QCheckBox>(form.get(), QLatin1String(label));
}

QSpinBox* timeoutBox(const Form& form)
{
    return field<QSpinBox>(form.get(), QStringLiteral("Frame ACK Timeout"));
}

QDoubleSpinBox* strokeBox(const Form& form)
{
    return field<QDoubleSpinBox>(form.get(), QStringLiteral("Node Stroke With"));
}

QtColorPicker* colorPicker(const Form& form, const QString& label)
{
    return field<QtColorPicker>(form.get(), label);
}

QString textIn(const Form& form, const char* label)
{
    const auto* shown = field<QLineEdit>(form.get(), QLatin1String(label));
    return shown ? shown->text() : QStringLiteral("no such field");
}

QPushButton* assignButton(const Form& form)
{
    return button(form.get(), QStringLiteral("Assign Address..."));
}

QPushButton* defaultAppearance(const Form& form)
{
    return button(form.get(), QStringLiteral("Default Appearance"));
}

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

/// A TCP node of the network, with the simulation it belongs to.
struct OneNode {
    explicit OneNode(const QByteArray& address = nodeAddress(0xAB))
        : simulation(NetworkSimulation::newNetworkSimulation())
        , node(new TcpNode(address, nullptr))
    {
        network()->addItem(node);
    }
    ~OneNode() { NetworkSimulation::deleteNetworkSimulation(); }
    Q_DISABLE_COPY_MOVE(OneNode)

    NetworkSimulation* simulation;
    TcpNode* node;  // owned by the network
};

struct ColorSetting {
    const char* label;
    QColor& (*of)(Node& node);
};

const ColorSetting colorSettings[] = {
    {"Inactive Node Color", [](Node& node) -> QColor& { return TestAccess::inactiveColor(node); }},
    {"Active Node Color", [](Node& node) -> QColor& { return TestAccess::activeColor(node); }},
    {"TX Node Color", [](Node& node) -> QColor& { return TestAccess::txColor(node); }},
    {"RX Node Color", [](Node& node) -> QColor& { return TestAccess::rxColor(node); }},
};

struct SwitchSetting {
    const char* label;
    Qt::CheckState& (*of)(Node& node);
};

const SwitchSetting switchSettings[] = {
    {"Promiscuous mode", [](Node& node) -> Qt::CheckState& { return TestAccess::promiscuousMode(node); }},
    {"Frames acknowledged",
     [](Node& node) -> Qt::CheckState& { return TestAccess::framesAcknowledged(node); }},
    {"Show Node Address", [](Node& node) -> Qt::CheckState& { return TestAccess::showAddress(node); }},
    {"Show Connection Count",
     [](Node& node) -> Qt::CheckState& { return TestAccess::showConnectionCount(node); }},
};

}  // namespace

class TestNodePropertiesWidget : public QObject
{
    Q_OBJECT

private slots:
    // What it shows

    void theRowsOfATcpNodeStandInOrder()
    {
        const OneNode one;
        TestAccess::strokeWidth(*one.node) = 1;
        const QStringList expected{"<b>TCP Node</b>",
                                   "[Connection]",
                                   "<b>Node</b>",
                                   "[Behavior]",
                                   "Name",
                                   "Node Address",
                                   "Promiscuous mode",
                                   "Deactivate node",
                                   "Frames acknowledged",
                                   "Frame ACK Timeout",
                                   "[Statistics]",
                                   "Send Frames",
                                   "Send Bytes",
                                   "Received Frames",
                                   "Received Bytes",
                                   "(Reset Statistics)",
                                   "[Comments]",
                                   "[Appearance]",
                                   "Inactive Node Color",
                                   "Active Node Color",
                                   "TX Node Color",
                                   "RX Node Color",
                                   "Node Stroke With",
                                   "Show Node Address",
                                   "Show Connection Count",
                                   "(Default Appearance)"};
        QCOMPARE(visibleTexts(openForm(one.node).get()), expected);
    }

    void theRowsOfTheDefaultsStandInOrder()
    {
        const OneNode one;
        const QStringList expected{"<b>Node defaults</b>", "[Behavior]",        "Promiscuous mode",
                                   "Frames acknowledged",  "Frame ACK Timeout", "[Appearance]",
                                   "Inactive Node Color",  "Active Node Color", "TX Node Color",
                                   "RX Node Color",        "Node Stroke With",  "Show Node Address",
                                   "Show Connection Count"};
        const Form form = openForm(&defaults());
        QCOMPARE(visibleTexts(form.get()), expected);
        QVERIFY(!form->findChild<QTextEdit*>());
    }

    void aPlainNodeHasTheFormOfANodeOnly()
    {
        const OneNode one;
        Node plain(nodeAddress(1));
        const Form form = openForm(&plain);
        QVERIFY(qobject_cast<NodePropertiesWidget*>(form.get()));
        QCOMPARE(visibleTexts(form.get()).first(), QStringLiteral("<b>Node</b>"));
    }

    void theTabKeyLeadsFromTopToBottom()
    {
        const OneNode one{QByteArray()};
        QVERIFY(isTabOrderFromTopToBottom(openForm(one.node).get()));
    }

    void groupsAreLaidOutInTheOrderOfTheForm()
    {
        const OneNode one;
        const Form form = openForm(one.node);
        const auto* layout = qobject_cast<QVBoxLayout*>(form->layout());
        QCOMPARE(layout->contentsMargins(), QMargins(5, 5, 5, 5));
        QCOMPARE(layout->stretch(layout->count() - 1), 10);
        auto* nodeForm = form->findChild<NodePropertiesWidget*>();
        QCOMPARE(nodeForm->layout()->contentsMargins(), QMargins());
        QCOMPARE(nodeForm->parentWidget(), form.get());
        const QList<QFormLayout*> rows = form->findChildren<QFormLayout*>();
        QCOMPARE(rows.size(), 4);
        for (const QFormLayout* groupRows : rows)
            QCOMPARE(groupRows->rowWrapPolicy(), QFormLayout::WrapAllRows);
        const QList<QLabel*> labels = form->findChildren<QLabel*>();
        for (const QLabel* label : labels) {
            if (label->text().startsWith(QLatin1String("<b>")))
                QCOMPARE(label->alignment(), Qt::AlignHCenter | Qt::AlignBottom);
        }
    }

    void aFreshNodeShowsTheDefaultsAndNoDefaultButton()
    {
        const OneNode one;
        one.node->setName(QStringLiteral("alpha"));
        TestAccess::strokeWidth(defaults()) = 3;
        TestAccess::acknowledgeTimeout(defaults()) = 70;
        const Form form = openForm(one.node);
        QCOMPARE(textIn(form, "Name"), QStringLiteral("alpha"));
        QVERIFY(!checkBox(form, "Deactivate node")->isChecked());
        for (const SwitchSetting& setting : switchSettings)
            QCOMPARE(checkBox(form, setting.label)->checkState(), Qt::PartiallyChecked);
        for (const ColorSetting& setting : colorSettings)
            QCOMPARE(colorPicker(form, setting.label)->currentColor(), setting.of(defaults()));
        QCOMPARE(strokeBox(form)->value(), 3.0);
        QCOMPARE(timeoutBox(form)->value(), 70);
        QVERIFY(!timeoutBox(form)->isEnabled());
        QVERIFY(!defaultAppearance(form));
    }

    void switchesHaveAThirdStateButForTheDefaults()
    {
        const OneNode one;
        TestAccess::promiscuousMode(defaults()) = Qt::PartiallyChecked;  // as only a file can have it
        const Form form = openForm(one.node);
        const Form defaultsForm = openForm(&defaults());
        for (const SwitchSetting& setting : switchSettings) {
            QVERIFY2(checkBox(form, setting.label)->isTristate(), setting.label);
            QVERIFY2(!checkBox(defaultsForm, setting.label)->isTristate(), setting.label);
        }
        QVERIFY(!checkBox(form, "Deactivate node")->isTristate());
    }

    void numbersHaveTheirLimits()
    {
        const OneNode one;
        for (Node* node : {static_cast<Node*>(one.node), &defaults()}) {
            const Form form = openForm(node);
            QCOMPARE(numberLimits(timeoutBox(form)), (QVector<double>{0, 2147483647, 10, 0}));
            QCOMPARE(timeoutBox(form)->alignment(), Qt::AlignRight);
            QCOMPARE(numberLimits(strokeBox(form)), (QVector<double>{0.1, 10, 0.1, 2}));
            QCOMPARE(strokeBox(form)->alignment(), Qt::AlignRight);
        }
    }

    void theAddressIsShownUnderItsMaskAndCannotBeEdited()
    {
        const OneNode one(QByteArray::fromHex("0aBc"));
        const Form form = openForm(one.node);
        const auto* address = field<QLineEdit>(form.get(), QStringLiteral("Node Address"));
        QVERIFY(address);
        QCOMPARE(address->text(), QStringLiteral("0A:BC"));
        QCOMPARE(address->inputMask(), QStringLiteral("XX:XX"));
        QCOMPARE(address->alignment(), Qt::AlignCenter);
        QVERIFY(!address->isEnabled());
        QVERIFY(!assignButton(form));
    }

    void eachOwnAppearanceAloneShowsTheDefaultButton_data()
    {
        QTest::addColumn<int>("setting");
        QTest::newRow("inactive colour") << 0;
        QTest::newRow("active colour") << 1;
        QTest::newRow("transmit colour") << 2;
        QTest::newRow("receive colour") << 3;
        QTest::newRow("stroke width") << 4;
        QTest::newRow("address") << 5;
        QTest::newRow("connection count") << 6;
    }

    void eachOwnAppearanceAloneShowsTheDefaultButton()
    {
        QFETCH(int, setting);
        const OneNode one;
        if (setting < 4)
            colorSettings[setting].of(*one.node) = Qt::red;
        else if (setting == 4)
            TestAccess::strokeWidth(*one.node) = -2.0;  // undecided as well, but not written so
        else
            switchSettings[setting - 3].of(*one.node) = Qt::Unchecked;
        QVERIFY(defaultAppearance(openForm(one.node)));
    }

    void theOwnSettingOfTheNameCountsForNothing()
    {
        const OneNode one;
        TestAccess::showName(*one.node) = Qt::Unchecked;
        QVERIFY(!defaultAppearance(openForm(one.node)));
    }

    void pickersOfferTheDefaultColourAndTheStandardColours()
    {
        const OneNode one;
        const Form form = openForm(one.node);
        for (const ColorSetting& setting : colorSettings) {
            const QtColorPicker* picker = colorPicker(form, setting.label);
            QCOMPARE(picker->text(), QStringLiteral("Default"));
            QCOMPARE(picker->color(0), setting.of(defaults()));
            QCOMPARE(picker->color(1), QColor(Qt::black));
            QCOMPARE(picker->color(17), QColor(Qt::lightGray));
            QVERIFY(!picker->color(18).isValid());
            QVERIFY(picker->colorDialogEnabled());
        }
    }

    void pickersOfTheDefaultsOfferTheStandardColours()
    {
        const OneNode one;
        const Form form = openForm(&defaults());
        QCOMPARE(colorPicker(form, colorSettings[0].label)->text(), QStringLiteral("Light gray"));
        QCOMPARE(colorPicker(form, colorSettings[1].label)->text(), QStringLiteral("Custom"));
        for (const ColorSetting& setting : colorSettings) {
            QCOMPARE(colorPicker(form, setting.label)->color(0), QColor(Qt::black));
            QCOMPARE(colorPicker(form, setting.label)->currentColor(), setting.of(defaults()));
        }
    }

    void aFurtherFormIsTakenInAtTheBottom()
    {
        const OneNode one;
        auto* further = new QWidget;
        (new QVBoxLayout(further))->addWidget(new QLabel(QStringLiteral("further")));
        NodePropertiesWidget form(one.node, further);
        QVERIFY(show(&form));
        QCOMPARE(further->parentWidget(), &form);
        QCOMPARE(further->layout()->contentsMargins(), QMargins());
        QCOMPARE(visibleTexts(&form).last(), QStringLiteral("further"));
    }

    // Identity

    void typingTheNameRenamesTheNode()
    {
        const OneNode one;
        const Form form = openForm(one.node);
        type(field<QLineEdit>(form.get(), QStringLiteral("Name")), QStringLiteral("beta"));
        QCOMPARE(one.node->name(), QStringLiteral("beta"));
    }

    /// A program may name its node with millions of characters, which a field takes seconds to lay out.
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
        const Form defaultsForm = openForm(&defaults());
        for (const SwitchSetting& setting : switchSettings) {
            const Qt::CheckState before = setting.of(defaults());
            click(checkBox(defaultsForm, setting.label));
            QCOMPARE(setting.of(defaults()), before == Qt::Checked ? Qt::Unchecked : Qt::Checked);
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
        TestAccess::acknowledgeTimeout(defaults()) = 70;
        TestAccess::framesAcknowledged(*one.node) = static_cast<Qt::CheckState>(acknowledged);
        TestAccess::acknowledgeTimeout(*one.node) = own;
        const Form form = openForm(one.node);
        QTEST(timeoutBox(form)->value(), "shown");
        QCOMPARE(timeoutBox(form)->isEnabled(), acknowledged == Qt::Checked);
        QCOMPARE(TestAccess::acknowledgeTimeout(*one.node), own);
    }

    /// A value that the box is given is stored as the node's own, also when it is the default's.
    void theTimeoutBoxFollowsTheAcknowledgeSwitch()
    {
        const OneNode one;
        TestAccess::acknowledgeTimeout(defaults()) = 70;
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

    // Statistics and comment

    void theStatisticsFollowTheTraffic()
    {
        const LinkedPair pair;
        TestAccess::sendFrames(*pair.sender) = 4;
        const Form senderForm = openForm(pair.sender);
        const Form receiverForm = openForm(pair.receiver);
        for (const char* label : {"Send Frames", "Send Bytes", "Received Frames", "Received Bytes"})
            QVERIFY2(!field<QLineEdit>(senderForm.get(), QLatin1String(label))->isEnabled(), label);
        QCOMPARE(textIn(senderForm, "Send Frames"), QStringLiteral("4"));

        pair.sender->dataRequest(pair.unicast(20));
        QCOMPARE(textIn(senderForm, "Send Frames"), QStringLiteral("5"));
        QCOMPARE(textIn(senderForm, "Send Bytes"), QStringLiteral("20"));
        QTRY_COMPARE(textIn(receiverForm, "Received Frames"), QStringLiteral("1"));
        QCOMPARE(textIn(receiverForm, "Received Bytes"), QStringLiteral("20"));
        QCOMPARE(textIn(receiverForm, "Send Frames"), QStringLiteral("0"));
    }

    void theFirstFramesAreCountedAtOnce()
    {
        const LinkedPair pair;
        const Form form = openForm(pair.sender);
        for (int i = 1; i <= 10; ++i) {
            pair.sender->dataRequest(pair.unicast(20));
            QCOMPARE(textIn(form, "Send Frames"), QString::number(i));
        }
        pair.sender->resetStatistics();
        QCOMPARE(textIn(form, "Send Frames"), QStringLiteral("0"));
    }

    void aBurstOfTrafficEndsWithTheTrueNumbers()
    {
        constexpr int frames = 1000;
        const LinkedPair pair;
        const Form form = openForm(pair.sender);
        QSignalSpy writings(field<QLineEdit>(form.get(), QStringLiteral("Send Frames")),
                            SIGNAL(textChanged(QString)));
        for (int i = 0; i < frames; ++i)
            pair.sender->dataRequest(pair.unicast(20));
        QTRY_COMPARE(textIn(form, "Send Frames"), QString::number(frames));
        QCOMPARE(textIn(form, "Send Bytes"), QString::number(20 * frames));
        QVERIFY(writings.size() < frames / 10);
    }

    void countersAreShownAsTheSignalsTellThem()
    {
        const LinkedPair pair;
        TestAccess::sendBytes(*pair.sender) = Q_INT64_C(0x80000000);
        const Form form = openForm(pair.sender);
        QCOMPARE(textIn(form, "Send Bytes"), QStringLiteral("2147483648"));
        pair.sender->dataRequest(pair.unicast(20));  // the signal's numbers are cut to 32 bits
        QCOMPARE(textIn(form, "Send Bytes"), QString::number(-2147483647 - 1 + 20));
    }

    void resettingTheStatisticsShowsZeros()
    {
        const OneNode one;
        TestAccess::sendFrames(*one.node) = 1;
        TestAccess::sendBytes(*one.node) = 2;
        TestAccess::receivedFrames(*one.node) = 3;
        TestAccess::receivedBytes(*one.node) = 4;
        const Form form = openForm(one.node);
        QCOMPARE(textIn(form, "Received Frames"), QStringLiteral("3"));
        click(button(form.get(), QStringLiteral("Reset Statistics")));
        QCOMPARE(one.node->receivedBytesCount(), 0);
        for (const char* label : {"Send Frames", "Send Bytes", "Received Frames", "Received Bytes"})
            QCOMPARE(textIn(form, label), QStringLiteral("0"));
    }

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
            QCOMPARE(colorPicker(form, setting.label)->currentColor(), setting.of(defaults()));
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
        const Form form = openForm(&defaults());
        QCoreApplication::processEvents();
        QSignalSpy redraws(network(), SIGNAL(changed(QList<QRectF>)));
        choose(colorPicker(form, QStringLiteral("TX Node Color")), {Qt::Key_Left, Qt::Key_Return});
        QCOMPARE(TestAccess::txColor(defaults()), QColor(Qt::lightGray));
        QVERIFY(redraws.wait());
        type(strokeBox(form), QStringLiteral("4"));
        QCOMPARE(TestAccess::strokeWidth(defaults()), 4.0);
        QVERIFY(redraws.wait());
        QVERIFY(!defaultAppearance(form));
    }

    // Peer

    void anUnattachedNodeShowsNoPeer()
    {
        const OneNode one;
        const Form form = openForm(one.node);
        const auto* peer = group(form.get(), QStringLiteral("Connection"))->findChild<QLineEdit*>();
        QCOMPARE(peer->text(), QStringLiteral("-"));
        QVERIFY(!peer->isEnabled());
    }

    /// The server listens on all addresses, so the peer comes under an IPv6 address.
    void aLocalPeerIsShownAsLocalhost()
    {
        const OneNode one;
        const Form form = openForm(one.node);
        const auto* peer = group(form.get(), QStringLiteral("Connection"))->findChild<QLineEdit*>();
        TestAccess::server(*network()).port = 0;
        QVERIFY(network()->setTcpEnabled(true));
        Program program(network()->listeningPort());
        program.send(control(1, one.node->address()));
        QTRY_COMPARE(peer->text(), QStringLiteral("localhost:%1").arg(program.localPort()));

        const Form later = openForm(one.node);
        peer = group(later.get(), QStringLiteral("Connection"))->findChild<QLineEdit*>();
        QCOMPARE(peer->text(), QStringLiteral("localhost:%1").arg(program.localPort()));
    }

    void aPeerThatGoesIsNoLongerShown()
    {
        const OneNode one;
        SocketPair sockets;
        one.node->setSocket(sockets.nodeEnd);
        const Form form = openForm(one.node);
        const auto* peer = group(form.get(), QStringLiteral("Connection"))->findChild<QLineEdit*>();
        QVERIFY(peer->text().startsWith(QLatin1String("localhost:")));
        sockets.program.close();
        QTRY_COMPARE(peer->text(), QStringLiteral("-"));
    }

    // Care

    void enteringAndLeavingTheFieldsStoresNothing()
    {
        const OneNode one;
        TestAccess::strokeWidth(*one.node) = 77.0;
        TestAccess::framesAcknowledged(*one.node) = Qt::Checked;
        TestAccess::acknowledgeTimeout(*one.node) = 0;
        TestAccess::acknowledgeTimeout(defaults()) = 70;
        const Form form = openForm(one.node);
        visitAllFields(form.get());
        QCOMPARE(TestAccess::strokeWidth(*one.node), 77.0);
        QCOMPARE(TestAccess::acknowledgeTimeout(*one.node), 0);
        for (const ColorSetting& setting : colorSettings)
            QVERIFY(!setting.of(*one.node).isValid());
    }

    void theFormMayOutliveItsNode()
    {
        const OneNode one;
        SocketPair sockets;
        one.node->setSocket(sockets.nodeEnd);
        const Form form = openForm(one.node);
        delete one.node;
        const auto* peer = group(form.get(), QStringLiteral("Connection"))->findChild<QLineEdit*>();
        QCOMPARE(peer->text(), QStringLiteral("-"));
        workAllFields(form.get());
        type(field<QLineEdit>(form.get(), QStringLiteral("Name")), QStringLiteral("gone"));
        click(button(form.get(), QStringLiteral("Reset Statistics")));
        click(defaultAppearance(form));
        QVERIFY(!defaultAppearance(form));
    }

    void theFormMayGoWhileAFieldIsEdited()
    {
        const OneNode one;
        Form form = openForm(one.node);
        type(strokeBox(form), QStringLiteral("3"));
        form.reset();
        QCOMPARE(TestAccess::strokeWidth(*one.node), 3.0);

        form = openForm(one.node);
        QTest::mouseClick(colorPicker(form, QStringLiteral("TX Node Color")), Qt::LeftButton);
        QVERIFY(QApplication::activePopupWidget());
        form.reset();
        QVERIFY(!QApplication::activePopupWidget());
    }
};

QTEST_MAIN(TestNodePropertiesWidget)
#include "tst_nodepropertieswidget.moc"
