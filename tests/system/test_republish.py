"""Telling everything again (SIGUSR1) and a simulated removal and return (SIGUSR2)."""

import signal

import pytest

from local_volumes import (CARD, CARD_ARRIVAL, CARD_VOLUME, CID, OTHER, OTHER_VOLUME, STICK,
                           STICK_VOLUME, arrival, card_arrival, card_record, correction, mark,
                           registered, removal, said, scan_of, stick_record, told)
from testbed.application import Mode
from testbed.daemon import DEBUG, ERROR, INFO
from testbed.unit import Unit

_AGAIN = (INFO, "SIGUSR1: Republishing all mounted FS to VessaApp")
_REINSERT = (INFO, "SIGUSR2: Simulating removing/inserting SD card")
_STICK = arrival("/media/sda1")
_OTHER = arrival("/media/sdb1")
_SWEEP = [_REINSERT, (INFO, "_UnmountAll()")]


def removed(path: str) -> list[tuple[int, str]]:
    """What the removal of a volume logs."""
    return [(INFO, "_DeviceRemoved: Found Volume in list: "), (INFO, removal(path)),
            (DEBUG, f"RemoveServiceNFS: {path}")]


def republish(unit: Unit) -> list[tuple[int, str]]:
    """SIGUSR1 to a daemon that listens; what it has logged for it when it is done."""
    since = mark(unit)
    unit.daemon.signal(signal.SIGUSR1)
    unit.daemon.expect_log(*_AGAIN)
    unit.settle()
    return said(unit, since)


def reinsert(unit: Unit) -> list[tuple[int, str]]:
    """SIGUSR2 to a daemon that listens; what it has logged for it when it is done."""
    since = mark(unit)
    unit.hal.events.seek(since)
    unit.daemon.signal(signal.SIGUSR2)
    unit.hal.expect_call("FindDeviceByCapability")
    unit.settle()
    return said(unit, since)


def test_republishing_nothing_sends_nothing(running_unit: Unit) -> None:
    assert republish(running_unit) == [_AGAIN]
    assert running_unit.application.frames() == []


def test_each_volume_is_told_again_in_the_lists_order(running_unit: Unit) -> None:
    """And nothing else: no export, no link, no question to the hardware service."""
    unit = running_unit
    unit.hal.plug(STICK)
    unit.hal.plug(f"{CARD} readonly")
    unit.hal.plug(OTHER)
    card = CARD_ARRIVAL.replace('readonly="false"', 'readonly="true"')
    assert told(unit, 3) == [_STICK, card, _OTHER]
    unit.settle()
    for link in list(unit.links()):
        unit.sandbox.path(f"/media/{link}").unlink()
    since = unit.mark()
    assert republish(unit) == [
        _AGAIN,
        (INFO, _STICK),
        (INFO, 'Republish: "USB Mass Storage" --> /dev/sda1:/media/sda1'),
        *correction(CID, CID),
        (INFO, card),
        (INFO, 'Republish: "Memory Card - 0" --> /dev/mmcblk0p1:/media/mmcblk0p1'),
        (INFO, _OTHER),
        (INFO, 'Republish: "USB Mass Storage" --> /dev/sdb1:/media/sdb1')]
    assert told(unit, 3) == [_STICK, card, _OTHER]
    assert unit.hal.calls(since) == []
    assert unit.links() == {}


@pytest.mark.unit_options(configuration='name=Chart "Port"\nusbid=1-1_1\n')
def test_the_configured_name_is_looked_up_again(running_unit: Unit) -> None:
    """The log shows the name as it is, the message as XML can carry it."""
    unit = running_unit
    unit.hal.plug(STICK)
    message = arrival("/media/sda1", name=" - Chart &quot;Port&quot;")
    assert unit.application.next_text() == message
    unit.settle()
    assert republish(unit) == [
        _AGAIN,
        (INFO, "_DeviceMounted: HalVolumeInfo.USBHub 1-1_1--1_0 matches 1-1_1"),
        (INFO, message),
        (INFO, 'Republish: " - Chart "Port"" --> /dev/sda1:/media/sda1')]
    assert unit.application.next_text() == message


def test_stale_messages_are_dropped_before_the_fresh_ones(running_unit: Unit) -> None:
    unit = running_unit
    unit.application.leave()
    for name in ("usb one", "usb two", "usb three"):
        unit.hal.plug(name)
    unit.settle()
    unit.hal.pull("two")
    unit.settle()
    since = mark(unit)
    unit.application.listen()
    republish(unit)
    assert told(unit, 2) == [arrival("/media/sda1"), arrival("/media/sdc1")]
    unit.hal.pull("one")
    assert unit.application.next_text() == removal("/media/sda1")
    assert len(unit.application.frames(since)) == 3


def test_republishing_needs_no_hardware_service(running_unit: Unit) -> None:
    unit = running_unit
    registered(unit)
    unit.hal.command("drop")
    unit.daemon.signal(signal.SIGUSR1)
    assert unit.application.next_text() == _STICK


def test_a_reinsertion_without_hardware_service_only_removes(running_unit: Unit) -> None:
    unit = running_unit
    registered(unit)
    since = mark(unit)
    unit.hal.command("drop")
    unit.daemon.signal(signal.SIGUSR2)
    assert unit.application.next_text() == removal("/media/sda1")
    unit.daemon.expect_log(DEBUG, "_ManualScan:")
    unit.daemon.signal(signal.SIGUSR1)
    unit.daemon.expect_log(*_AGAIN)
    unit.hal.command("return")
    lines = said(unit, since)
    assert lines[:7] == [*_SWEEP, *removed("/media/sda1"), (INFO, "_ManualScan()"),
                         (DEBUG, "_ManualScan:")]
    assert [level for level, _ in lines[7:]] == [ERROR, INFO]
    assert unit.mounts() == {"/media/sda1": "rw"}


def test_a_card_is_taken_back_and_told_again(running_unit: Unit) -> None:
    unit = running_unit
    unit.hal.plug(CARD)
    assert unit.application.next_text() == CARD_ARRIVAL
    unit.settle()
    assert reinsert(unit) == [
        *_SWEEP,
        *removed("/media/mmcblk0p1"),
        *scan_of(CARD_VOLUME, card_record("/media/mmcblk0p1")),
        *card_arrival()]
    assert told(unit, 2) == [removal("/media/mmcblk0p1"), CARD_ARRIVAL]
    assert unit.links() == {"Memory Card": "mmcblk0p1"}
    assert [call.member for call in unit.hal.calls()].count("Mount") == 1


def test_of_two_volumes_the_second_stays_and_comes_first_from_then_on(running_unit: Unit) -> None:
    unit = running_unit
    unit.hal.plug(STICK)
    unit.hal.plug(OTHER)
    assert told(unit, 2) == [_STICK, _OTHER]
    unit.settle()
    lines = reinsert(unit)
    assert lines[:5] == [*_SWEEP, *removed("/media/sda1")]
    assert lines.count((DEBUG, f"_AddMountPoint: Volume already in list: {OTHER_VOLUME}")) == 1
    assert lines.count((INFO, "symlink: /media/USB Memory Card A1 -> sda1")) == 1
    assert told(unit, 2) == [removal("/media/sda1"), _STICK]
    republish(unit)
    assert told(unit, 2) == [_OTHER, _STICK]


def test_of_three_volumes_the_first_and_the_third_come_back(running_unit: Unit) -> None:
    unit = running_unit
    for number in range(3):
        unit.hal.plug(f"usb stick{number}")
    assert told(unit, 3) == [arrival(f"/media/sd{letter}1") for letter in "abc"]
    unit.settle()
    reinsert(unit)
    assert told(unit, 4) == [removal("/media/sda1"), removal("/media/sdc1"),
                             arrival("/media/sda1"), arrival("/media/sdc1")]
    republish(unit)
    assert told(unit, 3) == [arrival(f"/media/sd{letter}1") for letter in "bac"]
    assert len(unit.links()) == 3


def test_a_reinsertion_of_nothing_only_scans(running_unit: Unit) -> None:
    assert reinsert(running_unit) == [*_SWEEP, (INFO, "_ManualScan()"), (DEBUG, "_ManualScan:")]


def test_a_reinsertion_brings_in_what_is_not_mounted(running_unit: Unit) -> None:
    """A volume whose mount was refused gets another chance."""
    unit = running_unit
    unit.hal.command("fail Mount org.freedesktop.Hal.Device.Volume.UnknownFailure no")
    unit.hal.plug(STICK)
    unit.settle()
    lines = reinsert(unit)
    assert unit.application.next_text() == _STICK
    assert stick_record(None) == lines[lines.index((INFO, "_ManualScan: found Volume")) + 1:][:13]
    unit.settle()
    assert (INFO, f"_DeviceMounted: {STICK_VOLUME}") in said(unit, 0)


def test_both_signals_are_ignored_until_the_loop_runs(unit: Unit) -> None:
    """Here the start-up scan waits for its answer; afterwards both signals count."""
    unit.hal.command("delay FindDeviceByCapability 60000")
    unit.daemon.start()
    unit.hal.expect_call("FindDeviceByCapability")
    for _ in range(3):
        unit.daemon.signal(signal.SIGUSR1)
        unit.daemon.signal(signal.SIGUSR2)
    unit.hal.command("drop answer")
    unit.hal.command("return")
    assert not any(text.startswith("SIGUSR") for _, text in said(unit, 0))
    assert republish(unit) == [_AGAIN]
    assert reinsert(unit)[0] == _REINSERT


def test_many_signals_in_a_burst_do_no_harm(running_unit: Unit) -> None:
    """Signals that come while one waits are one signal, so there are at most as many rounds."""
    unit = running_unit
    unit.hal.plug(STICK)
    unit.hal.plug(CARD)
    unit.settle()
    since = mark(unit)
    for _ in range(100):
        unit.daemon.signal(signal.SIGUSR1)
    unit.daemon.expect_log(*_AGAIN)
    unit.hal.plug(OTHER)
    unit.application.expect_message("dataarrival", path="/media/sdb1")
    # Nothing else than its end tells when the last of them has come.
    assert unit.daemon.terminate() == 0
    lines = said(unit, since)
    rounds = lines.count(_AGAIN)
    assert 1 <= rounds <= 100
    assert lines.count((INFO, _STICK)) == lines.count((INFO, CARD_ARRIVAL)) == rounds


def test_both_signals_at_once_are_both_dealt_with(running_unit: Unit) -> None:
    unit = running_unit
    unit.daemon.process.pause()
    unit.daemon.signal(signal.SIGUSR2)
    unit.daemon.signal(signal.SIGUSR1)
    unit.daemon.process.resume()
    unit.daemon.expect_log(DEBUG, "_ManualScan:")
    unit.daemon.log.seek(0)
    unit.daemon.expect_log(*_AGAIN)


def test_a_blocked_application_does_not_hold_the_signals_up(running_unit: Unit) -> None:
    """The daemon's main thread goes on, and only what is fresh is told when the block ends."""
    unit = running_unit
    unit.application.listen(Mode.NEVER_ACCEPT)
    unit.hal.plug(STICK)
    unit.hal.plug(CARD)
    unit.settle()
    republish(unit)
    reinsert(unit)
    republish(unit)
    since = mark(unit)
    unit.application.listen()
    assert told(unit, 2) == [CARD_ARRIVAL, _STICK]
    unit.hal.pull("stick")
    assert unit.application.next_text() == removal("/media/sda1")
    assert len(unit.application.frames(since)) == 3


def test_other_signals_concern_nobody(running_unit: Unit) -> None:
    unit = running_unit
    since = registered(unit)
    for number in (signal.SIGURG, signal.SIGWINCH, signal.SIGCHLD, signal.SIGCONT):
        unit.daemon.signal(number)
    assert said(unit, since) == []


def test_a_log_marker_leaves_the_volumes_alone(running_unit: Unit) -> None:
    unit = running_unit
    since = registered(unit)
    unit.daemon.signal(signal.SIGHUP)
    unit.daemon.expect_log(INFO, "Starting new log file")
    unit.settle()
    assert said(unit, since) == [(INFO, "Starting new log file"),
                                 (INFO, "Version - 1.10 Client port - 8080")]
    assert unit.links() == {"USB Memory Card A1": "sda1"}
