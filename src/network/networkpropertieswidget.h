#pragma once

#include <QHash>
#include <QWidget>

QT_BEGIN_NAMESPACE
class QCheckBox;
class QLineEdit;
class QSpinBox;
QT_END_NAMESPACE

class PropertyForm;

/// The form of the network as a whole: frame parameters, TCP server, and the forms of the default link and
/// the default node. It stores each edit at once. A field that the user only enters and leaves stores
/// nothing: it may show a value that was cut to its range.
class NetworkPropertiesWidget : public QWidget
{
    Q_OBJECT

public:
    /// Shows \a extra, a further form or null, at the bottom. It is no parent: this form has none.
    explicit NetworkPropertiesWidget(QWidget* extra);

public slots:
    void frameMtuChanged();
    void frameAddressLengthChanged();
    void frameSourceAddressOffsetChanged();
    void frameDestinationAddressOffsetChanged();
    void frameBroadcastAddressChanged();
    void tcpEnabledChanged(int state);
    void tcpPortChanged();
    void tcpPnpEnabledChanged(int state);
    void tcpUseNameForPnpChanged(int state);
    void networkEmpty();

private slots:
    void _markEdited();

private:
    void _addFrameParameters(PropertyForm& form);
    void _addTcpServer(PropertyForm& form);
    QSpinBox* _addNumber(PropertyForm& form, const QString& label, int lowest, int highest, int value,
                         const char* edited);
    void _watchEdits(QWidget* field, const char* edited);
    bool _takeEdit(QWidget* field);
    void _showBroadcastAddress();
    void _fitOffsets();
    void _warnOfTcpFailure();

    QSpinBox* _frameMtu = nullptr;
    QSpinBox* _frameAddressLength = nullptr;
    QSpinBox* _frameSourceAddressOffset = nullptr;
    QSpinBox* _frameDestinationAddressOffset = nullptr;
    QLineEdit* _frameBroadcastAddress = nullptr;
    QSpinBox* _defaultNodeFrameAcknowledgeTimeout
        = nullptr;  // always null: the default node's form has the box
    QCheckBox* _tcpEnabled = nullptr;
    QSpinBox* _tcpPort = nullptr;
    QHash<QLineEdit*, QString> _storedTexts;  // by field; without fields whose edit is not stored yet
};
