"""Programs at the other end of the simulator's sockets: hostile ones, and the nodes that programs drive."""

from __future__ import annotations

import fcntl
import select
import socket
import struct
import termios
import time

HOST = "127.0.0.1"
READ_SIZE = 1 << 18
POLL_PAUSE = 0.0005  # s
RESETTING = struct.pack("ii", 1, 0)  # a close that waits for nothing resets the connection
BROADCAST = b"\xff" * 6


def address(kind: int, number: int) -> bytes:
    """Return the address of node NUMBER of a kind; kinds never share an address."""
    return struct.pack(">BBHH", 2, kind, 0, number)


class Hostile:
    """A connection that writes whatever it likes, whenever it likes; it forgets what it reads."""

    def __init__(self, port: int) -> None:
        """Begin to connect."""
        self.socket = socket.socket()
        self.socket.setblocking(False)
        self.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.socket.connect_ex((HOST, port))
        self.has_ended = False
        self.stalled_until = 0.0  # s of the monotonic clock; it reads nothing before

    def wait_until_connected(self, seconds: float) -> bool:
        """Return whether the kernel connects it in time."""
        return self._wait_for(select.POLLOUT, seconds)

    def send(self, data: bytes) -> bool:
        """Return False when the connection does not take all of it; a part of it may have gone."""
        try:
            return self.socket.send(data) == len(data)
        except BlockingIOError:
            return False
        except OSError:
            self.has_ended = True
            return False

    def send_politely(self, message: bytes, seconds: float) -> bool:
        """Send a whole message; return False when the simulator does not take in time what was written before."""
        deadline = time.monotonic() + seconds
        while fcntl.ioctl(self.socket, termios.TIOCOUTQ, bytes(4)) != bytes(4):
            if self.has_ended or time.monotonic() > deadline:
                return False
            time.sleep(POLL_PAUSE)
        return self.send(message)

    def read(self) -> None:
        """Read all that has come, unless it stalls."""
        try:
            while not self.has_ended and time.monotonic() >= self.stalled_until:
                self.has_ended = not self.socket.recv(READ_SIZE)
        except BlockingIOError:
            pass
        except OSError:
            self.has_ended = True

    def wait_for_end(self, seconds: float) -> bool:
        """Return whether the simulator ends the connection in time."""
        deadline = time.monotonic() + seconds
        self.stalled_until = 0.0
        while not self.has_ended and time.monotonic() < deadline:
            self._wait_for(select.POLLIN, deadline - time.monotonic())
            self.read()
        return self.has_ended

    def end_output(self) -> None:
        try:
            self.socket.shutdown(socket.SHUT_WR)
        except OSError:
            self.has_ended = True

    def close(self) -> None:
        self.has_ended = True
        self.socket.close()

    def reset(self) -> None:
        """End as a program that was killed with bytes unread, or a machine that was switched off."""
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, RESETTING)
        self.close()

    def _wait_for(self, events: int, seconds: float) -> bool:
        waiting = select.poll()
        waiting.register(self.socket, events)
        return bool(waiting.poll(max(0.0, seconds) * 1000))
