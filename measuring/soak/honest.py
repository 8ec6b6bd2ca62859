#!/usr/bin/env python3
"""Pairs of honest programs that talk all the time over links that nobody touches, and check every frame.

Every frame has to arrive exactly once, in order and unchanged, and to be confirmed exactly as its link and sender are
set. The time from writing a frame to its arrival, less the delay of its link, shows how long the simulator was away.
Commands come as lines of JSON on standard input; each is answered by one on standard output (see Honest).
"""

import json
import os
import random
import select
import struct
import sys
import time
import zlib
from dataclasses import dataclass

from measuring.soak import programs
from measuring.soak.programs import bridge

NODE_KIND = 1  # of addresses
SENDING_INTERVAL = 0.04  # s, of each program
TICK = 0.005  # s
LARGEST_OUTSTANDING = 8  # frames; a frame is then never cut by a full window of the kernel
LARGEST_BODY = 200  # bytes behind addresses and number
NUMBER = struct.Struct(">QI")  # number of the frame, check sum of the rest
SILENCE = 0.5  # s without a message too many, at the end
END_PATIENCE = 60.0  # s for the last messages
MOST_ERRORS = 20


@dataclass(frozen=True)
class Link:
    """How the link of a pair, and its two nodes, are set."""

    delay: int = 0  # ms
    deviation: int = 0  # ms
    confirms: bool = False
    timeout: int = 0  # ms, of confirmations
    broadcasts: bool = False

    def longest_delay(self):
        return max(0, self.delay - self.deviation // 2 + self.deviation - 1 if self.deviation else self.delay)

    def confirms_frames(self):
        """A frame that arrives late is not confirmed, a broadcast always is."""
        return self.confirms and (self.broadcasts or self.longest_delay() <= self.timeout)


LINKS = [
    Link(confirms=True, timeout=60_000),
    Link(delay=30, deviation=20, confirms=True, timeout=60_000),
    Link(delay=5),
    Link(delay=10, confirms=True, timeout=60_000, broadcasts=True),
    Link(delay=30, confirms=True, timeout=10),
]


def node_name(number):
    return f"honest-{number}"


def node_address(number):
    return programs.address(NODE_KIND, number)


class Talker:
    """One end of a pair: sends numbered frames to the other and checks what comes from there."""

    def __init__(self, number, link, port, by_name):
        self.link = link
        self.number = number
        self.partner = None  # set by the pair
        self.program = programs.Program(port)
        self.program.send(programs.identification(by_name, node_name(number), node_address(number)))
        self.sent_times = []  # s, by number of the frame
        self.received = 0
        self.confirmed = 0
        self.worst = 0.0  # s
        self.errors = []
        self.next_time = time.monotonic() + random.random() * SENDING_INTERVAL

    def outstanding(self):
        return len(self.sent_times) - self.partner.received

    def missing_confirmations(self):
        return (len(self.sent_times) if self.link.confirms_frames() else 0) - self.confirmed

    def talk(self, now):
        if now < self.next_time or self.outstanding() >= LARGEST_OUTSTANDING or not self.program.can_send():
            return
        self.next_time = now + SENDING_INTERVAL
        self.sent_times.append(now)
        if not self.program.send(bridge.encode_frame(self.make_frame(len(self.sent_times) - 1))):
            self.sent_times.pop()
            self.note("a frame could not be written")

    def make_frame(self, number):
        """The same bytes whenever it is asked for."""
        body = random.Random(self.number << 40 | number).randbytes(number * 7 % (LARGEST_BODY + 1))
        destination = programs.BROADCAST if self.link.broadcasts else node_address(self.partner.number)
        return programs.frame(destination, node_address(self.number), NUMBER.pack(number, zlib.crc32(body)) + body)

    def listen(self, now):
        for message in self.program.receive():
            if isinstance(message, bridge.Frame):
                self._check_frame(message.payload, now)
            elif isinstance(message, bridge.Confirmation):
                self._check_confirmation(message)

    def _check_frame(self, payload, now):
        if self.received >= len(self.partner.sent_times) or payload != self.partner.make_frame(self.received):
            self.note(f"frame {self.received} is lost, doubled, out of order or changed: {payload.hex()}")
            return
        away = now - self.partner.sent_times[self.received] - self.link.longest_delay() / 1000
        self.worst = max(self.worst, away)
        self.received += 1

    def _check_confirmation(self, message):
        if message.outcome != bridge.Outcome.DELIVERED:
            self.note("a frame that arrives is reported as lost")
        self.confirmed += 1
        if self.missing_confirmations() < 0:
            self.note("a confirmation too many")

    def waiting_since(self, now):
        """Seconds that the oldest frame under way is late."""
        if not self.outstanding():
            return 0.0
        return now - self.sent_times[self.partner.received] - self.link.longest_delay() / 1000

    def note(self, error):
        if len(self.errors) < MOST_ERRORS:
            self.errors.append(f"{node_name(self.number)}: {error}")


class Honest:
    """The commands: attach, start, report, stop, expect_end and confirm_end."""

    def __init__(self):
        self.talkers = []
        self.is_talking = False
        self.expects_end = False

    def attach(self, command):
        for talker in self.talkers:
            talker.program.close()
        self.talkers = []
        for pair, link in enumerate(LINKS):
            ends = [Talker(2 * pair + end, link, command["port"], command["by_name"]) for end in range(2)]
            ends[0].partner, ends[1].partner = ends[1], ends[0]
            self.talkers += ends
        self.expects_end = False
        return {}

    def start(self, _):
        self.is_talking = True
        return {}

    def report(self, _):
        self.work()  # what has come while this program itself was away is not the simulator's delay
        now = time.monotonic()
        return {
            "sent": sum(len(talker.sent_times) for talker in self.talkers),
            "received": sum(talker.received for talker in self.talkers),
            "confirmations": sum(talker.confirmed for talker in self.talkers),
            "worst": max((talker.worst for talker in self.talkers), default=0.0),
            "waiting": max((talker.waiting_since(now) for talker in self.talkers), default=0.0),
            "errors": [error for talker in self.talkers for error in talker.errors][:MOST_ERRORS],
        }

    def stop(self, _):
        """All messages that are due have come, and none beside them."""
        self.is_talking = False
        self._run_until(self._is_complete, END_PATIENCE)
        self._run_until(lambda: False, SILENCE)
        for talker in self.talkers:
            if talker.outstanding():
                talker.note(f"{talker.outstanding()} frames have not arrived")
            if talker.missing_confirmations():
                talker.note(f"{talker.missing_confirmations()} confirmations have not come")
        nodes = {node_name(talker.number): (len(talker.sent_times), talker.received) for talker in self.talkers}
        return {**self.report(None), "nodes": nodes}

    def expect_end(self, _):
        """The simulation is about to be replaced."""
        self.expects_end = True
        return {}

    def confirm_end(self, _):
        self.is_talking = False
        self._run_until(lambda: all(talker.program.has_ended for talker in self.talkers), END_PATIENCE)
        for talker in self.talkers:
            if not talker.program.has_ended:
                talker.note("the old simulation has kept the connection")
        report = self.report(None)
        for talker in self.talkers:
            talker.program.close()
        self.talkers = []
        return report

    def _is_complete(self):
        return not any(talker.outstanding() or talker.missing_confirmations() > 0 for talker in self.talkers)

    def _run_until(self, condition, seconds):
        deadline = time.monotonic() + seconds
        while not condition() and time.monotonic() < deadline:
            self.work()
            time.sleep(TICK)

    def work(self):
        now = time.monotonic()
        for talker in self.talkers:
            if talker.program.has_ended:
                continue
            talker.listen(time.monotonic())
            if self.is_talking:
                talker.talk(now)
            if talker.program.has_ended and not self.expects_end:
                talker.note("the simulator has ended the connection")

    def answer(self, line):
        command = json.loads(line)
        print(json.dumps(getattr(self, command["do"])(command)), flush=True)


def main():
    honest = Honest()
    pending = b""
    while True:
        ready, _, _ = select.select([sys.stdin.fileno()], [], [], TICK)
        if ready:
            data = os.read(sys.stdin.fileno(), programs.READ_SIZE)
            if not data:
                return
            *lines, pending = (pending + data).split(b"\n")
            for line in lines:
                honest.answer(line)
        honest.work()


if __name__ == "__main__":
    main()
