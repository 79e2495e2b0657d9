"""Programs that run inside a sandbox."""

import os
import re
import signal
import subprocess
import threading
import time
from pathlib import Path
from typing import IO, Callable

from testbed import timeouts
from testbed.waiting import wait_until


class Process:
    """A program inside a sandbox. Made by `Sandbox.spawn`; ends with the sandbox at the latest.

    Its output goes to `out` and `err`, files outside the sandbox. With `on_line` each line of
    standard output is also handed to that function as it comes, on a thread of its own.
    """

    def __init__(self, entry: "subprocess.Popen[bytes]", name: str, out: Path, err: Path,
                 on_line: Callable[[str], None] | None) -> None:
        self.name = name
        self.out = out
        self.err = err
        self.collected = False  # once `wait` has told the end
        self._entry = entry  # nsenter: it waits for the program and passes its status on
        self._writing = threading.Lock()
        self._reader: threading.Thread | None = None
        if on_line:
            assert entry.stdout
            self._reader = threading.Thread(target=self._read, args=(entry.stdout, on_line),
                                            name=f"{name}-output", daemon=True)
            self._reader.start()
        self.pid = self._find_program()

    def ended(self) -> bool:
        """True when its end is seen. It may end at any time after that was false."""
        return self._entry.poll() is not None

    def wait(self, timeout: float = timeouts.STOP) -> int:
        """Wait for the end and for all output; the exit status, negative for a signal.

        Raises AssertionError when the program still runs after `timeout` seconds.
        """
        try:
            status = self._entry.wait(timeout)
        except subprocess.TimeoutExpired:
            raise AssertionError(f"{self.name} still runs after {timeout:g} s") from None
        if self._reader:
            self._reader.join(timeouts.STOP)
        if self._entry.stdin:
            self._entry.stdin.close()
        self.collected = True
        return status

    def signal(self, number: int) -> None:
        """Send a signal; nothing happens when the program has ended."""
        if self.pid and not self.ended():
            try:
                os.kill(self.pid, number)
            except ProcessLookupError:
                pass  # it ended just now

    def terminate(self, timeout: float = timeouts.STOP) -> int:
        """SIGTERM, then `wait`."""
        self.signal(signal.SIGTERM)
        return self.wait(timeout)

    def kill(self) -> int:
        """SIGKILL, then `wait`."""
        self.signal(signal.SIGKILL)
        return self.wait()

    def pause(self) -> None:
        """Stop the program (SIGSTOP) until `resume`."""
        self.signal(signal.SIGSTOP)
        # nsenter stops itself once it sees that its child is stopped. If that came after `resume`,
        # nothing would wake it again, and the program's end would go unseen.
        wait_until(self._entry_is_stopped, f"{self.name} is stopped", timeouts.START)

    def resume(self) -> None:
        """Let a paused program go on."""
        self.signal(signal.SIGCONT)
        self._entry.send_signal(signal.SIGCONT)

    def _entry_is_stopped(self) -> bool:
        stat = Path(f"/proc/{self._entry.pid}/stat").read_text(encoding="ascii", errors="replace")
        return stat.rpartition(")")[2].split()[0] == "T"

    def descriptors(self) -> dict[int, str]:
        """What each descriptor that it has open stands for; of a moment, as all that follows."""
        return self._read_descriptors(lambda number: True)

    def inherited_descriptors(self) -> dict[int, str]:
        """Those of them that a program which it starts would get."""
        return self._read_descriptors(lambda number: not self._flags(number) & os.O_CLOEXEC)

    def status(self, name: str) -> int:
        """A number of /proc/PID/status, such as "Threads" or "VmRSS" (in kB)."""
        for line in Path(f"/proc/{self.pid}/status").read_text().splitlines():
            if line.startswith(f"{name}:"):
                return int(line.split()[1])
        raise KeyError(name)

    def write_line(self, line: str) -> None:
        """Send a line to standard input. Requires: spawned with `stdin=True`."""
        assert self._entry.stdin
        with self._writing:
            self._entry.stdin.write(line.encode("utf-8", "surrogateescape") + b"\n")
            self._entry.stdin.flush()

    def close_input(self) -> None:
        """End of file on standard input. Requires: spawned with `stdin=True`."""
        assert self._entry.stdin
        self._entry.stdin.close()

    def expect_stdout(self, text: str | re.Pattern[str],
                      timeout: float = timeouts.START) -> re.Match[str]:
        """Wait until this text, or a match of the pattern, is on its standard output.

        Raises AssertionError when that does not come about, at once when the program has ended.
        """
        return self._expect(self.out, text, timeout)

    def expect_stderr(self, text: str | re.Pattern[str],
                      timeout: float = timeouts.START) -> re.Match[str]:
        """As `expect_stdout`, for its standard error."""
        return self._expect(self.err, text, timeout)

    def stdout(self) -> str:
        """What it has written to standard output; waits for its end."""
        self.wait()
        return self.out.read_text("utf-8", "surrogateescape")

    def stderr(self) -> str:
        """What it has written to standard error; waits for its end."""
        self.wait()
        return self.err.read_text("utf-8", "surrogateescape")

    def _expect(self, file: Path, text: str | re.Pattern[str], timeout: float) -> re.Match[str]:
        pattern = re.compile(re.escape(text)) if isinstance(text, str) else text

        def look() -> re.Match[str] | None:
            ended = self.ended()
            found = pattern.search(file.read_text("utf-8", "surrogateescape"))
            if ended and not found:
                self.wait()
                written = file.read_text("utf-8", "surrogateescape")
                found = pattern.search(written)
                assert found, f"{self.name} ended without {pattern.pattern!r}: {written}"
            return found

        return wait_until(look, f"{pattern.pattern!r} from {self.name}", timeout)

    def _read(self, stream: IO[bytes], on_line: Callable[[str], None]) -> None:
        rest = b""
        with open(self.out, "ab", buffering=0) as copy, stream:
            while data := os.read(stream.fileno(), 65536):
                copy.write(data)
                *lines, rest = (rest + data).split(b"\n")
                for line in lines:
                    on_line(line.decode("utf-8", "surrogateescape"))

    def _read_descriptors(self, wanted: Callable[[int], bool]) -> dict[int, str]:
        found = {}
        for number in map(int, os.listdir(f"/proc/{self.pid}/fd")):
            try:
                if wanted(number):
                    found[number] = os.readlink(f"/proc/{self.pid}/fd/{number}")
            except FileNotFoundError:
                pass  # closed meanwhile
        return found

    def _flags(self, number: int) -> int:
        information = Path(f"/proc/{self.pid}/fdinfo/{number}").read_text()
        return int(information.split("flags:")[1].split()[0], 8)

    def _find_program(self) -> int | None:
        """The program's process id out here; None when it has ended already."""
        children = Path(f"/proc/{self._entry.pid}/task/{self._entry.pid}/children")
        deadline = time.monotonic() + timeouts.START
        while time.monotonic() < deadline:
            try:
                words = children.read_text().split()
                if words and _is_replaced(int(words[0]), self._entry.pid):
                    return int(words[0])
            except OSError:
                pass  # between two of its states, or gone
            if self._entry.poll() is not None:
                return None
            time.sleep(0.001)
        raise AssertionError(f"{self.name} did not start")


def _is_replaced(child: int, parent: int) -> bool:
    """True once the child runs a program of its own instead of the parent's."""
    return os.readlink(f"/proc/{child}/exe") != os.readlink(f"/proc/{parent}/exe")
