"""The record of a volume: what is asked for it, in which order, and what comes of it."""

import pytest

from testbed.daemon import DEBUG, INFO
from testbed.unit import Unit

PREFIX = "/org/freedesktop/Hal/devices/"
PRINTED = "_PrintHalVolumeInfo: "
RULE = "-" * 75


def record(unit: Unit) -> dict[str, str]:
    """The first record that the log shows. The start-up scan shows that of every volume."""
    texts = [line.text for line in unit.daemon.log_lines() if line.level == INFO]
    fields = {}
    for text in texts[texts.index(RULE) + 1:]:
        if not text.startswith(PRINTED):
            break
        label, _, value = text.removeprefix(PRINTED).partition(" =")
        fields[label] = value.strip()
    return fields


def asked(unit: Unit, devices: dict[str, str]) -> list[str]:
    """The calls after the search for volumes, such as "volume1 volume.fstype"."""
    roles = {udi: role for role, udi in devices.items()}
    calls = [call for call in unit.hal.calls() if "'volume'" not in call.arguments]
    return [f"{roles.get(call.path, call.path)} {call.arguments.strip(chr(39))}"
            for call in calls]


def inherited(key: str, *chain: str) -> list[str]:
    """The queries for a number that only the last of these devices has."""
    walk = [query for device in chain[:-1] for query in (f"{device} {key}",
                                                         f"{device} info.parent")]
    return [*walk, f"{chain[-1]} {key}"]


CHAIN = ["volume1 info.parent", "storage info.parent"]
USB_CHAIN = [*CHAIN, "scsi_device info.parent"]
USB_IDS = [*inherited("usb_device.vendor_id", "scsi_host", "usb_interface", "usb_device"),
           *inherited("usb_device.product_id", "scsi_host", "usb_interface", "usb_device")]
SCSI_ADDRESS = ["scsi_device linux.subsystem", "scsi_device scsi.host", "scsi_device scsi.bus",
                "scsi_device scsi.target", "scsi_device scsi.lun"]
USB = [*USB_CHAIN, "scsi_host linux.sysfs_path", *USB_IDS, *SCSI_ADDRESS]
CARD = [*CHAIN, "card info.parent", "card mmc.cid", "host mmc_host.host"]
FILE_SYSTEM = ["volume1 volume.fstype", "volume1 block.device", "volume1 volume.is_mounted"]
MOUNT_STATE = ["volume1 volume.mount_point", "volume1 volume.is_mounted_read_only"]


def test_a_stick_that_is_not_mounted(unit: Unit) -> None:
    devices = unit.hal.plug("usb stick port=1-1.3 fstype=ext3")
    unit.hal.command("fail Mount org.freedesktop.Hal.Error no")
    unit.start_daemon()
    assert asked(unit, devices) == [*USB, *FILE_SYSTEM, "volume1 sda1', 'ext3', []"]
    assert record(unit) == {
        "VolumeId": devices["volume1"], "StorageDeviceId": devices["storage"],
        "ControllerId": devices["scsi_device"], "HostID": devices["scsi_host"],
        "BusType": "usb", "USBHub": "1-1_3--1_0", "Cid": "", "FileSystemType": "ext3",
        "IsMounted": "0", "MountPoint": "", "ReadOnly": "0", "BlockDevice": "/dev/sda1"}


def test_a_stick_that_is_mounted_already(unit: Unit) -> None:
    devices = unit.hal.plug("usb stick mounted=elsewhere readonly")
    unit.start_daemon()
    once = [*USB, *FILE_SYSTEM, *MOUNT_STATE]
    # The scan's record, and that of the registration.
    assert asked(unit, devices) == [*once, *once]
    shown = record(unit)
    assert (shown["IsMounted"], shown["MountPoint"], shown["ReadOnly"]) == (
        "1", "/media/elsewhere", "1")
    unit.application.expect_message("dataarrival", path="/media/elsewhere", readonly="true")


def test_a_card(unit: Unit) -> None:
    cid = "1b534d303030303010206bb243009a33"
    unit.hal.command("quiet plug host slot number=1")
    host = unit.hal.command("list")
    devices = unit.hal.plug(f"sd card host=1 cid={cid} mounted")
    devices["host"] = next(line.split()[2] for line in host if " slot:host " in line)
    unit.start_daemon()
    once = [*CARD, *FILE_SYSTEM, *MOUNT_STATE]
    assert asked(unit, devices) == [*once, *once]
    assert record(unit) == {
        "VolumeId": devices["volume1"], "StorageDeviceId": devices["storage"],
        "ControllerId": devices["card"], "HostID": devices["host"], "BusType": "mmc",
        "MMCHost": "1", "Cid": cid, "FileSystemType": "vfat", "IsMounted": "1",
        "MountPoint": "/media/mmcblk1p1", "ReadOnly": "0", "BlockDevice": "/dev/mmcblk1p1"}


def test_a_card_without_an_identity_is_no_volume(unit: Unit) -> None:
    devices = unit.hal.plug("sd card card/mmc.cid=unset")
    unit.start_daemon()
    assert asked(unit, devices) == [*CHAIN, "card info.parent", "card mmc.cid"]
    assert unit.mounts() == {}


def test_a_stick_without_port_ids_and_address_is_a_volume(unit: Unit) -> None:
    devices = unit.hal.plug("usb stick scsi_host/linux.sysfs_path=unset"
                            " scsi_device/linux.subsystem=unset")
    unit.start_daemon()
    assert asked(unit, devices)[:len(USB_CHAIN) + 5] == [
        *USB_CHAIN, "scsi_host linux.sysfs_path", "scsi_device linux.subsystem", *FILE_SYSTEM]
    unit.application.expect_message("dataarrival", friendlyname="USB Mass Storage")


def test_a_device_of_another_subsystem_has_no_scsi_address(unit: Unit) -> None:
    devices = unit.hal.plug("usb stick scsi_device/linux.subsystem=string:usb")
    unit.start_daemon()
    assert "scsi_device linux.subsystem" in asked(unit, devices)
    assert "scsi_device scsi.host" not in asked(unit, devices)
    unit.application.expect_message("dataarrival")


@pytest.mark.parametrize("missing, last", [
    ("scsi.bus", "scsi.bus"), ("scsi.target", "scsi.target")])
def test_each_part_of_the_address_needs_the_one_before(unit: Unit, missing: str,
                                                       last: str) -> None:
    devices = unit.hal.plug(f"usb stick scsi_device/{missing}=unset")
    unit.start_daemon()
    parts = [query for query in asked(unit, devices) if query.startswith("scsi_device scsi.")]
    wanted = ["scsi_device scsi.host", "scsi_device scsi.bus", "scsi_device scsi.target"]
    assert parts[:wanted.index(f"scsi_device {last}") + 1] == wanted[
        :wanted.index(f"scsi_device {last}") + 1]
    assert "scsi_device scsi.lun" not in parts
    unit.application.expect_message("dataarrival")


def test_a_disk_on_another_bus_is_asked_for_its_scsi_address_and_left_alone(unit: Unit) -> None:
    devices = unit.hal.plug("scsi disk serial=7 scsi_device/linux.subsystem=string:scsi")
    assert "scsi" in devices["scsi_device"] and "usb" not in devices["scsi_device"]
    unit.start_daemon()
    assert asked(unit, devices) == [*USB_CHAIN, *SCSI_ADDRESS, *FILE_SYSTEM]
    assert record(unit)["BusType"] == ""
    assert unit.daemon.logged(INFO, "_ManualScan: Excluded") == 1
    assert unit.mounts() == {}


BOTH_BUSES = "usb stick serial=mmc7 port=1-1.3"


def test_on_both_buses_it_is_a_usb_volume_with_the_cards_identity(unit: Unit) -> None:
    cid = "00112233445566778899aabbccddeeff"
    devices = unit.hal.plug(f"{BOTH_BUSES} scsi_device/mmc.cid=string:{cid}"
                            " scsi_host/mmc_host.host=int:3")
    unit.start_daemon()
    assert asked(unit, devices)[:len(USB) + 5] == [
        *USB_CHAIN, "scsi_device mmc.cid", "scsi_host mmc_host.host",
        *USB[len(USB_CHAIN):], *FILE_SYSTEM]
    shown = record(unit)
    assert (shown["BusType"], shown["USBHub"]) == ("usb", "1-1_3--1_0")
    assert shown["Cid"] == cid
    unit.application.expect_message("dataarrival", type="memorycard")


def test_on_both_buses_the_card_still_decides(unit: Unit) -> None:
    devices = unit.hal.plug(BOTH_BUSES)
    unit.start_daemon()
    # The USB steps are taken, and then the missing identity ends it.
    assert asked(unit, devices) == [*USB_CHAIN, "scsi_device mmc.cid", *USB[len(USB_CHAIN):]]
    assert unit.mounts() == {}


SYSFS_PATHS = {
    "a port behind a hub": ("/sys/devices/platform/ehci/usb1/1-1/1-1.3/1-1.3:1.0/host2",
                            "1-1_3--1_0"),
    "a host behind one slash": ("/host2", ""),
}


@pytest.mark.parametrize("path, hub", SYSFS_PATHS.values(), ids=SYSFS_PATHS)
def test_the_port_is_taken_from_the_hosts_path(unit: Unit, path: str, hub: str) -> None:
    devices = unit.hal.plug(f'usb stick scsi_host/linux.sysfs_path=string:"{path}"')
    unit.start_daemon()
    assert record(unit)["USBHub"] == hub
    assert [query for query in USB_IDS if query in asked(unit, devices)] == USB_IDS
    unit.application.expect_message("dataarrival")


def plug_card_beside_its_hosts(unit: Unit, *hosts: str) -> list[str]:
    """A card whose parent is the controller of its host, which stands beside it."""
    udis = []
    for host in hosts:
        listing = unit.hal.command(f"quiet plug host {host}")
        udis += [line.split()[2] for line in listing if ":host " in line]
    return udis


def test_a_cards_host_is_searched_when_it_is_not_the_parent(unit: Unit) -> None:
    other, own, further = plug_card_beside_its_hosts(
        unit, "a number=0 cards-on=controller", "b number=1 cards-on=controller",
        "c number=2 cards-on=controller")
    unit.hal.plug("sd card host=1 mounted")
    unit.start_daemon()
    shown = record(unit)
    assert shown["MMCHost"] == "1"
    lines = [line.text for line in unit.daemon.log_lines() if line.level == DEBUG]
    search = lines.index("mmc_host detection")
    assert lines[search - 3:search + 4] == [other, own, further, "mmc_host detection",
                                            other, own, "Matched host"]
    queries = [(call.path, call.arguments) for call in unit.hal.calls()
               if call.path in (other, own, further)]
    once = [(other, "'info.parent'"), (own, "'info.parent'"), (own, "'mmc_host.host'")]
    assert queries == once * 2  # the scan's record, and that of the registration
    unit.application.expect_message("dataarrival", friendlyname="Memory Card - 1")


def test_a_host_without_a_parent_is_passed_over(unit: Unit) -> None:
    _, own = plug_card_beside_its_hosts(unit, "a number=0 host/info.parent=unset",
                                        "b number=1 cards-on=controller")
    unit.hal.plug("sd card host=1")
    unit.start_daemon()
    assert record(unit)["MMCHost"] == "1"
    assert own in [call.path for call in unit.hal.calls()]


@pytest.mark.parametrize("host", [
    "b number=1 cards-on=controller host/mmc_host.host=unset",
    "b number=1 cards-on=controller host/info.parent=string:/elsewhere",
    "b number=1 cards-on=controller host/info.capabilities=unset",
], ids=["the host has no number", "no host has this parent", "no host is found"])
def test_a_card_whose_host_is_not_found_is_no_volume(unit: Unit, host: str) -> None:
    plug_card_beside_its_hosts(unit, host)
    unit.hal.plug("sd card host=1")
    unit.start_daemon()
    assert unit.daemon.logged(DEBUG, "mmc_host detection") == 1
    assert "'volume.fstype'" not in [call.arguments for call in unit.hal.calls()]
    assert unit.mounts() == {}
