"""Two and three whole units on one wire: what is plugged into one is read on the others."""

import os
import re
import threading
from contextlib import contextmanager
from typing import Callable, Iterator

import pytest

from share_helpers import (LIFE, listens, mount, seconds_of_silence,
                           skip_where_senders_are_not_looked_up, unmount)
from testbed.application import message
from testbed.daemon import INFO
from testbed.network import Network
from testbed.nfs import NfsTools
from testbed.otherunit import Announcement, OtherUnit
from testbed.strace import Strace
from testbed.unit import Unit
from testbed.waiting import wait_until

STICK = "usb stick"
FILE = "charts/harbour.txt"


@pytest.fixture
def make_units(make_unit: Callable[..., Unit], network: Network) -> Callable[..., list[Unit]]:
    """Makes so many units, each with the stand-in tools that read one another's files, as
    `unit.tools`, and starts their daemons; `peers` maps a unit's number to that of its peer."""
    def make(count: int, peers: dict[int, int] | None = None) -> list[Unit]:
        skip_where_senders_are_not_looked_up()
        neighbours: list[NfsTools] = []
        units = [make_unit(network=network, address=f"169.254.{number + 1}.1")
                 for number in range(count)]
        for number, unit in enumerate(units):
            unit.tools = NfsTools(unit, neighbours)
            unit.sandbox.write("/srv/volumes/sda1/" + FILE, f"written on unit {number}")
        for number, unit in enumerate(units):
            peer = (peers or {}).get(number)
            mac = "" if peer is None else units[peer].eth0.hardware_address()
            unit.start_daemon("--peer-mac", mac)
        for unit in units:
            wait_until(lambda: listens(unit), "the daemon hears announcements")
        return units

    return make


def directory(number: int, path: str = "/media/sda1") -> str:
    """Where the others mount this path of the unit of this number."""
    return f"/mnt/169.254.{number + 1}.1:{path.replace('/', '-')}"


def source(number: int, path: str = "/media/sda1") -> str:
    return f"169.254.{number + 1}.1:{path}"


@contextmanager
def in_its_name(peer: OtherUnit, address: str, share: Announcement) -> Iterator[None]:
    """Meanwhile the peer announces the share as if it came from this address."""
    ended = threading.Event()

    def announce() -> None:
        while not ended.wait(0.1):
            peer.send_from(address, share)

    announcing = threading.Thread(target=announce)
    announcing.start()
    try:
        yield
    finally:
        ended.set()
        announcing.join()


def test_a_stick_in_one_unit_is_read_in_the_other(make_units) -> None:
    first, second = make_units(2)
    first.hal.plug(STICK)
    assert second.application.next_text() == (
        '<message version="1" type="datasource"><content>'
        f'<dataarrival path="{directory(0)}" type="memorycard" key="" contentid=""'
        ' serialnumber="" friendlyname="USB Mass Storage" remote="true" readonly="true"'
        ' fixed="false" /></content></message>')
    assert second.tools.calls(tool="mount") == [mount("ro", source(0), directory(0))]
    read = second.sandbox.run(["cat", f"{directory(0)}/{FILE}"])
    assert read.stdout == "written on unit 0"
    assert "Read-only" in second.sandbox.run(["touch", f"{directory(0)}/new"]).stderr
    first.hal.pull("stick")
    assert second.application.next_text() == (
        '<message version="1" type="datasource"><content>'
        f'<dataremoval path="{directory(0)}"/></content></message>')
    assert os.listdir(second.sandbox.path("/mnt")) == []
    assert len(first.application.frames()) == 2


def test_both_directions_work_at_once(make_units) -> None:
    units = make_units(2)
    for unit in units:
        unit.hal.plug(STICK)
    for number, unit in enumerate(units):
        other = 1 - number
        unit.application.events.seek(0)
        unit.application.expect_message("dataarrival", path="/media/sda1")
        unit.application.events.seek(0)
        unit.application.expect_message("dataarrival", path=directory(other))
        read = unit.sandbox.run(["cat", f"{directory(other)}/{FILE}"])
        assert read.stdout == f"written on unit {other}"
    for unit in units:
        assert len(unit.tools.calls(tool="mount")) == 1


def test_the_peer_may_write_and_its_writing_is_read(make_units) -> None:
    first, second = make_units(2, peers={0: 1, 1: 0})
    second.hal.plug(STICK)  # so that it is discovered
    first.application.expect_message("dataarrival")
    first.daemon.expect_log(
        INFO, "CServicePublisher::SetPeerIpAddress Discovered peer IP address: 169.254.2.1")
    first.hal.plug(STICK)
    arrival = second.application.expect_message("dataarrival", path=directory(0))
    assert (arrival["type"], arrival["remote"], arrival["readonly"]) == (
        "harddrive", "false", "false")
    assert mount("rw", source(0), directory(0)) in second.tools.calls()
    second.sandbox.path(f"{directory(0)}/new").write_text("from the peer")
    assert first.sandbox.path("/media/sda1/new").read_text() == "from the peer"


def test_a_read_only_stick_is_read_only_for_the_peer_too(make_units) -> None:
    first, second = make_units(2, peers={0: 1, 1: 0})
    first.hal.plug(f"{STICK} readonly")
    assert second.application.expect_message("dataarrival")["readonly"] == "true"
    assert "Read-only" in second.sandbox.run(["touch", f"{directory(0)}/new"]).stderr


def test_a_unit_killed_without_farewell_is_forgotten(make_units, log_directory) -> None:
    first, second = make_units(2)
    first.hal.plug(STICK)
    second.application.expect_message("dataarrival")
    with Strace(second.daemon.process, log_directory / "strace", "-e", "trace=ioctl,execve",
                "-s", "1000") as strace:
        strace.expect("SIOCGARP")
        first.daemon.kill()
        second.application.expect_message("dataremoval", path=directory(0))
    assert seconds_of_silence(strace) > LIFE
    assert second.tools.calls(tool="umount") == [unmount(directory(0))]
    second.settle()


def test_an_orderly_farewell_takes_the_shares_away(make_units) -> None:
    first, second = make_units(2)
    first.hal.plug(STICK)
    second.application.expect_message("dataarrival")
    first.daemon.signal(15)
    second.application.expect_message("dataremoval", path=directory(0))
    assert first.daemon.wait() == 0
    assert len(second.application.frames()) == 2


def test_a_unit_that_is_back_before_its_shares_are_forgotten_was_never_away(
        make_units, network, log_directory) -> None:
    first, second = make_units(2)
    first.hal.plug(STICK)
    second.application.expect_message("dataarrival")
    with OtherUnit(network, log_directory / "peer", "169.254.3.7") as peer:
        with in_its_name(peer, "169.254.1.1", Announcement("/media/sda1")):
            first.daemon.kill()
            first.start_daemon()
            peer.expect_announcement("/media/sda1")
        first.application.expect_message("dataarrival")
        second.hal.plug("usb last")
        assert second.application.frames(
            until=message("dataarrival", path="/media/sda1"))[1:] == []
    assert second.sandbox.run(["cat", f"{directory(0)}/{FILE}"]).stdout == "written on unit 0"


def test_the_cable_pulled_and_plugged(make_units) -> None:
    first, second = make_units(2)
    first.hal.plug(STICK)
    second.hal.plug(STICK)
    for number, unit in enumerate((first, second)):
        unit.application.events.seek(0)
        unit.application.expect_message("dataarrival", path=directory(1 - number))
    first.eth0.pull_cable()
    for number, unit in enumerate((first, second)):
        unit.application.expect_message("dataremoval", path=directory(1 - number))
    first.eth0.plug_cable()
    for number, unit in enumerate((first, second)):
        unit.application.expect_message("dataarrival", path=directory(1 - number))
        assert unit.links() == {"USB Memory Card A1": "sda1"}, "local volumes are untouched"


def test_a_refused_mount_is_tried_again(make_units) -> None:
    first, second = make_units(2)
    second.tools.refuse("mount -t nfs", 32)
    first.hal.plug(STICK)
    for _ in range(3):
        second.tools.expect(mount("ro", source(0), directory(0)))
    second.tools.obey()
    second.application.expect_message("dataarrival", path=directory(0))
    assert second.sandbox.run(["cat", f"{directory(0)}/{FILE}"]).stdout == "written on unit 0"


def test_republishing_reports_shares_and_keeps_them_readable(make_units) -> None:
    first, second = make_units(2)
    first.hal.plug(STICK)
    second.application.expect_message("dataarrival")
    second.daemon.signal(10)
    second.application.expect_message("dataarrival", path=directory(0))
    assert second.tools.calls(tool="mount") == [mount("ro", source(0), directory(0)),
                                                f"mount -o remount,ro {directory(0)}"]
    assert second.sandbox.run(["cat", f"{directory(0)}/{FILE}"]).stdout == "written on unit 0"


def test_a_stick_in_one_of_three_units_is_read_in_the_others(make_units) -> None:
    units = make_units(3)
    units[1].hal.plug(STICK)
    for number in (0, 2):
        units[number].application.expect_message("dataarrival", path=directory(1))
        read = units[number].sandbox.run(["cat", f"{directory(1)}/{FILE}"])
        assert read.stdout == "written on unit 1"
    units[1].hal.pull("stick")
    for number in (0, 2):
        units[number].application.expect_message("dataremoval", path=directory(1))


def test_the_peer_of_three_writes_and_the_third_only_reads(make_units) -> None:
    first, peer, third = make_units(3, peers={0: 1, 1: 0})
    peer.hal.plug(STICK)
    first.daemon.expect_log(INFO, re.compile(".*Discovered peer IP address: 169.254.2.1"))
    first.hal.plug(STICK)
    assert peer.application.expect_message("dataarrival", path=directory(0))["remote"] == "false"
    third.application.events.seek(0)
    assert third.application.expect_message("dataarrival", path=directory(0))["remote"] == "true"
    wait_until(lambda: len(first.tools.exports) == 2, "both exports")
    assert first.tools.exports == {
        "169.254.2.1:/media/sda1": "rw,no_root_squash,no_subtree_check",
        "*:/media/sda1": "ro,no_root_squash,no_subtree_check"}
    peer.sandbox.path(f"{directory(0)}/new").write_text("from the peer")
    assert third.sandbox.path(f"{directory(0)}/new").read_text() == "from the peer"
    assert "Read-only" in third.sandbox.run(["touch", f"{directory(0)}/mine"]).stderr


def test_the_same_path_on_two_units_is_two_shares_on_the_third(make_units) -> None:
    units = make_units(3)
    for number in (0, 1):
        units[number].hal.plug(STICK)
    for _ in range(2):
        units[2].application.expect_message("dataarrival")
    for number in (0, 1):
        read = units[2].sandbox.run(["cat", f"{directory(number)}/{FILE}"])
        assert read.stdout == f"written on unit {number}"
    units[0].hal.pull("stick")
    units[2].application.expect_message("dataremoval", path=directory(0))
    assert os.listdir(units[2].sandbox.path("/mnt")) == [os.path.basename(directory(1))]
