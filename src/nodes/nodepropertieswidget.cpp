#include "nodes/nodepropertieswidget.h"

#include "QtColorPicker/qtcolorpicker.h"
#include "core/ownordefault.h"
#include "forms/addressfield.h"
#include "forms/propertyform.h"
#include "forms/trafficfields.h"
#include "network/networksimulation.h"
#include "nodes/node.h"

#include <QCheckBox>
#include <QDoubleSpinBox>
#include <QFormLayout>
#include <QInputDialog>
#include <QLineEdit>
#include <QPushButton>
#include <QSpinBox>
#include <QTextEdit>

#include <algorithm>
#include <cctype>
#include <optional>

namespace {

constexpr int addressDialogWidth = 200;        // pixels, at least
constexpr double undecidedStrokeWidth = -1.0;  // what a node stores to follow the default node

Network* network()
{
    return NetworkSimulation::instance()->network();
}

Node* defaultNode()
{
    return network()->defaultNode();
}

/// Decodes an address. Returns nothing when a byte lacks its second digit, which would shift all digits.
std::optional<QByteArray> addressFrom(const QByteArray& text)
{
    const auto isDigit = [](unsigned char character) { return std::isxdigit(character) != 0; };
    if (std::count_if(text.begin(), text.end(), isDigit) % 2 != 0)
        return std::nullopt;
    return QByteArray::fromHex(text);
}

/// Takes a field out of the form at once, but does not delete it before its own signal is over.
void discard(QLayoutItem* item)
{
    if (!item)
        return;
    if (QWidget* widget = item->widget()) {
        widget->hide();
        widget->setParent(nullptr);
        widget->deleteLater();
    }
    delete item;
}

}  // namespace

NodePropertiesWidget::NodePropertiesWidget(Node* node, QWidget* parentProperties)
    : _node(node)
    , _default(node == defaultNode())
{
    Q_ASSERT(_node);
    PropertyForm form(this, _default ? tr("Node defaults") : tr("Node"));
    _addBehavior(form);
    if (!_default) {
        _addStatistics(form);
        _comment = form.addComments(_node->toolTip(), SLOT(commentChanged()));
    }
    _addAppearance(form);
    form.embed(parentProperties);
    form.addEnd();
}

void NodePropertiesWidget::_addBehavior(PropertyForm& form)
{
    form.beginGroup(tr("Behavior"));
    _networkGroupForm = form.rows();
    if (!_default)
        _addIdentity(form);
    _addSwitch(form, tr("Promiscuous mode"), _node->_promiscuousMode, SLOT(promiscuousModeChanged(int)));
    if (!_default) {
        form.addCheckBox(tr("Deactivate node"), _node->_flags & Node::Disabled ? Qt::Checked : Qt::Unchecked,
                         SLOT(disableChanged(int)));
    }
    _addSwitch(form, tr("Frames acknowledged"), _node->_framesAcknowledged,
               SLOT(framesAcknowledgedChanged(int)));
    _frameAcknowledgeTimeout = form.addSpinBox(tr("Frame ACK Timeout"), PropertyForm::milliseconds,
                                               _shownTimeout(), SLOT(frameAcknowledgeTimeoutChanged(int)));
    _frameAcknowledgeTimeout->setEnabled(_node->_framesAcknowledged == Qt::Checked);
}

void NodePropertiesWidget::_addIdentity(PropertyForm& form)
{
    QLineEdit* name = form.addLineEdit(tr("Name"), _node->name());
    connect(name, SIGNAL(textEdited(QString)), this, SLOT(nodeNameChanged(QString)));

    if (_node->address().isEmpty()) {
        _assign = form.addButton(tr("Assign Address..."), SLOT(assignAddress()), tr("Node Address Empty!"));
        _address = PropertyForm::newReadOnlyField(QString(), this);
        _address->hide();  // until there is one
        return;
    }
    _address = form.addReadOnlyField(tr("Node Address"), QString());
    _showAddress();
}

void NodePropertiesWidget::_addStatistics(PropertyForm& form)
{
    const auto addCount = [&form](const QString& label, qint64 count) {
        return form.addReadOnlyField(label, QString::number(count));
    };
    form.beginGroup(tr("Statistics"));
    _sendFrames = addCount(tr("Send Frames"), _node->sendFramesCount());
    _sendBytes = addCount(tr("Send Bytes"), _node->sendBytesCount());
    _receivedFrames = addCount(tr("Received Frames"), _node->receivedFramesCount());
    _receivedBytes = addCount(tr("Received Bytes"), _node->receivedBytesCount());
    form.addButton(tr("Reset Statistics"), SLOT(resetStatistics()));

    _sent = new TrafficFields(_sendFrames, _sendBytes, this);
    _received = new TrafficFields(_receivedFrames, _receivedBytes, this);
    connect(_node, SIGNAL(sendStatisticsChanged(int,int)), this, SLOT(sendStatisticsUpdate(int,int)));
    connect(_node, SIGNAL(receivedStatisticsChanged(int,int)), this, SLOT(receivedStatisticsUpdate(int,int)));
}

/// Adds the rows on appearance. Showing the name has none, on purpose.
void NodePropertiesWidget::_addAppearance(PropertyForm& form)
{
    const Node* defaults = defaultNode();
    form.beginGroup(tr("Appearance"));
    _inactiveNodeColor = _addColor(form, tr("Inactive Node Color"), _node->_inactiveColor,
                                   defaults->_inactiveColor, SLOT(inactiveColorChanged(QColor)));
    _activeNodeColor = _addColor(form, tr("Active Node Color"), _node->_activeColor, defaults->_activeColor,
                                 SLOT(activeColorChanged(QColor)));
    _txNodeColor = _addColor(form, tr("TX Node Color"), _node->_txColor, defaults->_txColor,
                             SLOT(txColorChanged(QColor)));
    _rxNodeColor = _addColor(form, tr("RX Node Color"), _node->_rxColor, defaults->_rxColor,
                             SLOT(rxColorChanged(QColor)));
    _strokeWith = form.addDoubleSpinBox(
        tr("Node Stroke With"), PropertyForm::strokeWidths,  // spelt so on purpose
        ownOrDefault(_node->_strokeWidth > 0, _node->_strokeWidth, defaults->_strokeWidth),
        SLOT(strokeWidthChanged(double)));
    _showNodeAddress
        = _addSwitch(form, tr("Show Node Address"), _node->_showAddress, SLOT(showNodeAddressChanged(int)));
    _showConnectionCount = _addSwitch(form, tr("Show Connection Count"), _node->_showConnectionCount,
                                      SLOT(showConnectionCountChanged(int)));
    if (_default)
        return;
    _resetAppearance = form.addButton(tr("Default Appearance"), SLOT(resetAppearance()));
    _resetAppearance->setVisible(_hasOwnAppearance());
}

/// Adds a switch. With its third state, a node leaves the choice to the default node, which itself has only
/// two.
QCheckBox* NodePropertiesWidget::_addSwitch(PropertyForm& form, const QString& label, Qt::CheckState state,
                                            const char* changed) const
{
    return _default ? form.addCheckBox(label, state, changed) : form.addThreeStateBox(label, state, changed);
}

QtColorPicker* NodePropertiesWidget::_addColor(PropertyForm& form, const QString& label, const QColor& own,
                                               const QColor& inherited, const char* changed) const
{
    PropertyForm::Colors colors;
    colors.shown = ownOrDefault(own, inherited);
    colors.inherited = _default ? QColor() : inherited;
    colors.hasStandardColors = true;
    return form.addColorPicker(label, colors, changed);
}

/// Tells whether the node has decided on something that a row can reset. Showing the name has no row.
bool NodePropertiesWidget::_hasOwnAppearance() const
{
    return isOwn(_node->_inactiveColor) || isOwn(_node->_activeColor) || isOwn(_node->_txColor)
        || isOwn(_node->_rxColor) || _node->_strokeWidth != undecidedStrokeWidth || isOwn(_node->_showAddress)
        || isOwn(_node->_showConnectionCount);
}

int NodePropertiesWidget::_shownTimeout() const
{
    const int own = _node->_frameAcknowledgeTimeout;
    const bool isOwnShown = _node->_framesAcknowledged == Qt::Checked && own > 0;
    return ownOrDefault(isOwnShown, own, defaultNode()->_frameAcknowledgeTimeout);
}

void NodePropertiesWidget::nodeNameChanged(const QString& name)
{
    if (_node)
        _node->setName(name);
}

/// Asks for an address and assigns it. Ignores a text that is no address of the network's length.
void NodePropertiesWidget::assignAddress()
{
    const QPointer<NodePropertiesWidget> self = this;  // the dialog's event loop may see the end of the form
    QString text;
    const bool isAccepted = _askForAddress(&text);
    if (!isAccepted || !self || !_node)
        return;
    const std::optional<QByteArray> address = addressFrom(text.toLatin1());
    if (!address || address->size() != network()->addressLength())
        return;
    _node->setAddress(*address);
    _showAssignedAddress();
}

/// Lets the user type an address. False when he cancels.
bool NodePropertiesWidget::_askForAddress(QString* text)
{
    const QPointer<QInputDialog> dialog = new QInputDialog(this);
    dialog->setModal(true);
    dialog->setMinimumWidth(addressDialogWidth);
    dialog->setInputMode(QInputDialog::TextInput);
    dialog->setLabelText(tr("New Address for the node:"));
    auto* field = dialog->findChild<QLineEdit*>();
    AddressField::setMask(field, network()->addressInputMask(-1));

    const bool isAccepted = dialog->exec() == QDialog::Accepted;
    if (!dialog)
        return false;
    *text = dialog->textValue();
    delete dialog;
    return isAccepted;
}

/// Shows the new address in the place of the button. A form that is made for a node with an address spells
/// the label in another way, on purpose.
void NodePropertiesWidget::_showAssignedAddress()
{
    const QFormLayout::TakeRowResult row = _networkGroupForm->takeRow(_assign);
    discard(row.labelItem);
    discard(row.fieldItem);
    _assign = nullptr;

    _networkGroupForm->insertRow(0, tr("Node address"), _address);
    _showAddress();
    _address->show();
}

void NodePropertiesWidget::_showAddress()
{
    AddressField::setMask(_address, network()->addressInputMask(_node->address().size()));
    AddressField::setAddress(_address, _node->address());
}

void NodePropertiesWidget::promiscuousModeChanged(int state)
{
    _store(&Node::_promiscuousMode, static_cast<Qt::CheckState>(state));
}

void NodePropertiesWidget::disableChanged(int state)
{
    if (_node)
        _node->setActive(state != Qt::Checked, true);
}

/// Stores the switch and shows the timeout that now counts. The box stores it as it changes: a node that goes
/// back to the default's timeout keeps it as its own, on purpose.
void NodePropertiesWidget::framesAcknowledgedChanged(int state)
{
    _store(&Node::_framesAcknowledged, static_cast<Qt::CheckState>(state));
    _frameAcknowledgeTimeout->setEnabled(state == Qt::Checked);
    if (state == Qt::PartiallyChecked)
        _frameAcknowledgeTimeout->setValue(defaultNode()->_frameAcknowledgeTimeout);
    else if (_node && _node->_frameAcknowledgeTimeout >= 1)
        _frameAcknowledgeTimeout->setValue(_node->_frameAcknowledgeTimeout);
}

void NodePropertiesWidget::frameAcknowledgeTimeoutChanged(int timeout)
{
    _store(&Node::_frameAcknowledgeTimeout, timeout);
}

void NodePropertiesWidget::sendStatisticsUpdate(int frames, int bytes)
{
    _sent->show(frames, bytes);
}

void NodePropertiesWidget::receivedStatisticsUpdate(int frames, int bytes)
{
    _received->show(frames, bytes);
}

void NodePropertiesWidget::resetStatistics()
{
    if (_node)
        _node->resetStatistics();
}

void NodePropertiesWidget::commentChanged()
{
    if (_node)
        _node->setToolTip(_comment->toPlainText());
}

void NodePropertiesWidget::inactiveColorChanged(const QColor& color)
{
    _storeAppearance(&Node::_inactiveColor, color);
}

void NodePropertiesWidget::activeColorChanged(const QColor& color)
{
    _storeAppearance(&Node::_activeColor, color);
}

void NodePropertiesWidget::txColorChanged(const QColor& color)
{
    _storeAppearance(&Node::_txColor, color);
}

void NodePropertiesWidget::rxColorChanged(const QColor& color)
{
    _storeAppearance(&Node::_rxColor, color);
}

void NodePropertiesWidget::strokeWidthChanged(double width)
{
    _storeAppearance(&Node::_strokeWidth, width);
}

void NodePropertiesWidget::showNodeAddressChanged(int state)
{
    _storeAppearance(&Node::_showAddress, static_cast<Qt::CheckState>(state));
}

void NodePropertiesWidget::showConnectionCountChanged(int state)
{
    _storeAppearance(&Node::_showConnectionCount, static_cast<Qt::CheckState>(state));
}

/// Shows the defaults, then gives up the node's own settings: the fields store what they are set to.
void NodePropertiesWidget::resetAppearance()
{
    const Node* defaults = defaultNode();
    _inactiveNodeColor->setCurrentColor(defaults->_inactiveColor);
    _activeNodeColor->setCurrentColor(defaults->_activeColor);
    _txNodeColor->setCurrentColor(defaults->_txColor);
    _rxNodeColor->setCurrentColor(defaults->_rxColor);
    _strokeWith->setValue(defaults->_strokeWidth);
    _showNodeAddress->setCheckState(Qt::PartiallyChecked);
    _showConnectionCount->setCheckState(Qt::PartiallyChecked);

    for (QColor Node::*color : {&Node::_inactiveColor, &Node::_activeColor, &Node::_txColor, &Node::_rxColor})
        _store(color, QColor());
    _store(&Node::_strokeWidth, undecidedStrokeWidth);
    _store(&Node::_showAddress, Qt::PartiallyChecked);
    _store(&Node::_showConnectionCount, Qt::PartiallyChecked);
    _resetAppearance->hide();
    if (_node)
        _node->update();
}

template <typename Value>
void NodePropertiesWidget::_storeAppearance(Value Node::*setting, const Value& value)
{
    _store(setting, value);
    _appearanceChanged();
}

/// Repaints what shows the change: every node may inherit the look of the default node.
void NodePropertiesWidget::_appearanceChanged()
{
    if (_default) {
        NetworkSimulation::instance()->updateNetworkDisplay();
        return;
    }
    _resetAppearance->show();
    if (_node)
        _node->update();
}

template <typename Value> void NodePropertiesWidget::_store(Value Node::*setting, const Value& value)
{
    if (_node)
        _node->*setting = value;
}
