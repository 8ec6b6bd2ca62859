#!/usr/bin/env python3
"""Receives the numbered frames of sender.py and reports which arrived, which are missing and which are corrupted.

It ends after --count frames, after --idle seconds without one, or on a signal.
"""

from __future__ import annotations

import argparse
import sys
import time

import numbered
import program
from lattivo import Client, DebugCommand, Frame, Message

LISTED_NUMBERS = 20  # of the missing ones; the rest is only counted


class Receiver:
    """Counts the frames that arrive."""

    def __init__(self, options: argparse.Namespace) -> None:
        self._options = options
        self._numbers: set[int] = set()
        self._received = 0
        self._corrupted = 0
        self._first_arrival: float | None = None
        self._last_event = 0.0

    def work(self, client: Client) -> None:
        """Receive until the count is reached or nothing comes any more."""
        self._last_event = time.monotonic()
        while not self._is_done():
            self._take(program.receive(client, self._pause()))

    def report(self) -> str:
        """Return the figures, one a line."""
        missing = self.missing_numbers()
        listed = ", ".join(str(number) for number in missing[:LISTED_NUMBERS])
        more = ", ..." if len(missing) > LISTED_NUMBERS else ""
        intact = self._received - self._corrupted
        return "\n".join(
            [
                f"received: {self._received}",
                f"intact: {intact}",
                f"corrupted: {self._corrupted}",
                f"repeated: {intact - len(self._numbers)}",
                f"missing: {len(missing)}" + (f" ({listed}{more})" if missing else ""),
                f"rate: {self._rate():.1f} frames/s",
            ]
        )

    def missing_numbers(self) -> list[int]:
        """Return the numbers up to the highest that has come (or --expect) that never came intact."""
        highest = self._options.expect or max(self._numbers, default=0)
        return [number for number in range(1, highest + 1) if number not in self._numbers]

    def _is_done(self) -> bool:
        if self._options.count and self._received >= self._options.count:
            return True
        return bool(self._options.idle) and time.monotonic() - self._last_event >= self._options.idle

    def _pause(self) -> float:
        idle: float | None = self._options.idle
        return self._last_event + idle - time.monotonic() if idle else program.LONGEST_PAUSE

    def _rate(self) -> float:
        """Frames a second from the first to the last; 0 when there are not two."""
        if self._first_arrival is None or self._last_event <= self._first_arrival:
            return 0.0
        return (self._received - 1) / (self._last_event - self._first_arrival)

    def _take(self, messages: list[Message]) -> None:
        for message in messages:
            if isinstance(message, Frame):
                self._take_frame(message.payload)
            elif isinstance(message, DebugCommand):
                program.obey(message)

    def _take_frame(self, frame: bytes) -> None:
        self._received += 1
        self._last_event = time.monotonic()
        if self._first_arrival is None:
            self._first_arrival = self._last_event
        number = numbered.number_of(frame)
        if number is None:
            self._corrupted += 1
        else:
            self._numbers.add(number)


def parse_options(arguments: list[str] | None = None) -> argparse.Namespace:
    """Read the command line; end the program when it is wrong."""
    parser = program.make_parser("Receives the numbered frames of sender.py.")
    parser.add_argument("--count", type=program.count_option, help="end after this many frames")
    parser.add_argument("--idle", type=program.seconds_option, help="end after this many seconds without a frame")
    parser.add_argument(
        "--expect", type=program.count_option, help="frames that are sent (the highest number that has come)"
    )
    return parser.parse_args(arguments)


def main() -> int:
    """Run the program."""
    options = parse_options()
    receiver = Receiver(options)
    return program.run(options, receiver.work, receiver.report, stopped_code=program.EXIT_DONE)


if __name__ == "__main__":
    sys.exit(main())
