"""A machine for the hardware service while a fault is put in, and what happens there."""

import os
import re
import shutil
import time
from collections import Counter
from pathlib import Path
from typing import Callable

from testbed import timeouts
from testbed.faults.agreements import WITHOUT_THREAD
from testbed.faults.unit import State
from testbed.hald import PREFIX, STATE_FILE, HaldMachine
from testbed.lifespan import Lifespan
from testbed.process import Process
from testbed.tape import Mark
from testbed.udev import FileSystem, usb_disk
from testbed.waiting import wait_until

_VOLUME = "org.freedesktop.Hal.Device.Volume"
_ANNOUNCED = re.compile(r"Device(Added|Removed) (\S+)")
_PAUSE = 1.0
#: What the library of its main loop says before it ends a program.
_NO_THREAD = "Error creating thread"


class HaldUnit(Lifespan):
    """A machine, on which the service runs or not, and what is seen of it."""

    def __init__(self, logs: Path) -> None:
        self.machine = HaldMachine(logs)
        self.stick = usb_disk("sda", partitions=[FileSystem("A")])
        self.probe = usb_disk("sdb", port="1-1.4", host=1, usb_serial="BB", serial="Acme_BB",
                              partitions=[FileSystem("B")])
        self.ends: list[str] = []  # how the service has ended by itself
        self.present = False  # the stick
        self.loses_power = False  # with the service
        self._asked = 0.0  # when the bus was last asked who serves
        self._booted = Mark(0)  # what clients heard before is of no interest

    def start(self) -> None:
        """Everything runs but the service."""
        self.machine.start()

    def close(self) -> None:
        """Leaves nothing but logs."""
        self.machine.close()

    def start_service(self, *launcher: str) -> None:
        """Start it, and again when it ends at once; it serves on return."""
        for _ in range(3):
            process = self.machine.launch(launcher=launcher)
            wait_until(lambda: process.ended() or self._serves(process), "it serves or has ended",
                       2 * timeouts.START)
            launcher = ()
            if not self.note_end():
                return
            if self.loses_power:
                self.power_cut()
        raise AssertionError(f"it does not start: {self.ends}")

    def note_end(self) -> bool:
        """True when it has ended; how is noted."""
        process = self.machine.process
        if process is None or not process.ended():
            return False
        without_thread = _NO_THREAD in process.stderr()
        self.ends.append(WITHOUT_THREAD if without_thread else f"ended with status {process.wait()}")
        self.machine.process = None
        return True

    def threads(self) -> dict[str, int]:
        """Its threads by their names; one name stands for all that come and go."""
        assert self.machine.process
        names = {}
        for task in Path(f"/proc/{self.machine.process.pid}/task").iterdir():
            name = (task / "comm").read_text().strip()
            names["main" if int(task.name) == self.machine.process.pid else name] = int(task.name)
        return names

    def sizes(self) -> tuple[int, int]:
        """Threads, without those of a pool, and descriptors."""
        assert self.machine.process
        kept = [name for name in self.threads() if not name.startswith("pool")]
        return len(kept), len(self.machine.process.descriptors())

    def settle(self, patience: float) -> str:
        """It has dealt with all events until now; empty, or why it has not."""
        process = self.machine.process
        if process is None:
            return "it does not run"
        mark = self.machine.mark()
        before = process.err.read_text(errors="replace").count("udev: change ")
        path = self.machine.udev.fence()

        def answered() -> bool:
            # Either may be what a fault has hit.
            return (process.ended()
                    or process.err.read_text(errors="replace").count("udev: change ") > before
                    or any(path in event.text for event in self.machine.tape.shown(mark)
                           if event.source == "syslog"))
        try:
            wait_until(answered, "it deals with an event", patience)
            if process.ended():
                return "ended"
            self.machine.fence_bus()
        except AssertionError as failure:
            return "ended" if process.ended() else str(failure)
        return ""

    def power_cut(self) -> None:
        """Nothing is mounted any more, /run is empty, and every client has ended. What is on the
        disk stays: directories. Requires: the service has ended."""
        for place in self.machine.mounts():
            assert self.machine.sandbox.run(["umount", place]).returncode == 0, place
        shutil.rmtree(self.machine.sandbox.path("/run/voldrake-hald"), ignore_errors=True)
        # What the service has sent may be still on its way to the observer.
        self.machine.fence_bus()
        self._booted = self.machine.mark()

    def clear_directories(self) -> None:
        """Take away the directories that are left in /media. Requires: nothing is mounted."""
        for directory in self.machine.sandbox.path("/media").iterdir():
            directory.rmdir()

    def state(self) -> State:
        """What is seen of it, and of what it does."""
        machine = self.machine
        objects = machine.objects()
        return {
            "objects": tuple(objects),
            "announced": tuple(sorted(self._announced().elements())),
            "said to be mounted": tuple(name for name in objects if name.startswith("volume_")
                                        and machine.get(name, "volume.is_mounted", "Boolean")
                                        == "(true,)"),
            "mounts": tuple(sorted(f"{source} {place}"
                                   for place, source in machine.mounts().items())),
            "in /media": tuple(sorted(os.listdir(machine.sandbox.path("/media")))),
            "ended by itself": tuple(self.ends),
        }

    def mount(self, name: str, place: str) -> str:
        """A client asks for a mount; the answer."""
        return self.machine.call(PREFIX + name, f"{_VOLUME}.Mount", place, "vfat", "[]")

    def unmount(self, name: str) -> str:
        """A client asks for the end of it; the answer."""
        return self.machine.call(PREFIX + name, f"{_VOLUME}.Unmount", "@as []")

    def plug(self) -> None:
        """The stick comes."""
        if not self.present:
            self.present = True
            self.machine.udev.plug(self.stick)

    def place(self) -> None:
        """The stick is there before the service."""
        self.present = True
        self.machine.udev.place(self.stick)

    def pull(self) -> None:
        """The stick goes."""
        if self.present:
            self.present = False
            self.machine.udev.pull(self.stick)

    def lines(self, since: Mark) -> list[str]:
        """What it has logged, but for debug lines."""
        events = self.machine.syslog.events.up_to(self.machine.mark(), since)
        return [event.data.text for event in events if event.data and event.data.priority < 7]

    def recorded(self) -> set[str]:
        """The objects that the state file says were announced. Requires: the service has ended."""
        file = self.machine.sandbox.path(STATE_FILE)
        text = file.read_text() if file.exists() else ""
        return set(re.findall(r"^name=(\S+)$", text, re.MULTILINE))

    def _announced(self) -> Counter[str]:
        """A second removal takes nothing away: one that was not yet noted when the service was
        killed is announced again."""
        announced: Counter[str] = Counter()
        for event in self.machine.hal.events.up_to(self.machine.mark(), self._booted):
            if match := _ANNOUNCED.fullmatch(event.text):
                change = 1 if match[1] == "Added" else -1
                announced[match[2]] = max(announced[match[2]] + change, 0)
        return announced

    def _serves(self, process: Process) -> bool:
        if "serving " in process.err.read_text(errors="replace"):
            return True
        if time.monotonic() < self._asked + _PAUSE:
            return False
        # A fault may have hit that line.
        self._asked = time.monotonic()
        owned = self.machine.sandbox.run(
            ["gdbus", "call", "--system", "--dest", "org.freedesktop.DBus", "--object-path", "/",
             "--method", "org.freedesktop.DBus.NameHasOwner", "org.freedesktop.Hal"])
        return owned.stdout.strip() == "(true,)"


class HaldStory:
    """One story: what is there before, what happens, and how all goes again."""

    def __init__(self, name: str, prepare: Callable[[HaldUnit], object],
                 play: Callable[[HaldUnit], object], cold: bool = False) -> None:
        """With `cold` the service is started in it."""
        self.name = name
        self.prepare = prepare
        self.play = play
        self.cold = cold


def _nothing(_: HaldUnit) -> None:
    pass


def _plug_and_mount(unit: HaldUnit) -> None:
    unit.plug()
    unit.settle(timeouts.START)
    unit.mount("volume_uuid_A", "sda1")


HALD_STORIES = {story.name: story for story in (
    HaldStory("coldplug", HaldUnit.place, _nothing, cold=True),
    HaldStory("hotplug", _nothing, HaldUnit.plug),
    HaldStory("mount", HaldUnit.plug, lambda unit: unit.mount("volume_uuid_A", "sda1")),
    HaldStory("unmount", _plug_and_mount, lambda unit: unit.unmount("volume_uuid_A")),
    HaldStory("removal", _plug_and_mount, HaldUnit.pull))}
