"""The list of build packages in debian/control is complete, and the scripts can read it."""

import os
import re
import subprocess
from pathlib import Path
from typing import Iterator

import pytest

from debian_root import Root
from testbed import target, timeouts

CONTROL = target.REPOSITORY / "debian/control"


def listed() -> list[str]:
    """The entries of the list, one a line as the file has them."""
    found = re.search(r"^Build-Depends:\n((?: .*\n)+)", CONTROL.read_text(), re.MULTILINE)
    assert found
    return [line.strip().rstrip(",") for line in found[1].splitlines()]


def test_is_one_package_a_line() -> None:
    for entry in listed():
        assert re.fullmatch(
            r"[a-z0-9][a-z0-9.+-]+(:any)?( \([<=>]+ [\d.]+\))?( <!nocheck>)?", entry)


def test_this_machine_has_them() -> None:
    done = subprocess.run(["dpkg-checkbuilddeps", str(CONTROL)], text=True, capture_output=True,
                          check=False)
    assert (done.returncode, done.stderr) == (0, "")


@pytest.fixture
def clean_root(tmp_path: Path) -> Iterator[Root]:
    """A root with nothing but the list without what only tests need, and the tree."""
    archive = tmp_path / "tree.tar"
    files = subprocess.run(["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard"],
                           cwd=target.REPOSITORY, capture_output=True, check=True).stdout
    subprocess.run(["tar", "--create", "--null", "--files-from=-", "--ignore-failed-read",
                    f"--file={archive}"], cwd=target.REPOSITORY, input=files, check=True)
    with Root(target.REPOSITORY / "build/packages/clean-root",
              "mkdir -p $1/build/voldrake",
              f"tar --extract --no-same-owner --file={archive} -C $1/build/voldrake",
              'chroot $1 sh -c "cd /build/voldrake && apt-get build-dep --yes'
              ' --no-install-recommends --build-profiles=nocheck ./"') as root:
        yield root


@pytest.mark.packages
def test_is_all_that_a_build_needs(clean_root: Root) -> None:
    clean_root.run(f"cd /build/voldrake && DEB_BUILD_OPTIONS='nocheck parallel={os.cpu_count()}'"
                   " dpkg-buildpackage -us -uc -b -Pnocheck", timeout=900 * timeouts.SCALE)
    assert "voldrake_" in clean_root.run("ls /build")
