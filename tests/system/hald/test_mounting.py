"""Mount, Unmount and Eject: who may, what is done, what is told, and what stays behind."""

import errno
import os
from contextlib import contextmanager
from typing import IO, Iterator

import pytest

from testbed import target, timeouts
from testbed.hald import FILESYSTEMS, PREFIX, HaldMachine
from testbed.process import Process
from testbed.sandbox import TOOLS
from testbed.udev import Disk, FileSystem, usb_disk
from testbed.waiting import wait_until

VOLUME = "org.freedesktop.Hal.Device.Volume"
MOUNTED = "PropertyModified volume_uuid_A volume.mount_point volume.is_mounted"
HOLD = "/srv/mount/hold"
#: The service answers a mount that has not ended by then.
LIMIT = 20


@pytest.fixture
def plugged(running: HaldMachine, stick: Disk) -> HaldMachine:
    """A machine with a stick plugged: volumes A and B."""
    running.udev.plug(stick)
    running.settle()
    return running


def error(name: str) -> str:
    """How an answer with this error begins."""
    return f"{VOLUME}.{name}: "


def unmount(machine: HaldMachine, name: str, options: str = "[]") -> str:
    """Ask for an unmount."""
    return machine.call(PREFIX + name, f"{VOLUME}.Unmount", f"@as {options}")


def eject(machine: HaldMachine, name: str) -> str:
    """Ask for the disk to be ejected."""
    return machine.call(PREFIX + name, f"{VOLUME}.Eject", "@as []")


def entries(machine: HaldMachine) -> list[str]:
    """What is in /media."""
    return sorted(os.listdir(machine.sandbox.path("/media")))


def start_mount(machine: HaldMachine, name: str, directory: str) -> Process:
    """Ask for a mount without waiting for the answer."""
    return machine.sandbox.spawn(
        ["gdbus", "call", "--system", "--timeout", "600", "--dest", "org.freedesktop.Hal",
         "--object-path", PREFIX + name, "--method", f"{VOLUME}.Mount", "--", directory, "vfat",
         "@as []"], "mount-call")


class Held:
    """From now on a mount waits until it is let go."""

    def __init__(self, machine: HaldMachine) -> None:
        self._fifo = machine.sandbox.path(HOLD)
        self._fifo.parent.mkdir(exist_ok=True)
        os.mkfifo(self._fifo)

    @contextmanager
    def under_way(self) -> Iterator[None]:
        """Begins when a mount is under way and waits; it goes on at the end."""
        def open_for_reader() -> IO[bytes] | None:
            try:
                return os.fdopen(os.open(self._fifo, os.O_WRONLY | os.O_NONBLOCK), "wb")
            except OSError as failure:
                assert failure.errno == errno.ENXIO  # nobody reads yet
                return None

        writer = wait_until(open_for_reader, "a mount under way", timeouts.START)
        self._fifo.unlink()
        with writer:
            yield
            writer.write(b"\n")


def spy_on_mount(machine: HaldMachine) -> None:
    """Keep the words that mount is called with."""
    tool = machine.sandbox.path(f"{TOOLS}/mount")
    tool.unlink()
    machine.sandbox.write(f"{TOOLS}/mount", "#!/bin/sh\necho \"$*\" >> /srv/words\n"
                          f"exec {target.INSIDE}/helpers/mount-memory \"$@\"\n")
    tool.chmod(0o755)


def words(machine: HaldMachine) -> list[str]:
    """The words that mount was called with, a line for each call."""
    return machine.sandbox.path("/srv/words").read_text().splitlines()


# Mount

def test_a_volume_is_mounted_under_media_and_clients_are_told(plugged: HaldMachine) -> None:
    spy_on_mount(plugged)
    since = plugged.mark()
    assert plugged.mount("volume_uuid_A", "sda1", "vfat", "['utf8,umask=0']") == "(0,)"
    assert plugged.told(since) == [MOUNTED]
    assert plugged.mounts() == {"/media/sda1": "/dev/sda1"}
    assert plugged.get("volume_uuid_A", "volume.mount_point") == "('/media/sda1',)"
    assert words(plugged) == ["-t vfat -o nosuid,nodev,utf8,umask=0 -- /dev/sda1 /media/sda1"]
    assert [record.text for record in plugged.records(since)] == [
        "sda1: mounted at /media/sda1 as vfat"]


def test_the_answer_comes_after_the_change_is_told(plugged: HaldMachine) -> None:
    # The first thing that the daemon does with the answer is to go on; it must find the state.
    plugged.mount("volume_uuid_A", "sda1")
    assert plugged.get("volume_uuid_A", "volume.is_mounted", "Boolean") == "(true,)"


@pytest.mark.parametrize("name, options, refused", [
    ("a/b", "[]", "InvalidMountpoint"),
    ("../etc", "[]", "InvalidMountpoint"),
    ("a\nb", "[]", "InvalidMountpoint"),
    ("..", "[]", "MountPointNotAvailable"),
    (".", "[]", "MountPointNotAvailable"),
    ("taken", "[]", "MountPointNotAvailable"),
    ("link", "[]", "MountPointNotAvailable"),
    ("x" * 300, "[]", "UnknownFailure"),
    ("sda1", "['suid']", "InvalidMountOption"),
    ("sda1", "['ro,dev']", "InvalidMountOption"),
    ("sda1", "['utf8 -o dev']", "InvalidMountOption"),
    ("sda1", "['remount', 'ro']", "CannotRemount"),
])
def test_a_mount_is_refused_and_nothing_stays(plugged: HaldMachine, name: str, options: str,
                                              refused: str) -> None:
    spy_on_mount(plugged)
    plugged.sandbox.path("/media/taken").mkdir()
    plugged.sandbox.path("/media/link").symlink_to("/nowhere")
    since = plugged.mark()
    assert plugged.mount("volume_uuid_A", name, "vfat", options).startswith(error(refused))
    assert plugged.told(since) == []
    assert entries(plugged) == ["link", "taken"]
    assert not plugged.sandbox.path("/srv/words").exists()
    assert len(plugged.records(since)) == 1


def test_without_a_type_the_volume_s_own_is_taken(plugged: HaldMachine) -> None:
    spy_on_mount(plugged)
    assert plugged.mount("volume_uuid_A", "sda1", "") == "(0,)"
    assert words(plugged)[0].startswith("-t vfat ")


def test_what_is_mounted_is_not_mounted_again(plugged: HaldMachine) -> None:
    plugged.mount("volume_uuid_A", "sda1")
    assert plugged.mount("volume_uuid_A", "other").startswith(error("AlreadyMounted"))
    plugged.sandbox.path("/mnt/b").mkdir()
    plugged.run("/usr/bin/mount", "-t", "tmpfs", "/dev/sda2", "/mnt/b")
    assert plugged.mount("volume_uuid_B", "other").startswith(error("AlreadyMounted"))


@pytest.mark.parametrize("label, directories", [
    ("CHARTS\\x2024", ["CHARTS 24", "CHARTS 24-1"]),
    ("", ["disk", "disk-1"]),
    ("..", ["disk", "disk-1"]),
    ("a\\x2fb", ["disk", "disk-1"]),
])
def test_without_a_name_the_label_names_the_directory_if_it_can(
        running: HaldMachine, label: str, directories: list[str]) -> None:
    running.udev.plug(usb_disk(partitions=[FileSystem("A", label=label),
                                           FileSystem("B", label=label)]))
    running.settle()
    assert running.mount("volume_uuid_A", "") == "(0,)"
    assert running.mount("volume_uuid_B", "") == "(0,)"
    assert entries(running) == directories


def test_a_read_only_medium_is_mounted_so(running: HaldMachine, stick: Disk) -> None:
    spy_on_mount(running)
    stick.partitions[1].attributes["ro"] = "1"
    running.udev.plug(stick)
    running.settle()
    since = running.mark()
    assert running.mount("volume_uuid_A", "sda1", "vfat", "['rw']") == "(0,)"
    assert words(running) == ["-t vfat -o nosuid,nodev,ro -- /dev/sda1 /media/sda1"]
    assert running.told(since) == ["PropertyModified volume_uuid_A volume.mount_point"
                                   " volume.is_mounted_read_only volume.is_mounted"]
    assert running.mount("volume_uuid_A", "sda1", "vfat", "['remount', 'rw']").startswith(
        error("CannotRemount"))


@pytest.mark.parametrize("known, used", [("ntfs3", "ntfs3"), ("vfat", "ntfs")])
def test_ntfs_is_mounted_by_the_kernel_if_it_can(plugged: HaldMachine, known: str,
                                                 used: str) -> None:
    spy_on_mount(plugged)
    plugged.sandbox.write(f"{TOOLS}/mount.ntfs", "")
    plugged.sandbox.path(f"{TOOLS}/mount.ntfs").chmod(0o755)
    plugged.sandbox.write(FILESYSTEMS, f"nodev\tproc\n\t{known}\n")
    assert plugged.mount("volume_uuid_A", "sda1", "ntfs") == "(0,)"
    assert words(plugged) == [f"-t {used} -o nosuid,nodev -- /dev/sda1 /media/sda1"]


def test_a_medium_that_does_not_say_whether_it_is_read_only_is_mounted(
        running: HaldMachine, stick: Disk) -> None:
    running.udev.plug(stick)
    running.settle()
    medium = f"{stick.partitions[1].path}/ro"
    attribute = running.sandbox.path(running.udev.root + medium)
    attribute.unlink()
    attribute.mkdir()  # can be opened, but not read
    spy_on_mount(running)
    since = running.mark()
    assert running.mount("volume_uuid_A", "sda1") == "(0,)"
    assert words(running) == ["-t vfat -o nosuid,nodev -- /dev/sda1 /media/sda1"]
    assert any(record.text.startswith(f"{medium} cannot be read: ")
               for record in running.records(since))


def test_a_remount_changes_only_whether_it_is_read_only(plugged: HaldMachine) -> None:
    plugged.mount("volume_uuid_A", "sda1")
    for mode, shown in (("ro", "(true,)"), ("rw", "(false,)")):
        since = plugged.mark()
        assert plugged.mount("volume_uuid_A", "x", "", f"['remount', '{mode}']") == "(0,)"
        assert plugged.told(since) == [
            "PropertyModified volume_uuid_A volume.is_mounted_read_only"]
        assert plugged.get("volume_uuid_A", "volume.is_mounted_read_only", "Boolean") == shown
    assert entries(plugged) == ["sda1"]


def test_a_mount_that_fails_tells_why_and_leaves_nothing(plugged: HaldMachine) -> None:
    plugged.sandbox.write("/srv/mount/fail", "mount: /dev/sda1: bad \x1b[2J superblock\xff\n")
    since = plugged.mark()
    answer = plugged.mount("volume_uuid_A", "sda1")
    assert answer.startswith(error("UnknownFailure") + "mount: /dev/sda1: bad ")
    assert entries(plugged) == []
    assert plugged.told(since) == []
    [record] = plugged.records(since)
    assert record.priority == 5
    assert "bad \\x1b[2J superblock" in record.text


def test_a_mount_that_prints_megabytes_is_a_failure_like_others(plugged: HaldMachine) -> None:
    plugged.sandbox.write("/srv/mount/fail", "x" * 4_000_000)
    answer = plugged.mount("volume_uuid_A", "sda1")
    assert answer == error("UnknownFailure") + "x" * 4096
    assert entries(plugged) == []


def test_a_mount_program_that_mounts_nothing_is_not_believed(plugged: HaldMachine) -> None:
    tool = plugged.sandbox.path(f"{TOOLS}/mount")
    tool.unlink()
    tool.symlink_to("/usr/bin/true")
    assert plugged.mount("volume_uuid_A", "sda1").startswith(error("UnknownFailure"))
    assert entries(plugged) == []


def test_without_a_mount_program_the_answer_says_so(plugged: HaldMachine) -> None:
    tool = plugged.sandbox.path(f"{TOOLS}/mount")
    tool.unlink()
    tool.symlink_to("/srv")  # nothing that could be started; the one of the system stays unseen
    answer = plugged.mount("volume_uuid_A", "sda1")
    assert answer.startswith(error("UnknownFailure"))
    assert entries(plugged) == []


def test_media_that_cannot_be_written_to_is_a_failure(plugged: HaldMachine) -> None:
    plugged.run("/usr/bin/mount", "-t", "tmpfs", "-o", "ro", "none", "/media")
    assert "Read-only file system" in plugged.mount("volume_uuid_A", "sda1")
    plugged.run("/usr/bin/mount", "-o", "remount,rw,nr_inodes=1", "/media")
    assert "No space left on device" in plugged.mount("volume_uuid_A", "sda1")
    plugged.run("/usr/bin/mount", "-o", "remount,nr_inodes=100", "/media")
    assert plugged.mount("volume_uuid_A", "sda1") == "(0,)"


# Mounts that take their time

def test_others_are_served_while_a_mount_takes_its_time(plugged: HaldMachine) -> None:
    held = Held(plugged)
    first = start_mount(plugged, "volume_uuid_A", "sda1")
    with held.under_way():
        assert plugged.get("volume_uuid_A", "volume.is_mounted", "Boolean") == "(false,)"
        assert plugged.mount("volume_uuid_A", "sda1").startswith(
            error("UnknownFailure") + f"Volume {PREFIX}volume_uuid_A is being mounted")
        assert plugged.mount("volume_uuid_B", "sda1").startswith(error("MountPointNotAvailable"))
        assert plugged.mount("volume_uuid_B", "sda2") == "(0,)"
        assert eject(plugged, "volume_uuid_B").startswith(error("Busy"))
    assert first.wait() == 0
    assert first.stdout() == "(0,)\n"
    assert plugged.mounts() == {"/media/sda1": "/dev/sda1", "/media/sda2": "/dev/sda2"}


def test_a_device_that_vanishes_while_it_is_mounted_leaves_nothing(plugged: HaldMachine,
                                                                   stick: Disk) -> None:
    held = Held(plugged)
    call = start_mount(plugged, "volume_uuid_A", "sda1")
    with held.under_way():
        plugged.udev.pull(stick)
        plugged.settle()
        assert plugged.objects() == []
    assert call.wait() == 1
    assert f"{VOLUME}.UnknownFailure: Volume {PREFIX}volume_uuid_A is gone" in call.stderr()
    assert plugged.mounts() == {}
    assert entries(plugged) == []
    # The next stick finds everything in order.
    plugged.udev.plug(stick)
    plugged.settle()
    assert plugged.mount("volume_uuid_A", "sda1") == "(0,)"


def test_a_mount_that_takes_too_long_is_answered_and_told_when_it_comes(
        plugged: HaldMachine) -> None:
    held = Held(plugged)
    since = plugged.mark()
    call = start_mount(plugged, "volume_uuid_A", "sda1")
    with held.under_way():
        assert call.wait((LIMIT + 60) * timeouts.SCALE) == 1
        assert f"{VOLUME}.UnknownFailure: mount has not finished after {LIMIT} s" in call.stderr()
        assert plugged.told(since) == []
        assert entries(plugged) == ["sda1"]
    plugged.hal.events.seek(since)
    plugged.hal.events.expect(MOUNTED)
    assert plugged.mounts() == {"/media/sda1": "/dev/sda1"}
    assert unmount(plugged, "volume_uuid_A") == "(0,)"
    assert entries(plugged) == []


# Unmount

def test_an_unmount_removes_the_directory_and_is_told(plugged: HaldMachine) -> None:
    plugged.mount("volume_uuid_A", "sda1")
    since = plugged.mark()
    assert unmount(plugged, "volume_uuid_A") == "(0,)"
    assert plugged.told(since) == [MOUNTED]
    assert plugged.mounts() == {}
    assert entries(plugged) == []
    assert plugged.get("volume_uuid_A", "volume.mount_point") == "('',)"
    assert unmount(plugged, "volume_uuid_A").startswith(error("NotMounted"))


def test_what_others_mounted_is_theirs_to_unmount(plugged: HaldMachine) -> None:
    for place in ("/mnt/a", "/media/b"):
        plugged.sandbox.path(place).mkdir()
    plugged.run("/usr/bin/mount", "-t", "tmpfs", "/dev/sda1", "/mnt/a")
    plugged.run("/usr/bin/mount", "-t", "tmpfs", "/dev/sda2", "/media/b")
    for volume in ("volume_uuid_A", "volume_uuid_B"):
        assert unmount(plugged, volume, "['lazy']").startswith(error("NotMountedByHal"))
        assert eject(plugged, volume).startswith(error("NotMountedByHal"))
    assert plugged.mounts() == {"/mnt/a": "/dev/sda1", "/media/b": "/dev/sda2"}


def test_a_volume_in_use_is_busy_and_can_be_detached(plugged: HaldMachine) -> None:
    plugged.mount("volume_uuid_A", "sda1")
    plugged.sandbox.write("/media/sda1/open", "")
    with open(plugged.sandbox.path("/media/sda1/open"), "rb"):
        assert unmount(plugged, "volume_uuid_A").startswith(error("Busy"))
        assert eject(plugged, "volume_uuid_B").startswith(error("Busy"))
        assert plugged.mounts() == {"/media/sda1": "/dev/sda1"}
        assert unmount(plugged, "volume_uuid_A", "['lazy']") == "(0,)"
    assert plugged.mounts() == {}
    assert entries(plugged) == []


def test_a_directory_goes_when_others_unmount_it(plugged: HaldMachine) -> None:
    plugged.mount("volume_uuid_A", "sda1")
    since = plugged.mark()
    plugged.run("umount", "/media/sda1")
    plugged.hal.events.seek(since)
    plugged.hal.events.expect(MOUNTED)
    wait_until(lambda: entries(plugged) == [], "an empty /media", timeouts.EVENT)


def test_a_directory_that_somebody_uses_is_left_and_said(plugged: HaldMachine) -> None:
    plugged.mount("volume_uuid_A", "sda1")
    plugged.run("umount", "--lazy", "/media/sda1")
    wait_until(lambda: entries(plugged) == [], "an empty /media", timeouts.EVENT)
    assert plugged.mount("volume_uuid_A", "sda1") == "(0,)"


# Eject

def test_an_eject_unmounts_every_volume_of_the_disk(plugged: HaldMachine) -> None:
    other = usb_disk("sdb", port="1-1.4", host=1, usb_serial="BB", partitions=[FileSystem("C")])
    plugged.udev.plug(other)
    plugged.settle()
    for volume, directory in (("A", "sda1"), ("B", "sda2"), ("C", "sdb1")):
        assert plugged.mount(f"volume_uuid_{volume}", directory) == "(0,)"
    assert eject(plugged, "volume_uuid_A") == "(0,)"
    assert plugged.mounts() == {"/media/sdb1": "/dev/sdb1"}
    assert entries(plugged) == ["sdb1"]


# Who may

def test_who_is_not_known_to_be_root_may_ask_and_nothing_else(machine: HaldMachine,
                                                              stick: Disk) -> None:
    spy_on_mount(machine)
    machine.udev.place(stick)
    machine.bus.kill()
    machine.bus.start("ANONYMOUS")  # it knows nobody's user
    machine.start_service()
    assert machine.get("volume_uuid_A", "volume.is_mounted", "Boolean") == "(false,)"
    mounted = machine.call(f"{PREFIX}volume_uuid_A", f"{VOLUME}.Mount", "sda1", "vfat", "[]")
    for answer in (mounted, unmount(machine, "volume_uuid_A"), eject(machine, "volume_uuid_A")):
        assert answer == error("PermissionDenied") + "Only root may mount, unmount and eject"
    assert not machine.sandbox.path("/srv/words").exists()
    assert entries(machine) == []
