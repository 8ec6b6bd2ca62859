"""Tests of the runner on a machine that fails it: full and read-only disks, taken ports, signals.

The environment variables LATTIVO_HEADLESS and LATTIVO_PROGRAM hold the paths of the runner and of the program with the
window; CTest sets them.
"""

from __future__ import annotations

import json
import os
import resource
import shutil
import signal
import socket
import subprocess
import threading
import unittest
from pathlib import Path

import lattivo

from measuring.lab.makesimulation import frame_between
from tests.support import desktop, formatreader, surroundings
from tests.support.runner import (
    NO_DUMP,
    NO_PORT,
    NO_REPORT,
    NOT_LOADED,
    SUCCESS,
    Run,
    RunnerTest,
    environment,
    needs_root,
    needs_surroundings,
)

SOON = "0.1"  # seconds after which a run ends that has nothing to do
DUMP_HEADER_SIZE = 24
RECORD_OVERHEAD = 18  # bytes around each frame of a dump

DISK_FULL = "No space left on device"
READ_ONLY = "Read-only file system"
DENIED = "Permission denied"

# Root that has given these up is bound by permissions, and by the ports that are root's alone
BOUND_BY_PERMISSIONS = ("setpriv", "--bounding-set=-dac_override,-dac_read_search")
BOUND_TO_HIGH_PORTS = ("setpriv", "--bounding-set=-net_bind_service")


def setUpModule() -> None:  # noqa: N802
    if not surroundings.unavailable():
        surroundings.make_mounts_private()


class TestOutputs(RunnerTest):
    """Dump and report cannot be written, or not whole."""

    def fill_capture(self, port: int, frames: int) -> None:
        sender, _ = self.attach(port, 0), self.attach(port, 1)
        for number in range(frames):
            self.assertEqual(sender.outcome_of(frame_between(0, 1, number, 255)), lattivo.Outcome.DELIVERED)

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


class TestSimulationFile(RunnerTest):
    """The simulation cannot be read, or changes while it is read."""

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


class TestPorts(RunnerTest):
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


class TestSurroundings(RunnerTest):
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
            self.assertEqual(left.outcome_of(frame_between(0, 1, number)), lattivo.Outcome.LOST)
        self.assertEqual(right.receive_messages(0.0), [])
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
            self.assertEqual(left.outcome_of(frame), lattivo.Outcome.DELIVERED)
            self.assertEqual(right.next_message(), lattivo.Frame(frame))
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


if __name__ == "__main__":
    unittest.main()
