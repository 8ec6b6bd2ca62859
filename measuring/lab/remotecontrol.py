"""Work the window of a program that takes commands: see remotecontrol.h."""

from __future__ import annotations

import json
import subprocess
import time
from pathlib import Path
from typing import Any, Sequence

from measuring.lab.launcher import MeasurementFailed, Server


class NoAnswer(MeasurementFailed):
    """The program has ended, or does not answer in time."""


class Refused(MeasurementFailed):
    """The program could not carry a command out."""


class RemoteControl(Server):
    """The program, from its start to its orderly end, which the end of its input brings about."""

    def __init__(
        self,
        command: Sequence[str],
        log: Path,
        core: int | None = None,
        environment: dict[str, str] | None = None,
        patience: float = 30.0,
    ) -> None:
        """Start it as any server; each answer may take patience seconds."""
        super().__init__(command, log, core, environment, stdin=subprocess.PIPE)
        self.patience = patience
        self.worst_answer = 0.0  # s

    def do(self, what: str, **arguments: object) -> dict[str, Any]:
        """Return the answer to a command."""
        begin = time.monotonic()
        assert self.process.stdin
        try:
            self.process.stdin.write(json.dumps({"do": what, **arguments}) + "\n")
            self.process.stdin.flush()
            line = self._read_line(self.patience)
        except BrokenPipeError:
            line = ""
        if not line:
            failure = "has ended" if line == "" else f"has not answered for {self.patience:.0f} s"
            raise NoAnswer(f"{self.name} {failure}, asked to {what}: {self._last_words()}")
        self.worst_answer = max(self.worst_answer, time.monotonic() - begin)
        answer: dict[str, Any] = json.loads(line)
        if "error" in answer:
            raise Refused(f"{what} {arguments}: {answer['error']}")
        return answer

    def _ask_to_end(self) -> None:
        pass  # its input ends when nobody is left to write

    def _read_port(self) -> int:
        return int(self.do("listen")["port"])
