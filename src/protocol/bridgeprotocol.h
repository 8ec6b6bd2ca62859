#pragma once

#include "lattivo_protocol.h"

#include <QByteArray>
#include <QString>

/// The protocol between a TCP node and its program. A message is a type byte, a length of 32 bits and that
/// many bytes. Numbers are big-endian: QDataStream writes a byte array in this way.
namespace Bridge {

enum MessageType : quint8 {
    Frame = LATTIVO_MESSAGE_FRAME,                ///< both ways
    Confirmation = LATTIVO_MESSAGE_CONFIRMATION,  ///< to the program
    NodeControl = LATTIVO_MESSAGE_NODE_CONTROL,   ///< from the program
    Ignored = LATTIVO_MESSAGE_DISCARDED,          ///< from the program; read and discarded
    Debug = LATTIVO_MESSAGE_DEBUG_COMMAND,        ///< to the program
    Goodbye = LATTIVO_MESSAGE_CLOSE,  ///< from the program; read and discarded, then the connection is closed
};

/// The first byte of a NodeControl message's body.
enum NodeControlType : quint8 {
    SetAddress = LATTIVO_CONTROL_ADDRESS,
    Enable = LATTIVO_CONTROL_ACTIVATE,
    Disable = LATTIVO_CONTROL_DEACTIVATE,
    SetColor = LATTIVO_CONTROL_COLOUR,
    SetName = LATTIVO_CONTROL_NAME,
};

/// The only byte of a Confirmation message's body.
enum Outcome : quint8 {
    FrameDelivered = LATTIVO_DELIVERED,
    FrameNotDelivered = LATTIVO_LOST,
};

constexpr int headerSize = LATTIVO_HEADER_SIZE;                          // type and length
constexpr int nodeControlHeaderSize = LATTIVO_NODE_CONTROL_HEADER_SIZE;  // and the sub-type
constexpr quint32 colorSize = LATTIVO_COLOUR_SIZE;                       // red, green, blue

/// Reads a name: UTF-8 up to the first zero byte.
inline QString nameFromBytes(const QByteArray& bytes)
{
    return QString::fromUtf8(bytes.constData(),
                             static_cast<int>(qstrnlen(bytes.constData(), static_cast<uint>(bytes.size()))));
}

}  // namespace Bridge
