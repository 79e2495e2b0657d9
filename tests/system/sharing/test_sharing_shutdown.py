"""The end: what is withdrawn, in which order, and how long the NFS clients of other units get."""

import os
import re
from pathlib import Path

import pytest

from share_helpers import listens, mount, start_listening, start_sharing, start_with_peer, unmount
from testbed import timeouts
from testbed.daemon import INFO
from testbed.otherunit import WITHDRAWN, Announcement
from testbed.strace import Strace
from testbed.waiting import wait_until

CLOSING = "CUdpRxSocket::Close: Closing port: 10000"
RMTAB = "/var/lib/nfs/rmtab"
SOURCE = "169.254.3.7:/media/sda1"
DIRECTORY = "/mnt/169.254.3.7:-media-sda1"
REMOVAL = ('<message version="1" type="datasource"><content>'
           f'<dataremoval path="{DIRECTORY}"/></content></message>')


def traced_end(unit, log_directory) -> Strace:
    """Traces what the main thread looks at, sends and sleeps."""
    return Strace(unit.daemon.process, log_directory / "strace", "-e",
                  "trace=/stat,sendto,/nanosleep", thread=unit.daemon.process.pid)


def naps(strace: Strace) -> list[int]:
    """The whole seconds that the thread has asked to sleep for."""
    asked = [re.search(r"nanosleep.*?\{tv_sec=(\d+), tv_nsec=0\}", line)
             for line in strace.lines()]
    return [int(match[1]) for match in asked if match and match[1] != "0"]


def state(unit) -> str:
    """The state of the daemon's process, as in proc(5)."""
    stat = Path(f"/proc/{unit.daemon.process.pid}/stat").read_text()
    return stat.rpartition(")")[2].split()[0]


@pytest.mark.usefixtures("traced_to_its_end")
def test_every_volume_is_withdrawn_at_once_and_nothing_announced_after(unit, tools, peer,
                                                                       log_directory) -> None:
    start_with_peer(unit, peer, "--internal-share-path", "/srv/charts")
    unit.hal.plug("usb stick")
    peer.expect_announcement("/media/sda1")
    since = unit.mark()
    with traced_end(unit, log_directory) as strace:
        unit.daemon.signal(15)
        assert unit.daemon.wait() == 0
    steps = re.findall(r"^(sendto|\w*nanosleep)(?=\(.*224\.1\.1\.1|.*\{tv_sec=[1-9])",
                       "\n".join(strace.lines()), re.MULTILINE)
    assert [step.removeprefix("clock_") for step in steps] == ["sendto"] * 2 + ["nanosleep"] * 2
    announcements = [one.announcement() for one in peer.heard(since)]
    heard = [(one.message_type, one.path) for one in announcements]
    assert heard[-2:] == [(WITHDRAWN, "/media/sda1"), (WITHDRAWN, "/srv/charts")]
    assert WITHDRAWN not in [message_type for message_type, _ in heard[:-2]]
    texts = [line.text for line in unit.daemon.log_lines(since)
             if line.text in ("Handling SIGTERM", "Exiting", CLOSING)]
    assert texts == ["Handling SIGTERM", "Exiting", CLOSING]
    assert [call for call in tools.calls(since) if call != "exportfs -f"] == []


@pytest.mark.usefixtures("traced_to_its_end")
@pytest.mark.parametrize("rmtab", [None, 1000], ids=["is missing", "does not change"])
def test_the_end_takes_three_seconds_when_the_table_of_remote_mounts(unit, tools, log_directory,
                                                                     rmtab: int | None) -> None:
    if rmtab:
        unit.sandbox.write(RMTAB, "169.254.3.7:/media/sda1:0x00000001\n")
        os.utime(unit.sandbox.path(RMTAB), (rmtab, rmtab))
    start_sharing(unit)
    with traced_end(unit, log_directory) as strace:
        assert unit.daemon.terminate() == 0
    assert naps(strace) == [1, 2]


@pytest.mark.usefixtures("traced_to_its_end")
@pytest.mark.parametrize("changes", [1, 4, 6], ids=[
    "once, two seconds more", "four times, seven seconds", "for ever, five measurements"])
def test_the_end_waits_while_the_table_of_remote_mounts_changes(unit, tools, log_directory,
                                                                changes: int) -> None:
    """It is measured once a second. Each change is made between two measurements, for which the
    daemon is stopped."""
    unit.sandbox.write(RMTAB, "")
    table = unit.sandbox.path(RMTAB)
    os.utime(table, (1000, 1000))
    start_sharing(unit)
    changed = set()
    with traced_end(unit, log_directory) as strace:
        unit.daemon.signal(15)
        for change in range(1, min(changes, 5) + 1):
            strace.expect("rmtab", change)
            unit.daemon.process.pause()
            wait_until(lambda: state(unit) == "t", "it is stopped")
            measured = sum("rmtab" in line for line in strace.lines())
            os.utime(table, (1000 + change, 1000 + change))
            changed.add(measured)
            unit.daemon.process.resume()
        assert unit.daemon.wait(timeouts.STOP + 5) == 0
    unchanged = next(number for number in range(1, 7) if number not in changed)
    assert naps(strace) == ([1] * unchanged + [2] if unchanged < 6 else [1] * 5)


def test_shares_that_are_left_are_unmounted_and_reported_once_each(unit, tools, make_peer) -> None:
    peers = [make_peer(f"169.254.3.{number}") for number in (7, 8)]
    start_listening(unit)
    for other in peers:
        other.announce(Announcement("/media/sda1"), Announcement("/media/sdb1"))
    for _ in range(4):
        unit.application.expect_message("dataarrival")
    since = unit.mark()
    unit.daemon.signal(15)
    unit.daemon.expect_log(INFO, CLOSING, timeouts.STOP)
    directories = [f"/mnt/169.254.3.{number}:-media-{name}"
                   for number in (7, 8) for name in ("sda1", "sdb1")]
    for directory in directories:
        unit.application.expect_message("dataremoval", path=directory)
    assert unit.daemon.wait() == 0
    assert tools.calls(since) == [unmount(directory) for directory in directories]
    assert len(unit.application.frames(since)) == 4
    assert os.listdir(unit.sandbox.path("/mnt")) == []


@pytest.mark.undelayed("its first sleep is held")
def test_shares_are_still_heard_while_the_clients_get_their_time(unit, tools, peer,
                                                                 log_directory) -> None:
    start_listening(unit)
    # Its first sleep lasts until the trace ends, however late this test is.
    with Strace(unit.daemon.process, log_directory / "strace", "-e", "trace=/nanosleep",
                "-e", "inject=/nanosleep:delay_enter=600s", thread=unit.daemon.process.pid):
        unit.daemon.signal(15)
        unit.daemon.expect_log(INFO, "Exiting")
        peer.send(Announcement("/media/sda1"))
        unit.application.expect_message("dataarrival", path=DIRECTORY)
    assert unit.application.next_text(timeouts.STOP) == REMOVAL
    assert unit.daemon.wait() == 0


@pytest.mark.usefixtures("traced_to_its_end")
def test_an_absent_application_holds_up_the_end_for_a_limited_time(unit, tools, peer,
                                                                   log_directory) -> None:
    start_listening(unit)
    peer.announce(Announcement("/media/sda1"))
    unit.application.expect_message("dataarrival")
    unit.application.leave()
    with traced_end(unit, log_directory) as strace:
        assert unit.daemon.terminate() == 0
    assert naps(strace) == [1, 2]
    assert os.listdir(unit.sandbox.path("/mnt")) == []


@pytest.mark.usefixtures("traced_to_its_end")
def test_without_a_network_the_end_is_as_orderly(unit, tools, peer, log_directory) -> None:
    start_sharing(unit, "--internal-share-path", "/srv/charts")
    peer.expect_announcement("/srv/charts")
    unit.daemon.log.seek(unit.mark())
    unit.eth0.clear_address()
    unit.daemon.expect_log(INFO, "CServicePublisher: Network Config Changed")
    since = peer.mark()
    with traced_end(unit, log_directory) as strace:
        assert unit.daemon.terminate() == 0
    assert naps(strace) == [1, 2]
    assert peer.heard(since) == []


@pytest.mark.unit_options(address=None)
def test_a_socket_that_never_was_is_not_closed(unit, tools) -> None:
    unit.start_daemon()
    assert not listens(unit)
    assert unit.daemon.terminate() == 0
    assert unit.daemon.logged(INFO, CLOSING) == 0


def test_the_receive_socket_is_closed_once(unit, tools) -> None:
    start_sharing(unit)
    assert unit.daemon.terminate() == 0
    assert unit.daemon.logged(INFO, CLOSING) == 1
    assert not [line for line in unit.daemon.log_lines() if "DropSavedMultiCast" in line.text]


def test_nothing_is_left_to_do_for_a_share_whose_mount_hangs(unit, tools, peer) -> None:
    """The daemon cannot end before its command does, and ends in order then."""
    start_listening(unit)
    tools.hold("mount -t nfs")
    peer.send(Announcement("/media/sda1"))
    tools.expect(mount("ro", SOURCE, DIRECTORY))
    unit.daemon.signal(15)
    unit.daemon.expect_log(INFO, "Exiting")
    tools.obey()
    assert unit.daemon.wait() == 0
    kinds = [frame.message().kind for frame in unit.application.frames()]
    assert kinds == ["dataarrival", "dataremoval"]
    assert re.search(r"umount", " ".join(tools.calls()))
