"""The arrival of a local volume: what is asked, mounted, linked, reported and logged, in order."""

import re

import pytest

from local_volumes import (CARD, CARD_ARRIVAL, CARD_VOLUME, DEVICES, STICK, STICK_VOLUME, arrival,
                           card_arrival, mark, registered, said, said_from, stick_record, told)
from testbed.daemon import DEBUG, ERROR, INFO
from testbed.unit import Unit

_STORAGE = DEVICES + "storage_serial_Acme_Voyager_stick_0_0"
_DISK_CALLS = [
    "storage_serial_Acme_Voyager_stick_0_0 GetPropertyString('info.parent')",
    "usb_device_90c_1000_stick_if0_scsi_host_scsi_device_lun0 GetPropertyString('info.parent')",
    "usb_device_90c_1000_stick_if0_scsi_host GetPropertyString('linux.sysfs_path')",
    "usb_device_90c_1000_stick_if0_scsi_host GetPropertyInteger('usb_device.vendor_id')",
    "usb_device_90c_1000_stick_if0_scsi_host GetPropertyInteger('usb_device.product_id')",
    "usb_device_90c_1000_stick_if0_scsi_host_scsi_device_lun0 GetPropertyString('linux.subsystem')",
    *(f"usb_device_90c_1000_stick_if0_scsi_host_scsi_device_lun0 GetPropertyInteger('scsi.{part}')"
      for part in ("host", "bus", "target", "lun"))]
_DESCRIBE = [
    "volume_uuid_0000_060C GetPropertyString('info.parent')", *_DISK_CALLS,
    "volume_uuid_0000_060C GetPropertyString('volume.fstype')",
    "volume_uuid_0000_060C GetPropertyString('block.device')",
    "volume_uuid_0000_060C GetPropertyBoolean('volume.is_mounted')"]
_DESCRIBE_MOUNTED = [
    *_DESCRIBE,
    "volume_uuid_0000_060C GetPropertyString('volume.mount_point')",
    "volume_uuid_0000_060C GetPropertyBoolean('volume.is_mounted_read_only')"]


def mounts(unit: Unit, since: int) -> list[str]:
    """The arguments of the Mount calls after the mark."""
    return [call.arguments for call in unit.hal.calls(since) if call.member == "Mount"]


@pytest.mark.unit_options(configuration="name=Chart Port\nusbid=1-1_1\n")
def test_a_stick_takes_every_step_in_order(running_unit: Unit) -> None:
    unit, since = running_unit, mark(running_unit)
    unit.hal.plug(STICK)
    message = arrival("/media/sda1", name=" - Chart Port")
    assert unit.application.next_text() == message
    unit.settle()
    assert said_from(unit, since, f"_DeviceAdded: {STICK_VOLUME}") == [
        (DEBUG, f"_DeviceAdded: {STICK_VOLUME}"),
        (INFO, "_DeviceAdded: Volume Found"),
        (INFO, f"_DeviceAdded: MountVolume success: {STICK_VOLUME} sda1 vfat"),
        (INFO, f"_DeviceMounted: {STICK_VOLUME}"),
        (INFO, "_DeviceMounted: HalVolumeInfo.USBHub 1-1_1--1_0 matches 1-1_1"),
        (DEBUG, "AddServiceNFS: /media/sda1"),
        (INFO, "symlink: /media/USB Memory Card A1 -> sda1"),
        (INFO, message),
        *stick_record("/media/sda1")]
    assert [str(call) for call in unit.hal.calls(since)] == [
        *_DESCRIBE,
        "volume_uuid_0000_060C Mount('sda1', 'vfat', [])",
        "volume_uuid_0000_060C GetPropertyBoolean('volume.is_mounted')",
        *_DESCRIBE_MOUNTED]
    assert unit.links() == {"USB Memory Card A1": "sda1"}
    assert unit.mounts() == {"/media/sda1": "rw"}


@pytest.mark.unit_options(configuration="name=Everything\nname=x\n")
def test_a_card_takes_every_step_in_order_and_never_asks_the_usb_map(running_unit: Unit) -> None:
    unit, since = running_unit, mark(running_unit)
    unit.hal.plug(CARD)
    assert unit.application.next_text() == CARD_ARRIVAL
    unit.settle()
    assert said_from(unit, since, f"_DeviceAdded: {CARD_VOLUME}") == [
        (DEBUG, f"_DeviceAdded: {CARD_VOLUME}"),
        (INFO, "_DeviceAdded: Volume Found"),
        (INFO, f"_DeviceAdded: MountVolume success: {CARD_VOLUME} mmcblk0p1 vfat"),
        *card_arrival()]


@pytest.mark.unit_options(configuration="name=Everything\nname=x\n")
def test_an_entry_without_usb_id_matches_every_stick(running_unit: Unit) -> None:
    since = mark(running_unit)
    running_unit.hal.plug(STICK)
    assert running_unit.application.next_text() == arrival("/media/sda1", name=" - Everything")
    assert running_unit.daemon.logged(
        INFO, "_DeviceMounted: HalVolumeInfo.USBHub 1-1_1--1_0 matches ", since) == 1


def test_other_devices_are_no_volumes(running_unit: Unit) -> None:
    unit, since = running_unit, mark(running_unit)
    devices = ["/org/freedesktop/Hal/devices/storage_serial_Acme",
               "/org/freedesktop/Hal/devices/Volume_x", "/org/freedesktop/Hal/device/volume_x",
               "volume_x", "", "/"]
    for udi in devices:
        unit.hal.command("emit /org/freedesktop/Hal/Manager org.freedesktop.Hal.Manager"
                         f" DeviceAdded ('{udi}',)")
    unit.settle()
    assert said(unit, since) == [line for udi in devices for line in (
        (DEBUG, f"_DeviceAdded: {udi}"), (DEBUG, "_DeviceAdded: Invalid Volume String"))]
    assert unit.hal.calls(since) == []


def test_a_volume_is_known_by_the_text_anywhere_in_its_path(running_unit: Unit) -> None:
    unit, since = running_unit, mark(running_unit)
    udi = "/bridge/org/freedesktop/Hal/devices/volume"
    unit.hal.command("emit /org/freedesktop/Hal/Manager org.freedesktop.Hal.Manager"
                     f" DeviceAdded ('{udi}',)")
    unit.settle()
    assert said(unit, since)[:2] == [(DEBUG, f"_DeviceAdded: {udi}"),
                                     (INFO, "_DeviceAdded: Volume Found")]
    assert [call.path for call in unit.hal.calls(since)] == [udi]


def test_a_volume_that_cannot_be_described_is_passed_over(running_unit: Unit) -> None:
    unit, since = running_unit, mark(running_unit)
    unit.hal.command("fail GetPropertyString:block.device org.freedesktop.Hal.Error nothing here")
    unit.hal.plug(STICK)
    unit.settle()
    assert said_from(unit, since, "_DeviceAdded: Volume Found") == [
        (INFO, "_DeviceAdded: Volume Found"),
        (ERROR, "org.freedesktop.Hal.Error: nothing here")]
    assert mounts(unit, since) == []


def test_a_mounted_volume_that_cannot_be_described_is_not_registered(running_unit: Unit) -> None:
    unit = running_unit
    unit.hal.command("quiet plug " + STICK)
    since = mark(unit)
    unit.hal.command("fail GetPropertyString:volume.fstype org.freedesktop.Hal.Error no type")
    unit.hal.command("mount stick")
    unit.settle()
    assert said(unit, since) == [
        (INFO, f"_DeviceMounted: {STICK_VOLUME}"),
        (ERROR, "org.freedesktop.Hal.Error: no type"),
        (ERROR, "_DeviceMounted: Failed to get Volume Info")]
    assert unit.links() == {}


@pytest.mark.parametrize("options, path, name, read_only", [
    ("mounted", "/media/sda1", "USB Memory Card A1", False),
    ("mounted=CHARTS readonly", "/media/CHARTS", "USB Memory Card", True)])
def test_a_volume_mounted_by_somebody_else_is_registered_at_once(
        running_unit: Unit, options: str, path: str, name: str, read_only: bool) -> None:
    unit, since = running_unit, mark(running_unit)
    unit.hal.plug(f"{STICK} {options}")
    assert unit.application.next_text() == arrival(path, read_only=read_only)
    unit.settle()
    assert mounts(unit, since) == []
    assert unit.links() == {name: path.removeprefix("/media/")}
    lines = said_from(unit, since, "_DeviceAdded: Volume Found")
    assert lines[1] == (INFO, f"_DeviceMounted: {STICK_VOLUME}")
    assert lines[-13:] == stick_record(path, read_only)


def test_a_refused_mount_is_not_tried_again(running_unit: Unit) -> None:
    unit, since = running_unit, mark(running_unit)
    unit.hal.command("fail Mount org.freedesktop.Hal.Device.Volume.UnknownFailure no such luck")
    unit.hal.plug(STICK)
    unit.settle()
    assert said_from(unit, since, "_DeviceAdded: Volume Found") == [
        (INFO, "_DeviceAdded: Volume Found"),
        (ERROR, "org.freedesktop.Hal.Device.Volume.UnknownFailure: no such luck"),
        (ERROR, f"_DeviceAdded: MountVolume failed: {STICK_VOLUME} sda1 vfat")]
    assert mounts(unit, since) == ["'sda1', 'vfat', []"]
    # The next announcement of the same device brings it in.
    unit.hal.command("emit /org/freedesktop/Hal/Manager org.freedesktop.Hal.Manager"
                     f" DeviceAdded ('{STICK_VOLUME}',)")
    assert unit.application.next_text() == arrival("/media/sda1")
    assert len(mounts(unit, since)) == 2


def test_two_notices_of_one_mount_make_one_arrival(running_unit: Unit) -> None:
    unit = running_unit
    since = registered(unit)
    unit.hal.command(f"emit {STICK_VOLUME} org.freedesktop.Hal.Device PropertyModified"
                     " (1, [('volume.is_mounted', false, false)])")
    unit.settle()
    assert said(unit, since) == [
        (INFO, f"_DeviceMounted: {STICK_VOLUME}"),
        (DEBUG, f"_AddMountPoint: Volume already in list: {STICK_VOLUME}")]
    unit.hal.pull("stick")
    unit.settle()
    assert unit.daemon.logged(INFO, "_DeviceRemoved: Found Volume in list: ", since) == 1


def test_an_announced_volume_that_is_registered_already_is_not_registered_twice(
        running_unit: Unit) -> None:
    unit = running_unit
    unit.hal.plug(STICK)
    unit.settle()
    since = mark(unit)
    unit.hal.command("emit /org/freedesktop/Hal/Manager org.freedesktop.Hal.Manager"
                     f" DeviceAdded ('{STICK_VOLUME}',)")
    unit.settle()
    assert said(unit, since) == [
        (DEBUG, f"_DeviceAdded: {STICK_VOLUME}"),
        (INFO, "_DeviceAdded: Volume Found"),
        (INFO, f"_DeviceMounted: {STICK_VOLUME}"),
        (DEBUG, f"_AddMountPoint: Volume already in list: {STICK_VOLUME}")]


def test_the_volume_id_is_compared_with_case(running_unit: Unit) -> None:
    unit = running_unit
    for name in ("upper", "lower"):
        unit.hal.plug(f"usb {name} volume-name=volume_{'X' if name == 'upper' else 'x'}")
    assert told(unit, 2) == [arrival("/media/sda1"), arrival("/media/sdb1")]


def test_a_block_device_without_name_ends_the_daemon(running_unit: Unit) -> None:
    unit, since = running_unit, mark(running_unit)
    unit.hal.plug(f'{STICK} volume-block="dev/sda1"')
    assert unit.daemon.wait() == -6
    assert all(part in unit.daemon.stderr() for part in ("_DeviceAdded", "RetVal == true"))
    failure = unit.daemon.failed_assertion()
    assert re.search(r"\btVoldrake\b.*\bRetVal == true\b", failure)
    assert said(unit, since)[-3:] == [(INFO, "_DeviceAdded: Volume Found"),
                                      (ERROR, "_DeviceAdded: GetNextMountPointName failed"),
                                      (ERROR, failure)]
    assert mounts(unit, since) == []


def test_a_disk_without_name_is_mounted_under_the_name_that_the_service_chooses(
        running_unit: Unit) -> None:
    unit = running_unit
    unit.sandbox.write("/media/kept/charts", "charts")
    unit.hal.plug(f"{STICK} volume-block=/dev/ label=CHARTS")
    assert unit.application.next_text() == arrival("/media/CHARTS")
    unit.settle()
    assert unit.links() == {"USB Memory Card": "CHARTS"}
    assert unit.media() == ["CHARTS", "USB Memory Card", "kept"]
    assert unit.content("/media/kept/charts") == "charts"


def test_a_card_without_identity_is_a_hard_drive(running_unit: Unit) -> None:
    """A card's identity may be an empty text; then nothing marks the volume as a card."""
    running_unit.hal.plug('sd card uuid=1769-6A29 card/mmc.cid=string:""')
    assert running_unit.application.next_text() == arrival("/media/mmcblk0p1",
                                                           name="Memory Card - 0")


def test_volumes_are_reported_in_the_order_of_their_arrival(running_unit: Unit) -> None:
    for number in range(5):
        running_unit.hal.plug(f"usb stick{number}")
    assert told(running_unit, 5) == [arrival(f"/media/sd{letter}1") for letter in "abcde"]


def test_every_partition_is_a_volume_of_its_own(running_unit: Unit) -> None:
    unit = running_unit
    unit.hal.plug("usb stick partitions=3")
    unit.settle()
    assert unit.links() == {f"USB Memory Card A{n}": f"sda{n}" for n in (1, 2, 3)}
    unit.hal.command("pull stick:volume2")
    unit.settle()
    assert unit.links() == {f"USB Memory Card A{n}": f"sda{n}" for n in (1, 3)}


#: The properties that tell of a mount, and how the service tells of it anew.
_MOUNTED, _READ_ONLY = "volume.is_mounted", "volume.is_mounted_read_only"
#: Answers of the service from before the volume was unmounted.
_UNMOUNTED_MEANWHILE = {
    "after the change was looked at": (_MOUNTED, ["GetPropertyBoolean:volume.is_mounted"]),
    "while it is described": (_MOUNTED, ["GetPropertyBoolean:volume.is_mounted"] * 2),
    "before it turns read-only": (_READ_ONLY, ["GetPropertyBoolean:volume.is_mounted_read_only"]),
}


@pytest.mark.parametrize("changed, mounted_still", _UNMOUNTED_MEANWHILE.values(),
                         ids=_UNMOUNTED_MEANWHILE)
def test_a_volume_that_is_unmounted_between_two_queries_is_left_alone(
        running_unit: Unit, changed: str, mounted_still: list[str]) -> None:
    unit = running_unit
    unit.hal.command(f"quiet plug {STICK}")
    for query in mounted_still:
        unit.hal.command(f"answer {query} (true,)")
    unit.hal.command(f"emit {STICK_VOLUME} org.freedesktop.Hal.Device PropertyModified"
                     f" (1, [('{changed}', false, false)])")
    unit.daemon.expect_log(DEBUG, f"_AddMountPoint: Volume not mounted: {STICK_VOLUME}")
    unit.settle()
    assert unit.media() == []
    unit.hal.command("mount stick")
    assert unit.application.next_text() == arrival("/media/sda1"), "the first message"


def test_a_volume_that_is_unmounted_while_the_scan_describes_it_is_left_alone(unit: Unit) -> None:
    unit.hal.plug(STICK)
    unit.hal.command("answer GetPropertyBoolean:volume.is_mounted (true,)")
    unit.start_daemon()
    unit.daemon.expect_log(DEBUG, f"_AddMountPoint: Volume not mounted: {STICK_VOLUME}")
    assert unit.media() == []
    unit.hal.command("mount stick")
    assert unit.application.next_text() == arrival("/media/sda1"), "the first message"
