"""Tests of the kit in Python against the headless simulator, which is stopped again and again while programs send.

CTest sets the environment: LATTIVO_HEADLESS holds the path of the simulator.
"""

from __future__ import annotations

import asyncio
import importlib.util
import itertools
import json
import os
import random
import re
import select
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time
import unittest
from contextlib import ExitStack
from pathlib import Path
from typing import Callable, Iterator, Optional

import lattivo
from lattivo import messages

from measuring.lab import makesimulation
from tests.support import scriptedpeer, surroundings

PATIENCE = 60.0  # seconds; only a failing test waits that long
MOST_TRIALS = 5  # until a stop lets the window end within a message
DOCUMENT = Path(__file__).resolve().parents[2] / "client" / "python" / "README.md"
FRAMES = 1_000_000
FRAMES_AT_A_TIME = 10_000
NUMBER = struct.Struct(">I")
NUMBER_OFFSET = 2 * makesimulation.ADDRESS_LENGTH
ETHERNET_FRAME = 1443  # bytes: with the header of its message it fills a segment of a path with an MTU of 1500
MIXED_SIZES = 15 * (64,) + (1000,) + 15 * (64,) + (ETHERNET_FRAME,)
STOPS = (0.05, 0.7, 0.05, 0.3, 0.05, 3.0, 0.05)  # seconds
LONGEST_RUN = 0.5  # seconds between two stops

Change = Callable[[lattivo.Client], None]


def address_of(node: int) -> bytes:
    """Return the address of a node."""
    return makesimulation.node_address(node)


def name_of(node: int) -> str:
    """Return the name of a node."""
    return makesimulation.node_name(node)


def numbered_frames(sizes: tuple[int, ...], count: int) -> Iterator[bytes]:
    """Give frames from node 0 to node 1 whose sizes take turns; each holds its number."""
    start = address_of(1) + address_of(0)
    fillers = [bytes(size - NUMBER_OFFSET - NUMBER.size) for size in sizes]
    for number in range(count):
        yield start + NUMBER.pack(number) + fillers[number % len(fillers)]


def send_joined(client: lattivo.Client) -> None:
    """Let the kernel join what waits to leave, at full speed; connect(end_of_record=False) sends slowly, which is safe."""
    client._channel._flags &= ~socket.MSG_EOR


def send_without_regard_to_room(client: lattivo.Client) -> None:
    """Let more wait in the kernel than the other side has promised room for."""
    client._channel._limit = 1 << 64


def unread_bytes_of(pid: int) -> int:
    """Return how many bytes wait unread in the sockets of the network that a process is in."""
    lines = Path(f"/proc/{pid}/net/tcp").read_text(encoding="ascii").splitlines()[1:]
    lines += Path(f"/proc/{pid}/net/tcp6").read_text(encoding="ascii").splitlines()[1:]
    return sum(int(line.split()[4].split(":")[1], 16) for line in lines)


def wait_until(condition: Callable[[], bool]) -> None:
    """Return when the condition holds."""
    end = time.monotonic() + PATIENCE
    while not condition():
        if time.monotonic() > end:
            raise TimeoutError
        time.sleep(0.01)


class Stopper:
    """Stops a process again and again, each time for one of the STOPS."""

    def __init__(self, pid: int) -> None:
        self.stops = 0
        self._pid = pid
        self._end = threading.Event()
        self._thread = threading.Thread(target=self._run)

    def __enter__(self) -> Stopper:
        self._thread.start()
        return self

    def __exit__(self, *_: object) -> None:
        self._end.set()
        self._thread.join()

    def _run(self) -> None:
        chance = random.Random(11)
        while not self._end.wait(chance.uniform(0.0, LONGEST_RUN)):
            os.kill(self._pid, signal.SIGSTOP)
            self._end.wait(STOPS[self.stops % len(STOPS)])
            os.kill(self._pid, signal.SIGCONT)
            self.stops += 1


class KitTest(unittest.TestCase):
    """A simulator with two linked nodes."""

    def setUp(self) -> None:
        self.stack = self.enterContext(ExitStack())
        self.folder = Path(self.enterContext(tempfile.TemporaryDirectory()))
        self.host = "127.0.0.1"

    def start_simulator(self, *arguments: str, **settings: object) -> None:
        """Start the simulator and remember its port."""
        file = self.folder / "a.ltvo"
        simulation = makesimulation.Simulation(maximal_transfer_unit=ETHERNET_FRAME, **settings)
        file.write_bytes(makesimulation.simulation_file(simulation))
        command = [os.environ["LATTIVO_HEADLESS"], str(file), "--listen", "0", *arguments]
        self.simulator = subprocess.Popen(command, stdout=subprocess.PIPE, text=True)
        self.stack.callback(self.simulator.stdout.close)
        self.stack.callback(self.simulator.wait)
        self.stack.callback(self.simulator.kill)
        self.assertTrue(select.select([self.simulator.stdout], [], [], PATIENCE)[0], "no answer from the simulator")
        self.port = int(self.simulator.stdout.readline().split()[-1])

    def attach(self, node: int) -> lattivo.Client:
        """Attach a program by address, which does not outlive the test."""
        client = lattivo.Client.connect(self.host, self.port, address=address_of(node), timeout=PATIENCE)
        self.stack.callback(client.close)
        return client

    def attach_by_name(self, node: int) -> lattivo.Client:
        """Attach a program by name, which does not outlive the test."""
        client = lattivo.Client.connect(self.host, self.port, name=name_of(node), timeout=PATIENCE)
        self.stack.callback(client.close)
        return client


class TestFullSpeed(KitTest):
    """A program sends as fast as it can while the simulator is stopped."""

    def send_all(self, sizes: tuple[int, ...], change: Optional[Change] = None) -> Optional[lattivo.LattivoError]:
        """Send the frames; return how the sender failed. Those that arrive do so whole, in their order."""
        sender, receiver = self.sender, self.receiver
        if change:
            change(sender)
        failures: list[lattivo.LattivoError] = []
        all_received = threading.Event()

        def send() -> None:
            try:
                frames = numbered_frames(sizes, FRAMES)
                while sender.send_frames(itertools.islice(frames, FRAMES_AT_A_TIME), PATIENCE):
                    pass
                while not all_received.wait(0.1):
                    sender.receive(0)  # tells when the connection has ended
            except lattivo.LattivoError as error:
                failures.append(error)

        received = 0
        sending = threading.Thread(target=send)
        with Stopper(self.simulator.pid) as stopper:
            sending.start()
            end = time.monotonic() + PATIENCE
            while received < FRAMES and not failures and time.monotonic() < end:
                for message in receiver.receive_messages(0.1):
                    (number,) = NUMBER.unpack_from(message.payload, NUMBER_OFFSET)
                    self.assertEqual((number, len(message.payload)), (received, sizes[received % len(sizes)]))
                    received += 1
                    end = time.monotonic() + PATIENCE
            self.stops = stopper.stops
        all_received.set()
        sending.join()
        if not failures:
            self.assertEqual(received, FRAMES)
        return failures[0] if failures else None

    def assert_none_is_lost(self) -> None:
        """Send frames of all sizes."""
        self.assertIsNone(self.send_all(MIXED_SIZES))
        self.assertGreater(self.stops, 3)

    def assert_cut_off(self, sizes: tuple[int, ...], change: Change) -> None:
        """Send frames against one of the kit's rules, until a stop comes at a bad moment."""
        failure = None
        for _ in range(MOST_TRIALS):
            failure = failure or self.send_all(sizes, change)
        self.assertIsInstance(failure, lattivo.Disconnected)

    def attach_both(self) -> None:
        """Start the simulator and attach two programs."""
        self.start_simulator()
        self.sender, self.receiver = self.attach(0), self.attach(1)

    def attach_both_over_a_cable(self) -> None:
        """Start the simulator and attach two programs, which run on another machine."""
        self.attach_sender_over_a_cable()
        with self.far.inside():
            self.receiver = self.attach(1)

    def attach_sender_over_a_cable(self, receive_room: Optional[int] = None) -> surroundings.Cable:
        """Start the simulator and attach the sender, which runs on another machine.

        A room of less than 64 KiB, in bytes, is counted in bytes; else a rest of it grows a little with each segment.
        """
        reason = surroundings.unavailable()
        if reason:
            self.skipTest(f"networks cannot be made here, which root may: {reason}")
        near, self.far = surroundings.Machine(self.stack), surroundings.Machine(self.stack)
        cable = surroundings.Cable(near, self.far)
        self.host = cable.near_address
        with near.inside():
            if receive_room:
                room = f"{receive_room} {receive_room} {receive_room}"
                Path("/proc/sys/net/ipv4/tcp_rmem").write_text(room, encoding="ascii")
            self.start_simulator()
        with self.far.inside():
            self.sender = self.attach(0)
        return cable

    def test_no_frame_is_lost_on_this_machine(self) -> None:
        self.attach_both()
        self.assert_none_is_lost()

    def test_no_frame_is_lost_over_ethernet(self) -> None:
        self.attach_both_over_a_cable()
        self.assert_none_is_lost()

    def test_with_joined_messages_the_program_is_cut_off_over_ethernet(self) -> None:
        self.attach_both_over_a_cable()
        self.assert_cut_off((64,), send_joined)

    def test_without_regard_to_room_the_program_is_cut_off(self) -> None:
        self.attach_both()
        self.assert_cut_off(MIXED_SIZES, send_without_regard_to_room)

    def test_without_regard_to_room_the_program_is_cut_off_over_ethernet(self) -> None:
        self.attach_both_over_a_cable()
        self.assert_cut_off(MIXED_SIZES, send_without_regard_to_room)

    def test_no_frame_is_lost_with_asyncio(self) -> None:
        count = FRAMES // 10
        self.start_simulator("--identify-by", "name")  # which tells when the receiver is attached

        async def exchange() -> int:
            where = {"host": self.host, "port": self.port, "timeout": PATIENCE}
            async with lattivo.aio.connect(name=name_of(0), **where) as sender, lattivo.aio.connect(
                name=name_of(1), **where
            ) as receiver:
                sending = asyncio.ensure_future(sender.send_frames(numbered_frames(MIXED_SIZES, count)))
                received = 0
                async for message in receiver:
                    self.assertEqual(NUMBER.unpack_from(message.payload, NUMBER_OFFSET), (received,))
                    received += 1
                    if received == count:
                        break
                return await sending

        with Stopper(self.simulator.pid):
            self.assertEqual(asyncio.run(asyncio.wait_for(exchange(), PATIENCE)), count)

    def test_room_is_found_again_when_the_word_of_it_got_lost(self) -> None:
        cable = self.attach_sender_over_a_cable(receive_room=32768)
        os.kill(self.simulator.pid, signal.SIGSTOP)
        with self.assertRaises(lattivo.Timeout):
            self.sender.send_frames(numbered_frames((ETHERNET_FRAME,), 100_000), 1.0)
        self.assertTrue(self.sender._channel.has_been_taken())  # so the kernel has no reason to ask
        cable.pull_out()
        os.kill(self.simulator.pid, signal.SIGCONT)
        wait_until(lambda: unread_bytes_of(self.simulator.pid) == 0)
        cable.plug_in()
        self.sender.send_frames(numbered_frames((ETHERNET_FRAME,), 1000), 30.0)


class TestNames(KitTest):
    """Programs that identify themselves by name."""

    def test_what_is_sent_right_after_a_name_arrives(self) -> None:
        self.start_simulator("--identify-by", "name", confirms=True)
        frame = address_of(1) + address_of(0) + b"first"
        with self.attach_by_name(1) as receiver, Stopper(self.simulator.pid) as stopper:
            while stopper.stops < 8:
                with self.attach_by_name(0) as sender:
                    sender.send_frame(frame, PATIENCE)
                    self.assertEqual(receiver.receive(PATIENCE), lattivo.Frame(frame))

    def test_what_is_sent_too_early_is_lost(self) -> None:
        self.start_simulator("--identify-by", "name", confirms=True)
        receiver = self.attach_by_name(1)
        os.kill(self.simulator.pid, signal.SIGSTOP)
        where = (self.host, self.port)
        with lattivo.Client.connect(*where, name=name_of(0), attach_pause=0.0) as sender:
            sender.send_frame(address_of(1) + address_of(0) + b"first")
            os.kill(self.simulator.pid, signal.SIGCONT)
            self.assertIsNone(receiver.receive(1.0))

    def test_an_unknown_name_is_refused(self) -> None:
        self.start_simulator("--identify-by", "name")
        for name in ("nobody", "", "é" * 100):
            with self.subTest(name), self.assertRaises(lattivo.Refused):
                lattivo.Client.connect(self.host, self.port, name=name)

    def test_a_name_is_refused_where_addresses_are_expected(self) -> None:
        self.start_simulator()
        with self.assertRaises(lattivo.Refused):
            lattivo.Client.connect(self.host, self.port, name=name_of(0))

    def test_an_unknown_address_shows_as_the_end(self) -> None:
        self.start_simulator()
        client = lattivo.Client.connect(self.host, self.port, address=bytes(6))
        self.stack.callback(client.close)
        with self.assertRaises(lattivo.Disconnected):
            client.receive(PATIENCE)


class TestNodeControls(KitTest):
    """A program changes its node."""

    def test_the_simulator_follows(self) -> None:
        report = self.folder / "report.json"
        self.start_simulator("--identify-by", "name", "--report", str(report), confirms=True)
        new_address = bytes.fromhex("0200000000AA")
        receiver, sender = self.attach_by_name(1), self.attach_by_name(0)  # both are attached from here on
        receiver.set_address(new_address)
        receiver.set_name("Renamed")
        receiver.set_color(64, 128, 32)
        frame = new_address + address_of(0) + b"x"
        receiver.send_frame(address_of(0) + new_address + b"ready")
        self.assertIsInstance(sender.receive(PATIENCE), lattivo.Frame)
        sender.send_frame(frame)
        self.assertEqual(receiver.receive(PATIENCE), lattivo.Confirmation(lattivo.Outcome.DELIVERED))
        self.assertEqual(receiver.receive(PATIENCE), lattivo.Frame(frame))
        self.assertEqual(sender.receive(PATIENCE), lattivo.Confirmation(lattivo.Outcome.DELIVERED))
        sender.deactivate()
        sender.send_frame(frame)
        sender.activate()
        sender.send_frame(frame + b"2")
        self.assertEqual(receiver.receive(PATIENCE), lattivo.Frame(frame + b"2"))
        self.simulator.send_signal(signal.SIGTERM)
        self.simulator.wait(PATIENCE)
        names = {node["name"]: node["address"] for node in json.loads(report.read_text(encoding="utf-8"))["nodes"]}
        self.assertEqual(names["Renamed"].replace(":", "").upper(), "0200000000AA")


class TestDocument(KitTest):
    """The programs of the kit's document, as a user runs them."""

    def setUp(self) -> None:
        super().setUp()
        text = DOCUMENT.read_text(encoding="utf-8")
        self.programs = dict(re.findall(r"<!-- example: (\w+) -->\n```python\n(.*?)```", text, re.DOTALL))

    def start(self, name: str) -> subprocess.Popen[str]:
        """Start a program of the document in a folder of its own."""
        file = self.folder / f"program_{name}.py"
        file.write_text(self.programs[name], encoding="utf-8")
        environment = {**os.environ, "PYTHONPATH": str(DOCUMENT.parent)}
        command = [sys.executable, str(file), str(self.port)]
        program = subprocess.Popen(command, stdout=subprocess.PIPE, text=True, env=environment, cwd=self.folder)
        self.stack.callback(program.stdout.close)
        self.stack.callback(program.wait)
        self.stack.callback(program.kill)
        return program

    def start_document_simulator(self) -> None:
        """Start a simulator with the addresses of the document: those of nodes 1 and 2."""
        self.start_simulator(confirms=True, ring_steps=(1,), pairs=2)

    def test_the_first_program_gets_its_confirmation(self) -> None:
        self.start_document_simulator()
        self.attach(2)
        output, _ = self.start("first").communicate(timeout=PATIENCE)
        self.assertEqual(output, "delivered\n")

    def test_the_program_for_asyncio_counts_its_outcomes(self) -> None:
        self.start_document_simulator()
        self.attach(2)
        output, _ = self.start("tasks").communicate(timeout=PATIENCE)
        self.assertEqual(output, "1000 delivered, 0 lost\n")

    def test_the_program_with_its_own_loop_answers_each_frame(self) -> None:
        self.start_document_simulator()
        sender = self.attach(1)
        program = self.start("loop")
        request = address_of(2) + address_of(1)
        outcome = None
        while outcome != lattivo.Confirmation(lattivo.Outcome.DELIVERED):  # until the program is attached
            self.assertIsNone(program.poll())
            sender.send_frame(request + b"?")
            outcome = sender.receive(PATIENCE)
        sender.send_frames(request + b"%d" % number for number in range(100))
        expected = [address_of(1) + address_of(2) + rest for rest in [b"?", *(b"%d" % n for n in range(100))]]
        answers = []
        while len(answers) < len(expected):
            message = sender.receive(PATIENCE)
            self.assertIsNotNone(message)
            if isinstance(message, lattivo.Frame):
                answers.append(message.payload)
        self.assertEqual(answers, expected)
        self.simulator.terminate()
        output, _ = program.communicate(timeout=PATIENCE)
        self.assertEqual((output, program.returncode), ("the simulator has gone\n", 0))

    def test_the_program_with_its_own_loop_gives_more_answers_than_a_segment_holds(self) -> None:
        listener = self.stack.enter_context(scriptedpeer.Listener())
        self.port = listener.port
        program = self.start("loop")
        peer = self.stack.enter_context(listener.accept())
        scriptedpeer.read_exactly(peer, len(messages.encode_address(address_of(2))))
        program.send_signal(signal.SIGSTOP)  # so that it reads all requests at once
        requests = [address_of(2) + address_of(1) + b"%0500d" % number for number in range(100)]
        peer.sendall(b"".join(messages.encode_frame(request) for request in requests))
        program.send_signal(signal.SIGCONT)
        answers = [address_of(1) + address_of(2) + request[12:] for request in requests]
        expected = b"".join(messages.encode_frame(answer) for answer in answers)
        self.assertEqual(scriptedpeer.read_exactly(peer, len(expected)), expected)


class TestInstallation(unittest.TestCase):
    """The kit as pip installs it."""

    def test_pip_installs_what_the_checkout_has(self) -> None:
        missing = [name for name in ("pip", "setuptools", "wheel") if importlib.util.find_spec(name) is None]
        if missing:
            self.skipTest("not installed: " + ", ".join(missing))
        folder = Path(self.enterContext(tempfile.TemporaryDirectory()))
        source = folder / "source"
        shutil.copytree(DOCUMENT.parent, source, ignore=shutil.ignore_patterns("__pycache__", "build", "*.egg-info"))
        command = [sys.executable, "-m", "pip", "install", "--no-build-isolation", "--no-deps", "--no-index"]
        done = subprocess.run(
            [*command, "--target", str(folder / "installed"), str(source)], capture_output=True, text=True, check=False
        )
        self.assertEqual(done.returncode, 0, done.stderr)
        installed = {path.name for path in (folder / "installed" / "lattivo").iterdir() if path.is_file()}
        self.assertEqual(installed, {path.name for path in (source / "lattivo").iterdir() if path.is_file()})
        self.assertIn("py.typed", installed)


if __name__ == "__main__":
    unittest.main()
