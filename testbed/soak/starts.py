"""Starts the daemon, floods it and ends it, again and again.

Everything comes at once and nothing is waited for: the lines of a story, among which the daemon
gets SIGTERM at any of them. Each of its threads gives way to the others wherever they meet.
"""

import random
import signal
from pathlib import Path
from typing import Callable

from testbed import timeouts
from testbed.soak import Violation
from testbed.soak.player import DaemonPlayer
from testbed.soak.story import Story
from testbed.soak.unit import SoakUnit

_LINES = 60
#: The first of these wait for the daemon, and "obey" is for the end.
_NOT_NOW = ("settle", "quiet", "heal", "compare", "rest", "refuse", "obey", "rotate")


def run(logs: Path, speed: float, count: int, seed: str,
        progress: Callable[[int], None]) -> str | None:
    """So many starts; how one failed, or None."""
    with DaemonPlayer(logs, real_mounts=False, speed=speed, yields=True) as player:
        for number in range(count):
            try:
                flood_and_end(player.unit, f"{seed}/{number}")
            except (AssertionError, OSError, TimeoutError) as failure:
                return f"start {number} of seed {seed}: {failure or type(failure).__name__}"
            progress(number + 1)
    return None


def flood_and_end(unit: SoakUnit, seed: str) -> None:
    """Flood the daemon, end it and start it anew. Raises Violation when it does not end as it
    must: with status 0, without a word, and with no share mounted."""
    choice = random.Random(seed)
    lines = [line for line in Story(seed, _LINES).lines if line.split()[0] not in _NOT_NOW]
    end = choice.randrange(len(lines))
    for number, line in enumerate(lines):
        if number == end:
            unit.process.signal(signal.SIGTERM)
        unit.play(line)
    status, said = unit.process.wait(timeouts.STOP), unit.process.stderr()
    if (status, said) != (0, ""):
        raise Violation(f"ended with status {status}, saying {said!r}")
    if left := unit.tools.mounted():
        raise Violation(f"still mounted: {left}")
    _clear(unit)
    unit.start_daemon()


def _clear(unit: SoakUnit) -> None:
    """Everything is as before the first start."""
    unit.network("up")
    unit.application.leave()  # what still waits there is the ended daemon's
    unit.application.behave()
    for neighbour in unit.neighbours:
        for path in neighbour.shared():
            neighbour.fall_silent(path)
    for text in ("forget", "return", *(f"pull {name}" for name in
                                       sorted(set(unit.service.names.values())))):
        unit.service.command(text)
    unit.service.flush()
    unit.service.names.clear()
    unit.doubts.quiet()
