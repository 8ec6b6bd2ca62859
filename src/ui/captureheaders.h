#pragma once

#include "core/throttle.h"

#include <QHeaderView>

/// The column titles of the capture table. It paints them in the table's own font and does not ask the model
/// for one. The capture answers with a text, and Qt would complain at each paint that it describes no font.
class CaptureColumnHeader : public QHeaderView
{
    Q_OBJECT

public:
    explicit CaptureColumnHeader(QWidget* parent);

    /// Returns the width of all columns in pixels, with the last one as wide as it wants to be.
    int wantedLength() const;

    /// Narrows the columns before the last one, so that all fit into \a width. Their titles stay readable.
    void makeRoomForLastSection(int width);

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    int _spareWidth(int section) const;
};

/// The rows of the capture table, hidden and of one height. It tells the table of new rows some 60 times a
/// second at most: drawing must not hold up the frames. It does so less often when the rows are so many that
/// placing them takes long.
class CaptureRowHeader : public QHeaderView
{
    Q_OBJECT

public:
    CaptureRowHeader(int rowHeight, QWidget* parent);

    void setModel(QAbstractItemModel* model) override;

signals:
    /// Tells that the table has taken over all rows of the model.
    void rowsShown();

private slots:
    void _showRowsSoon();

private:
    void _showRows();

    // Runs nothing at once: first all frames that are there come in
    Throttle _showing{[this] { _showRows(); }, 0};
};
