#pragma once

#include <QColor>
#include <QDataStream>
#include <QPointF>

/// What the simulation file, the bridge protocol and the capture's dump have in common.
namespace Stream {

constexpr int version = QDataStream::Qt_4_4;  // 10
constexpr quint32 nullArrayLength = 0xFFFFFFFF;

/// A two or three-state switch; anything but the two states with a meaning of their own reads as unchecked.
Qt::CheckState readCheckState(QDataStream& stream);

/// A probability as it stands, infinities included; NaN reads as -1, undecided. Frames take the two for the
/// same, but the forms show NaN as 100 % and a line of that opacity is not seen.
double readProbability(QDataStream& stream);

/// A length that painting can live with: \a fallback instead of infinities and NaN, and
/// never beyond the far end of the scene.
double readFinite(QDataStream& stream, double fallback);

/// A place in the scene: not finite reads as 0, and what lies beyond the far end of the scene moves to it.
QPointF readPosition(QDataStream& stream);

/// Invalid when the stored kind of colour is none that the toolkit knows.
QColor readColor(QDataStream& stream);

}  // namespace Stream
