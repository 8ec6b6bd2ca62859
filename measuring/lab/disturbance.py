"""What others take of the processors while something is measured."""

import os
import pathlib
import threading
import time
from dataclasses import dataclass

TIMER_INTERVAL = 0.005  # s
LATE_WAKE_UP = 0.0005  # s behind the end of the interval


@dataclass
class Disturbance:
    """Shares, from 0 to 1."""

    stolen: float  # of the time of a measurement, by the host of a virtual machine
    waited: float  # likewise, by other programs, from those that were measured
    late: float = None  # of a plain timer's wake-ups; None: no timer was set, or as a limit: any share will do

    def exceeds(self, limits):
        is_late = limits.late is not None and self.late > limits.late
        return self.stolen > limits.stolen or self.waited > limits.waited or is_late

    def total(self):
        return self.stolen + self.waited + (self.late or 0.0)


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


class TimerWatch(threading.Thread):
    """Sleeps on a core and looks how late it wakes up: so late is the machine itself, which steals more than it tells."""

    def __init__(self, core):
        super().__init__(daemon=True)
        self.core = core
        self.wake_ups = 0
        self.late_wake_ups = 0
        self.is_ending = False

    def __enter__(self):
        self.start()
        return self

    def __exit__(self, *_error):
        self.is_ending = True
        self.join()

    def run(self):
        os.sched_setaffinity(0, {self.core})  # of this thread only
        while not self.is_ending:
            due = time.monotonic() + TIMER_INTERVAL
            time.sleep(TIMER_INTERVAL)
            self.wake_ups += 1
            self.late_wake_ups += time.monotonic() - due > LATE_WAKE_UP

    def late(self):
        return self.late_wake_ups / max(1, self.wake_ups)


def quietest(tries, run, limits=USUAL, earlier=None):
    """Runs `run`, which returns a result and its disturbance, until one is not disturbed, `tries` times at most. `earlier`
    is such a pair from before.

    Returns the least disturbed result, whatever came out of it, its disturbance, and the results that do not count: what
    no disturbance excuses has to be looked for in them too.
    """
    runs = [earlier] if earlier else []
    most = tries + len(runs)
    while len(runs) < most and all(disturbed.exceeds(limits) for _, disturbed in runs):
        runs.append(run())
    best = min(range(len(runs)), key=lambda index: runs[index][1].total())
    others = [result for index, (result, _) in enumerate(runs) if index != best]
    return *runs[best], others
