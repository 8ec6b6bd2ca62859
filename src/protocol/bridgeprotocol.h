#pragma once

#include <QByteArray>
#include <QString>

/// The message protocol between a TCP node and its program. A message is a type byte, a length of 32 bits and
/// that many bytes, big-endian: what QDataStream writes for a byte array.
namespace Bridge {

enum MessageType : quint8 {
    Frame = 1,         ///< both ways
    Confirmation = 2,  ///< to the program
    NodeControl = 3,   ///< from the program
    Ignored = 4,       ///< from the program; read and discarded
    Debug = 5,         ///< to the program
    Goodbye = 7,       ///< from the program; read and discarded, then the connection is closed
};

/// The first byte of a NodeControl message's body.
enum NodeControlType : quint8 {
    SetAddress = 1,
    Enable = 2,
    Disable = 3,
    SetColor = 4,
    SetName = 5,
};

/// The only byte of a Confirmation message's body.
enum Outcome : quint8 {
    FrameDelivered = 1,
    FrameNotDelivered = 2,
};

constexpr int headerSize = 5;             // type and length
constexpr int nodeControlHeaderSize = 6;  // and the sub-type
constexpr quint32 colorSize = 3;          // red, green, blue

/// UTF-8 up to the first zero byte.
inline QString nameFromBytes(const QByteArray& bytes)
{
    return QString::fromUtf8(bytes.constData(),
                             static_cast<int>(qstrnlen(bytes.constData(), static_cast<uint>(bytes.size()))));
}

}  // namespace Bridge
