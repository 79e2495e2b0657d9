"""The two services beside each other: what is plugged into the stand-in and the same hardware
shown by the kernel give equal answers, but for the paths in sysfs."""

import re
from pathlib import Path
from typing import Iterator

import pytest

from testbed import target
from testbed.bus import Bus
from testbed.hal import Hal
from testbed.hald import PREFIX, HaldMachine
from testbed.sandbox import Sandbox
from testbed.tape import Tape
from testbed.udev import Disk, FileSystem, sd_card, usb_disk

_PARTITION = 65536 * 512
_DISK = 262144 * 512
_CID = "1b534d303030303010206bb243009a33"
_STICK = "plug usb stick serial=AA99 port=1-1.3 scsi-host=0"
_SIZE = f"size={_PARTITION}"


@pytest.fixture
def sim(log_directory: Path) -> Iterator[tuple[Hal, Sandbox]]:
    """The stand-in on a bus of its own, and its sandbox."""
    with Sandbox(log_directory / "sim", target.read_only_mounts()) as sandbox:
        Bus(sandbox).start()
        service = Hal(sandbox, Tape())
        service.start(real_mounts=False)
        yield service, sandbox


def reader_slots() -> list[Disk]:
    """A reader with three slots, a card in the last."""
    return [usb_disk(f"sd{letter}", port="1-1.4", lun=lun, usb_serial="RR",
                     partitions=[FileSystem("5555-6666")] * (lun == 2))
            for lun, letter in enumerate("abc")]


#: What is plugged into the stand-in, and the same as the kernel shows it.
HARDWARE: dict[str, tuple[list[str], list[Disk]]] = {
    "nothing": ([], []),
    "a stick": (
        [f'{_STICK} {_SIZE} uuid=0000-060C label="CHARTS 24"'],
        [usb_disk(partitions=[FileSystem("0000-060C", label="CHARTS\\x2024")])]),
    "two partitions, the second without UUID": (
        [f"{_STICK} {_SIZE} uuid=A fstype=ntfs", f"plug volume stick uuid= label=L {_SIZE}"],
        [usb_disk(partitions=[FileSystem("A", "ntfs"), FileSystem("", label="L")])]),
    "neither UUID nor label": (
        [f"{_STICK} {_SIZE} uuid="], [usb_disk(partitions=[FileSystem("")])]),
    "a file system on the whole disk": (
        [f"{_STICK} whole-disk uuid=1234-ABCD fstype=exfat size={_DISK}"],
        [usb_disk(whole=FileSystem("1234-ABCD", "exfat"))]),
    "an empty stick": ([f"{_STICK} partitions=0"], [usb_disk()]),
    "two sticks of one UUID": (
        [f"{_STICK} {_SIZE} uuid=SAME",
         f"plug usb other serial=BB port=2-1.4.2 scsi-host=1 uuid=SAME {_SIZE}"],
        [usb_disk(partitions=[FileSystem("SAME")]),
         usb_disk("sdb", port="2-1.4.2", host=1, usb_serial="BB",
                  partitions=[FileSystem("SAME")])]),
    "a memory card": (
        ["plug host host0 number=0", f"plug sd card host=0 cid={_CID} uuid=1769-6A29"
         f" {_SIZE}"],
        [sd_card(cid=_CID, partitions=[FileSystem("1769-6A29")])]),
    "a reader with a card in one slot": (
        ["plug reader rd serial=RR port=1-1.4 scsi-host=0 luns=3 vendor=0x90c product=0x1000",
         f"plug volume rd lun=2 uuid=5555-6666 {_SIZE}"],
        reader_slots()),
}


def answers(sandbox: Sandbox) -> list[str]:
    """All that the service in the sandbox answers, without its paths in sysfs."""
    result = sandbox.run([f"{target.INSIDE}/helpers/hal-answers"])
    assert result.returncode == 0, result.stderr
    lines = result.stdout.splitlines()
    assert len(lines) > 20
    return sorted(re.sub(r"/sys/devices[\w/.:-]*", "SYSFS", line) for line in lines)


@pytest.mark.parametrize("hardware", HARDWARE)
def test_both_services_give_the_same_answers(machine: HaldMachine, sim: tuple[Hal, Sandbox],
                                             hardware: str) -> None:
    service, sandbox = sim
    commands, disks = HARDWARE[hardware]
    for command in commands:
        service.command(command)
    machine.udev.place(*disks)
    machine.start_service(debug=False)
    assert answers(machine.sandbox) == answers(sandbox)


def test_both_services_give_the_same_answers_while_it_is_mounted(
        machine: HaldMachine, sim: tuple[Hal, Sandbox], stick: Disk) -> None:
    service, sandbox = sim
    service.command(f"{_STICK} {_SIZE} uuid=A")
    service.command(f"plug volume stick uuid=B {_SIZE}")
    machine.udev.place(stick)
    machine.start_service(debug=False)
    for place in (machine.sandbox, sandbox):
        mounted = place.run(["gdbus", "call", "--system", "--dest", "org.freedesktop.Hal",
                             "--object-path", f"{PREFIX}volume_uuid_B", "--method",
                             "org.freedesktop.Hal.Device.Volume.Mount", "x", "", "['ro']"])
        assert mounted.stdout == "(0,)\n", mounted.stderr
    assert answers(machine.sandbox) == answers(sandbox)
