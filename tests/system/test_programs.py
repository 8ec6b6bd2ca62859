"""Tests of the example programs: the numbered frames, and both programs against a simulator that the test plays."""

from __future__ import annotations

import argparse
import signal
import struct
import subprocess
import sys
import unittest
from pathlib import Path
from unittest import mock

import lattivo
import numbered
import program
import receiver
import sender

from tests.support.scriptedpeer import Listener, read_exactly

EXAMPLES = Path(__file__).resolve().parents[2] / "examples"
LEFT = bytes.fromhex("020000000001")
RIGHT = bytes.fromhex("020000000002")
IDENTIFICATION = bytes.fromhex("03 00000007 01") + LEFT
PATIENCE = 10.0  # seconds; only a failing test waits that long


class TestNumberedFrames(unittest.TestCase):
    """The frames of the two programs."""

    def test_a_frame_begins_with_both_addresses_and_its_number(self) -> None:
        frame = numbered.build_frame(RIGHT, LEFT, 258, 64)
        self.assertEqual(frame[:16], RIGHT + LEFT + bytes.fromhex("00000102"))

    def test_a_frame_has_the_size_asked_for(self) -> None:
        for size in (numbered.SMALLEST_FRAME, numbered.SMALLEST_FRAME + 1, 64, 255, 1500):
            with self.subTest(size):
                self.assertEqual(len(numbered.build_frame(RIGHT, LEFT, 1, size)), size)

    def test_an_unharmed_frame_gives_its_number(self) -> None:
        for size in (numbered.SMALLEST_FRAME, 64):
            with self.subTest(size):
                self.assertEqual(numbered.number_of(numbered.build_frame(RIGHT, LEFT, 4711, size)), 4711)

    def test_one_changed_bit_anywhere_shows(self) -> None:
        frame = numbered.build_frame(RIGHT, LEFT, 7, 24)
        for bit in range(8 * len(frame)):
            changed = bytearray(frame)
            changed[bit // 8] ^= 1 << bit % 8
            with self.subTest(bit=bit):
                self.assertIsNone(numbered.number_of(bytes(changed)))

    def test_a_frame_that_is_too_short_has_no_number(self) -> None:
        self.assertIsNone(numbered.number_of(b"\x00" * (numbered.SMALLEST_FRAME - 1)))

    def test_an_address_may_have_colons(self) -> None:
        self.assertEqual(numbered.parse_address("02:00:00:00:00:01"), LEFT)
        self.assertEqual(numbered.parse_address("020000000001"), LEFT)

    def test_an_address_of_another_length_is_refused(self) -> None:
        for text in ("", "0200000000", "02000000000101", "02000000000x"):
            with self.subTest(text), self.assertRaises(ValueError):
                numbered.parse_address(text)


def frame_message(number: int, size: int) -> bytes:
    """Return the message with a frame of the sender."""
    return struct.pack(">BI", 1, size) + numbered.build_frame(RIGHT, LEFT, number, size)


class TestReceiver(unittest.TestCase):
    """What the receiver makes of the frames."""

    def receive(self, frames: list[bytes], *arguments: str) -> list[str]:
        """Return the report on these frames."""
        under_test = receiver.Receiver(receiver.parse_options(["--name", "Right", *arguments]))
        under_test._take([lattivo.Frame(frame) for frame in frames])
        return under_test.report().splitlines()

    def frame(self, number: int) -> bytes:
        """Return the frame of this number."""
        return numbered.build_frame(RIGHT, LEFT, number, 32)

    def test_a_gap_in_the_numbers_is_missing(self) -> None:
        report = self.receive([self.frame(1), self.frame(4)])
        self.assertIn("received: 2", report)
        self.assertIn("missing: 2 (2, 3)", report)

    def test_the_end_is_missing_when_more_is_expected(self) -> None:
        self.assertIn("missing: 1 (3)", self.receive([self.frame(1), self.frame(2)], "--expect", "3"))

    def test_a_corrupted_frame_counts_but_its_number_is_missing(self) -> None:
        corrupted = bytearray(self.frame(2))
        corrupted[20] ^= 1
        report = self.receive([self.frame(1), bytes(corrupted), self.frame(3)])
        self.assertIn("received: 3", report)
        self.assertIn("intact: 2", report)
        self.assertIn("corrupted: 1", report)
        self.assertIn("missing: 1 (2)", report)

    def test_a_frame_that_comes_twice_is_repeated(self) -> None:
        self.assertIn("repeated: 1", self.receive([self.frame(1), self.frame(1)]))


class TestPrograms(unittest.TestCase):
    """The two programs as a user starts them."""

    def start(self, script: str, *arguments: str) -> subprocess.Popen[str]:
        """Start one of the programs."""
        process = subprocess.Popen(
            [sys.executable, str(EXAMPLES / script), *arguments],
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            text=True,
        )
        self.addCleanup(process.kill)
        return process

    def start_sender(self, port: int, *arguments: str) -> subprocess.Popen[str]:
        """Start the sender as node LEFT, sending to RIGHT."""
        return self.start(
            "sender.py", "--port", str(port), "--address", LEFT.hex(), "--destination", RIGHT.hex(), *arguments
        )

    def test_the_sender_counts_outcomes(self) -> None:
        with Listener() as simulator:
            process = self.start_sender(simulator.port, "--count", "3", "--size", "20")
            with simulator.accept() as peer:
                received = read_exactly(peer, 12 + 3 * 25)
                peer.sendall(bytes.fromhex("0200000001 01 0200000001 02 0200000001 01"))
                output, errors = process.communicate(timeout=PATIENCE)
        frames = [frame_message(number, 20) for number in (1, 2, 3)]
        self.assertEqual(received, IDENTIFICATION + b"".join(frames))
        self.assertEqual(output.splitlines()[:4], ["sent: 3", "confirmed: 2", "lost: 1", "unanswered: 0"])
        self.assertEqual((errors, process.returncode), ("", program.EXIT_DONE))

    def test_the_sender_gives_up_waiting(self) -> None:
        with Listener() as simulator:
            process = self.start_sender(simulator.port, "--count", "2", "--timeout", "0.2")
            with simulator.accept() as peer:
                read_exactly(peer, 12 + 2 * 69)
                peer.sendall(bytes.fromhex("0200000001 01"))
                self.assertEqual(peer.recv(1), b"")
                peer.close()
                output, _ = process.communicate(timeout=PATIENCE)
        self.assertEqual(output.splitlines()[:4], ["sent: 2", "confirmed: 1", "lost: 0", "unanswered: 1"])
        self.assertEqual(process.returncode, program.EXIT_DONE)

    def test_a_dropped_program_says_so_in_one_line(self) -> None:
        with Listener() as simulator:
            process = self.start_sender(simulator.port, "--count", "2")
            with simulator.accept() as peer:
                read_exactly(peer, 12 + 2 * 69)
            _, errors = process.communicate(timeout=PATIENCE)
        self.assertRegex(errors, rf"^error: the simulator at 127\.0\.0\.1 port {simulator.port} closed .*\n$")
        self.assertEqual(process.returncode, program.EXIT_DROPPED)

    def test_no_simulator_is_one_line_and_a_code_of_its_own(self) -> None:
        with Listener() as simulator:
            port = simulator.port
        process = self.start_sender(port)
        output, errors = process.communicate(timeout=PATIENCE)
        self.assertEqual(output, "")
        self.assertRegex(errors, rf"\Aerror: no connection to 127\.0\.0\.1 port {port}: [^\n]+\n\Z")
        self.assertEqual(process.returncode, program.EXIT_NOT_CONNECTED)

    def test_the_receiver_ends_after_its_count(self) -> None:
        with Listener() as simulator:
            process = self.start("receiver.py", "--port", str(simulator.port), "--address", RIGHT.hex(), "--count", "2")
            with simulator.accept() as peer:
                read_exactly(peer, 12)
                for number in (1, 2):
                    peer.sendall(frame_message(number, 32))
                self.assertEqual(peer.recv(1), b"")
            output, _ = process.communicate(timeout=PATIENCE)
        self.assertIn("intact: 2", output.splitlines())
        self.assertEqual(process.returncode, program.EXIT_DONE)

    def test_the_receiver_ends_when_nothing_comes(self) -> None:
        with Listener() as simulator:
            process = self.start(
                "receiver.py", "--port", str(simulator.port), "--address", RIGHT.hex(), "--idle", "0.2"
            )
            with simulator.accept() as peer:
                self.assertEqual(len(read_exactly(peer, 13)), 12)  # the identification, then the end
            output, _ = process.communicate(timeout=PATIENCE)
        self.assertIn("received: 0", output.splitlines())
        self.assertEqual(process.returncode, program.EXIT_DONE)

    def interrupted(self, number: int) -> tuple[subprocess.Popen[str], str]:
        """Start a receiver, end it by this signal once it is attached and return it with its report."""
        with Listener() as simulator:
            process = self.start("receiver.py", "--port", str(simulator.port), "--address", RIGHT.hex())
            with simulator.accept() as peer:
                read_exactly(peer, 12)
                process.send_signal(number)
                self.assertEqual(peer.recv(1), b"")
            output, errors = process.communicate(timeout=PATIENCE)
        self.assertEqual(errors, "")
        return process, output

    def test_a_signal_ends_the_receiver_with_its_report(self) -> None:
        for number in (signal.SIGINT, signal.SIGTERM):
            with self.subTest(number):
                process, output = self.interrupted(number)
                self.assertIn("received: 0", output.splitlines())
                self.assertEqual(process.returncode, program.EXIT_DONE)

    def test_a_signal_ends_the_sender_with_its_report_and_a_code(self) -> None:
        with Listener() as simulator:
            process = self.start_sender(simulator.port, "--count", "1")
            with simulator.accept() as peer:
                read_exactly(peer, 12 + 69)
                process.send_signal(signal.SIGINT)
                self.assertEqual(peer.recv(1), b"")
            output, errors = process.communicate(timeout=PATIENCE)
        self.assertIn("sent: 1", output.splitlines())
        self.assertEqual((errors, process.returncode), ("", program.EXIT_INTERRUPTED))

    def test_the_debug_command_quit_ends_a_program(self) -> None:
        with Listener() as simulator:
            process = self.start_sender(simulator.port, "--count", "1")
            with simulator.accept() as peer:
                read_exactly(peer, 12 + 69)
                peer.sendall(bytes.fromhex("0500000001 05"))
                self.assertEqual(peer.recv(1), b"")
            process.communicate(timeout=PATIENCE)
        self.assertEqual(process.returncode, program.EXIT_INTERRUPTED)


class TestOptions(unittest.TestCase):
    """What the command line refuses."""

    def test_a_sender_needs_a_source_when_it_has_no_address(self) -> None:
        with self.assertRaises(SystemExit), mock.patch("sys.stderr"):
            sender.parse_options(["--name", "Left", "--destination", RIGHT.hex()])

    def test_a_frame_has_room_for_number_and_checksum(self) -> None:
        arguments = ["--address", LEFT.hex(), "--destination", RIGHT.hex(), "--size"]
        self.assertEqual(sender.parse_options([*arguments, "20"]).size, 20)
        with self.assertRaises(SystemExit), mock.patch("sys.stderr"):
            sender.parse_options([*arguments, "19"])

    def test_name_and_address_exclude_one_another(self) -> None:
        with self.assertRaises(SystemExit), mock.patch("sys.stderr"):
            receiver.parse_options(["--name", "Left", "--address", LEFT.hex()])

    def test_numbers_have_a_smallest_value(self) -> None:
        self.assertEqual(program.count_option("1"), 1)
        for read, text in ((program.count_option, "0"), (program.seconds_option, "0"), (program.seconds_option, "nan")):
            with self.subTest(text), self.assertRaises(argparse.ArgumentTypeError):
                read(text)


if __name__ == "__main__":
    unittest.main()
