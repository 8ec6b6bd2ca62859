#!/usr/bin/env python3
"""Sends the same frames through Lattivo, VDE and ns-3 on this machine, each with the same bit error rate.

All run in alternation, under a client that keeps a window of frames between two ends; the figures are medians of all
rounds. Each runs once with its processes on one processor core and the client on another, and once wherever the
kernel puts them; the better of both counts. The share of corrupted frames is checked in every run.
The exit code is 0 when every target is reached, 1 when one is missed and 2 when something could not be measured.
"""

from __future__ import annotations

import argparse
import contextlib
import json
import select
import socket
import statistics
import subprocess
import sys
import tempfile
import time
from dataclasses import dataclass
from pathlib import Path
from types import TracebackType
from typing import Any, Callable, Iterable, Sequence

from measuring.compare import tables
from measuring.lab import disturbance, makesimulation
from measuring.lab.bench import SEED, options_parser, read_options, write_json
from measuring.lab.document import aligned
from measuring.lab.launcher import MeasurementFailed, Server, choose_cores, pinned, progress

ERROR_RATE = 1e-4  # per bit
SIZES = (64, 255)  # bytes of a frame from its destination address to its end
WINDOW = 64
PLACEMENTS = ("one core", "any core")

VDE_TARGET = 2.0
NS3_TARGET = 3.0

VDE_NOISE_BITS = 8 * 2**20  # wirefilter counts damaged bits per megabyte
ETHERNET_HEADER = 14  # bytes that the devices of ns-3 take off before the error model sees a frame

SHARE_TOLERANCE = 0.15  # of the expected share of corrupted frames; VDE's own formula differs by up to a tenth
LOST_TOLERANCE = 0.001  # of the frames, where corrupted ones are to arrive
START_PATIENCE = 10.0  # s
CLIENT_PATIENCE = 60.0  # s
WARM_UP = 0.3  # s
OTHERS_TRIES = 3  # of a run of another tool that fails


@dataclass
class Figures:
    """What one run gave."""

    frames: int  # that the link took: delivered, or dropped as corrupted
    corrupted: int
    seconds: float
    server_cpu: float  # s
    client_cpu: float  # s
    client_wait: float  # s, ready to run while others had its core
    kernel_share: float  # of the servers' processor time since their start


class Run:
    """The processes of one measurement, all of which end with it."""

    def __init__(self, bench: Bench, placement: str) -> None:
        self.bench = bench
        self.placement = placement
        self.processes: list[subprocess.Popen[Any]] = []
        self.folder = Path(tempfile.mkdtemp(dir=bench.folder))
        self.log = open(self.folder / "errors", "w+")

    def __enter__(self) -> Run:
        return self

    def __exit__(self, kind: type | None, error: BaseException | None, trace: TracebackType | None) -> None:
        for process in reversed(self.processes):
            process.terminate()
        for process in self.processes:
            end(process)
        self.log.close()

    def start(self, command: Sequence[str], pass_fds: Sequence[int] = ()) -> subprocess.Popen[bytes]:
        process = subprocess.Popen(
            self._placed(command, self.bench.server_core),
            stdin=subprocess.PIPE,  # kept open: consoles of some end with it
            stdout=subprocess.PIPE,
            stderr=self.log,
            pass_fds=pass_fds,
        )
        self.processes.append(process)
        return process

    def first_line(self, process: subprocess.Popen[bytes]) -> str:
        assert process.stdout
        ready, _, _ = select.select([process.stdout], [], [], START_PATIENCE)
        line = process.stdout.readline().decode().strip() if ready else ""
        if not line:
            raise MeasurementFailed(f"{process.args!r} does not start: {self.errors()}")
        return line

    def wait_for(self, path: Path) -> None:
        limit = time.monotonic() + START_PATIENCE
        while not path.exists():
            if time.monotonic() > limit:
                raise MeasurementFailed(f"{path.name} does not appear: {self.errors()}")
            time.sleep(0.01)

    def client(self, command: Sequence[str], size: int, pass_fds: Sequence[int] = ()) -> dict[str, Any]:
        """Return what the client prints, and the share of the kernel."""
        load = ["--size", str(size), "--window", str(WINDOW), "--warm-up", str(WARM_UP)]
        load += ["--duration", str(self.bench.options.duration)]
        watched = [word for process in self.processes for word in ("--watch-pid", str(process.pid))]
        result = subprocess.run(
            self._placed([*command, *load, *watched], self.bench.client_core),
            capture_output=True,
            text=True,
            timeout=CLIENT_PATIENCE,
            pass_fds=pass_fds,
        )
        if result.returncode != 0:
            raise MeasurementFailed(f"{result.stderr.strip()} {self.errors()}")
        return {**json.loads(result.stdout), "kernel_share": self._kernel_share()}

    def _kernel_share(self) -> float:
        stats = [Path(f"/proc/{process.pid}/stat").read_text() for process in self.processes]
        times = [stat.rpartition(")")[2].split()[11:13] for stat in stats]  # ticks in user mode and in the kernel
        user, kernel = [sum(int(pair[index]) for pair in times) for index in (0, 1)]
        return kernel / max(1, user + kernel)

    def errors(self) -> str:
        self.log.seek(0)
        return self.log.read()[-500:].strip()

    def _placed(self, command: Sequence[str], core: int) -> Sequence[str]:
        return pinned(command, core) if self.placement == "one core" else command


def end(process: subprocess.Popen[Any]) -> None:
    try:
        process.communicate(timeout=START_PATIENCE)
    except subprocess.TimeoutExpired:
        process.kill()
        process.communicate()


class Bench:
    def __init__(self, options: argparse.Namespace, folder: str) -> None:
        self.options = options
        self.folder = folder
        self.client_core, self.server_core = choose_cores()
        self.failures: list[str] = []  # of runs that were made again


def lattivo(current: Run, size: int) -> Figures:
    """Measure a link whose error detection is on: what it corrupts does not arrive."""
    file = current.folder / "simulation.ltvo"
    file.write_bytes(makesimulation.simulation_file(makesimulation.Simulation(reliability=1.0 - ERROR_RATE)))
    options = current.bench.options
    command = [options.program, str(file), "--listen", "0", "--identify-by", "address", "--seed", SEED]
    core = current.bench.server_core if current.placement == "one core" else None
    with Server(command, current.folder / "errors", core) as server:
        current.processes.append(server.process)
        result = current.client([options.client, "--port", str(server.port)], size)
    return figures(result, result["frames"] + result["lost"], result["lost"])


def vde(current: Run, size: int) -> Figures:
    """Measure a link of which even damaged frames arrive."""
    ends = [current.folder / name for name in ("left", "right")]
    for path in ends:
        current.start(["vde_switch", "--sock", str(path)])
    for path in ends:
        current.wait_for(path / "ctl")
    noise = ERROR_RATE * VDE_NOISE_BITS
    current.start(["wirefilter", "--vde-plug", f"{ends[0]}:{ends[1]}", "--noise", str(noise)])
    command = [current.bench.options.frame_load, "--vde", str(ends[0]), "--vde", str(ends[1])]
    result = current.client(command, size)
    frames = result["intact"] + result["damaged"]
    if result["lost"] > LOST_TOLERANCE * frames:
        raise MeasurementFailed(f"VDE has lost {result['lost']} of {frames} frames")
    return figures(result, frames, result["damaged"])


def ns3(current: Run, size: int, *arguments: str) -> Figures:
    """Measure a link whose error model drops what it takes for corrupted."""
    rate = 1.0 - (1.0 - ERROR_RATE) ** (size / (size - ETHERNET_HEADER))  # for the same share of corrupted frames
    with contextlib.ExitStack() as sockets:
        outside_in, inside_in, inside_out, outside_out = [
            sockets.enter_context(one) for _ in range(2) for one in socket.socketpair(type=socket.SOCK_DGRAM)
        ]
        link = [current.bench.options.ns3_link, "--input-fd", fd(inside_in), "--output-fd", fd(inside_out)]
        link += ["--error-rate", str(rate), *arguments]
        server = current.start(link, (inside_in.fileno(), inside_out.fileno()))
        current.first_line(server)
        command = [current.bench.options.frame_load, "--sender-fd", fd(outside_in), "--receiver-fd", fd(outside_out)]
        result = current.client(command, size, (outside_in.fileno(), outside_out.fileno()))
    return figures(result, result["intact"] + result["lost"], result["lost"])


def ns3_every_bit(current: Run, size: int) -> Figures:
    return ns3(current, size, "--every-bit")


def fd(one: socket.socket) -> str:
    return str(one.fileno())


def figures(result: dict[str, Any], frames: int, corrupted: int) -> Figures:
    if frames == corrupted:
        raise MeasurementFailed("no frame arrived intact")
    return Figures(
        frames=frames,
        corrupted=corrupted,
        seconds=result["seconds"],
        server_cpu=result["server_cpu_seconds"],
        client_cpu=result["client_cpu_seconds"],
        client_wait=result["client_wait_seconds"],
        kernel_share=result["kernel_share"],
    )


@dataclass
class Tool:
    key: str
    title: str
    measure: Callable[[Run, int], Figures]
    decided_bits: Callable[[int], int]  # of a frame of so many bytes, each by a draw of its own


TOOLS = [
    Tool("lattivo", "Lattivo", lattivo, lambda size: 8 * size),
    Tool("vde", "VDE", vde, lambda size: 0),
    Tool("ns3", "ns-3, error rate per bit", ns3, lambda size: 0),
    Tool("ns3-bits", "ns-3, every bit drawn", ns3_every_bit, lambda size: 8 * (size - ETHERNET_HEADER)),
]


Runs = dict[tuple[str, int, str], list[Figures]]  # of all rounds by tool, size and placement


def measure(bench: Bench, tools: Sequence[Tool]) -> Runs:
    runs: Runs = {}
    for number in range(bench.options.rounds):
        for size in SIZES:
            for tool in tools if number % 2 == 0 else reversed(tools):
                for placement in PLACEMENTS:
                    progress.begin(f"round {number + 1} of {bench.options.rounds}: {size} bytes, {tool.title}")
                    result = measure_patiently(bench, tool, size, placement)
                    runs.setdefault((tool.key, size, placement), []).append(result)
    return runs


def measure_patiently(bench: Bench, tool: Tool, size: int, placement: str) -> Figures:
    """Measure again when another tool fails: held up by the host it may lose what is under way. Lattivo must not."""
    for _ in range(0 if tool.key == "lattivo" else OTHERS_TRIES - 1):
        try:
            return measure_once(bench, tool, size, placement)
        except MeasurementFailed as error:
            bench.failures.append(f"{tool.title}: {error}")
    return measure_once(bench, tool, size, placement)


def measure_once(bench: Bench, tool: Tool, size: int, placement: str) -> Figures:
    with Run(bench, placement) as current:
        result = tool.measure(current, size)
    check_corruption(tool, size, result)
    return result


def expected_share(size: int) -> float:
    return float(1.0 - (1.0 - ERROR_RATE) ** (8 * size))


def check_corruption(tool: Tool, size: int, result: Figures) -> None:
    share, expected = result.corrupted / result.frames, expected_share(size)
    noise = 5.0 * (expected / result.frames) ** 0.5  # five standard deviations
    if abs(share - expected) > SHARE_TOLERANCE * expected + noise:
        raise MeasurementFailed(f"{tool.title}: {share:.4f} of the frames were corrupted instead of {expected:.4f}")


def row(tool: Tool, size: int, placement: str, results: Sequence[Figures]) -> tables.Row:
    speeds = [result.frames / result.seconds for result in results]
    speed = statistics.median(speeds)
    frames = sum(result.frames for result in results)
    return {
        "key": tool.key,
        "tool": tool.title,
        "size": size,
        "placement": placement,
        "frames_per_second": speed,
        "lowest": min(speeds),
        "highest": max(speeds),
        "cpu_us": statistics.median(result.server_cpu / result.frames * 1e6 for result in results),
        "kernel_share": statistics.median(result.kernel_share for result in results),
        "client_share": statistics.median(result.client_cpu / result.seconds for result in results),
        "carried_bits_per_second": speed * 8 * size,
        "decided_bits_per_second": speed * tool.decided_bits(size),
        "frames": frames,
        "corrupted_share": sum(result.corrupted for result in results) / frames,
        "expected_share": expected_share(size),
    }


def rows_of(runs: Runs, tools: Sequence[Tool]) -> list[tables.Row]:
    return [
        row(tool, size, placement, runs[tool.key, size, placement])
        for size in SIZES
        for tool in tools
        for placement in PLACEMENTS
    ]


@dataclass
class Reading:
    """A way to put Lattivo beside another tool; the ratio is above 1 where Lattivo is better."""

    key: str  # of the other tool
    title: str
    figure: str
    target: float | None = None
    best: Callable[[Iterable[float]], float] = max  # of the two placements


READINGS = [
    Reading("vde", "frames/s, Lattivo : VDE", "frames_per_second", VDE_TARGET),
    Reading(
        "ns3",
        "frames/s (and bits carried/s), Lattivo : ns-3 with an error rate per bit",
        "frames_per_second",
        NS3_TARGET,
    ),
    Reading("ns3-bits", "bits decided/s, Lattivo : ns-3 with every bit drawn", "decided_bits_per_second", NS3_TARGET),
    Reading("vde", "CPU µs/frame, VDE : Lattivo", "cpu_us", best=min),
    Reading("ns3", "CPU µs/frame, ns-3 with an error rate per bit : Lattivo", "cpu_us", best=min),
    Reading("ns3-bits", "CPU µs/frame, ns-3 with every bit drawn : Lattivo", "cpu_us", best=min),
]


def verdicts(rows: Sequence[tables.Row]) -> list[tables.Row]:
    measured = {row["key"] for row in rows}
    readings = [reading for reading in READINGS if {"lattivo", reading.key} <= measured]
    return [verdict(reading, size, rows) for reading in readings for size in SIZES]


def verdict(reading: Reading, size: int, rows: Sequence[tables.Row]) -> tables.Row:
    ours, theirs = [
        reading.best(row[reading.figure] for row in rows if (row["key"], row["size"]) == (key, size))
        for key in ("lattivo", reading.key)
    ]
    ratio = ours / theirs if reading.best is max else theirs / ours
    return {
        "title": reading.title,
        "size": size,
        "ours": ours,
        "theirs": theirs,
        "ratio": ratio,
        "target": reading.target,
        "reached": None if reading.target is None else ratio >= reading.target,
    }


def disturbed_runs(runs: Runs) -> tuple[int, int]:
    """Return how many runs were disturbed, of how many: alone on its core the client has nobody to wait for."""
    alone = [result for (_, _, placement), results in runs.items() if placement == "one core" for result in results]
    disturbed = [result for result in alone if result.client_wait > disturbance.USUAL.waited * result.seconds]
    return len(disturbed), len(alone)


def main() -> int:
    parser = options_parser(__doc__.splitlines()[0], [tool.key for tool in TOOLS])
    options = read_options(
        parser,
        "scripts/performance.sh",
        program="lattivo-headless",
        client="lattivo_loadclient",
        frame_load="lattivo_frameload",
        ns3_link="lattivo_ns3link",
    )
    tools = [tool for tool in TOOLS if tool.key in options.wanted]
    with tempfile.TemporaryDirectory(prefix="lattivo-compare-") as folder:
        try:
            bench = Bench(options, folder)
            runs = measure(bench, tools)
        except (MeasurementFailed, subprocess.TimeoutExpired, FileNotFoundError) as error:
            return progress.fail(error)
    progress.end()
    rows = rows_of(runs, tools)
    judged = verdicts(rows)
    disturbed, alone = disturbed_runs(runs)
    print(aligned(tables.figures(rows)), aligned(tables.verdicts(judged)), sep="\n\n")
    settings = {"rounds": options.rounds, "duration": options.duration, "window": WINDOW, "error_rate": ERROR_RATE}
    counts = {"disturbed_runs": disturbed, "runs": alone, "failures": bench.failures}
    result: tables.Row = {"rows": rows, "verdicts": judged, **counts, **settings}
    write_json(options.json, result)
    return 1 if any(result["reached"] is False for result in judged) else 0


if __name__ == "__main__":
    sys.exit(main())
