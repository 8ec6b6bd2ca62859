#!/usr/bin/env python3
"""Compares lattivo-headless with the limit server, a minimal program for the same job.

Some workloads are also compared with the floor: the limit server that draws no random number and only relays.
All take turns on one processor core, under the same load client on another; the table shows medians of all
rounds. Frames per second and the server's processor time per frame are given as ratios (simulator : limit or floor),
so that they hold on any machine. "Growth" compares the simulator with itself.
The exit code is 0 when every target is reached, 1 when one is missed and 2 when something could not be measured.
"""

from __future__ import annotations

import argparse
import dataclasses
import sys
from pathlib import Path
from typing import Callable, Sequence

from measuring.lab import bench
from measuring.lab.bench import Contender, Workload, cpu_per_frame, workload_rows
from measuring.lab.launcher import Figures, Server
from measuring.lab.rows import Row, ratio_row, single_row

LARGEST_P99_US = 40_000  # what a delayed acknowledgement of the kernel would cost
NOISY = 0.9999  # per bit
LATENCY_TARGET = 1.45
IN_FLIGHT_TARGET = 1.3
CAPTURE_TARGET = 1.1
PAIRS_TARGET = 1.2

IN_FLIGHT_RATE = 25_000  # frames/s; times the delay: the frames in flight
FEW_IN_FLIGHT_DELAY = 4  # ms
MANY_IN_FLIGHT_DELAY = 4000  # ms
CAPTURED_FRAMES = 1_000_000
CAPTURE_SECTION = 100_000  # frames

WORKLOADS = [
    Workload("small", "S=64 W=64, one pair", speed_target=1.2, cpu_target=0.5, floor_targets=(0.9, 1.2)),
    Workload("large", "S=255 W=64, one pair", size=255, speed_target=2.0, cpu_target=0.2, floor_targets=(0.8, 1.25)),
    Workload("noisy-small", "S=64 W=64, reliability 0.9999", reliability=NOISY, speed_target=1.0, cpu_target=0.7),
    Workload(
        "noisy-large", "S=255 W=64, reliability 0.9999", size=255, reliability=NOISY, speed_target=1.0, cpu_target=0.4
    ),
    Workload("pairs16", "S=64 W=16, 16 pairs", window=16, pairs=16, speed_target=1.0, floor_targets=(0.85, 1.3)),
    Workload("pairs100", "S=64 W=4, 100 pairs", window=4, pairs=100, speed_target=1.0, floor_targets=(0.75, 1.4)),
    Workload("confirm", "S=64 W=16 with confirmations", window=16, confirms=True, speed_target=1.0),
    Workload("broadcast", "S=64 W=16, broadcast over 16 links", window=16, star_links=16, speed_target=1.0),
    Workload("fan-out", "S=64 W=4, broadcast over 16 links", window=4, star_links=16, floor_targets=(0.8, 1.3)),
    Workload(
        "in-step", "S=64 W=1, 200 programs in step", window=1, pairs=100, in_step=True, speed_target=1.0, cpu_target=1.3
    ),
    Workload("delayed", "S=64, 5,000 frames/s, delay 100 ms", rate=5000, delay=100, cpu_target=1.1),
    Workload("capture", "S=64 W=64, capture on", captures=True, speed_target=1.0),
    Workload(
        "latency",
        "S=64 W=1, latency",
        window=1,
        speed_target=1.0,
        latency_target=LATENCY_TARGET,
        floor_targets=(0.92, 1.15),
    ),
]


class LimitBench(bench.Bench):
    """Lets limit and floor take turns with the simulator."""

    def __init__(self, options: argparse.Namespace, folder: str | Path) -> None:
        super().__init__(options, folder)
        self.p99s: list[float] = []  # of the simulator, in µs, only where no link delays
        self.disturbed_p99s: list[float] = []  # likewise, of runs whose figures belong to other programs

    def contenders(self, workload: Workload) -> list[Contender]:
        return [self.simulator, self.limit] + ([self.floor] if workload.floor_targets else [])

    def simulator(self, workload: Workload, arguments: Sequence[str]) -> Figures:
        if self.options.self_check:
            return self.limit(workload, arguments)
        figures = self.measure(lambda: self.headless(workload, workload.captures), workload, arguments)
        if not workload.delay:
            (self.disturbed_p99s if figures["disturbed"] else self.p99s).append(figures["latency_p99_us"])
        return figures

    def limit(self, workload: Workload, arguments: Sequence[str]) -> Figures:
        return self.measure(lambda: self._limit_server(workload), workload, arguments)

    def floor(self, workload: Workload, arguments: Sequence[str]) -> Figures:
        return self.measure(lambda: self._limit_server(workload, "--no-draws"), workload, arguments)

    def _limit_server(self, workload: Workload, *options: str) -> Server:
        command = [self.options.limit_server, "--seed", bench.SEED, "--reliability", str(workload.reliability)]
        return self.server([*command, *workload.wiring_arguments(), *["--confirm"] * workload.confirms, *options])


def in_flight_growth(lab: LimitBench) -> Row:
    def cost(delay: int) -> float:
        workload = Workload("in-flight", "", rate=IN_FLIGHT_RATE, delay=delay)
        return cpu_per_frame(lab.simulator(workload, ["--duration", str(lab.options.duration)]))

    title = "100,000 frames in flight : 100"
    return growth_row(
        lab, "in-flight", title, IN_FLIGHT_TARGET, lambda: (cost(FEW_IN_FLIGHT_DELAY), cost(MANY_IN_FLIGHT_DELAY))
    )


def captured_growth(lab: LimitBench) -> Row:
    frames = CAPTURED_FRAMES if not lab.options.quick else 3 * CAPTURE_SECTION

    def costs() -> tuple[float, float]:
        arguments = ["--warm-up", "0.1", "--frames", str(frames), "--checkpoint", str(CAPTURE_SECTION)]
        figures = lab.simulator(Workload("captured", "", captures=True), arguments)
        whole = [section for section in figures["sections"] if section["frames"] > CAPTURE_SECTION / 2]
        return cpu_per_frame(whole[0]), cpu_per_frame(whole[-1])

    title = f"last {CAPTURE_SECTION:,} of {frames:,} captured frames : first"
    return growth_row(lab, "captured", title, CAPTURE_TARGET, costs)


def growth_row(lab: LimitBench, key: str, title: str, target: float, costs: Callable[[], tuple[float, float]]) -> Row:
    """Compare the cost of a frame (CPU µs) with much and with little; `costs` returns those of a round, little first."""
    little, much = zip(*lab.rounds(title, costs))
    return ratio_row("growth", key, title, "CPU µs/frame", much, little, target)


def pairs_growth(lab: bench.Bench) -> list[Row]:
    """Compare the growths of the simulator, the limit and the floor, and then the simulator's with the floor's."""
    key = "pairs-growth"
    few, many = [
        Workload(str(pairs), f"S=64 W=4, {pairs} pairs", window=4, pairs=pairs, floor_targets=(None, None))
        for pairs in (64, 256)
    ]
    runs = lab.in_turns([few, many])
    title = f"{many.title} : {few.pairs}"
    titles = [title, "the same, of the limit", "the same, of the floor"]
    rows, growths = [], []
    for words, target, *contender in zip(titles, [PAIRS_TARGET, None, None], runs[many.key], runs[few.key]):
        much, little = [[cpu_per_frame(figures) for figures in rounds] for rounds in contender]
        rows.append(ratio_row("growth", key, words, "CPU µs/frame", much, little, target))
        growths.append([more / less for more, less in zip(much, little)])
    row = ratio_row("floor", key, title, "growth of CPU", growths[0], growths[2], 1.0)
    ours, floor = rows[0].ratio or 0.0, rows[2].ratio or 0.0  # of the medians, as their rows have them
    return rows + [dataclasses.replace(row, ours=ours, other=floor, ratio=ours / floor)]


def p99_row(lab: LimitBench) -> Row:
    """Judge the largest of the undisturbed runs, if there are any."""
    kind = "undisturbed" if lab.p99s else "disturbed"
    largest = max(lab.p99s or lab.disturbed_p99s)
    row = single_row("limit", "p99", f"largest p99 of all {kind} runs", "p99 µs", [largest], LARGEST_P99_US)
    return dataclasses.replace(row, lowest=None, highest=None)


def measure(lab: LimitBench) -> list[Row]:
    wanted = lab.options.wanted
    workloads = [workload for workload in WORKLOADS if workload.key in wanted]
    runs = lab.in_turns(workloads)
    rows = []
    for workload in workloads:
        ours, *others = runs[workload.key]
        for table, theirs in zip(("limit", "floor"), others):
            rows += workload_rows(table, workload, ours, theirs)
    if "in-flight" in wanted and not lab.options.self_check:  # the limit server delays nothing
        rows.append(in_flight_growth(lab))
    if "captured" in wanted:
        rows.append(captured_growth(lab))
    if "pairs-growth" in wanted:
        rows += pairs_growth(lab)
    return rows + ([p99_row(lab)] if lab.p99s or lab.disturbed_p99s else [])


def main() -> int:
    keys = [workload.key for workload in WORKLOADS] + ["in-flight", "captured", "pairs-growth"]
    parser = bench.options_parser(__doc__.splitlines()[0], keys)
    parser.add_argument("--program", help="lattivo-headless of another build")
    parser.add_argument("--self-check", action="store_true", help="the limit server against itself: the noise")
    programs = {"client": "lattivo_loadclient", "limit_server": "lattivo_limitserver", "program": "lattivo-headless"}
    return bench.run_bench(LimitBench, bench.read_options(parser, "scripts/bench.sh", **programs), measure)


if __name__ == "__main__":
    sys.exit(main())
