"""The blocking client."""

from __future__ import annotations

import contextlib
import select
import socket
import time
from types import TracebackType
from typing import Iterable, Iterator, List, Optional, Sequence, Type

from . import messages, steps
from .channel import Channel
from .codes import DEFAULT_PORT
from .errors import Disconnected, FrameTooLarge, LattivoError, Timeout, UnknownHost
from .messages import Message

CONNECT_TIMEOUT = 10.0  # seconds, until the program is attached
CLOSE_TIMEOUT = 10.0  # seconds; a simulator that is held up has so long to read the last messages
LARGEST_FRAME = 65536  # bytes


class Client:
    """A program that drives one node of the network.

    Every timeout is in seconds, and None waits without end. A client belongs to one thread. All failures are a
    LattivoError; when the connection has ended, sending and receiving raise Disconnected.
    """

    def __init__(self, channel: Channel) -> None:
        """Use connect()."""
        self._channel = channel

    @classmethod
    def connect(
        cls,
        host: str = "127.0.0.1",
        port: int = DEFAULT_PORT,
        *,
        name: Optional[str] = None,
        address: Optional[bytes] = None,
        largest_frame: int = LARGEST_FRAME,
        timeout: Optional[float] = CONNECT_TIMEOUT,
        attach_pause: Optional[float] = None,
        end_of_record: bool = True,
    ) -> Client:
        """Connect and identify as the node of this name or of this address, as the simulator's network is set.

        The client takes frames of up to largest_frame bytes; let it be the network's maximal transfer unit at least.
        With attach_pause the client waits so many seconds behind a name and makes no further connections: for a
        tunnel, which may carry each connection at its own speed.
        end_of_record=False sends slowly, as on a platform without MSG_EOR.
        The timeout does not end the look-up of the host, which the system does in its own time.
        """
        steps.check_opening(port, name, address, timeout, attach_pause)
        deadline = Deadline(timeout)
        opening = steps.open_channel(
            host,
            port,
            look_up(host, port),
            name=name,
            address=address,
            largest_frame=largest_frame,
            timeout=timeout,
            attach_pause=attach_pause,
            end_of_record=end_of_record,
        )
        try:
            return cls(run(opening, deadline))
        except Timeout:
            raise steps.no_answer(host, port, timeout) from None

    # Sending

    @property
    def largest_sendable_frame(self) -> int:
        """The most bytes of a frame that one segment of the path holds; a larger one is refused."""
        return self._channel.largest_frame

    def send_frame(self, frame: bytes, timeout: Optional[float] = None) -> None:
        """Send a frame as soon as that is safe; after a Timeout nothing of it was sent."""
        self._send(messages.encode_frame(frame), timeout)

    def send_frames(self, frames: Iterable[bytes], timeout: Optional[float] = None) -> int:
        """Send frames, with each call as many as a segment holds; return how many.

        A Timeout says in its member sent how many were sent. Those before one that is too large are sent.
        """
        channel, deadline = self._channel, Deadline(timeout)
        run(steps.flush(channel), deadline)  # what queue_frame() has taken stays queued after a Timeout
        sent = queued = 0
        try:
            try:
                for frame in frames:
                    message = messages.encode_frame(frame)
                    if not channel.queue(message):
                        run(steps.flush(channel), deadline)
                        sent, queued = sent + queued, 0
                        channel.queue(message)
                    queued += 1
            except FrameTooLarge:
                run(steps.flush(channel), deadline)
                raise
            run(steps.flush(channel), deadline)
        except Timeout as error:
            channel.withdraw()
            raise Timeout(str(error), sent) from None
        return sent + queued

    def set_address(self, address: bytes, timeout: Optional[float] = None) -> None:
        """Give the node another address. The simulator ignores one of another length."""
        self._send(messages.encode_address(address), timeout)

    def set_name(self, name: str, timeout: Optional[float] = None) -> None:
        """Give the node another name."""
        self._send(messages.encode_name(name), timeout)

    def activate(self, timeout: Optional[float] = None) -> None:
        """Switch the node on."""
        self._send(messages.encode_activation(True), timeout)

    def deactivate(self, timeout: Optional[float] = None) -> None:
        """Switch the node off: it neither sends nor receives."""
        self._send(messages.encode_activation(False), timeout)

    def set_color(self, red: int, green: int, blue: int, timeout: Optional[float] = None) -> None:
        """Give the node a colour, each part from 0 to 255."""
        self._send(messages.encode_color(red, green, blue), timeout)

    # Receiving

    def receive(self, timeout: Optional[float] = None) -> Optional[Message]:
        """Return the next message; None when none has come in time. Send meanwhile what is queued."""
        deadline = Deadline(timeout)
        message = self._channel.decoder.next_message()
        if message is not None:
            return message
        try:
            return run(steps.receive(self._channel), deadline)
        except Timeout:
            return None

    def receive_messages(self, timeout: Optional[float] = None) -> List[Message]:
        """Return all messages that are here, at least one; none when none has come in time."""
        try:
            return run(steps.receive_messages(self._channel), Deadline(timeout))
        except Timeout:
            return []

    def __iter__(self) -> Iterator[Message]:
        """Give the messages as they come, until the connection has ended."""
        try:
            while (message := self.receive()) is not None:
                yield message  # one at a time: a loop that breaks off leaves the others
        except Disconnected:
            return

    # A loop of the program's own, on select() or poll()

    def fileno(self) -> int:
        """Return the descriptor to wait for input on; -1 once closed."""
        return self._channel.fileno()

    @property
    def has_more(self) -> bool:
        """Whether a message is here already, of which select() would tell nothing."""
        return self._channel.decoder.has_message

    @property
    def wants_to_write(self) -> bool:
        """Whether flush() is to be called when the descriptor takes output."""
        return self._channel.wants_to_write and self._channel.retry_after is None

    @property
    def wait_time(self) -> Optional[float]:
        """Seconds after which flush() is to be called in any case; None when there is no need."""
        return self._channel.retry_after if self._channel.wants_to_write else None

    def queue_frame(self, frame: bytes) -> bool:
        """Queue a frame to leave with others by flush(); return False while the queue, one segment, is full."""
        return self._channel.queue(messages.encode_frame(frame))

    def flush(self) -> bool:
        """Send what is queued, without waiting; return whether all of it has left."""
        return self._channel.flush()

    def try_send(self, frame: bytes) -> bool:
        """Queue a frame and send what is queued, without waiting; return False when the queue is full."""
        message = messages.encode_frame(frame)
        is_queued = self._channel.queue(message) or (self._channel.flush() and self._channel.queue(message))
        if is_queued:
            self._channel.flush()
        return is_queued

    # End

    def close(self, timeout: Optional[float] = CLOSE_TIMEOUT) -> bool:
        """Send what is queued, wait until the simulator has read all and close; never raise a LattivoError.

        Return whether it has read all. False: the timeout came first, or the connection had ended before. Messages that
        still arrive are dropped.
        """
        try:
            run(steps.close(self._channel), Deadline(timeout))
            return True
        except LattivoError:
            return False
        finally:
            self._channel.close()

    def __enter__(self) -> Client:
        """Return the client itself."""
        return self

    def __exit__(
        self, kind: Optional[Type[BaseException]], error: Optional[BaseException], trace: Optional[TracebackType]
    ) -> None:
        """Close the client; wait for the simulator only when the block has ended without an error."""
        self.close(close_timeout(error))

    def _send(self, message: bytes, timeout: Optional[float]) -> None:
        channel = self._channel
        is_sent = channel.send_at_once(message)
        if is_sent and not channel.wants_to_write:
            return
        deadline = Deadline(timeout)
        if not is_sent:
            run(steps.send(channel, message), deadline)
        if channel.wants_to_write:  # a rest, since memory is short; it leaves first when the time is over
            with contextlib.suppress(Timeout):
                run(steps.flush(channel), deadline)


def close_timeout(error: Optional[BaseException]) -> float:
    """Return how long to wait behind a block that this has ended; sys.exit() is no error."""
    return CLOSE_TIMEOUT if error is None or isinstance(error, SystemExit) else 0.0


class Deadline:
    """The end of the time that a caller allows."""

    def __init__(self, timeout: Optional[float]) -> None:
        """Begin now; timeout is in seconds, None has no end."""
        steps.check_seconds(timeout)
        self._timeout = timeout
        self._end = None if timeout is None else time.monotonic() + timeout

    def shorten(self, seconds: Optional[float]) -> Optional[float]:
        """Return how long to wait when something else ends the wait too; raise Timeout when the time is over."""
        if self._end is None:
            return seconds
        left = self._end - time.monotonic()
        if left <= 0:
            raise Timeout(f"not within {self._timeout:g} s")
        return left if seconds is None else min(left, seconds)


def run(work: steps.Steps[steps.Result], deadline: Deadline) -> steps.Result:
    """Do the steps, which end in a Timeout when the time is over."""
    try:
        while True:
            wait = next(work)
            if not _is_ready_within(deadline.shorten(wait.seconds), wait):
                deadline.shorten(0.0)  # the wait may have ended because the caller's time is over
    except StopIteration as done:
        result: steps.Result = done.value
        return result
    finally:
        work.close()


def _is_ready_within(seconds: Optional[float], wait: steps.Wait) -> bool:
    """Wait for the events; return whether one has come."""
    if not wait.events:
        time.sleep(seconds or 0.0)
        return False
    poll = select.poll()
    poll.register(wait.descriptor, wait.events)
    return bool(poll.poll(None if seconds is None else seconds * 1000))


def look_up(host: str, port: int) -> Sequence[steps.AddressInfo]:
    """Return the addresses of a host."""
    try:
        return socket.getaddrinfo(host, port, type=socket.SOCK_STREAM)
    except (OSError, UnicodeError) as error:
        raise UnknownHost(f"no address of {host}: {error}") from error
