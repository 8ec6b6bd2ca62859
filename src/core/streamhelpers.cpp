#include "core/streamhelpers.h"

#include <cmath>

namespace {

constexpr int storedColorSize = 11;      // bytes: kind, alpha, three channels and padding
constexpr double farEndOfScene = 1.0e7;  // scene units; views compute in int and float

double boundedCoordinate(double coordinate)
{
    return std::isfinite(coordinate) ? qBound(-farEndOfScene, coordinate, farEndOfScene) : 0.0;
}

}  // namespace

Qt::CheckState Stream::readCheckState(QDataStream& stream)
{
    qint32 state = Qt::Unchecked;
    stream >> state;
    switch (state) {
    case Qt::PartiallyChecked:
        return Qt::PartiallyChecked;
    case Qt::Checked:
        return Qt::Checked;
    default:
        return Qt::Unchecked;
    }
}

double Stream::readProbability(QDataStream& stream)
{
    double value = 0.0;
    stream >> value;
    return std::isnan(value) ? -1.0 : value;
}

double Stream::readFinite(QDataStream& stream, double fallback)
{
    double value = 0.0;
    stream >> value;
    return std::isfinite(value) ? boundedCoordinate(value) : fallback;
}

QPointF Stream::readPosition(QDataStream& stream)
{
    QPointF position;
    stream >> position;
    return {boundedCoordinate(position.x()), boundedCoordinate(position.y())};
}

/// Looks at the kind first: a colour of an unknown kind may not even be asked what it is.
QColor Stream::readColor(QDataStream& stream)
{
    char kind = QColor::Invalid;
    stream.device()->peek(&kind, sizeof kind);
    if (kind <= QColor::Invalid || kind > QColor::ExtendedRgb) {
        stream.skipRawData(storedColorSize);
        return QColor();
    }
    QColor color;
    stream >> color;
    return color;
}
