"""Make faults for real, on disks and networks that only this process and its children see.

Root may make them; elsewhere unavailable() says why not.
"""

from __future__ import annotations

import ctypes
import os
import shutil
import subprocess
from contextlib import ExitStack, contextmanager
from pathlib import Path
from typing import Iterator

PATIENCE = 30.0  # seconds; only a failure waits that long
PROGRAMS = ("ip", "mount", "umount", "unshare")

_CLONE_NEWNS = 0x00020000
_CLONE_NEWNET = 0x40000000
_MS_REC, _MS_PRIVATE = 16384, 1 << 18
_libc = ctypes.CDLL(None, use_errno=True)


def unavailable() -> str:
    """Return why disks and networks cannot be made here; nothing when they can."""
    missing = [program for program in PROGRAMS if shutil.which(program) is None]
    if missing:
        return "not installed: " + ", ".join(missing)
    attempt = subprocess.run(
        ["unshare", "--mount", "--net", "true"], capture_output=True, text=True, timeout=PATIENCE, check=False
    )
    return attempt.stderr.strip() if attempt.returncode else ""


def make_mounts_private() -> None:
    """Make later mounts private; they end with the process."""
    _check(_libc.unshare(_CLONE_NEWNS))
    _check(_libc.mount(b"none", b"/", None, _MS_REC | _MS_PRIVATE, None))


class Disk:
    """A small disk in memory; make_mounts_private() comes before the first."""

    def __init__(self, folder: Path, limits: str = "size=64k") -> None:
        self.folder = folder
        folder.mkdir()
        _run("mount", "-t", "tmpfs", "-o", limits, "none", str(folder))

    def remove(self) -> None:
        _run("umount", "--lazy", str(self.folder))

    def make_read_only(self) -> None:
        _run("mount", "-o", "remount,ro", str(self.folder))

    def fill(self) -> None:
        """Leave no room, neither for a byte nor, when the number of files is limited, for another file."""
        with (self.folder / "filling").open("wb", buffering=0) as file:
            try:
                while file.write(bytes(4096)):
                    pass
            except OSError:
                pass

    def make_room(self) -> None:
        (self.folder / "filling").unlink()


class Machine:
    """A separate network stack, like that of another machine; it lives as long as a process in it."""

    def __init__(self, stack: ExitStack) -> None:
        self._stack = stack
        holder = subprocess.Popen(
            ["unshare", "--net", "sh", "-c", "echo made; exec cat"], stdin=subprocess.PIPE, stdout=subprocess.PIPE
        )
        stack.callback(holder.stdout.close)
        stack.callback(holder.wait)
        stack.callback(holder.kill)
        stack.callback(holder.stdin.close)
        holder.stdout.readline()
        self.pid = holder.pid
        self.run("ip", "link", "set", "lo", "up")

    @contextmanager
    def inside(self) -> Iterator[None]:
        """Sockets made inside this context, and programs started in it, belong to this machine."""
        with open("/proc/thread-self/ns/net", "rb") as own, open(f"/proc/{self.pid}/ns/net", "rb") as other:
            _check(_libc.setns(other.fileno(), _CLONE_NEWNET))
            try:
                yield
            finally:
                _check(_libc.setns(own.fileno(), _CLONE_NEWNET))

    def run(self, *command: str) -> None:
        with self.inside():
            _run(*command)

    def set_tcp_retries(self, count: int) -> None:
        """Set how often the kernel sends again before it gives a connection up; each time it waits twice as long."""
        with self.inside():
            Path("/proc/sys/net/ipv4/tcp_retries2").write_text(str(count), encoding="ascii")


class Cable:
    """Joins two machines; it can be pulled out."""

    SUBNET = "10.93.0.{}/30"

    def __init__(self, near: Machine, far: Machine) -> None:
        self.near_address, self.far_address = (self.SUBNET.format(host).split("/")[0] for host in (1, 2))
        self._far = far
        near.run("ip", "link", "add", "cable", "type", "veth", "peer", "name", "cable", "netns", str(far.pid))
        for host, machine in ((1, near), (2, far)):
            machine.run("ip", "address", "add", self.SUBNET.format(host), "dev", "cable")
            machine.run("ip", "link", "set", "cable", "up")

    def pull_out(self) -> None:
        self._far.run("ip", "link", "set", "cable", "down")

    def plug_in(self) -> None:
        self._far.run("ip", "link", "set", "cable", "up")


def _run(*command: str) -> None:
    subprocess.run(command, check=True, capture_output=True, timeout=PATIENCE)


def _check(result: int) -> None:
    if result != 0:
        number = ctypes.get_errno()
        raise OSError(number, os.strerror(number))
