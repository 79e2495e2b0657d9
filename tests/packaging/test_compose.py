"""The translation of documents into manual pages, rule by rule."""

import subprocess
import sys
from pathlib import Path

import pytest

from testbed import target

COMPOSE = target.REPOSITORY / "man/compose.py"
PAGE = '.Nm tool\n.Sh DESCRIPTION\n.\\" include text.md{selection}\n'


def compose(directory: Path, document: str,
            selection: str = "") -> subprocess.CompletedProcess[str]:
    (directory / "text.md").write_text(document)
    (directory / "tool.1").write_text(PAGE.format(selection=selection))
    return subprocess.run([sys.executable, str(COMPOSE), str(directory / "tool.1"), str(directory)],
                          text=True, capture_output=True, check=False)


@pytest.mark.parametrize("document, lines", [
    ("# Title\n\nOne `option --x` here. Next, e.g. this.\n",
     [r"One \fBoption --x\fP here.", "Next, e.g. this."]),
    ("First.\n\nSecond.\n", ["First.", ".Pp", "Second."]),
    ("## A section\n\n### A detail\n", [".Sh A SECTION", ".Ss A detail"]),
    ("- one\n  and more\n- two\n", [".Bl -bullet", ".It", "one and more", ".It", "two", ".El"]),
    ("1. one\n2. two\n", [".Bl -enum", ".It", "one", ".It", "two", ".El"]),
    ("    code \\n\n    .dot\n", [".Bd -literal", r"code \en", r"\&.dot", ".Ed"]),
    ("```\ncode\n\nmore\n```\n", [".Bd -literal", "code", "", "more", ".Ed"]),
    ("```mermaid\nA-->B\n```\n", []),
    ("    tool [--x]\n", []),
    ("| key | meaning |\n|---|---|\n| `a` | the a |\n",
     [".Bl -tag -width Ds", r".It \fIkey\fP", r"\fImeaning\fP", r".It \fBa\fP", "the a", ".El"]),
    ("| offset | size | field |\n|---|---|---|\n| 0 | 4 | magic |\n",
     [".Bl -tag -width Ds", ".It offset 0", "size: 4", ".br", "field: magic", ".El"]),
    ("**Bold.** See [there](x.md).\n", [r"\fBBold.\fP See there."]),
    ("'quoted' caf\u00e9\n", [r"\&'quoted' caf\[u00E9]"])])
def test_translates(tmp_path: Path, document: str, lines: list[str]) -> None:
    done = compose(tmp_path, document)
    assert (done.returncode, done.stderr) == (0, "")
    assert done.stdout.splitlines()[2:] == lines


def test_takes_one_section(tmp_path: Path) -> None:
    document = "# T\n\nno\n\n## One\n\nyes\n\n### Deeper\n\nalso\n\n## Two\n\nno\n"
    assert compose(tmp_path, document, ": One").stdout.splitlines()[2:] == [
        "yes", ".Ss Deeper", "also"]


def test_refuses_a_section_that_is_not_there(tmp_path: Path) -> None:
    done = compose(tmp_path, "## One\n", ": Two")
    assert done.returncode == 1
    assert "no section Two" in done.stderr


def test_makes_long_lines_short(tmp_path: Path) -> None:
    output = compose(tmp_path, "word " * 100).stdout
    assert output.count("word") == 100
    assert max(map(len, output.splitlines())) <= 80
