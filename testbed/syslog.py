"""A unit's system log: the socket /dev/log."""

import itertools
import re
import socket
import threading
from dataclasses import dataclass
from pathlib import Path

from testbed import timeouts
from testbed.tape import Channel, Event, Fence, Mark, Match, Tape, Wanted, no_fence

_RECORD = re.compile(r"<(?P<code>\d+)>(?P<time>\w{3} [ \d]\d \d\d:\d\d:\d\d) "
                     r"(?P<ident>[^:\[]*)(\[(?P<pid>\d+)\])?: (?P<text>.*)", re.DOTALL)


@dataclass(frozen=True)
class Record:
    """One record; numbers as in <syslog.h>: priority 3 error ... 7 debug, facility 3 daemon."""

    priority: int
    facility: int
    ident: str
    pid: int | None
    text: str


class Syslog:
    """Records what is sent to the socket on channel "syslog"; the data is a `Record`, or None
    for what is not a syslog record."""

    def __init__(self, tape: Tape, fence: Fence = no_fence) -> None:
        self.events = Channel(tape, "syslog")
        self._fence = fence
        self._path = ""
        self._marks = (f"(fence {number})" for number in itertools.count(1))
        self._socket: socket.socket | None = None
        self._thread: threading.Thread | None = None

    def start(self, path: Path) -> None:
        """Listen at a path out here, such as `sandbox.path("/dev/log")`."""
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._path = str(path)
        self._socket.bind(self._path)
        self._thread = threading.Thread(target=self._receive, args=(self._socket,), daemon=True)
        self._thread.start()

    def close(self) -> None:
        """Stop listening; what was sent until now is recorded first."""
        if self._socket and self._thread:
            self._socket.shutdown(socket.SHUT_RD)
            self._thread.join(timeouts.STOP)
            self._socket.close()
            self._socket = None

    def expect(self, priority: int, text: str, timeout: float = timeouts.EVENT) -> Event:
        """Wait for a record of this priority and text."""
        return self.events.expect(Wanted(
            f"priority {priority}: {text}",
            lambda event: isinstance(event.data, Record)
            and (event.data.priority, event.data.text) == (priority, text)), timeout)

    def records(self, since: Mark = Mark(0), until: Match | None = None) -> list[Record]:
        """The records after the mark, in order; see `Unit` for `until`."""
        if until is None:
            self._fence()
            until = self.flush()
        return [event.data for event in self.events.until(until, since) if event.data]

    def flush(self) -> str:
        """Return when all that was sent until now is recorded; the text of the event behind it."""
        text = next(self._marks)
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sender:
            sender.sendto(text.encode(), self._path)
        self.events.until(text)
        return text

    def _receive(self, source: socket.socket) -> None:
        while datagram := source.recv(65536):
            text = datagram.decode("utf-8", "surrogateescape").rstrip("\0\n")
            match = _RECORD.fullmatch(text)
            record = None
            if match:
                code, pid = int(match["code"]), match["pid"]
                record = Record(code & 7, code >> 3, match["ident"], int(pid) if pid else None,
                                match["text"])
            self.events.record(text, record)
