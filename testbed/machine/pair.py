"""Two units on one wire, each the other's peer, and what is to be seen of them."""

import shutil
import tempfile
from pathlib import Path

from testbed.lifespan import Lifespan
from testbed.machine import surface
from testbed.machine.emulator import USB_PORTS, Image
from testbed.machine.unit import Unit
from testbed.machine.volumes import Volume


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
        self._sticks: dict[str, tuple[Unit, str]] = {}

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

    def plug(self, unit: Unit, name: str, image: Path, *volumes: Volume, port: str = "") -> None:
        """Plug a stick with these volumes into the unit, by default into the first free port."""
        port = port or self._free_port(unit)
        unit.emulator.plug(name, image, port)
        self._sticks[name] = (unit, port)
        unit.volumes.extend(volumes)

    def pull(self, name: str, *volumes: Volume) -> None:
        """Tear a stick out, and with it these volumes."""
        unit, _ = self._sticks.pop(name)
        unit.emulator.pull(name)
        for volume in volumes:
            unit.volumes.remove(volume)

    def has_stick(self, name: str) -> bool:
        """True while the stick of this name is plugged in."""
        return name in self._sticks

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
            unit.old_names -= set(wanted.mounts_below_mnt())  # those go with the share
            self._told[unit.name] = arrivals

    def cut_power(self, unit: Unit) -> None:
        """Switch a unit off without a goodbye; its application will know nothing."""
        unit.close()
        self._told[unit.name] = {}

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
        taken = [port for owner, port in self._sticks.values() if owner is unit]
        return next(port for port in USB_PORTS if port not in taken)


def _removal(path: str) -> str:
    return ('<message version="1" type="datasource"><content>'
            f'<dataremoval path="{path}"/></content></message>')
