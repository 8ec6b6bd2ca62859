#pragma once

#include <QJsonObject>

class NetworkSimulation;

/// The facts of the run that the report adds to those of the simulation.
struct RunFacts {
    quint32 seed = 0;
    double seconds = 0.0;        // since all awaited nodes were attached
    qint64 framesLeftLinks = 0;  // since then
    QString endedBy;             // "duration", "frames", "signal", "missing nodes"
};

/// Makes the report: the run, the nodes in stacking order, the lowest first, and the captured frames by
/// outcome.
QJsonObject makeReport(NetworkSimulation& simulation, const RunFacts& facts);
