"""The names that people see, and the record of a volume in the log."""

import pytest

from local_volumes import (CARD, CID, DEVICES, STICK, STICK_VOLUME, arrival, mark, record, said,
                           said_from)
from testbed.daemon import INFO
from testbed.unit import Unit

_CHARTS = pytest.mark.unit_options(configuration="name=Chart Port\nusbid=1-1_3\n")
_READER = "product=0x4040 vendor=0x0424"


def told_name(unit: Unit) -> str:
    """The friendly name in the next arrival."""
    return unit.application.expect_message("dataarrival")["friendlyname"]


@pytest.mark.parametrize("usbid, port, name", [
    pytest.param(usbid, port, name, marks=pytest.mark.unit_options(
        configuration=f"name=Chart Port\nusbid={usbid}\n"))
    for usbid, port, name in [
        ("1_4_2", "2-1.4.2", " - Chart Port"),
        ("1-1_3", "1-1.4", "USB Mass Storage")]])
def test_a_stick_has_the_name_of_its_port(running_unit: Unit, usbid: str, port: str,
                                          name: str) -> None:
    """The configured id is looked for anywhere in the port's text."""
    since = mark(running_unit)
    running_unit.hal.plug(f"usb stick port={port}")
    assert told_name(running_unit) == name
    running_unit.settle()
    hub = port.replace(".", "_") + "--1_0"
    matches = [text for _, text in said(running_unit, since) if " matches " in text]
    assert matches == ([f"_DeviceMounted: HalVolumeInfo.USBHub {hub} matches {usbid}"]
                       if name != "USB Mass Storage" else [])


@pytest.mark.unit_options(configuration=(
    "name=Second\nusbid=1-1_3\nname=First\nusbid=1-1\nname=Third\nusbid=2-\n"))
def test_the_first_entry_by_usb_id_counts(running_unit: Unit) -> None:
    """The entries are ordered by their ids, not by their places in the file."""
    running_unit.hal.plug("usb stick port=1-1.3")
    assert told_name(running_unit) == " - First"
    running_unit.hal.plug("usb other port=2-1")
    assert told_name(running_unit) == " - Third"


@_CHARTS
@pytest.mark.parametrize("properties, name", [
    ("scsi_host/linux.sysfs_path=unset", "USB Mass Storage"),
    ("usb_device/usb_device.vendor_id=unset", " - Chart Port")])
def test_a_stick_that_is_described_in_part_is_told_all_the_same(
        running_unit: Unit, properties: str, name: str) -> None:
    running_unit.hal.plug(f"usb stick port=1-1.3 {properties}")
    assert told_name(running_unit) == name


def test_a_card_has_the_number_of_its_host(running_unit: Unit) -> None:
    running_unit.hal.plug(f"sd card host=7 cid={CID}")
    assert told_name(running_unit) == "Memory Card - 7"


def test_the_record_of_a_stick(running_unit: Unit) -> None:
    unit, since = running_unit, mark(running_unit)
    unit.hal.plug("usb stick uuid=0000-060C port=2-1.4.2 fstype=ext3 readonly block=/dev/sdq"
                  " mounted=CHARTS")
    assert unit.application.next_text() == arrival("/media/CHARTS", read_only=True)
    unit.settle()
    assert said_from(unit, since, "-" * 75) == record(
        f"VolumeId = {STICK_VOLUME}",
        f"StorageDeviceId =  {DEVICES}storage_serial_Acme_Voyager_stick_0_0",
        f"ControllerId = {DEVICES}usb_device_90c_1000_stick_if0_scsi_host_scsi_device_lun0",
        f"HostID = {DEVICES}usb_device_90c_1000_stick_if0_scsi_host",
        "BusType = usb",
        "USBHub = 2-1_4_2--1_0",
        "Cid = ",
        "FileSystemType = ext3",
        "IsMounted = 1",
        "MountPoint = /media/CHARTS",
        "ReadOnly = 1",
        "BlockDevice = /dev/sdq1")


def test_the_record_of_a_card(running_unit: Unit) -> None:
    unit, since = running_unit, mark(running_unit)
    unit.hal.plug(f'{CARD} host=1 rca=7 fstype="" mounted')
    unit.application.next_text()
    unit.settle()
    assert said_from(unit, since, "-" * 75) == record(
        f"VolumeId = {DEVICES}volume_uuid_1769_6A29",
        f"StorageDeviceId =  {unit_device(unit, 'card:storage')}",
        f"ControllerId = {unit_device(unit, 'card:card')}",
        f"HostID = {unit_device(unit, 'host1:host')}",
        "BusType = mmc",
        "MMCHost = 1",
        f"Cid = {CID}",
        "FileSystemType = ",
        "IsMounted = 1",
        "MountPoint = /media/mmcblk1p1",
        "ReadOnly = 0",
        "BlockDevice = /dev/mmcblk1p1")


def test_the_record_of_a_disk_on_another_bus(running_unit: Unit) -> None:
    """Neither port nor host nor SCSI address, for the bus is not one of the known ones."""
    unit, since = running_unit, mark(running_unit)
    unit.hal.plug("scsi disk uuid=AA")
    unit.hal.command("mount disk")
    unit.application.next_text()
    unit.settle()
    assert said_from(unit, since, "-" * 75) == record(
        f"VolumeId = {DEVICES}volume_uuid_AA",
        f"StorageDeviceId =  {unit_device(unit, 'disk:storage')}",
        f"ControllerId = {unit_device(unit, 'disk:scsi_device')}",
        f"HostID = {unit_device(unit, 'disk:scsi_host')}",
        "BusType = ",
        "Cid = ",
        "FileSystemType = vfat",
        "IsMounted = 1",
        "MountPoint = /media/sda1",
        "ReadOnly = 0",
        "BlockDevice = /dev/sda1")


def test_what_the_log_cannot_carry_is_shown_as_question_marks(running_unit: Unit) -> None:
    """A line break in a text from outside must not make a log line of its own."""
    unit, since = running_unit, mark(running_unit)
    unit.hal.command(f'quiet plug {STICK} fstype="vf\\nat" volume-block="/dev/sd\\n\\x1bz"'
                     ' volume/volume.mount_point=string:"/media/a\\nb"'
                     ' scsi_host/linux.sysfs_path=string:"/sys/1-1\\n.3/host2"')
    unit.hal.command("set stick volume.is_mounted=bool:true")
    unit.application.next_text()
    unit.settle()
    assert unit.daemon.strange_lines(since) == []
    lines = said(unit, since)
    for field in ("FileSystemType = vf?at", "BlockDevice = /dev/sd??z", "MountPoint = /media/a?b",
                  "USBHub = 1-1?_3"):
        assert (INFO, f"_PrintHalVolumeInfo: {field}") in lines


@pytest.mark.unit_options(configuration="name=x\nusbid=1-1\n")
def test_a_line_break_in_a_ports_text_makes_no_log_line(running_unit: Unit) -> None:
    unit, since = running_unit, mark(running_unit)
    unit.hal.plug('usb stick scsi_host/linux.sysfs_path=string:"/sys/1-1\\nz/host2"')
    assert told_name(unit) == " - x"
    unit.settle()
    unit.daemon.log_lines()
    assert unit.daemon.strange_lines(since) == []
    assert (INFO, "_DeviceMounted: HalVolumeInfo.USBHub 1-1?z matches 1-1") in said(unit, since)


def unit_device(unit: Unit, target: str) -> str:
    """The object path of a plugged device."""
    name, _, role = target.partition(":")
    for line in unit.hal.command("list"):
        _, device, udi = line.split()
        if device == f"{name}:{role}":
            return udi
    raise AssertionError(f"no {target}")
