"""Builds and checks the frames that sender.py and receiver.py exchange: numbered, with a checksum of their own.

    destination (6)  source (6)  number (4)  filler  CRC-32 of all before it (4)

The addresses stand where a new network expects them. The simulated link may hand on a frame whose bits it changed;
the checksum shows that.
"""

from __future__ import annotations

import struct
import zlib

ADDRESS_LENGTH = 6
NUMBER = struct.Struct(">I")
CHECKSUM = struct.Struct(">I")
NUMBER_OFFSET = 2 * ADDRESS_LENGTH
SMALLEST_FRAME = NUMBER_OFFSET + NUMBER.size + CHECKSUM.size


def parse_address(text: str) -> bytes:
    """Return the address written in hexadecimal, with or without colons; raise ValueError when it is none."""
    address = bytes.fromhex(text.replace(":", ""))
    if len(address) != ADDRESS_LENGTH:
        raise ValueError(f"an address has {ADDRESS_LENGTH} bytes")
    return address


def build_frame(destination: bytes, source: bytes, number: int, size: int) -> bytes:
    """Return a frame of size bytes in all, at least SMALLEST_FRAME."""
    start = destination + source + NUMBER.pack(number)
    filler = bytes(index & 0xFF for index in range(size - len(start) - CHECKSUM.size))
    content = start + filler
    return content + CHECKSUM.pack(zlib.crc32(content))


def number_of(frame: bytes) -> int | None:
    """Return the number of a frame that arrived unharmed, else None."""
    if len(frame) < SMALLEST_FRAME:
        return None
    content, checksum = frame[: -CHECKSUM.size], frame[-CHECKSUM.size :]
    if CHECKSUM.unpack(checksum)[0] != zlib.crc32(content):
        return None
    number: int = NUMBER.unpack_from(content, NUMBER_OFFSET)[0]
    return number
