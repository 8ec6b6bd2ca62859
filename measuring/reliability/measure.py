#!/usr/bin/env python3
"""Measures what hostile programs cost the runner: its memory, and how long two ordinary programs wait meanwhile.

Each attack goes against a runner of its own, from a process of its own, for some seconds. The result is written as
JSON. The exit code is 1 when the runner or an ordinary frame was lost, or when a limit was exceeded.
"""

from __future__ import annotations

import argparse
import json
import multiprocessing
import pathlib
import random
import resource
import signal
import socket
import statistics
import struct
import subprocess
import sys
import tempfile
import time
from contextlib import ExitStack
from dataclasses import asdict, dataclass
from typing import Callable

ROOT = pathlib.Path(__file__).resolve().parents[2]

import bridge

from measuring.lab import makesimulation
from tests.support import surroundings

PATIENCE = 30.0  # s
LEFT, RIGHT, ATTACKER, PARTNER = range(4)  # nodes: two ordinary programs, and two for the attacks
FRAME_SIZE = 64  # bytes, of the ordinary programs
LARGE_FRAME = 30000  # bytes; what arrives in one piece on the local machine
CONFIRMATION_TIMEOUT = 50  # ms
ANSWER_PAUSE = 0.002  # s between two ordinary frames
SETTLING = 1.0  # s after an attack
CROWD = 1000  # connections at once
LARGEST_LENGTH = 0xFFFFFFFE  # bytes announced; one more would be a null array
SENT_OF_IT = 1000  # bytes that really come

MEBIBYTE = 1 << 20
BUFFERS = 16 * MEBIBYTE  # twice what the sockets of a crowd take, 8 KiB each, and what the allocator keeps of them
WAITING = 64 * MEBIBYTE  # of frames, after which the runner drops a program that does not read
ANSWER_LIMIT = 1000.0  # ms; whoever waits longer takes the simulator for stopped


@dataclass
class Measurement:
    attack: str
    rounds: int = 0  # of the attack
    answers: int = 0  # ordinary frames, each confirmed before the next
    answer_median_ms: float = 0.0
    answer_worst_ms: float = 0.0
    resident_before: int = 0  # bytes
    resident_peak: int = 0
    growth_limit: int = BUFFERS  # of the memory; bytes
    answer_limit_ms: float = ANSWER_LIMIT
    survived: bool = False  # no ordinary frame was lost, and the runner ended in order

    @property
    def holds(self) -> bool:
        is_small = self.resident_peak <= self.resident_before + self.growth_limit
        return self.survived and is_small and self.answer_worst_ms <= self.answer_limit_ms


class Runner:
    """The runner under attack, with two ordinary programs attached."""

    def __init__(self, stack: ExitStack, program: pathlib.Path) -> None:
        folder = pathlib.Path(stack.enter_context(tempfile.TemporaryDirectory()))
        settings = makesimulation.Simulation(
            pairs=2, maximal_transfer_unit=LARGE_FRAME, confirms=True, confirmation_timeout=CONFIRMATION_TIMEOUT
        )
        (folder / "a.ltvo").write_bytes(makesimulation.simulation_file(settings))
        self.process = subprocess.Popen(
            [program, folder / "a.ltvo", "--listen", "0", "--plug-and-play"], stdout=subprocess.PIPE
        )
        stack.callback(self.process.stdout.close)
        stack.callback(self.process.wait)
        stack.callback(self.process.kill)
        self.port = int(self.process.stdout.readline().split()[-1])
        self.left, self.right = (attach(stack, self.port, node) for node in (LEFT, RIGHT))

    def memory(self, field: str = "VmRSS") -> int:
        return surroundings.memory_of(self.process.pid, field)

    def answer_time(self, number: int) -> float:
        """Send a frame from one ordinary program to the other; seconds until it is there and confirmed."""
        frame = frame_between(LEFT, RIGHT, FRAME_SIZE, number)
        start = time.perf_counter()
        self.left.sendall(bridge.encode_frame(frame))
        received = read(self.right, bridge.HEADER.size + FRAME_SIZE)
        confirmation = read(self.left, bridge.HEADER.size + 1)
        if received != bridge.encode_frame(frame) or confirmation[-1] != bridge.Outcome.DELIVERED:
            raise AssertionError("an ordinary frame was lost")
        return time.perf_counter() - start

    def end(self) -> int:
        self.process.send_signal(signal.SIGTERM)
        return self.process.wait(PATIENCE)


def frame_between(source: int, destination: int, size: int, number: int) -> bytes:
    addresses = makesimulation.node_address(destination) + makesimulation.node_address(source)
    return (addresses + struct.pack(">I", number)).ljust(size, b"\0")


def read(stream: socket.socket, size: int) -> bytes:
    """Return exactly so many bytes; fewer when the other end has closed."""
    data = b""
    while len(data) < size:
        piece = stream.recv(size - len(data))
        if not piece:
            break
        data += piece
    return data


def connect(stack: ExitStack, port: int) -> socket.socket:
    stream = stack.enter_context(socket.create_connection(("127.0.0.1", port), PATIENCE))
    stream.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    return stream


def attach(stack: ExitStack, port: int, node: int) -> socket.socket:
    """A frame without addresses is reported as lost once the program is attached."""
    stream = connect(stack, port)
    stream.sendall(bridge.encode_address(makesimulation.node_address(node)) + bridge.encode_frame(b"\0"))
    if len(read(stream, bridge.HEADER.size + 1)) <= bridge.HEADER.size:
        raise AssertionError("an ordinary program was refused")
    return stream


def wait_for_end(stream: socket.socket) -> None:
    try:
        while stream.recv(65536):
            pass
    except ConnectionError:
        pass  # closed with our bytes unread


# Attacks: one round each


def announce_too_much(port: int, _: random.Random) -> None:
    """Frames, names and identifications whose length says 4 GiB."""
    address = bridge.encode_address(makesimulation.node_address(ATTACKER))
    for first, message_type in ((address, 1), (address, 3), (address, 4), (address, 7), (b"", 3)):
        with ExitStack() as stack:
            stream = connect(stack, port)
            body = bytes([bridge.NodeControl.NAME]) + bytes(SENT_OF_IT)
            stream.sendall(first + bridge.HEADER.pack(message_type, LARGEST_LENGTH) + body)
            stream.shutdown(socket.SHUT_WR)
            wait_for_end(stream)


def crowd(port: int, _: random.Random) -> None:
    """Connections that say nothing."""
    with ExitStack() as stack:
        for _number in range(CROWD):
            connect(stack, port)
        time.sleep(SETTLING)


def talk_nonsense(port: int, draws: random.Random) -> None:
    """Random bytes in the place of an identification, and behind one."""
    for first in (b"", bridge.encode_address(makesimulation.node_address(ATTACKER))):
        with ExitStack() as stack:
            stream = connect(stack, port)
            stream.sendall(first + draws.randbytes(draws.randint(1, 2000)))
            stream.shutdown(socket.SHUT_WR)
            wait_for_end(stream)


def never_read(port: int, _: random.Random) -> None:
    """A program that reads nothing of what its neighbour sends, until it is dropped."""
    with ExitStack() as stack:
        sender = attach(stack, port, ATTACKER)
        attach(stack, port, PARTNER)
        outcome, number = bridge.Outcome.DELIVERED, 0
        while outcome == bridge.Outcome.DELIVERED:
            sender.sendall(bridge.encode_frame(frame_between(ATTACKER, PARTNER, LARGE_FRAME, number)))
            answer = read(sender, bridge.HEADER.size + 1)
            outcome, number = answer[-1], number + 1


def be_idle(_port: int, _: random.Random) -> None:
    time.sleep(ANSWER_PAUSE)


ATTACKS: dict[str, Callable[[int, random.Random], None]] = {
    "idle": be_idle,
    "lengths": announce_too_much,
    "crowd": crowd,
    "nonsense": talk_nonsense,
    "unread": never_read,
}


def attack_until(name: str, port: int, is_over: object, rounds: object) -> None:
    draws = random.Random(1)
    while rounds.value == 0 or not is_over.is_set():
        ATTACKS[name](port, draws)
        rounds.value += 1


def measure_answers(runner: Runner, seconds: float, is_enough: Callable[[], bool]) -> list[float]:
    times = []
    start = time.monotonic()
    while time.monotonic() - start < seconds or not is_enough():
        times.append(runner.answer_time(len(times)))
        time.sleep(ANSWER_PAUSE)
    return times


def measure(name: str, program: pathlib.Path, seconds: float) -> Measurement:
    result = Measurement(name, growth_limit=WAITING + BUFFERS if name == "unread" else BUFFERS)
    with ExitStack() as stack:
        runner = Runner(stack, program)
        measure_answers(runner, SETTLING, lambda: True)
        result.resident_before = runner.memory()
        is_over, rounds = multiprocessing.Event(), multiprocessing.Value("i", 0)
        attacker = multiprocessing.Process(target=attack_until, args=(name, runner.port, is_over, rounds))
        attacker.start()
        stack.callback(attacker.kill)
        try:
            times = measure_answers(runner, seconds, lambda: rounds.value > 0 or not attacker.is_alive())
            is_over.set()
            times += measure_answers(runner, SETTLING, lambda: not attacker.is_alive())
        except (AssertionError, OSError) as error:
            print(f"{name}: {error}", file=sys.stderr)
            return result
        result.rounds = rounds.value
        result.answers = len(times)
        result.answer_median_ms = 1000 * statistics.median(times)
        result.answer_worst_ms = 1000 * max(times)
        result.resident_peak = runner.memory("VmHWM")
        result.survived = attacker.exitcode == 0 and runner.end() == 0
    return result


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--program", type=pathlib.Path, default=ROOT / "build/release/lattivo-headless")
    parser.add_argument("--output", type=pathlib.Path, required=True)
    parser.add_argument("--seconds", type=float, default=5.0, help="of each attack")
    options = parser.parse_args()
    hard_limit = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard_limit, hard_limit))
    results = [measure(name, options.program, options.seconds) for name in ATTACKS]
    options.output.parent.mkdir(parents=True, exist_ok=True)
    attacks = {result.attack: {**asdict(result), "holds": result.holds} for result in results}
    summary = {"seconds": options.seconds, "crowd": CROWD, "attacks": attacks}
    options.output.write_text(json.dumps(summary, indent=2) + "\n", encoding="utf-8")
    return 0 if all(result.holds for result in results) else 1


if __name__ == "__main__":
    sys.exit(main())
