#pragma once

#include "tcphelpers.h"

/// Programs that attach through the network's server.
namespace TestHelpers {

inline const QByteArray leftAddress = hex("020000000001");
inline const QByteArray rightAddress = hex("020000000002");

/// Begins a new simulation whose server listens.
inline bool listenInNewSimulation()
{
    NetworkSimulation::newNetworkSimulation();
    network()->setTcpPort(0);
    return network()->setTcpEnabled(true);
}

inline QList<QTcpSocket*>& pending()
{
    return TestAccess::server(*network()).pending;
}

inline QByteArray addressMessage(const QByteArray& address)
{
    return control(1, address);
}

inline QByteArray nameMessage(const QByteArray& name)
{
    return control(5, name);
}

/// A program that the network has accepted, and that has not said anything yet.
struct PendingProgram : Program {
    PendingProgram()
        : Program(network()->listeningPort())
    {
        const int others = pending().size();
        if (QTest::qWaitFor([others] { return pending().size() > others; }, patience))
            nodeEnd = pending().last();
    }

    QPointer<QTcpSocket> nodeEnd;
};

/// Returns whether the program lost its connection and left nothing behind.
inline bool isRefused(PendingProgram& program)
{
    return program.waitForEnd() && QTest::qWaitFor([&] { return !program.nodeEnd; }, patience)
        && pending().isEmpty();
}

/// Returns the node that Plug'n'Place has made last; null when it never comes.
inline TcpNode* waitForNewNode(int nodesBefore = 0)
{
    const QList<TcpNode*>& nodes = TestAccess::allTcpNodes();
    return QTest::qWaitFor([&] { return nodes.size() > nodesBefore; }, patience) ? nodes.last() : nullptr;
}

inline bool waitUntilAttached(const TcpNode* node)
{
    return QTest::qWaitFor([node] { return node->socket() != nullptr; }, patience);
}

/// Returns whether the kernel lets so many wait to be accepted.
inline bool canWait(int programs)
{
    QFile limit(QStringLiteral("/proc/sys/net/core/somaxconn"));
    return limit.open(QIODevice::ReadOnly) && limit.readAll().trimmed().toInt() >= programs;
}

}  // namespace TestHelpers
