"""A display application of the demo's user, inside the sandbox."""

from pathlib import Path
from typing import Sequence

from testbed import timeouts
from testbed.process import Process
from testbed.sandbox import Sandbox
from testbed.tape import Channel, Tape
from testbed.waiting import wait_until

#: In the kernel's tables of TCP sockets: the state of one that listens, and those of a connection
#: that this end has not closed.
_LISTENS = {"0A"}
_OPEN = {"01", "08"}
#: Its standard error goes with its output.
_RUN = 'cd "$1" && shift && exec "$@" 2>&1'


class OwnApplication:
    """Runs a command as the display application.

    Channel "says" has each line that it prints; channel "presence" tells when it comes and goes.
    """

    def __init__(self, sandbox: Sandbox, tape: Tape, command: Sequence[str], directory: Path,
                 port: int = 8080) -> None:
        """`directory` is where the command runs; the sandbox has it at the same path."""
        self.events = Channel(tape, "says")
        self.presence = Channel(tape, "presence")
        self.present = False
        self._sandbox = sandbox
        self._command = list(command)
        self._directory = directory
        self._port = port
        self._process: Process | None = None

    def start(self) -> None:
        """Be there; connections succeed on return. AssertionError when it does not listen."""
        self._process = self._sandbox.spawn(
            ["/bin/sh", "-c", _RUN, "sh", str(self._directory), *self._command], "application",
            on_line=self.events.record)
        wait_until(self._listens, f"{self._command[0]} listens on port {self._port}",
                   timeouts.START)
        self.present = True
        self.presence.record("the display application is there")

    def stop(self) -> None:
        """Be absent."""
        if self._process:
            self._process.terminate()
            self._process = None
            self.present = False
            self.presence.record("the display application is gone")

    def has_read_all(self) -> bool:
        """True when it has closed every connection that was made to it."""
        return not self._has_socket(_OPEN)

    def _listens(self) -> bool:
        assert self._process
        if self._process.ended():
            status = self._process.wait()
            raise AssertionError(f"{self._command[0]} has ended with status {status} and does not"
                                 f" listen on port {self._port}: {self._process.out.read_text()}")
        return self._has_socket(_LISTENS)

    def _has_socket(self, states: set[str]) -> bool:
        """Whether a socket of the port is in one of these states."""
        for table in ("tcp", "tcp6"):
            for line in Path(f"/proc/{self._sandbox.pid}/net/{table}").read_text().splitlines():
                _, local, _, state, *_ = line.split()
                if local.endswith(f":{self._port:04X}") and state in states:
                    return True
        return False
