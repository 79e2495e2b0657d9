"""What docs/troubleshooting.md says of local volumes: each symptom is played, and the lines that
the document quotes for it are the lines of the log."""

import signal

import pytest

from documented_lines import expect_quoted, quotes, seen, unexplained
from local_volumes import OTHER, STICK, told
from observations import wait_for_signal_handlers
from testbed import cardreader
from testbed.daemon import ERROR, INFO, WARNING
from testbed.unit import Unit

_PLAIN_STICK = "usb stick uuid=0000-060C"
#: Those that tests/system/sharing/test_troubleshooting_shares.py plays.
_OF_SHARING = {"export-refused", "share-refused", "sender-unknown", "no-route", "unknown-type"}
_OF_VOLUMES = {"no-bus", "service-late", "bus-lost", "mount-refused", "excluded", "told", "no-cid",
               "reader-silent", "republished", "healthy-stick", "healthy-pull", "one-slot"}


def test_every_quotation_is_played() -> None:
    assert set(quotes()) == _OF_VOLUMES | _OF_SHARING


def test_a_healthy_stick_writes_the_errors_that_are_called_normal(running_unit: Unit) -> None:
    unit = running_unit
    since = unit.mark()
    unit.hal.plug(_PLAIN_STICK)
    unit.settle()
    assert seen(unit, WARNING, since) == quotes()["healthy-stick"]
    unit.hal.pull("stick")
    unit.settle()
    assert seen(unit, WARNING, since) == quotes()["healthy-stick"] + quotes()["healthy-pull"]
    # Their text is the hardware service's, and that of messages the application's.
    assert [line.text for line in unexplained(unit.daemon.log_lines())
            if "NoSuch" not in line.text and not line.text.startswith(("<message ", "-----"))] == []


def test_without_the_bus_the_daemon_runs_on(unit: Unit) -> None:
    unit.bus.stop()
    unit.daemon.start()
    expect_quoted(unit, "no-bus")
    wait_for_signal_handlers(unit)
    assert unit.daemon.terminate() == 0


def test_a_late_hardware_service_is_not_heard(unit: Unit) -> None:
    """Not by the first start, but by the next one."""
    unit.hal.stop()
    unit.daemon.start()
    expect_quoted(unit, "service-late")
    wait_for_signal_handlers(unit)
    unit.hal.start()
    unit.hal.plug(STICK)
    assert unit.daemon.terminate() == 0
    assert not unit.daemon.logged(INFO, "_DeviceAdded: Volume Found")
    unit.start_daemon()
    unit.application.expect_message("dataarrival", path="/media/sda1")


def test_a_lost_bus_is_told(running_unit: Unit) -> None:
    running_unit.bus.kill()
    expect_quoted(running_unit, "bus-lost")


def test_a_refused_mount_is_tried_again_by_sigusr2(running_unit: Unit) -> None:
    unit = running_unit
    unit.hal.command('fail Mount org.freedesktop.Hal.Device.Volume.UnknownFailure "cannot mount"')
    unit.hal.plug(_PLAIN_STICK)
    expect_quoted(unit, "mount-refused")
    unit.settle()
    assert unit.mounts() == {}
    unit.daemon.signal(signal.SIGUSR2)
    unit.application.expect_message("dataarrival", path="/media/sda1")


@pytest.mark.unit_options(configuration="name=x\nusbid=x\nignore=true\nignoreDevice=/dev/sda1\n")
def test_an_ignored_device_has_its_line(running_unit: Unit) -> None:
    running_unit.hal.plug(STICK)
    expect_quoted(running_unit, "excluded")


def test_a_message_is_queued_first_and_then_sent(running_unit: Unit) -> None:
    running_unit.hal.plug(STICK)
    expect_quoted(running_unit, "told")


def test_a_message_that_waits_has_only_the_first_line(running_unit: Unit) -> None:
    unit = running_unit
    unit.application.leave()
    unit.hal.plug(STICK)
    queued, sent = quotes()["told"]
    unit.daemon.expect_log(queued.level, queued.text)
    assert not unit.daemon.logged(sent.level, sent.text)


def test_a_slot_s_card_without_an_identity_is_not_taken(running_unit: Unit) -> None:
    unit = running_unit
    since = unit.mark()
    unit.hal.plug("sd nocid card/mmc.cid=unset")
    expect_quoted(unit, "no-cid")
    unit.settle()
    assert seen(unit, ERROR, since) == quotes()["no-cid"][1:]
    assert (unit.mounts(), unit.links(), unit.application.frames()) == ({}, {}, [])


@pytest.mark.unit_options(configuration="name=x\nusbid=x\n")
def test_a_silent_reader_has_its_line(unit: Unit) -> None:
    unit.daemon.start(environment=cardreader.environment(unit.sandbox))
    unit.hal.expect_call("FindDeviceByCapability")
    unit.settle()
    unit.hal.plug("reader rd port=1-1.3")
    unit.hal.plug("volume rd lun=0")
    expect_quoted(unit, "reader-silent")
    unit.application.expect_message("dataarrival", key="0" * 31 + "1")


def test_a_removal_that_waited_is_dropped_by_a_republish(running_unit: Unit) -> None:
    unit = running_unit
    unit.hal.plug(STICK)
    told(unit, 1)
    unit.application.leave()
    unit.hal.pull("stick")
    unit.settle()
    unit.daemon.signal(signal.SIGUSR1)
    expect_quoted(unit, "republished")
    unit.settle()
    unit.application.listen()
    unit.hal.plug(OTHER)
    told(unit, 1)
    assert not [frame for frame in unit.application.frames() if "dataremoval" in frame.text()]


@pytest.mark.unit_options(mmc_hosts=1)
def test_on_a_unit_with_one_slot_cards_get_no_link(running_unit: Unit) -> None:
    unit = running_unit
    since = unit.mark()
    unit.hal.plug("sd card")
    unit.application.expect_message("dataarrival", path="/media/mmcblk0p1")
    unit.settle()
    assert seen(unit, WARNING, since) == quotes()["one-slot"]
