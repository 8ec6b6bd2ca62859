#pragma once

#include "QtColorPicker/qtcolorpicker.h"

#include <QAbstractSpinBox>
#include <QCheckBox>
#include <QDoubleSpinBox>
#include <QGroupBox>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSpinBox>
#include <QTextEdit>
#include <QtTest>

#include <algorithm>
#include <functional>
#include <memory>

/// Property forms as a user meets them: tests find fields by the label above them, and use mouse and keys.
namespace FormHelpers {

using Form = std::unique_ptr<QWidget>;

inline bool show(QWidget* window)
{
    window->show();
    window->activateWindow();
    return QTest::qWaitForWindowActive(window);
}

inline Form open(QWidget* form)
{
    if (!show(form))
        qFatal("the form does not get the keyboard");
    return Form(form);
}

/// Returns the visible field below that label; null when there is none, or one of another kind.
template <typename Field> Field* field(const QWidget* form, const QString& label)
{
    const QList<QLabel*> labels = form->findChildren<QLabel*>();
    for (const QLabel* candidate : labels) {
        if (candidate->text() == label && candidate->isVisible())
            return qobject_cast<Field*>(candidate->buddy());
    }
    return nullptr;
}

/// Returns the visible widget of that kind and text; null when there is none.
template <typename Widget>
Widget* withText(const QWidget* form, QString (Widget::*textOf)() const, const QString& text)
{
    const QList<Widget*> candidates = form->findChildren<Widget*>();
    for (Widget* candidate : candidates) {
        if ((candidate->*textOf)() == text && candidate->isVisible())
            return candidate;
    }
    return nullptr;
}

inline QPushButton* button(const QWidget* form, const QString& text)
{
    return withText<QPushButton>(form, &QPushButton::text, text);
}

inline QGroupBox* group(const QWidget* form, const QString& title)
{
    return withText<QGroupBox>(form, &QGroupBox::title, title);
}

inline QString textOf(const QWidget* widget)
{
    if (const auto* label = qobject_cast<const QLabel*>(widget))
        return label->text();
    if (const auto* frame = qobject_cast<const QGroupBox*>(widget))
        return QLatin1Char('[') + frame->title() + QLatin1Char(']');
    const auto* pressed = qobject_cast<const QPushButton*>(widget);
    const bool isPicker = qobject_cast<const QtColorPicker*>(widget);
    return pressed && !isPicker ? QLatin1Char('(') + pressed->text() + QLatin1Char(')') : QString();
}

/// Lists what stands in the form from top to bottom: labels, titles of groups in [], buttons in ().
inline QStringList visibleTexts(const QWidget* form)
{
    QList<QPair<int, QString>> texts;
    const QList<QWidget*> widgets = form->findChildren<QWidget*>();
    for (const QWidget* widget : widgets) {
        const QString text = textOf(widget);
        if (!text.isEmpty() && widget->isVisible())
            texts.append({widget->mapTo(form, QPoint(0, 0)).y(), text});
    }
    std::stable_sort(texts.begin(), texts.end(),
                     [](const auto& one, const auto& other) { return one.first < other.first; });
    QStringList result;
    for (const auto& text : qAsConst(texts))
        result.append(text.second);
    return result;
}

/// Clicks into the field and types over what it holds, without leaving it.
inline void type(QWidget* field, const QString& text)
{
    QTest::mouseClick(field, Qt::LeftButton, Qt::NoModifier, QPoint(5, field->height() / 2));
    QTest::keyClick(field, Qt::Key_A, Qt::ControlModifier);
    QTest::keyClick(field, Qt::Key_Delete);
    QTest::keyClicks(field, text);
}

inline void leave(QWidget* field)
{
    QTest::keyClick(field, Qt::Key_Tab);
}

inline void enter(QWidget* field, const QString& text)
{
    type(field, text);
    leave(field);
}

inline void enterAndLeave(QWidget* field)
{
    QTest::mouseClick(field, Qt::LeftButton, Qt::NoModifier, QPoint(5, field->height() / 2));
    leave(field);
}

inline void click(QCheckBox* box)
{
    QTest::mouseClick(box, Qt::LeftButton, Qt::NoModifier, QPoint(8, box->height() / 2));
}

inline void click(QPushButton* button)
{
    QTest::mouseClick(button, Qt::LeftButton);
}

/// Opens the picker's popup and presses \a keys there: arrows from the current colour, Enter to choose.
inline void choose(QtColorPicker* picker, const QList<Qt::Key>& keys)
{
    QTest::mouseClick(picker, Qt::LeftButton);
    for (const Qt::Key key : keys) {
        QWidget* popup = QApplication::activePopupWidget();
        if (!popup)
            return;
        QTest::keyClick(popup->focusWidget() ? popup->focusWidget() : popup, key);
    }
}

/// Returns whether the Tab key leads through the form from top to bottom.
inline bool isTabOrderFromTopToBottom(QWidget* form)
{
    int lastY = -1;
    for (QWidget* next = form->nextInFocusChain(); next != form; next = next->nextInFocusChain()) {
        const bool isStop = next->isEnabled() && next->isVisible() && next->focusPolicy() & Qt::TabFocus;
        if (!isStop || !form->isAncestorOf(next))
            continue;
        const int y = next->mapTo(form, QPoint(0, 0)).y();
        if (y < lastY)
            return false;
        lastY = y;
    }
    return lastY >= 0;
}

/// Puts the keyboard into every field that takes it, one after the other.
inline void visitAllFields(QWidget* form)
{
    const QList<QWidget*> widgets = form->findChildren<QWidget*>();
    for (QWidget* widget : widgets) {
        if (widget->isEnabled() && widget->isVisible() && widget->focusPolicy() & Qt::TabFocus)
            widget->setFocus();
    }
    if (QWidget* last = form->focusWidget())
        last->clearFocus();
}

/// Works every row once, whatever it does: numbers up, boxes and buttons clicked, text typed.
inline void workAllFields(QWidget* form)
{
    const QList<QAbstractSpinBox*> numbers = form->findChildren<QAbstractSpinBox*>();
    for (QAbstractSpinBox* box : numbers) {
        QTest::keyClick(box, Qt::Key_Down);
        QTest::keyClick(box, Qt::Key_Up);
    }
    const QList<QCheckBox*> boxes = form->findChildren<QCheckBox*>();
    for (QCheckBox* box : boxes)
        QTest::keyClick(box, Qt::Key_Space);
    const QList<QTextEdit*> texts = form->findChildren<QTextEdit*>();
    for (QTextEdit* text : texts)
        QTest::keyClicks(text, QStringLiteral("text"));
    const QList<QtColorPicker*> pickers = form->findChildren<QtColorPicker*>();
    for (QtColorPicker* picker : pickers)
        picker->setCurrentColor(Qt::magenta);
}

/// Calls \a answer with the next modal dialog, from within the dialog's own event loop.
inline void whenDialogOpens(const std::function<void(QWidget*)>& answer)
{
    QMetaObject::invokeMethod(
        qApp, [answer] { answer(QApplication::activeModalWidget()); }, Qt::QueuedConnection);
}

/// Lists the "Range" of a number: its limits, its step, its decimals and how it is aligned.
inline QVector<double> numberLimits(const QAbstractSpinBox* box)
{
    if (const auto* number = qobject_cast<const QSpinBox*>(box))
        return {double(number->minimum()), double(number->maximum()), double(number->singleStep()), 0};
    const auto* number = qobject_cast<const QDoubleSpinBox*>(box);
    return {number->minimum(), number->maximum(), number->singleStep(), double(number->decimals())};
}

}  // namespace FormHelpers
