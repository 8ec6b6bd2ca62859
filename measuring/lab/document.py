"""Write documents of measured figures: tables, plots, the machine, and the text around them."""

from __future__ import annotations

import os
import platform
import re
import string
import subprocess
from pathlib import Path
from typing import Iterable, Sequence

BAR_COLORS = ("#2f6db3", "#e08a1e")


def write(template: Path, output: Path, **texts: object) -> None:
    """Fill the $names of a template; a name without a text raises KeyError."""
    text = string.Template(template.read_text(encoding="utf-8")).substitute(texts)
    output.parent.mkdir(parents=True, exist_ok=True)
    output.write_text(text, encoding="utf-8")


def table(heads: Sequence[str], rows: Iterable[Sequence[str]], left: Sequence[str] | None = None) -> str:
    """Return a table; the columns in `left` begin at the left, the others end at the right. None: all at the left."""
    ruler = ["---" if left is None or head in left else "--:" for head in heads]
    return "\n".join("| " + " | ".join(line) + " |" for line in [heads, ruler, *rows])


def aligned(text: str) -> str:
    """Return a table as a terminal shows it best."""
    lines = [[cell.strip() for cell in line.strip("|").split("|")] for line in text.splitlines()]
    widths = [max(map(len, column)) for column in zip(*lines)]
    sides = [">" if mark.endswith(":") else "<" for mark in lines[1]]
    lines[1] = ["-" * width for width in widths]
    return "\n".join(
        "  ".join(f"{cell:{side}{width}}" for cell, side, width in zip(line, sides, widths)) for line in lines
    )


def verdict_word(reached: bool | None) -> str:
    return {None: "", True: "reached", False: "**MISSED**"}[reached]


def machine_table(packages: Sequence[str]) -> str:
    """Return what the figures depend on, with the versions of Debian's packages."""
    rows = [
        ["processor", processors()],
        ["kernel", f"{platform.system()} {platform.release().partition('-')[0]}"],
        ["compiler", first_line("g++", "--version")],
    ]
    rows += [[package, first_line("dpkg-query", "--show", "--showformat=${Version}", package)] for package in packages]
    return table(["", ""], rows)


def processors() -> str:
    info = Path("/proc/cpuinfo").read_text(encoding="utf-8")
    model = re.search(r"^model name\s*:\s*(.*)$", info, re.MULTILINE)
    note = " of a virtual machine" if re.search(r"^flags\s*:.*\bhypervisor\b", info, re.MULTILINE) else ""
    return f"{model.group(1) if model else platform.machine()}, {os.cpu_count()} cores{note}"


def system() -> str:
    """Return the name of the distribution."""
    name = re.search(r'^PRETTY_NAME="(.*)"$', Path("/etc/os-release").read_text(encoding="utf-8"), re.MULTILINE)
    return name.group(1) if name else platform.system()


def first_line(*command: str) -> str:
    result = subprocess.run(command, capture_output=True, text=True)
    return result.stdout.splitlines()[0] if result.stdout else "not installed"


class Plot:
    """A script for gnuplot with the data in it."""

    def __init__(self, *settings: str, width: int = 760, height: int = 420, key: str = "top left") -> None:
        self.settings = [
            f"set terminal svg size {width},{height} font 'DejaVu Sans,12' background 'white'",
            "set grid lc rgb '#dddddd'",
            f"set key {key}",
            *settings,
        ]
        self._data: list[str] = []
        self._curves: list[str] = []

    def add(self, columns: Sequence[Iterable[object]], *styles: str) -> None:
        """Add columns of numbers or texts; each style is what gnuplot wants behind the data, and gives a curve."""
        name = f"$data{len(self._data)}"
        rows = "\n".join(" ".join(map(cell, row)) for row in zip(*columns))
        self._data.append(f"{name} << END\n{rows}\nEND")
        self._curves += [f"{name} {style}" for style in styles]

    def write(self, file: Path) -> None:
        script = [*self.settings, f"set output '{file}'", *self._data, "plot " + ", ".join(self._curves)]
        subprocess.run(["gnuplot"], input="\n".join(script), text=True, check=True)


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
        for place, (title, color) in enumerate(zip(titles, BAR_COLORS), start=2)
    ]
    plot.add(columns, *bars)
    return plot


def cell(value: object) -> str:
    return f'"{value}"' if isinstance(value, str) else f"{value:.6g}"
