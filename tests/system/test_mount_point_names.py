"""The names of mount points, and what stands at their place under /media before."""

import pytest

from testbed.daemon import WARNING
from testbed.unit import Unit

@pytest.mark.parametrize("present", [True, False], ids=["at start", "plugged"])
def test_the_name_is_the_block_device_from_its_sixth_character(unit: Unit, present: bool) -> None:
    stick = "usb stick volume-block=/tmp/dev/sda1"
    if present:
        unit.hal.plug(stick)
        unit.start_daemon()
    else:
        unit.start_daemon()
        unit.hal.plug(stick)
    assert unit.hal.expect_call("Mount").arguments == "'dev/sda1', 'vfat', []"


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
