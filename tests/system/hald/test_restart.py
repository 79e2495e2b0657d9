"""The service ends at any time and comes back: clients hear of the difference, and of nothing else."""

from pathlib import Path

import pytest

from testbed.hald import STATE_FILE, HaldMachine
from testbed.strace import Strace
from testbed.udev import Disk, FileSystem, usb_disk

MOUNTED = " volume.mount_point volume.is_mounted"


@pytest.fixture(name="plugged")
def fixture_plugged(running: HaldMachine, stick: Disk) -> HaldMachine:
    """A machine with the stick, sda1 mounted by the service."""
    running.udev.plug(stick)
    running.settle()
    assert running.mount("volume_uuid_A", "sda1") == "(0,)"
    running.settle()
    return running


def restart(machine: HaldMachine) -> list[str]:
    """Start the service again; what it has announced since."""
    since = machine.mark()
    machine.start_service()
    return machine.told(since)


def test_nothing_is_told_where_nothing_has_changed(plugged: HaldMachine):
    before = plugged.objects()
    plugged.kill_service()
    assert restart(plugged) == []
    assert plugged.objects() == before
    assert plugged.get("volume_uuid_A", "volume.mount_point") == "('/media/sda1',)"
    assert plugged.get("volume_uuid_A", "volume.fstype") == "('vfat',)"


def test_a_mounted_stick_that_was_torn_out_meanwhile(plugged: HaldMachine, stick: Disk):
    plugged.kill_service()
    plugged.udev.vanish(stick)
    told = restart(plugged)
    assert told[0] == "PropertyModified volume_uuid_A" + MOUNTED
    assert told[1:3] == ["DeviceRemoved volume_uuid_B", "DeviceRemoved volume_uuid_A"]
    assert told[-1] == "DeviceRemoved usb_device_90c_1000_AA99"
    assert plugged.objects() == []
    assert plugged.mounts() == {}
    assert not plugged.sandbox.path("/media/sda1").exists()


def test_what_came_and_was_unmounted_meanwhile(plugged: HaldMachine, stick: Disk):
    plugged.kill_service()
    plugged.udev.place(usb_disk("sdb", port="1-1.4", host=1, usb_serial="BB",
                                partitions=[FileSystem("N")]))
    plugged.run("umount", "/media/sda1")
    told = restart(plugged)
    assert told[0] == "PropertyModified volume_uuid_A" + MOUNTED
    assert told[-1] == "DeviceAdded volume_uuid_N"
    assert not any(line.startswith("DeviceRemoved") for line in told)
    assert not plugged.sandbox.path("/media/sda1").exists()


@pytest.mark.usefixtures("traced_to_its_end")
@pytest.mark.undelayed("its calls are counted")
def test_a_removal_that_cannot_be_sent_is_told_by_the_next_start(plugged: HaldMachine,
                                                                 stick: Disk):
    gone = {f"DeviceRemoved {name}" for name in plugged.objects()}
    assert plugged.process
    since = plugged.mark()
    writer = next(int(task.name) for task in Path(f"/proc/{plugged.process.pid}/task").iterdir()
                  if (task / "comm").read_text() == "gdbus\n")
    # The connection breaks over the third of the signals.
    with Strace(plugged.process, plugged.sandbox.logs / "strace", "-e", "trace=sendmsg",
                "-e", "inject=sendmsg:error=ENOBUFS:when=3", thread=writer):
        plugged.udev.pull(stick)
        assert plugged.process.wait() == 1
    told = {event.text for event in plugged.hal.events.up_to(plugged.mark(), since)}
    assert not gone <= told
    plugged.start_service()
    assert gone <= set(plugged.told(since))
    assert plugged.objects() == []


def test_a_file_system_made_anew_meanwhile(plugged: HaldMachine, stick: Disk):
    plugged.kill_service()
    plugged.udev.set(stick.partitions[2], ID_FS_UUID="NEW")
    assert restart(plugged) == ["DeviceRemoved volume_uuid_B", "DeviceAdded volume_uuid_NEW"]


def test_a_card_changed_while_mounted_meanwhile(plugged: HaldMachine, stick: Disk):
    plugged.kill_service()
    for device in stick.blocks():
        plugged.udev.set(device, DISKSEQ="2")
    told = restart(plugged)
    assert told == ["PropertyModified volume_uuid_A" + MOUNTED,
                    "DeviceRemoved volume_uuid_B", "DeviceRemoved volume_uuid_A",
                    "DeviceAdded volume_uuid_A", "DeviceAdded volume_uuid_B"]
    assert plugged.mounts() == {}


def test_names_stay_with_their_volumes(running: HaldMachine):
    disk = usb_disk(partitions=[FileSystem("A"), FileSystem("A")])
    running.udev.plug(disk, [2, 1])
    running.settle()
    assert running.get("volume_uuid_A", "block.device") == "('/dev/sda2',)"
    running.kill_service()
    assert restart(running) == []
    assert running.get("volume_uuid_A", "block.device") == "('/dev/sda2',)"
    assert running.get("volume_uuid_A_0", "block.device") == "('/dev/sda1',)"


def test_killed_at_any_moment_of_an_arrival_it_announces_nothing_twice_and_forgets_nothing(
        machine: HaldMachine, stick: Disk):
    """Clients that heard everything know what is there, however often the service was killed."""
    machine.start_service()
    known: set[str] = set()
    since = machine.mark()
    for events in range(4):
        machine.udev.place(stick)
        for device in stick.blocks()[:events]:
            machine.udev.announce(device)
        machine.kill_service()
        machine.start_service()
        machine.udev.pull(stick)
        machine.kill_service()
        machine.start_service()
        for line in machine.told(since):
            member, name = line.split()
            if member == "DeviceAdded":
                assert name not in known, line
                known.add(name)
            else:
                known.discard(name)
        assert known == set()
        since = machine.mark()


@pytest.mark.parametrize("content", [
    b"", b"hello", b"[state]\nversion=2\ndirectories=\n", b"[state]\nversion=1\n",
    b"[state]\nversion=1\ndirectories=../../srv;\n", b"\xff\x00\xfe" * 1000,
    b"[state]\nversion=1\ndirectories=\n\n[object 0]\nkey=x\n",
    b"[state]\nversion=1\ndirectories=\n\n[object 0]\nkey=x\nparent=\nname=../x\n",
    b"[" * 100000,
])
def test_a_state_file_that_cannot_be_used_is_one_line_and_a_first_start(
        machine: HaldMachine, stick: Disk, content: bytes):
    machine.udev.place(stick)
    machine.sandbox.write(STATE_FILE, content)
    since = machine.mark()
    assert restart(machine) == []
    assert machine.volumes() == ["volume_uuid_A", "volume_uuid_B"]
    lines = [record.text for record in machine.records(since) if STATE_FILE in record.text]
    assert len(lines) == 1
    assert lines[0].startswith(f"{STATE_FILE} cannot be used, so this is a first start: ")


def test_a_truncated_state_file(plugged: HaldMachine, stick: Disk):
    plugged.kill_service()
    content = plugged.sandbox.path(STATE_FILE).read_bytes()
    plugged.sandbox.write(STATE_FILE, content[:-20])
    assert restart(plugged) == []
    assert plugged.volumes() == ["volume_uuid_A", "volume_uuid_B"]


def test_a_run_directory_that_cannot_be_written_is_one_line(machine: HaldMachine, stick: Disk):
    machine.sandbox.write("/run/voldrake-hald", "a file in the way")
    since = machine.mark()
    machine.start_service()
    machine.udev.plug(stick)
    lines = [record.text for record in machine.records(since) if STATE_FILE in record.text]
    assert len(lines) <= 2
    assert any("cannot be written" in line for line in lines)
    assert machine.volumes() == ["volume_uuid_A", "volume_uuid_B"]
