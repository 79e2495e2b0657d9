"""Fixtures of the packaging tests: the tree that an installation makes, and a sandbox with it."""

import os
import re
import shutil
import subprocess
from pathlib import Path
from typing import Iterator

import pytest

from testbed import target
from testbed.sandbox import Sandbox
from testbed.unit import Unit


class InstallTree:
    """What `cmake --install` puts into an image. Paths are those of the image."""

    def __init__(self, root: Path, prefix: str) -> None:
        self.root = root
        self.prefix = prefix

    def path(self, inside: str) -> Path:
        """Path out here of a path under the prefix, or of an absolute one."""
        return self.root / os.path.join(self.prefix, inside).lstrip("/")

    def files(self) -> set[str]:
        """All files, relative to the prefix."""
        top = self.path("")
        return {str(file.relative_to(top)) for file in top.rglob("*") if not file.is_dir()}


@pytest.fixture(scope="session")
def tree(tmp_path_factory: pytest.TempPathFactory) -> InstallTree:
    """The build directory installed, with the start script and the unit."""
    build = target.build_directory()
    root = tmp_path_factory.mktemp("tree")
    environment = os.environ | {"DESTDIR": str(root)}
    done = subprocess.run(["cmake", "--install", str(build)], env=environment, text=True,
                          capture_output=True, check=False)
    assert done.returncode == 0, done.stderr
    prefix = re.search(r"^CMAKE_INSTALL_PREFIX:PATH=(.*)$",
                       (build / "CMakeCache.txt").read_text(), re.MULTILINE)
    assert prefix
    return InstallTree(root, prefix[1])


@pytest.fixture
def log_directory(request: pytest.FixtureRequest) -> Path:
    """Where this test's programs leave their logs; empty."""
    name = re.sub(r"[^\w.-]+", "_", request.node.nodeid.removesuffix("]")).strip("_")
    directory = target.log_directory() / "packaging" / name[:150]
    shutil.rmtree(directory, ignore_errors=True)
    return directory


@pytest.fixture
def sandbox(tree: InstallTree, log_directory: Path) -> Iterator[Sandbox]:
    """A sandbox with the installed tree under its prefix, and with its processes in /proc."""
    with Sandbox(log_directory, {Path(tree.prefix): tree.path("")}) as started:
        assert started.run(["mount", "--bind", "/run/proc", "/proc"]).returncode == 0
        yield started


@pytest.fixture
def unit(log_directory: Path) -> Iterator[Unit]:
    """A unit with everything but the daemon started."""
    with Unit(log_directory) as started:
        yield started
