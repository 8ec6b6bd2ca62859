"""The client for asyncio.

    async with lattivo.aio.connect(name="Left") as client:
        await client.send_frame(frame)
        async for message in client:
            ...
"""

from __future__ import annotations

import asyncio
import functools
import select
import socket
from types import TracebackType
from typing import (
    Any,
    AsyncIterator,
    Callable,
    Coroutine,
    Dict,
    Generator,
    Iterable,
    List,
    Optional,
    Sequence,
    Type,
    TypeVar,
)

from . import messages, steps
from .channel import Channel
from .client import CLOSE_TIMEOUT, CONNECT_TIMEOUT, LARGEST_FRAME, close_timeout
from .codes import DEFAULT_PORT
from .errors import Disconnected, FrameTooLarge, LattivoError, UnknownHost
from .messages import Message

SENDS_AT_A_TIME = 16  # then other tasks have their turn
TURN = steps.Wait(-1, 0)

Result = TypeVar("Result")


class Client:
    """A program that drives one node of the network.

    Several tasks may use one client; close() ends those that wait with Disconnected. All failures are a LattivoError.
    A task that is cancelled while it sends a frame has sent nothing of it. Only where memory is short may it have sent a
    part, whose rest leaves with the next call. Nothing is read until somebody receives.
    """

    def __init__(self, channel: Channel) -> None:
        """Use connect()."""
        self._channel = channel
        self._sending = asyncio.Lock()
        self._receiving = asyncio.Lock()
        self._waits = _Waits()
        self._sends = 0

    @property
    def largest_sendable_frame(self) -> int:
        """The most bytes of a frame that one segment of the path holds; a larger one is refused."""
        return self._channel.largest_frame

    async def send_frame(self, frame: bytes) -> None:
        """Send a frame as soon as that is safe."""
        await self._send(messages.encode_frame(frame))

    async def send_frames(self, frames: Iterable[bytes]) -> int:
        """Send frames, with each call as many as a segment holds; return how many.

        Those before one that is too large are sent. When this is cancelled, a part of them has been sent.
        """
        channel = self._channel
        count = 0
        async with self._sending:
            try:
                for frame in frames:
                    message = messages.encode_frame(frame)
                    if not channel.queue(message):
                        await self._waits.run(steps.flush(channel))
                        await self._waits.wait(TURN)
                        channel.queue(message)
                    count += 1
                await self._waits.run(steps.flush(channel))
            except FrameTooLarge:
                await self._waits.run(steps.flush(channel))
                raise
            finally:
                channel.withdraw()
        return count

    async def set_address(self, address: bytes) -> None:
        """Give the node another address. The simulator ignores one of another length."""
        await self._send(messages.encode_address(address))

    async def set_name(self, name: str) -> None:
        """Give the node another name."""
        await self._send(messages.encode_name(name))

    async def activate(self) -> None:
        """Switch the node on."""
        await self._send(messages.encode_activation(True))

    async def deactivate(self) -> None:
        """Switch the node off: it neither sends nor receives."""
        await self._send(messages.encode_activation(False))

    async def set_color(self, red: int, green: int, blue: int) -> None:
        """Give the node a colour, each part from 0 to 255."""
        await self._send(messages.encode_color(red, green, blue))

    async def receive(self) -> Message:
        """Return the next message."""
        async with self._receiving:
            message = self._channel.decoder.next_message()
            while message is None:
                await self._fill()
                message = self._channel.decoder.next_message()
            return message

    async def receive_messages(self) -> List[Message]:
        """Return the next messages, at least one: all that are here."""
        async with self._receiving:
            while not self._channel.decoder.has_message:
                await self._fill()
            return self._channel.decoder.take_messages()

    async def __aiter__(self) -> AsyncIterator[Message]:
        """Give the messages as they come, until the connection has ended."""
        try:
            while True:
                yield await self.receive()  # one at a time: a loop that breaks off leaves the others
        except Disconnected:
            return

    async def close(self, timeout: Optional[float] = CLOSE_TIMEOUT) -> bool:
        """Wait until the simulator has read all that was sent and close; never raise a LattivoError.

        Return whether it has read all. False: the timeout came first, or the connection had ended before. Messages that
        still arrive are dropped.
        """
        self._waits.end()
        try:
            await asyncio.wait_for(self._close(), timeout)
            return True
        except (LattivoError, asyncio.TimeoutError):
            return False
        finally:
            self._channel.close()

    async def _close(self) -> None:
        async with self._sending, self._receiving:  # those that waited have gone
            await _Waits().run(steps.close(self._channel))

    async def _send(self, message: bytes) -> None:
        channel = self._channel
        async with self._sending:
            self._sends += 1
            if self._sends % SENDS_AT_A_TIME == 0:
                await self._waits.wait(TURN)  # before the message leaves: this is where a task may be cancelled
            if not channel.send_at_once(message):
                await self._waits.run(steps.send(channel, message))
            if channel.wants_to_write:  # a rest, since memory is short
                await self._waits.run(steps.flush(channel))

    async def _fill(self) -> None:
        if self._channel.read():
            await self._waits.wait(TURN)
        else:
            await self._waits.wait(steps.Wait(self._channel.fileno(), select.POLLIN))


class _Opening:
    """What connect() returns: to be awaited, or to be entered."""

    def __init__(self, opening: Coroutine[Any, Any, Client]) -> None:
        self._opening = opening
        self._client: Optional[Client] = None

    def __await__(self) -> Generator[Any, Any, Client]:
        return self._opening.__await__()

    async def __aenter__(self) -> Client:
        self._client = await self._opening
        return self._client

    async def __aexit__(
        self, kind: Optional[Type[BaseException]], error: Optional[BaseException], trace: Optional[TracebackType]
    ) -> None:
        assert self._client
        await self._client.close(close_timeout(error))


def connect(
    host: str = "127.0.0.1",
    port: int = DEFAULT_PORT,
    *,
    name: Optional[str] = None,
    address: Optional[bytes] = None,
    largest_frame: int = LARGEST_FRAME,
    timeout: Optional[float] = CONNECT_TIMEOUT,
    attach_pause: Optional[float] = None,
    end_of_record: bool = True,
) -> _Opening:
    """Connect and identify, as lattivo.Client.connect() does: await it, or use it with "async with".

    asyncio.ensure_future() makes a task of it; asyncio.create_task() takes coroutines only.
    """
    steps.check_opening(port, name, address, timeout, attach_pause)  # raises WrongUse here, not later
    opening = functools.partial(
        steps.open_channel,
        host,
        port,
        name=name,
        address=address,
        largest_frame=largest_frame,
        timeout=timeout,
        attach_pause=attach_pause,
        end_of_record=end_of_record,
    )
    return _Opening(_open(opening, host, port, timeout))


async def _open(
    opening: Callable[[Sequence[steps.AddressInfo]], steps.Steps[Channel]],
    host: str,
    port: int,
    timeout: Optional[float],
) -> Client:
    try:
        addresses = await asyncio.get_running_loop().getaddrinfo(host, port, type=socket.SOCK_STREAM)
    except (OSError, UnicodeError) as error:
        raise UnknownHost(f"no address of {host}: {error}") from error
    try:
        return Client(await asyncio.wait_for(_Waits().run(opening(addresses)), timeout))
    except asyncio.TimeoutError:
        raise steps.no_answer(host, port, timeout) from None


class _Waits:
    """What the tasks of one client wait for: each event at most once, since the loop calls only one task for it."""

    def __init__(self) -> None:
        self._ready: Dict[steps.Wait, asyncio.Future[None]] = {}
        self._are_over = False

    async def run(self, work: steps.Steps[Result]) -> Result:
        """Do the steps; a task that is cancelled ends them early."""
        try:
            while True:
                await self.wait(next(work))
        except StopIteration as done:
            result: Result = done.value
            return result
        finally:
            work.close()

    async def wait(self, wait: steps.Wait) -> None:
        """Return when the wait is over; raise Disconnected after end()."""
        if self._are_over:
            raise _closed()
        if not wait.events:
            await asyncio.sleep(wait.seconds or 0.0)
            return
        loop = asyncio.get_running_loop()
        ready = self._ready[wait] = loop.create_future()
        if wait.events & select.POLLIN:
            loop.add_reader(wait.descriptor, _wake, ready)
        if wait.events & select.POLLOUT:
            loop.add_writer(wait.descriptor, _wake, ready)
        try:
            await asyncio.wait_for(ready, wait.seconds)
        except asyncio.TimeoutError:
            pass
        finally:
            self._forget(wait)

    def end(self) -> None:
        """End all waits, now and from now on."""
        self._are_over = True
        for wait, ready in list(self._ready.items()):
            self._forget(wait)  # at once: the descriptor may soon be another's
            if not ready.done():
                ready.set_exception(_closed())

    def _forget(self, wait: steps.Wait) -> None:
        if self._ready.pop(wait, None) is None:
            return
        loop = asyncio.get_running_loop()
        if wait.events & select.POLLIN:
            loop.remove_reader(wait.descriptor)
        if wait.events & select.POLLOUT:
            loop.remove_writer(wait.descriptor)


def _wake(ready: asyncio.Future[None]) -> None:
    if not ready.done():
        ready.set_result(None)


def _closed() -> Disconnected:
    return Disconnected("this client has been closed")
