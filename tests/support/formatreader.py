"""Reads the simulation file and the dump byte by byte, as docs/files.md describes them."""

from __future__ import annotations

import struct
from dataclasses import dataclass

VERSIONED_MAGIC = 0xC191277D
NODE_ITEM_TYPE = 65536
CONNECTION_ITEM_TYPE = 65537
NULL_LENGTH = 0xFFFFFFFF
COLOR_SIZE = 11
DUMP_TRAILER = b"\x01\x01"


class Reader:
    """Takes fields from the front of some bytes; struct.error when they run out."""

    def __init__(self, content: bytes) -> None:
        self._content = content
        self._position = 0

    def take(self, layout: str) -> tuple:
        """Take big-endian fields, as the struct module names them."""
        fields = struct.Struct(">" + layout)
        values = fields.unpack_from(self._content, self._position)
        self._position += fields.size
        return values

    def number(self, layout: str) -> int | float | bool:
        return self.take(layout)[0]

    def bytes(self, length: int) -> bytes:
        return self.take(f"{length}s")[0]

    def byte_array(self) -> bytes:
        length = self.number("I")
        return b"" if length == NULL_LENGTH else self.bytes(length)

    def text(self) -> str:
        return self.byte_array().decode("utf-16-be")

    def rest(self) -> bytes:
        return self._content[self._position :]


@dataclass
class Node:
    item_type: int
    node_type: int
    node_id: int
    position: tuple[float, float]
    address: bytes
    flags: int
    frames_acknowledged: int
    acknowledge_timeout: int  # ms
    colors: bytes  # inactive, active, transmitting, receiving
    stroke_width: float
    shown: tuple[int, int, int]  # address, number of links, name
    name: str
    comment: str
    promiscuous: int


@dataclass
class Connection:
    item_type: int
    ends: tuple[int, int]  # node ids
    is_broken: bool
    reliability: float
    error_detection_reliability: float
    delay: int  # ms
    delay_deviation: int  # ms
    color: bytes
    stroke_width: float
    comment: str


@dataclass
class Simulation:
    version: int
    frame_parameters: tuple[int, int, int, int]
    broadcast_address: bytes
    is_server_on: bool
    port: int
    is_plug_and_place_on: bool
    identifies_by_name: bool
    default_connection: Connection
    default_node: Node
    nodes: list[Node]
    connections: list[Connection]
    is_capture_on: bool
    view_follows: bool

    def node(self, **wanted: object) -> Node:
        """Return the one node with these values."""
        found = [node for node in self.nodes if all(getattr(node, key) == wanted[key] for key in wanted)]
        if len(found) != 1:
            raise AssertionError(f"{len(found)} nodes with {wanted} among {self.nodes}")
        return found[0]

    def link(self, first: Node, second: Node) -> Connection:
        """Return the one link from the first node to the second."""
        ends = (first.node_id, second.node_id)
        found = [link for link in self.connections if link.ends == ends]
        if len(found) != 1:
            raise AssertionError(f"{len(found)} links from {first.name!r} to {second.name!r}")
        return found[0]


@dataclass
class Record:
    milliseconds: int  # time of sending
    frame: bytes


def read_simulation(content: bytes) -> Simulation:
    """Read a simulation file of version 1, of which nothing may be left over."""
    reader = Reader(content)
    magic, version = reader.take("II")
    if (magic, version) != (VERSIONED_MAGIC, 1):
        raise ValueError(f"leading word {magic:X}, version {version}")
    simulation = Simulation(
        version,
        reader.take("iiii"),
        reader.byte_array(),
        *reader.take("?H??"),
        _read_connection(reader),
        _read_node(reader),
        [_read_node(reader) for _ in range(int(reader.number("I")))],
        [_read_connection(reader) for _ in range(int(reader.number("I")))],
        *reader.take("??"),
    )
    if reader.number("I") != VERSIONED_MAGIC or reader.rest():
        raise ValueError("the trailer is not at the end")
    return simulation


def _read_node(reader: Reader) -> Node:
    node = Node(
        *reader.take("iiQ"),
        reader.take("dd"),
        reader.byte_array(),
        *reader.take("iii"),
        reader.bytes(4 * COLOR_SIZE),
        reader.number("d"),
        reader.take("iii"),
        reader.text(),
        reader.text(),
        reader.number("i"),
    )
    if node.item_type != NODE_ITEM_TYPE:
        raise ValueError(f"item type {node.item_type} of a node")
    return node


def _read_connection(reader: Reader) -> Connection:
    connection = Connection(
        reader.number("i"),
        reader.take("QQ"),
        *reader.take("?ddii"),
        reader.bytes(COLOR_SIZE),
        reader.number("d"),
        reader.text(),
    )
    if connection.item_type != CONNECTION_ITEM_TYPE:
        raise ValueError(f"item type {connection.item_type} of a connection")
    return connection


def read_dump(content: bytes) -> list[Record]:
    """Read the records of a dump, of which nothing may be left over."""
    reader = Reader(content)
    header = reader.take("IHHiIII")
    if header != (0xA1B2C3D4, 2, 4, 0, 0, 65535, 0):
        raise ValueError(f"header {header}")
    records = []
    while reader.rest():
        seconds, milliseconds, included, original = reader.take("IIII")
        frame = reader.bytes(original)
        if included != original + len(DUMP_TRAILER) or reader.bytes(len(DUMP_TRAILER)) != DUMP_TRAILER:
            raise ValueError(f"the end of record {len(records)}")
        if milliseconds > 999:
            raise ValueError(f"{milliseconds} milliseconds in record {len(records)}")
        records.append(Record(1000 * seconds + milliseconds, frame))
    return records
