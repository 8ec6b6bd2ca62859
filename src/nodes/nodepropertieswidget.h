#pragma once

#include <QPointer>
#include <QWidget>

QT_BEGIN_NAMESPACE
class QCheckBox;
class QDoubleSpinBox;
class QFormLayout;
class QLineEdit;
class QPushButton;
class QSpinBox;
class QTextEdit;
QT_END_NAMESPACE

class Node;
class PropertyForm;
class QtColorPicker;
class TrafficFields;

/// The form that edits a node, or the network's default node. It stores each change at once. Of what changes
/// elsewhere, it shows the statistics only.
class NodePropertiesWidget : public QWidget
{
    Q_OBJECT

public:
    /// Shows \a parentProperties, a further form or null, below this one.
    NodePropertiesWidget(Node* node, QWidget* parentProperties);

public slots:
    void nodeNameChanged(const QString& name);
    void assignAddress();
    void promiscuousModeChanged(int state);
    void disableChanged(int state);
    void framesAcknowledgedChanged(int state);
    void frameAcknowledgeTimeoutChanged(int timeout);  // ms
    void sendStatisticsUpdate(int frames, int bytes);
    void receivedStatisticsUpdate(int frames, int bytes);
    void resetStatistics();
    void commentChanged();
    void inactiveColorChanged(const QColor& color);
    void activeColorChanged(const QColor& color);
    void txColorChanged(const QColor& color);
    void rxColorChanged(const QColor& color);
    void strokeWidthChanged(double width);
    void showNodeAddressChanged(int state);
    void showConnectionCountChanged(int state);
    void resetAppearance();

private:
    void _addBehavior(PropertyForm& form);
    void _addIdentity(PropertyForm& form);
    void _addStatistics(PropertyForm& form);
    void _addAppearance(PropertyForm& form);
    QCheckBox* _addSwitch(PropertyForm& form, const QString& label, Qt::CheckState state,
                          const char* changed) const;
    QtColorPicker* _addColor(PropertyForm& form, const QString& label, const QColor& own,
                             const QColor& inherited, const char* changed) const;
    bool _hasOwnAppearance() const;
    int _shownTimeout() const;
    bool _askForAddress(QString* text);
    void _showAssignedAddress();
    void _showAddress();
    void _appearanceChanged();
    template <typename Value> void _storeAppearance(Value Node::*setting, const Value& value);
    template <typename Value> void _store(Value Node::*setting, const Value& value);

    QPointer<Node> _node;  // not owned; may go before the form
    bool _default;         // it is the network's default node

    QFormLayout* _networkGroupForm = nullptr;  // of the group "Behavior"
    QSpinBox* _frameAcknowledgeTimeout = nullptr;
    QtColorPicker* _inactiveNodeColor = nullptr;
    QtColorPicker* _activeNodeColor = nullptr;
    QtColorPicker* _txNodeColor = nullptr;
    QtColorPicker* _rxNodeColor = nullptr;
    QDoubleSpinBox* _strokeWith = nullptr;
    QCheckBox* _showNodeAddress = nullptr;
    QCheckBox* _showConnectionCount = nullptr;

    // Null in the form of the default node
    QPushButton* _assign = nullptr;  // also null once the node has an address
    QLineEdit* _address = nullptr;   // hidden and without a row while the node has no address
    QLineEdit* _sendFrames = nullptr;
    QLineEdit* _sendBytes = nullptr;
    QLineEdit* _receivedFrames = nullptr;
    QLineEdit* _receivedBytes = nullptr;
    TrafficFields* _sent = nullptr;
    TrafficFields* _received = nullptr;
    QTextEdit* _comment = nullptr;
    QPushButton* _resetAppearance = nullptr;
};
