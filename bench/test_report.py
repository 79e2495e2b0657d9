"""A run replaces its own part of the document and nothing else."""

from pathlib import Path

import pytest

from bench import footprint, report
from bench.figures import CannotMeasure

BEGIN, END = "<!-- me writes what follows -->\n", "<!-- me: end -->\n"
OTHER = "<!-- you writes what follows -->\n\nyours\n\n<!-- you: end -->\n"


@pytest.mark.parametrize("document, written", [
    (f"# Title\n\n{BEGIN}{END}", f"# Title\n\n{BEGIN}\nnew\n\n{END}"),
    (f"{BEGIN}\nold\n\nold\n\n{END}\nnotes\n\n{OTHER}",
     f"{BEGIN}\nnew\n\n{END}\nnotes\n\n{OTHER}"),
    (f"{OTHER}{BEGIN}\nnew\n\n{END}", f"{OTHER}{BEGIN}\nnew\n\n{END}")])
def test_what_stands_between_the_marks_is_replaced(
        tmp_path: Path, document: str, written: str) -> None:
    file = tmp_path / "document.md"
    file.write_text(document)
    report.write_part("me", "new\n", file)
    assert file.read_text() == written


@pytest.mark.parametrize("document", [
    "", "notes\n", BEGIN, END, END + BEGIN, OTHER, 2 * (BEGIN + END), BEGIN + BEGIN + END,
    BEGIN + END + END])
def test_a_document_without_exactly_one_part_is_left_alone(tmp_path: Path, document: str) -> None:
    file = tmp_path / "document.md"
    file.write_text(document)
    with pytest.raises(CannotMeasure, match="has not one part of me"):
        report.write_part("me", "new\n", file)
    assert file.read_text() == document


@pytest.mark.parametrize("writer", ["scripts/bench", "scripts/footprint"])
def test_the_document_has_a_part_of_each_script(tmp_path: Path, writer: str) -> None:
    file = tmp_path / "performance.md"
    file.write_text(report.DOCUMENT.read_text())
    report.write_part(writer, "new\n", file)
    assert "\nnew\n" in file.read_text()


def test_the_footprint_goes_into_its_part(
        tmp_path: Path, monkeypatch: pytest.MonkeyPatch,
        capsys: pytest.CaptureFixture[str]) -> None:
    file = tmp_path / "performance.md"
    file.write_text(report.DOCUMENT.read_text())
    monkeypatch.setattr(report, "DOCUMENT", file)
    monkeypatch.setattr(footprint, "_measure", lambda: [("text", 12345), ("bss", 6)])
    footprint.main()
    table = "| what | bytes |\n| --- | ---: |\n| text | 12,345 |\n| bss | 6 |\n"
    assert f"\n{table}\n<!-- scripts/footprint: end -->\n" in file.read_text()
    assert capsys.readouterr().out == table


def test_a_footprint_that_cannot_be_measured_is_told(monkeypatch: pytest.MonkeyPatch) -> None:
    def fail() -> None:
        raise AssertionError("no bus")
    monkeypatch.setattr(footprint, "_measure", fail)
    with pytest.raises(SystemExit, match="scripts/footprint: cannot measure: no bus"):
        footprint.main()
