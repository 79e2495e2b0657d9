"""pytest's part of tests/stress: disturbs each test and writes down how it ended.

    pytest -p testbed.stress --disturb SEED --outcomes FILE ...

FILE gets a line as each test begins and ends, the word "began", "passed", "failed" or "skipped" and
the test's name as pytest takes it in the directory of the repository.
"""

from pathlib import Path
from typing import Iterator

import pytest

from testbed import disturbance, target
from testbed.disturbance import Disturbance


def pytest_addoption(parser: pytest.Parser) -> None:
    """The two options."""
    group = parser.getgroup("stress")
    group.addoption("--disturb", type=int, metavar="SEED", help="disturb each test by this seed")
    group.addoption("--outcomes", type=Path, metavar="FILE", help="write here how each test ended")


def pytest_configure(config: pytest.Config) -> None:
    """Outcomes are written where they come together: not in the processes that run the tests."""
    if config.option.outcomes and not hasattr(config, "workerinput"):
        config.pluginmanager.register(_Outcomes(config))


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_protocol(item: pytest.Item) -> Iterator[None]:
    """Disturb the test with its fixtures."""
    seed = item.config.option.disturb
    if seed is None:
        yield
        return
    chosen = Disturbance.of(seed, _name(item.config, item.nodeid))
    if item.get_closest_marker("undelayed"):
        chosen = chosen.outside_programs()
    item.add_report_section("setup", "disturbance", str(chosen))
    disturbance.begin(chosen)
    try:
        yield
    finally:
        disturbance.end()


class _Outcomes:
    """Writes the file of outcomes."""

    def __init__(self, config: pytest.Config) -> None:
        self._config = config
        self._file = open(config.option.outcomes, "w", encoding="utf-8", buffering=1)
        self._told: set[str] = set()

    def pytest_runtest_logstart(self, nodeid: str) -> None:
        """A test begins."""
        self._write("began", nodeid)

    def pytest_runtest_logreport(self, report: pytest.TestReport) -> None:
        """A part of a test has ended: a test fails at its first failure and passes at its end."""
        if report.failed:
            if report.nodeid not in self._told:
                self._write("failed", report.nodeid)
            self._told.add(report.nodeid)
        elif report.skipped:
            self._write("skipped", report.nodeid)
            self._told.add(report.nodeid)
        elif report.when == "teardown" and report.nodeid not in self._told:
            self._write("passed", report.nodeid)

    def _write(self, word: str, test: str) -> None:
        self._file.write(f"{word} {_name(self._config, test)}\n")


def _name(config: pytest.Config, test: str) -> str:
    file, colons, rest = test.partition("::")
    path = config.rootpath / file
    if path.is_relative_to(target.REPOSITORY):
        path = path.relative_to(target.REPOSITORY)
    return f"{path}{colons}{rest}"
