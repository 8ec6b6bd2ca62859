"""Tests of the remote control that works the program's window for soak and the window benchmark.

The environment variable LATTIVO_SOAKSERVER holds the path of the program under control; CTest sets it.
"""

from __future__ import annotations

import os
import tempfile
import unittest
from pathlib import Path

import lattivo

from measuring.lab import makesimulation
from measuring.lab.remotecontrol import NoAnswer, Refused, RemoteControl
from tests.support import desktop

ADDRESSES = [makesimulation.node_address(node) for node in (0, 1)]


class TestRemoteControl(unittest.TestCase):
    def setUp(self) -> None:
        self.folder = Path(self.enterContext(tempfile.TemporaryDirectory(prefix="lattivo-")))
        self.window = RemoteControl([os.environ["LATTIVO_SOAKSERVER"], "1"], self.folder / "log")
        self.addCleanup(self.window.end)

    def test_programs_attach_to_the_simulation_that_was_opened(self) -> None:
        file = self.folder / "a.ltvo"
        file.write_bytes(makesimulation.simulation_file(makesimulation.Simulation()))
        self.assertTrue(self.window.do("open", file=str(file))["loaded"])
        with self.window as server:
            ends = [
                self.enterContext(lattivo.Client.connect(port=server.port, address=address)) for address in ADDRESSES
            ]
            desktop.wait_for("the programs", lambda: all(node["attached"] for node in server.do("state")["nodes"]))
            frame = ADDRESSES[1] + ADDRESSES[0]
            ends[0].send_frame(frame)
            self.assertEqual(ends[1].receive(desktop.PATIENCE), lattivo.Frame(frame))

    def test_a_file_that_does_not_load_leaves_an_empty_simulation(self) -> None:
        self.assertFalse(self.window.do("open", file=str(self.folder / "none.ltvo"))["loaded"])
        self.assertEqual(self.window.do("state"), {"nodes": [], "links": []})

    def test_a_command_that_cannot_be_carried_out_is_refused(self) -> None:
        for what, arguments in (("fly", {}), ("delete", {"item": 4711}), ("link", {"from": 1, "to": 1})):
            with self.subTest(what), self.assertRaises(Refused):
                self.window.do(what, **arguments)
        self.window.do("state")

    def test_the_capture_is_worked_by_its_check_boxes(self) -> None:
        self.window.do("capture", enabled=True)
        file = self.folder / "saved.ltvo"
        self.assertTrue(self.window.do("save", file=str(file))["written"])
        self.window.do("open")
        self.window.do("open", file=str(file))
        again = self.folder / "again.ltvo"
        self.window.do("save", file=str(again))
        self.assertEqual(again.read_bytes()[-6:-4], b"\1\0")  # the capture record: enabled, does not follow

    def test_the_end_of_the_program_is_told(self) -> None:
        self.window.process.kill()
        with self.assertRaisesRegex(NoAnswer, "has ended, asked to state"):
            self.window.do("state")

    def test_the_end_of_its_input_ends_the_program_in_order(self) -> None:
        self.assertEqual(self.window.end(), 0)


if __name__ == "__main__":
    unittest.main()
