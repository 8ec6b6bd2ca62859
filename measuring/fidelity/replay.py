"""The simulator's random numbers drawn a second time, to know the delay of each single frame."""

import functools

MODULUS = 2**31 - 1
MULTIPLIER = 48271
DRAWS_PER_BYTE = 8


class Draws:
    """Each number is 48271 times the one before, modulo 2^31 - 1."""

    def __init__(self, seed):
        self._state = seed % MODULUS or 1

    def next(self):
        self._state = self._state * MULTIPLIER % MODULUS
        return self._state

    def skip(self, count):
        self._state = self._state * _power(count) % MODULUS


@functools.lru_cache
def _power(count):
    return pow(MULTIPLIER, count, MODULUS)


def delays(seed, count, frame_bytes, delay, deviation):
    """In ms, of so many frames that all arrive over a link that flips no bit."""
    draws = Draws(seed)
    drawn = []
    for _ in range(count):
        offset = deviation // 2 - draws.next() % deviation if deviation else 0
        drawn.append(max(0, delay - offset))
        draws.skip(frame_bytes * DRAWS_PER_BYTE)
    return drawn
