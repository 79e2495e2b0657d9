"""Strangers on the message bus, and a bus that is absent or goes away."""

import re
import signal

import pytest

from observations import mark_behind_log, wait_for_signal_handlers
from testbed.daemon import DEBUG, ERROR, INFO, WARNING, log_line
from testbed.hal import Hal
from testbed.tape import Wanted
from testbed.unit import Unit

PREFIX = "/org/freedesktop/Hal/devices/"
MANAGER = "/org/freedesktop/Hal/Manager"
MANAGER_SIGNAL = f"{MANAGER} org.freedesktop.Hal.Manager"
NOT_CONNECTED = "HAL: Connection - closed"
#: A unique name on the bus.
NAME = re.compile(r"(?<![\w.]):1\.\d+")

SIGNALS = {
    "an arrival": MANAGER_SIGNAL + " DeviceAdded ('VOLUME',)",
    "a removal": MANAGER_SIGNAL + " DeviceRemoved ('VOLUME',)",
    "a change": "VOLUME org.freedesktop.Hal.Device PropertyModified"
                " (1, [('volume.is_mounted', false, false)])",
    "a malformed one": MANAGER_SIGNAL + " DeviceAdded (7,)",
}


def send_straight_to_the_daemon(unit: Unit, sender: Hal, signal_text: str) -> None:
    """Emit a signal to the daemon alone, whatever its match rules say."""
    sender.command(f"emit to={unit.hal.caller()} {signal_text}")


def expect_dropped(unit: Unit, sender: Hal, signal_text: str) -> str:
    """Send a signal straight to the daemon, which drops it with a warning; who it says sent it."""
    since = mark_behind_log(unit)
    send_straight_to_the_daemon(unit, sender, signal_text)
    warning = unit.daemon.expect_log(WARNING, re.compile(".*" + NAME.pattern + ".*"))
    unit.settle()
    assert [line.level for line in unit.daemon.log_lines(since) if line.level <= INFO] == [WARNING]
    assert unit.hal.calls(since) == []
    assert unit.application.frames(since) == []
    return NAME.search(warning.text)[0]


@pytest.mark.parametrize("text", SIGNALS.values(), ids=SIGNALS)
def test_a_signal_straight_from_a_stranger_is_dropped(running_unit: Unit, text: str) -> None:
    volume = running_unit.hal.plug("usb stick")["volume1"]
    running_unit.application.expect_message("dataarrival")
    running_unit.settle()
    stranger = running_unit.stranger()
    named = expect_dropped(running_unit, stranger, text.replace("VOLUME", volume))
    assert named not in (running_unit.hal.unique_name, running_unit.hal.caller())
    assert running_unit.links() == {"USB Memory Card A1": "sda1"}
    running_unit.hal.pull("stick")
    running_unit.application.expect_message("dataremoval")


def test_a_stranger_is_dropped_before_the_service_has_said_anything(unit: Unit) -> None:
    unit.hal.command("delay FindDeviceByCapability 300")
    unit.daemon.start()
    unit.hal.expect_call("FindDeviceByCapability")
    stranger = unit.stranger()
    send_straight_to_the_daemon(unit, stranger,
                                f"{MANAGER_SIGNAL} DeviceAdded ('{PREFIX}volume_x',)")
    unit.daemon.expect_log(WARNING, re.compile(".*" + NAME.pattern + ".*"))
    unit.settle()
    assert len(unit.hal.calls()) == 1


def test_a_strangers_broadcast_changes_nothing(running_unit: Unit) -> None:
    stranger = running_unit.stranger()
    since = mark_behind_log(running_unit)
    stranger.command(f"emit {MANAGER_SIGNAL} DeviceAdded ('{PREFIX}volume_x',)")
    running_unit.settle()
    assert {line.text for line in running_unit.daemon.log_lines(since)} == {"dBusHandler()"}
    assert running_unit.hal.calls(since) == []


def test_a_signal_straight_from_the_service_counts(running_unit: Unit) -> None:
    volume = running_unit.hal.command("quiet plug usb stick")[-1].split()[2]
    send_straight_to_the_daemon(running_unit, running_unit.hal,
                                f"{MANAGER_SIGNAL} DeviceAdded ('{volume}',)")
    running_unit.application.expect_message("dataarrival", path="/media/sda1")


def test_a_service_that_gave_up_its_name_is_a_stranger(running_unit: Unit) -> None:
    since = mark_behind_log(running_unit)
    running_unit.hal.command("drop name")
    send_straight_to_the_daemon(running_unit, running_unit.hal,
                                f"{MANAGER_SIGNAL} DeviceRemoved ('{PREFIX}volume_x',)")
    warning = running_unit.daemon.expect_log(WARNING, re.compile(".*" + NAME.pattern + ".*"))
    assert NAME.search(warning.text)[0] == running_unit.hal.unique_name
    running_unit.hal.command("return")
    running_unit.settle()
    assert running_unit.daemon.logged(
        DEBUG, "dBusHandler: DeviceRemoved: calling _DeviceRemoved", since) == 0


def test_whoever_takes_over_the_services_name_is_the_service(running_unit: Unit) -> None:
    successor = running_unit.stranger()
    running_unit.hal.command("drop name")
    successor.command("return")
    successor.plug("usb stick")
    running_unit.application.expect_message("dataarrival", path="/media/sda1")


def test_without_its_bus_the_daemon_keeps_telling_what_it_knows(running_unit: Unit) -> None:
    running_unit.hal.plug("usb stick")
    running_unit.application.expect_message("dataarrival", path="/media/sda1")
    running_unit.settle()
    running_unit.bus.kill()
    for _ in range(2):
        running_unit.daemon.signal(signal.SIGUSR1)
        running_unit.application.expect_message("dataarrival", path="/media/sda1")
    running_unit.daemon.signal(signal.SIGUSR2)
    running_unit.application.expect_message("dataremoval", path="/media/sda1")
    running_unit.daemon.expect_log(
        ERROR, re.compile(r"org\.freedesktop\.DBus\.Error\.Disconnected: .+"))
    assert running_unit.daemon.terminate() == 0
    running_unit.daemon.expect_log(DEBUG, "freeHal()")


def test_what_fills_the_bus_during_a_call_is_dealt_with_afterwards(running_unit: Unit) -> None:
    """Three megabytes, more than the daemon's socket holds."""
    since = running_unit.mark()
    running_unit.hal.command("ignore Mount")
    running_unit.hal.plug("usb stick")
    running_unit.hal.expect_call("Mount")
    for number in range(300):
        running_unit.hal.command(
            f"emit {MANAGER_SIGNAL} DeviceRemoved ('{PREFIX}{number}{'x' * 10_000}',)")
    running_unit.hal.command("drop")
    # The call fails once the bus has noticed, which has released the name by then.
    running_unit.daemon.expect_log(
        ERROR, re.compile("_DeviceAdded: MountVolume failed: .* sda1 .*"))
    running_unit.hal.command("return")
    running_unit.hal.command("forget")
    running_unit.hal.plug("usb afterwards volume-block=/dev/sdz9")
    running_unit.application.expect_message("dataarrival", path="/media/sdz9")
    assert running_unit.daemon.logged(
        DEBUG, "dBusHandler: DeviceRemoved: calling _DeviceRemoved", since) == 300


def test_the_loss_of_the_bus_is_told_at_once_and_once(running_unit: Unit) -> None:
    mark_in_the_log(running_unit)  # and no query is under way any more
    since = running_unit.tape.mark()
    running_unit.bus.kill()
    running_unit.daemon.log.expect(Wanted(
        "a line about the loss", lambda event: event.data and event.data.level <= WARNING))
    running_unit.daemon.signal(signal.SIGHUP)
    lines = running_unit.daemon.log_lines(since, until=log_line(INFO, "Starting new log file"))
    assert [line.level for line in lines if line.level <= WARNING] in ([WARNING], [ERROR])


def mark_in_the_log(unit: Unit) -> None:
    """Return once the daemon's main thread has got round to a signal that is sent now."""
    unit.daemon.signal(signal.SIGHUP)
    unit.daemon.expect_log(INFO, "Starting new log file")
    unit.daemon.expect_log(INFO, "Version - 1.10 Client port - 8080")


def test_without_a_bus_the_daemon_starts_and_ends_in_good_order(unit: Unit) -> None:
    unit.bus.stop()
    unit.daemon.start()
    unit.daemon.expect_log(
        ERROR, re.compile(r"org\.freedesktop\.DBus\.Error\.FileNotFound: .+"))
    unit.daemon.expect_log(INFO, "_ManualScan()")
    unit.daemon.expect_log(WARNING, NOT_CONNECTED)
    wait_for_signal_handlers(unit)
    unit.daemon.signal(signal.SIGUSR2)
    unit.daemon.expect_log(INFO, "_UnmountAll()")
    unit.daemon.expect_log(WARNING, NOT_CONNECTED)
    assert unit.daemon.terminate() == 0
    unit.daemon.expect_log(DEBUG, "freeHal()")
    unit.daemon.expect_log(WARNING, NOT_CONNECTED)
