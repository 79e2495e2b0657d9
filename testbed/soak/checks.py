"""What must be true whenever a unit has come to rest."""

import html
import os
import signal
import time
from collections import Counter
from typing import Callable

from testbed import timeouts
from testbed.soak import Violation
from testbed.soak.service import ANSWER, PREFIX, Volume
from testbed.soak.unit import IGNORED, INTERNAL, Heap, SoakUnit
from testbed.waiting import wait_until

#: What a name that is plugged may begin with to be served; the number follows.
_SERVED = ("usb", "sd", "reader")
_DEVICE = "org.freedesktop.Hal.Device"
_MANAGER = "/org/freedesktop/Hal/Manager org.freedesktop.Hal.Manager"
#: Announcements come once a second, and a busy unit may be late.
_ANNOUNCED_WITHIN = 4.0
#: The libraries keep some blocks for later: so many rests until they have them. How long the blocks
#: are varies by so many bytes in all: some hundred for messages that the bus library keeps, and 400
#: for each volume that the daemon's list keeps room for: 8, 16 or 32, for the most ever at a time.
_WARMING, _HEAP_SLACK = 5, 12 * 1024
#: Looks at a heap, some milliseconds apart, among which is one between two of the announcements.
_LOOKS = 20
#: A share is forgotten after three seconds; a retry with the application comes after ten.
_PATIENCE = 60 * timeouts.SCALE


class Checks:
    """The checks of one unit, as lines of a story ask for them."""

    def __init__(self, unit: SoakUnit, patience: float = _PATIENCE) -> None:
        """What needs its time is a violation after so many seconds."""
        self.unit = unit
        self._patience = patience
        self.done = 0
        self.mounted = self.sure = 0  # volumes at all looks; those that had to be listed
        self.threads = 0  # when first at rest
        self.descriptors = 0  # the fewest
        self.resting: dict[str, int] = {}  # sizes when last at rest
        self.first_heaps: list[Heap] = []  # when first at rest
        self.verbs: dict[str, Callable[[], None]] = {
            "quiet": self.quiet, "heal": self.heal, "compare": self.compare, "rest": self.rest}

    def quiet(self) -> None:
        """List, links and directories agree with what the service says is mounted."""
        unit = self.unit
        unit.settle()
        self._alive()
        volumes = unit.service.volumes()
        plugged, thought = unit.service.plugged(), unit.doubts.plugged()
        assert plugged == thought, f"plugged are {plugged}, and not {thought}: a fault of this test"
        listed = self._republished()
        self._check_list(volumes, list(listed))
        self._check_reported(volumes, listed)
        self._check_links()
        self._check_media(volumes)
        if stray := self._stray_exports():
            raise Violation(f"exported and not listed: {stray}")
        unit.log.settled()
        self.done += 1

    def heal(self) -> None:
        """Show every volume in doubt anew, then `quiet` without exceptions."""
        unit = self.unit
        unit.settle()
        doubted = unit.doubts.doubted()
        volumes = [volume for volume in unit.service.volumes() if volume.name in doubted]
        udis = {udi for udi, name in unit.service.names.items()
                if name in doubted and udi.startswith(f"{PREFIX}volume")}
        for udi in sorted(udis):
            unit.service.command(f"emit {_MANAGER} DeviceRemoved ('{udi}',)")
        for volume in volumes:
            if volume.mounted:
                unit.service.command(f"emit {volume.udi} {_DEVICE} PropertyModified"
                                     " (1, [('volume.is_mounted', false, false)])")
        unit.settle()
        unit.doubts.healed()
        self.quiet()

    def compare(self) -> None:
        """Exports, announcements, shares and messages agree, too, once they had the time."""
        unit = self.unit
        unit.tools.obey()
        unit.network("up")
        unit.application.behave()
        self.heal()
        self._come_true(self._exports_differ)
        self._come_true(self._announcements_differ)
        self._come_true(self._shares_differ)
        self._check_mnt()
        self._come_true(self._messages_wait)

    def rest(self) -> None:
        """Everything goes; then the daemon is as it was at first."""
        unit = self.unit
        unit.tools.obey()
        unit.network("up")
        unit.application.behave()
        self.heal()
        for neighbour in unit.neighbours:
            for path in neighbour.shared():
                neighbour.withdraw(path)
        for name in sorted(set(unit.service.names.values())):
            unit.hal(f"pull {name}")
        for name in unit.left_behind:
            _remove(unit, name)
        unit.left_behind.clear()
        self.compare()
        unit.tools.forget()
        unit.service.names.clear()
        unit.ledger.udis.clear()
        self._check_size()

    # ---- What agrees with what

    def _alive(self) -> None:
        process = self.unit.process
        if not process or process.ended():
            raise Violation(f"the daemon has ended: {process and process.stderr()}")

    def _republished(self) -> list[tuple[str, str]]:
        unit, before = self.unit, self.unit.ledger.republications
        unit.follow()
        assert unit.process
        unit.process.signal(signal.SIGUSR1)

        def begun() -> bool:
            self._alive()
            unit.follow()
            return unit.ledger.republications > before
        wait_until(begun, "the republication", ANSWER)
        unit.settle()
        return list(unit.ledger.republished)

    def _check_list(self, volumes: list[Volume], listed: list[tuple[str, str]]) -> None:
        doubted, excused = self.unit.doubts.doubted(), self.unit.doubts.excused()
        sure = {(volume.device, volume.place) for volume in volumes
                if _is_served(volume) and volume.mounted and volume.name not in doubted}
        self.mounted += sum(_is_served(volume) and volume.mounted for volume in volumes)
        self.sure += len(sure)
        missing = sure - set(listed)
        if missing:
            raise Violation(f"mounted and not listed: {missing}; listed: {listed}")
        unmounted = [volume for volume in volumes if _is_served(volume) and not volume.mounted
                     and volume.name not in excused]
        if unmounted:
            raise Violation(f"never mounted, for no reason: {unmounted}")
        ledger, names = self.unit.ledger, self.unit.service.names
        for entry in sure:
            listed.remove(entry)
        for entry in listed:  # a second one of a place is a removal that was spoilt
            if not any(names.get(udi, "") in doubted for udi in ledger.udis.get(entry, ())):
                raise Violation(f"listed and not mounted: {entry}, {ledger.udis.get(entry)};"
                                f" the service says: {volumes}")

    def _check_reported(self, volumes: list[Volume], listed: list[tuple[str, str]]) -> None:
        reported = Counter(self.unit.ledger.volumes)
        places = Counter(place for _, place in listed)
        # Who else mounts a volume that is excluded has it registered; it is not republished.
        excluded = {volume.place for volume in volumes if not _is_served(volume)}
        if self.unit.doubts.doubted():
            excluded |= set(reported)
        if places - reported or set(reported - places) - excluded:
            raise Violation(f"reported {+reported}, listed {places}, excluded {excluded}")

    def _check_links(self) -> None:
        media = self.unit.sandbox.path("/media")
        with os.scandir(media) as entries:
            links = {entry.name: os.readlink(entry.path) for entry in entries
                     if entry.is_symlink()}
        targets = {place[len("/media/"):] for place, count in self.unit.ledger.volumes.items()
                   if count}
        if astray := set(links.values()) - targets:
            raise Violation(f"links without a volume: {astray} in {links}")
        doubted = self.unit.doubts.doubted()
        for target in targets - set(links.values()) - self.unit.ledger.linkless:
            # A scan clears away a link whose directory is missing, also of an entry that has
            # outlived its volume.
            if (media / target).exists() and not self._names_at(f"/media/{target}") & doubted:
                raise Violation(f"a volume without a link: {target}; links: {links}")

    def _check_media(self, volumes: list[Volume]) -> None:
        owned = {volume.place for volume in volumes if volume.mounted}
        with os.scandir(self.unit.sandbox.path("/media")) as entries:
            found = {entry.name for entry in entries if not entry.is_symlink()}
        self.unit.left_behind &= found
        for name in found - self.unit.left_behind:
            if not any(f"{place}/".startswith(f"/media/{name}/") for place in owned):
                raise Violation(f"nobody owns /media/{name}; mounted: {owned}")

    def _names_at(self, place: str) -> set[str]:
        names = self.unit.service.names
        return {names.get(udi, "") for (_, mounted), udis in self.unit.ledger.udis.items()
                if mounted == place for udi in udis}

    def _stray_exports(self) -> set[str]:
        tools = self.unit.tools
        tools.read()
        paths = self._shared_paths()
        return {target for target in tools.exports
                if target.partition(":")[2] not in paths} - tools.failed

    def _exports_differ(self) -> str:
        tools = self.unit.tools
        stray = self._stray_exports()
        wanted = {f"*:{path}" for path in self._shared_paths()}
        everybody = {target for target in tools.exports if target.startswith("*:")}
        if wanted - everybody - tools.failed or stray:
            return f"exported {sorted(tools.exports)}, wanted {sorted(wanted)}"
        writable = [target for target in everybody if not tools.exports[target].startswith("ro,")]
        return f"writable for everybody: {writable}" if writable else ""

    def _announcements_differ(self) -> str:
        assert self.unit.ear
        announced = self.unit.ear.announced(_ANNOUNCED_WITHIN / self.unit.speed)
        wanted = self._shared_paths()
        return f"announced {announced}, wanted {wanted}" if announced != wanted else ""

    def _shares_differ(self) -> str:
        self.unit.follow()
        reported = {html.unescape(path) for path in self.unit.ledger.shares}
        wanted = {"/mnt/" + _mount_name(neighbour.address, path)
                  for neighbour in self.unit.neighbours for path in neighbour.shared()}
        return f"reported {reported}, announced {wanted}" if reported != wanted else ""

    def _messages_wait(self) -> str:
        if self.unit.all_delivered():
            return ""
        ledger = self.unit.ledger
        return f"not delivered:\n{ledger.local.missing()}\n{ledger.remote.missing()}"

    def _check_mnt(self) -> None:
        tools = self.unit.tools
        tools.read()
        shares = {html.unescape(path).removeprefix("/mnt/") for path in self.unit.ledger.shares}
        mounted = tools.mounted()
        if mounted != shares:
            raise Violation(f"mounted in /mnt: {mounted}, reported: {shares}")
        # The directory of a mount that was refused stays: the next announcement uses it.
        astray = set(os.listdir(self.unit.sandbox.path("/mnt"))) - shares - tools.left
        if astray:
            raise Violation(f"nobody owns, in /mnt: {astray}")

    def _check_size(self) -> None:
        self._come_true(self._sizes_differ)
        self.resting = {"threads": self.threads, "fds": self.descriptors}
        if not self.unit.heap():
            return
        if not self.first_heaps:
            self.unit.let_messages_wait()
        if len(self.first_heaps) < _WARMING:
            self.first_heaps.append(self._least_heap())
        else:
            self._come_true(self._heap_is_larger)

    def _least_heap(self) -> Heap:
        heaps = []
        for _ in range(_LOOKS):
            time.sleep(timeouts.POLL)
            heaps.append(self._rest_heap())
        return min(heaps, key=lambda heap: heap.blocks)

    def _heap_is_larger(self) -> str:
        """Looked at again and again, since the daemon's threads announce and look for shares at
        rest, too."""
        heap = self._rest_heap()
        if (heap.blocks <= max(first.blocks for first in self.first_heaps)
                and heap.size <= max(first.size for first in self.first_heaps) + _HEAP_SLACK):
            return ""
        return f"on the heap: {heap}, at first {self.first_heaps}"

    def _rest_heap(self) -> Heap:
        heap = self.unit.heap()
        assert heap
        self.resting |= {"heap B": heap.size, "blocks": heap.blocks}
        return heap

    def _sizes_differ(self) -> str:
        """Looked at again and again, since the daemon opens its log for each line and a socket now
        and then: the fewest descriptors ever seen are those that it keeps."""
        threads, descriptors = self.unit.status("Threads"), self.unit.descriptors()
        self.threads = self.threads or threads
        self.descriptors = min(self.descriptors or descriptors, descriptors)
        if (threads, descriptors) == (self.threads, self.descriptors):
            return ""
        return (f"threads and descriptors: {threads, descriptors},"
                f" at first {self.threads, self.descriptors}")

    def _shared_paths(self) -> set[str]:
        return {INTERNAL, *(path for path, count in self.unit.ledger.volumes.items() if count)}

    def _come_true(self, difference: Callable[[], str]) -> None:
        deadline = time.monotonic() + self._patience
        while said := difference():
            self._alive()
            if time.monotonic() > deadline:
                raise Violation(f"still so after {self._patience:g} s: {said}")
            time.sleep(timeouts.POLL)


def _is_served(volume: Volume) -> bool:
    return volume.name.rstrip("0123456789") in _SERVED and volume.device != IGNORED


def _mount_name(address: str, path: str) -> str:
    return f"{address}:{path}".replace("/", "-")


def _remove(unit: SoakUnit, name: str) -> None:
    directory = unit.sandbox.path(f"/media/{name}")
    if (directory / "file").exists():
        (directory / "file").unlink()
        directory.rmdir()
