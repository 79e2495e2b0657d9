"""Each system call of the daemon in a story fails once; what must not be lost is not lost.

    scripts/faults                     all stories, each call with each error that it can have
    scripts/faults STORY...            these: arrival removal republish sharing silence shutdown;
                                       with --hald: coldplug hotplug mount unmount removal
    scripts/faults --kill              instead, each call is the daemon's last, and it starts again
    scripts/faults --cut               as --kill, but the whole unit ends, as in a power cut
    scripts/faults --hald              the hardware service over the kernel's devices instead
    scripts/faults --sample N          N of the faults of each story; the seed is printed
    scripts/faults --seed S            the same sample again
    scripts/faults --jobs N            so many units at once; most of the time is waiting
    scripts/faults --json FILE         FILE gets every fault with what came of it

After each fault the daemon must run, deal with what happens, serve the next stick and list what
the hardware service has mounted; nothing may be left behind, and what was lost must be in the log,
unless the daemon's contract has it otherwise (testbed/faults/agreements.py).
"""

import argparse
import json
import queue
import random
import secrets
import shutil
import sys
import threading
import time
from collections import Counter
from dataclasses import dataclass, field
from pathlib import Path
from typing import Callable, Sequence

from testbed import namespaces, target
from testbed.faults import errors
from testbed.faults.daemontrials import DaemonTrials
from testbed.faults.haldtrials import HaldTrials
from testbed.faults.haldunit import HALD_STORIES
from testbed.faults.recording import Recorded
from testbed.faults.stories import STORIES
from testbed.faults.trial import (
    AGREED, FINDING, KILL, LOGGED, UNHARMED, UNMET, Fault, Result, Trials)

_KINDS = (UNMET, UNHARMED, LOGGED, AGREED, FINDING)
_EVERY = 30.0  # seconds between two lines of progress that is no terminal's
#: The daemon's calls after which the world is as before: it need not end at each of them.
_INWARD = frozenset("""brk mmap munmap mprotect mremap madvise futex restart_syscall rt_sigaction
    rt_sigprocmask rt_sigreturn poll ppoll newfstatat stat lstat fstat access faccessat2 getsockname
    getsockopt clock_nanosleep getpid gettid read recvmsg ioctl wait4 exit""".split())


@dataclass
class Figures:
    """What a story has come to."""

    calls: int = 0
    planned: int = 0
    kinds: Counter[str] = field(default_factory=Counter)
    unknown: set[str] = field(default_factory=set)  # calls that the table of errors has not


@dataclass
class Run:
    """All that was tried."""

    seed: str
    stories: dict[str, Figures] = field(default_factory=dict)
    results: list[Result] = field(default_factory=list)
    seconds: float = 0.0


def main(arguments: Sequence[str]) -> int:
    """Run it; the exit status, 0 without a finding."""
    options = _options(arguments)
    if not namespaces.inside_wrapper():
        namespaces.run_in_wrapper([sys.executable, "-m", "testbed.faults", *arguments])
    logs = target.log_directory() / "faults"
    shutil.rmtree(logs, ignore_errors=True)
    run = Run(options.seed or secrets.token_hex(4))
    if options.sample:
        print(f"Seed {run.seed}", flush=True)
    make = _maker(options)
    begun = time.monotonic()
    planned = _plan(run, make(logs / "recording"), options)
    _try_all(run, planned, [make(logs / f"unit{number}") for number in range(options.jobs)])
    run.seconds = time.monotonic() - begun
    _print(run, options.kill)
    if options.json:
        _write(run, options.json)
    bad = any(figures.kinds[FINDING] or figures.unknown for figures in run.stories.values())
    return 1 if bad else 0


def plan(story: str, calls: Sequence[Recorded], kill: bool,
         figures: Figures) -> list[Fault]:
    """The faults for these calls."""
    figures.calls = len(calls)
    faults = []
    for call in calls:
        if kill:
            actions = [] if call.call in _INWARD else [KILL]
        else:
            found = errors.errors_of(call.call, call.text)
            if found is None:
                figures.unknown.add(call.call)
            actions = [f"error={name}" for name in found or ()]
        faults += [Fault(story, call.thread, call.call, call.number, action, call.text)
                   for action in actions]
    return faults


def _plan(run: Run, trials: Trials, options: argparse.Namespace) -> list[Fault]:
    planned = []
    for story in options.stories:
        print(f"Recording {story} ...", flush=True)
        figures = run.stories[story] = Figures()
        faults = plan(story, trials.calls(story), options.kill, figures)
        if options.sample and len(faults) > options.sample:
            kept = random.Random(f"{run.seed}/{story}").sample(range(len(faults)), options.sample)
            faults = [faults[number] for number in sorted(kept)]
        figures.planned = len(faults)
        planned += faults
    trials.close()
    return planned


def _try_all(run: Run, planned: Sequence[Fault], trials: Sequence[Trials]) -> None:
    waiting: queue.SimpleQueue[Fault] = queue.SimpleQueue()
    done: queue.SimpleQueue[Result | BaseException] = queue.SimpleQueue()
    for fault in planned:
        waiting.put(fault)
    stop = threading.Event()
    # A sandbox ends with the thread that has made it.
    workers = [threading.Thread(target=_work, args=(one, waiting, done, stop), daemon=True)
               for one in trials]
    for worker in workers:
        worker.start()
    progress = _Progress(len(planned))
    try:
        for _ in planned:
            result = done.get()
            if isinstance(result, BaseException):
                raise result
            run.results.append(result)
            run.stories[result.fault.story].kinds[result.kind] += 1
            progress.note(result)
    finally:
        stop.set()
        for worker in workers:
            worker.join()
        progress.end()


def _work(trials: Trials, waiting: "queue.SimpleQueue[Fault]",
          done: "queue.SimpleQueue[Result | BaseException]", stop: threading.Event) -> None:
    try:
        while not stop.is_set():
            try:
                fault = waiting.get_nowait()
            except queue.Empty:
                return
            done.put(trials.run(fault))
    except BaseException as failure:  # raised by the thread that waits for results
        done.put(failure)
    finally:
        trials.close()


class _Progress:
    """Where it stands, on a terminal in one line; a finding is printed as it comes."""

    def __init__(self, total: int) -> None:
        self._total = total
        self._begun = self._shown = time.monotonic()
        self._counts = Counter[str]()
        self._terminal = sys.stdout.isatty()

    def note(self, result: Result) -> None:
        """One more."""
        self._counts[result.kind] += 1
        if result.kind == FINDING:
            self.end()
            print(f"FINDING {result.fault}\n  " + "\n  ".join((result.hit or result.fault.text,
                                                             *result.words)), flush=True)
        now, done = time.monotonic(), self._counts.total()
        if not self._terminal and now - self._shown < _EVERY:
            return
        self._shown = now
        left = (now - self._begun) / done * (self._total - done)
        line = (f"{done:,} of {self._total:,} faults, {self._counts[FINDING]} findings,"
                f" {left:,.0f} s left: {result.fault}")
        print(f"\r\033[K{line:.110}" if self._terminal else line,
              end="" if self._terminal else "\n", flush=True)

    def end(self) -> None:
        """Something else is printed."""
        if self._terminal:
            print("\r\033[K", end="", flush=True)


def _print(run: Run, kill: bool) -> None:
    titles = ("calls", "ends" if kill else "faults", *_KINDS)
    print(f"{'story':<10}" + "".join(f"{title:>16}" for title in titles))
    for story, figures in run.stories.items():
        numbers = (figures.calls, figures.planned, *(figures.kinds[kind] for kind in _KINDS))
        print(f"{story:<10}" + "".join(f"{number:>16,}" for number in numbers))
    agreed = Counter(result.words[0] for result in run.results if result.kind == AGREED)
    for words, count in agreed.most_common():
        print(f"as agreed, {count}: {words}")
    for story, figures in run.stories.items():
        if figures.unknown:
            print(f"{story}: no errors are known for {', '.join(sorted(figures.unknown))}")
    print(f"It took {run.seconds:,.0f} s.")


def _write(run: Run, file: Path) -> None:
    stories = {story: {"calls": figures.calls, "faults": figures.planned, **figures.kinds,
                       "unknown": sorted(figures.unknown)}
               for story, figures in run.stories.items()}
    file.write_text(json.dumps({"seed": run.seed, "seconds": round(run.seconds, 1),
                                "stories": stories,
                                "results": [result.row() for result in run.results]},
                               indent=1) + "\n")


def _maker(options: argparse.Namespace) -> Callable[[Path], Trials]:
    kind = HaldTrials if options.hald else DaemonTrials
    return lambda logs: kind(logs, cut=options.cut)


def _options(arguments: Sequence[str]) -> argparse.Namespace:
    parser = argparse.ArgumentParser(prog="scripts/faults", description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("stories", nargs="*", metavar="STORY")
    parser.add_argument("--kill", action="store_true")
    parser.add_argument("--cut", action="store_true")
    parser.add_argument("--hald", action="store_true")
    parser.add_argument("--sample", type=int)
    parser.add_argument("--seed")
    parser.add_argument("--jobs", type=int, default=4)
    parser.add_argument("--json", type=Path)
    options = parser.parse_args(arguments)
    options.kill = options.kill or options.cut
    known = HALD_STORIES if options.hald else STORIES
    options.stories = options.stories or list(known)
    for story in options.stories:
        if story not in known:
            parser.error(f"no such story: {story}")
    return options
