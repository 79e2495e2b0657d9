"""What the daemon says of a local volume, for the tests that compare it whole."""

from testbed import timeouts
from testbed.daemon import DEBUG, INFO
from testbed.tape import Mark
from testbed.unit import Unit

#: A stick whose description the hardware service gives without a single error reply.
STICK = ("usb stick uuid=0000-060C scsi_host/usb_device.vendor_id=int:0x90c"
         " scsi_host/usb_device.product_id=int:0x1000")
#: A second one, which becomes /dev/sdb.
OTHER = ("usb other uuid=1111-2222 scsi_host/usb_device.vendor_id=int:0x90c"
         " scsi_host/usb_device.product_id=int:0x1000")
#: The identification of a memory card, its check digits right.
CID = "1b534d303030303010206bb243009ae5"
CARD = f"sd card uuid=1769-6A29 cid={CID}"

DEVICES = "/org/freedesktop/Hal/devices/"
STICK_VOLUME = DEVICES + "volume_uuid_0000_060C"
OTHER_VOLUME = DEVICES + "volume_uuid_1111_2222"
CARD_VOLUME = DEVICES + "volume_uuid_1769_6A29"

_HEAD = '<message version="1" type="datasource"><content>'

Line = tuple[int, str]


def arrival(path: str, *, card: bool = False, key: str = "", content_id: str = "",
            serial_number: str = "", name: str = "USB Mass Storage",
            read_only: bool = False) -> str:
    """The message that reports a local volume; all values as they stand in the message."""
    return (f'{_HEAD}<dataarrival path="{path}" type="{"memorycard" if card else "harddrive"}"'
            f' key="{key}" contentid="{content_id}" serialnumber="{serial_number}"'
            f' friendlyname="{name}" remote="false" readonly="{str(read_only).lower()}"'
            f' fixed="false" /></content></message>')


#: The message that reports CARD.
CARD_ARRIVAL = arrival("/media/mmcblk0p1", card=True, key=CID, name="Memory Card - 0")


def removal(path: str) -> str:
    """The message that takes a volume back."""
    return f'{_HEAD}<dataremoval path="{path}"/></content></message>'


def checked(cid: str) -> str:
    """A card's identification with its last byte as the standard has it: the remainder of the
    first 15 bytes, shifted by seven bits, by x^7 + x^3 + 1, followed by a one."""
    remainder = int(cid[:30], 16) << 7
    while remainder >= 0x80:
        remainder ^= 0x89 << (remainder.bit_length() - 8)
    return f"{cid[:30]}{remainder << 1 | 1:02x}"


def told(unit: Unit, count: int, timeout: float = timeouts.EVENT) -> list[str]:
    """The texts of the next `count` messages, in the order of their connections."""
    return [unit.application.next_text(timeout) for _ in range(count)]


def registered(unit: Unit) -> Mark:
    """Plug STICK and return, with a mark, when it is registered and was told, and all is done."""
    unit.hal.plug(STICK)
    assert unit.application.next_text() == arrival("/media/sda1")
    unit.settle()
    return mark(unit)


def mark(unit: Unit) -> Mark:
    """The tape's end, with every log line that is written by now before it."""
    return unit.mark()


def said(unit: Unit, since: Mark) -> list[Line]:
    """Level and text of the main thread's log lines after the mark, but those of the bus filter."""
    return [(line.level, line.text) for line in unit.daemon.log_lines(since)
            if not line.text.startswith(("dBusHandler", "data size: ", "tMessageClient::run"))]


def said_from(unit: Unit, since: Mark, first: str) -> list[Line]:
    """`said`, from the line with this text on."""
    lines = said(unit, since)
    texts = [text for _, text in lines]
    assert first in texts, "\n".join(texts)
    return lines[texts.index(first):]


def record(*fields: str) -> list[Line]:
    """The lines of a volume's record: each field as "Label = value"."""
    return [(INFO, "-" * 75), *((INFO, f"_PrintHalVolumeInfo: {field}") for field in fields)]


def stick_record(mount_point: str | None, read_only: bool = False) -> list[Line]:
    """The record of STICK as it is logged, mounted or (with None) not."""
    return record(
        f"VolumeId = {STICK_VOLUME}",
        f"StorageDeviceId =  {DEVICES}storage_serial_Acme_Voyager_stick_0_0",
        f"ControllerId = {DEVICES}usb_device_90c_1000_stick_if0_scsi_host_scsi_device_lun0",
        f"HostID = {DEVICES}usb_device_90c_1000_stick_if0_scsi_host",
        "BusType = usb",
        "USBHub = 1-1_1--1_0",
        "Cid = ",
        "FileSystemType = vfat",
        f"IsMounted = {int(mount_point is not None)}",
        f"MountPoint = {mount_point or ''}",
        f"ReadOnly = {int(read_only)}",
        "BlockDevice = /dev/sda1")


def card_record(mount_point: str | None, cid: str = CID) -> list[Line]:
    """The record of CARD as it is logged, mounted or (with None) not."""
    return record(
        f"VolumeId = {CARD_VOLUME}",
        f"StorageDeviceId =  {DEVICES}storage_serial_0x206bb243",
        f"ControllerId = {DEVICES}platform_sdhci_0_mmc_host_mmc_card_rca58916",
        f"HostID = {DEVICES}platform_sdhci_0_mmc_host",
        "BusType = mmc",
        "MMCHost = 0",
        f"Cid = {cid}",
        "FileSystemType = vfat",
        f"IsMounted = {int(mount_point is not None)}",
        f"MountPoint = {mount_point or ''}",
        "ReadOnly = 0",
        "BlockDevice = /dev/mmcblk0p1")


def correction(cid: str, corrected: str) -> list[Line]:
    """What the correction of a card's last byte logs."""
    return [(DEBUG, cid), (DEBUG, corrected[30:]), (DEBUG, corrected)]


def card_arrival() -> list[Line]:
    """What the registration of CARD logs, once it is mounted."""
    return [
        (INFO, f"_DeviceMounted: {CARD_VOLUME}"),
        (DEBUG, "AddServiceNFS: /media/mmcblk0p1"),
        (INFO, "symlink: /media/Memory Card -> mmcblk0p1"),
        *correction(CID, CID),
        (INFO, CARD_ARRIVAL),
        *card_record("/media/mmcblk0p1")]


def scan_of(volume: str, described: list[Line]) -> list[Line]:
    """What a scan logs that finds one volume, until it has described it."""
    return [
        (INFO, "_ManualScan()"),
        (DEBUG, "_ManualScan:"),
        (DEBUG, volume),  # as found
        (DEBUG, volume),  # as taken up
        (INFO, "_ManualScan: found Volume"),
        *described]


def mounted_unseen(unit: Unit, plugged: str, mounted: str) -> Mark:
    """Plug and mount a volume without a signal, with what the commands get, and mark the end."""
    unit.hal.command(f"quiet plug {plugged}")
    unit.hal.command(f"quiet mount {mounted}")
    return mark(unit)


def read_only_remount(volume: str) -> list[Line]:
    """What is logged for every volume that turns read-only, before it is looked at."""
    return [(DEBUG, "HalManagerPropertyChangedCb MountedRo 1 1"),
            (INFO, f"_DeviceReMountedRo: {volume}")]
