#include "protocol/messageoutput.h"

#include "protocol/bridgeprotocol.h"

#include <QTcpSocket>
#include <QtEndian>

#include <sys/socket.h>

#include <algorithm>

namespace {

// Bytes of room that stay for the next messages: taking it from the heap for each pass costs time.
constexpr int smallestRoom = 1024;
constexpr int largestKeptRoom = 16384;

}  // namespace

void MessageOutput::append(quint8 type, const QByteArray& body)
{
    const int start = _bytes.size();
    _bytes.resize(start + Bridge::headerSize + body.size());
    char* message = _bytes.data() + start;
    message[0] = static_cast<char>(type);
    qToBigEndian(static_cast<quint32>(body.size()), message + 1);
    std::copy(body.begin(), body.end(), message + Bridge::headerSize);
}

void MessageOutput::clear()
{
    if (_bytes.capacity() > largestKeptRoom)
        _bytes = QByteArray();
    _bytes.reserve(smallestRoom);
    _bytes.resize(0);
}

void MessageOutput::giveToKernel(const QTcpSocket& socket)
{
    if (socket.bytesToWrite() > 0)
        return;
    const auto descriptor = static_cast<int>(socket.socketDescriptor());
    const auto size = static_cast<size_t>(_bytes.size());
    const ssize_t sent = ::send(descriptor, _bytes.constData(), size, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent == _bytes.size())
        clear();
    else if (sent > 0)
        _bytes.remove(0, static_cast<int>(sent));
}

void MessageOutput::giveToSocket(QTcpSocket& socket)
{
    socket.write(_bytes.constData(), _bytes.size());
    clear();
}
