"""Random stories against the real programs, and what must be true at every quiet point of them.

A story is a list of lines, so that it can be kept, shortened and played again. `story` makes them
from a seed, `unit` plays them on a unit whose pieces take events without being waited for, `checks`
compares what the daemon shows with what the hardware service says, `ledger` and `delivery` follow
its log and the messages, `shrink` shortens a story that fails. `hald` and `haldstory` are the same
for the hardware service over the kernel's devices.
"""


class Violation(AssertionError):
    """Something that must be true at a quiet point is not."""
