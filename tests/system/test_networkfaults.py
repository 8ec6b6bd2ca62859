"""Tests of the runner when the network or a program fails it: pulled cables, and programs that break the protocol.

The environment variables LATTIVO_HEADLESS and LATTIVO_PROGRAM hold the paths of the runner and of the program with the
window; CTest sets them.
"""

from __future__ import annotations

import signal
import socket
import time
import unittest

import lattivo
from lattivo import messages

from measuring.lab import makesimulation
from measuring.lab.launcher import memory_of
from measuring.lab.makesimulation import frame_between
from tests.support import desktop, surroundings
from tests.support.runner import PATIENCE, SUCCESS, Program, RunnerTest, needs_surroundings

LOSS_SIZE = 6  # bytes of the report that a frame is lost


def setUpModule() -> None:  # noqa: N802
    if not surroundings.unavailable():
        surroundings.make_mounts_private()


class TestEnd(RunnerTest):
    """The run ends while a program has not got all of its frames."""

    LARGE = 30000  # bytes of a frame
    FRAMES = 400  # more than the kernel's buffers take

    def test_a_program_that_writes_on_after_an_error_gets_its_frames_at_the_end(self) -> None:
        self.make_simulation(largest_frame=self.LARGE)
        run = self.start(str(self.simulation), "--report", str(self.report))
        port = run.port()
        sender = self.attach(port, 0)
        reader = self.stack.enter_context(socket.create_connection(("127.0.0.1", port), PATIENCE))
        reader.sendall(messages.encode_address(makesimulation.node_address(1)) + messages.encode_frame(b"\0"))
        reader.recv(LOSS_SIZE, socket.MSG_WAITALL)
        for number in range(self.FRAMES):
            self.assertEqual(sender.outcome_of(frame_between(0, 1, number, self.LARGE)), lattivo.Outcome.DELIVERED)
        reader.sendall(messages.encode_message(lattivo.MessageType.CLOSE, b""))
        while sender.outcome_of(frame_between(0, 1, 0)) == lattivo.Outcome.DELIVERED:
            pass

        run.process.send_signal(signal.SIGTERM)
        desktop.wait_for("the report", lambda: self.report.stat().st_size > 0)
        arrived = 0
        while part := reader.recv(20000):
            arrived += len(part)
            reader.sendall(b"more")  # would cost the simulator its unsent bytes if it were gone
        self.assertGreaterEqual(arrived, self.FRAMES * len(messages.encode_frame(bytes(self.LARGE))))
        self.assertEqual(run.result(), (SUCCESS, ""))


@needs_surroundings
class TestNetworkLoss(RunnerTest):
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

    def send(self, number: int, size: int = 64) -> lattivo.Outcome:
        return self.sender.outcome_of(frame_between(0, 1, number, size))

    def assert_others_are_served(self) -> None:
        for number in range(20):
            start = time.monotonic()
            frame = frame_between(2, 3, number)
            self.assertEqual(self.left.outcome_of(frame), lattivo.Outcome.DELIVERED)
            self.assertEqual(self.right.next_message(), lattivo.Frame(frame))
            self.assertLess(time.monotonic() - start, self.LONGEST_ANSWER)

    def test_frames_flow_again_when_the_cable_is_back(self) -> None:
        self.assertEqual(self.send(0), lattivo.Outcome.DELIVERED)
        self.assertEqual(self.lost.next_frames(1), [frame_between(0, 1, 0)])
        self.cable.pull_out()
        for number in range(1, 101):
            self.assertEqual(self.send(number), lattivo.Outcome.DELIVERED)  # to the node: its program is attached
        self.assert_others_are_served()
        self.assertEqual(self.lost.receive_messages(0.0), [])

        self.cable.plug_in()
        self.assertEqual(self.lost.next_frames(100), [frame_between(0, 1, number) for number in range(1, 101)])
        back = frame_between(1, 0, 4711)
        self.lost.send_frame(back, PATIENCE)
        self.assertEqual(self.sender.next_frames(1), [back])
        self.assertEqual(self.simulator.end(), (SUCCESS, ""))
        self.assertEqual(self.reported_node(1)["attached"], True)

    def test_what_waits_for_the_lost_program_is_bounded(self) -> None:
        before = memory_of(self.simulator.pid, "VmHWM")
        self.cable.pull_out()
        waiting = 0
        while self.send(waiting, self.LARGE) == lattivo.Outcome.DELIVERED:
            waiting += 1
            self.assertLess(waiting * self.LARGE, 2 * self.UNSENT_LIMIT)
        self.assertGreater(waiting * self.LARGE, self.UNSENT_LIMIT)
        for number in range(20):  # nothing is kept of what a program sends to the detached node
            self.assertEqual(self.send(number, self.LARGE), lattivo.Outcome.LOST)
        self.assert_others_are_served()
        growth = memory_of(self.simulator.pid, "VmHWM") - before
        self.assertLess(growth, 2 * self.UNSENT_LIMIT)  # sanitizers take some half more
        self.assertEqual(self.simulator.end(), (SUCCESS, ""))
        self.assertEqual(self.reported_node(1)["attached"], False)

    def test_the_program_stays_attached_until_tcp_gives_up_and_can_come_back(self) -> None:
        self.near.set_tcp_retries(3)  # some three seconds instead of a quarter of an hour
        self.cable.pull_out()
        start = time.monotonic()
        self.assertEqual(self.send(1), lattivo.Outcome.DELIVERED)
        while self.send(2) == lattivo.Outcome.DELIVERED:
            time.sleep(0.02)
            self.assertLess(time.monotonic() - start, PATIENCE)
        self.assertGreater(time.monotonic() - start, 0.5)
        self.assert_others_are_served()

        self.cable.plug_in()
        again = self.attach_far()
        self.assertEqual(self.send(3), lattivo.Outcome.DELIVERED)
        self.assertEqual(again.next_frames(1), [frame_between(0, 1, 3)])
        self.assertEqual(self.simulator.end(), (SUCCESS, ""))

    def test_the_end_of_a_run_does_not_wait_for_the_cable(self) -> None:
        self.cable.pull_out()
        for number in range(200):
            self.send(number, self.LARGE)
        start = time.monotonic()
        self.assertEqual(self.simulator.end(), (SUCCESS, ""))
        self.assertLess(time.monotonic() - start, 5.0)


if __name__ == "__main__":
    unittest.main()
