"""Make simulation files: pairs of linked nodes, a ring of them, a star around node 0, or any other wiring.

Node N is called "node-N" and has the address 02:00:00:00:HH:LL (N in its last two bytes), as in wiring.h.
"""

from __future__ import annotations

import struct
from dataclasses import astuple, dataclass, field
from typing import Optional, Sequence, Tuple

Color = Optional[Tuple[int, int, int]]  # None is the invalid colour, which inherits

VERSIONED_MAGIC = 0xC191277D
FILE_VERSION = 1
NODE_ITEM_TYPE = 65536
CONNECTION_ITEM_TYPE = 65537
PLAIN_NODE = -1
TCP_NODE = 1
UNCHECKED, PARTIALLY_CHECKED, CHECKED = 0, 1, 2

MAXIMAL_TRANSFER_UNIT = 255
ADDRESS_LENGTH = 6
DESTINATION_OFFSET = 0
SOURCE_OFFSET = 6
BROADCAST_ADDRESS = b"\xff" * ADDRESS_LENGTH
DEFAULT_PORT = 8844

DARK_BLUE = (0, 0, 128)
LIGHT_GRAY = (192, 192, 192)
ACTIVE_BLUE = (155, 155, 255)
TX_GREEN = (155, 255, 155)
RX_YELLOW = (255, 255, 155)


@dataclass
class Layout:
    nodes_per_row: int = 32
    distance: float = 200.0  # scene units
    left: float = 0.0
    top: float = 0.0

    def position(self, index: int) -> tuple[float, float]:
        row, column = divmod(index, self.nodes_per_row)
        return (self.left + column * self.distance, self.top + row * self.distance)


@dataclass
class NodeSettings:
    """Settings of one node; what is left out follows the default node."""

    confirms: int = PARTIALLY_CHECKED
    confirmation_timeout: int = -1  # ms; below 1: the default node's
    promiscuous: int = PARTIALLY_CHECKED


@dataclass
class LinkSettings:
    """Settings of one link, in the order of the file; what is left out follows the default link."""

    broken: bool = False
    reliability: float = -1.0  # negative: the default's
    detection: float = -1.0  # likewise
    delay: int = -1  # ms; 0 or below: the default's
    delay_deviation: int = -1  # likewise


@dataclass
class Simulation:
    pairs: int = 1
    single_nodes: int = 0  # without a link, behind all others
    ring_steps: tuple[int, ...] = ()  # each node of the pairs is linked with those so many places further on instead
    star_links: int = 0  # 0: pairs
    wiring: Sequence[tuple[int, int]] | None = None  # any links instead, each as the numbers of its two ends
    maximal_transfer_unit: int = MAXIMAL_TRANSFER_UNIT  # bytes
    confirms: bool = False
    confirmation_timeout: int = 1000  # ms
    delay: int = 0  # ms
    delay_deviation: int = 0  # ms
    reliability: float = 1.0  # per bit
    detection: float = 1.0  # per corrupted frame
    own_nodes: dict[int, NodeSettings] = field(default_factory=dict)  # by number
    own_links: dict[int, LinkSettings] = field(default_factory=dict)  # by place in links()
    layout: Layout = field(default_factory=Layout)

    def linked_node_count(self) -> int:
        if self.wiring is not None:
            return 1 + max((end for ends in self.wiring for end in ends), default=-1)
        return 1 + self.star_links if self.star_links else 2 * self.pairs

    def node_count(self) -> int:
        return self.linked_node_count() + self.single_nodes

    def links(self) -> list[tuple[int, int]]:
        if self.wiring is not None:
            return list(self.wiring)
        if self.star_links:
            return [(0, leaf) for leaf in range(1, 1 + self.star_links)]
        if self.ring_steps:
            count = self.linked_node_count()
            return [(node, (node + step) % count) for step in self.ring_steps for node in range(count)]
        return [(2 * pair, 2 * pair + 1) for pair in range(self.pairs)]


def node_name(node: int) -> str:
    return f"node-{node}"


def node_address(node: int) -> bytes:
    return struct.pack(">BxxxH", 2, node)


def frame_between(source: int, destination: int, number: int, size: int = 64) -> bytes:
    addresses = node_address(destination) + node_address(source)
    return (addresses + number.to_bytes(4, "big")).ljust(size, b"\xaa")


def byte_array(value: bytes) -> bytes:
    return struct.pack(">I", len(value)) + value


def string(value: str) -> bytes:
    return byte_array(value.encode("utf-16-be"))


def color(rgb: Color) -> bytes:
    if rgb is None:
        return struct.pack(">bHHHHH", 0, 0xFFFF, 0, 0, 0, 0)
    wide = [component * 0x101 for component in rgb]
    return struct.pack(">bHHHHH", 1, 0xFFFF, *wide, 0)


def node_record(
    node_type: int,
    number: int,
    position: tuple[float, float],
    address: bytes,
    name: str,
    settings: NodeSettings,
    colors: Sequence[Color],
    stroke_width: float,
    shown: int,
) -> bytes:
    flags = 0
    show_address = show_connection_count = show_name = shown
    return (
        struct.pack(">iiQdd", NODE_ITEM_TYPE, node_type, number, *position)
        + byte_array(address)
        + struct.pack(">iii", flags, settings.confirms, settings.confirmation_timeout)
        + b"".join(map(color, colors))
        + struct.pack(">diii", stroke_width, show_address, show_connection_count, show_name)
        + string(name)
        + string("")  # tool tip
        + struct.pack(">i", settings.promiscuous)
    )


def default_node(simulation: Simulation) -> bytes:
    confirms, timeout = (CHECKED, simulation.confirmation_timeout) if simulation.confirms else (UNCHECKED, 0)
    colors = (LIGHT_GRAY, ACTIVE_BLUE, TX_GREEN, RX_YELLOW)
    settings = NodeSettings(confirms, timeout, UNCHECKED)
    return node_record(PLAIN_NODE, 0, (0.0, 0.0), b"", "", settings, colors, 2.0, CHECKED)


def node(index: int, simulation: Simulation) -> bytes:
    own = simulation.own_nodes.get(index, NodeSettings())
    place, address, name = simulation.layout.position(index), node_address(index), node_name(index)
    return node_record(TCP_NODE, node_id(index), place, address, name, own, (None,) * 4, -1.0, PARTIALLY_CHECKED)


def node_id(index: int) -> int:
    return index + 1  # 0 names no node


def connection_record(ends: tuple[int, int], settings: LinkSettings, rgb: Color, stroke_width: float) -> bytes:
    return (
        struct.pack(">iQQ?ddii", CONNECTION_ITEM_TYPE, *ends, *astuple(settings))
        + color(rgb)
        + struct.pack(">d", stroke_width)
        + string("")  # tool tip
    )


def default_connection(simulation: Simulation) -> bytes:
    settings = LinkSettings(
        False, simulation.reliability, simulation.detection, simulation.delay, simulation.delay_deviation
    )
    return connection_record((0, 0), settings, DARK_BLUE, 2.0)


def connection(ends: tuple[int, int], own: LinkSettings) -> bytes:
    return connection_record((node_id(ends[0]), node_id(ends[1])), own, None, -1.0)


def network_record(simulation: Simulation) -> bytes:
    server_on = plug_and_play = name_based = False  # the runner's options decide
    parameters = (simulation.maximal_transfer_unit, ADDRESS_LENGTH, DESTINATION_OFFSET, SOURCE_OFFSET)
    nodes = [node(index, simulation) for index in range(simulation.node_count())]
    connections = [
        connection(ends, simulation.own_links.get(index, LinkSettings()))
        for index, ends in enumerate(simulation.links())
    ]
    return (
        struct.pack(">iiii", *parameters)
        + byte_array(BROADCAST_ADDRESS)
        + struct.pack(">?H??", server_on, DEFAULT_PORT, plug_and_play, name_based)
        + default_connection(simulation)
        + default_node(simulation)
        + struct.pack(">I", len(nodes))
        + b"".join(nodes)
        + struct.pack(">I", len(connections))
        + b"".join(connections)
    )


def simulation_file(simulation: Simulation) -> bytes:
    """Return the bytes of the file."""
    capture_enabled = view_follows = False
    return (
        struct.pack(">II", VERSIONED_MAGIC, FILE_VERSION)
        + network_record(simulation)
        + struct.pack(">??I", capture_enabled, view_follows, VERSIONED_MAGIC)
    )
