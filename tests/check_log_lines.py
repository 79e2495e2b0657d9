"""Checks that docs/troubleshooting.md explains every log line, and no line that is not there.

    check_log_lines.py ROOT          prints what is missing and what is too much; status 1 then
    check_log_lines.py --list ROOT   prints the lines as the sources have them
    check_log_lines.py --self-test   checks the checker on sources of its own

A row of the document shows a line in backticks, with `{words}` for what is filled in. The sources
give the same with `{}`: from each call of Log the texts that are written there, in named constants
or in the text functions of the file, and `{}` for everything else. Level 4 (LOG_DEBUG) is left out.
"""

import re
import sys
import tempfile
from dataclasses import dataclass
from pathlib import Path

DOCUMENT = "docs/troubleshooting.md"

# Folder of each program's sources, and the words in its calls of Log that name a level.
PROGRAMS = {
    "voldrake": ("src", {"kLogError": "Error", "kLogWarning": "Warning", "kLogInfo": "Log"}),
    "voldrake-hald": ("hal/kernel", {"LOG_ERR": "err", "LOG_WARNING": "warning",
                                     "LOG_NOTICE": "notice", "LOG_INFO": "info"}),
}
WRITERS = {"Log", "LogWithoutMemory"}
HIDDEN = {"kLogDebug", "LOG_DEBUG"}

# What the table of a level is headed by in the document: its program and its level.
HEADING = re.compile(r"### (voldrake|voldrake-hald): (\w+)")
ROW = re.compile(r"\| `(.*?)` \|")

TOKEN = re.compile(r'''"(?:[^"\\]|\\.)*" | '(?:[^'\\]|\\.)*' | //[^\n]* | /\*.*?\*/
                       | \d[\w']* | \w+ | \s+ | .''', re.DOTALL | re.VERBOSE)
CONSTANT = re.compile(r'\bconst(?:expr)?\b[^;=(]*?\b(k\w+)(?:\[\])?'
                      r'(?:\s=\s+|\{)("(?:[^"\\]|\\.)*")\}?;')
TEXT_FUNCTION = re.compile(r"std::string (\w+)\(([^()]*)\) \{\s*return ([^;]*);\s*\}")

Tokens = list[str]
Line = tuple[str, str, str]  # program, level, text


@dataclass(frozen=True)
class Source:
    """A source file's tokens without comments and blanks, and the texts that have names in it."""

    tokens: Tokens
    constants: dict[str, str]
    functions: dict[str, tuple[list[str], Tokens]]  # parameters and returned expression

    @staticmethod
    def read(text: str) -> "Source":
        """Takes a source apart."""
        functions = {name: ([word.split()[-1].lstrip("*&") for word in parameters.split(",")],
                            tokens_of(expression))
                     for name, parameters, expression in TEXT_FUNCTION.findall(text)}
        constants = {name: unquoted(value) for name, value in CONSTANT.findall(text)}
        return Source(tokens_of(text), constants, functions)


def tokens_of(text: str) -> Tokens:
    """The tokens of a source, without comments and blanks."""
    return [token for token in TOKEN.findall(text)
            if not token.isspace() and not token.startswith(("//", "/*"))]


def unquoted(literal: str) -> str:
    """What a string literal stands for; a line end is left out, since a log line has none."""
    return literal[1:-1].replace(r"\n", "").replace(r"\"", '"').replace(r"\\", "\\")


def divided(tokens: Tokens, separator: str) -> list[Tokens]:
    """Divides at a separator that stands in no parentheses."""
    parts, depth = [Tokens()], 0
    for token in tokens:
        depth += (token in "([{") - (token in ")]}")
        if token == separator and depth == 0:
            parts.append([])
        else:
            parts[-1].append(token)
    return parts


def closing(tokens: Tokens, opening: int) -> int:
    """Where the parenthesis at this place is closed."""
    depth = 0
    for place in range(opening, len(tokens)):
        depth += (tokens[place] == "(") - (tokens[place] == ")")
        if depth == 0:
            return place
    raise ValueError("a parenthesis is not closed")


def text_of(expression: Tokens, source: Source, arguments: dict[str, str]) -> str:
    """What an expression puts into a line, with {} for what is not known."""
    text = "".join(term_of(term, source, arguments) for term in divided(expression, "+"))
    return re.sub(r"(\{\})+", "{}", text)


def term_of(term: Tokens, source: Source, arguments: dict[str, str]) -> str:
    """The same for one term of a sum: literals side by side, a named text, a call."""
    if term and all(token.startswith('"') or token.isupper() or "_" in token for token in term):
        if any(token.startswith('"') for token in term):
            return "".join(unquoted(token) if token.startswith('"') else "{}" for token in term)
    if len(term) == 1:
        return arguments.get(term[0], source.constants.get(term[0], "{}"))
    if term[:4] == ["std", ":", ":", "string"] and closing(term, 4) == len(term) - 1:
        inner = divided(term[5:-1], ",")
        return text_of(inner[0], source, arguments) if len(inner) == 1 else "{}"
    if term[1:2] == ["("] and term[0] in source.functions and closing(term, 1) == len(term) - 1:
        parameters, expression = source.functions[term[0]]
        values = [text_of(value, source, arguments) for value in divided(term[2:-1], ",")]
        return text_of(expression, source, dict(zip(parameters, values)))
    return "{}"


def lines_of(text: str, levels: dict[str, str]) -> set[tuple[str, str]]:
    """Level and text of every line that a source logs. ValueError for a call without a level."""
    source = Source.read(text)
    found = set()
    for place, token in enumerate(source.tokens[:-1]):
        if token not in WRITERS or source.tokens[place + 1] != "(":
            continue
        call = source.tokens[place + 2:closing(source.tokens, place + 1)]
        parts = divided(call, ",")
        if len(parts) != 2 or is_declaration(call):
            continue
        message, level = parts if set(parts[1]) & (HIDDEN | levels.keys()) else parts[::-1]
        if not set(level) & (HIDDEN | levels.keys()):
            raise ValueError(f"a call of Log without a level: {' '.join(call)}")
        found |= {(levels[word], text_of(message, source, {})) for word in level if word in levels}
    return found


def is_declaration(call: Tokens) -> bool:
    """True for the parameters of Log itself."""
    return "const" in call or call[:1] == ["int"]


def logged(root: Path) -> set[Line]:
    """Every line of the programs' sources."""
    found = set()
    for program, (folder, levels) in PROGRAMS.items():
        for path in sorted((root / folder).rglob("*.[ch]*")):
            try:
                lines = lines_of(path.read_text("utf-8"), levels)
            except ValueError as fault:
                raise SystemExit(f"{path}: {fault}") from None
            found |= {(program, level, text) for level, text in lines}
    return found


def explained(document: str) -> list[Line]:
    """Every row of the document's tables of lines, as it stands there."""
    found = []
    program = level = ""
    for line in document.splitlines():
        if line.startswith("#"):
            heading = HEADING.fullmatch(line)
            program, level = heading.groups() if heading else ("", "")
        elif program and (row := ROW.match(line)):
            found.append((program, level, row[1]))
    return found


def as_logged(row: Line) -> Line:
    """The line of the sources that a row explains."""
    program, level, text = row
    return program, level, re.sub(r"\{[^{}]+\}", "{}", text)


def faults(root: Path) -> list[str]:
    """One line for each log line that is not explained, or that is explained but not there."""
    sources = logged(root)
    rows = explained((root / DOCUMENT).read_text("utf-8"))
    lines = {as_logged(row) for row in rows}
    return ([f"{DOCUMENT} does not explain: {' | '.join(line)}"
             for line in sorted(sources - lines)]
            + [f"{DOCUMENT} explains what is not logged: {' | '.join(row)}" for row in rows
               if as_logged(row) not in sources]
            + [f"{DOCUMENT} explains twice: {' | '.join(row)}" for row in sorted(set(rows))
               if rows.count(row) > 1])


SELF_TEST_SOURCE = r'''
constexpr const char* kWhat = "disk";
constexpr char kPrefix[] = "a \"b\": ";
std::string Text(const char* operation, const char* event) {
  return std::string("HAL: ") + operation + " - " + event;
}
void Log(const std::string& message, int level) {}
void f() {
  Log("plain", kLogError);  // Log("not this", kLogError);
  Log("hidden " + name, kLogDebug);
  Log(Text(operation, "no, (reply"), kLogWarning);
  Log(Text(kWhat, "gone"), kLogWarning);
  Log(kPrefix + Printable("x" + y) + Dotted(z) + " left\n", kLogInfo);
  Log(std::string("either: ") + (yes ? "one" : "two"), bad ? kLogError : kLogInfo);
  Log("Version " VERSION
      " of " + std::string(n, '-'), kLogInfo);
  DebugLog("no", kLogError);
}
'''
SELF_TEST_LINES = {
    ("Error", "plain"), ("Warning", "HAL: {} - no, (reply"), ("Warning", "HAL: disk - gone"),
    ("Log", 'a "b": {} left'), ("Error", "either: {}"), ("Log", "either: {}"),
    ("Log", "Version {} of {}"),
}
SELF_TEST_DOCUMENT = """\
### voldrake: Error
| line | meaning |
|---|---|
| `plain` | x |
| `either: {one or two}` | x |
| `too much` | x |
### Others
| `not a line` | x |
### voldrake: Log
| `a "b": {what} left` | x |
| `Version {number} of {line}` | x |
| `Version {number} of {line}` | x |
| `either: {three}` | x |
| `either: {four}` | x |
"""
SELF_TEST_FAULTS = [
    "does not explain: voldrake | Warning | HAL: disk - gone",
    "does not explain: voldrake | Warning | HAL: {} - no, (reply",
    "explains what is not logged: voldrake | Error | too much",
    "explains twice: voldrake | Log | Version {number} of {line}",
]


def self_test() -> list[str]:
    """What the checker gets wrong."""
    found = lines_of(SELF_TEST_SOURCE, PROGRAMS["voldrake"][1])
    wrong = [f"expected {SELF_TEST_LINES}, found {found}"] if found != SELF_TEST_LINES else []
    with tempfile.TemporaryDirectory() as directory:
        root = Path(directory)
        for name, text in ((DOCUMENT, SELF_TEST_DOCUMENT), ("src/a/b.cpp", SELF_TEST_SOURCE)):
            (root / name).parent.mkdir(parents=True, exist_ok=True)
            (root / name).write_text(text, "utf-8")
        told = [line.removeprefix(f"{DOCUMENT} ") for line in faults(root)]
    if told != SELF_TEST_FAULTS:
        wrong.append(f"expected {SELF_TEST_FAULTS}, found {told}")
    try:
        lines_of('Log("x", level);', PROGRAMS["voldrake"][1])
        wrong.append("a call without a level passes")
    except ValueError:
        pass
    return wrong


def main(arguments: list[str]) -> int:
    """Runs the check, the list or the self-test; 0 when nothing was found."""
    match arguments:
        case ["--self-test"]:
            lines = self_test()
        case ["--list", root]:
            print(*(" | ".join(line) for line in sorted(logged(Path(root)))), sep="\n")
            return 0
        case [root]:
            lines = faults(Path(root))
        case _:
            print(__doc__, file=sys.stderr)
            return 2
    for line in lines:
        print(line)
    return 1 if lines else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
