"""Watches the links that come and go in a unit's /media."""

import os
from pathlib import Path

from testbed import filewatch
from testbed.tape import Channel, Tape


class MediaLinks:
    """Records on channel "links", "+ NAME -> TARGET" and "- NAME -> TARGET"."""

    def __init__(self, tape: Tape, directory: Path) -> None:
        """`directory`: the unit's /media, as seen out here."""
        self.events = Channel(tape, "links")
        self._directory = directory
        self._known: dict[str, str] = {}
        self._watch = filewatch.FileWatch(lambda _, name, __: self._changed(name))
        self._watch.add(directory, filewatch.APPEARED | filewatch.DISAPPEARED)
        self._watch.start()

    def close(self) -> None:
        """Stop watching."""
        self._watch.close()

    def _changed(self, name: str) -> None:
        path = self._directory / name
        if name in self._known and not path.is_symlink():
            self.events.record(f"- {name} -> {self._known.pop(name)}")
        elif name not in self._known and path.is_symlink():
            self._known[name] = os.readlink(path)
            self.events.record(f"+ {name} -> {self._known[name]}")
