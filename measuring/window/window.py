#!/usr/bin/env python3
"""Measures the program with its window shown, on a virtual display, and compares it with the headless simulator.

Window and headless simulator run in alternation under the same load client; the display's server shares the
client's core. What no client can see is measured inside the process or, for the drag, by a pointer that a program
moves on the display. Times of the process itself are less what it waits while other programs have its core.
The exit code is 0 when every target is reached, 1 when one is missed and 2 when something could not be measured.
"""

import argparse
import contextlib
import json
import os
import pathlib
import statistics
import subprocess
import sys
import tempfile
import time
from concurrent.futures import ThreadPoolExecutor

from measuring.lab import makesimulation
from measuring.lab.launcher import TOP_FOLDER, MeasurementFailed, find_program, pinned, processor_wait, progress
from measuring.lab.remotecontrol import RemoteControl
from measuring.limit import run
from measuring.limit.run import Workload

SCREEN = "1920x1080x24"
WORKLOADS = [
    Workload("small", "S=64 W=64, one pair", speed_target=0.8),
    Workload("follow", "S=64 W=64, window captures and follows", captures=True, speed_target=0.6),
    Workload("latency", "S=64 W=1, latency", window=1, latency_target=2.0),
]
OTHER_KEYS = ["drag", "capture", "files"]

DRAG_PAIRS = 100  # 200 nodes
DRAG_RING_STEPS = (1, 3)  # two links a node; each joins a node that sends and one that does not
DRAG_LAYOUT = makesimulation.Layout(nodes_per_row=25, distance=60.0, left=-400.0, top=30.0)  # all in view
DRAG_DELAY = 20  # ms, of the links: frames are seen on them
DRAG_RATE = 5000  # frames/s of all senders, each carried over four links
DRAG_NODE = makesimulation.node_name(87)
DRAG_WARM_UP = 2.0  # s, until all programs are attached
DRAG_MOVES = 300
DRAG_STEP = 1  # pixels
DRAG_PAUSE = 0.0227  # s; beats with the 60 pictures a second
DRAG_PATIENCE = 2.0  # s, for the last picture

LARGE_PAIRS = 5000  # 10,000 nodes, in a ring of as many links
MEASURE_PATIENCE = 300  # s

DRAG_TARGET = 50.0  # ms, of 95 in 100 moves
GROWTH_TARGET = 1.2
PAGE_TARGET = 20.0  # ms
MEMORY_TARGET = 200.0  # bytes
LOAD_TARGET = 500.0  # ms
SAVE_TARGET = 200.0  # ms
DELETE_TARGET = 20.0  # ms


class Window(RemoteControl):
    """The program with its window on the display, where programs can attach."""

    def __init__(self, bench, file=None, captures=False, fills_screen=False):
        command = [bench.options.window_server, run.SEED]
        super().__init__(command, bench.folder / "server.log", bench.server_core, bench.environment, MEASURE_PATIENCE)
        self.do("open", **({"file": file} if file else {}))
        self.do("capture", enabled=captures, follows=captures)
        self.do("show", fills_screen=fills_screen)


class WindowBench(run.Bench):
    """What the base calls "ours" is the window, its "limit" the headless simulator, which captures nothing."""

    def simulator_command(self, workload):
        switches = ["--capture"] if workload.captures else []
        return [self.options.window_server, self.simulation_file(workload.simulation())] + switches

    def limit_command(self, workload, strict=False):
        simulation = self.simulation_file(workload.simulation())
        return [self.options.program, simulation, "--listen", "0", "--identify-by", "address", "--seed", run.SEED]

    def server(self, command):
        """Start the window where the base starts a simulator."""
        if command[0] == self.options.window_server:
            return Window(self, command[1], captures="--capture" in command)
        return super().server(command)

    def files(self):
        saved = self.folder / "saved.ltvo"
        saved.unlink(missing_ok=True)
        simulation = makesimulation.Simulation(pairs=LARGE_PAIRS, ring_steps=(1,))
        with Window(self) as window:
            return window.do("measure_files", file=self.simulation_file(simulation), saved=str(saved))

    def capture(self):
        with Window(self, captures=True) as window:
            return window.do("measure_capture", frames=self.options.captured_frames)

    def drag(self):
        """Return the time from each move of the pointer to the picture that shows it, in ms."""
        simulation = makesimulation.Simulation(
            pairs=DRAG_PAIRS, ring_steps=DRAG_RING_STEPS, delay=DRAG_DELAY, layout=DRAG_LAYOUT
        )
        with Window(
            self, self.simulation_file(simulation), fills_screen=True
        ) as window, ThreadPoolExecutor() as others:
            place = window.do("watch", node=DRAG_NODE)
            traffic = others.submit(self._traffic, window)
            time.sleep(DRAG_WARM_UP)
            moves = self._move_pointer(place["x"], place["y"], window.process.pid)
            traffic.result()
            pictures = window.do("pictures")["pictures"]
        return [answer_time(move, pictures) for move in moves]

    def _traffic(self, server):
        """Half of the nodes send all the time."""
        workload = Workload("drag", "", pairs=DRAG_PAIRS).client_arguments()
        seconds = DRAG_WARM_UP + DRAG_MOVES * DRAG_PAUSE + DRAG_PATIENCE
        speed = ["--rate", str(DRAG_RATE), "--duration", str(seconds), "--loss-timeout", "5000"]
        figures, disturbed = self.load(self.options.client, server, workload + speed)
        self.note_disturbance(figures, disturbed)
        sent = figures["frames_per_second"]
        if sent < 0.9 * DRAG_RATE:
            raise MeasurementFailed(f"only {sent:.0f} of {DRAG_RATE} frames/s during the drag")

    def _move_pointer(self, left, top, pid):
        """Drags to the right; of each move the time (ns), what the window's process has waited so far, the place."""
        pointer = subprocess.Popen(
            pinned(["xdotool", "-"], self.client_core), stdin=subprocess.PIPE, text=True, env=self.environment
        )
        moves = []

        def command(text):
            pointer.stdin.write(text + "\n")
            pointer.stdin.flush()
            time.sleep(DRAG_PAUSE)

        command(f"mousemove {left} {top}")
        command("mousedown 1")
        for step in range(1, DRAG_MOVES + 1):
            moves.append((time.monotonic_ns(), processor_wait(pid), left + step * DRAG_STEP))
            command(f"mousemove {left + step * DRAG_STEP} {top}")
        time.sleep(DRAG_PATIENCE)
        command("mouseup 1")
        pointer.stdin.close()
        pointer.wait(timeout=DRAG_PATIENCE)
        return moves


def answer_time(move, pictures):
    """The pointer goes to the right: a picture with the node further on shows the move too."""
    begin, wait_before, left = move
    for end, wait, picture_left in pictures:
        if end > begin and picture_left >= left:
            return (end - begin - (wait - wait_before)) / 1e6
    raise MeasurementFailed(f"no picture shows the node at {left}")


def percentile(values, percent):
    return statistics.quantiles(values, n=100, method="inclusive")[percent - 1]


@contextlib.contextmanager
def virtual_display(core):
    """The name of a display on a number of its own."""
    read_end, write_end = os.pipe()
    command = ["Xvfb", "-displayfd", str(write_end), "-screen", "0", SCREEN, "-nolisten", "tcp"]
    server = subprocess.Popen(pinned(command, core), pass_fds=[write_end], stderr=subprocess.DEVNULL)
    os.close(write_end)
    try:
        with os.fdopen(read_end) as answer:
            number = answer.readline().strip()
        if not number:
            raise MeasurementFailed("the virtual display does not start")
        yield f":{number}"
    finally:
        server.terminate()
        server.wait()


def single_row(key, title, quantity, values, target, figure=statistics.median):
    """A figure of every round, judged by itself."""
    figures = [figure(value) if isinstance(value, list) else value for value in values]
    result = statistics.median(figures)
    comparison = {"ours": result, "limit": None, "ratio": None, "lowest": min(figures), "highest": max(figures)}
    judged = run.row(Workload(key, title), quantity, comparison)
    return {**judged, "target": target, "reached": None if target is None else result <= target}


def rounds(bench, title, measure):
    results = []
    for number in range(bench.options.rounds):
        progress.begin(f"round {number + 1} of {bench.options.rounds}: {title}")
        results.append(measure())
    return results


def drag_rows(bench):
    title = f"{2 * DRAG_PAIRS} nodes, {2 * DRAG_PAIRS * len(DRAG_RING_STEPS)} links with traffic: drag"
    answers = rounds(bench, title, bench.drag)
    return [
        single_row("drag", title, "p95 ms", answers, DRAG_TARGET, lambda times: percentile(times, 95)),
        single_row("drag", title, "median ms", answers, None),
    ]


def capture_rows(bench):
    title = f"capture of {bench.options.captured_frames:,} frames"
    results = rounds(bench, title, bench.capture)
    few = [result["few_rows_us"] for result in results]
    many = [result["many_rows_us"] for result in results]
    growth = run.compare(many, few, lambda cost: cost)
    pages = [result["page_ms"] for result in results]
    memory = [result["bytes_per_frame"] for result in results]
    growth_row = run.row(Workload("capture", f"{title} : 1,000"), "CPU µs/frame", growth, GROWTH_TARGET)
    return [growth_row], [
        single_row("capture", f"{title}: a page", "p95 ms", pages, PAGE_TARGET, lambda times: percentile(times, 95)),
        single_row("capture", f"{title}: memory", "bytes/frame", memory, MEMORY_TARGET),
    ]


def file_rows(bench):
    title = f"{2 * LARGE_PAIRS:,} nodes and links"
    results = rounds(bench, title, bench.files)
    load = [result["load_ms"] + result["first_picture_ms"] for result in results]
    save = [result["save_ms"] for result in results]
    deletions = [result["delete_ms"] for result in results]
    return [
        single_row("files", f"{title}: open, until seen", "ms", load, LOAD_TARGET),
        single_row("files", f"{title}: save", "ms", save, SAVE_TARGET),
        single_row("files", f"{title}: delete a node", "p95 ms", deletions, DELETE_TARGET, lambda t: percentile(t, 95)),
    ]


def measure(bench, wanted):
    """Rows of the window against the headless simulator, of growth, and of the window alone."""
    workloads = [workload for workload in WORKLOADS if workload.key in wanted]
    runs = run.measure_workloads(bench, workloads)
    rows = [result for workload in workloads for result in run.workload_rows(workload, *runs[workload.key])]
    growth, alone = [], []
    if "drag" in wanted:
        alone += drag_rows(bench)
    if "capture" in wanted:
        growth, capture = capture_rows(bench)
        alone += capture
    if "files" in wanted:
        alone += file_rows(bench)
    return rows, growth, alone


def report(bench, rows, growth, alone):
    for table, ours, others, results in [
        ("workload", "window", "headless", rows),
        ("growth", "many rows", "few", growth),
        ("window alone", "window", "", alone),
    ]:
        if results:
            run.print_table(run.titles(table, ours, others), results)
    run.report_disturbance(bench)


def parse_options():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    keys = [workload.key for workload in WORKLOADS] + OTHER_KEYS
    parser.add_argument("--build-dir", type=pathlib.Path, default=TOP_FOLDER / "build" / "release")
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--duration", type=float, default=2.0, help="of a measurement under load, in seconds")
    parser.add_argument("--quick", action="store_true", help="one short round: a look, not a result")
    parser.add_argument("--only", action="append", choices=keys, metavar="WORKLOAD", help=", ".join(keys))
    parser.add_argument("--json", type=pathlib.Path, metavar="FILE", help="write the rows there too")
    options = parser.parse_args()
    options.client = find_program(options.build_dir, "lattivo_loadclient")
    options.program = find_program(options.build_dir, "lattivo-headless")
    options.window_server = find_program(options.build_dir, "lattivo_windowserver")
    options.wanted = options.only or keys
    options.captured_frames = 1_000_000
    if options.quick:
        options.rounds, options.duration = 1, 0.5
    if None in (options.client, options.program, options.window_server):
        parser.error(f"not everything is built in {options.build_dir}; scripts/bench.sh --window builds it")
    return options


def main():
    options = parse_options()
    with tempfile.TemporaryDirectory(prefix="lattivo-bench-") as folder:
        bench = WindowBench(options, folder)
        try:
            with virtual_display(bench.client_core) as display:
                bench.environment.update(DISPLAY=display, QT_QPA_PLATFORM="xcb")
                results = measure(bench, options.wanted)
        except (MeasurementFailed, FileNotFoundError) as error:
            return progress.fail(error)
    progress.end()
    report(bench, *results)
    rows = [result for table in results for result in table]
    if options.json:
        result = {"rows": rows, "runs": bench.runs, "disturbed_runs": bench.disturbed_runs}
        options.json.write_text(json.dumps(result, indent=2, ensure_ascii=False) + "\n")
    return 1 if any(result["reached"] is False for result in rows) else 0


if __name__ == "__main__":
    sys.exit(main())
