"""The wait for identity files before the daemon goes to work."""

import re

import pytest

from testbed import timeouts
from testbed.daemon import INFO, WARNING
from testbed.strace import Trace
from testbed.unit import Unit

pytestmark = pytest.mark.undelayed("its pauses are counted")

WAITING = "Voldrake waiting for files to appear"
NOT_FOUND = "Some files not found"
ONE, OTHER = "/etc/one", "/etc/other"
ABOUT_THE_WAIT = re.compile(f"{WAITING}|{NOT_FOUND}|Found: .*")
#: How the daemon waits until it looks again.
PAUSE = r"^clock_nanosleep\w*\("
PAUSES_IN_A_SECOND = 4


def start_traced(unit: Unit, *words: str) -> Trace:
    """Start the daemon and have its looks, its pauses and its log recorded."""
    trace = Trace(unit.sandbox.logs / "strace")
    unit.daemon.start(*words, launcher=trace.launcher(
        "/var/log/strace", "-s", "200", "-e", "trace=%%stat,clock_nanosleep,write"))
    unit.daemon.expect_log(INFO, WAITING)
    return trace


def calls_until_work_begins(unit: Unit, trace: Trace) -> list[str]:
    """The system calls from the line that tells of the wait until it is over; the daemon then goes
    to work."""
    unit.hal.expect_call("FindDeviceByCapability")
    texts = trace.lines()
    begin, end = (next(at for at, text in enumerate(texts) if line in text)
                  for line in (WAITING, "initHal()"))
    return texts[begin:end]


def pauses(texts: list[str]) -> int:
    """The number of pauses among these calls."""
    return sum(re.search(PAUSE, text) is not None for text in texts)


def about_the_wait(unit: Unit) -> list[str]:
    """The lines that the wait wrote."""
    return [line.text for line in unit.daemon.log_lines()
            if line.level == INFO and ABOUT_THE_WAIT.fullmatch(line.text)]


FILES = {
    "files in the order of the command line":
        (["--serial-number-file", OTHER, "--content-id-file", ONE], {ONE: "1", OTHER: "2"},
         [WAITING, f"Found: {OTHER}", f"Found: {ONE}"]),
    "an option given twice, whose files are both waited for":
        (["--content-id-file", ONE, "--content-id-file", OTHER], {ONE: "1", OTHER: "2"},
         [WAITING, f"Found: {ONE}", f"Found: {OTHER}"]),
}


@pytest.mark.parametrize("words, present, lines", FILES.values(), ids=FILES)
def test_it_does_not_wait_when_everything_is_there(unit: Unit, words: list[str],
                                                   present: dict[str, str],
                                                   lines: list[str]) -> None:
    for path, content in present.items():
        unit.sandbox.write(path, content)
    trace = start_traced(unit, *words, "--file-timeout", "5")
    assert pauses(calls_until_work_begins(unit, trace)) == 0
    assert about_the_wait(unit) == lines


def test_an_empty_file_counts_as_missing_until_the_time_is_up(unit: Unit) -> None:
    """One deadline for all: the second file is there and is not looked at any more."""
    unit.sandbox.write(ONE, "")
    unit.sandbox.write(OTHER, "2")
    trace = start_traced(unit, "--content-id-file", ONE, "--serial-number-file", OTHER,
                         "--file-timeout", "2")
    calls = calls_until_work_begins(unit, trace)
    begin, end = trace.times(f"^write.*({WAITING}|{NOT_FOUND})")
    # The clock is read in whole seconds.
    assert end - begin > 1
    assert pauses(calls) <= 2 * PAUSES_IN_A_SECOND
    assert about_the_wait(unit) == [WAITING, NOT_FOUND]
    # Only now is the rest of the list looked at, to tell what is missing by name.
    assert [line.text for line in unit.daemon.log_lines() if line.level == WARNING] == [
        f"Identity file {ONE} is missing or empty"]


def test_the_deadline_is_one_for_the_whole_list(unit: Unit) -> None:
    """The first file comes after two seconds; the second gets no more than the rest of six."""
    trace = start_traced(unit, "--content-id-file", ONE, "--serial-number-file", OTHER,
                         "--file-timeout", "6")
    trace.expect(PAUSE, 2 * PAUSES_IN_A_SECOND)
    unit.sandbox.write(ONE, "1")
    unit.daemon.expect_log(INFO, f"Found: {ONE}")
    unit.daemon.expect_log(INFO, NOT_FOUND, 6 + timeouts.EVENT)
    calls = calls_until_work_begins(unit, trace)
    begin, end = trace.times(f"^write.*({WAITING}|{NOT_FOUND})")
    assert end - begin > 5
    assert pauses(calls) <= 6 * PAUSES_IN_A_SECOND


def test_a_file_that_appears_is_found_within_a_quarter_of_a_second(unit: Unit) -> None:
    """It is looked for that often, and found by the first look at it."""
    trace = start_traced(unit, "--content-id-file", ONE, "--serial-number-file", OTHER,
                         "--file-timeout", "60")
    for path in (ONE, OTHER):
        seen = len(trace.times(PAUSE))
        unit.sandbox.write(path, "")
        trace.expect(PAUSE, seen + 2)
        unit.sandbox.write(path, "content")
        unit.daemon.expect_log(INFO, f"Found: {path}")
    calls = calls_until_work_begins(unit, trace)
    assert {re.search(r"\{.*?\}", text)[0] for text in calls if re.search(PAUSE, text)} == {
        "{tv_sec=0, tv_nsec=250000000}"}
    for path in (ONE, OTHER):
        look = next(at for at, text in enumerate(calls)
                    if f'"{path}"' in text and re.search(r"stx?_size=7\b", text))
        assert f"Found: {path}" in calls[look + 1]
    assert about_the_wait(unit) == [WAITING, f"Found: {ONE}", f"Found: {OTHER}"]


@pytest.mark.parametrize("words", [[], ["--file-timeout", "-1"]], ids=["not given", "negative"])
def test_without_a_time_there_is_no_wait(unit: Unit, words: list[str]) -> None:
    unit.start_daemon("--content-id-file", ONE, *words)
    assert about_the_wait(unit) == []


def test_the_last_of_two_content_id_files_is_the_one_that_counts(unit: Unit) -> None:
    unit.sandbox.write(ONE, "first\n")
    unit.sandbox.write(OTHER, "second\n")
    unit.start_daemon("--content-id-file", ONE, "--content-id-file", OTHER)
    unit.hal.plug("usb stick")
    assert unit.application.expect_message("dataarrival")["contentid"] == "second"
