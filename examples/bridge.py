"""The bridge between a program and the simulator: the messages and the connection that carries them.

The one place that knows the wire format; docs/protocol.md describes it byte by byte. Every message is a type byte, a
32-bit big-endian length and that many bytes.
"""

from __future__ import annotations

import enum
import fcntl
import select
import socket
import struct
import termios
import time
from dataclasses import dataclass
from typing import Union

DEFAULT_PORT = 8844
HEADER = struct.Struct(">BI")  # message type, length of the body
NULL_LENGTH = 0xFFFFFFFF  # a byte array that is null: no bytes follow
SIOCOUTQ = termios.TIOCOUTQ  # Linux gives both requests the same number
READ_SIZE = 65536
ATTACH_PAUSE = 0.25  # seconds; see Bridge.identify
POLL_PAUSE = 0.0001  # seconds between two looks at the send queue
CLOSE_PATIENCE = 1.0  # seconds that close() gives the simulator to take what is still under way


class MessageType(enum.IntEnum):
    """First byte of a message; a program that sends any other type is disconnected."""

    FRAME = 1  # both ways
    CONFIRMATION = 2  # to the program
    NODE_CONTROL = 3  # from the program; also the identification
    DISCARDED = 4  # from the program: read and dropped
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
    """The byte of a confirmation."""

    DELIVERED = 1
    LOST = 2


class DebugCommand(enum.IntEnum):
    """The byte of a debug command."""

    RUN = 1
    PAUSE = 2
    STEP = 3
    RESET = 4
    QUIT = 5
    IDENTIFY = 6


class ProtocolError(Exception):
    """The simulator sent bytes that are no message."""


class Disconnected(Exception):
    """The simulator closed the connection."""


@dataclass(frozen=True)
class Frame:
    """A frame that arrived at the node, addresses included."""

    payload: bytes


@dataclass(frozen=True)
class Confirmation:
    """What became of one frame sent earlier; it does not say which one."""

    outcome: Outcome


@dataclass(frozen=True)
class Command:
    """A debug command that the user gave to the program."""

    command: DebugCommand


Message = Union[Frame, Confirmation, Command]


def encode_message(message_type: int, body: bytes) -> bytes:
    """Return the bytes of any message."""
    return HEADER.pack(message_type, len(body)) + body


def encode_frame(payload: bytes) -> bytes:
    """Return the message that sends a frame."""
    return encode_message(MessageType.FRAME, payload)


def encode_control(control: NodeControl, data: bytes = b"") -> bytes:
    """Return a node control message; its length counts the sub-type byte too."""
    return encode_message(MessageType.NODE_CONTROL, bytes([control]) + data)


def encode_address(address: bytes) -> bytes:
    """Return the message that identifies the program by address or, later, changes the node's address."""
    return encode_control(NodeControl.ADDRESS, address)


def encode_name(name: str) -> bytes:
    """Return the message that identifies the program by name or, later, changes the node's name."""
    return encode_control(NodeControl.NAME, name.encode("utf-8"))


def encode_activation(active: bool) -> bytes:
    """Return the message that switches the node on or off."""
    return encode_control(NodeControl.ACTIVATE if active else NodeControl.DEACTIVATE)


def encode_color(red: int, green: int, blue: int) -> bytes:
    """Return the message that gives the node a colour, each part from 0 to 255."""
    return encode_control(NodeControl.COLOR, bytes([red, green, blue]))


def decode_message(message_type: int, body: bytes) -> Message:
    """Return the message that the simulator sent; raise ProtocolError when it is none of its three."""
    try:
        if message_type == MessageType.FRAME:
            return Frame(body)
        if message_type == MessageType.CONFIRMATION and len(body) == 1:
            return Confirmation(Outcome(body[0]))
        if message_type == MessageType.DEBUG_COMMAND and len(body) == 1:
            return Command(DebugCommand(body[0]))
    except ValueError as error:
        raise ProtocolError(str(error)) from error
    raise ProtocolError(f"message of type {message_type} with {len(body)} bytes")


class Decoder:
    """Cuts the byte stream into messages; what has arrived only in part waits for its rest."""

    def __init__(self) -> None:
        self._pending = bytearray()

    def feed(self, data: bytes) -> list[Message]:
        """Take bytes as they came and return the messages that are now complete, in their order."""
        self._pending += data
        messages: list[Message] = []
        start = 0
        while len(self._pending) - start >= HEADER.size:
            message_type, length = HEADER.unpack_from(self._pending, start)
            body = start + HEADER.size
            end = body + (0 if length == NULL_LENGTH else length)
            if len(self._pending) < end:
                break
            messages.append(decode_message(message_type, bytes(self._pending[body:end])))
            start = end
        del self._pending[:start]
        return messages


class Bridge:
    """One program's connection to the simulator.

    The simulator drops a connection whose message is only partly there when it looks, and TCP cuts a fast stream
    anywhere. So each message goes out with one call, with TCP_NODELAY set, and only when the kernel holds no byte of
    the one before (can_send). A message then travels in one piece as long as it fits into one TCP segment: some
    32,000 bytes on the local machine, some 1,400 bytes over Ethernet. The wait is also what limits the rate: the
    other kernel may put its acknowledgement off for 40 ms.
    """

    def __init__(self, host: str, port: int, timeout: float) -> None:
        """Connect within timeout seconds; raise OSError when that fails."""
        self._socket = socket.create_connection((host, port), timeout)
        self._socket.settimeout(None)
        self._socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self._decoder = Decoder()

    def identify(self, *, name: str | None = None, address: bytes | None = None) -> list[Message]:
        """Say which node this program drives; return what has come for it meanwhile.

        The simulator expects one of the two, as its network is set, and answers only by closing the connection when
        it knows no such node. Bytes behind an address are kept for the node, so a program may go on at once. Bytes
        that are read together with a name are lost, and nothing tells when the name has been read: the program is
        silent for ATTACH_PAUSE seconds, many times what an idle simulator needs. A refusal shows in that time.
        """
        if address is not None:
            self.send(encode_address(address))
            return []
        self.send(encode_name(name or ""))
        return self._collect(ATTACH_PAUSE)

    def can_send(self) -> bool:
        """Whether the simulator's machine has taken every byte written so far."""
        answer = fcntl.ioctl(self._socket, SIOCOUTQ, struct.pack("i", 0))
        return bool(struct.unpack("i", answer)[0] == 0)

    def send(self, message: bytes) -> None:
        """Write one whole message as soon as that is safe."""
        while not self.can_send():
            time.sleep(POLL_PAUSE)
        try:
            self._socket.sendall(message)
        except ConnectionError as error:
            raise Disconnected from error

    def receive(self, timeout: float) -> list[Message]:
        """Wait up to timeout seconds for bytes and return the messages that they complete, perhaps none."""
        readable, _, _ = select.select([self._socket], [], [], max(timeout, 0.0))
        if not readable:
            return []
        try:
            data = self._socket.recv(READ_SIZE)
        except ConnectionError as error:
            raise Disconnected from error
        if not data:
            raise Disconnected
        return self._decoder.feed(data)

    def close(self) -> None:
        """End the connection so that the simulator still reads all that was written.

        Closing a socket that holds unread bytes resets the connection, and what the simulator has not read yet may
        be lost; so this side reads on until the simulator has closed as well.
        """
        try:
            self._socket.shutdown(socket.SHUT_WR)
            self._collect(CLOSE_PATIENCE)
        except (OSError, Disconnected, ProtocolError):
            pass  # gone already
        self._socket.close()

    def _collect(self, seconds: float) -> list[Message]:
        messages: list[Message] = []
        end = time.monotonic() + seconds
        while (left := end - time.monotonic()) > 0:
            messages += self.receive(left)
        return messages
