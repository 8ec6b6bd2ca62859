#!/usr/bin/env python3
"""Writes docs/reliability.md from what tests, measurements, fuzzers and the soak have left in the build folder.

A figure whose run is missing says so in its place. The exit code is 1 when a promise does not hold, 2 when the tests of
faults did not come to their end.
"""

from __future__ import annotations

import argparse
import json
import os
import pathlib
import re
import subprocess
import sys
import unittest
from collections import Counter
from dataclasses import dataclass
from typing import Iterator

from measuring.lab import document

ROOT = pathlib.Path(__file__).resolve().parents[2]
TEMPLATE = pathlib.Path(__file__).resolve().parent / "reliability.md.in"
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


@dataclass
class Row:
    promise: str
    figure: str
    command: str
    holds: bool | None  # None: not run, or not whole


class Sources:
    """What the runs have left; None for a run that is missing."""

    def __init__(self, build: pathlib.Path) -> None:
        self.tests = load(build / "reliability" / "tests.json")
        self.attacks = load(build / "reliability" / "measurements.json")
        self.fuzz = load(build / "fuzz" / "summary.json")
        self.coverage = load(build / "fuzz" / "coverage.json")
        self.soak = load(build / "soak" / "summary.json")


def load(file: pathlib.Path) -> dict | None:
    return json.loads(file.read_text(encoding="utf-8")) if file.exists() else None


# The suite


def summarise_tests(build: pathlib.Path, log: str) -> dict[str, object]:
    """How large the suite is; and, from what the tests of faults have printed, what became of each."""
    if "Totals: " not in log or not re.search(r"^Ran \d+ tests", log, re.MULTILINE):
        raise ValueError("the tests of faults have not been run to their end")
    commands = [command[0] for command in test_commands(build)]
    programs = {pathlib.Path(path).name: functions_of(path) for path in commands if "/tst_" in path}
    with_programs = python_tests()
    in_process = [file_fault(function) for function in re.findall(r"\w+", " ".join(programs["tst_filefaults"]))]
    faults = [test for test in with_programs if test.startswith("test_faults.")] + in_process
    outcomes = {**outcomes_in_process(log), **outcomes_with_programs(log)}
    return {
        "programs": len(commands),
        "functions": sum(map(len, programs.values())) + len(with_programs),
        "faults": {test: outcomes.get(test, "failed") for test in faults},  # failed: did not come to an end
    }


def outcomes_in_process(log: str) -> dict[str, str]:
    """Of a function that runs once for each row of its data, the worst."""
    outcomes: dict[str, str] = {}
    words = {"FAIL!": "failed", "SKIP": "skipped", "PASS": "passed"}
    for word, function in re.findall(r"^(FAIL!|SKIP|PASS) +: TestFileFaults::(\w+)\(", log, re.MULTILINE):
        test = file_fault(function)
        outcomes[test] = min(words[word], outcomes.get(test, "passed"), key=list(words.values()).index)
    return outcomes


def outcomes_with_programs(log: str) -> dict[str, str]:
    """What a program prints may stand between a test and its outcome; the tracebacks come behind all tests."""
    outcomes = {}
    pieces = re.split(r"^test_\w+ \((test_faults\.[\w.]+)\)", log.split("\n======")[0], flags=re.MULTILINE)
    for test, text in zip(pieces[1::2], pieces[2::2]):
        words = re.findall(r"(?:\.\.\. |^)(ok|skipped|FAIL|ERROR)\b", text, re.MULTILINE)
        has_failed = not words or "FAIL" in words or "ERROR" in words
        outcomes[test] = "failed" if has_failed else "skipped" if "skipped" in words else "passed"
    return outcomes


def file_fault(function: str) -> str:
    return ("Loading." if "WhileItLoads" in function else "Saving.") + function


def test_commands(build: pathlib.Path) -> list[list[str]]:
    listing = subprocess.run(
        ["ctest", "--test-dir", str(build), "--show-only=json-v1"], capture_output=True, check=True, text=True
    )
    tests = json.loads(listing.stdout)["tests"]
    missing = [test["name"] for test in tests if "command" not in test]
    if missing:
        raise ValueError("these tests have not been built: " + ", ".join(missing))
    return [test["command"] for test in tests]


def functions_of(program: str) -> list[str]:
    environment = {**os.environ, "QT_QPA_PLATFORM": "offscreen"}
    listing = subprocess.run([program, "-functions"], capture_output=True, check=True, text=True, env=environment)
    return listing.stdout.splitlines()


def python_tests() -> list[str]:
    def names(tests: unittest.TestSuite | unittest.TestCase) -> Iterator[str]:
        if isinstance(tests, unittest.TestCase):
            yield tests.id()
            return
        for test in tests:
            yield from names(test)

    found = list(names(unittest.defaultTestLoader.discover(str(ROOT / "tests" / "system"), top_level_dir=str(ROOT))))
    broken = [name for name in found if "_FailedTest" in name]
    if broken:
        raise ValueError("these tests cannot be loaded: " + ", ".join(broken))
    return found


# Rows


FAULTS = {  # with the tests that show it, by how their names begin
    "A disk that is full or read-only, a folder without permission: the window says so when a file cannot be opened, "
    "the runner also when it cannot be written or closed; the simulation in memory and the other output are unharmed": (
        "test_faults.TestOutputs.",
        "test_faults.TestWindow.test_a_disk_",
        "test_faults.TestWindowInNarrowSurroundings.",
        "Saving.",
    ),
    "A port that is taken or not allowed: the runner ends with code 4; the window says so, and tries again when "
    "asked": ("test_faults.TestPorts.", "test_faults.TestWindow.test_a_taken_port_"),
    "A simulation file that is cut, overwritten, replaced or grows while it is loaded: never a crash, never half a "
    "network": ("test_faults.TestSimulationFile.", "Loading."),
    "The cable to one program is pulled: the others are served, what waits for it is bounded, frames flow again when "
    "the cable is back, and after TCP has given up the program may come again": ("test_faults.TestNetworkLoss.",),
    "Standard streams closed or full, SIGPIPE, SIGHUP, no home, no locale, a current folder that is gone: no crash, no "
    "hang, nothing written into the wrong place": ("test_faults.TestSurroundings.",),
}


def fault_rows(sources: Sources) -> list[Row]:
    command = "ctest --preset release -R faults"
    if not sources.tests:
        return [Row(promise, MISSING, command, None) for promise in FAULTS]
    return [fault_row(sources.tests["faults"], *fault, command) for fault in FAULTS.items()]


def fault_row(outcomes: dict[str, str], promise: str, beginnings: tuple[str, ...], command: str) -> Row:
    counts = Counter(outcome for test, outcome in outcomes.items() if test.startswith(beginnings))
    figure = "tests: " + ", ".join(f"{counts[outcome]} {outcome}" for outcome in sorted(counts))
    return Row(promise, figure, command, False if counts["failed"] else set(counts) == {"passed"} or None)


def attack_rows(sources: Sources) -> list[Row]:
    command = "scripts/reliability.sh --measure"
    if not sources.attacks:
        return [Row("Hostile programs take neither memory nor time", MISSING, command, None)]
    return [attack_row(sources.attacks, name, title, command) for name, title in ATTACK_TITLES.items()]


def attack_row(measured: dict, name: str, title: str, command: str) -> Row:
    attack = measured["attacks"][name]
    rounds = attack["rounds"]
    promise = title.format(rounds=rounds, crowd=measured["crowd"], messages=rounds * LENGTHS_A_ROUND)
    if not attack["survived"]:
        return Row(promise, "the runner or an ordinary frame was lost", command, False)
    before, peak, limit = (attack[key] / MEBIBYTE for key in ("resident_before", "resident_peak", "growth_limit"))
    figure = (
        f"memory {before:.1f} MiB, at the peak {peak - before:.1f} MiB more (limit {limit:.0f} MiB); "
        f"another pair's frame confirmed after {attack['answer_median_ms']:.2f} ms (median), "
        f"{attack['answer_worst_ms']:.0f} ms (worst of {attack['answers']:,}, limit {attack['answer_limit_ms']:.0f} ms)"
    )
    return Row(promise, figure, command, attack["holds"])


def fuzz_rows(sources: Sources) -> list[Row]:
    command = f"scripts/fuzz.sh {60 * FULL_MINUTES}"
    targets = {target["target"]: target for target in sources.fuzz["targets"]} if sources.fuzz else {}
    return [fuzz_row(targets.get(name), title, command) for name, title in TARGET_TITLES.items()]


def fuzz_row(target: dict | None, title: str, command: str) -> Row:
    if not target:
        return Row(title, MISSING, command, None)
    findings = len(target["findings"])
    figure = (
        f"{target['executions']:,} executions in {duration(target['seconds'])}, {target['edgesCovered']:,} edges, "
        f"at most {target['peakMemoryMiB']} MiB, findings: {findings}"
    )
    return Row(title, figure, command, findings == 0)


def duration(seconds: float) -> str:
    minutes = round(seconds / 60)
    return f"{minutes} min" + (f" (short: {FULL_MINUTES} min are meant)" if minutes < FULL_MINUTES else "")


def soak_rows(sources: Sources) -> list[Row]:
    command = f"scripts/soak.sh {FULL_MINUTES}"
    if not sources.soak:
        return [Row("A mixture of all of it, for a long time", MISSING, command, None)]
    builds = {SOAKED.get(name, name): build for name, build in sources.soak["builds"].items()}
    unfinished = [name for name, build in builds.items() if not build or not build["end"]]
    if unfinished:
        return [Row("The soak comes to its end", "not with " + " and ".join(unfinished), command, False)]
    titles = next(iter(builds.values()))["verdict_titles"]
    return [soak_row(builds, verdict, title, command) for verdict, title in titles.items()]


def soak_row(builds: dict[str, dict], verdict: str, title: str, command: str) -> Row:
    """Only of the builds that judge it: the sanitizers keep memory that was given back."""
    judged = {name: build for name, build in builds.items() if build["verdicts"][verdict] is not None}
    figures = [f"{name}: {soak_figure(build, verdict)}" for name, build in judged.items()]
    holds = all(build["verdicts"][verdict] for build in judged.values())
    return Row(title[0].upper() + title[1:], "; ".join(figures), command, holds)


def soak_figure(build: dict, verdict: str) -> str:
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


def memory_figure(build: dict) -> str:
    start, end = (build[moment]["resident_bytes"] / MEBIBYTE for moment in ("start", "end"))
    limit = f" (limit {start * build['memory_limit']:.1f} MiB)" if build["memory_limit"] else ""
    return f"{start:.1f} MiB, then {end:.1f} MiB{limit}"


# The document


def table(rows: list[Row]) -> str:
    """Return promise, figure and command; a promise that does not hold stands out."""
    lines = []
    for row in rows:
        figure = f"**does not hold**: {row.figure}" if row.holds is False else row.figure
        lines.append([row.promise, figure, f"`{row.command}`"])
    return document.table(["promise", "figure", "command"], lines)


def all_rows(sources: Sources) -> dict[str, list[Row]]:
    return {
        "attacks": attack_rows(sources),
        "fuzz": fuzz_rows(sources),
        "soak": soak_rows(sources),
        "faults": fault_rows(sources),
    }


def texts(sources: Sources) -> dict[str, str]:
    """The figures outside the tables."""
    return {
        "machine": f"{document.processors()}; {document.system()}",
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
    return sum(file.is_file() for file in (ROOT / "tests" / "fuzz" / folder).rglob("*"))


def soak_terms(sources: Sources) -> str:
    """From when on the levels are compared, and how much memory may grow."""
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
    parser.add_argument("--build", type=pathlib.Path, default=ROOT / "build")
    parser.add_argument("--output", type=pathlib.Path, default=ROOT / "docs" / "reliability.md")
    parser.add_argument("--test-log", type=pathlib.Path, help="what the tests of faults have printed")
    parser.add_argument("--test-build", type=pathlib.Path, default=ROOT / "build" / "release", help="of that log")
    options = parser.parse_args()
    if options.test_log:
        log = options.test_log.read_text(encoding="utf-8", errors="replace")
        try:
            summary = summarise_tests(options.test_build, log)
        except ValueError as error:
            print(error, file=sys.stderr)
            return 2
        file = options.build / "reliability" / "tests.json"
        file.write_text(json.dumps(summary, indent=2) + "\n", encoding="utf-8")
    sources = Sources(options.build)
    rows = all_rows(sources)
    tables = {name: table(part) for name, part in rows.items()}
    document.write(TEMPLATE, options.output, **tables, verdict=verdict(rows), **texts(sources))
    return 1 if any(row.holds is False for part in rows.values() for row in part) else 0


if __name__ == "__main__":
    sys.exit(main())
