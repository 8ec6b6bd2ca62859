#pragma once

#include "network/networksimulation.h"

#include <QBuffer>
#include <QByteArray>

/// Returns false when \a bytes are no simulation file, and leaves a new simulation then.
inline bool loadSimulation(const QByteArray& bytes)
{
    QBuffer buffer;
    buffer.setData(bytes);
    buffer.open(QIODevice::ReadOnly);
    bool isLoaded = true;
    NetworkSimulation::loadNetworkSimulation(&buffer, &isLoaded);
    return isLoaded;
}
