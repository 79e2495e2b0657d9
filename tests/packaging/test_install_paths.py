"""Where files go, and that whoever reads them looks there."""

import os
import re
import subprocess
from pathlib import Path

import pytest

from testbed import target


def configured(build: Path, *options: str) -> Path:
    """A build directory that is configured, not built, without what only tests need."""
    done = subprocess.run(
        ["cmake", *options, "-B", str(build), "-DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON"],
        cwd=target.REPOSITORY, text=True, capture_output=True, check=False)
    assert done.returncode == 0, done.stderr
    return build


def installed(build: Path, root: Path) -> Path:
    """What the build installs besides programs and manuals."""
    done = subprocess.run(["cmake", "-P", str(build / "packaging/cmake_install.cmake")], text=True,
                          env=os.environ | {"DESTDIR": str(root)}, capture_output=True, check=False)
    assert done.returncode == 0, done.stderr
    return root


PLACES = {
    "the prefix of an image": (["-DCMAKE_INSTALL_PREFIX=/usr"], "/etc"),
    "the same, with a directory given":
        (["-DCMAKE_INSTALL_PREFIX=/usr", "-DCMAKE_INSTALL_SYSCONFDIR=/data/etc"], "/data/etc"),
    "the default prefix": ([], "/usr/local/etc"),
    "a prefix in /opt": (["-DCMAKE_INSTALL_PREFIX=/opt/voldrake"], "/etc/opt/voldrake"),
}


@pytest.mark.slow
@pytest.mark.parametrize("options, directory", PLACES.values(), ids=PLACES)
def test_unit_and_start_script_read_the_options_where_they_are_installed(
        tmp_path: Path, options: list[str], directory: str) -> None:
    build = configured(tmp_path / "build", "-DBUILD_TESTING=OFF", "-DVOLDRAKE_TOOLS=OFF",
                       "-DVOLDRAKE_HALD=OFF", "-DVOLDRAKE_SYSV=ON", *options)
    root = installed(build, tmp_path / "root")
    (found,) = root.rglob("default/voldrake")
    place = f"/{found.relative_to(root)}"
    assert place == f"{directory}/default/voldrake"
    (unit,) = root.rglob("voldrake.service")
    assert re.findall(r"^EnvironmentFile=-(.*)", unit.read_text(), re.MULTILINE) == [place]
    (script,) = root.rglob("init.d/voldrake")
    assert f"/{script.relative_to(root)}" == f"{directory}/init.d/voldrake"
    assert re.findall(r"^OPTIONS=(.*)", script.read_text(), re.MULTILINE) == [place]


def test_the_preset_for_an_image_needs_nothing_of_the_tests(tmp_path: Path) -> None:
    build = configured(tmp_path / "build", "--preset", "image")
    cache = (build / "CMakeCache.txt").read_text()
    assert "\nCMAKE_BUILD_TYPE:STRING=MinSizeRel\n" in cache
    root = installed(build, tmp_path / "root")
    assert (root / "etc/default/voldrake").exists()
    assert (root / "usr/lib/systemd/system/voldrake.service").exists()
