#pragma once

#include <QByteArray>

/// Draws which bits of a frame a link flips, from the process-wide qrand() sequence. It uses the numbers
/// of one qrand() call a bit and leaves the generator in the same state, at a small part of the price.
class BitErrors
{
public:
    /// Draws once for each bit, byte 0 first and within a byte the least significant bit first. Flips the bit
    /// when \a reliability is not greater than draw / 2147483647.0.
    /// Returns the mask of flipped bits, \a size bytes, or an empty array when it flips none.
    static QByteArray drawMask(int size, double reliability);

private:
    friend class TestBitErrors;

    struct Source {
        int (*draw)();                 // 0 to 2147483647
        void (*setState)(uint state);  // called only when the draws come from the known generator
    };

    static QByteArray _drawMask(int size, double reliability, const Source& source);
    static int _largestKept(double reliability);
};
