"""The unit's link-local address comes, goes and changes, and the way to the group comes late."""

import socket

import pytest

from share_helpers import (CLEAR_EXPORTS, export, gaps, listens, network_table, open_descriptors,
                           processor_share, start_listening, start_sharing, start_with_peer)
from testbed.daemon import DEBUG, INFO
from testbed.otherunit import Announcement
from testbed.strace import Strace
from testbed.waiting import wait_until

CHANGED = "CServicePublisher: Network Config Changed"
NOT_JOINED = "CUdpRxSocket::_AddMultiCast: setsockopt(IP_ADD_MEMBERSHIP) failed! Error: 19"
NOT_BOUND = "CUdpRxSocket::CreateSocket: Binding socket failed! Error: 98"
#: Seconds between two tries, less what the clock of a trace may be off.
PAUSE = 0.099
CLOSING = "CUdpRxSocket::Close: Closing port: 10000"
_PORT_IN_KERNEL_TABLE = "00000000:2710 "


def binds_the_port(unit) -> bool:
    return _PORT_IN_KERNEL_TABLE in network_table(unit, "udp")


@pytest.mark.unit_options(address=None)
@pytest.mark.parametrize("address", [None, "10.1.1.1", "169.253.1.1", "169.255.1.1"],
                         ids=["without an address", "with a private address",
                              "just below the link-local network",
                              "just above the link-local network"])
def test_nothing_is_shared(unit, tools, peer, address: str | None) -> None:
    unit.eth0.up()
    if address:
        unit.eth0.set_address(address)
    unit.start_daemon("--internal-share-path", "/srv/charts")
    unit.hal.plug("usb stick")
    unit.application.expect_message("dataarrival")
    unit.hal.plug("usb other")
    unit.hal.pull("stick")
    unit.application.expect_message("dataremoval")
    assert tools.calls() == ["exportfs -u *:/media/sda1"]
    assert peer.heard() == []
    assert unit.daemon.logged(INFO, CHANGED) == 0
    assert not binds_the_port(unit)


@pytest.mark.unit_options(address=None)
def test_all_is_exported_and_announced_when_the_address_comes(unit, tools, peer) -> None:
    unit.eth0.up()
    unit.start_daemon("--internal-share-path", "/srv/charts")
    unit.hal.plug("usb stick")
    unit.application.expect_message("dataarrival")
    unit.eth0.set_address("169.254.1.1")
    unit.daemon.expect_log(DEBUG, "CServicePublisher::_IsNetWorkReConfigured 169.254.1.1")
    unit.daemon.expect_log(INFO, CHANGED)
    unit.daemon.expect_log(DEBUG, "CServicePublisher: Restarting nfsd done")
    assert tools.calls() == [CLEAR_EXPORTS, export("ro", "*", "/media/sda1"),
                             export("ro", "*", "/srv/charts")]
    peer.expect_announcement("/srv/charts")


def test_a_lost_address_is_reported_once_and_ends_the_announcements(unit, tools, peer) -> None:
    unit.start_daemon("--internal-share-path", "/srv/charts")
    peer.expect_announcement("/srv/charts")
    since = unit.mark()
    unit.daemon.log.seek(since)
    unit.eth0.clear_address()
    unit.daemon.expect_log(INFO, CHANGED)
    unit.daemon.expect_log(DEBUG, "CServicePublisher: Restarting nfsd done")
    gone = peer.mark()
    unit.hal.plug("usb stick")
    unit.application.expect_message("dataarrival")
    unit.hal.pull("stick")
    unit.application.expect_message("dataremoval")
    unit.eth0.set_address("169.254.1.1")
    unit.daemon.expect_log(INFO, CHANGED)
    peer.events.seek(gone)
    peer.expect_announcement("/srv/charts")
    assert unit.daemon.logged(INFO, CHANGED, since) == 2
    assert tools.calls(since) == [CLEAR_EXPORTS, "exportfs -u *:/media/sda1",
                                  CLEAR_EXPORTS, export("ro", "*", "/srv/charts")]
    assert {datagram.announcement().path for datagram in peer.heard(gone)} == {"/srv/charts"}


def test_a_new_address_redoes_all_exports_and_sends_from_it(unit, tools, peer) -> None:
    start_with_peer(unit, peer)
    unit.hal.plug("usb first")
    unit.hal.plug("usb second readonly")
    peer.expect_announcement("/media/sdb1")
    since = unit.mark()
    done = unit.sandbox.run(["sh", "-c", "ip address add 169.254.1.99/16 dev eth0 &&"
                             " ip address delete 169.254.1.1/16 dev eth0 &&"
                             " ip address add 169.254.1.99/16 dev eth0;"
                             " ip route replace 224.0.0.0/4 dev eth0"])
    assert unit.sandbox.in_network(lambda: tools.address()) == "169.254.1.99", done.stderr
    unit.daemon.expect_log(DEBUG, "CServicePublisher::_IsNetWorkReConfigured 169.254.1.99")
    heard = peer.expect("169.254.1.99 announces /media/sda1")
    assert (heard.sender, heard.time_to_live) == ("169.254.1.99", 5)
    calls = tools.calls(since)
    last = len(calls) - calls[::-1].index(CLEAR_EXPORTS)
    assert [call for call in calls[last:] if call != "exportfs -f"] == [
        export("rw", peer.address, "/media/sda1"), export("ro", "*", "/media/sda1"),
        export("ro", "*", "/media/sdb1")]


def test_the_same_address_again_changes_nothing(unit, tools, peer) -> None:
    unit.start_daemon("--internal-share-path", "/srv/charts")
    for _ in range(3):
        peer.expect_announcement("/srv/charts")
    # The share comes at start-up, and so does the address: before it, after it, or between the
    # moment when the network counts as ready and the clearing of the exports.
    shared = export("ro", "*", "/srv/charts")
    assert tools.calls() in ([CLEAR_EXPORTS, shared], [CLEAR_EXPORTS, shared, shared],
                             [shared, CLEAR_EXPORTS, shared])
    assert unit.daemon.logged(INFO, CHANGED) == 1


def test_a_socket_that_cannot_be_bound_is_tried_again_in_the_next_pass(unit, tools, peer,
                                                                      log_directory) -> None:
    unit.eth0.clear_address()
    unit.start_daemon("--internal-share-path", "/srv/charts")
    with Strace(unit.daemon.process, log_directory / "strace", "-e", "trace=bind",
                "-e", "inject=bind:error=EADDRNOTAVAIL") as strace:
        unit.eth0.set_address("169.254.1.1")
        strace.expect(r"sin_port=htons\(0\)", 2)
        assert unit.daemon.logged(INFO, CHANGED) == 0
        assert tools.calls() == []
        assert peer.heard() == []
    unit.daemon.expect_log(INFO, CHANGED)
    peer.expect_announcement("/srv/charts")


@pytest.mark.unit_options(address=None)
@pytest.mark.native("no question for hardware addresses comes through")
def test_listening_begins_when_the_address_has_come(unit, tools, peer) -> None:
    unit.eth0.up()
    unit.start_daemon()
    assert not binds_the_port(unit)
    unit.eth0.set_address("169.254.1.1")
    wait_until(lambda: listens(unit), "the daemon joins the group")
    peer.send(Announcement("/media/sda1"))
    unit.application.expect_message("dataarrival")


def gaps_between_tries(unit, log_directory, failure: str) -> list[float]:
    """The seconds between eight tries to open the socket that fail with this line."""
    with Strace(unit.daemon.process, log_directory / "strace", "-e", "trace=bind") as strace:
        for _ in range(8):
            unit.daemon.expect_log(INFO, failure)
        strace.expect(r"bind.*htons\(10000\)", 8)
    return gaps(strace.times(r"bind.*htons\(10000\)"))


@pytest.mark.parametrize("route", ["224.0.0.0/4", "default"])
@pytest.mark.native("no question for hardware addresses comes through")
def test_joining_waits_for_a_route_and_costs_no_descriptors(unit, tools, peer, log_directory,
                                                            route: str) -> None:
    unit.sandbox.run(["ip", "route", "delete", "224.0.0.0/4"])
    unit.start_daemon()
    unit.daemon.expect_log(INFO, CLOSING)
    descriptors = open_descriptors(unit)
    assert min(gaps_between_tries(unit, log_directory, NOT_JOINED)) > PAUSE
    assert open_descriptors(unit) < descriptors + 4, "a few may be open just now"
    assert not listens(unit)
    unit.sandbox.run(["ip", "route", "add", route, "dev", "eth0"])
    wait_until(lambda: listens(unit), "the daemon joins the group")
    peer.send(Announcement("/media/sda1"))
    unit.application.expect_message("dataarrival")


@pytest.mark.native("no question for hardware addresses comes through")
def test_a_port_that_is_taken_is_tried_again_and_costs_no_descriptors(unit, tools, peer,
                                                                      log_directory) -> None:
    holder = unit.sandbox.in_network(lambda: socket.socket(socket.AF_INET, socket.SOCK_DGRAM))
    with holder:
        holder.bind(("", 10000))
        unit.start_daemon()
        unit.daemon.expect_log(INFO, NOT_BOUND)
        descriptors = open_descriptors(unit)
        assert min(gaps_between_tries(unit, log_directory, NOT_BOUND)) > PAUSE
        assert open_descriptors(unit) < descriptors + 4, "a few may be open just now"
        assert unit.daemon.logged(INFO, CLOSING) == 0
    wait_until(lambda: listens(unit), "the daemon joins the group")
    peer.send(Announcement("/media/sda1"))
    unit.application.expect_message("dataarrival")


@pytest.mark.parametrize("gone", ["the cable", "the interface", "the address"])
def test_no_processor_time_is_burnt_while_the_network_is_gone(unit, tools, peer,
                                                              gone: str) -> None:
    start_sharing(unit, "--internal-share-path", "/srv/charts")
    peer.expect_announcement("/srv/charts")
    {"the cable": unit.eth0.pull_cable, "the interface": unit.eth0.down,
     "the address": unit.eth0.clear_address}[gone]()
    assert processor_share(unit, 1.5) < 0.1
    unit.settle()


def test_shares_come_back_with_the_cable(unit, tools, peer) -> None:
    start_listening(unit, "--internal-share-path", "/srv/charts")
    peer.announce(Announcement("/media/sda1"))
    unit.application.expect_message("dataarrival")
    unit.eth0.pull_cable()
    unit.application.expect_message("dataremoval")
    peer.events.seek(peer.mark())
    unit.eth0.plug_cable()
    unit.application.expect_message("dataarrival")
    peer.expect_announcement("/srv/charts")


def test_shares_come_back_with_the_interface(unit, tools, peer) -> None:
    start_listening(unit, "--internal-share-path", "/srv/charts")
    peer.announce(Announcement("/media/sda1"))
    unit.application.expect_message("dataarrival")
    unit.eth0.down()
    unit.application.expect_message("dataremoval")
    peer.events.seek(peer.mark())
    unit.eth0.up()
    unit.eth0.set_address("169.254.1.1")
    unit.application.expect_message("dataarrival")
    peer.expect_announcement("/srv/charts")


JOINING_AGAIN = ("CServiceBrowser: eth0 is another interface or has another address, joining"
                 " 224.1.1.1 again")


def delete_eth0(unit) -> None:
    """The interface goes as an object, as when its driver is unloaded."""
    done = unit.sandbox.run(["ip", "link", "delete", "eth0"])
    assert done.returncode == 0, done.stderr


def index_of_eth0(unit) -> int:
    """The kernel's number of it."""
    return unit.sandbox.in_network(lambda: socket.if_nametoindex("eth0"))


def have_a_share_come(unit, peer) -> None:
    """Start the daemon with a share of its own and have one of the peer's reported."""
    start_listening(unit, "--internal-share-path", "/srv/charts")
    peer.announce(Announcement("/media/sda1"))
    unit.application.expect_message("dataarrival")


def expect_sharing_both_ways(unit, peer, sender: str) -> None:
    """The peer's share comes again, and the own one is announced from this address."""
    since = unit.mark()
    unit.application.expect_message("dataarrival", path="/mnt/169.254.3.7:-media-sda1")
    peer.events.seek(since)
    peer.expect(f"{sender} announces /srv/charts")


@pytest.mark.parametrize("same_index", [False, True], ids=["another number", "the same number"])
@pytest.mark.parametrize("address", ["169.254.1.1", "169.254.1.99"])
def test_shares_come_back_with_an_interface_that_is_made_anew(
        unit, tools, peer, network, address: str, same_index: bool) -> None:
    have_a_share_come(unit, peer)
    index = index_of_eth0(unit)
    delete_eth0(unit)
    unit.application.expect_message("dataremoval")
    network.join(unit.sandbox, address, index if same_index else None)
    assert (index_of_eth0(unit) == index) == same_index
    expect_sharing_both_ways(unit, peer, address)
    assert unit.daemon.logged(INFO, JOINING_AGAIN) == 1


def test_an_interface_that_takes_over_the_name_is_joined(unit, tools, peer, network) -> None:
    have_a_share_come(unit, peer)
    unit.eth0.clear_address()
    unit.eth0.down()
    unit.sandbox.run(["ip", "link", "set", "eth0", "name", "old0"])
    network.join(unit.sandbox, "169.254.1.1")
    joined = unit.mark()
    peer.announce(Announcement("/media/later"))
    unit.application.expect_message("dataarrival", path="/mnt/169.254.3.7:-media-later")
    assert unit.daemon.logged(INFO, JOINING_AGAIN) == 1
    peer.events.seek(joined)
    peer.expect("169.254.1.1 announces /srv/charts")


def test_the_group_is_joined_again_with_a_new_address(unit, tools, peer) -> None:
    have_a_share_come(unit, peer)
    unit.eth0.set_address("169.254.1.99")
    unit.daemon.expect_log(INFO, JOINING_AGAIN)
    peer.expect("169.254.1.99 announces /srv/charts")
    peer.announce(Announcement("/media/later"))
    unit.application.expect_message("dataarrival", path="/mnt/169.254.3.7:-media-later")
    assert unit.daemon.logged(INFO, JOINING_AGAIN) == 1


def test_joining_an_interface_that_is_made_anew_waits_for_a_route(unit, tools, peer,
                                                                  network) -> None:
    have_a_share_come(unit, peer)
    delete_eth0(unit)
    unit.application.expect_message("dataremoval")
    interface = network.join(unit.sandbox)
    interface.up()
    unit.sandbox.run(["ip", "address", "add", "169.254.1.1/16", "dev", "eth0"])
    unit.daemon.expect_log(INFO, JOINING_AGAIN)
    for _ in range(3):
        unit.daemon.expect_log(INFO, NOT_JOINED)
    descriptors = open_descriptors(unit)
    for _ in range(5):
        unit.daemon.expect_log(INFO, NOT_JOINED)
    assert open_descriptors(unit) < descriptors + 4, "a few may be open just now"
    interface.set_address("169.254.1.1")
    expect_sharing_both_ways(unit, peer, "169.254.1.1")


def test_the_daemon_ends_while_it_waits_for_an_interface_to_come_back(unit, tools, peer) -> None:
    have_a_share_come(unit, peer)
    delete_eth0(unit)
    unit.application.expect_message("dataremoval")
    assert unit.daemon.terminate() == 0


@pytest.mark.parametrize("gone", ["the cable", "the interface", "the address"])
def test_an_interface_that_only_was_away_is_not_joined_again(unit, tools, peer,
                                                             gone: str) -> None:
    have_a_share_come(unit, peer)
    if gone == "the cable":
        unit.eth0.pull_cable()
    elif gone == "the interface":
        unit.eth0.down()
    else:
        unit.eth0.clear_address()
    unit.application.expect_message("dataremoval")
    unit.eth0.plug_cable()
    unit.eth0.up()
    unit.eth0.set_address("169.254.1.1")
    expect_sharing_both_ways(unit, peer, "169.254.1.1")
    assert unit.daemon.logged(INFO, JOINING_AGAIN) == 0
