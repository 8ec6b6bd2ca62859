#pragma once

#include <cstddef>
#include <string>

// Load client, limit server and makesimulation.py agree on this.

constexpr std::size_t addressBytes = 6;

inline std::string nodeAddress(int node)
{
    std::string address(addressBytes, '\0');
    address[0] = 2;  // locally administered
    address[addressBytes - 2] = static_cast<char>(node >> 8);
    address[addressBytes - 1] = static_cast<char>(node);
    return address;
}

/// Either pairs (node 0 sends to node 1, 2 to 3, ...) or a star: node 0 broadcasts to nodes 1 to starLinks.
struct Wiring {
    int pairs = 1;
    int starLinks = 0;  // 0: pairs

    bool isStar() const { return starLinks > 0; }
    int senderCount() const { return isStar() ? 1 : pairs; }
    int receiversPerSender() const { return isStar() ? starLinks : 1; }
    int nodeCount() const { return senderCount() * (1 + receiversPerSender()); }
    int sender(int index) const { return index * (1 + receiversPerSender()); }
};
