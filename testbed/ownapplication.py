"""A display application of the demo's user, inside the sandbox."""

from pathlib import Path
from typing import Sequence

from testbed import timeouts
from testbed.displayprogram import DisplayProgram
from testbed.process import Process
from testbed.sandbox import Sandbox
from testbed.tape import Tape
from testbed.waiting import wait_until

#: In the kernel's tables of TCP sockets: the state of one that listens, and those of a connection
#: that this end has not closed.
_LISTENS = {"0A"}
_OPEN = {"01", "08"}
#: Its standard error goes with its output.
_RUN = 'cd "$1" && shift && exec "$@" 2>&1'


class OwnApplication(DisplayProgram):
    """Runs a command as the display application. Channel "says" has each line that it prints."""

    def __init__(self, sandbox: Sandbox, tape: Tape, command: Sequence[str], directory: Path,
                 port: int = 8080) -> None:
        """`directory` is where the command runs; the sandbox has it at the same path."""
        super().__init__(sandbox, tape, "says", port)
        self._command = list(command)
        self._directory = directory

    def _spawn(self) -> Process:
        return self._sandbox.spawn(
            ["/bin/sh", "-c", _RUN, "sh", str(self._directory), *self._command], "application",
            on_line=self.events.record)

    def _await_listening(self, process: Process) -> None:
        wait_until(lambda: self._listens(process),
                   f"{self._command[0]} listens on port {self._port}", timeouts.START)

    def has_read_all(self) -> bool:
        """True when it has closed every connection that was made to it."""
        return not self._has_socket(_OPEN)

    def _listens(self, process: Process) -> bool:
        if process.ended():
            status = process.wait()
            raise AssertionError(f"{self._command[0]} has ended with status {status} and does not"
                                 f" listen on port {self._port}: {process.out.read_text()}")
        return self._has_socket(_LISTENS)

    def _has_socket(self, states: set[str]) -> bool:
        """Whether a socket of the port is in one of these states."""
        for table in ("tcp", "tcp6"):
            for line in Path(f"/proc/{self._sandbox.pid}/net/{table}").read_text().splitlines():
                _, local, _, state, *_ = line.split()
                if local.endswith(f":{self._port:04X}") and state in states:
                    return True
        return False
