#include "forms/propertyform.h"

#include "QtColorPicker/qtcolorpicker.h"

#include <QCheckBox>
#include <QEvent>
#include <QFormLayout>
#include <QGroupBox>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSpinBox>
#include <QTextEdit>
#include <QVBoxLayout>

namespace {

constexpr int formMargin = 5;
constexpr int embeddedStretch = 1;
constexpr int endStretch = 10;

/// Leaves the wheel to the scroll area around the form until the field has the focus. Who scrolls over a
/// number does not mean to change it.
class WheelGuard : public QObject
{
public:
    explicit WheelGuard(QWidget* field)
        : QObject(field)
    {
        field->setFocusPolicy(Qt::StrongFocus);  // the wheel gives no focus either
        field->installEventFilter(this);
    }

    bool eventFilter(QObject* watched, QEvent* event) override
    {
        if (event->type() != QEvent::Wheel || static_cast<QWidget*>(watched)->hasFocus())
            return QObject::eventFilter(watched, event);
        event->ignore();
        return true;
    }
};

void fillWidth(QWidget* field)
{
    field->setSizePolicy(QSizePolicy::MinimumExpanding, QSizePolicy::Preferred);
}

/// Draws the text of a disabled field as that of an active one: the user cannot type it, but has to read it.
void keepReadable(QLineEdit* field)
{
    QPalette palette = field->palette();
    palette.setColor(QPalette::Disabled, QPalette::Text, palette.color(QPalette::Active, QPalette::Text));
    field->setPalette(palette);
}

}  // namespace

PropertyForm::PropertyForm(QWidget* form, const QString& title)
    : _form(form)
    , _layout(new QVBoxLayout(form))
{
    _layout->setContentsMargins(formMargin, formMargin, formMargin, formMargin);
    auto* label = new QLabel(QStringLiteral("<b>%1</b>").arg(title), form);
    label->setAlignment(Qt::AlignHCenter | Qt::AlignBottom);
    _layout->addWidget(label);
}

void PropertyForm::beginGroup(const QString& title, int stretch)
{
    _beginRows(new QGroupBox(title, _form), stretch);
}

void PropertyForm::beginPlainGroup()
{
    _beginRows(new QWidget(_form), 0);
}

void PropertyForm::_beginRows(QWidget* group, int stretch)
{
    _rows = new QFormLayout(group);
    _rows->setRowWrapPolicy(QFormLayout::WrapAllRows);
    _layout->addWidget(group, stretch);
}

QSpinBox* PropertyForm::addSpinBox(const QString& label, const Range<int>& range, int value,
                                   const char* changed)
{
    auto* box = _addNumberBox<QSpinBox>(label, range, value);
    if (changed)
        QObject::connect(box, SIGNAL(valueChanged(int)), _form, changed);
    return box;
}

QDoubleSpinBox* PropertyForm::addDoubleSpinBox(const QString& label, const Range<double>& range, double value,
                                               const char* changed)
{
    auto* box = _addNumberBox<QDoubleSpinBox>(label, range, value);
    QObject::connect(box, SIGNAL(valueChanged(double)), _form, changed);
    return box;
}

template <typename Box, typename Value>
Box* PropertyForm::_addNumberBox(const QString& label, const Range<Value>& range, Value value)
{
    auto* box = new Box(_form);
    box->setRange(range.lowest, range.highest);
    box->setSingleStep(range.step);
    box->setValue(value);
    box->setAlignment(Qt::AlignRight);
    fillWidth(box);
    new WheelGuard(box);
    _addRow(label, box);
    return box;
}

/// Adds a box of two states, which shows an undecided state as unticked.
QCheckBox* PropertyForm::addCheckBox(const QString& label, Qt::CheckState state, const char* changed)
{
    auto* box = new QCheckBox(_form);
    box->setChecked(state == Qt::Checked);
    _addRow(label, box);
    QObject::connect(box, SIGNAL(stateChanged(int)), _form, changed);
    return box;
}

QCheckBox* PropertyForm::addThreeStateBox(const QString& label, Qt::CheckState state, const char* changed)
{
    auto* box = new QCheckBox(_form);
    box->setTristate();
    box->setCheckState(state);
    _addRow(label, box);
    QObject::connect(box, SIGNAL(stateChanged(int)), _form, changed);
    return box;
}

QLineEdit* PropertyForm::addLineEdit(const QString& label, const QString& text)
{
    auto* field = new QLineEdit(_form);
    // The constructor would lay out a text of any length; setText() cuts it first.
    field->setText(text);
    fillWidth(field);
    _addRow(label, field);
    return field;
}

QLineEdit* PropertyForm::addReadOnlyField(const QString& label, const QString& text)
{
    QLineEdit* field = newReadOnlyField(text, _form);
    _addRow(label, field);
    return field;
}

QLineEdit* PropertyForm::newReadOnlyField(const QString& text, QWidget* parent)
{
    auto* field = new QLineEdit(text, parent);
    fillWidth(field);
    field->setAlignment(Qt::AlignRight);
    field->setEnabled(false);
    keepReadable(field);
    return field;
}

/// Adds a colour picker. "Default" comes first: of equal colours, the picker names the first.
QtColorPicker* PropertyForm::addColorPicker(const QString& label, const Colors& colors, const char* changed)
{
    auto* picker = new QtColorPicker(_form, -1, true);
    picker->insertColor(colors.inherited, QObject::tr("Default"));
    if (colors.hasStandardColors)
        picker->setStandardColors();
    picker->setCurrentColor(colors.shown);
    _addRow(label, picker);
    QObject::connect(picker, SIGNAL(colorChanged(QColor)), _form, changed);
    return picker;
}

QPushButton* PropertyForm::addButton(const QString& text, const char* clicked, const QString& label)
{
    auto* button = new QPushButton(text, _form);
    fillWidth(button);
    _addRow(label, button);
    QObject::connect(button, SIGNAL(clicked()), _form, clicked);
    return button;
}

QTextEdit* PropertyForm::addComments(const QString& text, const char* changed, int stretch)
{
    auto* group = new QGroupBox(QObject::tr("Comments"), _form);
    auto* comment = new QTextEdit(group);
    comment->setAcceptRichText(false);
    comment->setTabChangesFocus(true);  // the keyboard must be able to leave the field
    comment->setPlainText(text);
    (new QVBoxLayout(group))->addWidget(comment);
    _layout->addWidget(group, stretch);
    QObject::connect(comment, SIGNAL(textChanged()), _form, changed);
    return comment;
}

void PropertyForm::embed(QWidget* otherForm)
{
    if (!otherForm)
        return;
    otherForm->setParent(_form);
    if (otherForm->layout())
        otherForm->layout()->setContentsMargins(0, 0, 0, 0);
    _layout->addWidget(otherForm, embeddedStretch);
}

void PropertyForm::addEnd()
{
    _layout->addStretch(endStretch);
}

void PropertyForm::_addRow(const QString& label, QWidget* field)
{
    if (label.isEmpty())
        _rows->addRow(field);
    else
        _rows->addRow(label, field);
}
