#include "ui/captureheaders.h"

#include <QAbstractItemModel>
#include <QElapsedTimer>
#include <QPaintEvent>
#include <QPainter>
#include <QStyleOptionHeader>
#include <QtMath>

#include <algorithm>

namespace {

constexpr int pauseFactor = 20;  // placing new rows takes at most one part in so many of the time

}  // namespace

CaptureColumnHeader::CaptureColumnHeader(QWidget* parent)
    : QHeaderView(Qt::Horizontal, parent)
{
}

void CaptureColumnHeader::paintEvent(QPaintEvent* event)
{
    QPainter painter(viewport());
    for (int section = 0; section < count(); ++section) {
        const QRect area(sectionViewportPosition(section), 0, sectionSize(section), viewport()->height());
        if (!isSectionHidden(section) && area.intersects(event->rect()))
            paintSection(&painter, area, section);
    }

    QStyleOptionHeader empty;
    initStyleOption(&empty);
    empty.rect = viewport()->rect();
    empty.rect.setLeft(length() - offset());
    if (!empty.rect.isEmpty())
        style()->drawControl(QStyle::CE_HeaderEmptyArea, &empty, &painter, this);
}

int CaptureColumnHeader::wantedLength() const
{
    const int last = count() - 1;
    return length() - sectionSize(last) + sectionSizeHint(last);
}

void CaptureColumnHeader::makeRoomForLastSection(int width)
{
    const int last = count() - 1;
    const int missing = wantedLength() - width;
    int spare = 0;
    for (int section = 0; section < last; ++section)
        spare += _spareWidth(section);
    if (missing <= 0 || spare == 0)
        return;
    const double share = std::min(1.0, static_cast<double>(missing) / spare);
    for (int section = 0; section < last; ++section) {
        if (const int spareHere = _spareWidth(section))
            resizeSection(section, sectionSize(section) - qCeil(share * spareHere));
    }
}

int CaptureColumnHeader::_spareWidth(int section) const
{
    const QString title = model()->headerData(section, Qt::Horizontal).toString();
    const int margin = style()->pixelMetric(QStyle::PM_HeaderMargin, nullptr, this);
    const int needed = fontMetrics().horizontalAdvance(title) + 2 * margin;
    return title.isEmpty() ? 0 : std::max(0, sectionSize(section) - needed);
}

CaptureRowHeader::CaptureRowHeader(int rowHeight, QWidget* parent)
    : QHeaderView(Qt::Vertical, parent)
{
    setSectionResizeMode(Fixed);
    setDefaultSectionSize(rowHeight);
    hide();  // the rows have no titles
}

/// Takes the news of rows itself, so that Qt's own handling runs later, for all new rows at once.
void CaptureRowHeader::setModel(QAbstractItemModel* model)
{
    const char* inserted = SIGNAL(rowsInserted(QModelIndex,int,int));
    if (this->model())
        disconnect(this->model(), inserted, this, SLOT(_showRowsSoon()));
    QHeaderView::setModel(model);
    if (!model)
        return;
    disconnect(model, inserted, this, SLOT(sectionsInserted(QModelIndex,int,int)));
    connect(model, inserted, this, SLOT(_showRowsSoon()));
}

void CaptureRowHeader::_showRowsSoon()
{
    _showing.request();
}

void CaptureRowHeader::_showRows()
{
    const int shownRows = count();
    const int rows = model() ? model()->rowCount() : 0;
    if (rows <= shownRows)
        return;

    QElapsedTimer timer;
    timer.start();
    sectionsInserted(QModelIndex(), shownRows, rows - 1);
    sectionPosition(rows - 1);  // places every row anew, which takes longer the more there are
    _showing.lengthenPause(pauseFactor * timer.nsecsElapsed());
    emit rowsShown();
}
