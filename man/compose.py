#!/usr/bin/python3
"""Makes a manual page out of its source and the documents that it includes.

    compose.py PAGE DOCS > MANUAL

PAGE is an mdoc page. A line `.\\" include FILE` stands for the text of the Markdown document
DOCS/FILE, a line `.\\" include FILE: HEADING` for that section of it, without the heading. So
what a document and a manual both say is written once, in the document. Level-two headings of an
included document become sections, deeper ones subsections. Left out are its title, diagrams, and
a synopsis, which is a code block that begins with the page's name. Any other file than a
Markdown document is included as it is, for a literal display.
"""

import re
import sys
from pathlib import Path

_INCLUDE = re.compile(r'\.\\" include ([\w./-]+)(?:: (.+))?\n?')
_LIST_ITEM = re.compile(r"(?:-|\d+\.) ")
_CODE = re.compile(r"(`[^`]+`)")
_SENTENCE_END = re.compile(r"(?<=[.!?])(?<!\.\.\.)(?<!e\.g\.) ")
_WIDTH = 76
#: Stands for a blank within code, where no sentence ends.
_CODE_BLANK = "\x01"


def compose(page: str, docs: Path) -> str:
    """The manual page; raises KeyError when a section that it includes does not exist."""
    name = re.search(r"^\.Nm (\S+)", page, re.MULTILINE)
    assert name
    return _INCLUDE.sub(lambda found: _included(docs / found[1], found[2], name[1]), page)


def _included(document: Path, heading: str | None, page_name: str) -> str:
    lines = document.read_text("utf-8").splitlines()
    if document.suffix != ".md":
        lines = _literal_lines(lines)
    elif heading:
        lines = to_mdoc(_section(lines, heading), page_name)
    else:
        lines = to_mdoc([line for line in lines if not line.startswith("# ")], page_name)
    return "".join(line + "\n" for line in lines)


def _section(lines: list[str], heading: str) -> list[str]:
    """The lines below a heading, up to the next one of its level or above."""
    start = next((number for number, line in enumerate(lines)
                  if re.fullmatch(rf"#+ {re.escape(heading)}", line)), None)
    if start is None:
        raise KeyError(f"no section {heading}")
    level = lines[start].index(" ")
    end = next((number for number in range(start + 1, len(lines))
                if re.match(rf"#{{1,{level}}} ", lines[number])), len(lines))
    return lines[start + 1:end]


def to_mdoc(lines: list[str], page_name: str) -> list[str]:
    """Translates the Markdown that the documents use."""
    out: list[str] = []
    for block in _blocks(lines):
        first = block[0]
        if first.startswith("#"):
            _heading(out, first)
        elif first.startswith(("```mermaid", f"    {page_name} ")):
            continue
        elif first.startswith("```"):
            _literal(out, block[1:])
        elif first.startswith("    "):
            _literal(out, [line[4:] for line in block])
        elif first.startswith("|"):
            _table(out, block)
        elif _LIST_ITEM.match(first):
            _list(out, block)
        else:
            _paragraph(out, " ".join(block))
    return out


def _blocks(lines: list[str]) -> list[list[str]]:
    """Divides the lines into paragraphs, headings, tables, lists and code."""
    blocks: list[list[str]] = []
    fenced = fresh = False
    for line in lines:
        if fenced:
            fenced = not line.startswith("```")
            if fenced:
                blocks[-1].append(line)
        elif line.startswith("```"):
            blocks.append([line])
            fenced, fresh = True, True
        elif not line.strip():
            fresh = True
        elif fresh or not blocks or line.startswith("#") or _starts_other_kind(blocks[-1], line):
            if _continues_code(blocks, line):
                blocks[-1] += ["", line]
            else:
                blocks.append([line])
            fresh = False
        else:
            blocks[-1].append(line)
    return blocks


def _starts_other_kind(block: list[str], line: str) -> bool:
    return (block[0].startswith("#")
            or block[0].startswith("|") != line.startswith("|")
            or bool(_LIST_ITEM.match(line)) and not _LIST_ITEM.match(block[0]))


def _continues_code(blocks: list[list[str]], line: str) -> bool:
    return bool(blocks) and line.startswith("    ") and blocks[-1][0].startswith("    ")


def _heading(out: list[str], line: str) -> None:
    marks, text = line.split(" ", 1)
    if len(marks) == 2:
        out.append(f".Sh {_plain(text).upper()}")
    else:
        out.append(f".Ss {_arguments(text)}")


def _literal(out: list[str], lines: list[str]) -> None:
    out += [".Bd -literal", *_literal_lines(lines), ".Ed"]


def _literal_lines(lines: list[str]) -> list[str]:
    return [_guarded(_escaped(line)) for line in lines]


def _paragraph(out: list[str], text: str) -> None:
    if out and not out[-1].startswith((".Sh", ".Ss")):
        out.append(".Pp")
    out.extend(_text(text))


def _list(out: list[str], lines: list[str]) -> None:
    items: list[str] = []
    for line in lines:
        if _LIST_ITEM.match(line):
            items.append(line.split(" ", 1)[1])
        else:
            items[-1] += " " + line.strip()
    kind = "-bullet" if lines[0].startswith("-") else "-enum"
    out.append(f".Bl {kind}")
    for item in items:
        out.append(".It")
        out.extend(_text(item))
    out.append(".El")


def _table(out: list[str], lines: list[str]) -> None:
    """A list with the first column as tags; of more than two columns each has its head."""
    rows = [[cell.strip() for cell in line.strip().strip("|").split("|")] for line in lines]
    heads, rows = rows[0], rows[2:]
    out.append(".Bl -tag -width Ds")
    if len(heads) == 2:
        out += [rf".It \fI{_arguments(heads[0])}\fP", rf"\fI{_styled(heads[1])}\fP"]
    for tag, *cells in rows:
        named = len(heads) > 2 and not tag.startswith("`")
        out.append(f".It {_arguments(f'{heads[0]} {tag}' if named else tag)}")
        if len(heads) == 2:
            out.extend(_text(cells[0]))
            continue
        described = [_text(f"{head}: {cell}") for head, cell in zip(heads[1:], cells) if cell]
        for number, text in enumerate(described):
            out.extend([".br", *text] if number else text)
    out.append(".El")


def _text(text: str) -> list[str]:
    """Running text: each sentence begins a line, no line is long."""
    lines: list[str] = []
    for sentence in _SENTENCE_END.split(_styled(text)):
        line = ""
        for word in sentence.replace(_CODE_BLANK, " ").split():
            if line and len(line) + 1 + len(word) > _WIDTH:
                lines.append(_guarded(line))
                line = ""
            line = f"{line} {word}" if line else word
        if line:
            lines.append(_guarded(line))
    return lines


def _styled(text: str) -> str:
    text = re.sub(r"\[([^]]+)\]\([^)]+\)", r"\1", text)
    parts = []
    for part in _CODE.split(text):
        if part.startswith("`") and len(part) > 1:
            parts.append(_styled_code(part.strip("`")))
        else:
            parts.append(re.sub(r"\*\*([^*]+)\*\*", r"\\fB\1\\fP", _escaped(part)))
    return "".join(parts)


def _styled_code(code: str) -> str:
    """Bold; blanks at its ends stay."""
    inner = _escaped(code.strip()).replace(" ", _CODE_BLANK)
    before = r"\~" * (len(code) - len(code.lstrip()))
    after = r"\~" * (len(code) - len(code.rstrip()))
    return rf"\fB{before}{inner}{after}\fP"


def _arguments(text: str) -> str:
    """Text for a macro's line: no word of it is taken for a macro, no quote for quoting."""
    words = _styled(text).replace(_CODE_BLANK, " ").replace('"', r"\(dq").split()
    return " ".join(r"\&" + word if re.fullmatch(r"[A-Z][a-z]{1,2}|[|.,:;()\[\]?!]", word) else word
                    for word in words)


def _plain(text: str) -> str:
    return text.replace("`", "")


def _escaped(text: str) -> str:
    text = text.replace("\\", r"\e").replace("^", r"\(ha").replace("~", r"\(ti")
    return "".join(letter if letter.isascii() else f"\\[u{ord(letter):04X}]" for letter in text)


def _guarded(line: str) -> str:
    """No text line is taken for a macro."""
    return r"\&" + line if line.startswith((".", "'")) else line


if __name__ == "__main__":
    sys.stdout.write(compose(Path(sys.argv[1]).read_text("utf-8"), Path(sys.argv[2])))
