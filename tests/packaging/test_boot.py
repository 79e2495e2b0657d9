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

#: The hardware service counts as started when it has its name on the bus.
HAL = """[Unit]
Requires=dbus.service
After=dbus.service
[Service]
Type=dbus
BusName=org.freedesktop.Hal
ExecStartPre=mkfifo /run/hal.commands
ExecStart=sh -c "exec voldrake-halsim 0<>/run/hal.commands"
"""

APPLICATION = """[Unit]
Before=voldrake.service
[Service]
ExecStart=voldrake-monitor --json
StandardOutput=file:/run/messages
StandardError=journal
"""


@pytest.fixture(scope="module")
def system() -> Iterator[BootedRoot]:
    """A system that has booted with the packages installed."""
    directory = Path(os.environ["VOLDRAKE_PACKAGES"])
    copies = " ".join(str(package) for package in directory.glob("*.deb")
                      if "-dbgsym_" not in package.name)
    logs = target.log_directory() / "packaging"
    logs.mkdir(parents=True, exist_ok=True)
    with Root(directory / "boot-root", f"mkdir $1/packages && cp {copies} $1/packages",
              'chroot $1 sh -c "apt-get install --yes --no-install-recommends systemd-sysv dbus'
              ' /packages/*.deb"') as root:
        units = root.directory / "etc/systemd/system"
        for name, text in (("hal", HAL), ("application", APPLICATION)):
            (units / f"{name}.service").write_text(text)
            (units / f"multi-user.target.wants/{name}.service").symlink_to(f"../{name}.service")
        booted = BootedRoot(root, logs / "boot.console")
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
    system.wait_for(lambda: "_ManualScan" in system.run(
        "journalctl --no-pager _SYSTEMD_UNIT=voldrake.service"))


def test_is_back_after_it_was_killed(system: BootedRoot) -> None:
    system.run("systemctl kill --signal=KILL voldrake")
    system.wait_for(lambda: shown(system, "NRestarts") == "1")
    # The volume that is still there is told again by the new one.
    system.wait_for(lambda: messages(system) == 2 * [("arrival", "/media/sda1")])
    assert shown(system, "ActiveState") == "active"


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
