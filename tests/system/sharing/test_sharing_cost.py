"""What sharing costs: system calls for one announcement, processor time for a thousand shares."""

import re
import time

import pytest

from share_helpers import (add_quick_tools, nothing_waits, processor_seconds, reading_thread,
                           start_listening)
from testbed import timeouts
from testbed.otherunit import Announcement
from testbed.strace import Strace
from testbed.waiting import wait_until

SHARE = Announcement("/media/sda1", name="A stick")
MANY = 1000
#: So many are announced before the daemon is waited for, and so many new ones in each round.
AT_ONCE, NEW_AT_ONCE = 20, 25
SECONDS = 3


@pytest.mark.undelayed("its calls are counted")
def test_an_announcement_of_a_known_share_takes_six_system_calls(unit, tools, peer,
                                                                log_directory) -> None:
    start_listening(unit)
    peer.send(SHARE)
    unit.application.expect_message("dataarrival")
    with Strace(unit.daemon.process, log_directory / "strace",
                thread=reading_thread(unit)) as strace:
        for number in range(1, 11):
            peer.send(SHARE)
            strace.expect("SIOCGARP", number)
        wait_until(lambda: strace.lines()[-1].startswith("recvmsg("), "it waits for the next")
    one = ["socket AF_INET", "ioctl SIOCGIFCONF", "ioctl SIOCGIFCONF", "close", "ioctl SIOCGARP",
           "recvmsg"]
    made = [kind for line in strace.lines() if (kind := kind_of(line)) != "futex"]
    first = made.index(one[0])  # before it there is the read that was interrupted by the tracing
    assert made[first:first + 60] == one * 10


def kind_of(line: str) -> str:
    """A call's name, and what is asked of the kernel where the name does not say it."""
    call = re.search(r"(\w+)(?:\(| resumed)(?:\d+, )?([A-Z_]*)", line)
    return f"{call[1]} {call[2]}".strip() if call else line


def test_a_thousand_shares_take_less_than_a_tenth_of_a_core(unit, peer) -> None:
    add_quick_tools(unit)
    start_listening(unit, "--debuglevel", "3")
    shares = [Announcement(f"/media/share{number}").encode() for number in range(MANY)]
    mounted = unit.sandbox.path("/mnt")

    def all_mounted() -> bool:
        announce(unit, peer, shares, 0.0)
        return len(list(mounted.iterdir())) == MANY

    for number in range(NEW_AT_ONCE, MANY, NEW_AT_ONCE):  # so that the known ones stay known
        announce(unit, peer, shares[:number], 0.0)
    wait_until(all_mounted, "all are mounted", timeouts.RUN)
    before = processor_seconds(unit)
    for _ in range(SECONDS):
        announce(unit, peer, shares, 1.0)
    used = (processor_seconds(unit) - before) / SECONDS
    wait_until(all_mounted, "all are mounted still")
    assert used < 0.1 * timeouts.SCALE


def announce(unit, peer, shares: list[bytes], seconds: float) -> None:
    """Announce the shares, evenly over that time or as fast as the daemon reads them."""
    due = time.monotonic()
    for first in range(0, len(shares), AT_ONCE):
        for share in shares[first:first + AT_ONCE]:
            peer.send(share)
        wait_until(lambda: nothing_waits(unit), "the daemon has read the announcements")
        due += seconds * AT_ONCE / len(shares)
        time.sleep(max(0.0, due - time.monotonic()))
