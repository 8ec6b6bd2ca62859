"""A process at the other end of a pipe that answers each line of JSON with one line of JSON."""

import json
import os
import select
import subprocess
import time

READ_SIZE = 65536
END_PATIENCE = 120.0  # s; the search for leaks takes its time


class NoAnswer(Exception):
    """The process has ended, or does not answer in time."""


class Dialogue:
    def __init__(self, command, log, environment=None, patience=30.0):
        self.name = os.path.basename(command[-1])
        self.patience = patience
        self.worst_answer = 0.0  # s
        self._pending = b""
        self.process = subprocess.Popen(
            command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=log, env=environment
        )

    def ask(self, what, **arguments):
        """The answer to a command; raises NoAnswer."""
        begin = time.monotonic()
        line = json.dumps({"do": what, **arguments}) + "\n"
        try:
            self.process.stdin.write(line.encode())
            self.process.stdin.flush()
        except BrokenPipeError:
            raise NoAnswer(f"{self.name} has ended with code {self.wait()}, asked to {what}") from None
        answer = json.loads(self._read_line(begin + self.patience, what))
        self.worst_answer = max(self.worst_answer, time.monotonic() - begin)
        return answer

    def _read_line(self, deadline, what):
        while b"\n" not in self._pending:
            ready, _, _ = select.select([self.process.stdout], [], [], max(0.0, deadline - time.monotonic()))
            if not ready:
                raise NoAnswer(f"{self.name} has not answered for {self.patience:.0f} s, asked to {what}")
            data = os.read(self.process.stdout.fileno(), READ_SIZE)
            if not data:
                raise NoAnswer(f"{self.name} has ended with code {self.wait()}, asked to {what}")
            self._pending += data
        line, _, self._pending = self._pending.partition(b"\n")
        return line

    def wait(self):
        """The exit code; None when it does not end and is killed."""
        try:
            return self.process.wait(timeout=END_PATIENCE)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
            return None

    def end(self):
        """Ends the input, which ends the process; the exit code as of wait()."""
        try:
            self.process.stdin.close()
        except BrokenPipeError:
            pass  # it has ended already
        code = self.wait()
        self.process.stdout.close()
        return code
