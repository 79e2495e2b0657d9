"""What the unit makes of other units' announcements: the list, its time-outs, and the peer."""

import re
import socket

import pytest

from share_helpers import (LIFE, export, ignores_unknown_types, mount, seconds_of_silence,
                           start_listening, unmount)
from testbed import target, timeouts
from testbed.application import message
from testbed.daemon import ERROR, INFO, WARNING
from testbed.otherunit import GROUP, PORT, Announcement, NUDGE_PORT
from testbed.strace import Strace
from testbed.waiting import wait_until

SOURCE = "169.254.3.7:/media/sda1"
DIRECTORY = "/mnt/169.254.3.7:-media-sda1"
STICK = Announcement("/media/sda1", name="A stick")
#: What is announced after everything else.
LAST = Announcement("/media/last")
LAST_SOURCE = "169.254.3.7:/media/last"
LAST_DIRECTORY = "/mnt/169.254.3.7:-media-last"
LAST_ARRIVAL = message("dataarrival", path=LAST_DIRECTORY)


def test_a_share_is_mounted_and_reported_with_its_first_announcement(unit, tools, peer) -> None:
    start_listening(unit)
    peer.send(STICK)
    tools.expect(mount("ro", SOURCE, DIRECTORY))
    unit.daemon.expect_log(INFO, f"Mount command: '{mount('ro', SOURCE, DIRECTORY)}' PASS")
    assert unit.application.next_text() == (
        '<message version="1" type="datasource"><content>'
        f'<dataarrival path="{DIRECTORY}" type="memorycard" key="" contentid="" serialnumber=""'
        ' friendlyname="A stick" remote="true" readonly="true" fixed="false" />'
        '</content></message>')
    assert tools.calls(tool="mount") == [mount("ro", SOURCE, DIRECTORY)]


def test_a_share_that_is_announced_stays_and_costs_nothing(unit, tools, peer) -> None:
    start_listening(unit)
    peer.announce(STICK)
    unit.application.expect_message("dataarrival")
    since = unit.mark()
    for _ in range(4):  # seconds, more than a silent share lives
        peer_announced_again(peer)
    peer.send(LAST)
    assert unit.application.frames(since, until=LAST_ARRIVAL) == []
    assert tools.calls(since, until=mount("ro", LAST_SOURCE, LAST_DIRECTORY)) == []


def peer_announced_again(peer) -> None:
    """Return with the peer's next announcement."""
    announcer = peer.announcers[-1]
    last = announcer.last
    wait_until(lambda: announcer.last != last, "the next announcement")


def test_a_share_is_forgotten_three_seconds_after_its_last_announcement(unit, tools, peer,
                                                                        log_directory) -> None:
    start_listening(unit)
    peer.announce(STICK)
    unit.application.expect_message("dataarrival")
    with Strace(unit.daemon.process, log_directory / "strace", "-e", "trace=ioctl,execve",
                "-s", "1000") as strace:
        strace.expect("SIOCGARP", 2)
        peer.announcers[-1].stop()
        unit.application.expect_message("dataremoval", path=DIRECTORY)
    assert seconds_of_silence(strace) > LIFE
    assert len(unit.application.frames()) == 2


def test_nothing_of_a_known_share_is_updated(unit, tools, peer) -> None:
    start_listening(unit)
    peer.share(STICK)
    unit.application.expect_message("dataarrival")
    since = unit.mark()
    peer.send(Announcement("/media/sda1", key="1b534d303030303010206bb243009a33", name="New",
                           read_only=1))
    peer.send(LAST)
    assert unit.application.frames(since, until=LAST_ARRIVAL) == []
    unit.daemon.signal(10)
    assert unit.application.expect_message("dataarrival", path=DIRECTORY)["friendlyname"] == (
        "A stick")


def test_a_withdrawn_share_goes_at_once(unit, tools, peer) -> None:
    """It need not fall silent for that: the announcements go on and bring it back."""
    start_listening(unit)
    peer.announce(STICK)
    unit.application.expect_message("dataarrival")
    since = unit.mark()
    peer.send(STICK.withdrawal())
    assert unit.application.next_text() == (
        '<message version="1" type="datasource"><content>'
        f'<dataremoval path="{DIRECTORY}"/></content></message>')
    unit.application.expect_message("dataarrival", path=DIRECTORY)
    assert tools.calls(since, until=mount("ro", SOURCE, DIRECTORY)) == [unmount(DIRECTORY)]


def test_a_withdrawal_of_an_unknown_share_changes_nothing(unit, tools, peer) -> None:
    start_listening(unit)
    peer.share(STICK)
    unit.application.expect_message("dataarrival")
    since = unit.mark()
    peer.send(Announcement("/media/other").withdrawal())
    peer.send(Announcement("/media/sd").withdrawal())
    peer.send(Announcement("/media/sda1x").withdrawal())
    peer.send(LAST)
    assert unit.application.frames(since, until=LAST_ARRIVAL) == []
    assert tools.calls(since, until=mount("ro", LAST_SOURCE, LAST_DIRECTORY)) == []


def test_only_its_own_unit_can_withdraw_a_share(unit, tools, make_peer) -> None:
    first, second = make_peer("169.254.3.7"), make_peer("169.254.3.8")
    start_listening(unit)
    first.announce(STICK)
    unit.application.expect_message("dataarrival")
    since = unit.mark()
    second.send(STICK.withdrawal())
    second.send(Announcement("/media/sdb1"))
    arrival = message("dataarrival", path="/mnt/169.254.3.8:-media-sdb1")
    assert unit.application.frames(since, until=arrival) == []


def test_the_same_path_on_two_units_is_two_shares(unit, tools, make_peer) -> None:
    first, second = make_peer("169.254.3.7"), make_peer("169.254.3.8")
    start_listening(unit)
    first.announce(STICK)
    second.announce(Announcement("/media/sda1", name="Another"))
    names = {message["path"]: message["friendlyname"] for message in
             (unit.application.expect_message("dataarrival") for _ in range(2))}
    assert names == {DIRECTORY: "A stick", "/mnt/169.254.3.8:-media-sda1": "Another"}
    first.announcers[-1].stop()
    first.send(STICK.withdrawal())
    unit.application.expect_message("dataremoval", path=DIRECTORY)
    assert set(unit.sandbox.path("/mnt").iterdir()) == {
        unit.sandbox.path("/mnt/169.254.3.8:-media-sda1")}


@pytest.mark.native("no question for hardware addresses comes through")
def test_own_announcements_are_not_heard(unit, tools, peer) -> None:
    """The unit's own datagrams loop back to every member of the group in the unit."""
    with unit.sandbox.in_network(lambda: socket.socket(socket.AF_INET, socket.SOCK_DGRAM)) as ear:
        ear.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        ear.bind(("", PORT))
        ear.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                       socket.inet_aton(GROUP) + socket.inet_aton("0.0.0.0"))
        ear.settimeout(timeouts.EVENT)
        unit.start_daemon("--internal-share-path", "/srv/charts")
        for _ in range(2):
            assert ear.recvfrom(2000)[1][0] == "169.254.1.1"
        peer.announce(STICK, period=0.1)
        unit.application.expect_message("dataarrival", path=DIRECTORY)
        ear.recvfrom(2000)
    assert tools.calls(tool="mount") == [mount("ro", SOURCE, DIRECTORY)]
    assert not [line for line in unit.daemon.log_lines() if "to obtain MAC" in line.text]


def test_a_refused_mount_is_tried_with_each_announcement_until_it_succeeds(unit, tools,
                                                                           peer) -> None:
    start_listening(unit)
    tools.refuse("mount -t nfs", 32)
    command = mount("ro", SOURCE, DIRECTORY)
    for _ in range(3):
        peer.send(STICK)
        unit.daemon.expect_log(ERROR, f"Mount command: '{command}' FAIL with error 8192")
    assert unit.application.frames() == []
    tools.obey()
    for _ in range(3):  # the second and third time it is a known one
        peer.send(STICK)
    peer.send(LAST)
    frames = unit.application.frames(until=LAST_ARRIVAL)
    assert [frame.message()["path"] for frame in frames] == [DIRECTORY]
    calls = tools.calls(until=mount("ro", LAST_SOURCE, LAST_DIRECTORY))
    assert [call for call in calls if not call.startswith("exportfs")] == [
        command, *[f"mountpoint -q {DIRECTORY}", command] * 3]


def test_a_refused_share_that_falls_silent_is_not_reported(unit, tools, peer) -> None:
    start_listening(unit)
    tools.refuse("mount -t nfs", 32)
    peer.send(STICK)
    tools.expect(mount("ro", SOURCE, DIRECTORY))
    peer.send(STICK.withdrawal())
    tools.obey()
    peer.send(LAST)
    assert unit.application.frames(until=LAST_ARRIVAL) == []
    assert tools.calls(tool="umount", until=mount("ro", LAST_SOURCE, LAST_DIRECTORY)) == []


@pytest.mark.skipif(ignores_unknown_types(), reason="the daemon is built to drop them")
@pytest.mark.parametrize("message_type", [0, 3, 0xFFFF])
def test_an_announcement_of_an_unknown_type_aborts(unit, tools, peer, message_type: int) -> None:
    start_listening(unit)
    lister = unit.sandbox.spawn([target.program("voldrake-shares"), "--json"], "shares")
    lister.expect_stderr("listening")
    peer.send(Announcement("/media/sda1", message_type=message_type))
    assert unit.daemon.wait() == -6
    # The tool says so of the very datagram.
    lister.expect_stdout('"taken_by_units":false,"ends_units":true')
    assert re.fullmatch(r"voldrake: ServiceBrowser:\d+: void CServiceBrowser::_HandleAnnouncement"
                        r"\(.*\): Assertion `.*messageType.*' failed\.\n", unit.daemon.stderr())
    assert unit.daemon.logged(ERROR, unit.daemon.failed_assertion()) == 1
    assert tools.calls(tool="mount") == []


@pytest.mark.skipif(not ignores_unknown_types(), reason="the daemon is built to abort")
def test_an_announcement_of_an_unknown_type_is_dropped(unit, tools, peer) -> None:
    start_listening(unit)
    peer.send(Announcement("/media/sda1", message_type=3))
    unit.daemon.expect_log(WARNING, re.compile("CServiceBrowser: .* type 3 from 169.254.3.7 .*"))
    peer.send(STICK)
    unit.application.expect_message("dataarrival")
    assert len(tools.calls(tool="mount")) == 1


@pytest.mark.parametrize("datagram", [
    pytest.param(b"", id="an empty one"),
    pytest.param(b"\xff" * 40, id="a meaningless one"),
    pytest.param(STICK.encode(), id="an announcement"),
    pytest.param(STICK.withdrawal().encode(), id="a withdrawal")])
def test_any_datagram_tells_the_address_of_the_peer(unit, tools, peer, datagram: bytes) -> None:
    start_listening(unit, "--peer-mac", peer.eth0.hardware_address(),
                    "--internal-share-path", "/srv/charts")
    peer.send(datagram)
    tools.expect(export("rw", "169.254.3.7", "/srv/charts"))


def test_exports_that_take_long_hold_up_no_announcement(unit, tools, make_peer) -> None:
    """What a silent unit shared goes after three seconds; what the peer announces stays."""
    peer, other = make_peer("169.254.3.7"), make_peer("169.254.3.8")
    start_listening(unit, "--peer-mac", peer.eth0.hardware_address())
    peer.announce(STICK, period=0.5)
    unit.application.expect_message("dataarrival", path=DIRECTORY)
    since = unit.mark()
    tools.hold("exportfs -o")
    unit.hal.plug("usb stick")
    tools.expect(export("rw", "169.254.3.7", "/media/sda1"))
    other.send(STICK)
    unit.application.expect_message("dataarrival", path="/mnt/169.254.3.8:-media-sda1")
    unit.application.expect_message("dataremoval", path="/mnt/169.254.3.8:-media-sda1")
    tools.obey()
    unit.application.expect_message("dataarrival", path="/media/sda1")
    assert tools.calls(since, "umount", until=export("ro", "*", "/media/sda1")) == [
        unmount("/mnt/169.254.3.8:-media-sda1")]


@pytest.mark.parametrize("form", [
    pytest.param(str.upper, id="in capitals"),
    pytest.param(lambda mac: ":".join(f"{int(byte, 16):x}" for byte in mac.split(":")),
                 id="without leading zeros")])
def test_the_hardware_address_of_the_peer_may_be_written(unit, tools, peer, form) -> None:
    start_listening(unit, "--peer-mac", form(peer.eth0.hardware_address()),
                    "--internal-share-path", "/srv/charts")
    peer.send(b"")
    tools.expect(export("rw", "169.254.3.7", "/srv/charts"))


@pytest.mark.parametrize("mac, level_lines", [
    pytest.param("", [], id="an empty text"),
    pytest.param("00:00:00:00:00:00", [], id="six zero bytes"),
    pytest.param("nobody", ["Invalid peer MAC address: nobody"], id="no hardware address"),
    pytest.param("12:34:56:78:9a", ["Invalid peer MAC address: 12:34:56:78:9a"],
                 id="five bytes only"),
    pytest.param("x\nError:  forged", ["Invalid peer MAC address: x?Error:  forged"],
                 id="a line of its own")])
def test_nobody_is_the_peer_with(unit, tools, peer, mac: str, level_lines: list[str]) -> None:
    start_listening(unit, "--peer-mac", mac)
    peer.announce(STICK)
    assert unit.application.expect_message("dataarrival")["remote"] == "true"
    assert not [line for line in unit.daemon.log_lines() if "Discovered peer" in line.text]
    assert [line.text for line in unit.daemon.log_lines()
            if line.level == ERROR and "MAC" in line.text] == level_lines


def test_the_wake_up_byte_goes_to_the_sender_alone(unit, tools, make_peer) -> None:
    announcing, other = make_peer("169.254.3.7"), make_peer("169.254.3.8")
    start_listening(unit)
    announcing.send(STICK)
    nudge = announcing.expect("169.254.1.1 nudges")
    assert (nudge.raw, nudge.destination, nudge.port) == (b"\0", "169.254.3.7", NUDGE_PORT)
    unit.application.expect_message("dataarrival")
    assert len(announcing.heard(port=NUDGE_PORT)) == 1, "the second try finds the address"
    assert other.heard(port=NUDGE_PORT) == []
    assert unit.daemon.log_lines() and not [
        line for line in unit.daemon.log_lines() if line.level in (ERROR, WARNING)
        and "CID" not in line.text]
