"""Shortens a list that has a property to one that still has it."""

from typing import Callable, Sequence, TypeVar

_Item = TypeVar("_Item")


def shortened(items: Sequence[_Item], fails: Callable[[list[_Item]], bool],
              most_trials: int) -> list[_Item]:
    """By delta debugging: ever smaller parts are left out, as long as `fails` holds without them.

    Requires: fails(items). Stops after `most_trials` calls of it.
    """
    kept, parts, trials = list(items), 2, 0
    while len(kept) >= 2 and trials < most_trials:
        size = -(-len(kept) // parts)
        for start in range(0, len(kept), size):
            fewer = kept[:start] + kept[start + size:]
            trials += 1
            if fewer and fails(fewer):
                kept, parts = fewer, max(parts - 1, 2)
                break
            if trials >= most_trials:
                return kept
        else:
            if size == 1:
                break
            parts = min(2 * parts, len(kept))
    return kept
