"""The log lines that docs/troubleshooting.md quotes, and whether the daemon writes them."""

import re
from dataclasses import dataclass

from testbed import target
from testbed.daemon import DEBUG, ERROR, INFO, WARNING, LogLine, log_line
from testbed.tape import Mark, Match
from testbed.unit import Unit

_DOCUMENT = target.REPOSITORY / "docs/troubleshooting.md"
_QUOTED = re.compile(r"^ *```text ([\w-]+)\n(.*?)^ *```$", re.MULTILINE | re.DOTALL)
_PREFIXES = {"Error:  ": ERROR, "Warning:": WARNING, "Log:    ": INFO, "Debug:  ": DEBUG}
_TABLE = re.compile(r"^### voldrake: (\w+)\n(.*?)(?=^#)", re.MULTILINE | re.DOTALL)
_ANYTHING = "(?s:.*)"
_LEVELS = {"Error": ERROR, "Warning": WARNING, "Log": INFO}


@dataclass(frozen=True)
class Quoted:
    """One line as the document quotes it, with `{words}` for what is filled in."""

    level: int
    text: str

    def match(self) -> Match:
        """The lines of the log that it stands for."""
        return log_line(self.level, re.compile(_pattern(self.text)))


def quotes() -> dict[str, list[Quoted]]:
    """Every quotation of the document by its name."""
    found = {}
    for name, body in _QUOTED.findall(_DOCUMENT.read_text()):
        lines = [line.strip() for line in body.splitlines()]
        found[name] = [Quoted(_PREFIXES[line[:8]], line[8:]) for line in lines]
    return found


def expect_quoted(unit: Unit, name: str) -> None:
    """Wait until the daemon has written the lines of this quotation, in their order."""
    for line in quotes()[name]:
        unit.daemon.log.expect(line.match())


def seen(unit: Unit, level: int, since: Mark = Mark(0), until: Match | None = None) -> list[Quoted]:
    """The daemon's lines up to this level, as quotations."""
    return [Quoted(line.level, line.text) for line in unit.daemon.log_lines(since, until)
            if line.level <= level]


def unexplained(lines: list[LogLine]) -> list[LogLine]:
    """The lines of levels 1 to 3 for which the document's tables have no row but one that fits
    every line."""
    rows = [(_LEVELS[level], _pattern(row))
            for level, table in _TABLE.findall(_DOCUMENT.read_text())
            for row in re.findall(r"^\| `(.*?)` \|", table, re.MULTILINE)]
    rows = [(level, pattern) for level, pattern in rows if pattern != _ANYTHING]
    return [line for line in lines if line.level <= INFO
            and not any(level == line.level and re.fullmatch(pattern, line.text)
                        for level, pattern in rows)]


def _pattern(text: str) -> str:
    return re.sub(r"\\\{.*?\\\}", lambda _: _ANYTHING, re.escape(text))
