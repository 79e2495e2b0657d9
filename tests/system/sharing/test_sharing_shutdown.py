"""The end: what is withdrawn, in which order, and how long the NFS clients of other units get."""

import itertools
import os
import re
import threading
import time

import pytest

from share_helpers import listens, mount, start_listening, start_sharing, start_with_peer, unmount
from testbed import timeouts
from testbed.daemon import INFO
from testbed.peer import WITHDRAWN, Announcement

CLOSING = "CUdpRxSocket::Close: Closing port: 10000"
RMTAB = "/var/lib/nfs/rmtab"
SOURCE = "169.254.3.7:/media/sda1"
DIRECTORY = "/mnt/169.254.3.7:-media-sda1"
REMOVAL = ('<message version="1" type="datasource"><content>'
           f'<dataremoval path="{DIRECTORY}"/></content></message>')


def seconds_to_end(unit) -> float:
    began = time.monotonic()
    assert unit.daemon.terminate(timeouts.STOP + 5) == 0
    return time.monotonic() - began


def test_every_volume_is_withdrawn_at_once_and_nothing_announced_after(unit, tools, peer) -> None:
    start_with_peer(unit, peer, "--internal-share-path", "/srv/charts")
    unit.hal.plug("usb stick")
    peer.expect_announcement("/media/sda1")
    since = unit.mark()
    began = time.monotonic()
    unit.daemon.signal(15)
    peer.expect_announcement("/media/sda1", WITHDRAWN)
    peer.expect_announcement("/srv/charts", WITHDRAWN)
    assert time.monotonic() - began < timeouts.at_most(0)
    withdrawn = unit.tape.mark()
    assert unit.daemon.wait() == 0
    assert peer.heard(withdrawn) == []
    texts = [line.text for line in unit.daemon.log_lines(since)
             if line.text in ("Handling SIGTERM", "Exiting", CLOSING)]
    assert texts == ["Handling SIGTERM", "Exiting", CLOSING]
    assert [call for call in tools.calls(since) if call != "exportfs -f"] == []


@pytest.mark.parametrize("rmtab", [None, 1000], ids=["is missing", "does not change"])
def test_the_end_takes_three_seconds_when_the_table_of_remote_mounts(unit, tools, peer,
                                                                     rmtab: int | None) -> None:
    if rmtab:
        unit.sandbox.write(RMTAB, "169.254.3.7:/media/sda1:0x00000001\n")
        os.utime(unit.sandbox.path(RMTAB), (rmtab, rmtab))
    start_sharing(unit)
    assert 3.0 <= seconds_to_end(unit) < timeouts.at_most(3)


@pytest.mark.parametrize("changes_for, takes", [
    pytest.param(0.5, 4, id="once, two seconds more"),
    pytest.param(3.5, 7, id="four times, seven seconds"),
    pytest.param(30, 5, id="for ever, five measurements")])
def test_the_end_waits_while_the_table_of_remote_mounts_changes(unit, tools, peer,
                                                                changes_for: float,
                                                                takes: float) -> None:
    unit.sandbox.write(RMTAB, "")
    table = unit.sandbox.path(RMTAB)
    os.utime(table, (1000, 1000))
    start_sharing(unit)
    ended = threading.Event()

    def change() -> None:
        until = time.monotonic() + changes_for
        for stamp in itertools.count(1001):
            if time.monotonic() >= until or ended.wait(0.2):
                return
            os.utime(table, (stamp, stamp))

    began = time.monotonic()
    unit.daemon.signal(15)
    unit.daemon.expect_log(INFO, "Exiting")
    changing = threading.Thread(target=change)
    changing.start()
    try:
        assert unit.daemon.wait(timeouts.STOP + 5) == 0
    finally:
        ended.set()
        changing.join()
    assert takes <= time.monotonic() - began < timeouts.at_most(takes)


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
    stopped = time.monotonic()
    directories = [f"/mnt/169.254.3.{number}:-media-{name}"
                   for number in (7, 8) for name in ("sda1", "sdb1")]
    for directory in directories:
        unit.application.expect_message("dataremoval", path=directory)
    assert time.monotonic() - stopped < timeouts.at_most(2)
    assert unit.daemon.wait() == 0
    assert tools.calls(since) == [unmount(directory) for directory in directories]
    assert len(unit.application.frames(since)) == 4
    assert os.listdir(unit.sandbox.path("/mnt")) == []


def test_shares_are_still_heard_while_the_clients_get_their_time(unit, tools, peer) -> None:
    start_listening(unit)
    unit.daemon.signal(15)
    unit.daemon.expect_log(INFO, "Exiting")
    peer.send(Announcement("/media/sda1"))
    unit.application.expect_message("dataarrival", path=DIRECTORY)
    assert unit.application.next_text(timeouts.STOP) == REMOVAL
    assert unit.daemon.wait() == 0


def test_an_absent_application_holds_up_the_end_for_two_seconds_at_most(unit, tools, peer) -> None:
    start_listening(unit)
    peer.announce(Announcement("/media/sda1"))
    unit.application.expect_message("dataarrival")
    unit.application.leave()
    assert 3.0 <= seconds_to_end(unit) < timeouts.at_most(5)
    assert os.listdir(unit.sandbox.path("/mnt")) == []


def test_without_a_network_the_end_is_as_orderly(unit, tools, peer) -> None:
    start_sharing(unit, "--internal-share-path", "/srv/charts")
    peer.expect_announcement("/srv/charts")
    unit.daemon.log.seek(unit.mark())
    unit.eth0.clear_address()
    unit.daemon.expect_log(INFO, "CServicePublisher: Network Config Changed")
    since = unit.mark()
    assert 3.0 <= seconds_to_end(unit) < timeouts.at_most(3)
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
