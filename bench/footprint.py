"""What the daemon takes on the unit's processor: the sizes of its binary and its own heap at rest.

Run by scripts/footprint, which sets up the emulator and the libraries.
"""

import struct
import subprocess
import sys

from testbed import target
from testbed.daemon import INFO
from testbed.unit import Unit

_COUNTER = "/srv/heap-counter.so"
_COUNTS = "/srv/heap"
_STICKS = 10


def main() -> int:
    """Print the table; the exit status."""
    build = target.build_directory()
    sizes = subprocess.run(["arm-linux-gnueabihf-size", build / "voldrake.stripped"],
                           capture_output=True, text=True, check=True).stdout.splitlines()[1].split()
    rows = list(zip(("text", "data", "bss"), sizes))
    rows.append(("file, stripped", str((build / "voldrake.stripped").stat().st_size)))
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
    rows += [("heap at rest, live bytes", str(rest[0])),
             ("heap at rest, live blocks", str(rest[1])),
             ("heap per registered volume, bytes", str((volumes[0] - rest[0]) // _STICKS))]
    for what, number in rows:
        print(f"{what:<34}{number:>10}")
    return 0


def _heap(unit: Unit) -> tuple[int, int]:
    return struct.unpack("qq", unit.sandbox.path(_COUNTS).read_bytes())


if __name__ == "__main__":
    sys.exit(main())
