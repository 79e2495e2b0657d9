"""What the daemon costs at rest, and what it hands on to the tools that it runs."""

import os
import signal
import time
from pathlib import Path

import pytest

from observations import processor_seconds, wait_until, wake_ups
from testbed import timeouts
from testbed.application import Mode
from testbed.daemon import INFO
from testbed.network import Network
from testbed.strace import Strace
from testbed.unit import Unit

PERIOD = 2.0
# The most wakings in PERIOD, two at the edges included. Threads that only wait for events: the main
# thread, the one that catches signals for it, the browser on a network.
EVENTS_ONLY = 2
CLIENT = 4 + 2  # the message client, every 500 ms
SERVICE_LIST = 20 + 2  # every 100 ms
# The publisher every 1000 ms and, while there is no network, the browser every 100 ms look at the
# interface; the kernel lets them wait while another process of the machine works on its own.
PUBLISHER = 2 + 4
BROWSER = 20 + 15
AT_REST = [EVENTS_ONLY, EVENTS_ONLY, CLIENT, PUBLISHER, SERVICE_LIST, BROWSER]


def expect_rest(unit: Unit, limits: list[int]) -> None:
    """The daemon's threads wake at most as often as `limits` says, and hardly do anything."""
    before, begin, used = wake_ups(unit), time.monotonic(), processor_seconds(unit)
    time.sleep(PERIOD)  # the time that is measured
    after, stretch = wake_ups(unit), (time.monotonic() - begin) / PERIOD
    used = processor_seconds(unit) - used
    assert after.keys() == before.keys()
    counts = sorted(after[thread] - before[thread] for thread in after)
    assert len(counts) == len(limits), counts
    for count, limit in zip(counts, sorted(limits)):
        assert count <= limit * stretch, counts
    assert used < 0.05 * PERIOD * timeouts.SCALE, f"{used} s of processor time"


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
    expect_rest(unit, [*[EVENTS_ONLY] * 3, CLIENT, PUBLISHER, SERVICE_LIST])


def sockets(unit: Unit) -> str:
    """The ports of the unit's UDP sockets, each in parentheses."""
    table = unit.sandbox.in_network(Path("/proc/thread-self/net/udp").read_text)
    return " ".join(f"({int(line.split()[1].rpartition(':')[2], 16)})"
                    for line in table.splitlines()[1:])


@pytest.mark.native("other threads would be seen")
def test_without_its_bus_the_daemon_rests(running_unit: Unit) -> None:
    running_unit.bus.kill()
    running_unit.daemon.signal(1)
    running_unit.daemon.expect_log(3, "Starting new log file")
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
        for _ in range(3):
            running_unit.daemon.signal(signal.SIGHUP)
            running_unit.daemon.expect_log(INFO, "Starting new log file")
        strace.expect(r"\], \d+, -1\)", 2)
    assert strace.times(r"\], \d+, [1-9]") == []


def inherited_by_a_tool(unit: Unit) -> set[str]:
    """The descriptors of those that the daemon has open which a program that it runs gets."""
    found = set()
    for descriptor in Path(f"/proc/{unit.daemon.process.pid}/fdinfo").iterdir():
        try:
            flags = int(descriptor.read_text().split("flags:")[1].split()[0], 8)
            target = os.readlink(descriptor.parent.parent / "fd" / descriptor.name)
        except FileNotFoundError:
            continue  # closed meanwhile
        if not flags & os.O_CLOEXEC:
            found.add(f"{descriptor.name} {target}")
    return found


def standard_streams(unit: Unit) -> set[str]:
    """The descriptors that the daemon was started with."""
    return {f"{number} {os.readlink(f'/proc/{unit.daemon.process.pid}/fd/{number}')}"
            for number in range(3)}


def test_every_descriptor_is_closed_on_exec(make_unit, network: Network) -> None:
    """With the bus, the announcements and a connection that hangs all open."""
    unit = make_unit(network=network, address="169.254.1.1")
    unit.start_daemon()
    unit.application.listen(Mode.NEVER_ACCEPT)
    unit.hal.plug("usb stick")
    unit.settle()
    wait_until(lambda: "(10000)" in sockets(unit), "the browser listens")
    descriptors = Path(f"/proc/{unit.daemon.process.pid}/fd")
    wait_until(lambda: len(list(descriptors.iterdir())) >= 8, "all is open")
    assert inherited_by_a_tool(unit) == standard_streams(unit)


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
    seen = set(unit.sandbox.path("/srv/descriptors").read_text().split())
    assert seen == {"0", "1", "2", "3"}  # the last is the directory that the tool itself reads
