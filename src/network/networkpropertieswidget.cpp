#include "network/networkpropertieswidget.h"

#include "forms/addressfield.h"
#include "forms/propertyform.h"
#include "network/networksimulation.h"

#include <QCheckBox>
#include <QLineEdit>
#include <QMessageBox>
#include <QSpinBox>

#include <algorithm>
#include <limits>

namespace {

constexpr int largestNumber = std::numeric_limits<int>::max();
constexpr int lowestPort = 1;
constexpr int highestPort = 65536;  // one more than there are, on purpose: the network stores it as 0

Network* network()
{
    return NetworkSimulation::instance()->network();
}

/// Returns what \a taken bytes leave of a frame of \a frameSize. A file may hold any number for both.
int bytesLeft(qint64 frameSize, qint64 taken)
{
    return static_cast<int>(qBound<qint64>(0, frameSize - taken, largestNumber));
}

/// Returns \a field itself, or the line edit inside a number box.
QLineEdit* lineEditOf(QWidget* field)
{
    auto* edit = qobject_cast<QLineEdit*>(field);
    return edit ? edit : field->findChild<QLineEdit*>();
}

Qt::CheckState checkState(bool isChecked)
{
    return isChecked ? Qt::Checked : Qt::Unchecked;
}

}  // namespace

NetworkPropertiesWidget::NetworkPropertiesWidget(QWidget* extra)
{
    PropertyForm form(this, tr("Network Simulation"));
    _addFrameParameters(form);
    _addTcpServer(form);
    form.embed(network()->defaultConnection()->propertiesWidget());
    form.embed(network()->defaultNode()->propertiesWidget());
    form.embed(extra);
    form.addEnd();
    connect(network(), SIGNAL(lastNodeDeleted()), this, SLOT(networkEmpty()));
}

void NetworkPropertiesWidget::_addFrameParameters(PropertyForm& form)
{
    const int mtu = network()->maximalTransferUnit();
    const int length = network()->addressLength();
    const int destination = network()->destinationAddressOffset();
    const int source = network()->sourceAddressOffset();
    const int highestLength = bytesLeft(mtu, std::max(destination, source));
    const int highestOffset = bytesLeft(mtu, length);

    form.beginPlainGroup();
    _frameMtu = _addNumber(form, tr("Maximal Transfer Unit"), 0, largestNumber, mtu, SLOT(frameMtuChanged()));
    _frameAddressLength
        = _addNumber(form, tr("Address Length"), 0, highestLength, length, SLOT(frameAddressLengthChanged()));
    _frameAddressLength->setEnabled(network()->isEmpty());
    _frameDestinationAddressOffset = _addNumber(form, tr("Destination Address Offset"), 0, highestOffset,
                                                destination, SLOT(frameDestinationAddressOffsetChanged()));
    _frameSourceAddressOffset = _addNumber(form, tr("Source Address Offset"), 0, highestOffset, source,
                                           SLOT(frameSourceAddressOffsetChanged()));

    _frameBroadcastAddress = form.addLineEdit(tr("Broadcast address"), QString());
    _showBroadcastAddress();
    _watchEdits(_frameBroadcastAddress, SLOT(frameBroadcastAddressChanged()));
}

void NetworkPropertiesWidget::_addTcpServer(PropertyForm& form)
{
    form.beginGroup(tr("TCP Server"));
    _tcpEnabled = form.addCheckBox(tr("Enabled"), checkState(network()->isTcpEnabled()),
                                   SLOT(tcpEnabledChanged(int)));
    _tcpPort
        = _addNumber(form, tr("Port"), lowestPort, highestPort, network()->tcpPort(), SLOT(tcpPortChanged()));
    _tcpPort->setEnabled(!network()->isTcpEnabled());
    form.addCheckBox(tr("Plug'n'Place"), checkState(network()->isTcpPnpEnabled()),
                     SLOT(tcpPnpEnabledChanged(int)));
    form.addCheckBox(tr("Name is ID"), checkState(network()->isNameUsedForPnpIdentification()),
                     SLOT(tcpUseNameForPnpChanged(int)));
}

QSpinBox* NetworkPropertiesWidget::_addNumber(PropertyForm& form, const QString& label, int lowest,
                                              int highest, int value, const char* edited)
{
    QSpinBox* box = form.addSpinBox(label, {lowest, highest, 1}, value);
    _watchEdits(box, edited);
    return box;
}

void NetworkPropertiesWidget::_watchEdits(QWidget* field, const char* edited)
{
    QLineEdit* edit = lineEditOf(field);
    _storedTexts.insert(edit, edit->text());
    connect(edit, SIGNAL(textEdited(QString)), this, SLOT(_markEdited()));
    connect(field, SIGNAL(editingFinished()), this, edited);
}

/// Typing what is shown already is an edit, too.
void NetworkPropertiesWidget::_markEdited()
{
    _storedTexts.remove(static_cast<QLineEdit*>(sender()));
}

/// Tells whether to store what the field shows: not when the user left it without an edit. A caller other
/// than the field always wants it stored.
bool NetworkPropertiesWidget::_takeEdit(QWidget* field)
{
    QLineEdit* edit = lineEditOf(field);
    const bool isEdited = edit->text() != _storedTexts.value(edit);
    _storedTexts.insert(edit, edit->text());
    return isEdited || sender() != field;
}

/// Stores the size, and does not work out the highest address length again, on purpose.
void NetworkPropertiesWidget::frameMtuChanged()
{
    if (!_takeEdit(_frameMtu))
        return;
    network()->_network.maximalTransferUnit = _frameMtu->value();
    _fitOffsets();
}

/// Stores the length and cuts a broadcast address that is too long. Leaves a short one as it is.
void NetworkPropertiesWidget::frameAddressLengthChanged()
{
    if (!_takeEdit(_frameAddressLength))
        return;
    const int length = _frameAddressLength->value();
    network()->_network.addressLength = length;
    network()->_network.broadcastAddress.truncate(length);
    _showBroadcastAddress();
    _fitOffsets();
}

/// Gives the offsets their new range. The boxes cut their values themselves.
void NetworkPropertiesWidget::_fitOffsets()
{
    const int highestOffset = bytesLeft(_frameMtu->value(), _frameAddressLength->value());
    _frameSourceAddressOffset->setMaximum(highestOffset);
    _frameDestinationAddressOffset->setMaximum(highestOffset);
    network()->_network.sourceAddressOffset = _frameSourceAddressOffset->value();
    network()->_network.destinationAddressOffset = _frameDestinationAddressOffset->value();
}

void NetworkPropertiesWidget::frameSourceAddressOffsetChanged()
{
    if (_takeEdit(_frameSourceAddressOffset))
        network()->_network.sourceAddressOffset = _frameSourceAddressOffset->value();
}

void NetworkPropertiesWidget::frameDestinationAddressOffsetChanged()
{
    if (_takeEdit(_frameDestinationAddressOffset))
        network()->_network.destinationAddressOffset = _frameDestinationAddressOffset->value();
}

void NetworkPropertiesWidget::frameBroadcastAddressChanged()
{
    if (!_takeEdit(_frameBroadcastAddress))
        return;
    const QString digits = _frameBroadcastAddress->text().remove(QLatin1Char(':'));
    network()->_network.broadcastAddress = QByteArray::fromHex(digits.toUtf8());
}

void NetworkPropertiesWidget::_showBroadcastAddress()
{
    AddressField::setMask(_frameBroadcastAddress, network()->addressInputMask(-1));
    AddressField::setAddress(_frameBroadcastAddress, network()->broadcastAddress());
    _storedTexts.insert(_frameBroadcastAddress, _frameBroadcastAddress->text());
}

void NetworkPropertiesWidget::tcpEnabledChanged(int state)
{
    bool enable = state == Qt::Checked;
    if (!network()->setTcpEnabled(enable) && enable) {
        _warnOfTcpFailure();
        _tcpEnabled->setCheckState(Qt::Unchecked);  // setChecked() within a click would mute the next one
        enable = false;
    }
    _tcpPort->setEnabled(!enable);
}

void NetworkPropertiesWidget::_warnOfTcpFailure()
{
    const QString text = tr("Could not start the TCP server on port %1").arg(network()->tcpPort());
    QMessageBox::warning(this, tr("TCP Server"), text, QMessageBox::Ok);
}

void NetworkPropertiesWidget::tcpPortChanged()
{
    if (_takeEdit(_tcpPort))
        network()->setTcpPort(static_cast<quint16>(_tcpPort->value()));
}

void NetworkPropertiesWidget::tcpPnpEnabledChanged(int state)
{
    network()->setTcpPnpEnabled(state == Qt::Checked);
}

void NetworkPropertiesWidget::tcpUseNameForPnpChanged(int state)
{
    network()->setNameUsedForPnpIdentification(state == Qt::Checked);
}

/// Lets the user change the address length again: no node is left whose address could contradict it.
void NetworkPropertiesWidget::networkEmpty()
{
    _frameAddressLength->setEnabled(true);
}
