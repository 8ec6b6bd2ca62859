"""Tests of the program with the window on a machine that fails it: full disks, taken ports, no standard streams.

The environment variables LATTIVO_HEADLESS and LATTIVO_PROGRAM hold the paths of the runner and of the program with the
window; CTest sets them.
"""

from __future__ import annotations

import os
import socket
import unittest
from contextlib import closing
from pathlib import Path
from typing import Callable

from tests.support import desktop, formatreader, lattivowindow, surroundings
from tests.support.runner import RunnerTest, needs_surroundings


def setUpModule() -> None:  # noqa: N802
    if not surroundings.unavailable():
        surroundings.make_mounts_private()


class WindowTest(RunnerTest):
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
