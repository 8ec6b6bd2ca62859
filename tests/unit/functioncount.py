"""Compare the test functions that each unit test runs with those that its source declares.

The meta-object compiler says nothing when it loses a test, for example behind a raw string with an odd number of quotes.
The program then passes with fewer tests.
"""

from __future__ import annotations

import argparse
import os
import pathlib
import re
import subprocess
import sys

TEST_CLASS = re.compile(r"^class Test\w+ [^;{]*\{\n(.*?)^\};", re.MULTILINE | re.DOTALL)
SECTION = re.compile(r"^(?:public|protected|private)(?: slots)?:$", re.MULTILINE)
FUNCTION = re.compile(r"^    void (\w+)\(\)", re.MULTILINE)
FIXTURES = {"initTestCase", "init", "cleanup", "cleanupTestCase"}


def declared_functions(source: str) -> list[str]:
    """Return the test functions in the private slots of all test classes in that text."""
    functions = []
    for body in TEST_CLASS.findall(source):
        headings = list(SECTION.finditer(body))
        ends = [heading.start() for heading in headings[1:]] + [len(body)]
        for heading, end in zip(headings, ends):
            if heading.group() == "private slots:":
                functions += FUNCTION.findall(body[heading.end() : end])
    return [name for name in functions if name not in FIXTURES and not name.endswith("_data")]


def run_functions(program: pathlib.Path) -> list[str]:
    """Return the test functions that the program knows of; raise OSError or CalledProcessError if it does not run."""
    environment = {**os.environ, "QT_QPA_PLATFORM": "offscreen"}
    listing = subprocess.run([program, "-functions"], stdout=subprocess.PIPE, check=True, text=True, env=environment)
    return [line[: -len("()")] for line in listing.stdout.splitlines()]


def difference(source: pathlib.Path, program: pathlib.Path) -> str:
    """Return what one of the two has and the other has not, in one line; an empty text if they agree."""
    try:
        run = run_functions(program)
    except (OSError, subprocess.CalledProcessError) as error:
        return f"{source.name}: {error}"
    declared = declared_functions(source.read_text())
    if not declared:
        return f"{source.name}: declares no test"
    missing = [name for name in declared if name not in run]
    unknown = [name for name in run if name not in declared]
    if missing or unknown or len(run) != len(declared):
        return f"{source.name}: {len(declared)} declared, {len(run)} run; differing: {', '.join(missing + unknown)}"
    return ""


def main() -> int:
    parser = argparse.ArgumentParser(description="Compares the functions of unit tests with their sources.")
    parser.add_argument("programs", type=pathlib.Path, help="folder of the test programs")
    programs = parser.parse_args().programs
    sources = sorted(pathlib.Path(__file__).parent.glob("tst_*.cpp"))
    differences = list(filter(None, (difference(source, programs / source.stem) for source in sources)))
    for line in differences:
        print(line, file=sys.stderr)
    if not sources:
        print("there are no sources of unit tests", file=sys.stderr)
    return 1 if differences or not sources else 0


if __name__ == "__main__":
    sys.exit(main())
