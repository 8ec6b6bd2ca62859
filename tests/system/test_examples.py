"""Tests of the example programs against the headless simulator, as a user runs them.

The environment variable LATTIVO_HEADLESS holds the path of the simulator; CTest sets it.
"""

from __future__ import annotations

import json
import os
import signal
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

import lattivo
import numbered
import program

from measuring.lab import makesimulation
from measuring.lab.launcher import Server

TOP_FOLDER = Path(__file__).resolve().parents[2]
EXAMPLES = TOP_FOLDER / "examples"

PATIENCE = 60.0  # seconds; only a failing test waits that long
CONFIRMATION_TIMEOUT = 50  # ms


class ExampleTest(unittest.TestCase):
    """A simulator with two linked nodes, and the two programs."""

    # Of the nodes that makesimulation.py makes
    names = (makesimulation.node_name(0), makesimulation.node_name(1))
    addresses = (makesimulation.node_address(0), makesimulation.node_address(1))

    def setUp(self) -> None:
        self.folder = Path(self.enterContext(tempfile.TemporaryDirectory()))
        self.report_file = self.folder / "report.json"
        self.log = self.folder / "log.txt"

    def start(self, *command: str) -> subprocess.Popen[str]:
        """Start a program that does not outlive the test."""
        process = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.addCleanup(process.stdout.close)
        self.addCleanup(process.stderr.close)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        return process

    def start_simulator(self, simulation: Path, *arguments: str) -> Server:
        """Start the simulator and remember its port."""
        command = [os.environ["LATTIVO_HEADLESS"], str(simulation), "--listen", "0", "--report", str(self.report_file)]
        simulator = self.enterContext(Server([*command, *arguments], self.log))
        self.port = simulator.port
        return simulator

    def start_clean(self, *arguments: str) -> Server:
        """Start a simulator whose link loses nothing."""
        simulation = self.folder / "clean.ltvo"
        pair = makesimulation.Simulation(confirms=True, confirmation_timeout=CONFIRMATION_TIMEOUT, delay=2)
        simulation.write_bytes(makesimulation.simulation_file(pair))
        return self.start_simulator(simulation, *arguments)

    def end(self, simulator: Server) -> dict[str, object]:
        """Ask the simulator to end, and return its report."""
        code = simulator.end()
        self.assertEqual((self.log.read_text(encoding="utf-8"), code), ("", 0))
        report: dict[str, object] = json.loads(self.report_file.read_text(encoding="utf-8"))
        return report

    def start_example(self, script: str, *arguments: str) -> subprocess.Popen[str]:
        """Start sender.py or receiver.py."""
        return self.start(sys.executable, str(EXAMPLES / script), "--port", str(self.port), *arguments)

    def start_sender(self, *arguments: str) -> subprocess.Popen[str]:
        """Start the sender to the second node."""
        return self.start_example("sender.py", "--destination", self.addresses[1].hex(), *arguments)

    def wait_for_receiver(self, **identity: object) -> None:
        """Return when frames reach the second node's program: it has got one then, and that is frame 1."""
        frame = numbered.build_frame(self.addresses[1], self.addresses[0], 1, 64)
        outcome = None
        with lattivo.Client.connect(port=self.port, **identity) as probe:
            while outcome != lattivo.Outcome.DELIVERED:
                probe.send_frame(frame)
                confirmation = probe.receive(PATIENCE)
                self.assertIsInstance(confirmation, lattivo.Confirmation)
                outcome = confirmation.outcome

    def finish(self, process: subprocess.Popen[str], code: int = program.EXIT_DONE, error: str = "") -> dict[str, int]:
        """Wait for the end of an example and return the whole numbers of its report."""
        output, errors = process.communicate(timeout=PATIENCE)
        self.assertEqual((errors, process.returncode), (error, code))
        lines = [line.split(": ", 1) for line in output.splitlines()]
        return {key: int(value.split()[0]) for key, value in lines if value.split()[0].isdigit()}


class TestCleanLink(ExampleTest):
    """Nothing is lost."""

    def exchange(self, count: int, sender_identity: list[str], receiver_identity: list[str], **probe: object) -> None:
        """Send as fast as the sender can; every frame arrives and is confirmed."""
        receiver = self.start_example("receiver.py", *receiver_identity, "--count", str(1 + count))
        self.wait_for_receiver(**probe)
        sender = self.start_sender(*sender_identity, "--count", str(count))
        self.assertEqual(self.finish(sender), {"sent": count, "confirmed": count, "lost": 0, "unanswered": 0})
        figures = {"received": 1 + count, "intact": 1 + count, "corrupted": 0, "repeated": 1, "missing": 0}
        self.assertEqual(self.finish(receiver), figures)

    def test_every_frame_arrives_and_is_confirmed_by_address(self) -> None:
        simulator = self.start_clean()
        sender, receiver = (["--address", address.hex()] for address in self.addresses)
        self.exchange(500, sender, receiver, address=self.addresses[0])
        self.end(simulator)

    def test_every_frame_arrives_and_is_confirmed_by_name(self) -> None:
        simulator = self.start_clean("--identify-by", "name")
        sender, receiver = (["--name", name] for name in self.names)
        self.exchange(50, [*sender, "--source", self.addresses[0].hex()], receiver, name=self.names[0])
        self.end(simulator)

    def test_frames_to_nobody_are_lost(self) -> None:
        simulator = self.start_clean()
        sender = self.start_sender("--address", self.addresses[0].hex(), "--count", "5")  # nobody receives
        self.assertEqual(self.finish(sender), {"sent": 5, "confirmed": 0, "lost": 5, "unanswered": 0})
        self.end(simulator)

    def test_frames_of_a_size_that_no_link_carries_are_lost(self) -> None:
        simulator = self.start_clean()
        largest = makesimulation.MAXIMAL_TRANSFER_UNIT
        receiver = self.start_example("receiver.py", "--address", self.addresses[1].hex(), "--count", "4")
        self.wait_for_receiver(address=self.addresses[0])
        for size, confirmed in ((largest + 1, 0), (largest, 3)):
            sender = self.start_sender("--address", self.addresses[0].hex(), "--count", "3", "--size", str(size))
            self.assertEqual(self.finish(sender)["confirmed"], confirmed)
        self.assertEqual(self.finish(receiver)["intact"], 4)
        self.end(simulator)


class TestLossyLink(ExampleTest):
    """The simulation of the demo."""

    names = ("Sender", "Receiver")
    addresses = (bytes.fromhex("020000000001"), bytes.fromhex("020000000002"))

    def test_all_three_tell_the_same_story(self) -> None:
        count = 500
        simulator = self.start_simulator(
            EXAMPLES / "lossy-link.ltvo", "--seed", "1", "--capture", str(self.folder / "dump.pcap")
        )
        receiver = self.start_example("receiver.py", "--address", self.addresses[1].hex(), "--idle", "3")
        self.wait_for_receiver(address=self.addresses[0])
        sender = self.start_sender(
            "--address", self.addresses[0].hex(), "--count", str(count), "--size", "240", "--timeout", "2"
        )
        sent = self.finish(sender)
        received = self.finish(receiver)
        report = self.end(simulator)
        captured = report["captured"]

        self.assertEqual(sent["sent"], count)
        self.assertGreater(sent["lost"], 0)
        self.assertEqual(sent["confirmed"] + sent["lost"], count)
        self.assertEqual(received["received"], sent["confirmed"] + 1)  # and the frame of wait_for_receiver
        self.assertEqual(received["received"], captured["deliveredInTime"])
        self.assertEqual(received["corrupted"], captured["corrupted"] - captured["corruptedAndDetected"])
        by_name = {node["name"]: node for node in report["nodes"]}
        self.assertEqual(by_name["Receiver"]["received"]["frames"], received["received"])


class TestRefusal(ExampleTest):
    """What the programs say when the simulator does not want them."""

    def closed(self, doubt: str = "") -> str:
        """Return what a program says whose connection has ended."""
        return f"error: the simulator at 127.0.0.1 port {self.port} closed the connection{doubt}\n"

    def refused(self, name: str) -> str:
        """Return what a program says that identifies by name in vain."""
        place = f"the simulator at 127.0.0.1 port {self.port}"
        return f'error: {place} has refused the name "{name}"; perhaps it identifies programs by address\n'

    def test_an_unknown_address_is_refused(self) -> None:
        self.start_clean()
        receiver = self.start_example("receiver.py", "--address", "0A0A0A0A0A0A", "--idle", str(PATIENCE))
        doubt = "; perhaps it has no node of the address 0a0a0a0a0a0a, or identifies programs by name"
        self.finish(receiver, program.EXIT_DROPPED, self.closed(doubt))

    def test_an_unknown_name_is_refused(self) -> None:
        self.start_clean("--identify-by", "name")
        receiver = self.start_example("receiver.py", "--name", "nobody", "--idle", str(PATIENCE))
        self.finish(receiver, program.EXIT_DROPPED, self.refused("nobody"))

    def test_the_other_kind_of_identification_is_refused(self) -> None:
        self.start_clean()
        sender = self.start_sender("--name", self.names[0], "--source", self.addresses[0].hex())
        self.assertEqual(self.finish(sender, program.EXIT_DROPPED, self.refused(self.names[0])), {})

    def test_another_program_takes_the_node_over(self) -> None:
        simulator = self.start_clean()
        identity = ("--address", self.addresses[1].hex())
        first = self.start_example("receiver.py", *identity)
        self.wait_for_receiver(address=self.addresses[0])
        second = self.start_example("receiver.py", *identity)
        self.assertEqual(self.finish(first, program.EXIT_DROPPED, self.closed())["received"], 1)
        second.send_signal(signal.SIGTERM)
        self.finish(second)
        self.end(simulator)

    def test_the_end_of_the_simulator_ends_the_program_with_its_figures(self) -> None:
        simulator = self.start_clean()
        receiver = self.start_example("receiver.py", "--address", self.addresses[1].hex())
        self.wait_for_receiver(address=self.addresses[0])
        self.end(simulator)
        self.assertEqual(self.finish(receiver, program.EXIT_DROPPED, self.closed())["received"], 1)

    def test_without_a_simulator_there_is_no_connection(self) -> None:
        self.end(self.start_clean())
        receiver = self.start_example("receiver.py", "--address", self.addresses[1].hex())
        output, errors = receiver.communicate(timeout=PATIENCE)
        self.assertEqual((output, receiver.returncode), ("", program.EXIT_NOT_CONNECTED))
        self.assertTrue(errors.startswith(f"error: no connection to 127.0.0.1 port {self.port}: "), errors)


class TestSignals(ExampleTest):
    """A user ends the programs."""

    def test_a_receiver_ends_regularly(self) -> None:
        simulator = self.start_clean()
        receiver = self.start_example("receiver.py", "--address", self.addresses[1].hex())
        self.wait_for_receiver(address=self.addresses[0])
        receiver.send_signal(signal.SIGINT)
        # The frame of wait_for_receiver may still lie unread
        self.assertIn(self.finish(receiver)["received"], (0, 1))
        self.end(simulator)

    def test_a_sender_is_interrupted(self) -> None:
        simulator = self.start_clean()
        receiver = self.start_example("receiver.py", "--address", self.addresses[1].hex(), "--count", "3")
        self.wait_for_receiver(address=self.addresses[0])
        sender = self.start_sender("--address", self.addresses[0].hex(), "--count", "100000", "--rate", "50")
        self.finish(receiver)
        sender.send_signal(signal.SIGINT)
        self.assertGreaterEqual(self.finish(sender, program.EXIT_INTERRUPTED)["sent"], 2)
        self.end(simulator)


if __name__ == "__main__":
    unittest.main()
