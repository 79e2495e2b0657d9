"""Entry point of scripts/faults; see `program`."""

import sys

from testbed.faults.program import main

sys.exit(main(sys.argv[1:]))
