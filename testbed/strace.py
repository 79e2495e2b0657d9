"""The system calls of a running program: counting them, timing them and making them fail."""

import re
import subprocess
from dataclasses import dataclass
from pathlib import Path

from testbed import target, timeouts
from testbed.lifespan import Lifespan
from testbed.process import Process
from testbed.waiting import wait_until

#: Thread, seconds since the line before, and the call.
_LINE = re.compile(r"(?:(\d+) +)? *(\d+\.\d+) (.*)")
_BEGUN = " <unfinished ...>"
_ENDED = re.compile(r"<\.\.\. \w+ resumed>(.*)")
#: How a call ends that has waited for its whole time.
_TIMED_OUT = re.compile(r"= -1 ETIMEDOUT |^poll\(.*, [1-9]\d*\) = 0 \(Timeout\)")


#: Seconds in which strace detaches unless something keeps it.
_DETACHING = 1.0


@dataclass
class Call:
    """One system call; the end of its text is missing while it has not ended."""

    thread: str
    begun: float  # in seconds of the monotonic clock since the first call
    text: str  # such as 'bind(7, {...}, 16) = 0'

    @property
    def name(self) -> str:
        """The name of the call."""
        return self.text.partition("(")[0]

    def timed_out(self) -> bool:
        """True when it has waited for something that did not come in its time."""
        return _TIMED_OUT.search(self.text) is not None


class Trace:
    """What strace has written of a program; the file grows while the program runs.

    A program that is to be traced from its beginning is started by `launcher`.
    """

    def __init__(self, output: Path) -> None:
        """`output` is the file that the calls are written to, one a line."""
        self.output = output

    @staticmethod
    def launcher(inside: str, *options: str) -> list[str]:
        """The words that start a program traced, for `Daemon.start`; `inside` is where the file
        is for the program."""
        environment = [f"--env={name}={value}"
                       for name, value in target.traced_to_its_end().items()]
        return ["strace", "-D", "-f", "-r", "-o", inside, *environment, *options]

    def expect(self, pattern: str, count: int = 1, timeout: float = timeouts.EVENT) -> None:
        """Wait until so many calls have this pattern."""
        wait_until(lambda: len(self.times(pattern)) >= count,
                   f"{count} of {pattern!r} in {self.output}", timeout)

    def times(self, pattern: str) -> list[float]:
        """When the calls whose text has this pattern were begun.

        The program goes on with a call only after its time was taken. So what it waits for
        between two calls lasts no longer than their times are apart.
        """
        return [call.begun for call in self.made() if re.search(pattern, call.text)]

    def waits_between(self, pattern: str) -> list[int]:
        """How often each call with this pattern was preceded, since the last one, by a wait that
        ran out in the same thread."""
        found, waits = [], dict[str, int]()
        for call in self.made():
            waits.setdefault(call.thread, 0)
            if re.search(pattern, call.text):
                found.append(waits[call.thread])
                waits[call.thread] = 0
            waits[call.thread] += call.timed_out()
        return found

    def made(self) -> list[Call]:
        """The calls in the order in which they were begun."""
        now, made, running = 0.0, list[Call](), dict[str, Call]()
        for line in self.output.read_text(errors="surrogateescape").splitlines():
            match = _LINE.fullmatch(line)
            if not match:
                continue  # is just being written
            thread, now = match[1] or "", now + float(match[2])
            if ended := _ENDED.fullmatch(match[3]):
                if thread in running:
                    running.pop(thread).text += ended[1]
                continue
            if match[3].startswith(("---", "+++")):
                continue  # a signal, or the thread's end
            made.append(Call(thread, now, match[3].removesuffix(_BEGUN)))
            if match[3].endswith(_BEGUN):
                running[thread] = made[-1]
        return made

    def lines(self) -> list[str]:
        """The texts of the calls."""
        return [call.text for call in self.made()]

    def calls(self) -> list[str]:
        """The names of the calls."""
        return [call.name for call in self.made()]


class Strace(Trace, Lifespan):
    """strace attached to the threads of a program from `start` to `close`.

    `options` are strace's, such as "-e", "inject=bind:error=EADDRINUSE". The program slows down
    while it is attached.
    """

    def __init__(self, process: Process, output: Path, *options: str,
                 thread: int | None = None) -> None:
        """With `thread` only that thread is traced."""
        super().__init__(output)
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
        wait_until(self._attached, "strace is attached", timeouts.START)

    def _attached(self) -> bool:
        assert self._strace
        assert self._strace.poll() is None, self._strace.stderr and self._strace.stderr.read()
        tracer = f"TracerPid:\t{self._strace.pid}\n"
        return all(tracer in (task / "status").read_text()
                   for task in Path(f"/proc/{self._process.pid}/task").iterdir()
                   if self._thread in (None, int(task.name)))

    def close(self) -> None:
        """The program runs on without it; `output` is complete. May be called again."""
        if self._strace:
            strace, self._strace = self._strace, None
            strace.terminate()
            try:
                strace.communicate(timeout=_DETACHING)
            except subprocess.TimeoutExpired:
                wait_until(lambda: strace.poll() is not None or self._blocks(strace.pid),
                           "strace detaches", timeouts.RUN)
                strace.kill()
                strace.communicate()

    def _blocks(self, strace: int) -> bool:
        """True when strace waits for a thread to stop that is starting a program, while that thread
        waits for the program to run, and the program, which strace has stopped, for strace. The
        kernel lets go of both when strace is killed."""
        tasks = Path(f"/proc/{self._process.pid}/task")
        threads = [int(task.name) for task in tasks.iterdir()]
        children = [int(child) for thread in threads
                    for child in (tasks / f"{thread}/children").read_text().split()]
        held = {"State": "t (tracing stop)", "TracerPid": str(strace)}
        return (any(_status(thread).get("State", "").startswith("D") for thread in threads)
                and any(held.items() <= _status(child).items() for child in children))


def _status(task: int) -> dict[str, str]:
    """What /proc says of a process or thread; empty when it is gone."""
    try:
        lines = Path(f"/proc/{task}/status").read_text().splitlines()
    except OSError:
        return {}
    return dict(line.split(":\t", 1) for line in lines if ":\t" in line)
