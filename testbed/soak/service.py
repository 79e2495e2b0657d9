"""The stand-in hardware service, told what to do without waiting for each answer."""

import os
import re
import shlex
import threading
from dataclasses import dataclass
from typing import Callable

from testbed import target, timeouts
from testbed.process import Process
from testbed.sandbox import Sandbox

PREFIX = "/org/freedesktop/Hal/devices/"
ROOT = PREFIX + "computer"
_OUTPUT = "/srv/soak/service"
_MOST_UNANSWERED = 64
#: The bus library's own time-out of 25 s for a call that is never answered, and more.
ANSWER = 60 * timeouts.SCALE
#: Of the root object only a fence asks this; its other properties are looked for by the way.
_FENCE = f" {ROOT} org.freedesktop.Hal.Device.GetPropertyBoolean".encode()
_REFUSED = re.compile(r"(?:error-reply (?P<error>\S+)|no-reply) \S+ (?P<path>\S+) "
                      r"\S+\.(?P<member>\w+)\(?")


@dataclass(frozen=True)
class Volume:
    """A volume as the service says it is now."""

    name: str  # of what it was plugged with
    udi: str
    device: str
    mounted: bool
    place: str


class Service:
    """A `voldrake-halsim` that is fed through a pipe.

    `on_refusal` gets the error's name (empty: never answered), the object and the method of each
    call that was not answered as asked for; it runs on the reading thread.
    """

    def __init__(self, sandbox: Sandbox, on_refusal: Callable[[str, str, str], None]) -> None:
        self.names: dict[str, str] = {}  # object path -> name of what it was plugged with
        self._sandbox = sandbox
        self._on_refusal = on_refusal
        self._process: Process | None = None
        self._changed = threading.Condition()
        self._unanswered = 0
        self._fences = 0  # answers to queries of the root object
        self._ready = False
        self._listing: list[str] | None = None

    def start(self, name: str = "service", *arguments: str) -> None:
        """The service is on the bus on return."""
        pipe = f"{_OUTPUT}-{name}"
        os.makedirs(self._sandbox.path("/srv/soak"), exist_ok=True)
        os.mkfifo(self._sandbox.path(pipe))
        program = target.program("voldrake-halsim")
        command = " ".join([f"exec {program}", *arguments, f">{pipe}"])
        reader = os.open(self._sandbox.path(pipe), os.O_RDONLY | os.O_NONBLOCK | os.O_CLOEXEC)
        os.set_blocking(reader, True)
        keeper = os.open(self._sandbox.path(pipe), os.O_WRONLY | os.O_CLOEXEC)  # no end before
        self._process = self._sandbox.spawn(["/bin/sh", "-c", command], name, stdin=True)
        threading.Thread(target=self._read, args=(reader,), daemon=True).start()
        self._wait(lambda: self._ready, "the service is ready")
        os.close(keeper)

    def command(self, text: str) -> None:
        """Tell it this; it is done later, and a refusal does not matter."""
        assert self._process
        if self._unanswered >= _MOST_UNANSWERED:
            self._wait(lambda: self._unanswered < _MOST_UNANSWERED // 2, "it answers")
        with self._changed:
            self._unanswered += 1
        self._process.write_line(text)

    def pid(self) -> int:
        """Of the program."""
        assert self._process and self._process.pid
        return self._process.pid

    def flush(self) -> None:
        """Return when all commands until now are done."""
        self._wait(lambda: self._unanswered == 0, "it has done its commands")

    def settle(self) -> None:
        """Return when the daemon has dealt with all signals until now and what followed.

        See `testbed.hal.Hal.settle`.
        """
        for _ in range(2):
            self.announce_nothing()()
        self.flush()

    def announce_nothing(self, count: int = 1) -> Callable[[], None]:
        """Announce so many changes of a device that the daemon has no business with. What is
        returned waits until the daemon has asked for the value each time."""
        asked = self._fences + count
        for _ in range(count):
            self.command(f"emit {ROOT} org.freedesktop.Hal.Device PropertyModified"
                         " (1, [('volume.is_mounted', false, false)])")
        return lambda: self._wait(lambda: self._fences >= asked, "the daemon answers a change")

    def volumes(self) -> list[Volume]:
        """What is there now."""
        udis = [line.split() for line in self.listing("list")]
        lines = [(name.partition(":")[0], udi) for _, name, udi in udis
                 if ":volume" in name]
        return [_volume(name, udi, self.listing(f"show {udi}")) for name, udi in lines]

    def plugged(self) -> set[str]:
        """The names of what is plugged in now, without a card's host, which stays behind it."""
        names = (line.split()[1].partition(":")[0] for line in self.listing("list"))
        return {name for name in names if not re.fullmatch(r"-|host\d+", name)}

    def listing(self, text: str) -> list[str]:
        """Tell it this and give what it lists."""
        self.flush()
        with self._changed:
            self._listing = []
        self.command(text)
        self.flush()
        with self._changed:
            listing, self._listing = self._listing or [], None
        return listing

    def _wait(self, condition: Callable[[], bool], what: str) -> None:
        with self._changed:
            if not self._changed.wait_for(condition, ANSWER):
                raise TimeoutError(f"not within {ANSWER:g} s: {what}")

    def _read(self, reader: int) -> None:
        rest = b""
        with open(reader, "rb", buffering=0) as stream:
            while data := stream.read(1 << 16):
                *lines, rest = (rest + data).split(b"\n")
                with self._changed:
                    for line in lines:
                        self._line(line)
                    self._changed.notify_all()

    def _line(self, line: bytes) -> None:
        if line == b"ok" or line.startswith(b"error: "):
            self._unanswered = max(0, self._unanswered - 1)
        elif line.startswith((b"reply ", b"error-reply ", b"no-reply ")):
            if _FENCE in line:
                self._fences += 1
            elif not line.startswith(b"reply "):
                self._refusal(line.decode("utf-8", "replace"))
        elif line.startswith((b"device ", b"property ")):
            text = line.decode("utf-8", "replace")
            if text.startswith("device ") and ":" in text.split()[1]:
                _, name, udi = text.split()
                self.names[udi] = name.partition(":")[0]
            if self._listing is not None:
                self._listing.append(text)
        elif line.startswith(b"ready "):
            self._ready = True

    def _refusal(self, line: str) -> None:
        match = _REFUSED.match(line)
        if match:
            self._on_refusal(match["error"] or "", match["path"], match["member"])


def _volume(name: str, udi: str, lines: list[str]) -> Volume:
    properties = {}
    for line in lines:
        key, _, value = line.removeprefix("property ").partition("=")
        kind, _, text = value.partition(":")
        properties[key] = shlex.split(text)[0] if kind == "string" and text else text
    return Volume(name, udi, properties.get("block.device", ""),
                  properties.get("volume.is_mounted") == "true",
                  properties.get("volume.mount_point", ""))
