"""The tmpfiles configuration, carried out by systemd-tmpfiles on a root of its own."""

import subprocess
from pathlib import Path

import pytest


@pytest.fixture
def configuration(tree) -> Path:
    return tree.path("lib/tmpfiles.d/voldrake.conf")


def apply(configuration: Path, root: Path, *options: str) -> None:
    done = subprocess.run(["systemd-tmpfiles", f"--root={root}", *options, str(configuration)],
                          text=True, capture_output=True, check=False)
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")


def mode(directory: Path) -> int:
    return directory.stat().st_mode & 0o7777


def test_makes_the_directories_of_the_mounts(configuration: Path, tmp_path: Path) -> None:
    apply(configuration, tmp_path, "--create")
    assert [mode(tmp_path / name) for name in ("media", "mnt")] == [0o755, 0o755]


def test_leaves_directories_that_exist_as_they_are(configuration: Path, tmp_path: Path) -> None:
    for name in ("media", "mnt"):
        (tmp_path / name).mkdir()
        (tmp_path / name).chmod(0o2770)
    apply(configuration, tmp_path, "--create")
    assert [mode(tmp_path / name) for name in ("media", "mnt")] == [0o2770, 0o2770]


def test_forgets_at_boot_alone_what_was_exported(configuration: Path, tmp_path: Path) -> None:
    table = tmp_path / "var/lib/nfs/etab"
    table.parent.mkdir(parents=True)
    table.write_text("/media/sda1\t*(ro)\n")
    apply(configuration, tmp_path, "--create", "--remove")
    assert table.read_text() != ""
    apply(configuration, tmp_path, "--create", "--remove", "--boot")
    assert table.read_text() == ""
