#include "nodes/nodepropertieswidget.h"

#include "nodeform.h"
#include "nodes/tcpnodepropertieswidget.h"
#include "sockethelpers.h"

#include <QFormLayout>
#include <QSignalSpy>
#include <QVBoxLayout>

using namespace FormHelpers;
using namespace TestHelpers;

namespace {

QString textIn(const Form& form, const char* label)
{
    const auto* shown = field<QLineEdit>(form.get(), QLatin1String(label));
    return shown ? shown->text() : QStringLiteral("no such field");
}

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
        const Form form = openForm(&defaultNode());
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
        TestAccess::strokeWidth(defaultNode()) = 3;
        TestAccess::acknowledgeTimeout(defaultNode()) = 70;
        const Form form = openForm(one.node);
        QCOMPARE(textIn(form, "Name"), QStringLiteral("alpha"));
        QVERIFY(!checkBox(form, "Deactivate node")->isChecked());
        for (const SwitchSetting& setting : switchSettings)
            QCOMPARE(checkBox(form, setting.label)->checkState(), Qt::PartiallyChecked);
        for (const ColorSetting& setting : colorSettings)
            QCOMPARE(colorPicker(form, setting.label)->currentColor(), setting.of(defaultNode()));
        QCOMPARE(strokeBox(form)->value(), 3.0);
        QCOMPARE(timeoutBox(form)->value(), 70);
        QVERIFY(!timeoutBox(form)->isEnabled());
        QVERIFY(!defaultAppearance(form));
    }

    void switchesHaveAThirdStateButForTheDefaults()
    {
        const OneNode one;
        TestAccess::promiscuousMode(defaultNode()) = Qt::PartiallyChecked;  // as only a file can have it
        const Form form = openForm(one.node);
        const Form defaultsForm = openForm(&defaultNode());
        for (const SwitchSetting& setting : switchSettings) {
            QVERIFY2(checkBox(form, setting.label)->isTristate(), setting.label);
            QVERIFY2(!checkBox(defaultsForm, setting.label)->isTristate(), setting.label);
        }
        QVERIFY(!checkBox(form, "Deactivate node")->isTristate());
    }

    void numbersHaveTheirLimits()
    {
        const OneNode one;
        for (Node* node : {static_cast<Node*>(one.node), &defaultNode()}) {
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
            QCOMPARE(picker->color(0), setting.of(defaultNode()));
            QCOMPARE(picker->color(1), QColor(Qt::black));
            QCOMPARE(picker->color(17), QColor(Qt::lightGray));
            QVERIFY(!picker->color(18).isValid());
            QVERIFY(picker->colorDialogEnabled());
        }
    }

    void pickersOfTheDefaultsOfferTheStandardColours()
    {
        const OneNode one;
        const Form form = openForm(&defaultNode());
        QCOMPARE(colorPicker(form, colorSettings[0].label)->text(), QStringLiteral("Light gray"));
        QCOMPARE(colorPicker(form, colorSettings[1].label)->text(), QStringLiteral("Custom"));
        for (const ColorSetting& setting : colorSettings) {
            QCOMPARE(colorPicker(form, setting.label)->color(0), QColor(Qt::black));
            QCOMPARE(colorPicker(form, setting.label)->currentColor(), setting.of(defaultNode()));
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

    // Peer

    void anUnattachedNodeShowsNoPeer()
    {
        const OneNode one;
        const Form form = openForm(one.node);
        const auto* peer = group(form.get(), QStringLiteral("Connection"))->findChild<QLineEdit*>();
        QCOMPARE(peer->text(), QStringLiteral("-"));
        QVERIFY(!peer->isEnabled());
    }

    /// Attaches through the server, which sees the peer under an IPv6 address since it listens on all
    /// addresses.
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
        TestAccess::acknowledgeTimeout(defaultNode()) = 70;
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

    // Statistics

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
};

QTEST_MAIN(TestNodePropertiesWidget)
#include "tst_nodepropertieswidget.moc"
