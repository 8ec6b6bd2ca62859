#include "ui/capturetableview.h"

#include "capture/capture.h"
#include "ui/captureheaders.h"

#include <QCheckBox>
#include <QHBoxLayout>
#include <QItemSelectionModel>
#include <QLabel>
#include <QPushButton>
#include <QScrollBar>
#include <QShowEvent>
#include <QStyledItemDelegate>
#include <QTableView>
#include <QVBoxLayout>

#include <algorithm>

namespace {

constexpr int fontSize = 10;  // pixels
constexpr int iconSize = 12;
constexpr int rowMargin = 2;  // above and below
constexpr int barStretch = 10;
constexpr int measuredRows = 0;  // a width fits the rows in view, not all of perhaps a million

int rowHeight(const QWidget* table)
{
    return std::max(table->fontMetrics().height(), iconSize) + 2 * rowMargin;
}

/// Lays out only what fits into its cell of a frame's data: a frame may have millions of bytes.
class FrameDataDelegate : public QStyledItemDelegate
{
public:
    using QStyledItemDelegate::QStyledItemDelegate;

protected:
    void initStyleOption(QStyleOptionViewItem* option, const QModelIndex& index) const override
    {
        QStyledItemDelegate::initStyleOption(option, index);
        const int narrowestDigit = std::max(1, option->fontMetrics.horizontalAdvance(QLatin1Char('1')));
        option->text.truncate(option->rect.width() / narrowestDigit + 1);
    }
};

/// Deletes the selections that table and headers had of an earlier model. Qt keeps them until that model
/// goes, and the one that stands for "no model" never goes.
void deleteUnusedSelections(const QTableView& table)
{
    const QList<QItemSelectionModel*> selections = table.findChildren<QItemSelectionModel*>();
    for (QItemSelectionModel* selection : selections) {
        if (selection != table.selectionModel())
            delete selection;
    }
}

/// Returns the width into which the counter will grow, so that it does not push the window wider.
int roomForCount(const QWidget* bar)
{
    return bar->fontMetrics().horizontalAdvance(QStringLiteral("0000000"));
}

/// Gives the label a fixed size, so that a new text does not lay out the whole window again.
void fitToText(QLabel* label)
{
    label->setFixedSize(label->fontMetrics().size(Qt::TextSingleLine, label->text()));
}

/// Sets a text at once that only the next update() paints.
void setTextUnpainted(QLabel* label, const QString& text)
{
    label->setAttribute(Qt::WA_UpdatesDisabled);
    label->setText(text);
    label->setAttribute(Qt::WA_UpdatesDisabled, false);
}

}  // namespace

CaptureTableView::CaptureTableView(QWidget* parent)
    : QWidget(parent)
    , _captureTableView(new QTableView(this))
    , _captureEnabled(new QCheckBox(this))
    , _viewFollows(new QCheckBox(this))
    , _hideAddr(new QCheckBox(this))
    , _frameCountLabel(new QLabel(QStringLiteral("0"), this))
{
    _setUpTable();
    _frameCountLabel->setTextFormat(Qt::PlainText);
    fitToText(_frameCountLabel);
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(_captureTableView);
    _addBar(layout);

    connect(_captureEnabled, SIGNAL(stateChanged(int)), this, SLOT(enabledChanged(int)));
    connect(_viewFollows, SIGNAL(stateChanged(int)), this, SLOT(viewFollowsChanged(int)));
    connect(_hideAddr, SIGNAL(stateChanged(int)), this, SLOT(hideAddrChanged(int)));
}

void CaptureTableView::_setUpTable()
{
    QFont smallFont = font();
    smallFont.setPixelSize(fontSize);
    _captureTableView->setFont(smallFont);
    _captureTableView->setShowGrid(false);
    _captureTableView->setAlternatingRowColors(true);
    _captureTableView->setSelectionBehavior(QAbstractItemView::SelectRows);
    _captureTableView->setSelectionMode(QAbstractItemView::SingleSelection);
    _captureTableView->setTabKeyNavigation(true);
    _captureTableView->setIconSize(QSize(iconSize, iconSize));
    _captureTableView->setVerticalScrollMode(QAbstractItemView::ScrollPerPixel);

    _captureTableView->setItemDelegateForColumn(Capture::DataColumn,
                                                new FrameDataDelegate(_captureTableView));

    auto* columns = new CaptureColumnHeader(_captureTableView);
    columns->setResizeContentsPrecision(measuredRows);
    columns->setStretchLastSection(true);
    _captureTableView->setHorizontalHeader(columns);

    auto* rows = new CaptureRowHeader(rowHeight(_captureTableView), _captureTableView);
    _captureTableView->setVerticalHeader(rows);
    connect(rows, SIGNAL(rowsShown()), this, SLOT(_rowsShown()));
}

void CaptureTableView::_addBar(QBoxLayout* layout)
{
    auto* clear = new QPushButton(tr("Clear"), this);
    connect(clear, SIGNAL(clicked()), this, SLOT(clearCapture()));

    auto* bar = new QHBoxLayout;
    bar->addWidget(_frameCountLabel);
    bar->addWidget(new QLabel(tr("Frames captured."), this));
    bar->addItem(new QSpacerItem(roomForCount(this), 0, QSizePolicy::Expanding));
    bar->setStretch(bar->count() - 1, barStretch);
    bar->addWidget(new QLabel(tr("Cature enabled:"), this));  // spelt so on purpose
    bar->addWidget(_captureEnabled);
    bar->addWidget(new QLabel(tr("View follows frames:"), this));
    bar->addWidget(_viewFollows);
    bar->addWidget(new QLabel(tr("Hide addresses:"), this));
    bar->addWidget(_hideAddr);
    bar->addWidget(clear);
    layout->addLayout(bar);
}

void CaptureTableView::setCaptureModel(Capture* model)
{
    if (Capture* previous = _model())
        disconnect(previous, nullptr, this, nullptr);
    _captureTableView->setModel(model);
    deleteUnusedSelections(*_captureTableView);
    _captureTableView->resizeColumnsToContents();
    if (!model)
        return;

    connect(model,
            SIGNAL(rowsInserted(QModelIndex,int,int)), this, SLOT(rowsInsertedHandler(QModelIndex,int,int)));
    _captureEnabled->setChecked(model->isEnabled());
    hideAddrChanged(_hideAddr->checkState());  // a new model shows all columns
    _makeRoomForData();
    _fillWithLastColumn();
    _viewFollows->setChecked(model->doesViewFollows());
    _showCount(model->rowCount());
}

QSize CaptureTableView::sizeHint() const
{
    const int columns = _model() ? _columns()->wantedLength() : 0;
    return QWidget::sizeHint().expandedTo(QSize(columns + _widthBesideColumns(), 0));
}

/// Returns the width beside the columns, with the vertical scroll bar, which comes with the rows.
int CaptureTableView::_widthBesideColumns() const
{
    const QMargins margins = layout()->contentsMargins();
    return margins.left() + margins.right() + 2 * _captureTableView->frameWidth()
        + _captureTableView->verticalScrollBar()->sizeHint().width();
}

/// Fits the columns at the first show, when the view knows its width. Later the columns are the user's.
void CaptureTableView::showEvent(QShowEvent* event)
{
    QWidget::showEvent(event);
    if (!_hasBeenShown)
        _makeRoomForData();
    _hasBeenShown = true;
    _fillWithLastColumn();
}

/// Makes room for a frame's data in a window that is too narrow for all columns.
void CaptureTableView::_makeRoomForData()
{
    if (_model() && isVisible())
        _columns()->makeRoomForLastSection(width() - _widthBesideColumns());
}

void CaptureTableView::enabledChanged(int state)
{
    if (Capture* model = _model())
        model->setEnabled(state == Qt::Checked);
}

void CaptureTableView::viewFollowsChanged(int state)
{
    if (Capture* model = _model())
        model->setViewFollows(state == Qt::Checked);
}

void CaptureTableView::hideAddrChanged(int state)
{
    _captureTableView->setColumnHidden(Capture::DestinationColumn, state == Qt::Checked);
    _captureTableView->setColumnHidden(Capture::SourceColumn, state == Qt::Checked);
}

void CaptureTableView::clearCapture()
{
    Capture* model = _model();
    if (!model)
        return;
    model->clear();
    _fillWithLastColumn();
    _showCount(0);
}

void CaptureTableView::rowsInsertedHandler(const QModelIndex& /*parent*/, int /*first*/, int /*last*/)
{
    const Capture* model = _model();
    if (!model || !_viewFollows->isChecked())
        return;  // the counter lags behind, on purpose
    setTextUnpainted(_frameCountLabel, QString::number(model->rowCount()));
    _captureTableView->scrollToBottom();
}

/// Paints the counter together with the table, which knows of the new rows only now, so that it paints
/// seldom.
void CaptureTableView::_rowsShown()
{
    fitToText(_frameCountLabel);
    _frameCountLabel->update();
    if (_viewFollows->isChecked())
        _captureTableView->scrollToBottom();
}

Capture* CaptureTableView::_model() const
{
    return qobject_cast<Capture*>(_captureTableView->model());
}

CaptureColumnHeader* CaptureTableView::_columns() const
{
    return static_cast<CaptureColumnHeader*>(_captureTableView->horizontalHeader());
}

/// Stretches the last column anew: switching on what is already on would do nothing.
void CaptureTableView::_fillWithLastColumn()
{
    _columns()->setStretchLastSection(false);
    _columns()->setStretchLastSection(true);
}

void CaptureTableView::_showCount(int frames)
{
    _frameCountLabel->setText(QString::number(frames));
    fitToText(_frameCountLabel);
}
