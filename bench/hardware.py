"""What the hardware service over the kernel's devices costs, on mocked devices.

Times are the wall's, as the bus and the programs note them themselves: from the moment at which the
mocked udev sends an event. The floor is a program that only reads the event with libudev, a mount
command that nobody asked for over the bus, or a service that serves nothing.
"""

import queue
import re
import time
from pathlib import Path
from statistics import median

from bench.figures import Figure
from bench.rest import resident, wake_ups
from bench.stage import processor_nanoseconds
from testbed import target, timeouts
from testbed.hald import HaldMachine
from testbed.udev import Disk, FileSystem, usb_disk

_BARE_UDEV = "bench/bare-udev"
_BARE_SERVICE = "bench/bare-service"
_VOLUME = "volume_uuid_A"
_MOUNTED = f"PropertyModified {_VOLUME} volume.mount_point volume.is_mounted"
_MOUNT_ONCE = """
import subprocess, sys, time
for _ in range(int(sys.argv[1])):
    begin = time.time()
    subprocess.run(["mount", "-t", "vfat", "-o", "nosuid,nodev", "--", "/dev/sda1", "/mnt"], check=True)
    print(time.time() - begin)
    subprocess.run(["umount", "/mnt"], check=True)
"""


def measure(logs: Path, cycles: int, idle_seconds: float, disks: int) -> list[Figure]:
    """All figures; `disks` of ten partitions each are there at the cold plug."""
    return [*_events(logs / "events", cycles), *_mounts(logs / "mounts", cycles),
            *_cold_plug(logs / "cold", disks), *_rest(logs / "rest", idle_seconds)]


def _events(logs: Path, cycles: int) -> list[Figure]:
    """From udev's event to DeviceAdded, and the processor time of an arrival and a removal."""
    walls: dict[str, float] = {}
    used: dict[str, float] = {}
    for who in ("ours", "floor"):
        lines: queue.Queue[str] = queue.Queue()
        with HaldMachine(logs / who) as machine:
            stick = usb_disk(partitions=[FileSystem("A")])
            # A partition that udev has not dealt with is no volume yet.
            initialised = stick.partitions[1].properties.pop("USEC_INITIALIZED")
            machine.udev.place(stick)
            if who == "ours":
                machine.start_service(debug=False)
                process = machine.process
            else:
                process = machine.sandbox.spawn([_program(machine, _BARE_UDEV)], "bare-udev",
                                                environment=machine.udev.environment(),
                                                on_line=lines.put)
                assert lines.get(timeout=timeouts.START) == "ready"
            machine.udev.set(stick.partitions[1], USEC_INITIALIZED=initialised)
            assert process
            before = processor_nanoseconds(process.pid)
            found = [_cycle(machine, stick, lines if who == "floor" else None)
                     for _ in range(cycles)]
            used[who] = (processor_nanoseconds(process.pid) - before) / cycles / 1000
            walls[who] = median(found) * 1e6
    return [Figure("hardware service: udev's event to DeviceAdded", walls["ours"], walls["floor"],
                   None, "us"),
            Figure("hardware service: CPU of an arrival and a removal", used["ours"],
                   used["floor"], None, "us")]


def _cycle(machine: HaldMachine, stick: Disk, lines: "queue.Queue[str] | None") -> float:
    """A partition comes and goes; how long the first took to be announced, or to be read by the
    program that writes these lines."""
    partition = stick.partitions[1]
    machine.udev.announce(partition)
    sent = machine.udev.sent
    if lines is not None:
        seen = float(lines.get(timeout=timeouts.EVENT))
    else:
        seen = machine.hal.events.expect(f"DeviceAdded {_VOLUME}").data
    machine.udev.event(partition, "remove")
    if lines is not None:
        lines.get(timeout=timeouts.EVENT)
    else:
        machine.hal.events.expect(f"DeviceRemoved {_VOLUME}")
    return seen - sent


def _mounts(logs: Path, cycles: int) -> list[Figure]:
    """From the call of Mount to PropertyModified, beside the mount command alone; and from
    somebody else's unmount to PropertyModified."""
    with HaldMachine(logs) as machine:
        machine.udev.place(usb_disk(partitions=[FileSystem("A")]))
        bare = machine.sandbox.run(["/usr/bin/python3", "-c", _MOUNT_ONCE, str(cycles)])
        floor = median(float(line) for line in bare.stdout.split())
        machine.start_service(debug=False)
        walls = []
        for _ in range(cycles):
            since = machine.mark()
            machine.mount(_VOLUME, "sda1")
            machine.hal.events.seek(since)
            called = machine.hal.events.expect(f"Mount {_VOLUME}").data
            walls.append(machine.hal.events.expect(_MOUNTED).data - called)
            machine.run("umount", "/media/sda1")
            machine.hal.events.expect(_MOUNTED)
    return [Figure("hardware service: Mount to PropertyModified", median(walls) * 1e3, floor * 1e3,
                   None, "ms")]


def _cold_plug(logs: Path, disks: int) -> list[Figure]:
    """Processor time until a service with many disks is there, beside reading them all."""
    with HaldMachine(logs) as machine:
        machine.udev.place(*(
            usb_disk(f"sd{chr(97 + number // 26)}{chr(97 + number % 26)}", port=f"1-{number + 1}",
                     host=number, usb_serial=f"S{number}",
                     partitions=[FileSystem(f"{number}-{part}") for part in range(10)])
            for number in range(disks)))
        begin = time.monotonic()
        machine.start_service(debug=False)
        wall = time.monotonic() - begin
        assert machine.process
        ours = processor_nanoseconds(machine.process.pid) / 1e6
        memory = resident(machine.process.pid)
        setting = " ".join(f"{name}={value}" for name, value in machine.udev.environment().items())
        floor = machine.sandbox.run(
            ["/usr/bin/bash", "-c", f"TIMEFORMAT='%U %S'; time env {setting}"
             f" {_program(machine, _BARE_UDEV)} enumerate"])
        user, system = re.findall(r"^(\d+\.\d+) (\d+\.\d+)$", floor.stderr, re.MULTILINE)[-1]
    what = f"hardware service: {10 * disks:,} partitions at the start"
    return [Figure(f"{what}, CPU", ours, 1000 * (float(user) + float(system)), None, "ms"),
            Figure(f"{what}, wall", wall * 1000, None, None, "ms"),
            Figure(f"{what}, PSS", memory, None, None, "KB")]


def _rest(logs: Path, seconds: float) -> list[Figure]:
    """Memory beside an empty service, and wake-ups."""
    with HaldMachine(logs) as machine:
        machine.start_service(debug=False)
        empty = machine.sandbox.spawn([_program(machine, _BARE_SERVICE)], "bare-service",
                                      environment=machine.udev.environment())
        time.sleep(2)  # both at rest, sharing what they share
        assert machine.process and machine.process.pid and empty.pid
        before = wake_ups(machine.process.pid)
        time.sleep(seconds)
        after = wake_ups(machine.process.pid)
        ours, floor = resident(machine.process.pid), resident(empty.pid)
    rate = sum(after[thread] - before.get(thread, 0) for thread in after) / seconds
    return [Figure("hardware service: memory at rest, PSS", ours, floor, None, "KB"),
            Figure("hardware service: wake-ups at rest", rate, None, 0.05, "1/s")]


def _program(machine: HaldMachine, name: str) -> str:
    inside = f"/srv/{Path(name).name}"
    if not machine.sandbox.path(inside).exists():
        machine.sandbox.write(inside, (target.build_directory() / name).read_bytes())
        machine.sandbox.path(inside).chmod(0o755)
    return inside
