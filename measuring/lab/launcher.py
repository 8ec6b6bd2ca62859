"""Start simulators and the programs that load them, each on a processor core of its own."""

from __future__ import annotations

import json
import os
import select
import subprocess
import sys
from pathlib import Path
from types import TracebackType
from typing import Any, Sequence

from measuring.lab import makesimulation
from measuring.lab.disturbance import Disturbance, ProcessorWatch

TOP_FOLDER = Path(__file__).resolve().parents[2]
START_PATIENCE = 30.0  # s
LOAD_PATIENCE = 180.0  # s
END_PATIENCE = 120.0  # s; the simulator writes a dump of a million frames meanwhile

Figures = dict[str, Any]  # what a program prints as one line of JSON


class MeasurementFailed(Exception):
    """Something could not be measured; no figure stands for it."""


class Progress:
    """Which measurement is being made: told on a terminal, and when it fails."""

    step = ""

    def begin(self, step: str) -> None:
        self.step = step
        if sys.stderr.isatty():
            print(f"\r\033[K{step}", end="", file=sys.stderr, flush=True)

    def end(self) -> None:
        self.begin("")

    def fail(self, error: Exception) -> int:
        """Tell what failed; return the exit code of a script that could not measure everything."""
        during = f"{self.step}: " if self.step else ""
        self.end()
        print(f"not measured: {during}{error}", file=sys.stderr)
        return 2


progress = Progress()  # of this process


class Server:
    """A process that listens, from its first line of output to its orderly end."""

    def __init__(
        self,
        command: Sequence[str],
        log: Path,
        core: int | None = None,
        environment: dict[str, str] | None = None,
        stdin: int | None = None,
    ) -> None:
        """Start it, on any core unless one is given; its errors go to the log."""
        self.name = Path(command[0]).name
        self.port = 0
        self._log = log
        with log.open("wb") as errors:
            self.process = subprocess.Popen(
                command if core is None else pinned(command, core),
                stdin=stdin,
                stdout=subprocess.PIPE,
                stderr=errors,
                text=True,
                env=environment,
            )

    def __enter__(self) -> Server:
        try:
            self.port = self._read_port()
        except BaseException:
            self.end()
            raise
        return self

    def __exit__(self, kind: type | None, error: BaseException | None, trace: TracebackType | None) -> None:
        code = self.end()
        if kind is None and code != 0:
            raise MeasurementFailed(f"{self.name} ended with code {code}: {self._last_words()}")

    def end(self) -> int:
        """Ask it to end, and kill it if it does not; return its exit code."""
        self._ask_to_end()
        try:
            self.process.communicate(timeout=END_PATIENCE)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.communicate()
        return self.process.returncode

    def waited(self) -> float:
        """Return how long it has waited so far while other programs had its core, in s."""
        return processor_wait(self.process.pid) / 1e9

    def _ask_to_end(self) -> None:
        self.process.terminate()

    def _read_port(self) -> int:
        line = self._read_line(START_PATIENCE) or ""
        if not line.startswith("listening on port "):
            raise MeasurementFailed(f"{self.name} does not listen: {line.strip()} {self._last_words()}")
        return int(line.split()[-1])

    def _read_line(self, patience: float) -> str | None:
        """Return the next line of output, "" when there will be none; None when none comes in patience seconds."""
        assert self.process.stdout
        waiting = select.poll()
        waiting.register(self.process.stdout, select.POLLIN)
        return self.process.stdout.readline() if waiting.poll(patience * 1000) else None

    def _last_words(self) -> str:
        return self._log.read_text(encoding="utf-8", errors="replace")[-500:].strip()


class Launcher:
    """Two processor cores, the environment of all programs, and a folder for the files in between."""

    def __init__(self, folder: str | Path) -> None:
        self.folder = Path(folder)
        self.client_core, self.server_core = choose_cores()
        self.environment = {name: value for name, value in os.environ.items() if name != "TZ"}

    def simulation_file(self, simulation: makesimulation.Simulation) -> str:
        """Write the simulation into the folder, in the place of the last one; return the file's name."""
        file = self.folder / "simulation.ltvo"
        file.write_bytes(makesimulation.simulation_file(simulation))
        return str(file)

    def server(self, command: Sequence[str]) -> Server:
        return Server(command, self.folder / "server.log", self.server_core, self.environment)

    def run(self, command: Sequence[str], core: int, patience: float) -> Figures:
        """Return what a program prints; raise MeasurementFailed when it fails or takes longer than patience (s)."""
        try:
            result = subprocess.run(
                pinned(command, core), capture_output=True, text=True, timeout=patience, env=self.environment
            )
        except subprocess.TimeoutExpired as error:
            raise MeasurementFailed(f"{' '.join(command)} takes longer than {patience:g} s") from error
        if result.returncode != 0:
            raise MeasurementFailed(f"{' '.join(command)}: {result.stderr.strip()[-500:]}")
        return dict(json.loads(result.stdout))

    def load(self, client: str, server: Server, arguments: Sequence[str]) -> tuple[Figures, Disturbance]:
        """Return the figures of the load client, and what others took of the cores meanwhile."""
        watch = ProcessorWatch((self.client_core, self.server_core))
        ends = ["--port", str(server.port), "--watch-pid", str(server.process.pid)]
        figures = self.run([client, *ends, *arguments], self.client_core, LOAD_PATIENCE)
        figures["frames_per_second"] = figures["frames"] / figures["seconds"]
        return figures, watch.disturbance(max(figures["server_wait_seconds"], figures["client_wait_seconds"]))


def choose_cores() -> tuple[int, int]:
    """Return a core for the client and one for the server."""
    cores = sorted(os.sched_getaffinity(0))
    if len(cores) < 2:
        print("only one processor core: client and server share it, the figures mean little", file=sys.stderr)
    return cores[0], cores[-1]


def pinned(command: Sequence[str], core: int) -> list[str]:
    return ["taskset", "--cpu-list", str(core), *command]


def processor_wait(pid: int) -> int:
    """Return how long a process has waited so far while other programs had its core, in ns."""
    return int(Path(f"/proc/{pid}/schedstat").read_text(encoding="ascii").split()[1])


def memory_of(pid: int, field: str = "VmRSS") -> int:
    """Return how many bytes of memory a process uses; "VmHWM" gives the most it has ever used."""
    status = Path(f"/proc/{pid}/status").read_text(encoding="ascii")
    return 1024 * int(status.split(field + ":")[1].split()[0])


def find_program(folder: Path, name: str) -> str | None:
    """Return the path of a program that was built somewhere in the folder."""
    found = [path for path in sorted(folder.rglob(name)) if path.is_file() and os.access(path, os.X_OK)]
    return str(found[0]) if found else None
