"""Works the window of the program as a user does, who sees where its parts are."""

from __future__ import annotations

import subprocess
from pathlib import Path
from typing import Callable

from tests.support.desktop import FRAME, Area, Color, Desktop, Picture, Point, accepts, wait_for

SCENE_SIZE = (500, 400)  # scene units shown in the middle of the view, whose smallest size this is
LIGHTEST_GROUND = 243  # of the window around the view is a little darker; the view is white to bluish white
INSIDE_VIEW = (200, 150)  # pixels from the window's corner
BESIDE_TEXT = 150  # pixels from the right edge: in the middle of the fields, where short texts do not reach
FIELD_HEIGHTS = range(12, 41)  # pixels of white
BOX_SIZES = range(8, 16)  # pixels of white in a check box
CAPTURE_BOXES = 3
FILE_MENU_EXPORT = 3  # places below the first
DEBUG_MENU = 3  # places right of "File"

# Fields of the forms that text can be typed into, from the top
SERVER_PORT = 3  # in the form of a network with nodes
SERVER_PORT_WITHOUT_NODES = 4  # the length of addresses can be changed as well
NODE_NAME = 0
CONNECTION_RELIABILITY = 0

CAPTURE_ENABLED, VIEW_FOLLOWS, HIDE_ADDRESSES = range(3)  # the check boxes below the table


class LattivoWindow:
    """The program, started on a screen and made as large as it."""

    def __init__(self, desktop: Desktop, program: str, errors: Path, size: tuple[int, int] = (1270, 980)) -> None:
        self._desktop = desktop
        with errors.open("wb") as file:
            self.process: subprocess.Popen[bytes] = desktop.start([program], stdout=file, stderr=file)
        self.window = desktop.wait_for_window("Lattivo")
        desktop.point((0, 0))  # out of the way
        self._left, self._top = FRAME
        self._width, self._height = size
        desktop.resize(self.window, *self._area())
        wait_for("the window's new place", lambda: self._area() in desktop.possible_geometries(self.window))
        self.wait_until_still()
        self._view = self._find_view()

    def wait_until_still(self) -> None:
        self._desktop.wait_until_still(self._area())

    # Files

    def open(self, file: Path) -> None:
        self._desktop.press_keys("ctrl+o")
        self.answer_dialog(str(file), "Load Network")

    def save(self, file: Path) -> None:
        self._desktop.press_keys("ctrl+s")
        self.answer_dialog(str(file), "Save Network")

    def export(self, file: Path) -> None:
        """Export the captured frames through the menu."""
        self._desktop.press_keys("alt+f", *["Down"] * FILE_MENU_EXPORT, "Return")
        self.answer_dialog(str(file), "Export frame dump")

    def quit(self) -> int:
        """Leave the program and return its exit code."""
        self._desktop.press_keys("ctrl+q")
        wait_for("the end of the program", lambda: self.process.poll() is not None)
        return self.process.returncode

    # Canvas

    def on_screen(self, x: float, y: float) -> Point:
        """Return where a point of the scene is seen."""
        left, top, width, height = self._view
        return round(left + (width - SCENE_SIZE[0]) / 2 + x), round(top + (height - SCENE_SIZE[1]) / 2 + y)

    def color_at(self, x: float, y: float) -> Color:
        return self._desktop.picture().color(*self.on_screen(x, y))

    def place_nodes(self, *positions: tuple[float, float]) -> None:
        self.change_form(lambda: self._desktop.press_keys("ctrl+1"))
        for position in positions:
            self._desktop.change(self._view, lambda: self._desktop.click(self.on_screen(*position)))

    def draw_links(self, *ends: tuple[tuple[float, float], tuple[float, float]]) -> None:
        self._desktop.press_keys("ctrl+2")
        for start, end in ends:
            self._desktop.change(self._view, lambda: self._desktop.drag(self.on_screen(*start), self.on_screen(*end)))

    def select_nothing(self) -> None:
        """Leave the drawing; the form of the network comes back."""
        self.change_form(lambda: self._desktop.press_keys("Escape"))

    def select(self, x: float, y: float) -> None:
        """Click an item, whose form then shows; it may look like the form before."""
        self._change_selection(lambda: self._desktop.click(self.on_screen(x, y)))

    def move(self, start: tuple[float, float], end: tuple[float, float]) -> None:
        """Drag an item, which also selects it."""
        self._change_selection(lambda: self._desktop.drag(self.on_screen(*start), self.on_screen(*end)))

    def delete_selected(self) -> None:
        """Press the Delete key; the form of the network comes back."""
        self.change_form(lambda: self._desktop.press_keys("Delete"))

    # Property editor

    def change_form(self, action: Callable[[], object]) -> None:
        """Do something that brings up another form."""
        self._desktop.change(self._form_area(), action)

    def fields(self) -> list[Point]:
        """Return the fields of the form that a text or number can be typed into, from top to bottom."""
        column = self._left + self._width - BESIDE_TEXT
        runs = self._desktop.picture().runs((column, self._top), (0, 1), self._height)
        return [(column, self._top + (first + last) // 2) for first, last in runs if last + 1 - first in FIELD_HEIGHTS]

    def click_field(self, field: int) -> None:
        self._desktop.click(self.fields()[field])

    def fill_in(self, field: int, text: str) -> None:
        """Replace the text of a field and leave it with the tab key."""
        self.click_field(field)
        self._desktop.press_keys("ctrl+a")
        self._desktop.type(text)
        self._desktop.press_keys("Tab")

    def switch_server_on(self, port: int, port_field: int) -> None:
        """Fill in the port and tick "Enabled" above it, which has the keyboard's input then."""
        self.click_field(port_field)
        self._desktop.press_keys("ctrl+a")
        self._desktop.type(str(port))
        self._desktop.press_keys("shift+Tab", "space")
        wait_for("the TCP server", lambda: accepts(port))

    def press(self, *keys: str) -> None:
        self._desktop.press_keys(*keys)

    def type(self, text: str) -> None:
        self._desktop.type(text)

    def answer_dialog(self, text: str, title: str = "Lattivo") -> None:
        """Type a text into the dialog that has come up, and accept it; one without a title has the program's."""
        self._desktop.wait_for_window(title, self.window)
        self._desktop.type(text)
        self._desktop.press_keys("Return")
        self._desktop.wait_for_focus(self.window)

    # Capture and debug commands

    def tick_capture_boxes(self, *boxes: int) -> None:
        """Tick what is not ticked yet."""
        positions = self._find_capture_boxes()
        for box in boxes:
            x, y = positions[box]
            self._desktop.change((x - 6, y - 6, 12, 12), lambda: self._desktop.click((x, y)))

    def quit_programs(self) -> None:
        """Give the last of the debug commands through the menu."""
        self._desktop.press_keys("alt+f", *["Right"] * DEBUG_MENU, "Up", "Return")

    def _change_selection(self, action: Callable[[], object]) -> None:
        self._desktop.change(self._view, action)
        self.wait_until_still()

    def _form_area(self) -> Area:
        right, bottom = self._left + self._width, self._top + self._height
        left = self._view[0] + self._view[2] + 10  # beside the frame of the view
        return left, self._top, right - left, bottom - self._top

    def _area(self) -> Area:
        return self._left, self._top, self._width, self._height

    def _find_view(self) -> Area:
        """The scene is empty, so that the view ends where it is white no more."""
        picture = self._desktop.picture()
        inside = (self._left + INSIDE_VIEW[0], self._top + INSIDE_VIEW[1])

        def edge(dx: int, dy: int) -> Point:
            x, y = inside
            while min(picture.color(x + dx, y + dy)) > LIGHTEST_GROUND:
                x, y = x + dx, y + dy
            return x, y

        left, top, right, bottom = edge(-1, 0)[0], edge(0, -1)[1], edge(1, 0)[0], edge(0, 1)[1]
        return left, top, right + 1 - left, bottom + 1 - top

    def _find_capture_boxes(self) -> list[Point]:
        """Below the table stand three small white squares in a row, left of the property editor."""
        picture = self._desktop.picture()
        for y in range(self._top + self._height - 1, self._top, -1):
            boxes = self._white_squares(picture, y)
            if len(boxes) == CAPTURE_BOXES:
                return boxes
        raise AssertionError("the check boxes of the capture are not seen")

    def _white_squares(self, picture: Picture, y: int) -> list[Point]:
        runs = picture.runs((self._left, y), (1, 0), self._form_area()[0] - self._left)
        middles = (self._left + (first + last) // 2 for first, last in runs if last + 1 - first in BOX_SIZES)
        return [(x, y - 4) for x in middles]  # found at their lower edge
