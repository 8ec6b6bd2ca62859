"""The pictures of the document, drawn by gnuplot from rows of its tables."""

from __future__ import annotations

from typing import Sequence

import numpy
from scipy import stats

from measuring.fidelity import analysis
from measuring.fidelity.tables import ClockRow, CorruptionRow, DelayRow, PunctualityRow
from measuring.lab.document import Plot

COLORS = ("#1b6ca8", "#c0392b", "#2e8b57", "#8e44ad")
MEASURED, SET = "#c0392b", "#1b6ca8"


def axes(x: str, y: str, *settings: str, key: str = "bottom right") -> Plot:
    return Plot(f"set xlabel '{x}'", f"set ylabel '{y}'", *settings, key=key)


def frame_error_rates(rows: Sequence[CorruptionRow], threshold: float) -> Plot:
    """Show links that flip bits at all: 1 - p on a logarithmic axis has no place for 0."""
    plot = axes(
        "share of bits that flip (1 − reliability per bit)",
        "frame error rate",
        "set logscale x",
        "set format x '%g'",
        "set xrange [2e-5:1.5]",
        "set yrange [-0.03:1.03]",
    )
    rates = numpy.logspace(-4.7, 0, 200)
    for color, frame_bytes in zip(COLORS, sorted({row.frame_bytes for row in rows})):
        curve = [analysis.frame_error_rate(1 - rate, frame_bytes) for rate in rates]
        plot.add((rates, curve), f"with lines lw 1.5 lc rgb '{color}' title '{frame_bytes} bytes: set'")
        points = []
        for row in rows:
            if row.frame_bytes == frame_bytes and row.reliability < 1:
                corrupted, sent = row.corrupted(), row.figures["sent"]
                bounds = analysis.interval(corrupted, sent, threshold)
                points.append((1 - row.reliability, corrupted / sent, *bounds))
        plot.add(list(zip(*points)), f"with yerrorbars pt 7 ps 0.6 lc rgb '{color}' title 'measured'")
    return plot


def flips_per_frame(rows: Sequence[CorruptionRow], _threshold: float) -> Plot:
    plot = axes("flipped bits in a frame", "share of the frames", "set yrange [0:]", key="top right")
    row = rows[0]
    shares = numpy.array(row.figures["frames_by_flips"]) / row.figures["sent"]
    seen = numpy.flatnonzero(shares)
    flips = numpy.arange(seen[0], seen[-1] + 1)
    plot.add((flips, shares[flips]), f"with boxes fs solid 0.3 lc rgb '{MEASURED}' title 'measured'")
    expected = analysis.binomial_shares(flips, len(shares) - 1, 1 - row.reliability)
    plot.add((flips, expected), f"with linespoints pt 7 ps 0.4 lc rgb '{SET}' title 'binomial distribution'")
    return plot


def flips_by_bit(rows: Sequence[CorruptionRow], _threshold: float) -> Plot:
    """Show also the lines between which 99.9 % of the positions have to lie."""
    frames, rate = rows[0].figures["sent"], 1 - rows[0].reliability
    measured = numpy.array(rows[0].figures["flips_by_bit"]) / frames
    low, high = stats.binom.ppf((0.0005, 0.9995), frames, rate) / frames
    plot = axes(
        "bit of the frame",
        "share of frames in which it flipped",
        f"set xrange [0:{len(measured)}]",
        f"set yrange [{rate - 2.2 * (rate - low)}:{rate + 2.6 * (high - rate)}]",
        "set format y '%.4f'",
        key="top right",
    )
    positions = numpy.arange(len(measured))
    plot.add((positions, measured), f"with points pt 7 ps 0.25 lc rgb '{MEASURED}' title 'measured'")
    styles = ("lw 1.5 title 'set'", "dt 2 title '99.9 % of the positions'", "dt 2 notitle")
    for share, style in zip((rate, low, high), styles):
        plot.add(((0, len(positions)), (share, share)), f"with lines lc rgb '{SET}' {style}")
    return plot


def delays_in_time(rows: Sequence[DelayRow], _threshold: float) -> Plot:
    """Show the distribution function, a staircase, and what was confirmed at each deadline."""
    plot = axes("deadline of the sender, ms", "share of the frames that were in time", "set yrange [-0.03:1.03]")
    for color, row in zip(COLORS, rows):
        title = f"{row.delay} ms, deviation {row.deviation} ms"
        edges = range(max(row.deadlines) + 3)
        steps = [analysis.share_in_time(edge, row.delay, row.deviation) for edge in edges]
        plot.add((edges, steps), f"with steps lw 1.2 lc rgb '{color}' title '{title}: set'")
        shares = [count / row.frames() for count in row.figures["delivered"]]
        plot.add((row.deadlines, shares), f"with points pt 7 ps 0.5 lc rgb '{color}' title 'measured'")
    return plot


def clock_delays(rows: Sequence[ClockRow], _threshold: float) -> Plot:
    row, shares = rows[0], rows[0].shares()
    total = len(row.readings)
    plot = axes(
        "delay, whole ms",
        "share of the frames",
        f"set xrange [{min(shares) - 3}:{max(shares) + 3}]",
        f"set yrange [0:{1.6 * max(shares.values())}]",
        "set boxwidth 0.8",
        key="top right",
    )
    values, counts = numpy.unique(row.readings, return_counts=True)
    plot.add((values, counts / total), f"with boxes fs solid 0.3 lc rgb '{MEASURED}' title 'measured by the clock'")
    bounds = [(delay, share, *stats.binom.ppf((0.005, 0.995), total, share) / total) for delay, share in shares.items()]
    style = f"with yerrorbars pt 7 ps 0.5 lc rgb '{SET}' title 'set, and where 99 % of such counts lie'"
    plot.add(list(zip(*bounds)), style)
    return plot


def delivery_errors(rows: Sequence[PunctualityRow], _threshold: float) -> Plot:
    """Show distribution functions, one curve a load, all settings of the load together."""
    plot = axes(
        "delivered so much after the drawn delay, µs",
        "share of the frames",
        "set logscale x",
        "set format x '%g'",
        "set xrange [10:20000]",
        "set yrange [0:1.01]",
    )
    shares = numpy.concatenate((numpy.linspace(0, 0.99, 150), numpy.linspace(0.99, 1, 50)))
    for color, rate in zip(COLORS, sorted({row.rate for row in rows})):
        for dash, is_delayed in ((1, True), (2, False)):
            shown = [row.errors for row in rows if row.rate == rate and (row.delay + row.deviation > 0) == is_delayed]
            if not shown:
                continue
            errors = numpy.quantile(numpy.concatenate(shown), shares)
            title = f"{rate:,.0f} frames/s, {'delayed' if is_delayed else 'no delay'}"
            plot.add((errors, shares), f"with lines lw 1.5 dt {dash} lc rgb '{color}' title '{title}'")
    return plot
