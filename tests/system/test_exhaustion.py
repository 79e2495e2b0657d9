"""What the daemon does when the machine has nothing left for it."""

import resource
import signal
from pathlib import Path

import pytest

from testbed import target, timeouts
from testbed.daemon import ERROR
from testbed.unit import Unit

LAST_WORDS = "memory has run out, or a text or list was used beyond its end"

#: Room for the stack, which grows page by page; the heap grows by twice as much at least.
SLACK = 64 * 1024
#: More than the memory that the daemon has set aside by then can describe.
STICKS = 300


@pytest.mark.skipif(not target.built_with("VOLDRAKE_STATIC_RUNTIME"),
                    reason="a shared C++ runtime has last words of its own")
@pytest.mark.native("the memory would run out first")
@pytest.mark.slow
def test_without_memory_it_ends_with_a_line_instead_of_living_half(running_unit: Unit) -> None:
    unit = running_unit
    assert unit.daemon.process and unit.daemon.process.pid
    pid = unit.daemon.process.pid
    pages = int(Path(f"/proc/{pid}/statm").read_text().split()[0])
    limit = pages * resource.getpagesize() + SLACK
    resource.prlimit(pid, resource.RLIMIT_AS, (limit, limit))
    for stick in range(STICKS):
        unit.hal.command(f"plug usb stick{stick} port=1-1.{stick}")
        if unit.daemon.process.ended():
            break
    # What it lacks memory for first may be an answer, for which it waits.
    assert unit.daemon.wait(timeouts.BUS_CALL) == -signal.SIGABRT
    unit.daemon.expect_log(ERROR, LAST_WORDS)
