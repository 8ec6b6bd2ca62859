#pragma once

#include "commandline.h"
#include "wiring.h"

#include <lattivo.h>

#include <cstdint>
#include <string>

/// Connects the program of a node to a simulator on this machine and identifies it by address. The largest
/// frame is what it can receive, in bytes; 0: the client library's default.
inline lattivo_client* attach(std::uint16_t port, int node, std::size_t largestFrame)
{
    lattivo_options options{};
    options.largest_frame = largestFrame;
    const std::string address = nodeAddress(node);
    lattivo_client* client = nullptr;
    lattivo_result result = lattivo_open(&client, "127.0.0.1", port, &options);
    if (result == LATTIVO_OK)
        result = lattivo_identify_by_address(client, address.data(), address.size());
    if (result != LATTIVO_OK)
        fail(lattivo_error(client));
    return client;
}
