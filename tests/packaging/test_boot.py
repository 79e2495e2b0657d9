"""The installed package in a booted system: what systemd makes of the unit.

The tests build on one another in their order. VOLDRAKE_PACKAGES names the directory with the
packages. The stand-in hardware service and the monitor are services of that system.
"""

import json
import os
from pathlib import Path
from typing import Iterator

import pytest

from debian_root import BootedRoot, Root
from testbed import target

pytestmark = pytest.mark.packages

#: The hardware service counts as started when it has its name on the bus, and ends with the bus.
HAL = """[Unit]
Requires=dbus.service
After=dbus.service
[Service]
Type=dbus
BusName=org.freedesktop.Hal
ExecStartPre=sh -c "[ -e /run/hal.commands ] || mkfifo /run/hal.commands"
ExecStart=bash -c "sed -u /^disconnected/q < <(exec voldrake-halsim 0<>/run/hal.commands)"
Restart=always
RestartSec=1
"""

APPLICATION = """[Unit]
Before=voldrake.service
[Service]
ExecStart=voldrake-monitor --json
StandardOutput=file:/run/messages
StandardError=journal
"""

#: The network is not there until this file is.
CABLE = """[Unit]
DefaultDependencies=no
Before=network-online.target
[Service]
Type=oneshot
RemainAfterExit=yes
ExecStart=sh -c "until [ -e /run/cable ]; do sleep 0.1; done"
"""

#: Where there is no kernel module to load, notes its name.
MODPROBE = """[Unit]
ConditionCapability=
[Service]
RemainAfterExit=yes
ExecStart=
ExecStart=sh -c "echo %i >> /run/modules"
"""

#: Of the NFS server all but what takes a kernel with one: its unit without the services that it
#: requires and with nothing in place of rpc.nfsd. At its end it notes how the daemon is.
WITHOUT_KERNEL = (
    "sed -e '/^Requires=nfs-mountd/d' -e '/^Requires=/s/ proc-fs-nfsd.mount//'"
    " -e 's,^ExecStart=.*,ExecStart=/bin/true,'"
    " -e 's,^ExecStop=.*,ExecStop=sh -c \"systemctl is-active voldrake >/var/nfs-server-end\",'"
    " $1/lib/systemd/system/nfs-server.service >$1/etc/systemd/system/nfs-server.service")

#: In place of the NFS client: mounts something else there.
MOUNT_NFS = '#!/bin/sh\nexec mount -i -t tmpfs "$1" "$2"\n'

#: Another unit on the wire of eth0, which announces a share once a second. Both ends of the wire
#: are made in its network name space; ours is then moved out of it.
OTHER_UNIT = """[Service]
PrivateNetwork=yes
ExecStartPre=ip link add wire type veth peer name eth0 netns 1
ExecStartPre=ip address add 169.254.3.7/16 dev wire
ExecStartPre=ip link set wire up
ExecStartPre=ip route add 224.0.0.0/4 dev wire
ExecStart=voldrake-shares announce --path=/media/sda1 --name=Remote --repeat
"""

ALIAS = "dbus-org.freedesktop.Hal.service"
PACKAGES = "systemd-sysv dbus iproute2 nfs-kernel-server"


def install_units(root: Root) -> None:
    """Put the services around the daemon into the root."""
    units = root.directory / "etc/systemd/system"
    for name, text, wanted_by in (
            ("hal", HAL, "multi-user"), ("application", APPLICATION, "multi-user"),
            ("cable", CABLE, "network-online"), ("other-unit", OTHER_UNIT, None)):
        (units / f"{name}.service").write_text(text)
        if wanted_by:
            wants = units / f"{wanted_by}.target.wants"
            wants.mkdir(exist_ok=True)
            (wants / f"{name}.service").symlink_to(f"../{name}.service")
    # The stand-in takes the name of the real service, which a test of its own starts.
    (units / ALIAS).unlink(missing_ok=True)
    (units / ALIAS).symlink_to("hal.service")
    (units / "voldrake-hald.service").symlink_to("/dev/null")
    (units / "modprobe@.service.d").mkdir()
    (units / "modprobe@.service.d/note.conf").write_text(MODPROBE)
    (root.directory / "sbin/mount.nfs").write_text(MOUNT_NFS)


@pytest.fixture(scope="module")
def system() -> Iterator[BootedRoot]:
    """A system that boots with the packages installed, and without a network."""
    directory = Path(os.environ["VOLDRAKE_PACKAGES"])
    copies = " ".join(str(package) for package in directory.glob("*.deb")
                      if "-dbgsym_" not in package.name)
    logs = target.log_directory() / "packaging"
    logs.mkdir(parents=True, exist_ok=True)
    with Root(directory / "boot-root", f"mkdir $1/packages && cp {copies} $1/packages",
              f'chroot $1 sh -c "apt-get install --yes --no-install-recommends {PACKAGES}'
              ' /packages/*.deb"', WITHOUT_KERNEL) as root:
        install_units(root)
        booted = BootedRoot(root, logs / "boot.console", booted="is-active application.service")
        if reason := booted.why_impossible():
            pytest.skip(reason)
        with booted:
            yield booted


def shown(system: BootedRoot, name: str, service: str = "voldrake") -> str:
    """A property of a service."""
    return system.run(f"systemctl show --value --property={name} {service}").strip()


def messages(system: BootedRoot) -> list[tuple[str, str]]:
    """What the application was told so far."""
    told = map(json.loads, system.run("cat /run/messages").splitlines())
    return [(message["message"], message["path"]) for message in told]


def exports(system: BootedRoot) -> set[str]:
    """What the NFS server's table has, each as "path client"; nothing while there is none."""
    table = "/var/lib/nfs/etab"
    lines = system.run(f"[ ! -e {table} ] || cat {table}").splitlines()
    return {line.replace("\t", " ").split("(")[0] for line in lines}


def journal(system: BootedRoot) -> str:
    """What the daemon that runs now has logged."""
    return system.run("journalctl --no-pager _SYSTEMD_INVOCATION_ID="
                      + shown(system, "InvocationID"))


def started(system: BootedRoot, service: str = "voldrake") -> int:
    """When its main process was started, in microseconds since boot; 0 for never."""
    return int(shown(system, "ExecMainStartTimestampMonotonic", service))


def test_does_not_wait_for_the_network_at_boot(system: BootedRoot) -> None:
    assert shown(system, "Job", "nfs-server") != ""  # it waits
    system.wait_for(lambda: shown(system, "ActiveState") == "active")
    assert shown(system, "ActiveState", "nfs-server") == "inactive"


def test_comes_after_the_card_readers_driver(system: BootedRoot) -> None:
    """systemd looks the driver's device numbers up when it starts the daemon."""
    assert "sd_mod" in system.run("cat /run/modules").split()
    loaded = int(shown(system, "ExecMainExitTimestampMonotonic", "modprobe@sd_mod"))
    assert 0 < loaded < started(system)


def test_is_started_at_boot_when_the_hardware_service_is_up(system: BootedRoot) -> None:
    assert shown(system, "ActiveState") == "active"
    assert int(shown(system, "ExecMainStartTimestampMonotonic")) > int(
        shown(system, "ActiveEnterTimestampMonotonic", "hal"))
    assert shown(system, "NRestarts") == "0"


def test_does_its_work_within_the_units_limits(system: BootedRoot) -> None:
    system.run("echo 'plug usb stick label=CHARTS' > /run/hal.commands")
    system.wait_for(lambda: messages(system) == [("arrival", "/media/sda1")])
    assert system.run("readlink '/media/USB Memory Card A1'") == "sda1\n"
    main = shown(system, "MainPID")
    assert system.run(f"readlink /proc/{main}/ns/mnt") == system.run("readlink /proc/1/ns/mnt")
    assert "2\n" == system.run(f"sed -n 's/^Seccomp:\t//p' /proc/{main}/status")
    system.wait_for(lambda: "_ManualScan" in journal(system))


def test_is_back_after_it_was_killed(system: BootedRoot) -> None:
    system.run("systemctl kill --signal=KILL voldrake")
    system.wait_for(lambda: shown(system, "NRestarts") == "1")
    # The volume that is still there is told again by the new one.
    system.wait_for(lambda: messages(system) == 2 * [("arrival", "/media/sda1")])
    assert shown(system, "ActiveState") == "active"


def test_exports_outlive_the_nfs_servers_start(system: BootedRoot) -> None:
    system.run("echo '/srv 192.0.2.1(ro)' > /etc/exports")
    system.run("systemctl start other-unit; ip link set eth0 up;"
               " ip address add 169.254.1.1/16 dev eth0; ip route add 224.0.0.0/4 dev eth0")
    system.wait_for(lambda: exports(system) >= {"/media/sda1 *"})
    system.run("touch /run/cable")
    system.wait_for(lambda: shown(system, "ActiveState", "nfs-server") == "active")
    assert exports(system) == {"/media/sda1 *", "/srv 192.0.2.1"}


@pytest.mark.parametrize("verb", ["restart", "reload"])
def test_exports_outlive_the_nfs_servers(system: BootedRoot, verb: str) -> None:
    system.run(f"systemctl {verb} nfs-server")
    assert exports(system) == {"/media/sda1 *", "/srv 192.0.2.1"}


def test_a_volume_that_goes_while_the_nfs_server_is_down_is_not_exported_by_its_start(
        system: BootedRoot) -> None:
    system.run("systemctl stop nfs-server")
    system.run("echo 'pull stick' > /run/hal.commands")
    system.wait_for(lambda: exports(system).isdisjoint({"/media/sda1 *"}))
    system.run("systemctl start nfs-server")
    assert exports(system) == {"/srv 192.0.2.1"}
    system.run("echo 'plug usb stick label=CHARTS' > /run/hal.commands")
    system.wait_for(lambda: exports(system) == {"/media/sda1 *", "/srv 192.0.2.1"})


def test_mounts_and_unmounts_the_share_of_another_unit(system: BootedRoot) -> None:
    share = ("arrival", "/mnt/169.254.3.7:-media-sda1")
    system.wait_for(lambda: share in messages(system))
    assert f" {share[1]} " in system.run("cat /proc/1/mountinfo")
    system.run("systemctl stop other-unit")
    system.wait_for(lambda: ("removal", share[1]) in messages(system))
    assert f" {share[1]} " not in system.run("cat /proc/1/mountinfo")


@pytest.mark.parametrize("end", ["kill --signal=KILL", "kill --signal=TERM", "restart"])
def test_is_started_anew_when_the_bus_has_ended(system: BootedRoot, end: str) -> None:
    system.run("echo 'pull stick' > /run/hal.commands")
    system.wait_for(lambda: messages(system)[-1] == ("removal", "/media/sda1"))
    first, before = started(system), len(messages(system))
    system.run(f"systemctl {end} dbus.service")
    system.wait_for(lambda: started(system) > first
                    and shown(system, "ActiveState") == "active")
    system.run("echo 'plug usb stick label=CHARTS' > /run/hal.commands")
    system.wait_for(lambda: messages(system)[before:] == [("arrival", "/media/sda1")])


def test_starts_a_bus_that_has_crashed_if_nobody_else_does(system: BootedRoot) -> None:
    system.run("systemctl stop hal")
    first = started(system)
    system.run("systemctl kill --signal=KILL dbus.service")
    system.wait_for(lambda: started(system) > first
                    and shown(system, "ActiveState") == "active")
    assert shown(system, "ActiveState", "dbus") == "active"


def test_ends_in_order_when_it_is_stopped(system: BootedRoot) -> None:
    system.run("systemctl stop voldrake")
    assert shown(system, "ActiveState") == "inactive"
    assert (shown(system, "Result"), shown(system, "ExecMainStatus")) == ("success", "0")


def test_is_not_given_up_when_it_fails_again_and_again(system: BootedRoot) -> None:
    system.run("systemctl start voldrake")
    for restart in range(1, 7):
        system.run("systemctl kill --signal=KILL voldrake")
        system.wait_for(lambda: shown(system, "NRestarts") == str(restart))
        system.wait_for(lambda: shown(system, "ActiveState") == "active")


def test_is_not_tried_again_with_a_wrong_option(system: BootedRoot) -> None:
    system.run("systemctl stop voldrake")
    system.run("echo 'VOLDRAKE_OPTIONS=\"--no-such-option\"' > /etc/default/voldrake")
    system.run("systemctl start voldrake", check=False)
    system.wait_for(lambda: shown(system, "ActiveState") == "failed")
    assert shown(system, "NRestarts") == "0"


def test_hardware_service_is_started_for_a_call(system: BootedRoot) -> None:
    """The real one, within its unit's limits. udev does not run in a container: its socket is
    what the service asks for."""
    units = "/etc/systemd/system"
    system.run(f"systemctl stop hal; rm {units}/{ALIAS} {units}/voldrake-hald.service;"
               " systemctl daemon-reload; systemctl enable voldrake-hald;"
               " mkdir -p /run/udev; touch /run/udev/control")
    assert shown(system, "ActiveState", "voldrake-hald") == "inactive"
    told = system.run("busctl call org.freedesktop.Hal /org/freedesktop/Hal/Manager"
                      " org.freedesktop.Hal.Manager GetAllDevices")
    assert "/org/freedesktop/Hal/devices/computer" in told
    assert shown(system, "ActiveState", "voldrake-hald") == "active"
    main = shown(system, "MainPID", "voldrake-hald")
    for name in ("mnt", "net"):
        assert system.run(f"readlink /proc/{main}/ns/{name}") == system.run(
            f"readlink /proc/1/ns/{name}")
    assert system.run(f"sed -n 's/^Seccomp:\t//p' /proc/{main}/status") == "2\n"


def test_hardware_service_keeps_its_state_over_a_restart(system: BootedRoot) -> None:
    system.run("systemctl stop voldrake-hald; test -e /run/voldrake-hald/state;"
               " systemctl start voldrake-hald")
    system.run("systemctl kill --signal=KILL voldrake-hald")
    system.wait_for(lambda: shown(system, "NRestarts", "voldrake-hald") == "1"
                    and shown(system, "ActiveState", "voldrake-hald") == "active")


def test_waits_for_a_hardware_service_that_is_restarted_later(system: BootedRoot) -> None:
    """The real one ends with the bus and is not restarted at once; the daemon is."""
    limits = "/run/systemd/system/voldrake-hald.service.d"
    system.run(f"mkdir -p {limits}; printf '[Service]\\nRestartSec=3\\n' > {limits}/late.conf;"
               " systemctl daemon-reload; : > /etc/default/voldrake;"
               " systemctl reset-failed voldrake; systemctl start voldrake")
    first = started(system)
    system.run("systemctl restart dbus.service")
    system.wait_for(lambda: started(system) > first
                    and shown(system, "ActiveState") == "active")
    assert first < started(system, "voldrake-hald") < started(system)
    system.wait_for(lambda: "_ManualScan" in journal(system))
    assert "Check hald process" not in journal(system)


def test_ends_before_the_nfs_server_at_shutdown(system: BootedRoot) -> None:
    system.run("rm -f /var/nfs-server-end")
    system.close()
    assert (system.root / "var/nfs-server-end").read_text() == "inactive\n"
