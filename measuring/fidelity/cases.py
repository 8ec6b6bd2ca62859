"""Measure the confirmations that a sender gets, case by case: what was set, what has to come, what came."""

from __future__ import annotations

import collections
import math
import time
from dataclasses import dataclass, field
from typing import Iterable, Optional

import lattivo

from measuring.fidelity import replay
from measuring.fidelity.analysis import wrong
from measuring.fidelity.measure import MAXIMAL_TRANSFER_UNIT, SMALLEST_FRAME, Laboratory
from measuring.lab import confirmations, makesimulation
from measuring.lab.confirmations import Fate, Outcomes
from measuring.lab.launcher import MeasurementFailed, progress
from measuring.lab.makesimulation import CHECKED, UNCHECKED, LinkSettings, NodeSettings, Simulation

FRAMES = 200  # of each case
FRAME_BYTES = 20
DEADLINE = 60  # ms
LATER = 61  # ms
PATIENCE = 5.0  # s, for what has to come
QUIET_TIME = 0.15  # s more than every delay and deadline, for what must not come
ROUND_TRIP = 0.02  # s

SENDER, RECEIVER, THIRD = range(3)
TO_RECEIVER, TO_NOBODY = makesimulation.node_address(RECEIVER), makesimulation.node_address(99)
BROADCAST = makesimulation.BROADCAST_ADDRESS
PROMISCUOUS = NodeSettings(confirms=CHECKED, promiscuous=CHECKED)
PLAIN = LinkSettings()
BROKEN = LinkSettings(broken=True)
LOSING = LinkSettings(reliability=0.0, detection=1.0)
CORRUPTING = LinkSettings(reliability=0.0, detection=0.0)
IN_TIME, LATE, OVERHEARD, LOST = Fate.IN_TIME, Fate.LATE, Fate.OVERHEARD, Fate.LOST
ON_BROKEN, OF_BAD_SIZE = Fate.ONTO_BROKEN_LINK, Fate.OF_BAD_SIZE


@dataclass
class Case:
    """Node 0 sends to nodes 1, 2... over a link to each."""

    title: str
    fates: tuple[Fate, ...] = (IN_TIME,)  # of each frame, on each link
    links: tuple[LinkSettings, ...] = ()
    destination: bytes = TO_RECEIVER
    nodes: dict[int, NodeSettings] = field(default_factory=dict)  # by number
    deadline: int = DEADLINE  # ms, of the sender
    default_deadline: int = 0  # ms, of the default node
    confirms: int = CHECKED
    frame_bytes: int = FRAME_BYTES
    absent: Optional[int] = None  # a node that no program drives
    is_sender_off: bool = False
    takes_over: Optional[int] = None  # a node that takes the receiver's address
    patience: float = PATIENCE
    is_confirmed_at_once: bool = False  # before anything else comes
    in_time: int = 0  # frames that are confirmed although their fate is another

    @property
    def received(self) -> dict[int, int]:
        """Return how many frames reach each node that a program drives."""
        count = 0 if self.is_sender_off else FRAMES
        arriving = (IN_TIME, LATE, OVERHEARD)
        by_node = {node: count * (fate in arriving) for node, fate in enumerate(self.fates, start=RECEIVER)}
        return {node: frames for node, frames in by_node.items() if node != self.absent}

    @property
    def outcomes(self) -> Outcomes:
        """Return how many confirmations come, and how many losses are reported."""
        if self.is_sender_off or self.confirms != CHECKED:
            return Outcomes(0, 0)
        of_each = confirmations.outcomes(self.fates, self.destination == BROADCAST)
        return Outcomes(self.in_time or FRAMES * of_each.delivered, FRAMES * of_each.lost)

    def earliest_loss(self) -> float:
        """Return how long after sending a loss may be reported, in s."""
        return (self.deadline or self.default_deadline) / 1000

    def longest_wait(self) -> float:
        """Return the longest delay or deadline in s."""
        delays = [link.delay + link.delay_deviation for link in self.links]
        return max([self.deadline, self.default_deadline, *delays]) / 1000

    def simulation(self) -> Simulation:
        sender = NodeSettings(confirms=self.confirms, confirmation_timeout=self.deadline)
        return Simulation(
            wiring=[(SENDER, node) for node in range(RECEIVER, RECEIVER + len(self.fates))],
            single_nodes=0 if self.fates else 1,
            maximal_transfer_unit=MAXIMAL_TRANSFER_UNIT,
            confirms=True,
            confirmation_timeout=self.default_deadline,
            own_nodes={SENDER: sender, **self.nodes},
            own_links=dict(enumerate(self.links)),
        )


def cases(seed: int) -> list[Case]:
    delayed = (LinkSettings(delay=DEADLINE),)
    late = (LinkSettings(delay=LATER),)
    spread = (LinkSettings(delay=DEADLINE, delay_deviation=10),)
    drawn = replay.delays(seed, FRAMES, FRAME_BYTES, DEADLINE, 10)
    in_time = sum(value <= DEADLINE for value in drawn)
    listens, third_listens = {RECEIVER: PROMISCUOUS}, {THIRD: PROMISCUOUS}
    both, one_overheard = (IN_TIME, IN_TIME), (IN_TIME, OVERHEARD)
    return [
        Case("unicast, no delay"),
        Case("unicast, delay equal to the deadline", links=delayed),
        Case("unicast, delay 1 ms above the deadline: late", (LATE,), late),
        Case("unicast, delay 60 ms, deviation 10 ms: those drawn up to the deadline", (LATE,), spread, in_time=in_time),
        Case(
            "unicast, own deadline undecided, the default node's as long as the delay",
            links=delayed,
            deadline=0,
            default_deadline=DEADLINE,
        ),
        Case("unicast, confirmations off", confirms=UNCHECKED),
        Case("unicast, lost, confirmations off", (LOST,), (LOSING,), confirms=UNCHECKED),
        Case("unicast, every frame corrupted and noticed", (LOST,), (LOSING,)),
        Case("unicast, every frame corrupted, unnoticed", links=(CORRUPTING,)),
        Case("unicast, lost, neither an own nor a default deadline: reported at once", (LOST,), (LOSING,), deadline=0),
        Case("unicast to an address that nobody has", (LOST,), destination=TO_NOBODY),
        Case("unicast to a node without a program", (LOST,), absent=RECEIVER),
        Case("unicast over a broken link", (ON_BROKEN,), (BROKEN,)),
        Case("unicast, node without a link", ()),
        Case("frame of the two addresses alone", frame_bytes=SMALLEST_FRAME),
        Case("frame one byte shorter than that", (OF_BAD_SIZE,), frame_bytes=SMALLEST_FRAME - 1),
        Case("frame of the maximal transfer unit", frame_bytes=MAXIMAL_TRANSFER_UNIT),
        Case("frame one byte longer than that", (OF_BAD_SIZE,), frame_bytes=MAXIMAL_TRANSFER_UNIT + 1),
        Case("sender switched off", is_sender_off=True),
        Case("promiscuous receiver alone takes it", (OVERHEARD,), destination=TO_NOBODY, nodes=listens),
        Case("promiscuous receiver has the address itself", nodes=listens),
        Case("two links: one to the addressed node, one to a promiscuous one", one_overheard, nodes=third_listens),
        Case("two links to two nodes of the same address: one confirmation from each", both, takes_over=THIRD),
        Case("two links, the addressed node's loses all", (LOST, LOST), (LOSING,)),
        Case("broadcast, one link", (IN_TIME,), (), BROADCAST),
        Case("broadcast, three links: one confirmation", (IN_TIME, IN_TIME, IN_TIME), (), BROADCAST),
        Case("broadcast, late: confirmed at once", (LATE,), late, BROADCAST, is_confirmed_at_once=True),
        Case("broadcast to a promiscuous node", (IN_TIME,), (), BROADCAST, nodes=listens),
        Case("broadcast to a node without a program", (IN_TIME,), (), BROADCAST, absent=RECEIVER),
        Case("broadcast, two links, the last one broken: no outcome", (IN_TIME, ON_BROKEN), (PLAIN, BROKEN), BROADCAST),
        Case("broadcast, two links, the first one broken", (ON_BROKEN, IN_TIME), (BROKEN,), BROADCAST),
        Case("broadcast, all links broken: lost", (ON_BROKEN,), (BROKEN,), BROADCAST),
        Case(
            "broadcast, lost on the only link: confirmed at once, reported lost at the deadline",
            (LOST,),
            (LOSING,),
            BROADCAST,
            is_confirmed_at_once=True,
        ),
        Case("broadcast, two links, the last one loses all", (IN_TIME, LOST), (PLAIN, LOSING), BROADCAST),
        Case("broadcast, node without a link: confirmed at once", (), (), BROADCAST),
    ]


@dataclass
class Outcome:
    """What came."""

    delivered: int = 0
    lost: int = 0
    received: collections.Counter[int] = field(default_factory=collections.Counter)  # frames by node
    placed: int = 0  # of these, which corruption did not hide the place of
    first_loss: float = math.inf  # s after sending; inf: there was none
    confirmed_first: Optional[int] = None  # confirmations that came before the first frame and the first loss
    is_in_order: bool = True

    def matches(self, case: Case) -> bool:
        counts = (self.delivered, self.lost) == case.outcomes
        return counts and all(self.received[node] == frames for node, frames in case.received.items())

    def deviations(self, case: Case) -> list[str]:
        """Return what is not as the case has it."""
        is_pending = case.is_confirmed_at_once and self.confirmed_first not in (None, case.outcomes.delivered)
        return wrong(
            (not self.matches(case), "counts"),
            (not self.is_in_order, "order or contents"),
            (self.first_loss < case.earliest_loss(), f"reported lost after {self.first_loss * 1000:.1f} ms"),
            (is_pending, "not confirmed at once"),
        )


class Trial:
    """One case at a running simulator."""

    def __init__(self, case: Case, port: int) -> None:
        self.case = case
        self.outcome = Outcome()
        numbers = (number.to_bytes(makesimulation.ADDRESS_LENGTH, "big") for number in range(FRAMES))
        size = case.frame_bytes
        self.frames = [(case.destination + number).ljust(size, b"\xaa")[:size] for number in numbers]
        self._programs = {
            node: lattivo.Client.connect(port=port, address=makesimulation.node_address(node))
            for node in (SENDER, *case.received)
        }

    def run(self) -> Outcome:
        for node in self.case.received:
            self._await_attachment(node)
        if self.case.is_sender_off:
            self._programs[SENDER].deactivate()
        if self.case.takes_over is not None:
            self._programs[self.case.takes_over].set_address(TO_RECEIVER)
            self._await_attachment(self.case.takes_over)
        begin = time.monotonic()
        self._programs[SENDER].send_frames(self.frames, PATIENCE)
        self._collect(begin)
        for program in self._programs.values():
            program.close()
        return self.outcome

    def _await_attachment(self, node: int) -> None:
        """Wait for the report that a frame is lost: it is too short, so that the simulator draws no number."""
        self._programs[node].send_frame(b"\0")
        if not self._programs[node].receive(PATIENCE):
            raise MeasurementFailed(f"a node was not taken ({self.case.title})")

    def _collect(self, begin: float) -> None:
        end = begin + self.case.patience
        while time.monotonic() < end and not self.outcome.matches(self.case):
            self._receive(begin)
        quiet_end = max(time.monotonic(), begin + self.case.longest_wait()) + QUIET_TIME
        while time.monotonic() < quiet_end:
            self._receive(begin)

    def _receive(self, begin: float) -> None:
        for node, program in self._programs.items():
            messages = program.receive_messages(ROUND_TRIP / len(self._programs))
            if messages and node != SENDER:  # what the sender was told before comes first
                self._take(SENDER, self._programs[SENDER].receive_messages(0), time.monotonic() - begin)
            self._take(node, messages, time.monotonic() - begin)

    def _take(self, node: int, messages: Iterable[lattivo.Message], now: float) -> None:
        outcome = self.outcome
        for message in messages:
            if message == lattivo.Confirmation(lattivo.Outcome.DELIVERED):
                outcome.delivered += 1
                continue
            if outcome.confirmed_first is None:
                outcome.confirmed_first = outcome.delivered
            if isinstance(message, lattivo.Frame):
                self._check_place(message.payload, outcome.received[node])
                outcome.received[node] += 1
            else:
                outcome.lost += 1
                outcome.first_loss = min(outcome.first_loss, now)

    def _check_place(self, frame: bytes, number: int) -> None:
        if CORRUPTING not in self.case.links:
            self.outcome.placed += 1
            self.outcome.is_in_order &= number < FRAMES and frame == self.frames[number]


def measure_case(laboratory: Laboratory, case: Case) -> Outcome:
    progress.begin(f"confirmations: {case.title}")
    with laboratory.simulator(case.simulation(), laboratory.seed) as server:
        outcome = Trial(case, server.port).run()
    laboratory.count(FRAMES, outcome.placed, not outcome.is_in_order)
    return outcome
