"""What an earlier run left at a new mount point: it is cleared away, and nothing else ever is."""

import os
from pathlib import Path

import pytest

from local_volumes import DEVICES, STICK, STICK_VOLUME, arrival, mark, said
from testbed import timeouts
from testbed.daemon import ERROR, INFO, WARNING
from testbed.strace import Strace
from testbed.unit import Unit
from testbed.waiting import wait_until

#: How the volume comes: it is plugged, or found when the daemon starts.
ARRIVAL, SCAN = "DeviceAdded", "ManualScan"
_both = pytest.mark.parametrize("way", [ARRIVAL, SCAN])


def bring(unit: Unit, way: str) -> int:
    """Let STICK come this way; when it has been dealt with, the mark from before."""
    since = unit.mark()
    if way == ARRIVAL:
        unit.start_daemon()
        since = mark(unit)
        unit.hal.plug(STICK)
        unit.settle()
    else:
        unit.hal.plug(STICK)
        unit.start_daemon()
    return since


def warnings(unit: Unit, since: int) -> list[str]:
    """The warnings after the mark."""
    return [text for level, text in said(unit, since) if level == WARNING]


def mount_calls(unit: Unit) -> list[str]:
    """The arguments of all Mount calls."""
    return [call.arguments for call in unit.hal.calls() if call.member == "Mount"]


def fill(unit: Unit, *entries: str) -> None:
    """Make files, directories ("x/") and links ("x -> target") below /media."""
    for entry in entries:
        name, _, target = entry.partition(" -> ")
        path = unit.sandbox.path(f"/media/{name}")
        path.parent.mkdir(parents=True, exist_ok=True)
        if target:
            path.symlink_to(target)
        elif name.endswith("/"):
            path.mkdir(exist_ok=True)
        else:
            path.write_text("left")


@_both
@pytest.mark.parametrize("entries", [
    ["sda1/"], ["sda1"], ["sda1/a/b/c/file", "sda1/a/file", "sda1/empty/"],
    ["sda1/.hidden", "sda1/new\nline", "sda1/with 'quotes'"]],
    ids=["an empty directory", "a file", "a tree", "odd names"])
def test_a_leftover_is_cleared_away(unit: Unit, way: str, entries: list[str]) -> None:
    fill(unit, *entries)
    since = bring(unit, way)
    assert unit.application.next_text() == arrival("/media/sda1")
    assert warnings(unit, since) == []
    assert unit.mounts() == {"/media/sda1": "rw"}
    assert unit.entries("/media/sda1") == []


def test_only_the_new_mount_point_is_cleared(running_unit: Unit) -> None:
    fill(running_unit, "sda/kept", "sda10/kept", "sdb1/kept", "sda1/left")
    running_unit.hal.plug(STICK)
    running_unit.settle()
    assert running_unit.media() == ["USB Memory Card A1", "sda", "sda1", "sda10", "sdb1"]
    for name in ("sda", "sda10", "sdb1"):
        assert running_unit.exists(f"/media/{name}/kept")


@_both
def test_links_in_a_leftover_are_not_followed(unit: Unit, way: str) -> None:
    """Not to a directory, a file, the directory above, or one on the same file system."""
    unit.sandbox.write("/media/neighbour/charts", "charts")
    unit.sandbox.write("/srv/outside/charts", "charts")
    unit.sandbox.write("/etc/voldrake-test", "settings")
    fill(unit, "sda1/neighbour -> ../neighbour", "sda1/deep/outside -> /srv/outside",
         "sda1/file -> /etc/voldrake-test", "sda1/up -> ..", "sda1/self -> .",
         "sda1/root -> /", "sda1/nowhere -> /nowhere")
    since = bring(unit, way)
    assert unit.application.next_text() == arrival("/media/sda1")
    assert warnings(unit, since) == []
    for kept in ("/media/neighbour/charts", "/srv/outside/charts", "/etc/voldrake-test"):
        assert unit.exists(kept)


@_both
@pytest.mark.parametrize("target", ["neighbour", "/media/neighbour", "neighbour/charts", "."])
def test_a_leftover_that_is_a_link_is_removed_as_a_link(unit: Unit, way: str, target: str) -> None:
    unit.sandbox.write("/media/neighbour/charts", "charts")
    fill(unit, f"sda1 -> {target}")
    since = bring(unit, way)
    assert unit.application.next_text() == arrival("/media/sda1")
    assert warnings(unit, since) == []
    assert unit.links() == {"USB Memory Card A1": "sda1"}
    assert unit.content("/media/neighbour/charts") == "charts"


@_both
def test_a_link_to_another_file_system_is_left_alone(unit: Unit, way: str) -> None:
    unit.sandbox.write("/srv/outside/charts", "charts")
    fill(unit, "sda1 -> /srv/outside")
    since = bring(unit, way)
    assert mount_calls(unit) == ["'sda1', 'vfat', []"]
    assert unit.links() == {"sda1": "/srv/outside"}
    assert unit.content("/srv/outside/charts") == "charts"
    assert warnings(unit, since) == []


@_both
def test_a_mounted_file_system_is_left_alone(unit: Unit, way: str) -> None:
    fill(unit, "sda1/")
    unit.sandbox.run(["mount", "-t", "tmpfs", "tmpfs", "/media/sda1"])
    unit.sandbox.write("/media/sda1/charts", "charts")
    since = bring(unit, way)
    assert mount_calls(unit) == ["'sda1', 'vfat', []"]
    assert unit.content("/media/sda1/charts") == "charts"
    assert warnings(unit, since) == []


@_both
def test_a_leftover_that_cannot_be_deleted_is_told_and_the_mount_is_tried(
        unit: Unit, way: str) -> None:
    """A file system is mounted inside: it is not entered, and its directory stays."""
    fill(unit, "sda1/inner/")
    unit.sandbox.run(["mount", "-t", "tmpfs", "tmpfs", "/media/sda1/inner"])
    unit.sandbox.write("/media/sda1/inner/charts", "charts")
    since = bring(unit, way)
    assert [line for line in said(unit, since) if line[0] <= WARNING] == [
        (WARNING, "Failed to remove /media/sda1"),
        (WARNING, f"{way}: failed to remove /media/sda1"),
        (ERROR, "org.freedesktop.Hal.Device.Volume.MountPointNotAvailable:"
                " The mount point /media/sda1 is taken"),
        *([(ERROR, f"_DeviceAdded: MountVolume failed: {STICK_VOLUME} sda1 vfat")]
          if way == ARRIVAL else [])]
    assert mount_calls(unit) == ["'sda1', 'vfat', []"]
    assert unit.content("/media/sda1/inner/charts") == "charts"


def mount_over(unit: Unit, source: str, place: str) -> None:
    """Mount a file or directory of the same file system on another."""
    done = unit.sandbox.run(["mount", "--bind", source, place])
    assert done.returncode == 0, done.stderr


#: What becomes a mount point in a leftover, and the path of the first thing that cannot be removed.
_MOUNT_POINTS = {
    "the leftover itself": ("", "sda1"),
    "a directory inside": ("/inner", "sda1"),
    "a directory further inside": ("/a/b/inner", "sda1/a/b"),
}


@_both
@pytest.mark.parametrize("inside, stays", _MOUNT_POINTS.values(), ids=_MOUNT_POINTS)
def test_a_directory_of_the_same_file_system_that_is_mounted_in_a_leftover_is_not_emptied(
        unit: Unit, way: str, inside: str, stays: str) -> None:
    fill(unit, "charts/coast/file", f"sda1{inside}/", "sda1/left")
    mount_over(unit, "/media/charts", f"/media/sda1{inside}")
    since = bring(unit, way)
    assert warnings(unit, since) == [f"Failed to remove /media/{stays}",
                                     f"{way}: failed to remove /media/sda1"]
    assert unit.sandbox.path("/media/charts/coast/file").exists()
    assert mount_calls(unit) == ["'sda1', 'vfat', []"]


@_both
def test_a_file_that_is_mounted_in_a_leftover_is_not_removed(unit: Unit, way: str) -> None:
    fill(unit, "charts", "sda1/file")
    mount_over(unit, "/media/charts", "/media/sda1/file")
    since = bring(unit, way)
    assert warnings(unit, since) == ["Failed to remove /media/sda1",
                                     f"{way}: failed to remove /media/sda1"]
    assert unit.sandbox.path("/media/charts").exists()


def bring_without(unit: Unit, log_directory: Path, error: str) -> int:
    """Let STICK come while the kernel refuses openat2; the mark from before."""
    since = mark(unit)
    with Strace(unit.daemon.process, log_directory / "strace", "-e", "trace=openat2",
                "-e", f"inject=openat2:error={error}") as strace:
        unit.hal.plug(STICK)
        unit.settle()
    assert "openat2" in strace.calls()
    return since


@pytest.mark.parametrize("error", ["ENOSYS", "EPERM"])
@pytest.mark.native("another call would be seen")
def test_a_kernel_without_openat2_makes_no_difference(running_unit: Unit, log_directory: Path,
                                                      error: str) -> None:
    unit = running_unit
    fill(unit, "charts/coast/file", "sda1/a/b/inner/", "sda1/left/file", "sda1/link -> ../charts")
    mount_over(unit, "/media/charts", "/media/sda1/a/b/inner")
    since = bring_without(unit, log_directory, error)
    assert warnings(unit, since) == ["Failed to remove /media/sda1/a/b",
                                     "DeviceAdded: failed to remove /media/sda1"]
    assert unit.sandbox.path("/media/charts/coast/file").exists()
    unit.hal.pull("stick")
    assert unit.sandbox.run(["umount", "/media/sda1/a/b/inner"]).returncode == 0
    bring_without(unit, log_directory, error)
    assert unit.application.next_text() == arrival("/media/sda1")
    assert unit.sandbox.path("/media/charts/coast/file").exists()


@pytest.mark.native("another call would be seen")
def test_a_file_that_is_mounted_is_passed_over_without_openat2(running_unit: Unit,
                                                               log_directory: Path) -> None:
    fill(running_unit, "charts", "sda1/file")
    mount_over(running_unit, "/media/charts", "/media/sda1/file")
    since = bring_without(running_unit, log_directory, "ENOSYS")
    assert warnings(running_unit, since) == ["Failed to remove /media/sda1",
                                             "DeviceAdded: failed to remove /media/sda1"]
    assert running_unit.sandbox.path("/media/charts").exists()


@pytest.mark.native("another call would be seen")
def test_where_mounts_cannot_be_told_apart_nothing_is_entered(running_unit: Unit,
                                                              log_directory: Path) -> None:
    fill(running_unit, "sda1/inner/file")
    running_unit.sandbox.path("/proc/self").unlink()
    since = bring_without(running_unit, log_directory, "ENOSYS")
    assert warnings(running_unit, since) == ["Failed to remove /media/sda1",
                                             "DeviceAdded: failed to remove /media/sda1"]
    assert running_unit.sandbox.path("/media/sda1/inner/file").exists()


@pytest.mark.parametrize("happens", ["something is mounted on it", "it is moved away"])
@pytest.mark.native("another call would be seen")
def test_what_happens_to_a_leftover_while_it_is_cleared_empties_nothing_else(
        running_unit: Unit, log_directory: Path, happens: str) -> None:
    """The walk is stopped at the first of two files, for which it tries three entries."""
    unit = running_unit
    fill(unit, "charts/x/a", "charts/x/b", "sda1/x/a", "sda1/x/b")
    with Strace(unit.daemon.process, log_directory / "strace", "-e", "trace=unlinkat",
                "-e", "inject=unlinkat:signal=SIGSTOP:when=3") as strace:
        unit.hal.plug(STICK)
        wait_until(lambda: "stopped by SIGSTOP" in strace.output.read_text(), "the walk is stopped")
        if happens == "it is moved away":
            unit.sandbox.path("/media/sda1/x").rename(unit.sandbox.path("/media/charts/moved"))
        else:
            mount_over(unit, "/media/charts", "/media/sda1")
        unit.daemon.process.resume()
        unit.daemon.expect_log(WARNING, "DeviceAdded: failed to remove /media/sda1")
        unit.settle()
    assert {"a", "b"} == set(os.listdir(unit.sandbox.path("/media/charts/x")))


@_both
@pytest.mark.parametrize("device", ["/dev/", "/dev/.", "/dev/..", "/dev//", "/dev/../outside",
                                    "/dev/sda1/../neighbour"],
                         ids=["nothing", "itself", "above", "a slash", "beside", "through another"])
def test_a_name_that_leads_elsewhere_deletes_nothing(unit: Unit, way: str, device: str) -> None:
    """Not even where /media is no file system of its own, so that nothing tells them apart."""
    unit.sandbox.run(["umount", "/media"])
    kept = ("/media/neighbour/charts", "/outside/charts", "/charts")
    for path in kept:
        unit.sandbox.write(path, "kept")
    fill(unit, "sda1/")
    unit.hal.command("fail Mount org.freedesktop.Hal.Device.Volume.UnknownFailure no")
    if way == ARRIVAL:
        unit.start_daemon()
        unit.hal.plug(f"{STICK} volume-block={device}")
        unit.settle()
    else:
        unit.hal.plug(f"{STICK} volume-block={device}")
        unit.start_daemon()
    assert mount_calls(unit) == [f"'{device.removeprefix('/dev/')}', 'vfat', []"]
    assert all(unit.exists(path) for path in kept)
    assert unit.media() == ["neighbour", "sda1"]


def test_a_leftover_appears_between_two_arrivals(running_unit: Unit) -> None:
    for _ in range(2):
        fill(running_unit, "sda1/left")
        running_unit.hal.plug(STICK)
        assert running_unit.application.next_text() == arrival("/media/sda1")
        running_unit.settle()
        running_unit.hal.pull("stick")
        running_unit.application.next_text()


def test_a_deep_leftover_is_cleared_away(running_unit: Unit) -> None:
    """Deeper than the descriptors that the walk may hold."""
    fill(running_unit, "sda1/" + "d/" * 60 + "file")
    running_unit.hal.plug(STICK)
    assert running_unit.application.next_text() == arrival("/media/sda1")


def test_a_leftover_may_be_deeper_than_a_path_can_be_long(running_unit: Unit) -> None:
    """And than a process may have descriptors, or its stack room for calls."""
    fill(running_unit, "sda1/")
    here = os.open(running_unit.sandbox.path("/media/sda1"), os.O_RDONLY)
    for _ in range(20_000):
        os.mkdir("d", dir_fd=here)
        inner = os.open("d", os.O_RDONLY, dir_fd=here)
        os.close(here)
        here = inner
    os.close(here)
    running_unit.hal.plug(STICK)
    assert running_unit.application.next_text(timeouts.RUN) == arrival("/media/sda1")


def test_a_leftover_may_have_very_many_entries(running_unit: Unit) -> None:
    fill(running_unit, *(f"sda1/{number}" for number in range(3000)),
         *(f"sda1/d{number}/file" for number in range(300)))
    running_unit.hal.plug(STICK)
    assert running_unit.application.next_text(timeouts.RUN) == arrival("/media/sda1")


def test_a_leftover_under_an_unwritable_media_directory_is_told(running_unit: Unit) -> None:
    fill(running_unit, "sda1/")
    running_unit.sandbox.run(["mount", "-o", "remount,ro", "/media"])
    since = mark(running_unit)
    running_unit.hal.plug(STICK)
    running_unit.settle()
    assert warnings(running_unit, since) == ["Failed to remove /media/sda1",
                                             "DeviceAdded: failed to remove /media/sda1"]
    assert running_unit.media() == ["sda1"]
    assert mount_calls(running_unit) == ["'sda1', 'vfat', []"]


def test_without_media_directory_the_mount_is_asked_for_all_the_same(running_unit: Unit) -> None:
    unit, since = running_unit, mark(running_unit)
    assert unit.sandbox.run(["sh", "-c", "umount /media && rmdir /media"]).returncode == 0
    unit.hal.plug(STICK)
    unit.settle()
    assert mount_calls(unit) == ["'sda1', 'vfat', []"]
    assert (ERROR, f"_DeviceAdded: MountVolume failed: {STICK_VOLUME} sda1 vfat") in said(
        unit, since)
    unit.sandbox.path("/media").mkdir()
    unit.hal.plug("usb other")
    assert unit.application.next_text() == arrival("/media/sdb1")
    assert (INFO, f"_DeviceAdded: MountVolume success: {DEVICES}volume_uuid_") not in said(
        unit, since)
