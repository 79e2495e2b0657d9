"""An arrival and an announcement take no more instructions than bench/instructions.json says.

A change that costs more on purpose counts anew and keeps the count:

    /usr/bin/python3 -m testbed run /usr/bin/python3 -m bench.instructions
"""

from pathlib import Path

import pytest

from bench import instructions
from testbed import target

#: So far a count may grow unnoticed; repeated counts of one build differ by about 1 %.
_ALLOWED = 1.05


def test_arrival_and_announcement_cost_what_is_recorded(log_directory: Path) -> None:
    """One count of a development build; counts of other builds cannot be compared with it."""
    flags = instructions.build_flags(target.build_directory())
    if flags != instructions.FLAGS:
        pytest.skip(f"counts are kept for {instructions.FLAGS}, not for {flags}")
    kept = instructions.kept()
    if kept["counted with"] != instructions.circumstances():
        pytest.skip(f"counts are kept for {kept['counted with']}")
    counted = instructions.count(log_directory)
    costlier = {what: f"{number}, recorded {kept['instructions'][what]}"
                for what, number in counted.items()
                if number > _ALLOWED * kept["instructions"][what]}
    assert not costlier, f"{costlier}; see this file's text"
