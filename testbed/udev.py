"""A machine's disks as the kernel and udev show them, made with umockdev.

A `Disk` says what hangs where; `Udev` brings it in, with udev's events, and takes it out again.
"""

import json
import queue
from dataclasses import dataclass, field

from testbed import target, timeouts
from testbed.process import Process
from testbed.sandbox import Sandbox

_PRELOAD = "libumockdev-preload.so.0"
_CONTROL = "/run/udev/control"
_SECTOR = 512
#: A disk of no bus that is served. An event about it changes nothing and comes after those before.
_FENCE = "/sys/devices/virtual/block/loop7"


@dataclass
class Device:
    """One entry of sysfs, with udev's properties."""

    path: str
    subsystem: str
    devtype: str = ""
    properties: dict[str, str] = field(default_factory=dict)
    attributes: dict[str, str] = field(default_factory=dict)

    @property
    def name(self) -> str:
        """The kernel's name."""
        return self.path.rpartition("/")[2]

    def step(self) -> list[object]:
        """What brings the device in."""
        properties = {"SUBSYSTEM": self.subsystem} | self.properties
        if self.devtype:
            properties["DEVTYPE"] = self.devtype
        return ["add", self.path, self.subsystem, properties, self.attributes]


@dataclass(frozen=True)
class FileSystem:
    """What udev's probing finds on a disk or partition."""

    uuid: str = "0000-060C"
    type: str = "vfat"
    label: str = ""  # as ID_FS_LABEL_ENC has it: "CHARTS\\x2024"
    usage: str = "filesystem"

    def properties(self) -> dict[str, str]:
        """The properties ID_FS_..."""
        found = {"ID_FS_USAGE": self.usage, "ID_FS_TYPE": self.type, "ID_FS_UUID": self.uuid,
                 "ID_FS_LABEL_ENC": self.label}
        return {name: value for name, value in found.items() if value}


#: Names of properties that an event with another file system, or none, takes away.
_NO_FILE_SYSTEM = dict.fromkeys(FileSystem("x", label="x").properties())


class Disk:
    """A disk with what it hangs on and its partitions."""

    def __init__(self, above: list[Device], name: str, number: tuple[int, int], *,
                 sequence: int | None = 1, serial: str = "", whole: FileSystem | None = None,
                 partitions: "list[FileSystem | None] | None" = None) -> None:
        """`above` is the chain, the topmost first; `whole` a file system without partitions;
        `partitions` those with the numbers 1, 2, ..., None for one without a file system."""
        self.above = above
        self.sequence = sequence
        self.number = number
        self.disk = Device(f"{above[-1].path}/block/{name}", "block", "disk",
                           self._properties(name, number, whole), {"size": "262144", "ro": "0"})
        if serial:
            self.disk.properties["ID_SERIAL"] = serial
        self.partitions: dict[int, Device] = {}
        for partition, found in enumerate(partitions or [], 1):
            self.add_partition(partition, found)

    def add_partition(self, partition: int, found: FileSystem | None) -> Device:
        """One more partition, or another in its place; nothing happens before it is brought in."""
        name = self.disk.name + ("p" if self.disk.name[-1].isdigit() else "") + str(partition)
        major, minor = self.number
        device = Device(f"{self.disk.path}/{name}", "block", "partition",
                        self._properties(name, (major, minor + partition), found),
                        {"size": "65536", "partition": str(partition), "ro": "0"})
        self.partitions[partition] = device
        return device

    def blocks(self) -> list[Device]:
        """The disk and its partitions."""
        return [self.disk, *self.partitions.values()]

    def _properties(self, name: str, number: tuple[int, int],
                    found: FileSystem | None) -> dict[str, str]:
        properties = {"DEVNAME": f"/dev/{name}", "MAJOR": str(number[0]), "MINOR": str(number[1]),
                      "USEC_INITIALIZED": "1000"}
        if self.sequence is not None:
            properties["DISKSEQ"] = str(self.sequence)
        return properties | (found.properties() if found else {})


def usb_chain(port: str = "1-1.3", host: int = 0, serial: str = "AA99",
              ids: tuple[str, str] = ("090c", "1000")) -> list[Device]:
    """USB device, interface and SCSI host; hubs on the way are there, too."""
    path = f"/sys/devices/platform/ehci/usb{port.partition('-')[0]}"
    chain = [Device(path, "usb", "usb_device")]
    for end in [at for at, character in enumerate(port) if character == "."] + [len(port)]:
        path = f"{path}/{port[:end]}"
        chain.append(Device(path, "usb", "usb_device"))
    chain[-1].attributes = {"idVendor": ids[0], "idProduct": ids[1], "serial": serial}
    chain.append(Device(f"{path}/{port}:1.0", "usb", "usb_interface",
                        attributes={"bInterfaceNumber": "00"}))
    chain.append(Device(f"{chain[-1].path}/host{host}", "scsi", "scsi_host"))
    return chain


def usb_disk(name: str = "sda", *, port: str = "1-1.3", host: int = 0, lun: int = 0,
             usb_serial: str = "AA99", serial: str | None = None, **options: object) -> Disk:
    """A stick, or one slot of a reader; `options` are those of `Disk`."""
    chain = usb_chain(port, host, usb_serial)
    target_path = f"{chain[-1].path}/target{host}:0:0"
    chain.append(Device(target_path, "scsi", "scsi_target"))
    chain.append(Device(f"{target_path}/{host}:0:0:{lun}", "scsi", "scsi_device"))
    return Disk(chain, name, _numbers(name), serial=serial or f"Acme_Voyager_{usb_serial}-0:{lun}",
                **options)


def sd_card(name: str = "mmcblk0", *, host: int = 0, address: str = "e624",
            cid: str = "035344534433322080206bb243014100", kind: str = "SD",
            **options: object) -> Disk:
    """A memory card in the host of that number; `kind` "MMC" is an eMMC."""
    controller = f"/sys/devices/platform/sdhci.{host}"
    host_path = f"{controller}/mmc_host/mmc{host}"
    chain = [Device(controller, "platform"), Device(host_path, "mmc_host"),
             Device(f"{host_path}/mmc{host}:{address}", "mmc",
                    attributes={"cid": cid, "type": kind})]
    return Disk(chain, name, (179, 8 * int(name[-1])), **options)


class Udev:
    """udev and the kernel's devices inside a sandbox, where a program is started with
    `environment()` to see them. Ends with the sandbox."""

    def __init__(self, sandbox: Sandbox) -> None:
        self.root = ""  # of the mocked files, inside
        self.sent = 0.0  # when the last event was sent, as time.time()
        self._sandbox = sandbox
        self._answers: queue.Queue[str] = queue.Queue()
        self._process: Process | None = None
        self._present: set[str] = set()

    def start(self) -> None:
        """Begin without any disk."""
        self._sandbox.write(_CONTROL, "")
        self._process = self._sandbox.spawn(
            [str(target.INSIDE / "helpers/udev-devices")], "udev", stdin=True,
            environment={"LD_PRELOAD": _PRELOAD}, on_line=self._answers.put)
        self.root = self._answer().removeprefix("ready ")
        self._steps([Device(_FENCE, "block", "disk", {
            "DEVNAME": "/dev/loop7", "MAJOR": "7", "MINOR": "7",
            "USEC_INITIALIZED": "1000"}).step()])

    def environment(self) -> dict[str, str]:
        """What a program is started with that is to see the devices."""
        return target.preloading(_PRELOAD) | {"UMOCKDEV_DIR": self.root}

    def place(self, *disks: Disk) -> None:
        """The disks are there, without an event: before the service starts, or unheard."""
        steps = []
        for device in (device for disk in disks for device in [*disk.above, *disk.blocks()]):
            if device.path not in self._present:
                self._present.add(device.path)
                steps.append(device.step())
        self._steps(steps)

    def plug(self, disk: Disk, order: list[int] | None = None) -> None:
        """The disk comes, with udev's events: disk first, then its partitions in this order of
        numbers, and a change of the disk, which changes nothing."""
        self.place(disk)
        partitions = [disk.partitions[number] for number in order or disk.partitions]
        self._steps([["event", device.path, "add", {}] for device in [disk.disk, *partitions]]
                    + [["event", disk.disk.path, "change", {}]])

    def announce(self, *devices: Device) -> None:
        """The "add" of devices that are there."""
        self._steps([["event", device.path, "add", {}] for device in devices])

    def pull(self, disk: Disk) -> None:
        """The disk is torn out: partitions, then the disk, and what it hung on."""
        blocks = list(reversed(disk.blocks()))
        self._steps([["event", device.path, "remove", {}] for device in blocks])
        self.vanish(disk)

    def vanish(self, disk: Disk) -> None:
        """The disk and what only it hung on are gone, without an event."""
        for device in [*reversed(disk.blocks()), *reversed(disk.above)]:
            if device.path in self._present and not self._above_another(device.path):
                self.erase(device)

    def erase(self, device: Device) -> None:
        """The device is gone, without an event."""
        self._present.discard(device.path)
        self._steps([["remove", device.path]])

    def change(self, device: Device, found: FileSystem | None = None, **more: str) -> None:
        """A "change": the device has this file system now, and the event these properties."""
        properties = _NO_FILE_SYSTEM | (found.properties() if found else {})
        self._steps([["set", device.path, properties],
                     ["event", device.path, "change", more]])

    def write_event(self, device: Device, action: str) -> None:
        """What follows when somebody writes the action to the device's file `uevent`."""
        self._steps([["event", device.path, action, {"SYNTH_UUID": "0"}]])

    def event(self, device: Device, action: str, **more: str) -> None:
        """Any event, with these properties besides the device's own."""
        self._steps([["event", device.path, action, more]])

    def set(self, device: Device, **properties: str | None) -> None:
        """Properties that the device has from now on, without an event; None takes one away."""
        self._steps([["set", device.path, properties]])

    def attribute(self, device: Device, name: str, value: str) -> None:
        """A sysfs attribute from now on."""
        self._steps([["attribute", device.path, name, value]])

    def flood(self, device: Device, count: int) -> None:
        """So many changes as fast as they can be sent; they change nothing."""
        self._steps([["flood", device.path, count]])

    def fence(self) -> str:
        """An event that changes nothing and comes after all before; the path that it is about."""
        self._steps([["event", _FENCE, "change", {}]])
        return _FENCE

    def _above_another(self, path: str) -> bool:
        return any(other.startswith(f"{path}/") for other in self._present)

    def _steps(self, steps: list[list[object]]) -> None:
        assert self._process
        self._process.write_line(json.dumps(steps))
        answer, _, rest = self._answer().partition(" ")
        assert answer == "ok", rest
        self.sent = float(rest)

    def _answer(self) -> str:
        return self._answers.get(timeout=timeouts.RUN)


def _numbers(name: str) -> tuple[int, int]:
    """The device number of a SCSI disk: sda, ..., sdz, sdaa, ..."""
    index = 0
    for character in name.removeprefix("sd"):
        index = 26 * index + ord(character) - ord("a") + 1
    major = [8, *range(65, 72), *range(128, 136)][(index - 1) // 16 % 16]
    return major, 16 * ((index - 1) % 16)
