#pragma once

#include "network/frame.h"

#include <QAbstractTableModel>
#include <QDataStream>
#include <QIcon>
#include <QList>

/// The captured frames, and the table model that shows them. Each frame has a row, in order of arrival,
/// without a limit.
///
/// Every answer without data is a variant that holds a null string, and not an invalid variant. Only for such
/// an answer does a table draw no check box into the cell.
class Capture : public QAbstractTableModel
{
    Q_OBJECT

public:
    enum Column {
        DeltaTimeColumn,
        DeliveryColumn,
        BroadcastColumn,
        CrcColumn,
        SizeColumn,
        TimeOnNetworkColumn,
        DestinationColumn,
        SourceColumn,
        DataColumn,
        ColumnCount,
    };

    Capture();

    /// Records a copy of the frame. Does nothing while the capture is off.
    void addFrame(Frame& frame);
    void clear();
    const QList<Frame>& capturedFrames() const { return _capturedFrames; }

    bool isEnabled() const { return _enabled; }
    void setEnabled(bool enabled) { _enabled = enabled; }
    bool doesViewFollows() const { return _viewFollows; }  // whether a view scrolls to each new row
    void setViewFollows(bool follows) { _viewFollows = follows; }

    int rowCount(const QModelIndex& parent = QModelIndex()) const override;
    int columnCount(const QModelIndex& parent = QModelIndex()) const override;
    Qt::ItemFlags flags(const QModelIndex& index) const override;
    QVariant data(const QModelIndex& index, int role = Qt::DisplayRole) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role = Qt::DisplayRole) const override;

private:
    friend struct TestAccess;
    friend QDataStream& operator>>(QDataStream& stream, Capture& capture);

    QVariant _text(const Frame& frame, int row, int column) const;
    QVariant _icon(const Frame& frame, int column) const;

    bool _enabled = false;
    bool _viewFollows = false;
    QList<Frame> _capturedFrames;
    QIcon _broadcastIcon;
    QIcon _crcOkIcon;
    QIcon _crcBadIcon;
    QIcon _deliveredIcon;
    QIcon _notDeliveredIcon;
};

// The capture record of the simulation file: the two switches, not the frames
QDataStream& operator<<(QDataStream& stream, Capture& capture);
QDataStream& operator>>(QDataStream& stream, Capture& capture);

/// A data stream whose << writes a capture as a dump for a packet analyser. Other streams write a record of
/// the simulation file.
class CaptureDumpStream : public QDataStream
{
public:
    explicit CaptureDumpStream(QIODevice* device);  // not owned
    virtual ~CaptureDumpStream();
};

/// Writes all captured frames in the classic pcap file format (pcap-savefile(5)), big-endian.
CaptureDumpStream& operator<<(CaptureDumpStream& stream, Capture& capture);
