"""The systemd unit: accepted by systemd, hardened, and nothing that the daemon needs forbidden."""

import json
import os
import re
import signal
import subprocess
from pathlib import Path

import pytest

from testbed import target
from testbed.unit import Unit

SYSTEMD = target.REPOSITORY / "packaging/systemd"

#: Each of these gives a service a mount name space of its own, where its mounts stay hidden.
HIDING = {
    "BindPaths", "BindReadOnlyPaths", "DynamicUser", "ExecPaths", "ExtensionDirectories",
    "ExtensionImages", "InaccessiblePaths", "LogNamespace", "MountFlags", "MountImages",
    "NoExecPaths", "PrivateDevices", "PrivateIPC", "PrivateMounts", "PrivateTmp", "PrivateUsers",
    "ProcSubset", "ProtectControlGroups", "ProtectHome", "ProtectKernelLogs",
    "ProtectKernelModules", "ProtectKernelTunables", "ProtectProc", "ProtectSystem",
    "ReadOnlyPaths", "ReadWritePaths", "RootDirectory", "RootImage", "TemporaryFileSystem"}


#: Seconds. A mount from a silent server is tried for two minutes, nfs(5), and its last try takes
#: half a minute; a bus that hangs takes 25 s, and NFS clients get ten to let go.
LONGEST_END = 120 + 30 + 25 + 10


@pytest.fixture
def service(tree) -> Path:
    return tree.path("lib/systemd/system/voldrake.service")


def settings_of(service: Path) -> list[tuple[str, str]]:
    lines = service.read_text().splitlines()
    return [tuple(line.split("=", 1)) for line in lines if re.match(r"\w+=", line)]


@pytest.fixture
def settings(service: Path) -> list[tuple[str, str]]:
    return settings_of(service)


@pytest.fixture
def hardware_service(service: Path) -> Path:
    return service.with_name("voldrake-hald.service")


def values(settings: list[tuple[str, str]], key: str) -> list[str]:
    return " ".join(value for name, value in settings if name == key).split()


def exposure(service: Path, *options: str) -> float:
    """The exposure level that systemd finds, 0 to 10."""
    done = subprocess.run(["systemd-analyze", "security", "--offline=true", "--no-pager", *options,
                           str(service)], capture_output=True, text=True, check=True)
    found = re.search(rf"exposure level for {service.name}: ([\d.]+)", done.stdout)
    assert found, done.stdout
    return float(found[1])


def verified(tree, service: Path, directory: Path) -> tuple[int, str, str]:
    """What systemd says of a unit. The programs are where the installed tree has them, not where
    the unit will."""
    for unit in service.parent.glob("*.service"):
        text = unit.read_text().replace(tree.prefix + "/sbin", str(tree.path("sbin")))
        (directory / unit.name).write_text(text)
    done = subprocess.run(["systemd-analyze", "verify", "--man=no", str(directory / service.name)],
                          capture_output=True, text=True, check=False)
    return done.returncode, done.stdout, done.stderr


@pytest.mark.parametrize("name", ["voldrake", "voldrake-bus", "voldrake-hald", "voldrake-stop"])
def test_is_accepted_by_systemd(tree, service: Path, tmp_path: Path, name: str) -> None:
    assert verified(tree, service.with_name(f"{name}.service"), tmp_path) == (0, "", "")


def test_is_hardened_as_far_as_shared_mounts_allow(service: Path) -> None:
    policy = f"--security-policy={SYSTEMD / 'security-policy.json'}"
    assert exposure(service, policy) <= 2.7
    assert exposure(service) <= 4.1


def test_hardware_service_is_hardened_as_far_as_mounting_allows(hardware_service: Path) -> None:
    policy = f"--security-policy={SYSTEMD / 'security-policy.json'}"
    assert exposure(hardware_service, policy) <= 2.4
    assert exposure(hardware_service) <= 3.9


def test_both_share_the_mount_name_space(service: Path, hardware_service: Path) -> None:
    for unit in (service, hardware_service):
        assert HIDING.isdisjoint(name for name, _ in settings_of(unit))


def test_hardware_service_hears_udev(hardware_service: Path) -> None:
    """Its events are sent in the network name space of the system."""
    settings = settings_of(hardware_service)
    assert "PrivateNetwork" not in {name for name, _ in settings}
    assert values(settings, "RestrictAddressFamilies") == ["AF_UNIX", "AF_NETLINK"]


def test_hardware_service_is_started_for_its_name(tree, hardware_service: Path) -> None:
    settings = settings_of(hardware_service)
    activation = tree.path(
        "share/dbus-1/system-services/org.freedesktop.Hal.service").read_text().splitlines()
    assert {"Name=org.freedesktop.Hal", "User=root"} <= set(activation)
    (alias,) = values(settings, "Alias")
    assert f"SystemdService={alias}" in activation
    assert values(settings, "BusName") == ["org.freedesktop.Hal"]
    # The storage-volume daemon comes after that name, and has it started.
    daemon = settings_of(hardware_service.with_name("voldrake.service"))
    assert alias in values(daemon, "Wants") and alias in values(daemon, "After")


def test_hardware_service_has_its_devices_when_their_drivers_are_modules(
        hardware_service: Path) -> None:
    settings = settings_of(hardware_service)
    modules = {"modprobe@sd_mod.service", "modprobe@mmc_block.service"}
    assert modules <= set(values(settings, "Wants")) & set(values(settings, "After"))
    assert [value for name, value in settings if name == "DeviceAllow"] == [
        "block-sd rw", "block-mmc rw", "block-blkext rw", "/dev/fuse rw"]


def test_hardware_service_is_always_there_again(hardware_service: Path) -> None:
    settings = settings_of(hardware_service)
    assert values(settings, "Restart") == ["always"]
    interval, burst, pause = (int(values(settings, name)[0]) for name in (
        "StartLimitIntervalSec", "StartLimitBurst", "RestartSec"))
    assert interval / pause + 1 < burst
    # With what it has told and mounted, and with the processes of mounted file systems.
    assert values(settings, "RuntimeDirectoryPreserve") == ["yes"]
    assert values(settings, "KillMode") == ["process"]


def test_what_has_no_modes_is_mounted_readable(hardware_service: Path) -> None:
    assert values(settings_of(hardware_service), "UMask") == ["0022"]


def test_security_policy_leaves_out_only_what_hides_mounts() -> None:
    policy = json.loads((SYSTEMD / "security-policy.json").read_text())
    assert all(entry == {"weight": 0} for entry in policy.values())
    assert set(policy) - {"RootDirectoryOrRootImage"} <= HIDING


def test_comes_after_bus_and_hardware_service(settings: list[tuple[str, str]]) -> None:
    after = values(settings, "After")
    assert {"dbus.service", "dbus-org.freedesktop.Hal.service"} <= set(after)


def test_waits_for_no_network_at_its_start_but_ends_before_it(
        tree, settings: list[tuple[str, str]]) -> None:
    assert {"network.target", "network-online.target", "nfs-server.service"}.isdisjoint(
        values(settings, "After"))
    assert "voldrake-stop.service" in values(settings, "Wants")
    stop = tree.path("lib/systemd/system/voldrake-stop.service").read_text()
    assert "\nAfter=network.target remote-fs.target nfs-server.service\n" in stop
    assert "\nExecStop=systemctl stop voldrake.service\n" in stop


def test_returns_after_every_failure_at_a_limited_rate(settings: list[tuple[str, str]]) -> None:
    assert values(settings, "Restart") == ["on-failure"]
    assert values(settings, "RestartPreventExitStatus") == ["1"]
    interval, burst, pause = (int(values(settings, name)[0]) for name in (
        "StartLimitIntervalSec", "StartLimitBurst", "RestartSec"))
    assert interval > 0
    # Failures alone never reach the limit, at which it would stay down.
    assert interval / pause + 1 < burst


def test_gives_an_end_the_time_of_all_that_it_waits_for(settings: list[tuple[str, str]]) -> None:
    assert int(values(settings, "TimeoutStopSec")[0]) > LONGEST_END
    # The mount that is waited for is not told to end.
    assert values(settings, "KillMode") == ["mixed"]


def test_leaves_a_working_daemon_what_it_needs(
        unit: Unit, settings: list[tuple[str, str]]) -> None:
    """With the unit's capabilities a volume comes and goes and the commands do their work; no
    system call is made on the way that the unit forbids."""
    kept = [word.removeprefix("CAP_").lower() for word in values(settings, "CapabilityBoundingSet")]
    confined = ["setpriv", "--no-new-privs", "--bounding-set",
                ",".join(["-all", *(f"+{name}" for name in kept)])]
    trace = "/var/log/trace"
    unit.sandbox.path(trace).mkdir()
    unit.sandbox.path("/srv/share").mkdir()
    daemon = unit.sandbox.spawn(
        ["strace", "-ff", "--output", f"{trace}/daemon", *confined, *target.daemon_command(),
         "--log", "/var/log/voldrake.log"], "traced")
    unit.hal.expect_call("FindDeviceByCapability")
    unit.hal.plug("usb stick")
    unit.application.expect_message("dataarrival")
    assert unit.links() == {"USB Memory Card A1": "sda1"}
    unit.hal.pull("stick")
    unit.application.expect_message("dataremoval")
    install_mount_helper(unit)
    for number, command in enumerate((
            "mount -t demo tmpfs /srv/share", "mountpoint -q /srv/share",
            "mount -o remount,ro /srv/share", "umount -f -l /srv/share")):
        done = unit.sandbox.run(["strace", "-ff", "--output", f"{trace}/command{number}",
                                 *confined, "sh", "-c", command])
        assert (done.returncode, done.stderr) == (0, ""), command
    traced = next(pid for pid, line in unit.sandbox.processes().items()
                  if line.split()[0] == target.program("voldrake"))
    os.kill(traced, signal.SIGTERM)
    assert daemon.wait() == 0
    used = {line.split("(")[0] for file in unit.sandbox.path(trace).iterdir()
            for line in after_confinement(file.read_text(errors="replace")).splitlines()
            if re.match(r"[a-z_0-9]+\(", line)}
    assert {"recvmsg", "symlink", "mount", "umount2", "setuid"} <= used
    assert used - allowed_system_calls(settings) == set()


def install_mount_helper(unit: Unit) -> None:
    """Add the file-system type "demo" with a helper in /sbin, as NFS has one. The helper writes to
    the table in which such helpers keep what the kernel does not."""
    unit.sandbox.write("/srv/sbin/mount.demo",
                       '#!/bin/sh\nexec mount -i -t tmpfs -o uhelper=demo "$1" "$2"\n')
    unit.sandbox.path("/srv/sbin/mount.demo").chmod(0o755)
    done = unit.sandbox.run(["mount", "-t", "overlay", "-o", "lowerdir=/srv/sbin:/usr/sbin",
                             "overlay", "/usr/sbin"])
    assert done.returncode == 0, done.stderr


def after_confinement(trace: str) -> str:
    """A process's trace; of the one that confines itself what follows the confined program's
    start."""
    started = [found.end() for found in re.finditer(r"^execve\(.* = 0$", trace, re.MULTILINE)]
    confines_itself = re.match(r'execve\("[^"]*/setpriv"', trace)
    return trace[started[1]:] if confines_itself else trace


def allowed_system_calls(settings: list[tuple[str, str]]) -> set[str]:
    """What SystemCallFilter= leaves, taken in order as systemd takes it."""
    allowed = members(["@default"])
    for name, value in settings:
        if name != "SystemCallFilter":
            continue
        named = members(value.lstrip("~").split())
        allowed = allowed - named if value.startswith("~") else allowed | named
    return allowed


def members(words: list[str]) -> set[str]:
    """The system calls that these words name; a word with an @ is a set."""
    calls = {word for word in words if not word.startswith("@")}
    for word in set(words) - calls:
        listing = subprocess.run(["systemd-analyze", "syscall-filter", "--no-pager", word],
                                 capture_output=True, text=True, check=True).stdout
        lines = [line.strip() for line in listing.splitlines()[1:]]
        calls |= members([line for line in lines if line and not line.startswith("#")])
    return calls
