#include "network/networksimulation.h"
#include "nodes/tcpnode.h"

#include <QApplication>
#include <QCheckBox>
#include <QDoubleSpinBox>
#include <QFormLayout>
#include <QLabel>
#include <QScopedPointer>
#include <QSpinBox>

#include <cstdio>

// Makes the example simulation as a user would in the window: places, draws and fills in the forms.

namespace {

constexpr double reliability = 99.99;    // %, of each bit
constexpr double errorDetection = 90.0;  // %, of each corrupted frame
constexpr int delay = 5;                 // ms
constexpr int delayDeviation = 4;        // ms
constexpr int acknowledgeTimeout = 200;  // ms

TcpNode* placeNode(Network& network, const QPointF& position, const QString& name, const char* address)
{
    auto* node = new TcpNode(QByteArray::fromHex(address), nullptr);
    network.addItem(node);
    node->setPos(position);
    node->setName(name);
    return node;
}

/// The field below the label in a form; nothing when the form has no such row.
template <typename Field> Field* fieldOf(QWidget& form, const QString& label)
{
    const auto fields = form.findChildren<Field*>();
    for (Field* field : fields) {
        const auto* rows = qobject_cast<QFormLayout*>(field->parentWidget()->layout());
        const auto* found = rows ? qobject_cast<QLabel*>(rows->labelForField(field)) : nullptr;
        if (found && found->text() == label)
            return field;
    }
    return nullptr;
}

void drawLossyLink(Network& network, Node* from, Node* to)
{
    auto* link = new Connection(from, to);
    network.addItem(link);
    link->setToolTip("Loses and corrupts some frames");
    const QScopedPointer<QWidget> form(link->propertiesWidget());
    fieldOf<QDoubleSpinBox>(*form, "Reliability [%]")->setValue(reliability);
    fieldOf<QDoubleSpinBox>(*form, "Error Detection Reliability [%]")->setValue(errorDetection);
    fieldOf<QSpinBox>(*form, "Transmission Delay [ms]")->setValue(delay);
    fieldOf<QSpinBox>(*form, "Tx Delay Deviation [ms]")->setValue(delayDeviation);
}

void switchConfirmationsOn(Network& network)
{
    const QScopedPointer<QWidget> form(network.defaultNode()->propertiesWidget());
    fieldOf<QCheckBox>(*form, "Frames acknowledged")->setChecked(true);
    fieldOf<QSpinBox>(*form, "Frame ACK Timeout")->setValue(acknowledgeTimeout);
}

}  // namespace

int main(int argc, char* argv[])
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication application(argc, argv);
    if (argc != 2) {
        fputs("usage: lattivo_makesimulation FILE\n", stderr);
        return 2;
    }
    Network& network = *NetworkSimulation::instance()->network();
    switchConfirmationsOn(network);
    TcpNode* sender = placeNode(network, QPointF(120, 120), "Sender", "020000000001");
    TcpNode* receiver = placeNode(network, QPointF(360, 120), "Receiver", "020000000002");
    drawLossyLink(network, sender, receiver);
    const bool isSaved = NetworkSimulation::instance()->save(QString::fromLocal8Bit(argv[1]));
    NetworkSimulation::deleteNetworkSimulation();
    if (!isSaved)
        fprintf(stderr, "cannot write %s\n", argv[1]);
    return isSaved ? 0 : 1;
}
