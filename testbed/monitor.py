"""The display application of the demo: `voldrake-monitor` inside the sandbox."""

import json
from dataclasses import dataclass

from testbed import target
from testbed.displayprogram import DisplayProgram
from testbed.process import Process
from testbed.sandbox import Sandbox
from testbed.tape import Tape


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


class Monitor(DisplayProgram):
    """Listens as the display application. Channel "app" has a line for each message, whose data is
    a `Told`.
    """

    def __init__(self, sandbox: Sandbox, tape: Tape, port: int = 8080) -> None:
        super().__init__(sandbox, tape, "app", port)

    def _spawn(self) -> Process:
        return self._sandbox.spawn(
            [target.program("voldrake-monitor"), "--port", str(self._port), "--json"], "monitor",
            on_line=self._line)

    def _await_listening(self, process: Process) -> None:
        process.expect_stderr("listening")

    def _line(self, line: str) -> None:
        self.events.record(line, Told(json.loads(line)))
