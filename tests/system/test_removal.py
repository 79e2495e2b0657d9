"""How a volume leaves: its removal, what the changes of its mount state mean, and the sweep."""

import pytest

from local_volumes import (CARD, CARD_ARRIVAL, DEVICES, OTHER, OTHER_VOLUME, STICK, STICK_VOLUME,
                           arrival, card_arrival, mark, mounted_unseen, read_only_remount,
                           registered, removal, said, stick_record, told)
from testbed.daemon import DEBUG, ERROR, INFO
from testbed.unit import Unit

_EXPORTS = "/srv/exportfs.log"
#: Records its arguments, the entries of /media and the last message in the daemon's log.
_EXPORTFS = f"""#!/bin/sh
{{ echo "exportfs $*"; ls /media
grep -o '<data[a-z]* path="[^"]*"' /var/log/voldrake.log | tail -n 1
}} >> {_EXPORTS}
"""


def changed(unit: Unit, volume: str, key: str) -> None:
    """Let the hardware service announce a change of this property, whether true or not."""
    unit.hal.command(f"emit {volume} org.freedesktop.Hal.Device PropertyModified"
                     f" (1, [('{key}', false, false)])")


def test_a_removal_takes_its_steps_in_order(unit: Unit) -> None:
    """The application is told, then the link goes, then the export."""
    unit.add_tool("exportfs", _EXPORTFS)
    unit.start_daemon()
    since = registered(unit)
    unit.hal.command("unmount stick")
    assert unit.application.next_text() == removal("/media/sda1")
    unit.settle()
    assert said(unit, since) == [
        (INFO, "_DeviceRemoved: Found Volume in list: "),
        (INFO, removal("/media/sda1")),
        (DEBUG, "RemoveServiceNFS: /media/sda1")]
    assert unit.content(_EXPORTS).splitlines() == [
        "exportfs -u *:/media/sda1", '<dataremoval path="/media/sda1"']
    assert unit.media() == []
    assert unit.application.frames(since) == unit.application.frames()[1:]


def test_a_removal_signal_alone_removes_too(running_unit: Unit) -> None:
    """Here the volume goes without having been unmounted: the link goes, its target stays."""
    unit = running_unit
    since = registered(unit)
    unit.hal.command("emit /org/freedesktop/Hal/Manager org.freedesktop.Hal.Manager"
                     f" DeviceRemoved ('{STICK_VOLUME}',)")
    assert unit.application.next_text() == removal("/media/sda1")
    unit.settle()
    assert unit.media() == ["sda1"]
    assert unit.mounts() == {"/media/sda1": "rw"}
    assert unit.hal.calls(since) == []


def test_the_removal_of_anything_else_is_silent(running_unit: Unit) -> None:
    unit = running_unit
    unit.hal.plug(STICK)
    unit.settle()
    since = mark(unit)
    for udi in (DEVICES + "storage_serial_Acme_Voyager_stick_0_0", OTHER_VOLUME,
                STICK_VOLUME + "_0", STICK_VOLUME[:-1], STICK_VOLUME.lower(), ""):
        unit.hal.command("emit /org/freedesktop/Hal/Manager org.freedesktop.Hal.Manager"
                         f" DeviceRemoved ('{udi}',)")
    unit.settle()
    assert said(unit, since) == []
    assert unit.links() == {"USB Memory Card A1": "sda1"}


def test_a_second_removal_is_silent(running_unit: Unit) -> None:
    """A pull announces the unmount first and the end of the device afterwards."""
    unit = running_unit
    since = registered(unit)
    unit.hal.command("unmount stick")
    assert unit.application.next_text() == removal("/media/sda1")
    unit.settle()
    assert len(said(unit, since)) == 3
    since = mark(unit)
    unit.hal.pull("stick")
    unit.settle()
    assert said(unit, since) == []


def test_the_link_may_be_gone_already(running_unit: Unit) -> None:
    unit = running_unit
    unit.hal.plug(STICK)
    unit.settle()
    unit.sandbox.path("/media/USB Memory Card A1").unlink()
    since = mark(unit)
    unit.hal.command("unmount stick")
    unit.settle()
    assert [level for level, _ in said(unit, since)] == [INFO, INFO, DEBUG]


def test_a_link_that_cannot_be_deleted_is_passed_over(running_unit: Unit) -> None:
    """A directory stands in its place: it stays, and nothing is logged."""
    unit = running_unit
    unit.hal.plug(STICK)
    unit.settle()
    link = unit.sandbox.path("/media/USB Memory Card A1")
    link.unlink()
    link.mkdir()
    since = mark(unit)
    unit.hal.command("unmount stick")
    unit.settle()
    assert [level for level, _ in said(unit, since)] == [INFO, INFO, DEBUG]
    assert link.is_dir()


def test_a_volume_without_link_takes_no_link_away(unit: Unit) -> None:
    """What stood in the way of its link is not its own."""
    unit.sandbox.write("/media/USB Memory Card A1", "a file")
    unit.start_daemon()
    unit.hal.plug(STICK)
    unit.settle()
    unit.hal.pull("stick")
    assert told(unit, 2) == [arrival("/media/sda1"), removal("/media/sda1")]
    unit.settle()
    assert unit.content("/media/USB Memory Card A1") == "a file"


def test_the_other_volumes_keep_their_order(running_unit: Unit) -> None:
    unit = running_unit
    for name in ("first", "second", "third"):
        unit.hal.plug(f"usb {name}")
    told(unit, 3)
    unit.hal.pull("second")
    assert unit.application.next_text() == removal("/media/sdb1")
    unit.daemon.signal(10)
    assert told(unit, 2) == [arrival("/media/sda1"), arrival("/media/sdc1")]


def test_an_unmounted_volume_comes_back_when_it_is_mounted_again(running_unit: Unit) -> None:
    unit = running_unit
    unit.hal.plug(CARD)
    for _ in range(3):
        assert unit.application.next_text() == CARD_ARRIVAL
        unit.settle()
        assert unit.links() == {"Memory Card": "mmcblk0p1"}
        unit.hal.command("unmount card")
        assert unit.application.next_text() == removal("/media/mmcblk0p1")
        unit.settle()
        assert unit.links() == {}
        since = mark(unit)
        unit.hal.command("mount card")
        unit.settle()
        assert said(unit, since) == card_arrival()


@pytest.mark.parametrize("key, order, expected", [
    ("volume.is_mounted", "fail GetPropertyBoolean org.freedesktop.Hal.Error no answer",
     "org.freedesktop.Hal.Error: no answer"),
    ("volume.is_mounted_read_only", "answer GetPropertyBoolean ('true',)", None)],
    ids=["an error", "a wrong type"])
def test_a_change_whose_value_cannot_be_read_is_dropped(
        running_unit: Unit, key: str, order: str, expected: str | None) -> None:
    unit = running_unit
    unit.hal.plug(STICK)
    unit.settle()
    unit.hal.command("quiet unmount stick")
    since = mark(unit)
    unit.hal.command(order)
    changed(unit, STICK_VOLUME, key)
    unit.settle()
    lines = said(unit, since)
    assert lines[0][0] == (ERROR if expected else 2)
    assert expected in (lines[0][1], None)
    assert lines[1:] == ([(DEBUG, "HalManagerPropertyChangedCb MountedRo 0 0")]
                         if key == "volume.is_mounted_read_only" else [])
    assert unit.links() == {"USB Memory Card A1": "sda1"}


def test_a_remount_keeps_a_registered_volume_as_it_is(running_unit: Unit) -> None:
    """It has been told as writable and stays so in the list, until it comes anew."""
    unit = running_unit
    since = registered(unit)
    unit.hal.command("remount stick ro")
    unit.settle()
    assert said(unit, since) == [
        *read_only_remount(STICK_VOLUME),
        (DEBUG, f"_AddMountPoint: Volume already in list: {STICK_VOLUME}")]
    since = mark(unit)
    unit.hal.command("remount stick rw")
    unit.settle()
    assert said(unit, since) == [
        (DEBUG, "HalManagerPropertyChangedCb MountedRo 0 1"),
        (INFO, f"_DeviceReMountedRw: {STICK_VOLUME}")]
    assert [str(call) for call in unit.hal.calls(since)] == [
        "volume_uuid_0000_060C GetPropertyBoolean('volume.is_mounted_read_only')"]
    unit.hal.command("remount stick ro")
    unit.settle()
    unit.daemon.signal(10)
    assert unit.application.next_text() == arrival("/media/sda1")


@pytest.mark.unit_options(configuration="name=Chart Port\nusbid=1-1_1\n")
def test_a_read_only_remount_registers_a_volume_without_its_configured_name(
        running_unit: Unit) -> None:
    unit = running_unit
    since = mounted_unseen(unit, STICK, "stick")
    unit.hal.command("remount stick ro")
    assert unit.application.next_text() == arrival("/media/sda1", read_only=True)
    unit.settle()
    assert said(unit, since) == [
        *read_only_remount(STICK_VOLUME),
        (INFO, "_DeviceMounted: HalVolumeInfo.USBHub 1-1_1--1_0 matches 1-1_1"),
        (DEBUG, "AddServiceNFS: /media/sda1"),
        (INFO, "symlink: /media/USB Memory Card A1 -> sda1"),
        (INFO, arrival("/media/sda1", read_only=True)),
        *stick_record("/media/sda1", read_only=True)]


def test_a_writable_remount_registers_nothing(running_unit: Unit) -> None:
    unit = running_unit
    since = mounted_unseen(unit, STICK, "stick ro")
    unit.hal.command("remount stick rw")
    unit.settle()
    assert said(unit, since) == [
        (DEBUG, "HalManagerPropertyChangedCb MountedRo 0 1"),
        (INFO, f"_DeviceReMountedRw: {STICK_VOLUME}")]
    assert unit.links() == {}


def test_a_read_only_remount_that_cannot_be_described_is_silent(running_unit: Unit) -> None:
    unit = running_unit
    since = mounted_unseen(unit, STICK, "stick")
    unit.hal.command("fail GetPropertyString:info.parent org.freedesktop.Hal.NoSuchDevice gone")
    unit.hal.command("remount stick ro")
    unit.settle()
    assert said(unit, since) == [*read_only_remount(STICK_VOLUME),
                                 (ERROR, "org.freedesktop.Hal.NoSuchDevice: gone")]
    assert unit.links() == {}


def test_a_mount_that_is_read_only_from_the_start_is_registered_once(running_unit: Unit) -> None:
    """All three properties change at once; the read-only one comes after the mount itself."""
    unit = running_unit
    unit.hal.plug(f"{STICK} readonly")
    assert unit.application.next_text() == arrival("/media/sda1", read_only=True)
    unit.settle()
    lines = said(unit, 0)
    assert sum(text.startswith("_AddMountPoint: Volume already in list") for _, text in lines) == 1
    assert len(unit.application.frames()) == 1
    unit.daemon.signal(10)
    assert unit.application.next_text() == arrival("/media/sda1", read_only=True)


def test_other_properties_concern_nobody(running_unit: Unit) -> None:
    unit = running_unit
    unit.hal.plug(STICK)
    unit.settle()
    since = mark(unit)
    for key in ("volume.label", "volume.mount_point", "volume.is_mounted_read_only_",
                "Volume.is_mounted", "volume.is_mounte", "volume.is_mounted ", ""):
        changed(unit, STICK_VOLUME, key)
    unit.settle()
    assert said(unit, since) == []
    assert unit.hal.calls(since) == []


@pytest.mark.parametrize("count, gone, kept", [(2, "a", "b"), (5, "ace", "bd")])
def test_one_sweep_removes_every_other_volume(running_unit: Unit, count: int, gone: str,
                                              kept: str) -> None:
    """The scan that follows finds nothing mounted, so what the sweep took stays away."""
    unit = running_unit
    for number in range(count):
        unit.hal.plug(f"usb stick{number}")
    told(unit, count)
    unit.settle()
    unit.hal.command("answer FindDeviceByCapability (@as [],)")
    since = mark(unit)
    unit.daemon.signal(12)
    unit.hal.events.seek(since)
    unit.hal.expect_call("FindDeviceByCapability")
    unit.settle()
    assert said(unit, since) == [
        (INFO, "SIGUSR2: Simulating removing/inserting SD card"),
        (INFO, "_UnmountAll()"),
        *(line for letter in gone for line in (
            (INFO, "_DeviceRemoved: Found Volume in list: "),
            (INFO, removal(f"/media/sd{letter}1")),
            (DEBUG, f"RemoveServiceNFS: /media/sd{letter}1"))),
        (INFO, "_ManualScan()"),
        (DEBUG, "_ManualScan:")]
    assert unit.links() == {f"USB Memory Card {letter.upper()}1": f"sd{letter}1" for letter in kept}


def test_two_sticks_of_one_identity_go_one_by_one(running_unit: Unit) -> None:
    unit = running_unit
    unit.hal.plug(STICK)
    unit.hal.plug(OTHER.replace("1111-2222", "0000-060C"))
    assert told(unit, 2) == [arrival("/media/sda1"), arrival("/media/sdb1")]
    unit.hal.pull("stick")
    assert unit.application.next_text() == removal("/media/sda1")
    unit.settle()
    assert unit.links() == {"USB Memory Card B1": "sdb1"}


@pytest.mark.parametrize("nfs_root, mount_point, path", [
    ("/srv/nfs", "/srv/nfs/usb1", "/mnt/usb1"), ("/srv/nfs", "/srv/nfsx", "/srv/nfsx")])
def test_paths_are_told_as_the_application_sees_them(
        unit: Unit, nfs_root: str, mount_point: str, path: str) -> None:
    unit.start_daemon("--nfs-root", nfs_root)
    unit.sandbox.path(mount_point).parent.mkdir(parents=True, exist_ok=True)
    unit.hal.plug(f"{STICK} mounted={mount_point}")
    assert unit.application.next_text() == arrival(path)
    unit.daemon.signal(10)
    assert unit.application.next_text() == arrival(path)
    unit.hal.pull("stick")
    assert unit.application.next_text() == removal(path)
