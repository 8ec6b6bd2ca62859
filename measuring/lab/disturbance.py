"""Tell what others take of the processors while something is measured."""

from __future__ import annotations

import os
import threading
import time
from dataclasses import dataclass
from pathlib import Path
from typing import Callable, Iterable, Optional, Tuple, TypeVar

TIMER_INTERVAL = 0.005  # s
LATE_WAKE_UP = 0.0005  # s behind the end of the interval


@dataclass
class Disturbance:
    """Shares, from 0 to 1."""

    stolen: float  # of the time of a measurement, by the host of a virtual machine
    waited: float  # likewise, by other programs, from those that were measured
    late: float | None = None  # of a plain timer's wake-ups; None: no timer was set, or as a limit: any share will do

    def exceeds(self, limits: Disturbance) -> bool:
        is_late = limits.late is not None and (self.late or 0.0) > limits.late
        return self.stolen > limits.stolen or self.waited > limits.waited or is_late

    def total(self) -> float:
        return self.stolen + self.waited + (self.late or 0.0)


USUAL = Disturbance(stolen=0.01, waited=0.05)  # more is too much for most measurements
MEANING = (
    f"other programs took a core for more than {USUAL.waited:.0%} of the time, "
    f"or the host for more than {USUAL.stolen:.0%}"
)


class ProcessorWatch:
    """Watches cores from its making on."""

    def __init__(self, cores: Iterable[int]) -> None:
        self._cores = {f"cpu{core}" for core in cores}
        self._begin = time.monotonic()
        self._stolen_before = self._stolen()

    def disturbance(self, waited: float) -> Disturbance:
        """Return what others took; `waited` (s) is what the measured processes have waited for a core."""
        seconds = time.monotonic() - self._begin
        return Disturbance((self._stolen() - self._stolen_before) / seconds, waited / seconds)

    def _stolen(self) -> float:
        """Return what the host has taken from the cores so far, in s."""
        lines = [line.split() for line in Path("/proc/stat").read_text(encoding="ascii").splitlines()]
        return sum(int(line[8]) for line in lines if line[0] in self._cores) / os.sysconf("SC_CLK_TCK")


class TimerWatch(threading.Thread):
    """Sleeps on a core and looks how late it wakes up. The machine itself is as late; it steals more than it tells."""

    def __init__(self, core: int) -> None:
        super().__init__(daemon=True)
        self._core = core
        self.wake_ups = 0
        self._late_wake_ups = 0
        self._is_ending = False

    def __enter__(self) -> TimerWatch:
        self.start()
        return self

    def __exit__(self, *_error: object) -> None:
        self._is_ending = True
        self.join()

    def run(self) -> None:
        os.sched_setaffinity(0, {self._core})  # of this thread only
        while not self._is_ending:
            due = time.monotonic() + TIMER_INTERVAL
            time.sleep(TIMER_INTERVAL)
            self.wake_ups += 1
            self._late_wake_ups += time.monotonic() - due > LATE_WAKE_UP

    def late(self) -> float:
        """Return the share of late wake-ups."""
        return self._late_wake_ups / max(1, self.wake_ups)


Result = TypeVar("Result")
Judged = Tuple[Result, Disturbance]


def quietest(
    tries: int, run: Callable[[], Judged[Result]], limits: Disturbance = USUAL, earlier: Optional[Judged[Result]] = None
) -> tuple[Result, Disturbance, list[Result]]:
    """Run until one run is not disturbed, `tries` times at most; `earlier` is a run from before.

    Return the least disturbed result, whatever came out of it, its disturbance, and the results that do not count: what
    no disturbance excuses has to be looked for in them too.
    """
    runs = [earlier] if earlier else []
    most = tries + len(runs)
    while len(runs) < most and all(disturbed.exceeds(limits) for _, disturbed in runs):
        runs.append(run())
    best = min(range(len(runs)), key=lambda index: runs[index][1].total())
    others = [result for index, (result, _) in enumerate(runs) if index != best]
    return *runs[best], others
