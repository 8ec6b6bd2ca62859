"""What others take of the processors while something is measured."""

import os
import pathlib
import time
from dataclasses import dataclass


@dataclass
class Disturbance:
    """Shares of the time of a measurement."""

    stolen: float  # by the host of a virtual machine
    waited: float  # by other programs, from those that were measured

    def exceeds(self, limits):
        return self.stolen > limits.stolen or self.waited > limits.waited

    def total(self):
        return self.stolen + self.waited


USUAL = Disturbance(stolen=0.01, waited=0.05)  # more is too much for most measurements
MEANING = (
    f"other programs took a core for more than {USUAL.waited:.0%} of the time, "
    f"or the host for more than {USUAL.stolen:.0%}"
)


class ProcessorWatch:
    """From its making to disturbance()."""

    def __init__(self, cores):
        self.cores = {f"cpu{core}" for core in cores}
        self.begin = time.monotonic()
        self.stolen_before = self._stolen()

    def disturbance(self, waited):
        """`waited`: s, of the processes measured."""
        seconds = time.monotonic() - self.begin
        return Disturbance((self._stolen() - self.stolen_before) / seconds, waited / seconds)

    def _stolen(self):
        """From the cores so far, in s."""
        lines = [line.split() for line in pathlib.Path("/proc/stat").read_text(encoding="ascii").splitlines()]
        return sum(int(line[8]) for line in lines if line[0] in self.cores) / os.sysconf("SC_CLK_TCK")


def quietest(tries, run, limits=USUAL):
    """Runs `run`, which returns a result and its disturbance, again while it is disturbed, `tries` times at most.

    Returns the least disturbed result, whatever came out of it, its disturbance, and the results that do not count: what
    no disturbance excuses has to be looked for in them too.
    """
    runs = []
    while not runs or (runs[-1][1].exceeds(limits) and len(runs) < tries):
        runs.append(run())
    best = min(range(len(runs)), key=lambda index: runs[index][1].total())
    others = [result for index, (result, _) in enumerate(runs) if index != best]
    return *runs[best], others
