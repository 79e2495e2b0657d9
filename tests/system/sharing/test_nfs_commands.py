"""The tools that are run for other units' shares: which, with which words, and what comes of it."""

import os
import re
import stat

import pytest

from share_helpers import (CLEAR_EXPORTS, export, mount, start_listening, start_sharing,
                           start_with_peer, unmount)
from testbed.daemon import DEBUG, ERROR, INFO, WARNING
from testbed.otherunit import WITHDRAWN, Announcement
from testbed.strace import Strace

SOURCE = "169.254.3.7:/media/sda1"
DIRECTORY = "/mnt/169.254.3.7:-media-sda1"
SHARE = Announcement("/media/sda1")


def test_a_new_share_takes_a_directory_and_one_command(unit, tools, peer) -> None:
    start_listening(unit)
    since = unit.mark()
    tools.hold("mount -t nfs")
    peer.share(SHARE)
    tools.expect(mount("ro", SOURCE, DIRECTORY))
    status = unit.sandbox.path(DIRECTORY).stat()
    assert stat.filemode(status.st_mode) == "drwx------"
    tools.obey()
    unit.daemon.expect_log(INFO, f"Mount command: '{mount('ro', SOURCE, DIRECTORY)}' PASS")
    unit.application.expect_message("dataarrival")
    assert [call for call in tools.calls(since) if call != CLEAR_EXPORTS] == [
        mount("ro", SOURCE, DIRECTORY)]


def test_a_directory_that_is_there_is_mounted_on(unit, tools, peer) -> None:
    unit.sandbox.path(DIRECTORY).mkdir()
    start_listening(unit)
    peer.share(SHARE)
    unit.application.expect_message("dataarrival")
    assert [call for call in tools.calls() if call != CLEAR_EXPORTS] == [
        f"mountpoint -q {DIRECTORY}", mount("ro", SOURCE, DIRECTORY)]
    assert not [line for line in unit.daemon.log_lines() if "already mounted" in line.text]


@pytest.mark.parametrize("mode", ["rw", "ro"])
def test_what_is_mounted_already_is_remounted(unit, tools, peer, mode: str) -> None:
    unit.sandbox.path(DIRECTORY).mkdir()
    assert unit.sandbox.run(["/usr/bin/mount", "-t", "tmpfs", "tmpfs", DIRECTORY]).returncode == 0
    start_listening(unit, "--peer-mac", peer.eth0.hardware_address() if mode == "rw" else "")
    peer.share(SHARE)
    unit.daemon.expect_log(INFO, f"Mountpoint: '{DIRECTORY}' is already mounted.")
    unit.daemon.expect_log(INFO, f"Mount command: 'mount -o remount,{mode} {DIRECTORY}' PASS")
    unit.application.expect_message("dataarrival")
    assert [call for call in tools.calls() if "exportfs" not in call] == [
        f"mountpoint -q {DIRECTORY}", f"mount -o remount,{mode} {DIRECTORY}"]


def test_a_directory_that_cannot_be_made_is_an_error_and_mounting_tried(unit, tools, peer) -> None:
    directory = "/nowhere/a-169.254.3.7:-media-sda1"
    start_listening(unit, "--nfs-root", "/nowhere/a")
    peer.send(SHARE)
    unit.daemon.expect_log(ERROR,
                           f"ERROR Failed to create directory '{directory}' with error ")
    unit.daemon.expect_log(
        ERROR, f"Mount command: '{mount('ro', SOURCE, directory)}' FAIL with error 8192")
    assert tools.calls(tool="mountpoint") == []
    assert unit.application.frames() == []


@pytest.mark.parametrize("status", [1, 32, 255])
def test_a_failed_mount_is_logged_with_the_status_of_the_shell(unit, tools, peer,
                                                               status: int) -> None:
    start_listening(unit)
    tools.refuse("mount -t nfs", status)
    peer.send(SHARE)
    unit.daemon.expect_log(ERROR, f"Mount command: '{mount('ro', SOURCE, DIRECTORY)}'"
                                  f" FAIL with error {status * 256}")
    assert unit.sandbox.path(DIRECTORY).is_dir(), "the directory stays"
    assert tools.calls(tool="umount") == []
    assert unit.application.frames() == []


def test_a_mount_has_failed_when_its_shell_was_ended_by_a_signal(unit, tools, peer) -> None:
    start_listening(unit)
    tools.kill("mount -t nfs")
    peer.send(SHARE)
    unit.daemon.expect_log(
        ERROR, f"Mount command: '{mount('ro', SOURCE, DIRECTORY)}' FAIL with error 9")


def test_a_share_that_goes_is_unmounted_and_its_directory_removed(unit, tools, peer) -> None:
    start_listening(unit)
    peer.send(SHARE)
    unit.application.expect_message("dataarrival")
    peer.send(SHARE.withdrawal())
    unit.daemon.expect_log(INFO, f"Umount command: {unmount(DIRECTORY)} PASS")
    assert os.listdir(unit.sandbox.path("/mnt")) == []


def test_unmounting_what_somebody_else_has_removed_is_a_logged_failure(unit, tools,
                                                                       peer) -> None:
    start_listening(unit)
    peer.share(SHARE)
    unit.application.expect_message("dataarrival")
    done = unit.sandbox.run(["sh", "-c", f"/usr/bin/umount {DIRECTORY} && rmdir {DIRECTORY}"])
    assert done.returncode == 0
    peer.withdraw(SHARE)
    unit.daemon.expect_log(ERROR, f"Umount command: {unmount(DIRECTORY)} FAIL")
    unit.application.expect_message("dataremoval")
    assert not [line for line in unit.daemon.log_lines() if line.level == WARNING
                and "Failed to remove" in line.text]


def test_a_directory_that_is_not_empty_is_logged(unit, tools, peer) -> None:
    unit.sandbox.write(f"{DIRECTORY}/somebody's", "file")
    start_listening(unit)
    peer.send(SHARE)
    unit.application.expect_message("dataarrival")
    peer.send(SHARE.withdrawal())
    unit.daemon.expect_log(WARNING, f"Failed to remove {DIRECTORY}: Directory not empty")
    unit.daemon.expect_log(INFO, f"Umount command: {unmount(DIRECTORY)} PASS")


def test_the_shell_gets_exactly_these_command_lines(unit, tools, peer, log_directory) -> None:
    start_with_peer(unit, peer)
    with Strace(unit.daemon.process, log_directory / "strace", "-e", "trace=execve",
                "-s", "1000") as strace:
        unit.hal.plug("usb stick")
        peer.expect_announcement("/media/sda1")
        unit.hal.pull("stick")
        peer.expect_announcement("/media/sda1", WITHDRAWN)
        unit.daemon.expect_log(DEBUG, "RemoveServiceNFS: /media/sda1")
        peer.share(SHARE)
        unit.application.expect_message("dataarrival", path=DIRECTORY)
        unit.daemon.signal(10)
        unit.application.expect_message("dataarrival", path=DIRECTORY)
        peer.withdraw(SHARE)
        unit.application.expect_message("dataremoval", path=DIRECTORY)
        unit.eth0.clear_address()
        unit.daemon.expect_log(INFO, "CServicePublisher: Network Config Changed")
        unit.daemon.expect_log(DEBUG, "CServicePublisher: Restarting nfsd done")
    shell = re.compile(r'execve\("/bin/sh", \["sh", "-c", (?:"--", )?"(.*?)"\]')
    shells = [match[1] for line in strace.lines() if (match := shell.search(line))]
    assert [line for line in shells if line != "exportfs -f"] == [
        export("rw", "169.254.3.7", "/media/sda1"),
        export("ro", "*", "/media/sda1"),
        "exportfs -u 169.254.3.7:/media/sda1",
        "exportfs -u *:/media/sda1",
        mount("rw", SOURCE, DIRECTORY),
        f"mountpoint -q {DIRECTORY}",
        f"mount -o remount,rw {DIRECTORY}",
        unmount(DIRECTORY),
        "exportfs -a -r"]


def test_commands_inherit_no_descriptor_of_the_daemon(unit, tools, peer) -> None:
    start_sharing(unit, "--internal-share-path", "/srv/charts")
    peer.expect_announcement("/srv/charts")
    process = unit.daemon.process
    assert process.inherited_descriptors().keys() <= {0, 1, 2}
    assert sum(target.startswith("socket:") for target in process.descriptors().values()) >= 3


def test_a_mount_that_hangs_holds_up_neither_announcements_nor_local_volumes(unit, tools,
                                                                            peer) -> None:
    start_listening(unit, "--internal-share-path", "/srv/charts")
    tools.hold("mount -t nfs")
    peer.send(SHARE)
    tools.expect(mount("ro", SOURCE, DIRECTORY))
    since = unit.mark()
    unit.hal.plug("usb stick")
    unit.application.expect_message("dataarrival", path="/media/sda1")
    peer.events.seek(since)
    for _ in range(2):
        peer.expect_announcement("/srv/charts")
    assert [frame.message()["path"] for frame in unit.application.frames()] == ["/media/sda1"]
    tools.obey()
    unit.application.expect_message("dataarrival", path=DIRECTORY)
