"""Hostile and careless programs, and a user who edits all the while: what happens beside the honest programs.

Every operation is drawn from one seed. Nothing here touches the nodes and links of the honest programs and of the
books; all the rest may be broken, renamed, deleted or taken over at any moment.
"""

from __future__ import annotations

import collections
import logging
import random
import time
from pathlib import Path
from typing import Any, Callable, Sequence, TypeVar

from lattivo import Client, LattivoError, MessageType, NodeControl, messages
from lattivo.codes import HEADER, NULL_LENGTH

from measuring.lab import programs
from measuring.lab.programs import Hostile
from measuring.soak import honest
from measuring.soak.simulator import (
    CHAOS_KIND,
    CHECKED,
    DESCRIPTORS,
    FLOOD_KIND,
    HANG,
    PROTECTED,
    UNCHECKED,
    UNKNOWN_KIND,
    Simulator,
)

MOST_NODES = 40
FEWEST_NODES = 5
MOST_PROGRAMS = 60
KNOWN_ADDRESSES = 12
NAMES = 20
REFRESH = 0.5  # s between two looks at the items
LONGEST_STALL = 6.0  # s
LONGEST_BODY = 400  # bytes behind the addresses
CROWD = 1000  # connections at the same moment
CROWD_PATIENCE = 60.0  # s, to come and to go
LISTENING = 1  # sockets
DESCRIPTORS_LEFT = 12
CONNECTIONS_TOO_MANY = 60
EXHAUSTION = 2.0  # s
FLOOD_FRAME = 29_000  # bytes
UNSENT_LIMIT = 64 << 20  # bytes: a program that does not read is dropped beyond it
FLOOD_LIMIT = UNSENT_LIMIT + (24 << 20)  # and what the kernel holds for the program
FLOOD_PATIENCE = 120.0  # s
FRAMES_BETWEEN_LOOKS = 100

Draw = Callable[[random.Random], Any]
Operation = Callable[["Chaos"], None]
Item = TypeVar("Item")

ORDINARY: dict[Operation, float] = {}  # with how often each is drawn, compared with the others
RARE: list[Operation] = []  # which take long


def ordinary(weight: float) -> Callable[[Operation], Operation]:
    """Let an operation be drawn that often."""

    def register(operation: Operation) -> Operation:
        ORDINARY[operation] = weight
        return operation

    return register


def rare(operation: Operation) -> Operation:
    """Let an operation be done once in a long epoch."""
    RARE.append(operation)
    return operation


def one_of(*values: Any) -> Draw:
    return lambda rng: rng.choice(values)


STATES = one_of(UNCHECKED, 1, CHECKED)
COLOR: Draw = lambda rng: f"#{rng.randrange(1 << 24):06x}"  # noqa: E731
WIDTH: Draw = lambda rng: rng.uniform(0.5, 9.0)  # noqa: E731
NAME: Draw = lambda rng: f"chaos-{rng.randrange(NAMES)}"  # noqa: E731
NODE_DEFAULTS = {"framesAcknowledgedChanged": STATES, "promiscuousModeChanged": STATES}
NODE_SETTINGS = {  # by slot of the form
    **NODE_DEFAULTS,
    "frameAcknowledgeTimeoutChanged": one_of(0, 1, 20, 1000),
    "disableChanged": one_of(UNCHECKED, UNCHECKED, CHECKED),
    "showNodeAddressChanged": STATES,
    "strokeWidthChanged": WIDTH,
    "nodeNameChanged": NAME,
    "resetAppearance": one_of(0),
    "resetStatistics": one_of(0),
    "inactiveColorChanged": COLOR,
    "activeColorChanged": COLOR,
    "txColorChanged": COLOR,
    "rxColorChanged": COLOR,
}
LINK_DEFAULTS = dict.fromkeys(
    ["reliabilityChanged", "errorDetectionReliabilityChanged"], one_of(0.0, 99.9, 100.0, 100.0)
)
LINK_SETTINGS = {
    "reliabilityChanged": one_of(0.0, 50.0, 99.9, 100.0),
    "errorDetectionReliabilityChanged": one_of(0.0, 50.0, 100.0),
    "delayChanged": one_of(0, 1, 10, 100, 500),
    "delayDeviationChanged": one_of(0, 1, 10, 200),
    "connectionStrokeWidthChanged": WIDTH,
    "resetBehavior": one_of(0),
    "resetAppearance": one_of(0),
    "resetStatistics": one_of(0),
}


class Chaos:
    """All of it, one operation after the other."""

    def __init__(self, simulator: Simulator, rng: random.Random, folder: Path, log: logging.Logger) -> None:
        self.simulator = simulator
        self.rng = rng
        self.folder = folder
        self.log = log
        self.tally: collections.Counter[str] = collections.Counter()
        self.connections = 0
        self.errors: list[str] = []
        self.programs: list[Hostile] = []  # of which some have never said a word
        self._nodes: list[dict[str, Any]] = []
        self._links: list[int] = []
        self._looked_at = 0.0

    # The course of things

    def run(self, seconds: float, rare_operations: Sequence[Operation]) -> None:
        """Perform ordinary operations for so long, and the rare ones behind them."""
        begin = time.monotonic()
        while time.monotonic() - begin < seconds:
            self.perform(self.rng.choices(list(ORDINARY), list(ORDINARY.values()))[0])
            self._idle(self.rng.expovariate(1 / 0.03))
        for operation in rare_operations:
            self.perform(operation)

    def perform(self, operation: Operation) -> None:
        self.tally[operation.__name__] += 1
        self.log.info("%s", operation.__name__)
        if time.monotonic() - self._looked_at >= REFRESH:
            self._look()
        operation(self)

    def leave(self) -> None:
        """Let go of all sockets, one way or the other."""
        while self.programs:
            self._farewell()
        self._looked_at = 0.0

    def _idle(self, seconds: float) -> None:
        end = time.monotonic() + seconds
        while True:
            self._serve_programs()
            left = end - time.monotonic()
            if left <= 0:
                return
            time.sleep(min(left, 0.02))

    def _serve_programs(self) -> None:
        for program in self.programs[:]:
            program.read()
            if program.has_ended:
                program.close()
                self.programs.remove(program)

    def _look(self) -> None:
        """Learn which items chaos may touch."""
        state = self.simulator.do("state")
        protected = {node["number"] for node in state["nodes"] if node["name"].startswith(PROTECTED)}
        self._nodes = [node for node in state["nodes"] if node["number"] not in protected]
        self._links = [link["number"] for link in state["links"] if link["from"] not in protected]
        self._looked_at = time.monotonic()

    def _some(self, items: Sequence[Item]) -> Item | None:
        return self.rng.choice(items) if items else None

    # Programs

    @ordinary(10)
    def attach(self) -> None:
        """Come as one of the nodes that are there, perhaps one that another program drives."""
        if node := self._some(self._nodes):
            self._attach_as(node["name"], bytes.fromhex(node["address"]))

    @ordinary(3)
    def attach_unknown(self) -> None:
        """Come as a node that is not there: the simulator makes one, or none."""
        number = self.rng.randrange(1000)
        self._attach_as(f"unknown-{number}", programs.address(UNKNOWN_KIND, number))

    @ordinary(2)
    def attach_strangely(self) -> None:
        """Use an identification of the wrong kind or length, cut short, or with a name that nobody would choose."""
        names = [b"", b"x" * 20_000, b"a\0b", "\u202e\U0001f600".encode() * 50]
        wholes = [messages.encode_control(NodeControl.NAME, name) for name in names]
        whole = self.rng.choice([*wholes, messages.encode_address(b"\2" * 7)])
        self._add_program(whole[: self.rng.choice([len(whole), len(whole), 3, 6, 10])])

    @ordinary(3)
    def come_back(self) -> None:
        """Come under the same name while the old connection stands."""
        if node := self._attached_node():
            for _ in range(2):
                self._attach_as(node["name"], bytes.fromhex(node["address"]))

    def _attach_as(self, name: str, address: bytes) -> None:
        by_name = self.simulator.by_name
        self._add_program(messages.encode_name(name) if by_name else messages.encode_address(address))

    def _add_program(self, first_bytes: bytes = b"") -> None:
        if len(self.programs) >= MOST_PROGRAMS:
            self._farewell()
        self.connections += 1
        program = Hostile(self.simulator.port)
        if not program.wait_until_connected(HANG):
            self.errors.append(f"no connection in {HANG:.0f} s")
        program.send(first_bytes)
        self.programs.append(program)

    def _farewell(self) -> None:
        """Let one of them go, one way or the other."""
        program = self.programs.pop(self.rng.randrange(len(self.programs)))
        self.rng.choice([program.close, program.reset])()

    def _attached_node(self) -> dict[str, Any] | None:
        return self._some([node for node in self._nodes if node["attached"]])

    def _some_address(self) -> bytes:
        known = programs.address(CHAOS_KIND, self.rng.randrange(KNOWN_ADDRESSES))
        return self.rng.choice([known, known, programs.BROADCAST])

    def _some_frame(self) -> bytes:
        body = self.rng.randbytes(self.rng.randrange(LONGEST_BODY))
        return messages.encode_frame(self._some_address() + self._some_address() + body)

    def _send_politely(self, sent: Sequence[bytes]) -> None:
        if program := self._some(self.programs):
            all(program.send_politely(message, 0.2) for message in sent)  # until one is not taken

    @ordinary(25)
    def talk(self) -> None:
        self._send_politely([self._some_frame() for _ in range(self.rng.randint(1, 12))])

    @ordinary(4)
    def talk_nonsense(self) -> None:
        """Send frames that are too short or too long, empty ones and a null one."""
        sizes = self.rng.choices([0, 1, 11, 30_001, 31_500], k=4)
        null = HEADER.pack(MessageType.FRAME, NULL_LENGTH)
        self._send_politely([*(messages.encode_frame(bytes(size)) for size in sizes), null])

    @ordinary(3)
    def talk_recklessly(self) -> None:
        """Send as fast as the socket takes it: messages are cut anywhere."""
        if program := self._some(self.programs):
            all(program.send(self._some_frame()) for _ in range(300))  # until one is not taken whole

    @ordinary(5)
    def control(self) -> None:
        controls = [
            messages.encode_name(NAME(self.rng)),
            messages.encode_address(self._some_address()),
            messages.encode_address(b"\1\2"),
            messages.encode_activation(False),
            messages.encode_activation(True),
            messages.encode_color(*self.rng.randbytes(3)),
            messages.encode_message(MessageType.DISCARDED, self.rng.randbytes(50)),
        ]
        self._send_politely(self.rng.sample(controls, 3))

    @ordinary(3)
    def break_protocol(self) -> None:
        garbage = self.rng.randbytes(self.rng.randint(1, 60))
        bad_type = messages.encode_message(self.rng.choice([0, 2, 6, 7, 8, 255]), b"xyz")
        huge = HEADER.pack(self.rng.choice([1, 3, 4]), self.rng.choice([0xFFFFFFF0, 0x7FFFFFFF, 1 << 26]))
        self._send_politely([self.rng.choice([garbage, bad_type, huge])])

    @ordinary(3)
    def stall(self) -> None:
        """Read nothing for a while, and then go on."""
        if program := self._some(self.programs):
            program.stalled_until = time.monotonic() + self.rng.uniform(1.0, LONGEST_STALL)

    @ordinary(6)
    def die_in_mid_message(self) -> None:
        if program := self._some(self.programs):
            message = self._some_frame()
            program.send(self._some_frame() + message[: self.rng.randrange(1, len(message))])
            self.programs.remove(program)
            self.rng.choice([program.close, program.reset])()

    @ordinary(2)
    def scan_port(self) -> None:
        """Make connections and close them at once, with and without a word."""
        words = [b"", b"GET / HTTP/1.0\r\n\r\n", self.rng.randbytes(40), b"\3", b"\3\0\0\0"]
        scan = self._gather(self.rng.randint(1, 20))
        for program in scan:
            program.wait_until_connected(HANG)
            program.send(self.rng.choice(words))
        self._disperse(scan)

    @ordinary(3)
    def connect_and_be_silent(self) -> None:
        self._add_program()

    # The user

    @ordinary(2)
    def add_node(self) -> None:
        if len(self._nodes) < MOST_NODES:
            address = programs.address(CHAOS_KIND, self.rng.randrange(KNOWN_ADDRESSES))
            self.simulator.add_node(self.rng, NAME(self.rng), address)
            self._look()

    @ordinary(4)
    def add_link(self) -> None:
        if len(self._nodes) >= 2 and len(self._links) < 2 * MOST_NODES:
            self.simulator.add_link([node["number"] for node in self.rng.sample(self._nodes, 2)])
            self._look()

    @ordinary(1.5)
    def delete_node(self) -> None:
        self._delete(self._some(self._nodes))

    @ordinary(1)
    def delete_talking_node(self) -> None:
        """Delete it with its frames in flight, right behind their sending."""
        self.talk()
        self._delete(self._attached_node())

    def _delete(self, node: dict[str, Any] | None) -> None:
        if node:
            self.simulator.do("delete", item=node["number"])
            self._look()
        if len(self._nodes) < FEWEST_NODES:
            self.add_node()

    @ordinary(2)
    def delete_link(self) -> None:
        if number := self._some(self._links):
            self.simulator.do("delete", item=number)
            self._look()

    @ordinary(6)
    def break_or_mend_link(self) -> None:
        self._set(self._some(self._links), {"brokenChanged": one_of(CHECKED, UNCHECKED)})

    @ordinary(6)
    def change_link(self) -> None:
        self._set(self._some(self._links), LINK_SETTINGS)

    @ordinary(6)
    def change_node(self) -> None:
        if node := self._some(self._nodes):
            self._set(node["number"], NODE_SETTINGS)

    @ordinary(2)
    def change_default(self) -> None:
        self._set(*self.rng.choice([("default node", NODE_DEFAULTS), ("default connection", LINK_DEFAULTS)]))

    def _set(self, item: int | str | None, settings: dict[str, Draw]) -> None:
        slot, draw = self.rng.choice(list(settings.items()))
        if item:
            self.simulator.set(item, (slot, draw(self.rng)))

    @ordinary(2)
    def select(self) -> None:
        """Select an item, whose form then stays open, or nothing."""
        numbers = [node["number"] for node in self._nodes] + self._links + [0]
        self.simulator.do("select", item=self.rng.choice(numbers))

    @ordinary(2)
    def move_node(self) -> None:
        if node := self._some(self._nodes):
            place = {"x": self.rng.uniform(0, 700), "y": self.rng.uniform(0, 500)}
            self.simulator.do("move", item=node["number"], **place)

    @ordinary(1)
    def switch_capture(self) -> None:
        switches = {"enabled": self.rng.random() < 0.7, "follows": self.rng.random() < 0.5}
        self.simulator.do("capture", **switches, clear=self.rng.random() < 0.5)

    @ordinary(1)
    def save_and_export(self) -> None:
        if not all(self._save_and_export()):
            self.errors.append("simulation or capture is not written")

    @ordinary(1)
    def debug(self) -> None:
        self.simulator.do("debug", command=self.rng.randint(1, 6))

    @ordinary(1)
    def change_identification(self) -> None:
        self.simulator.identify_by(self.rng.random() < 0.5, self.rng.random() < 0.6)

    @ordinary(0.5)
    def restart_server(self) -> None:
        """Stop the server and start it again: attached programs stay, those that are silent go."""
        self.simulator.listen()

    # Rare, because they take long

    @rare
    def come_in_a_crowd(self) -> None:
        crowd = self._gather(CROWD)
        deadline = time.monotonic() + CROWD_PATIENCE
        connected = sum(program.wait_until_connected(deadline - time.monotonic()) for program in crowd)
        if connected < CROWD:
            self.errors.append(f"only {connected} of {CROWD} connections in {CROWD_PATIENCE:.0f} s")
        for program in crowd[::3]:
            program.send(self.rng.randbytes(30))
        self._idle(self.rng.uniform(0.1, 1.0))
        self._disperse(crowd)
        # How many the simulator held before is no measure: the kernel may have connected programs that are still to
        # be accepted.
        most = LISTENING + 2 * len(honest.LINKS) + len(self.programs)
        if not self.simulator.wait_until(lambda: self.simulator.open_sockets() <= most, CROWD_PATIENCE):
            self.errors.append(f"{self.simulator.open_sockets()} sockets behind a crowd, for {most} at most")

    @rare
    def use_up_descriptors(self) -> None:
        """Let a crowd take those that the simulator has left, save and export without any, and free them.

        Both are done once before: the sanitizers need a descriptor to look at an object of a type new to them.
        """
        self._save_and_export()
        used = self.simulator.descriptors()
        limit = used[-1] + 1 + DESCRIPTORS_LEFT
        self.simulator.limit_descriptors(limit)
        crowd = self._gather(limit - len(used) + CONNECTIONS_TOO_MANY)
        if not self.simulator.wait_until(lambda: len(self.simulator.descriptors()) == limit, HANG):
            self.errors.append(f"the descriptors are not used up: {self.simulator.descriptors()} of {limit}")
        self._save_and_export()
        self._idle(EXHAUSTION)
        self._disperse(crowd)
        self._attach_ordinary_program("after descriptors were used up")
        self.simulator.limit_descriptors(DESCRIPTORS)

    def _save_and_export(self) -> list[bool]:
        """Return whether each can be done."""
        files = {"save": "chaos.ltvo", "export": "chaos.pcapdump"}
        return [self.simulator.do(what, file=str(self.folder / name))["written"] for what, name in files.items()]

    def _gather(self, size: int) -> list[Hostile]:
        """Connect so many programs at the same moment, which read nothing."""
        self.connections += size
        return [Hostile(self.simulator.port) for _ in range(size)]

    def _disperse(self, crowd: list[Hostile]) -> None:
        end = self.rng.choice([Hostile.close, Hostile.reset])
        for program in crowd:
            end(program)

    @rare
    def never_read(self) -> None:
        """Let a program never read: it is dropped when 64 MiB wait for it; its node and the rest go on."""
        nodes = [(name, programs.address(FLOOD_KIND, number)) for number, name in enumerate(("flood-from", "flood-to"))]
        numbers = [self.simulator.add_node(self.rng, *node) for node in nodes]
        self.simulator.add_link(numbers, ("reliabilityChanged", 100.0))
        source, target = (self._attach(*node) for node in nodes)
        self._flood(source, nodes[1][1] + nodes[0][1] + bytes(FLOOD_FRAME))
        source.close()
        target.close()
        for number in numbers:
            self.simulator.do("delete", item=number)
        self._look()

    def _flood(self, source: Client, frame: bytes) -> None:
        deadline = time.monotonic() + FLOOD_PATIENCE
        while True:
            for _ in range(FRAMES_BETWEEN_LOOKS):
                source.send_frame(frame, HANG)
            self._serve_programs()
            nodes = {node["name"]: node for node in self.simulator.nodes()}
            sent = nodes["flood-from"]["sent"] * len(frame)  # by the node: the kernel holds more
            if not nodes["flood-to"]["attached"]:
                break
            if sent > FLOOD_LIMIT or time.monotonic() > deadline:
                self.errors.append(f"a program that has not read {sent} bytes is still attached")
                return
        if sent < UNSENT_LIMIT:
            self.errors.append(f"a program that has not read {sent} bytes is not attached any more")

    def _attach_ordinary_program(self, when: str) -> None:
        """Attach a program, which is served within the time that counts as a hang."""
        self.tally["serve_ordinary_program"] += 1
        node = f"ordinary-{self.tally['serve_ordinary_program']}", programs.address(UNKNOWN_KIND, 5000)
        number = self.simulator.add_node(self.rng, *node)
        try:
            self._attach(*node).close()
        except (LattivoError, TimeoutError) as error:
            self.errors.append(f"no ordinary program is served {when}: {error}")
        self.simulator.do("delete", item=number)

    def _attach(self, name: str, address: bytes) -> Client:
        """Attach by address, so that a name that chaos has given away twice is no matter."""
        self.connections += 1
        self.simulator.identify_by(by_name=False, plug_and_play=False)
        return self.simulator.attach(name, address)
