"""The serial ports through which an emulated machine and the host exchange lines."""

import itertools
import json
import socket
import threading
import time
from pathlib import Path
from typing import Any, Callable

from testbed.machine import deadlines


class LinePort:
    """Reads lines from a port of a machine, on a thread of its own, until the machine is gone."""

    def __init__(self, path: Path, on_line: Callable[[str], None]) -> None:
        self._socket = socket.socket(socket.AF_UNIX)
        self._socket.connect(str(path))
        self._on_line = on_line
        self._thread = threading.Thread(target=self._read, name=path.name, daemon=True)
        self._thread.start()

    def write(self, line: str) -> None:
        """Send a line."""
        self._socket.sendall(line.encode() + b"\n")

    def close(self) -> None:
        """End the reading. What came before the machine's end has been handed over on return."""
        try:
            self._socket.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass  # the other end went first
        self._thread.join()
        self._socket.close()

    def _read(self) -> None:
        with self._socket.makefile("rb") as lines:
            for line in lines:
                self._on_line(line.decode("utf-8", "replace").rstrip("\n"))


class CommandFailed(AssertionError):
    """A command on the unit ended with another status than 0."""


class CommandPort:
    """Runs shell commands on the unit through its agent. Safe for any thread."""

    def __init__(self, path: Path) -> None:
        self._numbers = itertools.count(1)
        self._changed = threading.Condition()
        self._answers: dict[int, dict[str, Any]] = {}
        self._ready = False
        self._port = LinePort(path, self._line)

    def close(self) -> None:
        """End the connection."""
        self._port.close()

    def wait_until_ready(self) -> None:
        """Return once the machine has booted as far as taking commands."""
        with self._changed:
            assert self._changed.wait_for(lambda: self._ready, deadlines.BOOT), \
                "the machine does not boot as far as taking commands"

    def run(self, command: str, check: bool = True, timeout: float = deadlines.COMMAND) -> str:
        """Run a shell command; its output, that on standard error included.

        Raises CommandFailed for another status than 0 unless `check` is False.
        """
        answer = self.result(self.begin(command), timeout, command)
        if check and answer["status"] != 0:
            raise CommandFailed(f"{command}: status {answer['status']}: {answer['output']}")
        return str(answer["output"])

    def begin(self, command: str) -> int:
        """Start a shell command; a number for `result`."""
        number = next(self._numbers)
        self._port.write(json.dumps({"id": number, "command": command}))
        return number

    def result(self, number: int, timeout: float, command: str = "") -> dict[str, Any]:
        """Wait for the end of a command: its "status" and "output"."""
        with self._changed:
            ended = self._changed.wait_for(lambda: number in self._answers, timeout)
            assert ended, f"still runs after {timeout:g} s: {command}"
            return self._answers.pop(number)

    def _line(self, line: str) -> None:
        answer = json.loads(line)
        with self._changed:
            if answer.get("ready"):
                self._ready = True
            else:
                self._answers[answer["id"]] = answer
            self._changed.notify_all()


def connect_when_there(path: Path) -> None:
    """Return once the emulator has made this socket."""
    deadline = time.monotonic() + deadlines.EMULATOR
    while not path.exists():
        assert time.monotonic() < deadline, f"no {path}"
        time.sleep(deadlines.POLL)
