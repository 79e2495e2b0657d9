"""The log: what is written at which level, the form of a line, and files that go wrong."""

import os
import re
import signal
import time

import pytest

from testbed.daemon import DEBUG, ERROR, INFO, LOG_FILE, WARNING
from testbed.syslog import Record
from testbed.unit import Unit

DAEMON_FACILITY = 3
#: The clock of time(): the kernel's last tick, which can be behind the exact time.
CLOCK_REALTIME_COARSE = 5
SYSLOG_PRIORITIES = {ERROR: 3, WARNING: 4, INFO: 6, DEBUG: 7}
VERSION = "Version - 1.10 Client port - 8080"
#: Lines of one daemon's life, written by `have_each_level_written`.
OF_EACH_LEVEL = {
    ERROR: "org.freedesktop.Hal.NoSuchDevice: gone",
    WARNING: "HAL: propertyString() - invalid message type",
    INFO: "Voldrake startup",
    DEBUG: "_ManualScan:",
}


def start(unit: Unit, *words: str, log_file: str | None = LOG_FILE) -> None:
    """Start the daemon without a level from the testbed and wait for the end of its start-up."""
    unit.daemon.start(*words, log_file=log_file, debug_level=None)
    unit.hal.expect_call("FindDeviceByCapability")
    unit.settle()


def have_each_level_written(unit: Unit, *words: str, log_file: str | None = LOG_FILE) -> None:
    """Start the daemon and let it meet an error and a reply of the wrong type."""
    start(unit, *words, log_file=log_file)
    unit.hal.command("fail GetPropertyString:info.parent org.freedesktop.Hal.NoSuchDevice gone")
    unit.hal.plug("usb one")
    unit.hal.command("answer GetPropertyString:info.parent (7,)")
    unit.hal.plug("usb two")
    unit.settle()


LEVELS = {
    "0": (["--debuglevel", "0"], set()),
    "5, which is ignored": (["--debuglevel", "5"], {ERROR, WARNING, INFO}),
}


@pytest.mark.parametrize("words, levels", LEVELS.values(), ids=LEVELS)
def test_the_level_decides_what_is_written(unit: Unit, words: list[str],
                                           levels: set[int]) -> None:
    have_each_level_written(unit, *words)
    lines = unit.daemon.log_lines()
    assert {line.level for line in lines} == levels
    assert {level for level, text in OF_EACH_LEVEL.items()
            if text in [line.text for line in lines if line.level == level]} == levels


def test_the_file_has_one_line_per_entry_with_time_name_and_prefix(unit: Unit) -> None:
    have_each_level_written(unit, "--debuglevel", "4")
    lines = unit.content(LOG_FILE).splitlines()
    clock = r"\d\d:\d\d:\d\d"
    for line in ("Voldrake: Log:    Voldrake startup",
                 f"Voldrake: Log:    {VERSION}",
                 "Voldrake: Debug:  _ManualScan:",
                 "Voldrake: Error:  org.freedesktop.Hal.NoSuchDevice: gone",
                 "Voldrake: Warning:HAL: propertyString() - invalid message type"):
        found = [written for written in lines if written.endswith(line)]
        assert len(found) == 1, line
        assert re.fullmatch(f"{clock}: {re.escape(line)}", found[0])
    assert unit.syslog.records() == []


@pytest.mark.parametrize("zone, hours", [("UTC", 0), ("EAST-5", 5), ("WEST+11", -11)])
def test_the_time_is_the_local_one(unit: Unit, zone: str, hours: int) -> None:
    def clock() -> str:
        seconds = time.clock_gettime(CLOCK_REALTIME_COARSE)
        return time.strftime("%H:%M:%S", time.gmtime(seconds + hours * 3600))

    before = clock()
    unit.daemon.start(environment={"TZ": zone, "LC_ALL": "C.UTF-8"})
    line = unit.daemon.expect_log(INFO, "Voldrake startup")
    after = clock()
    assert before <= line.clock <= after or before > after  # midnight lies in between


@pytest.mark.parametrize("words", [[], ["--log", ""]], ids=["no log option", "an empty one"])
def test_without_a_file_syslog_gets_the_bare_message(unit: Unit, words: list[str]) -> None:
    have_each_level_written(unit, "--debuglevel", "4", *words, log_file=None)
    for level, text in OF_EACH_LEVEL.items():
        assert Record(SYSLOG_PRIORITIES[level], DAEMON_FACILITY, "Voldrake", None, text) in (
            unit.syslog.records())
    assert {record.ident for record in unit.syslog.records()} == {"Voldrake"}
    assert not unit.exists(LOG_FILE)


def test_a_file_that_exists_is_appended_to(unit: Unit) -> None:
    unit.sandbox.write(LOG_FILE, "an older line\n")
    start(unit)
    lines = unit.content(LOG_FILE).splitlines()
    assert lines[0] == "an older line"
    assert lines[1].endswith(": Voldrake: Log:    Voldrake startup")


@pytest.mark.parametrize("deleted", [True, False], ids=["deleted", "moved away"])
def test_a_file_that_went_is_made_again_with_the_version_at_its_head(running_unit: Unit,
                                                                     deleted: bool) -> None:
    log = running_unit.sandbox.path(LOG_FILE)
    if deleted:
        log.unlink()
    else:
        log.rename(log.with_name("old.log"))
    running_unit.daemon.signal(signal.SIGHUP)
    running_unit.daemon.expect_log(INFO, "Starting new log file")
    running_unit.daemon.expect_log(INFO, VERSION)
    lines = running_unit.content(LOG_FILE).splitlines()
    assert [line.split(": ", 1)[1] for line in lines if "dBusHandler()" not in line] == [
        "Voldrake: Log:    Starting new log file", f"Voldrake: Log:    {VERSION}"]


UNWRITABLE = {
    "in a directory that does not exist": "/nowhere/voldrake.log",
    "on a read-only file system": "/usr/voldrake.log",
}


@pytest.mark.parametrize("log_file", UNWRITABLE.values(), ids=UNWRITABLE)
def test_entries_for_a_file_that_cannot_be_written_are_dropped(unit: Unit, log_file: str) -> None:
    start(unit, log_file=log_file)
    unit.hal.plug("usb stick")
    unit.application.expect_message("dataarrival", path="/media/sda1")
    unit.hal.pull("stick")
    unit.application.expect_message("dataremoval", path="/media/sda1")
    unit.settle()
    assert unit.syslog.records() == []


def test_on_a_full_disk_entries_are_dropped_until_there_is_room(unit: Unit) -> None:
    disk = "/srv/tiny"
    unit.sandbox.path(disk).mkdir()
    done = unit.sandbox.run(["mount", "-t", "tmpfs", "-o", "size=64k", "tmpfs", disk])
    assert done.returncode == 0, done.stderr
    log_file, filler = f"{disk}/voldrake.log", f"{disk}/filler"
    unit.sandbox.run(["cp", "/dev/zero", filler])
    assert os.statvfs(unit.sandbox.path(disk)).f_bavail == 0
    start(unit, log_file=log_file)
    unit.hal.plug("usb stick")
    unit.application.expect_message("dataarrival", path="/media/sda1")
    unit.settle()
    assert unit.content(log_file) == ""
    unit.sandbox.path(filler).unlink()
    unit.daemon.signal(signal.SIGHUP)
    unit.daemon.expect_log(INFO, "Starting new log file")
    unit.daemon.expect_log(INFO, VERSION)


def test_texts_from_outside_cannot_start_a_line_of_their_own(running_unit: Unit) -> None:
    forged = r"\n00:00:00: Voldrake: Error:  forged\u001b[31m\u007f"
    running_unit.hal.command('emit /org/freedesktop/Hal/Manager org.freedesktop.Hal.Manager'
                             fr' DeviceAdded ("/org/freedesktop/Hal/devices/volume{forged}",)')
    running_unit.settle()
    written = running_unit.content(LOG_FILE)
    assert "volume?00:00:00: Voldrake: Error:  forged?[31m?" in written
    assert not re.search(r"[\x00-\x09\x0b-\x1f\x7f]", written)
    assert running_unit.daemon.logged(ERROR, "forged?[31m?") == 0
    assert running_unit.daemon.strange_lines() == []
