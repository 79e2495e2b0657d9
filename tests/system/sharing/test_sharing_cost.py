"""What sharing costs: system calls for one announcement, processor time for a thousand shares."""

import re
import threading
import time

import pytest

from share_helpers import add_quick_tools, processor_share, reading_thread, start_listening
from testbed import timeouts
from testbed.peer import Announcement
from testbed.strace import Strace
from testbed.waiting import wait_until

SHARE = Announcement("/media/sda1", name="A stick")
MANY = 1000


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
    stopping = threading.Event()

    def announce() -> None:
        due = time.monotonic()
        while not stopping.is_set():
            for number, share in enumerate(shares):
                peer.send(share)
                if number % 20 == 19:  # evenly over the second
                    due += 20 / MANY
                    stopping.wait(max(0.0, due - time.monotonic()))

    announcing = threading.Thread(target=announce)
    announcing.start()
    try:
        mounted = unit.sandbox.path("/mnt")
        wait_until(lambda: len(list(mounted.iterdir())) == MANY, "all are mounted", timeouts.RUN)
        used = processor_share(unit, 3.0)
        wait_until(lambda: len(list(mounted.iterdir())) == MANY, "all are mounted still")
    finally:
        stopping.set()
        announcing.join()
    assert used < 0.1 * timeouts.SCALE
