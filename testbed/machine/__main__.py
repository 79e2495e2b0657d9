"""Two whole emulated units.

    python3 -m testbed.machine story DIRECTORY    plays the story and shows the table of its steps
    python3 -m testbed.machine shell DIRECTORY    gives a prompt on a running pair

DIRECTORY has the kernel, the first root and the disk that scripts/machine makes; logs, disks and
media of the units go into DIRECTORY/units.
"""

import signal
import sys
from pathlib import Path

from testbed.machine import shell
from testbed.machine.emulator import Image
from testbed.machine.pair import Pair
from testbed.machine.story import Story
from testbed.machine.unit import Unit


def main() -> int:
    """Entry point: see the module's text."""
    if len(sys.argv) != 3 or sys.argv[1] not in ("story", "shell"):
        print((__doc__ or "").strip(), file=sys.stderr)
        return 2
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(130))
    directory = Path(sys.argv[2])
    with Pair(Image.in_directory(directory), directory / "units") as pair:
        if sys.argv[1] == "shell":
            return shell.run(pair)
        return _play(pair)


def _play(pair: Pair) -> int:
    def tell(title: str, seconds: float, outcome: str) -> None:
        print(f"{seconds:7.1f} s  {title}: {outcome}", flush=True)

    passed = Story(pair).play(tell)
    if not passed:
        for unit in pair.units:
            print(f"{unit.name}: {_logs(unit)}")
    return 0 if passed else 1


def _logs(unit: Unit) -> str:
    names = ("journal", "log", "application", "console")
    return " ".join(str(unit.directory / name) for name in names)


if __name__ == "__main__":
    sys.exit(main())
