"""What a client does, written once for the blocking and the asynchronous one.

Each function is a generator that yields a Wait whenever it can go no further, and is resumed afterwards. Whoever runs it
ends it early by closing it, when the caller's time is over.
"""

from __future__ import annotations

import errno
import os
import select
import socket
from typing import Any, Generator, List, NamedTuple, Optional, Sequence, Tuple, TypeVar

from . import messages
from .channel import Channel
from .codes import MessageType
from .errors import ConnectError, Disconnected, Refused, WrongUse
from .messages import Decoder, Message

TAKEN_PAUSE = 0.001  # seconds between two looks whether the other kernel has taken the name
KNOCKS = 2
LARGEST_PORT = 65535
LONGEST_WAIT = 2e6  # seconds, 23 days: poll() counts milliseconds in 31 bits

Result = TypeVar("Result")
AddressInfo = Tuple[int, int, int, str, Any]  # as getaddrinfo() gives it


class Wait(NamedTuple):
    """What to wait for: events of a descriptor, as poll() counts them, seconds at most. No events: only the time."""

    descriptor: int
    events: int
    seconds: Optional[float] = None


Steps = Generator[Wait, None, Result]


def check_seconds(seconds: Optional[float]) -> None:
    """Raise WrongUse for a time that the system cannot wait. A negative one is over already."""
    if seconds is not None and not seconds <= LONGEST_WAIT:
        raise WrongUse(f"a time is at most {LONGEST_WAIT:g} s, not {seconds:g}; None has no end")


def check_opening(
    port: int, name: Optional[str], address: Optional[bytes], timeout: Optional[float], attach_pause: Optional[float]
) -> None:
    """Raise WrongUse for what cannot be opened, before anything happens."""
    messages.encode_identification(name, address)
    if not 1 <= port <= LARGEST_PORT:
        raise WrongUse(f"a port is from 1 to {LARGEST_PORT}, not {port}")
    check_seconds(timeout)
    check_seconds(attach_pause)
    if attach_pause is not None and attach_pause < 0:
        raise WrongUse(f"a pause is not negative: {attach_pause:g}")


def open_channel(
    host: str,
    port: int,
    addresses: Sequence[AddressInfo],
    *,
    name: Optional[str],
    address: Optional[bytes],
    largest_frame: int,
    timeout: Optional[float],
    attach_pause: Optional[float],
    end_of_record: bool,
) -> Steps[Channel]:
    """Connect to the first of the addresses that answers and identify the program.

    Whoever runs this ends it when the timeout is over.
    """
    identification = messages.encode_identification(name, address)
    place = f"the simulator at {host} port {port}"
    doubt = "; perhaps it identifies programs by address"
    if address is not None:
        doubt = f"; perhaps it has no node of the address {bytes(address).hex()}, or identifies programs by name"
    decoder = Decoder(largest_frame)
    connected, peer = yield from _connect_to_any(host, port, addresses, timeout)
    try:
        channel = Channel(connected, decoder, place, doubt, end_of_record=end_of_record)
        yield from send(channel, identification)
        if name is not None and attach_pause is None:
            yield from _await_attachment(channel, connected.family, peer)
        elif name is not None:
            yield Wait(channel.fileno(), 0, attach_pause)
            channel.read()
    except Disconnected:
        connected.close()
        who = "the address" if name is None else f'the name "{name}"'
        raise Refused(f"{place} has refused {who}{doubt}") from None
    except OSError as error:
        connected.close()
        raise ConnectError(f"{host} port {port} cannot be reached again: {error.strerror}") from error
    except BaseException:
        connected.close()
        raise
    return channel


def no_answer(host: str, port: int, timeout: Optional[float]) -> ConnectError:
    """Return what to raise when open_channel() lasts too long."""
    return ConnectError(f"{host} port {port} has not answered for {timeout:g} s")


def _connect_to_any(
    host: str, port: int, addresses: Sequence[AddressInfo], timeout: Optional[float]
) -> Steps[Tuple[socket.socket, Any]]:
    reason = "it has no address"
    share = timeout / len(addresses) if timeout and addresses else None  # one that is silent leaves time to the others
    for number, (family, kind, protocol, _, address) in enumerate(addresses, 1):
        try:
            connected = socket.socket(family, kind, protocol)
            try:
                yield from _connect(connected, address, share if number < len(addresses) else None)
            except BaseException:
                connected.close()
                raise
            return connected, address
        except OSError as error:
            reason = error.strerror or str(error)
    raise ConnectError(f"no connection to {host} port {port}: {reason}")


def _connect(unconnected: socket.socket, address: Any, seconds: Optional[float] = None) -> Steps[None]:
    unconnected.setblocking(False)
    error = unconnected.connect_ex(address)
    if error == errno.EINPROGRESS:
        yield Wait(unconnected.fileno(), select.POLLOUT, seconds)
        error = unconnected.connect_ex(address)  # tells what has become of it
    if error not in (0, errno.EISCONN):
        raise OSError(error, os.strerror(error))


def _await_attachment(channel: Channel, family: int, peer: Any) -> Steps[None]:
    """Wait until the simulator has read the name: what it reads together with a name is lost, and it does not answer.

    It takes connections one after the other, and looks at all that have sent something before it looks again. So when
    it has ended a second connection, it is about to look at the first at the latest; when it has ended a third one,
    which was made after that, it has looked.
    """
    while not channel.has_been_taken():
        yield Wait(channel.fileno(), 0, TAKEN_PAUSE)
    for _ in range(KNOCKS):
        if channel.read():
            return  # it says something: it has attached the program
        yield from _knock(family, peer)
    channel.read()


def _knock(family: int, peer: Any) -> Steps[None]:
    """Connect once more and wait until the simulator has ended that connection."""
    with socket.socket(family, socket.SOCK_STREAM) as knock:
        try:
            yield from _connect(knock, peer)
            knock.send(messages.encode_message(MessageType.CLOSE, b""), socket.MSG_NOSIGNAL)
        except ConnectionError:
            return  # a server that is switched off has ended all connections that are not identified
        yield Wait(knock.fileno(), select.POLLIN)


def send(channel: Channel, message: bytes) -> Steps[None]:
    """Send a message by itself; when this is ended early, nothing of it was sent.

    Where memory is short, a rest of it waits for flush().
    """
    yield from flush(channel)
    while not channel.send_at_once(message):
        yield _writing(channel)


def flush(channel: Channel) -> Steps[None]:
    """Give all that is queued to the kernel."""
    while not channel.flush():
        yield _writing(channel)


def receive(channel: Channel) -> Steps[Message]:
    """Return the next message; send meanwhile what is queued."""
    while True:
        message = channel.decoder.next_message()
        if message is not None:
            return message
        yield from fill(channel)


def receive_messages(channel: Channel) -> Steps[List[Message]]:
    """Return the next messages, at least one: all that are whole."""
    while not channel.decoder.has_message:
        yield from fill(channel)
    return channel.decoder.take_messages()


def fill(channel: Channel) -> Steps[None]:
    """Read what comes next; send meanwhile what is queued."""
    while not channel.read():
        wait = Wait(channel.fileno(), select.POLLIN)
        if not channel.flush():
            writing = _writing(channel)
            wait = Wait(channel.fileno(), select.POLLIN | writing.events, writing.seconds)
        yield wait


def close(channel: Channel) -> Steps[None]:
    """Send what is queued, then read until the simulator has closed too.

    A socket that is closed with unread bytes resets the connection, and messages that the simulator has not read yet
    are lost.
    """
    yield from flush(channel)
    channel.shut_down()
    yield Wait(channel.fileno(), select.POLLIN)
    while channel.discard():
        yield Wait(channel.fileno(), select.POLLIN)


def _writing(channel: Channel) -> Wait:
    if channel.retry_after is None:
        return Wait(channel.fileno(), select.POLLOUT)
    return Wait(channel.fileno(), 0, channel.retry_after)
