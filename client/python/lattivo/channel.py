"""The connection that both clients share: it never blocks, and it keeps every message in one piece.

The simulator drops a program whose message is only partly there when it looks, and TCP is a stream that the kernel cuts
where it likes. Three rules keep whole what one call writes:

- It is at most one segment of the path. A longer message cannot be sent whole and is refused.
- It carries MSG_EOR: the kernel then joins it to nothing. What it joins, it cuts again, where a segment ends.
- The simulator's machine has promised room for all of it. Where the room ends within a segment and stays so, because the
  simulator is held up, the kernel soon sends the part that fits.

Where the platform has no MSG_EOR or tells nothing of the room, the next bytes wait until the other kernel has taken all
before them. That is slow: its acknowledgement may come 40 ms late.
"""

from __future__ import annotations

import fcntl
import socket
import struct
import termios
from typing import Optional

from .codes import HEADER
from .errors import Disconnected, FrameTooLarge
from .messages import Decoder

SIOCOUTQ = termios.TIOCOUTQ  # Linux gives both requests the same number
WINDOW_PAUSE = 0.001  # seconds between two looks for room
SLOW_PAUSE = 0.0001  # seconds between two looks whether all has been taken
KEEPALIVE_PAUSE = 1  # seconds

# What TCP_INFO tells, with the place in its answer
TCP_INFO_SIZE = 232
TCP_STATE = struct.Struct("=B")  # at 0
SEGMENT_SIZE = struct.Struct("=I")  # at 16
BYTES_TAKEN = struct.Struct("=Q")  # at 120: acknowledged by the other kernel
ROOM = struct.Struct("=I")  # at 228, since Linux 5.4: behind these bytes
SEGMENT_SIZE_OFFSET, BYTES_TAKEN_OFFSET, ROOM_OFFSET = 16, 120, 228
ESTABLISHED = 1
UNLIMITED = 1 << 64

# Bytes of a segment that the kernel may need for its reports of lost segments. Messages that share one leave them: what
# is cut otherwise is the last of them.
OPTIONS_SIZE = 36


class Channel:
    """A connected socket, the messages that arrive on it and the segment that waits to leave."""

    def __init__(
        self, connected: socket.socket, decoder: Decoder, place: str, doubt: str, *, end_of_record: bool = True
    ) -> None:
        """Take the socket over; end_of_record=False does without MSG_EOR.

        The texts of failures name the place, and the doubt too when the connection ends before anything has arrived.
        """
        self._socket = connected
        self._place = place
        self._doubt = doubt
        connected.setblocking(False)
        connected.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        # The kernel asks for room again only while it has something to send, which the third rule keeps from it:
        # without these probes the loss of the answer "there is room again" would stop the connection for good.
        connected.setsockopt(socket.SOL_SOCKET, socket.SO_KEEPALIVE, 1)
        connected.setsockopt(socket.IPPROTO_TCP, socket.TCP_KEEPIDLE, KEEPALIVE_PAUSE)
        connected.setsockopt(socket.IPPROTO_TCP, socket.TCP_KEEPINTVL, KEEPALIVE_PAUSE)
        connected.setsockopt(socket.IPPROTO_TCP, socket.TCP_KEEPCNT, 127)  # the most that Linux allows
        self._flags: int = socket.MSG_DONTWAIT | socket.MSG_NOSIGNAL
        self._is_slow = not end_of_record
        if end_of_record:
            self._flags |= socket.MSG_EOR
        self._decoder = decoder
        self._queue = bytearray()  # whole messages that leave with one call
        self._is_torn = False  # the kernel took only a part of the queue
        self._written = 0  # bytes, by the kernel taken over
        self._taken_before: Optional[int] = None  # what the other kernel had acknowledged before that: the opening
        self._limit = 0  # bytes that _written must not pass: where the promised room ends
        self._largest_message = 0  # bytes
        self.retry_after: Optional[float] = None  # seconds; None: when the socket is writable
        self._ask_kernel()

    # Sending

    @property
    def wants_to_write(self) -> bool:
        """Whether something waits to leave."""
        return bool(self._queue)

    @property
    def largest_frame(self) -> int:
        """The most bytes of a frame that one segment of the path holds."""
        return self._largest_message - HEADER.size

    def queue(self, message: bytes) -> bool:
        """Put a whole message behind those that wait; False when they fill the segment already."""
        size = len(message)
        if size > self._largest_message:
            self._refuse(size)
        if self._queue and (self._is_torn or len(self._queue) + size > self._largest_message - OPTIONS_SIZE):
            return False
        self._queue += message
        return True

    def flush(self) -> bool:
        """Give what waits to the kernel, now; False when it has to wait on, retry_after then tells for what."""
        if not self._queue:
            return True
        self.retry_after = None
        if not self._is_torn and not self._is_room_for(len(self._queue)):
            return False
        try:
            count = self._socket.send(self._queue, self._flags)
        except BlockingIOError:
            return False
        except OSError as error:
            raise self._ended(error) from error
        self._written += count
        self._is_torn = count < len(self._queue)  # only when memory runs out; the rest had better follow soon
        del self._queue[:count]
        return not self._is_torn

    def send_at_once(self, message: bytes) -> bool:
        """Send a message by itself, now; False: nothing of it was sent, retry_after then tells when to try again."""
        if self._queue:
            return False
        self.queue(message)
        is_sent = self.flush() or self._is_torn
        if not is_sent:
            self._queue.clear()
        return is_sent

    def withdraw(self) -> None:
        """Forget what waits, unless a part of it has left."""
        if not self._is_torn:
            self._queue.clear()

    def has_been_taken(self) -> bool:
        """Whether the other kernel has acknowledged all that was written."""
        try:
            answer = fcntl.ioctl(self._socket, SIOCOUTQ, bytes(4))
        except ValueError:
            raise self._ended() from None  # closed: there is no descriptor
        except OSError as error:
            raise self._ended(error) from error
        is_taken = struct.unpack("=i", answer) == (0,)
        if not is_taken:
            self._ask_kernel()  # which tells when the connection has ended meanwhile, and nothing will be taken
        return is_taken

    def _is_room_for(self, size: int) -> bool:
        if self._written + size > self._limit:
            self._ask_kernel()
            if self._written + size > self._limit:
                self.retry_after = WINDOW_PAUSE
                return False
        if self._is_slow and not self.has_been_taken():
            self.retry_after = SLOW_PAUSE
            return False
        return True

    def _ask_kernel(self) -> None:
        """Learn how large a segment of the path is, and up to which byte the other kernel has promised room."""
        try:
            answer = self._socket.getsockopt(socket.IPPROTO_TCP, socket.TCP_INFO, TCP_INFO_SIZE)
        except OSError as error:
            raise self._ended(error) from error
        if TCP_STATE.unpack_from(answer) != (ESTABLISHED,):
            raise self._ended()
        (self._largest_message,) = SEGMENT_SIZE.unpack_from(answer, SEGMENT_SIZE_OFFSET)
        if len(answer) < TCP_INFO_SIZE:
            self._is_slow = True
            self._limit = UNLIMITED
            return
        (taken,) = BYTES_TAKEN.unpack_from(answer, BYTES_TAKEN_OFFSET)
        (room,) = ROOM.unpack_from(answer, ROOM_OFFSET)
        if self._taken_before is None:
            self._taken_before = taken
        self._limit = taken - self._taken_before + room

    def _refuse(self, size: int) -> None:
        self._ask_kernel()  # the path may have changed
        if size > self._largest_message:
            raise FrameTooLarge(
                f"{size - HEADER.size} bytes do not fit into one segment of this path, which holds {self.largest_frame}",
                self.largest_frame,
            )

    # Receiving

    @property
    def decoder(self) -> Decoder:
        """What makes messages of the bytes that have been read."""
        return self._decoder

    def read(self) -> bool:
        """Take bytes that have arrived; False when there are none. Take the messages out first: this needs room."""
        try:
            count = self._socket.recv_into(self._decoder.room())
        except BlockingIOError:
            return False
        except OSError as error:
            raise self._ended(error) from error
        if count == 0:
            raise self._ended()
        self._doubt = ""
        self._decoder.add(count)
        return True

    # End

    def fileno(self) -> int:
        """Return the descriptor; -1 once closed."""
        return self._socket.fileno()

    def shut_down(self) -> None:
        """Tell the simulator that nothing follows."""
        try:
            self._socket.shutdown(socket.SHUT_WR)
        except OSError as error:
            raise self._ended(error) from error

    def discard(self) -> bool:
        """Read and forget what has arrived; False when the simulator has closed its side as well."""
        self._decoder.clear()
        try:
            return self._socket.recv_into(self._decoder.room()) > 0
        except BlockingIOError:
            return True
        except OSError as error:
            raise self._ended(error) from error

    def close(self) -> None:
        """Close the socket."""
        self._socket.close()

    def _ended(self, error: Optional[OSError] = None) -> Disconnected:
        if self._socket.fileno() < 0:
            return Disconnected("this client has been closed")
        if error is None or isinstance(error, ConnectionError):
            return Disconnected(f"{self._place} closed the connection{self._doubt}")
        return Disconnected(f"the connection to {self._place} has ended: {error.strerror}")
