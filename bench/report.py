"""What is made of the figures: the plots, and their part of docs/performance.md.

A part is what stands in the document between two marks of its writer. A run replaces its own part
and nothing else.
"""

import os
import re
import subprocess
import textwrap
from pathlib import Path
from typing import Sequence

from bench.figures import CannotMeasure, Figure, markdown
from bench.speed import Plot
from testbed import target

DOCUMENT = target.REPOSITORY / "docs/performance.md"
_WIDTH = 100

#: Each plot: title, the two axes, and who stands for the floor.
_PLOTS = {
    "startup": ("Start-up", "volumes present", "ms", "bare client"),
    "services": ("One service announced", "services", "ns of CPU each", "bare sendto"),
    "list": ("Tick of the list", "shares", "ns of CPU", "walk of a map"),
}


def machine() -> str:
    """The machine and what the programs were built with, as one paragraph."""
    processor = re.search(r"^model name\s*: (.*)$", Path("/proc/cpuinfo").read_text(),
                          re.MULTILINE)
    system = os.uname()
    compiler = subprocess.run(["c++", "--version"], capture_output=True, text=True,
                              check=True).stdout.splitlines()[0]
    cache = (target.build_directory() / "CMakeCache.txt").read_text()
    build_type = re.search(r"^CMAKE_BUILD_TYPE:\w+=(.*)$", cache, re.MULTILINE)[1]
    return textwrap.fill(
        f"Machine: {processor[1] if processor else system.machine}, {os.cpu_count()} cores,"
        f" {system.sysname} {system.release}. Programs: {compiler}, {build_type}.",
        _WIDTH, break_long_words=False, break_on_hyphens=False)


def draw(plots: dict[str, Plot], directory: Path) -> None:
    """One PNG for each plot. Raises CannotMeasure when gnuplot fails."""
    directory.mkdir(parents=True, exist_ok=True)
    for name, points in plots.items():
        title, x, y, floor = _PLOTS[name]
        # Zero has no place on a logarithmic axis.
        data = "\n".join("{} {} {}".format(*point) for point in points if point[0] > 0)
        script = f"""
            set terminal pngcairo size 720,420 font "sans,10"
            set output "{directory / name}.png"
            set title "{title}"
            set xlabel "{x}"
            set ylabel "{y}"
            set logscale xy
            set key left top
            set grid
            $points << END
{data}
END
            plot $points using 1:2 with linespoints title "voldrake", \\
                 $points using 1:3 with linespoints title "{floor}"
        """
        done = subprocess.run(["gnuplot"], input=script, capture_output=True, text=True,
                              check=False)
        if done.returncode != 0:
            raise CannotMeasure(f"gnuplot: {done.stderr.strip()}")


def write_figures(figures: Sequence[Figure], plots: dict[str, Plot], remarks: str,
                  document: Path) -> None:
    """The part of scripts/bench, and its plots in `performance` beside the document."""
    draw(plots, document.parent / "performance")
    pictures = "".join(f"![{_PLOTS[name][0]}](performance/{name}.png)\n" for name in plots)
    parts = [machine() + "\n", markdown(figures), remarks, pictures]
    write_part("scripts/bench", "\n".join(part for part in parts if part), document)


def write_part(writer: str, text: str, document: Path) -> None:
    """Replace a writer's part of the document by the text, which ends with a newline. Raises
    CannotMeasure when the document has not exactly one such part.
    """
    begin, end = f"<!-- {writer} writes what follows -->\n", f"<!-- {writer}: end -->\n"
    before, found, rest = document.read_text().partition(begin)
    _, ended, after = rest.partition(end)
    if not found or not ended or begin in rest or end in before + after:
        raise CannotMeasure(f"{document} has not one part of {writer}")
    document.write_text(f"{before}{begin}\n{text}\n{end}{after}")
