#pragma once

#include <QPointer>
#include <QWidget>

QT_BEGIN_NAMESPACE
class QDoubleSpinBox;
class QLineEdit;
class QPushButton;
class QSpinBox;
class QTextEdit;
QT_END_NAMESPACE

class Connection;
class PropertyForm;
class QtColorPicker;

/// The form that edits a link, or the network's default link. It stores each change at once. What changes
/// elsewhere shows only in a new form.
class ConnectionPropertiesWidget : public QWidget
{
    Q_OBJECT

public:
    /// Shows \a parentProperties, a further form or null, below this one.
    ConnectionPropertiesWidget(Connection* connection, QWidget* parentProperties);

public slots:
    void brokenChanged(int state);
    void reliabilityChanged(double value);  // percent
    void errorDetectionReliabilityChanged(double value);
    void delayChanged(int value);  // ms
    void delayDeviationChanged(int value);
    void resetBehavior();
    void resetStatistics();
    void commentChanged();
    void connectionColorChanged(const QColor& color);
    void connectionStrokeWidthChanged(double width);
    void resetAppearance();

private:
    void _addBehavior(PropertyForm& form);
    void _addStatistics(PropertyForm& form);
    void _addAppearance(PropertyForm& form);
    bool _hasOwnBehavior() const;
    bool _hasOwnAppearance() const;
    void _behaviorChanged();
    void _appearanceChanged();
    void _setStrokeWidth(double width);
    void _updateConnection();
    template <typename Value> void _store(Value Connection::*setting, const Value& value);

    QPointer<Connection> _connection;  // not owned; may go before the form
    bool _default;                     // it is the network's default link

    QDoubleSpinBox* _reliability = nullptr;
    QDoubleSpinBox* _errorDetectionReliability = nullptr;
    QSpinBox* _delay = nullptr;
    QSpinBox* _delayDeviation = nullptr;
    QtColorPicker* _connectionColor = nullptr;
    QDoubleSpinBox* _connectionStrokeWith = nullptr;

    // Null in the form of the default link
    QPushButton* _resetBehavior = nullptr;
    QLineEdit* _frames = nullptr;
    QLineEdit* _lostFrames = nullptr;
    QLineEdit* _crcErrors = nullptr;
    QTextEdit* _comment = nullptr;
    QPushButton* _resetAppearance = nullptr;
};
