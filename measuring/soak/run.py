"""Soaks builds of the simulator side by side, and judges all of them together.

A build with the sanitizers finds errors, but keeps what is freed: the memory is that of a build without them. The exit
code is 0 when every verdict of every build is good. What came out is printed and written as JSON (see --folder).
"""

from __future__ import annotations

import argparse
import json
import resource
import sys
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

from measuring.soak.books import EQUATION
from measuring.soak.course import Course, Json, Plan

PRINTED = ["seconds", "warm_up_seconds", "connections", "worst_answer_seconds", "answer_limit_seconds"]


def parse_build(text: str) -> tuple[str, Path]:
    name, _, program = text.partition("=")
    return name, Path(program)


def parse_options() -> argparse.Namespace:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("minutes", type=float, help="of soaking, behind some minutes of warming up")
    parser.add_argument("--warm-up-seconds", type=float, default=15.0, help="of each epoch of the warm-up")
    parser.add_argument("--seed", type=int, default=1, help="of what happens, as far as timing lets it")
    parser.add_argument("--folder", type=Path, required=True, help="summary.json, and a folder of logs a build")
    parser.add_argument("--sanitized", type=parse_build, action="append", default=[], metavar="NAME=PROGRAM")
    parser.add_argument("--plain", type=parse_build, action="append", default=[], metavar="NAME=PROGRAM")
    return parser.parse_args()


def column(summary: Json) -> dict[str, str]:
    """Return what is printed of a build, by title."""
    figures = {name: summary[name] for name in PRINTED}
    figures["operations"] = sum(summary["operations"].values())
    for part in ("epochs", "frames", "start", "end"):
        for name, value in (summary[part] or {}).items():
            figures[f"{part}: {name}"] = sum(value.values()) if isinstance(value, dict) else value
    numbers = {title: f"{value:,.1f}" if isinstance(value, float) else f"{value:,}" for title, value in figures.items()}
    words = {True: "yes", False: "NO", None: "not judged"}
    return {**numbers, **{title: words[summary["verdicts"][key]] for key, title in summary["verdict_titles"].items()}}


def print_table(summaries: dict[str, Json]) -> None:
    columns = [column(summary) for summary in summaries.values()]
    titles = list(dict.fromkeys(title for each in columns for title in each))
    for line in [["", *summaries], *([title, *(each.get(title, "-") for each in columns)] for title in titles)]:
        print(f"{line[0]:72}", *(f"{cell:>12}" for cell in line[1:]))


def main() -> int:
    resource.setrlimit(resource.RLIMIT_NOFILE, (resource.getrlimit(resource.RLIMIT_NOFILE)[1],) * 2)
    options = parse_options()
    plans = {
        name: Plan(program, options.folder / name, options.minutes * 60, options.warm_up_seconds, options.seed, judges)
        for builds, judges in ((options.sanitized, False), (options.plain, True))
        for name, program in builds
    }
    with ThreadPoolExecutor() as courses:
        summaries = dict(zip(plans, courses.map(lambda plan: Course(plan).run(), plans.values())))
    has_passed = all(summary["passed"] for summary in summaries.values())
    result = {"minutes": options.minutes, "seed": options.seed, "passed": has_passed, "builds": summaries}
    (options.folder / "summary.json").write_text(json.dumps(result, indent=2) + "\n", encoding="utf-8")
    print_table(summaries)
    print(f"\nThe equation: {EQUATION}")
    for name, summary in summaries.items():
        for verdict, texts in summary["failures"].items():
            print(*(f"FAILED, {name}, {verdict}: {text}" for text in texts), sep="\n", file=sys.stderr)
    return 0 if has_passed else 1


if __name__ == "__main__":
    sys.exit(main())
