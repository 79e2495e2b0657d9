"""The daemon over either hardware service: what comes and goes looks the same to the application."""

import os
import re
import signal
from pathlib import Path
from typing import Callable, Iterator, Protocol

import pytest

from local_volumes import CID, arrival, removal
from testbed import timeouts
from testbed.application import Application
from testbed.daemon import Daemon
from testbed.hald import HaldMachine
from testbed.udev import Disk, FileSystem, sd_card, usb_disk
from testbed.unit import FAMILY, Unit
from testbed.waiting import wait_until

_FENCE = arrival("/media/sdb1")


def _protected(disk: Disk) -> Disk:
    disk.partitions[1].attributes["ro"] = "1"
    return disk


#: What can be plugged: the stand-in's command, and the same as the kernel shows it.
HARDWARE: dict[str, tuple[str, Callable[[], Disk]]] = {
    "stick": ("usb stick port=1-1.1 uuid=A",
              lambda: usb_disk(port="1-1.1", partitions=[FileSystem("A")])),
    "pair": ("usb pair port=1-1.1 uuid=A partitions=2",
             lambda: usb_disk(port="1-1.1", partitions=[FileSystem("A"), FileSystem("B")])),
    "protected": ("usb protected port=1-1.1 uuid=A readonly",
                  lambda: _protected(usb_disk(port="1-1.1", partitions=[FileSystem("A")]))),
    "card": (f"sd card host=0 cid={CID} uuid=1769-6A29",
             lambda: sd_card(cid=CID, partitions=[FileSystem("1769-6A29")])),
    "fence": ("usb fence port=1-1.2 uuid=F block=/dev/sdb",
              lambda: usb_disk("sdb", port="1-1.2", host=1, usb_serial="FF",
                               partitions=[FileSystem("F")])),
}


class Stage(Protocol):
    """A unit on which one of the services runs, the daemon not started."""

    application: Application

    def start_daemon(self) -> None:
        """The daemon has looked at what is there on return."""

    def plug(self, name: str) -> None:
        """Something of HARDWARE comes."""

    def pull(self, name: str) -> None:
        """It is torn out."""

    def entries(self) -> dict[str, str]:
        """What is in /media: links with their targets, everything else with ""."""


class SimStage:
    """With the stand-in."""

    def __init__(self, unit: Unit) -> None:
        self._unit = unit
        self.application = unit.application

    def start_daemon(self) -> None:
        self._unit.start_daemon()

    def plug(self, name: str) -> None:
        self._unit.hal.plug(HARDWARE[name][0])

    def pull(self, name: str) -> None:
        self._unit.hal.pull(name)

    def entries(self) -> dict[str, str]:
        return _entries(self._unit.sandbox.path("/media"))


class HaldStage:
    """With the service over the kernel's devices."""

    def __init__(self, machine: HaldMachine) -> None:
        self._machine = machine
        self._disks: dict[str, Disk] = {}
        self.application = Application(machine.sandbox, machine.tape)
        self._daemon = Daemon(machine.sandbox, machine.tape)
        for number in range(2):  # as a unit has
            machine.sandbox.path(f"/sys/class/mmc_host/mmc{number}").mkdir(parents=True)
        machine.sandbox.write(FAMILY, "3 hawk\n")
        self.application.listen()
        machine.start_service()

    def start_daemon(self) -> None:
        self._machine.syslog.events.seek(self._machine.tape.mark())
        self._daemon.start("--port", str(self.application.port))
        self._machine.syslog.events.expect(re.compile("call .* FindDeviceByCapability "),
                                           timeouts.START)

    def plug(self, name: str) -> None:
        self._disks[name] = HARDWARE[name][1]()
        self._machine.udev.plug(self._disks[name])

    def pull(self, name: str) -> None:
        self._machine.udev.pull(self._disks[name])

    def entries(self) -> dict[str, str]:
        return _entries(self._machine.sandbox.path("/media"))

    def kill_both(self, events: int, cause: Callable[[], None]) -> None:
        """Do what `cause` does, SIGKILL service and daemon at once as soon as so many events stand
        on the tape after it, and start both again."""
        end = self._machine.mark() + events
        cause()
        wait_until(lambda: self._machine.mark() >= end, f"{events} events")
        assert self._machine.process
        self._machine.process.signal(signal.SIGKILL)
        self._daemon.kill()
        self._machine.process.wait()
        self._machine.start_service()
        self.start_daemon()

    def mounts(self) -> set[str]:
        """The places where something is mounted."""
        return set(self._machine.mounts())

    def close(self) -> None:
        """End what the machine does not."""
        if self._daemon.process and not self._daemon.process.ended():
            assert self._daemon.terminate() == 0
        self._daemon.close()
        self.application.leave()


def _entries(media: Path) -> dict[str, str]:
    with os.scandir(media) as found:
        return {entry.name: os.readlink(entry.path) if entry.is_symlink() else ""
                for entry in found}


@pytest.fixture
def hald_stage(machine: HaldMachine) -> Iterator[HaldStage]:
    """With the service over the kernel's devices."""
    made = HaldStage(machine)
    yield made
    made.close()


@pytest.fixture(params=["voldrake-halsim", "voldrake-hald"])
def stage(request: pytest.FixtureRequest) -> Stage:
    """Each test runs over both services."""
    if request.param == "voldrake-halsim":
        return SimStage(request.getfixturevalue("unit"))
    return request.getfixturevalue("hald_stage")


def rest(stage: Stage, killed: bool = False) -> list[str]:
    """The messages from here on to those of a stick that is plugged last, which it leaves out.
    When a daemon was `killed`, also what it was just sending."""
    stage.plug("fence")
    texts: list[str] = []
    while not texts or texts[-1] != _FENCE:
        frame = stage.application.next_frame()
        if not (killed and frame.cut()):
            texts.append(frame.text())
    return texts[:-1]


FENCE_ENTRIES = {"sdb1": "", "USB Memory Card B1": "sdb1"}


def test_a_stick_comes_and_goes(stage: Stage) -> None:
    stage.start_daemon()
    stage.plug("stick")
    assert stage.application.next_text() == arrival("/media/sda1")
    assert stage.entries() == {"sda1": "", "USB Memory Card A1": "sda1"}
    stage.pull("stick")
    assert stage.application.next_text() == removal("/media/sda1")
    assert rest(stage) == []
    assert stage.entries() == FENCE_ENTRIES


def test_a_stick_comes_again(stage: Stage) -> None:
    stage.start_daemon()
    for _ in range(3):
        stage.plug("stick")
        assert stage.application.next_text() == arrival("/media/sda1")
        stage.pull("stick")
        assert stage.application.next_text() == removal("/media/sda1")
    assert rest(stage) == []
    assert stage.entries() == FENCE_ENTRIES


def test_two_partitions_come_and_go(stage: Stage) -> None:
    stage.start_daemon()
    stage.plug("pair")
    for number in (1, 2):
        assert stage.application.next_text() == arrival(f"/media/sda{number}")
    stage.pull("pair")
    gone = {stage.application.next_text() for _ in range(2)}
    assert gone == {removal("/media/sda1"), removal("/media/sda2")}
    assert rest(stage) == []
    assert stage.entries() == FENCE_ENTRIES


def test_a_card_in_the_unit_s_own_slot(stage: Stage) -> None:
    stage.start_daemon()
    stage.plug("card")
    assert stage.application.next_text() == arrival("/media/mmcblk0p1", card=True, key=CID,
                                                    name="Memory Card - 0")
    assert stage.entries() == {"mmcblk0p1": "", "Memory Card": "mmcblk0p1"}
    stage.pull("card")
    assert stage.application.next_text() == removal("/media/mmcblk0p1")
    assert rest(stage) == []


def test_what_is_plugged_before_the_daemon_starts_is_found(stage: Stage) -> None:
    stage.plug("stick")
    stage.start_daemon()
    assert stage.application.next_text() == arrival("/media/sda1")
    assert rest(stage) == []


def test_a_write_protected_stick_is_read_only(stage: Stage) -> None:
    stage.start_daemon()
    stage.plug("protected")
    assert stage.application.next_text() == arrival("/media/sda1", read_only=True)
    assert rest(stage) == []


@pytest.mark.parametrize("events", range(0, 90, 6))
def test_both_are_killed_while_a_stick_comes(hald_stage: HaldStage, events: int) -> None:
    hald_stage.start_daemon()
    hald_stage.kill_both(events, lambda: hald_stage.plug("stick"))
    assert set(rest(hald_stage, killed=True)) == {arrival("/media/sda1")}
    assert hald_stage.mounts() == {"/media/sda1", "/media/sdb1"}
    assert hald_stage.entries() == FENCE_ENTRIES | {"sda1": "", "USB Memory Card A1": "sda1"}


@pytest.mark.parametrize("events", range(0, 30, 3))
def test_both_are_killed_while_a_stick_goes(hald_stage: HaldStage, events: int) -> None:
    hald_stage.start_daemon()
    hald_stage.plug("stick")
    assert hald_stage.application.next_text() == arrival("/media/sda1")
    hald_stage.kill_both(events, lambda: hald_stage.pull("stick"))
    # What goes while no daemon runs is never told.
    assert set(rest(hald_stage, killed=True)) <= {removal("/media/sda1")}
    assert hald_stage.mounts() == {"/media/sdb1"}
    assert hald_stage.entries() == FENCE_ENTRIES
