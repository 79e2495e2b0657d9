"""The demo: units in sandboxes, a story or a prompt, and a timeline of what happens."""

import argparse
from pathlib import Path

from testbed import prompt, story, target, twounits
from testbed.network import Network
from testbed.nfs import NfsTools
from testbed.stage import Stage
from testbed.timeline import Timeline


def main(arguments: list[str]) -> int:
    """Run it; the exit status, 0 when everything came out as told.

    Requires: inside the wrapper of `namespaces`.
    """
    parser = argparse.ArgumentParser(prog="scripts/demo", description=__doc__)
    parser.add_argument("--interactive", action="store_true", help="a prompt instead of a story")
    parser.add_argument("--two-units", action="store_true", help="only the story of two units")
    options = parser.parse_args(arguments)
    logs = target.log_directory() / "demo"
    for file in logs.glob("**/*.*"):
        file.unlink()
    try:
        status = 0
        if not options.two_units:
            status = _one_unit(logs / "unit", options.interactive)
        if options.two_units or not options.interactive:
            status = status or _two_units(logs)
    except (AssertionError, KeyboardInterrupt) as failure:
        print(f"\nThe demo was cut short: {str(failure) or 'interrupted'}")
        status = 1
    print(f"\nThe logs of all programs are in {logs};"
          " each tape.txt there has every call, signal and message.")
    return status


def _one_unit(logs: Path, interactive: bool) -> int:
    with Stage(logs) as stage:
        timeline = Timeline({"": stage.unit.tape})
        try:
            return (prompt.run if interactive else story.play)(stage, timeline)
        finally:
            timeline.show()


def _two_units(logs: Path) -> int:
    neighbours: list[NfsTools] = []
    with (Network() as wire,
          Stage(logs / "north", wire, "169.254.1.1", neighbours) as north,
          Stage(logs / "south", wire, "169.254.1.2", neighbours) as south):
        timeline = Timeline({"north": north.unit.tape, "south": south.unit.tape})
        try:
            return twounits.play(north, south, timeline)
        finally:
            timeline.show()
