"""The books of frames: what has to come out to the frame when nobody else talks.

Program A sends to B or C over the links A-B and A-C while these are set in turn to all that the model knows. For each
case the sums of the simulator, the confirmations of A and every byte at B and C are known beforehand.
"""

from __future__ import annotations

import random
import time
from dataclasses import dataclass, field
from typing import Any

from lattivo import Client, Confirmation, Disconnected, Frame, Outcome

from measuring.lab import programs
from measuring.lab.confirmations import Fate, outcomes
from measuring.soak.simulator import (
    BOOK_KIND,
    CERTAIN_LINK,
    CHECKED,
    HANG,
    MAXIMAL_TRANSFER_UNIT,
    UNCHECKED,
    UNCONFIRMED,
    Simulator,
    confirming,
)

LOSS_TIMEOUT = 200  # ms, of A's confirmations
SILENCE = 0.3  # s without a message too many; longer than the time-out
LONG_DELAY = 600_000  # ms: in flight until something happens
FEWEST, MOST = 3, 20  # frames of a case
MOST_ERRORS = 3  # a case that fails takes its time
LINKS_OF = {"A-B": "B", "A-C": "C"}  # and the node that each leads to

EQUATION = (
    "sends x links = onto broken links + of a bad size + taken; "
    "taken = delivered + lost (corrupted and detected, or to nobody) "
    "+ vanished with a broken or deleted link + in flight"
)


def address(name: str) -> bytes:
    return programs.address(BOOK_KIND, "ABC".index(name))


NOBODY = programs.address(BOOK_KIND, 99)


@dataclass
class Case:
    """Frames that A sends, and what becomes of each."""

    title: str
    fates: tuple[Fate, ...]  # on each link that A has then
    destination: bytes = field(default_factory=lambda: address("B"))
    settings: list[tuple[str, str, Any, Any]] = field(default_factory=list)  # item, slot, value meanwhile, value then
    size: int = 64  # of the frames, bytes
    sends: bool = True  # A is switched on
    confirms: bool = True  # A asks for confirmations
    inverts: bool = False
    ends_with: tuple[str, str] | None = None  # command and item, while all frames are in flight

    def sums(self) -> dict[str, int]:
        """Return what each frame adds to the sums of the simulator."""
        vanished, lost = self.fates.count(Fate.VANISHED), self.fates.count(Fate.LOST)
        broken, bad = self.fates.count(Fate.ONTO_BROKEN_LINK), self.fates.count(Fate.OF_BAD_SIZE)
        taken = len(self.fates) - broken - bad
        return {
            "sends": int(self.sends),
            "copies": len(self.fates),
            "onto_broken_links": broken,
            "of_bad_size": bad,
            "taken": taken,
            "delivered": taken - vanished - lost,
            "lost": lost,
            "vanished": vanished,
            "in_flight": 0,
        }

    def confirmations(self) -> list[Confirmation]:
        if not (self.sends and self.confirms):
            return []
        delivered, lost = outcomes(self.fates, self.destination == programs.BROADCAST)
        return [Confirmation(Outcome.DELIVERED)] * delivered + [Confirmation(Outcome.LOST)] * lost

    def reaches(self, name: str) -> bool:
        """Tell whether the program of B or C gets the frame."""
        fate = dict(zip("BC", self.fates)).get(name, Fate.LOST)
        return fate.delivers and fate != Fate.VANISHED


IN_TIME, LOST, VANISHED, BAD_SIZE = Fate.IN_TIME, Fate.LOST, Fate.VANISHED, Fate.OF_BAD_SIZE
LATE = [("A-B", "delayChanged", LOSS_TIMEOUT // 2, 0), ("A", "frameAcknowledgeTimeoutChanged", 20, LOSS_TIMEOUT)]
CORRUPTING = ("A-B", "reliabilityChanged", 0.0, 100.0)
UNNOTICED = ("A-B", "errorDetectionReliabilityChanged", 0.0, 100.0)
BROKEN = ("A-B", "brokenChanged", CHECKED, UNCHECKED)
SLOW = ("A-B", "delayChanged", LONG_DELAY, 0)
SLOW_FOR_GOOD = ("delayChanged", LONG_DELAY, None)
B_OFF, A_OFF = ("B", "disableChanged", CHECKED, UNCHECKED), ("A", "disableChanged", CHECKED, UNCHECKED)
SILENT = ("A", "framesAcknowledgedChanged", UNCHECKED, CHECKED)
C_PROMISCUOUS = ("C", "promiscuousModeChanged", CHECKED, UNCHECKED)

CASES = [
    Case("to B", (IN_TIME, LOST)),
    Case("to nobody", (LOST, LOST), NOBODY),
    Case("to all", (IN_TIME, IN_TIME), programs.BROADCAST),
    Case("too short", (BAD_SIZE, BAD_SIZE), size=11),
    Case("too long", (BAD_SIZE, BAD_SIZE), size=MAXIMAL_TRANSFER_UNIT + 1),
    Case("over a broken link", (Fate.ONTO_BROKEN_LINK, LOST), settings=[BROKEN]),
    Case("in flight on a link that breaks", (VANISHED, LOST), settings=[SLOW], ends_with=("break", "A-B")),
    Case("to B after the link is mended", (IN_TIME, LOST), settings=[("A-B", "brokenChanged", UNCHECKED, UNCHECKED)]),
    Case("to B and taken by C, promiscuous", (IN_TIME, Fate.OVERHEARD), settings=[C_PROMISCUOUS]),
    Case("corrupted, detected", (LOST, LOST), settings=[CORRUPTING]),
    Case("corrupted, not detected", (IN_TIME, LOST), settings=[CORRUPTING, UNNOTICED], inverts=True),
    Case("later than the time-out", (Fate.LATE, LOST), settings=LATE),
    Case("to a node switched off", (LOST, LOST), settings=[B_OFF]),
    Case("from a node switched off", (), settings=[A_OFF], sends=False),
    Case("without confirmations", (IN_TIME, LOST), settings=[SILENT], confirms=False),
    Case(
        "in flight to a node that is deleted",
        (LOST, VANISHED),
        address("C"),
        settings=[("A-C", *SLOW_FOR_GOOD)],
        ends_with=("delete", "C"),
    ),
    Case(
        "in flight on a link that is deleted",
        (VANISHED,),
        settings=[("A-B", *SLOW_FOR_GOOD)],
        ends_with=("delete", "A-B"),
    ),
    Case("from a node without links", ()),
    Case("to all from a node without links", (), programs.BROADCAST),
]


def add_book_nodes(simulator: Simulator, rng: random.Random) -> None:
    settings = {"A": confirming(LOSS_TIMEOUT), "B": UNCONFIRMED, "C": UNCONFIRMED}
    ends = {name: simulator.add_node(rng, f"book-{name}", address(name), *settings[name]) for name in "ABC"}
    for name in LINKS_OF.values():
        simulator.add_link([ends["A"], ends[name]], *CERTAIN_LINK)


class Books:
    """The programs of A, B and C, which check all cases."""

    def __init__(self, simulator: Simulator, rng: random.Random) -> None:
        self.simulator = simulator
        self.rng = rng
        self.frames = 0
        self.errors: list[str] = []
        self._items = self._find_items()
        self._programs = {name: simulator.attach(f"book-{name}", address(name)) for name in "ABC"}

    def check_all(self) -> None:
        for case in CASES:
            if len(self.errors) < MOST_ERRORS:
                self._check(case)
        for program in self._programs.values():
            program.close()

    def _find_items(self) -> dict[str, int]:
        state = self.simulator.do("state")
        numbers = {node["name"]: node["number"] for node in state["nodes"]}
        items = {name: numbers[f"book-{name}"] for name in "ABC"}
        for link in state["links"]:
            for title, name in LINKS_OF.items():
                if {link["from"], link["to"]} == {items["A"], items[name]}:
                    items[title] = link["number"]
        return items

    def _check(self, case: Case) -> None:
        count = self.rng.randint(FEWEST, MOST)
        before = self.simulator.do("account")
        for item, slot, value, _ in case.settings:
            self.simulator.set(self._items[item], (slot, value))
        frames = [self._make_frame(case) for _ in range(count)]
        for frame in frames:
            self._programs["A"].send_frame(frame, HANG)
        if case.ends_with:
            self._end_flight(case, before, count)
        self._compare(case, before, frames)
        for item, slot, _, value in case.settings:
            if value is not None:
                self.simulator.set(self._items[item], (slot, value))
        self.frames += count

    def _make_frame(self, case: Case) -> bytes:
        start = (case.destination + address("A"))[: case.size]
        return start + self.rng.randbytes(case.size - len(start))

    def _end_flight(self, case: Case, before: dict[str, int], count: int) -> None:
        """End it once all frames have been sent, and those for the other link have left that."""

        def is_in_flight() -> bool:
            account = self.simulator.do("account")
            vanishing = count * case.fates.count(VANISHED)
            return bool(account["sends"] - before["sends"] == count and account["in_flight"] == vanishing)

        self.simulator.wait_until(is_in_flight, HANG)
        assert case.ends_with
        command, item = case.ends_with
        if command == "break":
            self.simulator.set(self._items[item], ("brokenChanged", CHECKED))
        else:
            self.simulator.do(command, item=self._items[item])
        if command == "delete" and item in self._programs and not has_ended(self._programs[item]):
            self.errors.append(f"{case.title}: the program of {item} is still connected")

    def _compare(self, case: Case, before: dict[str, int], frames: list[bytes]) -> None:
        """Wait for what has to come, and then for what must not come."""
        received = [Frame(bytes(byte ^ 0xFF for byte in frame) if case.inverts else frame) for frame in frames]
        expected: dict[str, Any] = {
            **{name: before[name] + len(frames) * count for name, count in case.sums().items()},
            "A": case.confirmations() * len(frames),
            **{name: received if case.reaches(name) else [] for name in "BC"},
        }
        got: dict[str, Any] = {name: [] for name in "ABC"}

        def is_complete() -> bool:
            got.update(self.simulator.do("account"))
            for name, program in self._programs.items():
                got[name] += messages_of(program)
            return got == expected

        self.simulator.wait_until(is_complete, HANG)
        time.sleep(SILENCE)
        if not is_complete():
            wrong = {name: (short(got[name]), short(value)) for name, value in expected.items() if got[name] != value}
            self.errors.append(f"{case.title}, {len(frames)} frames (got, expected): {wrong}")


def messages_of(program: Client) -> list[Any]:
    """Return what has come; nothing more once the connection has ended."""
    try:
        return program.receive_messages(0.0)
    except Disconnected:
        return []


def has_ended(program: Client) -> bool:
    """Tell whether the simulator ends the connection in time, and sends nothing before."""
    try:
        program.receive(HANG)
    except Disconnected:
        return True
    return False


def short(value: Any) -> Any:
    return f"{len(value)} messages" if isinstance(value, list) else value


def is_balanced(account: dict[str, int]) -> bool:
    """Tell whether the equation holds, as it does at any moment."""
    kept = account["delivered"] + account["lost"] + account["vanished"] + account["in_flight"]
    return account["taken"] == kept and account["lost"] >= 0
