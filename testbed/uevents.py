"""Watches what is written to a unit's uevent files."""

import itertools
import os
import re
from pathlib import Path
from typing import Iterable

from testbed import filewatch
from testbed.tape import Channel, Fence, Mark, Match, Tape, no_fence

#: What stands for one write when several were made to a file before it was read.
_WORD = re.compile(r"remove|add|change|.+", re.DOTALL)


class Uevents:
    """Records each write on channel "sys", "179:1 remove", in the order of the writes.

    The files are pipes, which keep what was written until it is read; their order among each
    other is the kernel's, however late it is read.
    """

    def __init__(self, tape: Tape, fence: Fence = no_fence) -> None:
        self.events = Channel(tape, "sys")
        self._fence = fence
        self._watch: filewatch.FileWatch | None = None
        self._pipes: dict[Path, int] = {}
        self._unread: dict[Path, str] = {}
        self._own: Path | None = None
        self._marks = (f"fence{number}" for number in itertools.count(1))

    def start(self, directory: Path, numbers: Iterable[str]) -> None:
        """Make `directory/NUMBER/uevent` for each device number and watch it."""
        self._watch = filewatch.FileWatch(self._written)
        self._own = directory / "own" / "uevent"
        for file in [*(directory / number / "uevent" for number in numbers), self._own]:
            file.parent.mkdir(parents=True)
            os.mkfifo(file)
            self._pipes[file] = os.open(file, os.O_RDWR | os.O_NONBLOCK | os.O_CLOEXEC)
            self._unread[file] = ""
            self._watch.add(file, filewatch.CLOSED_AFTER_WRITING)
        self._watch.start()

    def writes(self, since: Mark = Mark(0), until: Match | None = None) -> list[str]:
        """The writes after the mark, in order; see `Unit` for `until`."""
        if until is None:
            self._fence()
            until = self.flush()
        return [event.text for event in self.events.until(until, since)
                if not event.text.startswith("own ")]

    def flush(self) -> str:
        """Return when every write until now is recorded; the text of the event behind it."""
        assert self._own
        word = next(self._marks)
        self._own.write_text(word)
        self.events.until(f"own {word}")
        return f"own {word}"

    def close(self) -> None:
        """Stop watching."""
        if self._watch:
            self._watch.close()
            self._watch = None
        for pipe in self._pipes.values():
            os.close(pipe)
        self._pipes.clear()

    def _written(self, file: Path, _: str) -> None:
        try:
            self._unread[file] += os.read(self._pipes[file], 65536).decode()
        except BlockingIOError:
            pass  # read along with what was written before it
        word = _WORD.match(self._unread[file])
        if word:
            self._unread[file] = self._unread[file][word.end():]
            self.events.record(f"{file.parent.name} {word[0]}")
