#pragma once

#include "capture/capture.h"
#include "connections/connection.h"
#include "network/frame.h"
#include "network/network.h"
#include "nodes/node.h"
#include "nodes/tcpnode.h"

/// Gives tests some private members of the core: settings that only property forms and files write, and
/// state that only painting shows.
struct TestAccess {
    static auto& parameters(Network& network) { return network._network; }
    static auto& editor(Network& network) { return network._editor; }
    static auto& server(Network& network) { return network._tcpServer; }

    static auto& flags(Frame& frame) { return frame._flags; }

    static auto& framesInFlight(Connection& connection) { return connection._frames; }
    static auto& broken(Connection& connection) { return connection._broken; }
    static auto& reliability(Connection& connection) { return connection._reliability; }
    static auto& errorDetection(Connection& connection) { return connection._errorDetectionReliability; }
    static auto& delay(Connection& connection) { return connection._delayMs; }
    static auto& deviation(Connection& connection) { return connection._delayDeviationMs; }
    static auto& color(Connection& connection) { return connection._connectionColor; }
    static auto& strokeWidth(Connection& connection) { return connection._connectionStrokeWidth; }
    static auto& totalFrames(Connection& connection) { return connection._totalFrames; }
    static auto& lostFrames(Connection& connection) { return connection._lostFrames; }
    static auto& crcErrors(Connection& connection) { return connection._crcErrors; }
    static void discardFramesInFlight(Connection& connection) { connection._discardFramesInFlight(); }

    static auto& flags(Node& node) { return node._flags; }
    static auto& promiscuousMode(Node& node) { return node._promiscuousMode; }
    static auto& framesAcknowledged(Node& node) { return node._framesAcknowledged; }
    static auto& acknowledgeTimeout(Node& node) { return node._frameAcknowledgeTimeout; }
    static auto& sendFrames(Node& node) { return node._sendFrames; }
    static auto& sendBytes(Node& node) { return node._sendBytes; }
    static auto& receivedFrames(Node& node) { return node._receivedFrames; }
    static auto& receivedBytes(Node& node) { return node._receivedBytes; }
    static auto& inactiveColor(Node& node) { return node._inactiveColor; }
    static auto& activeColor(Node& node) { return node._activeColor; }
    static auto& txColor(Node& node) { return node._txColor; }
    static auto& rxColor(Node& node) { return node._rxColor; }
    static auto& strokeWidth(Node& node) { return node._strokeWidth; }
    static auto& showName(Node& node) { return node._showName; }
    static auto& showAddress(Node& node) { return node._showAddress; }
    static auto& showConnectionCount(Node& node) { return node._showConnectionCount; }
    static int widthForText(const Node& node) { return node._widthForText; }

    static auto& allTcpNodes() { return TcpNode::__allTcpNodes; }
};
