"""Starts the runner as a test needs it, and the programs of its nodes."""

from __future__ import annotations

import json
import os
import select
import signal
import subprocess
import tempfile
import unittest
from contextlib import ExitStack
from pathlib import Path

import lattivo

from measuring.lab import makesimulation
from tests.support import surroundings

PATIENCE = 60.0  # seconds; only a failing test waits that long
CLOSE_TIMEOUT = 1.0  # seconds; a program behind a pulled cable is not read any more
CONFIRMATION_TIMEOUT = 50  # ms

# As the runner's --help lists them
SUCCESS, WRONG_OPTION, NOT_LOADED, NO_PORT, NO_DUMP, NO_REPORT = 0, 2, 3, 4, 5, 6


def needs_surroundings(test: object) -> object:
    reason = surroundings.unavailable()
    return unittest.skipIf(reason, f"disks and networks cannot be made here, which root may: {reason}")(test)


def needs_root(test: object) -> object:
    return unittest.skipIf(os.geteuid() != 0, "only root can give up single rights")(test)


def environment(**more: str) -> dict[str, str]:
    """Return what a build server has, and sanitizers that keep little of the memory that was given back."""
    kept = ("PATH", "LD_LIBRARY_PATH", "LSAN_OPTIONS", "UBSAN_OPTIONS")
    own = {name: os.environ[name] for name in kept if name in os.environ}
    sanitizer = os.environ.get("ASAN_OPTIONS", "") + ":quarantine_size_mb=4"
    return {**own, "ASAN_OPTIONS": sanitizer, **more}


class Program(lattivo.Client):
    """The program of a node; nothing but what a test waits for is under way to it."""

    def next_message(self) -> lattivo.Message:
        messages = self.receive_messages(PATIENCE)
        if len(messages) != 1:
            raise AssertionError(f"not one message from the simulator: {messages}")
        return messages[0]

    def next_frames(self, count: int) -> list[bytes]:
        """Return the next frames, which may come together."""
        frames: list[bytes] = []
        while len(frames) < count:
            message = self.receive(PATIENCE)
            if message is None:
                raise AssertionError(f"only {len(frames)} of {count} frames from the simulator")
            if isinstance(message, lattivo.Frame):
                frames.append(message.payload)
        return frames

    def outcome_of(self, frame: bytes) -> lattivo.Outcome:
        """Send a frame and return what became of it."""
        self.send_frame(frame, PATIENCE)
        return self.next_message().outcome


class Run:
    """One run of the runner, which does not outlive its test."""

    def __init__(self, stack: ExitStack, *command: str, **options: object) -> None:
        settings = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, "env": environment(), **options}
        self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL, **settings)
        for stream in (self.process.stdout, self.process.stderr):
            if stream:
                stack.callback(stream.close)
        stack.callback(self.process.wait)
        stack.callback(self.process.kill)

    @property
    def pid(self) -> int:
        return self.process.pid

    def port(self) -> int:
        """Wait for the line that says on which port it listens."""
        if not select.select([self.process.stdout], [], [], PATIENCE)[0]:
            raise AssertionError("no answer from the simulator")
        line = self.process.stdout.readline().decode()
        if not line.startswith("listening on port "):
            raise AssertionError(f"{line!r} instead of the port, {self.process.stderr.read()!r}")
        return int(line.split()[-1])

    def end(self) -> tuple[int, str]:
        self.process.send_signal(signal.SIGTERM)
        return self.result()

    def result(self) -> tuple[int, str]:
        """Wait for the end; return the exit code and what was written to standard error."""
        _, errors = self.process.communicate(timeout=PATIENCE)
        return self.process.returncode, (errors or b"").decode()


class RunnerTest(unittest.TestCase):
    """A folder, and runners in it."""

    def setUp(self) -> None:
        self.folder = Path(self.enterContext(tempfile.TemporaryDirectory(prefix="lattivo-")))
        self.stack = self.enterContext(ExitStack())
        self.simulation = self.folder / "a.ltvo"
        self.dump = self.folder / "a.pcap"
        self.report = self.folder / "a.json"

    def make_disk(self, limits: str = "size=64k") -> surroundings.Disk:
        disk = surroundings.Disk(self.folder / "disk", limits)
        self.stack.callback(disk.remove)
        return disk

    def make_simulation(self, pairs: int = 1, largest_frame: int = 255, **more: float) -> None:
        settings = makesimulation.Simulation(
            pairs=pairs,
            maximal_transfer_unit=largest_frame,
            confirms=True,
            confirmation_timeout=CONFIRMATION_TIMEOUT,
            **more,
        )
        self.simulation.write_bytes(makesimulation.simulation_file(settings))

    def start(self, *arguments: str, before: tuple[str, ...] = (), **options: object) -> Run:
        """Start the runner, perhaps through other commands."""
        return Run(self.stack, *before, os.environ["LATTIVO_HEADLESS"], *arguments, "--listen", "0", **options)

    def attach(self, port: int, node: int, host: str = "127.0.0.1") -> Program:
        """Attach a program; return when it is: a frame without addresses is reported as lost then."""
        program = Program.connect(host, port, address=makesimulation.node_address(node), timeout=PATIENCE)
        self.stack.callback(program.close, CLOSE_TIMEOUT)
        self.assertEqual(program.outcome_of(b"\0"), lattivo.Outcome.LOST)
        return program

    def assert_one_line(self, errors: str, *parts: str) -> None:
        self.assertEqual(errors.count("\n"), 1, errors)
        self.assertTrue(errors.startswith("lattivo-headless: "), errors)
        for part in parts:
            self.assertIn(part, errors)

    def reported(self) -> dict[str, object]:
        return json.loads(self.report.read_text(encoding="utf-8"))

    def reported_node(self, node: int) -> dict[str, object]:
        name = makesimulation.node_name(node)
        return next(entry for entry in self.reported()["nodes"] if entry["name"] == name)
