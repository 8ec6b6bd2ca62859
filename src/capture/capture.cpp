#include "capture/capture.h"

#include <QSize>

namespace {

constexpr int centred = Qt::AlignHCenter | Qt::AlignVCenter;
constexpr int leftAligned = Qt::AlignLeft | Qt::AlignVCenter;
constexpr int headerHeight = 16;  // pixels
constexpr int textColumnWidth = 120;
constexpr int iconColumnWidth = 12;

struct ColumnInfo {
    const char* title;  // null: none
    int width;          // pixels
    int alignment;
};

const ColumnInfo columns[Capture::ColumnCount] = {
    // in the order of Capture::Column
    {"Delta Time", textColumnWidth, centred},
    {nullptr, iconColumnWidth, centred},  // the icon columns have no title, on purpose
    {nullptr, iconColumnWidth, centred},
    {nullptr, iconColumnWidth, centred},
    {"Framesize", textColumnWidth, centred},
    {"Time on Network", textColumnWidth, centred},
    {"Destination address", textColumnWidth, centred},
    {"Source address", textColumnWidth, centred},
    {"Frame data", textColumnWidth, leftAligned},
};
const ColumnInfo beyondTheColumns = {nullptr, textColumnWidth, centred};

const ColumnInfo& columnInfo(int section)
{
    return section >= 0 && section < Capture::ColumnCount ? columns[section] : beyondTheColumns;
}

/// Returns a variant that holds a null string. It is valid and equal to "", and makes no table draw a check
/// box.
QVariant nothing()
{
    return QString();
}

/// Returns "    1.234 s" for 1234 ms.
QString timeText(qint64 milliseconds)
{
    return QStringLiteral("%1.%2 s")
        .arg(milliseconds / 1000, 5, 10, QLatin1Char(' '))
        .arg(milliseconds % 1000, 3, 10, QLatin1Char('0'));
}

qint64 duration(quint64 from, quint64 to)
{
    return static_cast<qint64>(to - from);
}

/// Returns an icon that keeps its colours in a selected row, where Qt would tint it.
QIcon trueColorIcon(const QString& fileName)
{
    QIcon icon(fileName);
    icon.addFile(fileName, QSize(), QIcon::Selected);
    return icon;
}

QByteArray hexadecimal(const QByteArray& bytes)
{
    return bytes.toHex().toUpper();
}

// pcap-savefile(5)
constexpr quint32 dumpMagic = 0xA1B2C3D4;
constexpr quint16 dumpVersionMajor = 2;
constexpr quint16 dumpVersionMinor = 4;
constexpr qint32 dumpTimeZone = 0;
constexpr quint32 dumpTimeAccuracy = 0;
constexpr quint32 dumpSnapLength = 65535;
constexpr quint32 dumpLinkType = 0;  // the simulator's own raw frames, not Ethernet
constexpr quint8 dumpTrailerByte = 1;
constexpr quint32 dumpTrailerSize = 2;

void writeDumpHeader(CaptureDumpStream& stream)
{
    stream << dumpMagic << dumpVersionMajor << dumpVersionMinor << dumpTimeZone << dumpTimeAccuracy
           << dumpSnapLength << dumpLinkType;
}

/// Writes one frame. Three things are so on purpose. Milliseconds stand where microseconds are announced. The
/// length before the payload is the bare one. Two bytes 01 take the place of a check sequence, and count
/// in the captured length.
void writeDumpRecord(CaptureDumpStream& stream, const Frame& frame)
{
    const QByteArray payload = frame.payload();
    stream << static_cast<quint32>(frame.sendTime() / 1000) << static_cast<quint32>(frame.sendTime() % 1000);
    stream << static_cast<quint32>(payload.size()) + dumpTrailerSize << payload;
    stream << dumpTrailerByte << dumpTrailerByte;
}

}  // namespace

/// Asks for the images, which the linker drops otherwise: they are in a static library.
static void initializeImages()
{
    Q_INIT_RESOURCE(resources);
}

Capture::Capture()
    : _broadcastIcon(trueColorIcon(QStringLiteral(":Broadcast.png")))
    , _crcOkIcon(trueColorIcon(QStringLiteral(":CrcOk.png")))
    , _crcBadIcon(trueColorIcon(QStringLiteral(":CrcBad.png")))
    , _deliveredIcon(trueColorIcon(QStringLiteral(":Delivered.png")))
    , _notDeliveredIcon(trueColorIcon(QStringLiteral(":NotDelivered.png")))
{
    initializeImages();
}

void Capture::addFrame(Frame& frame)
{
    if (!_enabled)
        return;
    const int row = _capturedFrames.size();
    beginInsertRows(QModelIndex(), row, row);
    _capturedFrames.append(frame);
    endInsertRows();
}

void Capture::clear()
{
    beginResetModel();
    _capturedFrames.clear();
    endResetModel();
}

int Capture::rowCount(const QModelIndex& /*parent*/) const
{
    return _capturedFrames.size();
}

int Capture::columnCount(const QModelIndex& /*parent*/) const
{
    return ColumnCount;
}

Qt::ItemFlags Capture::flags(const QModelIndex& /*index*/) const
{
    return Qt::ItemIsSelectable | Qt::ItemIsEnabled;
}

QVariant Capture::data(const QModelIndex& index, int role) const
{
    const int row = index.row();
    if (row < 0 || row >= _capturedFrames.size())
        return nothing();

    const Frame& frame = _capturedFrames.at(row);
    switch (role) {
    case Qt::DisplayRole:
        return _text(frame, row, index.column());
    case Qt::DecorationRole:
        return _icon(frame, index.column());
    case Qt::TextAlignmentRole:
        return columnInfo(index.column()).alignment;
    case Qt::UserRole:
        return frame.payload();
    default:
        return nothing();
    }
}

QVariant Capture::_text(const Frame& frame, int row, int column) const
{
    switch (column) {
    case DeltaTimeColumn:
        if (row == 0)
            return 0;  // a number, not a time: the first frame has no predecessor
        return timeText(duration(_capturedFrames.at(row - 1).receiveTime(), frame.receiveTime()));
    case SizeColumn:
        return frame.payload().size();
    case TimeOnNetworkColumn:
        return frame.wasDelivered(false) ? timeText(duration(frame.sendTime(), frame.receiveTime()))
                                         : QStringLiteral("-");
    case DestinationColumn:
        return hexadecimal(frame.destinationAddress());
    case SourceColumn:
        return hexadecimal(frame.sourceAddress());
    case DataColumn:
        return hexadecimal(frame.payload());
    default:
        return nothing();
    }
}

QVariant Capture::_icon(const Frame& frame, int column) const
{
    switch (column) {
    case DeliveryColumn:
        return frame.wasDelivered(false) ? _deliveredIcon : _notDeliveredIcon;
    case BroadcastColumn:
        return frame.isBroadcast() ? _broadcastIcon : QIcon();
    case CrcColumn:
        return frame.isCRCCorrect() ? _crcOkIcon : _crcBadIcon;
    default:
        return nothing();
    }
}

QVariant Capture::headerData(int section, Qt::Orientation orientation, int role) const
{
    if (role == Qt::TextAlignmentRole)
        return columnInfo(section).alignment;
    if (orientation != Qt::Horizontal)
        return nothing();  // shows no row numbers, on purpose
    if (role == Qt::SizeHintRole)
        return QSize(columnInfo(section).width, headerHeight);
    if (role == Qt::DisplayRole)
        return QString::fromLatin1(columnInfo(section).title);
    return nothing();
}

QDataStream& operator<<(QDataStream& stream, Capture& capture)
{
    return stream << capture.isEnabled() << capture.doesViewFollows();
}

QDataStream& operator>>(QDataStream& stream, Capture& capture)
{
    capture.clear();
    return stream >> capture._enabled >> capture._viewFollows;
}

CaptureDumpStream::CaptureDumpStream(QIODevice* device)
    : QDataStream(device)
{
}

CaptureDumpStream::~CaptureDumpStream() = default;

CaptureDumpStream& operator<<(CaptureDumpStream& stream, Capture& capture)
{
    writeDumpHeader(stream);
    for (const Frame& frame : capture.capturedFrames()) {
        if (!frame.payload().isEmpty())
            writeDumpRecord(stream, frame);
    }
    return stream;
}
