#include "qtcolorpicker.h"

#include <QColorDialog>
#include <QEvent>
#include <QEventLoop>
#include <QGridLayout>
#include <QGuiApplication>
#include <QIcon>
#include <QKeyEvent>
#include <QMouseEvent>
#include <QPainter>
#include <QPixmap>
#include <QPointer>
#include <QScreen>
#include <QStyle>
#include <QStyleOptionButton>
#include <QStylePainter>

#include <cmath>

namespace {

constexpr QSize cellSize(24, 21);
constexpr QRect moreButtonFrame(2, 2, 20, 17);  // within the cell
constexpr int swatchInset = 4;                  // leaves room for the ring of the selected cell
constexpr int ringInset = 1;
constexpr QSize buttonSwatchSize(24, 14);
constexpr int arrowDistance = 4;  // from the name on the button
constexpr int dotSize = 2;
constexpr int dotDistance = 4;
constexpr int checkSize = 4;  // of the pattern that shows through a translucent colour
constexpr int outlineAlpha = 128;

/// Tells whether two colours look the same, in whatever model (RGB, HSV...) each is written.
bool isSameColor(const QColor& left, const QColor& right)
{
    return left.isValid() == right.isValid() && left.rgba() == right.rgba();
}

QPoint keptInside(const QRect& area, const QPoint& wanted, const QSize& size)
{
    const int x = qMin(wanted.x(), area.right() + 1 - size.width());
    const int y = qMin(wanted.y(), area.bottom() + 1 - size.height());
    return {qMax(x, area.left()), qMax(y, area.top())};
}

QScreen* screenOf(const QWidget* widget)
{
    QScreen* screen = QGuiApplication::screenAt(widget->mapToGlobal(widget->rect().center()));
    return screen ? screen : widget->screen();
}

bool isChoosingKey(const QKeyEvent* event)
{
    const bool isKey
        = event->key() == Qt::Key_Space || event->key() == Qt::Key_Return || event->key() == Qt::Key_Enter;
    return isKey && !event->isAutoRepeat();  // a key held down must not run on into the colour dialog
}

bool isClick(const QMouseEvent* event, const QWidget* widget)
{
    return event->button() == Qt::LeftButton && widget->rect().contains(event->pos());
}

void drawChecks(QPainter& painter, const QRect& rect)
{
    painter.fillRect(rect, Qt::white);
    for (int y = 0; y < rect.height(); y += checkSize) {
        for (int x = (y / checkSize % 2) * checkSize; x < rect.width(); x += 2 * checkSize)
            painter.fillRect(QRect(rect.left() + x, rect.top() + y, checkSize, checkSize) & rect, Qt::gray);
    }
}

/// Draws the outline in the colour of the text, half transparent, so that it stands out on any ground.
void drawSwatch(QPainter& painter, const QRect& rect, const QColor& fill, QColor outline)
{
    if (fill.alpha() < 255)
        drawChecks(painter, rect);
    painter.fillRect(rect, fill);
    outline.setAlpha(outlineAlpha);
    painter.setPen(outline);
    painter.drawRect(rect.adjusted(0, 0, -1, -1));
}

void drawFocusGround(QPainter& painter, const QWidget* widget)
{
    if (widget->hasFocus())
        painter.fillRect(widget->rect(), widget->palette().color(QPalette::Highlight));
}

/// Does what QColorDialog::getRgba() does, but the parent may die while the dialog is open, and the dialog
/// with it. Returns an invalid colour when the user cancels or the dialog has gone.
QColor askForColor(const QColor& initial, QWidget* parent)
{
    const QPointer<QColorDialog> dialog(new QColorDialog(QColor::fromRgba(initial.rgba()), parent));
    dialog->setOption(QColorDialog::ShowAlphaChannel);
    const bool isAccepted = dialog->exec() == QDialog::Accepted;
    if (!dialog)
        return {};

    const QColor chosen = QColor::fromRgba(dialog->selectedColor().rgba());
    delete dialog;
    return isAccepted ? chosen : QColor();
}

}  // namespace

QtColorPicker::QtColorPicker(QWidget* parent, int columns, bool enableColorDialog)
    : QPushButton(parent)
    , popup(new ColorPickerPopup(columns, enableColorDialog, this))
    , withColorDialog(enableColorDialog)
{
    setFocusPolicy(Qt::StrongFocus);
    setSizePolicy(QSizePolicy::Minimum, QSizePolicy::Fixed);
    setAutoDefault(false);
    setAutoFillBackground(true);
    setCheckable(true);
    setText(tr("Black"));
    setIconSize(buttonSwatchSize);
    _refreshSwatch();

    connect(popup, SIGNAL(selected(QColor)), this, SLOT(setCurrentColor(QColor)));
    connect(popup, SIGNAL(hid()), this, SLOT(popupClosed()));
    connect(this, SIGNAL(toggled(bool)), this, SLOT(buttonPressed(bool)));
}

void QtColorPicker::insertColor(const QColor& color, const QString& name, int index)
{
    if (!popup->insertColor(color, name, index) || firstInserted)
        return;
    firstInserted = true;
    _setShownColor(color, name);
}

void QtColorPicker::setStandardColors()
{
    insertColor(Qt::black, tr("Black"));
    insertColor(Qt::white, tr("White"));
    insertColor(Qt::red, tr("Red"));
    insertColor(Qt::darkRed, tr("Dark red"));
    insertColor(Qt::green, tr("Green"));
    insertColor(Qt::darkGreen, tr("Dark green"));
    insertColor(Qt::blue, tr("Blue"));
    insertColor(Qt::darkBlue, tr("Dark blue"));
    insertColor(Qt::cyan, tr("Cyan"));
    insertColor(Qt::darkCyan, tr("Dark cyan"));
    insertColor(Qt::magenta, tr("Magenta"));
    insertColor(Qt::darkMagenta, tr("Dark magenta"));
    insertColor(Qt::yellow, tr("Yellow"));
    insertColor(Qt::darkYellow, tr("Dark yellow"));
    insertColor(Qt::gray, tr("Gray"));
    insertColor(Qt::darkGray, tr("Dark gray"));
    insertColor(Qt::lightGray, tr("Light gray"));
}

QColor QtColorPicker::color(int index) const
{
    return popup->color(index);
}

void QtColorPicker::setColorDialogEnabled(bool enabled)
{
    withColorDialog = enabled;
    popup->setColorDialogEnabled(enabled);
}

void QtColorPicker::setCurrentColor(const QColor& color)
{
    if (!color.isValid() || isSameColor(color, col))
        return;

    if (!popup->find(color))
        insertColor(color, tr("Custom"));
    firstInserted = true;  // the colour dialog inserts by itself
    _setShownColor(color, popup->find(color)->text());
    popup->hide();
    popup->markSelected(popup->find(color));
    emit colorChanged(color);
}

QSize QtColorPicker::sizeHint() const
{
    const int arrowWidth = style()->pixelMetric(QStyle::PM_MenuButtonIndicator, nullptr, this);
    return QPushButton::sizeHint() + QSize(arrowWidth + arrowDistance, 0);
}

/// Paints the button of the style, with the arrow of buttons that drop something down.
void QtColorPicker::paintEvent(QPaintEvent*)
{
    _refreshSwatch();
    QStyleOptionButton option;
    initStyleOption(&option);
    option.features |= QStyleOptionButton::HasMenu;
    QStylePainter(this).drawControl(QStyle::CE_PushButton, option);
}

void QtColorPicker::changeEvent(QEvent* event)
{
    if (event->type() == QEvent::PaletteChange || event->type() == QEvent::StyleChange)
        dirty = true;
    QPushButton::changeEvent(event);
}

void QtColorPicker::hideEvent(QHideEvent* event)
{
    popup->hide();
    QPushButton::hideEvent(event);
}

void QtColorPicker::buttonPressed(bool toggled)
{
    if (!toggled) {
        popup->hide();
        return;
    }
    _placePopup();
    if (ColorPickerItem* item = popup->find(col))
        popup->markSelected(item);
    popup->setFocus();
    popup->show();
}

void QtColorPicker::popupClosed()
{
    setChecked(false);
    setFocus();
}

void QtColorPicker::_setShownColor(const QColor& color, const QString& name)
{
    col = color;
    setText(name);
    dirty = true;
    update();
}

void QtColorPicker::_placePopup()
{
    popup->adjustSize();
    const QPoint below = mapToGlobal(QPoint(0, height()));
    const QPoint corner = keptInside(screenOf(this)->geometry(), below, popup->size());
    popup->setGeometry(QRect(corner, popup->size()));
}

void QtColorPicker::_refreshSwatch()
{
    if (!dirty)
        return;
    dirty = false;

    QPixmap swatch(buttonSwatchSize * devicePixelRatioF());
    swatch.setDevicePixelRatio(devicePixelRatioF());
    swatch.fill(Qt::transparent);
    QPainter painter(&swatch);
    drawSwatch(painter, QRect(QPoint(0, 0), buttonSwatchSize), col, palette().color(QPalette::ButtonText));
    painter.end();
    setIcon(QIcon(swatch));
}

ColorPickerPopup::ColorPickerPopup(int columns, bool withColorDialog, QWidget* parent)
    : QFrame(parent, Qt::Popup)
    , grid(new QGridLayout(this))
    , cols(columns)
{
    setFrameStyle(QFrame::StyledPanel);
    setBackgroundRole(QPalette::Base);  // sets the popup off from the form below it
    setAutoFillBackground(true);        // or Qt ignores the role
    setSizePolicy(QSizePolicy::Minimum, QSizePolicy::Minimum);
    setFocusPolicy(Qt::StrongFocus);
    setMouseTracking(true);
    grid->setContentsMargins(1, 1, 1, 1);
    grid->setSpacing(0);
    grid->setSizeConstraint(QLayout::SetFixedSize);  // the popup follows its grid, also while it is open
    setColorDialogEnabled(withColorDialog);
}

ColorPickerPopup::~ColorPickerPopup()
{
    if (eventLoop)
        eventLoop->exit();
}

/// Inserts a colour. Returns null for an invalid one. An equal colour gets a cell too, since its name may
/// matter.
ColorPickerItem* ColorPickerPopup::insertColor(const QColor& color, const QString& name, int index)
{
    if (!color.isValid())
        return nullptr;

    auto* item = new ColorPickerItem(color, name, this);
    connect(item, SIGNAL(chosen()), this, SLOT(_chooseSender()));
    const bool isInside = index >= 0 && index < items.size();
    items.insert(isInside ? index : items.size(), item);
    _layOutGrid();
    return item;
}

/// Returns the marked one of several cells of the colour, else the first.
ColorPickerItem* ColorPickerPopup::find(const QColor& color) const
{
    ColorPickerItem* found = nullptr;
    for (ColorPickerItem* item : items) {
        if (!isSameColor(item->color(), color))
            continue;
        if (item->isSelected())
            return item;
        if (!found)
            found = item;
    }
    return found;
}

QColor ColorPickerPopup::color(int index) const
{
    const ColorPickerItem* item = items.value(index);
    return item ? item->color() : QColor();
}

void ColorPickerPopup::setColorDialogEnabled(bool enabled)
{
    if (enabled == (moreButton != nullptr))
        return;

    if (enabled) {
        moreButton = new ColorPickerButton(this);
        connect(moreButton, SIGNAL(clicked()), this, SLOT(_chooseFromDialog()));
    } else {
        moreButton->hide();
        moreButton->deleteLater();  // its own click may have led here
        moreButton = nullptr;
    }
    _layOutGrid();
}

void ColorPickerPopup::markSelected(ColorPickerItem* selectedItem)
{
    for (ColorPickerItem* item : qAsConst(items))
        item->setSelected(item == selectedItem);
    lastSel = selectedItem->color();
}

void ColorPickerPopup::exec()
{
    if (eventLoop)
        return;

    const QPointer<ColorPickerPopup> self(this);
    QEventLoop loop;
    eventLoop = &loop;
    show();
    loop.exec();
    if (self)
        eventLoop = nullptr;
}

void ColorPickerPopup::showEvent(QShowEvent* event)
{
    QFrame::showEvent(event);
    QWidget* target = items.isEmpty() ? static_cast<QWidget*>(this) : items.first();
    for (ColorPickerItem* item : qAsConst(items)) {
        if (item->isSelected())
            target = item;
    }
    target->setFocus(Qt::PopupFocusReason);
}

void ColorPickerPopup::hideEvent(QHideEvent* event)
{
    QFrame::hideEvent(event);
    if (eventLoop)
        eventLoop->exit();
    emit hid();
}

/// Moves the focus. The cells take the keys that choose, and leave the others to the popup.
void ColorPickerPopup::keyPressEvent(QKeyEvent* event)
{
    const int position = _focusPosition();
    const int target = _positionAfterKey(event->key(), position);
    if (target == position) {
        QFrame::keyPressEvent(event);  // also Escape, which closes a popup
        return;
    }
    if (QWidget* widget = _widgetAtPosition(target))
        widget->setFocus(Qt::OtherFocusReason);
}

/// Lets the focus follow the mouse, so that the keys start from one place. It follows movements only: a popup
/// that opens under a resting mouse begins at its selected cell.
void ColorPickerPopup::mouseMoveEvent(QMouseEvent* event)
{
    QWidget* widget = childAt(event->pos());
    if (widget && !widget->hasFocus())
        widget->setFocus(Qt::MouseFocusReason);
}

void ColorPickerPopup::_chooseSender()
{
    if (auto* item = qobject_cast<ColorPickerItem*>(sender()))
        _choose(item);
}

/// Asks for a colour in the dialog. The owner of the picker may delete it while the dialog is open.
void ColorPickerPopup::_chooseFromDialog()
{
    const QPointer<ColorPickerPopup> self(this);
    hide();
    if (!self)
        return;
    const QColor chosen = askForColor(lastSel, parentWidget());
    if (!self || !chosen.isValid())
        return;

    ColorPickerItem* item = find(chosen);
    _choose(item ? item : insertColor(chosen, tr("Custom")));
}

void ColorPickerPopup::_choose(ColorPickerItem* item)
{
    const QPointer<ColorPickerPopup> self(this);
    const QColor color = item->color();
    markSelected(item);
    emit selected(color);
    if (self)
        hide();
}

void ColorPickerPopup::_layOutGrid()
{
    while (QLayoutItem* place = grid->takeAt(0))
        delete place;  // only the place: the widgets are children of the popup
    widgetAt.clear();
    lastPos = 0;

    for (ColorPickerItem* item : qAsConst(items))
        _appendToGrid(item);
    if (moreButton)
        _appendToGrid(moreButton);
}

void ColorPickerPopup::_appendToGrid(QWidget* widget)
{
    if (QWidget* previous = _widgetAtPosition(lastPos - 1))
        setTabOrder(previous, widget);
    const int column = lastPos % _columnCount();
    const int row = lastPos / _columnCount();
    grid->addWidget(widget, row, column);
    widgetAt[column][row] = widget;
    ++lastPos;
}

int ColorPickerPopup::_columnCount() const
{
    const int square = static_cast<int>(std::ceil(std::sqrt(items.size())));
    return qMax(1, cols > 0 ? cols : square);
}

QWidget* ColorPickerPopup::_widgetAtPosition(int position) const
{
    if (position < 0)
        return nullptr;
    return widgetAt.value(position % _columnCount()).value(position / _columnCount());
}

/// Returns -1 when neither a colour nor the "more" button has the focus.
int ColorPickerPopup::_focusPosition() const
{
    for (int position = 0; position < lastPos; ++position) {
        if (_widgetAtPosition(position)->hasFocus())
            return position;
    }
    return -1;
}

/// Moves to another cell. Left and right run through the rows. Up and down keep the column, or end in a last
/// row that is too short for it.
int ColorPickerPopup::_positionAfterKey(int key, int position) const
{
    const int last = lastPos - 1;
    const int columnCount = _columnCount();
    const int forward = isRightToLeft() ? -1 : 1;
    const bool isInLastRow = position / columnCount == last / columnCount;
    switch (key) {
    case Qt::Key_Left:
        return qBound(0, position - forward, last);
    case Qt::Key_Right:
        return qBound(0, position + forward, last);
    case Qt::Key_Up:
        return position < columnCount ? qMax(0, position) : position - columnCount;
    case Qt::Key_Down:
        return isInLastRow ? qMax(0, position) : qMin(position + columnCount, last);
    case Qt::Key_Home:
        return 0;
    case Qt::Key_End:
        return last;
    default:
        return position;
    }
}

ColorPickerItem::ColorPickerItem(const QColor& color, const QString& name, QWidget* parent)
    : QFrame(parent)
    , c(color)
    , t(name)
{
    setFixedSize(cellSize);
    setFocusPolicy(Qt::StrongFocus);
    setMouseTracking(true);
    setToolTip(name);
    setAccessibleName(name);
}

void ColorPickerItem::setSelected(bool selected)
{
    sel = selected;
    update();
}

void ColorPickerItem::paintEvent(QPaintEvent*)
{
    QPainter painter(this);
    drawFocusGround(painter, this);
    const QColor line = palette().color(hasFocus() ? QPalette::HighlightedText : foregroundRole());
    const QMargins inset(swatchInset, swatchInset, swatchInset, swatchInset);
    drawSwatch(painter, rect().marginsRemoved(inset), c, line);
    if (!sel)
        return;
    painter.setPen(line);
    painter.drawRect(rect().adjusted(ringInset, ringInset, -ringInset - 1, -ringInset - 1));
}

void ColorPickerItem::keyPressEvent(QKeyEvent* event)
{
    if (isChoosingKey(event))
        emit chosen();
    else
        QFrame::keyPressEvent(event);
}

void ColorPickerItem::mousePressEvent(QMouseEvent* event)
{
    event->accept();
}

void ColorPickerItem::mouseReleaseEvent(QMouseEvent* event)
{
    if (isClick(event, this))
        emit chosen();
}

ColorPickerButton::ColorPickerButton(QWidget* parent)
    : QFrame(parent)
{
    setFixedSize(cellSize);
    setFrameStyle(QFrame::Panel | QFrame::Raised);
    setFrameRect(moreButtonFrame);
    setFocusPolicy(Qt::StrongFocus);
    setMouseTracking(true);
}

void ColorPickerButton::paintEvent(QPaintEvent*)
{
    QPainter painter(this);
    drawFocusGround(painter, this);
    painter.fillRect(frameRect(), palette().color(QPalette::Button));
    drawFrame(&painter);

    const QPoint middle = frameRect().center();
    for (int dot = -1; dot <= 1; ++dot) {
        const QPoint corner(middle.x() + dot * dotDistance, middle.y());
        painter.fillRect(QRect(corner, QSize(dotSize, dotSize)), palette().color(QPalette::ButtonText));
    }
}

void ColorPickerButton::keyPressEvent(QKeyEvent* event)
{
    if (isChoosingKey(event))
        emit clicked();
    else
        QFrame::keyPressEvent(event);
}

void ColorPickerButton::mousePressEvent(QMouseEvent* event)
{
    if (event->button() == Qt::LeftButton)
        setFrameShadow(QFrame::Sunken);
}

void ColorPickerButton::mouseReleaseEvent(QMouseEvent* event)
{
    setFrameShadow(QFrame::Raised);
    if (isClick(event, this))
        emit clicked();
}
