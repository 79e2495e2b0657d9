"""A second pair of eyes on a unit's message bus: every method call that anybody makes."""

import re
from dataclasses import dataclass

from testbed import timeouts
from testbed.tape import Channel, Event, Wanted
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
        unit.sandbox.spawn(["dbus-monitor", "--system"], "bus-observer",
                           on_line=self._events.record)
        # The bus takes the observer's name away when it makes it an observer.
        self._events.expect(re.compile("member=NameLost"), timeouts.START)

    def calls_of(self, name: str) -> list[BusCall]:
        """All calls of the client of this name, which has left the bus or is just leaving it.

        The bus tells everybody that it has, which comes after all that the client has sent.
        """
        calls: list[BusCall] = []
        inside_call = False
        for event in self._events.until(_departure(name)):
            if match := _CALL.match(event.text):
                calls.append(BusCall(match[1], match[2], match[3], ()))
                inside_call = True
            elif inside_call and (match := _TEXT_ARGUMENT.fullmatch(event.text)):
                last = calls.pop()
                calls.append(BusCall(last.sender, last.destination, last.member,
                                     (*last.texts, match[1])))
            elif not event.text.startswith(" "):
                inside_call = False
        return [call for call in calls if call.sender == name]


def _departure(name: str) -> Wanted:
    """The last line of the notice that this name went from its owner to nobody."""
    lines: list[str] = []

    def ends_notice(event: Event) -> bool:
        lines.append(event.text)
        return lines[-3:] == [f'   string "{name}"', f'   string "{name}"', '   string ""']

    return Wanted(f"{name} leaves the bus", ends_notice)
