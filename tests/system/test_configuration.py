"""The configuration file: which entries it makes, what they do, and files that are none."""

import random

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
    "nothing": ("", []),
    "only a comment": ("# nothing here\n\n", []),
    "two entries, the second at the end of the file":
        ("name=A\nusbid=1-1\nname=B\nusbid=1-2\n", [entry("A", "1-1"), entry("B", "1-2")]),
    "a last line without a line end": ("name=A\nusbid=1-1", [entry("A", "1-1")]),
    "every key":
        ("name=A\nusbid=1-1\nmmc=true\nignore=true\nignoreDevice=/dev/sdb1\n",
         [entry("A", "1-1", True, True, "/dev/sdb1")]),
    "a last entry without a usbid, which is dropped":
        ("name=A\nignore=true\nignoreDevice=/dev/sdb1\n", []),
    "the same entry before another name, where it counts":
        ("name=A\nignore=true\nignoreDevice=/dev/sdb1\nname=B\nusbid=1\n",
         [entry("A", ignore=True, ignore_device="/dev/sdb1"), entry("B", "1")]),
    "a last entry without a name, which is dropped": ("usbid=1-1\nmmc=true\n", []),
    "a first entry that does not begin with its name":
        ("usbid=1-1\nname=A\nusbid=1-2\n", [entry("", "1-1"), entry("A", "1-2")]),
    "a name at the very end": ("name=A\nusbid=1-1\nname=B", [entry("A", "1-1")]),
    "flags that are only almost true":
        ("name=A\nusbid=1\nmmc=TRUE\nignore=true \n", [entry("A", "1")]),
    "flags that are taken back":
        ("name=A\nusbid=1\nmmc=true\nignore=true\nmmc=no\nignore=false\n", [entry("A", "1")]),
    "flags of one entry that do not reach the next":
        ("name=A\nusbid=1\nmmc=true\nname=B\nusbid=2\n", [entry("A", "1", True), entry("B", "2")]),
    "an empty value, which is skipped": ("name=A\nusbid=1-1\nusbid=\n", [entry("A", "1-1")]),
    "an empty key, which is skipped": ("=x\nname=A\nusbid=1\n=y\n", [entry("A", "1")]),
    "an unknown key in front, which starts an entry too":
        ("colour=red\nname=A\nusbid=1\n", [entry(), entry("A", "1")]),
    "an unknown key in an entry": ("name=A\nusbid=1\ncolour=red\n", [entry("A", "1")]),
    "keys in the wrong case": ("name=A\nusbid=1\nUsbId=2\nignoredevice=x\n", [entry("A", "1")]),
    "blanks, which stay part of key and value":
        ("name= A \nusbid=1\n usbid=2\nusbid =3\n", [entry(" A ", "1")]),
    "an equals sign in the value": ("name=a=b\nusbid=1=2=3\n", [entry("a=b", "1=2=3")]),
    "a blank line before a second name, which so matches nothing":
        ("name=A\nusbid=1-1\n\nname=B\nusbid=1-2\nmmc=true\n", [entry("A", "1-2", True)]),
    "a comment before an item, which so matches nothing":
        ("name=A\n# the port in front\nusbid=1-1\nmmc=true\nusbid=1-2\n",
         [entry("A", "1-2", True)]),
    "a comment at the head, which takes the first name along":
        ("# ports\nname=A\nusbid=1-1\nname=B\nusbid=1-2\n", [entry("", "1-1"), entry("B", "1-2")]),
    "text after the last item": ("name=A\nusbid=1-1\nthe end", [entry("A", "1-1")]),
    "bytes that are no characters":
        (b"name=\xff\xfe\nusbid=1\n", [entry("\udcff\udcfe", "1")]),
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


NAMES = {
    "a usbid in the port path": ("name=A\nusbid=1-1_3\n", " - A"),
    "a usbid that is the whole hub text": ("name=A\nusbid=1-1_3--1_0\n", " - A"),
    "a usbid of another port": ("name=A\nusbid=1-1_4\n", "USB Mass Storage"),
    "the same usbid twice, the later one counts":
        ("name=A\nusbid=1-1_3\nname=B\nusbid=1-1_3\n", " - B"),
    "two that fit, the first in the order of their bytes":
        ("name=A\nusbid=1_0\nname=B\nusbid=1-1\n", " - B"),
    "an entry that is ignored, which names nothing":
        ("name=A\nusbid=1-1_3\nignore=true\nignoreDevice=/dev/sdx\n", "USB Mass Storage"),
    "an entry with the empty usbid, which fits everything":
        ("name=A\nname=B\nusbid=2-2\n", " - A"),
    "a carriage return, which is part of the usbid":
        ("name=A\r\nusbid=1-1_3\r\n", "USB Mass Storage"),
}


@pytest.mark.parametrize("configuration, name", NAMES.values(), ids=NAMES)
def test_an_entry_names_the_sticks_of_its_port(unit: Unit, configuration: str, name: str) -> None:
    unit.sandbox.write(CONFIGURATION, configuration)
    unit.start_daemon()
    unit.hal.plug("usb stick port=1-1.3")
    assert unit.application.expect_message("dataarrival")["friendlyname"] == name


IGNORED = {
    "the device of an entry that ignores":
        ("name=A\nusbid=x\nignore=true\nignoreDevice=/dev/sda1\n", True),
    "another device": ("name=A\nusbid=x\nignore=true\nignoreDevice=/dev/sda\n", False),
    "a device of an entry that does not ignore":
        ("name=A\nusbid=x\nignoreDevice=/dev/sda1\n", False),
    "a device that a later entry ignores too":
        ("name=A\nusbid=x\nignore=true\nignoreDevice=/dev/sda1\n"
         "name=B\nusbid=y\nignore=true\nignoreDevice=/dev/sda1\n", True),
    "the device of the last entry, which lacks a usbid":
        ("name=A\nignore=true\nignoreDevice=/dev/sda1\n", False),
}


@pytest.mark.parametrize("configuration, ignored", IGNORED.values(), ids=IGNORED)
def test_an_ignored_device_is_not_mounted(unit: Unit, configuration: str, ignored: bool) -> None:
    unit.sandbox.write(CONFIGURATION, configuration)
    unit.start_daemon()
    unit.hal.plug("usb stick")
    unit.settle()
    assert unit.daemon.logged(INFO, "_IsInExclusionList: /dev/sda1") == ignored
    assert ("/media/sda1" in unit.mounts()) is not ignored


def test_the_file_is_read_once(unit: Unit) -> None:
    unit.sandbox.write(CONFIGURATION, "name=A\nusbid=1-1\n")
    unit.start_daemon()
    unit.sandbox.write(CONFIGURATION, "name=B\nusbid=1-1\n")
    for number in (1, 10, 12):
        unit.daemon.signal(number)
    unit.hal.plug("usb stick")
    unit.application.expect_message("dataarrival", friendlyname=" - A")
    assert entries(unit) == [entry("A", "1-1")]


def make_directory(unit: Unit) -> None:
    unit.sandbox.path(CONFIGURATION).mkdir()


def make_dangling_link(unit: Unit) -> None:
    unit.sandbox.path(CONFIGURATION).symlink_to("nowhere")


def make_link_to_itself(unit: Unit) -> None:
    unit.sandbox.path(CONFIGURATION).symlink_to("voldrake.conf")


def make_pipe(unit: Unit) -> None:
    done = unit.sandbox.run(["mkfifo", CONFIGURATION])
    assert done.returncode == 0, done.stderr


def make_link_to_nothing_but_zeros(unit: Unit) -> None:
    """A file without an end."""
    unit.sandbox.path(CONFIGURATION).symlink_to("/dev/zero")


@pytest.mark.parametrize("make", [make_directory, make_dangling_link, make_link_to_itself,
                                  make_pipe, make_link_to_nothing_but_zeros],
                         ids=["a directory", "a dangling link", "a link to itself",
                              "a pipe nobody writes to", "an endless device"])
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


@pytest.mark.parametrize("seed", range(3))
def test_random_bytes_do_no_harm(unit: Unit, seed: int) -> None:
    noise = random.Random(seed).randbytes(200_000)
    unit.sandbox.write(CONFIGURATION, noise + b"=\nname=A\nusbid=1-1\nname=B\nusbid=1-2\n")
    unit.start_daemon()
    assert entries(unit)[-2:] == [entry("A", "1-1"), entry("B", "1-2")]
    unit.hal.plug("usb stick port=1-1.3")
    unit.application.expect_message("dataarrival", path="/media/sda1")


HUGE = 10_000_000


@pytest.mark.parametrize("content", [
    b"x" * HUGE + b"\nname=A\nusbid=1-1\nname=B\nusbid=1-2\n",
    b"name=A\nusbid=1-1\n" + b"x" * HUGE + b"=y\nname=B\nusbid=1-2\n",
    b"name=A\nusbid=1-1\nnote=" + b"x" * HUGE + b"\nname=B\nusbid=1-2\n",
], ids=["before the first item", "as a key", "as a value"])
def test_a_line_of_ten_megabytes_does_no_harm(unit: Unit, content: bytes) -> None:
    unit.sandbox.write(CONFIGURATION, content)
    unit.start_daemon()
    # The line without an item takes the first name along.
    first = entry("", "1-1") if content.startswith(b"x") else entry("A", "1-1")
    assert entries(unit) == [first, entry("B", "1-2")]


def test_a_name_of_ten_megabytes_does_no_harm(unit: Unit) -> None:
    unit.sandbox.write(CONFIGURATION, b"name=" + b"x" * HUGE + b"\nusbid=1-1\n")
    unit.start_daemon()
    assert entries(unit) == [entry("x" * HUGE, "1-1")]
    unit.hal.plug("usb stick")
    # It fits into no message; the stick is in use all the same.
    assert unit.links() == {"USB Memory Card A1": "sda1"}
    unit.hal.plug("sd card")
    assert unit.application.frames(until=message("dataarrival", path="/media/mmcblk0p1")) == []
