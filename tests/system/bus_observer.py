"""A second pair of eyes on a unit's message bus: every method call that anybody makes."""

import re
from dataclasses import dataclass

from testbed import timeouts
from testbed.process import Process
from testbed.tape import Channel
from testbed.unit import Unit

_CALL = re.compile(r"method call .* sender=(\S+) -> destination=(\S+) .* member=(\w+)")
_TEXT_ARGUMENT = re.compile(r'   string "(.*)"')


@dataclass(frozen=True)
class BusCall:
    """A method call as the bus saw it. Of the arguments only the texts are kept."""

    sender: str
    destination: str
    member: str
    texts: tuple[str, ...]


class BusObserver:
    """Watches a unit's bus from its construction on; its lines are on channel "bus"."""

    def __init__(self, unit: Unit) -> None:
        self._events = Channel(unit.tape, "bus")
        self._process: Process = unit.sandbox.spawn(["dbus-monitor", "--system"], "bus-observer",
                                                    on_line=self._events.record)
        # The bus takes the observer's name away when it makes it an observer.
        self._events.expect(re.compile("member=NameLost"), timeouts.START)

    def finish(self) -> list[BusCall]:
        """End the observation; all calls that were seen, in order."""
        self._process.terminate()
        calls: list[BusCall] = []
        inside_call = False
        for event in self._events.since():
            if match := _CALL.match(event.text):
                calls.append(BusCall(match[1], match[2], match[3], ()))
                inside_call = True
            elif inside_call and (match := _TEXT_ARGUMENT.fullmatch(event.text)):
                last = calls.pop()
                calls.append(BusCall(last.sender, last.destination, last.member,
                                     (*last.texts, match[1])))
            elif not event.text.startswith(" "):
                inside_call = False
        return calls
