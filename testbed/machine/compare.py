"""The daemon and its hardware service beside udisks2 with udiskie, on one emulated unit: what
passes between the plugging of a stick and its use, and memory."""

import json
import re
import statistics
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any

from testbed.machine import deadlines, media
from testbed.machine.media import FileSystem
from testbed.machine.pair import Pair
from testbed.machine.unit import Unit

_EVENTS = "/run/plug-watch"
_WATCH = f"python3 -I /usr/local/lib/testbed/plug-watch {_EVENTS}"


@dataclass(frozen=True)
class Contender:
    """What mounts sticks: its processes and what tells that a stick may be used."""

    name: str
    begin: str
    #: A line of the journal that tells that it waits for sticks.
    ready: str
    end: str
    processes: tuple[str, ...]
    usable: str


OURS = Contender(
    "voldrake, voldrake-hald", "systemctl start voldrake.service", r"^_ManualScan\(\)$",
    "systemctl stop voldrake.service voldrake-hald.service", ("voldrake", "voldrake-hald"), "byte")
THEIRS = Contender(
    "udisksd, udiskie",
    "systemctl start udisks2.service && systemd-run --quiet --unit=udiskie /usr/bin/udiskie"
    " --verbose --no-config --automount --no-notify --no-tray --no-file-manager"
    " --no-password-prompt",
    r"Keyfile support", "systemctl stop udiskie.service udisks2.service",
    ("udisksd", "udiskie"), "completed")


@dataclass
class Figures:
    """Of one contender; seconds from the kernel's first event, kilobytes."""

    udev: list[float] = field(default_factory=list)
    mounted: list[float] = field(default_factory=list)
    usable: list[float] = field(default_factory=list)
    memory: list[float] = field(default_factory=list)


class Comparison:
    """Plugs a stick for each of them in turn."""

    def __init__(self, pair: Pair) -> None:
        self._pair = pair
        self._unit = pair.north
        self._stick = media.make(pair.directory / "media" / "compared",
                                 FileSystem("vfat", "STICK", 30))

    def run(self, plugs: int) -> dict[str, Figures]:
        """Figures of both, by name, from so many plugs each."""
        unit = self._unit
        self._pair.switch_on(unit)
        # UDisks speaks to logind, and waits for the refusal where there is none.
        unit.run(f"systemctl stop display.service; {OURS.end}; systemctl unmask udisks2.service"
                 " systemd-logind.service; systemctl start systemd-logind.service",
                 timeout=deadlines.RESTART)
        unit.commands.begin(f"{_WATCH} >/run/plug-watch-says 2>&1")
        self._await("ready")
        figures = {contender.name: Figures() for contender in (OURS, THEIRS)}
        for _ in range(plugs):
            for contender in (OURS, THEIRS):
                self._plug(contender, figures[contender.name])
        return figures

    def _plug(self, contender: Contender, figures: Figures) -> None:
        unit = self._unit
        since = unit.tape.mark()
        unit.run(contender.begin, timeout=deadlines.RESTART)
        unit.journal.seek(since)
        unit.journal.expect(re.compile(contender.ready), deadlines.RESTART)
        self._wait_for_rest(contender)
        unit.run(f": >{_EVENTS}")
        unit.emulator.plug("compared", self._stick, "1.1")
        events = self._await(contender.usable)
        figures.memory.append(sum(_private(unit, process) for process in contender.processes))
        unit.emulator.pull("compared")
        self._await("unmounted")
        unit.run(contender.end, timeout=deadlines.RESTART)
        begin = next(event[1] for event in events if event[0] == "kernel")
        figures.udev.append(_first(events, "udev", "add", "/dev/sda1") - begin)
        figures.mounted.append(_first(events, "mounted", "/dev/sda1") - begin)
        figures.usable.append(_first(events, contender.usable) - begin)

    def _wait_for_rest(self, contender: Contender) -> None:
        """Return once its processes have used hardly any time during a second."""
        ticks = ("cat $(for name in " + " ".join(contender.processes) + "; do for process in"
                 " $(pidof -x $name); do echo /proc/$process/stat; done; done)"
                 " | awk '{ sum += $14 + $15 } END { print sum }'")
        self._unit.run(f"until before=$({ticks}); sleep 1; [ $({ticks}) -le $((before + 3)) ];"
                       " do :; done", timeout=deadlines.RESTART)

    def _await(self, what: str) -> list[list[Any]]:
        """All events up to now, once the one of this name is among them."""
        text = self._unit.run(f"until grep -qs '^.\"{what}\"' {_EVENTS}; do sleep 1; done;"
                              f" cat {_EVENTS}", timeout=deadlines.SURFACE)
        return [json.loads(line) for line in text.splitlines()]


def table(figures: dict[str, Figures]) -> str:
    """The medians, as a table of a document."""
    ours, theirs = (figures[contender.name] for contender in (OURS, THEIRS))
    rows = [("kernel's first event to udev's event of the partition, s", "udev", 2),
            ("... to the mounted volume, s", "mounted", 2),
            ("... to the first byte at the application, to the automount's signal, s", "usable", 2),
            ("private memory, KB", "memory", 0)]
    lines = [f"| median of {len(ours.udev)} plugs each | {OURS.name} | {THEIRS.name} | ratio |",
             "| --- | ---: | ---: | ---: |"]
    for title, name, digits in rows:
        lines.append(_row(title, getattr(ours, name), getattr(theirs, name), digits))
        if name in ("mounted", "usable"):
            lines.append(_row("... of which after udev's event, s", _after(ours, name),
                              _after(theirs, name), digits))
    return "\n".join(lines)


def _row(title: str, ours: list[float], theirs: list[float], digits: int) -> str:
    first, second = statistics.median(ours), statistics.median(theirs)
    return f"| {title} | {first:,.{digits}f} | {second:,.{digits}f} | {first / second:.2f} |"


def _after(figures: Figures, name: str) -> list[float]:
    return [seconds - udev for seconds, udev in zip(getattr(figures, name), figures.udev)]


def _first(events: list[list[Any]], *words: str) -> float:
    return next(event[1] for event in events
                if event[0] == words[0] and event[2:1 + len(words)] == list(words[1:]))


def _private(unit: Unit, process: str) -> int:
    text = unit.run(f"for p in $(pidof -x {process}); do cat /proc/$p/smaps_rollup; done")
    found = re.findall(r"^Private_(?:Clean|Dirty): +(\d+) kB$", text, re.MULTILINE)
    assert found, f"{process} does not run"
    return sum(map(int, found))


def run(pair: Pair, directory: Path, plugs: int) -> int:
    """Measure, show the table and leave all figures in DIRECTORY/compare.json; 0."""
    figures = Comparison(pair).run(plugs)
    (directory / "compare.json").write_text(
        json.dumps({name: vars(value) for name, value in figures.items()}, indent=1) + "\n")
    print(table(figures))
    return 0
