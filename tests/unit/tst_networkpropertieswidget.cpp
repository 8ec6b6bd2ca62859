#include "network/networkpropertieswidget.h"

#include "connections/connectionpropertieswidget.h"
#include "formhelpers.h"
#include "network/networksimulation.h"
#include "nodes/nodepropertieswidget.h"
#include "nodes/tcpnode.h"
#include "nodes/tcpnodepropertieswidget.h"
#include "testhelpers.h"
#include "ui/propertyeditor.h"

#include <QFormLayout>
#include <QGraphicsView>
#include <QMainWindow>
#include <QMessageBox>
#include <QPointer>
#include <QScrollArea>
#include <QScrollBar>
#include <QTcpServer>
#include <QVBoxLayout>

using namespace FormHelpers;
using namespace TestHelpers;

namespace {

Form openForm()
{
    return open(network()->propertiesWidget());
}

QSpinBox* number(const Form& form, const char* label)
{
    return field<QSpinBox>(form.get(), QLatin1String(label));
}

QSpinBox* mtu(const Form& form)
{
    return number(form, "Maximal Transfer Unit");
}

QSpinBox* addressLength(const Form& form)
{
    return number(form, "Address Length");
}

QSpinBox* destinationOffset(const Form& form)
{
    return number(form, "Destination Address Offset");
}

QSpinBox* sourceOffset(const Form& form)
{
    return number(form, "Source Address Offset");
}

QSpinBox* port(const Form& form)
{
    return number(form, "Port");
}

QLineEdit* broadcast(const Form& form)
{
    return field<QLineEdit>(form.get(), QStringLiteral("Broadcast address"));
}

QCheckBox* checkBox(const Form& form, const char* label)
{
    return field<QCheckBox>(form.get(), QLatin1String(label));
}

auto& parameters()
{
    return TestAccess::parameters(*network());
}

void setParameters(int maximalTransferUnit, int length, int destination, int source)
{
    parameters().maximalTransferUnit = maximalTransferUnit;
    parameters().addressLength = length;
    parameters().destinationAddressOffset = destination;
    parameters().sourceAddressOffset = source;
}

QWidget* formIn(const PropertyEditor& editor)
{
    return editor.findChild<QScrollArea*>()->widget();
}

}  // namespace

class TestNetworkPropertiesWidget : public QObject
{
    Q_OBJECT

private slots:
    void init() { NetworkSimulation::newNetworkSimulation(); }
    void cleanup() { NetworkSimulation::deleteNetworkSimulation(); }

    // What it shows
    void theRowsStandInOrder()
    {
        const QStringList expected{"<b>Network Simulation</b>",
                                   "Maximal Transfer Unit",
                                   "Address Length",
                                   "Destination Address Offset",
                                   "Source Address Offset",
                                   "Broadcast address",
                                   "[TCP Server]",
                                   "Enabled",
                                   "Port",
                                   "Plug'n'Place",
                                   "Name is ID",
                                   "<b>Connection defaults</b>",
                                   "[Behavior]"};
        const QStringList texts = visibleTexts(openForm().get());
        QCOMPARE(texts.mid(0, expected.size()), expected);
        const int nodes = texts.indexOf(QStringLiteral("<b>Node defaults</b>"));
        QVERIFY(nodes > texts.indexOf(QStringLiteral("Connection Stroke")));
        QCOMPARE(texts.last(), QStringLiteral("Show Connection Count"));
    }

    void theTabKeyLeadsFromTopToBottom() { QVERIFY(isTabOrderFromTopToBottom(openForm().get())); }

    void theLayoutHasItsMarginsAndStretches()
    {
        const Form form = openForm();
        QVERIFY(!form->parent());
        const auto* layout = qobject_cast<QVBoxLayout*>(form->layout());
        QCOMPARE(layout->contentsMargins(), QMargins(5, 5, 5, 5));
        QList<int> stretches;
        for (int i = 0; i < layout->count(); ++i)
            stretches.append(layout->stretch(i));
        QCOMPARE(stretches, (QList<int>{0, 0, 0, 1, 1, 10}));
        QCOMPARE(form->findChild<ConnectionPropertiesWidget*>()->layout()->contentsMargins(), QMargins());
        QCOMPARE(form->findChild<NodePropertiesWidget*>()->layout()->contentsMargins(), QMargins());
        QCOMPARE(form->findChild<QLabel*>()->alignment(), Qt::AlignHCenter | Qt::AlignBottom);
        const QList<QFormLayout*> rows = form->findChildren<QFormLayout*>();
        for (const QFormLayout* groupRows : rows)
            QCOMPARE(groupRows->rowWrapPolicy(), QFormLayout::WrapAllRows);
    }

    void theParametersOfTheNetworkAreShown()
    {
        const Form form = openForm();
        QCOMPARE(mtu(form)->value(), 255);
        QCOMPARE(addressLength(form)->value(), 6);
        QCOMPARE(destinationOffset(form)->value(), 0);
        QCOMPARE(sourceOffset(form)->value(), 6);
        QCOMPARE(broadcast(form)->text(), QStringLiteral("FF:FF:FF:FF:FF:FF"));
        QCOMPARE(broadcast(form)->alignment(), Qt::AlignCenter);
        QCOMPARE(port(form)->value(), 8844);
        QVERIFY(port(form)->isEnabled());
        for (const char* label : {"Enabled", "Plug'n'Place", "Name is ID"}) {
            QVERIFY2(!checkBox(form, label)->isChecked(), label);
            QVERIFY2(!checkBox(form, label)->isTristate(), label);
        }
    }

    void fieldsFillTheWidth()
    {
        const Form form = openForm();
        for (const QAbstractSpinBox* box :
             {mtu(form), addressLength(form), destinationOffset(form), sourceOffset(form), port(form)}) {
            QCOMPARE(box->alignment(), Qt::AlignRight);
            QCOMPARE(box->sizePolicy().horizontalPolicy(), QSizePolicy::MinimumExpanding);
            QCOMPARE(box->sizePolicy().verticalPolicy(), QSizePolicy::Preferred);
        }
        QCOMPARE(broadcast(form)->sizePolicy().horizontalPolicy(), QSizePolicy::MinimumExpanding);
        QCOMPARE(broadcast(form)->sizePolicy().verticalPolicy(), QSizePolicy::Preferred);
    }

    void numbersAreLimitedByOneAnother_data()
    {
        QTest::addColumn<int>("transferUnit");
        QTest::addColumn<int>("length");
        QTest::addColumn<int>("destination");
        QTest::addColumn<int>("source");
        QTest::addColumn<int>("highestLength");
        QTest::addColumn<int>("highestOffset");
        QTest::newRow("new network") << 255 << 6 << 0 << 6 << 249 << 249;
        QTest::newRow("destination behind source") << 20 << 4 << 10 << 2 << 10 << 16;
        QTest::newRow("no room") << 5 << 6 << 0 << 6 << 0 << 0;
        QTest::newRow("sums beyond 32 bits")
            << largestInt << smallestInt << smallestInt << smallestInt << largestInt << largestInt;
        QTest::newRow("differences beyond 32 bits")
            << smallestInt << largestInt << largestInt << largestInt << 0 << 0;
    }

    void numbersAreLimitedByOneAnother()
    {
        QFETCH(int, transferUnit);
        QFETCH(int, length);
        QFETCH(int, destination);
        QFETCH(int, source);
        setParameters(transferUnit, length, destination, source);
        const Form form = openForm();
        QTEST(addressLength(form)->maximum(), "highestLength");
        QTEST(destinationOffset(form)->maximum(), "highestOffset");
        QTEST(sourceOffset(form)->maximum(), "highestOffset");
        QCOMPARE(mtu(form)->maximum(), largestInt);
        QCOMPARE(port(form)->minimum(), 1);
        QCOMPARE(port(form)->maximum(), 65536);
        for (const QSpinBox* box :
             {mtu(form), addressLength(form), destinationOffset(form), sourceOffset(form)})
            QCOMPARE(box->minimum(), 0);
    }

    void aFurtherFormIsTakenInAtTheBottom()
    {
        auto* further = new QWidget;
        (new QVBoxLayout(further))->addWidget(new QLabel(QStringLiteral("further")));
        NetworkPropertiesWidget form(further);
        QVERIFY(show(&form));
        QCOMPARE(further->parentWidget(), &form);
        QCOMPARE(further->layout()->contentsMargins(), QMargins());
        QCOMPARE(visibleTexts(&form).last(), QStringLiteral("further"));
    }

    // Frame parameters
    void anEditOfTheTransferUnitIsStored()
    {
        const Form form = openForm();
        type(mtu(form), QStringLiteral("1500"));
        QCOMPARE(network()->maximalTransferUnit(), 255);  // the edit is not finished yet
        leave(mtu(form));
        QCOMPARE(network()->maximalTransferUnit(), 1500);
        QCOMPARE(destinationOffset(form)->maximum(), 1494);
    }

    void aSmallerTransferUnitCutsTheOffsets()
    {
        setParameters(10, 4, 5, 6);
        const Form form = openForm();
        QCOMPARE(destinationOffset(form)->maximum(), 6);
        QCOMPARE(sourceOffset(form)->maximum(), 6);

        enter(mtu(form), QStringLiteral("5"));
        QCOMPARE(destinationOffset(form)->maximum(), 1);
        QCOMPARE(destinationOffset(form)->value(), 1);
        QCOMPARE(sourceOffset(form)->value(), 1);
        QCOMPARE(network()->destinationAddressOffset(), 1);
        QCOMPARE(network()->sourceAddressOffset(), 1);

        enter(mtu(form), QStringLiteral("3"));
        QCOMPARE(sourceOffset(form)->maximum(), 0);
        QCOMPARE(network()->sourceAddressOffset(), 0);
    }

    void theTransferUnitLeavesTheLimitOfTheAddressLength()
    {
        const Form form = openForm();
        enter(mtu(form), QStringLiteral("100"));
        QCOMPARE(addressLength(form)->maximum(), 249);
    }

    void aShorterAddressLengthCutsTheBroadcastAddress()
    {
        setParameters(255, 4, 0, 4);
        parameters().broadcastAddress = QByteArray::fromHex("FFFFFFFF");
        const Form form = openForm();
        enter(addressLength(form), QStringLiteral("2"));
        QCOMPARE(network()->addressLength(), 2);
        QCOMPARE(network()->broadcastAddress(), QByteArray::fromHex("FFFF"));
        QCOMPARE(broadcast(form)->text(), QStringLiteral("FF:FF"));
        QCOMPARE(broadcast(form)->inputMask(), QStringLiteral("XX:XX"));
        QCOMPARE(sourceOffset(form)->maximum(), 253);
    }

    void aLongerAddressLengthDoesNotPadTheBroadcastAddress()
    {
        const Form form = openForm();
        enter(addressLength(form), QStringLiteral("8"));
        QCOMPARE(network()->addressLength(), 8);
        QCOMPARE(network()->broadcastAddress(), QByteArray::fromHex("FFFFFFFFFFFF"));
        QCOMPARE(broadcast(form)->inputMask(), network()->addressInputMask(8));
        QVERIFY(broadcast(form)->text().startsWith(QLatin1String("FF:FF:FF:FF:FF:FF")));
    }

    void aLongerAddressLengthCutsTheOffsets()
    {
        setParameters(20, 2, 0, 18);
        parameters().broadcastAddress = QByteArray::fromHex("FFFF");
        const Form form = openForm();
        QCOMPARE(addressLength(form)->maximum(), 2);
        enter(sourceOffset(form), QStringLiteral("9"));
        const Form later = openForm();
        enter(addressLength(later), QStringLiteral("11"));
        QCOMPARE(sourceOffset(later)->maximum(), 9);
        QCOMPARE(network()->sourceAddressOffset(), 9);
    }

    void theOffsetsAreStored()
    {
        const Form form = openForm();
        enter(destinationOffset(form), QStringLiteral("12"));
        enter(sourceOffset(form), QStringLiteral("20"));
        QCOMPARE(network()->destinationAddressOffset(), 12);
        QCOMPARE(network()->sourceAddressOffset(), 20);
        QCOMPARE(addressLength(form)->maximum(), 249);  // no other range changes
        QCOMPARE(sourceOffset(form)->maximum(), 249);
    }

    void aBroadcastAddressWithSeparatorsIsStoredAsBytes()
    {
        setParameters(255, 2, 0, 2);
        parameters().broadcastAddress = QByteArray::fromHex("FFFF");
        const Form form = openForm();
        QTest::mouseClick(broadcast(form), Qt::LeftButton);
        QTest::keyClick(broadcast(form), Qt::Key_Home);
        QTest::keyClicks(broadcast(form), QStringLiteral("AA:bb"));
        QCOMPARE(network()->broadcastAddress(), QByteArray::fromHex("FFFF"));
        QTest::keyClick(broadcast(form), Qt::Key_Return);
        QCOMPARE(network()->broadcastAddress(), QByteArray::fromHex("AABB"));
    }

    void anIncompleteBroadcastAddressIsNotStored()
    {
        const Form form = openForm();
        enter(broadcast(form), QStringLiteral("AABB"));
        QCOMPARE(network()->broadcastAddress(), QByteArray::fromHex("FFFFFFFFFFFF"));
    }

    void theAddressLengthIsFixedWhileThereAreItems()
    {
        QVERIFY(addressLength(openForm())->isEnabled());
        const auto* node = new TcpNode(nodeAddress(1), nullptr);
        network()->addItem(const_cast<TcpNode*>(node));
        QVERIFY(!addressLength(openForm())->isEnabled());
    }

    void deletingTheLastNodeFreesTheAddressLength()
    {
        Node* first = addNode(1);
        Node* second = addNode(2);
        const Form form = openForm();
        first->setSelected(true);
        network()->deleteSelectedNetworkItem();
        QVERIFY(!addressLength(form)->isEnabled());
        second->setSelected(true);
        network()->deleteSelectedNetworkItem();
        QVERIFY(addressLength(form)->isEnabled());
    }

    // TCP server
    void theServerIsSwitchedOnAndOff()
    {
        TestAccess::server(*network()).port = 0;
        const Form form = openForm();
        click(checkBox(form, "Enabled"));
        QVERIFY(network()->isTcpEnabled());
        QVERIFY(!port(form)->isEnabled());
        const Form later = openForm();
        QVERIFY(checkBox(later, "Enabled")->isChecked());
        QVERIFY(!port(later)->isEnabled());

        click(checkBox(form, "Enabled"));
        QVERIFY(!network()->isTcpEnabled());
        QVERIFY(port(form)->isEnabled());
    }

    void aPortInUseIsReportedAndTheBoxUnchecked()
    {
        QTcpServer other;
        QVERIFY(other.listen(QHostAddress::Any));
        network()->setTcpPort(other.serverPort());
        const Form form = openForm();
        QString title;
        QString text;
        QMessageBox::StandardButtons buttons;
        QWidget* parent = nullptr;
        whenDialogOpens([&](QWidget* dialog) {
            const auto* box = qobject_cast<QMessageBox*>(dialog);
            title = box->windowTitle();
            text = box->text();
            buttons = box->icon() == QMessageBox::Warning ? box->standardButtons() : QMessageBox::NoButton;
            parent = box->parentWidget();
            QTest::keyClick(dialog, Qt::Key_Return);
        });
        click(checkBox(form, "Enabled"));
        QCOMPARE(title, QStringLiteral("TCP Server"));
        QCOMPARE(text, QStringLiteral("Could not start the TCP server on port %1").arg(other.serverPort()));
        QCOMPARE(buttons, QMessageBox::Ok);
        QCOMPARE(parent, form.get());
        QCOMPARE(checkBox(form, "Enabled")->checkState(), Qt::Unchecked);
        QVERIFY(port(form)->isEnabled());
        QVERIFY(!network()->isTcpEnabled());
    }

    void aPortThatWasInUseIsTriedAgainByTheNextClick()
    {
        QTcpServer other;
        QVERIFY(other.listen(QHostAddress::Any));
        network()->setTcpPort(other.serverPort());
        const Form form = openForm();
        for (int attempt = 0; attempt < 3; ++attempt) {
            bool isReported = false;
            whenDialogOpens([&](QWidget* dialog) {
                isReported = true;
                QTest::keyClick(dialog, Qt::Key_Return);
            });
            click(checkBox(form, "Enabled"));
            QVERIFY(isReported);
            QVERIFY(!checkBox(form, "Enabled")->isChecked());
        }
        other.close();
        click(checkBox(form, "Enabled"));
        QVERIFY(network()->isTcpEnabled());
        QVERIFY(checkBox(form, "Enabled")->isChecked());
        QVERIFY(!port(form)->isEnabled());
    }

    void thePortIsStored()
    {
        const Form form = openForm();
        enter(port(form), QStringLiteral("65535"));
        QCOMPARE(network()->tcpPort(), quint16(65535));
    }

    void aPortBeyondTheLastOneIsStoredAsZero()
    {
        const Form form = openForm();
        enter(port(form), QStringLiteral("65536"));
        QCOMPARE(network()->tcpPort(), quint16(0));
        QCOMPARE(port(form)->value(), 65536);
    }

    void plugAndPlaceSwitchesAreStored()
    {
        const Form form = openForm();
        click(checkBox(form, "Plug'n'Place"));
        QVERIFY(network()->isTcpPnpEnabled());
        QVERIFY(!network()->isNameUsedForPnpIdentification());
        click(checkBox(form, "Name is ID"));
        QVERIFY(network()->isNameUsedForPnpIdentification());
        click(checkBox(form, "Plug'n'Place"));
        QVERIFY(!network()->isTcpPnpEnabled());
        const Form later = openForm();
        QVERIFY(checkBox(later, "Name is ID")->isChecked());
        QVERIFY(!checkBox(later, "Plug'n'Place")->isChecked());
    }

    // Only edits store

    /// A file can hold numbers beyond the ranges of all boxes.
    void enteringAndLeavingStoresNothing()
    {
        setParameters(-5, 300, 1000, -7);
        parameters().broadcastAddress = QByteArray::fromHex("0102030405060708") + QByteArray(400, '\xEE');
        TestAccess::server(*network()).port = 0;
        const Form form = openForm();
        QCOMPARE(mtu(form)->value(), 0);
        QCOMPARE(port(form)->value(), 1);
        for (QWidget* box : QList<QWidget*>{mtu(form), addressLength(form), destinationOffset(form),
                                            sourceOffset(form), broadcast(form), port(form)}) {
            enterAndLeave(box);
            QTest::keyClick(box, Qt::Key_Return);
        }
        visitAllFields(form.get());
        QCOMPARE(network()->maximalTransferUnit(), -5);
        QCOMPARE(network()->addressLength(), 300);
        QCOMPARE(network()->destinationAddressOffset(), 1000);
        QCOMPARE(network()->sourceAddressOffset(), -7);
        QCOMPARE(network()->broadcastAddress().size(), 408);
        QCOMPARE(network()->tcpPort(), quint16(0));
    }

    void leavingTheTransferUnitUneditedLeavesTheOffsets()
    {
        setParameters(20, 6, 500, 600);
        const Form form = openForm();
        enterAndLeave(mtu(form));
        QCOMPARE(network()->destinationAddressOffset(), 500);
        QCOMPARE(network()->sourceAddressOffset(), 600);
        enter(mtu(form), QStringLiteral("20"));
        QCOMPARE(network()->destinationAddressOffset(), 14);
        QCOMPARE(network()->sourceAddressOffset(), 14);
    }

    void leavingTheAddressLengthUneditedLeavesTheOffsets()
    {
        setParameters(20, 6, 500, 2);
        const Form form = openForm();
        enterAndLeave(addressLength(form));
        QCOMPARE(network()->addressLength(), 6);
        QCOMPARE(network()->destinationAddressOffset(), 500);
    }

    void typingTheNumberShownIsAnEdit()
    {
        TestAccess::server(*network()).port = 0;
        const Form form = openForm();
        QCOMPARE(port(form)->value(), 1);
        enter(port(form), QStringLiteral("1"));
        QCOMPARE(network()->tcpPort(), quint16(1));
    }

    void steppingIsAnEdit()
    {
        const Form form = openForm();
        port(form)->setFocus();
        QTest::keyClick(port(form), Qt::Key_Up);
        leave(port(form));
        QCOMPARE(network()->tcpPort(), quint16(8845));
        TestAccess::server(*network()).port = 0;
        enterAndLeave(port(form));  // the edit is stored already
        QCOMPARE(network()->tcpPort(), quint16(0));
    }

    void whatTheProgramPutIntoAFieldIsStoredWhenItIsLeft()
    {
        const Form form = openForm();
        port(form)->setValue(8850);
        QTest::keyClick(port(form), Qt::Key_Return);
        QCOMPARE(network()->tcpPort(), quint16(8850));
        broadcast(form)->setText(QStringLiteral("01:02:03:04:05:06"));
        QTest::keyClick(broadcast(form), Qt::Key_Return);
        QCOMPARE(network()->broadcastAddress(), QByteArray::fromHex("010203040506"));
    }

    void whatIsShownIsStoredOnDemand()
    {
        const Form form = openForm();
        parameters().maximalTransferUnit = 20;
        parameters().broadcastAddress.clear();
        QVERIFY(QMetaObject::invokeMethod(form.get(), "frameMtuChanged"));
        QVERIFY(QMetaObject::invokeMethod(form.get(), "frameBroadcastAddressChanged"));
        QCOMPARE(network()->maximalTransferUnit(), 255);
        QCOMPARE(network()->broadcastAddress(), QByteArray::fromHex("FFFFFFFFFFFF"));
    }

    // Defaults
    void theDefaultsAreEditedInTheirForms()
    {
        const Form form = openForm();
        type(number(form, "Transmission Delay [ms]"), QStringLiteral("12"));
        QCOMPARE(network()->defaultConnection()->delayMs(), 12);
        click(checkBox(form, "Promiscuous mode"));
        QCOMPARE(TestAccess::promiscuousMode(*network()->defaultNode()), Qt::Checked);
    }

    // The dock
    void theEditorIsADockOnEitherSide()
    {
        const PropertyEditor editor(nullptr);
        QCOMPARE(editor.windowTitle(), QStringLiteral("Property Editor"));
        QCOMPARE(editor.minimumWidth(), 240);
        QCOMPARE(editor.allowedAreas(), Qt::RightDockWidgetArea | Qt::LeftDockWidgetArea);
        QCOMPARE(editor.features(), QDockWidget::DockWidgetMovable | QDockWidget::DockWidgetFloatable);
        const auto* area = qobject_cast<QScrollArea*>(editor.widget());
        QVERIFY(area);
        QVERIFY(area->widgetResizable());
        QCOMPARE(area->horizontalScrollBarPolicy(), Qt::ScrollBarAlwaysOff);
        QCOMPARE(area->verticalScrollBarPolicy(), Qt::ScrollBarAsNeeded);
    }

    void theEditorStartsWithTheNetwork()
    {
        const PropertyEditor editor(nullptr);
        QVERIFY(qobject_cast<NetworkPropertiesWidget*>(formIn(editor)));
    }

    void theEditorShowsTheFormOfAnItem()
    {
        auto* node = new TcpNode(nodeAddress(1), nullptr);
        network()->addItem(node);
        Connection* link = addLink(node, addNode(2));
        PropertyEditor editor(nullptr);
        QVERIFY(show(&editor));
        editor.editNetworkItem(node);
        QVERIFY(qobject_cast<TcpNodePropertiesWidget*>(formIn(editor)));
        QVERIFY(formIn(editor)->isVisible());
        editor.editNetworkItem(link);
        QVERIFY(qobject_cast<ConnectionPropertiesWidget*>(formIn(editor)));
        QVERIFY(formIn(editor)->isVisible());
        editor.editNetwork();
        QVERIFY(qobject_cast<NetworkPropertiesWidget*>(formIn(editor)));
        QVERIFY(formIn(editor)->isVisible());
    }

    void theEditorShowsNothing()
    {
        PropertyEditor editor(nullptr);
        editor.editNothing();
        QVERIFY(!formIn(editor));
        editor.editNothing();
        editor.editNetwork();
        editor.editNetworkItem(nullptr);
        QVERIFY(!formIn(editor));
    }

    void theFormShownBeforeIsDeleted()
    {
        Node* node = addNode(1);
        PropertyEditor editor(nullptr);
        QPointer<QWidget> form = formIn(editor);
        editor.editNetworkItem(node);
        QVERIFY(!form);
        form = formIn(editor);
        editor.editNetwork();
        QVERIFY(!form);
        form = formIn(editor);
        editor.editNetwork();
        QVERIFY(!form);
        QVERIFY(formIn(editor));
        form = formIn(editor);
        editor.editNothing();
        QVERIFY(!form);
    }

    void anEditIsFinishedWhenTheFormGoes()
    {
        PropertyEditor editor(nullptr);
        QVERIFY(show(&editor));
        auto* box = field<QSpinBox>(&editor, QStringLiteral("Maximal Transfer Unit"));
        type(box, QStringLiteral("77"));
        QCOMPARE(network()->maximalTransferUnit(), 255);
        editor.editNothing();
        QCOMPARE(network()->maximalTransferUnit(), 77);
    }

    void noFormIsCutOffAtTheFirstSize()
    {
        auto* node = new TcpNode(QByteArray(), nullptr);
        network()->addItem(node);
        TestAccess::strokeWidth(*node) = 1.0;
        for (QColor* color : {&TestAccess::inactiveColor(*node), &TestAccess::activeColor(*node)})
            *color = Qt::darkMagenta;  // the longest of the standard names
        Connection* link = addLink(node, addNode(2));
        TestAccess::delay(*link) = 1;
        TestAccess::strokeWidth(*link) = 1.0;

        QMainWindow window;
        auto* editor = new PropertyEditor(&window);
        window.addDockWidget(Qt::RightDockWidgetArea, editor);
        window.setCentralWidget(new QGraphicsView(&window));
        QVERIFY(show(&window));
        const auto* area = editor->findChild<QScrollArea*>();
        const auto fits = [area] {
            QCoreApplication::processEvents();
            return area->widget()->minimumSizeHint().width() <= area->viewport()->width()
                && area->widget()->width() == area->viewport()->width();
        };
        QVERIFY(area->verticalScrollBar()->isVisible());
        QVERIFY(fits());
        editor->editNetworkItem(node);
        QVERIFY(fits());
        editor->editNetworkItem(link);
        QVERIFY(fits());
        editor->editNetwork();
        QVERIFY(fits());
    }

    void theFormsOfAnOldSimulationMayGoLast()
    {
        const Form form = openForm();
        NetworkSimulation::newNetworkSimulation();
        network()->setTcpPort(0);  // the form's switch starts the server
        workAllFields(form.get());
        QCOMPARE(network()->defaultConnection()->delayMs(), 0);
        enter(mtu(form), QStringLiteral("77"));
        QCOMPARE(network()->maximalTransferUnit(), 77);
    }
};

QTEST_MAIN(TestNetworkPropertiesWidget)
#include "tst_networkpropertieswidget.moc"
