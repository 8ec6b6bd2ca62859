"""Soaks one build of the simulator for a while, and judges what is left of it.

The time is cut into epochs. Each begins with a new or an opened simulation; honest pairs talk all the while, chaos
goes on beside them, and at the end the books are checked while nobody else talks, or the simulation is replaced with
frames in flight. Before and after all of it, with all programs gone and the simulation empty, the simulator holds the
same memory, descriptors and objects.
"""

from __future__ import annotations

import collections
import logging
import logging.handlers
import random
import re
import time
from dataclasses import dataclass
from pathlib import Path
from typing import Any

from lattivo import LattivoError

from measuring.lab.remotecontrol import NoAnswer, Refused
from measuring.soak import books
from measuring.soak.chaos import RARE, Chaos, Operation
from measuring.soak.honest import LINKS, Honest, HonestProcess
from measuring.soak.simulator import HANG, MAXIMAL_TRANSFER_UNIT, Simulator, add_chaos_nodes, add_honest_pairs

EPOCH = 45.0  # s of chaos
LOOK_INTERVAL = 3.0  # s between two looks at the honest programs and the books, while chaos goes on
LEVEL_PAUSE = 0.5  # s, for what is deleted later
SETTLING = 15.0  # s that sockets have to go in; one that lingers has 3 s
MEMORY_LIMIT = 1.05  # of the start
LOG_SIZE = 4 << 20  # bytes; the same again for what came before
MOST_FAILURES = 20  # of a verdict, told
IN_FLIGHT_SHARE = 3  # one epoch in so many ends with frames in flight
NEVER_READ_SHARE = 4  # one epoch in so many
REPORT_OF_SANITIZER = re.compile(rb"ERROR: \w+Sanitizer|runtime error:|SUMMARY: \w+Sanitizer|QObject::connect: ")
VERDICTS = {
    "crash": "no crash",
    "sanitizer": "no sanitizer report",
    "hang": "no hang",
    "honest": "honest frames: each once, in order, unchanged, confirmed as due",
    "books": "frame for frame what the model says",
    "equation": "sent = delivered + lost, at every look",
    "service": "ordinary programs are served after each fault",
    "memory": "memory back",
    "descriptors": "descriptors back",
    "objects": "objects back",
}

Json = dict[str, Any]


@dataclass
class Plan:
    """What to soak, and for how long."""

    program: Path  # lattivo_soakserver
    folder: Path  # for logs and simulations
    seconds: float  # behind the warm-up
    warm_up_seconds: float  # of each epoch of the warm-up
    seed: int
    judges_memory: bool  # not with a sanitizer, which keeps what is freed


class Course:
    """A run, from the start of the simulator to its end."""

    def __init__(self, plan: Plan) -> None:
        self.plan = plan
        self.rng = random.Random(plan.seed)
        plan.folder.mkdir(parents=True, exist_ok=True)
        self.log = operation_log(plan.folder / "operations.log")
        self.failures: dict[str, list[str]] = {verdict: [] for verdict in VERDICTS}
        self.simulator = Simulator(plan.program, plan.seed, plan.folder / "simulator.log")
        self.honest = HonestProcess()
        self.chaos = Chaos(self.simulator, self.rng, plan.folder, self.log)
        self.epochs: collections.Counter[str] = collections.Counter()  # by the way that they ended
        self.frames: collections.Counter[str] = collections.Counter()
        self.worst_answer = 0.0  # s
        self.is_opened = False  # the simulation is one that was opened; else it is empty

    def run(self) -> Json:
        """Return the summary."""
        begin = time.monotonic()
        warm_up = 0.0
        levels: list[Json] = []
        try:
            for ending in ("new", "open", "damaged"):  # what is loaded once and kept for good is there then
                self._epoch(self.plan.warm_up_seconds, RARE, ending, in_flight=ending == "open")
            levels.append(self._level())
            warm_up = time.monotonic() - begin
            self._soak(self.plan.seconds)
            levels.append(self._level())
        except NoAnswer as error:
            self._note("hang" if self.simulator.process.poll() is None else "crash", error)
        except (OSError, EOFError, Refused, LattivoError) as error:
            self._note("service", f"{type(error).__name__}: {error}")
        finally:
            self._note("service", *self.chaos.errors)
            self._end_processes()
        start, end = [*levels, None, None][:2]
        self._compare_levels(start, end)
        verdicts: dict[str, bool | None] = {verdict: not texts for verdict, texts in self.failures.items()}
        if end and not self.plan.judges_memory:
            verdicts["memory"] = None
        return {
            "seed": self.plan.seed,
            "seconds": time.monotonic() - begin - warm_up,
            "warm_up_seconds": warm_up,
            "epochs": dict(self.epochs),
            "operations": dict(sorted(self.chaos.tally.items())),
            "connections": self.chaos.connections,
            "frames": dict(self.frames),
            "equation": books.EQUATION,
            "start": start,
            "end": end,
            "memory_limit": MEMORY_LIMIT if self.plan.judges_memory else None,
            "worst_answer_seconds": max(self.worst_answer, self.simulator.worst_answer),
            "answer_limit_seconds": HANG,
            "verdict_titles": VERDICTS,
            "verdicts": verdicts,
            "failures": {verdict: texts for verdict, texts in self.failures.items() if texts},
            "passed": not any(self.failures.values()),
        }

    def _note(self, verdict: str, *texts: object) -> None:
        """Write down why a verdict is not good."""
        for text in texts:
            self.log.error("%s: %s", verdict, text)
            self.failures[verdict].append(str(text))
        del self.failures[verdict][MOST_FAILURES:]

    def _soak(self, seconds: float) -> None:
        begin = time.monotonic()
        number = 0
        while (left := begin + seconds - time.monotonic()) > 0:
            rare = [each for each in RARE if each is not Chaos.never_read or number % NEVER_READ_SHARE == 0]
            self.rng.shuffle(rare)
            ending = self.rng.choice(["new", "open", "open", "damaged"])
            in_flight = self.rng.randrange(IN_FLIGHT_SHARE) == 0
            self._epoch(min(EPOCH, left), rare if seconds >= EPOCH else [], ending, in_flight)
            number += 1

    def _epoch(self, seconds: float, rare: list[Operation], ending: str, in_flight: bool) -> None:
        self.log.info("epoch of %.0f s, ends with %s%s", seconds, ending, " in flight" if in_flight else "")
        self.epochs[ending] += 1
        if not self.is_opened:
            self._begin_simulation()
        self._start_honest()
        self._run_chaos(seconds, rare)
        file = self.plan.folder / "whole.ltvo"
        file.unlink(missing_ok=True)  # a longer old one would keep its tail
        if not self.simulator.do("save", file=str(file))["written"]:
            self._note("service", "the simulation is not saved")
        if not in_flight:
            self._stop_honest()
            self._check_books()
        report = self._replace(ending)
        if in_flight:
            self.epochs["with frames in flight"] += 1
            self._take_honest(report)
            self.frames["honest_cut_off"] += report["sent"] - report["received"]
        else:
            self._note("honest", *report["errors"])
        self.is_opened = ending == "open"

    def _begin_simulation(self) -> None:
        self.simulator.do("parameters", maximal_transfer_unit=MAXIMAL_TRANSFER_UNIT)
        self.simulator.do("capture", enabled=True)
        add_honest_pairs(self.simulator, self.rng)
        books.add_book_nodes(self.simulator, self.rng)
        add_chaos_nodes(self.simulator, self.rng)
        self.simulator.listen()

    def _run_chaos(self, seconds: float, rare: list[Operation]) -> None:
        """Run it in pieces, and look at everything in between."""
        pieces = max(1, round(seconds / LOOK_INTERVAL))
        places = sorted(self.rng.randrange(pieces) for _ in rare)
        for piece in range(pieces):
            self.chaos.run(seconds / pieces, [each for each, place in zip(rare, places) if place == piece])
            self._check_equation(self.simulator.do("account"))
            waiting = self.honest.ask(Honest.report)["waiting"]
            if waiting > HANG:
                self._note("hang", f"an honest frame waits for {waiting:.1f} s")
            if self.simulator.worst_answer > HANG:
                self._note("hang", f"a command has waited for {self.simulator.worst_answer:.1f} s")

    def _check_equation(self, account: dict[str, int]) -> None:
        if not books.is_balanced(account):
            self._note("equation", account)

    # Honest programs

    def _start_honest(self) -> None:
        self.simulator.identify_by(by_name=self.rng.random() < 0.5, plug_and_play=True)
        self.log.info("honest programs attach by %s", "name" if self.simulator.by_name else "address")
        self.honest.ask(Honest.attach, self.simulator.port, self.simulator.by_name)
        self.chaos.connections += 2 * len(LINKS)
        if not self.simulator.wait_until(lambda: self.simulator.are_attached("honest-"), HANG):
            self._note("service", "honest programs are not attached")
        self.honest.ask(Honest.start)

    def _stop_honest(self) -> None:
        """Stop them; what they have sent and got is also what their nodes have counted."""
        report = self.honest.ask(Honest.stop)
        self._take_honest(report)
        nodes = {node["name"]: [node["sent"], node["received"]] for node in self.simulator.nodes()}
        for name, counts in report["nodes"].items():
            if nodes.get(name) != counts:
                self._note("honest", f"{name}: program {counts}, node {nodes.get(name)} (sent, received)")

    def _take_honest(self, report: Json) -> None:
        self._note("honest", *report["errors"])
        self.worst_answer = max(self.worst_answer, report["worst"])
        if report["worst"] > HANG:
            self._note("hang", f"an honest frame has waited for {report['worst']:.1f} s")
        self.frames.update({f"honest_{name}": report[name] for name in ("sent", "received", "confirmations")})

    # Books

    def _check_books(self) -> None:
        """Check them while chaos is silent: its frames have left their links, and its sockets stay open."""
        if not self.simulator.wait_until(self._is_drained, HANG):
            self._note("equation", "frames stay in flight")
        self.simulator.identify_by(by_name=False, plug_and_play=False)
        book = books.Books(self.simulator, self.rng)
        book.check_all()
        self._note("books", *book.errors)
        self.frames["books"] += book.frames
        self.chaos.connections += 3

    def _is_drained(self) -> bool:
        """Tell whether nothing is under way, not even from programs that are slow to write."""
        before = self.simulator.do("account")
        time.sleep(0.3)
        return before["in_flight"] == 0 and self.simulator.do("account") == before

    # The end of a simulation

    def _replace(self, ending: str) -> Json:
        """Replace it with all sockets open: none outlives its simulation. Return the honest programs' report."""
        answer = self.simulator.do("replace", **self._next_simulation(ending))
        if answer["loaded"] != (ending != "damaged"):
            self._note("service", f"a {ending} file: loaded is {answer['loaded']}")
        self.simulator.port = answer["port"]
        self._check_equation(answer["account"])
        self.frames.update({f"links_{name}": count for name, count in answer["account"].items()})
        report: Json = self.honest.ask(Honest.confirm_end)
        survivors = [program for program in self.chaos.programs if not program.wait_for_end(HANG)]
        if survivors:
            self._note("service", f"{len(survivors)} connections outlive their simulation")
        self.chaos.leave()
        return report

    def _next_simulation(self, ending: str) -> dict[str, str]:
        file = self.plan.folder / "whole.ltvo"
        if ending == "new":
            return {}
        if ending == "damaged":
            whole = file.read_bytes()
            file = self.plan.folder / "damaged.ltvo"
            file.write_bytes(whole[: -self.rng.randint(1, len(whole) // 2)])
        return {"file": str(file)}

    # Before and after

    def _level(self) -> Json:
        """Return what the simulator holds with all programs gone and nothing to simulate."""
        if self.is_opened:
            self._replace("new")
            self.is_opened = False
        self.simulator.wait_until(self._has_no_socket, SETTLING)
        time.sleep(LEVEL_PAUSE)
        footprint = self.simulator.do("footprint")
        return {
            "resident_bytes": self.simulator.resident_bytes(),
            "heap_bytes": footprint.pop("heap_bytes"),  # in use; 0 with a sanitizer's own heap
            "descriptors": self.simulator.descriptor_targets(),
            "objects": footprint,
        }

    def _has_no_socket(self) -> bool:
        footprint = self.simulator.do("footprint")
        return bool(footprint["sockets"] == footprint["pending_sockets"] == 0)

    def _end_processes(self) -> None:
        self.honest.end()
        if self.failures["hang"]:
            self.simulator.process.kill()
        code = self.simulator.end()
        if code != 0:
            self._note("crash", f"the simulator has ended with code {code}")
        log = self.plan.folder / "simulator.log"
        if REPORT_OF_SANITIZER.search(log.read_bytes()):
            self._note("sanitizer", f"see {log}")

    def _compare_levels(self, start: Json | None, end: Json | None) -> None:
        if not start or not end:
            self._note("memory", "no end to compare")
            return
        if self.plan.judges_memory and end["resident_bytes"] > start["resident_bytes"] * MEMORY_LIMIT:
            self._note("memory", f"{start['resident_bytes']} bytes, then {end['resident_bytes']}")
        for key in ("descriptors", "objects"):
            if start[key] != end[key]:
                self._note(key, f"{start[key]}, then {end[key]}")


def operation_log(path: Path) -> logging.Logger:
    """Return a log that is bounded in size; the newest lines are kept."""
    path.unlink(missing_ok=True)
    handler = logging.handlers.RotatingFileHandler(path, maxBytes=LOG_SIZE, backupCount=1)
    handler.setFormatter(logging.Formatter("%(asctime)s %(message)s"))
    log = logging.getLogger(f"soak.{path.parent.name}")
    log.setLevel(logging.INFO)
    log.addHandler(handler)
    log.propagate = False
    return log
