"""What each thread of a daemon calls while a story is played.

strace counts the calls of each thread on its own, from when it is attached. So one strace for each
thread writes them down, attached just before the story, and the same number finds a call again when
a strace that is attached at the same point puts a fault into it. What the shells and tools that the
daemon runs call is not looked at.
"""

from collections import Counter
from contextlib import ExitStack
from dataclasses import dataclass
from pathlib import Path
from typing import Callable, Mapping

from testbed.process import Process
from testbed.strace import Strace


@dataclass(frozen=True)
class Recorded:
    """One call: the `number`th of its name in its thread."""

    thread: str
    call: str
    number: int
    text: str


def record(process: Process, threads: Mapping[str, int], directory: Path,
           play: Callable[[], None]) -> list[Recorded]:
    """The calls of the threads while `play` runs, thread by thread in their order."""
    traces = {name: Strace(process, directory / f"{name}.strace", "-y", thread=number)
              for name, number in threads.items()}
    with ExitStack() as attached:
        for trace in traces.values():
            attached.enter_context(trace)
        play()
    calls = []
    for name, trace in traces.items():
        counts = Counter[str]()
        for made in trace.made():
            counts[made.name] += 1
            calls.append(Recorded(name, made.name, counts[made.name], made.text))
    return calls
