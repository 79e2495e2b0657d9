"""Checks that every source file is compiled with 64-bit times and file sizes.

    check_large_files.py COMPILE_COMMANDS

On a 32-bit processor a part built without them could neither share a record with the others nor
live beyond 2038; on a 64-bit one nothing would show it.
"""

import json
import sys
from pathlib import Path

_DEFINITIONS = ("-D_FILE_OFFSET_BITS=64", "-D_TIME_BITS=64")


def main() -> None:
    """Entry point: see the module's text."""
    commands = json.loads(Path(sys.argv[1]).read_text())
    lacking = sorted({f"{entry['file']}: no {definition}" for entry in commands
                      for definition in _DEFINITIONS if definition not in entry["command"].split()})
    if lacking or not commands:
        sys.exit("\n".join(lacking) or "nothing is compiled")


if __name__ == "__main__":
    main()
