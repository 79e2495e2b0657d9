"""The same for `voldrake-hald`, on a machine whose kernel and udev are mocked.

Its calls are those of the mocking library, too. A service that ends with status 1 and a reason in
the log is started again, as its supervisor does; what it then shows and has announced is compared.
"""

import os
import re
import time
from collections import Counter
from contextlib import ExitStack
from pathlib import Path
from typing import Callable

from testbed import timeouts
from testbed.faults.recording import Recorded, record
from testbed.faults.trial import (
    KILL, REFERENCES, STEADY, UNMET, Fault, Result, Seen, differences, judged)
from testbed.faults.unit import State
from testbed.hald import PREFIX, HaldMachine
from testbed.lifespan import Lifespan
from testbed.process import Process
from testbed.strace import Strace, Trace
from testbed.tape import Mark
from testbed.udev import FileSystem, usb_disk
from testbed.waiting import wait_until

_VOLUME = "org.freedesktop.Hal.Device.Volume"
_ANNOUNCED = re.compile(r"Device(Added|Removed) (\S+)")
_TRACE = "/var/log/trial.strace"
_PAUSE = 1.0
#: The first says that it has logged why; the second is the tool's own.
_GOOD_ENDS = ("ended with status 1", "killed")


class HaldUnit(Lifespan):
    """A machine, on which the service runs or not, and what is seen of it."""

    def __init__(self, logs: Path) -> None:
        self.machine = HaldMachine(logs)
        self.stick = usb_disk("sda", partitions=[FileSystem("A")])
        self.probe = usb_disk("sdb", port="1-1.4", host=1, usb_serial="BB", serial="Acme_BB",
                              partitions=[FileSystem("B")])
        self.ends: list[str] = []  # how the service has ended by itself
        self.present = False  # the stick
        self._asked = 0.0  # when the bus was last asked who serves

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
        raise AssertionError(f"it does not start: {self.ends}")

    def note_end(self) -> bool:
        """True when it has ended; how is noted."""
        process = self.machine.process
        if process is None or not process.ended():
            return False
        self.ends.append(f"ended with status {process.wait()}")
        self.machine.process = None
        return True

    def threads(self) -> dict[str, int]:
        """Its threads by their names; those that come and go are not told apart."""
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
        return len(kept), len(os.listdir(f"/proc/{self.machine.process.pid}/fd"))

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
            self.machine._fence_bus()
        except AssertionError as failure:
            return "ended" if process.ended() else str(failure)
        return ""

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

    def _announced(self) -> Counter[str]:
        told: Counter[str] = Counter()
        for event in self.machine.hal.events.up_to(self.machine.mark()):
            if match := _ANNOUNCED.fullmatch(event.text):
                told[match[2]] += 1 if match[1] == "Added" else -1
        return told

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


class HaldBench(Lifespan):
    """As `Bench`, of the hardware service."""

    def __init__(self, logs: Path, patience: float = 12.0) -> None:
        self._logs = logs
        self._patience = patience
        self._unit: HaldUnit | None = None
        self._rest: State = {}
        self._sizes = (0, 0)
        self._cold = False  # the unit is one of a cold start
        self._references: dict[tuple[str, bool], list[Seen]] = {}

    def start(self) -> None:
        """Machines are made when they are needed."""

    def close(self) -> None:
        """Leaves nothing but logs."""
        if self._unit:
            self._unit.close()
            self._unit = None

    def calls(self, story: str) -> list[Recorded]:
        """What its threads call in the story; of a cold start the main thread's."""
        played = HALD_STORIES[story]
        unit = self._prepared(played)
        if played.cold:
            unit.start_service("strace", "-D", "-y", "-r", "-o", _TRACE)
            calls, counts = [], Counter[str]()
            own = False  # after what the loader calls before the program begins
            for made in Trace(unit.machine.sandbox.path(_TRACE)).made():
                counts[made.name] += 1
                if own:
                    calls.append(Recorded("main", made.name, counts[made.name], made.text))
                own = own or made.name == "prlimit64"
        else:
            assert unit.machine.process

            def play() -> None:
                played.play(unit)
                unit.settle(self._patience)
            calls = record(unit.machine.process, unit.threads(), self._logs / "recorded", play)
        self.close()
        return calls

    def run(self, fault: Fault) -> Result:
        """Play the story with the fault."""
        story, kills = HALD_STORIES[fault.story], fault.action == KILL
        key = (story.name, kills)
        if key not in self._references:
            seen = [self._observe(story, None, kills) for _ in range(REFERENCES)]
            assert all(one.state == seen[0].state and not one.deviations for one in seen), seen
            self._references[key] = seen
        references = self._references[key]
        found = Seen()
        try:
            found = self._observe(story, fault, kills)
        except (AssertionError, OSError, TimeoutError) as failure:
            found.deviations["trial"] = str(failure) or type(failure).__name__
        if found.deviations:
            self.close()
        if not found.hit and not found.deviations:
            return Result(fault, UNMET)
        if fault.misses(found.hit):
            self.close()
            return Result(fault, UNMET, found.hit, ("another call has come at this number",))
        return judged(fault, found, references[0],
                      {line for one in references for line in one.lines}, True)

    def _prepared(self, story: HaldStory) -> HaldUnit:
        if self._unit and (story.cold or self._cold or self._unit.machine.process is None
                           or self._unit.machine.process.ended()):
            self.close()
        if not self._unit:
            self._unit, self._cold = HaldUnit(self._logs), story.cold
            self._unit.start()
            if not story.cold:
                self._unit.start_service()
                self._rest, self._sizes = self._unit.state(), self._unit.sizes()
        unit = self._unit
        unit.ends.clear()
        story.prepare(unit)
        if not story.cold:
            assert not (trouble := unit.settle(self._patience)), trouble
        return unit

    def _observe(self, story: HaldStory, fault: Fault | None, kills: bool) -> Seen:
        unit, seen = self._prepared(story), Seen()
        since = unit.machine.mark()
        if story.cold:
            options = fault.options() if fault else []
            unit.start_service(*(["strace", "-D", "-r", "-o", _TRACE, *options] if fault else []))
            seen.hit = self._hit(unit.machine.sandbox.path(_TRACE), unit) if fault else ""
        else:
            self._play(story, fault, unit, seen)
        if unit.note_end() or unit.machine.process is None:
            unit.start_service()
        if kills:
            if not unit.ends:
                unit.machine.kill_service()
                unit.note_end()
                unit.start_service()
            unit.ends[:] = ["killed"]
        self._see(unit, story, kills, seen)
        if bad := [end for end in seen.state.get("ended by itself", ()) if end not in _GOOD_ENDS]:
            seen.deviations["end"] = str(bad)
        # That it serves again is no word about why it has ended.
        seen.lines = [line for line in unit.lines(since) if not line.startswith("serving ")]
        return seen

    def _play(self, story: HaldStory, fault: Fault | None, unit: HaldUnit, seen: Seen) -> None:
        assert unit.machine.process
        output = self._logs / "trial.strace"
        with ExitStack() as attached:
            if fault:
                try:
                    attached.enter_context(Strace(
                        unit.machine.process, output, *fault.options(),
                        thread=unit.threads()[fault.thread]))
                except (AssertionError, OSError):
                    if not unit.machine.process.ended():
                        raise
            story.play(unit)
            if trouble := unit.settle(self._patience):
                if trouble != "ended":
                    seen.deviations["hang"] = trouble
        if fault:
            seen.hit = self._hit(output, unit)

    @staticmethod
    def _hit(output: Path, unit: HaldUnit) -> str:
        lines = output.read_text(errors="replace").splitlines() if output.exists() else []
        killed = any("killed by" in line for line in lines)
        return next((line.split(None, 1)[1] for line in lines if "(INJECTED)" in line),
                    "a signal" if killed else "")

    def _see(self, unit: HaldUnit, story: HaldStory, kills: bool, seen: Seen) -> None:
        if seen.deviations:
            return
        trouble = unit.settle(self._patience)
        if trouble == "ended":  # some time after the fault
            unit.note_end()
            unit.start_service()
            trouble = unit.settle(self._patience)
        if trouble:
            seen.deviations["hang"] = trouble
            return
        references = self._references.get((story.name, kills))
        wanted = references[0].state if references else None
        seen.state = self._steady(unit, wanted)
        unit.ends.clear()
        self._see_probe(unit, seen)
        unit.pull()
        if trouble := unit.settle(self._patience):
            seen.deviations["hang"] = f"afterwards: {trouble}"
            return
        rest = {what: () for what in seen.state} if story.cold else self._rest
        left = self._steady(unit, rest)
        for what, text in differences(rest, left).items():
            seen.deviations[f"afterwards {what}"] = text
        if not story.cold and not seen.state["ended by itself"]:
            self._see_sizes(unit, seen)

    def _see_sizes(self, unit: HaldUnit, seen: Seen) -> None:
        try:
            wait_until(lambda: unit.sizes() == self._sizes, "as many as before", STEADY)
        except AssertionError:
            seen.deviations["size"] = f"threads and descriptors {unit.sizes()}, were {self._sizes}"

    def _see_probe(self, unit: HaldUnit, seen: Seen) -> None:
        """The next stick is served, mounted and unmounted."""
        unit.machine.udev.plug(unit.probe)
        if trouble := unit.settle(self._patience):
            seen.deviations["next stick"] = trouble
            return
        answers = (unit.mount("volume_uuid_B", "sdb1"), unit.unmount("volume_uuid_B"))
        if answers != ("(0,)", "(0,)"):
            seen.deviations["next stick"] = f"mount and unmount: {answers}"
        unit.machine.udev.pull(unit.probe)

    @staticmethod
    def _steady(unit: HaldUnit, wanted: State | None) -> State:
        if wanted is not None:
            try:
                wait_until(lambda: unit.state() == wanted, "as wanted", STEADY)
            except AssertionError:
                pass  # told by what differs
        return unit.state()

