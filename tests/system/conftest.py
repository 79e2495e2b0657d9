"""Fixtures of the system tests: a unit per test, and its tape when the test fails."""

import hashlib
import re
from pathlib import Path
from typing import Callable, Iterator

import pytest

from testbed import target
from testbed.network import Network
from testbed.unit import Unit


@pytest.fixture
def log_directory(request: pytest.FixtureRequest) -> Path:
    """Where this test's programs leave their logs."""
    name = re.sub(r"[^\w.-]+", "_", request.node.nodeid.removesuffix("]")).strip("_")
    digest = hashlib.sha1(request.node.nodeid.encode()).hexdigest()[:8]
    return target.log_directory() / "system" / f"{name[:150]}-{digest}"


@pytest.fixture
def make_unit(request: pytest.FixtureRequest, log_directory: Path) -> Iterator[Callable[..., Unit]]:
    """Makes a started unit from the keyword arguments of `Unit`; it is closed after the test."""
    units: list[Unit] = []
    request.node.units = units

    def make(**options: object) -> Unit:
        unit = Unit(_emptied(log_directory / f"unit{len(units) + 1}"), **options)
        units.append(unit)
        unit.start()
        return unit

    yield make
    for unit in units:
        unit.close()
    reports = [report for unit in units if (report := unit.sanitizer_reports())]
    assert not reports, "\n".join(reports)


@pytest.fixture
def unit(request: pytest.FixtureRequest, make_unit: Callable[..., Unit]) -> Unit:
    """A unit with everything but the daemon started; the mark `unit_options` shapes it."""
    mark = request.node.get_closest_marker("unit_options")
    return make_unit(**(mark.kwargs if mark else {}))


@pytest.fixture
def running_unit(unit: Unit) -> Unit:
    """A unit with the daemon running and its start-up scan, which found nothing, done."""
    unit.start_daemon()
    return unit


@pytest.fixture
def traced_to_its_end(monkeypatch: pytest.MonkeyPatch) -> None:
    """For a test that attaches strace to a program and lets it end so."""
    for name, value in target.traced_to_its_end().items():
        monkeypatch.setenv(name, value)


@pytest.fixture
def network() -> Iterator[Network]:
    """A wire for units."""
    with Network() as wire:
        yield wire


@pytest.fixture(autouse=True)
def _daemon_alone(request: pytest.FixtureRequest) -> None:
    """Leave out, by name, what would show an emulator instead of the daemon."""
    mark = request.node.get_closest_marker("native")
    if mark and target.emulated():
        pytest.skip(f"{request.node.name}: of an emulator {mark.args[0]}")


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item: pytest.Item, call: pytest.CallInfo[None]) -> Iterator[None]:
    """Print the tape of each unit of a failed test."""
    outcome = yield
    report = outcome.get_result()
    if report.failed:
        for number, unit in enumerate(getattr(item, "units", []), 1):
            report.sections.append((f"unit {number}", unit.report()))


def _emptied(directory: Path) -> Path:
    """The directory without the files of an earlier run."""
    for file in directory.glob("*"):
        file.unlink()
    return directory
