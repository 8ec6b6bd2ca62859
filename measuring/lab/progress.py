"""Which measurement is being made: told on a terminal, and when it fails."""

import sys


class Progress:
    def __init__(self):
        self.step = ""

    def begin(self, step):
        self.step = step
        self._show(step)

    def end(self):
        self._show("")

    def fail(self, error):
        """The exit code of a script that could not measure everything."""
        self.end()
        during = f"{self.step}: " if self.step else ""
        print(f"not measured: {during}{error}", file=sys.stderr)
        return 2

    @staticmethod
    def _show(text):
        if sys.stderr.isatty():
            print(f"\r\033[K{text}", end="", file=sys.stderr, flush=True)
