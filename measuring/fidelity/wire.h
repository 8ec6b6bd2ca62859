#pragma once

#include "wiring.h"

#include <cstddef>
#include <cstdint>
#include <string>

/// The bridge protocol as plain bytes.
namespace Wire {

using ::addressBytes;
using ::nodeAddress;

enum MessageType : std::uint8_t {
    Frame = 1,         // both ways
    Confirmation = 2,  // to the program
    NodeControl = 3,   // from the program
    DebugCommand = 5,  // to the program
};

enum Identification : std::uint8_t {
    ByAddress = 1,
    ByName = 5,
};

enum Outcome : char {
    Delivered = 1,
    NotDelivered = 2,
};

constexpr std::size_t headerBytes = 5;  // type and 32-bit length, in front of every body
constexpr char broadcastByte = '\xff';

// More unread bytes on a socket could let the kernel cut a message in two, and a node whose message is only
// partly there is dropped.
constexpr std::size_t maximalBytesInFlight = 16 * 1024;

inline std::uint32_t readLength(const char* message)
{
    std::uint32_t value = 0;
    for (std::size_t i = 1; i < headerBytes; ++i)
        value = value << 8 | static_cast<unsigned char>(message[i]);
    return value;
}

inline std::string message(std::uint8_t type, const std::string& body)
{
    std::string bytes(1, static_cast<char>(type));
    for (int shift = 24; shift >= 0; shift -= 8)
        bytes += static_cast<char>(body.size() >> shift & 0xff);
    return bytes + body;
}

/// Bytes of the first whole message in the buffer, 0 if only a part of one is there.
inline std::size_t wholeMessageBytes(const char* buffer, std::size_t size)
{
    if (size < headerBytes)
        return 0;
    const std::size_t bytes = headerBytes + readLength(buffer);
    return bytes <= size ? bytes : 0;
}

inline std::string nodeName(int node)
{
    return "node-" + std::to_string(node);
}

inline std::string identification(Identification kind, int node)
{
    const std::string value = kind == ByName ? nodeName(node) : nodeAddress(node);
    return message(NodeControl, static_cast<char>(kind) + value);
}

}  // namespace Wire
