"""What a link has to do, as formulas, and the tests that compare measured counts with them.

Every test of a run belongs to one family: its verdict is "fails" when its p-value is below the significance of the
whole family divided by the number of tests (Bonferroni). Where a setting leaves nothing to chance, as a reliability of
0 or 1, the counts have to be exactly right.
"""

from __future__ import annotations

import math
from dataclasses import dataclass
from typing import Sequence

import numpy
from scipy import stats

SIGNIFICANCE = 0.01  # of all tests of a run together: at most as often a perfect simulator fails one of them
SMALLEST_EXPECTED = 5.0  # frames or flips in a class of a chi-square test; smaller classes are joined
BITS_PER_BYTE = 8
# Of the generator's own, root mean square of the shares' relative errors (Cohen's w): its numbers are not wholly
# independent over the 12,000 draws of a long frame, which a million such frames bring to light.
GENERATOR_DEVIATION = 0.005
NANOSECONDS_PER_MILLISECOND = 1_000_000


@dataclass
class Fit:
    """A test of counts against a distribution."""

    p_value: float  # 0: impossible counts
    statistic: float = 0.0  # chi-square; 0: a test of another kind
    freedom: int = 0  # its degrees
    is_exact: bool = False  # nothing was left to chance: no member of the family


def exact_fit(holds: bool) -> Fit:
    return Fit(1.0 if holds else 0.0, is_exact=True)


def wrong(*checks: tuple[object, str]) -> list[str]:
    """Return the texts of those that are true."""
    return [text for is_wrong, text in checks if is_wrong]


def threshold(tests: int) -> float:
    """Return the p-value below which one of so many tests fails."""
    return SIGNIFICANCE / max(tests, 1)


def frame_error_rate(reliability: float, frame_bytes: int) -> float:
    """Return 1 - p^(8n), exact also where next to nothing or nearly everything is hit."""
    if reliability in (0, 1):
        return 1.0 - reliability
    return -math.expm1(frame_bytes * BITS_PER_BYTE * math.log(reliability))


def interval(count: int, total: int, significance: float) -> tuple[float, float]:
    """Return Clopper and Pearson's: it covers the true share with a probability of at least 1 - significance."""
    low = stats.beta.ppf(significance / 2, count, total - count + 1) if count > 0 else 0.0
    high = stats.beta.ppf(1 - significance / 2, count + 1, total - count) if count < total else 1.0
    return float(low), float(high)


def share_fit(count: int, total: int, share: float) -> Fit:
    """Test two-sided, by the same interval: fails exactly when the share lies outside of it."""
    if share in (0.0, 1.0):
        return exact_fit(count == share * total)
    as_few = stats.binom.cdf(count, total, share)
    as_many = stats.binom.sf(count - 1, total, share)
    return Fit(float(min(1.0, 2 * min(as_few, as_many))))


def chi_square(observed: Sequence[float], expected: Sequence[float], deviation: float = 0.0) -> Fit:
    """Test classes that together hold everything; a class that cannot occur must be empty.

    The p-value is that of a source whose shares are off by so much (Cohen's w).
    """
    seen, due = numpy.asarray(observed, float), numpy.asarray(expected, float)
    if seen[due == 0].any():
        return exact_fit(False)
    seen, due = joined(seen[due > 0], due[due > 0])
    freedom = len(due) - 1
    if freedom < 1:
        return exact_fit(True)
    statistic = float(((seen - due) ** 2 / due).sum())
    shift = seen.sum() * deviation**2
    p_value = stats.ncx2.sf(statistic, freedom, shift) if shift else stats.chi2.sf(statistic, freedom)
    return Fit(float(p_value), statistic, freedom)


def joined(observed: Sequence[float], expected: Sequence[float]) -> tuple[numpy.ndarray, numpy.ndarray]:
    """Put neighbouring classes together until each is large enough."""
    classes = [numpy.zeros(2)]
    for one in zip(observed, expected):
        if classes[-1][1] >= SMALLEST_EXPECTED:
            classes.append(numpy.zeros(2))
        classes[-1] += one
    if len(classes) > 1 and classes[-1][1] < SMALLEST_EXPECTED:
        last = classes.pop()
        classes[-1] += last
    return numpy.array([seen for seen, _ in classes]), numpy.array([due for _, due in classes])


def binomial_shares(numbers: numpy.ndarray, trials: int, share: float) -> numpy.ndarray:
    """Compute by logarithms: shares too small for a number come out as 0."""
    return numpy.exp(stats.binom.logpmf(numbers, trials, share))


def flips_fit(frames_by_flips: Sequence[int], frames: int, reliability: float) -> Fit:
    """Test the number of flipped bits of each frame against the binomial distribution."""
    if sum(frames_by_flips) != frames:
        return exact_fit(False)
    flips = numpy.arange(len(frames_by_flips))
    expected = frames * binomial_shares(flips, len(flips) - 1, 1 - reliability)
    return chi_square(frames_by_flips, expected, GENERATOR_DEVIATION)


def variance_ratio(frames_by_flips: Sequence[int], reliability: float) -> float | None:
    """Return the variance of the number of flipped bits, measured to binomial. None: nothing varies."""
    flips = numpy.arange(len(frames_by_flips))
    expected = (len(flips) - 1) * reliability * (1 - reliability)
    if expected == 0:
        return None
    mean = numpy.average(flips, weights=frames_by_flips)
    return float(numpy.average((flips - mean) ** 2, weights=frames_by_flips) / expected)


def spread_fit(flips_by_bit: Sequence[int], frames: int) -> Fit:
    """Test whether all bit positions are hit alike often, whatever that often is."""
    flips = numpy.asarray(flips_by_bit, float)
    share = flips.sum() / (len(flips) * frames)
    if share in (0.0, 1.0):
        return exact_fit(True)
    statistic = float(((flips - share * frames) ** 2).sum() / (frames * share * (1 - share)))
    return Fit(float(stats.chi2.sf(statistic, len(flips) - 1)), statistic, len(flips) - 1)


def delays(delay: int, deviation: int) -> list[int]:
    """Return those that are equally likely, in ms: from delay - deviation / 2, rounded towards the delay, deviation
    values in all; those that would be negative are 0."""
    return [max(0, delay - deviation // 2 + step) for step in range(deviation or 1)]


def delay_shares(delay: int, deviation: int) -> dict[int, float]:
    """Return the probability by delay in ms."""
    drawn = delays(delay, deviation)
    return {value: drawn.count(value) / len(drawn) for value in drawn}


def share_in_time(deadline: int, delay: int, deviation: int) -> float:
    """Return the share of the delays that are not above the deadline."""
    drawn = delays(delay, deviation)
    return sum(value <= deadline for value in drawn) / len(drawn)


def deadlines_fit(in_time: Sequence[int], frames: int, shares: Sequence[float]) -> Fit:
    """Test the distribution function at several deadlines, each of them measured with other frames."""
    statistic, freedom = 0.0, 0
    for count, share in zip(in_time, shares):
        if share in (0.0, 1.0):
            if count != share * frames:
                return exact_fit(False)
            continue
        statistic += (count - frames * share) ** 2 / (frames * share * (1 - share))
        freedom += 1
    return Fit(float(stats.chi2.sf(statistic, freedom)), statistic, freedom) if freedom else exact_fit(True)


def delivery_errors(sent: Sequence[int], arrived: Sequence[int], drawn: Sequence[int]) -> numpy.ndarray:
    """Return by how much each arrival is behind the due time that it belongs to, in µs.

    All three are in the order of sending, times in ns and delays in ms. A link hands the oldest frame over at each due
    time, so the n-th arrival belongs to the n-th due time.
    """
    due = numpy.sort(numpy.asarray(sent) + numpy.asarray(drawn) * NANOSECONDS_PER_MILLISECOND)
    return (numpy.asarray(arrived) - due) / 1e3


def clock_readings(sent: Sequence[int], arrived: Sequence[int]) -> numpy.ndarray:
    """Return whole milliseconds from sending to arriving, of frames that were alone on the link."""
    return (numpy.asarray(arrived) - numpy.asarray(sent)) // NANOSECONDS_PER_MILLISECOND
