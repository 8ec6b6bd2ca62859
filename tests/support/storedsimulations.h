#pragma once

#include "bytewriter.h"
#include "loadsimulation.h"
#include "network/network.h"

#include <QFile>
#include <QHash>
#include <QTemporaryDir>

#include <algorithm>

/// Simulations as files have them, and what the program makes of these files.
namespace StoredSimulations {

constexpr quint64 idOfFirst = 0x1122334455667788;
constexpr quint64 idOfSecond = 2;
constexpr quint64 idOfThird = 0xFFFFFFFFFFFFFFFF;

/// Returns a node in which no two fields side by side hold the same value.
inline Stored::Node fullNode()
{
    Stored::Node node;
    node.id = idOfFirst;
    node.x = -12.5;
    node.y = 300.25;
    node.address = QByteArray::fromHex("0A0B0C0D0E0F");
    node.flags = 2;
    node.framesAcknowledged = 2;
    node.acknowledgeTimeout = 1234;
    node.inactiveColor = Stored::rgb(1, 2, 3);
    node.activeColor = Stored::rgb(4, 5, 6);
    node.txColor = Stored::rgb(7, 8, 9);
    node.rxColor = Stored::rgb(10, 11, 12);
    node.strokeWidth = 3.75;
    node.showAddress = 0;
    node.showConnectionCount = 2;
    node.showName = 1;
    node.name = QString::fromUtf8("Gerät \xE2\x82\xAC \xF0\x9F\x93\xA1");
    node.toolTip = QStringLiteral("a comment");
    node.promiscuousMode = 2;
    return node;
}

inline Stored::Node plainNode(quint64 id, double x, double y)
{
    Stored::Node node;
    node.id = id;
    node.x = x;
    node.y = y;
    return node;
}

inline Stored::Connection fullConnection()
{
    Stored::Connection connection;
    connection.firstEnd = idOfSecond;
    connection.secondEnd = idOfFirst;
    connection.isBroken = true;
    connection.reliability = 0.75;
    connection.errorDetectionReliability = 0.5;
    connection.delay = 20;
    connection.delayDeviation = 7;
    connection.color = Stored::rgb(200, 100, 50);
    connection.strokeWidth = 1.25;
    connection.toolTip = QStringLiteral("a link");
    return connection;
}

inline Stored::Connection plainConnection(quint64 firstEnd, quint64 secondEnd)
{
    Stored::Connection connection;
    connection.firstEnd = firstEnd;
    connection.secondEnd = secondEnd;
    return connection;
}

/// Fills \a simulation with three nodes, two links and no default value.
inline Stored::Simulation filled(Stored::Simulation simulation)
{
    simulation.maximalTransferUnit = 1500;
    simulation.addressLength = 2;
    simulation.destinationAddressOffset = 3;
    simulation.sourceAddressOffset = 5;
    simulation.broadcastAddress = QByteArray::fromHex("FFFE");
    simulation.port = 0;
    simulation.isPlugAndPlayOn = true;
    simulation.isNameBased = simulation.hasVersionOneFields();
    simulation.defaultConnection = fullConnection();
    simulation.defaultConnection.firstEnd = 0;
    simulation.defaultConnection.secondEnd = 0;
    simulation.defaultNode = fullNode();
    simulation.defaultNode.nodeType = -1;
    simulation.defaultNode.promiscuousMode = simulation.hasVersionOneFields() ? 2 : 0;
    simulation.nodes = {fullNode(), plainNode(idOfSecond, 100, 100), plainNode(idOfThird, -100, 50)};
    if (!simulation.hasVersionOneFields())
        simulation.nodes.first().promiscuousMode = 1;
    simulation.connections = {fullConnection(), plainConnection(idOfFirst, idOfThird)};
    simulation.isCaptureEnabled = true;
    simulation.doesViewFollow = false;
    return simulation;
}

inline Stored::Simulation filledSimulation()
{
    return filled(Stored::Simulation());
}

inline QByteArray bytesOf(const Stored::Simulation& simulation)
{
    return Stored::write(simulation).bytes;
}

inline QByteArray bigEndian(quint32 word)
{
    ByteWriter writer;
    writer.u32(word);
    return writer.bytes;
}

inline QByteArray bigEndian(double number)
{
    ByteWriter writer;
    writer.f64(number);
    return writer.bytes;
}

inline QByteArray replaced(QByteArray bytes, int offset, const QByteArray& by)
{
    return bytes.replace(offset, by.size(), by);
}

/// Returns where the count of nodes stands in a simulation without items; that of links follows it.
inline int nodeCountOffset(const QByteArray& bytes)
{
    return bytes.size() - 4 - 2 - 4 - 4;
}

inline Network& network()
{
    return *NetworkSimulation::instance()->network();
}

/// Returns the items of one kind, topmost first.
template <typename Item> QList<Item*> items()
{
    QList<Item*> found;
    const QList<QGraphicsItem*> all = network().items(Qt::DescendingOrder);
    for (QGraphicsItem* item : all) {
        if (auto* wanted = dynamic_cast<Item*>(item))
            found.append(wanted);
    }
    return found;
}

/// Returns them in the order of the file: what is read later lies on top.
template <typename Item> QList<Item*> itemsAsRead()
{
    QList<Item*> found = items<Item>();
    std::reverse(found.begin(), found.end());
    return found;
}

inline QByteArray saved()
{
    const QTemporaryDir folder;
    const QString path = folder.filePath(QStringLiteral("a.ltvo"));
    if (!NetworkSimulation::instance()->save(path))
        return QByteArray();
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

/// Returns \a simulation, loaded before, as it is saved again: with the ids of the running program, and the
/// topmost items first.
inline Stored::Simulation asSavedAgain(Stored::Simulation simulation)
{
    const QList<Node*> nodes = itemsAsRead<Node>();
    QHash<quint64, quint64> ids;
    for (int i = 0; i < simulation.nodes.size() && i < nodes.size(); ++i) {
        ids[simulation.nodes.at(i).id] = nodeFileId(nodes.at(i));
        simulation.nodes[i].id = nodeFileId(nodes.at(i));
    }
    for (Stored::Connection& connection : simulation.connections) {
        connection.firstEnd = ids.value(connection.firstEnd);
        connection.secondEnd = ids.value(connection.secondEnd);
    }
    simulation.defaultNode.id = nodeFileId(network().defaultNode());
    std::reverse(simulation.nodes.begin(), simulation.nodes.end());
    std::reverse(simulation.connections.begin(), simulation.connections.end());
    return simulation;
}

inline bool isNewAndEmpty()
{
    return network().items().isEmpty() && network().maximalTransferUnit() == 255
        && NetworkSimulation::instance()->fileVersion() == 1
        && !NetworkSimulation::instance()->capture()->isEnabled() && !network().isTcpEnabled();
}

}  // namespace StoredSimulations

Q_DECLARE_METATYPE(Stored::Simulation)
