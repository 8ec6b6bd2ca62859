"""Show what the comparison with other tools has measured, in the terminal and in the document."""

from __future__ import annotations

from typing import Any, Sequence

from measuring.lab.document import Plot, clustered_plot, table, verdict_word
from measuring.lab.rows import number

LOWEST_COST = 0.1  # µs, where the logarithmic axis begins

Row = dict[str, Any]  # of the comparison


def figures(rows: Sequence[Row]) -> str:
    heads = ["bytes", "tool", "processes", "frames/s", "rounds", "CPU µs/frame", "of it kernel", "client busy"]
    return table([*heads, "corrupted", "expected"], [cells(row) for row in rows])


def cells(row: Row) -> list[str]:
    return [
        str(row["size"]),
        row["tool"],
        row["placement"],
        f"{row['frames_per_second']:,.0f}",
        f"{row['lowest']:,.0f}–{row['highest']:,.0f}",
        f"{row['cpu_us']:.2f}",
        f"{row['kernel_share']:.0%}",
        f"{row['client_share']:.0%}",
        f"{row['corrupted_share']:.4f}",
        f"{row['expected_share']:.4f}",
    ]


def readings(rows: Sequence[Row]) -> str:
    """Return the better placement of each tool, in every reading of speed."""
    heads = ["bytes", "tool", "frames/s", "million bits carried/s", "million bits decided one by one/s"]
    lines = []
    for row in best_rows(rows):
        bits = [row[name] / 1e6 for name in ("carried_bits_per_second", "decided_bits_per_second")]
        lines.append([str(row["size"]), row["tool"]] + [f"{value:,.0f}" for value in [row["frames_per_second"], *bits]])
    return table(heads, lines)


def best_rows(rows: Sequence[Row]) -> list[Row]:
    best: dict[tuple[int, str], Row] = {}
    for row in rows:
        place = (row["size"], row["key"])
        if place not in best or row["frames_per_second"] > best[place]["frames_per_second"]:
            best[place] = row
    return list(best.values())


def verdicts(judged: Sequence[Row]) -> str:
    lines = []
    for row in judged:
        values = [number(row[name]) for name in ("ours", "theirs", "ratio")]
        target = "" if row["target"] is None else f"≥ {row['target']:g}"
        lines.append([str(row["size"]), row["title"], *values, target, verdict_word(row["reached"])])
    return table(["bytes", "figure", "Lattivo", "other", "ratio", "target", "verdict"], lines)


def speed_plot(rows: Sequence[Row]) -> Plot:
    return tools_plot(rows, "frames_per_second", "frames/s", 'set format y "%\'.0f"')


def cost_plot(rows: Sequence[Row]) -> Plot:
    label = "CPU µs/frame, all processes (logarithmic)"
    return tools_plot(rows, "cpu_us", label, "set logscale y", f"set yrange [{LOWEST_COST}:*]")


def tools_plot(rows: Sequence[Row], figure: str, label: str, *settings: str) -> Plot:
    best = best_rows(rows)
    sizes = sorted({row["size"] for row in best})
    tools = [row["tool"].replace(", ", "\\n") for row in best if row["size"] == sizes[0]]
    columns = [[row[figure] for row in best if row["size"] == size] for size in sizes]
    titles = [f"{size} bytes" for size in sizes]
    return clustered_plot(titles, [tools, *columns], label, "set bmargin 4", *settings)
