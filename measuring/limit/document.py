#!/usr/bin/env python3
"""Writes docs/performance.md and its plots from the figures of run.py, window.py and compare/compare.py.

The exit code is 0 when every target in them is reached and 1 when one is missed.
"""

import argparse
import json
import os
import pathlib
import platform
import re
import string
import subprocess
import sys

from measuring.lab import disturbance
from measuring.limit import run

TEMPLATE = pathlib.Path(__file__).with_name("performance.md.in")
LIMIT_PLOT, SPEED_PLOT, COST_PLOT = "performance-limit.svg", "performance-frames.svg", "performance-cpu.svg"
PACKAGES = ["libqt5core5a", "vde-switch", "vde-wirefilter", "libvdeplug2", "libns3.37"]

PLOT_HEAD = """set terminal svg size 860,{height} font "sans-serif,13" background "white"
set output "{file}"
set style data histogram
set style histogram clustered gap 1.5
set style fill solid 0.9 noborder
set boxwidth 0.9
set grid ytics linecolor "#dddddd"
set border 3
set tics nomirror
set key above left
set bmargin {margin}
set xrange [-0.6:*]
set yrange [{lowest}:*]
set ylabel "{label}"
"""
COLORS = ("#2f6db3", "#e08a1e")
LOWEST_COST = 0.1  # µs, where the logarithmic axis begins


def table(heads, rows):
    lines = [heads, ["---"] * len(heads)] + rows
    return "\n".join("| " + " | ".join(line) + " |" for line in lines)


def verdict_word(reached):
    return {None: "", True: "reached", False: "**MISSED**"}[reached]


def limit_table(heads, rows):
    """What has a target, and all growth; the other figures are in the plots and in the script's own output."""
    lines = []
    for result in rows:
        if result["target"] is not None or run.kind_of(result) == "growth":
            *figures, _ = run.cells(result)
            lines.append([*figures, verdict_word(result["reached"])])
    return table(heads, lines) if lines else "Not measured this time."


def engine_tables(engine):
    return {name: limit_table(heads, rows) for name, (heads, rows) in run.tables(engine["rows"]).items()}


def comparison_table(comparison):
    heads = ["bytes", "tool", "processes", "frames/s", "rounds", "CPU µs/frame", "of it kernel", "client busy"]
    lines = [comparison_cells(result) for result in comparison["rows"]]
    return table(heads + ["corrupted", "expected"], lines)


def comparison_cells(result):
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


def reading_table(comparison):
    """The better placement of each tool, in every reading of speed."""
    heads = ["bytes", "tool", "frames/s", "million bits carried/s", "million bits decided one by one/s"]
    lines = []
    for result in best_rows(comparison):
        bits = [result[name] / 1e6 for name in ("carried_bits_per_second", "decided_bits_per_second")]
        figures = [f"{result['frames_per_second']:,.0f}"] + [f"{value:,.0f}" for value in bits]
        lines.append([str(result["size"]), result["tool"]] + figures)
    return table(heads, lines)


def best_rows(comparison):
    best = {}
    for result in comparison["rows"]:
        place = (result["size"], result["key"])
        if place not in best or result["frames_per_second"] > best[place]["frames_per_second"]:
            best[place] = result
    return list(best.values())


def verdict_table(comparison):
    heads = ["bytes", "figure", "Lattivo", "other", "ratio", "target", "verdict"]
    lines = []
    for result in comparison["verdicts"]:
        figures = [run.number(result[name]) for name in ("ours", "theirs", "ratio")]
        target = "" if result["target"] is None else f"≥ {result['target']:g}"
        lines.append([str(result["size"]), result["title"], *figures, target, verdict_word(result["reached"])])
    return table(heads, lines)


def judged_targets(engine, comparison, window):
    """What was to be reached, in words, and whether it was."""
    judged = []
    for row in engine["rows"]:
        words = " against the floor" if row["against"] == "floor" else ""
        judged.append((f"{row['workload']}, {row['quantity']}{words}", row["reached"]))
    judged += [(f"with the window: {row['workload']}, {row['quantity']}", row["reached"]) for row in window["rows"]]
    judged += [(f"{row['size']} bytes, {row['title']}", row["reached"]) for row in comparison["verdicts"]]
    return [(words, reached) for words, reached in judged if reached is not None]


def summary(judged):
    missed = [words for words, reached in judged if not reached]
    head = f"{len(judged) - len(missed)} of {len(judged)} targets are reached."
    if not missed:
        return head
    return head + " Missed:\n\n" + "\n".join(f"- **MISSED**: {words}" for words in missed)


def disturbed_runs(engine, window, comparison):
    """Sentences."""
    failures = comparison["failures"]
    made_again = f" Made again because they failed: {'; '.join(failures)}." if failures else ""
    return (
        f"{engine['disturbed_runs']} of {engine['runs']} runs against limit and floor, "
        f"{window['disturbed_runs']} of {window['runs']} with the window and "
        f"{comparison['disturbed_runs']} of {comparison['runs']} beside other tools were disturbed: "
        f"{disturbance.MEANING}. "
        f"A disturbed run against limit or floor had been made {run.TRIES} times, and the least disturbed one counts."
        f"{made_again}"
    )


def machine_table():
    rows = [
        ["processor", f"{processor_model()}, {os.cpu_count()} cores{virtual_note()}"],
        ["kernel", f"{platform.system()} {re.match(r'[0-9.]+', platform.release()).group()}"],
        ["compiler", first_line(["g++", "--version"])],
    ]
    for package in PACKAGES:
        rows.append([package, first_line(["dpkg-query", "--show", "--showformat=${Version}", package])])
    return table(["", ""], rows)


def cpu_info():
    return pathlib.Path("/proc/cpuinfo").read_text()


def processor_model():
    found = re.search(r"^model name\s*:\s*(.*)$", cpu_info(), re.MULTILINE)
    return found.group(1) if found else platform.machine()


def virtual_note():
    return " of a virtual machine" if re.search(r"^flags\s*:.*\bhypervisor\b", cpu_info(), re.MULTILINE) else ""


def first_line(command):
    result = subprocess.run(command, capture_output=True, text=True)
    return result.stdout.splitlines()[0] if result.stdout else "not installed"


def document(engine, comparison, window, machine):
    judged = judged_targets(engine, comparison, window)
    template = string.Template(TEMPLATE.read_text())
    return template.substitute(
        summary=summary(judged),
        disturbance=disturbed_runs(engine, window, comparison),
        machine=machine,
        **engine_tables(engine),
        window=limit_table(run.titles("workload", "window", "without"), window["rows"]),
        comparison=comparison_table(comparison),
        readings=reading_table(comparison),
        verdicts=verdict_table(comparison),
        rounds=comparison["rounds"],
        duration=f"{comparison['duration']:g}",
        frame_window=comparison["window"],
        error_rate=f"{comparison['error_rate']:g}",
        limit_plot=LIMIT_PLOT,
        speed_plot=SPEED_PLOT,
        cost_plot=COST_PLOT,
    )


def data_block(heads, lines):
    head = " ".join(f'"{cell}"' for cell in heads)
    text = "\n".join(f'"{title}" ' + " ".join(values) for title, *values in lines)
    return f"$data << END\n{head}\n{text}\nEND\n"


def clustered_plot(heads, lines, head):
    bars = [
        f'$data using {column}:xtic(1) title columnhead({column}) linecolor rgb "{COLORS[column - 2]}"'
        for column in range(2, len(heads) + 1)
    ]
    return head + data_block(heads, lines) + "plot " + ", ".join(bars) + "\n"


def limit_plot(engine, file):
    """How many times better than the limit each workload is, in speed and in cost."""
    ratios = {}
    for row in engine["rows"]:
        if run.kind_of(row) == "limit" and row["ratio"] is not None:
            ratios.setdefault(row["workload"], {})[row["quantity"]] = row["ratio"]
    heads = ["workload", "frames/s, Lattivo : limit", "CPU per frame, limit : Lattivo"]
    lines = [[title, str(of["frames/s"]), str(1 / of["CPU µs/frame"])] for title, of in ratios.items()]
    head = PLOT_HEAD.format(height=540, margin=11, lowest=0, file=file, label="times better than the limit")
    head += 'set xtics rotate by -35\nset arrow from graph 0, first 1 to graph 1, first 1 nohead linecolor "#666666"\n'
    return clustered_plot(heads, lines, head)


def speed_plot(comparison, file):
    head = PLOT_HEAD.format(height=380, margin=4, lowest=0, file=file, label="frames/s")
    return tools_plot(comparison, "frames_per_second", head + 'set format y "%\'.0f"\n')


def cost_plot(comparison, file):
    label = "CPU µs/frame, all processes (logarithmic)"
    head = PLOT_HEAD.format(height=380, margin=4, lowest=LOWEST_COST, file=file, label=label)
    return tools_plot(comparison, "cpu_us", head + "set logscale y\n")


def tools_plot(comparison, figure, head):
    tools, values = {}, {}
    for row in best_rows(comparison):
        tools[row["key"]] = row["tool"].replace(", ", "\\n")
        values[row["key"], row["size"]] = row[figure]
    sizes = sorted({size for _, size in values})
    heads = ["tool"] + [f"{size} bytes" for size in sizes]
    lines = [[title] + [str(values[key, size]) for size in sizes] for key, title in tools.items()]
    return clustered_plot(heads, lines, head)


def draw(script):
    subprocess.run(["gnuplot"], input=script, text=True, check=True)


def write_plots(engine, comparison, folder):
    draw(limit_plot(engine, folder / LIMIT_PLOT))
    draw(speed_plot(comparison, folder / SPEED_PLOT))
    draw(cost_plot(comparison, folder / COST_PLOT))


def parse_options():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--engine", type=read_json, required=True, metavar="FILE", help="of run.py --json")
    parser.add_argument("--comparison", type=read_json, required=True, metavar="FILE", help="of compare.py --json")
    parser.add_argument("--window", type=read_json, required=True, metavar="FILE", help="of window.py --json")
    parser.add_argument("--output", type=pathlib.Path, required=True, metavar="FOLDER")
    return parser.parse_args()


def read_json(path):
    return json.loads(pathlib.Path(path).read_text())


def main():
    options = parse_options()
    write_plots(options.engine, options.comparison, options.output)
    text = document(options.engine, options.comparison, options.window, machine_table())
    (options.output / "performance.md").write_text(text)
    judged = judged_targets(options.engine, options.comparison, options.window)
    print(summary(judged))
    return 0 if all(reached for _, reached in judged) else 1


if __name__ == "__main__":
    sys.exit(main())
