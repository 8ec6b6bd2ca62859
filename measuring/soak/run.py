#!/usr/bin/env python3
"""Soaks builds of the simulator side by side, and judges all of them together.

A build with the sanitizers finds errors, but keeps what is freed: the memory is that of a build without them. The exit
code is 0 when every verdict of every build is good. What came out is printed and written as JSON (see --folder).
"""

import argparse
import json
import pathlib
import signal
import subprocess
import sys

MEBIBYTE = 1 << 20


def parse_build(text):
    name, _, program = text.partition("=")
    return name, pathlib.Path(program)


def parse_options():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("minutes", type=float, help="of soaking, behind some minutes of warming up")
    parser.add_argument("--seed", type=int, default=1, help="of what happens, as far as timing lets it")
    parser.add_argument("--folder", type=pathlib.Path, required=True, help="summary.json, and a folder of logs a build")
    parser.add_argument("--sanitized", type=parse_build, action="append", default=[], metavar="NAME=PROGRAM")
    parser.add_argument("--plain", type=parse_build, action="append", default=[], metavar="NAME=PROGRAM")
    return parser.parse_args()


def start_course(options, name, program, *more):
    folder = options.folder / name
    folder.mkdir(parents=True, exist_ok=True)
    (folder / "summary.json").unlink(missing_ok=True)
    command = [sys.executable, "-B", "-m", "measuring.soak.course", "--program", str(program), "--folder", str(folder)]
    command += ["--seconds", str(options.minutes * 60), "--seed", str(options.seed), *more]
    return subprocess.Popen(command, stdout=subprocess.DEVNULL)


def wait_for(courses):
    """Whether all end well; none goes on alone."""
    try:
        return all([course.wait() == 0 for course in courses])
    finally:
        for course in courses:
            course.terminate()


def read_summary(folder):
    """None when the course has not come so far."""
    file = folder / "summary.json"
    return json.loads(file.read_text()) if file.exists() else None


def mebibytes(count):
    return f"{count / MEBIBYTE:.1f} MiB"


def before_and_after(summary, figure):
    if not summary["end"]:
        return "-"
    return f"{figure(summary['start'])} -> {figure(summary['end'])}"


def frames_of(summary, *names):
    return " / ".join(f"{summary['frames'].get(name, 0):,}" for name in names)


ROWS = [
    ("time", lambda s: f"{s['seconds'] / 60:.1f} min, behind {s['warm_up_seconds'] / 60:.1f} min"),
    ("simulations replaced", lambda s: f"{sum(s['epochs'].get(name, 0) for name in ('new', 'open', 'damaged')):,}"),
    ("operations", lambda s: f"{sum(s['operations'].values()):,}"),
    ("connections", lambda s: f"{s['connections']:,}"),
    ("honest frames sent / arrived", lambda s: frames_of(s, "honest_sent", "honest_received")),
    ("- under way when their simulation was replaced", lambda s: frames_of(s, "honest_cut_off")),
    ("- confirmations", lambda s: frames_of(s, "honest_confirmations")),
    ("frames of the books", lambda s: frames_of(s, "books")),
    ("frames x links", lambda s: frames_of(s, "links_copies")),
    ("- onto broken links / of a bad size", lambda s: frames_of(s, "links_onto_broken_links", "links_of_bad_size")),
    ("- delivered / lost / vanished", lambda s: frames_of(s, "links_delivered", "links_lost", "links_vanished")),
    ("memory", lambda s: before_and_after(s, lambda level: mebibytes(level["resident_bytes"]))),
    ("descriptors", lambda s: before_and_after(s, lambda level: sum(level["descriptors"].values()))),
    ("worst answer", lambda s: f"{s['worst_answer_seconds']:.2f} s of {s['answer_limit_seconds']:.0f} s"),
]


def verdict_text(verdict):
    return {True: "yes", False: "NO", None: "not judged"}[verdict]


def table(summaries):
    lines = [["", *summaries]]
    lines += [[title, *(figure(summary) for summary in summaries.values())] for title, figure in ROWS]
    first = next(iter(summaries.values()))
    for key, title in first["verdict_titles"].items():
        lines.append([title, *(verdict_text(summary["verdicts"][key]) for summary in summaries.values())])
    widths = [max(len(str(line[column])) for line in lines) for column in range(len(lines[0]))]
    return "\n".join("  ".join(str(cell).ljust(width) for cell, width in zip(line, widths)).rstrip() for line in lines)


def main():
    signal.signal(signal.SIGTERM, lambda *_: sys.exit("terminated"))
    options = parse_options()
    courses = {name: start_course(options, name, program) for name, program in options.sanitized}
    for name, program in options.plain:
        courses[name] = start_course(options, name, program, "--judge-memory")
    has_passed = wait_for(courses.values())
    summaries = {name: read_summary(options.folder / name) for name in courses}
    result = {"minutes": options.minutes, "seed": options.seed, "passed": has_passed, "builds": summaries}
    (options.folder / "summary.json").write_text(json.dumps(result, indent=2) + "\n")

    finished = {name: summary for name, summary in summaries.items() if summary}
    if finished:
        print(table(finished))
        print(f"\nThe equation: {next(iter(finished.values()))['equation']}")
    for name in summaries:
        for verdict, texts in (summaries[name] or {"failures": {"": ["has not come to an end"]}})["failures"].items():
            for text in texts:
                print(f"FAILED, {name}, {verdict}: {text}", file=sys.stderr)
    return 0 if has_passed else 1


if __name__ == "__main__":
    sys.exit(main())
