"""The comparison of the instructions with those that are recorded."""

import json
from pathlib import Path

import pytest

from bench import instructions

RECORDED = {"arrival": 1000, "announcement": 1000}
HERE = {"machine": "x86_64", "libc6": "2.36"}


@pytest.fixture(autouse=True)
def a_record(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> Path:
    """A record of its own, a development build, and the libraries that the record is of."""
    record = tmp_path / "instructions.json"
    record.write_text(json.dumps({"counted with": HERE, "instructions": RECORDED}))
    build = tmp_path / "build"
    build.mkdir()
    (build / "CMakeCache.txt").write_text(
        "CMAKE_BUILD_TYPE:STRING=Debug\nCMAKE_CXX_FLAGS:STRING=-Og\n")
    monkeypatch.setenv("VOLDRAKE_BUILD_DIR", str(build))
    monkeypatch.setattr(instructions, "_RECORD", record)
    monkeypatch.setattr(instructions, "_circumstances", lambda: HERE)
    return record


def run(monkeypatch: pytest.MonkeyPatch, option: str, **counts: int) -> int | str | None:
    monkeypatch.setattr(instructions, "count", lambda _: counts)
    monkeypatch.setattr("sys.argv", ["instructions", option])
    with pytest.raises(SystemExit) as ended:
        instructions.main()
    return ended.value.code


@pytest.mark.parametrize("arrival, announcement, status, above", [
    (1000, 1000, 0, []), (900, 500, 0, []), (1054, 1054, 0, []), (1056, 1000, 1, ["arrival"]),
    (1000, 1056, 1, ["announcement"]), (2000, 2000, 1, ["arrival", "announcement"])])
def test_a_count_that_is_above_ends_with_status_1(
        monkeypatch: pytest.MonkeyPatch, capsys: pytest.CaptureFixture[str],
        arrival: int, announcement: int, status: int, above: list[str]) -> None:
    assert run(monkeypatch, "--check", arrival=arrival, announcement=announcement) == status
    head, *rows = capsys.readouterr().out.splitlines()
    assert head.split()[:3] == ["what", "ours", "recorded"]
    assert [row.split()[2].rstrip(",") for row in rows if row.endswith("above  1")] == above
    assert f"{len(above)} of 2 counts are above" in rows[-1] or not above


def test_counts_of_other_libraries_are_not_compared(
        monkeypatch: pytest.MonkeyPatch, capsys: pytest.CaptureFixture[str]) -> None:
    monkeypatch.setattr(instructions, "_circumstances", lambda: HERE | {"libc6": "2.37"})
    assert run(monkeypatch, "--check", arrival=1, announcement=1) == 2
    assert "libc6 2.36, here 2.37" in capsys.readouterr().err


def test_another_build_is_not_counted(
        tmp_path: Path, monkeypatch: pytest.MonkeyPatch,
        capsys: pytest.CaptureFixture[str]) -> None:
    (tmp_path / "build/CMakeCache.txt").write_text(
        "CMAKE_BUILD_TYPE:STRING=Release\nCMAKE_CXX_FLAGS:STRING=\n")
    for option in ("--check", "--keep"):
        assert run(monkeypatch, option, arrival=1) == 2
        assert "is built with" in capsys.readouterr().err


def test_counts_are_kept(monkeypatch: pytest.MonkeyPatch, a_record: Path) -> None:
    assert run(monkeypatch, "--keep", arrival=7) == 0
    assert json.loads(a_record.read_text()) == {"counted with": HERE,
                                                "instructions": {"arrival": 7}}
