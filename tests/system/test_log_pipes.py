"""The log, and standard error, as a pipe: nobody reads it, the reader goes, or it does not read."""

import fcntl
import os
import signal
from pathlib import Path
from typing import IO, Iterator

import pytest

from observations import signal_set
from testbed.daemon import DEBUG, ERROR, INFO, LOG_FILE
from testbed.unit import Unit
from testbed.waiting import wait_until

FIFO = "/srv/voldrake.fifo"
HEAD = "Voldrake: Log:    "


def broken_pipe_as(descriptor: int) -> list[str]:
    """A launcher whose program has a pipe without a reader as this descriptor."""
    return ["bash", "-c", f'exec 3> >(:); wait $!; exec "$@" {descriptor}>&3 3>&-', "bash"]


def make_fifo(unit: Unit) -> Path:
    """A FIFO for the log; its path out here."""
    path = unit.sandbox.path(FIFO)
    os.mkfifo(path)
    return path


def start(unit: Unit, log_file: str, *words: str, launcher: tuple[str, ...] = ()) -> None:
    """Start the daemon with this log and wait for the end of its start-up."""
    unit.daemon.start(*words, log_file=log_file, launcher=launcher)
    unit.hal.expect_call("FindDeviceByCapability")
    unit.settle()


def expect_all_works(unit: Unit) -> None:
    """A volume comes and goes, and the daemon ends when it is told to."""
    unit.hal.plug("usb stick")
    unit.application.expect_message("dataarrival", path="/media/sda1")
    unit.hal.pull("stick")
    unit.application.expect_message("dataremoval", path="/media/sda1")
    assert unit.daemon.terminate() == 0


class Reader:
    """The reading end of the FIFO: a pipe of one page, and reading never waits."""

    def __init__(self, path: Path) -> None:
        self._path = path
        self._end: IO[bytes] | None = None

    def open(self) -> None:
        """Be there again."""
        self._end = open(self._path, "rb", buffering=0, opener=lambda path, flags: os.open(
            path, flags | os.O_NONBLOCK))
        fcntl.fcntl(self._end, fcntl.F_SETPIPE_SZ, 4096)

    def close(self) -> None:
        """Go. May be called again."""
        assert self._end
        self._end.close()

    def expect(self, text: str) -> None:
        """Read until a line with this end comes; all that is read are whole lines of the log."""
        lines: list[str] = []

        def comes() -> bool:
            assert self._end
            lines.extend((self._end.read(1 << 16) or b"").decode().splitlines(keepends=True))
            return any(line.endswith(f": {text}\n") for line in lines)

        wait_until(comes, text)
        assert all(line[8:19] == ": Voldrake:" and line.endswith("\n") for line in lines), lines


@pytest.fixture
def reader(unit: Unit) -> Iterator[Reader]:
    """Somebody who has opened the FIFO."""
    end = Reader(make_fifo(unit))
    end.open()
    yield end
    end.close()


def test_a_fifo_that_nobody_reads_holds_nothing_up(unit: Unit) -> None:
    make_fifo(unit)
    start(unit, FIFO)
    expect_all_works(unit)


def test_a_log_that_becomes_a_fifo_holds_nothing_up(running_unit: Unit) -> None:
    log = running_unit.sandbox.path(LOG_FILE)
    log.rename(log.with_name("old.log"))
    os.mkfifo(log)
    expect_all_works(running_unit)


def test_a_pipe_whose_reader_has_gone_ends_nothing(unit: Unit) -> None:
    start(unit, "/proc/self/fd/1", launcher=broken_pipe_as(1))
    expect_all_works(unit)


def test_a_fifo_whose_reader_goes_and_comes_back(unit: Unit, reader: Reader) -> None:
    start(unit, FIFO)
    reader.expect(f"{HEAD}Voldrake startup")
    reader.close()
    unit.hal.plug("usb stick")
    unit.application.expect_message("dataarrival", path="/media/sda1")
    reader.open()
    unit.daemon.signal(signal.SIGHUP)
    reader.expect(f"{HEAD}Starting new log file")
    assert unit.daemon.terminate() == 0


def test_a_fifo_whose_reader_does_not_read_drops_whole_lines(unit: Unit, reader: Reader) -> None:
    """More than the pipe takes is written with each volume."""
    start(unit, FIFO)
    for name in ("one", "two"):
        unit.hal.plug(f"usb {name}")
        unit.application.expect_message("dataarrival")
    unit.settle()
    reader.expect(f"{HEAD}Voldrake startup")
    unit.daemon.signal(signal.SIGHUP)
    reader.expect(f"{HEAD}Starting new log file")
    assert unit.daemon.terminate() == 0


def test_without_a_system_log_everything_works(unit: Unit) -> None:
    unit.sandbox.path("/dev/log").unlink()
    unit.daemon.start(log_file=None)
    unit.hal.expect_call("FindDeviceByCapability")
    unit.settle()
    expect_all_works(unit)


def test_a_wrong_command_line_ends_with_1_though_nobody_reads_why(unit: Unit) -> None:
    unit.daemon.start("--unknown", launcher=broken_pipe_as(2))
    assert unit.daemon.wait() == 1


def test_a_failed_assertion_aborts_though_nobody_reads_why(unit: Unit) -> None:
    start(unit, LOG_FILE, launcher=broken_pipe_as(2))
    unit.daemon.expect_log(DEBUG, "tMessageClient::run")
    unit.hal.plug("usb stick volume-block=sda1")
    assert unit.daemon.wait() == -signal.SIGABRT
    unit.daemon.expect_log(ERROR, "_DeviceAdded: GetNextMountPointName failed")


@pytest.mark.native("the signal handlers would be seen")
@pytest.mark.parametrize("launcher", [[], ["env", "--ignore-signal=PIPE"]],
                         ids=["as at boot", "started with it ignored"])
def test_a_tool_gets_the_default_for_a_broken_pipe(unit: Unit, launcher: list[str]) -> None:
    unit.add_tool("exportfs", "#!/bin/sh\nexec grep ^SigIgn /run/proc/self/status > /srv/ignored\n")
    start(unit, LOG_FILE, launcher=launcher)
    unit.hal.plug("usb stick")
    unit.application.expect_message("dataarrival")
    unit.hal.pull("stick")
    unit.application.expect_message("dataremoval")
    unit.settle()
    ignored = int(unit.sandbox.path("/srv/ignored").read_text().split()[1], 16)
    assert not ignored >> (signal.SIGPIPE - 1) & 1


@pytest.mark.native("the signal handlers would be seen")
def test_a_broken_pipe_is_taken_care_of_from_the_start(unit: Unit) -> None:
    unit.daemon.start("--content-id-file", "/etc/content-id", "--file-timeout", "60")
    unit.daemon.expect_log(INFO, "Voldrake waiting for files to appear")
    unit.daemon.signal(signal.SIGPIPE)
    unit.sandbox.write("/etc/content-id", "id\n")
    unit.daemon.expect_log(INFO, "Found: /etc/content-id")
    wait_until(lambda: signal.SIGTERM in signal_set(unit, "SigCgt"), "it handles SIGTERM")
    assert unit.daemon.terminate() == 0
