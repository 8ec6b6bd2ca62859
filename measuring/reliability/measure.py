"""Measures what hostile programs cost the runner: its memory, and the waiting time of two ordinary programs.

Each attack starts a new runner and a new process, and lasts some seconds. The result is written as
JSON. The exit code is 1 when the runner or an ordinary frame was lost, or when a limit was exceeded.
"""

from __future__ import annotations

import argparse
import json
import random
import resource
import statistics
import sys
import tempfile
import time
from concurrent.futures import ProcessPoolExecutor
from contextlib import ExitStack
from dataclasses import asdict, dataclass
from pathlib import Path
from typing import Callable

from lattivo import Client, Confirmation, Frame, LattivoError, Message, NodeControl, Outcome, messages
from lattivo.codes import HEADER

from measuring.lab import makesimulation
from measuring.lab.launcher import TOP_FOLDER, MeasurementFailed, Server, memory_of
from measuring.lab.makesimulation import frame_between
from measuring.lab.programs import Hostile

PATIENCE = 30.0  # s, of the hostile programs
LEFT, RIGHT, ATTACKER, PARTNER = range(4)  # nodes: two ordinary programs, and two for the attacks
LARGE_FRAME = 30000  # bytes; what arrives in one piece on the local machine
CONFIRMATION_TIMEOUT = 50  # ms
ANSWER_PAUSE = 0.002  # s between two ordinary frames
SETTLING = 1.0  # s after an attack
CROWD = 1000  # connections at once
LARGEST_LENGTH = 0xFFFFFFFE  # bytes announced; one more would be a null array
SENT_OF_IT = 1000  # bytes that really come

DELIVERED = Confirmation(Outcome.DELIVERED)
MEBIBYTE = 1 << 20
BUFFERS = 16 * MEBIBYTE  # twice what the sockets of a crowd take, 8 KiB each, and what the allocator keeps of them
WAITING = 64 * MEBIBYTE  # of frames, after which the runner drops a program that does not read
ANSWER_LIMIT = 1000.0  # ms; whoever waits longer takes the simulator for stopped


@dataclass
class Measurement:
    """What one attack has cost, against its limits."""

    attack: str
    rounds: int = 0  # of the attack
    answers: int = 0  # ordinary frames, each confirmed before the next
    answer_median_ms: float = 0.0
    answer_worst_ms: float = 0.0
    resident_before: int = 0  # bytes
    resident_peak: int = 0
    growth_limit: int = BUFFERS  # of the memory; bytes
    answer_limit_ms: float = ANSWER_LIMIT
    survived: bool = False  # no ordinary frame was lost, and the runner ended normally

    @property
    def holds(self) -> bool:
        is_small = self.resident_peak <= self.resident_before + self.growth_limit
        return self.survived and is_small and self.answer_worst_ms <= self.answer_limit_ms


def start_runner(stack: ExitStack, program: Path) -> Server:
    folder = Path(stack.enter_context(tempfile.TemporaryDirectory()))
    settings = makesimulation.Simulation(
        pairs=2, maximal_transfer_unit=LARGE_FRAME, confirms=True, confirmation_timeout=CONFIRMATION_TIMEOUT
    )
    (folder / "a.ltvo").write_bytes(makesimulation.simulation_file(settings))
    command = [str(program), str(folder / "a.ltvo"), "--listen", "0", "--plug-and-play"]
    return stack.enter_context(Server(command, folder / "log"))


def attach(stack: ExitStack, port: int, node: int) -> Client:
    """Return an ordinary program once it is attached: a frame without addresses is reported as lost then."""
    program = stack.enter_context(Client.connect(port=port, address=makesimulation.node_address(node)))
    answer_to(program, b"\0")
    return program


def answer_to(program: Client, frame: bytes) -> Message | None:
    """Send a frame; return what comes then, None when nothing does."""
    program.send_frame(frame, PATIENCE)
    return program.receive(PATIENCE)


def connect(port: int) -> Hostile:
    program = Hostile(port)
    if not program.wait_until_connected(PATIENCE):
        raise TimeoutError("no connection")
    return program


def send_and_wait_for_end(port: int, data: bytes) -> None:
    """Send bytes, nothing more, and read until the simulator ends the connection."""
    program = connect(port)
    program.send(data)
    program.end_output()
    if not program.wait_for_end(PATIENCE):
        raise TimeoutError("the simulator keeps the connection")
    program.close()


# Attacks: one round each


def announce_too_much(port: int, _: random.Random) -> None:
    """Send frames, names and identifications whose length says 4 GiB."""
    address = messages.encode_address(makesimulation.node_address(ATTACKER))
    body = bytes([NodeControl.NAME]) + bytes(SENT_OF_IT)
    for first, message_type in ((address, 1), (address, 3), (address, 4), (address, 7), (b"", 3)):
        send_and_wait_for_end(port, first + HEADER.pack(message_type, LARGEST_LENGTH) + body)


def crowd(port: int, _: random.Random) -> None:
    """Make connections that say nothing."""
    programs = [connect(port) for _number in range(CROWD)]
    time.sleep(SETTLING)
    for program in programs:
        program.close()


def talk_nonsense(port: int, draws: random.Random) -> None:
    """Send random bytes in the place of an identification, and behind one."""
    for first in (b"", messages.encode_address(makesimulation.node_address(ATTACKER))):
        send_and_wait_for_end(port, first + draws.randbytes(draws.randint(1, 2000)))


def never_read(port: int, _: random.Random) -> None:
    """Read nothing of what a neighbour sends, until the simulator drops this program."""
    with ExitStack() as stack:
        sender = attach(stack, port, ATTACKER)
        attach(stack, port, PARTNER)
        number = 0
        while answer_to(sender, frame_between(ATTACKER, PARTNER, number, LARGE_FRAME)) == DELIVERED:
            number += 1


def be_idle(_port: int, _: random.Random) -> None:
    time.sleep(ANSWER_PAUSE)


ATTACKS: dict[str, Callable[[int, random.Random], None]] = {
    "idle": be_idle,
    "lengths": announce_too_much,
    "crowd": crowd,
    "nonsense": talk_nonsense,
    "unread": never_read,
}


def attack_for(seconds: float, name: str, port: int) -> int:
    """Return the number of rounds, which is 1 at least."""
    draws = random.Random(1)
    end = time.monotonic() + seconds
    rounds = 0
    while rounds == 0 or time.monotonic() < end:
        ATTACKS[name](port, draws)
        rounds += 1
    return rounds


def answer_time(left: Client, right: Client, number: int) -> float:
    """Send a frame from one ordinary program to the other; return the seconds until it is there and confirmed."""
    frame = frame_between(LEFT, RIGHT, number)
    start = time.perf_counter()
    answer = answer_to(left, frame)
    if right.receive(PATIENCE) != Frame(frame) or answer != DELIVERED:
        raise AssertionError("an ordinary frame was lost")
    return time.perf_counter() - start


def measure_answers(
    pair: tuple[Client, Client], seconds: float, is_enough: Callable[[], bool] = lambda: True
) -> list[float]:
    times: list[float] = []
    start = time.monotonic()
    while time.monotonic() - start < seconds or not is_enough():
        times.append(answer_time(*pair, len(times)))
        time.sleep(ANSWER_PAUSE)
    return times


def measure(name: str, program: Path, seconds: float) -> Measurement:
    """Measure one attack; one that a program or the runner does not survive is not an error."""
    result = Measurement(name, growth_limit=WAITING + BUFFERS if name == "unread" else BUFFERS)
    try:
        with ExitStack() as stack:
            runner = start_runner(stack, program)
            pair = attach(stack, runner.port, LEFT), attach(stack, runner.port, RIGHT)
            measure_answers(pair, SETTLING)
            result.resident_before = memory_of(runner.process.pid)
            attacker = stack.enter_context(ProcessPoolExecutor(1))
            attack = attacker.submit(attack_for, seconds, name, runner.port)
            times = measure_answers(pair, seconds, attack.done) + measure_answers(pair, SETTLING)
            result.rounds = attack.result()
            result.answers = len(times)
            result.answer_median_ms = 1000 * statistics.median(times)
            result.answer_worst_ms = 1000 * max(times)
            result.resident_peak = memory_of(runner.process.pid, "VmHWM")
        result.survived = True
    except (AssertionError, LattivoError, MeasurementFailed, OSError) as error:
        print(f"{name}: {error}", file=sys.stderr)
    return result


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--program", type=Path, default=TOP_FOLDER / "build/release/lattivo-headless")
    parser.add_argument("--output", type=Path, required=True)
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
