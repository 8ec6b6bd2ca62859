"""Hold measured figures beside others or beside a target, and print them as tables."""

from __future__ import annotations

import statistics
from dataclasses import dataclass
from typing import Iterator, Sequence

from measuring.lab.document import aligned, table

TABLES = {  # what stands above the first column, ours and the other
    "limit": ("workload", "Lattivo", "limit"),
    "floor": ("workload", "Lattivo", "floor"),
    "growth": ("growth", "much", "little"),
    "headless": ("workload", "window", "headless"),
    "alone": ("window alone", "window", ""),
}


@dataclass
class Row:
    """A figure of one workload: the median of all rounds."""

    table: str
    key: str  # of the workload
    workload: str
    quantity: str
    ours: float
    other: float | None = None
    ratio: float | None = None  # ours : other
    lowest: float | None = None  # of the rounds: ratios, or figures where there is no other
    highest: float | None = None
    target: float | None = None  # of the ratio, or of the figure where there is no other
    at_least: bool = False  # the target; at most otherwise

    @property
    def reached(self) -> bool | None:
        """Tell whether the target is reached; None: there is none."""
        if self.target is None:
            return None
        judged = self.ours if self.ratio is None else self.ratio
        return judged >= self.target if self.at_least else judged <= self.target

    def cells(self) -> list[str]:
        """Return the texts of all columns but the verdict."""
        sign = "≥" if self.at_least else "≤"
        target = "" if self.target is None else f"{sign} {number(self.target)}"
        spread = "" if self.lowest is None else f"{self.lowest:.2f}–{self.highest:.2f}"
        return [self.workload, self.quantity, number(self.ours), number(self.other), number(self.ratio), spread, target]


def ratio_row(
    table: str,
    key: str,
    workload: str,
    quantity: str,
    ours: Sequence[float],
    others: Sequence[float],
    target: float | None = None,
    at_least: bool = False,
) -> Row:
    """Compare the medians of all rounds; the ratios of the single rounds tell how far they vary."""
    ratios = [mine / other for mine, other in zip(ours, others)]
    mine, other = statistics.median(ours), statistics.median(others)
    bounds = (min(ratios), max(ratios))
    return Row(table, key, workload, quantity, mine, other, mine / other, *bounds, target, at_least)


def single_row(
    table: str, key: str, workload: str, quantity: str, figures: Sequence[float], target: float | None = None
) -> Row:
    """Hold the median of all rounds against the target."""
    bounds = (min(figures), max(figures))
    return Row(table, key, workload, quantity, statistics.median(figures), None, None, *bounds, target)


def number(value: float | None) -> str:
    if value is None:
        return ""
    return f"{value:,.0f}" if value >= 1000 else f"{value:.2f}"


def heads(name: str) -> list[str]:
    first, ours, other = TABLES[name]
    return [first, "figure", ours, other, "ratio", "rounds", "target", "verdict"]


def by_table(rows: Sequence[Row]) -> Iterator[tuple[str, list[Row]]]:
    """Give each table that has rows."""
    for name in TABLES:
        found = [row for row in rows if row.table == name]
        if found:
            yield name, found


def print_tables(rows: Sequence[Row]) -> None:
    words = {None: "", True: "ok", False: "MISSED"}
    for name, members in by_table(rows):
        lines = [[*row.cells(), words[row.reached]] for row in members]
        print(aligned(table(heads(name), lines, left=heads(name)[:2])), end="\n\n")
