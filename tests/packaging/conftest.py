"""Fixtures of the packaging tests: the tree that an installation makes, and a sandbox with it."""

import os
import re
import shutil
import subprocess
import tempfile
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


def pytest_configure(config: pytest.Config) -> None:
    """Refuse a build that is not complete once, not in every test."""
    if hasattr(config, "workerinput"):
        return  # the process that started this one has looked
    with tempfile.TemporaryDirectory() as root:
        done = install(Path(root))
    if done.returncode != 0:
        raise pytest.UsageError(
            f"{target.build_directory()} is not built completely; cmake --build builds what the"
            f" packaging tests install\n{done.stderr.strip()}")


def install(root: Path) -> subprocess.CompletedProcess[str]:
    """Put what the build installs below the directory."""
    return subprocess.run(["cmake", "--install", str(target.build_directory())], text=True,
                          env=os.environ | {"DESTDIR": str(root)}, capture_output=True, check=False)


@pytest.fixture(scope="session")
def tree(tmp_path_factory: pytest.TempPathFactory) -> InstallTree:
    """The build directory installed, with the start script and the unit."""
    build = target.build_directory()
    root = tmp_path_factory.mktemp("tree")
    done = install(root)
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
