#pragma once

#include <QColor>
#include <QDataStream>
#include <QPointF>

/// Helpers that the simulation file, the bridge protocol and the capture's dump share.
namespace Stream {

constexpr int version = QDataStream::Qt_4_4;  // 10
constexpr quint32 nullArrayLength = 0xFFFFFFFF;

/// Reads a switch of two or three states. Anything but "checked" and "partially checked" reads as unchecked.
Qt::CheckState readCheckState(QDataStream& stream);

/// Reads a probability as it stands, also infinity. NaN reads as -1, which means undecided. Frames treat both
/// alike. But a form would show NaN as 100 %, and a line of that opacity would be invisible.
double readProbability(QDataStream& stream);

/// Reads a length that can be painted: \a fallback instead of infinity and NaN, and at most as far as the
/// scene reaches.
double readFinite(QDataStream& stream, double fallback);

/// Reads a place in the scene. A coordinate that is not finite reads as 0, and one beyond the far end of the
/// scene moves there.
QPointF readPosition(QDataStream& stream);

/// Reads a colour. One of a kind that Qt does not know reads as invalid.
QColor readColor(QDataStream& stream);

}  // namespace Stream
