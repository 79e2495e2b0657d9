"""What happens to a unit while a fault is put in.

Each story is prepared, played and undone; then the unit is as it was before.
"""

import signal
from typing import Protocol

from testbed.faults.unit import (
    INTERNAL, SHARE, SHARE_PATH, STICK, STICK_PATH, FaultUnit)
from testbed.tape import Mark

_SHARE_NAME = SHARE_PATH.removeprefix("/mnt/")


class Story(Protocol):
    """One story. `complete` is true when all of it has happened that is seen outside."""

    name: str
    ends: bool  # the daemon ends in it
    longest: float  # seconds that it takes when nothing is lost

    def prepare(self, unit: FaultUnit) -> None:
        """Bring about what it begins with."""

    def prepared(self, unit: FaultUnit, since: Mark) -> bool:
        """True when that has come about."""

    def play(self, unit: FaultUnit) -> None:
        """Begin it; may take its time."""

    def complete(self, unit: FaultUnit, since: Mark) -> bool:
        """See above."""

    def undo(self, unit: FaultUnit) -> None:
        """Take back all that `prepare` and `play` have brought."""


class _Story:
    ends = False
    longest = 1.5

    def prepare(self, unit: FaultUnit) -> None:
        """Nothing to do."""

    def prepared(self, unit: FaultUnit, since: Mark) -> bool:
        """It is."""
        return True


class Arrival(_Story):
    """A stick comes: it is mounted, exported, linked, reported and announced."""

    name = "arrival"

    def prepare(self, unit: FaultUnit) -> None:
        unit.new_identities()

    def play(self, unit: FaultUnit) -> None:
        unit.unit.hal.plug(STICK)

    def complete(self, unit: FaultUnit, since: Mark) -> bool:
        return _stick_is_there(unit, since)

    def undo(self, unit: FaultUnit) -> None:
        unit.unit.hal.pull("stick")


class Removal(_Story):
    """A stick goes."""

    name = "removal"

    def prepare(self, unit: FaultUnit) -> None:
        unit.unit.hal.plug(STICK)

    def prepared(self, unit: FaultUnit, since: Mark) -> bool:
        return _stick_is_there(unit, since)

    def play(self, unit: FaultUnit) -> None:
        unit.unit.hal.pull("stick")

    def complete(self, unit: FaultUnit, since: Mark) -> bool:
        state = unit.state()
        return (unit.told("dataremoval", STICK_PATH, since)
                and STICK_PATH not in state["announced"]
                and state["exports"] == (f"*:{INTERNAL}",))

    def undo(self, unit: FaultUnit) -> None:
        pass


class _WithStickAndShare(_Story):
    """A stick and a share of the other unit are there."""

    def prepare(self, unit: FaultUnit) -> None:
        unit.unit.hal.plug(STICK)
        unit.neighbour.share(SHARE)

    def prepared(self, unit: FaultUnit, since: Mark) -> bool:
        return _stick_is_there(unit, since) and unit.told("dataarrival", SHARE_PATH, since)

    def undo(self, unit: FaultUnit) -> None:
        unit.unit.hal.pull("stick")
        unit.neighbour.withdraw(SHARE.path)


class Republish(_WithStickAndShare):
    """SIGUSR1, while a stick and a share of the other unit are there."""

    name = "republish"
    longest = 2.0

    def play(self, unit: FaultUnit) -> None:
        unit.unit.daemon.signal(signal.SIGUSR1)

    def complete(self, unit: FaultUnit, since: Mark) -> bool:
        return (unit.told("dataarrival", STICK_PATH, since)
                and unit.told("dataarrival", SHARE_PATH, since))


class Sharing(_Story):
    """A share of the other unit comes, is mounted and reported, and is withdrawn, while a stick of
    its own is exported and announced."""

    name = "sharing"
    longest = 4.5

    def prepare(self, unit: FaultUnit) -> None:
        unit.unit.hal.plug(STICK)

    def prepared(self, unit: FaultUnit, since: Mark) -> bool:
        return _stick_is_there(unit, since)

    def play(self, unit: FaultUnit) -> None:
        since = unit.unit.tape.mark()
        unit.neighbour.share(SHARE)
        unit.until(lambda: unit.told("dataarrival", SHARE_PATH, since), self.longest)
        unit.neighbour.withdraw(SHARE.path)

    def complete(self, unit: FaultUnit, since: Mark) -> bool:
        return (unit.told("dataremoval", SHARE_PATH, since)
                and _SHARE_NAME not in unit.state()["mounted in /mnt"])

    def undo(self, unit: FaultUnit) -> None:
        unit.unit.hal.pull("stick")


class Silence(_Story):
    """A share of the other unit is announced no more."""

    name = "silence"
    longest = 4.5

    def prepare(self, unit: FaultUnit) -> None:
        unit.neighbour.share(SHARE)

    def prepared(self, unit: FaultUnit, since: Mark) -> bool:
        return unit.told("dataarrival", SHARE_PATH, since)

    def play(self, unit: FaultUnit) -> None:
        unit.neighbour.fall_silent(SHARE.path)

    def complete(self, unit: FaultUnit, since: Mark) -> bool:
        return (unit.told("dataremoval", SHARE_PATH, since)
                and _SHARE_NAME not in unit.state()["mounted in /mnt"])

    def undo(self, unit: FaultUnit) -> None:
        pass


class Shutdown(_WithStickAndShare):
    """SIGTERM, while a stick and a share of the other unit are there."""

    name = "shutdown"
    ends = True
    longest = 8.0

    def play(self, unit: FaultUnit) -> None:
        unit.unit.daemon.signal(signal.SIGTERM)

    def complete(self, unit: FaultUnit, since: Mark) -> bool:
        return unit.unit.daemon.ended()


STORIES: dict[str, Story] = {story.name: story for story in (
    Arrival(), Removal(), Republish(), Sharing(), Silence(), Shutdown())}


def _stick_is_there(unit: FaultUnit, since: Mark) -> bool:
    state = unit.state()
    return (unit.told("dataarrival", STICK_PATH, since)
            and state["announced"] == (STICK_PATH, INTERNAL)
            and f"*:{STICK_PATH}" in state["exports"])
