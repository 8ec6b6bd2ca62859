"""Programs at the other end of the simulator's sockets, without a thread or a wait of their own."""

import fcntl
import os
import select
import socket
import struct
import sys
import time

import bridge

HOST = "127.0.0.1"
CONNECT_PATIENCE = 30.0  # s
READ_SIZE = 1 << 18
RESETTING = struct.pack("ii", 1, 0)  # a close that waits for nothing resets the connection
BROADCAST = b"\xff" * 6


def address(kind, number):
    """Of node NUMBER of a kind; kinds never share an address."""
    return struct.pack(">BBHH", 2, kind, 0, number)


def frame(destination, source, rest=b""):
    return destination + source + rest


def identification(by_name, name, node_address):
    return bridge.encode_name(name) if by_name else bridge.encode_address(node_address)


class Program:
    """A connection that is read when asked and written to only when all before has arrived: see docs/protocol.md."""

    def __init__(self, port, receive_buffer=None):
        self.socket = socket.socket()
        if receive_buffer:
            self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        self.socket.settimeout(CONNECT_PATIENCE)
        self.socket.connect((HOST, port))
        self.socket.settimeout(0.0)
        self.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.local_port = self.socket.getsockname()[1]
        self.has_ended = False
        self._decoder = bridge.Decoder()

    def can_send(self):
        answer = fcntl.ioctl(self.socket, bridge.SIOCOUTQ, struct.pack("i", 0))
        return not self.has_ended and struct.unpack("i", answer)[0] == 0

    def send(self, data):
        """False when the connection does not take it whole; a part of it may have gone."""
        try:
            return self.socket.send(data) == len(data)
        except BlockingIOError:
            return False
        except OSError:
            self.has_ended = True
            return False

    def send_when_safe(self, data, seconds):
        """False when the simulator does not take what was written before in time."""
        deadline = time.monotonic() + seconds
        while not self.can_send():
            if self.has_ended or time.monotonic() > deadline:
                return False
            time.sleep(bridge.POLL_PAUSE)
        return self.send(data)

    def receive(self):
        """The messages that have come."""
        messages = []
        while not self.has_ended:
            try:
                data = self.socket.recv(READ_SIZE)
            except BlockingIOError:
                break
            except OSError:
                data = b""
            self.has_ended = not data
            messages += self._decoder.feed(data)
        return messages

    def wait_for_end(self, seconds):
        """Whether the simulator ends the connection in time."""
        deadline = time.monotonic() + seconds
        while not self.has_ended and time.monotonic() < deadline:
            select.select([self.socket], [], [], max(0.0, deadline - time.monotonic()))
            self.receive()
        return self.has_ended

    def close(self):
        self.has_ended = True
        self.socket.close()

    def reset(self):
        """Ends as a program that was killed with bytes unread, or a machine that was switched off."""
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, RESETTING)
        self.close()


class Crowd:
    """Many connections that nothing is ever read from, opened at the same moment."""

    def __init__(self, port, size):
        self.sockets = []
        for _ in range(size):
            connection = socket.socket()
            connection.setblocking(False)
            connection.connect_ex((HOST, port))
            self.sockets.append(connection)

    def wait_until_connected(self, seconds):
        """How many of them the kernel has connected in time."""
        waiting = select.poll()
        for connection in self.sockets:
            waiting.register(connection, select.POLLOUT)
        missing = len(self.sockets)
        deadline = time.monotonic() + seconds
        while missing and time.monotonic() < deadline:
            for descriptor, _ in waiting.poll(max(0.0, deadline - time.monotonic()) * 1000):
                waiting.unregister(descriptor)
                missing -= 1
        return len(self.sockets) - missing

    def write(self, data, to_every):
        """Data to every so many-th of them, come what may."""
        for connection in self.sockets[::to_every]:
            try:
                connection.send(data)
            except OSError:
                pass

    def disperse(self, resets):
        for connection in self.sockets:
            if resets:
                connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, RESETTING)
            connection.close()
        self.sockets = []
