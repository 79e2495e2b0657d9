"""The service as a process: command line, start, end, and what users see of it."""

import json
import signal

import pytest

from testbed import target, timeouts
from testbed.hald import MANAGER, NAME, PREFIX, STATE_FILE, HaldMachine
from testbed.udev import Disk, FileSystem, sd_card, usb_disk

HALD = "voldrake-hald"


def run(machine: HaldMachine, *arguments: str):
    """Run the program to its end."""
    environment = [f"{name}={value}" for name, value in machine.udev.environment().items()]
    return machine.sandbox.run(["env", *environment, target.program(HALD), *arguments])


# Command line

@pytest.mark.parametrize("arguments, text", [
    (["--nonsense"], "voldrake-hald: Unknown option --nonsense"),
    (["nonsense"], "voldrake-hald: unexpected word: nonsense"),
    (["--address="], "voldrake-hald: the value of --address is missing"),
    (["--json"], "voldrake-hald: --json goes with --list"),
    (["--address=unix:path=/nowhere"], "voldrake-hald: Could not connect: "),
    (["--address=nonsense"], "voldrake-hald: "),
])
def test_a_start_that_fails_says_why(machine: HaldMachine, arguments: list[str],
                                     text: str) -> None:
    result = run(machine, *arguments)
    assert result.returncode == 1
    assert result.stderr.startswith(text)
    assert result.stderr.count("\n") == 1


def test_help_and_version(machine: HaldMachine) -> None:
    shown = run(machine, "--help")
    assert shown.returncode == 0
    assert {"--address=BUS", "--list", "--json", "--debug", "--help", "--version"} <= {
        word for word in shown.stdout.replace(",", "").split() if word.startswith("--")}
    version = run(machine, "--version")
    assert (version.returncode, version.stdout.split()[0]) == (0, HALD)


# Start and end

def test_it_ends_in_good_order(running: HaldMachine) -> None:
    assert running.process
    assert running.process.terminate() == 0


def test_without_udev_it_says_so(machine: HaldMachine) -> None:
    machine.sandbox.path("/run/udev/control").unlink()
    for arguments in ([], ["--list"]):
        result = run(machine, *arguments)
        assert result.returncode == 1
        assert result.stderr.startswith("voldrake-hald: udev is not running: /run/udev/control")
        assert result.stderr.count("\n") == 1


def test_when_the_bus_goes_it_ends_with_a_failure(running: HaldMachine) -> None:
    assert running.process
    since = running.tape.mark()
    running.bus.kill()
    assert running.process.wait() == 1
    running.syslog.events.seek(since)
    running.syslog.expect(3, "the bus has closed the connection")


def test_without_a_bus_it_ends_with_a_failure(machine: HaldMachine) -> None:
    machine.bus.kill()
    result = run(machine)
    assert result.returncode == 1
    assert result.stderr.startswith("voldrake-hald: Could not connect: ")


def test_a_second_service_ends_and_touches_nothing(running: HaldMachine, stick: Disk) -> None:
    running.udev.plug(stick)
    running.settle()
    assert running.mount("volume_uuid_A", "sda1") == "(0,)"
    state = running.sandbox.path(STATE_FILE).read_text()
    since = running.mark()
    second = run(running)
    assert second.returncode == 1
    assert second.stderr == f"voldrake-hald: {NAME} is owned by somebody else\n"
    # No mocked event for a fence: the second has taken over where the first hears them.
    running.call(MANAGER, "org.freedesktop.Hal.Manager.DeviceExists", "fence")
    fence = running.hal.events.until("answered fence", since)
    assert [event.text for event in fence] == []
    assert running.sandbox.path(STATE_FILE).read_text() == state
    assert running.mounts() == {"/media/sda1": "/dev/sda1"}


def test_a_second_service_without_a_state_to_read_writes_none(running: HaldMachine,
                                                             stick: Disk) -> None:
    running.udev.plug(stick)
    running.settle()
    running.sandbox.path(STATE_FILE).unlink()
    assert run(running).returncode == 1
    assert not running.sandbox.path(STATE_FILE).exists()


def test_a_second_service_leaves_a_directory_before_its_mount(running: HaldMachine,
                                                              stick: Disk) -> None:
    running.udev.plug(stick)
    running.settle()
    # As while the first one's mount is under way.
    running.sandbox.path("/media/sda1").mkdir()
    kept = running.sandbox.path(STATE_FILE)
    kept.write_text(kept.read_text().replace("directories=", "directories=sda1;"))
    assert run(running).returncode == 1
    assert running.sandbox.path("/media/sda1").is_dir()


def test_a_directory_whose_volume_was_unmounted_meanwhile_is_removed_at_the_start(
        running: HaldMachine, stick: Disk) -> None:
    running.udev.plug(stick)
    running.settle()
    running.mount("volume_uuid_A", "sda1")
    running.kill_service()
    running.run("umount", "/media/sda1")
    running.start_service()
    running.settle()
    assert not running.sandbox.path("/media/sda1").exists()


def test_what_was_mounted_before_a_restart_is_still_the_service_s_own(running: HaldMachine,
                                                                      stick: Disk) -> None:
    running.udev.plug(stick)
    running.settle()
    running.mount("volume_uuid_A", "sda1")
    running.kill_service()
    running.start_service()
    assert running.call(PREFIX + "volume_uuid_A", "org.freedesktop.Hal.Device.Volume.Unmount",
                        "@as []") == "(0,)"
    assert running.mounts() == {}


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_signals_end_it_with_success(running: HaldMachine, number: int) -> None:
    assert running.process
    running.process.signal(number)
    assert running.process.wait(timeouts.STOP) == 0


# What is shown

def test_the_list_is_an_indented_tree(machine: HaldMachine) -> None:
    machine.udev.place(
        usb_disk(partitions=[FileSystem("A", label="MY\\x20\\x1b[2JMAPS"), None]),
        sd_card(partitions=[FileSystem("C", "exfat")]))
    machine.sandbox.path("/mnt/c").mkdir()
    machine.run("/usr/bin/mount", "-t", "tmpfs", "-o", "ro", "/dev/mmcblk0p1", "/mnt/c")
    machine.bus.kill()  # it needs none
    result = run(machine, "--list")
    assert result.returncode == 0
    usb = "usb_device_90c_1000_AA99"
    assert set(result.stdout.splitlines()) == {
        "computer",
        f"  {usb}",
        f"    {usb}_if0",
        f"      {usb}_if0_scsi_host",
        f"        {usb}_if0_scsi_host_scsi_device_lun0",
        "          storage_serial_Acme_Voyager_AA99_0_0  /dev/sda",
        "            volume_uuid_A  /dev/sda1, vfat, 32 MiB, \"MY _[2JMAPS\", not mounted",
        "  platform_sdhci_0",
        "    platform_sdhci_0_mmc_host",
        "      platform_sdhci_0_mmc_host_mmc_card_rca58916",
        "        storage_serial_0x206bb243  /dev/mmcblk0",
        "          volume_uuid_C  /dev/mmcblk0p1, exfat, 32 MiB, mounted at /mnt/c (read-only)",
    }
    depths = [len(line) - len(line.lstrip()) for line in result.stdout.splitlines()]
    assert depths[0] == 0 and all(b <= a + 2 for a, b in zip(depths, depths[1:]))


def test_the_list_for_programs_has_what_the_bus_has(machine: HaldMachine, stick: Disk) -> None:
    machine.udev.place(stick)
    machine.start_service()
    result = run(machine, "--list", "--json")  # beside the service, without its name
    assert result.returncode == 0
    devices = [json.loads(line) for line in result.stdout.splitlines()]
    names = [device["udi"].removeprefix(PREFIX) for device in devices]
    assert sorted(names) == sorted(["computer", *machine.objects()])
    volume = devices[names.index("volume_uuid_A")]["properties"]
    assert volume["block.device"] == "/dev/sda1"
    assert volume["volume.size"] == 65536 * 512
    assert volume["volume.is_mounted"] is False
    assert "utf8" in volume["volume.mount.valid_options"]
    seen: set[str] = set()
    for device in devices:
        parent = device["properties"].get("info.parent")
        assert parent is None or parent in seen
        seen.add(device["udi"])


def test_a_list_leaves_no_trace_in_the_log(machine: HaldMachine, stick: Disk) -> None:
    machine.udev.place(stick)
    machine.syslog.events.seek(machine.tape.mark())
    assert run(machine, "--list").returncode == 0
    assert machine.syslog.records() == []
