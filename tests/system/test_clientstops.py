"""Tests of the client library with a simulator that is stopped and continued, and as a user builds and installs it.

The environment variables LATTIVO_HEADLESS, LATTIVO_KITLOAD and LATTIVO_BUILD hold the paths of the runner, of the load
on the library and of the build folder; CTest sets them.
"""

from __future__ import annotations

import os
import random
import re
import select
import shutil
import signal
import subprocess
import tempfile
import time
import unittest
from contextlib import ExitStack, nullcontext
from pathlib import Path
from typing import Callable, ContextManager

from measuring.lab import makesimulation
from tests.support import desktop, surroundings

CLIENT_FOLDER = Path(__file__).resolve().parents[2] / "client" / "c"
PATIENCE = 120.0  # seconds; only a failing test waits that long
LARGEST_FRAME = 2000

# Seconds that the simulator is stopped for, in turn. After 200 ms a kernel sends what fits into the window.
STOPS = (0.05, 0.3, 0.05, 0.1, 0.5, 0.05, 0.1, 0.05, 3.0, 0.05, 0.1, 0.05, 0.25, 0.05, 0.1, 0.05)
RUNS = (0.02, 0.15)  # seconds between two stops, drawn between these

# Bytes: the smallest, first and largest buffer of a receiving socket, as most machines have them. The largest decides
# in which steps the window grows: 128 bytes, less than a message.
RECEIVE_BUFFERS = "4096 131072 6291456"

WARNINGS = ("-std=c99", "-Wall", "-Wextra", "-Wpedantic", "-Wconversion", "-Werror")


def needs_networks(test: Callable[..., None]) -> Callable[..., None]:
    reason = surroundings.unavailable()
    return unittest.skipIf(reason, f"networks cannot be made here, which root may: {reason}")(test)


class KitTest(unittest.TestCase):
    """A folder, simulators and programs that do not outlive their test."""

    def setUp(self) -> None:
        self.folder = Path(self.enterContext(tempfile.TemporaryDirectory(prefix="lattivo-")))
        self.stack = self.enterContext(ExitStack())

    def start(self, *command: object, **options: object) -> subprocess.Popen[str]:
        process = subprocess.Popen(
            [str(part) for part in command], stdout=subprocess.PIPE, stdin=subprocess.DEVNULL, text=True, **options
        )
        self.stack.callback(process.stdout.close)
        self.stack.callback(process.wait)
        self.stack.callback(process.kill)
        return process

    def start_simulator(self, **settings: object) -> tuple[subprocess.Popen[str], str]:
        """Start a simulation, of two linked nodes unless told otherwise; return the process and its port."""
        simulation = self.folder / "a.ltvo"
        network = makesimulation.Simulation(maximal_transfer_unit=LARGEST_FRAME, **settings)
        simulation.write_bytes(makesimulation.simulation_file(network))
        options = ("--listen", "0", "--identify-by", "name")
        simulator = self.start(os.environ["LATTIVO_HEADLESS"], simulation, *options)
        return simulator, read_line(simulator).split()[-1]

    def start_load(self, host: str, port: str, frames: int, size: int, variant: str = "") -> subprocess.Popen[str]:
        """Start the load; return when its programs are attached."""
        load = self.start(
            os.environ["LATTIVO_KITLOAD"] + variant, host, port, 0, 1, frames, size, stderr=subprocess.PIPE
        )
        self.stack.callback(load.stderr.close)
        self.assertEqual(read_line(load), "attached\n")
        return load

    def end_load(self, load: subprocess.Popen[str]) -> tuple[int, str]:
        """Wait for the end; return how many frames have arrived, and what was written to standard error."""
        load.wait(PATIENCE)
        return int(load.stdout.read()), load.stderr.read()  # communicate() loses what came with an earlier line


def read_line(process: subprocess.Popen[str]) -> str:
    if not select.select([process.stdout], [], [], PATIENCE)[0]:
        raise AssertionError("no answer")
    return process.stdout.readline()


def stop_again_and_again(simulator: subprocess.Popen[str], load: subprocess.Popen[str]) -> None:
    """Stop and continue the simulator while the load runs; then let a slow machine finish it."""
    draw = random.Random(1)
    for stop in STOPS + STOPS:
        if load.poll() is not None:
            return
        time.sleep(draw.uniform(*RUNS))
        simulator.send_signal(signal.SIGSTOP)
        try:
            load.wait(stop)
        except subprocess.TimeoutExpired:
            pass
        simulator.send_signal(signal.SIGCONT)


class TestStops(KitTest):
    """A program sends at full speed while the simulator is stopped again and again.

    The simulator's room is counted in bytes: 100,000 frames of 1,000 bytes fill it more often than 1,000,000 of 64.
    """

    def make_cable(self) -> tuple[surroundings.Machine, surroundings.Machine, surroundings.Cable]:
        """Join a machine for the programs with one for the simulator."""
        near, far = surroundings.Machine(self.stack), surroundings.Machine(self.stack)
        set_receive_buffers(far)
        return near, far, surroundings.Cable(near, far)

    def assert_all_arrive(
        self, host: str, near: ContextManager[None], far: ContextManager[None], frames: int, size: int
    ) -> None:
        with far:
            simulator, port = self.start_simulator()
        with near:
            load = self.start_load(host, port, frames, size)
        stop_again_and_again(simulator, load)
        self.assertEqual(self.end_load(load), (frames, ""))

    def test_small_frames_all_arrive_over_the_loopback_device(self) -> None:
        self.assert_all_arrive_by_loopback(1_000_000, 64)

    def test_larger_frames_all_arrive_over_the_loopback_device(self) -> None:
        self.assert_all_arrive_by_loopback(100_000, 1000)

    def assert_all_arrive_by_loopback(self, frames: int, size: int) -> None:
        if surroundings.unavailable():
            self.assert_all_arrive("127.0.0.1", nullcontext(), nullcontext(), frames, size)
            return
        machine = surroundings.Machine(self.stack)
        set_receive_buffers(machine)
        self.assert_all_arrive("127.0.0.1", machine.inside(), machine.inside(), frames, size)

    @needs_networks
    def test_small_frames_all_arrive_over_a_cable(self) -> None:
        near, far, cable = self.make_cable()
        self.assert_all_arrive(cable.far_address, near.inside(), far.inside(), 1_000_000, 64)

    @needs_networks
    def test_larger_frames_all_arrive_over_a_cable(self) -> None:
        near, far, cable = self.make_cable()
        self.assert_all_arrive(cable.far_address, near.inside(), far.inside(), 100_000, 1000)

    def test_without_the_flag_a_connection_is_cut_off(self) -> None:
        simulator, port = self.start_simulator()
        load = self.start_load("127.0.0.1", port, 1_000_000, 1000, "_without_eor")
        stop_again_and_again(simulator, load)
        self.assert_cut_off(load)

    @needs_networks
    def test_without_the_flag_a_connection_over_a_cable_is_cut_off(self) -> None:
        near, far, cable = self.make_cable()
        with far.inside():
            simulator, port = self.start_simulator()
        with near.inside():
            load = self.start_load(cable.far_address, port, 1_000_000, 1000, "_without_eor")
        stop_again_and_again(simulator, load)
        self.assert_cut_off(load)

    def assert_cut_off(self, load: subprocess.Popen[str]) -> None:
        arrived, errors = self.end_load(load)
        self.assertLess(arrived, 1_000_000)
        self.assertRegex(errors, "^kitload: sender: ")

    def test_one_segment_at_a_time_all_frames_arrive(self) -> None:
        simulator, port = self.start_simulator()
        load = self.start_load("127.0.0.1", port, 100_000, 64, "_slow_gate")
        stop_again_and_again(simulator, load)
        self.assertEqual(self.end_load(load), (100_000, ""))

    @needs_networks
    def test_a_program_goes_on_when_the_word_of_new_room_was_lost(self) -> None:
        near, far, cable = self.make_cable()
        with far.inside():
            simulator, port = self.start_simulator()
        with near.inside():
            load = self.start_load(cable.far_address, port, 100_000, 64)
        simulator.send_signal(signal.SIGSTOP)
        desktop.wait_for("the window to fill up", lambda: is_window_full(load))
        cable.pull_out()
        simulator.send_signal(signal.SIGCONT)
        desktop.wait_for("the simulator to read everything", lambda: unread_bytes(simulator.pid) == 0)
        cable.plug_in()
        self.assertEqual(self.end_load(load), (100_000, ""))


def set_receive_buffers(machine: surroundings.Machine) -> None:
    with machine.inside():
        Path("/proc/sys/net/ipv4/tcp_rmem").write_text(RECEIVE_BUFFERS, encoding="ascii")


def is_window_full(load: subprocess.Popen[str]) -> bool:
    """Tell whether a program waits for room: its library lets the kernel ask for it from then on."""
    keepalive_timer = "02"
    return any(fields[5].startswith(keepalive_timer) for fields in connections(load.pid))


def unread_bytes(pid: int) -> int:
    """Return how many bytes have arrived that a process and its kin on the machine have not read."""
    return sum(int(fields[4].split(":")[1], 16) for fields in connections(pid))


def connections(pid: int) -> list[list[str]]:
    """Return what the kernel tells of each established connection of the machine on which a process runs."""
    established = "01"
    files = (Path(f"/proc/{pid}/net/{name}") for name in ("tcp", "tcp6"))
    lines = [line.split() for file in files for line in file.read_text(encoding="ascii").splitlines()[1:]]
    return [fields for fields in lines if fields[3] == established]


class TestNames(KitTest):
    """Programs identify themselves by name while the simulator is stopped again and again."""

    def test_the_first_frame_after_the_identification_arrives(self) -> None:
        simulator, port = self.start_simulator()
        draw = random.Random(1)
        for attempt in range(30):
            simulator.send_signal(signal.SIGSTOP)
            load = self.start(os.environ["LATTIVO_KITLOAD"], "127.0.0.1", port, 0, 1, 1, 64)
            for _ in range(4):
                time.sleep(draw.uniform(0.001, 0.02))
                simulator.send_signal(signal.SIGCONT)
                time.sleep(draw.uniform(0.0, 0.0005))
                simulator.send_signal(signal.SIGSTOP)
            simulator.send_signal(signal.SIGCONT)
            self.assertEqual(load.communicate(timeout=PATIENCE)[0], "attached\n1\n", f"attempt {attempt}")


def examples(kind: str) -> list[str]:
    """Return the blocks of a language in the library's document, which a user copies."""
    text = (CLIENT_FOLDER / "README.md").read_text(encoding="utf-8")
    return re.findall(rf"```{kind}\n(.*?)```", text, re.DOTALL)


# Queues a frame, and runs the document's loop until it ends.
LOOP_PROGRAM = """
#include <lattivo.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>

static void handle(const lattivo_message* message)
{
    printf("%%d\\n", message->type);
    fflush(stdout);
}

int main(int argc, char** argv)
{
    const unsigned char frame[12] = {2, 0, 0, 0, 0, 2, 2, 0, 0, 0, 0, 1};
    lattivo_client* client;
    lattivo_message message;
    if (argc != 2 || lattivo_open(&client, "localhost", (uint16_t)atoi(argv[1]), NULL) != LATTIVO_OK
        || lattivo_identify_by_name(client, "node-1") != LATTIVO_OK
        || lattivo_send_frame(client, frame, sizeof frame, 0) != LATTIVO_OK)
        return 1;
    %s
    return lattivo_close(client) == LATTIVO_CLOSED ? 0 : 1;
}
"""


class TestInstallation(KitTest):
    """A user installs the library, moves it and builds the program of its document."""

    def setUp(self) -> None:
        super().setUp()
        installed = self.folder / "installed"
        run("cmake", "--install", os.environ["LATTIVO_BUILD"], "--component", "client", "--prefix", installed)
        self.prefix = installed.rename(self.folder / "moved")
        self.user = self.folder / "user"
        self.user.mkdir()
        (self.user / "talk.c").write_text(examples("c")[0], encoding="utf-8")

    def test_a_program_is_built_with_pkg_config(self) -> None:
        if shutil.which("pkg-config") is None:
            self.skipTest("pkg-config is not installed")
        folder = next(self.prefix.rglob("pkgconfig"))
        environment = {**os.environ, "PKG_CONFIG_PATH": str(folder)}
        flags = run("pkg-config", "--cflags", "--libs", "lattivo-client", env=environment).split()
        program = self.user / "talk"
        run("cc", *self.sanitizers(), self.user / "talk.c", "-o", program, *flags, f"-Wl,-rpath,{folder.parent}")
        self.assertIn("liblattivo-client.so.1", run("readelf", "-d", program))
        self.assert_talks(program)

    def test_a_program_is_built_with_cmake(self) -> None:
        program = self.build_with_cmake(examples("cmake")[0])
        self.assertNotIn("liblattivo-client", run("readelf", "-d", program))
        self.assert_talks(program)

    def test_a_program_is_built_with_cmake_and_the_shared_library(self) -> None:
        program = self.build_with_cmake(examples("cmake")[0].replace("lattivo::client", "lattivo::client-shared"))
        self.assertIn("liblattivo-client.so.1", run("readelf", "-d", program))
        self.assert_talks(program)

    def test_the_loop_of_the_document_ends_with_the_connection(self) -> None:
        (self.user / "talk.c").write_text(LOOP_PROGRAM % examples("c")[1], encoding="utf-8")
        program = self.build_with_cmake(examples("cmake")[0])
        simulator, port = self.start_simulator(wiring=((1, 2),), confirms=True)
        loop = self.start(program, port, stderr=subprocess.DEVNULL)
        self.assertEqual(read_line(loop), "2\n")  # the confirmation
        simulator.terminate()
        self.assertEqual(loop.wait(PATIENCE), 0)

    def build_with_cmake(self, project: str) -> Path:
        (self.user / "CMakeLists.txt").write_text(project, encoding="utf-8")
        build = self.user / "build"
        flags = " ".join(self.sanitizers())
        run("cmake", "-S", self.user, "-B", build, f"-DCMAKE_PREFIX_PATH={self.prefix}", f"-DCMAKE_C_FLAGS={flags}")
        run("cmake", "--build", build)
        return build / "talk"

    def test_the_headers_are_installed(self) -> None:
        self.assertEqual(
            {file.name for file in (self.prefix / "include").iterdir()}, {"lattivo.h", "lattivo_protocol.h"}
        )

    def sanitizers(self) -> list[str]:
        """Return what the library has been built with, so that programs can be linked with it."""
        cache = (Path(os.environ["LATTIVO_BUILD"]) / "CMakeCache.txt").read_text(encoding="utf-8")
        flags = re.search(r"^CMAKE_C_FLAGS:STRING=(.*)$", cache, re.MULTILINE)
        return flags.group(1).split() if flags else []

    def assert_talks(self, program: Path) -> None:
        """Run the program on both nodes of a link that loses nothing."""
        _, port = self.start_simulator(wiring=((1, 2),), confirms=True)
        receiver = self.start(program, "localhost", port, "node-2", 0)
        self.assertEqual(read_line(receiver), "node-2 is attached\n")
        sender = self.start(program, "localhost", port, "node-1", 100)
        self.assertEqual(
            sender.communicate(timeout=PATIENCE)[0], "node-1 is attached\narrived 0, delivered 100, lost 0\n"
        )
        self.assertEqual(receiver.communicate(timeout=PATIENCE)[0], "arrived 100, delivered 0, lost 0\n")


def run(*command: object, **options: object) -> str:
    """Run a command and return its output; fail with what it has said."""
    parts = [str(part) for part in command]
    done = subprocess.run(parts, capture_output=True, text=True, timeout=PATIENCE, check=False, **options)
    if done.returncode != 0:
        raise AssertionError(f"{' '.join(parts)}: {done.stdout}{done.stderr}")
    return done.stdout


class TestSources(unittest.TestCase):
    """The sources compile without a warning."""

    def test_the_library_is_clean_c99(self) -> None:
        for variant in ((), ("-DLATTIVO_SLOW_GATE",)):
            self.assert_is_clean(*variant)

    def test_the_library_compiles_with_the_headers_of_an_older_linux(self) -> None:
        self.assert_is_clean_with("linux/tcp.h", "#define tcpi_snd_wnd no_member")

    def test_the_library_compiles_where_a_socket_option_tells_what_is_unsent(self) -> None:
        changes = ("#define SO_NWRITE 0x1024", "#define SO_NOSIGPIPE 0x1022", "#undef MSG_NOSIGNAL")
        self.assert_is_clean_with("sys/socket.h", *changes, flags=("-U__linux__", "-D_DEFAULT_SOURCE"))

    def assert_is_clean_with(self, header: str, *changes: str, flags: tuple[str, ...] = ()) -> None:
        """Compile with a header of the system that is changed to be like another system's."""
        with tempfile.TemporaryDirectory(prefix="lattivo-") as folder:
            file = Path(folder, header)
            file.parent.mkdir()
            file.write_text("\n".join((f"#include_next <{header}>", *changes, "")), encoding="ascii")
            self.assert_is_clean("-isystem", folder, *flags)

    def assert_is_clean(self, *options: str) -> None:
        for compiler in ("gcc", "clang"):
            with self.subTest(compiler, options=options):
                run(compiler, *WARNINGS, *options, "-fsyntax-only", CLIENT_FOLDER / "lattivo.c")

    def test_the_header_is_clean_cpp(self) -> None:
        options = ("-x", "c++", "-std=c++11", *WARNINGS[1:], "-fsyntax-only")
        for compiler in ("g++", "clang++"):
            with self.subTest(compiler):
                run(compiler, *options, CLIENT_FOLDER / "lattivo.h")


if __name__ == "__main__":
    unittest.main()
