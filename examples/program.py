"""Does what sender.py and receiver.py have in common: options, the connection, signals and exit codes."""

from __future__ import annotations

import argparse
import signal
import sys
from typing import Callable

import numbered

try:
    import lattivo
except ModuleNotFoundError:
    sys.exit(
        "error: the Python kit is not found: set PYTHONPATH to the folder client/python, or install that folder with pip"
    )

EXIT_DONE = 0
EXIT_NOT_CONNECTED = 3  # 2 is a wrong option
EXIT_DROPPED = 4
EXIT_INTERRUPTED = 130  # as a shell reports a program that SIGINT ended

EXIT_CODES_HELP = (
    "exit codes: 0 done, 2 wrong option, 3 no connection, 4 refused or dropped by the simulator, 130 ended by a signal or by the"
    " debug command Quit (the receiver: 0, it is a regular end)"
)
CONNECT_TIMEOUT = 5.0  # seconds
CLOSE_TIMEOUT = 1.0  # seconds for the simulator to read the last frames
LONGEST_PAUSE = 0.1  # seconds in one wait for messages: a signal is seen that late at most

_signals: list[int] = []  # those that came; looked at between two steps, so that none is left half done


class Stop(Exception):
    """The user ended the program: by a signal or by the debug command "Quit"."""


def address_option(text: str) -> bytes:
    """Read an address given as an option."""
    try:
        return numbered.parse_address(text)
    except ValueError as error:
        raise argparse.ArgumentTypeError(f"{text!r}: {error}") from error


def count_option(text: str) -> int:
    """Read a count of at least one."""
    value = int(text)
    if value < 1:
        raise argparse.ArgumentTypeError(f"{text!r} is not at least 1")
    return value


def seconds_option(text: str) -> float:
    """Read a time of more than nothing."""
    value = float(text)
    if not 0 < value < float("inf"):
        raise argparse.ArgumentTypeError(f"{text!r} is not more than 0")
    return value


def make_parser(description: str) -> argparse.ArgumentParser:
    """Return a parser with the options of both programs."""
    parser = argparse.ArgumentParser(description=description, epilog=EXIT_CODES_HELP)
    parser.add_argument("--host", default="127.0.0.1", help="machine of the simulator (%(default)s)")
    parser.add_argument("--port", type=int, default=lattivo.DEFAULT_PORT, help="port of the simulator (%(default)s)")
    who = parser.add_mutually_exclusive_group(required=True)
    who.add_argument("--name", help="identify as the node of this name")
    who.add_argument("--address", type=address_option, help="identify as the node of this address, in hexadecimal")
    return parser


def obey(command: lattivo.DebugCommand) -> None:
    """Follow a debug command: "Quit" ends the program, the others are only shown."""
    if command.command == lattivo.Command.QUIT:
        raise Stop
    print(f"debug command: {command.command.name.lower()}", file=sys.stderr)


def receive(client: lattivo.Client, pause: float) -> list[lattivo.Message]:
    """Wait for messages up to pause seconds, less when that is long; raise Stop when a signal came before."""
    if _signals:
        raise Stop
    return client.receive_messages(max(0.0, min(pause, LONGEST_PAUSE)))


def run(
    options: argparse.Namespace,
    work: Callable[[lattivo.Client], None],
    report: Callable[[], str],
    stopped_code: int = EXIT_INTERRUPTED,
) -> int:
    """Connect, do the work and print the report; return the exit code, stopped_code when the user ended it.

    It prints the report in every case but one: when the program was not attached.
    """
    for number in (signal.SIGINT, signal.SIGTERM):  # SIGINT too: a shell's background job starts with it ignored
        signal.signal(number, lambda received, _: _signals.append(received))
    try:
        client = lattivo.Client.connect(
            options.host, options.port, name=options.name, address=options.address, timeout=CONNECT_TIMEOUT
        )
    except lattivo.LattivoError as error:
        print(f"error: {error}", file=sys.stderr)
        return EXIT_DROPPED if isinstance(error, lattivo.Refused) else EXIT_NOT_CONNECTED

    code = EXIT_DONE
    try:
        work(client)
    except Stop:
        code = stopped_code
    except lattivo.LattivoError as error:
        print(f"error: {error}", file=sys.stderr)
        code = EXIT_DROPPED
    finally:
        client.close(CLOSE_TIMEOUT)
    print(report(), flush=True)
    return code
