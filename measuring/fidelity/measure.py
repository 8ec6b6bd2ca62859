"""Run the simulator with one simulation after the other, and the client that measures it."""

from __future__ import annotations

import hashlib
import random
from contextlib import nullcontext
from dataclasses import dataclass, replace
from pathlib import Path
from typing import Callable, Mapping, Sequence

import numpy

from measuring.fidelity import analysis, replay
from measuring.lab import disturbance
from measuring.lab.disturbance import Disturbance
from measuring.lab.launcher import Figures, Launcher, Server
from measuring.lab.makesimulation import CHECKED, LinkSettings, NodeSettings, Simulation

MAXIMAL_TRANSFER_UNIT = 1500  # bytes, of every simulation
SMALLEST_FRAME = 12  # bytes; the fewest draws between two delays
PATIENCE = 600  # s, for one measurement
LONE_RATE = 1000  # frames/s; below it the simulator has gone to sleep when the next frame comes
LONE = Disturbance(stolen=0.001, waited=0.001, late=0.002)  # more is too much where single frames count
TRIES = 3  # at most, in one run, of a measurement of time that others disturb
CONFIRMING = NodeSettings(confirms=CHECKED)  # what is lost is reported at once

Timing = tuple[Figures, Disturbance]  # of a measurement of time


@dataclass
class Counts:
    """What came of all measurements of a laboratory."""

    measurements: int = 0
    sent: int = 0  # frames
    placed: int = 0  # likewise: arrived, and their place could be told
    order_errors: int = 0  # likewise


class Laboratory(Launcher):
    """Knows its programs, draws their seeds and counts what came of all measurements."""

    def __init__(self, program: str | Path, client: str | Path, folder: str | Path, seed: int) -> None:
        super().__init__(folder)
        self.program = str(program)
        self.client = str(client)
        self.seed = seed
        self.counts = Counts()
        self.repeated = 0  # measurements of time that had to be made again
        self.disturbed = 0  # those that were disturbed each time
        self.most_runs = 0  # of one of them
        self.timings: dict[int, Timing] = {}  # by seed

    def program_digest(self) -> str:
        return hashlib.sha256(Path(self.program).read_bytes()).hexdigest()

    def next_seed(self) -> int:
        """Return another one for each measurement, or those of one setting would all have the same luck."""
        self.counts.measurements += 1
        return random.Random(f"{self.seed}, {self.counts.measurements}").randrange(1, replay.MODULUS)

    def count(self, sent: int, placed: int, order_errors: int) -> None:
        self.counts.sent += sent
        self.counts.placed += placed
        self.counts.order_errors += order_errors

    def simulator(self, simulation: Simulation, seed: int) -> Server:
        options = ["--listen", "0", "--identify-by", "address", "--seed", str(seed)]
        return self.server([self.program, self.simulation_file(simulation), *options])

    def run_once(self, seed: int, simulation: Simulation, what: str, options: Mapping[str, object]) -> Timing:
        """Return figures of the client, with the seed, and the disturbance."""
        arguments = [text for name, value in options.items() for text in (f"--{name}", str(value))]
        with self.simulator(simulation, seed) as server:
            watch = disturbance.ProcessorWatch((self.client_core, self.server_core))
            command = [self.client, what, "--port", str(server.port), "--seed", str(seed), *arguments]
            figures = self.run(command, self.client_core, PATIENCE)
            waited = server.waited()
        return {**figures, "seed": seed}, watch.disturbance(waited + figures.get("waited_ns", 0) / 1e9)

    def measure_quietly(self, limits: Disturbance, tries: int, run: Callable[[int], Timing]) -> Figures:
        """Return figures of the least disturbed run, whatever came out of it.

        `run` takes a seed, the same each time; it is made until others do not disturb it. One that was kept from before
        counts as made. What no disturbance excuses, and how many runs there were, is that of all of them.
        """
        seed = self.next_seed()
        figures, disturbed, others = disturbance.quietest(tries, lambda: run(seed), limits, self.timings.get(seed))
        runs = [figures, *others]
        for name, combine in (("runs", sum), ("order_errors", sum), ("earliest_us", min)):
            figures = {**figures, name: combine(each[name] for each in runs)}
        self.timings[seed] = figures, disturbed
        self.most_runs = max(self.most_runs, figures["runs"])
        self.repeated += figures["runs"] > 1
        self.disturbed += disturbed.exceeds(limits)
        return figures


def measure_corruption(
    laboratory: Laboratory, frames: int, size: int, reliability: float, detection: float, claimed: float | None = None
) -> Figures:
    """Return the client's figures; it can be told of another reliability than the link has, to test the test."""
    settings = {"reliability": reliability, "detection": detection}
    simulation = Simulation(
        confirms=True, confirmation_timeout=0, maximal_transfer_unit=MAXIMAL_TRANSFER_UNIT, **settings
    )
    options = {"frames": frames, "size": size, **settings}
    if claimed is not None:
        options["reliability"] = claimed
    figures, _ = laboratory.run_once(laboratory.next_seed(), simulation, "corruption", options)
    placed = figures["intact"] if detection > 0 else figures["received"]
    laboratory.count(figures["sent"], placed, figures["order_errors"])
    return figures


def measure_deadlines(
    laboratory: Laboratory, frames: int, link: LinkSettings, defaults: LinkSettings, deadlines: Sequence[int]
) -> Figures:
    """Return lists of figures by deadline, with a pair of nodes for each; all links are alike."""
    pairs = len(deadlines)
    senders = {2 * pair: NodeSettings(CHECKED, deadline) for pair, deadline in enumerate(deadlines)}
    simulation = Simulation(
        pairs=pairs,
        single_nodes=1,
        maximal_transfer_unit=MAXIMAL_TRANSFER_UNIT,
        delay=defaults.delay,
        delay_deviation=defaults.delay_deviation,
        own_nodes={**{node: CONFIRMING for node in range(2 * pairs + 1)}, **senders},
        own_links={pair: link for pair in range(pairs)},
    )
    options = {"frames": frames, "size": SMALLEST_FRAME, "pairs": pairs}
    figures, _ = laboratory.run_once(laboratory.next_seed(), simulation, "deadlines", options)
    laboratory.count(*(sum(figures[name]) for name in ("sent", "received", "order_errors")))
    return figures


def measure_timing(laboratory: Laboratory, tries: int, frames: int, delay: int, deviation: int, rate: float) -> Figures:
    """Return times of sending and arriving; at a rate of 0 the next frame goes when the last one has arrived."""
    simulation = Simulation(
        single_nodes=1,
        maximal_transfer_unit=MAXIMAL_TRANSFER_UNIT,
        own_nodes={1: CONFIRMING, 2: CONFIRMING},
        own_links={0: LinkSettings(delay=delay, delay_deviation=deviation)},
    )
    options = {"frames": frames, "size": SMALLEST_FRAME, "rate": rate}
    is_lone = rate <= LONE_RATE

    def run(seed: int) -> Timing:
        with disturbance.TimerWatch(laboratory.server_core) if is_lone else nullcontext() as timer:
            figures, disturbed = laboratory.run_once(seed, simulation, "timing", options)
        if timer:  # says how a plain timer on the simulator's core does meanwhile
            disturbed = replace(disturbed, late=timer.late())
            figures["timer_in_time"] = 1 - timer.late()
        sent, arrived = (numpy.array(figures[name]) for name in ("sent_ns", "arrived_ns"))
        drawn = numpy.array(replay.delays(seed, frames, SMALLEST_FRAME, delay, deviation))
        errors = analysis.delivery_errors(sent, arrived, drawn)
        found = {"sent_ns": sent, "arrived_ns": arrived, "drawn_ms": drawn, "errors_us": errors}
        return {**figures, **found, "earliest_us": errors.min(), "runs": 1}, disturbed

    figures = laboratory.measure_quietly(LONE if is_lone else disturbance.USUAL, tries, run)
    laboratory.count(len(figures["sent_ns"]), len(figures["arrived_ns"]), figures["order_errors"])
    return figures
