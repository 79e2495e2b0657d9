"""Volumes that are to be left alone, and the places where that is looked at."""

import pytest

from local_volumes import (CARD, CARD_ARRIVAL, CARD_VOLUME, DEVICES, OTHER, STICK, STICK_VOLUME,
                           arrival, mark, mounted_unseen, read_only_remount, removal, said,
                           said_from, stick_record, told)
from testbed.daemon import INFO
from testbed.unit import Unit

#: An entry that ignores a device; the line after it makes it count.
_IGNORE = "name=x\nignore=true\nignoreDevice={}\nname=end\n"
_ignoring_sda1 = pytest.mark.unit_options(configuration=_IGNORE.format("/dev/sda1"))
_EXCLUDED = (INFO, "_IsInExclusionList: /dev/sda1")


def mount_calls(unit: Unit) -> list[str]:
    """The Mount calls, in short."""
    return [str(call) for call in unit.hal.calls() if call.member == "Mount"]


@_ignoring_sda1
def test_an_ignored_volume_is_neither_mounted_nor_told(running_unit: Unit) -> None:
    unit, since = running_unit, mark(running_unit)
    unit.hal.plug(STICK)
    unit.settle()
    assert said_from(unit, since, "_DeviceAdded: Volume Found") == [
        (INFO, "_DeviceAdded: Volume Found"), _EXCLUDED]
    assert mount_calls(unit) == []
    assert unit.media() == []
    unit.hal.plug(OTHER)
    assert unit.application.next_text() == arrival("/media/sdb1")


@_ignoring_sda1
def test_an_ignored_volume_that_is_mounted_already_is_not_registered(running_unit: Unit) -> None:
    unit, since = running_unit, mark(running_unit)
    unit.hal.plug(f"{STICK} mounted")
    unit.settle()
    assert said_from(unit, since, "_DeviceAdded: Volume Found") == [
        (INFO, "_DeviceAdded: Volume Found"), _EXCLUDED]
    assert unit.links() == {}


@_ignoring_sda1
def test_a_leftover_of_an_ignored_volume_stays(running_unit: Unit) -> None:
    running_unit.sandbox.write("/media/sda1/charts", "charts")
    running_unit.hal.plug(STICK)
    running_unit.settle()
    assert running_unit.exists("/media/sda1/charts")


@_ignoring_sda1
@pytest.mark.parametrize("mounted", ["", " mounted"], ids=["unmounted", "mounted"])
def test_the_scan_passes_an_ignored_volume_over(unit: Unit, mounted: str) -> None:
    unit.hal.plug(STICK + mounted)
    unit.start_daemon()
    assert said_from(unit, 0, "_ManualScan: found Volume") == [
        (INFO, "_ManualScan: found Volume"),
        *stick_record("/media/sda1" if mounted else None),
        _EXCLUDED,
        (INFO, "_ManualScan: Excluded")]
    assert mount_calls(unit) == []
    assert unit.links() == {}


@_ignoring_sda1
def test_a_read_only_remount_passes_an_ignored_volume_over(running_unit: Unit) -> None:
    unit = running_unit
    since = mounted_unseen(unit, STICK, "stick")
    unit.hal.command("remount stick ro")
    unit.settle()
    assert said(unit, since) == [*read_only_remount(STICK_VOLUME), _EXCLUDED]
    assert unit.links() == {}


@_ignoring_sda1
def test_an_ignored_volume_that_somebody_mounts_later_is_registered(running_unit: Unit) -> None:
    """A mount that is announced is taken as it is; only republishing skips it, and keeps it."""
    unit = running_unit
    unit.hal.plug(STICK)
    unit.hal.plug(CARD)
    unit.settle()
    unit.hal.command("mount stick")
    message = arrival("/media/sda1")
    assert sorted(told(unit, 2)) == sorted([message, CARD_ARRIVAL])
    unit.settle()
    assert unit.links() == {"USB Memory Card A1": "sda1", "Memory Card": "mmcblk0p1"}

    since = mark(unit)
    unit.daemon.signal(10)
    assert unit.application.next_text() == CARD_ARRIVAL
    unit.settle()
    lines = said(unit, since)
    assert lines.index(_EXCLUDED) > 0
    assert not any("/media/sda1" in text for _, text in lines)
    assert len(unit.application.frames(since)) == 1

    unit.hal.command("unmount stick")
    assert unit.application.next_text() == removal("/media/sda1")


@pytest.mark.parametrize("ignored", [
    pytest.param(text, id=name,
                 marks=pytest.mark.unit_options(configuration=_IGNORE.format(text)))
    for name, text in {"the disk": "/dev/sda", "a carriage return behind": "/dev/sda1\r"}.items()])
def test_a_device_is_ignored_by_its_exact_path_only(running_unit: Unit, ignored: str) -> None:
    running_unit.hal.plug(STICK)
    assert running_unit.application.next_text() == arrival("/media/sda1")
    assert not any(text.startswith("_IsInExclusionList") for _, text in said(running_unit, 0))


@pytest.mark.unit_options(configuration=_IGNORE.format("/dev/mmcblk0p1"))
def test_a_card_is_ignored_like_a_stick(running_unit: Unit) -> None:
    running_unit.hal.plug(CARD)
    running_unit.settle()
    assert running_unit.daemon.logged(INFO, "_IsInExclusionList: /dev/mmcblk0p1") == 1
    assert mount_calls(running_unit) == []
    assert (INFO, f"_DeviceMounted: {CARD_VOLUME}") not in said(running_unit, 0)


@pytest.mark.unit_options(configuration=(
    "name=a\nignore=true\nignoreDevice=/dev/sda1\n"
    "name=b\nignore=true\nignoreDevice=/dev/sdb1\n"
    "name=c\nusbid=9-9\nignore=true\nignoreDevice=/dev/sdc1\n"))
def test_several_devices_can_be_ignored(running_unit: Unit) -> None:
    for number in range(4):
        running_unit.hal.plug(f"usb stick{number}")
    assert running_unit.application.next_text() == arrival("/media/sdd1")
    running_unit.settle()
    assert running_unit.links() == {"USB Memory Card D1": "sdd1"}


@pytest.mark.unit_options(configuration="name=x\nusbid=1-1_1\nignoreDevice=/dev/sda1\n")
def test_a_device_is_ignored_only_by_an_entry_that_says_so(running_unit: Unit) -> None:
    running_unit.hal.plug(STICK)
    assert running_unit.application.next_text() == arrival("/media/sda1", name=" - x")


def test_a_volume_on_another_bus_is_passed_over_silently(running_unit: Unit) -> None:
    unit, since = running_unit, mark(running_unit)
    unit.hal.plug("scsi disk")
    unit.settle()
    assert said(unit, since)[-1] == (INFO, "_DeviceAdded: Volume Found")
    assert mount_calls(unit) == []


def test_the_scan_passes_a_volume_on_another_bus_over(unit: Unit) -> None:
    unit.hal.plug("scsi disk uuid=AA mounted")
    unit.start_daemon()
    lines = said_from(unit, 0, "_ManualScan: found Volume")
    assert lines[2] == (INFO, f"_PrintHalVolumeInfo: VolumeId = {DEVICES}volume_uuid_AA")
    assert lines[-1] == (INFO, "_ManualScan: Excluded")
    assert not any(text.startswith("_IsInExclusionList") for _, text in lines)
    assert unit.links() == {}


def test_a_read_only_remount_passes_a_volume_on_another_bus_over(running_unit: Unit) -> None:
    unit = running_unit
    since = mounted_unseen(unit, "scsi disk uuid=AA", "disk")
    unit.hal.command("remount disk ro")
    unit.settle()
    assert said(unit, since) == read_only_remount(f"{DEVICES}volume_uuid_AA")
    assert unit.links() == {}
