#include "connections/connectionpropertieswidget.h"

#include "QtColorPicker/qtcolorpicker.h"
#include "connections/connection.h"
#include "core/ownordefault.h"
#include "forms/propertyform.h"
#include "network/networksimulation.h"

#include <QDoubleSpinBox>
#include <QLineEdit>
#include <QPushButton>
#include <QSpinBox>
#include <QTextEdit>

namespace {

constexpr PropertyForm::Range<double> percentages{0.0, 100.0, 1.0};
constexpr double percent = 100.0;

// Stored by a link that follows the default link
constexpr double undecidedReal = -1.0;
constexpr int undecidedTime = -1;

Connection* defaultConnection()
{
    return NetworkSimulation::instance()->network()->defaultConnection();
}

bool isOwn(double value)
{
    return value >= 0;
}

template <typename Value> Value shown(const Value& own, const Value& inherited)
{
    return ownOrDefault(isOwn(own), own, inherited);
}

}  // namespace

ConnectionPropertiesWidget::ConnectionPropertiesWidget(Connection* connection, QWidget* parentProperties)
    : _connection(connection)
    , _default(connection == defaultConnection())
{
    Q_ASSERT(_connection);
    PropertyForm form(this, _default ? tr("Connection defaults") : tr("Connection"));
    _addBehavior(form);
    if (!_default) {
        _addStatistics(form);
        _comment = form.addComments(connection->toolTip(), SLOT(commentChanged()), 1);
    }
    _addAppearance(form);
    form.embed(parentProperties);
    form.addEnd();
}

void ConnectionPropertiesWidget::_addBehavior(PropertyForm& form)
{
    const Connection* defaults = defaultConnection();
    form.beginGroup(tr("Behavior"));
    if (!_default) {
        form.addCheckBox(tr("Temporary broken"), _connection->_broken ? Qt::Checked : Qt::Unchecked,
                         SLOT(brokenChanged(int)));
    }
    _reliability = form.addDoubleSpinBox(tr("Reliability [%]"), percentages,
                                         percent * shown(_connection->_reliability, defaults->_reliability),
                                         SLOT(reliabilityChanged(double)));
    _errorDetectionReliability = form.addDoubleSpinBox(
        tr("Error Detection Reliability [%]"), percentages,
        percent * shown(_connection->_errorDetectionReliability, defaults->_errorDetectionReliability),
        SLOT(errorDetectionReliabilityChanged(double)));
    _delay = form.addSpinBox(tr("Transmission Delay [ms]"), PropertyForm::milliseconds,
                             shown(_connection->_delayMs, defaults->_delayMs), SLOT(delayChanged(int)));
    _delayDeviation = form.addSpinBox(tr("Tx Delay Deviation [ms]"), PropertyForm::milliseconds,
                                      shown(_connection->_delayDeviationMs, defaults->_delayDeviationMs),
                                      SLOT(delayDeviationChanged(int)));
    if (_default)
        return;
    _resetBehavior = form.addButton(tr("Default Behavior"), SLOT(resetBehavior()));
    _resetBehavior->setVisible(_hasOwnBehavior());
}

/// Adds the statistics, which are always zero: nothing counts yet.
void ConnectionPropertiesWidget::_addStatistics(PropertyForm& form)
{
    const QString zero = QString::number(0);
    form.beginGroup(tr("Statistics"), 1);
    _frames = form.addReadOnlyField(tr("Frames"), zero);
    _lostFrames = form.addReadOnlyField(tr("Frames Lost"), zero);
    _crcErrors = form.addReadOnlyField(tr("CRC Errors"), zero);
    form.addButton(tr("Reset Statistics"), SLOT(resetStatistics()));
}

void ConnectionPropertiesWidget::_addAppearance(PropertyForm& form)
{
    const Connection* defaults = defaultConnection();
    PropertyForm::Colors colors;
    colors.shown = shown(_connection->_connectionColor, defaults->_connectionColor);
    colors.inherited = _default ? QColor() : defaults->_connectionColor;
    colors.hasStandardColors = _default;

    form.beginGroup(tr("Appearance"), 1);
    _connectionColor
        = form.addColorPicker(tr("Connection Color"), colors, SLOT(connectionColorChanged(QColor)));
    _connectionStrokeWith
        = form.addDoubleSpinBox(tr("Connection Stroke"), PropertyForm::strokeWidths,
                                shown(_connection->_connectionStrokeWidth, defaults->_connectionStrokeWidth),
                                SLOT(connectionStrokeWidthChanged(double)));
    if (_default)
        return;
    _resetAppearance = form.addButton(tr("Default Appearance"), SLOT(resetAppearance()));
    _resetAppearance->setVisible(_hasOwnAppearance());
}

bool ConnectionPropertiesWidget::_hasOwnBehavior() const
{
    return isOwn(_connection->_reliability) || isOwn(_connection->_errorDetectionReliability)
        || isOwn(_connection->_delayMs) || isOwn(_connection->_delayDeviationMs);
}

bool ConnectionPropertiesWidget::_hasOwnAppearance() const
{
    return isOwn(_connection->_connectionColor) || isOwn(_connection->_connectionStrokeWidth);
}

void ConnectionPropertiesWidget::brokenChanged(int state)
{
    if (!_connection)
        return;
    _connection->_broken = state == Qt::Checked;
    if (_connection->_broken)
        _connection->_discardFramesInFlight();
    _connection->update();
}

void ConnectionPropertiesWidget::reliabilityChanged(double value)
{
    _store(&Connection::_reliability, value / percent);
    _behaviorChanged();
    _updateConnection();  // the less reliable, the fainter
}

void ConnectionPropertiesWidget::errorDetectionReliabilityChanged(double value)
{
    _store(&Connection::_errorDetectionReliability, value / percent);
    _behaviorChanged();
}

void ConnectionPropertiesWidget::delayChanged(int value)
{
    _store(&Connection::_delayMs, value);  // stores 0 too, on purpose, though it counts as undecided
    _behaviorChanged();
}

void ConnectionPropertiesWidget::delayDeviationChanged(int value)
{
    _store(&Connection::_delayDeviationMs, value);
    _behaviorChanged();
}

/// Shows the defaults, then gives up the link's own settings: the fields store what they are set to.
void ConnectionPropertiesWidget::resetBehavior()
{
    const Connection* defaults = defaultConnection();
    _reliability->setValue(percent * defaults->_reliability);
    _errorDetectionReliability->setValue(percent * defaults->_errorDetectionReliability);
    _delay->setValue(defaults->_delayMs);
    _delayDeviation->setValue(defaults->_delayDeviationMs);

    _store(&Connection::_reliability, undecidedReal);
    _store(&Connection::_errorDetectionReliability, undecidedReal);
    _store(&Connection::_delayMs, undecidedTime);
    _store(&Connection::_delayDeviationMs, undecidedTime);
    _resetBehavior->hide();
    _updateConnection();
}

void ConnectionPropertiesWidget::resetStatistics()
{
    if (_connection)
        _connection->resetStatistics();
}

void ConnectionPropertiesWidget::commentChanged()
{
    if (_connection)
        _connection->setToolTip(_comment->toPlainText());
}

void ConnectionPropertiesWidget::connectionColorChanged(const QColor& color)
{
    _store(&Connection::_connectionColor, color);
    _appearanceChanged();
}

void ConnectionPropertiesWidget::connectionStrokeWidthChanged(double width)
{
    _setStrokeWidth(width);
    _appearanceChanged();
}

/// Resets in the order of resetBehavior(), for the same reason.
void ConnectionPropertiesWidget::resetAppearance()
{
    const Connection* defaults = defaultConnection();
    _connectionColor->setCurrentColor(defaults->_connectionColor);
    _connectionStrokeWith->setValue(defaults->_connectionStrokeWidth);

    _store(&Connection::_connectionColor, QColor());
    _setStrokeWidth(undecidedReal);
    _resetAppearance->hide();
}

void ConnectionPropertiesWidget::_behaviorChanged()
{
    if (_resetBehavior)
        _resetBehavior->show();
}

void ConnectionPropertiesWidget::_appearanceChanged()
{
    if (_resetAppearance)
        _resetAppearance->show();
    _updateConnection();
}

void ConnectionPropertiesWidget::_setStrokeWidth(double width)
{
    if (_connection)
        _connection->_setStrokeWidth(width);
}

/// Repaints what shows the change: every link may follow the default one.
void ConnectionPropertiesWidget::_updateConnection()
{
    if (_default)
        NetworkSimulation::instance()->updateNetworkDisplay();
    else if (_connection)
        _connection->update();
}

template <typename Value>
void ConnectionPropertiesWidget::_store(Value Connection::*setting, const Value& value)
{
    if (_connection)
        _connection->*setting = value;
}
