"""Writes reliability.md from what tests, measurements, fuzzers and the soak have left in the build folder.

A figure whose run is missing says so in its place. The exit code is 1 when a promise does not hold.
"""

from __future__ import annotations

import argparse
import json
import sys
from collections import Counter
from dataclasses import dataclass
from pathlib import Path
from typing import Any

from measuring.lab import document
from measuring.lab.launcher import TOP_FOLDER

TEMPLATE = Path(__file__).resolve().parent / "reliability.md.in"
MEBIBYTE = 1 << 20
MISSING = "not run"

TARGET_TITLES = {
    "simulationfile": "Simulation files, their forms and frames over them: no crash, no leak, no hang",
    "identification": "Identifications: likewise",
    "bridge": "Messages on an attached node: likewise",
}
ATTACK_TITLES = {
    "lengths": "Messages that announce 4 GiB, {messages:,} of them",
    "nonsense": "Random bytes, in the place of an identification and behind one, {rounds:,} times",
    "crowd": "{crowd:,} connections at once that say nothing, {rounds} times",
    "unread": "A program that never reads, until it is dropped, {rounds} times",
}
LENGTHS_A_ROUND = 5  # messages, see measure.py
FULL_MINUTES = 30  # of the soak and of each fuzz target; a shorter run is told
SOAKED = {"asan": "sanitizers", "release": "release build"}


Json = dict[str, Any]


@dataclass
class Row:
    """A promise, and whether it held."""

    promise: str
    figure: str
    holds: bool | None  # None: not run, or not whole


class Sources:
    """Hold what the runs have left; None for a run that is missing."""

    def __init__(self, build: Path) -> None:
        self.tests = load(build / "reliability" / "tests.json")
        self.attacks = load(build / "reliability" / "measurements.json")
        self.fuzz = load(build / "fuzz" / "summary.json")
        self.coverage = load(build / "fuzz" / "coverage.json")
        self.soak = load(build / "soak" / "summary.json")


def load(file: Path) -> Json | None:
    return json.loads(file.read_text(encoding="utf-8")) if file.exists() else None


# Rows


FAULTS = {  # with the tests that show it, by how their names begin
    "A disk that is full or read-only, a folder without permission: the window says so when a file cannot be opened, "
    "the runner also when it cannot be written or closed; the simulation in memory and the other output are unharmed": (
        "TestOutputs.",
        "TestWindow.test_a_disk_",
        "TestWindowInNarrowSurroundings.",
        "Saving.",
    ),
    "A port that is taken or not allowed: the runner ends with code 4; the window says so, and tries again when "
    "asked": ("TestPorts.", "TestWindow.test_a_taken_port_"),
    "A simulation file that is cut, overwritten, replaced or grows while it is loaded: never a crash, never half a "
    "network": ("TestSimulationFile.", "Loading."),
    "The cable to one program is pulled: the others are served, what waits for it is bounded, frames flow again when "
    "the cable is back, and after TCP has given up the program may come again": ("TestNetworkLoss.",),
    "Standard streams closed or full, SIGPIPE, SIGHUP, no home, no locale, a current folder that is gone: no crash, no "
    "hang, nothing written into the wrong place": ("TestSurroundings.",),
}


def fault_rows(sources: Sources) -> list[Row]:
    if not sources.tests:
        return [Row(promise, MISSING, None) for promise in FAULTS]
    return [fault_row(sources.tests["faults"], *fault) for fault in FAULTS.items()]


def fault_row(outcomes: dict[str, str], promise: str, beginnings: tuple[str, ...]) -> Row:
    counts = Counter(outcome for test, outcome in outcomes.items() if test.startswith(beginnings))
    figure = "tests: " + ", ".join(f"{counts[outcome]} {outcome}" for outcome in sorted(counts))
    return Row(promise, figure, False if counts["failed"] else set(counts) == {"passed"} or None)


def attack_rows(sources: Sources) -> list[Row]:
    if not sources.attacks:
        return [Row("Hostile programs take neither memory nor time", MISSING, None)]
    return [attack_row(sources.attacks, name, title) for name, title in ATTACK_TITLES.items()]


def attack_row(measured: Json, name: str, title: str) -> Row:
    attack = measured["attacks"][name]
    rounds = attack["rounds"]
    promise = title.format(rounds=rounds, crowd=measured["crowd"], messages=rounds * LENGTHS_A_ROUND)
    if not attack["survived"]:
        return Row(promise, "the runner or an ordinary frame was lost", False)
    before, peak, limit = (attack[key] / MEBIBYTE for key in ("resident_before", "resident_peak", "growth_limit"))
    figure = (
        f"memory {before:.1f} MiB, at the peak {peak - before:.1f} MiB more (limit {limit:.0f} MiB); "
        f"another pair's frame confirmed after {attack['answer_median_ms']:.2f} ms (median), "
        f"{attack['answer_worst_ms']:.0f} ms (worst of {attack['answers']:,}, limit {attack['answer_limit_ms']:.0f} ms)"
    )
    return Row(promise, figure, attack["holds"])


def fuzz_rows(sources: Sources) -> list[Row]:
    targets = {target["target"]: target for target in sources.fuzz["targets"]} if sources.fuzz else {}
    return [fuzz_row(targets.get(name), title) for name, title in TARGET_TITLES.items()]


def fuzz_row(target: Json | None, title: str) -> Row:
    if not target:
        return Row(title, MISSING, None)
    findings = len(target["findings"])
    figure = (
        f"{target['executions']:,} executions in {duration(target['seconds'])}, {target['edgesCovered']:,} edges, "
        f"at most {target['peakMemoryMiB']} MiB, findings: {findings}"
    )
    return Row(title, figure, findings == 0)


def duration(seconds: float) -> str:
    minutes = round(seconds / 60)
    return f"{minutes} min" + (f" (short: {FULL_MINUTES} min are meant)" if minutes < FULL_MINUTES else "")


def soak_rows(sources: Sources) -> list[Row]:
    if not sources.soak:
        return [Row("A mixture of all of it, for a long time", MISSING, None)]
    builds = {SOAKED.get(name, name): build for name, build in sources.soak["builds"].items()}
    unfinished = [name for name, build in builds.items() if not build or not build["end"]]
    if unfinished:
        return [Row("The soak comes to its end", "not with " + " and ".join(unfinished), False)]
    titles = next(iter(builds.values()))["verdict_titles"]
    return [soak_row(builds, verdict, title) for verdict, title in titles.items()]


def soak_row(builds: dict[str, Json], verdict: str, title: str) -> Row:
    """Return the row of the builds that judge it: the sanitizers keep memory that was given back."""
    judged = {name: build for name, build in builds.items() if build["verdicts"][verdict] is not None}
    figures = [f"{name}: {soak_figure(build, verdict)}" for name, build in judged.items()]
    holds = all(build["verdicts"][verdict] for build in judged.values())
    return Row(title[0].upper() + title[1:], "; ".join(figures), holds)


def soak_figure(build: Json, verdict: str) -> str:
    frames, start, end = build["frames"], build["start"], build["end"]
    operations = sum(build["operations"].values())
    figures = {
        "crash": f"{duration(build['seconds'])}, {operations:,} operations, {build['connections']:,} connections",
        "hang": f"worst answer {build['worst_answer_seconds']:.2f} s (limit {build['answer_limit_seconds']:.0f} s)",
        "honest": f"{frames.get('honest_sent', 0):,} frames sent, {frames.get('honest_received', 0):,} arrived, "
        f"{frames.get('honest_cut_off', 0):,} under way when their simulation was replaced",
        "books": f"{frames.get('books', 0):,} frames",
        "equation": f"{frames.get('links_taken', 0):,} frames taken by links",
        "memory": memory_figure(build),
        "descriptors": f"{sum(start['descriptors'].values())}, then {sum(end['descriptors'].values())}",
        "objects": f"{sum(start['objects'].values())}, then {sum(end['objects'].values())}",
    }
    return figures.get(verdict, "yes" if build["verdicts"][verdict] else "no")


def memory_figure(build: Json) -> str:
    start, end = (build[moment]["resident_bytes"] / MEBIBYTE for moment in ("start", "end"))
    limit = f" (limit {start * build['memory_limit']:.1f} MiB)" if build["memory_limit"] else ""
    return f"{start:.1f} MiB, then {end:.1f} MiB{limit}"


# The document


PARTS = {  # what makes the rows of each table, and the command that measures them
    "attacks": (attack_rows, "scripts/reliability.sh --measure"),
    "fuzz": (fuzz_rows, f"scripts/fuzz.sh {60 * FULL_MINUTES}"),
    "soak": (soak_rows, f"scripts/soak.sh {FULL_MINUTES}"),
    "faults": (fault_rows, "ctest --preset release -R faults"),
}


def table(rows: list[Row], command: str) -> str:
    """Return a table in which a promise that does not hold stands out."""
    words = {True: "", None: "", False: "**does not hold**: "}
    lines = [[row.promise, words[row.holds] + row.figure, f"`{command}`"] for row in rows]
    return document.table(["promise", "figure", "command"], lines)


def texts(sources: Sources) -> dict[str, str]:
    """Return the figures outside the tables."""
    return {
        "machine": f"{document.processors()}, {document.system()}",
        "idle": idle_text(sources),
        "coverage": coverage_text(sources),
        "corpus": f"{kept_inputs('corpus'):,}",
        "regressions": f"{kept_inputs('regressions'):,}",
        "soak_terms": soak_terms(sources),
        "suite": suite_text(sources),
    }


def idle_text(sources: Sources) -> str:
    idle = sources.attacks["attacks"]["idle"] if sources.attacks else None
    return f"{idle['answer_median_ms']:.2f} ms, at worst {idle['answer_worst_ms']:.0f} ms" if idle else MISSING


def coverage_text(sources: Sources) -> str:
    if not sources.coverage:
        return MISSING
    files = sources.coverage["files"]
    covered, lines = (sum(file[key] for file in files) for key in ("linesCovered", "lines"))
    return f"{100 * covered / lines:.0f} % of {lines:,} lines in {len(files)} files"


def kept_inputs(folder: str) -> int:
    return sum(file.is_file() for file in (TOP_FOLDER / "tests" / "fuzz" / folder).rglob("*"))


def soak_terms(sources: Sources) -> str:
    """Tell from when on the levels are compared, and how much memory may grow."""
    if not sources.soak:
        return MISSING
    builds = [(SOAKED.get(name, name), build) for name, build in sources.soak["builds"].items() if build]
    warm_ups = [f"{build['warm_up_seconds'] / 60:.1f} min ({name})" for name, build in builds]
    limits = [f"{100 * (build['memory_limit'] - 1):.0f} % ({name})" for name, build in builds if build["memory_limit"]]
    return f"a warm-up of {', '.join(warm_ups)}; memory may grow by {', '.join(limits)}"


def suite_text(sources: Sources) -> str:
    tests = sources.tests
    return f"{tests['programs']} programs with {tests['functions']:,} test functions" if tests else MISSING


def verdict(rows: dict[str, list[Row]]) -> str:
    counts = Counter(row.holds for part in rows.values() for row in part)
    text = f"Of the {sum(counts.values())} promises in the tables below, {counts[True]} held in these runs"
    broken = f", {counts[False]} did **not** hold" if counts[False] else ""
    missing = f", for {counts[None]} no whole run is at hand" if counts[None] else ""
    return text + broken + missing + "."


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", type=Path, default=TOP_FOLDER / "build")
    parser.add_argument("--output", type=Path, required=True, metavar="FOLDER")
    options = parser.parse_args()
    sources = Sources(options.build)
    rows = {name: rows_of(sources) for name, (rows_of, _) in PARTS.items()}
    tables = {name: table(rows[name], command) for name, (_, command) in PARTS.items()}
    document.write(TEMPLATE, options.output / "reliability.md", verdict=verdict(rows), **tables, **texts(sources))
    return 1 if any(row.holds is False for part in rows.values() for row in part) else 0


if __name__ == "__main__":
    sys.exit(main())
