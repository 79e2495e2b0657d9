"""The demo's story of two units on one wire, each the other's peer."""

import re

from testbed import timeouts
from testbed.stage import Stage
from testbed.timeline import Timeline

_CARD, _STICK = "/media/mmcblk0p1", "/media/sda1"
_CARD_ON_SOUTH = "/mnt/169.254.1.1:-media-mmcblk0p1"
_STICK_ON_NORTH = "/mnt/169.254.1.2:-media-sda1"


def play(north: Stage, south: Stage, timeline: Timeline) -> int:
    """Play it; the worse of the daemons' exit statuses. NotSeen when something did not come out
    as told. Requires: north is 169.254.1.1, south 169.254.1.2."""
    timeline.heading("Two units on one wire; each has the other as its peer.")
    for stage, other in ((north, south), (south, north)):
        assert other.unit.eth0
        stage.start_daemon("--peer-mac", other.unit.eth0.hardware_address())

    timeline.heading("A card with a route on it goes into north; south mounts it and reads.")
    north.unit.sandbox.write("/srv/volumes/mmcblk0p1/route.txt", "Harbour to lighthouse\n")
    north.unit.hal.plug("sd card label=ROUTES")
    north.expect_told("arrival", _CARD)
    south.expect_told("arrival", _CARD_ON_SOUTH)
    _read(timeline, "south", south, f"{_CARD_ON_SOUTH}/route.txt")

    timeline.heading("North hears its peer as well, and lets it write.")
    north.tools.expect(re.compile(r"^exportfs -o rw,\S+ 169\.254\.1\.2:"))

    timeline.heading("A stick is plugged into south; north writes to it, and south reads that.")
    south.unit.hal.plug("usb stick label=PHOTOS")
    south.expect_told("arrival", _STICK)
    north.expect_told("arrival", _STICK_ON_NORTH)
    north.unit.sandbox.run(["tee", f"{_STICK_ON_NORTH}/answer.txt"], "On my way\n")
    _read(timeline, "south", south, f"{_STICK}/answer.txt")

    timeline.heading("South's cable is pulled. Three seconds later each gives the other up ...")
    assert south.unit.eth0
    south.unit.eth0.pull_cable()
    south.expect_told("removal", _CARD_ON_SOUTH, 3 + timeouts.EVENT)
    north.expect_told("removal", _STICK_ON_NORTH, 3 + timeouts.EVENT)

    timeline.heading("... and finds it again when the cable is back.")
    south.unit.eth0.plug_cable()
    south.expect_told("arrival", _CARD_ON_SOUTH)
    north.expect_told("arrival", _STICK_ON_NORTH)

    timeline.heading("The stick is pulled out of south; north hears at once.")
    south.unit.hal.pull("stick")
    south.expect_told("removal", _STICK)
    north.expect_told("removal", _STICK_ON_NORTH)

    timeline.heading("Both units are switched off.")
    for stage in (north, south):
        stage.begin_ending()
    worst = max(abs(stage.finish()) for stage in (north, south))
    timeline.show()
    return worst


def _read(timeline: Timeline, name: str, stage: Stage, file: str) -> None:
    """Show what a file holds, as a program on that unit reads it."""
    done = stage.unit.sandbox.run(["cat", file])
    assert done.returncode == 0, done.stderr
    timeline.note(f"{name} reads {file}: {done.stdout.strip()}")
