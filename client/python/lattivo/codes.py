"""The numbers of the protocol between a program and the simulator."""

from __future__ import annotations

import enum
import struct

DEFAULT_PORT = 8844
HEADER = struct.Struct(">BI")  # message type, length of the body
NULL_LENGTH = 0xFFFFFFFF  # the length of a null byte array: no bytes follow
NODE_CONTROL_HEADER_SIZE = 6  # bytes: those of HEADER and the sub-type, which the length counts too
COLOR_SIZE = 3  # bytes: red, green, blue


class MessageType(enum.IntEnum):
    """First byte of a message. The simulator disconnects a program that sends any other type."""

    FRAME = 1  # both ways
    CONFIRMATION = 2  # to the program
    NODE_CONTROL = 3  # from the program; also the identification
    DISCARDED = 4  # from the program: the simulator reads and drops it
    DEBUG_COMMAND = 5  # to the program
    CLOSE = 7  # from the program: the simulator closes the connection


class NodeControl(enum.IntEnum):
    """First byte in the body of a node control message."""

    ADDRESS = 1
    ACTIVATE = 2
    DEACTIVATE = 3
    COLOR = 4
    NAME = 5


class Outcome(enum.IntEnum):
    """What became of a frame: the byte of a confirmation."""

    DELIVERED = 1
    LOST = 2


class Command(enum.IntEnum):
    """What the user wants a program to do: the byte of a debug command."""

    RUN = 1  # or continue
    PAUSE = 2
    STEP = 3
    RESET = 4
    QUIT = 5
    IDENTIFY = 6  # show yourself
