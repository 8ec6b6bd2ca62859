#!/usr/bin/env python3
"""Measures the program with its window shown, on a virtual display, and compares it with lattivo-headless.

Window and headless simulator take turns under the same load client; the display's server shares the client's core.
What no client can see is measured inside the process or, for the drag, by a pointer that a program moves on the
display. From times of the process itself we take away what it waits while other programs have its core.
The exit code is 0 when every target is reached, 1 when one is missed and 2 when something could not be measured.
"""

from __future__ import annotations

import statistics
import subprocess
import sys
import time
from concurrent.futures import ThreadPoolExecutor
from typing import Sequence

from measuring.lab import bench, makesimulation
from measuring.lab.bench import Bench, Contender, Workload, workload_rows
from measuring.lab.launcher import START_PATIENCE, Figures, MeasurementFailed, Server, pinned, processor_wait
from measuring.lab.remotecontrol import RemoteControl
from measuring.lab.rows import Row, ratio_row, single_row

SCREEN = "1920x1080x24"
WORKLOADS = [
    Workload("small", "S=64 W=64, one pair", speed_target=0.8),
    Workload("follow", "S=64 W=64, window captures and follows", captures=True, speed_target=0.6),
    Workload("latency", "S=64 W=1, latency", window=1, latency_target=2.0),
]

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
CAPTURED_FRAMES = 1_000_000
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

    def __init__(self, lab: Bench, file: str | None = None, captures: bool = False, fills_screen: bool = False) -> None:
        command = [lab.options.window_server, bench.SEED]
        super().__init__(command, lab.folder / "server.log", lab.server_core, lab.environment, MEASURE_PATIENCE)
        self.do("open", **({"file": file} if file else {}))
        self.do("capture", enabled=captures, follows=captures)
        self.do("show", fills_screen=fills_screen)


class WindowBench(Bench):
    """Lets window and headless simulator, which captures nothing, take turns."""

    def contenders(self, workload: Workload) -> list[Contender]:
        return [self.window, self.without]

    def window(self, workload: Workload, arguments: Sequence[str]) -> Figures:
        file = self.simulation_file(workload.simulation())
        return self.measure(lambda: Window(self, file, workload.captures), workload, arguments)

    def without(self, workload: Workload, arguments: Sequence[str]) -> Figures:
        return self.measure(lambda: self.headless(workload, captures=False), workload, arguments)

    def files(self) -> Figures:
        saved = self.folder / "saved.ltvo"
        saved.unlink(missing_ok=True)
        simulation = makesimulation.Simulation(pairs=LARGE_PAIRS, ring_steps=(1,))
        window = Window(self)
        with window:
            return window.do("measure_files", file=self.simulation_file(simulation), saved=str(saved))

    def capture(self) -> Figures:
        window = Window(self, captures=True)
        with window:
            return window.do("measure_capture", frames=CAPTURED_FRAMES)

    def drag(self) -> list[float]:
        """Return the time from each move of the pointer to the picture that shows it, in ms."""
        simulation = makesimulation.Simulation(
            pairs=DRAG_PAIRS, ring_steps=DRAG_RING_STEPS, delay=DRAG_DELAY, layout=DRAG_LAYOUT
        )
        file = self.simulation_file(simulation)
        window = Window(self, file, fills_screen=True)
        with window, ThreadPoolExecutor() as others:
            place = window.do("watch", node=DRAG_NODE)
            traffic = others.submit(self._send_for_drag, window)
            time.sleep(DRAG_WARM_UP)
            moves = self._move_pointer(place["x"], place["y"], window.process.pid)
            traffic.result()
            pictures = window.do("pictures")["pictures"]
        return [answer_time(move, pictures) for move in moves]

    def _send_for_drag(self, window: Server) -> None:
        """Let half of the nodes send all the time."""
        arguments = Workload("drag", "", pairs=DRAG_PAIRS, delay=DRAG_DELAY, rate=DRAG_RATE).client_arguments()
        seconds = DRAG_WARM_UP + DRAG_MOVES * DRAG_PAUSE + DRAG_PATIENCE
        figures, disturbed = self.load(self.options.client, window, [*arguments, "--duration", str(seconds)])
        self.note_disturbance(figures, disturbed)
        if figures["frames_per_second"] < 0.9 * DRAG_RATE:
            raise MeasurementFailed(f"only {figures['frames_per_second']:.0f} frames/s were sent during the drag")

    def _move_pointer(self, left: int, top: int, pid: int) -> list[tuple[int, int, int]]:
        """Drag to the right; return the time of each move (ns), the process's waiting so far, and the place."""
        pointer = subprocess.Popen(
            pinned(["xdotool", "-"], self.client_core), stdin=subprocess.PIPE, text=True, env=self.environment
        )
        assert pointer.stdin
        moves = []

        def command(text: str) -> None:
            print(text, file=pointer.stdin, flush=True)
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


def answer_time(move: tuple[int, int, int], pictures: Sequence[Sequence[int]]) -> float:
    """Return the ms until a picture shows the move. The pointer goes to the right: one further on shows it too."""
    begin, wait_before, left = move
    for end, wait, picture_left in pictures:
        if end > begin and picture_left >= left:
            return (end - begin - (wait - wait_before)) / 1e6
    raise MeasurementFailed(f"no picture shows the node at {left}")


def p95(values: Sequence[float]) -> float:
    return statistics.quantiles(values, n=100, method="inclusive")[94]


class Display(Server):
    """A virtual display; its number stands in the place of a port."""

    def __init__(self, lab: Bench) -> None:
        command = ["Xvfb", "-displayfd", "1", "-screen", "0", SCREEN, "-nolisten", "tcp"]
        super().__init__(command, lab.folder / "display.log", lab.client_core)

    def _read_port(self) -> int:
        number = self._read_line(START_PATIENCE)
        if not number:
            raise MeasurementFailed(f"the virtual display does not start: {self._last_words()}")
        return int(number)


def drag_rows(lab: WindowBench) -> list[Row]:
    title = f"{2 * DRAG_PAIRS} nodes, {2 * DRAG_PAIRS * len(DRAG_RING_STEPS)} links with traffic: drag"
    answers = lab.rounds(title, lab.drag)
    return [
        single_row("alone", "drag", title, "p95 ms", [p95(times) for times in answers], DRAG_TARGET),
        single_row("alone", "drag", title, "median ms", [statistics.median(times) for times in answers]),
    ]


def capture_rows(lab: WindowBench) -> list[Row]:
    title = f"capture of {CAPTURED_FRAMES:,} frames"
    results = lab.rounds(title, lab.capture)
    many, few, memory = [
        [result[name] for result in results] for name in ("many_rows_us", "few_rows_us", "bytes_per_frame")
    ]
    pages = [p95(result["page_ms"]) for result in results]
    return [
        ratio_row("growth", "capture", f"{title} : 1,000", "CPU µs/frame", many, few, GROWTH_TARGET),
        single_row("alone", "capture", f"{title}: a page", "p95 ms", pages, PAGE_TARGET),
        single_row("alone", "capture", f"{title}: memory", "bytes/frame", memory, MEMORY_TARGET),
    ]


def file_rows(lab: WindowBench) -> list[Row]:
    title = f"{2 * LARGE_PAIRS:,} nodes and links"
    results = lab.rounds(title, lab.files)
    load = [result["load_ms"] + result["first_picture_ms"] for result in results]
    save = [result["save_ms"] for result in results]
    deletions = [p95(result["delete_ms"]) for result in results]
    return [
        single_row("alone", "files", f"{title}: open, until seen", "ms", load, LOAD_TARGET),
        single_row("alone", "files", f"{title}: save", "ms", save, SAVE_TARGET),
        single_row("alone", "files", f"{title}: delete a node", "p95 ms", deletions, DELETE_TARGET),
    ]


OTHERS = {"drag": drag_rows, "capture": capture_rows, "files": file_rows}


def measure(lab: WindowBench) -> list[Row]:
    wanted = lab.options.wanted
    with Display(lab) as display:
        lab.environment.update(DISPLAY=f":{display.port}", QT_QPA_PLATFORM="xcb")
        workloads = [workload for workload in WORKLOADS if workload.key in wanted]
        runs = lab.in_turns(workloads)
        rows = [row for each in workloads for row in workload_rows("headless", each, *runs[each.key])]
        return rows + [row for key, measured in OTHERS.items() if key in wanted for row in measured(lab)]


def main() -> int:
    parser = bench.options_parser(__doc__.splitlines()[0], [*(workload.key for workload in WORKLOADS), *OTHERS])
    programs = {"client": "lattivo_loadclient", "window_server": "lattivo_windowserver", "program": "lattivo-headless"}
    options = bench.read_options(parser, "scripts/bench.sh --window", **programs)
    return bench.run_bench(WindowBench, options, measure)


if __name__ == "__main__":
    sys.exit(main())
