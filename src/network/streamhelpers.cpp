#include "network/streamhelpers.h"

#include <cmath>

namespace {

constexpr double farEndOfScene = 1.0e7;  // scene units; the index and the views compute in int and float

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

double Stream::readFinite(QDataStream& stream, double fallback)
{
    double value = 0.0;
    stream >> value;
    return std::isfinite(value) ? value : fallback;
}

QPointF Stream::readPosition(QDataStream& stream)
{
    QPointF position;
    stream >> position;
    return {boundedCoordinate(position.x()), boundedCoordinate(position.y())};
}

QColor Stream::readColor(QDataStream& stream)
{
    QColor color;
    stream >> color;
    switch (color.spec()) {
    case QColor::Rgb:
    case QColor::Hsv:
    case QColor::Cmyk:
    case QColor::Hsl:
    case QColor::ExtendedRgb:
        return color;
    case QColor::Invalid:
        break;
    }
    return QColor();
}
