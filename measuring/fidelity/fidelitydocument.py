"""Write fidelity.md with its plots from the rows of a run."""

from __future__ import annotations

from dataclasses import dataclass
from pathlib import Path
from typing import Any, Sequence

import numpy

from measuring.fidelity import analysis, measure, plots, tables
from measuring.lab import disturbance, document

TEMPLATE = Path(__file__).with_name("fidelity.md.in")
PLOTTED_SPREAD = (0.99, 64)  # reliability and bytes
PLOTTED_FLIPS = (0.999, 255)
PLOTTED_DELAYS = ((10, 2), (10, 10), (10, 50))  # delay and deviation
PLOTTED_CLOCK = (10, 10)


@dataclass
class Result:
    """What a run has measured."""

    rows: dict[str, Sequence[tables.Row]]  # by table
    round_trips: numpy.ndarray  # µs, of the measuring itself
    seed: int
    repeated: int = 0  # measurements of time, because others disturbed them
    disturbed: int = 0  # those disturbed each time
    most_runs: int = 1  # of one of them

    def all_rows(self) -> list[tables.Row]:
        return [row for rows in self.rows.values() for row in rows]

    def tests(self) -> int:
        """Return how many leave something to chance; what is exact in any case takes no share of the significance."""
        return sum(not fit.is_exact for row in self.all_rows() for fit in row.fits())

    def threshold(self) -> float:
        return analysis.threshold(self.tests())

    def failed(self) -> list[tables.Row]:
        return [row for row in self.all_rows() if row.failures(self.threshold())]


def summary(result: Result) -> str:
    """Return counts, and the rows that fail in full."""
    rows, failed, threshold = result.all_rows(), result.failed(), result.threshold()
    frames = result.rows["order"][0].cells(threshold)["sent"]
    lines = [f"{len(rows) - len(failed)} of {len(rows)} rows hold ({result.tests()} tests, {frames} frames)"]
    for row in failed:
        cells = ", ".join(f"{name} {text}" for name, text in row.cells(threshold).items())
        lines.append(f"FAILS: {type(row).__name__}: {cells}: {', '.join(row.failures(threshold))}")
    return "\n".join(lines)


def write(result: Result, folder: Path) -> None:
    folder.mkdir(parents=True, exist_ok=True)
    trip_median, trip_most, trip_nearly_all = numpy.percentile(result.round_trips, (50, 95, 99))
    document.write(
        TEMPLATE,
        folder / "fidelity.md",
        **{name: tables.markdown(rows, result.threshold()) for name, rows in result.rows.items()},
        **write_plots(result, folder),
        verdict=overall(result),
        family=percent(analysis.SIGNIFICANCE),
        tests=result.tests(),
        threshold=f"{result.threshold():.2g}",
        coverage=f"{100 * (1 - result.threshold()):.4g}",
        seed=result.seed,
        all_frames=result.rows["order"][0].cells(result.threshold())["sent"],
        load=percent(tables.NEEDED_LOAD),
        machine=document.processors(),
        timings=len(result.rows["punctuality"]) + len(result.rows["clock"]),
        repeated=result.repeated,
        disturbed=result.disturbed,
        most=result.most_runs,
        tries=measure.TRIES,
        lone_stolen=percent(measure.LONE.stolen),
        lone_waited=percent(measure.LONE.waited),
        lone_late=percent(measure.LONE.late or 0.0),
        timer_interval=f"{disturbance.TIMER_INTERVAL * 1e3:g}",
        late_wake_up=f"{disturbance.LATE_WAKE_UP * 1e6:g}",
        stolen=percent(disturbance.USUAL.stolen),
        waited=percent(disturbance.USUAL.waited),
        trip_median=f"{trip_median:,.0f}",
        trip_most=f"{trip_most:,.0f}",
        trip_nearly_all=f"{trip_nearly_all:,.0f}",
    )


def percent(share: float) -> str:
    return f"{100 * share:.3g} %"


def overall(result: Result) -> str:
    failed, rows = len(result.failed()), len(result.all_rows())
    if not failed:
        return f"All {rows} rows of the tables below hold."
    return f"**{failed} of the {rows} rows of the tables below fail**; their last column says why."


def write_plots(result: Result, folder: Path) -> dict[str, str]:
    """Return lines of the document by name; empty where a run has nothing to plot."""
    corruption, delays, clock = (result.rows[name] for name in ("corruption", "delays", "clock"))
    delay_settings = ("delay", "deviation")
    corruption_settings = ("reliability", "frame_bytes")
    shown_delays = [row for wanted in PLOTTED_DELAYS for row in find(delays, delay_settings, wanted)[:1]]
    wanted: tuple[tuple[str, Any, Sequence[tables.Row], str], ...] = (
        ("rates", plots.frame_error_rates, corruption, "Frame error rate, set and measured"),
        (
            "flips",
            plots.flips_per_frame,
            find(corruption, corruption_settings, PLOTTED_FLIPS),
            "Flipped bits in a frame",
        ),
        ("spread", plots.flips_by_bit, find(corruption, corruption_settings, PLOTTED_SPREAD), "Flips of each bit"),
        ("delays", plots.delays_in_time, shown_delays, "Share of frames in time by deadline"),
        ("clock", plots.clock_delays, find(clock, delay_settings, PLOTTED_CLOCK), "Delays by the clock"),
        ("errors", plots.delivery_errors, result.rows["punctuality"], "Delivery after the drawn delay"),
    )
    lines = {}
    for name, draw, rows, title in wanted:
        file = f"fidelity-{name}.svg"
        lines[f"plot_{name}"] = f"![{title}]({file})" if rows else ""
        if rows:
            draw(rows, result.threshold()).write(folder / file)
    return lines


def find(rows: Sequence[tables.Row], names: Sequence[str], wanted: tuple[float, float]) -> list[tables.Row]:
    """Return the rows with these settings."""
    return [row for row in rows if tuple(getattr(row, name) for name in names) == wanted]
