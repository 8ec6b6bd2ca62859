"""The rows of the tables: each knows its measurement, the tests that decide its verdict, and its cells.

Cells depend on the threshold of a single test, which is known when all rows are there.
"""

from __future__ import annotations

from dataclasses import dataclass
from typing import Sequence

import numpy

from measuring.fidelity import analysis
from measuring.fidelity.analysis import Fit, wrong
from measuring.fidelity.cases import Case, Outcome
from measuring.fidelity.measure import Counts
from measuring.lab import document
from measuring.lab.launcher import Figures
from measuring.lab.makesimulation import LinkSettings

HOLDS, FAILS = "holds", "**fails**"
NEEDED_LOAD = 0.97  # of the wanted rate; a slower sender would make the link look more punctual
NEEDED_AS_DRAWN = 0.99  # of the clock's readings


class Row:
    """What was measured with one setting."""

    def fits(self) -> list[Fit]:
        """Return the tests of what is left to chance."""
        return []

    def faults(self) -> list[str]:
        """Return what is wrong although nothing is left to chance."""
        return []

    def cells(self, threshold: float) -> dict[str, str]:
        """Return texts by column."""
        raise NotImplementedError

    def failures(self, threshold: float) -> list[str]:
        """Return what speaks against the row; nothing when it holds."""
        return [f"p = {fit.p_value:.2g}" for fit in self.fits() if fit.p_value < threshold] + self.faults()


@dataclass
class CorruptionRow(Row):
    """A link of one reliability that corrupts frames of one size."""

    reliability: float
    frame_bytes: int
    detection: float
    figures: Figures  # of the client

    def corrupted(self) -> int:
        return int(self.figures["sent"] - self.figures["intact"])

    def set_rate(self) -> float:
        return analysis.frame_error_rate(self.reliability, self.frame_bytes)

    def fits(self) -> list[Fit]:
        rate = analysis.share_fit(self.corrupted(), self.figures["sent"], self.set_rate())
        return [rate, *self.distribution_fits()]

    def distribution_fits(self) -> list[Fit]:
        """Return those of the flipped bits, which are seen only where every frame arrives."""
        if self.detection > 0:
            return []
        frames = self.figures["sent"]
        flips = analysis.flips_fit(self.figures["frames_by_flips"], frames, self.reliability)
        return [flips, analysis.spread_fit(self.figures["flips_by_bit"], frames)]

    def faults(self) -> list[str]:
        figures, received = self.figures, self.figures["received"]
        outcomes = (received, figures["sent"] - received)
        return wrong(
            (figures["order_errors"], f"{figures['order_errors']} frames out of order"),
            (figures["strays"], f"{figures['strays']} unexpected messages"),
            ((figures["delivered"], figures["lost"]) != outcomes, "outcomes that do not match what arrived"),
            (figures["replay_differences"], f"{figures['replay_differences']} frames differ from the replay"),
        )

    def cells(self, threshold: float) -> dict[str, str]:
        sent = self.figures["sent"]
        cells = {
            "p": f"{self.reliability:g}",
            "bytes": str(self.frame_bytes),
            "frames": f"{sent:,}",
            **share_cells(self.set_rate(), self.corrupted(), sent, threshold),
        }
        if self.detection > 0:
            return cells
        flips, spread = self.distribution_fits()
        variance = analysis.variance_ratio(self.figures["frames_by_flips"], self.reliability)
        return {
            **cells,
            "flips set": f"{self.frame_bytes * analysis.BITS_PER_BYTE * (1 - self.reliability):.5g}",
            "flips measured": f"{sum(self.figures['flips_by_bit']) / sent:.5g}",
            "variance": "–" if variance is None else f"{variance:.4f}",
            "distribution": p_text(flips),
            "spread": p_text(spread),
        }


class DetectionRow(CorruptionRow):
    """A receiver that notices a share of the corrupted frames."""

    def arrived(self) -> int:
        return int(self.figures["received"] - self.figures["intact"])

    def fits(self) -> list[Fit]:
        return [analysis.share_fit(self.arrived(), self.corrupted(), 1 - self.detection)]

    def cells(self, threshold: float) -> dict[str, str]:
        return {
            "p": f"{self.reliability:g}",
            "bytes": str(self.frame_bytes),
            "detection": f"{self.detection:g}",
            "corrupted": f"{self.corrupted():,}",
            **share_cells(1 - self.detection, self.arrived(), self.corrupted(), threshold),
        }


@dataclass
class DelayRow(Row):
    """A link of one delay and deviation, seen through the deadlines of its senders."""

    link: LinkSettings
    defaults: LinkSettings
    delay: int  # ms, in effect
    deviation: int  # likewise
    deadlines: Sequence[int]  # ms
    figures: Figures  # of the client: lists by deadline
    replayed: Sequence[int]  # frames in time, by deadline

    def frames(self) -> int:
        return int(self.figures["sent"][0])

    def fits(self) -> list[Fit]:
        shares = [analysis.share_in_time(deadline, self.delay, self.deviation) for deadline in self.deadlines]
        return [analysis.deadlines_fit(self.figures["delivered"], self.frames(), shares)]

    def faults(self) -> list[str]:
        return wrong(
            (self.figures["received"] != self.figures["sent"], "frames missing"),
            (any(self.figures["lost"]), "frames reported lost"),
            (any(self.figures["order_errors"]), "frames out of order"),
            (any(self.figures["strays"]), "unexpected messages"),
            (self.figures["delivered"] != self.replayed, "differs from the replay"),
        )

    def cells(self, threshold: float) -> dict[str, str]:
        in_time = dict(zip(self.deadlines, self.figures["delivered"]))
        first = next((deadline for deadline, count in in_time.items() if count), None)
        whole = next((deadline for deadline, count in in_time.items() if count == self.frames()), None)
        return {
            "delay": f"{self.link.delay} ms",
            "deviation": f"{self.link.delay_deviation} ms",
            "default's": f"{self.defaults.delay}, {self.defaults.delay_deviation} ms",
            "frames": f"{self.frames() * len(self.deadlines):,}",
            "set": range_text(analysis.delay_shares(self.delay, self.deviation)),
            "measured": "none" if first is None or whole is None else range_text((first, whole)),
            **chi_square_cells(self.fits()[0]),
        }


@dataclass
class CaseRow(Row):
    """One case of the confirmations."""

    case: Case
    outcome: Outcome

    def faults(self) -> list[str]:
        return self.outcome.deviations(self.case)

    def cells(self, threshold: float) -> dict[str, str]:
        case, outcome = self.case, self.outcome
        return {
            "case": case.title,
            "received set": " + ".join(map(str, case.received.values())) or "–",
            "received": " + ".join(str(outcome.received[node]) for node in case.received) or "–",
            "delivered set": str(case.outcomes.delivered),
            "delivered": str(outcome.delivered),
            "lost set": str(case.outcomes.lost),
            "lost": str(outcome.lost),
        }


@dataclass
class OrderRow(Row):
    """The frames of all measurements."""

    counts: Counts

    def faults(self) -> list[str]:
        return wrong((self.counts.order_errors, f"{self.counts.order_errors} out of order"))

    def cells(self, threshold: float) -> dict[str, str]:
        sent, placed, errors = self.counts.sent, self.counts.placed, self.counts.order_errors
        return {"sent": f"{sent:,}", "placed": f"{placed:,}", "out of order": str(errors)}


@dataclass
class PunctualityRow(Row):
    """How late frames were handed over, of one setting and one load."""

    delay: int
    deviation: int
    rate: float  # frames/s that were wanted
    sent: numpy.ndarray  # ns
    errors: numpy.ndarray  # µs
    earliest: float  # µs, also of the runs that were too disturbed to count: nothing excuses an early frame
    limits: dict[int, int]  # µs by percentile; empty: the machine is not trusted with one

    def reached_rate(self) -> float:
        return float((len(self.sent) - 1) / (self.sent[-1] - self.sent[0]) * 1e9)

    def faults(self) -> list[str]:
        reached = self.reached_rate()
        is_slow = bool(self.limits) and reached < NEEDED_LOAD * self.rate
        found = {percentile: numpy.percentile(self.errors, percentile) for percentile in self.limits}
        return wrong(
            (self.earliest < 0, f"{-self.earliest:.0f} µs early"),
            (is_slow, f"only {reached:,.0f} frames/s"),
            *(
                (found[percentile] > limit, f"{percentile} % within {found[percentile]:,.0f} instead of {limit:,} µs")
                for percentile, limit in self.limits.items()
            ),
        )

    def cells(self, threshold: float) -> dict[str, str]:
        median, most, nearly_all = numpy.percentile(self.errors, (50, 95, 99))
        return {
            "delay": f"{self.delay} ms",
            "deviation": f"{self.deviation} ms",
            "frames/s": f"{self.reached_rate():,.0f}",
            "frames": f"{len(self.sent):,}",
            "earliest": f"{self.earliest:,.0f}",
            "median": f"{median:,.0f}",
            "95 %": f"{most:,.0f}",
            "99 %": f"{nearly_all:,.0f}",
            "latest": f"{self.errors.max():,.0f}",
        }


@dataclass
class ClockRow(Row):
    """Delays of lone frames, read off a clock."""

    delay: int
    deviation: int
    readings: numpy.ndarray  # ms
    drawn: numpy.ndarray  # ms, of the replay
    timer_in_time: float  # share of a plain timer's wake-ups meanwhile

    def equal(self) -> int:
        return int((self.readings == self.drawn).sum())

    def shares(self) -> dict[int, float]:
        return analysis.delay_shares(self.delay, self.deviation)

    def fits(self) -> list[Fit]:
        counts = [int((self.readings == delay).sum()) for delay in self.shares()]
        return [analysis.chi_square(counts, [sum(counts) * share for share in self.shares().values()])]

    def faults(self) -> list[str]:
        share = self.equal() / len(self.readings)
        return wrong((share < NEEDED_AS_DRAWN, f"only {share:.1%} read as drawn"))

    def cells(self, threshold: float) -> dict[str, str]:
        return {
            "delay": f"{self.delay} ms",
            "deviation": f"{self.deviation} ms",
            "frames": f"{len(self.readings):,}",
            "set": range_text(self.shares()),
            "measured": range_text(self.readings),
            "as drawn": f"{self.equal():,}",
            "timer": f"{self.timer_in_time:.2%}",
            **chi_square_cells(self.fits()[0]),
        }


def markdown(rows: Sequence[Row], threshold: float) -> str:
    """Return a table with the verdict as its last column; a text where the short form has no rows."""
    if not rows:
        return "Not measured in this run."
    lines = []
    for row in rows:
        failures = row.failures(threshold)
        verdict = f"{FAILS}: {', '.join(failures)}" if failures else HOLDS
        lines.append({**row.cells(threshold), "verdict": verdict})
    return document.table(list(lines[0]), [list(line.values()) for line in lines], left=("case", "verdict"))


def share_text(share: float) -> str:
    """Return five digits of the share, or of what is missing to 1 where that is little."""
    if share in (0.0, 1.0):
        return f"{share:g}"
    return f"{share:.5g}" if share < 0.999 else f"1 − {1 - share:.3g}"


def share_cells(share: float, count: int, total: int, significance: float) -> dict[str, str]:
    low, high = analysis.interval(count, total, significance)
    return {
        "set": share_text(share),
        "measured": share_text(count / total),
        "interval": f"{share_text(low)} to {share_text(high)}",
    }


def range_text(values: Sequence[int] | dict[int, float]) -> str:
    low, high = min(values), max(values)
    return f"{low} ms" if low == high else f"{low} to {high} ms"


def chi_square_cells(fit: Fit) -> dict[str, str]:
    return {
        "chi-square": "exact" if fit.is_exact else f"{fit.statistic:.1f} ({fit.freedom})",
        "p-value": p_text(fit),
    }


def p_text(fit: Fit) -> str:
    return "exact" if fit.is_exact else f"{fit.p_value:.3g}"
