"""Measures everything and shows it; started by scripts/bench inside the wrapper of namespaces."""

import argparse
import os
import shutil
import subprocess
import sys
from pathlib import Path

from bench import (announcements, hardware, instructions, micro, neighbours, report, rest, speed,
                   stage)
from bench.figures import CannotMeasure, Figure, table, write_json
from testbed import target

_DEVELOPMENT_BUILD = target.REPOSITORY / "build/dev"


class _Counts:
    """How much is measured."""

    def __init__(self, quick: bool) -> None:
        self.rounds = 1 if quick else 5
        self.arrivals = 30 if quick else 500
        self.volumes = (0, 10, 30) if quick else (0, 10, 100, 1000)
        self.announcements = 5000 if quick else 100_000
        self.repetitions = 1 if quick else 9
        self.benchmark_seconds = 0.02 if quick else 0.2
        self.idle_seconds = 5.0 if quick else 60.0
        self.few_volumes, self.many_volumes = (10, 50) if quick else (100, 1000)
        self.hardware_cycles, self.hardware_disks = (10, 10) if quick else (200, 100)
        self.few_shares, self.many_shares = (10, 30) if quick else (20, 200)


def main() -> None:
    """Entry point: exit status 1 when something could not be measured."""
    parser = argparse.ArgumentParser(prog="scripts/bench")
    parser.add_argument("--json", type=Path, metavar="FILE", help="keep the figures in FILE")
    parser.add_argument("--quick", action="store_true", help="small counts, to try it out")
    arguments = parser.parse_args()
    try:
        figures = _measure(_Counts(arguments.quick), arguments.quick)
    except (CannotMeasure, AssertionError, OSError, subprocess.TimeoutExpired) as reason:
        sys.exit(f"scripts/bench: cannot measure: {reason}")
    print(f"\n{report.machine()}\n\n{table(figures)}")
    if arguments.json:
        write_json(figures, arguments.json)


def _measure(counts: _Counts, quick: bool) -> list[Figure]:
    logs = target.log_directory() / "bench"
    figures: list[Figure] = []

    def add(what: str, found: list[Figure]) -> None:
        print(f"  measured: {what}", flush=True)
        figures.extend(found)

    with stage.one_processor():
        add("arrivals", speed.arrivals(logs / "arrivals", counts.rounds, counts.arrivals))
        starts, start_plot = speed.start_up(logs / "startup", counts.rounds, counts.volumes)
        add("start-up", starts)
    add("announcements", announcements.announcement(logs / "announcements", min(counts.rounds, 3),
                                                    counts.announcements))
    pieces, plots = micro.measure(logs / "micro", counts.repetitions, counts.benchmark_seconds)
    add("small pieces", pieces)
    add("idle", rest.idle(logs / "idle", counts.idle_seconds))
    add("memory", rest.memory(logs / "memory", counts.few_volumes, counts.many_volumes)
        + rest.share_memory(logs / "shares", counts.few_shares, counts.many_shares)
        + rest.size(logs / "size"))
    with stage.one_processor():
        add("hardware service", hardware.measure(logs / "hardware", counts.hardware_cycles,
                                                 counts.idle_seconds, counts.hardware_disks))
    add("instructions", _instructions(logs / "instructions"))
    beside, remarks = neighbours.measure(logs / "neighbours",
                                         target.build_directory() / "neighbours",
                                         counts.idle_seconds)
    add("neighbours", beside)
    document = report.DOCUMENT
    if quick:  # no run to be shown
        document = Path(shutil.copy(document, target.build_directory()))
    report.write_figures(figures, {"startup": start_plot, **plots}, remarks, document)
    print(f"  written: {document}")
    return figures


def _instructions(logs: Path) -> list[Figure]:
    """Counted in a development build, whose flags the recorded counts are for."""
    ours = os.environ["VOLDRAKE_BUILD_DIR"]
    os.environ["VOLDRAKE_BUILD_DIR"] = str(_DEVELOPMENT_BUILD)
    try:
        return instructions.beside_recorded(instructions.count(logs))
    finally:
        os.environ["VOLDRAKE_BUILD_DIR"] = ours


if __name__ == "__main__":
    main()
