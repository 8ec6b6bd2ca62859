"""The simulator's end of a connection, played by a test."""

from __future__ import annotations

import socket

PATIENCE = 20.0  # seconds; only a failing test waits that long


class Listener:
    """Takes connections on a free port."""

    def __init__(self) -> None:
        self.server = socket.create_server(("127.0.0.1", 0))
        self.server.settimeout(PATIENCE)
        self.port: int = self.server.getsockname()[1]

    def __enter__(self) -> Listener:
        return self

    def __exit__(self, *_: object) -> None:
        self.server.close()

    def accept(self) -> socket.socket:
        """Return the connection of the next program."""
        connection, _ = self.server.accept()
        connection.settimeout(PATIENCE)
        return connection


def read_exactly(connection: socket.socket, size: int) -> bytes:
    """Return size bytes, or fewer when the program has closed."""
    data = b""
    while len(data) < size and (chunk := connection.recv(size - len(data))):
        data += chunk
    return data
