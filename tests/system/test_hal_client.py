"""What the hardware service is asked, with which arguments, and what its signals set off."""

import re

import pytest

from observations import mark_behind_log
from testbed.daemon import DEBUG, ERROR, INFO, WARNING
from testbed.unit import Unit

PREFIX = "/org/freedesktop/Hal/devices/"
MANAGER = "/org/freedesktop/Hal/Manager"
MANAGER_INTERFACE = "org.freedesktop.Hal.Manager"
DEVICE_INTERFACE = "org.freedesktop.Hal.Device"


def new_lines(unit: Unit, since) -> list[tuple[int, str]]:
    """The log's lines after the mark, without those that every message makes."""
    return [(line.level, line.text) for line in unit.daemon.log_lines(since)
            if line.text != "dBusHandler()"]


def test_every_call_goes_to_the_right_interface_with_one_text(running_unit: Unit) -> None:
    running_unit.hal.plug("usb stick")
    running_unit.application.expect_message("dataarrival")
    running_unit.settle()
    forms = {"FindDeviceByCapability": (MANAGER_INTERFACE, r"'\w+'"),
             "GetPropertyString": (DEVICE_INTERFACE, r"'[\w.]+'"),
             "GetPropertyInteger": (DEVICE_INTERFACE, r"'[\w.]+'"),
             "GetPropertyBoolean": (DEVICE_INTERFACE, r"'[\w.]+'"),
             "Mount": ("org.freedesktop.Hal.Device.Volume", r"'sda1', 'vfat', \[\]")}
    calls = running_unit.hal.calls()
    assert {call.member for call in calls} == set(forms)
    for call in calls:
        interface, arguments = forms[call.member]
        assert call.interface == interface
        assert re.fullmatch(arguments, call.arguments)
    assert calls[0].path == MANAGER


MOUNT_OPTIONS = {
    "a type that only begins with vfat": ("vfatx", ["--vfat-mount-opts", "utf8"], "['utf8']"),
    "another type": ("ext3", ["--vfat-mount-opts", "utf8"], "[]"),
}


@pytest.mark.parametrize("fstype, words, options", MOUNT_OPTIONS.values(), ids=MOUNT_OPTIONS)
def test_a_mount_is_asked_with_name_type_and_options(unit: Unit, fstype: str, words: list[str],
                                                     options: str) -> None:
    unit.start_daemon(*words)
    volume = unit.hal.plug(f"usb stick fstype={fstype}")["volume1"]
    assert unit.hal.expect_call("Mount", volume).arguments == f"'sda1', '{fstype}', {options}"
    unit.settle()
    told = options != "[]"
    assert unit.daemon.logged(DEBUG, words[1] if told else "utf8") == told


def test_options_that_the_bus_cannot_carry_are_not_sent(unit: Unit) -> None:
    unit.start_daemon("--vfat-mount-opts", "utf8\udcff")
    since = mark_behind_log(unit)
    volume = unit.hal.plug("usb stick")["volume1"]
    unit.settle()
    assert unit.daemon.logged(WARNING, "HAL: mountVolume() - could not append arguments") == 1
    assert unit.daemon.logged(ERROR, f"_DeviceAdded: MountVolume failed: {volume} sda1 vfat") == 1
    assert "Mount" not in [call.member for call in unit.hal.calls(since)]
    unit.hal.plug("usb other fstype=ext3")
    unit.application.expect_message("dataarrival", path="/media/sdb1")


def test_a_refused_mount_is_logged_once_by_name_and_text(running_unit: Unit) -> None:
    running_unit.hal.command('fail Mount org.freedesktop.Hal.Device.Volume.Busy "in use"')
    volume = running_unit.hal.plug("usb stick")["volume1"]
    running_unit.daemon.expect_log(ERROR, f"_DeviceAdded: MountVolume failed: {volume} sda1 vfat")
    assert running_unit.daemon.logged(ERROR, "org.freedesktop.Hal.Device.Volume.Busy: in use") == 1


def test_the_start_up_scan_goes_through_the_volumes_in_the_services_order(unit: Unit) -> None:
    volumes = [unit.hal.plug(f"usb {name}")["volume1"] for name in ("c", "a", "b")]
    order = [volumes[1], volumes[2], volumes[0]]
    unit.hal.command(f"answer FindDeviceByCapability ({order},)")
    unit.start_daemon()
    found = [text for level, text in new_lines(unit, 0) if level == DEBUG and text in volumes]
    # Each is shown by the query, and again when its turn comes.
    assert found == [*order, *order]
    mounts = [call.path for call in unit.hal.calls() if call.member == "Mount"]
    assert mounts == order


INVALID_LIST = "HAL: findDeviceByCapability() - invalid message type"
CAPABILITY_REPLIES = {
    "a text instead of a list": ("('x',)", [INVALID_LIST]),
    "a list of what are no volumes": (f"(['', 'a b', '{PREFIX}computer'],)", []),
}


@pytest.mark.parametrize("reply, warnings", CAPABILITY_REPLIES.values(), ids=CAPABILITY_REPLIES)
def test_replies_to_the_search_for_volumes(unit: Unit, reply: str, warnings: list[str]) -> None:
    unit.hal.command(f"answer FindDeviceByCapability {reply}")
    unit.start_daemon()
    assert [line.text for line in unit.daemon.log_lines() if line.level <= WARNING] == warnings
    assert len(unit.hal.calls()) == 1
    unit.hal.plug("usb stick")
    unit.application.expect_message("dataarrival")


def test_a_refused_search_is_logged_and_the_daemon_goes_on(unit: Unit) -> None:
    unit.hal.command("fail FindDeviceByCapability org.freedesktop.Hal.Error no")
    unit.start_daemon()
    assert unit.daemon.logged(ERROR, "org.freedesktop.Hal.Error: no") == 1
    unit.hal.plug("usb stick")
    unit.application.expect_message("dataarrival")


def test_a_missing_property_is_one_error_line_with_name_and_message(running_unit: Unit) -> None:
    since = mark_behind_log(running_unit)
    volume = running_unit.hal.plug("usb stick volume/volume.fstype=unset")["volume1"]
    running_unit.settle()
    key = f"No property volume.fstype on device with id {volume}"
    assert running_unit.daemon.logged(ERROR, f"org.freedesktop.Hal.NoSuchProperty: {key}",
                                      since) == 1
    assert "Mount" not in [call.member for call in running_unit.hal.calls(since)]


@pytest.mark.parametrize("text, shown", [
    (r" gone \t\r\n\n", " gone"), (r"go\nne\x07\n", "go?ne?")])
def test_the_white_space_at_the_end_of_an_error_is_not_logged(running_unit: Unit, text: str,
                                                              shown: str) -> None:
    running_unit.hal.command(
        f'fail GetPropertyString:volume.fstype org.freedesktop.Hal.Error "{text}"')
    running_unit.hal.plug("usb stick")
    running_unit.daemon.expect_log(ERROR, f"org.freedesktop.Hal.Error: {shown}")


def test_a_device_that_comes_and_goes_shows_in_the_debug_lines(running_unit: Unit) -> None:
    disk = f"{PREFIX}storage_x"
    since = mark_behind_log(running_unit)
    for member in ("DeviceAdded", "DeviceRemoved"):
        running_unit.hal.command(f"emit {MANAGER} {MANAGER_INTERFACE} {member} ('{disk}',)")
    running_unit.settle()
    assert new_lines(running_unit, since) == [
        (DEBUG, f"dBusHandler: DeviceAdded path - {MANAGER}interface - {MANAGER_INTERFACE}"
                "member - DeviceAdded"),
        (DEBUG, f"_DeviceAdded: {disk}"),
        (DEBUG, "_DeviceAdded: Invalid Volume String"),
        (DEBUG, f"dBusHandler: DeviceRemoved path - {MANAGER} interface - {MANAGER_INTERFACE}"
                " member - DeviceRemoved"),
        (DEBUG, "dBusHandler: DeviceRemoved: calling _DeviceRemoved"),
    ]


CHANGES = {
    "each change of one signal counts, in order":
        (2, ["volume.is_mounted", "volume.is_mounted_read_only"],
         ["volume.is_mounted", "volume.is_mounted_read_only"]),
    "a count above the number of changes, which ends with them":
        (5, ["volume.is_mounted"] * 2, ["volume.is_mounted"] * 2),
}


@pytest.mark.parametrize("count, names, asked", CHANGES.values(), ids=CHANGES)
def test_changed_properties_are_looked_at_one_by_one(running_unit: Unit, count: int,
                                                     names: list[str], asked: list[str]) -> None:
    changes = ", ".join(f"('{name}', true, false)" for name in names)
    since = mark_behind_log(running_unit)
    running_unit.hal.command(f"emit {PREFIX}volume_x {DEVICE_INTERFACE} PropertyModified"
                             f" ({count}, [{changes}])")
    running_unit.settle()
    calls = [(call.path, call.member, call.arguments) for call in running_unit.hal.calls(since)]
    assert calls == [(f"{PREFIX}volume_x", "GetPropertyBoolean", f"'{name}'") for name in asked]


MEANINGLESS = {
    "the right name on the wrong interface":
        f"{MANAGER} {DEVICE_INTERFACE} DeviceAdded ('{PREFIX}volume_x',)",
    "an arrival told by another object, which the match rule keeps away":
        f"/elsewhere {MANAGER_INTERFACE} DeviceAdded ('{PREFIX}volume_x',)",
}


@pytest.mark.parametrize("signal", MEANINGLESS.values(), ids=MEANINGLESS)
def test_other_signals_are_left_alone(running_unit: Unit, signal: str) -> None:
    since = mark_behind_log(running_unit)
    running_unit.hal.command(f"emit {signal}")
    running_unit.settle()
    assert new_lines(running_unit, since) == []
    assert running_unit.hal.calls(since) == []


def test_the_walk_up_for_an_inherited_number_ends_at_the_nearest_that_has_it(
        running_unit: Unit) -> None:
    since = mark_behind_log(running_unit)
    devices = running_unit.hal.plug("usb stick")
    running_unit.application.expect_message("dataarrival")
    chain = [devices[role] for role in ("scsi_host", "usb_interface", "usb_device")]
    walk = [(chain[0], "'usb_device.vendor_id'"), (chain[0], "'info.parent'"),
            (chain[1], "'usb_device.vendor_id'"), (chain[1], "'info.parent'"),
            (chain[2], "'usb_device.vendor_id'"), (chain[0], "'usb_device.product_id'")]
    calls = [(call.path, call.arguments) for call in running_unit.hal.calls(since)]
    begin = calls.index(walk[0])
    assert calls[begin:begin + len(walk)] == walk


def test_the_walk_up_ends_without_a_number_at_the_device_without_a_parent(
        running_unit: Unit) -> None:
    since = mark_behind_log(running_unit)
    devices = running_unit.hal.plug("usb stick usb_device/usb_device.vendor_id=unset")
    running_unit.application.expect_message("dataarrival")
    running_unit.settle()
    calls = [(call.path, call.arguments) for call in running_unit.hal.calls(since)]
    # A device without a number above it is used all the same; its product is not asked for.
    assert (devices["usb_device"], "'info.parent'") in calls
    assert "'usb_device.product_id'" not in [arguments for _, arguments in calls]
    missing = [text for level, text in new_lines(running_unit, since) if level == ERROR]
    assert f"org.freedesktop.Hal.NoSuchProperty: No property info.parent on device with id" \
        f" {PREFIX}computer" in missing


def test_a_chain_of_devices_in_a_circle_ends(running_unit: Unit) -> None:
    since = mark_behind_log(running_unit)
    running_unit.hal.plug(f"usb stick serial=AA usb_device/usb_device.vendor_id=unset"
                          f" usb_device/info.parent=string:{PREFIX}usb_device_90c_1000_AA_if0")
    running_unit.application.expect_message("dataarrival", path="/media/sda1")
    running_unit.settle()
    assert len(running_unit.hal.calls(since)) < 500
    assert running_unit.daemon.logged(INFO, "_DeviceAdded: Volume Found", since) == 1
