#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

#include <cstring>

/// Writes bytes by hand, most significant first. Tests compare files with these bytes, not with those of the
/// program's own writer. So this class uses nothing of the program, and no data stream.
class ByteWriter
{
public:
    void u8(quint8 value) { _append(value, 1); }
    void u16(quint16 value) { _append(value, 2); }
    void u32(quint32 value) { _append(value, 4); }
    void i32(qint32 value) { _append(static_cast<quint32>(value), 4); }
    void u64(quint64 value) { _append(value, 8); }

    void f64(double value)
    {
        quint64 bits = 0;
        std::memcpy(&bits, &value, sizeof bits);
        doubleOffsets.append(bytes.size());
        u64(bits);
    }

    /// Writes a count of entries or a length in bytes.
    void length(quint32 value)
    {
        lengthOffsets.append(bytes.size());
        u32(value);
    }

    /// Writes a length and the bytes: a null array has a special length, an empty one has length 0.
    void array(const QByteArray& value)
    {
        length(value.isNull() ? 0xFFFFFFFF : static_cast<quint32>(value.size()));
        bytes += value;
    }

    void string(const QString& value)
    {
        length(value.isNull() ? 0xFFFFFFFF : 2 * static_cast<quint32>(value.size()));
        for (const QChar character : value)
            u16(character.unicode());
    }

    QByteArray bytes;
    QList<int> lengthOffsets;      // of every count and length
    QList<int> doubleOffsets;      // of every floating-point number
    QList<int> checkStateOffsets;  // of every two or three-state switch
    QList<int> colorOffsets;       // of every colour's first byte, its kind

private:
    void _append(quint64 value, int size)
    {
        for (int shift = 8 * (size - 1); shift >= 0; shift -= 8)
            bytes += static_cast<char>(value >> shift & 0xFF);
    }
};

/// The records of a simulation file as plain values, which start as a new simulation has them.
namespace Stored {

struct Color {
    quint8 kind = 0;  // 0 no colour, 1 RGB
    quint16 alpha = 0xFFFF;
    quint16 red = 0;
    quint16 green = 0;
    quint16 blue = 0;
    quint16 padding = 0;
};

inline Color rgb(int red, int green, int blue)
{
    const auto wide = [](int channel) { return static_cast<quint16>(channel * 0x101); };
    return {1, 0xFFFF, wide(red), wide(green), wide(blue), 0};
}

struct Node {
    qint32 itemType = 0x10000;
    qint32 nodeType = 1;
    quint64 id = 0;
    double x = 0.0;
    double y = 0.0;
    QByteArray address;
    qint32 flags = 0;
    qint32 framesAcknowledged = 1;
    qint32 acknowledgeTimeout = -1;
    Color inactiveColor;
    Color activeColor;
    Color txColor;
    Color rxColor;
    double strokeWidth = -1.0;
    qint32 showAddress = 1;
    qint32 showConnectionCount = 1;
    qint32 showName = 1;
    QString name;
    QString toolTip;
    qint32 promiscuousMode = 1;
};

struct Connection {
    qint32 itemType = 0x10001;
    quint64 firstEnd = 0;
    quint64 secondEnd = 0;
    bool isBroken = false;
    double reliability = -1.0;
    double errorDetectionReliability = -1.0;
    qint32 delay = -1;
    qint32 delayDeviation = -1;
    Color color;
    double strokeWidth = -1.0;
    QString toolTip;
};

inline Connection newDefaultConnection()
{
    Connection connection;
    connection.reliability = 1.0;
    connection.errorDetectionReliability = 1.0;
    connection.delay = 0;
    connection.delayDeviation = 0;
    connection.color = rgb(0, 0, 128);
    connection.strokeWidth = 2.0;
    return connection;
}

inline Node newDefaultNode()
{
    Node node;
    node.nodeType = -1;
    node.framesAcknowledged = 0;
    node.acknowledgeTimeout = 0;
    node.inactiveColor = rgb(192, 192, 192);
    node.activeColor = rgb(155, 155, 255);
    node.txColor = rgb(155, 255, 155);
    node.rxColor = rgb(255, 255, 155);
    node.strokeWidth = 2.0;
    node.showAddress = 2;
    node.showConnectionCount = 2;
    node.showName = 2;
    node.promiscuousMode = 0;
    return node;
}

struct Simulation {
    quint32 magic = 0xC191277D;
    quint32 version = 1;  // written behind the versioned magic word only
    qint32 maximalTransferUnit = 255;
    qint32 addressLength = 6;
    qint32 destinationAddressOffset = 0;
    qint32 sourceAddressOffset = 6;
    QByteArray broadcastAddress = QByteArray(6, '\xFF');
    bool isServerOn = false;
    quint16 port = 8844;
    bool isPlugAndPlayOn = false;
    bool isNameBased = false;
    Connection defaultConnection = newDefaultConnection();
    Node defaultNode = newDefaultNode();
    QList<Node> nodes;
    QList<Connection> connections;
    bool isCaptureEnabled = false;
    bool doesViewFollow = false;

    bool hasVersionOneFields() const { return magic == 0xC191277D && version == 1; }
};

inline Simulation newSimulationOfVersion0()
{
    Simulation simulation;
    simulation.magic = 0xC191277C;
    simulation.version = 0;
    return simulation;
}

inline void write(ByteWriter& writer, const Color& color)
{
    writer.colorOffsets.append(writer.bytes.size());
    writer.u8(color.kind);
    for (const quint16 channel : {color.alpha, color.red, color.green, color.blue, color.padding})
        writer.u16(channel);
}

inline void writeCheckState(ByteWriter& writer, qint32 state)
{
    writer.checkStateOffsets.append(writer.bytes.size());
    writer.i32(state);
}

inline void write(ByteWriter& writer, const Node& node, bool hasVersionOneFields)
{
    writer.i32(node.itemType);
    writer.i32(node.nodeType);
    writer.u64(node.id);
    writer.f64(node.x);
    writer.f64(node.y);
    writer.array(node.address);
    writer.i32(node.flags);
    writeCheckState(writer, node.framesAcknowledged);
    writer.i32(node.acknowledgeTimeout);
    for (const Color& color : {node.inactiveColor, node.activeColor, node.txColor, node.rxColor})
        write(writer, color);
    writer.f64(node.strokeWidth);
    for (const qint32 state : {node.showAddress, node.showConnectionCount, node.showName})
        writeCheckState(writer, state);
    writer.string(node.name);
    writer.string(node.toolTip);
    if (hasVersionOneFields)
        writeCheckState(writer, node.promiscuousMode);
}

inline void write(ByteWriter& writer, const Connection& connection)
{
    writer.i32(connection.itemType);
    writer.u64(connection.firstEnd);
    writer.u64(connection.secondEnd);
    writer.u8(connection.isBroken ? 1 : 0);
    writer.f64(connection.reliability);
    writer.f64(connection.errorDetectionReliability);
    writer.i32(connection.delay);
    writer.i32(connection.delayDeviation);
    write(writer, connection.color);
    writer.f64(connection.strokeWidth);
    writer.string(connection.toolTip);
}

inline ByteWriter write(const Simulation& simulation)
{
    ByteWriter writer;
    writer.u32(simulation.magic);
    if (simulation.magic == 0xC191277D)
        writer.u32(simulation.version);
    writer.i32(simulation.maximalTransferUnit);
    writer.i32(simulation.addressLength);
    writer.i32(simulation.destinationAddressOffset);
    writer.i32(simulation.sourceAddressOffset);
    writer.array(simulation.broadcastAddress);
    writer.u8(simulation.isServerOn ? 1 : 0);
    writer.u16(simulation.port);
    writer.u8(simulation.isPlugAndPlayOn ? 1 : 0);
    if (simulation.hasVersionOneFields())
        writer.u8(simulation.isNameBased ? 1 : 0);
    write(writer, simulation.defaultConnection);
    write(writer, simulation.defaultNode, simulation.hasVersionOneFields());
    writer.length(static_cast<quint32>(simulation.nodes.size()));
    for (const Node& node : simulation.nodes)
        write(writer, node, simulation.hasVersionOneFields());
    writer.length(static_cast<quint32>(simulation.connections.size()));
    for (const Connection& connection : simulation.connections)
        write(writer, connection);
    writer.u8(simulation.isCaptureEnabled ? 1 : 0);
    writer.u8(simulation.doesViewFollow ? 1 : 0);
    writer.u32(simulation.magic);
    return writer;
}

}  // namespace Stored
