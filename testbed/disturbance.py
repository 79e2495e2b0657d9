"""Delays, priorities and processors that a test has to bear: what finds races by force.

Nothing is disturbed until `begin`. From then on, until `end`, every thread that writes to a tape or
marks it is held up now and then, and every program that is started in a sandbox may be: in its own
calls (testbed/preload/Delays.c) and by its priority. All of that follows from a seed and the test's
name, so that one test can be disturbed alone as it was among others.
"""

import collections
import os
import random
import threading
import time
from dataclasses import dataclass, replace
from pathlib import Path
from typing import Mapping

from testbed import target

#: Name of a program in its sandbox -> the name that it is run by.
PROGRAMS = {"voldrake": "voldrake", "hal": "voldrake-halsim", "bus": "dbus-daemon"}
#: The threads of the testbed that observe the unit.
OBSERVERS = "observers"
#: The thread that the test itself runs on.
TEST = "test"

_LOWEST = 19  # as of nice(1)


@dataclass(frozen=True)
class Delays:
    """One step of `rarity` is delayed, for at most `longest` seconds, most of them far shorter."""

    rarity: int
    longest: float


#: Often and short, or seldom and long; a test of usual length waits for less than a second.
DELAYS = (Delays(3, 0.003), Delays(8, 0.03), Delays(40, 0.25))
#: So many seconds of delays are put into each program and each source of a tape.
_TOTAL = 4.0


@dataclass(frozen=True)
class Disturbance:
    """What one test has to bear. Keys are those of PROGRAMS, OBSERVERS and TEST."""

    seed: int
    delays: Mapping[str, Delays]
    lowest_priority: frozenset[str]
    idle_class: frozenset[str]  # runs only when nothing else wants to; never the observers
    one_processor: bool

    @staticmethod
    def of(seed: int, test: str) -> "Disturbance":
        """The disturbance of this test under this seed; always the same one."""
        choice = random.Random(f"{seed} {test}")
        delays = {who: choice.choice(DELAYS) for who in (*PROGRAMS, OBSERVERS, TEST)
                  if choice.random() < 0.5}
        lowest, idle = set(), set()
        for who in (*PROGRAMS, OBSERVERS):
            lot = choice.random()
            if lot < 0.1 and who in PROGRAMS:
                idle.add(who)
            elif lot < 0.3:
                lowest.add(who)
        return Disturbance(choice.getrandbits(63), delays, frozenset(lowest), frozenset(idle),
                           choice.random() < 0.3)

    def outside_programs(self) -> "Disturbance":
        """The same one, but without delays in the calls of the programs."""
        return replace(self, delays={who: delays for who, delays in self.delays.items()
                                     if who not in PROGRAMS})

    def __str__(self) -> str:
        parts = [f"{who} delayed by up to {delays.longest * 1000:g} ms at one step of"
                 f" {delays.rarity}" for who, delays in self.delays.items()]
        parts += [f"{who} at the lowest priority" for who in sorted(self.lowest_priority)]
        parts += [f"{who} in the idle class" for who in sorted(self.idle_class)]
        parts += ["on one processor"] * self.one_processor
        return "; ".join(parts) or "nothing"


class _Running:
    """A disturbance and how far it has got."""

    def __init__(self, disturbance: Disturbance) -> None:
        self.disturbance = disturbance
        self.test_thread = threading.get_ident()
        self.processors = os.sched_getaffinity(0)
        self._left = collections.defaultdict(lambda: _TOTAL)
        self._choices: dict[str, random.Random] = {}
        self._lock = threading.Lock()
        self._thread = threading.local()

    def hold_up(self, source: str) -> None:
        who = TEST if threading.get_ident() == self.test_thread else OBSERVERS
        if who in self.disturbance.lowest_priority and not hasattr(self._thread, "lowered"):
            self._thread.lowered = True
            os.setpriority(os.PRIO_PROCESS, threading.get_native_id(), _LOWEST)
        if delays := self.disturbance.delays.get(who):
            time.sleep(self._next_delay(f"{who} {source}", delays))

    def _next_delay(self, series: str, delays: Delays) -> float:
        with self._lock:
            if series not in self._choices:
                self._choices[series] = random.Random(f"{self.disturbance.seed} {series}")
            delay = next_delay(self._choices[series], delays)
            self._left[series] -= delay
            return delay if self._left[series] >= 0 else 0.0


_running: _Running | None = None


def begin(disturbance: Disturbance) -> None:
    """Disturb what this thread, the test's, does from now on."""
    global _running
    _running = _Running(disturbance)
    if disturbance.one_processor:
        processors = sorted(_running.processors)
        os.sched_setaffinity(0, {processors[disturbance.seed % len(processors)]})


def end() -> None:
    """Disturb nothing any more. Requires: on the thread of `begin`."""
    global _running
    if _running:
        os.sched_setaffinity(0, _running.processors)
    _running = None


def active() -> bool:
    """True between `begin` and `end`."""
    return _running is not None


def next_delay(choice: random.Random, delays: Delays) -> float:
    """Seconds by which the next step of a series is held up; 0 for most."""
    chosen, part = choice.randrange(delays.rarity) == 0, choice.random()
    return delays.longest * part ** 3 if chosen else 0.0


def hold_up(source: str) -> None:
    """Called by whoever writes to a tape (from this source) or marks it, before they do."""
    if _running:
        _running.hold_up(source)


def mounts() -> dict[Path, Path]:
    """What a sandbox needs to see besides: path inside -> path outside."""
    return {_library(): _library()} if _running else {}


def environment(name: str, asked: Mapping[str, str] | None) -> dict[str, str]:
    """What a program of this name is started with: what was `asked` for, and what delays it."""
    result = dict(asked or {})
    delays = _running.disturbance.delays.get(name) if _running and name in PROGRAMS else None
    if not _running or not delays or target.emulated():
        return result
    preloaded = [str(_library()), *filter(None, [result.get("LD_PRELOAD")])]
    # An address sanitizer that is linked dynamically wants to be the first library.
    sanitizer = result.get("ASAN_OPTIONS", os.environ.get("ASAN_OPTIONS", ""))
    return result | {
        "LD_PRELOAD": ":".join(preloaded),
        "ASAN_OPTIONS": sanitizer + ":verify_asan_link_order=0",
        "VOLDRAKE_DELAYS": f"{PROGRAMS[name]} {_running.disturbance.seed} {delays.rarity}"
                           f" {delays.longest * 1e6:.0f} {_TOTAL * 1e6:.0f}",
    }


def set_priority(name: str) -> None:
    """Called in the child that becomes the program of this name."""
    if _running and name in _running.disturbance.lowest_priority:
        os.nice(_LOWEST)
    if _running and name in _running.disturbance.idle_class:
        os.sched_setscheduler(0, os.SCHED_IDLE, os.sched_param(0))


def _library() -> Path:
    """At the same place inside and outside, where the way into a sandbox begins."""
    return target.build_directory() / "testbed/preload/libdelays.so"
