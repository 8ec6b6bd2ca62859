#include "network/networksimulation.h"

#include "core/streamhelpers.h"

#include <QDataStream>
#include <QFile>

NetworkSimulation* NetworkSimulation::_instance = nullptr;

NetworkSimulation* NetworkSimulation::instance()
{
    return _instance ? _instance : newNetworkSimulation();
}

NetworkSimulation* NetworkSimulation::newNetworkSimulation()
{
    deleteNetworkSimulation();
    _instance = new NetworkSimulation;
    _instance->_fileVersion = ActualFileVersion;
    return _instance;
}

/// Clears the instance last: items use it in their destructors.
void NetworkSimulation::deleteNetworkSimulation()
{
    delete _instance;
    _instance = nullptr;
}

/// Silences the network: nobody needs to hear of the selection that vanishes with it.
NetworkSimulation::~NetworkSimulation()
{
    _network.blockSignals(true);
}

/// Opens the file for writing too, on purpose: a file that the user may not write is not loaded. Nor does it
/// load a pipe, which it could wait for forever.
NetworkSimulation* NetworkSimulation::loadNetworkSimulation(const QString& fileName, bool* ok)
{
    newNetworkSimulation();
    QFile file(fileName);
    const bool isOpen = file.open(QIODevice::ReadWrite | QIODevice::ExistingOnly) && !file.isSequential();
    return _readIntoInstance(isOpen ? &file : nullptr, ok);
}

NetworkSimulation* NetworkSimulation::loadNetworkSimulation(QIODevice* device, bool* ok)
{
    newNetworkSimulation();
    return _readIntoInstance(device, ok);
}

/// Reads the file. If it is damaged, drops the simulation with what has been read so far.
NetworkSimulation* NetworkSimulation::_readIntoInstance(QIODevice* device, bool* ok)
{
    if (!device || !_instance->_read(device)) {
        newNetworkSimulation();
        if (ok)
            *ok = false;
    }
    return _instance;
}

/// Reads into this simulation, which is the present one already: readers of records ask it for the file
/// version. False when a word at one of the ends is wrong; damage in between shows in nothing else.
bool NetworkSimulation::_read(QIODevice* device)
{
    QDataStream stream(device);
    stream.setVersion(Stream::version);
    quint32 magic = 0;
    stream >> magic;
    if (magic == VersionedMagicNumber)
        stream >> _fileVersion;  // any version is kept
    else if (magic == MagicNumber)
        _fileVersion = 0;
    else
        return false;

    quint32 trailer = 0;
    stream >> _network >> _capture >> trailer;
    return trailer == magic;
}

/// Saves the simulation. Neither truncates the file nor checks its writing, on purpose: behind the trailer,
/// where no reader looks, the tail of a longer old file stays.
bool NetworkSimulation::save(const QString& fileName)
{
    QFile file(fileName);
    if (!file.open(QIODevice::ReadWrite))
        return false;

    QDataStream stream(&file);
    stream.setVersion(Stream::version);
    const quint32 magic = _fileVersion != 0 ? VersionedMagicNumber : MagicNumber;
    stream << magic;
    if (_fileVersion != 0)
        stream << _fileVersion;
    stream << _network << _capture << magic;
    file.close();
    return true;
}

bool NetworkSimulation::exportPcapDump(const QString& fileName)
{
    QFile file(fileName);
    if (!file.open(QIODevice::ReadWrite | QIODevice::Truncate))
        return false;

    CaptureDumpStream stream(&file);
    stream.setVersion(Stream::version);
    stream << _capture;
    file.close();
    return true;
}

void NetworkSimulation::updateNetworkDisplay()
{
    _network.update();
}
