"""The start script, run by a shell and a start-stop-daemon of BusyBox in a sandbox."""

import os
import re
import shutil
import signal
import time
from pathlib import Path

import pytest

from testbed import target, timeouts
from testbed.sandbox import TOOLS, Sandbox

SCRIPT = "/etc/init.d/voldrake"
PID_FILE = "/run/voldrake.pid"
LOG = "/var/log/voldrake.log"
APPLETS = ("sh", "start-stop-daemon", "sleep", "rm", "cat", "echo", "test", "[")


@pytest.fixture
def image(tree, sandbox: Sandbox) -> Sandbox:
    """A sandbox whose commands are BusyBox's, with the start script and its options file."""
    for applet in APPLETS:
        sandbox.path(f"{TOOLS}/{applet}").symlink_to("/usr/bin/busybox")
    script = sandbox.path(SCRIPT)
    script.parent.mkdir()
    shutil.copy(target.build_directory() / "packaging/start/voldrake", script)
    # The script reads the options below the prefix's etc, which the build directory names.
    options = Path(tree.prefix, "etc") if tree.prefix != "/usr" else Path("/etc")
    text = script.read_text().replace(f"{options}/default/", "/etc/default/")
    # The script's own path comes first in the image, so BusyBox's commands are put before it.
    text = text.replace("\nPATH=", f"\nPATH={TOOLS}:")
    script.write_text(text)
    set_options(sandbox, f"--log {LOG}")
    return sandbox


def set_options(image: Sandbox, options: str) -> None:
    image.write("/etc/default/voldrake", f'VOLDRAKE_OPTIONS="{options}"\n')


def call(image: Sandbox, action: str) -> tuple[int, str]:
    done = image.run(["busybox", "sh", SCRIPT, action], timeout=4 * timeouts.RUN)
    assert done.stderr == "" or done.returncode != 0, done.stderr
    return done.returncode, done.stdout


def expect_line(image: Sandbox, text: str) -> None:
    """Wait until the log has this text."""
    deadline = time.monotonic() + timeouts.START
    log = image.path(LOG)
    while not log.exists() or text not in log.read_text():
        assert time.monotonic() < deadline, f"not logged: {text}"
        time.sleep(timeouts.POLL)


def daemons(image: Sandbox) -> list[str]:
    return [line for line in image.processes().values() if "/voldrake" in line]


def test_starts_once_tells_and_stops(image: Sandbox) -> None:
    assert call(image, "status") == (3, "voldrake is not running\n")
    assert call(image, "start") == (0, "")
    expect_line(image, "Version - 1.10 Client port - 8080")
    assert call(image, "status") == (0, "voldrake is running\n")
    assert call(image, "start") == (0, "voldrake is running already\n")
    assert len(daemons(image)) == 1
    assert call(image, "stop") == (0, "")
    # It has waited for the orderly end.
    assert daemons(image) == []
    assert "Exiting" in image.path(LOG).read_text()
    assert not image.path(PID_FILE).exists()
    assert call(image, "stop") == (0, "voldrake is not running\n")


def test_restart_is_another_process(image: Sandbox) -> None:
    call(image, "start")
    expect_line(image, "Voldrake startup")
    first = image.path(PID_FILE).read_text()
    assert call(image, "restart") == (0, "")
    assert image.path(PID_FILE).read_text() != first
    assert len(daemons(image)) == 1
    call(image, "stop")


def test_passes_options_with_blanks_on(image: Sandbox) -> None:
    set_options(image, f"--log {LOG} --port 9000 --content-id-file '/etc/content id'")
    call(image, "start")
    expect_line(image, "Client port - 9000")
    assert daemons(image)[0].endswith("--content-id-file /etc/content id")
    call(image, "stop")


def test_survives_a_stale_pid_file(image: Sandbox) -> None:
    other = image.spawn(["sleep", "1000"])
    inside = [pid for pid in os.listdir(image.path("/run/proc")) if pid.isdigit()][-1]
    image.write(PID_FILE, inside)
    assert call(image, "status") == (3, "voldrake is not running\n")
    assert call(image, "stop") == (0, "voldrake is not running\n")
    assert other.poll() is None
    assert call(image, "start") == (0, "")
    expect_line(image, "Voldrake startup")
    assert call(image, "stop") == (0, "")


def test_tells_when_the_daemon_ends_at_once(image: Sandbox) -> None:
    set_options(image, "--no-such-option")
    done = image.run(["busybox", "sh", SCRIPT, "start"], timeout=4 * timeouts.RUN)
    assert done.returncode == 1
    assert done.stdout == ""
    assert re.fullmatch(r"voldrake has ended at once; .* \S+/voldrake --no-such-option\n",
                        done.stderr)
    assert call(image, "status") == (3, "voldrake is not running\n")
    assert not image.path(PID_FILE).exists()


def test_gives_the_daemon_a_path_of_its_own(image: Sandbox) -> None:
    """Whoever calls the script: mount and exportfs are found in the system's directories."""
    done = image.run(["env", "PATH=/nonexistent", "/usr/bin/busybox", "sh", SCRIPT, "start"],
                     timeout=4 * timeouts.RUN)
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")
    (daemon,) = (pid for pid, line in image.processes().items() if "/voldrake" in line)
    environment = Path(f"/proc/{daemon}/environ").read_text().split("\0")
    (path,) = (entry.removeprefix("PATH=") for entry in environment if entry.startswith("PATH="))
    assert {"/usr/sbin", "/usr/bin", "/sbin", "/bin"} <= set(path.split(":"))
    call(image, "stop")


def test_waits_for_an_end_as_long_as_systemd_does(image: Sandbox, tree) -> None:
    """A second passes at once here; the daemon is held and does not end."""
    call(image, "start")
    expect_line(image, "_ManualScan()")
    (daemon,) = (pid for pid, line in image.processes().items() if "/voldrake" in line)
    os.kill(daemon, signal.SIGSTOP)
    image.path(f"{TOOLS}/sleep").unlink()
    image.write(f"{TOOLS}/sleep", "#!/bin/sh\necho $1 >> /run/seconds\n")
    image.path(f"{TOOLS}/sleep").chmod(0o755)
    done = image.run(["busybox", "sh", SCRIPT, "stop"], timeout=4 * timeouts.RUN)
    assert (done.returncode, done.stderr) == (1, "voldrake does not end\n")
    waited = sum(map(int, image.path("/run/seconds").read_text().split()))
    unit = tree.path("lib/systemd/system/voldrake.service").read_text()
    assert f"\nTimeoutStopSec={waited}\n" in unit
    os.kill(daemon, signal.SIGCONT)


def test_tells_its_usage(image: Sandbox) -> None:
    status, _ = call(image, "reload")
    assert status == 2
