"""What comes and goes: sticks, cards, readers."""

import itertools

import pytest

from testbed.hald import HaldMachine
from testbed.udev import Disk, FileSystem, sd_card, usb_disk

USB = "usb_device_90c_1000_AA99"
STICK = [USB, f"{USB}_if0", f"{USB}_if0_scsi_host", f"{USB}_if0_scsi_host_scsi_device_lun0",
         "storage_serial_Acme_Voyager_AA99_0_0"]
CARD = ["platform_sdhci_0", "platform_sdhci_0_mmc_host", "platform_sdhci_0_mmc_host_mmc_card_rca58916",
        "storage_serial_0x206bb243"]


def added(names: list[str]) -> list[str]:
    """The announcements of these arrivals."""
    return [f"DeviceAdded {name}" for name in names]


def removed(names: list[str]) -> list[str]:
    """The announcements of the removals of what came in this order."""
    return [f"DeviceRemoved {name}" for name in reversed(names)]


def test_what_is_there_at_the_start_is_served_without_a_signal(machine: HaldMachine, stick: Disk):
    card = sd_card(partitions=[FileSystem("C", "exfat")])
    machine.udev.place(stick, card)
    machine.start_service()
    assert machine.objects() == sorted([*STICK, "volume_uuid_A", "volume_uuid_B", *CARD,
                                        "volume_uuid_C"])
    assert machine.told() == []


def test_a_stick_comes_parents_first_and_goes_children_first(running: HaldMachine, stick: Disk):
    since = running.mark()
    running.udev.plug(stick)
    assert running.told(since) == added([*STICK, "volume_uuid_A", "volume_uuid_B"])
    since = running.mark()
    running.udev.pull(stick)
    assert running.told(since) == removed([*STICK, "volume_uuid_A", "volume_uuid_B"])
    assert running.objects() == []


@pytest.mark.parametrize("order", itertools.permutations([1, 2, 3]))
def test_partitions_come_in_any_order(running: HaldMachine, order: tuple[int, ...]):
    disk = usb_disk(partitions=[FileSystem("A"), FileSystem("B"), FileSystem("C")])
    running.udev.plug(disk, list(order))
    assert running.told() == added(
        [*STICK, *(f"volume_uuid_{'ABC'[number - 1]}" for number in order)])


def test_a_partition_may_be_told_before_its_disk(running: HaldMachine, stick: Disk):
    running.udev.place(stick)
    running.udev.announce(stick.partitions[1])
    assert running.told() == []
    running.udev.announce(stick.disk)
    assert running.told() == added([*STICK, "volume_uuid_A"])


def test_the_properties_of_a_stick(running: HaldMachine):
    disk = usb_disk(partitions=[FileSystem("0000-060C", "vfat", "CHARTS\\x2024")])
    running.udev.plug(disk)
    running.settle()
    volume = "volume_uuid_0000_060C"
    assert running.get(volume, "volume.label") == "('CHARTS 24',)"
    assert running.get(volume, "volume.fstype") == "('vfat',)"
    assert running.get(volume, "block.device") == "('/dev/sda1',)"
    assert running.get(volume, "volume.partition.number", "Integer") == "(1,)"
    assert running.get(volume, "volume.is_mounted", "Boolean") == "(false,)"
    assert running.get(STICK[2], "linux.sysfs_path").endswith("/1-1/1-1.3/1-1.3:1.0/host0',)")
    assert running.get(STICK[0], "usb_device.vendor_id", "Integer") == "(2316,)"
    assert running.get(STICK[3], "scsi.lun", "Integer") == "(0,)"


def test_a_card_with_its_identification(running: HaldMachine):
    card = sd_card(partitions=[FileSystem("C")])
    running.udev.plug(card)
    assert running.told() == added([*CARD, "volume_uuid_C"])
    assert running.get(CARD[2], "mmc.cid") == "('035344534433322080206bb243014100',)"
    assert running.get(CARD[1], "mmc_host.host", "Integer") == "(0,)"
    running.udev.pull(card)
    running.settle()
    assert running.objects() == []


def test_a_file_system_on_the_whole_disk(running: HaldMachine):
    disk = usb_disk(whole=FileSystem("1234-ABCD", "exfat"))
    # Looks like a table of partitions to udev.
    disk.disk.properties["ID_PART_TABLE_TYPE"] = "dos"
    running.udev.plug(disk)
    assert running.told() == added([*STICK, "volume_uuid_1234_ABCD"])
    assert running.get("volume_uuid_1234_ABCD", "volume.is_partition", "Boolean") == "(false,)"


def test_a_reader_with_several_slots_has_one_device(running: HaldMachine):
    slots = [usb_disk(f"sd{letter}", lun=lun,
                      partitions=[FileSystem(f"L{lun}")] if lun == 2 else [])
             for lun, letter in enumerate("cab")]
    for slot in slots:
        running.udev.plug(slot)
    running.settle()
    assert running.objects() == sorted(
        [USB, f"{USB}_if0", f"{USB}_if0_scsi_host", "volume_uuid_L2",
         *(f"{USB}_if0_scsi_host_scsi_device_lun{lun}" for lun in range(3)),
         *(f"storage_serial_Acme_Voyager_AA99_0_{lun}" for lun in range(3))])
    for slot in slots:
        running.udev.pull(slot)
    running.settle()
    assert running.objects() == []


def test_only_file_systems_are_volumes(running: HaldMachine):
    disk = usb_disk(partitions=[FileSystem("A", "swap", usage="other"),
                                FileSystem("B", "crypto_LUKS", usage="crypto"), None,
                                FileSystem("D", "ext4")])
    running.udev.plug(disk)
    running.settle()
    assert running.volumes() == ["volume_uuid_D"]


def test_a_file_system_made_anew_replaces_the_volume(running: HaldMachine, stick: Disk):
    running.udev.plug(stick)
    since = running.mark()
    running.settle()
    running.udev.change(stick.partitions[1], FileSystem("NEW", "ext4"))
    assert running.told(since)[-2:] == ["DeviceRemoved volume_uuid_A", "DeviceAdded volume_uuid_NEW"]
    assert running.get("volume_uuid_NEW", "volume.fstype") == "('ext4',)"


def test_a_label_made_anew_is_a_change(running: HaldMachine, stick: Disk):
    running.udev.plug(stick)
    running.settle()
    since = running.mark()
    running.udev.change(stick.partitions[1], FileSystem("A", label="NEW"))
    assert running.told(since) == ["PropertyModified volume_uuid_A volume.label"]


def test_events_written_by_hand_take_the_objects_away_and_bring_them_back(
        running: HaldMachine, stick: Disk):
    running.udev.plug(stick)
    running.settle()
    assert running.mount("volume_uuid_A", "sda1") == "(0,)"
    since = running.mark()
    for device in (*stick.partitions.values(), stick.disk):
        running.udev.write_event(device, "remove")
    assert running.told(since) == [
        "DeviceRemoved volume_uuid_A", "DeviceRemoved volume_uuid_B", *removed(STICK)]
    assert running.mounts() == {"/media/sda1": "/dev/sda1"}
    since = running.mark()
    for device in stick.blocks():
        running.udev.write_event(device, "add")
    assert running.told(since) == added([*STICK, "volume_uuid_A", "volume_uuid_B"])
    assert running.get("volume_uuid_A", "volume.mount_point") == "('/media/sda1',)"


def test_two_volumes_of_one_uuid(running: HaldMachine):
    running.udev.plug(usb_disk(partitions=[FileSystem("A"), FileSystem("A")]))
    running.settle()
    assert running.volumes() == ["volume_uuid_A", "volume_uuid_A_0"]


def test_emmc_other_buses_and_what_udev_says_to_ignore_are_left_out(machine: HaldMachine):
    emmc = sd_card("mmcblk1", host=1, kind="MMC", partitions=[FileSystem("E")])
    ignored = usb_disk("sda", partitions=[FileSystem("I")])
    ignored.disk.properties["UDISKS_IGNORE"] = "1"
    partly = usb_disk("sdb", port="1-1.4", host=1, usb_serial="BB",
                      partitions=[FileSystem("P"), FileSystem("Q")])
    partly.partitions[1].properties["UDISKS_IGNORE"] = "1"
    left = usb_disk("sdd", port="1-1.2", host=3, usb_serial="CC", partitions=[FileSystem("L")])
    left.disk.properties["VOLDRAKE_IGNORE"] = "1"
    optical = usb_disk("sdc", port="1-1.1", host=2, whole=FileSystem("O", "iso9660"))
    optical.disk.properties["ID_CDROM"] = "1"
    machine.udev.place(emmc, ignored, partly, left, optical)
    machine.start_service()
    assert machine.volumes() == ["volume_uuid_Q"]
    assert not [name for name in machine.objects() if "mmc" in name or "AA99" in name]


@pytest.mark.parametrize("place", ["/boot", "/boot/firmware", "/home"])
def test_the_disk_that_the_system_runs_from_is_left_out(machine: HaldMachine, place: str):
    machine.udev.place(sd_card(partitions=[FileSystem("BOOT"), FileSystem("ROOT", "ext4")]),
                       usb_disk(partitions=[FileSystem("A")]))
    machine.sandbox.path(place).mkdir(parents=True, exist_ok=True)
    machine.run("/usr/bin/mount", "-t", "tmpfs", "/dev/mmcblk0p2", place)
    machine.start_service()
    assert machine.volumes() == ["volume_uuid_A"]


def test_a_disk_that_is_swapped_on_is_left_out(machine: HaldMachine):
    machine.sandbox.write("/proc/swaps", "Filename\t\t\t\tType\t\tSize\t\tUsed\t\tPriority\n"
                                         "/dev/sda2 partition\t1048572\t0\t-2\n")
    machine.udev.place(usb_disk(partitions=[FileSystem("A"), None]),
                       usb_disk("sdb", port="1-1.4", host=1, usb_serial="BB",
                                partitions=[FileSystem("B")]))
    machine.start_service()
    assert machine.volumes() == ["volume_uuid_B"]
