#!/usr/bin/env python3
"""Sends numbered frames through the simulator and reports how many were confirmed and lost.

Confirmations come only when the node has "Frames acknowledged" switched on. A confirmation names no frame. Those of
frames that arrive come in the order of sending over one link, but a loss is reported only when the acknowledgement
time-out is over, between the confirmations of later frames: so they can be counted, not assigned. A frame that
arrives after that time-out, and one that only a promiscuous node takes, gets neither: it stays unanswered.
"""

from __future__ import annotations

import argparse
import sys
import time

import numbered
import program
from lattivo import Client, Confirmation, DebugCommand, Message, Outcome

RETRY_PAUSE = 0.001  # seconds, while the simulator has no room for the next frame


class Sender:
    """Sends the frames at the given rate and counts what comes back."""

    def __init__(self, options: argparse.Namespace) -> None:
        self._options = options
        self._source: bytes = options.source or options.address
        self._started = 0.0
        self._last_event = 0.0
        self._sent = 0
        self._outcomes = {Outcome.DELIVERED: 0, Outcome.LOST: 0}

    def work(self, client: Client) -> None:
        """Send all frames and wait for their outcomes."""
        self._started = self._last_event = time.monotonic()
        while not self._is_done():
            has_sent = self._is_due() and self._send_next(client)
            self._take(program.receive(client, 0.0 if has_sent else self._pause()))

    def report(self) -> str:
        """Return the figures, one a line."""
        confirmed, lost = self._outcomes[Outcome.DELIVERED], self._outcomes[Outcome.LOST]
        return "\n".join(
            [
                f"sent: {self._sent}",
                f"confirmed: {confirmed}",
                f"lost: {lost}",
                f"unanswered: {max(self._sent - confirmed - lost, 0)}",
                f"time: {self._last_event - self._started:.3f} s",
            ]
        )

    def _is_done(self) -> bool:
        if self._sent < self._options.count:
            return False
        answered = sum(self._outcomes.values())
        return answered >= self._sent or time.monotonic() - self._last_event >= self._options.timeout

    def _due_time(self) -> float:
        rate: float | None = self._options.rate
        return self._started + (self._sent / rate if rate else 0.0)

    def _is_due(self) -> bool:
        return self._sent < self._options.count and time.monotonic() >= self._due_time()

    def _pause(self) -> float:
        """How long to wait for messages before there is something else to do."""
        if self._sent == self._options.count:
            timeout: float = self._options.timeout
            return self._last_event + timeout - time.monotonic()
        return max(self._due_time() - time.monotonic(), RETRY_PAUSE)

    def _send_next(self, client: Client) -> bool:
        options = self._options
        frame = numbered.build_frame(options.destination, self._source, self._sent + 1, options.size)
        if not client.try_send(frame):
            return False
        self._sent += 1
        self._last_event = time.monotonic()
        return True

    def _take(self, messages: list[Message]) -> None:
        for message in messages:
            if isinstance(message, Confirmation):
                self._outcomes[message.outcome] += 1
                self._last_event = time.monotonic()
            elif isinstance(message, DebugCommand):
                program.obey(message)


def parse_options(arguments: list[str] | None = None) -> argparse.Namespace:
    """Read the command line; end the program when it is wrong."""
    parser = program.make_parser("Sends numbered frames through the simulator.")
    parser.add_argument("--destination", type=program.address_option, required=True, help="address to send to")
    parser.add_argument("--source", type=program.address_option, help="address to send from (that of --address)")
    parser.add_argument("--count", type=program.count_option, default=100, help="frames to send (%(default)s)")
    parser.add_argument("--rate", type=program.seconds_option, help="frames a second (as fast as they can go)")
    parser.add_argument("--size", type=int, default=64, help="bytes of a frame, addresses included (%(default)s)")
    parser.add_argument(
        "--timeout",
        type=program.seconds_option,
        default=5.0,
        help="seconds without an answer after which the rest counts as unanswered (%(default)s)",
    )
    options = parser.parse_args(arguments)
    if options.source is None and options.address is None:
        parser.error("--source is needed with --name")
    if options.size < numbered.SMALLEST_FRAME:
        parser.error(f"--size must be at least {numbered.SMALLEST_FRAME}")
    return options


def main() -> int:
    """Run the program."""
    options = parse_options()
    sender = Sender(options)
    return program.run(options, sender.work, sender.report)


if __name__ == "__main__":
    sys.exit(main())
