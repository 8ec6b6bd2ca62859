"""The books of frames: what has to come out to the frame when nobody else talks.

Program A sends to B or C over the links A-B and A-C while these are set in turn to all that the model knows. For each
case the sums of the simulator, the confirmations of A and every byte at B and C are known beforehand.
"""

import time
from dataclasses import dataclass, field

from measuring.soak import programs
from measuring.soak.programs import bridge
from measuring.soak.simulator import (
    BOOK_KIND,
    CERTAIN_LINK,
    CHECKED,
    HANG,
    MAXIMAL_TRANSFER_UNIT,
    UNCHECKED,
    add_node,
    attach,
)

LOSS_TIMEOUT = 200  # ms, of A's confirmations
SILENCE = 0.3  # s without a message too many; longer than the time-out
LONG_DELAY = 600_000  # ms: in flight until something happens
FEWEST, MOST = 3, 20  # frames of a case
MOST_ERRORS = 3  # a case that fails takes its time
SUMS = ["sends", "copies", "onto_broken_links", "of_bad_size", "taken", "delivered", "lost", "vanished", "in_flight"]

EQUATION = (
    "sends x links = onto broken links + of a bad size + taken; "
    "taken = delivered + lost (corrupted and detected, or to nobody) "
    "+ vanished with a broken or deleted link + in flight"
)


def address(name):
    return programs.address(BOOK_KIND, "ABC".index(name))


NOBODY = programs.address(BOOK_KIND, 99)


@dataclass
class Case:
    """Counts are per frame that A sends."""

    title: str
    sums: dict
    destination: bytes = field(default_factory=lambda: address("B"))
    settings: list = field(default_factory=list)  # (item, slot, value while the case runs, value afterwards)
    size: int = 64  # of the frames, bytes
    confirmed: int = 0
    reported_lost: int = 0
    reaches: str = ""  # the nodes whose programs get the frame
    inverts: bool = False
    ends_with: tuple = None  # (command, item, settings) while all frames are in flight
    ends_programs: str = ""  # whose nodes have gone then


def sums(links=2, sends=1, **counts):
    return {**dict.fromkeys(SUMS, 0), "sends": sends, "copies": sends * links, **counts}


LATE = [("A-B", "delayChanged", LOSS_TIMEOUT // 2, 0), ("A", "frameAcknowledgeTimeoutChanged", 20, LOSS_TIMEOUT)]
CORRUPTING = ("A-B", "reliabilityChanged", 0.0, 100.0)
BREAK_AB = ("set", "A-B", [("brokenChanged", CHECKED)])

CASES = [
    Case("to B", sums(taken=2, delivered=1, lost=1), confirmed=1, reaches="B"),
    Case("to nobody", sums(taken=2, lost=2), destination=NOBODY, reported_lost=1),
    Case("to all", sums(taken=2, delivered=2), destination=programs.BROADCAST, confirmed=1, reaches="BC"),
    Case("too short", sums(of_bad_size=2), size=11, reported_lost=1),
    Case("too long", sums(of_bad_size=2), size=MAXIMAL_TRANSFER_UNIT + 1, reported_lost=1),
    Case(
        "over a broken link",
        sums(onto_broken_links=1, taken=1, lost=1),
        settings=[("A-B", "brokenChanged", CHECKED, UNCHECKED)],
        reported_lost=1,
    ),
    Case(
        "in flight on a link that breaks",
        sums(taken=2, lost=1, vanished=1),
        settings=[("A-B", "delayChanged", LONG_DELAY, 0)],
        ends_with=BREAK_AB,
    ),
    Case(
        "to B after the link is mended",
        sums(taken=2, delivered=1, lost=1),
        settings=[("A-B", "brokenChanged", UNCHECKED, UNCHECKED)],
        confirmed=1,
        reaches="B",
    ),
    Case(
        "to B and taken by C, promiscuous",
        sums(taken=2, delivered=2),
        settings=[("C", "promiscuousModeChanged", CHECKED, UNCHECKED)],
        confirmed=1,
        reaches="BC",
    ),
    Case("corrupted, detected", sums(taken=2, lost=2), settings=[CORRUPTING], reported_lost=1),
    Case(
        "corrupted, not detected",
        sums(taken=2, delivered=1, lost=1),
        settings=[CORRUPTING, ("A-B", "errorDetectionReliabilityChanged", 0.0, 100.0)],
        confirmed=1,
        reaches="B",
        inverts=True,
    ),
    Case("later than the time-out", sums(taken=2, delivered=1, lost=1), settings=LATE, reaches="B"),
    Case(
        "to a node switched off",
        sums(taken=2, lost=2),
        settings=[("B", "disableChanged", CHECKED, UNCHECKED)],
        reported_lost=1,
    ),
    Case("from a node switched off", sums(sends=0), settings=[("A", "disableChanged", CHECKED, UNCHECKED)]),
    Case(
        "without confirmations",
        sums(taken=2, delivered=1, lost=1),
        settings=[("A", "framesAcknowledgedChanged", UNCHECKED, CHECKED)],
        reaches="B",
    ),
    Case(
        "in flight to a node that is deleted",
        sums(taken=2, lost=1, vanished=1),
        destination=address("C"),
        settings=[("A-C", "delayChanged", LONG_DELAY, None)],
        ends_with=("delete", "C", []),
        ends_programs="C",
    ),
    Case(
        "in flight on a link that is deleted",
        sums(links=1, taken=1, vanished=1),
        settings=[("A-B", "delayChanged", LONG_DELAY, None)],
        ends_with=("delete", "A-B", []),
    ),
    Case("from a node without links", sums(links=0), reported_lost=1),
    Case("to all from a node without links", sums(links=0), destination=programs.BROADCAST, confirmed=1),
]


def add_book_nodes(simulator, rng):
    ends = {name: add_node(simulator, rng, f"book-{name}", address(name)) for name in "ABC"}
    for end in ends.values():
        simulator.set(end, ("framesAcknowledgedChanged", UNCHECKED), ("promiscuousModeChanged", UNCHECKED))
    settings = [("framesAcknowledgedChanged", CHECKED), ("frameAcknowledgeTimeoutChanged", LOSS_TIMEOUT)]
    simulator.set(ends["A"], *settings)
    for name in "BC":
        number = simulator.do("link", **{"from": ends["A"], "to": ends[name]})["number"]
        simulator.set(number, *CERTAIN_LINK)


class Books:
    def __init__(self, simulator, rng):
        self.simulator = simulator
        self.rng = rng
        self.frames = 0
        self.errors = []
        self._items = self._find_items()
        self._programs = {name: attach(simulator, f"book-{name}", address(name)) for name in "ABC"}

    def check_all(self):
        for case in CASES:
            if len(self.errors) < MOST_ERRORS:
                self._check(case)
        for program in self._programs.values():
            program.close()

    def _find_items(self):
        state = self.simulator.do("state")
        numbers = {node["name"].removeprefix("book-"): node["number"] for node in state["nodes"]}
        items = {name: numbers[name] for name in "ABC"}
        for link in state["links"]:
            ends = {link["from"], link["to"]}
            items.update({f"A-{name}": link["number"] for name in "BC" if ends == {items["A"], items[name]}})
        return items

    def _check(self, case):
        count = self.rng.randint(FEWEST, MOST)
        before = self.simulator.do("account")
        for item, slot, value, _ in case.settings:
            self.simulator.set(self._items[item], (slot, value))
        frames = [self._make_frame(case) for _ in range(count)]
        for payload in frames:
            self._programs["A"].send_when_safe(bridge.encode_frame(payload), HANG)
        if case.ends_with:
            self._end_flight(case, before, count)
        self._compare(case, before, frames)
        for item, slot, _, value in case.settings:
            if value is not None:
                self.simulator.set(self._items[item], (slot, value))
        self.frames += count

    def _make_frame(self, case):
        start = programs.frame(case.destination, address("A"))[: case.size]
        return start + self.rng.randbytes(case.size - len(start))

    def _end_flight(self, case, before, count):
        """Once all frames have been sent, and those for the other link have left it."""

        def is_in_flight():
            account = self.simulator.do("account")
            vanishing = count * case.sums["vanished"]
            return account["sends"] - before["sends"] == count and account["in_flight"] == vanishing

        self.simulator.wait_until(is_in_flight, HANG)
        command, item, settings = case.ends_with
        if command == "set":
            self.simulator.set(self._items[item], *settings)
        else:
            self.simulator.do(command, item=self._items[item])
        for name in case.ends_programs:
            if not self._programs[name].wait_for_end(HANG):
                self.errors.append(f"{case.title}: the program of {name} is still connected")

    def _compare(self, case, before, frames):
        """Waits for what has to come, and then for what must not come."""
        expected = {
            **{name: before[name] + len(frames) * count for name, count in case.sums.items()},
            "A": [bridge.Confirmation(bridge.Outcome.DELIVERED)] * case.confirmed * len(frames)
            + [bridge.Confirmation(bridge.Outcome.LOST)] * case.reported_lost * len(frames),
            **{name: self._expected_frames(case, name, frames) for name in "BC"},
        }
        got = {name: [] for name in "ABC"}

        def is_complete():
            got.update(self.simulator.do("account"))
            for name in "ABC":
                got[name] += self._programs[name].receive()
            return got == expected

        self.simulator.wait_until(is_complete, HANG)
        time.sleep(SILENCE)
        if not is_complete():
            wrong = {name: (short(got[name]), short(value)) for name, value in expected.items() if got[name] != value}
            self.errors.append(f"{case.title}, {len(frames)} frames (got, expected): {wrong}")

    @staticmethod
    def _expected_frames(case, name, frames):
        if name not in case.reaches:
            return []
        payloads = [bytes(byte ^ 0xFF for byte in payload) for payload in frames] if case.inverts else frames
        return [bridge.Frame(payload) for payload in payloads]


def short(value):
    return f"{len(value)} messages" if isinstance(value, list) else value


def is_balanced(account):
    """Whether the equation holds; at any moment."""
    kept = account["delivered"] + account["lost"] + account["vanished"] + account["in_flight"]
    refused = account["onto_broken_links"] + account["of_bad_size"]
    return account["copies"] == refused + account["taken"] and account["taken"] == kept and account["lost"] >= 0
