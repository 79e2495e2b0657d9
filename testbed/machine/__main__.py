"""Two whole emulated units.

    python3 -m testbed.machine story DIRECTORY [WORD...]
        plays the story and shows the table of its steps; of the steps behind the cold boot only
        those with one of the words in their titles, if there are any
    python3 -m testbed.machine shell DIRECTORY
        gives a prompt on a running pair
    python3 -m testbed.machine compare DIRECTORY [PLUGS]
        puts the daemon beside udisks2 with udiskie; 20 plugs each unless told otherwise

DIRECTORY has the kernel, the first root and the disk that scripts/machine makes; logs, disks and
media of the units go into DIRECTORY/units.
"""

import signal
import sys
from pathlib import Path

from testbed.machine import compare, shell
from testbed.machine.emulator import Image
from testbed.machine.pair import Pair
from testbed.machine.story import Story
from testbed.machine.unit import Unit


def main() -> int:
    """Entry point: see the module's text."""
    mode, directory, *words = sys.argv[1:] if len(sys.argv) > 2 else ("", "")
    if mode not in ("story", "shell", "compare") or (words and mode == "shell"):
        print((__doc__ or "").strip(), file=sys.stderr)
        return 2
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(130))
    with Pair(Image.in_directory(Path(directory)), Path(directory) / "units") as pair:
        if mode == "shell":
            return shell.run(pair)
        if mode == "compare":
            return compare.run(pair, Path(directory), int(words[0]) if words else 20)
        return _play(pair, words)


def _play(pair: Pair, words: list[str]) -> int:
    def tell(title: str, seconds: float, outcome: str) -> None:
        print(f"{seconds:7.1f} s  {title}: {outcome}", flush=True)

    passed = Story(pair).play(tell, words)
    if not passed:
        for unit in pair.units:
            print(f"{unit.name}: {_logs(unit)}")
    return 0 if passed else 1


def _logs(unit: Unit) -> str:
    names = ("journal", "log", "application", "console")
    return " ".join(str(unit.directory / name) for name in names)


if __name__ == "__main__":
    sys.exit(main())
