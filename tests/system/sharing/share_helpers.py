"""What several tests of sharing need: command lines as the tools see them, and waiting."""

import os
import re
import time
from pathlib import Path

import pytest

from testbed import target
from testbed.daemon import DEBUG, INFO
from testbed.otherunit import OtherUnit
from testbed.strace import Strace
from testbed.unit import Unit
from testbed.waiting import wait_until

CLEAR_EXPORTS = "exportfs -a -r"
FLUSH_EXPORTS = "exportfs -f"

#: Seconds that a share lives after an announcement, in ticks of 100 ms; the first may fall due at
#: once.
LIFE = 2.8

#: In a trace: an announcement or withdrawal of the daemon's own that is sent.
TO_GROUP = "sendto.*224.1.1.1"
#: Seconds between two passes of the publisher, less what the clock of a trace may be off.
PASS = 0.99

_GROUP_IN_KERNEL_TABLE = "010101E0"  # 224.1.1.1


def export(mode: str, client: str, path: str) -> str:
    """Exporting a path to a client ("*" is everybody)."""
    return f"exportfs -o {mode},no_root_squash,no_subtree_check {client}:{path}"


def mount(mode: str, source: str, directory: str) -> str:
    """Mounting another unit's share."""
    return f"mount -t nfs -o {mode},rsize=1280,soft,udp,noatime,nodiratime {source} {directory}"


def unmount(directory: str) -> str:
    """Unmounting it."""
    return f"umount -f -l {directory}"


def network_table(unit: Unit, name: str) -> str:
    """A table of the unit's network, such as "udp" or "igmp"."""
    return unit.sandbox.in_network(lambda: Path("/proc/thread-self/net", name).read_text())


def listens(unit: Unit) -> bool:
    """True while a program of the unit is a member of the announcements' group."""
    return _GROUP_IN_KERNEL_TABLE in network_table(unit, "igmp")


def nothing_waits(unit) -> bool:
    """True when the daemon has taken every datagram from its socket."""
    waiting = re.search(r":2710 \S+ \S+ \w+:(\w+)", network_table(unit, "udp"))
    assert waiting
    return int(waiting[1], 16) == 0


def ignores_unknown_types() -> bool:
    """Whether the daemon was built to drop them."""
    return target.built_with("VOLDRAKE_IGNORE_UNKNOWN_ANNOUNCEMENTS")


def skip_where_senders_are_not_looked_up() -> None:
    """Skip the test where the daemon is emulated: no user-mode emulator knows SIOCGARP."""
    if target.emulated():
        test = os.environ["PYTEST_CURRENT_TEST"].rpartition("::")[2].removesuffix(" (call)")
        pytest.skip(f"{test}: the emulator does not pass on questions for hardware addresses")


def start_listening(unit: Unit, *arguments: str) -> None:
    """As `start_sharing`, for a test that needs the daemon to take what it hears."""
    skip_where_senders_are_not_looked_up()
    start_sharing(unit, *arguments)


def start_sharing(unit: Unit, *arguments: str) -> None:
    """Start the daemon and return when it hears announcements and has made its first exports.

    Requires: eth0 is up with its address; nothing else in the unit is a member of the group.
    """
    unit.start_daemon(*arguments)
    wait_until(lambda: listens(unit), "the daemon hears announcements")
    if "--debuglevel" not in arguments:
        wait_until(lambda: unit.daemon.logged(DEBUG, "CServicePublisher: Restarting nfsd done") > 0,
                   "the exports are made")


def start_with_peer(unit: Unit, peer: OtherUnit, *arguments: str) -> None:
    """Start the daemon and have it discover the peer, which announces nothing."""
    start_listening(unit, "--peer-mac", peer.eth0.hardware_address(), *arguments)
    peer.send(b"")
    unit.daemon.expect_log(
        INFO, f"CServicePublisher::SetPeerIpAddress Discovered peer IP address: {peer.address}")


def seconds_of_silence(strace: Strace) -> float:
    """From the last announcement, when its sender is looked up, until a share is unmounted, by the
    daemon's clock. Requires: its calls of ioctl and execve are traced."""
    return strace.times("execve.*umount -f -l")[0] - strace.times("SIOCGARP")[-1]


def gaps(times: list[float]) -> list[float]:
    """The seconds between each time and the next."""
    return [later - earlier for earlier, later in zip(times, times[1:])]


def open_descriptors(unit: Unit) -> int:
    """How many descriptors the daemon has."""
    return len(unit.daemon.process.descriptors())


def processor_share(unit: Unit, seconds: float) -> float:
    """The share of one core that the daemon takes during that time from now on."""
    before, began = processor_seconds(unit), time.monotonic()
    time.sleep(seconds)
    return (processor_seconds(unit) - before) / (time.monotonic() - began)


def processor_seconds(unit: Unit) -> float:
    """User and system time; what the commands that it runs take does not count."""
    stat = Path(f"/proc/{unit.daemon.process.pid}/stat").read_text()
    user, system = stat.rpartition(")")[2].split()[11:13]
    return (int(user) + int(system)) / os.sysconf("SC_CLK_TCK")


def reading_thread(unit: Unit) -> int:
    """The daemon's thread that waits for a datagram."""
    threads = Path(f"/proc/{unit.daemon.process.pid}/task")

    def waiting() -> list[str]:
        return [thread for thread in os.listdir(threads)
                if "skb" in (threads / thread / "wchan").read_text()]

    wait_until(lambda: len(waiting()) == 1, "one thread waits for a datagram")
    return int(waiting()[0])


def add_quick_tools(unit: Unit) -> None:
    """Tools that do nothing and are not recorded, for those who run very many."""
    for tool in ("exportfs", "mount", "mountpoint", "umount"):
        unit.add_tool(tool, "#!/bin/sh\nexit 0\n")
