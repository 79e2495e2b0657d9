"""The system calls of a running program: counting them, timing them and making them fail."""

import re
import subprocess
import time
from pathlib import Path

from testbed import timeouts
from testbed.lifespan import Lifespan
from testbed.process import Process
from testbed.waiting import wait_until

#: Thread, seconds since the line before, name and arguments.
_LINE = re.compile(r"^(?:\d+ +)? *(?:(\d+\.\d+) )?(.*)")
_CALL = re.compile(r"^(?:<\.\.\. )?(\w+)(?:\(| resumed)")


class Strace(Lifespan):
    """strace attached to the threads of a program from `start` to `close`.

    `options` are strace's, such as "-e", "inject=bind:error=EADDRINUSE". The program slows down
    while it is attached.
    """

    def __init__(self, process: Process, output: Path, *options: str,
                 thread: int | None = None) -> None:
        """`output` is the file that the calls are written to, one a line. With `thread` only that
        thread is traced."""
        self.output = output
        self._process = process
        self._thread = thread
        self._options = ["-r", *options]
        self._strace: "subprocess.Popen[str] | None" = None

    def start(self) -> None:
        """The tracing has begun on return."""
        self.output.parent.mkdir(parents=True, exist_ok=True)
        whom = ["-p", str(self._thread)] if self._thread else ["-f", "-p", str(self._process.pid)]
        self._strace = subprocess.Popen(
            ["strace", *whom, "-o", str(self.output), *self._options], stderr=subprocess.PIPE,
            text=True)
        tasks = Path(f"/proc/{self._process.pid}/task")
        deadline = time.monotonic() + timeouts.START
        while not all(f"TracerPid:\t{self._strace.pid}\n" in (task / "status").read_text()
                      for task in tasks.iterdir() if self._thread in (None, int(task.name))):
            assert self._strace.poll() is None, self._strace.stderr and self._strace.stderr.read()
            assert time.monotonic() < deadline, "strace did not attach"
            time.sleep(timeouts.POLL)

    def close(self) -> None:
        """The program runs on without it; `output` is complete. May be called again.

        Requires: the program is not just starting another one."""
        if self._strace:
            self._strace.terminate()
            try:
                self._strace.communicate(timeout=timeouts.RUN)
            except subprocess.TimeoutExpired:
                self._strace.kill()
                self._strace.communicate()
                raise AssertionError("strace did not detach: is the program starting another"
                                     " one?") from None
            finally:
                self._strace = None

    def expect(self, pattern: str, count: int = 1, timeout: float = timeouts.EVENT) -> None:
        """Wait until so many lines have this pattern."""
        wait_until(lambda: len(self._with(pattern)) >= count,
                   f"{count} of {pattern!r} in {self.output}", timeout)

    def times(self, pattern: str) -> list[float]:
        """When the calls whose lines have this pattern were begun, in seconds of the monotonic
        clock from the first call on.

        The program goes on with a call only after its time was taken. So what it waited for
        between two calls lasted no longer than the times are apart.
        """
        now, found = 0.0, []
        for line in self._text().splitlines():
            match = _LINE.match(line)
            assert match
            now += float(match[1] or 0)
            if re.search(pattern, match[2]):
                found.append(now)
        return found

    def lines(self) -> list[str]:
        """The calls as strace writes them, without the threads' ids and times."""
        return [_LINE.sub(r"\2", line) for line in self._text().splitlines()]

    def calls(self) -> list[str]:
        """The names of the calls that ended or were begun, in order, each once."""
        return [match[1] for line in self.lines()
                if (match := _CALL.match(line)) and not line.endswith("<unfinished ...>")]

    def _with(self, pattern: str) -> list[str]:
        return [line for line in self.lines() if re.search(pattern, line)]

    def _text(self) -> str:
        return self.output.read_text(errors="surrogateescape")
