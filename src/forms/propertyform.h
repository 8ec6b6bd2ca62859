#pragma once

#include <QColor>
#include <QString>

#include <limits>

QT_BEGIN_NAMESPACE
class QCheckBox;
class QDoubleSpinBox;
class QFormLayout;
class QLineEdit;
class QPushButton;
class QSpinBox;
class QTextEdit;
class QVBoxLayout;
class QWidget;
QT_END_NAMESPACE

class QtColorPicker;

/// Puts one property form together: a title, groups of rows with each label above its field, other forms.
///
/// It fills a field before it connects it, so that filling is no edit. The fields belong to the form. The
/// slots named for them are the form's; a change of the field calls them, by the user or by the program.
class PropertyForm
{
public:
    template <typename Value> struct Range {
        Value lowest;
        Value highest;
        Value step;
    };

    /// The colours that a colour row offers and shows.
    struct Colors {
        QColor shown;
        QColor inherited;  // offered under the name "Default"; invalid: not offered
        bool hasStandardColors;
    };

    static constexpr Range<int> milliseconds{0, std::numeric_limits<int>::max(), 10};
    static constexpr Range<double> strokeWidths{0.1, 10.0, 0.1};

    /// \a form is not owned and has no layout yet.
    PropertyForm(QWidget* form, const QString& title);

    // Groups: rows go into the last one
    void beginGroup(const QString& title, int stretch = 0);
    void beginPlainGroup();  // without a frame

    // Rows
    QSpinBox* addSpinBox(const QString& label, const Range<int>& range, int value,
                         const char* changed = nullptr);  // null: the form connects the box itself
    QDoubleSpinBox* addDoubleSpinBox(const QString& label, const Range<double>& range, double value,
                                     const char* changed);
    QCheckBox* addCheckBox(const QString& label, Qt::CheckState state, const char* changed);
    QCheckBox* addThreeStateBox(const QString& label, Qt::CheckState state, const char* changed);
    QLineEdit* addLineEdit(const QString& label, const QString& text);
    QLineEdit* addReadOnlyField(const QString& label, const QString& text);  // no label: fills its row
    QtColorPicker* addColorPicker(const QString& label, const Colors& colors, const char* changed);
    QPushButton* addButton(const QString& text, const char* clicked, const QString& label = QString());

    /// Adds the group "Comments" with its text.
    QTextEdit* addComments(const QString& text, const char* changed, int stretch = 0);

    /// Makes a right-aligned field for a row that is inserted later.
    static QLineEdit* newReadOnlyField(const QString& text, QWidget* parent);

    // Below the groups
    void embed(QWidget* otherForm);  // null: nothing
    void addEnd();                   // leaves the rest of the height empty

    /// Returns the present group's rows, for those that come and go while the form is shown.
    QFormLayout* rows() const { return _rows; }

private:
    void _beginRows(QWidget* group, int stretch);
    template <typename Box, typename Value>
    Box* _addNumberBox(const QString& label, const Range<Value>& range, Value value);
    void _addRow(const QString& label, QWidget* field);

    QWidget* _form;                // not owned
    QVBoxLayout* _layout;          // the form's
    QFormLayout* _rows = nullptr;  // the present group's; null before the first
};
