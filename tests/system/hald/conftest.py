"""Fixtures of the tests of `voldrake-hald`: a machine with mocked devices."""

from pathlib import Path
from typing import Iterator

import pytest

from testbed.hald import HaldMachine
from testbed.udev import FileSystem, usb_disk, Disk


@pytest.fixture
def machine(request: pytest.FixtureRequest, log_directory: Path) -> Iterator[HaldMachine]:
    """A machine without disks, the service not started."""
    logs = log_directory / "machine"
    for file in logs.glob("*"):
        file.unlink()
    with HaldMachine(logs) as made:
        request.node.units = [made]
        yield made
        reports = made.sanitizer_reports()
    assert not reports, reports


@pytest.fixture
def running(machine: HaldMachine) -> HaldMachine:
    """A machine without disks, the service running."""
    machine.start_service()
    return machine


@pytest.fixture
def stick() -> Disk:
    """A stick behind a hub with two partitions, sda1 with UUID A and sda2 with UUID B."""
    return usb_disk(partitions=[FileSystem("A"), FileSystem("B")])
