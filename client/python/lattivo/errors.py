"""The failures of a client: one family, each with a code and a text."""

from __future__ import annotations

import enum


class ErrorCode(enum.IntEnum):
    """Tells failures apart, with the numbers of the kit in C.

    Two of its codes are missing. Where memory is short, Python raises MemoryError. Where the operating system refuses a
    call, there is no connection.
    """

    AGAIN = 1
    WRONG_USE = 2
    TOO_LARGE = 3
    UNKNOWN_HOST = 5
    NO_CONNECTION = 6
    REFUSED = 7
    CLOSED = 8
    FRAME_TOO_LARGE = 9
    PROTOCOL_ERROR = 10


class LattivoError(Exception):
    """Any failure of a client. Its text is one line that names what is wrong."""

    code: ErrorCode


class Timeout(LattivoError):
    """The time that the caller allows is over."""

    code = ErrorCode.AGAIN

    def __init__(self, text: str, sent: int = 0) -> None:
        """Keep how many frames of a send_frames() had been sent."""
        super().__init__(text)
        self.sent = sent


class WrongUse(LattivoError, ValueError):
    """An argument is wrong. Nothing has happened."""

    code = ErrorCode.WRONG_USE


class FrameTooLarge(LattivoError):
    """A message is larger than one segment of the path, so that it cannot be sent whole. Nothing of it was sent."""

    code = ErrorCode.TOO_LARGE

    def __init__(self, text: str, limit: int) -> None:
        """Keep the most bytes that a frame may have."""
        super().__init__(text)
        self.limit = limit


class ConnectError(LattivoError):
    """No connection came about: nobody answers at the host and the port, or not in time."""

    code = ErrorCode.NO_CONNECTION


class UnknownHost(ConnectError):
    """The host has no address."""

    code = ErrorCode.UNKNOWN_HOST


class Refused(ConnectError):
    """The simulator does not take the identification: it has no such node, or expects the other kind."""

    code = ErrorCode.REFUSED


class Disconnected(LattivoError):
    """The connection has ended."""

    code = ErrorCode.CLOSED


class ReceivedFrameTooLarge(LattivoError):
    """A frame arrives that is larger than the largest that the client was opened for."""

    code = ErrorCode.FRAME_TOO_LARGE

    def __init__(self, text: str, limit: int) -> None:
        """Keep the most bytes that a frame may have."""
        super().__init__(text)
        self.limit = limit


class ProtocolError(LattivoError):
    """What arrives is no message."""

    code = ErrorCode.PROTOCOL_ERROR
