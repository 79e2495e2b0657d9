"""A hardware service that is absent, leaves, returns, refuses, answers nonsense or not at all."""

import re
import signal

import pytest

from observations import mark_behind_log, wait_for_signal_handlers
from testbed import timeouts
from testbed.daemon import ERROR, INFO, WARNING
from testbed.strace import Strace
from testbed.unit import Unit

PREFIX = "/org/freedesktop/Hal/devices/"
MANAGER = "/org/freedesktop/Hal/Manager"
STRING, INTEGER, BOOLEAN = "GetPropertyString", "GetPropertyInteger", "GetPropertyBoolean"
WORDS = {STRING: "propertyString()", INTEGER: "propertyInt()", BOOLEAN: "propertyBool()"}
#: An answer of another type than the method promises.
WRONG_ANSWERS = {STRING: "(7,)", INTEGER: "('7',)", BOOLEAN: "(1,)"}

#: Without one of these a volume is not mounted ...
NEEDED = [(STRING, "info.parent"), (STRING, "volume.fstype"), (STRING, "block.device"),
          (BOOLEAN, "volume.is_mounted")]
#: ... without one of these it is used all the same, ...
NOT_NEEDED = [(STRING, "linux.sysfs_path"), (INTEGER, "usb_device.vendor_id"),
              (INTEGER, "usb_device.product_id"), (STRING, "linux.subsystem"),
              (INTEGER, "scsi.host"), (INTEGER, "scsi.bus"), (INTEGER, "scsi.target"),
              (INTEGER, "scsi.lun")]
#: ... and these are asked of a mounted volume only, which is not registered without them.
NEEDED_OF_A_MOUNTED_ONE = [(STRING, "volume.mount_point"),
                           (BOOLEAN, "volume.is_mounted_read_only")]


def named(queries: list[tuple[str, str]]) -> dict[str, object]:
    """The arguments of `parametrize` for these queries."""
    return {"argvalues": queries, "ids": [key for _, key in queries]}


def still_works(unit: Unit) -> None:
    """A stick that comes now is mounted and told."""
    unit.hal.command("forget")
    unit.hal.plug("usb afterwards volume-block=/dev/sdz9")
    unit.application.expect_message("dataarrival", path="/media/sdz9")


def mounts(unit: Unit, since=0) -> list[str]:
    """The volumes that were asked to be mounted."""
    return [call.path for call in unit.hal.calls(since) if call.member == "Mount"]


@pytest.mark.parametrize("method, key", **named(NEEDED))
@pytest.mark.parametrize("wrong_type", [False, True], ids=["refused", "of the wrong type"])
def test_without_a_needed_property_a_volume_is_not_mounted(running_unit: Unit, method: str,
                                                           key: str, wrong_type: bool) -> None:
    since = mark_behind_log(running_unit)
    spoil(running_unit, method, key, wrong_type)
    running_unit.hal.plug("usb stick")
    running_unit.settle()
    assert complaints(running_unit, method, wrong_type, since) == 1
    assert mounts(running_unit) == []
    still_works(running_unit)


@pytest.mark.parametrize("method, key", **named(NOT_NEEDED))
@pytest.mark.parametrize("wrong_type", [False, True], ids=["refused", "of the wrong type"])
def test_without_another_property_a_volume_is_used(running_unit: Unit, method: str, key: str,
                                                   wrong_type: bool) -> None:
    since = mark_behind_log(running_unit)
    spoil(running_unit, method, key, wrong_type)
    running_unit.hal.plug("usb stick")
    running_unit.application.expect_message("dataarrival", path="/media/sda1")
    running_unit.settle()
    assert complaints(running_unit, method, wrong_type, since) == 1


@pytest.mark.parametrize("method, key", **named(NEEDED_OF_A_MOUNTED_ONE))
@pytest.mark.parametrize("wrong_type", [False, True], ids=["refused", "of the wrong type"])
def test_without_its_mount_point_or_mode_a_mounted_volume_is_not_registered(
        running_unit: Unit, method: str, key: str, wrong_type: bool) -> None:
    since = mark_behind_log(running_unit)
    spoil(running_unit, method, key, wrong_type)
    running_unit.hal.plug("usb stick")
    running_unit.daemon.expect_log(ERROR, "_DeviceMounted: Failed to get Volume Info")
    running_unit.settle()
    assert complaints(running_unit, method, wrong_type, since) == 1
    assert running_unit.links() == {}
    assert running_unit.application.frames() == []
    still_works(running_unit)


def spoil(unit: Unit, method: str, key: str, wrong_type: bool) -> None:
    """Have the next query of this property answered badly."""
    if wrong_type:
        unit.hal.command(f"answer {method}:{key} {WRONG_ANSWERS[method]}")
    else:
        unit.hal.command(f"fail {method}:{key} org.freedesktop.Hal.PermissionDenied no")


def complaints(unit: Unit, method: str, wrong_type: bool, since) -> int:
    """How often the log tells of such an answer."""
    if wrong_type:
        text = f"HAL: {WORDS[method]} - invalid message type"
        return unit.daemon.logged(WARNING, text, since)
    return unit.daemon.logged(ERROR, "org.freedesktop.Hal.PermissionDenied: no", since)


@pytest.mark.parametrize("method, key, answer", [
    (STRING, "volume.fstype", "()"), (STRING, "volume.fstype", "(['vfat'],)"),
    (STRING, "volume.fstype", "(objectpath '/a',)"), (STRING, "volume.fstype", "(<'vfat'>,)"),
    (BOOLEAN, "volume.is_mounted", "()"), (BOOLEAN, "volume.is_mounted", "('true',)"),
    (INTEGER, "usb_device.vendor_id", "()"), (INTEGER, "usb_device.vendor_id", "(uint32 7,)"),
    (INTEGER, "usb_device.vendor_id", "(int64 7,)"),
], ids=str)
def test_each_answer_of_another_type_is_a_warning(running_unit: Unit, method: str, key: str,
                                                  answer: str) -> None:
    running_unit.hal.command(f"answer {method}:{key} {answer}")
    running_unit.hal.plug("usb stick")
    running_unit.settle()
    assert running_unit.daemon.logged(WARNING,
                                      f"HAL: {WORDS[method]} - invalid message type") == 1
    still_works(running_unit)


@pytest.mark.parametrize("parent", ["nowhere", "", "/org/", "/a b", "//", "/\u00e9"],
                         ids=["no slash", "empty", "slash at the end", "blank", "two slashes",
                              "a letter beyond ASCII"])
def test_a_parent_that_is_no_object_path_ends_the_query(running_unit: Unit, parent: str) -> None:
    running_unit.hal.plug(f'usb stick volume/info.parent=string:"{parent}"')
    running_unit.settle()
    assert running_unit.daemon.logged(
        WARNING, "HAL: propertyString() - could not create DBus message") == 1
    assert mounts(running_unit) == []
    still_works(running_unit)


def test_a_card_host_that_is_no_object_path_is_told_of_too(running_unit: Unit) -> None:
    running_unit.hal.plug("sd card card/info.parent=string:nowhere")
    running_unit.settle()
    assert running_unit.daemon.logged(
        WARNING, "HAL: propertyInt() - could not create DBus message") == 1
    still_works(running_unit)


NO_VOLUMES = {
    "a path with a blank": rf"{PREFIX}volume x",
    "a path with a line feed": rf"{PREFIX}volume\nx",
    "a path with a slash at its end": rf"{PREFIX}volume/",
    "a path in the middle of something": rf"x{PREFIX}volume",
    "a path of ten thousand characters and one blank": f"{PREFIX}volume {'x' * 10_000}",
}


@pytest.mark.parametrize("udi", NO_VOLUMES.values(), ids=NO_VOLUMES)
def test_an_arrival_of_what_is_no_object_path_is_a_warning(running_unit: Unit, udi: str) -> None:
    running_unit.hal.command(f"emit {MANAGER} org.freedesktop.Hal.Manager DeviceAdded"
                             f' ("{udi}",)')
    running_unit.settle()
    assert running_unit.daemon.logged(
        WARNING, "HAL: propertyString() - could not create DBus message") == 1
    still_works(running_unit)


CHANGE = "('volume.is_mounted', true, true)"
BODIES_OF_CHANGES = {
    "nothing": "",
    "a text": "('x',)",
    "only a count": "(1,)",
    "a text as list": "(1, 'x')",
    "names as list": "(1, ['volume.is_mounted'])",
    "numbers as list": "(1, [1, 2])",
    "a dictionary as list": "(1, {'volume.is_mounted': true})",
    "a variant as list": "(1, <'x'>)",
    "changes with one flag": "(1, [('volume.is_mounted', true)])",
    "changes without a name": "(1, [(1, true, true)])",
    "changes with a number as first flag": "(1, [('volume.is_mounted', 1, true)])",
    "changes with a text as second flag": "(1, [('volume.is_mounted', true, 'x')])",
    "an unsigned count": f"(uint32 1, [{CHANGE}])",
    "a long count": f"(int64 1, [{CHANGE}])",
    "no count": f"([{CHANGE}],)",
}
BODIES_OF_DEVICES = {
    "nothing": "",
    "a number": "(42,)",
    "a list": f"(['{PREFIX}volume_x'],)",
    "an object path": f"(objectpath '{PREFIX}volume_x',)",
    "a variant": f"(<'{PREFIX}volume_x'>,)",
}


@pytest.mark.parametrize("body", BODIES_OF_CHANGES.values(), ids=BODIES_OF_CHANGES)
def test_a_malformed_change_is_one_error_line_and_nothing_else(running_unit: Unit,
                                                               body: str) -> None:
    since = mark_behind_log(running_unit)
    running_unit.hal.command(
        f"emit {PREFIX}volume_x org.freedesktop.Hal.Device PropertyModified {body}".strip())
    running_unit.settle()
    assert levels(running_unit, since) == [ERROR]
    assert running_unit.hal.calls(since) == []
    still_works(running_unit)


@pytest.mark.parametrize("body", BODIES_OF_DEVICES.values(), ids=BODIES_OF_DEVICES)
@pytest.mark.parametrize("member", ["DeviceAdded", "DeviceRemoved"])
def test_a_malformed_arrival_or_removal_is_logged_and_dropped(running_unit: Unit, member: str,
                                                              body: str) -> None:
    since = mark_behind_log(running_unit)
    running_unit.hal.command(
        f"emit {MANAGER} org.freedesktop.Hal.Manager {member} {body}".strip())
    running_unit.settle()
    errors = [line.text for line in running_unit.daemon.log_lines(since) if line.level == ERROR]
    if member == "DeviceRemoved":
        assert errors.pop(0) == "dBusHandler: DeviceRemoved: arg error"
    assert len(errors) == 1 and errors[0].startswith("org.freedesktop.DBus.Error.InvalidArgs: ")
    assert levels(running_unit, since) == [ERROR] * (2 if member == "DeviceRemoved" else 1)
    assert running_unit.hal.calls(since) == []
    still_works(running_unit)


def levels(unit: Unit, since) -> list[int]:
    """The levels of the lines after the mark that are no debug lines."""
    return [line.level for line in unit.daemon.log_lines(since) if line.level <= INFO]


def test_without_the_service_the_daemon_starts_and_finds_it_when_told_to_look(unit: Unit) -> None:
    unit.hal.command("drop")
    unit.daemon.start()
    unit.daemon.expect_log(WARNING, "HAL: Check hald process is running")
    unit.daemon.expect_log(ERROR, re.compile(r"org\.freedesktop\.DBus\.Error\.ServiceUnknown: .+"))
    unit.hal.command("return")
    unit.hal.command("quiet plug usb stick mounted")
    wait_for_signal_handlers(unit)
    unit.daemon.signal(signal.SIGUSR2)
    unit.application.expect_message("dataarrival", path="/media/sda1")
    # It did not subscribe to signals, so there is nothing to take back.
    assert unit.daemon.terminate() == 0
    assert unit.daemon.stderr() == ""


def test_a_service_that_leaves_in_the_middle_of_a_query_and_comes_back(running_unit: Unit) -> None:
    hal = running_unit.hal
    hal.command("ignore GetPropertyString:block.device")
    hal.plug("usb stick")
    while hal.expect_call("GetPropertyString").arguments != "'block.device'":
        pass
    hal.command("drop")
    running_unit.daemon.expect_log(ERROR, re.compile(r"org\.freedesktop\.DBus\.Error\.NoReply: .+"))
    hal.command("return")
    still_works(running_unit)
    hal.pull("afterwards")
    running_unit.application.expect_message("dataremoval", path="/media/sdz9")


def test_a_service_that_leaves_in_the_middle_of_a_mount_and_comes_back(running_unit: Unit) -> None:
    running_unit.hal.command("ignore Mount")
    volume = running_unit.hal.plug("usb stick")["volume1"]
    running_unit.hal.expect_call("Mount")
    running_unit.hal.command("drop")
    running_unit.daemon.expect_log(ERROR, re.compile(r"org\.freedesktop\.DBus\.Error\.NoReply: .+"))
    running_unit.daemon.expect_log(ERROR, f"_DeviceAdded: MountVolume failed: {volume} sda1 vfat")
    running_unit.hal.command("return")
    still_works(running_unit)


def test_a_service_that_leaves_in_the_middle_of_the_start_up_scan(unit: Unit) -> None:
    unit.hal.command("ignore FindDeviceByCapability")
    unit.daemon.start()
    unit.hal.expect_call("FindDeviceByCapability")
    unit.hal.command("drop")
    unit.daemon.expect_log(ERROR, re.compile(r"org\.freedesktop\.DBus\.Error\.NoReply: .+"))
    unit.hal.command("return")
    still_works(unit)


def test_a_service_that_is_started_anew_under_another_bus_name(running_unit: Unit) -> None:
    still_works(running_unit)
    before = running_unit.hal.unique_name
    running_unit.hal.stop()
    running_unit.hal.start()
    assert running_unit.hal.unique_name != before
    running_unit.hal.plug("usb stick")
    running_unit.application.expect_message("dataarrival", path="/media/sda1")


def test_volumes_stay_known_while_the_service_is_away(running_unit: Unit) -> None:
    running_unit.hal.plug("usb stick")
    running_unit.application.expect_message("dataarrival", path="/media/sda1")
    running_unit.settle()
    running_unit.hal.command("drop")
    running_unit.daemon.signal(signal.SIGUSR1)
    running_unit.application.expect_message("dataarrival", path="/media/sda1")
    running_unit.daemon.signal(signal.SIGUSR2)
    running_unit.application.expect_message("dataremoval", path="/media/sda1")
    running_unit.daemon.expect_log(
        ERROR, re.compile(r"org\.freedesktop\.DBus\.Error\.ServiceUnknown: .+"))
    assert running_unit.daemon.terminate() == 0


def test_sigterm_during_a_query_is_obeyed_as_soon_as_the_query_ends(running_unit: Unit) -> None:
    running_unit.hal.command("ignore Mount")
    running_unit.hal.plug("usb stick")
    running_unit.hal.expect_call("Mount")
    running_unit.daemon.signal(signal.SIGTERM)
    running_unit.hal.command("drop")
    assert running_unit.daemon.wait() == 0


def test_an_answer_that_never_comes_is_given_up_after_the_bus_librarys_time(
        running_unit: Unit) -> None:
    """25 seconds; the only test that waits for that."""
    running_unit.hal.command("ignore Mount")
    with Strace(running_unit.daemon.process, running_unit.sandbox.logs / "strace", "-s", "200",
                "-e", "trace=write") as trace:
        volume = running_unit.hal.plug("usb stick")["volume1"]
        running_unit.daemon.expect_log(
            ERROR, re.compile(r"org\.freedesktop\.DBus\.Error\.NoReply: .+"), 25 + timeouts.EVENT)
        running_unit.daemon.expect_log(
            ERROR, f"_DeviceAdded: MountVolume failed: {volume} sda1 vfat")
    begin, end = trace.times("^write.*(_DeviceAdded: Volume Found|DBus.Error.NoReply)")
    assert end - begin >= 25
    still_works(running_unit)
