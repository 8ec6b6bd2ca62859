#pragma once

#include <QByteArray>
#include <QIODevice>
#include <QtEndian>

#include <algorithm>

/// Reads the messages of the bridge protocol where they lie in memory: as QDataStream would read them,
/// big-endian, at a small part of the price. Once something is not wholly there, it reads nothing more. From
/// then on everything is zero or empty, and isComplete() stays false.
class MessageReader
{
public:
    MessageReader() = default;

    /// Reads \a arrived, whose bytes are shared.
    explicit MessageReader(const QByteArray& arrived)
        : _arrived(arrived)
    {
    }

    /// Begins anew with all that \a device has to read. The bytes also stay in the device.
    void peek(QIODevice& device)
    {
        const auto size = static_cast<int>(device.bytesAvailable());
        _arrived.reserve(size);
        _arrived.resize(size);
        _arrived.resize(static_cast<int>(std::max<qint64>(0, device.peek(_arrived.data(), size))));
        _position = 0;
        _isComplete = true;
    }

    /// Drops all bytes, read or not.
    void clear()
    {
        if (_arrived.capacity() > largestKeptRoom)
            _arrived = QByteArray();
        _arrived.resize(0);
        _position = 0;
    }

    int size() const { return _arrived.size(); }
    int position() const { return _position; }  // of the next byte

    bool atEnd() const { return _position == _arrived.size(); }
    bool isComplete() const { return _isComplete; }

    quint8 readByte() { return _take<quint8>(); }
    quint32 readWord() { return _take<quint32>(); }

    /// Takes no memory for bytes that are announced but have not arrived.
    QByteArray readBytes(quint32 length)
    {
        const int start = _position;
        return _arrived.mid(start, _advance(length));
    }

    void skip(quint32 length) { _advance(length); }

private:
    template <typename Number> Number _take()
    {
        const char* bytes = _arrived.constData() + _position;
        return _advance(sizeof(Number)) > 0 ? qFromBigEndian<Number>(bytes) : 0;
    }

    /// Passes \a length bytes, or none when they are not all there. Returns how many.
    int _advance(quint32 length)
    {
        _isComplete = _isComplete && length <= static_cast<quint32>(_arrived.size() - _position);
        const int passed = _isComplete ? static_cast<int>(length) : 0;
        _position += passed;
        return passed;
    }

    // Bytes of room that stay for what arrives next: taking it from the heap for each read costs time.
    static constexpr int largestKeptRoom = 16384;

    QByteArray _arrived;
    int _position = 0;  // of the next byte
    bool _isComplete = true;
};
