#pragma once

#include <QByteArray>

/// Draws which bits of a frame are flipped on a link, from the process-wide qrand() sequence. The numbers,
/// and the state of the generator afterwards, are those of one qrand() call a bit, at a small part of the
/// price.
class BitErrors
{
public:
    /// One draw a bit, byte 0 first and within a byte the least significant bit first; a bit is flipped when
    /// \a reliability is not greater than draw / 2147483647.0.
    /// Returns the mask of flipped bits, \a size bytes; an empty array when no bit was flipped.
    static QByteArray drawMask(int size, double reliability);

private:
    friend class TestBitErrors;

    struct Source {
        int (*draw)();                 // 0 to 2147483647
        void (*setState)(uint state);  // called only after draws that were those of the known generator
    };

    static QByteArray _drawMask(int size, double reliability, const Source& source);
    static int _largestKept(double reliability);
};
