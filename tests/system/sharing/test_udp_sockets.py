"""The sockets under the sharing: senders that do not answer, and every call that can fail."""

import re

import pytest

from share_helpers import (TO_GROUP, gaps, listens, mount, open_descriptors, processor_share,
                           reading_thread, start_listening, unmount)
from testbed import timeouts
from testbed.daemon import ERROR, INFO, WARNING
from testbed.otherunit import NUDGE_PORT, Announcement
from testbed.strace import Strace
from testbed.waiting import wait_until

SHARE = Announcement("/media/sda1")
#: Seconds between two questions for one address and between two reads that fail, less what the
#: clock of a trace may be off.
ASKED_AGAIN, READ_AGAIN = 0.249, 0.99
DIRECTORY = "/mnt/169.254.3.7:-media-sda1"
DROPPED = re.compile(r"CUdpRxSocket::FilteredRead: dropped \d+ datagrams of senders without known"
                     r" hardware address")
NO_ANSWER = "attempt 4 to obtain MAC for {} failed with error 6"


def keep_asking_for_addresses(unit) -> None:
    """The unit's kernel gives up after three seconds, and drops what waits for the address."""
    done = unit.sandbox.run(["ip", "ntable", "change", "name", "arp_cache", "dev", "eth0",
                             "mcast_probes", "1000"])
    assert done.returncode == 0, done.stderr


def test_a_sender_that_does_not_answer_is_asked_four_times(unit, tools, peer,
                                                           log_directory) -> None:
    start_listening(unit)
    keep_asking_for_addresses(unit)
    peer.answer_arp(False)
    with Strace(unit.daemon.process, log_directory / "strace", "-e", "trace=ioctl") as strace:
        peer.send(SHARE)
        unit.daemon.expect_log(ERROR, NO_ANSWER.format("169.254.3.7"))
        strace.expect("SIOCGARP", 4)
    asked = gaps(strace.times("SIOCGARP"))
    assert len(asked) == 3 and min(asked) > ASKED_AGAIN, asked
    assert peer.heard(port=NUDGE_PORT) == []
    # The datagrams wait in the kernel until somebody answers for the address.
    peer.answer_arp(True)
    for _ in range(4):
        peer.expect("169.254.1.1 nudges")
    nudges = peer.heard(port=NUDGE_PORT)
    assert [(nudge.raw, nudge.destination) for nudge in nudges] == [(b"\0", "169.254.3.7")] * 4
    peer.send(SHARE)
    unit.application.expect_message("dataarrival", path=DIRECTORY)
    assert tools.calls(tool="mount") == [mount("ro", "169.254.3.7:/media/sda1", DIRECTORY)]
    assert unit.daemon.logged(ERROR, NO_ANSWER.format("169.254.3.7")) == 1


def test_an_address_still_being_resolved_is_not_six_zero_bytes(unit, tools, peer) -> None:
    start_listening(unit, "--peer-mac", "00:00:00:00:00:00")
    peer.answer_arp(False)
    peer.send(SHARE)
    unit.daemon.expect_log(ERROR, NO_ANSWER.format("169.254.3.7"))
    peer.answer_arp(True)
    peer.announce(Announcement("/media/after"))
    unit.application.expect_message("dataarrival", path="/mnt/169.254.3.7:-media-after")
    assert not [line for line in unit.daemon.log_lines() if "Discovered peer" in line.text]
    assert tools.calls(tool="mount") == [
        mount("ro", "169.254.3.7:/media/after", "/mnt/169.254.3.7:-media-after")]


@pytest.mark.undelayed("its sleeps are counted")
def test_those_who_answer_do_not_wait_for_those_who_do_not(unit, tools, make_peer,
                                                           log_directory) -> None:
    mute, answering = make_peer("169.254.3.7"), make_peer("169.254.3.8")
    start_listening(unit)
    answering.announce(Announcement("/media/first"))
    unit.application.expect_message("dataarrival")
    mute.answer_arp(False)
    with Strace(unit.daemon.process, log_directory / "strace", "-e",
                "trace=clock_nanosleep,clock_nanosleep_time64") as strace:
        for _ in range(50):
            mute.send(SHARE)
        answering.announce(Announcement("/media/second"))
        unit.application.expect_message("dataarrival", path="/mnt/169.254.3.8:-media-second")
    assert len(strace.times(r"clock_nanosleep\w*\(")) <= 4, "it waited for one of the fifty"
    since = unit.mark()
    answering.announcers[-1].stop()
    answering.send(Announcement("/media/second").withdrawal())
    unit.application.expect_message("dataremoval")
    assert [frame.message()["path"] for frame in unit.application.frames(since)] == [
        "/mnt/169.254.3.8:-media-second"]


@pytest.mark.native("no question for hardware addresses comes through")
def test_senders_that_nobody_has_are_woken_up_four_times_a_second_at_most(
        unit, tools, peer, log_directory) -> None:
    """The forged ones come while the daemon waits for the answer of the first."""
    start_listening(unit)
    with Strace(unit.daemon.process, log_directory / "strace", "-e", "trace=sendto",
                thread=reading_thread(unit)) as strace:
        for _ in range(2):
            for number in range(200):
                peer.send_from(f"10.9.9.{number}", SHARE)
            unit.daemon.expect_log(WARNING, DROPPED)
        peer.announce(Announcement("/media/real"))
        unit.application.expect_message("dataarrival", path="/mnt/169.254.3.7:-media-real")
    times = strace.times(rf"htons\({NUDGE_PORT}\)")
    assert len(times) >= 8, "four for the first of each two hundred"
    spans = [later - earlier for earlier, later in zip(times, times[4:])]
    assert min(spans) > 0.999, times


@pytest.mark.parametrize("source", [
    pytest.param("10.9.9.9", id="of another network"),
    pytest.param("169.254.77.77", id="that nobody has")])
def test_a_sender_address(unit, tools, peer, source: str) -> None:
    start_listening(unit)
    peer.send_from(source, SHARE)
    unit.daemon.expect_log(ERROR, NO_ANSWER.format(source))
    peer.announce(Announcement("/media/real"))
    unit.application.expect_message("dataarrival", path="/mnt/169.254.3.7:-media-real")
    assert len(tools.calls(tool="mount")) == 1


@pytest.mark.parametrize("source", ["169.254.1.1", "127.0.0.1", "224.1.1.1",
                                    "255.255.255.255"])
def test_an_address_that_cannot_be_a_sender(unit, tools, peer, source: str) -> None:
    start_listening(unit)
    peer.send_from(source, SHARE)
    peer.send(Announcement("/media/real"))
    unit.application.expect_message("dataarrival", path="/mnt/169.254.3.7:-media-real")
    assert tools.calls(tool="mount") == [
        mount("ro", "169.254.3.7:/media/real", "/mnt/169.254.3.7:-media-real")]
    unit.settle()


def test_datagrams_to_the_unit_alone_count_too(unit, tools, peer) -> None:
    start_listening(unit)
    peer.send(SHARE, to="169.254.1.1")
    unit.application.expect_message("dataarrival", path=DIRECTORY)


@pytest.mark.parametrize("inject, text", [
    pytest.param("socket:error=EMFILE", "Allocating socket failed! Error: 24", id="a socket"),
    pytest.param("setsockopt:error=EPERM", "setsockopt(SO_REUSEADDR) failed! Error: 1",
                 id="sharing the port"),
    pytest.param("setsockopt:error=ENOMEM:when=2+2", "setsockopt(IP_PKTINFO) failed! Error: 12",
                 id="the packet information"),
    pytest.param("bind:error=EACCES", "Binding socket failed! Error: 13", id="the port")])
@pytest.mark.native("no question for hardware addresses comes through")
def test_opening_goes_on_when_the_kernel_refuses(unit, tools, peer, log_directory, inject: str,
                                                text: str) -> None:
    unit.sandbox.run(["ip", "route", "delete", "224.0.0.0/4"])  # it is tried again and again
    unit.start_daemon()
    with Strace(unit.daemon.process, log_directory / "tries", "-e", "trace=setsockopt") as tries:
        tries.expect("IP_ADD_MEMBERSHIP")
    trying = next(call.thread for call in tries.made() if "IP_ADD_MEMBERSHIP" in call.text)
    with Strace(unit.daemon.process, log_directory / "strace", "-e", f"inject={inject}",
                thread=int(trying)):
        unit.daemon.expect_log(INFO, f"CUdpRxSocket::CreateSocket: {text}")
        descriptors = open_descriptors(unit)
        for _ in range(6):
            unit.daemon.expect_log(INFO, f"CUdpRxSocket::CreateSocket: {text}")
        assert open_descriptors(unit) < descriptors + 4, "a few may be open just now"
    unit.sandbox.run(["ip", "route", "add", "224.0.0.0/4", "dev", "eth0"])
    wait_until(lambda: listens(unit), "the daemon joins the group")
    peer.send(SHARE)
    unit.application.expect_message("dataarrival", path=DIRECTORY)


def test_a_group_that_cannot_be_left_is_logged(unit, tools, peer, log_directory) -> None:
    start_listening(unit)
    peer.announce(SHARE)
    unit.application.expect_message("dataarrival")
    tools.hold("umount")  # keeps the daemon from ending while it is traced
    with Strace(unit.daemon.process, log_directory / "strace",
                "-e", "inject=setsockopt:error=EADDRNOTAVAIL"):
        unit.daemon.signal(15)
        unit.daemon.expect_log(INFO, "CUdpRxSocket::Close: Closing port: 10000", timeouts.STOP)
        unit.daemon.expect_log(
            INFO,
            "CUdpRxSocket::_DropSavedMultiCast: setsockopt(IP_DROP_MEMBERSHIP) failed! Error: 99")
        tools.expect(unmount(DIRECTORY))
    tools.obey()
    assert unit.daemon.wait() == 0


def test_reading_that_fails_neither_spins_nor_floods_the_log(unit, tools, peer,
                                                            log_directory) -> None:
    text = "CUdpRxSocket::_BlockingRead: recvmsg failed! Port: 12 Error: 12"
    start_listening(unit)
    with Strace(unit.daemon.process, log_directory / "strace", "-e", "trace=recvmsg", "-e",
                "inject=recvmsg:error=ENOMEM", thread=reading_thread(unit)) as strace:
        peer.send(SHARE)
        unit.daemon.expect_log(INFO, text)
        assert processor_share(unit, 1.5) < 0.1
        strace.expect("recvmsg.*INJECTED", 3)
    tries = strace.times("recvmsg.*INJECTED")
    assert min(gaps(tries)) > READ_AGAIN
    assert unit.daemon.logged(INFO, text) <= len(tries)
    peer.announce(SHARE)
    unit.application.expect_message("dataarrival", path=DIRECTORY)


def test_the_send_buffer_being_full_only_loses_announcements(unit, tools, peer,
                                                             log_directory) -> None:
    unit.start_daemon("--internal-share-path", "/srv/charts")
    peer.expect_announcement("/srv/charts")
    with Strace(unit.daemon.process, log_directory / "strace", "-e", "trace=sendto", "-e",
                "inject=sendto:error=ENOBUFS") as strace:
        strace.expect(TO_GROUP, 2)
    peer.events.seek(peer.mark())
    peer.expect_announcement("/srv/charts")
    assert not [line for line in unit.daemon.log_lines() if line.level == ERROR]
    peer.expect(re.compile("announces"))  # so it is a whole one
