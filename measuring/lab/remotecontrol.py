"""Work the window of a program that takes commands: see remotecontrol.h."""

from __future__ import annotations

import json
import os
import select
import subprocess
import time
from pathlib import Path
from types import TracebackType
from typing import Any, Mapping, Sequence

from measuring.lab.launcher import MeasurementFailed

READ_SIZE = 65536
END_PATIENCE = 120.0  # s; the search for leaks takes its time


class NoAnswer(MeasurementFailed):
    """The program has ended, or does not answer in time."""


class Refused(MeasurementFailed):
    """The program could not carry a command out."""


class RemoteControl:
    """The program, from its start to its orderly end, which the end of its input brings about."""

    def __init__(
        self, command: Sequence[str], log: Path, environment: Mapping[str, str] | None = None, patience: float = 30.0
    ) -> None:
        """Start it; its errors go to the log. Each answer may take patience seconds."""
        self.name = os.path.basename(command[0])
        self.patience = patience
        self.worst_answer = 0.0  # s
        self._pending = b""
        with log.open("wb") as errors:
            self.process = subprocess.Popen(
                command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=errors, env=environment
            )

    def __enter__(self) -> RemoteControl:
        return self

    def __exit__(self, kind: type | None, error: BaseException | None, trace: TracebackType | None) -> None:
        code = self.end()
        if kind is None and code != 0:
            raise NoAnswer(f"{self.name} has ended with code {code}")

    def do(self, what: str, **arguments: object) -> dict[str, Any]:
        """Return the answer to a command."""
        begin = time.monotonic()
        assert self.process.stdin
        try:
            self.process.stdin.write(json.dumps({"do": what, **arguments}).encode() + b"\n")
            self.process.stdin.flush()
        except BrokenPipeError:
            raise NoAnswer(f"{self.name} has ended with code {self.wait()}, asked to {what}") from None
        answer: dict[str, Any] = json.loads(self._read_line(begin + self.patience, what))
        self.worst_answer = max(self.worst_answer, time.monotonic() - begin)
        if "error" in answer:
            raise Refused(f"{what} {arguments}: {answer['error']}")
        return answer

    def wait(self) -> int | None:
        """Return the exit code; None when it does not end and is killed."""
        try:
            return self.process.wait(timeout=END_PATIENCE)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
            return None

    def end(self) -> int | None:
        """End the program; return the exit code as wait() does."""
        assert self.process.stdin and self.process.stdout
        try:
            self.process.stdin.close()
        except BrokenPipeError:
            pass  # it has ended already
        code = self.wait()
        self.process.stdout.close()
        return code

    def _read_line(self, deadline: float, what: str) -> bytes:
        assert self.process.stdout
        while b"\n" not in self._pending:
            waiting = select.poll()
            waiting.register(self.process.stdout, select.POLLIN)
            if not waiting.poll(max(0.0, deadline - time.monotonic()) * 1000):
                raise NoAnswer(f"{self.name} has not answered for {self.patience:.0f} s, asked to {what}")
            data = os.read(self.process.stdout.fileno(), READ_SIZE)
            if not data:
                raise NoAnswer(f"{self.name} has ended with code {self.wait()}, asked to {what}")
            self._pending += data
        line, _, self._pending = self._pending.partition(b"\n")
        return line
