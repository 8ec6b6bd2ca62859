#pragma once

#include <QColor>
#include <QFrame>
#include <QList>
#include <QMap>
#include <QPushButton>
#include <QString>

class ColorPickerButton;
class ColorPickerItem;
class ColorPickerPopup;
class QEventLoop;
class QGridLayout;

/// A push button that shows one colour. The user chooses another from a popup grid of named colours.
class QtColorPicker : public QPushButton
{
    Q_OBJECT

public:
    // columns: of the popup's grid; -1: as many as make it square
    explicit QtColorPicker(QWidget* parent = nullptr, int columns = -1, bool enableColorDialog = true);

    // The colours on offer; index -1 appends, and an invalid colour is not inserted
    void insertColor(const QColor& color, const QString& name, int index = -1);
    void setStandardColors();
    QColor color(int index) const;  // invalid outside the grid

    QColor currentColor() const { return col; }
    void setColorDialogEnabled(bool enabled);
    bool colorDialogEnabled() const { return withColorDialog; }

    // Widget
    QSize sizeHint() const override;

public slots:
    void setCurrentColor(const QColor& color);

signals:
    void colorChanged(const QColor& color);

protected:
    void paintEvent(QPaintEvent* event) override;
    void changeEvent(QEvent* event) override;
    void hideEvent(QHideEvent* event) override;

private slots:
    void buttonPressed(bool toggled);
    void popupClosed();

private:
    void _setShownColor(const QColor& color, const QString& name);
    void _placePopup();
    void _refreshSwatch();

    ColorPickerPopup* popup;  // child window
    QColor col = Qt::black;
    bool withColorDialog;
    bool dirty = true;           // the swatch on the button is out of date; the next painting draws it anew
    bool firstInserted = false;  // false: the colour only stands in for the first one

    friend class ColorPickerFixture;
};

/// The grid of colours that drops down from the button. A click or a key chooses one and closes it.
class ColorPickerPopup : public QFrame
{
    Q_OBJECT

public:
    ColorPickerPopup(int columns, bool withColorDialog, QWidget* parent);
    ~ColorPickerPopup() override;

    // The colours on offer
    ColorPickerItem* insertColor(const QColor& color, const QString& name, int index = -1);
    ColorPickerItem* find(const QColor& color) const;  // null: not on offer
    QColor color(int index) const;                     // invalid outside the grid
    void setColorDialogEnabled(bool enabled);

    void markSelected(ColorPickerItem* selectedItem);  // chooses nothing and emits nothing
    void exec();  // shows the popup and returns when it is hidden or deleted

signals:
    void selected(const QColor& color);
    void hid();

protected:
    void showEvent(QShowEvent* event) override;
    void hideEvent(QHideEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;

private slots:
    void _chooseSender();
    void _chooseFromDialog();

private:
    void _choose(ColorPickerItem* item);
    void _layOutGrid();
    void _appendToGrid(QWidget* widget);
    int _columnCount() const;
    QWidget* _widgetAtPosition(int position) const;
    int _focusPosition() const;
    int _positionAfterKey(int key, int position) const;

    QMap<int, QMap<int, QWidget*>> widgetAt;  // column, row; the colours and the "more" button
    QList<ColorPickerItem*> items;            // children, in the order of the grid
    QGridLayout* grid;
    ColorPickerButton* moreButton = nullptr;  // child; null: no colour dialog
    QEventLoop* eventLoop = nullptr;          // on the stack of exec(); null: nobody waits
    int lastPos = 0;  // widgets in the grid; the next one goes to this position, counted row by row
    int cols;         // -1: as many as make the grid square
    QColor lastSel;   // of the marked cell, where the colour dialog starts; invalid: none was marked yet

    friend class ColorPickerFixture;
};

/// One cell of the popup: a swatch, marked while it is selected and while it has the focus.
class ColorPickerItem : public QFrame
{
    Q_OBJECT

public:
    ColorPickerItem(const QColor& color, const QString& name, QWidget* parent);

    QColor color() const { return c; }
    QString text() const { return t; }
    bool isSelected() const { return sel; }
    void setSelected(bool selected);

signals:
    void chosen();

protected:
    void paintEvent(QPaintEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;

private:
    QColor c;
    QString t;
    bool sel = false;
};

/// The last cell of the popup, three dots. It leads to the colour dialog.
class ColorPickerButton : public QFrame
{
    Q_OBJECT

public:
    explicit ColorPickerButton(QWidget* parent);

signals:
    void clicked();

protected:
    void paintEvent(QPaintEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
};
