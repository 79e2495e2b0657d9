"""What can be seen of a running daemon besides its own words."""

import re
import signal
from pathlib import Path

from testbed.tape import Mark
from testbed.unit import Unit
from testbed.waiting import wait_until


def mark_behind_log(unit: Unit) -> Mark:
    """The present end of the tape, behind every line that the log file has by now."""
    return unit.mark()


def signal_set(unit: Unit, name: str) -> set[int]:
    """The numbers in one of the daemon's signal sets in /proc, such as "SigIgn"."""
    status = Path(f"/proc/{unit.daemon.process.pid}/status").read_text()
    bits = int(re.search(rf"^{name}:\s*(\w+)$", status, re.MULTILINE)[1], 16)
    return {number for number in range(1, 65) if bits >> (number - 1) & 1}


def wait_for_signal_handlers(unit: Unit) -> None:
    """Return once the daemon has built everything and handles signals."""
    wait_until(lambda: signal.SIGUSR2 in signal_set(unit, "SigCgt"), "it handles SIGUSR2")


def processor_seconds(unit: Unit) -> float:
    """The processor time that the daemon's threads have used so far; to a nanosecond."""
    tasks = Path(f"/proc/{unit.daemon.process.pid}/task").iterdir()
    return sum(int((task / "schedstat").read_text().split()[0]) for task in tasks) / 1e9
