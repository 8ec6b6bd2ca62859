"""Uses the whole program as a user does, on a virtual screen, and checks the files that it leaves.

The environment variable LATTIVO_PROGRAM holds the path of the program; CTest sets it.
"""

from __future__ import annotations

import glob
import os
import shutil
import subprocess
import sys
import tempfile
import unittest
from dataclasses import replace
from pathlib import Path

import numbered

from tests.support import desktop, formatreader, lattivowindow

TOP_FOLDER = Path(__file__).resolve().parents[2]
EXAMPLES = TOP_FOLDER / "examples"

GTK_THEME = "/usr/lib/*/qt5/plugins/platformthemes/libqgtk3.so"
PATIENCE = 60.0  # seconds; only a failing test waits that long

# As examples/lossy-link.ltvo has it
SENDER_ADDRESS = bytes.fromhex("020000000001")
RECEIVER_ADDRESS = bytes.fromhex("020000000002")
SENDER = (120.0, 120.0)
RECEIVER = (360.0, 120.0)

FRAMES = 100
RATE = 50  # frames a second: some two seconds for the nodes to be seen flashing
FRAME_SIZE = 240  # bytes; long, so that some frames are corrupted

# Drawn by the test
LEFT = (60.0, 280.0)
RIGHT = (240.0, 330.0)
SHORT_LIVED = (420.0, 280.0)
LINK_MIDDLE = (150.0, 305.0)
MOVED_RIGHT = (270.0, 250.0)
NEW_NAME = "Gateway"
NEW_ADDRESS = bytes.fromhex("0A0B0C0D0E0F")
NEW_RELIABILITY = 97.25  # %

BODY = (-10.0, 10.0)  # where the colour of a node is seen, beside its text and its highlight
LIGHTEST_NODE = 225  # an inactive one is a little darker, dialogs are lighter
COLOR_CONTRAST = 40  # between the channels of the colours of an active node


class Visit:
    """One run of the program, from its start to its end, with all that it left behind."""

    def __init__(self, screen: desktop.Desktop, folder: Path) -> None:
        self._screen = screen
        self.folder = folder
        self.opened_file = folder / "opened.ltvo"
        self.dump_file = folder / "frames.pcapdump"
        self.saved_file = folder / "saved.ltvo"
        self.port = desktop.free_port()
        self.sender_report = ""
        self.receiver_report = ""

    def run(self) -> None:
        self.begin()
        self.window.tick_capture_boxes(lattivowindow.CAPTURE_ENABLED, lattivowindow.VIEW_FOLLOWS)
        self._let_programs_talk()
        self.window.export(self.dump_file)
        self._draw()
        self._edit()
        self._delete()
        self.window.save(self.saved_file)
        self.exit_code = self.window.quit()
        self.printed = (self.folder / "printed").read_text(encoding="utf-8", errors="replace")

    def begin(self) -> None:
        """Open the simulation of the example and start its server."""
        shutil.copy(EXAMPLES / "lossy-link.ltvo", self.opened_file)
        self.window = lattivowindow.LattivoWindow(self._screen, os.environ["LATTIVO_PROGRAM"], self.folder / "printed")
        self.window.open(self.opened_file)
        desktop.wait_for("the nodes", lambda: self._is_grey(SENDER) and self._is_grey(RECEIVER))
        self.window.wait_until_still()
        self.window.switch_server_on(self.port, lattivowindow.SERVER_PORT)

    def start_receiver(self) -> subprocess.Popen:
        receiver = self._start_example("receiver.py", "--address", RECEIVER_ADDRESS.hex())
        desktop.wait_for("the receiver's blue", lambda: self._is_blue(RECEIVER))
        return receiver

    def start_sender(self) -> subprocess.Popen:
        return self._start_example(
            "sender.py",
            *("--address", SENDER_ADDRESS.hex(), "--destination", RECEIVER_ADDRESS.hex()),
            *("--count", str(FRAMES), "--size", str(FRAME_SIZE), "--rate", str(RATE)),
        )

    def _let_programs_talk(self) -> None:
        receiver = self.start_receiver()
        sender = self.start_sender()
        desktop.wait_for("the sender's green", lambda: self._is_green(SENDER))
        desktop.wait_for("the receiver's yellow", lambda: self._is_yellow(RECEIVER))
        self.sender_report = sender.communicate(timeout=PATIENCE)[0]
        desktop.wait_for("the receiver's blue", lambda: self._is_blue(RECEIVER))
        self.window.quit_programs()
        self.receiver_report = receiver.communicate(timeout=PATIENCE)[0]
        desktop.wait_for("the receiver's grey", lambda: self._is_grey(RECEIVER))

    def _draw(self) -> None:
        self.window.place_nodes(LEFT, RIGHT, SHORT_LIVED)
        self.window.draw_links((LEFT, RIGHT), (RIGHT, SHORT_LIVED), (RECEIVER, SHORT_LIVED))
        self.window.select_nothing()

    def _edit(self) -> None:
        self.window.select(*LINK_MIDDLE)
        self.window.fill_in(lattivowindow.CONNECTION_RELIABILITY, str(NEW_RELIABILITY))
        self.window.move(RIGHT, MOVED_RIGHT)
        self.window.select(*LEFT)
        self.window.fill_in(lattivowindow.NODE_NAME, NEW_NAME)
        self.window.press("space")  # the button "Assign Address..." has the focus
        self.window.answer_dialog(NEW_ADDRESS.hex())

    def _delete(self) -> None:
        self.window.select(*SHORT_LIVED)
        self.window.delete_selected()

    def _start_example(self, script: str, *arguments: str) -> subprocess.Popen:
        command = [sys.executable, "-B", str(EXAMPLES / script), "--port", str(self.port), *arguments]
        return self._screen.start(command, stdout=subprocess.PIPE, text=True)

    def _body(self, node: tuple[float, float]) -> desktop.Color:
        return self.window.color_at(node[0] + BODY[0], node[1] + BODY[1])

    def _is_blue(self, node: tuple[float, float]) -> bool:
        red, green, blue = self._body(node)
        return blue - max(red, green) > COLOR_CONTRAST

    def _is_green(self, node: tuple[float, float]) -> bool:
        red, green, blue = self._body(node)
        return green - max(red, blue) > COLOR_CONTRAST

    def _is_yellow(self, node: tuple[float, float]) -> bool:
        red, green, blue = self._body(node)
        return min(red, green) - blue > COLOR_CONTRAST

    def _is_grey(self, node: tuple[float, float]) -> bool:
        color = self._body(node)
        return min(color) == max(color) < LIGHTEST_NODE


def figures(report: str) -> dict[str, int]:
    """Return the figures that an example program prints."""
    lines = [line.split(": ", 1) for line in report.splitlines()]
    return {key: int(value.split()[0]) for key, value in lines if value.split()[0].isdigit()}


def setUpModule() -> None:
    missing = desktop.missing_programs()
    if missing:
        raise unittest.SkipTest("the window is not tested: not installed: " + ", ".join(missing))


class TestWindow(unittest.TestCase):
    """All tests look at what one visit left."""

    @classmethod
    def setUpClass(cls) -> None:
        folder = Path(cls.enterClassContext(tempfile.TemporaryDirectory(prefix="lattivo-")))
        with desktop.Desktop(folder) as screen:
            cls.visit = Visit(screen, folder)
            try:
                cls.visit.run()
            except BaseException as error:
                picture = Path(tempfile.gettempdir()) / "lattivo-window-failed.png"
                picture.write_bytes(screen.picture().png())
                printed = (folder / "printed").read_text(encoding="utf-8", errors="replace")
                raise AssertionError(f"{error}\nthe screen: {picture}\nprinted: {printed}") from error
        cls.opened = formatreader.read_simulation(cls.visit.opened_file.read_bytes())
        cls.dump = formatreader.read_dump(cls.visit.dump_file.read_bytes())
        cls.saved = formatreader.read_simulation(cls.visit.saved_file.read_bytes())

    def test_the_program_ends_in_order(self) -> None:
        self.assertEqual(self.visit.exit_code, 0)

    def test_only_a_star_for_each_flipped_bit_is_printed(self) -> None:
        lines = self.visit.printed.splitlines()
        self.assertGreater(len(lines), 0)  # so many bits were sent over the lossy link
        self.assertEqual(set(lines), {"*"})

    def test_every_sent_frame_has_one_outcome(self) -> None:
        sent = figures(self.visit.sender_report)
        self.assertEqual((sent["sent"], sent["unanswered"]), (FRAMES, 0))
        self.assertEqual(figures(self.visit.receiver_report)["received"], sent["confirmed"])

    def test_every_sent_frame_is_in_the_dump_in_its_order(self) -> None:
        frames = [record.frame for record in self.dump]
        self.assertEqual([len(frame) for frame in frames], [FRAME_SIZE] * FRAMES)
        for number, frame in enumerate(frames, 1):
            if numbered.number_of(frame) is not None:
                self.assertEqual(frame, numbered.build_frame(RECEIVER_ADDRESS, SENDER_ADDRESS, number, FRAME_SIZE))

    def test_the_dump_has_the_flipped_bits_that_the_receiver_got(self) -> None:
        corrupted = sum(numbered.number_of(record.frame) is None for record in self.dump)
        self.assertEqual(corrupted, figures(self.visit.receiver_report)["corrupted"])

    def test_the_times_in_the_dump_never_go_back(self) -> None:
        times = [record.milliseconds for record in self.dump]
        self.assertEqual(times, sorted(times))
        self.assertLess(times[-1] - times[0], PATIENCE * 1000)

    def test_the_settings_made_in_the_window_are_saved(self) -> None:
        self.assertEqual((self.saved.is_server_on, self.saved.port), (True, self.visit.port))
        self.assertEqual((self.saved.is_capture_on, self.saved.view_follows), (True, True))
        self.assertEqual(self.saved.frame_parameters, (255, 6, 0, 6))
        self.assertEqual(self.saved.broadcast_address, b"\xff" * 6)

    def test_what_was_opened_is_saved_again(self) -> None:
        for name in ("Sender", "Receiver"):
            opened, saved = (replace(file.node(name=name), node_id=0) for file in (self.opened, self.saved))
            self.assertEqual(opened, saved)
        opened, saved = (
            replace(file.link(file.node(name="Sender"), file.node(name="Receiver")), ends=(0, 0))
            for file in (self.opened, self.saved)
        )
        self.assertEqual(opened, saved)
        opened, saved = (replace(file.default_node, node_id=0) for file in (self.opened, self.saved))
        self.assertEqual(opened, saved)
        self.assertEqual(self.opened.default_connection, self.saved.default_connection)

    def test_the_drawn_node_is_saved_with_its_new_name_and_address(self) -> None:
        node = self.saved.node(name=NEW_NAME)
        self.assertEqual(node.address, NEW_ADDRESS)
        self._assert_near(node.position, LEFT)

    def test_the_moved_node_is_saved_where_it_was_dropped(self) -> None:
        node = self.saved.node(name="", address=b"")
        self._assert_near(node.position, MOVED_RIGHT)

    def test_the_drawn_link_is_saved_with_its_new_reliability(self) -> None:
        link = self.saved.link(self.saved.node(name=NEW_NAME), self.saved.node(name=""))
        self.assertAlmostEqual(link.reliability, NEW_RELIABILITY / 100)
        self.assertEqual((link.error_detection_reliability, link.delay, link.stroke_width), (-1.0, -1, -1.0))

    def test_the_deleted_node_is_not_saved_and_its_links_are_not(self) -> None:
        self.assertEqual((len(self.saved.nodes), len(self.saved.connections)), (4, 2))

    def _assert_near(self, position: tuple[float, float], wanted: tuple[float, float]) -> None:
        """The middle of the view may lie half a pixel beside the middle of the scene."""
        for coordinate, wanted_coordinate in zip(position, wanted):
            self.assertLessEqual(abs(coordinate - wanted_coordinate), 1.0)


class TestFirstWindow(unittest.TestCase):
    """The window as it comes up, on screens of several sizes."""

    def test_with_its_frame_it_is_no_larger_than_the_screen(self) -> None:
        for width, height, scale in ((1024, 700, "1"), (1280, 800, "1.25"), (1920, 1080, "1")):
            with self.subTest(f"{width} x {height}, scale factor {scale}"):
                picture = self._first_picture(width, height, scale)
                self.assertEqual(set(picture.area(0, height - 1, width, 1)), {0}, "black below the window")
                self.assertEqual(set(picture.area(width - 1, 0, 1, height)), {0}, "black on its right")

    def _first_picture(self, width: int, height: int, scale: str) -> desktop.Picture:
        with tempfile.TemporaryDirectory(prefix="lattivo-") as folder:
            with desktop.Desktop(Path(folder), width, height, QT_SCALE_FACTOR=scale) as screen:
                screen.start([os.environ["LATTIVO_PROGRAM"]])
                screen.wait_for_window("Lattivo")
                screen.wait_until_still((0, 0, width, height))
                return screen.picture()


class TestDialogs(unittest.TestCase):
    """The dialogs of some desktops run a separate event loop, in which no frame would go through."""

    @unittest.skipUnless(glob.glob(GTK_THEME), "the desktop theme of GTK (qt5-gtk-platformtheme) is not installed")
    def test_frames_go_through_while_a_file_dialog_is_open(self) -> None:
        folder = Path(self.enterContext(tempfile.TemporaryDirectory(prefix="lattivo-")))
        screen = self.enterContext(desktop.Desktop(folder, QT_QPA_PLATFORMTHEME="gtk3"))
        visit = Visit(screen, folder)
        visit.begin()
        receiver = visit.start_receiver()
        screen.press_keys("ctrl+o")
        screen.wait_for_window("Load Network", visit.window.window)
        sent = figures(visit.start_sender().communicate(timeout=PATIENCE)[0])
        self.assertEqual((sent["sent"], sent["unanswered"]), (FRAMES, 0))
        screen.press_keys("Escape")
        screen.wait_for_focus(visit.window.window)
        visit.window.quit()
        receiver.communicate()


if __name__ == "__main__":
    unittest.main()
