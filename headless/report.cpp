#include "report.h"

#include "network/networksimulation.h"
#include "nodes/tcpnode.h"

#include <QJsonArray>

#include <algorithm>

namespace {

QJsonObject traffic(qint64 frames, qint64 bytes)
{
    return {{"frames", frames}, {"bytes", bytes}};
}

QJsonObject nodeReport(const TcpNode& node)
{
    return {
        {"name", node.name()},
        {"address", QString::fromLatin1(node.address().toHex().toUpper())},
        {"attached", node.socket() != nullptr},
        {"sent", traffic(node.sendFramesCount(), node.sendBytesCount())},
        {"received", traffic(node.receivedFramesCount(), node.receivedBytesCount())},
    };
}

QJsonArray nodeReports(const Network& network)
{
    QJsonArray reports;
    const QList<TcpNode*> nodes = itemsOf<TcpNode>(network.items(Qt::AscendingOrder));
    for (const TcpNode* node : nodes)
        reports.append(nodeReport(*node));
    return reports;
}

QJsonObject captureReport(const QList<Frame>& frames)
{
    const auto count = [&frames](auto predicate) {
        return static_cast<qint64>(std::count_if(frames.begin(), frames.end(), predicate));
    };
    return {
        {"frames", frames.size()},
        {"deliveredInTime", count([](const Frame& frame) { return frame.wasDelivered(true); })},
        {"deliveredLate",
         count([](const Frame& frame) { return frame.wasDelivered(false) && !frame.wasDelivered(true); })},
        {"notDelivered", count([](const Frame& frame) { return !frame.wasDelivered(false); })},
        {"corrupted", count([](const Frame& frame) { return !frame.isCRCCorrect(); })},
        {"corruptedAndDetected",
         count([](const Frame& frame) { return !frame.isCRCCorrect() && !frame.wasDelivered(false); })},
        {"broadcast", count([](const Frame& frame) { return frame.isBroadcast(); })},
    };
}

}  // namespace

QJsonObject makeReport(NetworkSimulation& simulation, const RunFacts& facts)
{
    return {
        {"seed", static_cast<qint64>(facts.seed)},
        {"runTimeSeconds", facts.seconds},
        {"endedBy", facts.endedBy},
        {"framesLeftLinks", facts.framesLeftLinks},
        {"nodes", nodeReports(*simulation.network())},
        {"captured", captureReport(simulation.capture()->capturedFrames())},
    };
}
