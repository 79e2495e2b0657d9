"""The demo's timeline: what the units' tapes say, merged into a few readable lines."""

import os
import re
import sys
from dataclasses import dataclass, field
from typing import Iterator, TextIO

from testbed.daemon import LogLine
from testbed.hal import Call
from testbed.monitor import Told
from testbed.tape import Event, Mark, Tape

_HEADING = "1"
_COLOURS = {
    "plugged": "36", "pulled": "36", "asked": "2", "mounted": "34", "unmounted": "34",
    "ran": "2", "linked": "35", "unlinked": "35", "reported": "32;1", "says": "32;1",
    "ignored": "33", "refused": "31",
}
_MOUNTED = re.compile(r"(mounted|unmounted) \S+ (.*)")
_OUTCOME = re.compile(r"(reply|error-reply \S+) \S+ \S+ [\w.]+\.Mount\(?")

Row = tuple[str, str]  # kind and text


@dataclass(frozen=True)
class Happening:
    """One line of the timeline."""

    time: float  # seconds since the first tape began
    unit: str
    kind: str
    text: str


@dataclass
class Chapter:
    """A heading and the lines below it."""

    title: str
    happenings: list[Happening] = field(default_factory=list)


class Timeline:
    """Prints the events of one or several tapes that matter to a reader, each once, by time, and
    keeps them in `chapters`."""

    def __init__(self, tapes: dict[str, Tape], out: TextIO = sys.stdout) -> None:
        """`tapes`: each unit's tape by the name that its lines bear."""
        self._readers = {name: _Reader(tape) for name, tape in tapes.items()}
        self._started = min(tape.started for tape in tapes.values())
        self._width = max(len(name) for name in tapes)
        self._out = out
        self._coloured = out.isatty() and "NO_COLOR" not in os.environ
        self.units = list(tapes)
        self.chapters = [Chapter("")]

    def heading(self, text: str) -> None:
        """Print what is new, then begin a chapter."""
        self.show()
        self.chapters.append(Chapter(text))
        print("\n" + self._painted(text, _HEADING), file=self._out, flush=True)

    def note(self, text: str) -> None:
        """Print what is new, then a remark."""
        self.show()
        print(f"    {text}", file=self._out, flush=True)

    def show(self) -> None:
        """Print what has happened since the last time."""
        lines = [(time, name, row) for name, reader in self._readers.items()
                 for time, row in reader.rows()]
        for time, name, (kind, text) in sorted(lines, key=lambda line: line[0]):
            happening = Happening(time - self._started, name, kind, text)
            self.chapters[-1].happenings.append(happening)
            unit = f"{name:<{self._width}}  " if self._width else ""
            line = f"{happening.time:8.3f}  {unit}{kind:<9}  {text}".rstrip()
            print(self._painted(line, _COLOURS.get(kind, "")), file=self._out)
        self._out.flush()

    def _painted(self, text: str, colour: str) -> str:
        return f"\x1b[{colour}m{text}\x1b[0m" if self._coloured and colour else text


class _Reader:
    """Makes rows from the new events of one tape."""

    def __init__(self, tape: Tape) -> None:
        self._tape = tape
        self._read = Mark(0)
        self._questions: list[Call] = []  # property queries that become one row
        self._mount: Call | None = None  # not answered yet

    def rows(self) -> Iterator[tuple[float, Row]]:
        """Time and row for everything since the last time."""
        events = self._tape.shown(self._read)
        self._read = Mark(self._read + len(events))
        for event in events:
            for row in self._rows_of(event):
                yield event.time, row
        for row in self._asked():
            yield events[-1].time, row

    def _rows_of(self, event: Event) -> Iterator[Row]:
        if isinstance(event.data, Call):
            if not event.data.is_settling():
                yield from self._call(event.data)
            return
        row = self._row(event)
        if row:
            yield from self._asked()
            yield row

    def _call(self, call: Call) -> Iterator[Row]:
        if call.member.startswith("GetProperty"):
            self._questions.append(call)
            return
        yield from self._asked()
        if call.member == "Mount":
            self._mount = call
        else:
            yield "asked", f"{call.member}({call.arguments})"

    def _asked(self) -> Iterator[Row]:
        """One row for the property queries that were collected."""
        if self._questions:
            first = str(self._questions[0])
            yield "asked", (first if len(self._questions) == 1 else
                            f"{len(self._questions)} properties of {first.split()[0]}"
                            " and of what it hangs on")
            self._questions.clear()

    def _row(self, event: Event) -> Row | None:
        if event.source == "hal":
            return self._hal_row(event.text)
        if event.source == "app" and isinstance(event.data, Told):
            return "reported", str(event.data)
        if event.source == "says":
            return "says", event.text
        if event.source == "links":
            kind = "linked" if event.text[0] == "+" else "unlinked"
            return kind, f"/media/{event.text[2:]}"
        if event.source == "tools":
            return "ran", event.text
        if event.source == "daemon":
            return "daemon", event.text
        if event.source == "presence":
            return "", event.text
        if isinstance(event.data, LogLine) and event.data.text.startswith("_IsInExclusionList: "):
            return "ignored", event.data.text.partition(": ")[2]
        return None

    def _hal_row(self, text: str) -> Row | None:
        if match := re.match(r"> (quiet )?(plug|pull) (.*)", text):
            return ("plugged" if match[2] == "plug" else "pulled"), match[3]
        if text.startswith("error: "):
            return "refused", text.partition(" ")[2]
        if match := _MOUNTED.match(text):
            return match[1], match[2]
        if self._mount and (match := _OUTCOME.match(text)):
            call, self._mount = self._mount, None
            refusal = match[1].removeprefix("reply").removeprefix("error-reply ")
            return ("refused" if refusal else "asked",
                    f"{call.member}({call.arguments})" + (f": {refusal}" if refusal else ""))
        return None
