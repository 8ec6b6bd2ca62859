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

from measuring.compare import tables
from measuring.lab import disturbance, document
from measuring.lab.bench import TRIES
from measuring.lab.document import Plot
from measuring.lab.rows import Row, heads

TEMPLATE = Path(__file__).with_name("performance.md.in")
LIMIT_PLOT, SPEED_PLOT, COST_PLOT = "performance-limit.svg", "performance-frames.svg", "performance-cpu.svg"
PACKAGES = ["libqt5core5a", "vde-switch", "vde-wirefilter", "libvdeplug2", "libns3.37"]

Result = dict[str, Any]  # of a comparison


def row_table(rows: Sequence[Row], titles: Sequence[str]) -> str:
    """Return what has a target, and all growth; the other figures are in the plots and in the script's own output."""
    lines = [
        [*row.cells(), document.verdict_word(row.reached)]
        for row in rows
        if row.target is not None or row.table == "growth"
    ]
    return document.table(titles, lines) if lines else "Not measured this time."


def engine_tables(engine: Result) -> dict[str, str]:
    return {
        table: row_table([row for row in engine["rows"] if row.table == table], heads(table))
        for table in ("limit", "floor", "growth")
    }


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
        comparison=tables.figures(comparison["rows"]),
        readings=tables.readings(comparison["rows"]),
        verdicts=tables.verdicts(comparison["verdicts"]),
        rounds=str(comparison["rounds"]),
        duration=f"{comparison['duration']:g}",
        frame_window=str(comparison["window"]),
        error_rate=f"{comparison['error_rate']:g}",
        limit_plot=LIMIT_PLOT,
        speed_plot=SPEED_PLOT,
        cost_plot=COST_PLOT,
    )


def limit_plot(engine: Result) -> Plot:
    """Show how many times better than the limit each workload is, in speed and in cost."""
    ratios: dict[str, dict[str, float]] = {}
    for row in engine["rows"]:
        if row.table == "limit" and row.ratio is not None:
            ratios.setdefault(row.workload, {})[row.quantity] = row.ratio
    speeds = [of["frames/s"] for of in ratios.values()]
    costs = [1 / of["CPU µs/frame"] for of in ratios.values()]
    return document.clustered_plot(
        ["frames/s, Lattivo : limit", "CPU per frame, limit : Lattivo"],
        [list(ratios), speeds, costs],
        "times better than the limit",
        "set xtics rotate by -35",
        "set bmargin 11",
        "set arrow from graph 0, first 1 to graph 1, first 1 nohead linecolor '#666666'",
        height=540,
    )


def write_plots(engine: Result, comparison: Result, folder: Path) -> None:
    limit_plot(engine).write(folder / LIMIT_PLOT)
    tables.speed_plot(comparison["rows"]).write(folder / SPEED_PLOT)
    tables.cost_plot(comparison["rows"]).write(folder / COST_PLOT)


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
