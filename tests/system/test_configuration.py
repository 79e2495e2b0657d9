"""The configuration file: which entries it makes, what they do, and files that are none."""

import pytest

from testbed import target
from testbed.application import message
from testbed.daemon import ERROR, INFO
from testbed.unit import CONFIGURATION, Unit

PREFIX = "USB MAP: "


def entry(name: str = "", usbid: str = "", mmc: bool = False, ignore: bool = False,
          ignore_device: str = "") -> str:
    """The line that an entry makes in the log."""
    flags = f"mmc={str(mmc).lower()} ignore={str(ignore).lower()}"
    return f"{PREFIX}name={name} usbid={usbid} {flags} ignoreDevice={ignore_device}"


def entries(unit: Unit) -> list[str]:
    """The entries that the log shows, in order."""
    return [line.text for line in unit.daemon.log_lines()
            if line.level == INFO and line.text.startswith(PREFIX)]


FILES = {
    "every key, and a last entry without a usbid, which is dropped":
        ("name=A\nusbid=1-1\nmmc=true\nignore=true\nignoreDevice=/dev/sdb1\nname=B\n",
         [entry("A", "1-1", True, True, "/dev/sdb1")]),
    "a comment before an item, which so matches nothing, and bytes that are no characters":
        (b"name=\xff\xfe\n# the port in front\nusbid=1-1\nmmc=true\nusbid=1-2\n",
         [entry("\udcff\udcfe", "1-2", True)]),
}


@pytest.mark.parametrize("content, lines", FILES.values(), ids=FILES)
def test_the_file_makes_these_entries(unit: Unit, content: str | bytes, lines: list[str]) -> None:
    unit.sandbox.write(CONFIGURATION, content)
    unit.start_daemon()
    assert entries(unit) == lines


def test_without_a_file_there_are_no_entries_and_no_lines(running_unit: Unit) -> None:
    assert entries(running_unit) == []
    running_unit.hal.plug("usb stick")
    running_unit.application.expect_message("dataarrival", friendlyname="USB Mass Storage")


def test_the_file_is_read_once(unit: Unit) -> None:
    unit.sandbox.write(CONFIGURATION, "name=A\nusbid=1-1\n")
    unit.start_daemon()
    unit.sandbox.write(CONFIGURATION, "name=B\nusbid=1-1\n")
    for number in (1, 10, 12):
        unit.daemon.signal(number)
    unit.hal.plug("usb stick")
    unit.application.expect_message("dataarrival", friendlyname=" - A")
    assert entries(unit) == [entry("A", "1-1")]


def make_pipe(unit: Unit) -> None:
    done = unit.sandbox.run(["mkfifo", CONFIGURATION])
    assert done.returncode == 0, done.stderr


def make_link_to_nothing_but_zeros(unit: Unit) -> None:
    """A file without an end."""
    unit.sandbox.path(CONFIGURATION).symlink_to("/dev/zero")


@pytest.mark.parametrize("make", [make_pipe, make_link_to_nothing_but_zeros],
                         ids=["a pipe nobody writes to", "an endless device"])
def test_what_is_no_file_counts_as_empty(unit: Unit, make) -> None:
    make(unit)
    unit.start_daemon()
    assert entries(unit) == []
    unit.hal.plug("usb stick")
    unit.application.expect_message("dataarrival", friendlyname="USB Mass Storage")
    assert [line for line in unit.daemon.log_lines() if line.level == ERROR
            and "NoSuchProperty" not in line.text] == []


def test_a_file_that_may_not_be_read_counts_as_empty(unit: Unit,
                                                     monkeypatch: pytest.MonkeyPatch) -> None:
    unit.sandbox.write(CONFIGURATION, "name=A\nusbid=1-1\n")
    unit.sandbox.path(CONFIGURATION).chmod(0)
    without_privilege = ["setpriv", "--bounding-set=-dac_override,-dac_read_search",
                         "--inh-caps=-dac_override,-dac_read_search", *target.daemon_command()]
    monkeypatch.setattr(target, "daemon_command", lambda: without_privilege)
    unit.start_daemon()
    assert entries(unit) == []
    unit.hal.plug("usb stick")
    unit.application.expect_message("dataarrival", friendlyname="USB Mass Storage")


def test_a_name_of_ten_megabytes_does_no_harm(unit: Unit) -> None:
    name = 10_000_000 * "x"
    unit.sandbox.write(CONFIGURATION, f"name={name}\nusbid=1-1\n")
    unit.start_daemon()
    assert entries(unit) == [entry(name, "1-1")]
    unit.hal.plug("usb stick")
    # It fits into no message; the stick is in use all the same.
    assert unit.links() == {"USB Memory Card A1": "sda1"}
    unit.hal.plug("sd card")
    assert unit.application.frames(until=message("dataarrival", path="/media/mmcblk0p1")) == []
