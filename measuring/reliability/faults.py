"""Runs the tests of the machine's faults, and writes the result of each and the size of the whole suite.

Exit code 2: the tests could not be run. The document reports a test that fails.
"""

from __future__ import annotations

import argparse
import json
import os
import re
import subprocess
import sys
import unittest
from pathlib import Path
from typing import Iterator

from measuring.lab.launcher import TOP_FOLDER

MODULES = ["tests.system.test_faults", "tests.system.test_networkfaults", "tests.system.test_windowfaults"]
IN_PROCESS = "tst_filefaults"
PATIENCE = 300.0  # s
WORDS = {"FAIL!": "failed", "SKIP": "skipped", "PASS": "passed"}  # the worst first


class Failure(Exception):
    """The tests could not be run."""


def cases_of(tests: unittest.TestSuite | unittest.TestCase) -> Iterator[unittest.TestCase]:
    if isinstance(tests, unittest.TestCase):
        yield tests
        return
    for test in tests:
        yield from cases_of(test)


def run_with_programs() -> dict[str, str]:
    """Return the result of each test, by class and name."""
    suite = unittest.defaultTestLoader.loadTestsFromNames(MODULES)
    names = [test.id() for test in cases_of(suite)]
    result = unittest.TextTestRunner(verbosity=2).run(suite)
    outcomes = dict.fromkeys(names, "passed")
    for outcome, troubles in (("skipped", result.skipped), ("failed", result.failures + result.errors)):
        for test, text in troubles:
            name = test.id().split(" ")[0]  # a sub-test has its parameters behind it
            if name not in outcomes:
                raise Failure(f"{test.id()}: {text}")
            outcomes[name] = outcome
    return {name.split(".", 3)[-1]: outcome for name, outcome in outcomes.items()}


def run_in_process(program: Path) -> dict[str, str]:
    """Return likewise; of a function that runs once for each row of its data, the worst."""
    environment = {**os.environ, "QT_QPA_PLATFORM": "offscreen"}
    run = subprocess.run([program], stdout=subprocess.PIPE, text=True, timeout=PATIENCE, env=environment)
    print(run.stdout)
    if "Totals: " not in run.stdout:
        raise Failure(f"{program} has not come to its end")
    outcomes: dict[str, str] = {}
    for word, function in re.findall(
        r"^(FAIL!|SKIP|PASS) +: \w+::(?!initTest|cleanupTest)(\w+)\(", run.stdout, re.MULTILINE
    ):
        name = ("Loading." if "WhileItLoads" in function else "Saving.") + function
        outcomes[name] = min(WORDS[word], outcomes.get(name, "passed"), key=list(WORDS.values()).index)
    return outcomes


def size_of_suite(build: Path) -> dict[str, int]:
    """Return how many programs the suite has, and how many test functions are in them."""
    listing = ["ctest", "--test-dir", str(build), "--show-only=json-v1"]
    tests = json.loads(subprocess.run(listing, capture_output=True, check=True, text=True).stdout)["tests"]
    missing = [test["name"] for test in tests if "command" not in test]
    if missing:
        raise Failure("these tests have not been built: " + ", ".join(missing))
    return {"programs": len(tests), "functions": sum(functions_in(test["command"]) for test in tests)}


def functions_in(command: list[str]) -> int:
    """Return 0 for a program that is one test."""
    if "unittest" in command:
        return unittest.defaultTestLoader.loadTestsFromNames(command[command.index("unittest") + 1 :]).countTestCases()
    if "/tst_" not in command[0]:
        return 0
    environment = {**os.environ, "QT_QPA_PLATFORM": "offscreen"}
    listing = subprocess.run([command[0], "-functions"], capture_output=True, check=True, text=True, env=environment)
    return len(listing.stdout.splitlines())


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", type=Path, default=TOP_FOLDER / "build" / "release")
    parser.add_argument("--output", type=Path, required=True)
    options = parser.parse_args()
    try:
        size = size_of_suite(options.build)
        faults = {**run_with_programs(), **run_in_process(options.build / "tests" / "unit" / IN_PROCESS)}
    except (Failure, subprocess.SubprocessError) as error:
        print(error, file=sys.stderr)
        return 2
    options.output.write_text(json.dumps({**size, "faults": faults}, indent=2) + "\n", encoding="utf-8")
    return 0


if __name__ == "__main__":
    sys.exit(main())
