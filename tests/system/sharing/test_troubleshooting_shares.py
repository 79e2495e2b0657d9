"""What docs/troubleshooting.md says of sharing: each symptom is played, and the lines that the
document quotes for it are the lines of the log."""

import signal

import pytest

from documented_lines import expect_quoted
from share_helpers import ignores_unknown_types, listens, start_listening, start_sharing
from testbed.otherunit import Announcement
from testbed.waiting import wait_until


def test_a_refused_export(unit, tools, peer) -> None:
    """The share is announced all the same."""
    tools.refuse("exportfs -o")
    start_sharing(unit)
    unit.hal.plug("usb stick")
    expect_quoted(unit, "export-refused")
    peer.expect_announcement("/media/sda1")


def test_a_share_that_cannot_be_mounted(unit, tools, peer) -> None:
    tools.refuse("mount -t nfs", 32)
    start_listening(unit)
    peer.announce(Announcement("/media/sda1"))
    expect_quoted(unit, "share-refused")


def test_a_sender_that_does_not_answer(unit, tools, peer) -> None:
    start_listening(unit)
    peer.answer_arp(False)
    peer.send(Announcement("/media/sda1"))
    expect_quoted(unit, "sender-unknown")


def test_no_route_for_the_group(unit, tools) -> None:
    """Both lines come with each try; a route ends them."""
    unit.sandbox.run(["ip", "route", "del", "224.0.0.0/4", "dev", "eth0"])
    unit.daemon.start()
    for _ in range(3):
        expect_quoted(unit, "no-route")
    done = unit.sandbox.run(["ip", "route", "add", "224.0.0.0/4", "dev", "eth0"])
    assert done.returncode == 0, done.stderr
    wait_until(lambda: listens(unit), "the daemon joins the group")


@pytest.mark.skipif(ignores_unknown_types(), reason="the daemon is built to drop them")
def test_an_announcement_of_an_unknown_type(unit, tools, peer) -> None:
    start_listening(unit)
    peer.send(Announcement("/media/sda1", message_type=7))
    assert unit.daemon.wait() == -signal.SIGABRT
    expect_quoted(unit, "unknown-type")
