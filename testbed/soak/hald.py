"""Plays stories on `voldrake-hald`; see `haldstory` for their lines.

What must be true whenever it has come to rest: the volumes that it has are those that the devices
show; what it has announced and taken back comes to the same, over restarts too; what it says of
mounts is what the kernel's table has; nothing is left in /media; threads, descriptors and heap are
as at first.
"""

import os
import re
import shutil
import time
from collections import Counter
from pathlib import Path

from testbed.hald import PREFIX, HaldMachine
from testbed.lifespan import Lifespan
from testbed.process import Process
from testbed.soak import Violation
from testbed.soak.figures import processor_seconds
from testbed.soak.haldstory import DISKS, HaldStory
from testbed.tape import Mark
from testbed.udev import Device, Disk, FileSystem, sd_card, usb_disk

_LINES = 400
_ANNOUNCED = re.compile(r"Device(Added|Removed) (\S+)")
#: Names of the same file system on two partitions differ in a number at their end.
_TWIN = re.compile(r"_[0-9]+$")


class HaldPlayer(Lifespan):
    """A machine with mocked devices, on which the service runs."""

    def __init__(self, logs: Path) -> None:
        shutil.rmtree(logs, ignore_errors=True)
        self.machine = HaldMachine(logs)
        self._disks: dict[str, Disk] = {}  # that are there
        self._mounted: dict[str, str] = {}  # place -> disk, of what somebody else mounted
        self._objects: set[str] = set()  # that the service has announced and not taken back
        self._at_rest: tuple[int, int] | None = None
        self._checks = 0
        self._sequence = 1
        self._seen = Mark(0)

    def start(self) -> None:
        """The service runs, without any disk."""
        self.machine.start()
        for place in ("one", "two"):
            self.machine.sandbox.path(f"/mnt/{place}").mkdir()
        self.machine.start_service()

    def close(self) -> None:
        """Leaves nothing but logs."""
        self.machine.close()

    def play(self, line: str) -> None:
        """One line of a story."""
        verb, *words = line.split()
        getattr(self, f"_{verb}")(*words)

    def figures(self) -> dict[str, int]:
        """What the table of a run shows."""
        process = self._process()
        return {"checks": self._checks, "sure %": 100, "RSS kB": process.status("VmRSS"),
                "threads": process.status("Threads"), "fds": len(process.descriptors())}

    def times(self) -> dict[str, float]:
        """Processor seconds until now, of the service since its last start."""
        machine = self.machine
        assert machine.process and machine.bus.process
        service, mounts = processor_seconds(machine.process.pid)
        return {"hardware service": service, "its mounts": mounts,
                "bus": processor_seconds(machine.bus.process.pid)[0],
                "soak": time.process_time()}

    # ---- What a story can say

    def _plug(self, name: str, layout: str) -> None:
        if name not in self._disks:
            self._disks[name] = self._make(name, layout)
            self.machine.udev.plug(self._disks[name])

    def _pull(self, name: str) -> None:
        if disk := self._disks.pop(name, None):
            self.machine.udev.pull(disk)

    def _format(self, name: str, partition: str, uuid: str) -> None:
        device = self._device(name, int(partition))
        if device:
            found = None if uuid == "-" else FileSystem(uuid)
            for key in [key for key in device.properties if key.startswith("ID_FS_")]:
                del device.properties[key]
            device.properties |= found.properties() if found else {}
            self.machine.udev.change(device, found)

    def _rebuild(self, name: str) -> None:
        if disk := self._disks.get(name):
            blocks = disk.blocks()
            for device in reversed(blocks):
                self.machine.udev.write_event(device, "remove")
            for device in blocks:
                self.machine.udev.write_event(device, "add")

    def _flood(self, name: str, count: str) -> None:
        if disk := self._disks.get(name):
            self.machine.udev.flood(disk.disk, int(count))

    def _odd(self, name: str, action: str) -> None:
        if disk := self._disks.get(name):
            for device in disk.blocks():
                self.machine.udev.event(device, action)

    def _ask(self, name: str, partition: str, place: str) -> None:
        device = self._device(name, int(partition))
        if device:
            for udi in self._volumes_at(f"/dev/{device.name}"):
                self.machine.call(PREFIX + udi, "org.freedesktop.Hal.Device.Volume.Mount",
                                  place, "vfat", "[]")

    def _mount(self, name: str, partition: str, place: str) -> None:
        device = self._device(name, int(partition))
        if device and place not in self._mounted:
            self._mounted[place] = name
            self.machine.run("/usr/bin/mount", "-t", "tmpfs", f"/dev/{device.name}",
                             f"/mnt/{place}")

    def _unmount(self, place: str) -> None:
        self._mounted.pop(place, None)
        self.machine.sandbox.run(["umount", "--lazy", f"/mnt/{place}"])

    def _restart(self, how: str, name: str = "") -> None:
        self._follow()
        if how == "kill":
            self.machine.kill_service()
        else:
            assert self.machine.process and self.machine.process.terminate() == 0
        if disk := self._disks.pop(name, None):
            self.machine.udev.vanish(disk)
        elif name:
            self._disks[name] = self._make(name, "AB")
            self.machine.udev.place(self._disks[name])
        self.machine.start_service()

    def _quiet(self) -> None:
        self.machine.settle()
        if self.machine.process is None or self.machine.process.ended():
            raise Violation("the service has ended")
        self._follow()
        self._check_objects()
        self._check_mounts()
        self._checks += 1

    def _rest(self) -> None:
        for name in list(self._disks):
            self._pull(name)
        for place in list(self._mounted):
            self._unmount(place)
        self._quiet()
        if self._objects:
            raise Violation(f"left when all is gone: {self._objects}")
        if left := os.listdir(self.machine.sandbox.path("/media")):
            raise Violation(f"left in /media: {left}")
        process = self._process()
        size = (process.status("Threads"), len(process.descriptors()))
        self._at_rest = self._at_rest or size
        if size != self._at_rest:
            raise Violation(f"threads and descriptors: {size}, at first {self._at_rest}")
        self._forget()

    # ---- What follows it

    def _follow(self) -> None:
        """Take in what was announced until now."""
        machine = self.machine
        machine.settle()
        for event in machine.hal.events.up_to(machine.mark(), self._seen):
            match = _ANNOUNCED.fullmatch(event.text)
            if match and (match[1] == "Added") == (match[2] in self._objects):
                raise Violation(f"announced out of turn: {event.text}; there: {self._objects}")
            if match:
                self._objects ^= {match[2]}
        self._seen = machine.mark()

    def _process(self) -> Process:
        assert self.machine.process
        return self.machine.process

    def _forget(self) -> None:
        """Drop the tape, which would grow for ever."""
        machine = self.machine
        with machine.tape.added:
            machine.tape.events.clear()
        for channel in (machine.hal.events, machine.syslog.events):
            channel.seek(Mark(0))
        self._seen = Mark(0)

    def _check_objects(self) -> None:
        there = set(self.machine.objects())
        if there != self._objects:
            raise Violation(f"there: {sorted(there)}; announced: {sorted(self._objects)}")
        volumes = Counter(_TWIN.sub("", name) for name in there if name.startswith("volume_"))
        wanted = Counter(f"volume_uuid_{device.properties['ID_FS_UUID']}"
                         for disk in self._disks.values() for device in disk.blocks()
                         if "ID_FS_UUID" in device.properties)
        if volumes != wanted:
            raise Violation(f"volumes {volumes}; the devices show {wanted}")

    def _check_mounts(self) -> None:
        mounts = self.machine.mounts()
        for udi in self.machine.volumes():
            told = self.machine.call(PREFIX + udi, "org.freedesktop.Hal.Device.GetAllProperties")
            node = _text(told, "block.device")
            mounted = "'volume.is_mounted': <true>" in told
            if mounted != (node in mounts.values()):
                raise Violation(f"{udi} at {node}: mounted {mounted}; the kernel has {mounts}")
        owned = {place.removeprefix("/media/") for place in mounts}
        if astray := set(os.listdir(self.machine.sandbox.path("/media"))) - owned:
            raise Violation(f"nobody owns, in /media: {astray}; mounted: {mounts}")

    def _volumes_at(self, node: str) -> list[str]:
        self._follow()
        return [udi for udi in self._objects if udi.startswith("volume_")
                and self.machine.get(udi, "block.device") == f"('{node}',)"]

    def _device(self, name: str, partition: int) -> Device | None:
        disk = self._disks.get(name)
        return disk.partitions.get(partition) if disk else None

    def _make(self, name: str, layout: str) -> Disk:
        self._sequence += 1
        number = DISKS.index(name)
        whole = FileSystem("W") if layout == "w" else None
        partitions = [] if layout == "w" else [None if mark == "-" else FileSystem(mark)
                                               for mark in layout]
        options = {"sequence": self._sequence, "whole": whole, "partitions": partitions}
        if name.startswith("mmc"):
            return sd_card(name, host=int(name[-1]), **options)
        return usb_disk(name, port=f"1-1.{number + 1}", host=number, usb_serial=f"S{number}",
                        **options)


class HaldMaker:
    """Makes players and stories for the hardware service."""

    checks = frozenset(("quiet", "rest"))

    def __init__(self, logs: Path) -> None:
        self._logs = logs

    def player(self, name: str) -> HaldPlayer:
        """One on a fresh machine."""
        return HaldPlayer(self._logs / name)

    def story(self, seed: str) -> list[str]:
        """The lines of the story of that seed."""
        return HaldStory(seed, _LINES).lines


def _text(properties: str, key: str) -> str:
    match = re.search(rf"'{re.escape(key)}': <'([^']*)'>", properties)
    return match[1] if match else ""
