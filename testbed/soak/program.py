"""Plays random stories on the real daemon, up to a number of events or for a time.

    scripts/soak                     10,000 events, some minutes
    scripts/soak --events N          N events
    scripts/soak --minutes M         M minutes
    scripts/soak --seed S            repeat a run; by default a new seed, which is printed
    scripts/soak --story FILE        play the lines of a file instead; "-" is standard input
    scripts/soak --real-mounts       run a process for each mount
    scripts/soak --speed X           let the daemon's clock run X times as fast
    scripts/soak --starts N          start, flood and end the daemon N times instead
    scripts/soak --hald              test the hardware service for the kernel's devices instead
    scripts/soak --json FILE         also write the figures to FILE

A story that fails is shortened and printed as a test for tests/system/test_soak.py, with --hald for
test_soak_hald.py.
"""

import argparse
import json
import secrets
import sys
import time
from dataclasses import dataclass, field
from pathlib import Path
from typing import Protocol, Sequence

from testbed import namespaces, target
from testbed.soak import shrink, starts
from testbed.soak.player import DaemonPlayer
from testbed.soak.story import Story

_LINES = 2000  # of a story
_MOST_TRIALS = 400
_LONGEST = 600  # seconds of shortening
REPLAY = "replay"
FAILURES = (AssertionError, OSError, TimeoutError)
_SIZES = ("RSS kB", "heap B", "blocks", "threads", "fds")
_TITLES = ("events", "/s", "datagrams", "messages", "checks", "sure %", *_SIZES)


class Player(Protocol):
    """What plays the lines of a story, one after the other."""

    def play(self, line: str) -> None:
        """One line. Raises AssertionError when something is not as it must be."""

    def figures(self) -> dict[str, int]:
        """By the names of the columns, as far as there are such figures."""

    def times(self) -> dict[str, float]:
        """Processor seconds until now, by who used them."""


@dataclass
class Run:
    """What a run has come to."""

    seed: str
    begun: float = field(default_factory=time.monotonic)
    events: int = 0
    curve: list[dict[str, int | float]] = field(default_factory=list)
    times: dict[str, float] = field(default_factory=dict)  # processor seconds

    def note(self, player: Player) -> None:
        """One more point of the curve, shown as a line."""
        seconds = time.monotonic() - self.begun
        point = {"seconds": round(seconds, 1), "events": self.events,
                 "/s": round(self.events / seconds, 1), **player.figures()}
        if not self.curve:
            print("".join(f"{title:>11}" for title in _TITLES))
        self.curve.append(point)
        print("".join(f"{point.get(title, 0):>11,}" for title in _TITLES), flush=True)


def main(arguments: Sequence[str]) -> int:
    """Run it; the exit status, 0 when everything was as it must be."""
    options = _options(arguments)
    if not namespaces.inside_wrapper():
        namespaces.run_in_wrapper([sys.executable, "-m", "testbed.soak", *arguments])
    logs = target.log_directory() / "soak"
    make = _maker(options, logs)
    if options.story:
        lines = _read(options.story)
        failure = _failure(make, lines)
        print(failure or f"{len(lines)} lines: no failure")
        return 1 if failure else 0
    seed = options.seed or secrets.token_hex(4)
    print(f"Seed {seed}; repeat with: scripts/soak --seed {seed}"
          + (" --hald" if options.hald else "")
          + (f" --starts {options.starts}" if options.starts else "")
          + (f" --speed {options.speed:g}" if options.speed != 1 else ""), flush=True)
    if options.starts:
        return _start_often(logs / "starts", options, seed)
    run = Run(seed)
    failed = _run(run, make, options)
    _tell(run, options.json)
    if failed:
        _report(make, *failed)
    return 1 if failed else 0


def _run(run: Run, make: "Maker", options: argparse.Namespace) -> tuple[list[str], str] | None:
    """Play stories; the lines up to the one that failed, and how it did."""
    due, number = 0.0, 0
    with make.player("run") as player:
        run.begun = time.monotonic()
        while not _is_over(run, options):
            lines = make.story(f"{run.seed}/{number}")
            if failed := _play(run, player, make, lines, options):
                return failed[0], f"story {number} of seed {run.seed}: {failed[1]}"
            number += 1
            if time.monotonic() >= due:
                run.note(player)
                due = time.monotonic() + options.every
        run.note(player)
        run.times = player.times()
    return None


def _play(run: Run, player: Player, make: "Maker", lines: list[str],
          options: argparse.Namespace) -> tuple[list[str], str] | None:
    """Play a story, or as much as there is time for and its end."""
    played = []
    for line in lines:
        if line is not lines[-1] and _is_over(run, options):
            continue
        played.append(line)
        try:
            player.play(line)
        except FAILURES as failure:
            return played, _said(failure)
        run.events += line not in make.checks
    return None


def _start_often(logs: Path, options: argparse.Namespace, seed: str) -> int:
    begun = due = time.monotonic()

    def show(done: int) -> None:
        nonlocal due
        if (now := time.monotonic()) >= due or done == options.starts:
            due = now + options.every
            print(f"{done:,} of {options.starts:,} starts, {done / (now - begun):.1f} /s",
                  flush=True)
    failure = starts.run(logs, options.speed, options.starts, seed, show)
    print(failure or "Each ended with status 0, without a word and with no share mounted.")
    return 1 if failure else 0


def _is_over(run: Run, options: argparse.Namespace) -> bool:
    if options.minutes:
        return time.monotonic() - run.begun >= 60 * options.minutes
    return run.events >= options.events


def _tell(run: Run, file: Path | None) -> None:
    if len(run.curve) > 1:
        tenth = next(point for point in run.curve if point["events"] >= run.events / 10)
        last = run.curve[-1]
        print("At 10 % and 100 %: " + "; ".join(
            f"{name} {tenth[name]:,} and {last[name]:,}" for name in _SIZES if name in last))
    print("Processor seconds: " + ", ".join(
        f"{who} {seconds:.1f}" for who, seconds in run.times.items())
        + f"; the run took {run.curve[-1]['seconds']} s" if run.times else "")
    if file:
        file.write_text(json.dumps(vars(run), indent=1) + "\n")


def _report(make: "Maker", lines: list[str], said: str) -> None:
    print(f"FAILED in {said}")
    print("Shortening it ...", flush=True)
    *story, last = lines  # the check, mostly, that found it
    begun = time.monotonic()

    def fails(fewer: list[str]) -> bool:
        return time.monotonic() - begun < _LONGEST and _failure(make, [*fewer, last]) is not None
    bare = [line for line in story if line not in make.checks or line == "settle"]
    story = next((some for some in (bare, story) if fails(some)), [])
    if not story:
        print("The story alone does not fail; only the whole run does.")
        return
    short = [*shrink.shortened(story, fails, _MOST_TRIALS), last]
    print(f"{_failure(make, short)}\n\ndef test_found_by_soak(player):\n    play(player, \"\"\"")
    print("\n".join(f"        {line}" for line in short) + "\n    \"\"\")")


def _failure(make: "Maker", lines: Sequence[str]) -> str | None:
    """What is not as it must be when these lines are played on a fresh machine."""
    with make.player(REPLAY) as player:
        try:
            for line in lines:
                player.play(line)
        except FAILURES as failure:
            return _said(failure)
    return None


def _said(failure: BaseException) -> str:
    return str(failure) or type(failure).__name__


class Maker:
    """Makes players and stories for the daemon."""

    checks = frozenset(("quiet", "heal", "compare", "rest", "settle"))

    def __init__(self, logs: Path, real_mounts: bool, speed: float) -> None:
        self._logs = logs
        self._real_mounts = real_mounts
        self._speed = speed

    def player(self, name: str) -> DaemonPlayer:
        """One on a fresh machine."""
        return DaemonPlayer(self._logs / name, self._real_mounts, self._speed,
                            replay=name == REPLAY)

    def story(self, seed: str) -> list[str]:
        """The lines of the story of that seed."""
        return Story(seed, _LINES).lines


def _maker(options: argparse.Namespace, logs: Path) -> "Maker":
    if options.hald:
        from testbed.soak.hald import HaldMaker
        return HaldMaker(logs / "hald")
    return Maker(logs, options.real_mounts, options.speed)


def _read(file: str) -> list[str]:
    text = sys.stdin.read() if file == "-" else Path(file).read_text("utf-8")
    return [line.strip() for line in text.splitlines() if line.strip()]


def _options(arguments: Sequence[str]) -> argparse.Namespace:
    parser = argparse.ArgumentParser(prog="scripts/soak", description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--events", type=int, default=10_000)
    parser.add_argument("--minutes", type=float)
    parser.add_argument("--seed")
    parser.add_argument("--story")
    parser.add_argument("--real-mounts", action="store_true")
    parser.add_argument("--speed", type=float, default=1)
    parser.add_argument("--starts", type=int)
    parser.add_argument("--hald", action="store_true")
    parser.add_argument("--json", type=Path)
    parser.add_argument("--every", type=float, default=5.0, help="seconds between two lines")
    return parser.parse_args(arguments)
