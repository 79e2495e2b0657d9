"""Stories on the hardware service that scripts/soak --hald has found, and that it would find."""

from pathlib import Path
from typing import Iterator

import pytest

from testbed.soak import Violation
from testbed.soak.hald import HaldPlayer
from testbed.soak.haldstory import HaldStory


@pytest.fixture(name="player")
def fixture_player(log_directory: Path) -> Iterator[HaldPlayer]:
    """A machine that plays stories."""
    with HaldPlayer(log_directory / "soak") as player:
        yield player


def play(player: HaldPlayer, story: str) -> None:
    """Play the lines of a story."""
    for line in filter(None, map(str.strip, story.splitlines())):
        player.play(line)


def test_a_seed_makes_one_story():
    assert HaldStory("1/2", 200).lines == HaldStory("1/2", 200).lines
    assert HaldStory("1/2", 200).lines != HaldStory("1/3", 200).lines


def test_what_comes_and_goes_leaves_nothing(player: HaldPlayer):
    play(player, """
        plug sda AB
        plug sdb AA
        plug mmcblk0 w
        ask sda 1 sda1
        mount sdb 2 one
        quiet
    """)
    assert player.machine.mounts() == {"/media/sda1": "/dev/sda1", "/mnt/one": "/dev/sdb2"}
    play(player, """
        format sda 2 NEW
        restart kill sdb
        quiet
        rebuild sda
        rest
    """)


def test_a_volume_that_was_never_announced_is_found(player: HaldPlayer):
    play(player, "plug sda AB")
    player._disks["sda"].partitions[1].properties["ID_FS_UUID"] = "OTHER"
    with pytest.raises(Violation, match="the devices show"):
        player.play("quiet")


def test_an_arrival_out_of_turn_is_found(player: HaldPlayer):
    play(player, "plug sda AB")
    player._objects.add("volume_uuid_A")
    with pytest.raises(Violation, match="announced out of turn"):
        player.play("quiet")


def test_a_directory_without_a_mount_is_found(player: HaldPlayer):
    player.machine.sandbox.path("/media/junk").mkdir()
    with pytest.raises(Violation, match="nobody owns"):
        player.play("quiet")
