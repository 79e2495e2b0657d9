"""The links in /media: their names and targets, what stands in their way, and the clean-up."""

import os

import pytest

from local_volumes import CARD, CID, STICK, arrival, mark, registered, said, told
from testbed.daemon import ERROR, INFO
from testbed.unit import Unit


def link_lines(unit: Unit, since: int) -> list[tuple[int, str]]:
    """The log lines about links after the mark."""
    return [line for line in said(unit, since) if line[1].startswith("symlink")]


@pytest.mark.parametrize("mount_point, name, target", [
    ("/media/sda-charts_é", "USB Memory Card A-CHARTS_é", "sda-charts_é"),
    ("/mnt/sdab1", "USB Memory Card AB1", "ab1")])
def test_a_stick_is_linked_by_its_device_letters(
        running_unit: Unit, mount_point: str, name: str, target: str) -> None:
    """Seven characters are cut off the mount point, whatever they are."""
    unit = running_unit
    parent = unit.sandbox.path(mount_point).parent
    parent.mkdir(exist_ok=True)
    since = mark(unit)
    unit.hal.plug(f"{STICK} mounted={mount_point}")
    assert unit.application.next_text() == arrival(mount_point.encode().decode("latin-1"))
    unit.settle()
    assert link_lines(unit, since) == [(INFO, f"symlink: /media/{name} -> {target}")]
    assert unit.links() == {name: target}


@pytest.mark.parametrize("mount_point", ["/m", "/media/"], ids=["2 characters", "7 characters"])
def test_a_short_mount_point_gives_no_link_and_no_harm(running_unit: Unit,
                                                       mount_point: str) -> None:
    """Nothing is there to link to; the volume is told all the same."""
    unit, since = running_unit, mark(running_unit)
    unit.hal.command(f"quiet plug {STICK} volume/volume.mount_point=string:{mount_point}")
    unit.hal.command("set stick volume.is_mounted=bool:true")
    assert unit.application.next_text() == arrival(mount_point)
    unit.settle()
    assert link_lines(unit, since) == [
        (ERROR, "symlink failed: /media/USB Memory Card -> "),
        (ERROR, "symlink error: No such file or directory")]
    assert (INFO, f"_PrintHalVolumeInfo: MountPoint = {mount_point}") in said(unit, since)
    assert unit.media() == []


@pytest.mark.parametrize("number, name", [
    pytest.param(-1, "Memory Card - -1", marks=pytest.mark.unit_options(mmc_hosts=3)),
    pytest.param(0, "", marks=pytest.mark.unit_options(mmc_hosts=4))],
    ids=["of three", "of four"])
def test_a_card_is_linked_by_the_units_number_of_hosts(running_unit: Unit, number: int,
                                                       name: str) -> None:
    unit, since = running_unit, mark(running_unit)
    unit.hal.command("plug host socket number=7")
    unit.hal.command(f"set socket:host mmc_host.host=int:{number}")
    unit.hal.plug(f"sd card host=7 cid={CID}")
    assert unit.application.next_text() == arrival(
        "/media/mmcblk7p1", card=True, key=CID, name=f"Memory Card - {number}")
    unit.settle()
    if name:
        assert link_lines(unit, since) == [(INFO, f"symlink: /media/{name} -> mmcblk7p1")]
        assert unit.links() == {name: "mmcblk7p1"}
    else:
        assert link_lines(unit, since) == [
            (ERROR, "symlink failed: /media/ -> mmcblk7p1"),
            (ERROR, "symlink error: File exists")]
        assert unit.links() == {}


@pytest.mark.parametrize("obstacle", ["directory", "dangling link"])
def test_nothing_that_exists_is_replaced_by_a_link(running_unit: Unit, obstacle: str) -> None:
    unit = running_unit
    path = unit.sandbox.path("/media/USB Memory Card A1")
    if obstacle == "directory":
        path.mkdir()
    else:
        path.symlink_to("nowhere")
    before = os.lstat(path)
    since = mark(unit)
    registered(unit)
    assert link_lines(unit, since) == [
        (ERROR, "symlink failed: /media/USB Memory Card A1 -> sda1"),
        (ERROR, "symlink error: File exists")]
    unit.hal.pull("stick")
    unit.settle()
    after = os.lstat(path)
    assert (after.st_mode, after.st_ino) == (before.st_mode, before.st_ino)


@pytest.mark.parametrize("prepare, reason", [
    ("mount -o remount,ro /media", "Read-only file system"),
    ("umount /media && rmdir /media && touch /media", "Not a directory")])
def test_a_volume_is_told_even_when_no_link_can_be_made(running_unit: Unit, prepare: str,
                                                        reason: str) -> None:
    unit = running_unit
    assert unit.sandbox.run(["sh", "-c", prepare]).returncode == 0
    since = mark(unit)
    unit.hal.plug(f"{STICK} mounted=/mnt/charts")
    assert unit.application.next_text() == arrival("/mnt/charts")
    unit.settle()
    assert link_lines(unit, since) == [
        (ERROR, "symlink failed: /media/USB Memory Card -> arts"),
        (ERROR, f"symlink error: {reason}")]
    unit.hal.pull("stick")
    unit.application.expect_message("dataremoval", path="/mnt/charts")


def test_two_volumes_of_one_link_name_do_not_disturb_one_another(running_unit: Unit) -> None:
    """The second gets no link, and takes none away when it goes."""
    unit = running_unit
    unit.hal.plug("usb first mounted=ONE")
    unit.hal.plug("usb second mounted=TWO")
    assert told(unit, 2) == [arrival("/media/ONE"), arrival("/media/TWO")]
    unit.hal.pull("second")
    unit.application.next_text()
    unit.settle()
    assert unit.links() == {"USB Memory Card": "ONE"}
    unit.hal.pull("first")
    unit.application.next_text()
    unit.settle()
    assert unit.links() == {}


def test_a_mount_point_below_a_disks_directory_gets_no_link_outside_media(
        running_unit: Unit) -> None:
    """The link would stand inside the volume that "USB Memory Card A1" leads to."""
    unit = running_unit
    unit.hal.plug(STICK)
    unit.settle()
    since = mark(unit)
    unit.hal.plug("usb inner mounted=/media/sda1/x")
    told(unit, 2)
    unit.settle()
    assert link_lines(unit, since) == [
        (ERROR, "symlink refused: /media/USB Memory Card A1/X -> sda1/x"),
        (ERROR, "symlink error: a link whose name has a slash would not stand in /media itself")]
    assert unit.links() == {"USB Memory Card A1": "sda1"}
    assert unit.entries("/media/sda1") == ["x"]


def test_a_volume_on_another_bus_gets_neither_name_nor_link(running_unit: Unit) -> None:
    unit, since = running_unit, mark(running_unit)
    unit.hal.plug("scsi disk")
    unit.hal.command("mount disk")
    assert unit.application.next_text() == arrival("/media/sda1", name="")
    unit.settle()
    assert link_lines(unit, since) == [(ERROR, "symlink failed: /media/ -> sda1"),
                                       (ERROR, "symlink error: File exists")]


def test_the_scan_deletes_links_that_lead_nowhere_and_nothing_else(unit: Unit) -> None:
    media = unit.sandbox.path("/media")
    unit.sandbox.write("/media/directory/deep/file", "kept")
    unit.sandbox.write("/media/file", "kept")
    unit.sandbox.write("/srv/elsewhere", "kept")
    links = {"to directory": "directory", "to file": "file", "to link": "to file",
             "outside": "/srv/elsewhere", "above": "..", "loop": "loop",
             "through a file": "file/x", ".hidden to file": "file"}
    dangling = {"gone": "sda1", "gone outside": "/nowhere/at/all", "to gone": "gone",
                ".hidden": "nowhere", "with\nnewline": "nowhere", "deep": "directory/nothing"}
    for name, target in (links | dangling).items():
        (media / name).symlink_to(target)
    (media / "directory/deep/gone").symlink_to("nowhere")
    unit.start_daemon()
    assert unit.links() == links
    assert unit.media() == sorted([*links, "directory", "file"])
    assert (media / "directory/deep/gone").is_symlink()


def test_links_of_an_earlier_run_make_place_for_new_ones(unit: Unit) -> None:
    """The daemon was killed and the stick moved meanwhile: its old link leads nowhere."""
    unit.start_daemon()
    unit.hal.plug(STICK)
    unit.hal.plug(CARD)
    told(unit, 2)
    unit.settle()
    unit.daemon.kill()
    unit.hal.command("quiet pull stick")
    unit.hal.command("quiet pull card")
    unit.hal.command(f"quiet plug {STICK}")
    assert unit.links() == {"USB Memory Card A1": "sda1", "Memory Card": "mmcblk0p1"}
    unit.start_daemon()
    assert unit.application.next_text() == arrival("/media/sda1")
    unit.settle()
    assert unit.links() == {"USB Memory Card A1": "sda1"}


def test_the_scan_goes_on_without_a_media_directory(unit: Unit) -> None:
    unit.hal.plug(f"{STICK} mounted=/mnt/charts")
    unit.sandbox.run(["sh", "-c", "umount /media && rmdir /media"])
    unit.start_daemon()
    assert unit.application.next_text() == arrival("/mnt/charts")
