"""What the daemon takes on the unit's processor: the sizes of its binary and its own heap at rest.

Run by scripts/footprint, which sets up the emulator and the libraries. Shows the table and writes
it into its part of docs/performance.md.
"""

import struct
import subprocess
import sys

from bench import report
from bench.figures import CannotMeasure
from testbed import target
from testbed.daemon import INFO
from testbed.unit import Unit

_COUNTER = "/srv/heap-counter.so"
_COUNTS = "/srv/heap"
_STICKS = 10


def main() -> None:
    """Entry point: exit status 1 when something could not be measured."""
    try:
        table = _table(_measure())
        report.write_part("scripts/footprint", table, report.DOCUMENT)
    except (CannotMeasure, AssertionError, OSError, subprocess.SubprocessError) as reason:
        sys.exit(f"scripts/footprint: cannot measure: {reason}")
    print(table, end="")


def _measure() -> list[tuple[str, int]]:
    build = target.build_directory()
    sizes = subprocess.run(["arm-linux-gnueabihf-size", build / "voldrake.stripped"],
                           capture_output=True, text=True, check=True).stdout.splitlines()[1].split()
    rows = [(what, int(size)) for what, size in zip(("text", "data", "bss"), sizes)]
    rows.append(("file, stripped", (build / "voldrake.stripped").stat().st_size))
    with Unit(target.log_directory() / "footprint") as unit:
        unit.sandbox.write(_COUNTER, (build / "libheap-counter.so").read_bytes())
        unit.sandbox.write(_COUNTS, bytes(16))
        unit.start_daemon(debug_level=INFO, environment={
            "LD_PRELOAD": _COUNTER, "HEAP_COUNTER_FILE": _COUNTS})
        rest = _heap(unit)
        for number in range(_STICKS):
            unit.hal.plug(f"usb stick{number}")
            unit.application.expect_message("dataarrival")
        unit.settle()
        volumes = _heap(unit)
    return rows + [(f"heap at rest, alive in {rest[1]} blocks", rest[0]),
                   (f"heap a registered volume, {_STICKS} of them",
                    (volumes[0] - rest[0]) // _STICKS)]


def _heap(unit: Unit) -> tuple[int, int]:
    """Bytes and blocks that are alive."""
    return struct.unpack("qq", unit.sandbox.path(_COUNTS).read_bytes())


def _table(rows: list[tuple[str, int]]) -> str:
    head = "| what | bytes |\n| --- | ---: |\n"
    return head + "".join(f"| {what} | {number:,} |\n" for what, number in rows)


if __name__ == "__main__":
    main()
