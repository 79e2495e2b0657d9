"""The display application of the demo: `voldrake-monitor` inside the sandbox."""

import json
from dataclasses import dataclass

from testbed import target
from testbed.process import Process
from testbed.sandbox import Sandbox
from testbed.tape import Channel, Tape


@dataclass(frozen=True)
class Told:
    """One line of the monitor."""

    fields: dict[str, object]

    def __str__(self) -> str:
        told = self.fields
        if not told["well_formed"]:
            return f"malformed: {told['reason']}"
        if told["message"] == "removal":
            return f"removal  {told['path']}"
        notes = [str(told["type"]), "read-only" if told["readonly"] else "writable"]
        if told["key"]:
            notes.append(f"key {told['key']}")
        return f"arrival  {told['path']}  \"{told['friendlyname']}\"  ({', '.join(notes)})"


class Monitor:
    """Listens as the display application.

    Channel "app" has a line for each message, whose data is a `Told`; channel "presence" tells
    when the application comes and goes.
    """

    def __init__(self, sandbox: Sandbox, tape: Tape, port: int = 8080) -> None:
        self.events = Channel(tape, "app")
        self.presence = Channel(tape, "presence")
        self.present = False
        self._sandbox = sandbox
        self._port = port
        self._process: Process | None = None

    def start(self) -> None:
        """Be there; connections succeed on return."""
        self._process = self._sandbox.spawn(
            [target.program("voldrake-monitor"), "--port", str(self._port), "--json"], "monitor",
            on_line=self._line)
        self._process.expect_stderr("listening")
        self.present = True
        self.presence.record("the display application is there")

    def stop(self) -> None:
        """Be absent."""
        if self._process:
            self._process.terminate()
            self._process = None
            self.present = False
            self.presence.record("the display application is gone")

    def _line(self, line: str) -> None:
        self.events.record(line, Told(json.loads(line)))
