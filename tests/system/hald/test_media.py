"""Mounted media: torn out, changed in a slot, mounted and unmounted by others."""

import pytest

from testbed.filewatch import OPENED, FileWatch
from testbed.hald import HaldMachine
from testbed.tape import Channel
from testbed.udev import Disk, FileSystem, sd_card, usb_disk

MOUNTED = " volume.mount_point volume.is_mounted"
MODE = " volume.is_mounted_read_only"


@pytest.fixture(name="plugged")
def fixture_plugged(running: HaldMachine, stick: Disk) -> HaldMachine:
    """A machine with the stick, the service running; /mnt/a to /mnt/c are there."""
    running.udev.plug(stick)
    for name in "abc":
        running.sandbox.path(f"/mnt/{name}").mkdir()
    running.settle()
    return running


def mount_by_hand(machine: HaldMachine, node: str, place: str, options: str = "rw") -> None:
    """Somebody else mounts the device."""
    machine.run("/usr/bin/mount", "-t", "tmpfs", "-o", options, node, place)


def medium(disk: Disk, sequence: int, *found: FileSystem) -> Disk:
    """Another medium in the disk's slot."""
    other = usb_disk(disk.disk.name, sequence=sequence, partitions=list(found))
    return other


def change_medium(machine: HaldMachine, old: Disk, new: Disk) -> None:
    """The kernel notices that the medium in the slot is another one, and tells no more yet."""
    machine.udev.set(old.disk, DISKSEQ=str(new.sequence))
    machine.udev.event(old.disk, "change", DISK_MEDIA_CHANGE="1")


def replace_partitions(machine: HaldMachine, old: Disk, new: Disk) -> None:
    """The kernel has read the table of the new medium."""
    for partition in old.partitions.values():
        machine.udev.event(partition, "remove")
        machine.udev.erase(partition)
    machine.udev.place(new)
    machine.udev.announce(*new.partitions.values())


def test_a_mounted_stick_that_is_torn_out_is_detached_and_told_unmounted_first(
        plugged: HaldMachine, stick: Disk):
    assert plugged.mount("volume_uuid_A", "sda1") == "(0,)"
    mount_by_hand(plugged, "/dev/sda1", "/mnt/a")
    since = plugged.mark()
    plugged.udev.pull(stick)
    told = plugged.told(since)
    assert told[:3] == ["DeviceRemoved volume_uuid_B", "PropertyModified volume_uuid_A" + MOUNTED,
                        "DeviceRemoved volume_uuid_A"]
    assert told[-1] == "DeviceRemoved usb_device_90c_1000_AA99"
    assert plugged.mounts() == {}
    assert not plugged.sandbox.path("/media/sda1").exists()
    assert plugged.sandbox.path("/mnt/a").exists()
    assert plugged.objects() == []


def test_a_tear_out_is_one_line_a_mount(plugged: HaldMachine, stick: Disk):
    mount_by_hand(plugged, "/dev/sda1", "/mnt/a")
    plugged.hal.events.expect("PropertyModified volume_uuid_A" + MOUNTED)
    since = plugged.mark()
    plugged.udev.pull(stick)
    assert [record.text for record in plugged.records(since)] == [
        "sda2: gone, was volume_uuid_B",
        "sda1: gone while mounted at /mnt/a",
        "sda1: gone, was volume_uuid_A"]


def test_the_disk_that_is_told_gone_first_takes_its_mounts_along(plugged: HaldMachine, stick: Disk):
    mount_by_hand(plugged, "/dev/sda2", "/mnt/b")
    plugged.hal.events.expect("PropertyModified volume_uuid_B" + MOUNTED)
    since = plugged.mark()
    plugged.udev.event(stick.disk, "remove")
    told = plugged.told(since)
    assert told[:2] == ["PropertyModified volume_uuid_B" + MOUNTED, "DeviceRemoved volume_uuid_B"]
    assert plugged.mounts() == {}
    since = plugged.mark()
    plugged.udev.pull(stick)
    assert plugged.told(since) == []


def test_mounts_by_others_are_told(plugged: HaldMachine):
    since = plugged.mark()
    mount_by_hand(plugged, "/dev/sda1", "/mnt/a")
    plugged.hal.events.expect("PropertyModified volume_uuid_A" + MOUNTED)
    assert plugged.get("volume_uuid_A", "volume.mount_point") == "('/mnt/a',)"
    plugged.run("umount", "/mnt/a")
    plugged.hal.events.expect("PropertyModified volume_uuid_A" + MOUNTED)
    assert plugged.get("volume_uuid_A", "volume.is_mounted", "Boolean") == "(false,)"
    assert plugged.told(since) == ["PropertyModified volume_uuid_A" + MOUNTED] * 2


def test_read_only_and_back_is_told_also_of_a_bind_remount(plugged: HaldMachine):
    mount_by_hand(plugged, "/dev/sda1", "/mnt/a")
    plugged.hal.events.expect("PropertyModified volume_uuid_A" + MOUNTED)
    for options in ("remount,ro", "remount,rw", "remount,bind,ro", "remount,bind,rw"):
        plugged.run("/usr/bin/mount", "-o", options, "/mnt/a")
        plugged.hal.events.expect("PropertyModified volume_uuid_A" + MODE)
        expected = "(true,)" if options.endswith("ro") else "(false,)"
        assert plugged.get("volume_uuid_A", "volume.is_mounted_read_only", "Boolean") == expected


def test_the_first_of_two_mounts_counts(plugged: HaldMachine):
    mount_by_hand(plugged, "/dev/sda1", "/mnt/a")
    plugged.hal.events.expect("PropertyModified volume_uuid_A" + MOUNTED)
    since = plugged.mark()
    mount_by_hand(plugged, "/dev/sda1", "/mnt/b", "ro")
    plugged.run("umount", "/mnt/a")
    plugged.hal.events.expect("PropertyModified volume_uuid_A volume.mount_point" + MODE)
    assert plugged.get("volume_uuid_A", "volume.mount_point") == "('/mnt/b',)"
    assert plugged.told(since) == ["PropertyModified volume_uuid_A volume.mount_point" + MODE]


def test_a_place_with_blanks_is_told_as_it_is(plugged: HaldMachine):
    plugged.sandbox.path("/mnt/a b\tc\\").mkdir()
    mount_by_hand(plugged, "/dev/sda1", "/mnt/a b\tc\\")
    plugged.hal.events.expect("PropertyModified volume_uuid_A" + MOUNTED)
    assert plugged.get("volume_uuid_A", "volume.mount_point") == "('/mnt/a b_c\\\\',)"


def test_mounted_before_the_service_starts_is_mounted_from_the_start(machine: HaldMachine,
                                                                     stick: Disk):
    machine.udev.place(stick)
    machine.sandbox.path("/mnt/a").mkdir()
    mount_by_hand(machine, "/dev/sda1", "/mnt/a", "ro")
    machine.start_service()
    assert machine.get("volume_uuid_A", "volume.is_mounted", "Boolean") == "(true,)"
    assert machine.get("volume_uuid_A", "volume.is_mounted_read_only", "Boolean") == "(true,)"
    assert machine.told() == []
    assert machine.mount("volume_uuid_A", "sda1").startswith(
        "org.freedesktop.Hal.Device.Volume.AlreadyMounted")


def test_a_mounted_disk_that_becomes_the_systems_leaves_mounted(plugged: HaldMachine):
    plugged.sandbox.path("/home").mkdir(exist_ok=True)
    since = plugged.mark()
    mount_by_hand(plugged, "/dev/sda1", "/home")
    plugged.hal.events.expect("DeviceRemoved usb_device_90c_1000_AA99")
    assert "DeviceRemoved volume_uuid_B" in plugged.told(since)
    plugged.run("mountpoint", "-q", "/home")


# ---- Slots


def test_a_card_changed_while_mounted_is_detached_and_the_new_one_arrives(plugged: HaldMachine,
                                                                        stick: Disk):
    assert plugged.mount("volume_uuid_A", "sda1") == "(0,)"
    new = medium(stick, 2, FileSystem("N"))
    since = plugged.mark()
    change_medium(plugged, stick, new)
    assert plugged.told(since) == [
        "PropertyModified volume_uuid_A" + MOUNTED,
        "DeviceRemoved volume_uuid_B", "DeviceRemoved volume_uuid_A"]
    assert plugged.mounts() == {}
    since = plugged.mark()
    replace_partitions(plugged, stick, new)
    assert plugged.told(since) == ["DeviceAdded volume_uuid_N"]


def test_a_late_word_about_the_old_card_brings_nothing_back(plugged: HaldMachine, stick: Disk):
    change_medium(plugged, stick, medium(stick, 2))
    plugged.settle()
    since = plugged.mark()
    plugged.udev.announce(*stick.partitions.values())
    assert plugged.told(since) == []
    assert plugged.volumes() == []


def test_the_same_card_again_is_another_medium(plugged: HaldMachine, stick: Disk):
    change_medium(plugged, stick, medium(stick, 2))
    new = medium(stick, 3, FileSystem("A"), FileSystem("B"))
    change_medium(plugged, stick, new)
    replace_partitions(plugged, stick, new)
    assert plugged.told()[-4:] == ["DeviceRemoved volume_uuid_B", "DeviceRemoved volume_uuid_A",
                                   "DeviceAdded volume_uuid_A", "DeviceAdded volume_uuid_B"]


def test_without_numbers_of_media_the_change_itself_counts(running: HaldMachine):
    old = usb_disk(sequence=None, partitions=[FileSystem("A")])
    running.udev.plug(old)
    running.settle()
    since = running.mark()
    running.udev.event(old.disk, "change", DISK_MEDIA_CHANGE="1")
    new = usb_disk(sequence=None, partitions=[FileSystem("N")])
    replace_partitions(running, old, new)
    assert running.told(since) == ["DeviceRemoved volume_uuid_A", "DeviceAdded volume_uuid_N"]


def test_a_changed_card_is_one_line(plugged: HaldMachine, stick: Disk):
    since = plugged.mark()
    change_medium(plugged, stick, medium(stick, 2))
    assert [record.text for record in plugged.records(since)] == [
        "sda: the medium was changed",
        "sda2: gone, was volume_uuid_B", "sda1: gone, was volume_uuid_A"]


def test_the_disk_of_a_changed_card_is_opened(plugged: HaldMachine, stick: Disk):
    """Only then does the kernel look at the new medium."""
    opened = Channel(plugged.tape, "node")
    watch = FileWatch(lambda path, _: opened.record(f"opened {path.name}"))
    watch.add(plugged.sandbox.path(f"{plugged.udev.root}/dev/sda"), OPENED)
    watch.start()
    try:
        change_medium(plugged, stick, medium(stick, 2))
        opened.expect("opened sda")
    finally:
        watch.close()


def test_cards_in_a_slot_of_their_own_host(running: HaldMachine):
    first = sd_card(partitions=[FileSystem("A")])
    running.udev.plug(first)
    assert running.told()[-1] == "DeviceAdded volume_uuid_A"
    running.udev.pull(first)
    second = sd_card(address="0001", cid="ff5344534433322080aaaaaaaa014100", sequence=2,
                     partitions=[FileSystem("B")])
    running.udev.plug(second)
    assert running.told()[-1] == "DeviceAdded volume_uuid_B"
    assert "storage_serial_0xaaaaaaaa" in running.objects()
