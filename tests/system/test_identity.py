"""The content id and the serial number: read from their files when those change."""

import os

import pytest

from local_volumes import STICK, arrival, removal, told
from testbed.daemon import WARNING
from testbed.unit import Unit

_CONTENT, _SERIAL = "/etc/content-id", "/etc/serial-number"
_OPTIONS = ["--content-id-file", _CONTENT, "--serial-number-file", _SERIAL]


def write(unit: Unit, file: str, content: str | bytes, stamp: int) -> None:
    """Give the file this content and modification time."""
    unit.sandbox.write(file, content)
    os.utime(unit.sandbox.path(file), (stamp, stamp))


def told_identity(unit: Unit) -> tuple[str, str]:
    """Content id and serial number that the next arrival reports, as they stand in the message."""
    unit.hal.plug(STICK)
    message = unit.application.next_frame().message()
    assert message.kind == "dataarrival"
    unit.settle()
    unit.hal.pull("stick")
    assert unit.application.next_text() == removal("/media/sda1")
    return message["contentid"], message["serialnumber"]


def test_the_text_is_the_first_line_without_the_space_around_it(unit: Unit) -> None:
    """Of at most 511 bytes, and of nothing behind a NUL; each byte is a character."""
    texts: list[tuple[str | bytes, str]] = [
        ("C-1", "C-1"), ("C-1\n", "C-1"), ("C-1\r\n", "C-1"), (" \t C-1 \t \n", "C-1"),
        ("C-1 with words\nsecond line\n", "C-1 with words"), ("\nsecond line\n", ""), ("", ""),
        ("\n", ""), ("   ", ""), ("x", "x"), (" x \n", "x"), ("\v\fC-1\v\f", "C-1"),
        ("C\0-1\n", "C"), ("\0C-1\n", ""), (510 * "a", 510 * "a"), (511 * "a", 511 * "a"),
        (512 * "a", 511 * "a"), (511 * "a" + "\nb", 511 * "a"), (500 * " " + 50 * "a", 11 * "a"),
        (511 * " " + "a", ""), (510 * "a" + " b", 510 * "a"), ("é", "Ã©"), ("\x01\x1f", "??"),
        (b"\xff\xfe\x80", "\xff\xfe\x80"), (5_000_000 * "a", 511 * "a")]
    unit.start_daemon(*_OPTIONS)
    for stamp, (content, text) in enumerate(texts, 1000):
        write(unit, _CONTENT, content, stamp)
        write(unit, _SERIAL, content, stamp)
        assert told_identity(unit) == (text, text), content[:20]


@pytest.mark.parametrize("prepare", ["mkfifo {0}", "ln -s /run/proc/self/mem {0}"],
                         ids=["a FIFO", "unreadable"])
def test_a_file_that_is_not_there_or_no_text_gives_empty_texts(unit: Unit, prepare: str) -> None:
    """A FIFO without writer must not hold the daemon up."""
    for file in (_CONTENT, _SERIAL):
        assert unit.sandbox.run(["sh", "-c", prepare.format(file)]).returncode == 0
    unit.start_daemon(*_OPTIONS)
    assert told_identity(unit) == ("", "")


def test_an_endless_file_gives_its_beginning(unit: Unit) -> None:
    unit.start_daemon("--content-id-file", "/dev/zero", "--serial-number-file", "/run/proc/1/stat")
    content, serial = told_identity(unit)
    assert content == ""
    assert serial.startswith("1 (")


def test_without_options_both_texts_are_empty(running_unit: Unit) -> None:
    assert told_identity(running_unit) == ("", "")


def test_each_text_comes_from_its_own_file(unit: Unit) -> None:
    write(unit, _CONTENT, "content", 1000)
    write(unit, _SERIAL, "serial", 1000)
    unit.start_daemon(*_OPTIONS)
    assert told_identity(unit) == ("content", "serial")


def test_the_last_of_several_files_counts(unit: Unit) -> None:
    write(unit, _CONTENT, "first", 1000)
    write(unit, _SERIAL, "second", 1000)
    unit.start_daemon("--content-id-file", _CONTENT, "--content-id-file", _SERIAL)
    assert told_identity(unit) == ("second", "")


def test_a_changed_file_is_read_again_and_an_unchanged_one_is_not(unit: Unit) -> None:
    """Only the modification time tells."""
    write(unit, _CONTENT, "first", 1000)
    write(unit, _SERIAL, "serial", 2000)
    unit.start_daemon(*_OPTIONS)
    assert told_identity(unit) == ("first", "serial")
    write(unit, _CONTENT, "second", 1000)
    assert told_identity(unit) == ("first", "serial")
    write(unit, _CONTENT, "third", 1001)
    assert told_identity(unit) == ("third", "serial")
    write(unit, _CONTENT, "fourth", 999)
    assert told_identity(unit) == ("fourth", "serial")


def test_a_file_that_goes_takes_its_text_along(unit: Unit) -> None:
    write(unit, _CONTENT, "first", 1000)
    write(unit, _SERIAL, "serial", 1000)
    unit.start_daemon(*_OPTIONS)
    assert told_identity(unit) == ("first", "serial")
    unit.sandbox.path(_CONTENT).unlink()
    assert told_identity(unit) == ("", "serial")
    write(unit, _CONTENT, "back", 1000)
    assert told_identity(unit) == ("back", "serial")


def test_a_file_that_comes_later_is_read(unit: Unit) -> None:
    unit.start_daemon(*_OPTIONS)
    assert told_identity(unit) == ("", "")
    write(unit, _SERIAL, "serial", 1000)
    assert told_identity(unit) == ("", "serial")


def test_a_file_as_old_as_the_epoch_counts_as_missing(unit: Unit) -> None:
    write(unit, _CONTENT, "content", 0)
    unit.start_daemon(*_OPTIONS)
    assert told_identity(unit) == ("", "")


def test_an_unchanged_file_is_opened_once(unit: Unit) -> None:
    """Its access time tells, which the file system sets on the first reading only."""
    file = unit.sandbox.path(_CONTENT)
    write(unit, _CONTENT, "content", 2_000_000_000)
    os.utime(file, (1, 2_000_000_000))
    unit.start_daemon(*_OPTIONS)
    assert told_identity(unit) == ("content", "")
    assert file.stat().st_atime > 1
    os.utime(file, (1, 2_000_000_000))
    assert told_identity(unit) == ("content", "")
    assert file.stat().st_atime == 1


def test_a_file_that_the_daemon_may_not_read_is_told(unit: Unit) -> None:
    """Root too may not, without the capability for it, as under the systemd unit."""
    write(unit, _CONTENT, "C-1", 1000)
    write(unit, _SERIAL, "S-1", 1000)
    unit.sandbox.path(_CONTENT).chmod(0)
    unit.daemon.start(*_OPTIONS, launcher=["setpriv", "--bounding-set", "-all"])
    unit.daemon.expect_log(WARNING, f"Identity file {_CONTENT} cannot be read: Permission denied")
    unit.hal.expect_call("FindDeviceByCapability")
    unit.hal.plug(STICK)
    assert unit.application.next_text() == arrival("/media/sda1", serial_number="S-1")
    assert not [line for line in unit.daemon.log_lines() if _SERIAL in line.text]


def test_the_texts_are_refreshed_by_the_scan(unit: Unit) -> None:
    """Even when it finds nothing to register: republishing then has the new texts."""
    write(unit, _CONTENT, "first", 1000)
    unit.start_daemon(*_OPTIONS)
    unit.hal.plug(STICK)
    unit.hal.plug("usb other")
    assert told(unit, 2) == [arrival("/media/sda1", content_id="first"),
                             arrival("/media/sdb1", content_id="first")]
    write(unit, _CONTENT, "second", 2000)
    unit.daemon.signal(10)
    assert told(unit, 2) == [arrival("/media/sda1", content_id="first"),
                             arrival("/media/sdb1", content_id="first")]
    unit.hal.command("answer FindDeviceByCapability (@as [],)")
    unit.daemon.signal(12)
    assert unit.application.next_text() == removal("/media/sda1")
    unit.daemon.signal(10)
    assert unit.application.next_text() == arrival("/media/sdb1", content_id="second")


def test_the_texts_are_refreshed_by_an_arrival_that_is_registered_already(unit: Unit) -> None:
    write(unit, _CONTENT, "first", 1000)
    unit.start_daemon(*_OPTIONS)
    unit.hal.plug(STICK)
    assert unit.application.next_text() == arrival("/media/sda1", content_id="first")
    unit.settle()
    write(unit, _CONTENT, "second", 2000)
    unit.hal.command("remount stick ro")
    unit.settle()
    unit.daemon.signal(10)
    assert unit.application.next_text() == arrival("/media/sda1", content_id="second")
