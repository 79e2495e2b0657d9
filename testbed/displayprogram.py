"""A program in the sandbox that is the demo's display application."""

from abc import ABC, abstractmethod

from testbed.process import Process
from testbed.sandbox import Sandbox
from testbed.tape import Channel, Tape


class DisplayProgram(ABC):
    """Comes and goes. Channel "presence" tells when; `events` has what it prints."""

    def __init__(self, sandbox: Sandbox, tape: Tape, channel: str, port: int) -> None:
        self.events = Channel(tape, channel)
        self.presence = Channel(tape, "presence")
        self.present = False
        self._sandbox = sandbox
        self._port = port
        self._process: Process | None = None

    def start(self) -> None:
        """Be there; connections succeed on return. AssertionError when it does not listen."""
        self._process = self._spawn()
        self._await_listening(self._process)
        self.present = True
        self.presence.record("the display application has started")

    def stop(self) -> None:
        """Be absent."""
        if self._process:
            self._process.terminate()
            self._process = None
            self.present = False
            self.presence.record("the display application has stopped")

    @abstractmethod
    def _spawn(self) -> Process:
        """Start the program; what it prints goes to `events`."""

    @abstractmethod
    def _await_listening(self, process: Process) -> None:
        """Return when connections succeed."""
