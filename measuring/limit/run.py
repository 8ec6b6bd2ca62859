#!/usr/bin/env python3
"""Compares the headless simulator with the limit server: the least that any program could do for the same job.

Some workloads are also compared with the floor: the limit server that draws no random number and only relays.
All take turns on one processor core, under the same load client on another core; the table shows medians of all
rounds. Frames per second and the server's processor time per frame are given as ratios (simulator : limit or floor),
so that they hold on any machine. "Growth" compares the simulator with itself.
The exit code is 0 when every target is reached, 1 when one is missed and 2 when something could not be measured.
"""

import argparse
import json
import pathlib
import statistics
import sys
import tempfile
from dataclasses import dataclass

from measuring.lab import disturbance, makesimulation
from measuring.lab.launcher import TOP_FOLDER, Launcher, MeasurementFailed, find_program, progress

LARGEST_P99_US = 40_000  # what a delayed acknowledgement of the kernel would cost
NOISY = 0.9999  # per bit
LATENCY_TARGET = 1.45
IN_FLIGHT_TARGET = 1.3
CAPTURE_TARGET = 1.1
PAIRS_TARGET = 1.2

LEAST_OF_RATE = 0.97  # what of a workload's rate has to be reached
IN_FLIGHT_RATE = 25_000  # frames/s; times the delay: the frames in flight
FEW_IN_FLIGHT_DELAY = 4  # ms
MANY_IN_FLIGHT_DELAY = 4000  # ms
CAPTURE_SECTION = 100_000  # frames

TRIES = 3  # at most, of a run that others disturb
SEED = "1"


@dataclass
class Workload:
    key: str
    title: str
    size: int = 64
    window: int = 64
    pairs: int = 1
    star_links: int = 0
    confirms: bool = False
    in_step: bool = False  # both ends of each pair send, all anew when everything has arrived
    captures: bool = False
    reliability: float = 1.0  # per bit
    delay: int = 0  # ms; the limit has none
    rate: int = 0  # frames/s; 0: as fast as the window allows
    speed_target: float = None  # frames/s, at least
    cpu_target: float = None  # per frame, at most
    latency_target: float = None  # median, at most
    floor_targets: tuple = None  # frames/s, at least, and CPU per frame, at most; None: not compared with the floor

    def wiring_arguments(self):
        return ["--star", str(self.star_links)] if self.star_links else ["--pairs", str(self.pairs)]

    def client_arguments(self):
        arguments = self.wiring_arguments() + ["--size", str(self.size), "--window", str(self.window)]
        arguments += ["--confirm"] * self.confirms + ["--in-step"] * self.in_step
        if self.rate:
            arguments += ["--rate", str(self.rate), "--loss-timeout", str(self.delay + 2000)]
            arguments += ["--warm-up", str(self.delay / 1000 + 0.5)]
        return arguments

    def simulation(self):
        return makesimulation.Simulation(
            pairs=self.pairs,
            star_links=self.star_links,
            confirms=self.confirms,
            delay=self.delay,
            reliability=self.reliability,
        )


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
GROWTH_KEYS = ["in-flight", "captured", "pairs-growth"]


class Bench(Launcher):
    def __init__(self, options, folder):
        super().__init__(folder)
        self.options = options
        self.runs = 0
        self.disturbed_runs = 0
        self.lost_frames = 0  # on links of reliability 1, which lose none
        self.p99s = []  # of the simulator, in µs, only where no link delays
        self.disturbed_p99s = []  # likewise, of runs whose figures belong to other programs

    def limit_command(self, workload, strict=False):
        command = [self.options.limit_server, "--seed", SEED, "--reliability", str(workload.reliability)]
        command += workload.wiring_arguments()
        return command + ["--confirm"] * workload.confirms + ["--strict"] * strict

    def simulator_command(self, workload):
        if self.options.self_check:
            return self.limit_command(workload, strict=True)
        file = self.simulation_file(workload.simulation())
        command = [self.options.program, file, "--listen", "0", "--identify-by", "address", "--seed", SEED]
        return command + (["--capture", str(self.folder / "dump.pcapdump")] if workload.captures else [])

    def measure_simulator(self, workload, arguments):
        figures = self._measure(self.simulator_command(workload), workload, arguments)
        if not workload.delay:
            (self.disturbed_p99s if figures["disturbed"] else self.p99s).append(figures["latency_p99_us"])
        return figures

    def measure_limit(self, workload, arguments):
        return self._measure(self.limit_command(workload), workload, arguments)

    def measure_floor(self, workload, arguments):
        return self._measure(self.limit_command(workload) + ["--no-draws"], workload, arguments)

    def _measure(self, server_command, workload, arguments):
        """Figures of the client."""
        client_arguments = workload.client_arguments() + arguments
        figures, disturbed, others = disturbance.quietest(TRIES, lambda: self._run(server_command, client_arguments))
        figures["lost"] += sum(other["lost"] for other in others)
        self.note_disturbance(figures, disturbed)
        speed = figures["frames_per_second"]
        if speed < LEAST_OF_RATE * workload.rate:
            raise MeasurementFailed(f"only {speed:.0f} of {workload.rate} frames/s (server: {server_command[0]})")
        return figures

    def _run(self, server_command, client_arguments):
        with self.server(server_command) as server:
            figures, disturbed = self.load(self.options.client, server, client_arguments)
        if figures["frames"] == 0:
            raise MeasurementFailed(f"no frame arrived (server: {server_command[0]})")
        return figures, disturbed

    def note_disturbance(self, figures, disturbed):
        figures["disturbed"] = disturbed.exceeds(disturbance.USUAL)
        self.runs += 1
        self.disturbed_runs += figures["disturbed"]


def cpu_per_frame(figures):
    """In µs."""
    return figures["server_cpu_seconds"] / figures["frames"] * 1e6


def median(values):
    return statistics.median(values)


def compare(ours, limits, figure):
    """Medians of both, their ratio and the ratios of the single rounds that lie farthest apart."""
    our_values = [figure(run) for run in ours]
    limit_values = [figure(run) for run in limits]
    ratios = [mine / limit for mine, limit in zip(our_values, limit_values)]
    our_median, limit_median = median(our_values), median(limit_values)
    return {
        "ours": our_median,
        "limit": limit_median,
        "ratio": our_median / limit_median,
        "lowest": min(ratios),
        "highest": max(ratios),
    }


def measure_workloads(bench, workloads):
    """For each key the figures of the simulator, of the limit and, where it is compared with, of the floor."""
    runs = {workload.key: ([], [], []) for workload in workloads}
    duration = ["--duration", str(bench.options.duration)]
    for number in range(bench.options.rounds):
        for workload in workloads:
            progress.begin(f"round {number + 1} of {bench.options.rounds}: {workload.title}")
            measures = [bench.measure_simulator, bench.measure_limit]
            if workload.floor_targets:
                measures.append(bench.measure_floor)
            turns = list(zip(runs[workload.key], measures))
            first = number % len(turns)
            for figures, measure in turns[first:] + turns[:first]:
                figures.append(measure(workload, duration))
                if workload.reliability == 1.0:
                    bench.lost_frames += figures[-1]["lost"]
    return runs


def floor_rows(workload, ours, _limits, floors):
    if not floors:
        return []
    speed_target, cpu_target = workload.floor_targets
    speed = compare(ours, floors, lambda run: run["frames_per_second"])
    cpu = compare(ours, floors, cpu_per_frame)
    return [
        row(workload, "frames/s", speed, speed_target, at_least=True, against="floor"),
        row(workload, "CPU µs/frame", cpu, cpu_target, against="floor"),
    ]


def workload_rows(workload, ours, limits, _floors):
    rows = []
    speed = compare(ours, limits, lambda run: run["frames_per_second"])
    rows.append(row(workload, "frames/s", speed, workload.speed_target, at_least=True))
    cpu = compare(ours, limits, cpu_per_frame)
    rows.append(row(workload, "CPU µs/frame", cpu, workload.cpu_target))
    latency = compare(ours, limits, lambda run: run["latency_median_us"])
    rows.append(row(workload, "median µs", latency, workload.latency_target))
    rows.append(row(workload, "p99 µs", compare(ours, limits, lambda run: run["latency_p99_us"])))
    return rows


def row(workload, quantity, comparison, target=None, at_least=False, against="limit"):
    reached = None
    if target is not None:
        reached = comparison["ratio"] >= target if at_least else comparison["ratio"] <= target
    return {
        "key": workload.key,
        "workload": workload.title,
        "quantity": quantity,
        "against": against,
        **comparison,
        "target": target,
        "at_least": at_least,
        "reached": reached,
    }


def growth_row(bench, key, title, target, measure_less, measure_more):
    """The cost of a frame (CPU µs) with little and with much, the ratio being much : little."""
    little, much = [], []
    for number in range(bench.options.rounds):
        progress.begin(f"round {number + 1} of {bench.options.rounds}: {title}")
        little.append(measure_less())
        much.append(measure_more())
    comparison = compare(much, little, lambda cost: cost)
    return row(Workload(key, title), "CPU µs/frame", comparison, target)


def in_flight_growth(bench):
    def cost(delay):
        workload = Workload("in-flight", "", rate=IN_FLIGHT_RATE, delay=delay)
        return cpu_per_frame(bench.measure_simulator(workload, ["--duration", str(bench.options.duration)]))

    return growth_row(
        bench,
        "in-flight",
        "100,000 frames in flight : 100",
        IN_FLIGHT_TARGET,
        lambda: cost(FEW_IN_FLIGHT_DELAY),
        lambda: cost(MANY_IN_FLIGHT_DELAY),
    )


def captured_growth(bench):
    sections = []  # of the run that measure_less() has made

    def measure_run():
        workload = Workload("captured", "", captures=True)
        frames = ["--frames", str(bench.options.captured_frames), "--checkpoint", str(CAPTURE_SECTION)]
        figures = bench.measure_simulator(workload, ["--warm-up", "0.1"] + frames)
        sections[:] = [section for section in figures["sections"] if section["frames"] > CAPTURE_SECTION / 2]
        return cpu_per_frame(sections[0])

    return growth_row(
        bench,
        "captured",
        f"last {CAPTURE_SECTION:,} of {bench.options.captured_frames:,} captured frames : first",
        CAPTURE_TARGET,
        measure_run,
        lambda: cpu_per_frame(sections[-1]),
    )


def pairs_growth(bench):
    """The growth of the simulator, the limit and the floor, and then the simulator's against the floor's."""
    few, many = [
        Workload(str(pairs), f"S=64 W=4, {pairs} pairs", window=4, pairs=pairs, floor_targets=(None, None))
        for pairs in (64, 256)
    ]
    runs = measure_workloads(bench, [few, many])
    title = f"{many.title} : {few.pairs}"
    rows, growths = [], []
    for words, target, much, little in zip(
        [title, "the same, of the limit", "the same, of the floor"],
        [PAIRS_TARGET, None, None],
        runs[many.key],
        runs[few.key],
    ):
        growth = compare(much, little, cpu_per_frame)
        rows.append(row(Workload("pairs-growth", words), "CPU µs/frame", growth, target))
        growths.append([cpu_per_frame(more) / cpu_per_frame(less) for more, less in zip(much, little)])
    ours, _, floor = rows
    comparison = compare(growths[0], growths[2], lambda growth: growth)
    comparison.update(ours=ours["ratio"], limit=floor["ratio"], ratio=ours["ratio"] / floor["ratio"])
    return rows + [row(Workload("pairs-growth", title), "growth of CPU", comparison, 1.0, against="floor")]


def p99_row(bench):
    """Of the undisturbed runs, if there are any."""
    p99s = bench.p99s or bench.disturbed_p99s
    kind = "undisturbed" if bench.p99s else "disturbed"
    comparison = {"ours": max(p99s), "limit": None, "ratio": None, "lowest": None, "highest": None}
    result = row(Workload("p99", f"largest p99 of all {kind} runs"), "p99 µs", comparison)
    return {**result, "target": LARGEST_P99_US, "reached": max(p99s) < LARGEST_P99_US}


def number(value):
    if value is None:
        return ""
    return f"{value:,.0f}" if value >= 1000 else f"{value:.2f}"


def cells(result):
    target = ""
    if result["target"] is not None:
        target = f"{'≥' if result['at_least'] else '≤'} {number(result['target'])}"
    spread = f"{result['lowest']:.2f}–{result['highest']:.2f}" if result["lowest"] is not None else ""
    verdict = {None: "", True: "ok", False: "MISSED"}[result["reached"]]
    figures = [number(result["ours"]), number(result["limit"]), number(result["ratio"]), spread]
    return [result["workload"], result["quantity"]] + figures + [target, verdict]


def print_table(heads, rows):
    lines = [heads] + [cells(result) for result in rows]
    widths = [max(len(line[column]) for line in lines) for column in range(len(heads))]
    lines.insert(1, ["-" * width for width in widths])
    for line in lines:
        text_cells = [cell.ljust(width) for cell, width in zip(line[:2], widths)]
        number_cells = [cell.rjust(width) for cell, width in zip(line[2:], widths[2:])]
        print("  ".join(text_cells + number_cells).rstrip())
    print()


def titles(table, ours, others):
    return [table, "figure", ours, others, "ratio", "rounds", "target", "verdict"]


def tables(rows):
    """By what the simulator is compared with: the limit, the floor, or itself."""
    heads = {
        "limit": titles("workload", "Lattivo", "limit"),
        "floor": titles("workload", "Lattivo", "floor"),
        "growth": titles("growth", "much", "little"),
    }
    return {kind: (head, [result for result in rows if kind_of(result) == kind]) for kind, head in heads.items()}


def kind_of(result):
    if result["against"] == "floor":
        return "floor"
    return "growth" if result["key"] in GROWTH_KEYS else "limit"


def report(bench, rows):
    for heads, table_rows in tables(rows).values():
        if table_rows:
            print_table(heads, table_rows)
    report_disturbance(bench)


def report_disturbance(bench):
    if bench.lost_frames:
        print(f"{bench.lost_frames} frames were lost on links that lose none")
    if bench.disturbed_runs:
        print(f"{bench.disturbed_runs} of {bench.runs} runs were disturbed {TRIES} times: {disturbance.MEANING}")


def parse_options():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    keys = [workload.key for workload in WORKLOADS] + GROWTH_KEYS
    parser.add_argument("--build-dir", type=pathlib.Path, default=TOP_FOLDER / "build" / "release")
    parser.add_argument("--program", help="the headless simulator (from the build folder)")
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--duration", type=float, default=2.0, help="of a measurement, in seconds")
    parser.add_argument("--quick", action="store_true", help="one short round: a look, not a result")
    parser.add_argument("--only", action="append", choices=keys, metavar="WORKLOAD", help=", ".join(keys))
    parser.add_argument("--self-check", action="store_true", help="the limit server against itself: the noise")
    parser.add_argument("--json", type=pathlib.Path, metavar="FILE", help="write the rows there too")
    options = parser.parse_args()
    options.client = find_program(options.build_dir, "lattivo_loadclient")
    options.limit_server = find_program(options.build_dir, "lattivo_limitserver")
    options.program = options.program or find_program(options.build_dir, "lattivo-headless")
    options.captured_frames = 1_000_000
    if options.quick:
        options.rounds, options.duration, options.captured_frames = 1, 0.5, 300_000
    needed = [options.client, options.limit_server] + ([] if options.self_check else [options.program])
    if None in needed:
        parser.error(f"not everything is built in {options.build_dir}; scripts/bench.sh builds it")
    return options


def rows_of(bench, wanted):
    workloads = [workload for workload in WORKLOADS if workload.key in wanted]
    runs = measure_workloads(bench, workloads)
    rows = []
    for workload in workloads:
        rows += workload_rows(workload, *runs[workload.key]) + floor_rows(workload, *runs[workload.key])
    if "in-flight" in wanted and not bench.options.self_check:  # the limit server delays nothing
        rows.append(in_flight_growth(bench))
    if "captured" in wanted:
        rows.append(captured_growth(bench))
    if "pairs-growth" in wanted:
        rows += pairs_growth(bench)
    return rows + ([p99_row(bench)] if bench.p99s or bench.disturbed_p99s else [])


def main():
    options = parse_options()
    wanted = options.only or [workload.key for workload in WORKLOADS] + GROWTH_KEYS
    with tempfile.TemporaryDirectory(prefix="lattivo-bench-") as folder:
        bench = Bench(options, folder)
        try:
            rows = rows_of(bench, wanted)
        except MeasurementFailed as error:
            return progress.fail(error)
    progress.end()
    report(bench, rows)
    if options.json:
        result = {"rows": rows, "runs": bench.runs, "disturbed_runs": bench.disturbed_runs}
        options.json.write_text(json.dumps(result, indent=2, ensure_ascii=False) + "\n")
    return 1 if any(result["reached"] is False for result in rows) else 0


if __name__ == "__main__":
    sys.exit(main())
