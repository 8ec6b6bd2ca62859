"""The simulator under test: its process, and the network that it begins with."""

from __future__ import annotations

import collections
import os
import random
import re
import resource
import time
from pathlib import Path
from typing import Any, Callable, Sequence

from lattivo import Client

from measuring.lab import programs
from measuring.lab.launcher import memory_of
from measuring.lab.remotecontrol import RemoteControl
from measuring.soak import honest

CHECKED, UNCHECKED = 2, 0
DESCRIPTORS = 4096  # of the simulator, when none are taken away from it
HANG = 10.0  # s without an answer: the simulator hangs
MAXIMAL_TRANSFER_UNIT = 30_000  # bytes; a frame that is too long still fits into one segment on the local machine
POLL = 0.02  # s

CHAOS_KIND, BOOK_KIND, FLOOD_KIND, UNKNOWN_KIND = 2, 3, 4, 5  # of addresses; honest programs have their own
PROTECTED = ("honest-", "book-")  # names that hostile programs never use
CHAOS_NODES = 10
CHAOS_LINKS = 14

CERTAIN_LINK = [("reliabilityChanged", 100.0), ("errorDetectionReliabilityChanged", 100.0)]
UNCONFIRMED = [("framesAcknowledgedChanged", UNCHECKED), ("promiscuousModeChanged", UNCHECKED)]


def confirming(timeout: int) -> list[tuple[str, Any]]:
    """Return the settings of a node that takes its own frames only and hears of each within the time-out (ms)."""
    return [*UNCONFIRMED, ("framesAcknowledgedChanged", CHECKED), ("frameAcknowledgeTimeoutChanged", timeout)]


class Simulator(RemoteControl):
    """The program that soakserver.cpp describes."""

    def __init__(self, program: Path, seed: int, log: Path) -> None:
        super().__init__([str(program), str(seed)], log, patience=HANG)
        self.limit_descriptors(DESCRIPTORS)
        self.by_name = False

    def set(self, item: int | str, *settings: tuple[str, Any]) -> None:
        for slot, value in settings:
            self.do("set", item=item, slot=slot, value=value)

    def listen(self) -> None:
        self.port = self.do("listen")["port"]

    def identify_by(self, by_name: bool, plug_and_play: bool) -> None:
        for slot, is_on in (("tcpUseNameForPnpChanged", by_name), ("tcpPnpEnabledChanged", plug_and_play)):
            self.set("network", (slot, CHECKED if is_on else UNCHECKED))
        self.by_name = by_name

    def nodes(self) -> list[dict[str, Any]]:
        nodes: list[dict[str, Any]] = self.do("state")["nodes"]
        return nodes

    def are_attached(self, *names: str) -> bool:
        """Tell whether all nodes whose names begin so have programs."""
        return all(node["attached"] for node in self.nodes() if node["name"].startswith(names))

    def attach(self, name: str, address: bytes) -> Client:
        """Attach a program, by address; return it once its node says so."""
        client = Client.connect(port=self.port, address=address, largest_frame=MAXIMAL_TRANSFER_UNIT, timeout=HANG)
        if not self.wait_until(lambda: self.are_attached(name), HANG):
            raise TimeoutError(f"{name} is not attached")
        return client

    def wait_until(self, condition: Callable[[], bool], seconds: float) -> bool:
        """Return whether it becomes true in time."""
        deadline = time.monotonic() + seconds
        while not condition():
            if time.monotonic() > deadline:
                return False
            time.sleep(POLL)
        return True

    def add_node(self, rng: random.Random, name: str, address: bytes, *settings: tuple[str, Any]) -> int:
        """Return the number of a new node at any place."""
        place = {"x": rng.uniform(0, 700), "y": rng.uniform(0, 500)}
        number = int(self.do("add_node", name=name, address=address.hex(), **place)["number"])
        self.set(number, *settings)
        return number

    def add_link(self, ends: Sequence[int], *settings: tuple[str, Any]) -> int:
        """Return the number of a new link."""
        number = int(self.do("link", **{"from": ends[0], "to": ends[1]})["number"])
        self.set(number, *settings)
        return number

    # The process

    def descriptors(self) -> list[int]:
        return sorted(int(name) for name in os.listdir(f"/proc/{self.process.pid}/fd"))

    def descriptor_targets(self) -> dict[str, int]:
        """Count the open ones: by file, and by each other kind."""
        counts: collections.Counter[str] = collections.Counter()
        for descriptor in self.descriptors():
            try:
                target = os.readlink(f"/proc/{self.process.pid}/fd/{descriptor}")
            except FileNotFoundError:
                continue  # closed since it was listed
            counts[re.sub(r"\[\d+\]", "", target)] += 1
        return dict(sorted(counts.items()))

    def open_sockets(self) -> int:
        return self.descriptor_targets().get("socket:", 0)

    def limit_descriptors(self, limit: int) -> None:
        resource.prlimit(self.process.pid, resource.RLIMIT_NOFILE, (limit, DESCRIPTORS))

    def resident_bytes(self) -> int:
        return memory_of(self.process.pid)


def add_honest_pairs(simulator: Simulator, rng: random.Random) -> None:
    for pair, link in enumerate(honest.LINKS):
        settings = confirming(link.timeout) if link.confirms else UNCONFIRMED
        ends = [
            simulator.add_node(rng, honest.node_name(end), honest.node_address(end), *settings)
            for end in (2 * pair, 2 * pair + 1)
        ]
        delays = [("delayChanged", link.delay), ("delayDeviationChanged", link.deviation)]
        simulator.add_link(ends, *CERTAIN_LINK, *delays)


def add_chaos_nodes(simulator: Simulator, rng: random.Random) -> None:
    numbers = range(CHAOS_NODES)
    ends = [simulator.add_node(rng, f"chaos-{each}", programs.address(CHAOS_KIND, each)) for each in numbers]
    for _ in range(CHAOS_LINKS):
        simulator.add_link(rng.sample(ends, 2))
