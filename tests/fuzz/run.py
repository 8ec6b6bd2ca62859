"""Runs the fuzz targets, each from its seeds and from what earlier runs have learnt, and sums up what happened.

Prints a line for each target and one for each finding, and writes summary.json (with --coverage-dir: coverage.json) into
the build folder. The exit code is 0 when nothing was found, 1 when something was, 2 when a target could not be run.
"""

from __future__ import annotations

import argparse
import base64
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
import time
from concurrent.futures import ThreadPoolExecutor
from dataclasses import asdict, dataclass, field
from pathlib import Path
from typing import Sequence

ROOT = Path(__file__).resolve().parents[2]
FUZZ = ROOT / "tests" / "fuzz"
TARGETS = ("bridge", "identification", "simulationfile")

LARGEST_INPUT = 4096  # bytes
MEMORY_LIMIT = 1024  # MiB, of the whole process
ALLOCATION_LIMIT = 32  # MiB, taken at once: far more than an input of 4 KiB is worth
LONGEST_INPUT = 1  # s
HANGING_INPUT = 20  # s; a busy machine is slow too
MOST_FINDINGS = 5  # of a target in one run: the fuzzer ends with each and is started again
AT_A_TIME = 2  # targets

SEED_PREFIX = "seed-"
COVERED_SOURCES = (
    "src/network/networksimulation.cpp",
    "src/network/network.cpp",
    "src/protocol/messagereader.h",
    "src/network/networktcpserver.cpp",
    "src/core/streamhelpers.cpp",
    "src/network/frame.cpp",
    "src/nodes/node.cpp",
    "src/nodes/nodepropertieswidget.cpp",
    "src/nodes/tcpnode.cpp",
    "src/connections/connection.cpp",
)

ENVIRONMENT = {
    **os.environ,
    "ASAN_OPTIONS": "quarantine_size_mb=32:malloc_context_size=10",
    "LSAN_OPTIONS": f"suppressions={FUZZ / 'leaks.supp'}:print_suppressions=0",
    "QT_QPA_PLATFORM": "offscreen",
    "UBSAN_OPTIONS": "print_stacktrace=1",
}
LIMITS = [
    f"-max_len={LARGEST_INPUT}",
    f"-rss_limit_mb={MEMORY_LIMIT}",
    f"-malloc_limit_mb={ALLOCATION_LIMIT}",
    f"-timeout={HANGING_INPUT}",
    f"-report_slow_units={LONGEST_INPUT}",
]


class Failure(Exception):
    """A target could not be run."""


@dataclass
class Finding:
    """An input that the program does not stand."""

    kind: str  # crash, leak, oom, timeout or slow-unit
    input: str  # path, from the project's top folder; empty when none could be named
    what: str


@dataclass
class Result:
    """What the runs of a target have come to; the names are those in summary.json."""

    target: str
    seconds: float = 0.0
    executions: int = 0
    executionsPerSecond: int = 0
    edgesCovered: int = 0
    edges: int = 0  # of the whole program, the window's among them
    corpusInputs: int = 0
    peakMemoryMiB: int = 0
    seeds: list[int] = field(default_factory=list)  # of the fuzzer's own draws, one for each time it was started
    findings: list[Finding] = field(default_factory=list)

    def note_figures(self, output: str) -> None:
        def last_number(pattern: str) -> int:
            return int((re.findall(pattern, output) or [0])[-1])

        self.seeds += map(int, re.findall(r"INFO: Seed: (\d+)", output))
        self.executions += last_number(r"stat::number_of_executed_units:\s+(\d+)")
        self.edgesCovered = max(self.edgesCovered, last_number(r"cov: (\d+)"))
        self.edges = last_number(r"Loaded \d+ modules +\((\d+) ")
        self.corpusInputs = max(self.corpusInputs, last_number(r"corp: (\d+)/"))
        self.peakMemoryMiB = max(self.peakMemoryMiB, last_number(r"stat::peak_rss_mb:\s+(\d+)"))


class Target:
    """A fuzzer and its folders."""

    def __init__(self, name: str, build_dir: Path) -> None:
        self.name = name
        self.program = build_dir / "tests" / "fuzz" / f"fuzz_{name}"
        self.learnt = build_dir / "learnt" / name
        self.corpus = self.learnt / "corpus"  # what was learnt; the seeds stay where they are
        self.artifacts = self.learnt / "artifacts"
        self.log = self.learnt / "log.txt"
        self.corpus.mkdir(parents=True, exist_ok=True)
        self.artifacts.mkdir(exist_ok=True)

    def seed_folders(self) -> list[Path]:
        return [folder for folder in (FUZZ / "corpus" / self.name, FUZZ / "regressions" / self.name) if folder.is_dir()]

    def fuzz(self, *arguments: str | Path) -> tuple[int, str, list[Path]]:
        """Run the fuzzer to its end; return its exit code, all that it has printed and the inputs that it has kept."""
        known = set(self.artifacts.iterdir())
        command: list[str | Path] = [self.program, f"-artifact_prefix={self.artifacts}/", *arguments]
        done = subprocess.run(
            command,
            cwd=self.learnt,
            env=ENVIRONMENT,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
        )
        return done.returncode, done.stdout.decode(errors="replace"), sorted(set(self.artifacts.iterdir()) - known)

    def is_slow_again(self, artifact: Path) -> bool:
        """Tell whether the processor itself needs that long: a busy machine makes no input slow."""
        command: list[str | Path] = [self.program, "-detect_leaks=0", f"-timeout={HANGING_INPUT}", artifact]
        with subprocess.Popen(
            command, env=ENVIRONMENT, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL
        ) as process:
            _, status, usage = os.wait4(process.pid, 0)
            process.returncode = os.waitstatus_to_exitcode(status)
        return bool(usage.ru_utime + usage.ru_stime > LONGEST_INPUT)


def first_complaint(output: str) -> str:
    """Return what a sanitizer, the fuzzer or a target's own check has said."""
    match = re.search(r"Broken promise: .*|[^\n]*runtime error: .*|(?:ERROR|SUMMARY): .*", output)
    return match.group(0).strip() if match else "the fuzzer ended for no reason that it named"


def findings_of(target: Target, artifacts: list[Path], output: str) -> list[Finding]:
    """Return the inputs that were kept, but for slow ones that are not slow when they run alone."""
    findings = []
    for artifact in artifacts:
        kind = artifact.name.rpartition("-")[0]
        if artifact.stat().st_size == 0 and "LeakSanitizer" in output:
            artifact.unlink()  # a leak that shows at the end only: of no input in particular
        elif kind in ("slow-unit", "timeout") and not target.is_slow_again(artifact):
            artifact.unlink()
        else:
            what = "slow: more than a second" if kind == "slow-unit" else first_complaint(output)
            findings.append(Finding(kind, os.path.relpath(artifact, ROOT), what))
    if "LeakSanitizer: detected memory leaks" in output:
        _, told, inputs = target.fuzz("-runs=0", target.corpus, *target.seed_folders())  # to name the input
        findings.append(Finding("leak", os.path.relpath(inputs[0], ROOT) if inputs else "", first_complaint(told)))
    return findings


def run(target: Target, seconds: int, seed: int) -> Result:
    """Start the fuzzer until the time is over: it ends with each finding, but for slow inputs.

    Leaks are looked for at the end: to look after each input would take longer than all the rest. A seed of 0 lets the
    fuzzer choose one; so does every start behind a finding, which would come again.
    """
    if not target.program.exists():
        raise Failure(f"{target.program} was not built")
    target.log.write_text("", encoding="utf-8")
    result = Result(target.name)
    options = [f"-dict={FUZZ / target.name}.dict", "-detect_leaks=0", "-print_final_stats=1", *LIMITS]
    start = time.monotonic()
    while (left := round(start + seconds - time.monotonic())) >= 1 and len(result.findings) < MOST_FINDINGS:
        start_options = [f"-max_total_time={left}", f"-seed={0 if result.seeds else seed}"]
        code, output, artifacts = target.fuzz(*options, *start_options, target.corpus, *target.seed_folders())
        with target.log.open("a", encoding="utf-8") as log:
            log.write(output)
        result.note_figures(output)
        found = findings_of(target, artifacts, output)
        result.findings += found or ([Finding("crash", "", first_complaint(output))] if code else [])
    if result.executions == 0 and not result.findings:
        raise Failure(f"{target.name} has run no input; see {target.log}")
    result.seconds = round(time.monotonic() - start, 1)
    result.executionsPerSecond = round(result.executions / max(result.seconds, 1))
    return result


def report(result: Result) -> None:
    print(
        f"{result.target}: {result.executions} executions in {result.seconds:.0f} s ({result.executionsPerSecond}/s), "
        f"{result.edgesCovered} of {result.edges} edges, {result.corpusInputs} inputs in the corpus, "
        f"at most {result.peakMemoryMiB} MiB, seed {', '.join(map(str, result.seeds))}, "
        f"{len(result.findings)} findings",
        flush=True,
    )
    for finding in result.findings:
        print(f"  {finding.kind}: {finding.what}\n    {finding.input}", flush=True)
        if finding.input:  # in full: a machine that tests changes is not kept
            print("    base64: " + base64.b64encode((ROOT / finding.input).read_bytes()).decode(), flush=True)


def fuzz_all(targets: Sequence[Target], seconds: int, seed: int, build_dir: Path) -> bool:
    """Return whether nothing was found."""
    results = []
    with ThreadPoolExecutor(AT_A_TIME) as runners:
        for result in runners.map(lambda target: run(target, seconds, seed), targets):
            report(result)
            results.append(result)
    write_summary(build_dir / "summary.json", results)
    return not any(result.findings for result in results)


def write_summary(path: Path, results: Sequence[Result]) -> None:
    """Keep the figures of the last run of a target that has not run this time."""
    known = json.loads(path.read_text(encoding="utf-8"))["targets"] if path.exists() else []
    by_target = {result["target"]: result for result in known} | {result.target: asdict(result) for result in results}
    summary = {"targets": [by_target[name] for name in sorted(by_target)]}
    path.write_text(json.dumps(summary, indent=2) + "\n", encoding="utf-8")


def minimise(target: Target) -> None:
    """Replace the committed inputs, but for the written seeds, by the fewest that reach as much as all known ones."""
    committed = FUZZ / "corpus" / target.name
    with tempfile.TemporaryDirectory() as folder:
        merged = Path(folder)
        for seed in committed.glob(SEED_PREFIX + "*"):
            shutil.copy(seed, merged)
        code, output, _ = target.fuzz("-merge=1", "-use_counters=0", *LIMITS, merged, committed, target.corpus)
        if code != 0:
            raise Failure(f"{target.name}: {first_complaint(output)}")
        shutil.rmtree(committed)
        shutil.copytree(merged, committed)
    files = list(committed.iterdir())
    print(f"{target.name}: {len(files)} inputs, {sum(file.stat().st_size for file in files)} bytes")


def cover(targets: Sequence[Target], build_dir: Path, coverage_dir: Path) -> None:
    """Count the lines of the parsers, and of what they feed, that all known inputs reach together."""
    programs = [coverage_dir / "tests" / "fuzz" / f"replay_{target.name}" for target in targets]
    counts = [coverage_dir / f"{target.name}.profraw" for target in targets]
    for target, program, file in zip(targets, programs, counts):
        environment = {**ENVIRONMENT, "LLVM_PROFILE_FILE": str(file)}
        command = [program, *target.seed_folders(), target.corpus]
        subprocess.run(command, env=environment, stdout=subprocess.DEVNULL, check=True)

    merged = coverage_dir / "all.profdata"
    subprocess.run(["llvm-profdata", "merge", "-sparse", "-o", merged, *counts], check=True)
    objects = [f"-object={program}" for program in programs[1:]]
    export = ["llvm-cov", "export", "-summary-only", f"-instr-profile={merged}", programs[0], *objects]
    exported = json.loads(subprocess.run(export, stdout=subprocess.PIPE, check=True).stdout)["data"][0]["files"]
    files = []
    for source in COVERED_SOURCES:
        # The compiler's names of files are absolute, or relative to its own folder
        lines = next(entry["summary"]["lines"] for entry in exported if entry["filename"].endswith("/" + source))
        files.append({"file": source, "lines": lines["count"], "linesCovered": lines["covered"]})
        print(f"{source}: {lines['covered']} of {lines['count']} lines ({lines['percent']:.1f} %)")
    summary = {"targets": [target.name for target in targets], "files": files}
    (build_dir / "coverage.json").write_text(json.dumps(summary, indent=2) + "\n", encoding="utf-8")


def parse_arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build-dir", type=Path, default=ROOT / "build" / "fuzz")
    parser.add_argument("--coverage-dir", type=Path, help="count lines instead, with this folder's programs")
    parser.add_argument("--minimise", action="store_true", help="renew the committed inputs instead")
    parser.add_argument("--seconds", type=int, default=20, help="for each target")
    parser.add_argument("--seed", type=int, default=0, help="that an earlier run has told; 0: another one each time")
    parser.add_argument("targets", nargs="*", metavar="TARGET", help=f"of {', '.join(TARGETS)}; default: all")
    arguments = parser.parse_args()
    unknown = set(arguments.targets) - set(TARGETS)
    if unknown:
        parser.error(f"unknown: {', '.join(sorted(unknown))}")
    return arguments


def main() -> int:
    arguments = parse_arguments()
    build_dir = arguments.build_dir.resolve()
    targets = [Target(name, build_dir) for name in arguments.targets or TARGETS]
    try:
        if arguments.coverage_dir:
            cover(targets, build_dir, arguments.coverage_dir.resolve())
        elif arguments.minimise:
            for target in targets:
                minimise(target)
        else:
            return 0 if fuzz_all(targets, arguments.seconds, arguments.seed, build_dir) else 1
    except (Failure, subprocess.CalledProcessError) as failure:
        print(failure, file=sys.stderr)
        return 2
    return 0


if __name__ == "__main__":
    sys.exit(main())
