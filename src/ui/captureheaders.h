#pragma once

#include "core/throttle.h"

#include <QHeaderView>

/// The column titles of the capture table. Paints them in the table's own font and does not ask the model for
/// one: the capture answers with a text, and the toolkit would complain at every paint that it describes no
/// font.
class CaptureColumnHeader : public QHeaderView
{
    Q_OBJECT

public:
    explicit CaptureColumnHeader(QWidget* parent);

    /// Of all columns, the last one no wider than it wants to be. In pixels.
    int wantedLength() const;

    /// Narrows the columns before the last one, down to what their titles need, so that all of them fit into
    /// \a width.
    void makeRoomForLastSection(int width);

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    int _spareWidth(int section) const;
};

/// The rows of the capture table, hidden and of one height. It tells the table of new rows some 60 times a
/// second at most, so that drawing does not hold up the frames, and less often when the rows are so many that
/// placing them takes long.
class CaptureRowHeader : public QHeaderView
{
    Q_OBJECT

public:
    CaptureRowHeader(int rowHeight, QWidget* parent);

    void setModel(QAbstractItemModel* model) override;

signals:
    /// The table has taken over all rows of the model.
    void rowsShown();

private slots:
    void _showRowsSoon();

private:
    void _showRows();

    Throttle _showing{[this] { _showRows(); }, 0};  // not before all frames that are there have come in
};
