"""Runs the simulator with one simulation after the other, and the client that measures it."""

from __future__ import annotations

import dataclasses
import hashlib
import pathlib
import random

import numpy

from measuring.fidelity import analysis, replay
from measuring.lab import disturbance
from measuring.lab.launcher import Launcher
from measuring.lab.makesimulation import CHECKED, LinkSettings, NodeSettings, Simulation

MAXIMAL_TRANSFER_UNIT = 1500  # bytes, of every simulation
SMALLEST_FRAME = 12  # bytes; the fewest draws between two delays
PATIENCE = 600  # s, for one measurement
LONE_RATE = 1000  # frames/s; below it the simulator has gone to sleep when the next frame comes
LONE = disturbance.Disturbance(stolen=0.001, waited=0.001, late=0.002)  # more is too much where single frames count
TRIES = 3  # at most, in one run, of a measurement of time that others disturb
TOGETHER = {"runs": sum, "order_errors": sum, "earliest_us": min}  # what figures of all runs of a measurement contain
COUNTED = ("measurements", "frames_sent", "frames_placed", "order_errors")  # of a laboratory
CONFIRMING = NodeSettings(confirms=CHECKED)  # what is lost is reported at once


def together(runs):
    """Of the figures of all runs of a measurement."""
    return {name: combine(run[name] for run in runs) for name, combine in TOGETHER.items()}


class Laboratory(Launcher):
    """Knows its programs, draws their seeds and counts what came of all measurements."""

    def __init__(self, program, client, folder, seed):
        super().__init__(folder)
        self.program = str(program)
        self.client = str(client)
        self.seed = seed
        self.measurements = 0
        self.frames_sent = 0  # of all measurements
        self.frames_placed = 0  # likewise: arrived, and their place could be told
        self.order_errors = 0  # likewise
        self.repeated = 0  # measurements of time that had to be made again
        self.disturbed = 0  # those that were disturbed each time
        self.timings = {}  # figures and disturbance of the measurements of time, by seed

    def program_digest(self):
        return hashlib.sha256(pathlib.Path(self.program).read_bytes()).hexdigest()

    def next_seed(self):
        """Another one for each measurement, or those of one setting would all have the same luck."""
        self.measurements += 1
        return random.Random(f"{self.seed}, {self.measurements}").randrange(1, replay.MODULUS)

    def count(self, sent, placed, order_errors):
        self.frames_sent += sent
        self.frames_placed += placed
        self.order_errors += order_errors

    def most_runs(self):
        """Of one measurement of time."""
        return max((figures["runs"] for figures, _ in self.timings.values()), default=0)

    def counted(self):
        """For go_on_from() of another one of the same seed."""
        return {name: getattr(self, name) for name in COUNTED}

    def go_on_from(self, counted, timings):
        for name in COUNTED:
            setattr(self, name, counted[name])
        self.timings = timings

    def simulator(self, simulation, seed):
        options = ["--listen", "0", "--identify-by", "address", "--seed", str(seed)]
        return self.server([self.program, self.simulation_file(simulation), *options])

    def measure(self, simulation, what, **options):
        """Figures of the client, with the seed."""
        return self.run_once(self.next_seed(), simulation, what, options)[0]

    def measure_quietly(self, limits, tries, run):
        """Figures of the least disturbed run, whatever came out of it.

        `run` takes a seed, the same each time, and returns figures and disturbance; it is made until others do not disturb
        it. One that was kept from before counts as made. What no disturbance excuses, and how many runs there were, is
        that of all of them.
        """
        seed = self.next_seed()
        figures, disturbed, others = disturbance.quietest(tries, lambda: run(seed), limits, self.timings.get(seed))
        figures = {**figures, **together([figures, *others])}
        self.timings[seed] = figures, disturbed
        self.repeated += figures["runs"] > 1
        self.disturbed += disturbed.exceeds(limits)
        return figures

    def run_once(self, seed, simulation, what, options):
        """Figures of the client, with the seed, and the disturbance."""
        arguments = [text for name, value in options.items() for text in (f"--{name}", str(value))]
        with self.simulator(simulation, seed) as server:
            watch = disturbance.ProcessorWatch((self.client_core, self.server_core))
            command = [self.client, what, "--port", str(server.port), "--seed", str(seed), *arguments]
            figures = self.run(command, self.client_core, PATIENCE)
            waited = server.waited()
        return {**figures, "seed": seed}, watch.disturbance(waited + figures.get("waited_ns", 0) / 1e9)

    def run_beside_timer(self, *what):
        """Likewise, and how well a plain timer on the simulator's core does meanwhile."""
        with disturbance.TimerWatch(self.server_core) as timer:
            figures, disturbed = self.run_once(*what)
        return {**figures, "timer_in_time": 1 - timer.late()}, dataclasses.replace(disturbed, late=timer.late())


def measure_corruption(laboratory, frames, frame_bytes, reliability, detection, claimed_reliability=None):
    """The client can be told of another reliability than the link has, which is for testing the test."""
    simulation = Simulation(
        confirms=True,
        confirmation_timeout=0,
        maximal_transfer_unit=MAXIMAL_TRANSFER_UNIT,
        reliability=reliability,
        detection=detection,
    )
    figures = laboratory.measure(
        simulation,
        "corruption",
        frames=frames,
        size=frame_bytes,
        reliability=reliability if claimed_reliability is None else claimed_reliability,
        detection=detection,
    )
    placed = figures["intact"] if detection > 0 else figures["received"]
    laboratory.count(figures["sent"], placed, figures["order_errors"])
    return figures


def measure_deadlines(laboratory, frames, frame_bytes, link, defaults, deadlines):
    """A pair of nodes for each deadline, all links alike."""
    pairs = len(deadlines)
    own_nodes = {2 * pair + 1: CONFIRMING for pair in range(pairs)}
    own_nodes[2 * pairs] = CONFIRMING
    for pair, deadline in enumerate(deadlines):
        own_nodes[2 * pair] = NodeSettings(confirms=CHECKED, confirmation_timeout=deadline)
    simulation = Simulation(
        pairs=pairs,
        single_nodes=1,
        maximal_transfer_unit=MAXIMAL_TRANSFER_UNIT,
        delay=defaults.delay,
        delay_deviation=defaults.delay_deviation,
        own_nodes=own_nodes,
        own_links={pair: link for pair in range(pairs)},
    )
    figures = laboratory.measure(simulation, "deadlines", frames=frames, size=frame_bytes, pairs=pairs)
    laboratory.count(*(sum(figures[name]) for name in ("sent", "received", "order_errors")))
    return figures


def measure_timing(laboratory, tries, frames, frame_bytes, delay, deviation, rate):
    """At a rate of 0 the next frame goes when the last one has arrived."""
    simulation = Simulation(
        pairs=1,
        single_nodes=1,
        maximal_transfer_unit=MAXIMAL_TRANSFER_UNIT,
        own_nodes={1: CONFIRMING, 2: CONFIRMING},
        own_links={0: LinkSettings(delay=delay, delay_deviation=deviation)},
    )
    options = {"frames": frames, "size": frame_bytes, "rate": rate}
    is_lone = rate <= LONE_RATE
    run_once = laboratory.run_beside_timer if is_lone else laboratory.run_once

    def run(seed):
        figures, disturbed = run_once(seed, simulation, "timing", options)
        sent, arrived = (numpy.array(figures[name]) for name in ("sent_ns", "arrived_ns"))
        drawn = numpy.array(replay.delays(seed, frames, frame_bytes, delay, deviation))
        errors = analysis.delivery_errors(sent, arrived, drawn)
        found = {"sent_ns": sent, "arrived_ns": arrived, "drawn_ms": drawn, "errors_us": errors}
        return {**figures, **found, "earliest_us": errors.min(), "runs": 1}, disturbed

    figures = laboratory.measure_quietly(LONE if is_lone else disturbance.USUAL, tries, run)
    laboratory.count(len(figures["sent_ns"]), len(figures["arrived_ns"]), figures["order_errors"])
    return figures
