#pragma once

#include "formhelpers.h"
#include "nodes/tcpnode.h"
#include "testhelpers.h"

/// The form of a node, and its fields.
namespace FormHelpers {

inline Node& defaultNode()
{
    return *TestHelpers::network()->defaultNode();
}

inline Form openForm(Node* node)
{
    return open(node->propertiesWidget());
}

inline QCheckBox* checkBox(const Form& form, const char* label)
{
    return field<QCheckBox>(form.get(), QLatin1String(label));
}

inline QSpinBox* timeoutBox(const Form& form)
{
    return field<QSpinBox>(form.get(), QStringLiteral("Frame ACK Timeout"));
}

inline QDoubleSpinBox* strokeBox(const Form& form)
{
    return field<QDoubleSpinBox>(form.get(), QStringLiteral("Node Stroke With"));
}

inline QtColorPicker* colorPicker(const Form& form, const QString& label)
{
    return field<QtColorPicker>(form.get(), label);
}

inline QPushButton* assignButton(const Form& form)
{
    return button(form.get(), QStringLiteral("Assign Address..."));
}

inline QPushButton* defaultAppearance(const Form& form)
{
    return button(form.get(), QStringLiteral("Default Appearance"));
}

/// A TCP node of the network, with the simulation it belongs to.
struct OneNode {
    explicit OneNode(const QByteArray& address = TestHelpers::nodeAddress(0xAB))
        : simulation(NetworkSimulation::newNetworkSimulation())
        , node(new TcpNode(address, nullptr))
    {
        TestHelpers::network()->addItem(node);
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

inline const ColorSetting colorSettings[] = {
    {"Inactive Node Color", [](Node& node) -> QColor& { return TestAccess::inactiveColor(node); }},
    {"Active Node Color", [](Node& node) -> QColor& { return TestAccess::activeColor(node); }},
    {"TX Node Color", [](Node& node) -> QColor& { return TestAccess::txColor(node); }},
    {"RX Node Color", [](Node& node) -> QColor& { return TestAccess::rxColor(node); }},
};

struct SwitchSetting {
    const char* label;
    Qt::CheckState& (*of)(Node& node);
};

inline const SwitchSetting switchSettings[] = {
    {"Promiscuous mode", [](Node& node) -> Qt::CheckState& { return TestAccess::promiscuousMode(node); }},
    {"Frames acknowledged",
     [](Node& node) -> Qt::CheckState& { return TestAccess::framesAcknowledged(node); }},
    {"Show Node Address", [](Node& node) -> Qt::CheckState& { return TestAccess::showAddress(node); }},
    {"Show Connection Count",
     [](Node& node) -> Qt::CheckState& { return TestAccess::showConnectionCount(node); }},
};

}  // namespace FormHelpers
