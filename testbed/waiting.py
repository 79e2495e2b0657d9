"""Waiting for what does not announce itself: a state of the kernel's, of a file or of a program."""

import time
from typing import Callable, TypeVar

from testbed import timeouts

_Result = TypeVar("_Result")


def wait_until(condition: Callable[[], _Result], what: str,
               timeout: float = timeouts.EVENT) -> _Result:
    """Look again and again until `condition` holds; what it returned then.

    Raises AssertionError, which names `what` was waited for, after `timeout` seconds.
    """
    deadline = time.monotonic() + timeout
    while not (result := condition()):
        assert time.monotonic() < deadline, f"not within {timeout:g} s: {what}"
        time.sleep(timeouts.POLL)
    return result
