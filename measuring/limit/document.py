#!/usr/bin/env python3
"""Writes performance.md and its plots from what the three comparisons have measured.

The exit code is 0 when every target in them is reached and 1 when one is missed.
"""

from __future__ import annotations

import argparse
import json
import sys
from pathlib import Path
from typing import Any, Sequence

from measuring.lab import disturbance, document
from measuring.lab.bench import TRIES
from measuring.lab.document import Plot
from measuring.lab.rows import Row, heads, number

TEMPLATE = Path(__file__).with_name("performance.md.in")
LIMIT_PLOT, SPEED_PLOT, COST_PLOT = "performance-limit.svg", "performance-frames.svg", "performance-cpu.svg"
PACKAGES = ["libqt5core5a", "vde-switch", "vde-wirefilter", "libvdeplug2", "libns3.37"]
COLORS = ("#2f6db3", "#e08a1e")
LOWEST_COST = 0.1  # µs, where the logarithmic axis begins

Result = dict[str, Any]  # of a comparison


def verdict_word(reached: bool | None) -> str:
    return {None: "", True: "reached", False: "**MISSED**"}[reached]


def row_table(rows: Sequence[Row], titles: Sequence[str]) -> str:
    """Return what has a target, and all growth; the other figures are in the plots and in the script's own output."""
    lines = [
        [*row.cells(), verdict_word(row.reached)] for row in rows if row.target is not None or row.table == "growth"
    ]
    return document.table(titles, lines) if lines else "Not measured this time."


def engine_tables(engine: Result) -> dict[str, str]:
    return {
        table: row_table([row for row in engine["rows"] if row.table == table], heads(table))
        for table in ("limit", "floor", "growth")
    }


def comparison_table(comparison: Result) -> str:
    titles = ["bytes", "tool", "processes", "frames/s", "rounds", "CPU µs/frame", "of it kernel", "client busy"]
    lines = [comparison_cells(result) for result in comparison["rows"]]
    return document.table(titles + ["corrupted", "expected"], lines)


def comparison_cells(result: Result) -> list[str]:
    return [
        str(result["size"]),
        result["tool"],
        result["placement"],
        f"{result['frames_per_second']:,.0f}",
        f"{result['lowest']:,.0f}–{result['highest']:,.0f}",
        f"{result['cpu_us']:.2f}",
        f"{result['kernel_share']:.0%}",
        f"{result['client_share']:.0%}",
        f"{result['corrupted_share']:.4f}",
        f"{result['expected_share']:.4f}",
    ]


def reading_table(comparison: Result) -> str:
    """Return the better placement of each tool, in every reading of speed."""
    titles = ["bytes", "tool", "frames/s", "million bits carried/s", "million bits decided one by one/s"]
    lines = []
    for result in best_rows(comparison):
        bits = [result[name] / 1e6 for name in ("carried_bits_per_second", "decided_bits_per_second")]
        figures = [f"{value:,.0f}" for value in [result["frames_per_second"], *bits]]
        lines.append([str(result["size"]), result["tool"], *figures])
    return document.table(titles, lines)


def best_rows(comparison: Result) -> list[Result]:
    best: dict[tuple[int, str], Result] = {}
    for result in comparison["rows"]:
        place = (result["size"], result["key"])
        if place not in best or result["frames_per_second"] > best[place]["frames_per_second"]:
            best[place] = result
    return list(best.values())


def verdict_table(comparison: Result) -> str:
    lines = []
    for result in comparison["verdicts"]:
        figures = [number(result[name]) for name in ("ours", "theirs", "ratio")]
        target = "" if result["target"] is None else f"≥ {result['target']:g}"
        lines.append([str(result["size"]), result["title"], *figures, target, verdict_word(result["reached"])])
    return document.table(["bytes", "figure", "Lattivo", "other", "ratio", "target", "verdict"], lines)


def judged_targets(engine: Result, comparison: Result, window: Result) -> list[tuple[str, bool]]:
    """Return what was to be reached, in words, and whether it was."""
    judged = []
    for row in engine["rows"]:
        words = " against the floor" if row.table == "floor" else ""
        judged.append((f"{row.workload}, {row.quantity}{words}", row.reached))
    judged += [(f"with the window: {row.workload}, {row.quantity}", row.reached) for row in window["rows"]]
    judged += [(f"{row['size']} bytes, {row['title']}", row["reached"]) for row in comparison["verdicts"]]
    return [(words, reached) for words, reached in judged if reached is not None]


def summary(judged: Sequence[tuple[str, bool]]) -> str:
    missed = [words for words, reached in judged if not reached]
    head = f"{len(judged) - len(missed)} of {len(judged)} targets are reached."
    if not missed:
        return head
    return head + " Missed:\n\n" + "\n".join(f"- **MISSED**: {words}" for words in missed)


def disturbed_runs(engine: Result, window: Result, comparison: Result) -> str:
    """Return sentences."""
    failures = comparison["failures"]
    made_again = f" Made again because they failed: {'; '.join(failures)}." if failures else ""
    return (
        f"{engine['disturbed_runs']} of {engine['runs']} runs against limit and floor, "
        f"{window['disturbed_runs']} of {window['runs']} with the window and "
        f"{comparison['disturbed_runs']} of {comparison['runs']} beside other tools were disturbed: "
        f"{disturbance.MEANING}. "
        f"A disturbed run against limit or floor had been made {TRIES} times, and the least disturbed one counts."
        f"{made_again}"
    )


def texts(engine: Result, comparison: Result, window: Result) -> dict[str, str]:
    """Return what the template asks for, but for the machine."""
    return dict(
        summary=summary(judged_targets(engine, comparison, window)),
        disturbance=disturbed_runs(engine, window, comparison),
        **engine_tables(engine),
        window=row_table(window["rows"], ["workload", "figure", "window", "without", *heads("headless")[4:]]),
        comparison=comparison_table(comparison),
        readings=reading_table(comparison),
        verdicts=verdict_table(comparison),
        rounds=str(comparison["rounds"]),
        duration=f"{comparison['duration']:g}",
        frame_window=str(comparison["window"]),
        error_rate=f"{comparison['error_rate']:g}",
        limit_plot=LIMIT_PLOT,
        speed_plot=SPEED_PLOT,
        cost_plot=COST_PLOT,
    )


def clustered_plot(
    titles: Sequence[str], columns: Sequence[Sequence[object]], label: str, *settings: str, height: int = 380
) -> Plot:
    """Return a plot of bars, a cluster for each text of the first column."""
    plot = Plot(
        "set style data histogram",
        "set style histogram clustered gap 1.5",
        "set style fill solid 0.9 noborder",
        "set boxwidth 0.9",
        "set border 3",
        "set tics nomirror",
        "set xrange [-0.6:*]",
        "set yrange [0:*]",
        f"set ylabel '{label}'",
        *settings,
        width=860,
        height=height,
        key="above left",
    )
    bars = [
        f"using {place}:xtic(1) title '{title}' linecolor rgb '{color}'"
        for place, (title, color) in enumerate(zip(titles, COLORS), start=2)
    ]
    plot.add(columns, *bars)
    return plot


def limit_plot(engine: Result) -> Plot:
    """Show how many times better than the limit each workload is, in speed and in cost."""
    ratios: dict[str, dict[str, float]] = {}
    for row in engine["rows"]:
        if row.table == "limit" and row.ratio is not None:
            ratios.setdefault(row.workload, {})[row.quantity] = row.ratio
    speeds = [of["frames/s"] for of in ratios.values()]
    costs = [1 / of["CPU µs/frame"] for of in ratios.values()]
    return clustered_plot(
        ["frames/s, Lattivo : limit", "CPU per frame, limit : Lattivo"],
        [list(ratios), speeds, costs],
        "times better than the limit",
        "set xtics rotate by -35",
        "set bmargin 11",
        "set arrow from graph 0, first 1 to graph 1, first 1 nohead linecolor '#666666'",
        height=540,
    )


def tools_plot(comparison: Result, figure: str, label: str, *settings: str) -> Plot:
    best = best_rows(comparison)
    sizes = sorted({row["size"] for row in best})
    tools = [row["tool"].replace(", ", "\\n") for row in best if row["size"] == sizes[0]]
    columns = [[row[figure] for row in best if row["size"] == size] for size in sizes]
    titles = [f"{size} bytes" for size in sizes]
    return clustered_plot(titles, [tools, *columns], label, "set bmargin 4", *settings)


def write_plots(engine: Result, comparison: Result, folder: Path) -> None:
    limit_plot(engine).write(folder / LIMIT_PLOT)
    speed = tools_plot(comparison, "frames_per_second", "frames/s", 'set format y "%\'.0f"')
    speed.write(folder / SPEED_PLOT)
    label = "CPU µs/frame, all processes (logarithmic)"
    cost = tools_plot(comparison, "cpu_us", label, "set logscale y", f"set yrange [{LOWEST_COST}:*]")
    cost.write(folder / COST_PLOT)


def read_rows(path: Path) -> Result:
    result: Result = json.loads(path.read_text(encoding="utf-8"))
    return {**result, "rows": [Row(**row) for row in result["rows"]]}


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("folder", type=Path, help="engine.json, comparison.json and window.json are there")
    parser.add_argument("--output", type=Path, required=True, metavar="FOLDER")
    options = parser.parse_args()
    engine, window = [read_rows(options.folder / name) for name in ("engine.json", "window.json")]
    comparison = json.loads((options.folder / "comparison.json").read_text(encoding="utf-8"))
    options.output.mkdir(parents=True, exist_ok=True)
    write_plots(engine, comparison, options.output)
    machine = document.machine_table(PACKAGES)
    document.write(TEMPLATE, options.output / "performance.md", machine=machine, **texts(engine, comparison, window))
    judged = judged_targets(engine, comparison, window)
    print(summary(judged))
    return 0 if all(reached for _, reached in judged) else 1


if __name__ == "__main__":
    sys.exit(main())
