"""Tests of what the performance document says of measured figures, and of the comparison that measures them.

The environment variable LATTIVO_HEADLESS holds the path of the simulator; CTest sets it.
"""

from __future__ import annotations

import json
import os
import select
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import types
import unittest
from pathlib import Path

from measuring.compare import compare
from measuring.lab import makesimulation
from measuring.lab.bench import Bench, Workload
from measuring.lab.document import aligned, table, write
from measuring.lab.launcher import MeasurementFailed, Server, find_program
from measuring.lab.rows import Row, ratio_row
from measuring.limit import document, run

TOP_FOLDER = Path(__file__).resolve().parents[2]

PATIENCE = 200.0  # seconds; only a failing test waits that long


def engine(ratio: float) -> dict:
    """Of one workload whose speed has to be 1.2 times the limit's."""
    row = ratio_row("limit", "small", "one pair", "frames/s", [1000.0 * ratio], [1000.0], 1.2, at_least=True)
    return {"rows": [row], "runs": 2, "disturbed_runs": 1}


def comparison_of(speeds: dict) -> dict:
    """Frames per second by tool, the same for both sizes and placements."""
    tools = [tool for tool in compare.TOOLS if tool.key in speeds]
    runs = {}
    for tool in tools:
        result = compare.Figures(
            frames=speeds[tool.key],
            corrupted=1,
            seconds=1.0,
            server_cpu=0.5,
            client_cpu=0.5,
            client_wait=0.0,
            kernel_share=0.5,
        )
        for size in compare.SIZES:
            for placement in compare.PLACEMENTS:
                runs[tool.key, size, placement] = [result]
    rows = compare.rows_of(runs, tools)
    settings = {"rounds": 1, "duration": 1.0, "window": compare.WINDOW, "error_rate": compare.ERROR_RATE}
    return {
        "rows": rows,
        "verdicts": compare.verdicts(rows),
        "runs": 4,
        "disturbed_runs": 0,
        "failures": [],
        **settings,
    }


WINDOW = {"rows": [], "runs": 3, "disturbed_runs": 2}
FAST = {"lattivo": 300_000, "vde": 100_000, "ns3": 90_000}
SLOW = {**FAST, "ns3": 110_000}


class DocumentTest(unittest.TestCase):
    def text(self, engine_figures: dict, comparison: dict, window: dict = WINDOW) -> str:
        output = Path(self.enterContext(tempfile.TemporaryDirectory())) / "performance.md"
        texts = document.texts(engine_figures, comparison, window)
        write(document.TEMPLATE, output, machine="any", **texts)
        return output.read_text(encoding="utf-8")

    def test_a_missed_target_against_the_limit_stands_in_its_row_and_in_the_summary(self):
        text = self.text(engine(1.1), comparison_of(FAST))
        self.assertIn("| one pair | frames/s | 1,100 | 1,000 | 1.10 | 1.10–1.10 | ≥ 1.20 | **MISSED** |", text)
        self.assertIn("- **MISSED**: one pair, frames/s", text)
        self.assertIn("4 of 5 targets are reached", text)

    def test_a_missed_target_beside_another_tool_stands_in_its_row_and_in_the_summary(self):
        text = self.text(engine(1.3), comparison_of(SLOW))
        self.assertIn("| 300,000 | 110,000 | 2.73 | ≥ 3 | **MISSED** |", text)
        self.assertIn("- **MISSED**: 64 bytes, frames/s (and bits carried/s), Lattivo : ns-3", text)

    def test_reached_targets_leave_no_word_of_a_missed_one(self):
        text = self.text(engine(1.3), comparison_of(FAST))
        self.assertIn("5 of 5 targets are reached", text)
        self.assertNotIn("MISSED", text)

    def test_the_floor_has_a_table_of_its_own(self):
        figures = engine(1.3)
        costs = [1.44, 1.5, 1.56], [1.2, 1.2, 1.2]
        figures["rows"].append(ratio_row("floor", "small", "one pair", "CPU µs/frame", *costs, 1.2))
        text = self.text(figures, comparison_of(FAST))
        section = text.partition("## Against the floor")[2].partition("\n## ")[0]
        self.assertIn("| one pair | CPU µs/frame | 1.50 | 1.20 | 1.25 | 1.20–1.30 | ≤ 1.20 | **MISSED** |", section)
        self.assertNotIn("frames/s | 1,300", section)
        self.assertIn("- **MISSED**: one pair, CPU µs/frame against the floor", text)

    def test_a_missed_target_of_the_window_stands_in_its_row_and_in_the_summary(self):
        row = ratio_row("headless", "small", "one pair", "frames/s", [700.0], [1000.0], 0.8, at_least=True)
        text = self.text(engine(1.3), comparison_of(FAST), {**WINDOW, "rows": [row]})
        self.assertIn("| one pair | frames/s | 700.00 | 1,000 | 0.70 | 0.70–0.70 | ≥ 0.80 | **MISSED** |", text)
        self.assertIn("- **MISSED**: with the window: one pair, frames/s", text)

    def test_growth_stands_in_the_table_without_a_target_too(self):
        figures = engine(1.3)
        costs = [9.0], [7.5]
        figures["rows"].append(ratio_row("growth", "pairs-growth", "the same, of the limit", "CPU µs/frame", *costs))
        self.assertIn(
            "| the same, of the limit | CPU µs/frame | 9.00 | 7.50 |", self.text(figures, comparison_of(FAST))
        )

    def test_disturbed_runs_are_told(self):
        text = self.text(engine(1.3), comparison_of(FAST))
        self.assertIn("1 of 2 runs against limit and floor, 2 of 3 with the window and 0 of 4 beside", text)

    def test_runs_of_other_tools_that_failed_are_told(self):
        comparison = {**comparison_of(FAST), "failures": ["VDE: no frame arrived intact"]}
        self.assertIn("Made again because they failed: VDE: no frame", self.text(engine(1.3), comparison))

    def test_each_target_is_judged_by_itself(self):
        judged = document.judged_targets(engine(1.3), comparison_of(SLOW), WINDOW)
        self.assertEqual([False, False], [reached for words, reached in judged if "ns-3" in words])
        self.assertEqual([True, True, True], [reached for words, reached in judged if "ns-3" not in words])


class TableTest(unittest.TestCase):
    def test_a_terminal_shows_columns_one_below_the_other(self):
        text = table(["workload", "figure"], [["one", "5"], ["another one", "1,000"]], left=["workload"])
        lines = ["workload     figure", "-----------  ------", "one               5", "another one   1,000"]
        self.assertEqual(lines, aligned(text).splitlines())


class GrowthTest(unittest.TestCase):
    """The costs are given, in µs a frame."""

    LIMIT = {64: 8.0, 256: 8.0}
    FLOOR = {64: 1.0, 256: 1.5}

    def contender(self, costs: dict):
        def figures(workload: Workload, _arguments: list) -> dict:
            return {"server_cpu_seconds": costs[workload.pairs], "frames": 1_000_000}

        return figures

    def verdict(self, ours: dict) -> Row:
        lab = Bench(types.SimpleNamespace(rounds=3, duration=1.0), self.enterContext(tempfile.TemporaryDirectory()))
        lab.contenders = lambda _workload: [self.contender(costs) for costs in (ours, self.LIMIT, self.FLOOR)]
        return next(row for row in run.pairs_growth(lab) if row.table == "floor")

    def test_growth_as_the_floor_grows_is_reached(self):
        row = self.verdict({64: 2.0, 256: 3.0})
        self.assertEqual((1.5, 1.5, 1.0, True), (row.ours, row.other, row.ratio, row.reached))

    def test_growth_beyond_the_floor_s_is_missed(self):
        row = self.verdict({64: 2.0, 256: 3.1})
        self.assertEqual((1.55, 1.5, False), (row.ours, row.other, row.reached))


class VerdictTest(unittest.TestCase):
    def test_the_better_placement_of_each_tool_counts(self):
        rows = comparison_of(FAST)["rows"]
        for row in rows:
            if row["key"] == "vde" and row["placement"] == "any core":
                row["frames_per_second"] = 200_000
        ratios = [verdict["ratio"] for verdict in compare.verdicts(rows) if verdict["title"].endswith("Lattivo : VDE")]
        self.assertEqual([1.5, 1.5], ratios)

    def test_a_tool_that_corrupts_too_few_frames_is_not_measured(self):
        few = compare.Figures(100_000, 1_000, 1.0, 0.5, 0.5, 0.0, 0.5)
        with self.assertRaises(MeasurementFailed):
            compare.check_corruption(compare.TOOLS[0], 64, few)


class FailingTool:
    """Fails so often before it is measured."""

    def __init__(self, key: str, failures: int):
        self.tool = compare.Tool(key, "Tool", self.measure, decided_bits=None)
        self.left = failures

    def measure(self, _current: compare.Run, size: int) -> compare.Figures:
        self.left -= 1
        if self.left >= 0:
            raise MeasurementFailed("stalled")
        frames = 1_000_000
        return compare.Figures(frames, round(frames * compare.expected_share(size)), 1.0, 0.5, 0.5, 0.0, 0.5)


class FailureTest(unittest.TestCase):
    def setUp(self):
        self.bench = compare.Bench(None, self.enterContext(tempfile.TemporaryDirectory()))

    def measure(self, failing: FailingTool) -> compare.Figures:
        return compare.measure_patiently(self.bench, failing.tool, 64, "any core")

    def test_a_run_of_another_tool_that_fails_is_made_again_and_noted(self):
        self.measure(FailingTool("vde", failures=2))
        self.assertEqual(self.bench.failures, 2 * ["Tool: stalled"])

    def test_another_tool_that_always_fails_is_not_measured(self):
        with self.assertRaises(MeasurementFailed):
            self.measure(FailingTool("vde", failures=100))

    def test_a_failure_of_our_own_is_not_made_good(self):
        with self.assertRaises(MeasurementFailed):
            self.measure(FailingTool("lattivo", failures=1))
        self.assertEqual(self.bench.failures, [])


def build_folder() -> Path:
    return Path(os.environ["LATTIVO_HEADLESS"]).parent


def tools_are_there() -> bool:
    built = [find_program(build_folder(), name) for name in ("lattivo_frameload", "lattivo_ns3link")]
    return None not in built and None not in [shutil.which(name) for name in ("vde_switch", "wirefilter")]


class ProgramTest(unittest.TestCase):
    def start(self, program: str | Path, *arguments: str) -> subprocess.Popen:
        process = subprocess.Popen([program, *arguments], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.addCleanup(process.communicate)
        self.addCleanup(process.kill)
        return process

    def start_server(self, command: list[str]) -> Server:
        folder = Path(self.enterContext(tempfile.TemporaryDirectory()))
        return self.enterContext(Server(command, folder / "log"))

    def start_client(self, port: int | str, *arguments: str) -> subprocess.Popen:
        client = find_program(build_folder(), "lattivo_loadclient")
        return self.start(client, "--port", str(port), *arguments)

    def figures(self, client: subprocess.Popen) -> dict:
        output, errors = client.communicate(timeout=PATIENCE)
        self.assertEqual((client.returncode, errors), (0, ""))
        return json.loads(output)


class PacedLoadTest(ProgramTest):
    RATE = 100_000  # frames/s
    STOPS = 4
    STOP_TIME = 0.25  # s, several times what fills the receive window at this rate
    RUN_TIME = 0.1  # s, between two stops

    def test_no_message_is_cut_while_the_simulator_stands_still(self):
        file = Path(self.enterContext(tempfile.TemporaryDirectory())) / "pair.ltvo"
        file.write_bytes(makesimulation.simulation_file(makesimulation.Simulation()))
        command = [str(build_folder() / "lattivo-headless"), str(file), "--listen", "0", "--identify-by", "address"]
        simulator = self.start_server(command)
        load = ["--rate", str(self.RATE), "--duration", str(1.0 + self.STOPS * (self.STOP_TIME + self.RUN_TIME))]
        client = self.start_client(simulator.port, *load)
        for _ in range(self.STOPS):
            time.sleep(self.RUN_TIME)
            simulator.process.send_signal(signal.SIGSTOP)
            time.sleep(self.STOP_TIME)
            simulator.process.send_signal(signal.SIGCONT)
        self.assertGreater(self.figures(client)["frames"], 0)


class OptionsTest(ProgramTest):
    def test_a_value_that_is_no_whole_number_is_refused(self):
        for value in ("12x", "", "-1", "1e99"):
            client = self.start_client(1, "--window", value)
            _, errors = client.communicate(timeout=PATIENCE)
            self.assertEqual(2, client.returncode, value)
            self.assertIn("usage: lattivo_loadclient", errors)


class StepTest(ProgramTest):
    """This test is the server of the programs."""

    PAIRS = 2
    PROGRAMS = range(2 * PAIRS)
    FRAME_BYTES = 64
    MESSAGE_BYTES = 5 + FRAME_BYTES
    SENDER_OFFSET = 5 + 11  # the last byte of its address
    NUMBER = slice(5 + 12, 5 + 20)
    PROBE = b"\xff" * 8  # its number
    SHORT_TIME = 0.2  # s, in which a program would send too early

    def setUp(self):
        server = self.enterContext(socket.create_server(("127.0.0.1", 0)))
        server.settimeout(PATIENCE)
        window = ["--in-step", "--pairs", str(self.PAIRS), "--window", "1", "--size", str(self.FRAME_BYTES)]
        self.start_client(server.getsockname()[1], *window)
        self.programs = {}
        for _ in self.PROGRAMS:
            program = self.enterContext(server.accept()[0])
            program.settimeout(PATIENCE)
            identification = program.recv(5 + 7, socket.MSG_WAITALL)
            self.programs[identification[-1]] = program

    def receive_step(self) -> dict[int, bytes]:
        """A message of each program, by sender; the probes before the first step are delivered."""
        messages = {}
        while len(messages) < len(self.PROGRAMS):
            ready, _, _ = select.select(self.programs.values(), [], [], PATIENCE)
            self.assertNotEqual([], ready)
            for program in ready:
                message = program.recv(self.MESSAGE_BYTES, socket.MSG_WAITALL)
                sender = message[self.SENDER_OFFSET]
                if message[self.NUMBER] == self.PROBE:
                    self.deliver(sender, message)
                else:
                    messages[sender] = message
        return messages

    def deliver(self, sender: int, message: bytes):
        self.programs[sender ^ 1].sendall(message)

    def test_all_programs_send_when_each_has_got_its_frame_and_not_before(self):
        for _step in range(3):
            messages = self.receive_step()
            for sender in self.PROGRAMS[1:]:
                self.deliver(sender, messages[sender])
            too_early, _, _ = select.select(self.programs.values(), [], [], self.SHORT_TIME)
            self.assertEqual([], too_early)
            self.deliver(0, messages[0])


class LimitTest(ProgramTest):
    def test_the_simulator_and_the_limit_are_measured_in_turns(self):
        folder = Path(self.enterContext(tempfile.TemporaryDirectory()))
        command = [
            sys.executable,
            "-B",
            "-m",
            "measuring.limit.run",
            "--build-dir",
            str(build_folder()),
            "--rounds",
            "1",
        ]
        command += ["--duration", "0.2", "--json", str(folder / "figures")]
        command += ["--only", "small", "--only", "noisy-large", "--only", "in-step"]
        result = subprocess.run(command, capture_output=True, text=True, timeout=PATIENCE)
        self.assertIn(result.returncode, (0, 1), result.stderr)  # how fast they are is not judged here
        rows = json.loads((folder / "figures").read_text())["rows"]
        self.assertEqual(["small", "noisy-large", "in-step", "p99"], list(dict.fromkeys(row["key"] for row in rows)))
        self.assertEqual({"small"}, {row["key"] for row in rows if row["table"] == "floor"})

    def test_the_floor_relays_every_frame(self):
        limit_server = find_program(build_folder(), "lattivo_limitserver")
        floor = self.start_server([limit_server, "--star", "3", "--reliability", "0", "--no-draws"])
        figures = self.figures(self.start_client(floor.port, "--star", "3", "--window", "1", "--frames", "1000"))
        self.assertEqual(0, figures["lost"])


@unittest.skipUnless(
    tools_are_there(), "VDE or ns-3 is missing: scripts/performance.sh installs them and builds what attaches to them"
)
class ComparisonTest(unittest.TestCase):
    def test_frames_go_through_every_tool_and_are_corrupted_at_the_set_rate(self):
        folder = Path(self.enterContext(tempfile.TemporaryDirectory()))
        command = [sys.executable, "-B", "-m", "measuring.compare.compare", "--build-dir", str(build_folder())]
        command += ["--rounds", "1", "--duration", "0.2", "--json", str(folder / "figures")]
        result = subprocess.run(command, capture_output=True, text=True, timeout=PATIENCE)
        self.assertIn(result.returncode, (0, 1), result.stderr)  # how fast they are is not judged here
        rows = json.loads((folder / "figures").read_text())["rows"]
        self.assertEqual([tool.key for tool in compare.TOOLS], list(dict.fromkeys(row["key"] for row in rows)))


if __name__ == "__main__":
    unittest.main()
