"""The rows of the tables: each knows its measurement, the tests that decide its verdict, and its cells.

Cells depend on the threshold of a single test, which is known when all rows are there.
"""

from __future__ import annotations

from dataclasses import dataclass

import numpy

from measuring.fidelity import analysis
from measuring.lab import document

HOLDS, FAILS = "holds", "**fails**"
NEEDED_LOAD = 0.97  # of the wanted rate; a slower sender would make the link look more punctual
NEEDED_AS_DRAWN = 0.99  # of the clock's readings


@dataclass
class CorruptionRow:
    """A link of one reliability that corrupts frames of one size."""

    reliability: float
    frame_bytes: int
    detection: float
    figures: dict  # of the client

    def corrupted(self):
        return self.figures["sent"] - self.figures["intact"]

    def set_rate(self):
        return analysis.frame_error_rate(self.reliability, self.frame_bytes)

    def fits(self):
        rate = analysis.share_fit(self.corrupted(), self.figures["sent"], self.set_rate())
        return [rate] + self.distribution_fits()

    def distribution_fits(self):
        """Of the flipped bits, which are seen only where every frame arrives."""
        if self.detection > 0:
            return []
        frames = self.figures["sent"]
        flips = analysis.flips_fit(self.figures["frames_by_flips"], frames, self.reliability)
        return [flips, analysis.spread_fit(self.figures["flips_by_bit"], frames)]

    def facts(self):
        return client_facts(self.figures)

    def cells(self, threshold):
        sent, corrupted = self.figures["sent"], self.corrupted()
        cells = {
            "p": f"{self.reliability:g}",
            "bytes": str(self.frame_bytes),
            "frames": f"{sent:,}",
            "set": share_text(self.set_rate()),
            "measured": share_text(corrupted / sent),
            "interval": interval_text(corrupted, sent, threshold),
        }
        if self.detection > 0:
            return cells
        flips, spread = self.distribution_fits()
        cells["flips set"] = f"{self.frame_bytes * analysis.BITS_PER_BYTE * (1 - self.reliability):.5g}"
        cells["flips measured"] = f"{sum(self.figures['flips_by_bit']) / sent:.5g}"
        variance = analysis.variance_ratio(self.figures["frames_by_flips"], self.reliability)
        cells["variance"] = "–" if variance is None else f"{variance:.4f}"
        cells["distribution"] = p_text(flips)
        cells["spread"] = p_text(spread)
        return cells


@dataclass
class DetectionRow:
    """A receiver that notices a share of the corrupted frames."""

    reliability: float
    frame_bytes: int
    detection: float
    figures: dict

    def corrupted(self):
        return self.figures["sent"] - self.figures["intact"]

    def arrived(self):
        return self.figures["received"] - self.figures["intact"]

    def fits(self):
        return [analysis.share_fit(self.arrived(), self.corrupted(), 1 - self.detection)]

    def facts(self):
        return client_facts(self.figures)

    def cells(self, threshold):
        arrived, corrupted = self.arrived(), self.corrupted()
        return {
            "p": f"{self.reliability:g}",
            "bytes": str(self.frame_bytes),
            "detection": f"{self.detection:g}",
            "corrupted": f"{corrupted:,}",
            "set": share_text(1 - self.detection),
            "measured": share_text(arrived / corrupted),
            "interval": interval_text(arrived, corrupted, threshold),
        }


def client_facts(figures):
    outcomes = figures["delivered"] == figures["received"] and figures["lost"] == figures["sent"] - figures["received"]
    return [
        analysis.fact(figures["order_errors"] == 0, f"{figures['order_errors']} frames out of order"),
        analysis.fact(figures["strays"] == 0, f"{figures['strays']} unexpected messages"),
        analysis.fact(outcomes, "outcomes that do not match what arrived"),
        analysis.fact(
            figures["replay_differences"] == 0, f"{figures['replay_differences']} frames differ from the replay"
        ),
    ]


@dataclass
class DelayRow:
    """A link of one delay and deviation, seen through the deadlines of its senders."""

    link: object  # LinkSettings
    defaults: object  # likewise
    delay: int  # ms, in effect
    deviation: int  # likewise
    deadlines: list  # ms
    figures: dict  # of the client: lists by deadline
    replayed: list  # frames in time, by deadline

    def frames(self):
        return self.figures["sent"][0]

    def in_time(self):
        return self.figures["delivered"]

    def shares(self):
        return [analysis.share_in_time(deadline, self.delay, self.deviation) for deadline in self.deadlines]

    def fits(self):
        return [analysis.deadlines_fit(self.in_time(), self.frames(), self.shares())]

    def facts(self):
        return [
            analysis.fact(self.figures["received"] == self.figures["sent"], "frames missing"),
            analysis.fact(not any(self.figures["lost"]), "frames reported lost"),
            analysis.fact(not any(self.figures["order_errors"]), "frames out of order"),
            analysis.fact(not any(self.figures["strays"]), "unexpected messages"),
            analysis.fact(self.in_time() == self.replayed, "differs from the replay"),
        ]

    def cells(self, _threshold):
        fit = self.fits()[0]
        shares = analysis.delay_shares(self.delay, self.deviation)
        measured = dict(zip(self.deadlines, self.in_time()))
        smallest = [deadline for deadline in self.deadlines if measured[deadline] > 0]
        everything = [deadline for deadline in self.deadlines if measured[deadline] == self.frames()]
        return {
            "delay": f"{self.link.delay} ms",
            "deviation": f"{self.link.delay_deviation} ms",
            "default's": f"{self.defaults.delay}, {self.defaults.delay_deviation} ms",
            "frames": f"{self.frames() * len(self.deadlines):,}",
            "set": range_text(min(shares), max(shares)),
            "measured": range_text(smallest[0], everything[0]) if smallest and everything else "none",
            "chi-square": f"{fit.statistic:.1f} ({fit.freedom})" if not fit.is_exact else "exact",
            "p-value": p_text(fit),
        }


@dataclass
class CaseRow:
    """One case of the confirmations."""

    case: object
    outcome: object

    def fits(self):
        return []

    def facts(self):
        return self.outcome.deviations(self.case) or [True]

    def cells(self, _threshold):
        nodes = sorted(self.case.received)
        return {
            "case": self.case.title,
            "received set": " + ".join(str(self.case.received[node]) for node in nodes) or "–",
            "received": " + ".join(str(self.outcome.received[node]) for node in nodes) or "–",
            "delivered set": str(self.case.outcomes.delivered),
            "delivered": str(self.outcome.delivered),
            "lost set": str(self.case.outcomes.lost),
            "lost": str(self.outcome.lost),
        }


@dataclass
class OrderRow:
    """The frames of all measurements."""

    sent: int
    placed: int  # arrived, and their place could be told
    errors: int

    def fits(self):
        return []

    def facts(self):
        return [analysis.fact(self.errors == 0, f"{self.errors} out of order")]

    def cells(self, _threshold):
        return {"sent": f"{self.sent:,}", "placed": f"{self.placed:,}", "out of order": str(self.errors)}


@dataclass
class PunctualityRow:
    """How late frames were handed over, of one setting and one load."""

    delay: int
    deviation: int
    rate: float  # frames/s that were wanted
    sent: numpy.ndarray  # ns
    errors: numpy.ndarray  # µs
    earliest: float  # µs, also of the runs that were too disturbed to count: nothing excuses an early frame
    limits: dict  # µs by percentile; empty: the machine is not trusted with one

    def reached_rate(self):
        return (len(self.sent) - 1) / (self.sent[-1] - self.sent[0]) * 1e9

    def fits(self):
        return []

    def facts(self):
        facts = [analysis.fact(self.earliest >= 0, f"{-self.earliest:.0f} µs early")]
        if self.limits:
            reached = self.reached_rate()
            facts.append(analysis.fact(reached >= NEEDED_LOAD * self.rate, f"only {reached:,.0f} frames/s"))
        for percentile, limit in self.limits.items():
            found = numpy.percentile(self.errors, percentile)
            facts.append(analysis.fact(found <= limit, f"{percentile} % within {found:,.0f} instead of {limit:,} µs"))
        return facts

    def cells(self, _threshold):
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
class ClockRow:
    """Delays of lone frames, read off a clock."""

    delay: int
    deviation: int
    readings: numpy.ndarray  # ms
    drawn: numpy.ndarray  # ms, of the replay
    timer_in_time: float  # share of a plain timer's wake-ups meanwhile

    def equal(self):
        return int((self.readings == self.drawn).sum())

    def counts(self):
        """By delay in ms, of the readings that the formula has."""
        shares = analysis.delay_shares(self.delay, self.deviation)
        return {delay: int((self.readings == delay).sum()) for delay in shares}

    def fits(self):
        return [self.fit()]

    def fit(self):
        counts, shares = self.counts(), analysis.delay_shares(self.delay, self.deviation)
        total = sum(counts.values())
        return analysis.chi_square([counts[delay] for delay in shares], [total * share for share in shares.values()])

    def facts(self):
        share = self.equal() / len(self.readings)
        return [analysis.fact(share >= NEEDED_AS_DRAWN, f"only {share:.1%} read as drawn")]

    def cells(self, _threshold):
        fit = self.fit()
        return {
            "delay": f"{self.delay} ms",
            "deviation": f"{self.deviation} ms",
            "frames": f"{len(self.readings):,}",
            "set": range_text(*(bound(analysis.delay_shares(self.delay, self.deviation)) for bound in (min, max))),
            "measured": range_text(self.readings.min(), self.readings.max()),
            "as drawn": f"{self.equal():,}",
            "timer": f"{self.timer_in_time:.2%}",
            "chi-square": f"{fit.statistic:.1f} ({fit.freedom})" if not fit.is_exact else "exact",
            "p-value": p_text(fit),
        }


def failures(row, threshold):
    """What speaks against the row, as texts; empty when it holds."""
    failed = [f"p = {fit.p_value:.2g}" for fit in row.fits() if fit.p_value < threshold]
    return failed + [fact for fact in row.facts() if fact is not True]


def verdict(row, threshold):
    failed = failures(row, threshold)
    return f"{FAILS}: {', '.join(failed)}" if failed else HOLDS


def markdown(rows, threshold):
    """A table with the verdict as its last column; a text instead where the short form has no rows."""
    if not rows:
        return "Not measured in this run."
    lines = [{**row.cells(threshold), "verdict": verdict(row, threshold)} for row in rows]
    heads = list(lines[0])
    return document.table(heads, [list(line.values()) for line in lines], left=("case", "verdict"))


def share_text(share):
    """Five digits of the share, or of what is missing to 1 where that is little."""
    if share in (0.0, 1.0):
        return f"{share:g}"
    if share < 0.999:
        return f"{share:.5g}"
    return f"1 − {1 - share:.3g}"


def interval_text(count, total, significance):
    low, high = analysis.interval(count, total, significance)
    return f"{share_text(low)} to {share_text(high)}"


def range_text(low, high):
    return f"{low} ms" if low == high else f"{low} to {high} ms"


def p_text(fit):
    return "exact" if fit.is_exact else f"{fit.p_value:.3g}"
