#!/usr/bin/python3
"""Measures whether links do what they are set to, and writes the document that says so.

Runs the headless simulator on one processor core and real clients on another. The exit code is 0 when every row holds,
1 when one fails and 2 when something could not be measured.
"""

from __future__ import annotations

import argparse
import pathlib
import pickle
import sys
import tempfile
from dataclasses import dataclass, field

import lattivo
import numpy

from measuring.fidelity import analysis, cases, fidelitydocument, measure, replay, tables
from measuring.fidelity.measure import SMALLEST_FRAME
from measuring.lab.launcher import TOP_FOLDER, MeasurementFailed, find_program, progress
from measuring.lab.makesimulation import LinkSettings

RELIABILITIES = (1.0, 0.9999, 0.999, 0.99, 0.9, 0.5, 0.0)
SIZES = (12, 64, 255, 1500)  # bytes
DETECTIONS = (0.0, 0.25, 0.5, 0.75, 1.0)
DETECTION_LINKS = ((0.9, 12), (0.99, 64), (0.999, 255))  # reliability and bytes
DELAYS = (0, 1, 10, 100, 1000)  # ms
DEVIATIONS = (0, 1, 2, 3, 10, 50)  # ms
UNDECIDED_LINKS = (  # own and default delay and deviation; what has to be in effect
    ((0, 0), (20, 10), (20, 10)),
    ((-1, -1), (20, 10), (20, 10)),
    ((10, 0), (20, 10), (10, 10)),
    ((0, 3), (20, 10), (20, 3)),
    ((10, 3), (20, 10), (10, 3)),
)
CLOCK_LINKS = ((10, 1), (10, 2), (10, 3), (10, 10), (10, 50), (1, 50))  # delay and deviation
IDLE_RATE, LOADED_RATE = 250, 20_000  # frames/s


@dataclass
class Effort:
    """How many frames each measurement gets, and which settings are left out."""

    frames: int = 1_000_000
    frames_of_large: int = 1_000_000  # of the largest size
    settled_bits: int = 200_000_000  # where nearly every frame is hit; the bits are what counts then
    deadline_frames: int = 1_000_000  # of all deadlines of a setting together
    idle_frames: int = 1_000
    loaded_frames: int = 40_000
    clock_frames: int = 600
    timing_tries: int = measure.TRIES
    reliabilities: tuple = RELIABILITIES
    sizes: tuple = SIZES
    detection_links: tuple = DETECTION_LINKS
    delays: tuple = DELAYS
    deviations: tuple = DEVIATIONS
    clock_links: tuple = CLOCK_LINKS
    # In µs by percentile. What the machine does to a program shows in these figures too. Empty: neither they nor the
    # load are judged.
    punctuality: dict = field(default_factory=lambda: {50: 500, 95: 1000})


SHORT = Effort(
    frames=100_000,
    frames_of_large=5_000,
    settled_bits=5_000_000,
    deadline_frames=20_000,
    idle_frames=100,
    loaded_frames=5_000,
    timing_tries=1,
    reliabilities=(1.0, 0.999, 0.9, 0.0),
    sizes=(12, 255, 1500),
    detection_links=((0.99, 64),),
    delays=(0, 10),
    deviations=(0, 3, 10),
    clock_links=(),
    punctuality={},
)


def corruption_frames(effort, reliability, frame_bytes):
    """Many where the rate needs them, that is while some frame may be expected to stay whole."""
    frames = effort.frames_of_large if frame_bytes == max(SIZES) else effort.frames
    if (1 - analysis.frame_error_rate(reliability, frame_bytes)) * frames < 1:
        return min(frames, effort.settled_bits // (frame_bytes * analysis.BITS_PER_BYTE))
    return frames


def corruption_rows(laboratory, effort, detection):
    rows = []
    for reliability in effort.reliabilities:
        for frame_bytes in effort.sizes:
            progress.begin(f"reliability {reliability:g}, {frame_bytes} bytes, detection {detection:g}")
            frames = corruption_frames(effort, reliability, frame_bytes)
            figures = measure.measure_corruption(laboratory, frames, frame_bytes, reliability, detection)
            rows.append(tables.CorruptionRow(reliability, frame_bytes, detection, figures))
    return rows


def detection_rows(laboratory, effort):
    rows = []
    for reliability, frame_bytes in effort.detection_links:
        for detection in DETECTIONS:
            progress.begin(f"detection {detection:g}, reliability {reliability:g}, {frame_bytes} bytes")
            figures = measure.measure_corruption(laboratory, effort.frames, frame_bytes, reliability, detection)
            rows.append(tables.DetectionRow(reliability, frame_bytes, detection, figures))
    return rows


def deadlines_around(delay, deviation):
    """From just below the shortest delay that can be drawn up to the longest, in ms."""
    shares = analysis.delay_shares(delay, deviation)
    return list(range(max(0, min(shares) - 1), max(shares) + 1))


def delay_row(laboratory, effort, own, defaults, effective):
    delay, deviation = effective
    progress.begin(f"deadlines: delay {delay} ms, deviation {deviation} ms")
    deadlines = deadlines_around(delay, deviation)
    frames = effort.deadline_frames // len(deadlines)
    link, default_link = (LinkSettings(delay=settings[0], delay_deviation=settings[1]) for settings in (own, defaults))
    figures = measure.measure_deadlines(laboratory, frames, SMALLEST_FRAME, link, default_link, deadlines)
    drawn = replay.delays(figures["seed"], frames * len(deadlines), SMALLEST_FRAME, delay, deviation)
    replayed = [
        sum(value <= deadline for value in drawn[frames * place : frames * (place + 1)])
        for place, deadline in enumerate(deadlines)
    ]
    return tables.DelayRow(link, default_link, delay, deviation, deadlines, figures, replayed)


def delay_rows(laboratory, effort):
    nothing = (0, 0)
    grid = [(delay, deviation) for delay in effort.delays for deviation in effort.deviations]
    rows = [delay_row(laboratory, effort, settings, nothing, settings) for settings in grid]
    return rows + [delay_row(laboratory, effort, *settings) for settings in UNDECIDED_LINKS]


def case_rows(laboratory):
    rows = []
    for case in cases.cases(laboratory.seed):
        rows.append(tables.CaseRow(case, cases.measure_case(laboratory, case)))
    return rows


def punctuality_rows(laboratory, effort, round_trips):
    """The round trips of the measuring itself are added to the list."""
    rows = []
    for delay in effort.delays:
        for deviation in effort.deviations:
            for rate, frames in ((IDLE_RATE, effort.idle_frames), (LOADED_RATE, effort.loaded_frames)):
                progress.begin(f"moment of delivery: delay {delay} ms, deviation {deviation} ms, {rate} frames/s")
                figures = measure.measure_timing(
                    laboratory, effort.timing_tries, frames, SMALLEST_FRAME, delay, deviation, rate
                )
                of_frames = (figures[name] for name in ("sent_ns", "errors_us", "earliest_us"))
                rows.append(tables.PunctualityRow(delay, deviation, rate, *of_frames, effort.punctuality))
                round_trips += figures["round_trips_ns"]
    return rows


def clock_rows(laboratory, effort):
    rows = []
    for delay, deviation in effort.clock_links:
        progress.begin(f"clock: delay {delay} ms, deviation {deviation} ms")
        figures = measure.measure_timing(
            laboratory, effort.timing_tries, effort.clock_frames, SMALLEST_FRAME, delay, deviation, rate=0
        )
        readings = analysis.clock_readings(figures["sent_ns"], figures["arrived_ns"])
        rows.append(tables.ClockRow(delay, deviation, readings, figures["drawn_ms"], figures["timer_in_time"]))
    return rows


def drawn_rows(laboratory, effort):
    """What a seed settles, by the name of the table: the same on any machine, however busy."""
    return {
        "corruption": corruption_rows(laboratory, effort, detection=0.0),
        "loss": corruption_rows(laboratory, effort, detection=1.0),
        "detection": detection_rows(laboratory, effort),
        "delays": delay_rows(laboratory, effort),
    }


def timed_rows(laboratory, effort):
    """The other ones, and the round trips of the measuring in µs."""
    round_trips = []
    rows = {
        "cases": case_rows(laboratory),
        "punctuality": punctuality_rows(laboratory, effort, round_trips),
        "clock": clock_rows(laboratory, effort),
    }
    rows["order"] = [tables.OrderRow(laboratory.frames_sent, laboratory.frames_placed, laboratory.order_errors)]
    return rows, numpy.array(round_trips) / 1e3


@dataclass
class Kept:
    """What a run leaves for a later one that measures only the times which others have disturbed."""

    program: str  # its digest
    rows: dict  # that a seed settles
    counted: dict  # by the laboratory until then
    timings: dict  # measurements of time by seed; the laboratory's own, to which it goes on adding

    def save(self, file):
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_bytes(pickle.dumps(self))


def new_kept(laboratory, effort):
    rows = drawn_rows(laboratory, effort)
    return Kept(laboratory.program_digest(), rows, laboratory.counted(), laboratory.timings)


def kept_before(laboratory, file):
    """The laboratory goes on where that run ended."""
    try:
        kept = pickle.loads(file.read_bytes())
    except FileNotFoundError:
        raise MeasurementFailed(f"no earlier run has left {file}") from None
    if kept.program != laboratory.program_digest():
        raise MeasurementFailed(f"{file} is of another build of the simulator")
    laboratory.go_on_from(kept.counted, kept.timings)
    return kept


def measure_all(laboratory, options):
    """Rows by the name of their table, and the round trips of the measuring in µs."""
    effort = SHORT if options.short else Effort()
    file = options.build_dir.parent / "fidelity" / f"seed-{options.seed}.pickle"
    kept = kept_before(laboratory, file) if options.times else new_kept(laboratory, effort)
    try:
        timed, round_trips = timed_rows(laboratory, effort)
    finally:
        if not options.short:
            kept.save(file)
    return {**kept.rows, **timed}, round_trips


def parse_options():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build-dir", type=pathlib.Path, default=TOP_FOLDER / "build" / "release")
    parser.add_argument("--output", type=pathlib.Path, help="folder of the document (build/fidelity; of --short: none)")
    parser.add_argument("--seed", type=int, default=1, help="of the simulator's random numbers (1)")
    parser.add_argument("--short", action="store_true", help="a part of the settings, fewer frames, no limits of time")
    parser.add_argument("--times", action="store_true", help="only times that were disturbed in the last run")
    options = parser.parse_args()
    if options.short and options.times:
        parser.error("--times goes on from a long run")
    options.program = find_program(options.build_dir, "lattivo-headless")
    options.client = find_program(options.build_dir, "lattivo_fidelityclient")
    if None in (options.program, options.client):
        parser.error(f"not everything is built in {options.build_dir}; scripts/fidelity.sh builds it")
    if options.output is None and not options.short:
        options.output = TOP_FOLDER / "build" / "fidelity"
    return options


def main():
    options = parse_options()
    with tempfile.TemporaryDirectory(prefix="lattivo-fidelity-") as folder:
        laboratory = measure.Laboratory(options.program, options.client, folder, options.seed)
        try:
            rows, round_trips = measure_all(laboratory, options)
        except (MeasurementFailed, lattivo.LattivoError, OSError) as error:
            return progress.fail(error)
    progress.end()
    quiet = (laboratory.repeated, laboratory.disturbed, laboratory.most_runs())
    result = fidelitydocument.Result(rows, round_trips, options.seed, *quiet)
    if options.output:
        options.output.mkdir(parents=True, exist_ok=True)
        fidelitydocument.write(result, options.output)
    print(fidelitydocument.summary(result))
    return 1 if result.failed() else 0


if __name__ == "__main__":
    sys.exit(main())
