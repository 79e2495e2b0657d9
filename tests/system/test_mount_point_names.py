"""The names of mount points, and what stands at their place under /media before."""

import pytest

from testbed.daemon import ERROR, WARNING
from testbed.unit import Unit

NAMES = {
    "a partition of a stick": ("/dev/sda1", "sda1"),
    "a whole disk": ("/dev/sdb", "sdb"),
    "a partition of a card": ("/dev/mmcblk0p1", "mmcblk0p1"),
    "the directory further behind": ("/tmp/dev/sda1", "dev/sda1"),
    "the directory twice": ("/dev//dev/sda1", "/dev/sda1"),
    "a directory below": ("/dev/block/8:1", "block/8:1"),
    "nothing behind the directory": ("/dev/", ""),
}


@pytest.mark.parametrize("block, name", NAMES.values(), ids=NAMES)
@pytest.mark.parametrize("present", [True, False], ids=["at start", "plugged"])
def test_the_name_is_the_block_device_from_its_sixth_character(
        unit: Unit, present: bool, block: str, name: str) -> None:
    stick = f"usb stick volume-block={block}"
    if present:
        unit.hal.plug(stick)
        unit.start_daemon()
    else:
        unit.start_daemon()
        unit.hal.plug(stick)
    assert unit.hal.expect_call("Mount").arguments == f"'{name}', 'vfat', []"


@pytest.mark.parametrize("block", ["sda1", "/dev", "", "/Dev/sda1", "dev/sda1"],
                         ids=["a bare name", "the directory without a slash", "an empty text",
                              "capitals", "no slash in front"])
def test_without_the_directory_in_it_the_daemon_aborts(running_unit: Unit, block: str) -> None:
    running_unit.hal.plug(f'usb stick volume-block="{block}"')
    assert running_unit.daemon.wait() == -6
    assert running_unit.daemon.logged(ERROR, "_DeviceAdded: GetNextMountPointName failed") == 1
    message = running_unit.daemon.stderr()
    for part in ("_DeviceAdded", "RetVal == true"):
        assert part in message


def test_an_empty_name_does_not_take_media_itself_for_a_leftover(unit: Unit) -> None:
    unit.sandbox.write("/media/precious/file", "content")
    unit.start_daemon()
    unit.hal.plug("usb stick volume-block=/dev/")
    unit.hal.expect_call("Mount")
    unit.settle()
    assert unit.content("/media/precious/file") == "content"


def test_a_leftover_is_deleted_before_the_mount(unit: Unit) -> None:
    unit.sandbox.write("/media/sda1/deep/down/file", "left over")
    unit.start_daemon()
    unit.hal.plug("usb stick")
    unit.application.expect_message("dataarrival", path="/media/sda1")
    assert not unit.exists("/media/sda1/deep")
    assert [line for line in unit.daemon.log_lines() if line.level == WARNING] == []


def test_a_mount_in_a_leftover_is_kept_and_told_of(unit: Unit) -> None:
    unit.sandbox.path("/media/sda1/inner").mkdir(parents=True)
    done = unit.sandbox.run(["mount", "-t", "tmpfs", "tmpfs", "/media/sda1/inner"])
    assert done.returncode == 0, done.stderr
    unit.sandbox.write("/media/sda1/inner/file", "content")
    unit.start_daemon()
    unit.hal.plug("usb stick")
    unit.settle()
    warnings = [line.text for line in unit.daemon.log_lines() if line.level == WARNING]
    assert len(warnings) == 2
    assert warnings[0] in ("Failed to remove /media/sda1", "Failed to remove /media/sda1/inner")
    assert warnings[1] == "DeviceAdded: failed to remove /media/sda1"
    assert unit.content("/media/sda1/inner/file") == "content"
    assert [call.member for call in unit.hal.calls()].count("Mount") == 1


def test_a_mounted_file_system_at_the_place_is_no_leftover(unit: Unit) -> None:
    unit.sandbox.path("/media/sda1").mkdir()
    done = unit.sandbox.run(["mount", "-t", "tmpfs", "tmpfs", "/media/sda1"])
    assert done.returncode == 0, done.stderr
    unit.sandbox.write("/media/sda1/file", "content")
    unit.start_daemon()
    unit.hal.plug("usb stick")
    unit.settle()
    assert unit.content("/media/sda1/file") == "content"
    assert [line for line in unit.daemon.log_lines() if line.level == WARNING] == []
