"""A prompt on a running pair of units."""

import cmd
import readline
import threading
from pathlib import Path

from testbed.machine import deadlines, media
from testbed.machine.media import FileSystem
from testbed.machine.pair import Pair
from testbed.machine.unit import Unit

_INTRODUCTION = """\
Two units, north and south, each the other's peer. What their display applications are told is shown
as it comes. "help" shows the commands."""


class _Shell(cmd.Cmd):
    prompt = "voldrake> "

    def __init__(self, pair: Pair) -> None:
        super().__init__()
        self._pair = pair
        self._units: dict[str, Unit] = {unit.name: unit for unit in pair.units}
        self._images: set[Path] = set()

    def do_plug(self, line: str) -> None:
        """plug UNIT NAME [vfat|exfat|ntfs|ext4|card]: plug in a stick, or a card in slot 0."""
        where, name, *rest = line.split()
        unit = self._units[where]
        kind = rest[0] if rest else "vfat"
        image = self._medium(name, kind)
        if kind == "card":
            unit.emulator.insert(0, image)
        else:
            self._pair.plug(unit, name, image)

    def do_pull(self, line: str) -> None:
        """pull NAME: pull out a stick; pull UNIT card: remove the card from slot 0."""
        words = line.split()
        if words[1:] == ["card"]:
            self._units[words[0]].emulator.eject(0)
        else:
            self._pair.pull(words[0])

    def do_cable(self, line: str) -> None:
        """cable out, cable in: unplug or plug the network cable between the units."""
        if line == "out":
            self._pair.pull_cable()
        else:
            self._pair.plug_cable()

    def do_power(self, line: str) -> None:
        """power UNIT cut, power UNIT on: cut the power without a shutdown, or turn it on."""
        name, what = line.split()
        unit = self._units[name]
        if what == "cut":
            self._pair.cut_power(unit)
        elif unit.emulator.running():
            print(f"{name} is already on")
        else:
            self._pair.restore_power(unit)

    def do_on(self, line: str) -> None:
        """on UNIT COMMAND...: run a shell command on a unit."""
        name, _, command = line.partition(" ")
        print(self._units[name].run(command, check=False), end="")

    def do_surface(self, line: str) -> None:
        """surface UNIT: show the unit's mounts, links and exports."""
        seen = self._units[line].surface()
        for title, entries in (("mount", seen.mounts), ("link", seen.links),
                               ("export", seen.exports)):
            for name, value in entries.items():
                print(f"  {title:6} {name}: {value}")

    def do_quit(self, _: str) -> bool:
        """quit: switch both units off."""
        return True

    do_EOF = do_quit

    def emptyline(self) -> bool:
        return False

    def onecmd(self, line: str) -> bool:
        try:
            return bool(super().onecmd(line))
        except (AssertionError, LookupError, OSError, RuntimeError, StopIteration,
                ValueError) as error:
            print(f"{type(error).__name__}: {error}; \"help\" shows the syntax of commands")
            return False

    def _medium(self, name: str, kind: str) -> Path:
        """The image of this name; what is written to it stays until the prompt ends."""
        image = self._pair.directory / "media" / f"shell-{kind}-{name}"
        if image not in self._images:
            content = FileSystem("vfat" if kind == "card" else kind, name.upper()[:11], 30)
            make = media.card if kind == "card" else media.make
            self._images.add(make(image, content))
        return image

    def show_what_is_told(self, unit: Unit) -> None:
        """Show it behind what has been typed so far, until the program ends."""
        shown = 0
        while True:
            told = unit.told()
            for text in told[shown:]:
                typed = self.prompt + readline.get_line_buffer()
                print(f"\r  {unit.name} received: {text}\n{typed}", end="", flush=True)
            shown = len(told)
            with unit.tape.added:
                unit.tape.added.wait(deadlines.POLL)


def run(pair: Pair) -> int:
    """Boot both, read commands until `quit` or the end of input; 0."""
    print("Booting two units ...", flush=True)
    pair.switch_on(*pair.units)
    shell = _Shell(pair)
    for unit in pair.units:
        threading.Thread(target=shell.show_what_is_told, args=[unit], daemon=True).start()
    try:
        shell.cmdloop(_INTRODUCTION)
    except KeyboardInterrupt:
        print()
    return 0
