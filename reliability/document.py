#!/usr/bin/env python3
"""Writes docs/reliability.md from what tests, measurements, fuzzers and the soak have left in the build folder.

A figure whose run is missing says so in its place. The exit code is 1 when a promise does not hold.
"""

from __future__ import annotations

import argparse
import json
import os
import pathlib
import platform
import re
import string
import subprocess
import sys
import unittest
from collections import Counter
from dataclasses import dataclass
from typing import Iterator

ROOT = pathlib.Path(__file__).resolve().parent.parent
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
SOAKED = {"asan": "sanitizers", "release": "release build"}


@dataclass
class Row:
    promise: str
    figure: str
    command: str
    holds: bool | None = True  # None: not run


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
    """How large the suite is; and, from what CTest --verbose has printed, how the machine's faults were borne."""
    in_process = re.search(r"Totals: (\d+) passed, (\d+) failed, (\d+) skipped", log)
    with_programs = re.search(r"Ran (\d+) tests.*?(OK|FAILED)(?: \((.*?)\))?$", log, re.DOTALL | re.MULTILINE)
    if not in_process or not with_programs:
        raise ValueError("the tests of faults have not been run to their end")
    skipped = re.search(r"skipped=(\d+)", with_programs.group(3) or "")
    commands = [command[0] for command in test_commands(build)]
    programs = {pathlib.Path(path).name: functions_of(path) for path in commands if "/tst_" in path}
    return {
        "programs": len(commands),
        "functions": sum(map(len, programs.values())) + sum(python_tests().values()),
        "fault_classes": {**python_tests(), **file_fault_classes(programs["tst_filefaults"])},
        "faults_skipped": int(in_process.group(3)) + int(skipped.group(1) if skipped else 0),
        "faults_passed": in_process.group(2) == "0" and with_programs.group(2) == "OK",
    }


def test_commands(build: pathlib.Path) -> list[list[str]]:
    listing = subprocess.run(
        ["ctest", "--test-dir", str(build), "--show-only=json-v1"], capture_output=True, check=True, text=True
    )
    return [test["command"] for test in json.loads(listing.stdout)["tests"]]


def functions_of(program: str) -> list[str]:
    environment = {**os.environ, "QT_QPA_PLATFORM": "offscreen"}
    listing = subprocess.run([program, "-functions"], capture_output=True, check=True, text=True, env=environment)
    return listing.stdout.splitlines()


def python_tests() -> Counter[str]:
    """How many tests each class has."""

    def cases(tests: unittest.TestSuite | unittest.TestCase) -> Iterator[str]:
        if isinstance(tests, unittest.TestCase):
            yield f"{type(tests).__module__}.{type(tests).__name__}"
            return
        for test in tests:
            yield from cases(test)

    return Counter(cases(unittest.defaultTestLoader.discover(str(ROOT / "tests"))))


def file_fault_classes(functions: list[str]) -> dict[str, int]:
    loading = sum("WhileItLoads" in name for name in functions)
    return {"Loading": loading, "Saving": len(functions) - loading}


# Rows


def suite_rows(sources: Sources) -> list[Row]:
    command = "scripts/test.sh"
    if not sources.tests:
        return [Row("Every test passes, plain and under the sanitizers", MISSING, command, None)]
    size = f"{sources.tests['programs']} programs, {sources.tests['functions']:,} test functions"
    sanitizers = "Every test passes, plain and under the address and undefined-behaviour sanitizers"
    return [
        Row(sanitizers, size + ", all of them in CI at every push", command),
        Row("clang-tidy and clazy find nothing", "no finding is allowed, in CI at every push", "scripts/check.sh"),
    ]


FAULTS = {  # with the test classes that show it
    "A disk that is full or read-only, a folder without permission: the window says so when a file cannot be opened, "
    "the runner also when it cannot be written or closed; the simulation in memory and the other output are unharmed": (
        "test_faults.TestOutputs",
        "test_faults.TestWindow",
        "test_faults.TestWindowInNarrowSurroundings",
        "Saving",
    ),
    "A port that is taken or not allowed: the runner ends with code 4; the window says so, and tries again when "
    "asked": ("test_faults.TestPorts",),
    "A simulation file that is cut, overwritten, replaced or grows while it is loaded: never a crash, never half a "
    "network": ("test_faults.TestSimulationFile", "Loading"),
    "The cable to one program is pulled: the others are served, what waits for it is bounded, frames flow again when "
    "the cable is back, and after TCP has given up the program may come again": ("test_faults.TestNetworkLoss",),
    "Standard streams closed or full, SIGPIPE, SIGHUP, no home, no locale, a current folder that is gone: no crash, no "
    "hang, nothing written into the wrong place": ("test_faults.TestSurroundings",),
}


def fault_rows(sources: Sources) -> list[Row]:
    command = "ctest --preset release -R faults"
    tests = sources.tests
    if not tests:
        return [Row(promise, MISSING, command, None) for promise in FAULTS]
    skipped = f", {tests['faults_skipped']} in all skipped" if tests["faults_skipped"] else ""
    rows = []
    for promise, classes in FAULTS.items():
        count = sum(tests["fault_classes"][name] for name in classes)
        rows.append(Row(promise, f"{count} tests{skipped}", command, tests["faults_passed"]))
    return rows


def attack_rows(sources: Sources) -> list[Row]:
    command = "scripts/reliability.sh --measure"
    if not sources.attacks:
        return [Row("Hostile programs take neither memory nor time", MISSING, command, None)]
    return [attack_row(sources.attacks, name, title, command) for name, title in ATTACK_TITLES.items()]


def attack_row(measured: dict, name: str, title: str, command: str) -> Row:
    attack = measured["attacks"][name]
    rounds = attack["rounds"]
    promise = title.format(rounds=rounds, crowd=measured["crowd"], messages=rounds * LENGTHS_A_ROUND)
    before, peak = (attack[key] / MEBIBYTE for key in ("resident_before", "resident_peak"))
    figure = (
        f"memory {before:.1f} MiB, at most {peak:.1f} MiB; another pair's frame confirmed after "
        f"{attack['answer_median_ms']:.2f} ms (median), {attack['answer_worst_ms']:.0f} ms "
        f"(worst of {attack['answers']:,})"
    )
    return Row(promise, figure, command, attack["survived"])


def fuzz_rows(sources: Sources) -> list[Row]:
    command = "scripts/fuzz.sh SECONDS"
    if not sources.fuzz:
        return [Row(title, MISSING, command, None) for title in TARGET_TITLES.values()]
    targets = sorted(sources.fuzz["targets"], key=lambda target: list(TARGET_TITLES).index(target["target"]))
    rows = [fuzz_row(target, command) for target in targets]
    if sources.coverage:
        covered, lines = (sum(file[key] for file in sources.coverage["files"]) for key in ("linesCovered", "lines"))
        figure = f"{100 * covered / lines:.0f} % of {lines:,} lines in {len(sources.coverage['files'])} files"
        title = "What the inputs reach of the parsers and of what they feed"
        rows.append(Row(title, figure, "scripts/fuzz.sh --coverage"))
    return rows


def fuzz_row(target: dict, command: str) -> Row:
    findings = len(target["findings"])
    figure = (
        f"{target['executions']:,} executions in {target['seconds'] / 60:.0f} min, {target['edgesCovered']:,} edges, "
        f"at most {target['peakMemoryMiB']} MiB, {findings} findings"
    )
    return Row(TARGET_TITLES[target["target"]], figure, command, findings == 0)


def kept_inputs() -> int:
    folders = [folder for folder in (ROOT / "fuzz" / "corpus", ROOT / "fuzz" / "regressions") if folder.is_dir()]
    return sum(file.is_file() for folder in folders for file in folder.rglob("*"))


def soak_rows(sources: Sources) -> list[Row]:
    command = "scripts/soak.sh MINUTES"
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
        "crash": f"{build['seconds'] / 60:.0f} min, {operations:,} operations, {build['connections']:,} connections",
        "hang": f"worst answer {build['worst_answer_seconds']:.2f} s",
        "honest": f"{frames.get('honest_sent', 0):,} frames sent, {frames.get('honest_received', 0):,} arrived",
        "books": f"{frames.get('books', 0):,} frames",
        "equation": f"{frames.get('links_taken', 0):,} frames taken by links",
        "memory": f"{start['resident_bytes'] / MEBIBYTE:.1f} MiB, then {end['resident_bytes'] / MEBIBYTE:.1f} MiB",
        "descriptors": f"{sum(start['descriptors'].values())}, then {sum(end['descriptors'].values())}",
        "objects": f"{sum(start['objects'].values())}, then {sum(end['objects'].values())}",
    }
    return figures.get(verdict, "yes" if build["verdicts"][verdict] else "no")


# The document


def table(rows: list[Row]) -> str:
    """Promise, figure, command; a promise that does not hold stands out."""
    lines = ["| promise | figure | command |", "| --- | --- | --- |"]
    for row in rows:
        figure = row.figure
        if row.holds is False:
            figure = "**does not hold**: " + figure
        lines.append(f"| {row.promise} | {figure} | `{row.command}` |")
    return "\n".join(lines)


def machine() -> str:
    models = lines_of("/proc/cpuinfo", r"model name\s*:\s*(.*)")
    systems = lines_of("/etc/os-release", r'PRETTY_NAME="(.*)"')
    processors = f"{len(models)} × {models[0]}" if models else platform.machine()
    return f"{processors}, {systems[0] if systems else platform.system()}"


def lines_of(file: str, pattern: str) -> list[str]:
    return re.findall(f"^{pattern}$", pathlib.Path(file).read_text(encoding="utf-8"), re.MULTILINE)


def all_rows(sources: Sources) -> dict[str, list[Row]]:
    return {
        "attacks": attack_rows(sources),
        "fuzz": fuzz_rows(sources),
        "soak": soak_rows(sources),
        "faults": fault_rows(sources),
        "suite": suite_rows(sources),
    }


def document(sources: Sources, rows: dict[str, list[Row]]) -> str:
    idle = sources.attacks["attacks"]["idle"] if sources.attacks else None
    idle_text = f"{idle['answer_median_ms']:.2f} ms, at worst {idle['answer_worst_ms']:.0f} ms" if idle else MISSING
    tables = {name: table(part) for name, part in rows.items()}
    template = string.Template(TEMPLATE.read_text(encoding="utf-8"))
    return template.substitute(
        tables, machine=machine(), verdict=verdict(rows), idle=idle_text, inputs=f"{kept_inputs():,}"
    )


def verdict(rows: dict[str, list[Row]]) -> str:
    flat = [row for part in rows.values() for row in part]
    broken = sum(row.holds is False for row in flat)
    missing = sum(row.holds is None for row in flat)
    text = f"{broken} of the promises below do **not** hold." if broken else "The promises below held in these runs."
    return text + (f" Of {missing} of them no run is at hand." if missing else "")


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", type=pathlib.Path, default=ROOT / "build")
    parser.add_argument("--output", type=pathlib.Path, default=ROOT / "docs" / "reliability.md")
    parser.add_argument("--test-log", type=pathlib.Path, help="sum this up first: ctest --verbose -R faults")
    parser.add_argument("--test-build", type=pathlib.Path, default=ROOT / "build" / "release", help="of that log")
    options = parser.parse_args()
    if options.test_log:
        summary = summarise_tests(options.test_build, options.test_log.read_text(encoding="utf-8", errors="replace"))
        file = options.build / "reliability" / "tests.json"
        file.write_text(json.dumps(summary, indent=2) + "\n", encoding="utf-8")
    sources = Sources(options.build)
    rows = all_rows(sources)
    options.output.write_text(document(sources, rows), encoding="utf-8")
    return 1 if any(row.holds is False for part in rows.values() for row in part) else 0


if __name__ == "__main__":
    sys.exit(main())
