#pragma once

#include <QJsonObject>

QT_BEGIN_NAMESPACE
class QString;
QT_END_NAMESPACE

class MainWindow;

/// Figures that no program at the other end of a socket can take, each with the window shown and by the means
/// that a user has.
namespace WindowMeasurements {

/// Fills the capture with \a frames of 64 bytes, the view following: cost of a frame with few and with that
/// many rows, memory a frame, time of a page.
QJsonObject capture(const MainWindow& window, int frames);

/// Opens a simulation, saves it as a new file and deletes some nodes with the Delete key.
QJsonObject files(const MainWindow& window, const QString& fileName, const QString& savedFileName);

}  // namespace WindowMeasurements
