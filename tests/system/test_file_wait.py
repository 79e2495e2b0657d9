"""The wait for identity files before the daemon goes to work."""

import math
import re
import time

import pytest

from testbed import timeouts
from testbed.daemon import INFO
from testbed.unit import Unit

WAITING = "Voldrake waiting for files to appear"
NOT_FOUND = "Some files not found"
ONE, OTHER = "/etc/one", "/etc/other"
ABOUT_THE_WAIT = re.compile(f"{WAITING}|{NOT_FOUND}|Found: .*")


def about_the_wait(unit: Unit) -> list[str]:
    """The lines that the wait wrote."""
    return [line.text for line in unit.daemon.log_lines()
            if line.level == INFO and ABOUT_THE_WAIT.fullmatch(line.text)]


FILES = {
    "no files to wait for": ([], {}, [WAITING]),
    "a file that is there": (["--content-id-file", ONE], {ONE: "1"}, [WAITING, f"Found: {ONE}"]),
    "files in the order of the command line":
        (["--serial-number-file", OTHER, "--content-id-file", ONE], {ONE: "1", OTHER: "2"},
         [WAITING, f"Found: {OTHER}", f"Found: {ONE}"]),
    "an option given twice, whose files are both waited for":
        (["--content-id-file", ONE, "--content-id-file", OTHER], {ONE: "1", OTHER: "2"},
         [WAITING, f"Found: {ONE}", f"Found: {OTHER}"]),
    "the same file twice":
        (["--content-id-file", ONE, "--serial-number-file", ONE], {ONE: "1"},
         [WAITING, f"Found: {ONE}", f"Found: {ONE}"]),
}


@pytest.mark.parametrize("words, present, lines", FILES.values(), ids=FILES)
def test_it_does_not_wait_when_everything_is_there(unit: Unit, words: list[str],
                                                   present: dict[str, str],
                                                   lines: list[str]) -> None:
    for path, content in present.items():
        unit.sandbox.write(path, content)
    begin = time.monotonic()
    unit.start_daemon(*words, "--file-timeout", "5")
    assert time.monotonic() - begin < timeouts.at_most(1)
    assert about_the_wait(unit) == lines


def test_an_empty_file_counts_as_missing_until_the_time_is_up(unit: Unit) -> None:
    """One deadline for all: the second file is there and is not looked at any more."""
    unit.sandbox.write(ONE, "")
    unit.sandbox.write(OTHER, "2")
    begin = time.monotonic()
    unit.daemon.start("--content-id-file", ONE, "--serial-number-file", OTHER,
                      "--file-timeout", "2")
    unit.daemon.expect_log(INFO, NOT_FOUND)
    # The clock is read in whole seconds and every 250 ms.
    assert 1 <= time.monotonic() - begin <= timeouts.at_most(2.25)
    unit.hal.expect_call("FindDeviceByCapability")
    assert about_the_wait(unit) == [WAITING, NOT_FOUND]


def sleep_until(moment: float) -> None:
    """Let the monotonic clock reach this time."""
    time.sleep(max(0.0, moment - time.monotonic()))


def test_the_deadline_is_one_for_the_whole_list(unit: Unit) -> None:
    """The first file comes in the last second; the second file gets no more than the rest of it."""
    second = math.ceil(time.monotonic())
    sleep_until(second)
    unit.daemon.start("--content-id-file", ONE, "--serial-number-file", OTHER,
                      "--file-timeout", "2")
    unit.daemon.expect_log(INFO, WAITING)
    assert time.monotonic() < second + 1, "too slow to know when the wait began"
    sleep_until(second + 1)
    unit.sandbox.write(ONE, "1")
    unit.daemon.expect_log(INFO, f"Found: {ONE}")
    unit.daemon.expect_log(INFO, NOT_FOUND)
    assert second + 2 <= time.monotonic() <= second + timeouts.at_most(2.25)


def test_a_file_that_appears_is_found_within_a_quarter_of_a_second(unit: Unit) -> None:
    unit.daemon.start("--content-id-file", ONE, "--serial-number-file", OTHER,
                      "--file-timeout", "60")
    unit.daemon.expect_log(INFO, WAITING)
    for path in (ONE, OTHER):
        unit.sandbox.write(path, "")
        unit.sandbox.write(path, "content")
        written = time.monotonic()
        unit.daemon.expect_log(INFO, f"Found: {path}")
        assert time.monotonic() - written <= timeouts.at_most(0.25)
    unit.hal.expect_call("FindDeviceByCapability")
    assert about_the_wait(unit) == [WAITING, f"Found: {ONE}", f"Found: {OTHER}"]


@pytest.mark.parametrize("words", [[], ["--file-timeout", "0"], ["--file-timeout", "-1"],
                                   ["--file-timeout", "soon"]],
                         ids=["not given", "zero", "negative", "not a number"])
def test_without_a_time_there_is_no_wait(unit: Unit, words: list[str]) -> None:
    unit.start_daemon("--content-id-file", ONE, *words)
    assert about_the_wait(unit) == []


def test_the_last_of_two_content_id_files_is_the_one_that_counts(unit: Unit) -> None:
    unit.sandbox.write(ONE, "first\n")
    unit.sandbox.write(OTHER, "second\n")
    unit.start_daemon("--content-id-file", ONE, "--content-id-file", OTHER)
    unit.hal.plug("usb stick")
    assert unit.application.expect_message("dataarrival")["contentid"] == "second"
