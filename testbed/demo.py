"""The demo: units in sandboxes, a story or a prompt, and a timeline of what happens."""

import argparse
import shlex
from pathlib import Path

from testbed import picture, prompt, story, target, twounits
from testbed.network import Network
from testbed.nfs import NfsTools
from testbed.sandbox import has_own
from testbed.stage import Command, Stage
from testbed.timeline import Timeline


def main(arguments: list[str]) -> int:
    """Run it; the exit status, 0 when everything came out as told.

    Requires: inside the wrapper of `namespaces`.
    """
    parser = argparse.ArgumentParser(prog="scripts/demo", description=__doc__)
    parser.add_argument("--interactive", action="store_true", help="a prompt instead of a story")
    parser.add_argument("--two-units", action="store_true", help="only the story of two units")
    parser.add_argument("--application", metavar="COMMAND", help="a display application that"
                        " listens on port 8080 of 127.0.0.1, in place of voldrake-monitor")
    parser.add_argument("--directory", type=Path, default=Path.cwd(),
                        help="where COMMAND runs; default: the current directory")
    parser.add_argument("--timeline", type=Path, metavar="FILE",
                        help="also draw what was played, as an SVG")
    options = parser.parse_args(arguments)
    command = None
    if options.application is not None:
        command = _command(parser, options.application, options.directory)
        if options.two_units:
            parser.error("--application goes with one unit")
    logs = target.log_directory() / "demo"
    for file in logs.glob("**/*.*"):
        file.unlink()
    played: list[Timeline] = []
    try:
        status = 0
        if not options.two_units:
            status = _one_unit(logs / "unit", options.interactive, command, played)
        if options.two_units or not (options.interactive or command):
            status = status or _two_units(logs, played)
    except (AssertionError, KeyboardInterrupt) as failure:
        print(f"\nThe demo was cut short: {str(failure) or 'interrupted'}")
        status = 1
    if options.timeline and status == 0:
        drawn = picture.draw([(timeline.units, timeline.chapters) for timeline in played])
        (options.directory / options.timeline).write_text(drawn, "utf-8")
    print(f"\nThe logs of all programs are in {logs};"
          " each tape.txt there has every call, signal and message.")
    return status


def _command(parser: argparse.ArgumentParser, text: str, directory: Path) -> Command:
    """The user's application; ends the program when it cannot be one."""
    try:
        words = shlex.split(text)
    except ValueError as error:
        parser.error(f"--application: {error}")
    if not words:
        parser.error("--application needs a command")
    if has_own(directory):
        parser.error(f"the sandbox has a {directory} of its own: call the demo from the"
                     " application's directory")
    return Command(words, directory)


def _one_unit(logs: Path, interactive: bool, command: Command | None,
              played: list[Timeline]) -> int:
    with Stage(logs, command=command) as stage:
        timeline = Timeline({"": stage.unit.tape})
        played.append(timeline)
        try:
            status = (prompt.run if interactive else story.play)(stage, timeline)
            if command:
                stage.display.stop()  # so that all that it has printed is shown
            return status
        finally:
            timeline.show()


def _two_units(logs: Path, played: list[Timeline]) -> int:
    neighbours: list[NfsTools] = []
    with (Network() as wire,
          Stage(logs / "north", wire, "169.254.1.1", neighbours) as north,
          Stage(logs / "south", wire, "169.254.1.2", neighbours) as south):
        timeline = Timeline({"north": north.unit.tape, "south": south.unit.tape})
        played.append(timeline)
        try:
            return twounits.play(north, south, timeline)
        finally:
            timeline.show()
