"""A measured figure, and how a list of them is shown and kept."""

import json
from dataclasses import dataclass
from pathlib import Path
from typing import Sequence

_TITLES = ("what", "ours", "floor", "ratio", "goal", "unit")


class CannotMeasure(Exception):
    """A figure could not be had; the run has failed."""


@dataclass(frozen=True)
class Figure:
    """One figure beside its floor.

    `goal` is the highest ratio to the floor or, where there is none, the highest value; None for
    a figure that stands for orientation.
    """

    name: str
    ours: float
    floor: float | None
    goal: float | None
    unit: str

    def ratio(self) -> float | None:
        """Ours over the floor."""
        return self.ours / self.floor if self.floor else None

    def judged(self) -> float:
        """What is compared with the goal."""
        ratio = self.ratio()
        return self.ours if ratio is None else ratio

    def meets_goal(self) -> bool:
        """False when it is above its goal, to the two digits that are shown."""
        return self.goal is None or round(self.judged(), 2) <= self.goal

    def cells(self) -> tuple[str, ...]:
        """The texts of its row."""
        goal = _number(self.goal) + ("" if self.meets_goal() else " above")
        return (self.name, _number(self.ours), _number(self.floor), _number(self.ratio()), goal,
                self.unit)


def table(figures: Sequence[Figure], floor: str = "floor") -> str:
    """Text in columns, that of the floor with this title."""
    titles = tuple(floor if title == "floor" else title for title in _TITLES)
    rows = [titles, *(figure.cells() for figure in figures)]
    widths = [max(map(len, column)) for column in zip(*rows)]
    lines = ["  ".join(cell.ljust(width) if column in (0, 5) else cell.rjust(width)
                       for column, (cell, width) in enumerate(zip(row, widths))).rstrip()
             for row in rows]
    return "\n".join(lines) + "\n"


def markdown(figures: Sequence[Figure]) -> str:
    """The same as a table of a document."""
    rows = [_TITLES, ("---", *["---:"] * 4, "---"), *(figure.cells() for figure in figures)]
    return "".join(f"| {' | '.join(row)} |\n" for row in rows)


def write_json(figures: Sequence[Figure], file: Path) -> None:
    """Keep the figures in a file for programs."""
    content = [{"name": figure.name, "ours": figure.ours, "floor": figure.floor,
                "ratio": figure.ratio(), "goal": figure.goal, "unit": figure.unit}
               for figure in figures]
    file.write_text(json.dumps({"figures": content}, indent=1) + "\n")


def _number(value: float | None) -> str:
    if value is None:
        return "-"
    if abs(value) >= 1000:
        return f"{value:,.0f}"
    return f"{value:.2f}" if abs(value) < 100 else f"{value:.1f}"
