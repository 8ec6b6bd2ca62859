"""A virtual screen with a window manager, worked by mouse and keyboard as a user would: Xvfb, openbox, xdotool."""

from __future__ import annotations

import mmap
import os
import re
import shutil
import socket
import struct
import subprocess
import time
import zlib
from contextlib import ExitStack
from pathlib import Path
from typing import Callable, Mapping, TypeVar

PROGRAMS = ("Xvfb", "openbox", "xdotool")
PATIENCE = 30.0  # seconds; only a failure waits that long
POLL_PAUSE = 0.03  # seconds between two looks
STILL_TIME = 0.1  # seconds without a change; half a blink of a text cursor takes 0.5
FRAME = (1, 20)  # pixels that the window manager draws on the left of a window and above
WHITE = (255, 255, 255)

QT_SETTINGS = {
    "QT_QPA_PLATFORM": "xcb",
    "QT_QPA_PLATFORMTHEME": "",  # Qt's own dialogs
    "QT_XCB_GL_INTEGRATION": "none",  # nothing is drawn with it, and its drivers leak memory
    "QT_LOGGING_RULES": "qt.qpa.xcb.warning=false",  # it asks for a frame that the window manager just removed
    "DBUS_SESSION_BUS_ADDRESS": "disabled:",  # a bus would be started otherwise
}

_XWD_HEADER = struct.Struct(">25I")
_XWD_COLOR_SIZE = 12  # bytes of an entry in the colour table behind the header
_XWD_LEAST_SIGNIFICANT_FIRST = 0

Color = tuple[int, int, int]
Point = tuple[int, int]
Area = tuple[int, int, int, int]  # left, top, width, height
Value = TypeVar("Value")


class TimedOut(AssertionError):
    """An awaited event did not come in time."""


def missing_programs() -> list[str]:
    """Return which of the needed programs are not installed."""
    return [program for program in PROGRAMS if shutil.which(program) is None]


def wait_for(what: str, look: Callable[[], Value]) -> Value:
    """Look again and again until there is something to see, and return it."""
    end = time.monotonic() + PATIENCE
    while True:
        seen = look()
        if seen:
            return seen
        if time.monotonic() > end:
            raise TimedOut(f"waited {PATIENCE:.0f} s for {what}")
        time.sleep(POLL_PAUSE)


def free_port() -> int:
    """Return a port on which nobody listens."""
    with socket.socket(socket.AF_INET6) as probe:
        probe.bind(("::", 0))
        return probe.getsockname()[1]


def accepts(port: int) -> bool:
    """Tell whether a server listens on the port."""
    with socket.socket() as probe:
        return probe.connect_ex(("127.0.0.1", port)) == 0


def environment(folder: Path, **more: str) -> dict[str, str]:
    """Return an environment without the settings of the user's desktop; the home is the given folder."""
    kept = ("PATH", "PYTHONPATH", "LD_LIBRARY_PATH", "ASAN_OPTIONS", "LSAN_OPTIONS", "UBSAN_OPTIONS", "FONTCONFIG_FILE")
    own = {name: os.environ[name] for name in kept if name in os.environ}
    places = {"HOME": str(folder), "XDG_RUNTIME_DIR": str(folder), "XDG_CONFIG_HOME": str(folder)}
    return {**own, **places, **QT_SETTINGS, "LC_ALL": "C.UTF-8", **more}


class Picture:
    """The contents of the screen at one moment."""

    def __init__(self, width: int, height: int, rows: list[bytes]) -> None:
        self.width = width
        self.height = height
        self._rows = rows  # blue, green, red and an unused byte a pixel

    def color(self, x: int, y: int) -> Color:
        blue, green, red = self._rows[y][4 * x : 4 * x + 3]
        return red, green, blue

    def area(self, left: int, top: int, width: int, height: int) -> bytes:
        """Return the pixels of an area, to be compared."""
        return b"".join(row[4 * left : 4 * (left + width)] for row in self._rows[top : top + height])

    def runs(self, start: Point, step: Point, steps: int, color: Color = WHITE) -> list[tuple[int, int]]:
        """Return first and last step of every run of the colour on the way."""
        found: list[tuple[int, int]] = []
        for index in range(steps):
            if self.color(start[0] + index * step[0], start[1] + index * step[1]) != color:
                continue
            if found and found[-1][1] == index - 1:
                found[-1] = (found[-1][0], index)
            else:
                found.append((index, index))
        return found

    def png(self) -> bytes:
        """Return the picture as a PNG image."""
        header = struct.pack(">IIBBBBB", self.width, self.height, 8, 2, 0, 0, 0)  # 8 bits, red-green-blue
        above = bytes(3 * self.width)
        filtered = []
        for row in self._rows:
            line = bytearray(3 * self.width)
            line[0::3], line[1::3], line[2::3] = row[2::4], row[1::4], row[0::4]
            filtered.append(_smallest_filter(bytes(line), above))
            above = bytes(line)
        data = zlib.compress(b"".join(filtered), 9)
        chunks = _png_chunk(b"IHDR", header) + _png_chunk(b"IDAT", data) + _png_chunk(b"IEND", b"")
        return b"\x89PNG\r\n\x1a\n" + chunks


def _png_chunk(kind: bytes, content: bytes) -> bytes:
    return struct.pack(">I", len(content)) + kind + content + struct.pack(">I", zlib.crc32(kind + content))


def _smallest_filter(line: bytes, above: bytes) -> bytes:
    """Take the line as it is, or its difference to the pixel on the left or above: what compresses best."""
    left = bytes(3) + line[:-3]
    candidates = [line]
    for neighbours in (left, above):
        candidates.append(bytes((a - b) & 0xFF for a, b in zip(line, neighbours)))
    kind, content = min(enumerate(candidates), key=lambda candidate: len(zlib.compress(candidate[1], 1)))
    return bytes([kind]) + content


class Desktop:
    """The screen, its window manager, mouse and keyboard. Everything ends with the context.

    Further settings go into the environment of the programs.
    """

    def __init__(self, folder: Path, width: int = 1280, height: int = 1024, **settings: str) -> None:
        self._folder = folder
        self._settings = settings
        self._stack = ExitStack()
        try:
            self.display = self._start_screen(width, height)
            self._screen_file = self._map_screen()
            self._log = self._stack.enter_context((folder / "openbox.log").open("wb"))
            self.start(["openbox", "--sm-disable"], stdout=self._log, stderr=self._log)
            wait_for("the window manager", lambda: self._succeeds("get_num_desktops"))
        except BaseException:
            self._stack.close()
            raise

    def __enter__(self) -> Desktop:
        return self

    def __exit__(self, *exception: object) -> None:
        self._stack.close()

    def start(self, command: list[str], **options: object) -> subprocess.Popen[bytes]:
        """Start a program on this screen; it does not outlive it."""
        settings = {"cwd": self._folder, "env": self._environment(), "stdin": subprocess.DEVNULL, **options}
        process = subprocess.Popen(command, **settings)  # type: ignore[call-overload]
        self._stack.callback(process.wait)
        self._stack.callback(process.kill)
        return process

    # Windows

    def wait_for_window(self, title: str, *others: str) -> str:
        """Return the window of that title, not one of the others, when it takes the keyboard's input.

        The title may be a regular expression.
        """

        def look() -> str:
            window = self._answer("getwindowfocus").strip()
            shown_title = self._answer("getwindowname", window).strip() if window else ""
            return window if window not in others and re.fullmatch(title, shown_title) else ""

        return wait_for(f"the window {title!r}", look)

    def wait_for_focus(self, window: str) -> None:
        """Return when the window takes the keyboard's input (again): its dialogs are closed then."""
        wait_for("the end of a dialog", lambda: self._answer("getwindowfocus").strip() == window)

    def possible_geometries(self, window: str) -> list[Area]:
        """Return where a window without its frame may be: some versions of xdotool count the frame twice."""
        lines = self._xdotool("getwindowgeometry", "--shell", window).stdout.split()
        values = {key: int(value) for key, value in (line.split("=") for line in lines)}
        left, top, size = values["X"], values["Y"], (values["WIDTH"], values["HEIGHT"])
        return [(left, top, *size), (left - FRAME[0], top - FRAME[1], *size)]

    def resize(self, window: str, left: int, top: int, width: int, height: int) -> None:
        """Move a window and give it a size, both without its frame."""
        self._xdotool("windowmove", window, str(left), str(top), "windowsize", window, str(width), str(height))

    # Mouse and keyboard

    def press_keys(self, *keys: str) -> None:
        self._xdotool("key", *keys)

    def type(self, text: str) -> None:
        self._xdotool("type", text)

    def point(self, position: Point) -> None:
        self._xdotool("mousemove", *_numbers(position))

    def click(self, position: Point, button: int = 1) -> None:
        self._xdotool("mousemove", *_numbers(position), "click", str(button))

    def drag(self, start: Point, end: Point) -> None:
        """Press at the start and release at the end; moves on the way, as a hand would."""
        middle = ((start[0] + end[0]) // 2, (start[1] + end[1]) // 2)
        commands = ["mousemove", *_numbers(start), "mousedown", "1"]
        for position in (middle, end):
            commands += ["mousemove", *_numbers(position)]
        self._xdotool(*commands, "mouseup", "1")

    # Screen

    def change(self, area: Area, action: Callable[[], object]) -> None:
        """Do something that changes what an area of the screen shows, and return when it has."""
        before = self.picture().area(*area)
        action()
        wait_for("a change on the screen", lambda: self.picture().area(*area) != before)
        self.wait_until_still(area)

    def wait_until_still(self, area: Area) -> None:
        """Return when an area of the screen has not changed between two looks."""

        def look() -> bool:
            before = self.picture().area(*area)
            time.sleep(STILL_TIME)
            return before == self.picture().area(*area)

        wait_for("the screen to be still", look)

    def picture(self) -> Picture:
        """Look at the screen."""
        header = _XWD_HEADER.unpack_from(self._screen_file)
        width, height, byte_order, bits, line_length, colors = (header[index] for index in (4, 5, 7, 11, 12, 19))
        assert (bits, byte_order) == (32, _XWD_LEAST_SIGNIFICANT_FIRST), "a screen of another kind"
        start = header[0] + _XWD_COLOR_SIZE * colors
        lines = (start + line * line_length for line in range(height))
        return Picture(width, height, [self._screen_file[line : line + 4 * width] for line in lines])

    def _start_screen(self, width: int, height: int) -> str:
        """Return the display of a new screen; the server looks for a free one by itself."""
        read_end, write_end = os.pipe()
        with os.fdopen(read_end) as answer:
            options = ["-displayfd", str(write_end), "-screen", "0", f"{width}x{height}x24"]
            log = self._stack.enter_context((self._folder / "Xvfb.log").open("wb"))
            server = subprocess.Popen(
                ["Xvfb", *options, "-fbdir", str(self._folder), "-nolisten", "tcp", "-noreset"],
                pass_fds=(write_end,),
                stdout=log,
                stderr=log,
            )
            self._stack.callback(server.wait)
            self._stack.callback(server.terminate)  # by kill it would leave its lock file
            os.close(write_end)
            number = answer.readline().strip()
        if not number:
            raise TimedOut("the screen did not start: " + (self._folder / "Xvfb.log").read_text(errors="replace"))
        return f":{number}"

    def _map_screen(self) -> mmap.mmap:
        with (self._folder / "Xvfb_screen0").open("rb") as file:
            return self._stack.enter_context(mmap.mmap(file.fileno(), 0, access=mmap.ACCESS_READ))

    def _environment(self) -> Mapping[str, str]:
        return environment(self._folder, DISPLAY=self.display, **self._settings)

    def _xdotool(self, *arguments: str, check: bool = True) -> subprocess.CompletedProcess[str]:
        return subprocess.run(
            ["xdotool", *arguments],
            env=self._environment(),
            capture_output=True,
            text=True,
            timeout=PATIENCE,
            check=check,
        )

    def _answer(self, *arguments: str) -> str:
        """Return what a question gives, nothing when it has no answer."""
        return self._xdotool(*arguments, check=False).stdout

    def _succeeds(self, *arguments: str) -> bool:
        return self._xdotool(*arguments, check=False).returncode == 0


def _numbers(position: Point) -> tuple[str, str]:
    return str(position[0]), str(position[1])
