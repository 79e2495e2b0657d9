"""Log rotation with the real logrotate: the new file begins with the daemon's version."""

import re
import signal

import pytest

from readiness import expect_handler, expect_line
from testbed.sandbox import TOOLS, Sandbox
from testbed.waiting import wait_until

LOG = "/var/log/voldrake.log"
CLOCK = r"\d\d:\d\d:\d\d: Voldrake: Log:    "


@pytest.fixture
def unit(tree, sandbox: Sandbox) -> Sandbox:
    """A sandbox with the rotation's configuration in place."""
    sandbox.write("/etc/logrotate.d/voldrake", tree.path("etc/logrotate.d/voldrake").read_text())
    sandbox.path("/var/lib").mkdir(exist_ok=True)
    return sandbox


def start(unit: Sandbox, tree):
    daemon = unit.spawn([f"{tree.prefix}/sbin/voldrake", "--log", LOG], "voldrake")
    expect_line(unit, LOG, "HAL: Connection - closed")  # the last one of a start without a bus
    expect_handler(unit, signal.SIGHUP)
    return daemon


def rotate(unit: Sandbox) -> None:
    done = unit.run(["logrotate", "--force", "--state", "/var/lib/rotation",
                     "/etc/logrotate.d/voldrake"])
    assert (done.returncode, done.stderr) == (0, "")


def test_with_systemd(unit: Sandbox, tree) -> None:
    """systemctl is a stand-in here, which answers what it is asked."""
    daemon = start(unit, tree)
    inside = unit.run(["pidof", "voldrake"]).stdout.strip()
    unit.path("/run/systemd/system").mkdir(parents=True)
    unit.write(f"{TOOLS}/systemctl", f"""#!/bin/sh
[ "$*" = "show --property=MainPID --value voldrake.service" ] && echo {inside}
""")
    unit.path(f"{TOOLS}/systemctl").chmod(0o755)
    rotate(unit)
    expect_line(unit, LOG, "Version - 1.10")
    assert_head(unit)
    assert daemon.terminate() == 0


def test_with_the_start_script(unit: Sandbox, tree) -> None:
    unit.path(f"{TOOLS}/start-stop-daemon").symlink_to("/usr/bin/busybox")
    daemon = start(unit, tree)
    unit.write("/run/voldrake.pid", unit.run(["pidof", "voldrake"]).stdout)
    rotate(unit)
    expect_line(unit, LOG, "Version - 1.10")
    assert_head(unit)
    assert daemon.terminate() == 0


def test_leaves_a_daemon_that_waits_for_its_identity_alone(unit: Sandbox, tree) -> None:
    """Until its start-up is done the signal would end the daemon."""
    identity = "/srv/content-id"
    daemon = unit.spawn([f"{tree.prefix}/sbin/voldrake", "--log", LOG, "--content-id-file",
                         identity, "--file-timeout", "1000"], "voldrake")
    expect_line(unit, LOG, "Voldrake waiting for files to appear")
    unit.write("/run/voldrake.pid", unit.run(["pidof", "voldrake"]).stdout)
    rotate(unit)
    unit.write(identity, "7\n")
    expect_line(unit, LOG, f"Found: {identity}")
    expect_line(unit, LOG, "_ManualScan()")
    expect_handler(unit, signal.SIGTERM)
    assert "Starting new log file" not in unit.path(LOG).read_text()
    assert daemon.terminate() == 0


def test_leaves_a_stranger_with_the_daemons_number_alone(unit: Sandbox) -> None:
    stranger = unit.spawn(
        ["sh", "-c", "trap 'echo told' HUP; trap 'echo ended; exit' TERM;"
         " echo $$ > /run/new.pid; mv /run/new.pid /run/voldrake.pid; while :; do sleep 0.1; done"],
        "stranger")
    wait_until(unit.path("/run/voldrake.pid").exists, "the stranger's number")
    unit.write(LOG, "an old line\n")
    rotate(unit)
    assert stranger.terminate() == 0
    assert stranger.stdout() == "ended\n"


def test_with_no_daemon_running(unit: Sandbox) -> None:
    unit.path(f"{TOOLS}/start-stop-daemon").symlink_to("/usr/bin/busybox")
    unit.write(LOG, "an old line\n")
    unit.write("/run/voldrake.pid", "99999\n")
    rotate(unit)
    assert not unit.path(LOG).exists()


def test_with_no_log_at_all(unit: Sandbox) -> None:
    rotate(unit)


def assert_head(unit: Sandbox) -> None:
    """The new file begins with the marker, the old one is kept with all its lines."""
    assert re.match(rf"{CLOCK}Starting new log file\n{CLOCK}Version - 1\.10 Client port - 8080\n",
                    unit.path(LOG).read_text())
    old = unit.run(["zcat", f"{LOG}.1.gz"]).stdout
    assert re.match(rf"{CLOCK}Voldrake startup\n", old)
    assert "Starting new log file" not in old
