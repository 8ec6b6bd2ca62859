#pragma once

#include "nodes/tcpnode.h"
#include "sockethelpers.h"
#include "testhelpers.h"

/// Nodes with their programs.
namespace TestHelpers {

constexpr int megabyte = 1024 * 1024;
inline const QByteArray marker
    = hex("05 00000001 06");  // "identify"; comes behind all that was sent before it

/// Adds a node to the network, which owns it.
template <typename Identity> TcpNode* addTcpNode(const Identity& identity, QTcpSocket* socket = nullptr)
{
    auto* node = new TcpNode(identity, socket);
    network()->addItem(node);
    return node;
}

/// A node of the network with its program.
struct AttachedNode : SocketPair {
    explicit AttachedNode(const QByteArray& address = QByteArray())
        : node(addTcpNode(address, nodeEnd))
    {
    }

    bool waitUntilDetached() const
    {
        QSignalSpy changes(node, SIGNAL(connectionStateChanged()));
        return !node->socket() || (changes.wait(patience) && !node->socket());
    }

    TcpNode* node;
};

/// Leaves bytes in the simulator's own buffer, behind those that the kernel takes. Returns all bytes written.
inline QByteArray writeMoreThanTheKernelTakes(AttachedNode& attached)
{
    attached.program.stopReading();
    QByteArray written;
    for (int i = 0; i < 32; ++i) {
        const QByteArray frame(megabyte, static_cast<char>('A' + i));
        attached.node->dataIndication(frame);
        written += message(1, frame);
    }
    const qint64 allBytes = attached.nodeEnd->bytesToWrite();
    QSignalSpy sendings(attached.nodeEnd, SIGNAL(bytesWritten(qint64)));
    sendings.wait(patience);
    attached.nodeEnd->flush();
    return attached.nodeEnd->bytesToWrite() < allBytes ? written : QByteArray();
}

/// Adds a row that is named by its bytes.
inline void addRow(const QByteArray& bytes)
{
    QTest::newRow(bytes.toHex(' ').constData()) << bytes;
}

}  // namespace TestHelpers
