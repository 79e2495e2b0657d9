"""What the unit shares of its own: the exports, the announcements and their rhythm."""

import re

import pytest

from share_helpers import (CLEAR_EXPORTS, FLUSH_EXPORTS, PASS, TO_GROUP, export, gaps,
                           start_listening, start_with_peer)
from testbed import timeouts
from testbed.daemon import DEBUG, ERROR, INFO
from testbed.otherunit import PORT, WITHDRAWN, Announcement
from testbed.strace import Strace, Trace

STICK = "usb stick"
CID = "1b534d303030303010206bb243009a33"
PEER = "169.254.3.7"


def test_a_volume_is_exported_read_only_to_everybody(unit, tools) -> None:
    unit.start_daemon()
    tools.expect(CLEAR_EXPORTS)
    since = unit.mark()
    unit.hal.plug(STICK)
    unit.daemon.expect_log(INFO, "_Export: exporting '*:/media/sda1' PASS")
    unit.daemon.expect_log(DEBUG, "AddServiceNFS: /media/sda1")
    unit.application.expect_message("dataarrival")
    assert tools.calls(since) == [export("ro", "*", "/media/sda1")]


def test_a_volume_is_exported_writable_to_the_known_peer_first(unit, tools, peer) -> None:
    start_with_peer(unit, peer)
    since = unit.mark()
    unit.hal.plug(STICK)
    unit.daemon.expect_log(INFO, f"_Export: exporting '{PEER}:/media/sda1' PASS")
    unit.daemon.expect_log(INFO, "_Export: exporting '*:/media/sda1' PASS")
    unit.daemon.expect_log(DEBUG, "AddServiceNFS: /media/sda1")
    exports = [call for call in tools.calls(since) if call != FLUSH_EXPORTS]
    assert exports == [export("rw", PEER, "/media/sda1"), export("ro", "*", "/media/sda1")]


def test_a_read_only_volume_is_not_exported_writable_when_it_comes(unit, tools, peer) -> None:
    start_with_peer(unit, peer)
    since = unit.mark()
    unit.hal.plug(f"{STICK} readonly")
    assert peer.expect_announcement("/media/sda1").read_only == 1
    exports = [call for call in tools.calls(since) if call != FLUSH_EXPORTS]
    assert exports == [export("ro", "*", "/media/sda1")]


def test_the_mode_of_a_path_that_is_shared_already_stays(unit, tools, peer) -> None:
    """A writable stick comes to the place of the internal share, which nobody may write to."""
    start_with_peer(unit, peer, "--internal-share-path", "/media/sda1")
    tools.expect(export("rw", PEER, "/media/sda1"))
    unit.daemon.expect_log(INFO, f"_Export: exporting '{PEER}:/media/sda1' PASS")
    since = unit.mark()
    unit.hal.plug(STICK)
    unit.application.expect_message("dataarrival")
    unit.hal.pull("stick")
    exports = [call for call in tools.calls(since, until=f"exportfs -u {PEER}:/media/sda1")
               if call != FLUSH_EXPORTS]
    assert exports == [export("ro", "*", "/media/sda1")]


@pytest.mark.parametrize("command", [CLEAR_EXPORTS, "exportfs"])
@pytest.mark.native("its own threads would be made")
def test_a_stick_that_is_in_at_boot_is_mounted_before_the_nfs_server_answers(
        unit, tools, command: str) -> None:
    """The main thread is held up until the publisher has begun with its first exports."""
    unit.hal.plug(STICK)
    tools.hold(command)
    unit.daemon.start(launcher=Trace.launcher("/var/log/strace", "-e", "trace=clone3", "-e",
                                              "inject=clone3:delay_exit=1000000:when=2"))
    tools.expect(CLEAR_EXPORTS, timeouts.START)
    unit.hal.expect_call("Mount", timeout=timeouts.START)
    tools.obey()
    unit.application.expect_message("dataarrival", path="/media/sda1")


def test_a_volume_that_goes_is_withdrawn_then_unexported(unit, tools, peer) -> None:
    start_with_peer(unit, peer)
    unit.hal.plug(STICK)
    announced = peer.expect_announcement("/media/sda1")
    since = unit.mark()
    tools.hold("exportfs -u")
    unit.hal.pull("stick")
    tools.expect(f"exportfs -u {PEER}:/media/sda1")
    assert peer.expect_announcement("/media/sda1", WITHDRAWN) == announced.withdrawal()
    tools.obey()
    unit.daemon.expect_log(DEBUG, "RemoveServiceNFS: /media/sda1")
    calls = [call for call in tools.calls(since) if call != FLUSH_EXPORTS]
    assert calls == [f"exportfs -u {PEER}:/media/sda1", "exportfs -u *:/media/sda1"]
    assert tools.exports == {}


def test_without_a_known_peer_nothing_is_unexported_for_it(unit, tools, peer) -> None:
    unit.start_daemon()
    unit.hal.plug(STICK)
    peer.expect_announcement("/media/sda1")
    since = unit.mark()
    unit.hal.pull("stick")
    unit.daemon.expect_log(DEBUG, "RemoveServiceNFS: /media/sda1")
    assert tools.calls(since) == ["exportfs -u *:/media/sda1"]


def test_a_volume_that_went_is_not_announced_any_more(unit, tools, peer) -> None:
    unit.start_daemon()
    unit.hal.plug(STICK)
    unit.hal.plug("usb other")
    peer.expect_announcement("/media/sdb1")
    unit.hal.pull("stick")
    peer.expect_announcement("/media/sda1", WITHDRAWN)
    since = peer.mark()
    for _ in range(2):
        peer.expect_announcement("/media/sdb1")
    assert {datagram.announcement().path for datagram in peer.heard(since)} == {"/media/sdb1"}


@pytest.mark.parametrize("plug, datagram", [
    pytest.param(
        "usb stick",
        "78563412 0100 0100 e803 0100 0000 0c00 0100 1100"
        " 2f6d656469612f7364613100 00 555342204d6173732053746f7261676500",
        id="a writable stick: no key, so a single zero byte"),
    pytest.param(
        "usb stick readonly",
        "78563412 0100 0100 e803 0100 0100 0c00 0100 1100"
        " 2f6d656469612f7364613100 00 555342204d6173732053746f7261676500",
        id="a read-only stick"),
    pytest.param(
        f"sd card host=1 cid={CID}",
        "78563412 0100 0100 e803 0100 0000 1100 2100 1000"
        " 2f6d656469612f6d6d63626c6b31703100"
        " 316235333464333033303330333033303130323036626232343330303961333300"
        " 4d656d6f72792043617264202d203100",
        id="a card: its identification as the key"),
])
def test_the_announcement_is_right_to_the_byte(unit, tools, peer, plug: str,
                                               datagram: str) -> None:
    unit.start_daemon()
    unit.hal.plug(plug)
    heard = peer.expect(re.compile("announces"))
    assert heard.raw.hex(" ") == bytes.fromhex(datagram).hex(" ")


def test_the_internal_disk_is_announced_to_the_byte(unit, tools, peer) -> None:
    unit.start_daemon("--internal-share-path", "/srv/charts")
    heard = peer.expect(re.compile("announces"))
    assert heard.raw == (b"\x78\x56\x34\x12\x01\x00\x01\x00\xe8\x03\x00\x00\x01\x00\x0c\x00\x01\x00"
                         b"\x13\x00/srv/charts\0\0Internal HD Charts\0")
    assert tools.exports == {"*:/srv/charts": "ro,no_root_squash,no_subtree_check"}


def test_without_an_internal_share_nothing_is_offered(unit, tools, peer) -> None:
    unit.start_daemon()
    tools.expect(CLEAR_EXPORTS)
    unit.hal.plug(STICK)
    peer.expect_announcement("/media/sda1")
    assert {datagram.announcement().path for datagram in peer.heard()} == {"/media/sda1"}


def test_datagrams_come_from_the_link_local_address_with_a_time_to_live_of_five(unit, tools,
                                                                                peer) -> None:
    unit.start_daemon()
    unit.hal.plug(STICK)
    heard = peer.expect(re.compile("announces"))
    assert (heard.sender, heard.destination, heard.time_to_live) == ("169.254.1.1", "224.1.1.1", 5)
    assert heard.sender_port != PORT
    unit.hal.pull("stick")
    heard = peer.expect(re.compile("withdraws"))
    assert (heard.sender, heard.destination, heard.time_to_live) == ("169.254.1.1", "224.1.1.1", 5)


def test_every_volume_is_announced_once_a_second_in_order_of_its_path(unit, tools, peer,
                                                                      log_directory) -> None:
    unit.start_daemon()
    unit.hal.plug("usb second block=/dev/sdb")
    unit.hal.plug("usb first block=/dev/sda")
    unit.hal.plug("usb third block=/dev/sdc")
    for _ in range(2):  # the one that the last volume has caused may follow another at once
        peer.expect_announcement("/media/sdc1")
    rounds = [peer.events.expect(re.compile("announces")) for _ in range(9)]
    assert [event.text for event in rounds] == (
        [f"169.254.1.1 announces /media/sd{letter}1" for letter in "abc"] * 3)
    with Strace(unit.daemon.process, log_directory / "strace", "-e", "trace=sendto,futex",
                "-s", "100") as strace:
        strace.expect(TO_GROUP, 12)
    assert min(gaps(strace.times("sendto.*/media/sda1.*224.1.1.1"))) > PASS
    # One wait lies before each pass.
    passes = strace.waits_between("sendto.*/media/sda1.*224.1.1.1")[1:]
    assert passes == [1] * len(passes) and len(passes) >= 3


def test_the_log_names_each_announced_path_at_debug_level(unit, tools, peer) -> None:
    unit.start_daemon()
    unit.hal.plug(STICK)
    peer.expect_announcement("/media/sda1")
    unit.daemon.expect_log(DEBUG, "CServicePublisher::run: /media/sda1")
    unit.daemon.expect_log(DEBUG, "CServicePublisher::run: /media/sda1")


def test_a_volume_is_announced_once_it_is_exported(unit, tools, peer) -> None:
    unit.start_daemon()
    unit.hal.plug("usb first")
    peer.expect_announcement("/media/sda1")
    since = unit.mark()
    tools.hold(re.escape(export("ro", "*", "/media/sdb1")))
    unit.hal.plug("usb second")
    tools.expect(export("ro", "*", "/media/sdb1"))
    assert "/media/sdb1" not in [one.announcement().path for one in peer.heard(since)]
    tools.obey()
    peer.expect_announcement("/media/sdb1")


def test_a_failed_export_is_logged_and_the_volume_announced_all_the_same(unit, tools,
                                                                         peer) -> None:
    unit.start_daemon()
    tools.expect(CLEAR_EXPORTS)
    tools.refuse("exportfs -o", 1)
    unit.hal.plug(STICK)
    unit.daemon.expect_log(ERROR, "_Export: error exporting *:/media/sda1")
    peer.expect_announcement("/media/sda1")
    assert unit.daemon.logged(INFO, "_Export: exporting '*:/media/sda1' PASS") == 0


@pytest.mark.native("its own processes could not be made")
def test_without_room_for_a_process_volumes_are_served_and_the_next_is_exported(
        unit, tools, peer, log_directory) -> None:
    unit.start_daemon()
    tools.expect(CLEAR_EXPORTS)
    with Strace(unit.daemon.process, log_directory / "strace", "-e", "trace=process",
                "-e", "inject=clone,clone3,fork,vfork:error=EAGAIN"):
        unit.hal.plug(STICK)
        unit.daemon.expect_log(ERROR, "_Export: error exporting *:/media/sda1")
        unit.daemon.expect_log(INFO, "symlink: /media/USB Memory Card A1 -> sda1")
        unit.application.expect_message("dataarrival", path="/media/sda1")
        peer.expect_announcement("/media/sda1")
    unit.hal.plug("usb second port=1-1.4")
    unit.daemon.expect_log(INFO, "_Export: exporting '*:/media/sdb1' PASS")
    unit.application.expect_message("dataarrival", path="/media/sdb1")


def test_an_export_has_failed_only_when_its_exit_status_says_so(unit, tools, peer) -> None:
    """A shell that is ended by a signal has no exit status."""
    unit.start_daemon()
    tools.expect(CLEAR_EXPORTS)
    tools.kill("exportfs -o")
    unit.hal.plug(STICK)
    unit.daemon.expect_log(INFO, "_Export: exporting '*:/media/sda1' PASS")


def test_a_launcher_that_ignores_its_children_hides_no_exit_status(unit, tools) -> None:
    unit.daemon.start("--port", str(unit.application.port),
                      launcher=["env", "--ignore-signal=CHLD"])
    tools.expect(CLEAR_EXPORTS)
    unit.hal.plug(STICK)
    unit.daemon.expect_log(INFO, "_Export: exporting '*:/media/sda1' PASS")


@pytest.mark.unit_options(address=None)
def test_failed_clearing_is_logged_and_the_exports_are_made(unit, tools, peer) -> None:
    tools.refuse(CLEAR_EXPORTS, 2)
    unit.start_daemon("--internal-share-path", "/srv/charts")
    unit.eth0.up()
    unit.eth0.set_address("169.254.1.1")
    unit.daemon.expect_log(ERROR, "CServicePublisher::RestartNfsServer: error clearing exports")
    unit.daemon.expect_log(INFO, "_Export: exporting '*:/srv/charts' PASS")
    unit.daemon.expect_log(DEBUG, "CServicePublisher: Restarting nfsd done")
    peer.expect_announcement("/srv/charts")


def test_the_peer_is_given_every_volume_writable_when_it_is_discovered(unit, tools, peer) -> None:
    """The read-only ones too, unlike a read-only volume that comes later."""
    start_listening(unit, "--peer-mac", peer.eth0.hardware_address())
    unit.hal.plug("usb first readonly")
    unit.hal.plug("usb second")
    peer.expect_announcement("/media/sdb1")
    since = unit.mark()
    peer.send(b"")
    unit.daemon.expect_log(INFO, f"_Export: exporting '{PEER}:/media/sdb1' PASS")
    assert tools.calls(since) == [export("rw", PEER, "/media/sda1"),
                                  export("rw", PEER, "/media/sdb1")]


def test_the_same_peer_address_again_runs_no_command(unit, tools, peer) -> None:
    start_listening(unit, "--peer-mac", peer.eth0.hardware_address(),
                      "--internal-share-path", "/srv/charts")
    peer.expect_announcement("/srv/charts")
    peer.send(b"")
    tools.expect(export("rw", PEER, "/srv/charts"))
    since = unit.mark()
    for _ in range(3):
        peer.send(b"")
    peer.send(Announcement("/media/sda1"))
    unit.application.expect_message("dataarrival")
    assert [call for call in tools.calls(since, "exportfs") if call != FLUSH_EXPORTS] == []
    assert len([line for line in unit.daemon.log_lines() if "Discovered peer" in line.text]) == 1


def test_a_peer_that_moves_takes_its_exports_along(unit, tools, peer) -> None:
    start_with_peer(unit, peer)
    unit.hal.plug("usb first")
    unit.hal.plug("usb second readonly")
    peer.expect_announcement("/media/sdb1")
    since = unit.mark()
    peer.eth0.set_address("169.254.3.8")
    peer.send(b"")
    unit.daemon.expect_log(
        INFO, "CServicePublisher::SetPeerIpAddress Discovered peer IP address: 169.254.3.8")
    unit.daemon.expect_log(INFO, "_Export: exporting '169.254.3.8:/media/sdb1' PASS")
    calls = [call for call in tools.calls(since) if call != FLUSH_EXPORTS]
    assert calls == [f"exportfs -u {PEER}:/media/sda1", export("rw", "169.254.3.8", "/media/sda1"),
                     f"exportfs -u {PEER}:/media/sdb1", export("rw", "169.254.3.8", "/media/sdb1")]


@pytest.mark.parametrize("status, level, text", [
    pytest.param(0, INFO, "_ExportFlush: 'exportfs -f' PASS", id="which succeeds"),
    pytest.param(1, ERROR, "_ExportFlush: 'exportfs -f' FAILED", id="which fails")])
def test_the_export_table_is_flushed_once_in_the_third_pass_with_a_peer(
        unit, tools, peer, status: int, level: int, text: str) -> None:
    if status:
        tools.refuse(FLUSH_EXPORTS, status)
    else:
        tools.hold(FLUSH_EXPORTS)
    start_with_peer(unit, peer)
    tools.expect(FLUSH_EXPORTS)
    if status:
        unit.daemon.expect_log(level, text)
        return
    # Each pass begins with an empty datagram to the peer.
    assert [datagram.raw for datagram in peer.heard()] == [b""] * 3
    tools.obey()
    unit.daemon.expect_log(level, text)
    peer.eth0.set_address("169.254.3.8")
    peer.send(b"")
    for _ in range(4):
        peer.expect("169.254.1.1 (empty)")
    assert tools.calls().count(FLUSH_EXPORTS) == 1


def test_with_nothing_to_announce_the_peer_gets_an_empty_datagram_a_second(
        unit, tools, peer, log_directory) -> None:
    start_with_peer(unit, peer)
    with Strace(unit.daemon.process, log_directory / "strace", "-e", "trace=sendto") as strace:
        strace.expect(f"sendto.*{PEER}", 3)
        unit.daemon.expect_log(INFO, "_ExportFlush: 'exportfs -f' PASS")
    assert all(gap > PASS for gap in gaps(strace.times(f"sendto.*{PEER}")))
    assert {(one.raw, one.destination, one.port) for one in peer.heard()} == {(b"", PEER, PORT)}
    unit.hal.plug(STICK)
    heard = peer.expect(re.compile("announces"))
    assert (heard.destination, heard.port) == ("224.1.1.1", PORT)
    since = peer.mark()
    peer.expect_announcement("/media/sda1")
    peer.expect_announcement("/media/sda1")
    assert b"" not in [datagram.raw for datagram in peer.heard(since)]


def test_without_a_known_peer_nothing_is_sent_while_there_is_nothing_to_announce(unit, tools,
                                                                                 peer) -> None:
    start_listening(unit, "--peer-mac", peer.eth0.hardware_address())
    unit.hal.plug(STICK)
    for _ in range(2):
        peer.expect_announcement("/media/sda1")
    unit.hal.pull("stick")
    peer.expect_announcement("/media/sda1", WITHDRAWN)
    since = peer.mark()
    peer.send(b"")
    unit.daemon.expect_log(INFO, re.compile(".*Discovered peer.*"))
    peer.expect("169.254.1.1 (empty)")
    assert {datagram.raw for datagram in peer.heard(since)} == {b""}


def test_two_volumes_at_one_mount_point_are_one_share(unit, tools, peer) -> None:
    unit.start_daemon()
    unit.hal.plug("usb first mounted=/media/shared")
    first = peer.expect_announcement("/media/shared")
    unit.hal.plug("sd second host=1 mounted=/media/shared")
    unit.application.expect_message("dataarrival", type="memorycard")
    assert peer.expect_announcement("/media/shared") == first, "the entry that was there is kept"
    since = unit.mark()
    unit.hal.pull("first")
    peer.expect_announcement("/media/shared", WITHDRAWN)
    tools.expect("exportfs -u *:/media/shared")
    unit.daemon.expect_log(DEBUG, "RemoveServiceNFS: /media/shared")
    after_first = unit.mark()
    unit.hal.pull("second")
    unit.application.expect_message("dataremoval")
    unit.application.expect_message("dataremoval")
    assert tools.calls(after_first) == []
    assert [datagram.announcement().message_type for datagram in peer.heard(since)].count(
        WITHDRAWN) == 1
    unit.settle()


@pytest.mark.parametrize("spare", [0, 1], ids=["exactly fits", "is one byte too long"])
def test_a_service_must_fit_into_one_datagram(unit, tools, peer, spare: int) -> None:
    """The texts and their zero bytes may take 1,480 bytes."""
    name_and_key = len("USB Mass Storage\0") + len("\0")
    path = "/media/".ljust(1480 - name_and_key - 1 + spare, "x")
    unit.start_daemon()
    unit.hal.command("quiet plug usb stick")
    unit.hal.command(f"set stick volume.mount_point=string:{path} volume.is_mounted=bool:true")
    unit.application.expect_message("dataarrival")
    if spare == 0:
        assert len(peer.expect(re.compile("announces")).raw) == 1500
        return
    unit.daemon.expect_log(ERROR, f"AddServiceNFS: does not fit into an announcement: {path}")
    unit.hal.plug("usb other")
    peer.expect_announcement("/media/sdb1")
    assert {datagram.announcement().path for datagram in peer.heard()} == {"/media/sdb1"}
    assert list(tools.exports) == ["*:/media/sdb1"]
