"""Draws a network in the program's window, lets programs talk over it and takes a picture: screenshot.sh calls it."""

from __future__ import annotations

import argparse
import sys
import tempfile
import threading
import time
from pathlib import Path

TOP_FOLDER = Path(__file__).resolve().parents[1]

import lattivo
import numbered

from tests.support import desktop, lattivowindow

SCREEN_SIZE = (1280, 800)
WINDOW_SIZE = (1278, 775)  # with its frame as large as the screen
POINTER = (620, 480)  # where nothing is
LARGEST_FILE = 300_000  # bytes

NODES = {  # name: position in the scene
    "Gateway": (250, 195),
    "Sensor 1": (-60, 85),
    "Sensor 2": (-60, 305),
    "Logger": (560, 85),
    "Valve": (560, 305),
}
LINKS = (  # a node's last one is the one whose frames are captured
    ("Sensor 1", "Sensor 2"),
    ("Logger", "Valve"),
    ("Sensor 1", "Gateway"),
    ("Sensor 2", "Gateway"),
    ("Gateway", "Logger"),
    ("Gateway", "Valve"),
)
BROKEN_LINK_MIDDLE = (-60, 195)  # between the sensors
SELECTED = "Gateway"

RELIABILITY = 99.95  # %, of each bit
DETECTION = 90  # %, of each corrupted frame
DELAY = 900  # ms
DEVIATION = 500  # ms

FRAME_SIZES = (40, 64, 128)  # bytes
BROADCAST = b"\xff" * numbered.ADDRESS_LENGTH
FRAMES_OF_BURST = 3
PAUSE_IN_BURST = 0.15  # seconds
CONVERSATIONS = {  # sender: destinations in turn (None: all), seconds between two bursts
    "Sensor 1": (("Gateway",), 2.2),
    "Sensor 2": (("Gateway",), 1.7),
    "Gateway": (("Logger", "Valve", None), 1.9),
    "Logger": (("Gateway",), 3.1),
    "Valve": (("Logger", "Gateway"), 2.6),
}

WARM_UP = 12.0  # seconds until the table is full
LOOKING_TIME = 8.0  # seconds, to choose the picture with the most frames under way
LOOK_PAUSE = 0.1
DARK_GREEN, DARK_RED = (0, 128, 0), (128, 0, 0)  # frames under way: that will arrive, that will not


def address(name: str) -> bytes:
    """Return the address of a node."""
    return bytes([2, 0, 0, 0, 0, 1 + list(NODES).index(name)])


class Program(threading.Thread):
    """Drives a node: sends bursts of frames and reads what comes."""

    def __init__(self, port: int, name: str) -> None:
        super().__init__(daemon=True)
        self._address = address(name)
        self._destinations, self._pause = CONVERSATIONS[name]
        self._client = lattivo.Client.connect(port=port, address=self._address, timeout=desktop.PATIENCE)

    def run(self) -> None:
        """Go on until the simulator closes the connection."""
        number = 0
        try:
            while True:
                for _ in range(FRAMES_OF_BURST):
                    number += 1
                    self._client.send_frame(self._frame(number))
                    self._read_for(PAUSE_IN_BURST)
                self._read_for(self._pause)
        except lattivo.Disconnected:
            pass

    def _frame(self, number: int) -> bytes:
        destination = self._destinations[number % len(self._destinations)]
        to = BROADCAST if destination is None else address(destination)
        return numbered.build_frame(to, self._address, number, FRAME_SIZES[number % len(FRAME_SIZES)])

    def _read_for(self, seconds: float) -> None:
        end = time.monotonic() + seconds
        while (left := end - time.monotonic()) > 0:
            self._client.receive(left)


def set_network_up(window: lattivowindow.LattivoWindow, port: int) -> None:
    """Fill in the form of the network: the TCP server, and what all links have in common."""
    window.switch_server_on(port, lattivowindow.SERVER_PORT_WITHOUT_NODES)
    window.press("Tab", "Tab")  # over "Plug'n'Place" and "Name is ID"
    for value in (RELIABILITY, DETECTION, DELAY, DEVIATION):
        window.press("Tab")
        window.type(str(value))
    window.press("Tab")


def draw_network(window: lattivowindow.LattivoWindow) -> None:
    """Place and name the nodes, link them, and break one of the links."""
    window.place_nodes(*NODES.values())
    window.draw_links(*((NODES[first], NODES[second]) for first, second in LINKS))
    window.select_nothing()
    for name, position in NODES.items():
        window.select(*position)
        window.fill_in(lattivowindow.NODE_NAME, name)
        window.press("space")  # the button "Assign Address..." has the focus
        window.answer_dialog(address(name).hex())
    window.select(*BROKEN_LINK_MIDDLE)
    window.click_field(lattivowindow.CONNECTION_RELIABILITY)
    window.press("shift+Tab", "space")  # "Temporary broken"
    window.select(*NODES[SELECTED])


def frames_under_way(picture: desktop.Picture) -> int:
    """Return a measure of how many frames are seen; none when they are all of one kind."""
    everything = picture.area(0, 0, picture.width, picture.height)
    green, red = (everything.count(bytes(reversed(color))) for color in (DARK_GREEN, DARK_RED))
    return green + red if green and red else 0


def best_picture(screen: desktop.Desktop) -> desktop.Picture:
    """Look for a while and return the picture on which the most frames are under way."""
    best = screen.picture()
    end = time.monotonic() + LOOKING_TIME
    while time.monotonic() < end:
        time.sleep(LOOK_PAUSE)
        best = max(best, screen.picture(), key=frames_under_way)
    return best


def take_picture(program: str, folder: Path) -> bytes:
    """Return the picture as PNG."""
    port = desktop.free_port()
    with desktop.Desktop(folder, *SCREEN_SIZE) as screen:
        window = lattivowindow.LattivoWindow(screen, program, folder / "printed", WINDOW_SIZE)
        set_network_up(window, port)
        draw_network(window)
        window.tick_capture_boxes(lattivowindow.CAPTURE_ENABLED, lattivowindow.VIEW_FOLLOWS)
        screen.point(POINTER)
        for name in NODES:
            Program(port, name).start()
        time.sleep(WARM_UP)
        picture = best_picture(screen)
        window.quit()
    return picture.png()


def main() -> int:
    """Run the program."""
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("program", help="path of lattivo")
    parser.add_argument("image", type=Path, help="PNG file to write")
    options = parser.parse_args()
    missing = desktop.missing_programs()
    if missing:
        print("not installed: " + ", ".join(missing), file=sys.stderr)
        return 1
    with tempfile.TemporaryDirectory(prefix="lattivo-") as folder:
        image = take_picture(str(Path(options.program).resolve()), Path(folder))
    if len(image) > LARGEST_FILE:
        print(f"the picture has {len(image)} bytes, more than {LARGEST_FILE}", file=sys.stderr)
        return 1
    options.image.write_bytes(image)
    return 0


if __name__ == "__main__":
    sys.exit(main())
