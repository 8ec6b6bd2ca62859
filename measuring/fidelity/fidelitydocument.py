"""Writes fidelity.md with its plots from the rows of a run."""

from __future__ import annotations

import pathlib
from dataclasses import dataclass

import numpy

from measuring.fidelity import analysis, measure, plots, tables
from measuring.lab import document

TEMPLATE = pathlib.Path(__file__).with_name("fidelity.md.in")
PLOTTED_SPREAD = (0.99, 64)  # reliability and bytes
PLOTTED_FLIPS = (0.999, 255)
PLOTTED_DELAYS = ((10, 2), (10, 10), (10, 50))  # delay and deviation
PLOTTED_CLOCK = (10, 10)


@dataclass
class Result:
    rows: dict  # lists of rows by table
    round_trips: numpy.ndarray  # µs, of the measuring itself
    seed: int
    repeated: int = 0  # measurements of time, because others disturbed them
    disturbed: int = 0  # those disturbed each time
    most_runs: int = 1  # of one of them

    def all_rows(self):
        return [row for rows in self.rows.values() for row in rows]

    def tests(self):
        """How many leave something to chance; what is exact in any case takes no share of the significance."""
        return sum(not fit.is_exact for row in self.all_rows() for fit in row.fits())

    def threshold(self):
        return analysis.threshold(self.tests())

    def failed(self):
        return [row for row in self.all_rows() if tables.failures(row, self.threshold())]


def summary(result):
    """Counts, and the rows that fail in full."""
    rows, failed = result.all_rows(), result.failed()
    frames = result.rows["order"][0].sent
    lines = [f"{len(rows) - len(failed)} of {len(rows)} rows hold ({result.tests()} tests, {frames:,} frames)"]
    threshold = result.threshold()
    for row in failed:
        cells = ", ".join(f"{name} {text}" for name, text in row.cells(threshold).items())
        lines.append(f"FAILS: {type(row).__name__}: {cells}: {', '.join(tables.failures(row, threshold))}")
    return "\n".join(lines)


def write(result, folder):
    texts = {name: tables.markdown(rows, result.threshold()) for name, rows in result.rows.items()}
    pictures = write_plots(result, folder)
    document.write(
        TEMPLATE,
        folder / "fidelity.md",
        **texts,
        **pictures,
        verdict=overall(result),
        family=percent(analysis.SIGNIFICANCE),
        tests=result.tests(),
        threshold=f"{result.threshold():.2g}",
        coverage=f"{100 * (1 - result.threshold()):.4g}",
        seed=result.seed,
        all_frames=f"{result.rows['order'][0].sent:,}",
        load=percent(tables.NEEDED_LOAD),
        machine=document.processors(),
        timings=len(result.rows["punctuality"]) + len(result.rows["clock"]),
        repeated=result.repeated,
        disturbed=result.disturbed,
        most=result.most_runs,
        tries=measure.TRIES,
        lone_stolen=percent(measure.LONE.stolen),
        lone_waited=percent(measure.LONE.waited),
        lone_late=percent(measure.LONE.late),
        timer_interval=f"{measure.disturbance.TIMER_INTERVAL * 1e3:g}",
        late_wake_up=f"{measure.disturbance.LATE_WAKE_UP * 1e6:g}",
        stolen=percent(measure.disturbance.USUAL.stolen),
        waited=percent(measure.disturbance.USUAL.waited),
        trip_median=f"{numpy.percentile(result.round_trips, 50):,.0f}",
        trip_most=f"{numpy.percentile(result.round_trips, 95):,.0f}",
        trip_nearly_all=f"{numpy.percentile(result.round_trips, 99):,.0f}",
    )


def percent(share):
    return f"{100 * share:.3g} %"


def overall(result):
    failed = result.failed()
    rows = len(result.all_rows())
    if not failed:
        return f"All {rows} rows of the tables below hold."
    return f"**{len(failed)} of the {rows} rows of the tables below fail**; their last column says why."


def write_plots(result, folder):
    """Lines of the document by name; empty where a run has nothing to plot."""
    rows = result.rows
    wanted = {
        "plot_rates": ("rates", rows["corruption"], "Frame error rate, set and measured"),
        "plot_flips": ("flips", find(rows["corruption"], "frame_bytes", PLOTTED_FLIPS), "Flipped bits in a frame"),
        "plot_spread": ("spread", find(rows["corruption"], "frame_bytes", PLOTTED_SPREAD), "Flips of each bit"),
        "plot_delays": (
            "delays",
            [row for pair in PLOTTED_DELAYS for row in find(rows["delays"], "deviation", pair)[:1]],
            "Share of frames in time by deadline",
        ),
        "plot_clock": ("clock", find(rows["clock"], "deviation", PLOTTED_CLOCK), "Delays by the clock"),
        "plot_errors": ("errors", rows["punctuality"], "Delivery after the drawn delay"),
    }
    return {name: write_plot(result, folder, *plot) for name, plot in wanted.items()}


def find(rows, second, wanted):
    first = "delay" if second == "deviation" else "reliability"
    return [row for row in rows if (getattr(row, first), getattr(row, second)) == wanted]


def write_plot(result, folder, name, rows, title):
    if not rows:
        return ""
    file = f"fidelity-{name}.svg"
    draw = {
        "rates": lambda path: plots.frame_error_rates(path, rows, result.threshold()),
        "flips": lambda path: plots.flips_per_frame(path, rows[0]),
        "spread": lambda path: plots.flips_by_bit(path, rows[0]),
        "delays": lambda path: plots.delays_in_time(path, rows),
        "clock": lambda path: plots.clock_delays(path, rows[0]),
        "errors": lambda path: plots.delivery_errors(path, rows),
    }
    draw[name](folder / file)
    return f"![{title}]({file})"
