"""What the daemon costs at rest, and what it hands on to the tools that it runs."""

import math
import os
import re
import signal
from collections import Counter
from pathlib import Path

import pytest

from observations import processor_seconds
from testbed import target, timeouts
from testbed.application import Mode
from testbed.daemon import INFO, WARNING
from testbed.network import Network
from testbed.strace import Call, Strace
from testbed.tape import Wanted
from testbed.unit import Unit
from testbed.waiting import wait_until

pytestmark = pytest.mark.undelayed("its waits are counted")

PERIOD = 2.0
#: How long each thread waits at a time, in seconds; NEVER for those that only wait for events: the
#: main thread, the one that catches signals for it, the browser on a network.
NEVER = math.inf
CLIENT, SERVICE_LIST, PUBLISHER, BROWSER = 0.5, 0.1, 1.0, 0.1
SANITIZER = 0.1
AT_REST = [NEVER, NEVER, CLIENT, PUBLISHER, SERVICE_LIST, BROWSER]
#: One that runs when it begins to be looked at, and one that begins at the end of that time.
EDGES = 2
AT_REST_SINCE = r"^write\(.*Version - "
WAIT = re.compile(r"^(\w*poll|(clock_)?nanosleep|restart_syscall|recvmsg)\w*\("
                  r"|^futex.*FUTEX_WAIT_BITSET")


def expect_rest(unit: Unit, intervals: list[float]) -> None:
    """The daemon's threads wait as long at a time as `intervals` says, and hardly do anything."""
    threads = os.listdir(f"/proc/{unit.daemon.process.pid}/task")
    intervals = [*intervals, *[SANITIZER] * target.sanitizer_threads()]
    assert len(threads) == len(intervals), threads
    with Strace(unit.daemon.process, unit.sandbox.logs / "strace", "-s", "100") as trace:
        # What was under way is over when the main thread comes to this.
        unit.daemon.signal(signal.SIGHUP)
        trace.expect(AT_REST_SINCE)
        used = processor_seconds(unit)
        wait_until(lambda: length(since_rest(trace)) >= PERIOD, "the measured time is over")
        used = processor_seconds(unit) - used
    calls = since_rest(trace)
    waits = Counter(call.thread for call in calls if WAIT.search(call.text))
    for count, interval in zip(sorted(waits[thread] for thread in threads),
                               sorted(intervals, reverse=True)):
        assert count <= length(calls) / interval + EDGES, waits
    assert used < 0.05 * PERIOD * timeouts.SCALE, f"{used} s of processor time"


def since_rest(trace: Strace) -> list[Call]:
    """The calls from the one on that shows that the main thread has nothing more to do."""
    calls = trace.made()
    begin = next(at for at, call in enumerate(calls) if re.search(AT_REST_SINCE, call.text))
    return calls[begin:]


def length(calls: list[Call]) -> float:
    """The seconds from the first to the last call."""
    return calls[-1].begun - calls[0].begun


@pytest.mark.native("other threads would be seen")
def test_at_rest_nothing_but_its_own_waits_wakes_it(running_unit: Unit) -> None:
    running_unit.hal.plug("usb stick")
    running_unit.application.expect_message("dataarrival")
    running_unit.settle()
    expect_rest(running_unit, AT_REST)


@pytest.mark.native("other threads would be seen")
def test_at_rest_with_a_network_the_browser_sleeps_too(make_unit, network: Network) -> None:
    unit = make_unit(network=network, address="169.254.1.1")
    unit.start_daemon()
    wait_until(lambda: "(10000)" in sockets(unit), "the browser listens")
    unit.settle()
    expect_rest(unit, [NEVER, NEVER, NEVER, CLIENT, PUBLISHER, SERVICE_LIST])


def sockets(unit: Unit) -> str:
    """The ports of the unit's UDP sockets, each in parentheses."""
    table = unit.sandbox.in_network(Path("/proc/thread-self/net/udp").read_text)
    return " ".join(f"({int(line.split()[1].rpartition(':')[2], 16)})"
                    for line in table.splitlines()[1:])


@pytest.mark.native("other threads would be seen")
def test_without_its_bus_the_daemon_rests(running_unit: Unit) -> None:
    running_unit.bus.kill()
    running_unit.daemon.log.expect(Wanted(
        "a line about the loss", lambda event: event.data and event.data.level <= WARNING))
    expect_rest(running_unit, AT_REST)


@pytest.mark.native("other threads would be seen")
def test_without_the_application_the_daemon_rests(running_unit: Unit) -> None:
    running_unit.application.leave()
    running_unit.hal.plug("usb stick")
    running_unit.settle()
    expect_rest(running_unit, AT_REST)


@pytest.mark.native("its poll would be seen")
def test_no_deadline_of_an_answered_call_keeps_the_main_loop_awake(running_unit: Unit,
                                                                   log_directory: Path) -> None:
    running_unit.hal.command("delay Mount 300")
    running_unit.hal.plug("usb stick")
    running_unit.application.expect_message("dataarrival")
    running_unit.settle()
    pid = running_unit.daemon.process.pid
    with Strace(running_unit.daemon.process, log_directory / "strace", "-e", "trace=poll,ppoll",
                thread=pid) as strace:
        for number in range(1, 4):
            running_unit.daemon.signal(signal.SIGHUP)
            running_unit.daemon.expect_log(INFO, "Starting new log file")
            strace.expect(r"\], 2, -1", number)  # waits without a deadline again
    # A call waits for its answer with the bus alone, as the last one did if strace came upon it.
    assert strace.times(r"\], 2, [1-9]") == []


def standard_streams(unit: Unit) -> dict[int, str]:
    """The descriptors that the daemon was started with."""
    descriptors = unit.daemon.process.descriptors()
    return {number: descriptors[number] for number in range(3)}


def test_every_descriptor_is_closed_on_exec(make_unit, network: Network) -> None:
    """With the bus, the announcements and a connection that hangs all open."""
    unit = make_unit(network=network, address="169.254.1.1")
    unit.start_daemon()
    unit.application.listen(Mode.NEVER_ACCEPT)
    unit.hal.plug("usb stick")
    unit.settle()
    wait_until(lambda: "(10000)" in sockets(unit), "the browser listens")
    wait_until(lambda: len(unit.daemon.process.descriptors()) >= 8, "all is open")
    assert unit.daemon.process.inherited_descriptors() == standard_streams(unit)


@pytest.mark.parametrize("log_file", ["/var/log/voldrake.log", None], ids=["log file", "syslog"])
def test_a_tool_gets_the_standard_streams_only(make_unit, network: Network,
                                               log_file: str | None) -> None:
    unit = make_unit(network=network, address="169.254.1.1")
    unit.add_tool("exportfs", "#!/bin/sh\nexec ls /run/proc/self/fd >> /srv/descriptors\n")
    unit.sandbox.path("/srv/descriptors").touch()
    unit.daemon.start(log_file=log_file)
    unit.hal.expect_call("FindDeviceByCapability")
    unit.settle()
    unit.hal.plug("usb stick")
    unit.application.expect_message("dataarrival")
    unit.hal.pull("stick")
    unit.application.expect_message("dataremoval")
    unit.settle()
    seen = set(unit.content("/srv/descriptors").split())
    assert seen == {"0", "1", "2", "3"}  # the last is the directory that the tool itself reads
