"""A picture of the demo's timeline: an SVG with one lane for each part of a unit.

Time runs to the right. The distance between two events grows with the logarithm of the time
between them, because most follow one another within milliseconds and some after seconds. Labels
hang below their event; a later one hangs higher, so that no line crosses a label.
"""

import math
import re
import textwrap
from dataclasses import dataclass
from html import escape
from typing import Sequence

from testbed.timeline import Chapter, Happening

_WIDTH = 1160  # at most, unless one chapter alone is wider
_NAMES = 132  # the column with the lanes' names
_LETTER = 6.4  # width of a letter at the labels' size, on average
_ROW = 14  # height of a row of labels
_STEP = 11  # between an event and the next one, at least
_GAP = 14  # between a chapter's last label and the next chapter

_PARTS = ("hardware service", "daemon", "application")
_KINDS = {"plugged": 0, "pulled": 0, "mounted": 0, "unmounted": 0, "refused": 0,
          "ran": 1, "linked": 1, "unlinked": 1, "ignored": 1, "daemon": 1,
          "reported": 2, "says": 2, "": 2}
_HARDWARE = {"usb": "stick", "sd": "card", "volume": "partition", "reader": "reader",
             "scsi": "disk", "host": "SD host"}
_STYLE = """\
  text { font: 11px system-ui, sans-serif; fill: #24292f; }
  .title { font-weight: 600; } .dim { fill: #6e7781; } .line { stroke: #d0d7de; }
  .lane { fill: #f6f8fa; } .leader { stroke: #afb8c1; }
  .part0 { fill: #0969da; } .part1 { fill: #8250df; } .part2 { fill: #1a7f37; }
  .part3 { fill: #bc4c00; }
  @media (prefers-color-scheme: dark) {
    text { fill: #e6edf3; } .dim { fill: #8d96a0; } .line { stroke: #30363d; }
    .lane { fill: #161b22; } .leader { stroke: #484f58; }
    .part0 { fill: #58a6ff; } .part1 { fill: #bc8cff; } .part2 { fill: #3fb950; }
    .part3 { fill: #f0883e; }
  }
"""
_CAPTION = "Time runs to the right; distances grow with the logarithm of the time between events."


@dataclass
class _Dot:
    """An event in its place."""

    lane: int
    label: str
    x: float  # from the chapter's left edge
    row: int = 0  # of the label, counted from the lane's line

    def end(self) -> float:
        return self.x + 6 + _LETTER * len(self.label)


class _Column:
    """A chapter with its events in their places."""

    def __init__(self, chapter: Chapter, units: Sequence[str]) -> None:
        self.dots: list[_Dot] = []
        shown = [(happening, lane, label) for happening in chapter.happenings
                 if (lane := _lane(happening, units)) is not None
                 and (label := _label(happening.kind, happening.text))]
        x = before = 0.0
        for happening, lane, label in shown:
            if self.dots:
                x += _STEP + 8 * math.log10(1 + 1000 * max(happening.time - before, 0))
            before = happening.time
            self.dots.append(_Dot(lane, label, x))
        for lane in range(len(_PARTS) + 1):
            _hang([dot for dot in self.dots if dot.lane == lane])
        self.time = f"{shown[0][0].time:.2f} s" if shown else ""
        self.width = max([150.0, *(dot.end() for dot in self.dots)]) + _GAP
        self.title = textwrap.wrap(chapter.title, int((self.width - _GAP) / _LETTER / 1.05))


def draw(stories: Sequence[tuple[Sequence[str], Sequence[Chapter]]]) -> str:
    """The SVG. Each story is given by its units' names, the first of which is shown in its parts,
    and its chapters; what came before the first heading is left out."""
    lines: list[tuple[Sequence[str], list[_Column]]] = []
    for units, chapters in stories:
        titled = [chapter for chapter in chapters if chapter.title]
        columns = [_Column(chapter, units) for chapter in titled or chapters]
        lines += [(units, line) for line in _lines([each for each in columns if each.dots])]
    width = _NAMES + max((sum(column.width for column in line) for _, line in lines), default=400)
    body: list[str] = []
    y = 8.0
    for units, line in lines:
        y = _draw_line(body, line, units, y, width)
    body.append(f'<text class="dim" x="4" y="{y + 8:.0f}">{_CAPTION}</text>')
    size = f'width="{width:.0f}" height="{y + 18:.0f}" viewBox="0 0 {width:.0f} {y + 18:.0f}"'
    return (f'<svg xmlns="http://www.w3.org/2000/svg" {size}>\n<style>\n{_STYLE}</style>\n'
            + "\n".join(body) + "\n</svg>\n")


def _lane(happening: Happening, units: Sequence[str]) -> int | None:
    """None for what is not shown: calls, and the other unit's details."""
    if happening.unit == units[0]:
        return _KINDS.get(happening.kind)
    if happening.kind in ("plugged", "pulled", "ran", "reported", "daemon"):
        return len(_PARTS)
    return None


def _label(kind: str, text: str) -> str:
    """A few words for an event; empty for one that is not shown."""
    words = text.split()
    if kind == "plugged":
        label = re.search(r"\blabel=(\S+)", text)
        return f"{_HARDWARE.get(words[0], words[0])} {label[1] if label else words[1]} plugged in"
    if kind == "pulled":
        return f"{text} pulled out"
    if kind == "daemon":
        return text.partition(":")[0]
    if kind == "refused" and text.startswith("Mount("):
        return "refused to mount " + text.split("'")[1]
    if kind in ("mounted", "unmounted"):
        return f"{kind} " + " ".join([words[0].removeprefix("/media/"), *words[1:]])
    if kind == "ran":
        return _command(words)
    if kind in ("linked", "unlinked"):
        return f"{kind} " + text.partition(" -> ")[0].removeprefix("/media/")
    if kind == "reported" and len(words) > 1:
        return f"{words[0]} {_short(words[1])}"
    return f"{kind} {text}".strip().replace("the display application has ", "")


def _command(words: list[str]) -> str:
    """What an exportfs, mount or umount does."""
    match words:
        case ["mountpoint", *_]:
            return ""
        case ["exportfs", "-o", options, target]:
            return f"exportfs {options[:2]} {target.partition(':')[0]}"
        case ["exportfs", "-u", target]:
            return f"exportfs -u {target.partition(':')[0]}"
        case ["mount", "-t", "nfs", "-o", options, source, _]:
            return f"mount {options[:2]} {_short(source)}"
        case ["umount", *_, directory]:
            return f"umount {_short(directory)}"
    return " ".join(words)


def _short(path: str) -> str:
    """A share's long path as the address and the name of the volume."""
    return re.sub(r"^(?:/mnt/)?([\d.]+):(?:-media-|/media/)", r"\1:", path)


def _hang(dots: list[_Dot]) -> None:
    """Give each label of a lane the highest row where it touches no label and no line."""
    for number, dot in reversed(list(enumerate(dots))):
        later = dots[number + 1:]
        while any(other.x < dot.end() + 4 and other.row >= dot.row for other in later):
            dot.row += 1


def _lines(columns: Sequence[_Column]) -> list[list[_Column]]:
    """Divides the chapters into lines that are not too wide."""
    lines: list[list[_Column]] = []
    room = 0.0
    for column in columns:
        if not lines or column.width > room:
            lines.append([])
            room = _WIDTH - _NAMES
        lines[-1].append(column)
        room -= column.width
    return lines


def _draw_line(body: list[str], columns: Sequence[_Column], units: Sequence[str], top: float,
               width: float) -> float:
    """Draws the chapters of one line; where the next line begins."""
    y = top + _ROW * (1 + max(len(column.title) for column in columns)) + 10
    places = []
    for lane in range(len(_PARTS) + (len(units) > 1)):
        rows = 1 + max((dot.row for column in columns for dot in column.dots if dot.lane == lane),
                       default=0)
        height = 20 + _ROW * rows
        places.append(y + 10)
        _draw_lane(body, lane, units, y, width, height)
        y += height + 4
    x = float(_NAMES)
    for column in columns:
        body.append(f'<line class="line" x1="{x - 8:.0f}" y1="{top + 2:.0f}" x2="{x - 8:.0f}"'
                    f' y2="{y - 4:.0f}"/>')
        for number, line in enumerate(column.title):
            body.append(_text("title", x, top + _ROW * (1 + number), line))
        body.append(_text("dim", x, top + _ROW * (1 + len(column.title)), column.time))
        for dot in column.dots:
            _draw_dot(body, dot, x + dot.x, places[dot.lane])
        x += column.width
    return y + 16


def _draw_lane(body: list[str], lane: int, units: Sequence[str], y: float, width: float,
               height: float) -> None:
    name = _PARTS[lane] if lane < len(_PARTS) else "other unit"
    unit = units[0] if lane < len(_PARTS) else units[1]
    body.append(f'<rect class="lane" x="0" y="{y:.0f}" width="{width:.0f}" height="{height:.0f}"'
                ' rx="4"/>')
    body.append(f'<line class="line" x1="{_NAMES - 8}" y1="{y + 10:.0f}" x2="{width - 6:.0f}"'
                f' y2="{y + 10:.0f}"/>')
    body.append(_text(f"title part{lane}", 8, y + 15, name))
    if unit:
        body.append(_text("dim", 8, y + 15 + _ROW, unit))


def _draw_dot(body: list[str], dot: _Dot, x: float, y: float) -> None:
    below = y + _ROW * (1 + dot.row)
    body.append(f'<line class="leader" x1="{x:.1f}" y1="{y:.0f}" x2="{x:.1f}" y2="{below:.0f}"/>')
    body.append(f'<circle class="part{dot.lane}" cx="{x:.1f}" cy="{y:.0f}" r="3.5"/>')
    body.append(_text("", x + 4, below + 2, dot.label))


def _text(style: str, x: float, y: float, text: str) -> str:
    kind = f' class="{style}"' if style else ""
    return f'<text{kind} x="{x:.1f}" y="{y:.0f}">{escape(text)}</text>'
