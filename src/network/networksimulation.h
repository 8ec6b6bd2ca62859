#pragma once

#include "capture/capture.h"
#include "network/network.h"

#include <QObject>

QT_BEGIN_NAMESPACE
class QIODevice;
QT_END_NAMESPACE

/// The whole simulation that the user works on: the network and the capture of its frames. There is never
/// more than one. New and Open replace it, which leaves every pointer into the old one dangling.
class NetworkSimulation : public QObject
{
    Q_OBJECT

public:
    // Words at both ends of a file: of version 0, and of one that holds its version
    static constexpr quint32 MagicNumber = 0xC191277C;
    static constexpr quint32 VersionedMagicNumber = 0xC191277D;
    static constexpr quint32 ActualFileVersion = 1;  // of every new simulation

    /// Returns the present simulation, a new one when there is none yet.
    static NetworkSimulation* instance();

    static NetworkSimulation* newNetworkSimulation();

    /// Replaces the simulation by the one in the file. On failure the simulation is new and empty, and \a ok,
    /// unless null, becomes false. Success leaves \a ok as it is.
    static NetworkSimulation* loadNetworkSimulation(const QString& fileName, bool* ok);

    /// Loads from a device that is open for reading: for files that the user may not write.
    static NetworkSimulation* loadNetworkSimulation(QIODevice* device, bool* ok);

    /// Deletes the present simulation, which closes its sockets. Call it before the application object ends.
    static void deleteNetworkSimulation();

    NetworkSimulation() = default;
    ~NetworkSimulation() override;

    // Both return false when the file cannot be opened; write errors are not reported
    [[nodiscard]] bool save(const QString& fileName);
    [[nodiscard]] bool exportPcapDump(const QString& fileName);

    bool hasChanges() { return true; }  // nothing records unsaved changes

    Network* network() { return &_network; }
    Capture* capture() { return &_capture; }
    quint32 fileVersion() const { return _fileVersion; }

    void updateNetworkDisplay();  // repaints the whole scene

private:
    static NetworkSimulation* _readIntoInstance(QIODevice* device, bool* ok);
    bool _read(QIODevice* device);

    Network _network;
    Capture _capture;
    quint32 _fileVersion = 0;

    static NetworkSimulation* _instance;
};
