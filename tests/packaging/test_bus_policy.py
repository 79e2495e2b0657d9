"""The bus policy, enforced by a real bus: nobody but root's hardware service is heard."""

import re
import threading
import time
from dataclasses import dataclass
from pathlib import Path
from typing import Callable, Iterator

import pytest

from testbed import target, timeouts
from testbed.daemon import INFO, WARNING, Daemon
from testbed.hal import Hal
from testbed.process import Process
from testbed.sandbox import Sandbox
from testbed.tape import Tape

#: The rules of an ordinary system bus, without those for particular services.
SYSTEM_BUS = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path=/run/dbus/system_bus_socket</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <deny own="*"/>
    <deny send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
    <allow send_destination="org.freedesktop.DBus"/>
  </policy>
  <includedir>/etc/dbus-1/system.d</includedir>
</busconfig>
"""
#: What a bus needs for the service to run at all, and no more.
ONLY_OWNING = """<busconfig>
  <policy user="root">
    <allow own="org.freedesktop.Hal"/>
    <allow send_destination="org.freedesktop.Hal"/>
  </policy>
</busconfig>
"""
DROPPED = re.compile(r"dBusHandler: DeviceRemoved from .*, who is not org.freedesktop.Hal, dropped")
REJECTED = "Rejected receive message"


@pytest.fixture
def policy(tree) -> str:
    return tree.path("share/dbus-1/system.d/voldrake.conf").read_text()


@pytest.fixture
def bus_sandbox(log_directory: Path) -> Iterator[Sandbox]:
    with Sandbox(log_directory, target.read_only_mounts()) as started:
        yield started


def start_bus(bus_sandbox: Sandbox, policy: str) -> Process:
    bus_sandbox.write("/etc/passwd", "root:x:0:0::/:/bin/sh\nsomebody:x:1000:1000::/:/bin/sh\n")
    bus_sandbox.write("/etc/dbus-1/system.conf", SYSTEM_BUS)
    bus_sandbox.write("/etc/dbus-1/system.d/voldrake.conf", policy)
    bus_sandbox.path("/run/dbus").mkdir()
    ready = threading.Event()
    bus = bus_sandbox.spawn(["dbus-daemon", "--config-file=/etc/dbus-1/system.conf", "--nofork",
                             "--nopidfile", "--print-address=1"], "bus",
                            on_line=lambda _: ready.set())
    assert ready.wait(timeouts.START), bus.stderr()
    return bus


@dataclass
class Listener:
    """A daemon that a stranger has told, and it alone, that a device has gone."""

    daemon: Daemon
    hal: Hal


@pytest.fixture
def speak(bus_sandbox: Sandbox) -> Callable[[], Listener]:
    """Starts the service, the daemon and the stranger, and lets the stranger speak."""
    def start() -> Listener:
        tape = Tape()
        hal, stranger = Hal(bus_sandbox, tape), Hal(bus_sandbox, tape, "stranger")
        daemon = Daemon(bus_sandbox, tape)
        hal.start(real_mounts=False)
        stranger.start("--absent")
        daemon.start()
        name = hal.expect_call("FindDeviceByCapability").sender
        stranger.command(f"emit to={name} /org/freedesktop/Hal/Manager"
                         " org.freedesktop.Hal.Manager DeviceRemoved"
                         " ('/org/freedesktop/Hal/devices/volume_x',)")
        return Listener(daemon, hal)
    return start


def test_a_bus_without_the_policy_delivers_a_strangers_signal(
        bus_sandbox: Sandbox, speak: Callable[[], Listener]) -> None:
    bus = start_bus(bus_sandbox, ONLY_OWNING)
    speak().daemon.expect_log(WARNING, DROPPED)
    assert REJECTED not in bus.stderr()


def test_a_strangers_signal_does_not_arrive(
        bus_sandbox: Sandbox, policy: str, speak: Callable[[], Listener]) -> None:
    bus = start_bus(bus_sandbox, policy)
    listener = speak()
    deadline = time.monotonic() + timeouts.EVENT
    while not (REJECTED in bus.stderr() and 'member="DeviceRemoved"' in bus.stderr()):
        assert time.monotonic() < deadline, "the bus did not reject the signal"
        time.sleep(timeouts.POLL)
    listener.hal.plug("usb stick")
    listener.daemon.expect_log(INFO, "_DeviceAdded: Volume Found")
    assert not any(DROPPED.fullmatch(line.text) for line in listener.daemon.log_lines())


def test_only_root_can_be_the_service(bus_sandbox: Sandbox, policy: str) -> None:
    assert policy.count('user="root"') == 1
    start_bus(bus_sandbox, policy.replace('user="root"', 'user="somebody"'))
    service = bus_sandbox.spawn([target.program("voldrake-halsim")], "refused")
    assert service.wait() == 1
    assert "org.freedesktop.Hal" in service.stderr()


@pytest.fixture
def service_policy(tree) -> str:
    return tree.path("share/dbus-1/system.d/voldrake-hald.conf").read_text()


def for_somebody(policy: str) -> str:
    """The policy as it is for a user other than root, where there is no other user."""
    assert policy.count('user="root"') == 1
    return policy.replace('user="root"', 'user="somebody"')


#: A hardware service's policy is tested with a service that may own the name all the same.
OWNING = '<policy user="root"><allow own="org.freedesktop.Hal"/></policy></busconfig>'
VOLUME = "/org/freedesktop/Hal/devices/volume_x"
ASKED = [
    ("/org/freedesktop/Hal/Manager", "org.freedesktop.Hal.Manager.GetAllDevices", []),
    ("/org/freedesktop/Hal/Manager", "org.freedesktop.DBus.Introspectable.Introspect", []),
    (VOLUME, "org.freedesktop.Hal.Device.GetPropertyString", ["volume.label"])]
COMMANDED = [
    (VOLUME, "org.freedesktop.Hal.Device.Volume.Mount", ["x", "vfat", "@as []"]),
    (VOLUME, "org.freedesktop.Hal.Device.Volume.Unmount", ["@as []"]),
    (VOLUME, "org.freedesktop.Hal.Device.Volume.Eject", ["@as []"])]


def answer(sandbox: Sandbox, path: str, method: str, words: list[str]) -> str:
    done = sandbox.run(["gdbus", "call", "--system", "--dest=org.freedesktop.Hal",
                        f"--object-path={path}", f"--method={method}", *words])
    return done.stdout + done.stderr


def serve(sandbox: Sandbox, policy: str) -> None:
    start_bus(sandbox, policy)
    Hal(sandbox, Tape()).start(real_mounts=False)


def test_anybody_may_ask_the_hardware_service(bus_sandbox: Sandbox, service_policy: str) -> None:
    serve(bus_sandbox, for_somebody(service_policy).replace("</busconfig>", OWNING))
    for path, method, words in ASKED:
        assert "AccessDenied" not in answer(bus_sandbox, path, method, words), method


def test_only_root_has_the_hardware_service_mount(
        bus_sandbox: Sandbox, service_policy: str) -> None:
    serve(bus_sandbox, for_somebody(service_policy).replace("</busconfig>", OWNING))
    for path, method, words in COMMANDED:
        assert "AccessDenied" in answer(bus_sandbox, path, method, words), method


def test_root_may_ask_and_command_the_hardware_service(
        bus_sandbox: Sandbox, service_policy: str) -> None:
    serve(bus_sandbox, service_policy)
    for path, method, words in ASKED + COMMANDED:
        assert "AccessDenied" not in answer(bus_sandbox, path, method, words), method
    assert "NoSuchDevice" in answer(bus_sandbox, *COMMANDED[0])


def test_only_root_can_be_the_hardware_service(
        bus_sandbox: Sandbox, service_policy: str) -> None:
    start_bus(bus_sandbox, for_somebody(service_policy))
    service = bus_sandbox.spawn([target.program("voldrake-halsim")], "refused")
    assert service.wait() == 1
    assert "org.freedesktop.Hal" in service.stderr()


def test_the_two_policies_agree(bus_sandbox: Sandbox, policy: str, service_policy: str) -> None:
    """Both packages installed: whom the daemon believes, and who may ask, stay as they are."""
    start_bus(bus_sandbox, policy)
    bus_sandbox.write("/etc/dbus-1/system.d/voldrake-hald.conf", for_somebody(service_policy))
    done = bus_sandbox.run(["gdbus", "call", "--system", "--dest=org.freedesktop.DBus",
                            "--object-path=/org/freedesktop/DBus",
                            "--method=org.freedesktop.DBus.ReloadConfig"])
    assert done.returncode == 0, done.stderr
    Hal(bus_sandbox, Tape()).start(real_mounts=False)
    for path, method, words in ASKED + COMMANDED:
        assert "AccessDenied" not in answer(bus_sandbox, path, method, words), method
