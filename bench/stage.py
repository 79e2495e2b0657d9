"""Where the whole daemon is measured: a sandbox with a bus, and the programs of the benchmarks."""

import contextlib
import os
import re
import time
from pathlib import Path
from typing import Callable, Iterator, Mapping, Sequence

from bench.figures import CannotMeasure
from testbed import target
from testbed.bus import Bus
from testbed.network import Interface, Network
from testbed.process import Process
from testbed.sandbox import TOOLS, Sandbox

#: The programs, by their place in the build directory.
DAEMON = "src/voldrake"
DRIVER = "bench/bench-driver"
BARE_CLIENT = "bench/bare-client"
BARE_RECEIVER = "bench/bare-receiver"
BARE_LOOP = "bench/bare-loop"
HEAP_COUNTER = "bench/libheap-counter.so"
MICRO = "bench/voldrake-bench"

PORT = "8080"
#: The floors log nothing; neither does the daemon beside them. At level 1 each arrival would write
#: the lines of the keys that a stick has not, and with no system log here each would try to reach it.
QUIET = ("--debuglevel", "0")
_TIMEOUT = 1800.0


class Stage(Sandbox):
    """A sandbox with a bus. With a `network` it has an eth0 there, with this address if any."""

    def __init__(self, log_directory: Path, network: Network | None = None,
                 address: str | None = None,
                 read_only: Mapping[Path, Path] | None = None) -> None:
        super().__init__(log_directory, read_only)
        self.eth0: Interface | None = None
        self._network = network
        self._address = address

    def start(self) -> None:
        """Make the sandbox and start the bus."""
        super().start()
        self.write("/etc/ld.so.cache", Path("/etc/ld.so.cache").read_bytes())  # as an image has it
        # What the daemon runs does nothing and succeeds; no directory is a mount point before.
        for tool, does in (("exportfs", "true"), ("mount", "true"), ("umount", "true"),
                           ("mountpoint", "false")):
            self.path(f"{TOOLS}/{tool}").symlink_to(f"/usr/bin/{does}")
        if self._network:
            self.eth0 = self._network.join(self, self._address)
        Bus(self).start()

    def program(self, name: str) -> str:
        """Path inside of one of the programs, which is copied there."""
        inside = f"/srv/{Path(name).name}"
        if not self.path(inside).exists():
            self.write(inside, (target.build_directory() / name).read_bytes())
            self.path(inside).chmod(0o755)
        return inside

    def daemon(self, *arguments: str) -> list[str]:
        """The words that start the daemon."""
        return [self.program(DAEMON), "--port", PORT, *arguments]

    def output(self, argv: Sequence[str]) -> str:
        """What a program prints. Raises CannotMeasure when it fails."""
        done = self.run(argv, timeout=_TIMEOUT)
        if done.returncode != 0:
            raise CannotMeasure(f"{' '.join(argv)}: {done.stderr.strip()[-300:]}")
        return done.stdout

    def drive(self, count: int, command: Sequence[str]) -> Process:
        """Start the command with the driver as its hardware service, which lets `count` sticks
        arrive; return when they have. Both live as long as the driver's standard input is open.
        """
        driver = self.spawn([self.program(DRIVER), "arrivals", str(count), PORT, *command],
                            stdin=True)

        try:
            driver.expect_stdout(re.compile(rf"\A(.*\n){{{count}}}"), _TIMEOUT)
        except AssertionError as failure:
            raise CannotMeasure(f"bench-driver: {str(failure)[-300:]}") from None
        return driver

    def pid_of(self, program: str) -> int:
        """Process id of the one process that runs this program, once there is one."""
        path = self.program(program)

        def found() -> list[int]:
            return [pid for pid, line in self.processes().items() if line.split()[0] == path]

        wait_until(found, f"{path} runs")
        return found()[0]


def wait_until(condition: Callable[[], object], what: str, timeout: float = _TIMEOUT) -> None:
    """Return once the condition holds. Raises CannotMeasure when it does not in time."""
    deadline = time.monotonic() + timeout
    while not condition():
        if time.monotonic() > deadline:
            raise CannotMeasure(f"not within {timeout:g} s: {what}")
        time.sleep(0.01)


@contextlib.contextmanager
def one_processor() -> Iterator[None]:
    """Let what is started meanwhile run on one processor. How several would share the work, and
    how long the next one takes to wake up, is left to chance.
    """
    before = os.sched_getaffinity(0)
    os.sched_setaffinity(0, {max(before)})
    try:
        yield
    finally:
        os.sched_setaffinity(0, before)


def processor_nanoseconds(pid: int) -> int:
    """The processor time that the process's threads have used so far."""
    return sum(int((task / "schedstat").read_text().split()[0])
               for task in Path(f"/proc/{pid}/task").iterdir())


def threads(pid: int) -> list[int]:
    """The process's threads in the order in which they were started."""
    return sorted(int(task) for task in os.listdir(f"/proc/{pid}/task"))
