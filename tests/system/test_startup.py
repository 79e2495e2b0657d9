"""Start-up and shutdown: their order, Unix signals, and going into the background."""

import json
import os
import re
import signal
from pathlib import Path

import pytest

from bus_observer import BusObserver
from observations import signal_set
from testbed import target, timeouts
from testbed.daemon import DEBUG, ERROR, INFO
from testbed.strace import Strace, Trace
from testbed.unit import Unit

HAL = "org.freedesktop.Hal"
MATCH_RULES = [
    "type='signal',interface='org.freedesktop.Hal.Manager',sender='org.freedesktop.Hal',"
    "path='/org/freedesktop/Hal/Manager'",
    "type='signal',interface='org.freedesktop.Hal.Device',sender='org.freedesktop.Hal'",
]
#: What the hardware service may be asked.
HAL_METHODS = {"FindDeviceByCapability", "GetPropertyString", "GetPropertyInteger",
               "GetPropertyBoolean", "Mount"}
#: Written by another thread, at any place of the log, and for every message of the bus.
NOT_OF_INTEREST = ("tMessageClient::run", "dBusHandler()")

#: Adopts what its child leaves behind and tells how each process ended, as pairs of id and status.
REAPER = """
import ctypes, json, os, subprocess, sys
ctypes.CDLL(None).prctl(36, 1)
os.chdir("/srv")
child = subprocess.Popen(sys.argv[1:])  # kept: one that goes out of use is waited for elsewhere
while True:
    try:
        print(json.dumps(os.wait()), flush=True)
    except ChildProcessError:
        break
"""


def texts(unit: Unit) -> list[tuple[int, str]]:
    """The main thread's log lines so far."""
    return [(line.level, line.text) for line in unit.daemon.log_lines()
            if line.text not in NOT_OF_INTEREST]


@pytest.mark.usefixtures("traced_to_its_end")
@pytest.mark.unit_options(configuration="name=A\nusbid=1-1\n")
def test_the_log_shows_the_order_of_start_up_and_shutdown(unit: Unit) -> None:
    unit.sandbox.write("/etc/content-id", "id\n")
    unit.start_daemon("--content-id-file", "/etc/content-id", "--file-timeout", "5")
    started = texts(unit)
    assert started[:8] == [
        (INFO, "Voldrake startup"),
        (INFO, "Version - 1.10 Client port - 8080"),
        (INFO, "Voldrake waiting for files to appear"),
        (INFO, "Found: /etc/content-id"),
        (INFO, "USB MAP: name=A usbid=1-1 mmc=false ignore=false ignoreDevice="),
        (DEBUG, "initHal()"),
        (INFO, "_ManualScan()"),
        (DEBUG, "_ManualScan:"),
    ]
    with Strace(unit.daemon.process, unit.sandbox.logs / "strace", "-s", "100",
                "-e", "trace=write") as trace:
        assert unit.daemon.terminate() == 0
    # The publisher gives the clients of its exports a second and two more.
    begin, end = trace.times(r"^write.*(Exiting|freeHal\(\))")
    assert end - begin >= 3
    assert texts(unit)[len(started):] == [
        (INFO, "Handling SIGTERM"), (INFO, "Exiting"), (DEBUG, "freeHal()")]
    assert unit.daemon.stderr() == ""


def test_the_bus_is_asked_for_nothing_but_what_is_needed(unit: Unit) -> None:
    """The whole life of a daemon, from Hello to the withdrawal of its match rules."""
    observer = BusObserver(unit)
    unit.start_daemon()
    unit.hal.plug("usb stick")
    unit.hal.plug("sd card")
    for _ in range(2):
        unit.application.expect_message("dataarrival")
    unit.hal.pull("stick")
    unit.application.expect_message("dataremoval")
    unit.settle()
    daemon = unit.hal.caller()
    assert unit.daemon.terminate() == 0
    calls = observer.calls_of(daemon)
    of_the_bus = [(call.member, *call.texts) for call in calls if call.destination != HAL]
    assert of_the_bus == [("Hello",), ("NameHasOwner", HAL),
                          *[("AddMatch", rule) for rule in MATCH_RULES],
                          *[("RemoveMatch", rule) for rule in MATCH_RULES]]
    assert [call.member for call in calls[:5]] == [
        "Hello", "NameHasOwner", "AddMatch", "AddMatch", "FindDeviceByCapability"]
    assert [call.member for call in calls[-2:]] == ["RemoveMatch", "RemoveMatch"]
    assert {call.member for call in calls if call.destination == HAL} == HAL_METHODS


def test_sighup_marks_a_new_log_file_every_time(running_unit: Unit) -> None:
    for _ in range(2):
        before = len(texts(running_unit))
        running_unit.daemon.signal(signal.SIGHUP)
        running_unit.daemon.expect_log(INFO, "Starting new log file")
        running_unit.daemon.expect_log(INFO, "Version - 1.10 Client port - 8080")
        assert texts(running_unit)[before:] == [
            (INFO, "Starting new log file"), (INFO, "Version - 1.10 Client port - 8080")]


@pytest.mark.parametrize("number, line", [
    (signal.SIGUSR1, "SIGUSR1: Republishing all mounted FS to VessaApp"),
    (signal.SIGUSR2, "SIGUSR2: Simulating removing/inserting SD card"),
], ids=["SIGUSR1", "SIGUSR2"])
def test_a_user_signal_acts_every_time(running_unit: Unit, number: int, line: str) -> None:
    for _ in range(2):
        running_unit.daemon.signal(number)
        running_unit.daemon.expect_log(INFO, line)
    running_unit.settle()


def test_a_second_sigterm_does_not_cut_the_shutdown_short(running_unit: Unit) -> None:
    running_unit.daemon.signal(signal.SIGTERM)
    running_unit.daemon.expect_log(INFO, "Exiting")
    for number in (signal.SIGTERM, signal.SIGHUP, signal.SIGUSR1, signal.SIGUSR2):
        running_unit.daemon.signal(number)
    assert running_unit.daemon.wait() == 0
    running_unit.daemon.expect_log(DEBUG, "freeHal()")


@pytest.mark.native("the signal handlers would be seen")
def test_user_signals_are_ignored_until_the_daemon_is_built(unit: Unit) -> None:
    unit.daemon.start("--content-id-file", "/etc/content-id", "--file-timeout", "60")
    unit.daemon.expect_log(INFO, "Voldrake waiting for files to appear")
    of_interest = {signal.SIGTERM, signal.SIGHUP, signal.SIGUSR1, signal.SIGUSR2}
    assert signal_set(unit, "SigIgn") & of_interest == {signal.SIGUSR1, signal.SIGUSR2}
    assert signal_set(unit, "SigCgt") & of_interest == set()
    unit.daemon.signal(signal.SIGUSR1)
    unit.daemon.signal(signal.SIGUSR2)
    unit.sandbox.write("/etc/content-id", "id\n")
    unit.daemon.expect_log(INFO, "Found: /etc/content-id")
    unit.hal.expect_call("FindDeviceByCapability")
    unit.settle()
    assert signal_set(unit, "SigCgt") & of_interest == of_interest
    assert [text for _, text in texts(unit) if text.startswith("SIGUSR")] == []
    unit.daemon.signal(signal.SIGUSR1)
    unit.daemon.expect_log(INFO, "SIGUSR1: Republishing all mounted FS to VessaApp")


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGHUP], ids=["SIGTERM", "SIGHUP"])
def test_signals_that_end_a_process_do_so_during_the_file_wait(unit: Unit, number: int) -> None:
    unit.daemon.start("--content-id-file", "/etc/content-id", "--file-timeout", "60")
    unit.daemon.expect_log(INFO, "Voldrake waiting for files to appear")
    unit.daemon.signal(number)
    assert unit.daemon.wait() == -number


@pytest.mark.native("the program's name would be seen")
def test_in_the_background_it_is_detached_and_ends_in_good_order(
        unit: Unit, monkeypatch: pytest.MonkeyPatch) -> None:
    reaper = ["/usr/bin/python3", "-c", REAPER, *target.daemon_command()]
    monkeypatch.setattr(target, "daemon_command", lambda: reaper)
    unit.start_daemon("--daemon")
    # The process that was started has ended; the one that it left behind has not.
    _, status = json.loads(unit.daemon.process.expect_stdout(re.compile(r"\[.*\]\n"))[0])
    assert status == 0
    pid = next(pid for pid, line in unit.sandbox.processes().items()
               if line.startswith(target.program("voldrake") + " "))
    assert os.readlink(f"/proc/{pid}/cwd") == "/"
    streams = {os.stat(f"/proc/{pid}/fd/{number}").st_rdev for number in range(3)}
    assert streams == {os.makedev(1, 3)}
    assert os.getsid(pid) == pid
    unit.hal.plug("usb stick")
    unit.application.expect_message("dataarrival", path="/media/sda1")
    os.kill(pid, signal.SIGTERM)
    assert unit.daemon.wait() == 0  # nothing is left of it
    ends = [json.loads(line)[1] for line in unit.daemon.process.stdout().splitlines()]
    assert ends == [0, 0]
    unit.daemon.expect_log(DEBUG, "freeHal()")


def test_when_it_cannot_go_into_the_background_it_ends_without_a_word(
        unit: Unit, monkeypatch: pytest.MonkeyPatch) -> None:
    unit.sandbox.write("/srv/no-device", "")
    done = unit.sandbox.run(["mount", "--bind", "/srv/no-device", "/dev/null"])
    assert done.returncode == 0, done.stderr
    reaper = ["/usr/bin/python3", "-c", REAPER, *target.daemon_command()]
    monkeypatch.setattr(target, "daemon_command", lambda: reaper)
    unit.daemon.start("--daemon")
    assert unit.daemon.wait() == 0
    ends = [json.loads(line)[1] for line in unit.daemon.process.stdout().splitlines()]
    assert [os.waitstatus_to_exitcode(status) for status in ends] == [0, 1]
    assert unit.daemon.stderr() == ""
    assert texts(unit) == []
    assert unit.syslog.records() == []


def test_a_device_that_comes_during_the_start_up_scan_is_not_lost(unit: Unit) -> None:
    unit.hal.command("delay FindDeviceByCapability 300")
    unit.daemon.start()
    unit.hal.expect_call("FindDeviceByCapability")
    unit.hal.plug("usb stick")
    unit.application.expect_message("dataarrival", path="/media/sda1")
    unit.settle()
    assert [call.member for call in unit.hal.calls()].count("Mount") == 1
    assert len(unit.application.frames()) == 1


_STREAMS = ("<&-", ">&-", "2>&-")


@pytest.mark.parametrize("closed", [{0}, {1}, {2}, {0, 1}, {0, 2}, {1, 2}, {0, 1, 2}],
                         ids=lambda closed: " and ".join(map(str, sorted(closed))))
@pytest.mark.native("the descriptors would be seen")
def test_standard_streams_that_are_closed_are_opened_on_the_null_device(unit: Unit,
                                                                        closed: set[int]) -> None:
    """Nothing else gets their descriptors: not the log, the bus or a tool's standard error."""
    script = " ".join(['exec "$@"', *(_STREAMS[number] for number in sorted(closed))])
    unit.daemon.start(launcher=["sh", "-c", script, "sh"])
    unit.hal.expect_call("FindDeviceByCapability")
    unit.settle()
    descriptors = Path(f"/proc/{unit.daemon.process.pid}/fd")
    opened = {number for number in range(3)
              if os.readlink(descriptors / str(number)) == "/dev/null"}
    assert opened == closed | {0}, "standard input is empty anyway"
    flags = (descriptors.parent / "fdinfo" / str(max(closed))).read_text()
    assert int(flags.split("flags:")[1].split()[0], 8) & os.O_ACCMODE == os.O_RDWR
    assert unit.daemon.terminate() == 0


@pytest.mark.native("its own threads would be made")
@pytest.mark.parametrize("which", [1, 2, 3, 4],
                         ids=["the message client", "the publisher", "the service list",
                              "the browser"])
def test_without_one_of_its_threads_the_daemon_goes_on(unit: Unit, which: int) -> None:
    when = which + target.sanitizer_threads()
    unit.daemon.start(launcher=Trace.launcher("/var/log/strace", "-e", "trace=clone3", "-e",
                                              f"inject=clone3:error=EAGAIN:when={when}"))
    unit.daemon.expect_log(ERROR, "tThread::Start: creating a thread failed:"
                                  " Resource temporarily unavailable", timeouts.START)
    unit.hal.expect_call("FindDeviceByCapability", timeout=timeouts.START)
    unit.settle()
    unit.hal.plug("usb stick")
    unit.daemon.expect_log(INFO, "symlink: /media/USB Memory Card A1 -> sda1")
    if which != 1:
        unit.application.expect_message("dataarrival", path="/media/sda1")
    assert unit.daemon.terminate() == 0
