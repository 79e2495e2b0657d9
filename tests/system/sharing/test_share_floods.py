"""More announcements than units ever make: the daemon lives, and real shares come back."""

import signal
import time
from typing import Iterable

import pytest

from share_helpers import add_quick_tools, nothing_waits, start_listening, start_sharing
from testbed import timeouts
from testbed.daemon import WARNING
from testbed.otherunit import Announcement
from testbed.waiting import wait_until

REAL = Announcement("/media/real", name="real")
MANY = 10_000


def memory_megabytes(unit) -> float:
    """The most memory that the daemon has had."""
    return unit.daemon.process.status("VmHWM") / 1024


def flood(peer, seconds: float = 3.0) -> None:
    """Announce 10,000 distinct shares in that time."""
    began = time.monotonic()
    for number in range(MANY):
        peer.send(Announcement(f"/media/flood{number}", name=f"share {number}"))
        due = began + number * seconds / MANY
        while time.monotonic() < due:
            time.sleep(0.001)


def flood_as_it_is_read(unit, peer, numbers: Iterable[int]) -> None:
    """Announce these shares as fast as the daemon takes them."""
    for number in numbers:
        peer.send(Announcement(f"/media/flood{number}", name=f"share {number}"))
        if number % 20 == 0:
            wait_until(lambda: nothing_waits(unit), "the daemon has read the announcements")


@pytest.mark.slow
def test_ten_thousand_shares_pass_by(unit, make_peer) -> None:
    """Nobody takes the reports, which is the worst that can happen to the daemon's memory."""
    stranger, friend = make_peer("169.254.3.7"), make_peer("169.254.3.8")
    add_quick_tools(unit)
    start_listening(unit, "--debuglevel", "3")
    before = memory_megabytes(unit)
    friend.announce(REAL)
    unit.application.expect_message("dataarrival", path="/mnt/169.254.3.8:-media-real")
    unit.application.leave()
    flood(stranger)
    mounted = unit.sandbox.path("/mnt")
    wait_until(lambda: sum("flood" in path.name for path in mounted.iterdir()) > 100,
               "strange shares are mounted")
    assert memory_megabytes(unit) - before < 40 * timeouts.SCALE
    friend.announce(Announcement("/media/after"))
    wait_until((mounted / "169.254.3.8:-media-after").is_dir, "a real share is mounted")
    wait_until(lambda: not any("flood" in path.name for path in mounted.iterdir()),
               "the strange shares have gone", timeouts.RUN)
    wait_until((mounted / "169.254.3.8:-media-real").is_dir, "the real share is mounted")
    assert memory_megabytes(unit) - before < 40 * timeouts.SCALE
    unit.settle()
    assert unit.daemon.terminate() == 0
    assert unit.daemon.stderr() == ""


@pytest.mark.slow
def test_shares_are_refused_while_thousands_of_messages_wait(unit, peer) -> None:
    refusal = "OnServiceAdded: 4096 messages wait for the application, further shares are refused"
    add_quick_tools(unit)
    start_listening(unit, "--debuglevel", "3")
    unit.application.leave()
    for first in range(0, MANY, 500):
        flood_as_it_is_read(unit, peer, range(first, first + 500))
        if unit.daemon.logged(WARNING, refusal):
            break
    unit.daemon.expect_log(WARNING, refusal)
    directory = unit.sandbox.path("/mnt/169.254.3.7:-media-real")
    peer.announce(REAL)
    unit.daemon.signal(signal.SIGUSR1)
    wait_until(directory.is_dir, "the share is mounted, after all that are mounted anew",
             timeouts.RUN)
    assert unit.daemon.logged(WARNING, refusal) == 1


def test_the_end_does_not_wait_for_a_flood_to_pass(unit, peer) -> None:
    add_quick_tools(unit)
    start_sharing(unit, "--debuglevel", "3")
    unit.daemon.signal(15)
    flood(peer, 2.5)
    assert unit.daemon.wait(timeouts.RUN) == 0
    assert not any(unit.sandbox.path("/mnt").iterdir())


@pytest.mark.parametrize("prefix", ["169.254", "10.7"])
def test_a_thousand_senders_that_do_not_exist(unit, make_peer, prefix: str) -> None:
    stranger, friend = make_peer("169.254.3.7"), make_peer("169.254.3.8")
    add_quick_tools(unit)
    start_listening(unit, "--debuglevel", "3")
    friend.announce(REAL)
    unit.application.expect_message("dataarrival")
    errors = unit.mark()
    for number in range(1200):
        stranger.send_from(f"{prefix}.{100 + number // 250}.{1 + number % 250}", REAL)
    unit.settle()
    friend.announce(Announcement("/media/after"))
    unit.application.expect_message("dataarrival", path="/mnt/169.254.3.8:-media-after")
    assert len(unit.daemon.log_lines(errors)) < 50, "the log is not flooded"
    assert unit.daemon.terminate() == 0
