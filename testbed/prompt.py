"""The demo's prompt."""

import cmd
import contextlib

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


class _Prompt(cmd.Cmd):
    """What is no command of its own is one for the hardware service."""

    prompt = "voldrake> "

    def __init__(self, stage: Stage, timeline: Timeline) -> None:
        super().__init__()
        self._stage = stage
        self._timeline = timeline

    def do_list(self, _: str) -> None:
        unit = self._stage.unit
        plugged = {line.split()[1].partition(":")[0] for line in unit.hal.command("list")}
        print("  plugged:", " ".join(sorted(plugged - {"-"})) or "nothing")
        for place, access in sorted(unit.mounts().items()):
            print(f"  mounted: {place} {access}")
        for name, destination in sorted(unit.links().items()):
            print(f"  linked:  /media/{name} -> {destination}")

    def do_away(self, _: str) -> None:
        self._stage.display.stop()

    def do_back(self, _: str) -> None:
        if self._stage.display.present:
            print("The display application is already running.")
            return
        self._stage.display.start()
        print("The daemon delivers waiting messages at its next try, within 10 seconds;"
              " press Enter to look.")

    def do_log(self, count: str) -> None:
        lines = [event.text for event in self._stage.unit.tape.shown()
                 if event.source == "log" and not (event.data and event.data.level > INFO)]
        for line in lines[-int(count) if count.isdigit() else -20:]:
            print(f"  {line}")

    def do_help(self, _: str) -> None:
        print(_HELP)

    def do_quit(self, _: str) -> bool:
        return True

    do_EOF = do_quit

    def emptyline(self) -> bool:
        return False

    def default(self, line: str) -> None:
        """A command for the hardware service; what comes of it is awaited."""
        if line.startswith("#"):
            return
        try:
            for answer in self._stage.unit.hal.command(line):
                if not line.startswith("plug"):
                    print(f"  {answer}")
            if self._stage.display.present:
                self._stage.told()
            else:
                self._stage.unit.settle()
        except CommandFailed:
            pass  # the timeline shows it
        except NotSeen:
            print("The daemon has not responded yet; press Enter to look again.")

    def postcmd(self, stop: bool, line: str) -> bool:
        if not stop:
            self._timeline.show()
        return stop


def run(stage: Stage, timeline: Timeline) -> int:
    """Read commands until `quit` or the end of input; the daemon's exit status."""
    stage.start_daemon()
    timeline.show()
    with contextlib.suppress(KeyboardInterrupt):
        _Prompt(stage, timeline).cmdloop('\n"help" lists the commands.')
    print()
    stage.begin_ending()
    return stage.finish()
