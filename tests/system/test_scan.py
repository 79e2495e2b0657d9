"""The scan for volumes that are there already, at start-up and after a simulated re-insertion."""

import re

from local_volumes import (CARD, CARD_ARRIVAL, CARD_VOLUME, DEVICES, OTHER, STICK, STICK_VOLUME,
                           arrival, card_arrival, card_record, mark, said, said_from, scan_of,
                           stick_record, told)
from testbed.daemon import DEBUG, ERROR, INFO
from testbed.unit import Unit

_SHARE = ["--internal-share-path", "/srv/charts"]


def scan_log(unit: Unit) -> list[tuple[int, str]]:
    """The log from the start-up scan on."""
    return said_from(unit, 0, "_ManualScan()")


def members(unit: Unit) -> list[str]:
    """The methods that were called, in order."""
    return [call.member for call in unit.hal.calls()]


def test_a_scan_without_volumes_asks_once(running_unit: Unit) -> None:
    assert scan_log(running_unit) == [(INFO, "_ManualScan()"), (DEBUG, "_ManualScan:")]
    assert [str(call) for call in running_unit.hal.calls()] == [
        "/org/freedesktop/Hal/Manager FindDeviceByCapability('volume')"]
    assert running_unit.application.frames() == []


def test_a_mounted_volume_is_registered_and_not_mounted(unit: Unit) -> None:
    unit.hal.plug(f"{STICK} mounted")
    unit.start_daemon()
    message = arrival("/media/sda1")
    assert unit.application.next_text() == message
    assert scan_log(unit) == [
        *scan_of(STICK_VOLUME, stick_record("/media/sda1")),
        (INFO, f"_DeviceMounted: {STICK_VOLUME}"),
        (DEBUG, "AddServiceNFS: /media/sda1"),
        (INFO, "symlink: /media/USB Memory Card A1 -> sda1"),
        (INFO, message),
        *stick_record("/media/sda1")]
    assert "Mount" not in members(unit)
    assert unit.links() == {"USB Memory Card A1": "sda1"}


def test_another_volume_is_mounted_and_registered_once_that_is_reported(unit: Unit) -> None:
    unit.hal.plug(CARD)
    unit.start_daemon()
    assert unit.application.next_text() == CARD_ARRIVAL
    unit.settle()
    assert scan_log(unit) == [*scan_of(CARD_VOLUME, card_record(None)), *card_arrival()]
    assert [str(call) for call in unit.hal.calls() if call.member == "Mount"] == [
        "volume_uuid_1769_6A29 Mount('mmcblk0p1', 'vfat', [])"]
    assert len(unit.application.frames()) == 1


def test_the_scan_logs_a_refused_mount_only_once(unit: Unit) -> None:
    unit.hal.plug(STICK)
    unit.hal.command("fail Mount org.freedesktop.Hal.Device.Volume.Busy not now")
    unit.start_daemon()
    assert scan_log(unit)[-2:] == [
        stick_record(None)[-1], (ERROR, "org.freedesktop.Hal.Device.Volume.Busy: not now")]
    assert members(unit).count("Mount") == 1


def test_volumes_are_taken_in_the_services_order(unit: Unit) -> None:
    unit.hal.plug("usb third mounted")
    unit.hal.plug(f"{CARD} mounted")
    unit.hal.plug(f"{OTHER} mounted")
    unit.start_daemon()
    assert told(unit, 3) == [
        arrival("/media/sda1"), CARD_ARRIVAL, arrival("/media/sdb1")]


def test_what_is_no_volume_is_passed_over(unit: Unit) -> None:
    unit.hal.plug(f"{STICK} mounted")
    storage = DEVICES + "storage_serial_Acme_Voyager_stick_0_0"
    unit.hal.command(
        f"answer FindDeviceByCapability (['{storage}', '', '{STICK_VOLUME}'],)")
    unit.start_daemon()
    assert scan_log(unit)[:11] == [
        (INFO, "_ManualScan()"),
        (DEBUG, "_ManualScan:"),
        (DEBUG, storage),
        (DEBUG, ""),
        (DEBUG, STICK_VOLUME),
        (DEBUG, storage),
        (DEBUG, "_ManualScan: Invalid Volume String"),
        (DEBUG, ""),
        (DEBUG, "_ManualScan: Invalid Volume String"),
        (DEBUG, STICK_VOLUME),
        (INFO, "_ManualScan: found Volume")]
    assert unit.application.next_text() == arrival("/media/sda1")


def test_a_volume_that_cannot_be_described_is_passed_over(unit: Unit) -> None:
    unit.hal.plug(f"{STICK} mounted")
    unit.hal.plug(f"{OTHER} mounted")
    unit.hal.command("fail GetPropertyString:info.parent org.freedesktop.Hal.NoSuchDevice gone")
    unit.start_daemon()
    assert unit.application.next_text() == arrival("/media/sdb1")
    lines = scan_log(unit)
    first = lines.index((INFO, "_ManualScan: found Volume"))
    assert lines[first + 1] == (ERROR, "org.freedesktop.Hal.NoSuchDevice: gone")
    assert lines[first + 3] == (INFO, "_ManualScan: found Volume")
    assert len(unit.application.frames()) == 1


def test_a_volume_that_vanishes_between_two_looks_is_not_registered(unit: Unit) -> None:
    """It could be described for the scan, and no more once it was found to be mounted."""
    unit.hal.plug(f"{STICK} mounted")
    unit.hal.command("delay GetPropertyString:block.device 0")  # the first answer is as usual
    unit.hal.command("fail GetPropertyString:block.device org.freedesktop.Hal.NoSuchDevice gone")
    unit.start_daemon()
    assert scan_log(unit)[-3:] == [
        (INFO, f"_DeviceMounted: {STICK_VOLUME}"),
        (ERROR, "org.freedesktop.Hal.NoSuchDevice: gone"),
        (ERROR, "_DeviceMounted: Failed to get Volume Info")]
    assert unit.links() == {}


def test_a_block_device_without_name_ends_the_daemon(unit: Unit) -> None:
    unit.hal.plug(f'{STICK} volume-block=""')
    unit.daemon.start()
    assert unit.daemon.wait() == -6
    failure = unit.daemon.failed_assertion()
    assert re.search(r"\btVoldrake\b.*\bRetVal == true\b", failure)
    assert scan_log(unit)[-2:] == [(INFO, "_PrintHalVolumeInfo: BlockDevice = "),
                                   (ERROR, failure)]
    assert "Mount" not in members(unit)


def test_the_internal_share_is_offered_after_the_volumes_and_told_to_nobody(unit: Unit) -> None:
    unit.hal.plug(f"{STICK} mounted")
    unit.start_daemon(*_SHARE)
    assert unit.application.next_text() == arrival("/media/sda1")
    unit.settle()
    assert scan_log(unit)[-2:] == [stick_record("/media/sda1")[-1],
                                   (DEBUG, "AddServiceNFS: /srv/charts")]
    assert unit.daemon.logged(DEBUG, "AddServiceNFS: /srv/charts") == 1
    since = mark(unit)
    unit.daemon.signal(10)
    assert unit.application.next_text() == arrival("/media/sda1")
    unit.settle()
    assert len(unit.application.frames(since)) == 1
    assert unit.links() == {"USB Memory Card A1": "sda1"}


def test_the_internal_share_is_offered_again_by_each_scan_and_kept_by_the_sweep(
        unit: Unit) -> None:
    unit.start_daemon(*_SHARE)
    since = mark(unit)
    unit.daemon.signal(12)
    unit.daemon.expect_log(INFO, "_UnmountAll()")
    unit.daemon.expect_log(DEBUG, "AddServiceNFS: /srv/charts")
    unit.settle()
    assert said(unit, since) == [
        (INFO, "SIGUSR2: Simulating removing/inserting SD card"), (INFO, "_UnmountAll()"),
        (INFO, "_ManualScan()"), (DEBUG, "_ManualScan:"), (DEBUG, "AddServiceNFS: /srv/charts")]


def test_an_internal_share_with_a_volumes_own_path_is_offered_once(unit: Unit) -> None:
    unit.hal.plug(f"{STICK} mounted=/srv/charts")
    unit.start_daemon(*_SHARE)
    assert unit.application.next_text() == arrival("/srv/charts")
    unit.hal.pull("stick")
    unit.settle()
    assert unit.daemon.logged(DEBUG, "RemoveServiceNFS: /srv/charts") == 1


def test_an_empty_internal_share_path_offers_nothing(unit: Unit) -> None:
    unit.start_daemon("--internal-share-path", "")
    assert scan_log(unit) == [(INFO, "_ManualScan()"), (DEBUG, "_ManualScan:")]


def test_what_is_plugged_during_the_scan_is_registered_once(unit: Unit) -> None:
    """The scan waits for an answer while another volume is announced."""
    unit.hal.plug(STICK)
    unit.hal.command("delay Mount 300")
    unit.daemon.start()
    unit.hal.expect_call("Mount")
    unit.hal.plug(OTHER)
    assert sorted(told(unit, 2)) == [arrival("/media/sda1"), arrival("/media/sdb1")]
    unit.settle()
    assert len(unit.application.frames()) == 2
    assert unit.links() == {"USB Memory Card A1": "sda1", "USB Memory Card B1": "sdb1"}
