"""The pictures of the document, drawn by gnuplot."""

from __future__ import annotations

import numpy
from scipy import stats

from measuring.fidelity import analysis
from measuring.lab.document import Plot

COLORS = ("#1b6ca8", "#c0392b", "#2e8b57", "#8e44ad")
MEASURED, SET = "#c0392b", "#1b6ca8"


def frame_error_rates(file, rows, threshold):
    """Of links that flip bits at all: 1 - p on a logarithmic axis has no place for 0."""
    plot = Plot(key="bottom right")
    plot.settings += [
        "set logscale x",
        "set format x '%g'",
        "set xrange [2e-5:1.5]",
        "set yrange [-0.03:1.03]",
        "set xlabel 'share of bits that flip (1 − reliability per bit)'",
        "set ylabel 'frame error rate'",
    ]
    rates = numpy.logspace(-4.7, 0, 200)
    for color, frame_bytes in zip(COLORS, sorted({row.frame_bytes for row in rows})):
        curve = [analysis.frame_error_rate(1 - rate, frame_bytes) for rate in rates]
        plot.add((rates, curve), f"with lines lw 1.5 lc rgb '{color}' title '{frame_bytes} bytes: set'")
        shown = [row for row in rows if row.frame_bytes == frame_bytes and row.reliability < 1]
        bounds = [analysis.interval(row.corrupted(), row.figures["sent"], threshold) for row in shown]
        columns = (
            [1 - row.reliability for row in shown],
            [row.corrupted() / row.figures["sent"] for row in shown],
            [low for low, _ in bounds],
            [high for _, high in bounds],
        )
        plot.add(columns, f"with yerrorbars pt 7 ps 0.6 lc rgb '{color}' title 'measured'")
    plot.write(file)


def flips_per_frame(file, row):
    plot = Plot(key="top right")
    plot.settings += ["set xlabel 'flipped bits in a frame'", "set ylabel 'share of the frames'", "set yrange [0:]"]
    frames, bits = row.figures["sent"], row.frame_bytes * analysis.BITS_PER_BYTE
    counts = numpy.array(row.figures["frames_by_flips"])
    seen = numpy.flatnonzero(counts)
    flips = numpy.arange(seen[0], seen[-1] + 1)
    plot.add((flips, counts[flips] / frames), f"with boxes fs solid 0.3 lc rgb '{MEASURED}' title 'measured'")
    expected = analysis.binomial_shares(flips, bits, 1 - row.reliability)
    plot.add((flips, expected), f"with linespoints pt 7 ps 0.4 lc rgb '{SET}' title 'binomial distribution'")
    plot.write(file)


def flips_by_bit(file, row):
    """With the lines between which 99.9 % of the positions have to lie."""
    frames, rate = row.figures["sent"], 1 - row.reliability
    low, high = stats.binom.ppf((0.0005, 0.9995), frames, rate) / frames
    positions = numpy.arange(len(row.figures["flips_by_bit"]))
    plot = Plot(key="top right")
    plot.settings += [
        "set xlabel 'bit of the frame'",
        "set ylabel 'share of frames in which it flipped'",
        f"set xrange [0:{len(positions)}]",
        f"set yrange [{rate - 2.2 * (rate - low)}:{rate + 2.6 * (high - rate)}]",
        "set format y '%.4f'",
    ]
    measured = [flips / frames for flips in row.figures["flips_by_bit"]]
    plot.add((positions, measured), f"with points pt 7 ps 0.25 lc rgb '{MEASURED}' title 'measured'")
    ends = (0, len(positions))
    plot.add((ends, (rate, rate)), f"with lines lw 1.5 lc rgb '{SET}' title 'set'")
    plot.add((ends, (low, low)), f"with lines dt 2 lc rgb '{SET}' title '99.9 % of the positions'")
    plot.add((ends, (high, high)), f"with lines dt 2 lc rgb '{SET}' notitle")
    plot.write(file)


def delays_in_time(file, rows):
    """The distribution function, a staircase, and what was confirmed at each deadline."""
    plot = Plot(key="bottom right")
    plot.settings += [
        "set xlabel 'deadline of the sender, ms'",
        "set ylabel 'share of the frames that were in time'",
        "set yrange [-0.03:1.03]",
    ]
    for color, row in zip(COLORS, rows):
        title = f"{row.delay} ms, deviation {row.deviation} ms"
        last = max(row.deadlines) + 1
        edges = [edge for deadline in range(0, last + 1) for edge in (deadline, deadline + 1)]
        steps = [analysis.share_in_time(edge, row.delay, row.deviation) for edge in range(0, last + 1) for _ in "ab"]
        plot.add((edges, steps), f"with lines lw 1.2 lc rgb '{color}' title '{title}: set'")
        shares = [count / row.frames() for count in row.in_time()]
        plot.add((row.deadlines, shares), f"with points pt 7 ps 0.5 lc rgb '{color}' title 'measured'")
    plot.write(file)


def clock_delays(file, row):
    counts, shares = row.counts(), analysis.delay_shares(row.delay, row.deviation)
    total = len(row.readings)
    plot = Plot(key="top right")
    plot.settings += [
        "set xlabel 'delay, whole ms'",
        "set ylabel 'share of the frames'",
        f"set xrange [{min(shares) - 3}:{max(shares) + 3}]",
        f"set yrange [0:{1.6 * max(shares.values())}]",
        "set boxwidth 0.8",
    ]
    values = sorted(set(counts) | set(row.readings.tolist()))
    measured = [int((row.readings == value).sum()) / total for value in values]
    plot.add((values, measured), f"with boxes fs solid 0.3 lc rgb '{MEASURED}' title 'measured by the clock'")
    bounds = [stats.binom.ppf((0.005, 0.995), total, share) / total for share in shares.values()]
    columns = (list(shares), list(shares.values()), [low for low, _ in bounds], [high for _, high in bounds])
    plot.add(columns, f"with yerrorbars pt 7 ps 0.5 lc rgb '{SET}' title 'set, and where 99 % of such counts lie'")
    plot.write(file)


def delivery_errors(file, rows):
    """Distribution functions, one curve a load, all settings of the load together."""
    plot = Plot(key="bottom right")
    plot.settings += [
        "set logscale x",
        "set format x '%g'",
        "set xlabel 'delivered so much after the drawn delay, µs'",
        "set ylabel 'share of the frames'",
        "set xrange [10:20000]",
        "set yrange [0:1.01]",
    ]
    shares = numpy.concatenate((numpy.linspace(0, 0.99, 150), numpy.linspace(0.99, 1, 50)))
    loads = sorted({row.rate for row in rows})
    for color, rate in zip(COLORS, loads):
        for dash, is_delayed in ((1, True), (2, False)):
            shown = [row.errors for row in rows if row.rate == rate and (row.delay + row.deviation > 0) == is_delayed]
            if not shown:
                continue
            errors = numpy.quantile(numpy.concatenate(shown), shares)
            title = f"{rate:,.0f} frames/s, {'delayed' if is_delayed else 'no delay'}"
            plot.add((errors, shares), f"with lines lw 1.5 dt {dash} lc rgb '{color}' title '{title}'")
    plot.write(file)
