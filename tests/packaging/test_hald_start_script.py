"""The hardware service's start script, run by BusyBox on a machine of mocked devices."""

import re
from pathlib import Path
from typing import Iterator

import pytest

from readiness import make_starts_slow
from testbed import target, timeouts
from testbed.hald import STATE_FILE, HaldMachine
from testbed.sandbox import TOOLS

SCRIPT = "/etc/init.d/voldrake-hald"
PID_FILE = "/run/voldrake-hald.pid"
APPLETS = ("sh", "start-stop-daemon", "sleep", "rm", "cat", "echo", "test", "[", "ls", "ln")


@pytest.fixture
def machine(log_directory: Path) -> Iterator[HaldMachine]:
    with HaldMachine(log_directory) as started:
        for applet in APPLETS:
            started.sandbox.path(f"{TOOLS}/{applet}").symlink_to("/usr/bin/busybox")
        text = (target.build_directory() / "packaging/start/voldrake-hald").read_text()
        text = re.sub("^DAEMON=.*", f"DAEMON={target.program('voldrake-hald')}", text,
                      flags=re.MULTILINE)
        # The script's own path comes first in the image, so BusyBox's commands are put before it.
        text = text.replace("\nPATH=", f"\nPATH={TOOLS}:")
        started.sandbox.write(SCRIPT, text)
        yield started


def call(machine: HaldMachine, action: str) -> tuple[int, str, str]:
    environment = [f"{name}={value}" for name, value in machine.udev.environment().items()]
    done = machine.sandbox.run(["env", *environment, "/usr/bin/busybox", "sh", SCRIPT, action],
                               timeout=4 * timeouts.RUN)
    return done.returncode, done.stdout, done.stderr


def services(machine: HaldMachine) -> list[str]:
    return [line for line in machine.sandbox.processes().values()
            if line.split()[0] == target.program("voldrake-hald")]


def test_serves_when_the_start_returns(machine: HaldMachine) -> None:
    """The storage-volume daemon, which comes next, looks for it once."""
    assert call(machine, "status") == (3, "voldrake-hald is not running\n", "")
    assert call(machine, "start") == (0, "", "")
    assert machine.objects() == []
    assert call(machine, "status") == (0, "voldrake-hald is running\n", "")
    assert call(machine, "start") == (0, "voldrake-hald is already running\n", "")
    assert len(services(machine)) == 1
    assert call(machine, "stop") == (0, "", "")
    assert services(machine) == []
    assert not machine.sandbox.path(PID_FILE).exists()
    # What the next start needs.
    assert machine.sandbox.path(STATE_FILE).exists()
    assert call(machine, "stop") == (0, "voldrake-hald is not running\n", "")


def test_a_busy_system_starts_it_later(machine: HaldMachine) -> None:
    make_starts_slow(machine.sandbox)
    assert call(machine, "start") == (0, "", "")
    assert machine.objects() == []
    call(machine, "stop")


def test_a_restart_serves_when_it_returns(machine: HaldMachine) -> None:
    call(machine, "start")
    first = machine.sandbox.path(PID_FILE).read_text()
    assert call(machine, "restart") == (0, "", "")
    assert machine.sandbox.path(PID_FILE).read_text() != first
    assert machine.objects() == []
    call(machine, "stop")


def test_tells_when_the_service_ends_at_once(machine: HaldMachine) -> None:
    """Here another service has the name, and a state of an earlier one is there."""
    machine.start_service()
    status, out, err = call(machine, "start")
    assert (status, out) == (1, "")
    assert re.fullmatch(r"voldrake-hald exited at once; run it by hand to see the reason: \S+\n",
                        err)
    assert call(machine, "status") == (3, "voldrake-hald is not running\n", "")


def test_tells_its_usage(machine: HaldMachine) -> None:
    assert call(machine, "reload")[0] == 2
