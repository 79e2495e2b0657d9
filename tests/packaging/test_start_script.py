"""The start script, run by a shell and a start-stop-daemon of BusyBox in a sandbox."""

import os
import re
import shutil
import signal
from pathlib import Path

import pytest

from readiness import expect_handler, expect_line, make_starts_slow
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
    text = script.read_text().replace(f"OPTIONS={options}/default/", "OPTIONS=/etc/default/")
    assert "\nOPTIONS=/etc/default/voldrake\n" in text
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


def daemons(image: Sandbox) -> list[str]:
    return [line for line in image.processes().values() if "/voldrake" in line]


def test_starts_once_tells_and_stops(image: Sandbox) -> None:
    assert call(image, "status") == (3, "voldrake is not running\n")
    assert call(image, "start") == (0, "")
    expect_line(image, LOG, "Version - 1.10 Client port - 8080")
    assert call(image, "status") == (0, "voldrake is running\n")
    assert call(image, "start") == (0, "voldrake is already running\n")
    assert len(daemons(image)) == 1
    expect_handler(image, signal.SIGTERM)
    assert call(image, "stop") == (0, "")
    # It has waited for the orderly end.
    assert daemons(image) == []
    assert "Exiting" in image.path(LOG).read_text()
    assert not image.path(PID_FILE).exists()
    assert call(image, "stop") == (0, "voldrake is not running\n")


def test_a_busy_system_starts_it_later(image: Sandbox) -> None:
    make_starts_slow(image)
    assert call(image, "start") == (0, "")
    assert len(daemons(image)) == 1
    expect_handler(image, signal.SIGTERM)
    call(image, "stop")


def test_restart_is_another_process(image: Sandbox) -> None:
    call(image, "start")
    expect_line(image, LOG, "Voldrake startup")
    first = image.path(PID_FILE).read_text()
    assert call(image, "restart") == (0, "")
    assert image.path(PID_FILE).read_text() != first
    assert len(daemons(image)) == 1
    call(image, "stop")


def test_restart_starts_one_that_does_not_run(image: Sandbox) -> None:
    assert call(image, "restart") == (0, "voldrake is not running\n")
    assert len(daemons(image)) == 1
    call(image, "stop")


def complaint(image: Sandbox, action: str) -> str:
    """What the script says when it refuses."""
    done = image.run(["busybox", "sh", SCRIPT, action], timeout=4 * timeouts.RUN)
    assert (done.returncode, done.stdout) == (1, "")
    return done.stderr


@pytest.mark.parametrize("word", ["--daemon", "--da"])
def test_refuses_a_daemon_that_would_detach_itself(image: Sandbox, word: str) -> None:
    set_options(image, f"--log {LOG} {word}")
    told = ("/etc/default/voldrake: VOLDRAKE_OPTIONS must not contain --daemon;"
            " this script detaches voldrake\n")
    assert complaint(image, "start") == told
    assert daemons(image) == []
    assert not image.path(LOG).exists()
    set_options(image, f"--log {LOG}")
    call(image, "start")
    first = image.path(PID_FILE).read_text()
    set_options(image, f"--log {LOG} {word}")
    assert complaint(image, "restart") == told
    # It has not been stopped.
    assert image.path(PID_FILE).read_text() == first
    assert call(image, "status") == (0, "voldrake is running\n")
    call(image, "stop")


def test_tells_of_a_daemon_that_somebody_else_has_started(image: Sandbox, tree) -> None:
    program = str(Path(tree.prefix, "sbin/voldrake"))
    other = image.spawn([program, "--log", LOG], "other")
    expect_handler(image, signal.SIGTERM)
    assert call(image, "status") == (0, "voldrake is running, but was not started by this script\n")
    assert complaint(image, "start") == (
        "voldrake is already running, but was not started by this script\n")
    for action in ("stop", "restart"):
        assert complaint(image, action) == (
            "voldrake is running, but was not started by this script; stop it with SIGTERM\n")
    assert len(daemons(image)) == 1
    assert other.terminate() == 0


def test_passes_options_with_blanks_on(image: Sandbox) -> None:
    set_options(image, f"--log {LOG} --port 9000 --content-id-file '/etc/content id'")
    call(image, "start")
    expect_line(image, LOG, "Client port - 9000")
    assert daemons(image)[0].endswith("--content-id-file /etc/content id")
    call(image, "stop")


def test_survives_a_stale_pid_file(image: Sandbox) -> None:
    other = image.spawn(["sleep", "1000"])
    inside = [pid for pid in os.listdir(image.path("/run/proc")) if pid.isdigit()][-1]
    image.write(PID_FILE, inside)
    assert call(image, "status") == (3, "voldrake is not running\n")
    assert call(image, "stop") == (0, "voldrake is not running\n")
    assert other.kill() == -signal.SIGKILL  # and nothing else has ended it before
    assert call(image, "start") == (0, "")
    expect_line(image, LOG, "Voldrake startup")
    assert call(image, "stop") == (0, "")


def test_tells_when_the_daemon_ends_at_once(image: Sandbox) -> None:
    set_options(image, "--no-such-option")
    # However long the daemon takes: the script's sleep lasts until it has ended.
    image.path(f"{TOOLS}/sleep").unlink()
    image.write(f"{TOOLS}/sleep", f"""#!/bin/sh
while kill -0 "$(cat {PID_FILE})" 2>&-; do /usr/bin/sleep 0.05; done
""")
    image.path(f"{TOOLS}/sleep").chmod(0o755)
    done = image.run(["busybox", "sh", SCRIPT, "start"], timeout=4 * timeouts.RUN)
    assert done.returncode == 1
    assert done.stdout == ""
    assert re.fullmatch(r"voldrake exited at once; .* \S+/voldrake --no-such-option\n",
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
    expect_line(image, LOG, "_ManualScan()")
    (daemon,) = (pid for pid, line in image.processes().items() if "/voldrake" in line)
    os.kill(daemon, signal.SIGSTOP)
    image.path(f"{TOOLS}/sleep").unlink()
    image.write(f"{TOOLS}/sleep", "#!/bin/sh\necho $1 >> /run/seconds\n")
    image.path(f"{TOOLS}/sleep").chmod(0o755)
    done = image.run(["busybox", "sh", SCRIPT, "stop"], timeout=4 * timeouts.RUN)
    assert (done.returncode, done.stderr) == (1, "voldrake does not stop\n")
    waited = sum(map(int, image.path("/run/seconds").read_text().split()))
    unit = tree.path("lib/systemd/system/voldrake.service").read_text()
    assert f"\nTimeoutStopSec={waited}\n" in unit
    os.kill(daemon, signal.SIGCONT)


def test_tells_its_usage(image: Sandbox) -> None:
    status, _ = call(image, "reload")
    assert status == 2
