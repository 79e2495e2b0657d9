"""The demo's prompt."""

import readline  # noqa: F401  (gives `input` its line editing)
from typing import Callable

from testbed.daemon import INFO
from testbed.hal import CommandFailed
from testbed.stage import Stage
from testbed.tape import NotSeen
from testbed.timeline import Timeline

_HELP = """\
  plug usb NAME [port=1-1.3] [label=TEXT] [readonly] ...   a USB stick
  plug sd NAME [host=0] [cid=...] [label=TEXT] ...         an SD card
  plug volume NAME [label=TEXT] ...                        one more partition on a stick
  pull NAME                                                pull it out
  list                                                     what is plugged in, mounted and linked
  away, back                                               stop and start the display application
  log [LINES]                                              the end of the daemon's log
  help, quit

  The configuration calls a stick in port 1-1.4 Chart Port, and ignores /dev/sdc1.
  Every other command of docs/halsim.md works too: mount, unmount, remount, set, fail, delay, ..."""


def run(stage: Stage, timeline: Timeline) -> int:
    """Read commands until `quit` or the end of input; the daemon's exit status."""
    commands: dict[str, Callable[[Stage, list[str]], None]] = {
        "list": _list, "log": _log, "away": lambda stage, _: stage.display.stop(),
        "back": _back, "help": lambda *_: print(_HELP)}
    stage.start_daemon()
    timeline.show()
    print('\n"help" lists the commands.')
    while (line := _read()) is not None:
        words = line.split()
        if words[:1] == ["quit"]:
            break
        if words and words[0] in commands:
            commands[words[0]](stage, words[1:])
        elif words and not words[0].startswith("#"):
            _hardware(stage, line)
        timeline.show()
    stage.begin_ending()
    return stage.finish()


def _read() -> str | None:
    try:
        return input("voldrake> ").strip()
    except (EOFError, KeyboardInterrupt):
        print()
        return None


def _hardware(stage: Stage, line: str) -> None:
    """A command for the hardware service; what comes of it is awaited."""
    try:
        for answer in stage.unit.hal.command(line):
            if not line.startswith("plug"):
                print(f"  {answer}")
        if stage.display.present:
            stage.told()
        else:
            stage.unit.settle()
    except CommandFailed:
        pass  # the timeline shows it
    except NotSeen:
        print("The daemon has not responded yet; press Enter to look again.")


def _list(stage: Stage, _: list[str]) -> None:
    plugged = {line.split()[1].partition(":")[0] for line in stage.unit.hal.command("list")}
    print("  plugged:", " ".join(sorted(plugged - {"-"})) or "nothing")
    for place, access in sorted(stage.unit.mounts().items()):
        print(f"  mounted: {place} {access}")
    for name, destination in sorted(stage.unit.links().items()):
        print(f"  linked:  /media/{name} -> {destination}")


def _log(stage: Stage, words: list[str]) -> None:
    count = int(words[0]) if words and words[0].isdigit() else 20
    lines = [event.text for event in stage.unit.tape.shown()
             if event.source == "log" and not (event.data and event.data.level > INFO)]
    for line in lines[-count:]:
        print(f"  {line}")


def _back(stage: Stage, _: list[str]) -> None:
    if stage.display.present:
        print("The display application is already running.")
        return
    stage.display.start()
    print("The daemon delivers waiting messages at its next try, within 10 seconds;"
          " press Enter to look.")
