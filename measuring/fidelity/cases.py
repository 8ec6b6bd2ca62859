"""The confirmations that a sender gets, case by case: what was set, what has to come, what came."""

from __future__ import annotations

import collections
import time
from dataclasses import dataclass, field

import bridge

from measuring.fidelity import measure, replay
from measuring.lab import confirmations, makesimulation
from measuring.lab.confirmations import Fate
from measuring.lab.launcher import MeasurementFailed
from measuring.lab.makesimulation import CHECKED, UNCHECKED, LinkSettings, NodeSettings, Simulation

FRAMES = 200  # of each case
FRAME_BYTES = 20
BURST_BYTES = 16 * 1024
SMALLEST_FRAME = 2 * makesimulation.ADDRESS_LENGTH
DEADLINE = 60  # ms
LATER = 61  # ms
PATIENCE = 5.0  # s, for what has to come
QUIET_TIME = 0.15  # s more than every delay and deadline, for what must not come
ROUND_TRIP = 0.02  # s

SENDER, RECEIVER, THIRD, FOURTH = range(4)
NOBODY = 99
BROADCAST = makesimulation.BROADCAST_ADDRESS
PROMISCUOUS = NodeSettings(confirms=CHECKED, promiscuous=CHECKED)
BROKEN = LinkSettings(broken=True)
LOSING = LinkSettings(reliability=0.0, detection=1.0)
CORRUPTING = LinkSettings(reliability=0.0, detection=0.0)
IN_TIME, LATE, OVERHEARD, LOST = Fate.IN_TIME, Fate.LATE, Fate.OVERHEARD, Fate.LOST
ONTO_BROKEN_LINK, OF_BAD_SIZE = Fate.ONTO_BROKEN_LINK, Fate.OF_BAD_SIZE


@dataclass
class Case:
    title: str
    received: dict  # frames by node
    fates: tuple = (IN_TIME,)  # of each frame, on each link of the sender
    destination: object = RECEIVER  # node number, or an address
    wiring: tuple = ((SENDER, RECEIVER),)
    links: dict = field(default_factory=dict)  # LinkSettings by place in the wiring
    nodes: dict = field(default_factory=dict)  # NodeSettings by number
    deadline: int = DEADLINE  # ms, of the sender
    default_deadline: int = 0  # ms, of the default node
    confirms: int = CHECKED
    single_nodes: int = 0
    absent: tuple = ()  # nodes that no program drives
    frame_bytes: int = FRAME_BYTES
    is_sender_off: bool = False
    takes_over: dict = field(default_factory=dict)  # address of the one node, for the other
    earliest_loss: float = 0.0  # s after sending
    patience: float = PATIENCE
    is_confirmed_at_once: bool = False  # before anything else comes
    in_time: int = 0  # frames that are confirmed although their fate is another

    @property
    def delivered(self):
        """Return how many confirmations come."""
        return self.in_time or FRAMES * self._outcomes().delivered

    @property
    def lost(self):
        """Return how many losses are reported."""
        return FRAMES * self._outcomes().lost

    def _outcomes(self):
        if self.is_sender_off or self.confirms != CHECKED:
            return confirmations.Outcomes(0, 0)
        return confirmations.outcomes(self.fates, self.destination == BROADCAST)

    def simulation(self):
        sender = NodeSettings(confirms=self.confirms, confirmation_timeout=self.deadline)
        return Simulation(
            wiring=self.wiring,
            single_nodes=self.single_nodes,
            maximal_transfer_unit=measure.MAXIMAL_TRANSFER_UNIT,
            confirms=True,
            confirmation_timeout=self.default_deadline,
            own_nodes={SENDER: sender, **self.nodes},
            own_links=self.links,
        )

    def longest_wait(self):
        delays = [link.delay + link.delay_deviation for link in self.links.values()]
        return max([self.deadline, self.default_deadline] + delays) / 1000


def in_time_count(seed, delay, deviation):
    drawn = replay.delays(seed, FRAMES, FRAME_BYTES, delay, deviation)
    return sum(value <= DEADLINE for value in drawn)


def cases(seed):
    everything = FRAMES
    star = ((SENDER, RECEIVER), (SENDER, THIRD), (SENDER, FOURTH))
    two_links = star[:2]
    delayed = {0: LinkSettings(delay=DEADLINE)}
    late = {0: LinkSettings(delay=LATER)}
    some_late = {0: LinkSettings(delay=DEADLINE, delay_deviation=10)}
    deadline = DEADLINE / 1000  # s
    return [
        Case("unicast, no delay", {RECEIVER: everything}),
        Case("unicast, delay equal to the deadline", {RECEIVER: everything}, links=delayed),
        Case("unicast, delay 1 ms above the deadline: late", {RECEIVER: everything}, (LATE,), links=late),
        Case(
            f"unicast, delay {DEADLINE} ms, deviation 10 ms: those drawn up to the deadline",
            {RECEIVER: everything},
            (LATE,),
            links=some_late,
            in_time=in_time_count(seed, DEADLINE, 10),
        ),
        Case(
            "unicast, own deadline undecided, the default node's as long as the delay",
            {RECEIVER: everything},
            links=delayed,
            deadline=0,
            default_deadline=DEADLINE,
        ),
        Case("unicast, confirmations off", {RECEIVER: everything}, confirms=UNCHECKED),
        Case("unicast, lost, confirmations off", {RECEIVER: 0}, (LOST,), links={0: LOSING}, confirms=UNCHECKED),
        Case(
            "unicast, every frame corrupted and noticed",
            {RECEIVER: 0},
            (LOST,),
            links={0: LOSING},
            earliest_loss=deadline,
        ),
        Case("unicast, every frame corrupted, unnoticed", {RECEIVER: everything}, links={0: CORRUPTING}),
        Case(
            "unicast, lost, neither an own nor a default deadline: reported at once",
            {RECEIVER: 0},
            (LOST,),
            links={0: LOSING},
            deadline=0,
        ),
        Case("unicast to an address that nobody has", {RECEIVER: 0}, (LOST,), NOBODY, earliest_loss=deadline),
        Case("unicast to a node without a program", {}, (LOST,), absent=(RECEIVER,), earliest_loss=deadline),
        Case(
            "unicast over a broken link", {RECEIVER: 0}, (ONTO_BROKEN_LINK,), links={0: BROKEN}, earliest_loss=deadline
        ),
        Case("unicast, node without a link", {}, (), wiring=(), single_nodes=1, earliest_loss=deadline),
        Case("frame of the two addresses alone", {RECEIVER: everything}, frame_bytes=SMALLEST_FRAME),
        Case("frame one byte shorter than that", {RECEIVER: 0}, (OF_BAD_SIZE,), frame_bytes=SMALLEST_FRAME - 1),
        Case("frame of the maximal transfer unit", {RECEIVER: everything}, frame_bytes=measure.MAXIMAL_TRANSFER_UNIT),
        Case(
            "frame one byte longer than that",
            {RECEIVER: 0},
            (OF_BAD_SIZE,),
            frame_bytes=measure.MAXIMAL_TRANSFER_UNIT + 1,
        ),
        Case("sender switched off", {RECEIVER: 0}, is_sender_off=True),
        Case(
            "promiscuous receiver alone takes it",
            {RECEIVER: everything},
            (OVERHEARD,),
            NOBODY,
            nodes={RECEIVER: PROMISCUOUS},
        ),
        Case("promiscuous receiver has the address itself", {RECEIVER: everything}, nodes={RECEIVER: PROMISCUOUS}),
        Case(
            "two links: one to the addressed node, one to a promiscuous one",
            {RECEIVER: everything, THIRD: everything},
            (IN_TIME, OVERHEARD),
            wiring=two_links,
            nodes={THIRD: PROMISCUOUS},
        ),
        Case(
            "two links to two nodes of the same address: one confirmation from each",
            {RECEIVER: everything, THIRD: everything},
            (IN_TIME, IN_TIME),
            wiring=two_links,
            takes_over={THIRD: RECEIVER},
        ),
        Case(
            "two links, the addressed node's loses all",
            {RECEIVER: 0, THIRD: 0},
            (LOST, LOST),
            wiring=two_links,
            links={0: LOSING},
        ),
        Case("broadcast, one link", {RECEIVER: everything}, (IN_TIME,), BROADCAST),
        Case(
            "broadcast, three links: one confirmation",
            {node: everything for node in (RECEIVER, THIRD, FOURTH)},
            (IN_TIME, IN_TIME, IN_TIME),
            BROADCAST,
            wiring=star,
        ),
        Case(
            "broadcast, late: confirmed at once",
            {RECEIVER: everything},
            (LATE,),
            BROADCAST,
            links=late,
            is_confirmed_at_once=True,
        ),
        Case(
            "broadcast to a promiscuous node",
            {RECEIVER: everything},
            (IN_TIME,),
            BROADCAST,
            nodes={RECEIVER: PROMISCUOUS},
        ),
        Case("broadcast to a node without a program", {}, (IN_TIME,), BROADCAST, absent=(RECEIVER,)),
        Case(
            "broadcast, two links, the last one broken: no outcome",
            {RECEIVER: everything, THIRD: 0},
            (IN_TIME, ONTO_BROKEN_LINK),
            BROADCAST,
            wiring=two_links,
            links={1: BROKEN},
        ),
        Case(
            "broadcast, two links, the first one broken",
            {RECEIVER: 0, THIRD: everything},
            (ONTO_BROKEN_LINK, IN_TIME),
            BROADCAST,
            wiring=two_links,
            links={0: BROKEN},
        ),
        Case(
            "broadcast, all links broken: lost",
            {RECEIVER: 0},
            (ONTO_BROKEN_LINK,),
            BROADCAST,
            links={0: BROKEN},
            earliest_loss=deadline,
        ),
        Case(
            "broadcast, lost on the only link: confirmed at once, reported lost at the deadline",
            {RECEIVER: 0},
            (LOST,),
            BROADCAST,
            links={0: LOSING},
            earliest_loss=deadline,
            is_confirmed_at_once=True,
        ),
        Case(
            "broadcast, two links, the last one loses all",
            {RECEIVER: everything, THIRD: 0},
            (IN_TIME, LOST),
            BROADCAST,
            wiring=two_links,
            links={1: LOSING},
        ),
        Case("broadcast, node without a link: confirmed at once", {}, (), BROADCAST, wiring=(), single_nodes=1),
    ]


@dataclass
class Outcome:
    delivered: int = 0
    lost: int = 0
    received: collections.Counter = field(default_factory=collections.Counter)  # frames by node
    placed: int = 0  # of these, which corruption did not hide the place of
    first_loss: float = None  # s after sending
    confirmed_first: int = None  # confirmations that came before the first frame and the first loss
    is_in_order: bool = True

    def matches(self, case):
        counts = (self.delivered, self.lost) == (case.delivered, case.lost)
        return counts and all(self.received[node] == frames for node, frames in case.received.items())

    def deviations(self, case):
        """What is not as the case has it, as texts."""
        found = []
        if not self.matches(case):
            found.append("counts")
        if not self.is_in_order:
            found.append("order or contents")
        if self.first_loss is not None and self.first_loss < case.earliest_loss:
            found.append(f"reported lost after {self.first_loss * 1000:.1f} ms")
        if case.is_confirmed_at_once and self.confirmed_first not in (None, case.delivered):
            found.append("not confirmed at once")
        return found


class Trial:
    """One case at a running simulator."""

    def __init__(self, case, port):
        self.case = case
        self.outcome = Outcome()
        linked = {end for ends in case.wiring for end in ends} | {SENDER}
        self.programs = {
            node: bridge.Bridge("127.0.0.1", port, PATIENCE) for node in sorted(linked) if node not in case.absent
        }
        self.payloads = [self._payload(number) for number in range(FRAMES)]
        self.next_numbers = collections.Counter()

    def run(self):
        for node, program in self.programs.items():
            program.identify(address=makesimulation.node_address(node))
            if node != SENDER:
                self._await_attachment(program)
        self._prepare()
        begin = time.monotonic()
        for burst in self._bursts():
            self.programs[SENDER].send(burst)
        self._collect(begin)
        for program in self.programs.values():
            program.close()
        return self.outcome

    def _bursts(self):
        """Whole messages together, as many as the simulator certainly gets in one piece."""
        per_burst = BURST_BYTES // (bridge.HEADER.size + self.case.frame_bytes)
        messages = [bridge.encode_frame(payload) for payload in self.payloads]
        return [b"".join(messages[start : start + per_burst]) for start in range(0, FRAMES, per_burst)]

    def _payload(self, number):
        destination = self.case.destination
        if not isinstance(destination, bytes):
            destination = makesimulation.node_address(destination)
        payload = destination + number.to_bytes(makesimulation.ADDRESS_LENGTH, "big")
        return payload.ljust(self.case.frame_bytes, b"\xaa")[: self.case.frame_bytes]

    def _await_attachment(self, program):
        """A frame that is too short is reported as lost, and makes the simulator draw no number."""
        program.send(bridge.encode_frame(b"\0"))
        if not program.receive(PATIENCE):
            raise MeasurementFailed(f"a node was not taken ({self.case.title})")

    def _prepare(self):
        if self.case.is_sender_off:
            self.programs[SENDER].send(bridge.encode_activation(False))
        for node, other in self.case.takes_over.items():
            program = self.programs[node]
            program.send(bridge.encode_address(makesimulation.node_address(other)))
            self._await_attachment(program)

    def _collect(self, begin):
        end = begin + self.case.patience
        while time.monotonic() < end and not self.outcome.matches(self.case):
            self._receive(begin, ROUND_TRIP)
        quiet_end = max(time.monotonic(), begin + self.case.longest_wait()) + QUIET_TIME
        while time.monotonic() < quiet_end:
            self._receive(begin, ROUND_TRIP)

    def _receive(self, begin, patience):
        for node, program in self.programs.items():
            messages = program.receive(patience / len(self.programs))
            if messages and node != SENDER:  # what the sender was told before comes first
                self._take_all(SENDER, self.programs[SENDER].receive(0), begin)
            self._take_all(node, messages, begin)

    def _take_all(self, node, messages, begin):
        for message in messages:
            self._take(node, message, time.monotonic() - begin)

    def _take(self, node, message, now):
        outcome = self.outcome
        if message == bridge.Confirmation(bridge.Outcome.DELIVERED):
            outcome.delivered += 1
            return
        if outcome.confirmed_first is None:
            outcome.confirmed_first = outcome.delivered
        if isinstance(message, bridge.Frame):
            outcome.received[node] += 1
            self._check_order(node, message.payload)
            return
        outcome.lost += 1
        outcome.first_loss = now if outcome.first_loss is None else outcome.first_loss

    def _check_order(self, node, payload):
        number = self.next_numbers[node]
        self.next_numbers[node] += 1
        if CORRUPTING in self.case.links.values():
            return
        self.outcome.placed += 1
        if number >= FRAMES or payload != self.payloads[number]:
            self.outcome.is_in_order = False


def measure_case(laboratory, case):
    with laboratory.simulator(case.simulation(), laboratory.seed) as server:
        outcome = Trial(case, server.port).run()
    laboratory.count(FRAMES, outcome.placed, not outcome.is_in_order)
    return outcome
