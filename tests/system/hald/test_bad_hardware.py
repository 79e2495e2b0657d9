"""Hardware that lies, texts that bite, devices that vanish, events that flood or get lost."""

import contextlib
import itertools
import threading
from collections.abc import Iterator

import pytest

from testbed import timeouts
from testbed.hald import HaldMachine
from testbed.strace import Strace
from testbed.udev import Disk, FileSystem, sd_card, usb_disk

#: Texts as the hardware and a medium may hold them; udev passes on what is no blank or zero.
TEXTS = ["mmc7", "usb", "scsi_mmc_usb", "a/b", "../../../etc", "/", "..", "%s%n", "\x1b[2J", "\x07",
         "\x7f", "\udcff\udcfe", "\udcc3", "café", "'; reboot #", "$(reboot)", "x" * 5000, " ", "\\x2f",
         "-o", "--", "#", "[object 0]", ";"]


@pytest.mark.parametrize("text", TEXTS)
def test_texts_of_hardware_and_medium_bring_no_bus_path_or_line_into_anything(
        running: HaldMachine, text: str):
    disk = usb_disk(usb_serial=text, serial=text,
                    partitions=[FileSystem(text, label=text), FileSystem("", label=text),
                                FileSystem("", "ext4")])
    running.udev.plug(disk)
    running.settle()
    names = running.objects()
    assert len([name for name in names if name.startswith("volume_")]) == 3
    for name in names:
        assert "/" not in name and "mmc" not in name
        own = name.removeprefix("usb_device_90c_1000_")
        for suffix in ("_scsi_device_lun0", "_scsi_host", "_if0"):
            own = own.removesuffix(suffix)
        assert "usb" not in own and "scsi" not in own
    for record in running.records():
        assert record.text.isprintable()
    # A client that is no service of this name reads every property.
    answer = running.call("/org/freedesktop/Hal/Manager",
                          "org.freedesktop.Hal.Manager.GetAllDevicesWithProperties")
    assert answer.startswith("([(")
    # And all of that survives a restart.
    since = running.mark()
    running.kill_service()
    running.start_service()
    assert running.told(since) == []
    assert running.objects() == names


ATTRIBUTES = ["", " ", "\t\n", "x", "-1", "99999999999999999999", "0x10", "ffff" * 2000, "\udcff"]


@pytest.mark.parametrize("value", [None, *ATTRIBUTES])
def test_attributes_of_a_stick_are_missing_empty_or_nonsense(running: HaldMachine,
                                                            value: str | None):
    disk = usb_disk(partitions=[FileSystem("A")])
    spoil(disk, value)
    running.udev.plug(disk)
    running.settle()
    assert running.volumes() == ["volume_uuid_A"]
    running.udev.pull(disk)
    running.settle()
    assert running.objects() == []


def test_an_id_that_is_missing_counts_as_zero_and_is_named_in_the_log(running: HaldMachine):
    disk = usb_disk(partitions=[FileSystem("A")])
    device = next(device for device in disk.above if "idVendor" in device.attributes)
    del device.attributes["idVendor"]
    running.udev.plug(disk)
    running.settle()
    assert running.volumes() == ["volume_uuid_A"]
    assert "1-1.3: idVendor is no number and counts as 0" in [
        record.text for record in running.records()]


def test_an_attribute_that_cannot_be_read_is_named_in_the_log(running: HaldMachine):
    disk = usb_disk(partitions=[FileSystem("A")])
    device = next(device for device in disk.above if "serial" in device.attributes)
    running.udev.place(disk)
    attribute = running.sandbox.path(f"{running.udev.root}{device.path}/serial")
    attribute.unlink()
    attribute.mkdir()
    running.udev.announce(*disk.blocks())
    running.settle()
    assert running.volumes() == ["volume_uuid_A"]
    assert "1-1.3: serial cannot be read: Is a directory" in [
        record.text for record in running.records()]


@pytest.mark.parametrize("value", [None, *ATTRIBUTES])
def test_attributes_of_a_card_are_missing_empty_or_nonsense(running: HaldMachine,
                                                           value: str | None):
    card = sd_card(partitions=[FileSystem("A")])
    spoil(card, value)
    running.udev.plug(card)
    running.settle()
    assert running.volumes() == ["volume_uuid_A"]


def spoil(disk: Disk, value: str | None) -> None:
    """Give every attribute this value, but for the number that makes a partition one."""
    for device in [*disk.above, *disk.blocks()]:
        for name in list(device.attributes):
            if name == "partition":
                continue
            if value is None:
                del device.attributes[name]
            else:
                device.attributes[name] = value


@pytest.mark.parametrize("numbers", itertools.product(["", "x", "-1", "4294967296"], repeat=2))
def test_device_numbers_that_are_none(running: HaldMachine, numbers: tuple[str, str]):
    disk = usb_disk(partitions=[FileSystem("A")])
    disk.partitions[1].properties |= {"MAJOR": numbers[0], "MINOR": numbers[1], "DISKSEQ": "x"}
    running.udev.plug(disk)
    running.settle()
    assert running.call("/org/freedesktop/Hal/Manager",
                        "org.freedesktop.Hal.Manager.DeviceExists", "x") == "(false,)"


@pytest.mark.parametrize("sent", range(5))
def test_a_stick_that_vanishes_at_each_step_of_its_arrival(running: HaldMachine, sent: int):
    """The service reads of an arrival only when sysfs is empty; the rest it never hears, but for
    the removal."""
    disk = usb_disk(partitions=[FileSystem("A"), FileSystem("B")])
    arrival = [(disk.disk, "add"), (disk.partitions[1], "add"), (disk.partitions[2], "add"),
               (disk.disk, "change")]
    removal = [(disk.partitions[2], "remove"), (disk.partitions[1], "remove"),
               (disk.disk, "remove")]
    running.udev.place(disk)
    running.process.pause()
    for device, action in [*arrival[:sent], *removal]:
        running.udev.event(device, action)
    running.udev.vanish(disk)
    running.process.resume()
    running.settle()
    assert running.objects() == []


@pytest.mark.parametrize("read", range(5))
def test_a_stick_that_vanishes_between_two_events(running: HaldMachine, read: int):
    disk = usb_disk(partitions=[FileSystem("A"), FileSystem("B")])
    arrival = [disk.disk, disk.partitions[1], disk.partitions[2], disk.disk]
    running.udev.place(disk)
    running.udev.announce(*arrival[:read])
    running.settle()
    running.process.pause()
    running.udev.announce(*arrival[read:])
    for device in reversed(disk.blocks()):
        running.udev.event(device, "remove")
    running.udev.vanish(disk)
    running.process.resume()
    running.settle()
    assert running.objects() == []


def test_a_flood_of_events(running: HaldMachine, stick: Disk):
    running.udev.plug(stick)
    running.settle()
    since = running.mark()
    running.udev.flood(stick.partitions[1], 1000)
    assert running.told(since) == []
    read = [record for record in running.debug_records(since)
            if "udev: change" in record.text and record.text.endswith("/sda1")]
    assert len(read) == 1000
    assert running.volumes() == ["volume_uuid_A", "volume_uuid_B"]


@contextlib.contextmanager
def flood(machine: HaldMachine, disk: Disk) -> Iterator[None]:
    """Changes of the disk, one after the other without a pause, until the end of the block."""
    begun, over = threading.Event(), threading.Event()

    def send() -> None:
        while not over.is_set():
            machine.udev.flood(disk.disk, 200)
            begun.set()

    sender = threading.Thread(target=send)
    sender.start()
    try:
        assert begun.wait(timeouts.RUN)
        yield
    finally:
        over.set()
        sender.join()


def test_others_are_served_during_a_flood(running: HaldMachine, stick: Disk):
    running.udev.plug(stick)
    running.settle()
    with flood(running, stick):
        assert running.mount("volume_uuid_A", "sda1") == "(0,)"
    running.settle()
    assert running.volumes() == ["volume_uuid_A", "volume_uuid_B"]


def test_a_thousand_partitions_on_a_hundred_disks_at_the_start(machine: HaldMachine):
    disks = [usb_disk("sd" + letters(number), port=f"1-{number + 1}", host=number,
                      usb_serial=f"S{number}",
                      partitions=[FileSystem(f"{number}-{part}") for part in range(10)])
             for number in range(100)]
    machine.udev.place(*disks)
    machine.start_service()
    assert len(machine.volumes()) == 1000
    assert len(machine.objects()) == 1500
    since = machine.mark()
    machine.kill_service()
    machine.start_service()
    assert machine.told(since) == []


def letters(number: int) -> str:
    """a, ..., z, aa, ..."""
    text = ""
    number += 1
    while number:
        number, rest = divmod(number - 1, 26)
        text = chr(ord("a") + rest) + text
    return text


def test_lost_events_are_made_up_for_by_looking_anew(running: HaldMachine, stick: Disk):
    running.udev.plug(stick)
    running.settle()
    other = usb_disk("sdb", port="1-1.4", host=1, usb_serial="BB", partitions=[FileSystem("N")])
    running.udev.place(other)
    running.udev.erase(stick.partitions[2])
    since = running.mark()
    with Strace(running.process, running.sandbox.logs / "strace", "-e",
                "inject=recvmsg:error=ENOBUFS:when=1", thread=running.process.pid):
        running.udev.event(stick.disk, "change")
        told = running.told(since)
    assert told[0] == "DeviceRemoved volume_uuid_B"
    assert told[-1] == "DeviceAdded volume_uuid_N"
    assert "udev events were lost: checking all disks again" in [
        record.text for record in running.records(since)]


@pytest.mark.undelayed("its calls are counted")
def test_what_cannot_be_read_is_named_in_the_log(running: HaldMachine, stick: Disk):
    since = running.mark()
    with Strace(running.process, running.sandbox.logs / "strace", "-e",
                "inject=access,faccessat,faccessat2:error=ENOMEM", thread=running.process.pid):
        running.udev.plug(stick)
        assert running.told(since) == []
    texts = [record.text for record in running.records(since)]
    assert "sda is not served: a device above it cannot be read" in texts
    assert "sda1 cannot be read, and stays unknown until its next udev event" in texts
    running.udev.announce(*stick.blocks())
    assert running.told(since)[-1] == "DeviceAdded volume_uuid_B"


def test_what_cannot_be_read_at_the_start_is_named_in_the_log(machine: HaldMachine, stick: Disk):
    machine.udev.place(stick, usb_disk("sdb", port="1-1.4", host=1, partitions=[FileSystem("C")]))
    link = machine.sandbox.path(f"{machine.udev.root}{stick.disk.path}/subsystem")
    link.unlink()
    link.write_text("")
    since = machine.mark()
    machine.start_service()
    texts = [record.text for record in machine.records(since)]
    assert "cannot read the whole list of disks: Invalid argument" in texts
    assert "sda1 cannot be read, and stays unknown until its next udev event" in texts
    assert machine.volumes() == ["volume_uuid_C"], "the other disk is served"


@pytest.mark.parametrize("empty", [True, False])
def test_a_record_that_cannot_be_read_at_the_start_is_no_record_to_come(
        machine: HaldMachine, stick: Disk, empty: bool):
    machine.udev.place(stick)
    record = machine.sandbox.path(f"{machine.udev.root}{stick.disk.path}/uevent")
    record.unlink()
    if empty:
        record.write_text("")
    else:
        record.mkdir()
    since = machine.mark()
    machine.start_service()
    assert "sda cannot be read, and stays unknown until its next udev event" in [
        line.text for line in machine.records(since)]


def test_without_udev_there_is_a_clear_line_and_status_1(machine: HaldMachine):
    machine.sandbox.path("/run/udev/control").unlink()
    process = machine.launch()
    assert process.wait(timeouts.START) == 1
    assert "udev is not running" in process.stderr()
