"""Draw the simulator's random numbers a second time, to know the delay of each single frame."""

from __future__ import annotations

MODULUS = 2**31 - 1
MULTIPLIER = 48271  # each number is so many times the one before, modulo the modulus
DRAWS_PER_BYTE = 8


def delays(seed: int, count: int, frame_bytes: int, delay: int, deviation: int) -> list[int]:
    """Return the delays in ms of so many frames that all arrive over a link that flips no bit."""
    draw = seed % MODULUS or 1
    past_frame = pow(MULTIPLIER, frame_bytes * DRAWS_PER_BYTE, MODULUS)
    drawn = []
    for _ in range(count):
        offset = 0
        if deviation:
            draw = draw * MULTIPLIER % MODULUS
            offset = deviation // 2 - draw % deviation
        drawn.append(max(0, delay - offset))
        draw = draw * past_frame % MODULUS
    return drawn
