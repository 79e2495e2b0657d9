"""Entry point of scripts/soak; see `program`."""

import sys

from testbed.soak.program import main

sys.exit(main(sys.argv[1:]))
