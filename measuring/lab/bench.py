"""Let servers take turns under the same load, and compare what each frame costs them."""

from __future__ import annotations

import argparse
import json
import tempfile
from dataclasses import asdict, dataclass
from pathlib import Path
from typing import Any, Callable, Sequence, TypeVar

from measuring.lab import disturbance
from measuring.lab.disturbance import Disturbance
from measuring.lab.launcher import TOP_FOLDER, Figures, Launcher, MeasurementFailed, Server, find_program, progress
from measuring.lab.makesimulation import Simulation
from measuring.lab.rows import Row, print_tables, ratio_row

LEAST_OF_RATE = 0.97  # what of a workload's rate has to be reached
TRIES = 3  # at most, of a run that others disturb
SEED = "1"


@dataclass
class Workload:
    key: str
    title: str
    size: int = 64  # bytes
    window: int = 64  # frames
    pairs: int = 1
    star_links: int = 0
    confirms: bool = False
    in_step: bool = False  # both ends of each pair send, all anew when everything has arrived
    captures: bool = False
    reliability: float = 1.0  # per bit
    delay: int = 0  # ms; limit and floor have none
    rate: int = 0  # frames/s; 0: as fast as the window allows
    speed_target: float | None = None  # frames/s, at least
    cpu_target: float | None = None  # per frame, at most
    latency_target: float | None = None  # median, at most
    floor_targets: tuple[float | None, float | None] | None = None  # likewise, speed and CPU; None: without the floor

    def wiring_arguments(self) -> list[str]:
        return ["--star", str(self.star_links)] if self.star_links else ["--pairs", str(self.pairs)]

    def client_arguments(self) -> list[str]:
        arguments = self.wiring_arguments() + ["--size", str(self.size), "--window", str(self.window)]
        arguments += ["--confirm"] * self.confirms + ["--in-step"] * self.in_step
        if self.rate:
            arguments += ["--rate", str(self.rate), "--loss-timeout", str(self.delay + 2000)]
            arguments += ["--warm-up", str(self.delay / 1000 + 0.5)]
        return arguments

    def simulation(self) -> Simulation:
        return Simulation(
            pairs=self.pairs,
            star_links=self.star_links,
            confirms=self.confirms,
            delay=self.delay,
            reliability=self.reliability,
        )


Result = TypeVar("Result")
Contender = Callable[[Workload, Sequence[str]], Figures]  # measures a workload, with these arguments for the client


class Bench(Launcher):
    """Measures workloads and counts the runs that others disturbed."""

    def __init__(self, options: argparse.Namespace, folder: str | Path) -> None:
        super().__init__(folder)
        self.options = options
        self.runs = 0
        self.disturbed_runs = 0
        self.lost_frames = 0  # on links of reliability 1, which lose none

    def contenders(self, workload: Workload) -> list[Contender]:
        """Return who takes turns, ours first."""
        raise NotImplementedError

    def headless(self, workload: Workload, captures: bool = False) -> Server:
        command = [self.options.program, self.simulation_file(workload.simulation()), "--listen", "0"]
        command += ["--identify-by", "address", "--seed", SEED]
        return self.server(command + ["--capture", str(self.folder / "dump.pcapdump")] * captures)

    def measure(self, start: Callable[[], Server], workload: Workload, arguments: Sequence[str]) -> Figures:
        """Return the client's figures of the least disturbed run."""

        def run() -> tuple[Figures, Disturbance]:
            with start() as server:
                return self.load(self.options.client, server, [*workload.client_arguments(), *arguments])

        figures, disturbed, others = disturbance.quietest(TRIES, run)
        if workload.reliability == 1.0:
            self.lost_frames += sum(each["lost"] for each in [figures, *others])
        self.note_disturbance(figures, disturbed)
        speed = figures["frames_per_second"]
        if speed == 0 or speed < LEAST_OF_RATE * workload.rate:
            raise MeasurementFailed(f"only {speed:.0f} frames/s went through")
        return figures

    def note_disturbance(self, figures: Figures, disturbed: Disturbance) -> None:
        figures["disturbed"] = disturbed.exceeds(disturbance.USUAL)
        self.runs += 1
        self.disturbed_runs += figures["disturbed"]

    def in_turns(self, workloads: Sequence[Workload]) -> dict[str, list[list[Figures]]]:
        """Return the figures of all rounds by workload and contender."""
        runs: dict[str, list[list[Figures]]] = {workload.key: [] for workload in workloads}
        duration = ["--duration", str(self.options.duration)]
        for number in range(self.options.rounds):
            for workload in workloads:
                self.begin_round(number, workload.title)
                contenders = self.contenders(workload)
                results = runs[workload.key] = runs[workload.key] or [[] for _ in contenders]
                turns = list(zip(results, contenders))
                first = number % len(turns)
                for figures, contender in turns[first:] + turns[:first]:
                    figures.append(contender(workload, duration))
        return runs

    def rounds(self, title: str, measure: Callable[[], Result]) -> list[Result]:
        """Return the results of all rounds."""
        results = []
        for number in range(self.options.rounds):
            self.begin_round(number, title)
            results.append(measure())
        return results

    def begin_round(self, number: int, title: str) -> None:
        progress.begin(f"round {number + 1} of {self.options.rounds}: {title}")

    def report(self) -> None:
        if self.lost_frames:
            print(f"{self.lost_frames} frames were lost on links that lose none")
        if self.disturbed_runs:
            print(f"{self.disturbed_runs} of {self.runs} runs were disturbed {TRIES} times: {disturbance.MEANING}")


def cpu_per_frame(figures: Figures) -> float:
    """Return the server's, in µs."""
    return float(figures["server_cpu_seconds"]) / int(figures["frames"]) * 1e6


def workload_rows(table: str, workload: Workload, ours: Sequence[Figures], others: Sequence[Figures]) -> list[Row]:
    def row(
        quantity: str, figure: Callable[[Figures], Any], target: float | None = None, at_least: bool = False
    ) -> Row:
        mine, theirs = [figure(run) for run in ours], [figure(run) for run in others]
        return ratio_row(table, workload.key, workload.title, quantity, mine, theirs, target, at_least)

    targets = workload.floor_targets if table == "floor" else (workload.speed_target, workload.cpu_target)
    assert targets
    rows = [
        row("frames/s", lambda run: run["frames_per_second"], targets[0], at_least=True),
        row("CPU µs/frame", cpu_per_frame, targets[1]),
    ]
    if table != "floor":
        rows.append(row("median µs", lambda run: run["latency_median_us"], workload.latency_target))
        rows.append(row("p99 µs", lambda run: run["latency_p99_us"]))
    return rows


def options_parser(description: str, keys: Sequence[str]) -> argparse.ArgumentParser:
    """Return a parser of the options that all comparisons share."""
    parser = argparse.ArgumentParser(description=description)
    parser.add_argument("--build-dir", type=Path, default=TOP_FOLDER / "build" / "release")
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--duration", type=float, default=2.0, help="of a measurement under load, in seconds")
    parser.add_argument("--quick", action="store_true", help="one short round: a look, not a result")
    parser.add_argument("--only", action="append", choices=keys, metavar="KEY", help=", ".join(keys))
    parser.add_argument("--json", type=Path, metavar="FILE", help="write the rows there too")
    parser.set_defaults(keys=keys)
    return parser


def read_options(parser: argparse.ArgumentParser, script: str, **programs: str) -> argparse.Namespace:
    """Read the command line and find the programs in the build folder; the script is what builds them."""
    options = parser.parse_args()
    options.wanted = options.only or options.keys
    if options.quick:
        options.rounds, options.duration = 1, 0.5
    for name, program in programs.items():
        setattr(options, name, getattr(options, name, None) or find_program(options.build_dir, program))
        if getattr(options, name) is None:
            parser.error(f"{program} is not built in {options.build_dir}; {script} builds it")
    return options


def write_json(file: Path | None, result: object) -> None:
    if file:
        file.write_text(json.dumps(result, indent=2, ensure_ascii=False) + "\n", encoding="utf-8")


Kind = TypeVar("Kind", bound=Bench)


def run_bench(kind: type[Kind], options: argparse.Namespace, measure: Callable[[Kind], list[Row]]) -> int:
    """Measure, report and return the exit code."""
    with tempfile.TemporaryDirectory(prefix="lattivo-bench-") as folder:
        bench = kind(options, folder)
        try:
            rows = measure(bench)
        except (MeasurementFailed, FileNotFoundError) as error:
            return progress.fail(error)
    progress.end()
    print_tables(rows)
    bench.report()
    result = {"rows": [asdict(row) for row in rows], "runs": bench.runs, "disturbed_runs": bench.disturbed_runs}
    write_json(options.json, result)
    return 1 if any(row.reached is False for row in rows) else 0
