#!/usr/bin/python3
"""Measure whether links do what they are set to, and write the document that says so.

Runs the headless simulator on one processor core and real clients on another. The exit code is 0 when every row holds,
1 when one fails and 2 when something could not be measured.
"""

from __future__ import annotations

import argparse
import pickle
import sys
import tempfile
from dataclasses import dataclass, field, replace
from pathlib import Path
from typing import Sequence

import lattivo
import numpy

from measuring.fidelity import analysis, cases, fidelitydocument, measure, replay, tables
from measuring.fidelity.measure import MAXIMAL_TRANSFER_UNIT, SMALLEST_FRAME, Laboratory
from measuring.lab.launcher import TOP_FOLDER, MeasurementFailed, find_program, progress
from measuring.lab.makesimulation import LinkSettings

DETECTIONS = (0.0, 0.25, 0.5, 0.75, 1.0)
UNDECIDED_LINKS = (  # own and default delay and deviation; what has to be in effect
    ((0, 0), (20, 10), (20, 10)),
    ((-1, -1), (20, 10), (20, 10)),
    ((10, 0), (20, 10), (10, 10)),
    ((0, 3), (20, 10), (20, 3)),
    ((10, 3), (20, 10), (10, 3)),
)
IDLE_RATE, LOADED_RATE = 250, 20_000  # frames/s

Pair = tuple[int, int]  # delay and deviation in ms
Rows = dict[str, Sequence[tables.Row]]  # by the name of their table


@dataclass
class Effort:
    """How many frames each measurement gets, and which settings it takes."""

    frames: int = 1_000_000
    frames_of_large: int = 1_000_000  # of the largest size
    settled_bits: int = 200_000_000  # where nearly every frame is hit; the bits are what counts then
    deadline_frames: int = 1_000_000  # of all deadlines of a setting together
    idle_frames: int = 1_000
    loaded_frames: int = 40_000
    clock_frames: int = 600
    timing_tries: int = measure.TRIES
    reliabilities: Sequence[float] = (1.0, 0.9999, 0.999, 0.99, 0.9, 0.5, 0.0)
    sizes: Sequence[int] = (SMALLEST_FRAME, 64, 255, MAXIMAL_TRANSFER_UNIT)  # bytes
    detection_links: Sequence[tuple[float, int]] = ((0.9, 12), (0.99, 64), (0.999, 255))  # reliability and bytes
    delays: Sequence[int] = (0, 1, 10, 100, 1000)  # ms
    deviations: Sequence[int] = (0, 1, 2, 3, 10, 50)  # ms
    clock_links: Sequence[Pair] = ((10, 1), (10, 2), (10, 3), (10, 10), (10, 50), (1, 50))
    # In µs by percentile. What the machine does to a program shows in these figures too. Empty: neither they nor the
    # load are judged.
    punctuality: dict[int, int] = field(default_factory=lambda: {50: 500, 95: 1000})


SHORT = Effort(
    frames=100_000,
    frames_of_large=5_000,
    settled_bits=5_000_000,
    deadline_frames=20_000,
    idle_frames=100,
    loaded_frames=5_000,
    timing_tries=1,
    reliabilities=(1.0, 0.999, 0.9, 0.0),
    sizes=(SMALLEST_FRAME, 255, MAXIMAL_TRANSFER_UNIT),
    detection_links=((0.99, 64),),
    delays=(0, 10),
    deviations=(0, 3, 10),
    clock_links=(),
    punctuality={},
)


def corruption_row(
    kind: type[tables.CorruptionRow], laboratory: Laboratory, effort: Effort, link: tuple[float, int], detection: float
) -> tables.CorruptionRow:
    """Measure many frames where the rate needs them: while some frame may be expected to stay whole."""
    reliability, frame_bytes = link
    progress.begin(f"reliability {reliability:g}, {frame_bytes} bytes, detection {detection:g}")
    frames = effort.frames_of_large if frame_bytes == MAXIMAL_TRANSFER_UNIT else effort.frames
    if (1 - analysis.frame_error_rate(reliability, frame_bytes)) * frames < 1:
        frames = min(frames, effort.settled_bits // (frame_bytes * analysis.BITS_PER_BYTE))
    figures = measure.measure_corruption(laboratory, frames, frame_bytes, reliability, detection)
    return kind(reliability, frame_bytes, detection, figures)


def delay_row(laboratory: Laboratory, effort: Effort, own: Pair, defaults: Pair, effective: Pair) -> tables.DelayRow:
    """Measure deadlines from just below the shortest delay that can be drawn up to the longest."""
    delay, deviation = effective
    progress.begin(f"deadlines: delay {delay} ms, deviation {deviation} ms")
    shares = analysis.delay_shares(delay, deviation)
    deadlines = range(max(0, min(shares) - 1), max(shares) + 1)
    frames = effort.deadline_frames // len(deadlines)
    link, default_link = (LinkSettings(delay=settings[0], delay_deviation=settings[1]) for settings in (own, defaults))
    figures = measure.measure_deadlines(laboratory, frames, link, default_link, deadlines)
    drawn = replay.delays(figures["seed"], frames * len(deadlines), SMALLEST_FRAME, delay, deviation)
    replayed = [
        sum(value <= deadline for value in drawn[frames * place : frames * (place + 1)])
        for place, deadline in enumerate(deadlines)
    ]
    return tables.DelayRow(link, default_link, delay, deviation, deadlines, figures, replayed)


def punctuality_rows(laboratory: Laboratory, effort: Effort, round_trips: list[int]) -> list[tables.PunctualityRow]:
    """Add the round trips of the measuring itself to the list, in ns."""
    rows = []
    for delay, deviation in grid(effort):
        for rate, frames in ((IDLE_RATE, effort.idle_frames), (LOADED_RATE, effort.loaded_frames)):
            progress.begin(f"moment of delivery: delay {delay} ms, deviation {deviation} ms, {rate} frames/s")
            figures = measure.measure_timing(laboratory, effort.timing_tries, frames, delay, deviation, rate)
            sent, errors, earliest = (figures[name] for name in ("sent_ns", "errors_us", "earliest_us"))
            row = tables.PunctualityRow(delay, deviation, rate, sent, errors, earliest, effort.punctuality)
            rows.append(row)
            round_trips += figures["round_trips_ns"]
    return rows


def clock_row(laboratory: Laboratory, effort: Effort, delay: int, deviation: int) -> tables.ClockRow:
    progress.begin(f"clock: delay {delay} ms, deviation {deviation} ms")
    figures = measure.measure_timing(laboratory, effort.timing_tries, effort.clock_frames, delay, deviation, rate=0)
    readings = analysis.clock_readings(figures["sent_ns"], figures["arrived_ns"])
    return tables.ClockRow(delay, deviation, readings, figures["drawn_ms"], figures["timer_in_time"])


def grid(effort: Effort) -> list[Pair]:
    return [(delay, deviation) for delay in effort.delays for deviation in effort.deviations]


def drawn_rows(laboratory: Laboratory, effort: Effort) -> Rows:
    """Return what a seed settles: the same on any machine, however busy."""
    links = [(reliability, size) for reliability in effort.reliabilities for size in effort.sizes]
    settings = [(own, (0, 0), own) for own in grid(effort)]
    kinds = {
        "corruption": (tables.CorruptionRow, links, (0.0,)),
        "loss": (tables.CorruptionRow, links, (1.0,)),
        "detection": (tables.DetectionRow, effort.detection_links, DETECTIONS),
    }
    rows: Rows = {
        name: [corruption_row(kind, laboratory, effort, link, share) for link in links for share in detections]
        for name, (kind, links, detections) in kinds.items()
    }
    return {**rows, "delays": [delay_row(laboratory, effort, *each) for each in (*settings, *UNDECIDED_LINKS)]}


def timed_rows(laboratory: Laboratory, effort: Effort) -> tuple[Rows, numpy.ndarray]:
    """Return the other ones, and the round trips of the measuring in µs."""
    round_trips: list[int] = []
    rows: Rows = {
        "cases": [tables.CaseRow(case, cases.measure_case(laboratory, case)) for case in cases.cases(laboratory.seed)],
        "punctuality": punctuality_rows(laboratory, effort, round_trips),
        "clock": [clock_row(laboratory, effort, *link) for link in effort.clock_links],
    }
    rows["order"] = [tables.OrderRow(laboratory.counts)]
    return rows, numpy.array(round_trips) / 1e3


@dataclass
class Kept:
    """What a run leaves for a later one that measures only the times which others have disturbed."""

    program: str  # its digest
    rows: Rows  # that a seed settles
    counts: measure.Counts  # until then
    timings: dict[int, measure.Timing]  # the laboratory's own, to which it goes on adding

    def save(self, file: Path) -> None:
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_bytes(pickle.dumps(self))


def new_kept(laboratory: Laboratory, effort: Effort) -> Kept:
    rows = drawn_rows(laboratory, effort)
    return Kept(laboratory.program_digest(), rows, replace(laboratory.counts), laboratory.timings)


def kept_before(laboratory: Laboratory, file: Path) -> Kept:
    """Return what an earlier run has left; the laboratory goes on where that run ended."""
    try:
        kept: Kept = pickle.loads(file.read_bytes())
    except FileNotFoundError:
        raise MeasurementFailed(f"no earlier run has left {file}") from None
    if kept.program != laboratory.program_digest():
        raise MeasurementFailed(f"{file} is of another build of the simulator")
    laboratory.counts, laboratory.timings = replace(kept.counts), kept.timings
    return kept


def measure_all(laboratory: Laboratory, options: argparse.Namespace) -> tuple[Rows, numpy.ndarray]:
    """Return all rows, and the round trips of the measuring in µs."""
    effort = SHORT if options.short else Effort()
    file = options.build_dir.parent / "fidelity" / f"seed-{options.seed}.pickle"
    kept = kept_before(laboratory, file) if options.times else new_kept(laboratory, effort)
    try:
        timed, round_trips = timed_rows(laboratory, effort)
    finally:
        if not options.short:
            kept.save(file)
    return {**kept.rows, **timed}, round_trips


def parse_options() -> argparse.Namespace:
    parser = argparse.ArgumentParser(description=(__doc__ or "").splitlines()[0])
    parser.add_argument("--build-dir", type=Path, default=TOP_FOLDER / "build" / "release")
    parser.add_argument("--output", type=Path, help="folder of the document (build/fidelity; of --short: none)")
    parser.add_argument("--seed", type=int, default=1, help="of the simulator's random numbers (1)")
    parser.add_argument("--short", action="store_true", help="a part of the settings, fewer frames, no limits of time")
    parser.add_argument("--times", action="store_true", help="only times that were disturbed in the last run")
    options = parser.parse_args()
    if options.short and options.times:
        parser.error("--times goes on from a long run")
    options.programs = [
        find_program(options.build_dir, name) for name in ("lattivo-headless", "lattivo_fidelityclient")
    ]
    if None in options.programs:
        parser.error(f"not everything is built in {options.build_dir}; scripts/fidelity.sh builds it")
    if options.output is None and not options.short:
        options.output = TOP_FOLDER / "build" / "fidelity"
    return options


def main() -> int:
    options = parse_options()
    program, client = options.programs
    with tempfile.TemporaryDirectory(prefix="lattivo-fidelity-") as folder:
        laboratory = Laboratory(program, client, folder, options.seed)
        try:
            rows, round_trips = measure_all(laboratory, options)
        except (MeasurementFailed, lattivo.LattivoError, OSError) as error:
            return progress.fail(error)
    progress.end()
    quiet = (laboratory.repeated, laboratory.disturbed, laboratory.most_runs)
    result = fidelitydocument.Result(rows, round_trips, options.seed, *quiet)
    if options.output:
        fidelitydocument.write(result, options.output)
    print(fidelitydocument.summary(result))
    return 1 if result.failed() else 0


if __name__ == "__main__":
    sys.exit(main())
