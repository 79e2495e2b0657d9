"""Two units on one wire, each the other's peer, and what is to be seen of them."""

import shutil
import tempfile
from dataclasses import dataclass, field
from pathlib import Path

from testbed.lifespan import Lifespan
from testbed.machine import surface
from testbed.machine.emulator import USB_PORTS, Image
from testbed.machine.unit import Unit
from testbed.machine.volumes import Volume


@dataclass
class _Stick:
    """A stick that is plugged in: its volumes as places on a disk, and as the kernel calls them."""

    unit: Unit
    port: str
    places: tuple[Volume, ...]
    volumes: list[Volume] = field(default_factory=list)

    def learn_names(self) -> None:
        """Ask the unit, whose volumes they are."""
        for volume in self.volumes:
            self.unit.volumes.remove(volume)
        disk = self.unit.disk_at(self.port) if self.places else ""
        self.volumes = [place.on(disk) for place in self.places]
        self.unit.volumes.extend(self.volumes)


class Pair(Lifespan):
    """Both units, from `start` to `close`. They are off until they are switched on.

    What is plugged in stands in the units' `volumes`; `settle` compares the units with it.
    """

    def __init__(self, image: Image, directory: Path) -> None:
        """Logs, disks and media are left in `directory`."""
        self.directory = directory
        self._sockets = Path(tempfile.mkdtemp(prefix="voldrake-machine-"))
        self.north, self.south = (Unit(number, image, directory, self._sockets)
                                  for number in (1, 2))
        self.units = (self.north, self.south)
        self.connected = True
        self._told: dict[str, dict[str, str]] = {unit.name: {} for unit in self.units}
        self._sticks: dict[str, _Stick] = {}

    def start(self) -> None:
        """Make the units, with fresh disks."""
        for unit in self.units:
            unit.create()

    def close(self) -> None:
        """Cut the power of both."""
        for unit in self.units:
            unit.close()
        shutil.rmtree(self._sockets, ignore_errors=True)

    def switch_on(self, *units: Unit) -> None:
        """Boot units side by side; all that starts at boot has been started on return."""
        for unit in units:
            unit.begin_start()
        for unit in units:
            unit.commands.wait_until_ready()
        for unit in units:
            unit.wait_until_started()

    def other(self, unit: Unit) -> Unit:
        """The neighbour."""
        return self.south if unit is self.north else self.north

    def plug(self, unit: Unit, name: str, image: Path, *volumes: Volume) -> list[Volume]:
        """Plug a stick with these volumes into the unit's first free port. They are named for their
        places on a disk; the result has the letter that the kernel gives the disk, which may be
        any: it keeps that of a stick that has gone as long as something holds on to it."""
        stick = _Stick(unit, self._free_port(unit), volumes)
        unit.emulator.plug(name, image, stick.port)
        self._sticks[name] = stick
        stick.learn_names()
        return list(stick.volumes)

    def pull(self, name: str) -> None:
        """Tear a stick out, and with it its volumes."""
        stick = self._sticks.pop(name)
        stick.unit.emulator.pull(name)
        for volume in stick.volumes:
            stick.unit.volumes.remove(volume)

    def volumes_of(self, name: str) -> list[Volume]:
        """The volumes of a stick that is plugged in; none of one that is not."""
        return list(self._sticks[name].volumes) if name in self._sticks else []

    def pull_cable(self) -> None:
        """Take the cable out, which both notice."""
        self._cable(False)

    def plug_cable(self) -> None:
        """Put it in again."""
        self._cable(True)

    def settle(self, **again: list[str]) -> None:
        """Return once both units are as they should be, and their applications have been told what
        has changed since the last time and nothing else.

        `again`: by the unit's name, messages that come besides, about what is as it was.
        """
        for unit in self._running():
            wanted = self._wanted(unit)
            told = self._told[unit.name]
            arrivals = self._arrivals(unit)
            texts = [_removal(path) for path in told if path not in arrivals]
            texts += [text for path, text in arrivals.items() if path not in told]
            unit.expect_messages(*texts, *again.get(unit.name, []))
            unit.wait_for_surface(wanted)
            unit.old_names -= wanted.mounted_names()  # those go with the volume or the share
            self._told[unit.name] = arrivals

    def cut_power(self, unit: Unit) -> None:
        """Switch a unit off without a goodbye; its application will know nothing."""
        unit.close()
        self._told[unit.name] = {}

    def restore_power(self, unit: Unit) -> None:
        """Switch a unit on again. The disks of its sticks may get other letters."""
        unit.start()
        for stick in self._sticks.values():
            if stick.unit is unit:
                stick.learn_names()

    def shares(self, unit: Unit) -> list[Volume]:
        """The volumes of the neighbour that the unit is to have."""
        other = self.other(unit)
        if not self.connected or not other.emulator.running():
            return []
        return other.exportable_volumes()

    def _wanted(self, unit: Unit) -> surface.Surface:
        """An interface without a cable has no address, and a unit without one exports nothing."""
        exported = unit.volumes if self.connected else []
        wanted = surface.expected(unit.volumes, exported, self.shares(unit),
                                  self.other(unit).address)
        for name, target in unit.old_links.items():
            wanted.links.setdefault(f"/media/{name}", target)
        wanted.names.update(unit.old_links, unit.old_names)
        return wanted

    def _arrivals(self, unit: Unit) -> dict[str, str]:
        """Path -> message for everything that the application is to know."""
        address = self.other(unit).address
        known = {volume.mount_point: volume.arrival() for volume in unit.volumes}
        known |= {volume.share_point(address): volume.share_arrival(address)
                  for volume in self.shares(unit)}
        return known

    def _running(self) -> list[Unit]:
        return [unit for unit in self.units if unit.emulator.running()]

    def _cable(self, plugged: bool) -> None:
        self.connected = plugged
        for unit in self.units:
            unit.emulator.cable(plugged)

    def _free_port(self, unit: Unit) -> str:
        taken = [stick.port for stick in self._sticks.values() if stick.unit is unit]
        return next(port for port in USB_PORTS if port not in taken)


def _removal(path: str) -> str:
    return ('<message version="1" type="datasource"><content>'
            f'<dataremoval path="{path}"/></content></message>')
