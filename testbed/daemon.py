"""The daemon under test."""

import os
import re
import signal
import threading
from dataclasses import dataclass
from pathlib import Path
from typing import Sequence

from testbed import filewatch, target, timeouts
from testbed.process import Process
from testbed.sandbox import Sandbox
from testbed.tape import Channel, Event, Fence, Mark, Match, Tape, Wanted, no_fence

ERROR, WARNING, INFO, DEBUG = 1, 2, 3, 4

LOG_FILE = "/var/log/voldrake.log"
_LEVELS = {"Error:  ": ERROR, "Warning:": WARNING, "Log:    ": INFO, "Debug:  ": DEBUG}
_LINE = re.compile(r"(\d\d:\d\d:\d\d): Voldrake: (Error:  |Warning:|Log:    |Debug:  )(.*)")


@dataclass(frozen=True)
class LogLine:
    """One entry of the log file."""

    clock: str  # "14:03:59"
    level: int
    text: str


def log_line(level: int, text: str | re.Pattern[str]) -> Wanted:
    """An entry of the log of this level whose text is `text`, or matches it in full."""
    def fits(event: Event) -> bool:
        entry = event.data
        if not isinstance(entry, LogLine) or entry.level != level:
            return False
        return entry.text == text if isinstance(text, str) else bool(text.fullmatch(entry.text))
    return Wanted(f"level {level}: {text if isinstance(text, str) else text.pattern}", fits)


class Daemon:
    """A `voldrake` inside the sandbox and its log file.

    Channel "log" has the log file's lines as they come (the data is a `LogLine`, or None for
    what is not one), channel "daemon" its start and its end.
    """

    def __init__(self, sandbox: Sandbox, tape: Tape, fence: Fence = no_fence) -> None:
        self.log = Channel(tape, "log")
        self.events = Channel(tape, "daemon")
        self.process: Process | None = None
        self.started = Mark(0)  # the tape's end before the last start
        self._sandbox = sandbox
        self._fence = fence
        self._tail = _LogTail(sandbox, self.log)

    def start(self, *arguments: str, environment: dict[str, str] | None = None,
              log_file: str | None = LOG_FILE, debug_level: int | None = DEBUG,
              launcher: Sequence[str] = ()) -> None:
        """Start the daemon with its log in `log_file` at `debug_level`, and more arguments.

        With None that option is not given. `launcher` is a command that takes the daemon's as its
        last words and becomes it. It has been started on return, not more: wait for what it does.
        """
        options = []
        if log_file is not None:
            options += ["--log", log_file]
        if debug_level is not None:
            options += ["--debuglevel", str(debug_level)]
        options += arguments
        self.started = self.events.tape.mark()
        self.events.record(" ".join(["started: voldrake", *options]))
        self._tail.start(log_file or LOG_FILE)
        self.process = self._sandbox.spawn([*launcher, *target.daemon_command(), *options],
                                           "voldrake", environment=environment)

    def expect_log(self, level: int, text: str | re.Pattern[str],
                   timeout: float = timeouts.EVENT) -> LogLine:
        """Wait for a log line of this level whose text is `text`, or matches it in full."""
        return self.log.expect(log_line(level, text), timeout).data

    def log_lines(self, since: Mark = Mark(0), until: Match | None = None) -> list[LogLine]:
        """The log's lines after the mark, in order; see `Unit` for `until`."""
        return [event.data for event in self._seen(since, until) if event.data]

    def strange_lines(self, since: Mark = Mark(0), until: Match | None = None) -> list[str]:
        """As `log_lines`, but the lines that have not the form of an entry."""
        return [event.text for event in self._seen(since, until) if not event.data]

    def logged(self, level: int, text: str, since: Mark = Mark(0),
               until: Match | None = None) -> int:
        """How often this line has been logged after the mark; see `Unit` for `until`."""
        return sum((entry.level, entry.text) == (level, text)
                   for entry in self.log_lines(since, until))

    def flush(self) -> None:
        """Record every line that is in the log file by now."""
        self._tail.drain()

    def wait(self, timeout: float = timeouts.STOP) -> int:
        """Wait for its end; the exit status, negative for a signal. Its log is complete then."""
        assert self.process
        status = self.process.wait(timeout)
        self._tail.stop()
        self.events.record(f"ended with status {status}")
        return status

    def terminate(self, timeout: float = timeouts.STOP) -> int:
        """SIGTERM; the exit status."""
        self.signal(signal.SIGTERM)
        return self.wait(timeout)

    def kill(self) -> int:
        """SIGKILL; the exit status."""
        self.signal(signal.SIGKILL)
        return self.wait()

    def signal(self, number: int) -> None:
        """Send it a signal."""
        assert self.process
        self.events.record(f"signal {signal.Signals(number).name}")
        self.process.signal(number)

    def running(self) -> bool:
        """True while it has not ended."""
        return self.process is not None and self.process.poll() is None

    def stderr(self) -> str:
        """What it has written to standard error so far."""
        assert self.process
        return self.process.stderr()

    def failed_assertion(self) -> str:
        """The line of the assertion that ended it, from standard error, as the log has it."""
        return self.stderr().split("\n")[0].removeprefix("voldrake: ")

    def close(self) -> None:
        """Stop following the log."""
        self._tail.stop()

    def _seen(self, since: Mark, until: Match | None) -> list[Event]:
        if until is not None:
            return self.log.until(until, since)
        self._fence()
        self.flush()
        return self.log.since(since)


class _LogTail:
    """Follows a log file that is opened anew for each line, moved away or deleted at any time."""

    def __init__(self, sandbox: Sandbox, channel: Channel) -> None:
        self._sandbox = sandbox
        self._channel = channel
        self._draining = threading.Lock()
        self._watch: filewatch.FileWatch | None = None
        self._path = ""
        self._file = -1
        self._rest = b""

    def start(self, path: str) -> None:
        """Follow this file from its present end. Its directory must exist to be followed live."""
        self.stop()
        self._path = str(self._sandbox.path(path))
        if os.path.isfile(self._path):
            self._file = os.open(self._path, os.O_RDONLY | os.O_CLOEXEC)
            os.lseek(self._file, 0, os.SEEK_END)
        file = Path(self._path)
        if file.parent.is_dir():
            self._watch = filewatch.FileWatch(
                lambda _, name: self.drain() if name == file.name else None)
            self._watch.add(file.parent, filewatch.MODIFIED | filewatch.APPEARED)
            self._watch.start()

    def stop(self) -> None:
        """Record what is there and stop."""
        if self._watch:
            self._watch.close()
            self._watch = None
        self.drain()
        self._close()
        self._path = ""

    def drain(self) -> None:
        """Record every whole line that is there by now."""
        with self._draining:
            while self._path and (self._read_on() or self._reopen()):
                pass

    def _read_on(self) -> bool:
        if self._file < 0:
            return False
        data = os.read(self._file, 1 << 20)
        *lines, self._rest = (self._rest + data).split(b"\n")
        for line in lines:
            self._record(line.decode("utf-8", "surrogateescape"))
        return bool(data)

    def _reopen(self) -> bool:
        """Go to the file that bears the name now; False when that is the one being read."""
        try:
            present = os.stat(self._path)
            if self._file >= 0 and os.path.samestat(present, os.fstat(self._file)):
                return False
            if not os.path.isfile(self._path):
                return False
            new = os.open(self._path, os.O_RDONLY | os.O_CLOEXEC)
        except OSError:
            return False
        self._read_on()  # what came before the file was moved away
        self._close()
        self._file = new
        return True

    def _close(self) -> None:
        if self._file >= 0:
            os.close(self._file)
        self._file = -1
        self._rest = b""

    def _record(self, line: str) -> None:
        match = _LINE.fullmatch(line)
        entry = LogLine(match[1], _LEVELS[match[2]], match[3]) if match else None
        self._channel.record(line, entry)
