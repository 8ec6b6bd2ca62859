"""Tests of the programs on a machine that fails them: full and read-only disks, taken ports, pulled cables, signals.

The environment variables LATTIVO_HEADLESS and LATTIVO_PROGRAM hold the paths of the runner and of the program with
the window; CTest sets them.
"""

from __future__ import annotations

import json
import os
import resource
import select
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest
from contextlib import ExitStack, closing
from pathlib import Path
from typing import Callable

from tests.support import desktop, formatreader, lattivowindow, surroundings

TOP_FOLDER = Path(__file__).resolve().parents[2]

import bridge
import numbered

from measuring.lab import makesimulation

PATIENCE = 60.0  # seconds; only a failing test waits that long
CONFIRMATION_TIMEOUT = 50  # ms
SOON = "0.1"  # seconds after which a run ends that has nothing to do
DUMP_HEADER_SIZE = 24
RECORD_OVERHEAD = 18  # bytes around each frame of a dump

# As the runner's --help lists them
SUCCESS, WRONG_OPTION, NOT_LOADED, NO_PORT, NO_DUMP, NO_REPORT = 0, 2, 3, 4, 5, 6

DISK_FULL = "No space left on device"
READ_ONLY = "Read-only file system"
DENIED = "Permission denied"

# Root that has given these up is bound by permissions, and by the ports that are root's alone
BOUND_BY_PERMISSIONS = ("setpriv", "--bounding-set=-dac_override,-dac_read_search")
BOUND_TO_HIGH_PORTS = ("setpriv", "--bounding-set=-net_bind_service")


def setUpModule() -> None:  # noqa: N802
    if not surroundings.unavailable():
        surroundings.make_mounts_private()


def needs_surroundings(test: object) -> object:
    reason = surroundings.unavailable()
    return unittest.skipIf(reason, f"disks and networks cannot be made here, which root may: {reason}")(test)


def needs_root(test: object) -> object:
    return unittest.skipIf(os.geteuid() != 0, "only root can give up single rights")(test)


def environment(**more: str) -> dict[str, str]:
    """What a build server has, and sanitizers that keep little of the memory that was given back."""
    kept = ("PATH", "LD_LIBRARY_PATH", "LSAN_OPTIONS", "UBSAN_OPTIONS")
    own = {name: os.environ[name] for name in kept if name in os.environ}
    sanitizer = os.environ.get("ASAN_OPTIONS", "") + ":quarantine_size_mb=4"
    return {**own, "ASAN_OPTIONS": sanitizer, **more}


class Program(bridge.Bridge):
    """The program of a node, one message at a time."""

    @property
    def raw(self) -> socket.socket:
        return self._socket

    def ask(self, message: bytes) -> bridge.Message:
        """Send a message and return its answer, which says too that the simulator has read the message whole."""
        self._socket.sendall(message)
        return next_message(self)

    def outcome_of(self, frame: bytes) -> bridge.Outcome:
        """Send a frame and return what became of it."""
        return self.ask(bridge.encode_frame(frame)).outcome


class Run:
    """One run of the runner, which does not outlive its test."""

    def __init__(self, stack: ExitStack, *command: str, **options: object) -> None:
        settings = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, "env": environment(), **options}
        self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL, **settings)
        for stream in (self.process.stdout, self.process.stderr):
            if stream:
                stack.callback(stream.close)
        stack.callback(self.process.wait)
        stack.callback(self.process.kill)

    @property
    def pid(self) -> int:
        return self.process.pid

    def port(self) -> int:
        """Wait for the line that says on which port it listens."""
        if not select.select([self.process.stdout], [], [], PATIENCE)[0]:
            raise AssertionError("no answer from the simulator")
        line = self.process.stdout.readline().decode()
        if not line.startswith("listening on port "):
            raise AssertionError(f"{line!r} instead of the port, {self.process.stderr.read()!r}")
        return int(line.split()[-1])

    def end(self) -> tuple[int, str]:
        self.process.send_signal(signal.SIGTERM)
        return self.result()

    def result(self) -> tuple[int, str]:
        """Wait for the end; return the exit code and what was written to standard error."""
        _, errors = self.process.communicate(timeout=PATIENCE)
        return self.process.returncode, (errors or b"").decode()


class FaultTest(unittest.TestCase):
    """A folder, and runners in it."""

    def setUp(self) -> None:
        self.folder = Path(self.enterContext(tempfile.TemporaryDirectory(prefix="lattivo-")))
        self.stack = self.enterContext(ExitStack())
        self.simulation = self.folder / "a.ltvo"
        self.dump = self.folder / "a.pcap"
        self.report = self.folder / "a.json"

    def make_disk(self, limits: str = "size=64k") -> surroundings.Disk:
        disk = surroundings.Disk(self.folder / "disk", limits)
        self.stack.callback(disk.remove)
        return disk

    def make_simulation(self, pairs: int = 1, largest_frame: int = 255, **more: float) -> None:
        settings = makesimulation.Simulation(
            pairs=pairs,
            maximal_transfer_unit=largest_frame,
            confirms=True,
            confirmation_timeout=CONFIRMATION_TIMEOUT,
            **more,
        )
        self.simulation.write_bytes(makesimulation.simulation_file(settings))

    def start(self, *arguments: str, before: tuple[str, ...] = (), **options: object) -> Run:
        """Start the runner, perhaps through other commands."""
        return Run(self.stack, *before, os.environ["LATTIVO_HEADLESS"], *arguments, "--listen", "0", **options)

    def attach(self, port: int, node: int, host: str = "127.0.0.1") -> Program:
        """Attach a program; return when it is: a frame without addresses is reported as lost then."""
        program = Program(host, port, PATIENCE)
        self.stack.callback(program.close)
        program.identify(address=makesimulation.node_address(node))
        self.assertEqual(program.outcome_of(b"\0"), bridge.Outcome.LOST)
        return program

    def assert_one_line(self, errors: str, *parts: str) -> None:
        self.assertEqual(errors.count("\n"), 1, errors)
        self.assertTrue(errors.startswith("lattivo-headless: "), errors)
        for part in parts:
            self.assertIn(part, errors)

    def reported(self) -> dict[str, object]:
        return json.loads(self.report.read_text(encoding="utf-8"))

    def reported_node(self, node: int) -> dict[str, object]:
        name = makesimulation.node_name(node)
        return next(entry for entry in self.reported()["nodes"] if entry["name"] == name)


def frame_between(source: int, destination: int, number: int, size: int = 64) -> bytes:
    addresses = (makesimulation.node_address(node) for node in (destination, source))
    return numbered.build_frame(*addresses, number, size)


def next_message(program: Program) -> bridge.Message:
    """Return the next message; nothing else is under way then."""
    messages: list[bridge.Message] = []
    end = time.monotonic() + PATIENCE
    while not messages:
        if time.monotonic() > end:
            raise AssertionError("no message from the simulator")
        messages = program.receive(1.0)
    if len(messages) != 1:
        raise AssertionError(f"more than one message: {messages}")
    return messages[0]


def next_frames(program: Program, count: int) -> list[bytes]:
    """Return the next frames, which may come together."""
    frames: list[bytes] = []
    end = time.monotonic() + PATIENCE
    while len(frames) < count:
        if time.monotonic() > end:
            raise AssertionError(f"only {len(frames)} of {count} frames from the simulator")
        frames += [message.payload for message in program.receive(1.0) if isinstance(message, bridge.Frame)]
    return frames


class TestOutputs(FaultTest):
    """Dump and report cannot be written, or not whole."""

    def fill_capture(self, port: int, frames: int) -> None:
        sender, _ = self.attach(port, 0), self.attach(port, 1)
        for number in range(frames):
            self.assertEqual(sender.outcome_of(frame_between(0, 1, number, 255)), bridge.Outcome.DELIVERED)

    @needs_surroundings
    def test_a_disk_that_fills_up_in_the_dump_is_reported_and_the_report_is_written(self) -> None:
        disk = self.make_disk("size=32k")
        self.make_simulation()
        dump = disk.folder / "a.pcap"
        run = self.start(str(self.simulation), "--capture", str(dump), "--report", str(self.report))
        self.fill_capture(run.port(), 150)  # 40 KB
        code, errors = run.end()
        self.assertEqual(code, NO_DUMP)
        self.assert_one_line(errors, f"cannot write the dump {dump}", DISK_FULL)
        self.assertEqual(self.reported()["captured"]["frames"], 150)
        self.assertEqual(dump.stat().st_size, 32 * 1024)

    @needs_surroundings
    def test_a_disk_that_is_full_at_the_end_has_its_dump_but_no_report(self) -> None:
        disk = self.make_disk()
        self.make_simulation()
        report = disk.folder / "a.json"
        run = self.start(str(self.simulation), "--capture", str(self.dump), "--report", str(report))
        self.fill_capture(run.port(), 10)
        disk.fill()
        code, errors = run.end()
        self.assertEqual(code, NO_REPORT)
        self.assert_one_line(errors, f"cannot write the report {report}", DISK_FULL)
        self.assertEqual(self.dump.stat().st_size, DUMP_HEADER_SIZE + 10 * (255 + RECORD_OVERHEAD))

    @needs_surroundings
    def test_a_disk_without_room_for_a_file_ends_the_run_at_once(self) -> None:
        disk = self.make_disk("size=64k,nr_inodes=2")
        disk.fill()
        self.assert_refused(disk.folder, DISK_FULL)

    @needs_surroundings
    def test_a_read_only_disk_ends_the_run_at_once(self) -> None:
        disk = self.make_disk()
        disk.make_read_only()
        self.assert_refused(disk.folder, READ_ONLY)

    @needs_root
    def test_a_folder_without_permission_ends_the_run_at_once(self) -> None:
        folder = self.folder / "closed"
        folder.mkdir(0o500)
        self.assert_refused(folder, DENIED, before=BOUND_BY_PERMISSIONS)

    def assert_refused(self, folder: Path, reason: str, **options: object) -> None:
        for option, what, expected in (("--capture", "dump", NO_DUMP), ("--report", "report", NO_REPORT)):
            with self.subTest(what):
                code, errors = self.start(option, str(folder / "a"), **options).result()
                self.assertEqual(code, expected)
                self.assert_one_line(errors, f"cannot write the {what} {folder / 'a'}", reason)
                self.assertFalse((folder / "a").exists())

    def test_an_error_that_shows_when_the_file_is_written_or_closed_is_reported(self) -> None:
        for call, error, reason in (("write", "EIO", "Input/output error"), ("close", "EDQUOT", "Disk quota exceeded")):
            for option, file, expected in (("--capture", self.dump, NO_DUMP), ("--report", self.report, NO_REPORT)):
                with self.subTest(f"{error} of {call}", option=option):
                    run = self.start_with_failing_calls(f"{call}:error={error}", file, option, str(file))
                    code, errors = run.result()
                    self.assertEqual(code, expected)
                    self.assert_one_line(errors, str(file), reason)

    def test_an_interrupted_write_is_made_again(self) -> None:
        run = self.start_with_failing_calls("write:error=EINTR:when=1..3", self.dump, "--capture", str(self.dump))
        self.assertEqual(run.result(), (SUCCESS, ""))
        self.assertEqual(self.dump.stat().st_size, DUMP_HEADER_SIZE)

    def start_with_failing_calls(self, fault: str, file: Path, *arguments: str) -> Run:
        """Start the runner with a kernel that answers a call on a file with an error."""
        if shutil.which("strace") is None:
            self.skipTest("strace is not installed: failing calls were not tested")
        file.touch()  # strace finds out at its start which file a path means
        trace = ("strace", "-f", "-q", "-o", str(self.folder / "trace"), "-P", str(file))
        inject = ("-e", f"trace={fault.split(':')[0]}", "-e", f"inject={fault}")
        leaks_unchecked = environment(ASAN_OPTIONS="detect_leaks=0")  # the checker needs what strace uses
        return self.start(
            *arguments, "--duration", SOON, before=trace + inject, env=leaks_unchecked, stdout=subprocess.DEVNULL
        )

    def test_a_file_that_may_not_grow_is_reported(self) -> None:
        limit = DUMP_HEADER_SIZE - 1

        def restrict() -> None:
            resource.setrlimit(resource.RLIMIT_FSIZE, (limit, limit))

        run = self.start("--capture", str(self.dump), "--duration", SOON, preexec_fn=restrict)
        code, errors = run.result()
        self.assertEqual(code, NO_DUMP)
        self.assert_one_line(errors, "File too large")

    def test_the_reader_of_a_pipe_gets_the_whole_file(self) -> None:
        pipe = self.folder / "pipe"
        os.mkfifo(pipe)
        run = self.start("--report", str(pipe))
        with pipe.open("rb") as reader:
            run.port()
            run.process.send_signal(signal.SIGTERM)
            self.assertEqual(json.load(reader)["endedBy"], "signal")
        self.assertEqual(run.result(), (SUCCESS, ""))

    def test_a_reader_that_goes_away_is_reported(self) -> None:
        pipe = self.folder / "pipe"
        os.mkfifo(pipe)
        run = self.start("--report", str(pipe))
        with pipe.open("rb"):
            run.port()
        code, errors = run.end()
        self.assertEqual(code, NO_REPORT)
        self.assert_one_line(errors, "Broken pipe")

    def test_waiting_for_the_reader_of_a_pipe_ends_by_a_signal(self) -> None:
        pipe = self.folder / "pipe"
        os.mkfifo(pipe)
        for option in ("--capture", "--report"):
            with self.subTest(option):
                run = self.start(option, str(pipe))
                desktop.wait_for("the runner to open the pipe", lambda: is_waiting(run.pid))
                self.assertEqual(run.end(), (-signal.SIGTERM, ""))


def is_waiting(pid: int) -> bool:
    """Tell whether a runner has started and sleeps now."""
    has_started = "libqoffscreen" in Path(f"/proc/{pid}/maps").read_text(encoding="utf-8")
    state = Path(f"/proc/{pid}/stat").read_text(encoding="utf-8").rpartition(")")[2].split()[0]
    return has_started and state == "S"


class TestSimulationFile(FaultTest):
    """The simulation cannot be read, or changes meanwhile."""

    @needs_surroundings
    def test_a_simulation_on_a_read_only_disk_is_run(self) -> None:
        disk = self.make_disk()
        self.simulation = disk.folder / "a.ltvo"
        self.make_simulation()
        disk.make_read_only()
        run = self.start(str(self.simulation))
        self.attach(run.port(), 0)
        self.assertEqual(run.end(), (SUCCESS, ""))

    def test_a_simulation_that_changes_all_the_time_is_run_or_refused(self) -> None:
        self.make_simulation(pairs=500)
        whole = self.simulation.read_bytes()
        is_over = threading.Event()

        def change() -> None:
            while not is_over.is_set():
                for size in (0, len(whole) // 2, len(whole)):
                    self.simulation.write_bytes(whole[:size])

        writer = threading.Thread(target=change)
        writer.start()
        try:
            for _ in range(10):
                code, errors = self.start(str(self.simulation), "--duration", "0.01").result()
                self.assertIn(code, (SUCCESS, NOT_LOADED))
                if code == NOT_LOADED:
                    self.assert_one_line(errors, "cannot load the simulation")
        finally:
            is_over.set()
            writer.join()


class TestPorts(FaultTest):
    """The port cannot be had."""

    def assert_refused(self, port: int, reason: str, **options: object) -> None:
        code, errors = self.start("--listen", str(port), **options).result()
        self.assertEqual(code, NO_PORT)
        self.assert_one_line(errors, f"cannot open port {port}: ", reason)

    def start(self, *arguments: str, before: tuple[str, ...] = (), **options: object) -> Run:
        return Run(self.stack, *before, os.environ["LATTIVO_HEADLESS"], *arguments, **options)

    def test_a_port_that_another_program_has_on_any_of_the_addresses_is_reported(self) -> None:
        for family, host in ((socket.AF_INET, ""), (socket.AF_INET, "127.0.0.1"), (socket.AF_INET6, "::")):
            with self.subTest(host), socket.socket(family) as other:
                other.bind((host, 0))
                other.listen()
                self.assert_refused(other.getsockname()[1], "The bound address is already in use")

    @needs_root
    def test_a_port_of_root_is_reported(self) -> None:
        self.assert_refused(80, "The address is protected", before=BOUND_TO_HIGH_PORTS)

    def test_a_port_is_free_again_once_the_other_run_has_ended(self) -> None:
        self.make_simulation()
        first = self.start(str(self.simulation), "--listen", "0")
        port = first.port()
        self.attach(port, 0)
        self.assert_refused(port, "already in use")
        self.assertEqual(first.end(), (SUCCESS, ""))
        second = self.start(str(self.simulation), "--listen", str(port))
        self.assertEqual(second.port(), port)


class TestSurroundings(FaultTest):
    """Streams, signals, folders and settings that other programs take for granted."""

    def ended_by(self, *streams: int, number: int | None = None, **options: object) -> str:
        """Run with some of the standard streams closed and return what ended the run."""

        def close() -> None:
            for stream in streams:
                os.close(stream)

        run = self.start(
            "--capture",
            str(self.dump),
            "--report",
            str(self.report),
            "--duration",
            SOON,
            preexec_fn=close,
            stdout=subprocess.DEVNULL,
            **options,
        )
        self.assertEqual(run.result(), (SUCCESS, ""))
        self.assertEqual(formatreader.read_dump(self.dump.read_bytes()), [])
        return str(self.reported()["endedBy"])

    def test_closed_standard_streams_get_into_no_file_and_end_nothing(self) -> None:
        for streams in ((1,), (2,), (0, 1), (1, 2), (0, 1, 2)):
            with self.subTest(streams):
                self.assertEqual(self.ended_by(*streams), "duration")

    def test_bits_that_are_told_to_a_closed_stream_get_into_no_connection(self) -> None:
        self.make_simulation(reliability=0.5)
        run = self.start(
            str(self.simulation), "--debug-output", preexec_fn=lambda: os.close(2), stderr=subprocess.DEVNULL
        )
        port = run.port()
        left, right = self.attach(port, 0), self.attach(port, 1)
        for number in range(20):
            self.assertEqual(left.outcome_of(frame_between(0, 1, number)), bridge.Outcome.LOST)
        self.assertEqual(right.receive(0.0), [])
        self.assertEqual(run.end(), (SUCCESS, ""))

    def test_a_full_standard_output_is_no_end(self) -> None:
        with open("/dev/full", "wb") as full:
            run = self.start("--report", str(self.report), "--duration", SOON, stdout=full)
        self.assertEqual(run.result(), (SUCCESS, ""))
        self.assertEqual(self.reported()["endedBy"], "duration")

    def test_readers_of_both_streams_that_go_away_are_no_end(self) -> None:
        read_end, write_end = os.pipe()
        os.close(read_end)
        run = self.start("--report", str(self.report), "--duration", SOON, stdout=write_end, stderr=write_end)
        os.close(write_end)
        self.assertEqual(run.result(), (SUCCESS, ""))
        self.assertEqual(self.reported()["endedBy"], "duration")

    def test_the_end_of_the_terminal_ends_the_run_in_order(self) -> None:
        run = self.start("--report", str(self.report))
        run.port()
        run.process.send_signal(signal.SIGHUP)
        self.assertEqual(run.result(), (SUCCESS, ""))
        self.assertEqual(self.reported()["endedBy"], "signal")

    def test_a_run_under_nohup_outlives_the_terminal(self) -> None:
        self.make_simulation()
        run = self.start(str(self.simulation), preexec_fn=lambda: signal.signal(signal.SIGHUP, signal.SIG_IGN))
        port = run.port()
        run.process.send_signal(signal.SIGHUP)
        self.attach(port, 0)
        self.assertEqual(run.end(), (SUCCESS, ""))

    def test_signals_that_mean_nothing_lose_no_frame(self) -> None:
        self.make_simulation()
        run = self.start(str(self.simulation))
        port = run.port()
        left, right = self.attach(port, 0), self.attach(port, 1)
        for number in range(200):
            for harmless in (signal.SIGWINCH, signal.SIGCHLD, signal.SIGPIPE, signal.SIGSTOP, signal.SIGCONT):
                run.process.send_signal(harmless)
            frame = frame_between(0, 1, number)
            self.assertEqual(left.outcome_of(frame), bridge.Outcome.DELIVERED)
            self.assertEqual(next_message(right), bridge.Frame(frame))
        self.assertEqual(run.end(), (SUCCESS, ""))

    @needs_surroundings
    def test_nothing_is_written_into_the_current_folder(self) -> None:
        disk = self.make_disk()
        disk.make_read_only()
        run = self.start("--duration", SOON, cwd=disk.folder)
        self.assertEqual(run.result(), (SUCCESS, ""))
        code, errors = self.start("--report", "a.json", cwd=disk.folder).result()
        self.assertEqual(code, NO_REPORT)
        self.assert_one_line(errors, "cannot write the report a.json", READ_ONLY)

    def test_relative_names_are_meant_from_the_current_folder(self) -> None:
        self.make_simulation()
        (self.folder / "results").mkdir()
        run = self.start("../a.ltvo", "--capture", "a.pcap", "--report", "./../a.json", cwd=self.folder / "results")
        self.attach(run.port(), 0)
        self.assertEqual(run.end(), (SUCCESS, ""))
        self.assertEqual(self.reported_node(0)["attached"], True)
        self.assertEqual(formatreader.read_dump((self.folder / "results" / "a.pcap").read_bytes()), [])

    def test_a_current_folder_that_is_gone_is_no_end(self) -> None:
        gone = self.folder / "gone"
        gone.mkdir()
        # By the shell, as nobody can start a program in a folder that is gone
        shell = ("sh", "-c", 'cd "$0" && rmdir "$0" && exec "$@"', str(gone))
        for arguments, expected in (((), SUCCESS), (("--report", "a.json"), NO_REPORT), (("a.ltvo",), NOT_LOADED)):
            with self.subTest(arguments):
                gone.mkdir(exist_ok=True)
                run = self.start(*arguments, "--duration", SOON, before=shell)
                self.assertEqual(run.result()[0], expected)

    def test_no_home_and_no_locale_are_needed(self) -> None:
        homes = ({}, {"HOME": ""}, {"HOME": "/nowhere"}, {"TMPDIR": "/nowhere"})
        locales = ({"LC_ALL": "C"}, {"LC_ALL": "none_NONE.none"})
        kept = {name: value for name, value in environment().items() if name != "PATH"}
        for setting in homes + locales:
            with self.subTest(setting):
                run = self.start(
                    "--report", str(self.report), "--duration", SOON, env={**kept, **setting}, stdout=subprocess.DEVNULL
                )
                self.assertEqual(run.result()[0], SUCCESS)
                self.assertEqual(self.reported()["endedBy"], "duration")

    def test_a_name_beyond_ascii_is_kept_without_a_locale(self) -> None:
        report = self.folder / "größe.json"
        run = self.start("--report", str(report), "--duration", SOON, env={**environment(), "LC_ALL": "C"})
        self.assertEqual(run.result(), (SUCCESS, ""))
        self.assertTrue(report.exists())


class TestEnd(FaultTest):
    """The run ends while a program has not got all of its frames."""

    LARGE = 30000  # bytes of a frame
    FRAMES = 400  # more than the kernel's buffers take

    def test_a_program_that_writes_on_after_an_error_gets_its_frames_at_the_end(self) -> None:
        self.make_simulation(largest_frame=self.LARGE)
        run = self.start(str(self.simulation), "--report", str(self.report))
        port = run.port()
        sender, reader = self.attach(port, 0), self.attach(port, 1)
        for number in range(self.FRAMES):
            self.assertEqual(sender.outcome_of(frame_between(0, 1, number, self.LARGE)), bridge.Outcome.DELIVERED)
        reader.raw.sendall(bridge.HEADER.pack(bridge.MessageType.CLOSE, 0))
        while sender.outcome_of(frame_between(0, 1, 0)) == bridge.Outcome.DELIVERED:
            pass

        run.process.send_signal(signal.SIGTERM)
        desktop.wait_for("the report", lambda: self.report.stat().st_size > 0)
        arrived = 0
        while part := reader.raw.recv(20000):
            arrived += len(part)
            reader.raw.sendall(b"more")  # would cost the simulator its unsent bytes if it were gone
        self.assertGreaterEqual(arrived, self.FRAMES * len(bridge.encode_frame(bytes(self.LARGE))))
        self.assertEqual(run.result(), (SUCCESS, ""))


@needs_surroundings
class TestNetworkLoss(FaultTest):
    """The cable to the machine of one of the programs is pulled out while frames flow."""

    # Node 0 sends to node 1, whose program is on the other machine; nodes 2 and 3 have nothing to do with it
    LARGE = 30000  # bytes of a frame, so that the limit is reached soon
    UNSENT_LIMIT = 64 * 1024 * 1024
    LONGEST_ANSWER = 2.0  # seconds; far above what a busy machine needs, far below any time-out

    def setUp(self) -> None:
        super().setUp()
        self.near, self.far = surroundings.Machine(self.stack), surroundings.Machine(self.stack)
        self.cable = surroundings.Cable(self.near, self.far)
        self.make_simulation(pairs=2, largest_frame=self.LARGE)
        with self.near.inside():
            self.simulator = self.start(str(self.simulation), "--report", str(self.report))
        self.port = self.simulator.port()
        self.sender, self.left, self.right = (self.attach_near(node) for node in (0, 2, 3))
        self.lost = self.attach_far()

    def attach_near(self, node: int) -> Program:
        with self.near.inside():
            return self.attach(self.port, node)

    def attach_far(self) -> Program:
        with self.far.inside():
            return self.attach(self.port, 1, self.cable.near_address)

    def send(self, number: int, size: int = 64) -> bridge.Outcome:
        return self.sender.outcome_of(frame_between(0, 1, number, size))

    def assert_others_are_served(self) -> None:
        for number in range(20):
            start = time.monotonic()
            frame = frame_between(2, 3, number)
            self.assertEqual(self.left.outcome_of(frame), bridge.Outcome.DELIVERED)
            self.assertEqual(next_message(self.right), bridge.Frame(frame))
            self.assertLess(time.monotonic() - start, self.LONGEST_ANSWER)

    def test_frames_flow_again_when_the_cable_is_back(self) -> None:
        self.assertEqual(self.send(0), bridge.Outcome.DELIVERED)
        self.assertEqual(next_frames(self.lost, 1), [frame_between(0, 1, 0)])
        self.cable.pull_out()
        for number in range(1, 101):
            self.assertEqual(self.send(number), bridge.Outcome.DELIVERED)  # to the node: its program is attached
        self.assert_others_are_served()
        self.assertEqual(self.lost.receive(0.0), [])

        self.cable.plug_in()
        self.assertEqual(next_frames(self.lost, 100), [frame_between(0, 1, number) for number in range(1, 101)])
        back = frame_between(1, 0, 4711)
        self.lost.send(bridge.encode_frame(back))
        self.assertEqual(next_frames(self.sender, 1), [back])
        self.assertEqual(self.simulator.end(), (SUCCESS, ""))
        self.assertEqual(self.reported_node(1)["attached"], True)

    def test_what_waits_for_the_lost_program_is_bounded(self) -> None:
        before = surroundings.memory_of(self.simulator.pid, "VmHWM")
        self.cable.pull_out()
        waiting = 0
        while self.send(waiting, self.LARGE) == bridge.Outcome.DELIVERED:
            waiting += 1
            self.assertLess(waiting * self.LARGE, 2 * self.UNSENT_LIMIT)
        self.assertGreater(waiting * self.LARGE, self.UNSENT_LIMIT)
        for number in range(20):  # nothing is kept of what a program sends to the detached node
            self.assertEqual(self.send(number, self.LARGE), bridge.Outcome.LOST)
        self.assert_others_are_served()
        growth = surroundings.memory_of(self.simulator.pid, "VmHWM") - before
        self.assertLess(growth, 2 * self.UNSENT_LIMIT)  # sanitizers take some half more
        self.assertEqual(self.simulator.end(), (SUCCESS, ""))
        self.assertEqual(self.reported_node(1)["attached"], False)

    def test_the_program_stays_attached_until_tcp_gives_up_and_can_come_back(self) -> None:
        self.near.set_tcp_retries(3)  # some three seconds instead of a quarter of an hour
        self.cable.pull_out()
        start = time.monotonic()
        self.assertEqual(self.send(1), bridge.Outcome.DELIVERED)
        while self.send(2) == bridge.Outcome.DELIVERED:
            time.sleep(0.02)
            self.assertLess(time.monotonic() - start, PATIENCE)
        self.assertGreater(time.monotonic() - start, 0.5)
        self.assert_others_are_served()

        self.cable.plug_in()
        again = self.attach_far()
        self.assertEqual(self.send(3), bridge.Outcome.DELIVERED)
        self.assertEqual(next_frames(again, 1), [frame_between(0, 1, 3)])
        self.assertEqual(self.simulator.end(), (SUCCESS, ""))

    def test_the_end_of_a_run_does_not_wait_for_the_cable(self) -> None:
        self.cable.pull_out()
        for number in range(200):
            self.send(number, self.LARGE)
        start = time.monotonic()
        self.assertEqual(self.simulator.end(), (SUCCESS, ""))
        self.assertLess(time.monotonic() - start, 5.0)


class WindowTest(FaultTest):
    """The program with the window, on a screen."""

    NODES = ((100.0, 100.0), (250.0, 200.0))

    def setUp(self) -> None:
        missing = desktop.missing_programs()
        if missing:
            self.skipTest("the window is not tested: not installed: " + ", ".join(missing))
        super().setUp()
        self.screen = self.enterContext(desktop.Desktop(self.folder))
        self.window = self.open_window()

    def open_window(self) -> lattivowindow.LattivoWindow:
        program = os.environ["LATTIVO_PROGRAM"]
        return lattivowindow.LattivoWindow(self.screen, program, self.folder / "printed")

    def assert_goes_on(self) -> None:
        """The network is as it was and can be saved elsewhere; the program has nothing to say."""
        file = self.folder / "elsewhere.ltvo"
        self.window.save(file)
        self.assertEqual(self.window.quit(), 0)
        self.assertEqual(len(formatreader.read_simulation(file.read_bytes()).nodes), len(self.NODES))
        self.assertEqual((self.folder / "printed").read_text(encoding="utf-8"), "")


@needs_surroundings
class TestWindow(WindowTest):
    """The program with the window tells its user."""

    def name_file(self, title: str, file: Path, open_dialog: Callable[[], None]) -> None:
        """Type a name into the file dialog, and return when a message box of the same title is its answer."""
        open_dialog()
        dialog = self.screen.wait_for_window(title, self.window.window)
        self.window.type(str(file))
        self.window.press("Return")
        self.screen.wait_for_window(title, self.window.window, dialog)

    def acknowledge(self) -> None:
        self.window.press("Return")
        self.screen.wait_for_focus(self.window.window)

    def assert_saving_is_refused(self, folder: Path) -> None:
        self.name_file("Save Network", folder / "a.ltvo", lambda: self.window.press("ctrl+s"))
        self.acknowledge()
        down = ["Down"] * lattivowindow.FILE_MENU_EXPORT
        self.name_file("Export frame dump", folder / "a.pcapdump", lambda: self.window.press("alt+f", *down, "Return"))
        self.acknowledge()
        self.assertFalse((folder / "a.ltvo").exists() or (folder / "a.pcapdump").exists())

    def test_a_disk_that_takes_no_file_is_told(self) -> None:
        full = self.make_disk("size=64k,nr_inodes=2")
        full.fill()
        self.window.place_nodes(*self.NODES)
        self.assert_saving_is_refused(full.folder)
        full.make_room()
        full.make_read_only()
        self.assert_saving_is_refused(full.folder)
        self.assert_goes_on()

    def test_a_disk_that_fills_up_while_saving_does_no_harm(self) -> None:
        disk = self.make_disk()
        disk.fill()
        file = disk.folder / "a.ltvo"
        self.window.place_nodes(*self.NODES)
        self.window.save(file)
        desktop.wait_for("the file", file.exists)
        self.assertEqual(file.read_bytes(), b"")
        disk.make_room()
        whole = disk.folder / "b.ltvo"
        self.window.save(whole)
        self.assert_goes_on()
        self.assertEqual(len(formatreader.read_simulation(whole.read_bytes()).nodes), len(self.NODES))

    def test_a_taken_port_is_told(self) -> None:
        with closing(socket.create_server(("", 0))) as other:
            port = other.getsockname()[1]
            self.window.click_field(lattivowindow.SERVER_PORT_WITHOUT_NODES)
            self.window.press("ctrl+a")
            self.window.type(str(port))
            self.window.press("shift+Tab", "space")
            self.screen.wait_for_window("TCP Server", self.window.window)
            self.acknowledge()
        self.window.press("space")
        desktop.wait_for("the TCP server", lambda: desktop.accepts(port))
        self.window.place_nodes(*self.NODES)
        self.assert_goes_on()


class TestWindowInNarrowSurroundings(WindowTest):
    """Started without standard streams, and with the size of its files limited."""

    LARGEST_FILE = 512  # bytes

    def open_window(self) -> lattivowindow.LattivoWindow:
        launcher = self.folder / "launcher"
        start = f'ulimit -f 1\nexec "{os.environ["LATTIVO_PROGRAM"]}" <&- >&- 2>&-\n'
        launcher.write_text("#!/bin/sh\n" + start, encoding="utf-8")
        launcher.chmod(0o700)
        return lattivowindow.LattivoWindow(self.screen, str(launcher), self.folder / "printed")

    def test_a_file_that_may_not_grow_does_not_end_the_program(self) -> None:
        file = self.folder / "a.ltvo"
        self.window.place_nodes(*self.NODES, (100.0, 300.0), (300.0, 300.0))
        self.window.save(file)
        desktop.wait_for("the file", lambda: file.exists() and file.stat().st_size == self.LARGEST_FILE)
        self.assertEqual(self.window.quit(), 0)


if __name__ == "__main__":
    unittest.main()
