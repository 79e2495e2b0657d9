"""How other units' shares are reported: the peer's as they are, all others as foreign cards."""

import os
import re

import pytest

from share_helpers import mount, start_listening, unmount
from testbed.application import message
from testbed.daemon import ERROR, INFO, WARNING
from testbed.otherunit import Announcement

CID = "1b534d303030303010206bb243009ae5"  # with the right check digits
BAD_KEY = "Error computing CID CRC - Invalid CID length"
DIRECTORY = "/mnt/169.254.3.7:-media-sda1"
SOURCE = "169.254.3.7:/media/sda1"
CARD = Announcement("/media/sda1", key=CID, name="Memory Card - 1")
DISK = Announcement("/media/sda1", name="USB Mass Storage")


def read_only(share: Announcement) -> Announcement:
    return Announcement(share.path, share.key, share.name, 1)


def arrival(kind: str, key: str, name: str, remote: str, readonly: str) -> str:
    return ('<message version="1" type="datasource"><content>'
            f'<dataarrival path="{DIRECTORY}" type="{kind}" key="{key}" contentid=""'
            f' serialnumber="" friendlyname="{name}" remote="{remote}" readonly="{readonly}"'
            ' fixed="false" /></content></message>')


@pytest.mark.parametrize("share, mode, kind, readonly", [
    pytest.param(CARD, "rw", "memorycard", "false", id="a writable card"),
    pytest.param(read_only(CARD), "ro", "memorycard", "true", id="a read-only card"),
    pytest.param(DISK, "rw", "harddrive", "false", id="a writable disk"),
    pytest.param(read_only(DISK), "ro", "harddrive", "true", id="a read-only disk")])
def test_the_peer_has(unit, tools, peer, share: Announcement, mode: str, kind: str,
                      readonly: str) -> None:
    start_listening(unit, "--peer-mac", peer.eth0.hardware_address())
    peer.send(share)
    tools.expect(mount(mode, SOURCE, DIRECTORY))
    assert unit.application.next_text() == arrival(kind, share.key, share.name, "false", readonly)
    assert unit.daemon.logged(WARNING, BAD_KEY) == 0


@pytest.mark.parametrize("share", [
    pytest.param(CARD, id="a writable card"), pytest.param(read_only(CARD), id="a read-only card"),
    pytest.param(DISK, id="a writable disk"), pytest.param(read_only(DISK), id="a read-only disk")])
@pytest.mark.parametrize("peer_mac", ["", "02:00:00:00:00:01"],
                         ids=["nobody is the peer", "somebody else is the peer"])
def test_another_unit_has(unit, tools, peer, share: Announcement, peer_mac: str) -> None:
    start_listening(unit, "--peer-mac", peer_mac)
    peer.send(share)
    tools.expect(mount("ro", SOURCE, DIRECTORY))
    assert unit.application.next_text() == arrival("memorycard", share.key, share.name, "true",
                                                   "true")
    assert unit.daemon.logged(WARNING, BAD_KEY) == (0 if share.key else 1)


def test_a_card_of_another_unit_gets_its_check_digits_corrected(unit, tools, peer) -> None:
    start_listening(unit)
    peer.send(Announcement("/media/sda1", key=30 * "0" + "ff"))
    assert unit.application.expect_message("dataarrival")["key"] == 30 * "0" + "01"


@pytest.mark.parametrize("value", [2, 0x100, 0xFFFF])
def test_any_value_but_zero_means_read_only(unit, tools, peer, value: int) -> None:
    start_listening(unit, "--peer-mac", peer.eth0.hardware_address())
    peer.send(Announcement("/media/sda1", read_only=value))
    assert unit.application.expect_message("dataarrival")["readonly"] == "true"
    assert tools.calls(tool="mount") == [mount("ro", SOURCE, DIRECTORY)]


def test_the_removal_is_reported_even_if_unmounting_fails(unit, tools, peer) -> None:
    start_listening(unit)
    peer.share(DISK)
    unit.application.expect_message("dataarrival")
    tools.refuse("umount", 32)
    peer.withdraw(DISK)
    unit.application.expect_message("dataremoval", path=DIRECTORY)
    unit.daemon.expect_log(WARNING, f"Failed to remove {DIRECTORY}: Device or resource busy")
    unit.daemon.expect_log(ERROR, f"Umount command: {unmount(DIRECTORY)} FAIL")


@pytest.mark.parametrize("root, directory, path", [
    pytest.param("/srv", "/srv/169.254.3.7:-media-sda1", "/mnt/169.254.3.7:-media-sda1",
                 id="one step deep"),
    pytest.param("/srv/nfs/", "/srv/nfs-169.254.3.7:-media-sda1",
                 "/srv/nfs-169.254.3.7:-media-sda1", id="two steps deep: the third slash goes")])
def test_shares_are_mounted_under_the_nfs_root(unit, tools, peer, root: str, directory: str,
                                               path: str) -> None:
    """The path told to the application is mapped back only when it begins with the root."""
    start_listening(unit, "--nfs-root", root)
    peer.send(DISK)
    assert unit.application.expect_message("dataarrival")["path"] == path
    assert tools.calls(tool="mount") == [mount("ro", SOURCE, directory)]
    peer.send(DISK.withdrawal())
    assert unit.application.expect_message("dataremoval")["path"] == path
    assert tools.calls(tool="umount") == [unmount(directory)]


def test_republishing_remounts_and_reports_every_share_again(unit, tools, peer) -> None:
    start_listening(unit, "--peer-mac", peer.eth0.hardware_address())
    peer.announce(Announcement("/media/sdb1", read_only=1), DISK)
    for _ in range(2):
        unit.application.expect_message("dataarrival")
    since = unit.mark()
    unit.daemon.signal(10)
    unit.daemon.expect_log(INFO, "SIGUSR1: Republishing all mounted FS to VessaApp")
    other = "/mnt/169.254.3.7:-media-sdb1"
    for directory in (DIRECTORY, other):
        unit.daemon.expect_log(INFO, f"Mountpoint: '{directory}' is already mounted.")
        unit.application.expect_message("dataarrival", path=directory)
    assert tools.calls(since) == [
        f"mountpoint -q {DIRECTORY}", f"mount -o remount,rw {DIRECTORY}",
        f"mountpoint -q {other}", f"mount -o remount,ro {other}"]
    unit.daemon.expect_log(INFO, f"Mount command: 'mount -o remount,ro {other}' PASS")
    assert len(unit.application.frames(since)) == 2


def test_local_volumes_follow_the_shares_when_republished(unit, tools, peer) -> None:
    start_listening(unit)
    unit.hal.plug("usb stick")
    peer.announce(DISK)
    for _ in range(2):
        unit.application.expect_message("dataarrival")
    since = unit.mark()
    unit.daemon.signal(10)
    unit.application.expect_message("dataarrival", path=DIRECTORY)
    unit.application.expect_message("dataarrival", path="/media/sda1")
    assert [frame.message()["path"] for frame in unit.application.frames(since)] == [
        DIRECTORY, "/media/sda1"]


def test_a_share_that_cannot_be_mounted_again_stays_until_it_falls_silent(unit, tools,
                                                                          peer) -> None:
    start_listening(unit)
    announcer = peer.announce(DISK)
    unit.application.expect_message("dataarrival")
    tools.refuse("remount", 32)
    unit.daemon.signal(10)
    unit.daemon.expect_log(
        ERROR, f"Mount command: 'mount -o remount,ro {DIRECTORY}' FAIL with error 8192")
    since = unit.mark()
    peer.send(Announcement("/media/sdb1"))
    other = message("dataarrival", path="/mnt/169.254.3.7:-media-sdb1")
    assert unit.application.frames(since, until=other) == []
    announcer.stop()
    unit.application.expect_message("dataremoval", path=DIRECTORY)


def test_texts_from_the_network_are_escaped_in_messages(unit, tools, peer) -> None:
    name, key = "Tom & \"Jerry\" <1>\n\x01", "<k&\">"
    start_listening(unit)
    peer.send(Announcement("/media/a&b<c>\"d", key=key, name=name))
    assert unit.application.next_text() == (
        '<message version="1" type="datasource"><content>'
        '<dataarrival path="/mnt/169.254.3.7:-media-a&amp;b&lt;c&gt;&quot;d" type="memorycard"'
        ' key="&lt;k&amp;&quot;&gt;" contentid="" serialnumber=""'
        ' friendlyname="Tom &amp; &quot;Jerry&quot; &lt;1&gt;&#10;?" remote="true" readonly="true"'
        ' fixed="false" /></content></message>')


def test_mounting_leaves_the_announced_order(unit, tools, peer) -> None:
    start_listening(unit)
    paths = [f"/media/{name}" for name in ("z", "a", "m")]
    peer.share(*map(Announcement, paths))
    for path in paths:
        unit.application.expect_message(
            "dataarrival", path=f"/mnt/169.254.3.7:{path.replace('/', '-')}")
    assert sorted(os.listdir(unit.sandbox.path("/mnt"))) == sorted(
        f"169.254.3.7:{path.replace('/', '-')}" for path in paths)
    assert re.findall(r"media/(\w)", " ".join(tools.calls(tool="mount"))) == ["z", "a", "m"]
