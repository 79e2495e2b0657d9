"""Drives the stand-in hardware service, `voldrake-halsim`."""

import queue
import re
import threading
from dataclasses import dataclass

from testbed import target, timeouts
from testbed.process import Process
from testbed.sandbox import Sandbox
from testbed.tape import Channel, Event, Fence, Mark, Match, Tape, Wanted, no_fence

_CALL = re.compile(r"call (?P<sender>\S+) (?P<path>\S+) (?P<interface>[\w.]+)\.(?P<member>\w+)"
                   r"\((?P<arguments>.*)\)$")
_LISTING = ("device", "property", "usage")
_PREFIX = "/org/freedesktop/Hal/devices/"
_ROOT_DEVICE = _PREFIX + "computer"
#: Part of the object paths of the stick that `Unit` plugs to have a last message sent.
FENCE = "fence"


class CommandFailed(AssertionError):
    """The hardware service answered a command with `error:`."""


@dataclass(frozen=True)
class Call:
    """One method call that the hardware service got."""

    sender: str
    path: str
    interface: str
    member: str
    arguments: str  # as the bus library writes them, without the parentheses

    def is_settling(self) -> bool:
        """True for a call that only a fence has caused."""
        return self.path == _ROOT_DEVICE or f"_{FENCE}" in self.path

    def __str__(self) -> str:
        return f"{self.path.removeprefix(_PREFIX)} {self.member}({self.arguments})"


def call(member: str | None = None, path: str | None = None) -> Wanted:
    """A call of this method (on this object)."""
    return Wanted(
        "call" + (f" of {member}" if member else "") + (f" on {path}" if path else ""),
        lambda event: isinstance(event.data, Call) and member in (None, event.data.member)
        and path in (None, event.data.path))


class Hal:
    """A `voldrake-halsim` inside the sandbox, its commands and its part of the tape.

    The channel's events are its event lines ("call ...", "reply ...", "signal ..."), and
    "> COMMAND" for what it was told; the data of a call is a `Call`.
    """

    def __init__(self, sandbox: Sandbox, tape: Tape, source: str = "hal",
                 fence: Fence = no_fence) -> None:
        self.events = Channel(tape, source)
        self._fence = fence
        self.process: Process | None = None
        self.unique_name = ""  # on the bus; empty when it was started without the service's name
        self._sandbox = sandbox
        self._answers: queue.Queue[str] = queue.Queue()
        self._commanding = threading.Lock()

    def start(self, *arguments: str, script: str = "", real_mounts: bool = True) -> None:
        """Start the service; it owns its name on return (unless "--absent" is among the arguments).

        `script` holds commands that run before that. With `real_mounts` a mount puts a file
        system at the mount point: the directory `/srv/volumes/sda1` for the block device
        `/dev/sda1` where the sandbox has one, else an empty one in memory. Without, a mount
        point is a mere directory.
        """
        command = [target.program("voldrake-halsim"), *arguments]
        if real_mounts:
            helpers = target.INSIDE / "helpers"
            command += [f"--mount-command={helpers}/mount-volume",
                        f"--unmount-command={helpers}/unmount-volume"]
        if script:
            self._sandbox.write(f"/srv/{self.events.source}.script", script)
            command.append(f"--file=/srv/{self.events.source}.script")
        mark = self.events.tape.mark()
        self.events.seek(mark)
        self.process = self._sandbox.spawn(command, self.events.source, stdin=True,
                                           on_line=self._line)
        ready = self.events.expect(re.compile(r"^ready "), timeouts.START)
        self.unique_name = ready.text.split()[1].replace("absent", "")
        self._answers = queue.Queue()  # those of the script are of no use any more

    def command(self, text: str) -> list[str]:
        """Send one command; its listing lines. Raises CommandFailed when it is refused.

        The events that it causes at once are on the tape on return.
        """
        self.events.record(f"> {text}")
        return self._exchange(text)

    def plug(self, text: str) -> dict[str, str]:
        """`command("plug " + text)`; the new devices' object paths by role ("volume1")."""
        words = [line.split() for line in self.command(f"plug {text}")]
        return {name.partition(":")[2]: udi for _, name, udi in words}

    def pull(self, target_name: str) -> None:
        """`command("pull " + target_name)`."""
        self.command(f"pull {target_name}")

    def expect(self, match: Match, timeout: float = timeouts.EVENT) -> str:
        """Wait for an event line and return it; see `Channel.expect`."""
        return self.events.expect(match, timeout).text

    def expect_call(self, member: str, path: str | None = None,
                    timeout: float = timeouts.EVENT) -> Call:
        """Wait for a call of this method (on this object); the cursor then stands behind it."""
        return self.events.expect(call(member, path), timeout).data

    def caller(self) -> str:
        """The bus name of the daemon, which makes the first call."""
        first = Channel(self.events.tape, self.events.source)
        return first.expect(call(), timeouts.START).data.sender

    def calls(self, since: Mark = Mark(0), until: Match | None = None) -> list[Call]:
        """The calls after the mark, in order, without those of fences; see `Unit` for `until`."""
        return [event.data for event in self._seen(since, until)
                if isinstance(event.data, Call) and not event.data.is_settling()]

    def lines(self, since: Mark = Mark(0), until: Match | None = None) -> list[str]:
        """As `calls`, but all event lines, and the commands after "> "."""
        return [event.text for event in self._seen(since, until)]

    def flush(self) -> None:
        """Return when all that the service has written until now is recorded."""
        if self.process and self.process.poll() is None:
            self._exchange(f"show {_ROOT_DEVICE}")

    def settle(self) -> None:
        """Return when the daemon has dealt with every signal sent so far and what follows from it.

        The service announces a change of a device that the daemon has no business with; the
        daemon asks for its value, finds that it concerns nothing, and logs nothing above level 4.
        Signals are dealt with in their order, so what came before is done. A second round waits
        for the signals of the mounts that the daemon asked for meanwhile. Requires: the daemon
        listens to signals already; no `fail`, `answer`, `delay` or `ignore` is waiting for a
        query of volume.is_mounted.
        """
        self.command(f"quiet set {_ROOT_DEVICE} volume.is_mounted=bool:false")
        for _ in range(2):
            self._announce_nothing()

    def stop(self) -> int:
        """SIGTERM; the exit status. What is mounted stays mounted."""
        assert self.process
        return self.process.terminate()

    def close(self) -> None:
        """End the service, if it still runs, and require a good end."""
        if self.process and not self.process.collected:
            assert self.stop() == 0

    def _seen(self, since: Mark, until: Match | None) -> list[Event]:
        if until is not None:
            return self.events.until(until, since)
        self._fence()
        self.flush()
        return self.events.since(since)

    def _announce_nothing(self) -> None:
        mark = self.events.tape.mark()
        self.command(f"emit {_ROOT_DEVICE} org.freedesktop.Hal.Device PropertyModified"
                     " (1, [('volume.is_mounted', false, false)])")
        answered = Channel(self.events.tape, self.events.source)
        answered.seek(mark)
        answered.expect(Wanted(
            "the daemon's answer to a change that concerns nothing",
            lambda event: event.text.startswith("reply ")
            and f" {_ROOT_DEVICE} " in event.text), timeouts.START)

    def _exchange(self, text: str) -> list[str]:
        assert self.process
        with self._commanding:
            self.process.write_line(text)
            listing = []
            while True:
                try:
                    line = self._answers.get(timeout=timeouts.EVENT)
                except queue.Empty:
                    raise CommandFailed(f"no answer to: {text}") from None
                if line == "ok":
                    return listing
                if line.startswith("error: "):
                    raise CommandFailed(f"{text}: {line}")
                listing.append(line)

    def _line(self, line: str) -> None:
        word = line.split(" ", 1)[0]
        if word not in ("ok", *_LISTING):
            match = _CALL.match(line)
            self.events.record(line, Call(**match.groupdict()) if match else None)
        if word in ("ok", "error:", *_LISTING):
            self._answers.put(line)
