"""Stories that scripts/soak has found, and that it would find: each check can fail."""

import socket
import time
from dataclasses import replace
from pathlib import Path
from typing import Iterator

import pytest

from testbed import frame, target
from testbed.soak import Violation, starts
from testbed.soak.delivery import Delivery
from testbed.soak.player import DaemonPlayer
from testbed.soak.shrink import shortened
from testbed.soak.story import Story


@pytest.fixture(name="player")
def fixture_player(log_directory: Path) -> Iterator[DaemonPlayer]:
    """A unit that plays stories."""
    with DaemonPlayer(log_directory / "soak", real_mounts=False) as player:
        yield player


def play(player: DaemonPlayer, story: str) -> None:
    """Play the lines of a story."""
    for line in filter(None, map(str.strip, story.splitlines())):
        player.play(line)


CARD = "hal plug sd sd0 host=0"
STICKS = """
    hal plug usb usb0 serial=usb0 uuid=U0
    hal plug usb usb1 serial=usb1 uuid=U1
    settle
"""


def test_a_seed_makes_one_story():
    assert Story("1/2", 500).lines == Story("1/2", 500).lines
    assert Story("1/2", 500).lines != Story("1/3", 500).lines


@pytest.mark.native("no question for hardware addresses comes through")
def test_what_comes_and_goes_leaves_nothing(player: DaemonPlayer):
    play(player, STICKS + """
        share 0 /media/sda1 '' CHARTS rw
        share 1 '/media/$(touch /srv/soak/owned)' '' '"; touch /srv/soak/owned' ro
        hal pull usb0
        signal USR2
        compare
        rest
    """)
    assert player.unit.ledger.messages >= 6


@pytest.mark.native("no question for hardware addresses comes through")
def test_a_log_that_is_moved_away_is_read_on(player: DaemonPlayer):
    play(player, "identity serial 4711" + STICKS + """
        rotate
        hal pull usb0
        compare
        rest
    """)
    assert player.unit.ledger.messages >= 3


@pytest.mark.native("the emulator's clock would run fast, too")
@pytest.mark.skipif(target.sanitized(), reason="the library of the clock bears no sanitizer")
@pytest.mark.undelayed("two clocks are compared")
def test_the_daemons_clock_may_run_faster(log_directory: Path) -> None:
    with DaemonPlayer(log_directory / "soak", real_mounts=False, speed=20) as player:
        begun, first = time.monotonic(), seconds_of(player.unit.ledger.recent[0])
        play(player, STICKS + """
            share 0 /media/sda1 '' CHARTS rw
            compare
            rest
        """)
        passed = (seconds_of(player.unit.ledger.recent[-1]) - first) % 86_400
        assert passed > 5 * (time.monotonic() - begun)


@pytest.mark.native("the daemon's threads would not give way")
@pytest.mark.undelayed("another library of delays is loaded into it")
def test_the_daemon_ends_as_it_must_amid_a_flood(log_directory: Path) -> None:
    assert starts.run(log_directory / "soak", 1, 2, "1", lambda _: None) is None


@pytest.mark.native("the daemon's threads would not give way")
@pytest.mark.undelayed("another library of delays is loaded into it")
def test_another_end_amid_a_flood_is_found(log_directory: Path) -> None:
    with DaemonPlayer(log_directory / "soak", real_mounts=False, yields=True) as player:
        player.unit.process.kill()
        with pytest.raises(Violation, match="ended with status -9"):
            starts.flood_and_end(player.unit, "1")


def test_a_descriptor_that_is_kept_is_found(player: DaemonPlayer) -> None:
    play(player, "rest")
    player.checks.descriptors -= 1
    player.checks._patience = 0.5
    with pytest.raises(Violation, match="threads and descriptors: .* at first"):
        player.checks._check_size()


@pytest.mark.native("the emulator's own heap would be counted")
@pytest.mark.skipif(target.sanitized(), reason="a sanitizer bears no other allocator")
def test_a_block_that_is_kept_is_found(player: DaemonPlayer) -> None:
    play(player, "rest")
    first = player.checks.first_heaps.pop()
    player.checks.first_heaps = 5 * [replace(first, blocks=first.blocks - 1)]
    player.checks._patience = 0.5
    with pytest.raises(Violation, match="on the heap: .* at first"):
        player.checks._check_size()


def seconds_of(line: str) -> int:
    """When the line was logged, by the daemon's clock."""
    hours, minutes, seconds = line[:8].split(":")
    return 3600 * int(hours) + 60 * int(minutes) + int(seconds)


def test_a_volume_that_an_exclusion_hides_is_registered_when_somebody_else_mounts_it(
        player: DaemonPlayer):
    play(player, """
        hal plug usb ignored0 block=/dev/sdz volume-block=/dev/sdz1
        hal mount ignored0 ignored0x
        quiet
    """)
    assert player.unit.ledger.volumes == {"/media/ignored0x": 1}
    assert player.unit.ledger.republished == []


@pytest.mark.parametrize("wrong, said", [
    ("hal quiet pull usb0", "listed and not mounted"),
    ("hal quiet plug usb usb2", "never mounted"),
    ("hal emit /org/freedesktop/Hal/Manager org.freedesktop.Hal.Manager DeviceRemoved"
     " ('/org/freedesktop/Hal/devices/volume_uuid_U0',)", "mounted and not listed"),
    ("link-gone 'USB Memory Card A1'", "a volume without a link"),
    ("leave-behind junk", "nobody owns /media/junk"),
])
def test_what_is_not_as_it_must_be_is_found(player: DaemonPlayer, wrong: str, said: str):
    play(player, STICKS)
    player.play(wrong)
    player.unit.settle()
    # As if the story had had no part in it.
    player.unit.doubts.healed()
    player.unit.doubts._excused.clear()
    player.unit.ledger.linkless.clear()
    player.unit.left_behind.clear()
    with pytest.raises(Violation, match=said):
        player.play("quiet")


def test_a_daemon_that_ends_is_found(player: DaemonPlayer):
    assert player.unit.process
    player.unit.process.kill()
    with pytest.raises(Violation, match="has ended"):
        player.checks._alive()


def test_a_message_that_comes_twice_is_found(player: DaemonPlayer):
    play(player, STICKS + "compare")
    with player.unit.sandbox.in_network(
            lambda: socket.create_connection(("127.0.0.1", 8080))) as own:
        own.sendall(frame.encode('<message version="1" type="datasource"><content>'
                                 '<dataremoval path="/media/sda1"/></content></message>'))
    player.unit.application.leave()
    with pytest.raises(Violation, match="out of order, twice or never queued"):
        player.unit.follow()


def test_a_log_line_that_is_none_is_found(player: DaemonPlayer):
    with open(player.unit.sandbox.path("/var/log/voldrake.log"), "a", encoding="ascii") as log:
        log.write("forged\n")
    with pytest.raises(Violation, match="no entry of the log"):
        player.play("quiet")


class TestDelivery:
    """Which orders of messages are right."""

    def delivery(self, *queued: str) -> Delivery:
        """One that has these texts waiting; "!" is a republication."""
        made = Delivery("test", 0)
        for text in queued:
            if text == "!":
                made.discarded()
            else:
                made.queued(text)
        return made

    @pytest.mark.parametrize("queued, came, complete", [
        ("ab", "ab", True), ("ab", "a", False), ("", "", True), ("ab!cd", "cd", True),
        ("ab!cd", "acd", True), ("ab!cd", "abcd", True), ("ab!", "", True), ("aa", "a", False),
        ("ab!ab", "ab", True)])
    def test_right(self, queued: str, came: str, complete: bool):
        made = self.delivery(*queued)
        for text in came:
            made.came(text)
        assert made.complete() == complete

    @pytest.mark.parametrize("queued, came", [
        ("ab", "b"), ("ab", "aa"), ("ab", "aba"), ("ab!cd", "bcd"), ("ab!cd", "d"), ("", "a"),
        ("ab!cd", "ca")])
    def test_wrong(self, queued: str, came: str):
        made = self.delivery(*queued)
        with pytest.raises(Violation):
            for text in came:
                made.came(text)

    def test_a_broken_connection_costs_one_text_at_most(self):
        made = self.delivery(*"abc")
        made.lost()
        made.came("b")
        with pytest.raises(Violation):
            made.came("b")
        made = self.delivery(*"abc")
        made.lost()
        with pytest.raises(Violation):
            made.came("c")


def test_a_list_is_shortened_to_what_counts():
    assert shortened(list(range(100)), lambda some: {13, 77} <= set(some), 500) == [13, 77]
    trials = []
    shortened(list(range(100)), lambda some: not trials.append(some) and 13 in some, 5)
    assert len(trials) == 5
