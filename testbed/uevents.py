"""Watches what is written to a unit's uevent files."""

from pathlib import Path
from typing import Iterable

from testbed import filewatch
from testbed.tape import Channel, Tape


class Uevents:
    """Records each write on channel "sys", "179:1 remove", in the order of the writes."""

    def __init__(self, tape: Tape) -> None:
        self.events = Channel(tape, "sys")
        self._watch: filewatch.FileWatch | None = None

    def start(self, directory: Path, numbers: Iterable[str]) -> None:
        """Make `directory/NUMBER/uevent` for each device number and watch it."""
        self._watch = filewatch.FileWatch(self._written)
        for number in numbers:
            file = directory / number / "uevent"
            file.parent.mkdir(parents=True)
            file.touch()
            self._watch.add(file, filewatch.CLOSED_AFTER_WRITING)
        self._watch.start()

    def close(self) -> None:
        """Stop watching."""
        if self._watch:
            self._watch.close()
            self._watch = None

    def _written(self, file: Path, _: str) -> None:
        self.events.record(f"{file.parent.name} {file.read_text()}")
