"""The tape: everything that happened to a unit, in time order.

Each piece of the testbed records on a channel of the unit's tape. A test acts and then waits
for an event on a channel until a deadline. On failure the whole tape is printed.
"""

import re
import sys
import threading
import time
from dataclasses import dataclass, field
from typing import Any, Callable, NewType

from testbed import disturbance, timeouts

# Events are recorded by several threads; each is to get its turn soon after its event.
sys.setswitchinterval(0.0005)

Mark = NewType("Mark", int)


@dataclass(frozen=True)
class Event:
    """One thing that happened. `data` is what the channel makes of `text`, or None."""

    time: float  # monotonic
    source: str
    text: str
    data: Any = field(default=None, compare=False)


@dataclass(frozen=True)
class Wanted:
    """An event described by a test on it; the description is for the reader of a failure."""

    description: str
    test: Callable[[Event], bool]


Match = str | re.Pattern[str] | Wanted

#: Returns when what was caused until now has happened and stands on the tape.
Fence = Callable[[], None]


def no_fence() -> None:
    """For an observer without a daemon behind it."""


class NotSeen(AssertionError):
    """An expected event did not come before the deadline."""


class Tape:
    """Events of all channels in the order in which they were recorded. Safe for any thread."""

    def __init__(self) -> None:
        self.started = time.monotonic()
        self.added = threading.Condition()
        self.events: list[Event] = []

    def record(self, source: str, text: str, data: Any = None) -> Event:
        """Append an event that happens now."""
        disturbance.hold_up(source)
        with self.added:
            event = Event(time.monotonic(), source, text, data)
            self.events.append(event)
            self.added.notify_all()
        return event

    def mark(self) -> Mark:
        """The tape's end as it is now, to be given to `since`."""
        disturbance.hold_up("mark")
        with self.added:
            return Mark(len(self.events))

    def since(self, mark: Mark = Mark(0)) -> list[Event]:
        """All events after the mark."""
        with self.added:
            return self.events[mark:]

    def __str__(self) -> str:
        return "\n".join(self._line(event) for event in self.since())

    def _line(self, event: Event) -> str:
        text = event.text.encode("unicode_escape").decode("ascii")
        return f"{event.time - self.started:9.3f}  {event.source:<7} {text}"


class Channel:
    """One source's part of a tape, with a cursor that `expect` moves forward."""

    def __init__(self, tape: Tape, source: str) -> None:
        self.tape = tape
        self.source = source
        self._cursor = Mark(0)

    def record(self, text: str, data: Any = None) -> Event:
        """Append an event of this source that happens now."""
        return self.tape.record(self.source, text, data)

    def since(self, mark: Mark = Mark(0)) -> list[Event]:
        """This source's events after the mark."""
        return [event for event in self.tape.since(mark) if event.source == self.source]

    def seek(self, mark: Mark) -> None:
        """Put the cursor at the mark."""
        self._cursor = mark

    def expect(self, match: Match, timeout: float = timeouts.EVENT) -> Event:
        """The first event after the cursor that matches; the cursor then stands behind it.

        A text must be the event's whole text; a pattern is searched in it. Raises NotSeen when
        none comes within `timeout` seconds.
        """
        deadline = time.monotonic() + timeout
        position = self._cursor
        with self.tape.added:
            while True:
                while position < len(self.tape.events):
                    event = self.tape.events[position]
                    position = Mark(position + 1)
                    if event.source == self.source and _matches(match, event):
                        self._cursor = position
                        return event
                remaining = deadline - time.monotonic()
                if remaining <= 0:
                    raise NotSeen(self._report(match, timeout))
                self.tape.added.wait(remaining)

    def until(self, match: Match, since: Mark = Mark(0),
              timeout: float = timeouts.EVENT) -> list[Event]:
        """This source's events after the mark and before the first one that matches.

        That one is waited for as by `expect`; the cursor stays where it is. What must not happen
        is missing from this list when `match` is what comes after it.
        """
        reader = Channel(self.tape, self.source)
        reader.seek(since)
        reader.expect(match, timeout)
        behind = reader._cursor - 1
        return [event for event in self.tape.since()[since:behind] if event.source == self.source]

    def _report(self, match: Match, timeout: float) -> str:
        if isinstance(match, re.Pattern):
            wanted = match.pattern
        else:
            wanted = match.description if isinstance(match, Wanted) else match
        seen = [event.text for event in self.tape.events[self._cursor:]
                if event.source == self.source][-30:]
        listing = "\n".join(f"    {text}" for text in seen) or "    (nothing)"
        return (f"not seen on channel {self.source!r} within {timeout:g} s:\n    {wanted}\n"
                f"after the cursor there was:\n{listing}")


def _matches(match: Match, event: Event) -> bool:
    if isinstance(match, str):
        return event.text == match
    if isinstance(match, re.Pattern):
        return match.search(event.text) is not None
    return match.test(event)
