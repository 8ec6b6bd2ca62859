#pragma once

#include "qtcolorpicker.h"

#include <QGridLayout>
#include <QLineEdit>
#include <QVBoxLayout>
#include <QtTest>

#include <memory>

inline const QColor orange(255, 128, 0);
constexpr int standardColorCount = 17;

/// A window with a colour picker of the standard colours.
class ColorPickerFixture
{
protected:
    void showPicker()
    {
        _window = std::make_unique<QWidget>();
        _neighbour = new QLineEdit;
        new QVBoxLayout(_window.get());
        _window->layout()->addWidget(_neighbour);
        setPicker(new QtColorPicker(nullptr, -1, true));
        _picker->setStandardColors();

        _window->move(100, 100);
        _window->show();
        QVERIFY(QTest::qWaitForWindowActive(_window.get()));
    }

    void deletePickerAndWindow()
    {
        _picker.reset();
        _window.reset();
    }

    ColorPickerPopup* popup() const { return _picker->popup; }
    const QList<ColorPickerItem*>& cells() const { return popup()->items; }
    ColorPickerItem* cell(int index) const { return cells().at(index); }
    ColorPickerButton* moreButton() const { return moreButtonOf(popup()); }
    static ColorPickerButton* moreButtonOf(const ColorPickerPopup* popup) { return popup->moreButton; }

    const QGridLayout* grid() const { return popup()->grid; }

    // Places in the grid, counted row by row
    QWidget* widgetAt(int position) const { return popup()->_widgetAtPosition(position); }
    int focusPosition() const { return popup()->_focusPosition(); }

    QList<QString> names() const
    {
        QList<QString> result;
        for (const ColorPickerItem* item : cells())
            result.append(item->text());
        return result;
    }

    int selectedCount() const
    {
        int count = 0;
        for (const ColorPickerItem* item : cells())
            count += item->isSelected();
        return count;
    }

    void open()
    {
        QTest::mouseClick(_picker.get(), Qt::LeftButton);
        QTRY_VERIFY(popup()->isVisible());
    }

    /// Adds a row for each key that presses what has the focus.
    static void pressingKeys()
    {
        QTest::addColumn<Qt::Key>("key");
        QTest::newRow("Enter") << Qt::Key_Enter;
        QTest::newRow("Return") << Qt::Key_Return;
        QTest::newRow("Space") << Qt::Key_Space;
    }

    void setPicker(QtColorPicker* picker)
    {
        _picker.reset(picker);
        static_cast<QVBoxLayout*>(_window->layout())->insertWidget(0, picker);
    }

    std::unique_ptr<QWidget> _window;
    QLineEdit* _neighbour = nullptr;         // child of the window, below the picker
    std::unique_ptr<QtColorPicker> _picker;  // in the window's layout, yet ours to delete; before the window
};
