"""The sandbox's own promises: nothing outside is touched, nothing is left, anybody may."""

import json
import os
import shutil
import signal
import socket
import subprocess
import sys
from pathlib import Path

import pytest

from testbed import target, timeouts
from testbed.application import Application, Mode
from testbed.daemon import INFO
from testbed.frame import BadFrame, Frame, decode, encode
from testbed.network import Network
from testbed.sandbox import Sandbox
from testbed.strace import Strace
from testbed.tape import Tape
from testbed.unit import Unit
from testbed.waiting import wait_until


@pytest.fixture
def sandbox(log_directory: Path):
    with Sandbox(log_directory, target.read_only_mounts()) as started:
        yield started


def children() -> str:
    """Process ids of this process's children."""
    return Path(f"/proc/{os.getpid()}/task/{os.getpid()}/children").read_text()


def is_running(pid: str) -> bool:
    """True while a process has not ended, whether or not its end was collected."""
    try:
        return Path("/proc", pid, "cmdline").read_bytes() != b""
    except OSError:
        return False


def wires() -> list[str]:
    """Names of the network interfaces out here."""
    links = subprocess.run(["ip", "-json", "link"], capture_output=True, check=True).stdout
    return [link["ifname"] for link in json.loads(links)]


def test_has_directories_of_its_own(sandbox: Sandbox) -> None:
    for directory in ("/etc", "/media", "/mnt", "/proc", "/run", "/srv", "/sys", "/tmp", "/var"):
        file = f"{directory}/written-in-the-sandbox"
        assert sandbox.run(["touch", file]).returncode == 0
        assert sandbox.path(file).exists()
        assert not Path(file).exists()


@pytest.mark.parametrize("file", ["/usr/written-in-the-sandbox", "/usr/bin/env"])
def test_cannot_change_the_system(sandbox: Sandbox, file: str) -> None:
    done = sandbox.run(["touch", file])
    assert done.returncode == 1
    assert done.stderr.endswith((": Read-only file system\n", ": Permission denied\n"))


def test_mounts_stay_inside(sandbox: Sandbox) -> None:
    before = Path("/proc/mounts").read_text()
    assert sandbox.run(["mount", "-t", "tmpfs", "tmpfs", "/media"]).returncode == 0
    assert " /media tmpfs" in sandbox.run(["cat", "/proc/mounts"]).stdout
    assert Path("/proc/mounts").read_text() == before


def test_has_a_network_of_its_own(sandbox: Sandbox) -> None:
    links = json.loads(sandbox.run(["ip", "-json", "link"]).stdout)
    assert [link["ifname"] for link in links] == ["lo"]
    assert "UP" in links[0]["flags"]


def test_sees_only_its_own_processes(sandbox: Sandbox) -> None:
    inside = sandbox.spawn(["sleep", "1000"])
    assert sandbox.processes() == {inside.pid: "sleep 1000"}
    seen = sandbox.run(["sh", "-c", "cat /run/proc/[0-9]*/cmdline"]).stdout
    assert "sleep" in seen
    assert "pytest" not in seen


def test_collects_output_and_status(sandbox: Sandbox) -> None:
    process = sandbox.spawn(["sh", "-c", "echo out; echo err >&2; exit 7"], "speaker")
    assert process.wait() == 7
    assert (process.stdout(), process.stderr()) == ("out\n", "err\n")
    assert process.out.parent == sandbox.logs


def test_reports_a_signal_as_the_end(sandbox: Sandbox) -> None:
    assert sandbox.spawn(["sleep", "1000"]).terminate() == -15
    assert sandbox.spawn(["sh", "-c", "kill -ABRT $$"]).wait() == -6


@pytest.mark.parametrize("ignored", [signal.SIGHUP, signal.SIGINT])
def test_a_program_does_not_ignore_what_the_tests_ignore(sandbox: Sandbox, ignored: int) -> None:
    before = signal.signal(ignored, signal.SIG_IGN)
    try:
        process = sandbox.spawn(["sleep", "60"])
    finally:
        signal.signal(ignored, before)
    process.signal(ignored)
    assert process.wait() == -ignored


def test_pauses_and_resumes_a_program(sandbox: Sandbox) -> None:
    process = sandbox.spawn(["sleep", "1000"])
    stat = Path(f"/proc/{process.pid}/stat")
    for action, states in ((process.pause, "T"), (process.resume, "SR")):
        action()
        wait_until(lambda: stat.read_text().split()[2] in states, f"it is {action.__name__}d")
    assert process.terminate() == -15


def test_a_program_that_starts_another_is_traced_no_longer_than_asked(
        sandbox: Sandbox, log_directory: Path) -> None:
    process = sandbox.spawn(["/usr/bin/python3", "-uc", "import os\nwhile True:\n"
                             " os.posix_spawn('/bin/true', ['true'], {}); print(os.wait())"])
    wait_until(lambda: process.out.read_text(), "it has begun")
    with Strace(process, log_directory / "strace", "-e", "inject=execve:delay_enter=60000000"):
        status = Path(f"/proc/{process.pid}/status")
        wait_until(lambda: "State:\tD" in status.read_text(), "it waits for the one it starts")
    seen = process.out.stat().st_size
    wait_until(lambda: process.out.stat().st_size > seen, "it goes on")
    assert "TracerPid:\t0\n" in status.read_text()
    assert process.terminate() == -15


def test_collects_orphans(sandbox: Sandbox) -> None:
    sandbox.run(["sh", "-c", "sleep 0.05 & exit"])
    children_of_first = Path(f"/proc/{sandbox.pid}/task/{sandbox.pid}/children")
    wait_until(lambda: children_of_first.read_text().count(" ") <= 1, "the orphan is collected")


def test_leaves_nothing_but_logs(log_directory: Path) -> None:
    mounts, before = Path("/proc/mounts").read_text(), children()
    with Unit(log_directory) as unit:
        unit.start_daemon()
        unit.hal.plug("usb stick")
        unit.application.expect_message("dataarrival")
        unit.sandbox.spawn(["setsid", "--fork", "sleep", "1000"]).wait()
        inside = unit.sandbox.processes()
        assert any("sleep 1000" in line for line in inside.values())
    assert not any(is_running(str(pid)) for pid in inside)
    assert children() == before
    assert Path("/proc/mounts").read_text() == mounts
    assert (log_directory / "voldrake.log").stat().st_size > 0


def test_ends_with_the_process_that_made_it(log_directory: Path) -> None:
    script = (f"import os, time; from pathlib import Path; from testbed.sandbox import Sandbox\n"
              f"sandbox = Sandbox(Path({str(log_directory)!r})); sandbox.start()\n"
              f"print(sandbox.pid, sandbox.spawn(['sleep', '1000']).pid, flush=True)\n"
              f"time.sleep(1000)\n")
    maker = subprocess.Popen([sys.executable, "-c", script], cwd=target.REPOSITORY,
                             stdout=subprocess.PIPE, text=True)
    assert maker.stdout
    inside = maker.stdout.readline().split()
    assert [is_running(pid) for pid in inside] == [True, True]
    maker.kill()
    maker.wait()
    wait_until(lambda: not any(is_running(pid) for pid in inside), "it ends with its maker")


def test_works_without_any_privilege(tmp_path: Path) -> None:
    """A process with an ordinary user's id and no capabilities makes wrapper, unit and mounts."""
    script = ("import os, sys; from pathlib import Path; from testbed.unit import Unit\n"
              "with Unit(Path(sys.argv[1])) as unit:\n"
              "    unit.start_daemon()\n"
              "    unit.hal.plug('usb stick')\n"
              "    unit.application.expect_message('dataarrival')\n"
              "    print(unit.mounts())\n")
    (tmp_path / "script.py").write_text(script)
    without_privilege = ["unshare", "--user", "--map-user=1000", "--map-group=1000"]
    capabilities = subprocess.run([*without_privilege, "grep", "CapEff", "/proc/self/status"],
                                  capture_output=True, text=True, check=True).stdout.split()[1]
    assert int(capabilities, 16) == 0
    environment = {name: value for name, value in os.environ.items() if name != "VOLDRAKE_WRAPPED"}
    environment["PYTHONPATH"] = str(target.REPOSITORY)
    done = subprocess.run(
        [*without_privilege, sys.executable, "-m", "testbed", "run", sys.executable,
         str(tmp_path / "script.py"), str(tmp_path / "logs")],
        env=environment, capture_output=True, text=True, timeout=timeouts.RUN, check=False)
    assert (done.stdout, done.stderr) == ("{'/media/sda1': 'rw'}\n", "")


def test_says_when_namespaces_are_not_allowed(tmp_path: Path) -> None:
    refusing = tmp_path / "unshare"
    refusing.write_text("#!/bin/sh\necho 'unshare: Operation not permitted' >&2\nexit 1\n")
    refusing.chmod(0o755)
    environment = {"PATH": f"{tmp_path}:/usr/bin", "PYTHONPATH": str(target.REPOSITORY)}
    done = subprocess.run([sys.executable, "-m", "testbed", "run", "true"], env=environment,
                          capture_output=True, text=True, check=False)
    assert done.returncode == 1
    assert "this machine does not allow user namespaces: unshare: Operation not permitted" in (
        done.stderr)


def test_a_volume_shows_what_was_prepared_for_it(unit: Unit) -> None:
    unit.sandbox.write("/srv/volumes/sda1/charts.txt", "charts")
    unit.hal.command("plug usb stick readonly")
    unit.hal.command("mount stick")
    assert unit.sandbox.path("/media/sda1/charts.txt").read_text() == "charts"
    assert unit.mounts() == {"/media/sda1": "ro"}
    assert "Read-only" in unit.sandbox.run(["touch", "/media/sda1/more"]).stderr
    unit.hal.pull("stick")
    assert unit.mounts() == {}


def test_uevent_writes_are_recorded_in_order(unit: Unit) -> None:
    script = ("for words in '9 remove' '8 remove' '8 add' '9 add'; do"
              " set -- $words; printf $2 > /sys/dev/block/179:$1/uevent; done")
    assert unit.sandbox.run(["sh", "-c", script]).returncode == 0
    assert unit.uevents.writes() == ["179:9 remove", "179:8 remove", "179:8 add", "179:9 add"]


def test_the_system_log_is_recorded(unit: Unit) -> None:
    unit.sandbox.run(["logger", "--priority", "daemon.warning", "--tag", "Somebody", "--socket",
                      "/dev/log", "a text"])
    record, = unit.syslog.records()
    assert record.text == "a text"
    assert (record.facility, record.priority, record.ident) == (3, 4, "Somebody")


def test_the_log_is_followed_through_rotation(running_unit: Unit) -> None:
    log = running_unit.sandbox.path("/var/log/voldrake.log")
    for _ in range(3):
        running_unit.daemon.signal(1)
        running_unit.daemon.expect_log(INFO, "Starting new log file")
        running_unit.daemon.expect_log(INFO, "Version - 1.10 Client port - 8080")
        log.rename(log.with_name("rotated.log"))
    assert running_unit.daemon.logged(INFO, "Starting new log file") == 3


@pytest.mark.parametrize("mode, outcome", [
    (Mode.READ, "sent"), (Mode.NEVER_READ, "sent"), (Mode.RESET, "reset"),
    (Mode.CLOSE_EARLY, "reset"), (Mode.NEVER_ACCEPT, "hangs"), (None, "refused")])
def test_the_application_treats_connections_as_told(sandbox: Sandbox, mode: Mode | None,
                                                    outcome: str) -> None:
    application = Application(sandbox, Tape())
    if mode:
        application.listen(mode)
    # A connection that hangs, and an end that does not come, are waited for in vain.
    connecting = 0.3 if mode is Mode.NEVER_ACCEPT else timeouts.EVENT
    receiving = 0.3 if mode is Mode.NEVER_READ else timeouts.EVENT
    script = ("import socket, sys\n"
              "try:\n"
              f"    connection = socket.create_connection(('127.0.0.1', 8080), {connecting})\n"
              "    connection.sendall(bytes.fromhex(sys.argv[1]))\n"
              "    connection.shutdown(socket.SHUT_WR)\n"
              f"    connection.settimeout({receiving})\n"
              "    print('sent' if connection.recv(1) == b'' else 'answered')\n"
              "except ConnectionRefusedError: print('refused')\n"
              "except TimeoutError:\n"
              "    print('sent' if 'connection' in globals() else 'hangs')\n"
              "except OSError: print('reset')\n")
    done = sandbox.run(["/usr/bin/python3", "-c", script, encode("ab" * 20).hex()])
    assert (done.stdout, done.stderr) == (outcome + "\n", "")
    if mode is Mode.READ:
        assert application.next_text() == "ab" * 20
    application.leave()


@pytest.mark.parametrize("raw, text", [
    ("0008 0000 0004 0061 0062", "ab"), ("0004 0000 0000", ""), ("0006 0000 0002 00e9", "\xe9")])
def test_frames_are_decoded(raw: str, text: str) -> None:
    assert decode(bytes.fromhex(raw)) == text
    assert encode(text) == bytes.fromhex(raw)


@pytest.mark.parametrize("raw", [
    "", "0008 0000 00", "0008 0000 0004 0061", "0008 0001 0004 0061 0062",
    "0008 0000 0002 0061 0062", "0008 0000 0004 0061 0062 00", "0007 0000 0003 0061 00"])
def test_malformed_frames_are_refused(raw: str) -> None:
    with pytest.raises(BadFrame):
        decode(bytes.fromhex(raw))


@pytest.mark.parametrize("raw, cut", [
    ("", True), ("00", True), ("0008 0000 0004 0061", True), ("0008 0000 0004 0061 0062", False),
    ("0008 0000 0004 0061 0062 00", False)])
def test_a_frame_that_ends_too_early_is_known(raw: str, cut: bool) -> None:
    assert Frame(bytes.fromhex(raw)).cut() == cut


def test_units_on_a_wire_reach_one_another(network: Network, make_unit) -> None:
    first = make_unit(network=network, address="169.254.1.1")
    second = make_unit(network=network, address="169.254.1.2")
    ping = ["/usr/bin/python3", "-c",
            "import socket, sys\n"
            "s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)\n"
            "s.sendto(b'hello', (sys.argv[1], 10000))\n"]
    receiver = second.sandbox.in_network(
        lambda: socket.socket(socket.AF_INET, socket.SOCK_DGRAM))
    with receiver:
        receiver.bind(("", 10000))
        receiver.settimeout(timeouts.EVENT)
        group = socket.inet_aton("224.1.1.1") + socket.inet_aton("0.0.0.0")
        receiver.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, group)
        for address in ("169.254.1.2", "224.1.1.1"):
            assert first.sandbox.run([*ping, address]).returncode == 0
            assert receiver.recvfrom(100)[1][0] == "169.254.1.1"
    assert first.eth0.hardware_address() != second.eth0.hardware_address()


def test_a_wire_that_cannot_be_switched_on_is_not_left_behind(
        tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    refusing = tmp_path / "ip"
    refusing.write_text('#!/bin/sh\nfor word; do [ "$word" != up ] || exit 1; done\n'
                        f'exec {shutil.which("ip")} "$@"\n')
    refusing.chmod(0o755)
    monkeypatch.setenv("PATH", f"{tmp_path}:{os.environ['PATH']}")
    bridge = f"x{os.getpid()}"
    with pytest.raises(RuntimeError, match=f"ip link .*{bridge}"):
        Network(bridge).start()
    assert bridge not in wires()


def test_a_wire_that_cannot_be_made_leaves_the_one_of_that_name_alone() -> None:
    bridge = f"x{os.getpid()}"
    with Network(bridge):
        with pytest.raises(RuntimeError, match="File exists"), Network(bridge):
            pass
        assert bridge in wires()
    assert bridge not in wires()


def run_testbed(build: Path | None, *command: str) -> subprocess.CompletedProcess[str]:
    """Start a command as somebody outside any wrapper would, with this build directory."""
    environment = {name: value for name, value in os.environ.items()
                   if not name.startswith("VOLDRAKE_")}
    if build:
        environment["VOLDRAKE_BUILD_DIR"] = str(build)
    return subprocess.run([sys.executable, "-m", "testbed", "run", *command], cwd=target.REPOSITORY,
                          env=environment, text=True, capture_output=True, check=False,
                          timeout=timeouts.RUN)


@pytest.mark.parametrize("exists", [False, True])
def test_what_is_no_build_directory_is_refused_and_stays_as_it_is(tmp_path: Path,
                                                                  exists: bool) -> None:
    build = tmp_path / "build"
    if exists:
        build.mkdir()
    done = run_testbed(build, "true")
    assert (done.returncode, done.stdout, done.stderr) == (
        1, "", f"testbed: VOLDRAKE_BUILD_DIR is {build}, which is not a build directory\n")
    assert list(tmp_path.rglob("*")) == ([build] if exists else [])


def test_an_incomplete_build_stops_the_packaging_tests_at_once(tmp_path: Path) -> None:
    (tmp_path / "CMakeCache.txt").touch()
    (tmp_path / "cmake_install.cmake").write_text(
        'file(INSTALL DESTINATION "/x" TYPE EXECUTABLE FILES "/nonexistent/voldrake-shares")\n')
    done = run_testbed(tmp_path, "/usr/bin/python3", "-m", "pytest", "-n", "2", "tests/packaging")
    assert done.returncode == pytest.ExitCode.USAGE_ERROR
    assert done.stderr.startswith(f"ERROR: {tmp_path} is not built completely;")
    assert "voldrake-shares" in done.stderr
    assert "error" not in done.stdout


def test_a_report_has_what_the_bus_says_but_of_the_limit_that_it_cannot_raise(unit: Unit) -> None:
    limit = ("dbus-daemon[3]: [system] org.freedesktop.DBus.Error.AccessDenied: Failed to set fd"
             " limit to 65536: Operation not permitted\n")
    other = "dbus-daemon[3]: [system] Rejected: another line\n"
    (unit.sandbox.logs / "99-bus.err").write_text(limit + other)
    assert unit.sandbox.errors()["99-bus.err"] == other.strip()
    assert other.strip() in unit.report()
    assert "fd limit" not in unit.report()
