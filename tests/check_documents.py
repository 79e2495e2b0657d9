"""Checks the documents: their lines, and the places in the repository that they link to.

    check_documents.py ROOT          prints what is wrong; status 1 then
    check_documents.py --self-test   checks the checker on a document of its own

Running text is wrapped at 100 columns; tables and literal text need not be. A relative link names a
file, and its anchor a heading of it.
"""

import os.path
import re
import sys
import tempfile
from pathlib import Path

_COLUMNS = 100
_LINK = re.compile(r"(?<!`)\[[^]]*\]\(([^)#]*)(?:#([^)]*))?\)")
_PATTERNS = ("*.md", "docs/*.md", "bench/*.md", "testbed/*.md")


def running_text(document: str) -> list[tuple[int, str]]:
    """Number and text of the lines that are neither tables nor literal."""
    lines, fenced = [], False
    for number, line in enumerate(document.splitlines(), 1):
        if line.lstrip().startswith("```"):
            fenced = not fenced
        elif not fenced and not line.startswith(("|", "  |", "    ")):
            lines.append((number, line))
    return lines


def anchors(document: str) -> set[str]:
    """The anchors of the headings, as they are made from their texts."""
    titles = [line.lstrip("#").strip() for _, line in running_text(document)
              if line.startswith("#")]
    return {re.sub(r"[^\w\- ]", "", title.lower()).replace(" ", "-") for title in titles}


def faults(root: Path) -> list[str]:
    """One line for each fault of the documents below this directory."""
    texts = {path: path.read_text("utf-8") for pattern in _PATTERNS
             for path in sorted(root.glob(pattern))}
    found = []
    for path, text in texts.items():
        name = path.relative_to(root)
        found += [f"{name}:{number}: {len(line)} columns" for number, line in running_text(text)
                  if len(line) > _COLUMNS]
        for target, anchor in _LINK.findall(text):
            if target.startswith("http"):
                continue
            linked = Path(os.path.normpath(path.parent / target)) if target else path
            if not linked.exists():
                found.append(f"{name}: there is no {target}")
            elif anchor and anchor not in anchors(texts.get(linked, "")):
                found.append(f"{name}: there is no #{anchor} in {linked.relative_to(root)}")
    return found


SELF_TEST = f"""\
# A title: with `code`
{"x" * 100}
{"x" * 101}
| {"x" * 101} |
    {"x" * 101}
```
# No heading {"x" * 101}
```
[here](#a-title-with-code), [there](docs), [nowhere](none.md), [no part](#no-heading)
[outside](http://example.com/none.md)
"""
SELF_TEST_FAULTS = ["README.md:3: 101 columns", "README.md: there is no none.md",
                    "README.md: there is no #no-heading in README.md"]


def self_test() -> list[str]:
    """What the checker gets wrong."""
    with tempfile.TemporaryDirectory() as directory:
        root = Path(directory)
        (root / "docs").mkdir()
        (root / "README.md").write_text(SELF_TEST, "utf-8")
        found = faults(root)
    return [] if found == SELF_TEST_FAULTS else [f"expected {SELF_TEST_FAULTS}, found {found}"]


def main(arguments: list[str]) -> int:
    """Runs the check or the self-test; 0 when nothing was found."""
    match arguments:
        case ["--self-test"]:
            lines = self_test()
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
