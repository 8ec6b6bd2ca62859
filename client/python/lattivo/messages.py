"""The messages: what each looks like in bytes, and how a stream of bytes is cut into them.

A message is a type byte, a length of 32 bits (big-endian) and a body of that many bytes.
"""

from __future__ import annotations

from dataclasses import dataclass
from typing import List, Optional, Union

from .codes import HEADER, NULL_LENGTH, Command, MessageType, NodeControl, Outcome
from .errors import LattivoError, ProtocolError, ReceivedFrameTooLarge, WrongUse

READ_SIZE = 65536  # bytes that one read takes at least, if so many have arrived


@dataclass(frozen=True)
class Frame:
    """A frame that arrived at the node, addresses included."""

    payload: bytes


@dataclass(frozen=True)
class Confirmation:
    """What became of one frame sent earlier. It does not say which one."""

    outcome: Outcome


@dataclass(frozen=True)
class DebugCommand:
    """A debug command that the user gave to the program."""

    command: Command


Message = Union[Frame, Confirmation, DebugCommand]

_CONFIRMATIONS = {outcome.value: Confirmation(outcome) for outcome in Outcome}
_DEBUG_COMMANDS = {command.value: DebugCommand(command) for command in Command}


def encode_message(message_type: int, body: bytes) -> bytes:
    """Return the bytes of any message."""
    try:
        return HEADER.pack(message_type, memoryview(body).nbytes) + body  # len() may count items of several bytes
    except TypeError as error:
        raise _wrong_type("a frame is made of bytes", body) from error


def encode_frame(payload: bytes) -> bytes:
    """Return the message that sends a frame."""
    return encode_message(MessageType.FRAME, payload)


def encode_control(control: NodeControl, data: bytes = b"") -> bytes:
    """Return a node control message; its length counts the sub-type byte too."""
    return encode_message(MessageType.NODE_CONTROL, bytes([control]) + data)


def encode_address(address: bytes) -> bytes:
    """Return the message that identifies the program by address or, later, changes the node's address."""
    try:
        return encode_control(NodeControl.ADDRESS, address)
    except TypeError as error:
        raise _wrong_type("an address is made of bytes", address) from error


def encode_name(name: str) -> bytes:
    """Return the message that identifies the program by name or, later, changes the node's name."""
    try:
        data = name.encode("utf-8")
    except AttributeError as error:
        raise _wrong_type("a name is text", name) from error
    except UnicodeEncodeError as error:
        raise WrongUse(f"a name is text that UTF-8 can hold, not {name!r}") from error
    if 0 in data:
        raise WrongUse("a name holds no zero byte: it would end there")
    return encode_control(NodeControl.NAME, data)


def encode_activation(active: bool) -> bytes:
    """Return the message that switches the node on or off."""
    return encode_control(NodeControl.ACTIVATE if active else NodeControl.DEACTIVATE)


def encode_color(red: int, green: int, blue: int) -> bytes:
    """Return the message that gives the node a colour, each part from 0 to 255."""
    try:
        return encode_control(NodeControl.COLOR, bytes([red, green, blue]))
    except ValueError as error:
        raise WrongUse(f"a part of a colour is from 0 to 255, not {max(red, green, blue, key=abs)}") from error


def encode_identification(name: Optional[str], address: Optional[bytes]) -> bytes:
    """Return the first message of a program, which needs one of the two."""
    if name is not None and address is None:
        return encode_name(name)
    if address is not None and name is None:
        return encode_address(address)
    raise WrongUse("a program identifies itself either by name or by address")


def _wrong_type(rule: str, value: object) -> WrongUse:
    """Return what to raise for an argument of another type."""
    return WrongUse(f"{rule}, not {type(value).__name__}")


class Decoder:
    """Cuts the stream of bytes from the simulator into messages, in a buffer that never grows."""

    def __init__(self, largest_frame: int) -> None:
        """Take the buffer for frames of up to this many bytes."""
        if not 1 <= largest_frame < NULL_LENGTH:
            raise WrongUse(f"the largest frame has at least 1 byte, not {largest_frame}")
        self._largest_frame = largest_frame
        self._buffer = bytearray(HEADER.size + largest_frame + READ_SIZE)
        self._view = memoryview(self._buffer)
        self._start = 0  # of the bytes that no message was made of yet
        self._end = 0

    def room(self) -> memoryview:
        """Return where the next bytes belong: at least READ_SIZE once all whole messages have been taken."""
        count = self._end - self._start
        if self._start and len(self._buffer) - self._end < READ_SIZE:
            self._view[:count] = bytes(self._view[self._start : self._end])
            self._start, self._end = 0, count
        return self._view[self._end :]

    def add(self, count: int) -> None:
        """Take over the bytes that have been written into room()."""
        self._end += count

    def clear(self) -> None:
        """Forget all bytes."""
        self._start = self._end = 0

    @property
    def has_message(self) -> bool:
        """Whether next_message() has something to say: a message or an error."""
        try:
            return self._end_of_message() > 0
        except LattivoError:
            return True

    def next_message(self) -> Optional[Message]:
        """Return the next message, nothing while it is not whole; raise the same error again after a wrong one."""
        end = self._end_of_message()
        if not end:
            return None
        body = self._start + HEADER.size
        message_type = self._buffer[self._start]
        message: Optional[Message]
        if message_type == MessageType.FRAME:
            message = Frame(bytes(self._view[body:end]))
        elif message_type == MessageType.CONFIRMATION:
            message = _CONFIRMATIONS.get(self._buffer[body])
        else:
            message = _DEBUG_COMMANDS.get(self._buffer[body])
        if message is None:
            raise ProtocolError(f"the simulator sent a message of type {message_type} with byte {self._buffer[body]}")
        self._start = end
        if end == self._end:
            self._start = self._end = 0
        return message

    def take_messages(self) -> List[Message]:
        """Return all messages that are whole; an error behind them is raised by the next call."""
        messages: List[Message] = []
        try:
            while True:
                message = self.next_message()
                if message is None:
                    return messages
                messages.append(message)
        except LattivoError:
            if not messages:
                raise
            return messages

    def _end_of_message(self) -> int:
        """Where the next message ends; 0 while it is not whole."""
        if self._end - self._start < HEADER.size:
            return 0
        message_type, length = HEADER.unpack_from(self._buffer, self._start)
        if length == NULL_LENGTH:
            length = 0
        if message_type == MessageType.FRAME:
            if length > self._largest_frame:
                raise ReceivedFrameTooLarge(
                    f"a frame of {length} bytes arrives, and this client was opened for {self._largest_frame}",
                    self._largest_frame,
                )
        elif message_type not in (MessageType.CONFIRMATION, MessageType.DEBUG_COMMAND) or length != 1:
            raise ProtocolError(f"the simulator sent a message of type {message_type} with {length} bytes")
        end: int = self._start + HEADER.size + length
        return end if end <= self._end else 0
