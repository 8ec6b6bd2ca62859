#!/usr/bin/env python3
"""Soaks one build of the simulator for a while, and judges what is left of it.

The time is cut into epochs. Each begins with a new or an opened simulation; honest pairs talk all the while, chaos
goes on beside them, and at the end the books are checked while nobody else talks, or the simulation is replaced with
frames in flight. Before and after all of it, with all programs gone and the simulation empty, the simulator holds the
same memory, descriptors and objects. The exit code is 0 when every verdict is good.
"""

import argparse
import collections
import json
import logging
import logging.handlers
import os
import pathlib
import random
import re
import resource
import signal
import sys
import time

from measuring.soak import books, honest
from measuring.soak.chaos import RARE, Chaos
from measuring.soak.dialogue import Dialogue, NoAnswer
from measuring.soak.simulator import HANG, MAXIMAL_TRANSFER_UNIT, Simulator, add_chaos_nodes, add_honest_pairs

EPOCH = 45.0  # s of chaos
LOOK_INTERVAL = 3.0  # s between two looks at the honest programs and the books, while chaos goes on
WARM_UP_EPOCHS = 3
LEVEL_PAUSE = 0.5  # s, for what is deleted later
SETTLING = 15.0  # s that sockets have to go in; one that lingers has 3 s
MEMORY_LIMIT = 1.05  # of the start
LOG_SIZE = 4 << 20  # bytes; the same again for what came before
MOST_FAILURES = 20  # of a verdict, told
IN_FLIGHT_SHARE = 3  # one epoch in so many ends with frames in flight
NEVER_READ_SHARE = 4  # one epoch in so many
REPORT_OF_SANITIZER = re.compile(rb"ERROR: \w+Sanitizer|runtime error:|SUMMARY: \w+Sanitizer")
FAILED_CONNECT = b"QObject::connect: "
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


class Failures:
    def __init__(self, log):
        self._log = log
        self.texts = {verdict: [] for verdict in VERDICTS}

    def note(self, verdict, text):
        self._log.error("%s: %s", verdict, text)
        if len(self.texts[verdict]) < MOST_FAILURES:
            self.texts[verdict].append(str(text))

    def note_all(self, verdict, texts):
        for text in texts:
            self.note(verdict, text)


class Course:
    def __init__(self, options):
        self.options = options
        self.rng = random.Random(options.seed)
        self.folder = options.folder
        self.folder.mkdir(parents=True, exist_ok=True)
        self.log = operation_log(self.folder / "operations.log")
        self.failures = Failures(self.log)
        self.simulator_log = open(self.folder / "simulator.log", "wb")
        environment = {name: value for name, value in os.environ.items() if name != "DISPLAY"}
        self.simulator = Simulator(options.program, options.seed, self.simulator_log, environment)
        self.honest = Dialogue([sys.executable, "-B", "-m", honest.__name__], None, patience=2 * honest.END_PATIENCE)
        self.chaos = Chaos(self.simulator, self.rng, self.folder, self.log)
        self.epochs = collections.Counter()  # by the way that they ended
        self.frames = collections.Counter()
        self.worst_answer = 0.0  # s
        self.is_opened = False  # the simulation is one that was opened; else it is empty
        self.memory = []  # after each replacement by an empty simulation

    # The course of a run

    def run(self):
        begin = time.monotonic()
        start = end = None
        warm_up = 0.0
        try:
            self._warm_up()
            start = self._level()
            self.memory.clear()
            warm_up = time.monotonic() - begin
            self._soak(self.options.seconds)
            end = self._level()
        except NoAnswer as error:
            self.failures.note("hang" if self.simulator.process.poll() is None else "crash", error)
        except (OSError, ValueError) as error:
            self.failures.note("service", f"{type(error).__name__}: {error}")
        finally:
            self.failures.note_all("service", self.chaos.errors)
            self._end_processes()
        self._compare_levels(start, end)
        return self._summary(start, end, warm_up, time.monotonic() - begin)

    def _warm_up(self):
        """Everything is touched once, so that what is loaded and kept for good is there."""
        for number in range(self.options.warm_up_epochs):
            self._epoch(self.options.warm_up_seconds, RARE, ["new", "open", "damaged"][number % 3], number % 3 == 1)

    def _soak(self, seconds):
        begin = time.monotonic()
        number = 0
        while time.monotonic() - begin < seconds:
            left = seconds - (time.monotonic() - begin)
            rare = [each for each in RARE if each is not Chaos.never_read or number % NEVER_READ_SHARE == 0]
            self.rng.shuffle(rare)
            ending = self.rng.choice(["new", "open", "open", "damaged"])
            in_flight = self.rng.randrange(IN_FLIGHT_SHARE) == 0
            self._epoch(min(EPOCH, left), rare if seconds >= EPOCH else [], ending, in_flight)
            number += 1

    def _epoch(self, seconds, rare, ending, in_flight):
        self.log.info("epoch of %.0f s, ends with %s%s", seconds, ending, " in flight" if in_flight else "")
        self.epochs[ending] += 1
        if not self.is_opened:
            self._begin_simulation()
        self._start_honest()
        self._run_chaos(seconds, rare)
        self._save()
        if not in_flight:
            self._stop_honest()
            self._check_books()
        report = self._replace(ending)
        if in_flight:
            self.epochs["with frames in flight"] += 1
            self._take_honest(report)
            self.frames["honest_cut_off"] += report["sent"] - report["received"]
        else:
            self.failures.note_all("honest", report["errors"])
        self.is_opened = ending == "open"
        if not self.is_opened:
            level = self._level()
            self.memory.append({name: level[name] for name in ("resident_bytes", "heap_bytes")})

    def _begin_simulation(self):
        """From an empty one."""
        self.simulator.do("parameters", maximal_transfer_unit=MAXIMAL_TRANSFER_UNIT)
        self.simulator.do("capture", enabled=True)
        add_honest_pairs(self.simulator, self.rng)
        books.add_book_nodes(self.simulator, self.rng)
        add_chaos_nodes(self.simulator, self.rng)
        self.simulator.listen()

    # Honest programs

    def _start_honest(self):
        self.simulator.identify_by(by_name=self.rng.random() < 0.5, plug_and_play=True)
        self.log.info("honest programs attach by %s", "name" if self.simulator.by_name else "address")
        self.honest.ask("attach", port=self.simulator.port, by_name=self.simulator.by_name)
        self.chaos.connections += 2 * len(honest.LINKS)
        if not self.simulator.wait_until(self._are_all_attached, HANG):
            self.failures.note("service", "honest programs are not attached")
        self.honest.ask("start")

    def _are_all_attached(self):
        nodes = [node for node in self.simulator.nodes() if node["name"].startswith("honest-")]
        return all(node["attached"] for node in nodes)

    def _run_chaos(self, seconds, rare):
        """In pieces, between which everything is looked at."""
        pieces = max(1, round(seconds / LOOK_INTERVAL))
        places = sorted(self.rng.randrange(pieces) for _ in rare)
        for piece in range(pieces):
            self.chaos.run(seconds / pieces, [each for each, place in zip(rare, places) if place == piece])
            self._look()

    def _look(self):
        self._check_equation(self.simulator.do("account"))
        report = self.honest.ask("report")
        if report["waiting"] > HANG:
            self.failures.note("hang", f"an honest frame waits for {report['waiting']:.1f} s")
        if self.simulator.worst_answer > HANG:
            self.failures.note("hang", f"a command has waited for {self.simulator.worst_answer:.1f} s")

    def _check_equation(self, account):
        if not books.is_balanced(account):
            self.failures.note("equation", account)

    def _stop_honest(self):
        """What the programs have written and got is also what their nodes have counted."""
        report = self.honest.ask("stop")
        self._take_honest(report)
        nodes = {node["name"]: [node["sent"], node["received"]] for node in self.simulator.nodes()}
        for name, counts in report["nodes"].items():
            if nodes.get(name) != counts:
                self.failures.note("honest", f"{name}: program {counts}, node {nodes.get(name)} (sent, received)")

    def _take_honest(self, report):
        self.failures.note_all("honest", report["errors"])
        self.worst_answer = max(self.worst_answer, report["worst"])
        if report["worst"] > HANG:
            self.failures.note("hang", f"an honest frame has waited for {report['worst']:.1f} s")
        self.frames["honest_sent"] += report["sent"]
        self.frames["honest_received"] += report["received"]
        self.frames["honest_confirmations"] += report["confirmations"]

    # Books

    def _check_books(self):
        """Chaos is silent; its frames have left their links, and its sockets stay open."""
        if not self.simulator.wait_until(self._is_drained, HANG):
            self.failures.note("equation", "frames stay in flight")
        self.simulator.identify_by(by_name=False, plug_and_play=False)
        book = books.Books(self.simulator, self.rng)
        book.check_all()
        self.failures.note_all("books", book.errors)
        self.frames["books"] += book.frames
        self.chaos.connections += 3

    def _is_drained(self):
        """Programs that were slow to write may still have something under way."""
        before = self.simulator.do("account")
        time.sleep(0.3)
        return before["in_flight"] == 0 and self.simulator.do("account") == before

    # The end of a simulation

    def _save(self):
        """Into a new file: a longer old one would keep its tail."""
        (self.folder / "whole.ltvo").unlink(missing_ok=True)
        if not self.simulator.do("save", file=str(self.folder / "whole.ltvo"))["saved"]:
            self.failures.note("service", "the simulation is not saved")

    def _replace(self, ending):
        """With all sockets open: none outlives its simulation."""
        self.honest.ask("expect_end")
        answer = self._open_or_new(ending)
        self.simulator.port = answer.get("port")
        self._check_equation(answer["account"])
        self.frames.update({f"links_{name}": count for name, count in answer["account"].items()})
        report = self.honest.ask("confirm_end")
        survivors = [program for program in self.chaos.connected_programs() if not program.wait_for_end(HANG)]
        if survivors:
            self.failures.note("service", f"{len(survivors)} connections outlive their simulation")
        self.chaos.leave()
        return report

    def _open_or_new(self, ending):
        if ending == "new":
            return self.simulator.do("new")
        file = self.folder / "whole.ltvo"
        if ending == "damaged":
            whole = file.read_bytes()
            file = self.folder / "damaged.ltvo"
            file.write_bytes(whole[: -self.rng.randint(1, len(whole) // 2)])
        answer = self.simulator.do("open", file=str(file))
        if answer["loaded"] != (ending == "open"):
            self.failures.note("service", f"a {ending} file: loaded is {answer['loaded']}")
        return answer

    # Before and after

    def _level(self):
        """What the simulator holds with all programs gone and nothing to simulate."""
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

    def _has_no_socket(self):
        footprint = self.simulator.do("footprint")
        return footprint["sockets"] == footprint["pending_sockets"] == 0

    def _end_processes(self):
        self.honest.end()
        if self.failures.texts["hang"]:
            self.simulator.process.kill()
        code = self.simulator.end()
        if code != 0:
            self.failures.note("crash", f"the simulator has ended with code {code}")
        self.simulator_log.close()
        errors = (self.folder / "simulator.log").read_bytes()
        if REPORT_OF_SANITIZER.search(errors) or FAILED_CONNECT in errors:
            self.failures.note("sanitizer", f"see {self.folder / 'simulator.log'}")

    def _compare_levels(self, start, end):
        if not end:
            self.failures.note_all("memory", ["no end to compare"])
            return
        if self.options.judge_memory and end["resident_bytes"] > start["resident_bytes"] * MEMORY_LIMIT:
            self.failures.note("memory", f"{start['resident_bytes']} bytes, then {end['resident_bytes']}")
        for key in ("descriptors", "objects"):
            if start[key] != end[key]:
                self.failures.note(key, f"{start[key]}, then {end[key]}")

    def _summary(self, start, end, warm_up, seconds):
        verdicts = {verdict: not texts for verdict, texts in self.failures.texts.items()}
        if not self.options.judge_memory and end:
            verdicts["memory"] = None
        return {
            "seed": self.options.seed,
            "seconds": seconds - warm_up,
            "warm_up_seconds": warm_up,
            "epochs": dict(self.epochs),
            "operations": dict(sorted(self.chaos.tally.items())),
            "connections": self.chaos.connections,
            "frames": dict(self.frames),
            "equation": books.EQUATION,
            "start": start,
            "end": end,
            "memory_course": self.memory,
            "memory_limit": MEMORY_LIMIT if self.options.judge_memory else None,
            "worst_answer_seconds": max(self.worst_answer, self.simulator.worst_answer),
            "answer_limit_seconds": HANG,
            "verdict_titles": VERDICTS,
            "verdicts": verdicts,
            "failures": {verdict: texts for verdict, texts in self.failures.texts.items() if texts},
            "passed": not any(self.failures.texts.values()),
        }


def operation_log(path):
    """Bounded in size; the newest lines are kept."""
    path.unlink(missing_ok=True)
    handler = logging.handlers.RotatingFileHandler(path, maxBytes=LOG_SIZE, backupCount=1)
    handler.setFormatter(logging.Formatter("%(asctime)s %(message)s"))
    log = logging.getLogger("soak")
    log.setLevel(logging.INFO)
    log.addHandler(handler)
    log.propagate = False
    return log


def parse_options():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--program", type=pathlib.Path, required=True, help="lattivo_soakserver")
    parser.add_argument("--folder", type=pathlib.Path, required=True, help="for logs, files and the summary")
    parser.add_argument("--seconds", type=float, default=60.0, help="of soaking, behind the warming up")
    parser.add_argument("--warm-up-seconds", type=float, default=15.0, help="of each epoch of the warming up")
    parser.add_argument("--warm-up-epochs", type=int, default=WARM_UP_EPOCHS)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--judge-memory", action="store_true", help="not with a sanitizer, which keeps what is freed")
    return parser.parse_args()


def main():
    resource.setrlimit(resource.RLIMIT_NOFILE, (resource.getrlimit(resource.RLIMIT_NOFILE)[1],) * 2)
    signal.signal(signal.SIGTERM, lambda *_: sys.exit("terminated"))
    options = parse_options()
    summary = Course(options).run()
    text = json.dumps(summary, indent=2)
    (options.folder / "summary.json").write_text(text + "\n")
    print(text)
    return 0 if summary["passed"] else 1


if __name__ == "__main__":
    sys.exit(main())
