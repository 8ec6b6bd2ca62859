"""Pairs of honest programs that talk all the time over links that nobody touches, and check every frame.

Every frame has to arrive exactly once, in order and unchanged, and to be confirmed exactly as its link and sender are
set. The time from sending a frame to its arrival, less the delay of its link, shows how long the simulator was away. The
programs have a process of their own, so that nothing else keeps them waiting.
"""

from __future__ import annotations

import multiprocessing
import random
import struct
import time
import zlib
from dataclasses import dataclass
from multiprocessing.connection import Connection
from typing import Any, Callable

from lattivo import Client, Confirmation, Disconnected, Frame, Outcome

from measuring.lab import programs
from measuring.lab.confirmations import Fate, outcomes

NODE_KIND = 1  # of addresses
SENDING_INTERVAL = 0.04  # s, of each program
TICK = 0.005  # s
LARGEST_OUTSTANDING = 8  # frames
LARGEST_BODY = 200  # bytes behind addresses and number
NUMBER = struct.Struct(">QI")  # number of the frame, check sum of the rest
SILENCE = 0.5  # s without a message too many, at the end
END_PATIENCE = 60.0  # s for the last messages


@dataclass(frozen=True)
class Link:
    """How the link of a pair, and its two nodes, are set."""

    delay: int = 0  # ms
    deviation: int = 0  # ms
    confirms: bool = False
    timeout: int = 0  # ms, of confirmations
    broadcasts: bool = False

    def longest_delay(self) -> int:
        return max(0, self.delay - self.deviation // 2 + self.deviation - 1 if self.deviation else self.delay)

    def confirmations(self) -> int:
        """Return how often each frame is confirmed."""
        fate = Fate.IN_TIME if self.longest_delay() <= self.timeout else Fate.LATE
        return outcomes([fate], self.broadcasts).delivered if self.confirms else 0


LINKS = [
    Link(confirms=True, timeout=60_000),
    Link(delay=30, deviation=20, confirms=True, timeout=60_000),
    Link(delay=5),
    Link(delay=10, confirms=True, timeout=60_000, broadcasts=True),
    Link(delay=30, confirms=True, timeout=10),
]


def node_name(number: int) -> str:
    return f"honest-{number}"


def node_address(number: int) -> bytes:
    return programs.address(NODE_KIND, number)


class Talker:
    """One end of a pair: sends numbered frames to the other and checks what comes from there."""

    def __init__(self, number: int, link: Link, port: int, by_name: bool) -> None:
        self.link = link
        self.number = number
        self.partner = self  # until the pair is complete
        identity: dict[str, Any] = {"name": node_name(number)} if by_name else {"address": node_address(number)}
        self.client = Client.connect(port=port, **identity)
        self.has_ended = False
        self.sent_times: list[float] = []  # s, by number of the frame
        self.received = 0
        self.confirmed = 0
        self.worst = 0.0  # s
        self.errors: list[str] = []
        self.next_time = time.monotonic() + random.random() * SENDING_INTERVAL

    def outstanding(self) -> int:
        return len(self.sent_times) - self.partner.received

    def missing_confirmations(self) -> int:
        return len(self.sent_times) * self.link.confirmations() - self.confirmed

    def work(self, is_talking: bool) -> None:
        """Check what has come and, when it is time, send the next frame."""
        try:
            for message in self.client.receive_messages(0.0):
                self._check(message)
            self.client.flush()
            now = time.monotonic()
            if is_talking and now >= self.next_time and self.outstanding() < LARGEST_OUTSTANDING:
                if self.client.try_send(self.make_frame(len(self.sent_times))):
                    self.sent_times.append(now)
                    self.next_time = now + SENDING_INTERVAL
        except Disconnected:
            self.has_ended = True

    def make_frame(self, number: int) -> bytes:
        """Return the same bytes whenever it is asked for."""
        body = random.Random(self.number << 40 | number).randbytes(number * 7 % (LARGEST_BODY + 1))
        destination = programs.BROADCAST if self.link.broadcasts else node_address(self.partner.number)
        return destination + node_address(self.number) + NUMBER.pack(number, zlib.crc32(body)) + body

    def _check(self, message: object) -> None:
        if isinstance(message, Frame):
            self._check_frame(message.payload)
        elif isinstance(message, Confirmation):
            if message.outcome != Outcome.DELIVERED:
                self.note("a frame that arrives is reported as lost")
            self.confirmed += 1
            if self.missing_confirmations() < 0:
                self.note("a confirmation too many")

    def _check_frame(self, payload: bytes) -> None:
        partner = self.partner
        if self.received >= len(partner.sent_times) or payload != partner.make_frame(self.received):
            self.note(f"frame {self.received} is lost, doubled, out of order or changed: {payload.hex()}")
            return
        self.worst = max(self.worst, partner.waiting())
        self.received += 1

    def waiting(self) -> float:
        """Return how many seconds the oldest frame under way is late."""
        if not self.outstanding():
            return 0.0
        return time.monotonic() - self.sent_times[self.partner.received] - self.link.longest_delay() / 1000

    def note(self, error: str) -> None:
        self.errors.append(f"{node_name(self.number)}: {error}")


class Honest:
    """All the pairs."""

    def __init__(self) -> None:
        self.talkers: list[Talker] = []
        self.is_talking = False

    def attach(self, port: int, by_name: bool) -> None:
        for pair, link in enumerate(LINKS):
            ends = [Talker(2 * pair + end, link, port, by_name) for end in range(2)]
            ends[0].partner, ends[1].partner = ends[1], ends[0]
            self.talkers += ends

    def start(self) -> None:
        self.is_talking = True

    def report(self, expects_end: bool = False) -> dict[str, Any]:
        self.work()  # what has come while this program itself was away is not the simulator's delay
        for talker in self.talkers:
            if talker.has_ended != expects_end:
                talker.note("the simulator has " + ("kept" if expects_end else "ended") + " the connection")
        return {
            "sent": sum(len(talker.sent_times) for talker in self.talkers),
            "received": sum(talker.received for talker in self.talkers),
            "confirmations": sum(talker.confirmed for talker in self.talkers),
            "worst": max((talker.worst for talker in self.talkers), default=0.0),
            "waiting": max((talker.waiting() for talker in self.talkers), default=0.0),
            "errors": [error for talker in self.talkers for error in talker.errors],
        }

    def stop(self) -> dict[str, Any]:
        """Wait until all messages that are due have come, and none beside them; return the report, and counts by node."""
        self.is_talking = False
        self._run_until(self._is_complete, END_PATIENCE)
        self._run_until(lambda: False, SILENCE)
        for talker in self.talkers:
            if talker.outstanding():
                talker.note(f"{talker.outstanding()} frames have not arrived")
            if talker.missing_confirmations():
                talker.note(f"{talker.missing_confirmations()} confirmations have not come")
        nodes = {node_name(talker.number): [len(talker.sent_times), talker.received] for talker in self.talkers}
        return {**self.report(), "nodes": nodes}

    def confirm_end(self) -> dict[str, Any]:
        """Wait until all connections have ended; return the last report."""
        self.is_talking = False
        self._run_until(lambda: all(talker.has_ended for talker in self.talkers), END_PATIENCE)
        report = self.report(expects_end=True)
        for talker in self.talkers:
            talker.client.close(0.0)
        self.talkers = []
        return report

    def work(self) -> None:
        for talker in self.talkers:
            if not talker.has_ended:
                talker.work(self.is_talking)

    def _is_complete(self) -> bool:
        return not any(talker.outstanding() or talker.missing_confirmations() > 0 for talker in self.talkers)

    def _run_until(self, condition: Callable[[], bool], seconds: float) -> None:
        deadline = time.monotonic() + seconds
        while not condition() and time.monotonic() < deadline:
            self.work()
            time.sleep(TICK)


class HonestProcess:
    """The process of the honest programs, seen from another one."""

    def __init__(self) -> None:
        context = multiprocessing.get_context("spawn")  # it inherits no pipe of the simulator
        self._pipe, other_end = context.Pipe()
        context.Process(target=_serve, args=(other_end,), daemon=True).start()
        other_end.close()

    def ask(self, operation: Callable[..., Any], *arguments: object) -> Any:
        """Return what a method of Honest returns; raise EOFError when the process has ended."""
        self._pipe.send((operation, arguments))
        if not self._pipe.poll(2 * END_PATIENCE):
            raise TimeoutError(f"the honest programs do not answer, asked to {operation.__name__}")
        return self._pipe.recv()

    def end(self) -> None:
        self._pipe.close()


def _serve(pipe: Connection) -> None:
    honest = Honest()
    try:
        while True:
            if pipe.poll(TICK):
                operation, arguments = pipe.recv()
                pipe.send(operation(honest, *arguments))
            honest.work()
    except EOFError:
        pass  # the regular end
