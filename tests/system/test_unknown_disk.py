"""A card whose disk the hardware service could not identify: its devices are announced anew."""

import signal

import pytest

from observations import wait_for_signal_handlers
from testbed.daemon import DEBUG
from testbed.strace import Strace
from testbed.unit import Unit

FOUND = "GetVolumeInfo() Found computer_storage_unknown_disk."
BACKING = "GetVolumeInfo() Backing device is "
WEIRD = "GetVolumeInfo() WEIRD:  Not mmcblk0, mmcblk1 or mmcblk2.  Please report this."
TEARING_DOWN = "GetVolumeInfo() Tearing down device tree."
REBUILDING = "GetVolumeInfo() Rebuilding device tree."


def own_lines(unit: Unit) -> list[str]:
    """The lines about the rebuild."""
    return [line.text for line in unit.daemon.log_lines()
            if line.level == DEBUG and line.text.startswith("GetVolumeInfo()")]


@pytest.mark.parametrize("block, disk, partition", [
    ("/dev/mmcblk0", "179:0", "179:1"),
    ("/dev/mmcblk1", "179:8", "179:9"),
])
def test_the_partition_goes_first_and_comes_back_last(running_unit: Unit, block: str, disk: str,
                                                      partition: str) -> None:
    with Strace(running_unit.daemon.process, running_unit.sandbox.logs / "strace",
                "-e", "trace=write") as trace:
        running_unit.hal.plug(f"sd lost unknown block={block}")
        words = [f"{partition} remove", f"{disk} remove", f"{disk} add", f"{partition} add"]
        assert running_unit.uevents.writes() == words
    removed, added = trace.times(r'^write\(\d+, "(remove|add)"')[1:3]
    assert added - removed >= 1
    assert own_lines(running_unit) == [FOUND, BACKING + block, TEARING_DOWN, REBUILDING]


@pytest.mark.parametrize("block", ["/dev/mmcblk0p1", None], ids=["a partition", "none"])
def test_another_backing_device_is_reported_and_nothing_is_touched(running_unit: Unit,
                                                                   block: str | None) -> None:
    value = "unset" if block is None else f"string:{block}"
    running_unit.hal.plug(f"sd lost unknown storage/block.device={value}")
    running_unit.daemon.expect_log(DEBUG, REBUILDING)
    running_unit.settle()
    assert own_lines(running_unit) == [FOUND, BACKING + (block or ""), WEIRD, TEARING_DOWN,
                                       REBUILDING]
    assert running_unit.uevents.writes() == []
    assert running_unit.sandbox.path("/dev/null").is_char_device()


def test_files_that_cannot_be_written_are_skipped_without_a_word(running_unit: Unit) -> None:
    cover = ["mount", "-t", "tmpfs", "-o", "ro", "tmpfs", "/sys/dev/block/179:0"]
    done = running_unit.sandbox.run(cover)
    assert done.returncode == 0, done.stderr
    running_unit.hal.plug("sd lost unknown block=/dev/mmcblk0")
    running_unit.uevents.events.expect("179:1 remove")
    running_unit.uevents.events.expect("179:1 add")
    running_unit.settle()
    assert own_lines(running_unit) == [FOUND, BACKING + "/dev/mmcblk0", TEARING_DOWN, REBUILDING]
    assert running_unit.uevents.writes() == ["179:1 remove", "179:1 add"]


def test_the_query_goes_on_with_the_unknown_disk(running_unit: Unit) -> None:
    """The disk was asked for its parent only after the rebuild, with the path it had before."""
    running_unit.hal.plug("sd lost unknown")
    running_unit.daemon.expect_log(DEBUG, REBUILDING)
    running_unit.settle()
    unknown = [call for call in running_unit.hal.calls()
               if call.path.endswith("/computer_storage_unknown_disk")]
    assert [call.arguments for call in unknown] == ["'block.device'", "'info.parent'"]


def test_a_disk_with_another_name_is_none(running_unit: Unit) -> None:
    running_unit.hal.plug("sd card storage-name=computer_storage_unknown_disk_0")
    running_unit.application.expect_message("dataarrival", path="/media/mmcblk0p1")
    assert own_lines(running_unit) == []
    assert running_unit.uevents.writes() == []


def test_a_card_that_is_identified_meanwhile_is_used(running_unit: Unit) -> None:
    """The kernel announces the card anew, and the hardware service now knows its disk."""
    running_unit.hal.plug("sd lost unknown block=/dev/mmcblk0")
    running_unit.uevents.events.expect("179:1 remove")
    running_unit.hal.pull("lost")
    running_unit.hal.plug("sd card")
    running_unit.uevents.events.expect("179:1 add")
    running_unit.application.expect_message("dataarrival", path="/media/mmcblk0p1")
    running_unit.settle()
    assert len(running_unit.application.frames()) == 1


def test_every_scan_that_finds_the_unknown_disk_rebuilds_it(unit: Unit) -> None:
    unit.hal.plug("sd lost unknown block=/dev/mmcblk2")
    unit.daemon.start()
    unit.uevents.events.expect("179:17 add")
    wait_for_signal_handlers(unit)
    unit.daemon.signal(signal.SIGUSR2)
    unit.uevents.events.expect("179:17 remove")
    unit.uevents.events.expect("179:17 add")
