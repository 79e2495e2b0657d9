"""Cards in a USB card reader: when the reader is asked, what with, and what comes of the answer."""

import pytest

from local_volumes import arrival, checked, mark, said, told
from testbed import cardreader
from testbed.daemon import DEBUG, INFO
from testbed.unit import Unit
from testbed.waiting import wait_until

_SERIAL = "0353445355303847800A5B1C4A00F3D1"
_READER = "reader rd port=1-1.3 product=0x4040"
_OTHER_READER = "reader rd port=1-1.3 product=0x2240"
#: A USB map with an entry that has nothing to do with the reader.
_with_map = pytest.mark.unit_options(configuration="name=Chart Port\nusbid=7-7\n")
_MATCHED = "_DeviceMounted: HalVolumeInfo.VendorId/ProductId matches SMSC support for id 7-7"
_FAILED = "Unable to read serial number from "

_OPENED = "open {0} access=0 nonblock=1 cloexec=1 other=0"
_REQUESTED = (
    "request {0} cloexec=1"
    " interface_id=S dxfer_direction=-3 cmd_len=6 mx_sb_len=32 iovec_count=0 dxfer_len=512"
    f" cmdp=cf1800002000 sbp={32 * '00'} dxferp=set timeout=2000 flags=2 pack_id=0 usr_ptr=null"
    " status=0 masked_status=0 msg_status=0 sb_len_wr=0 host_status=0 driver_status=0 resid=0"
    " duration=0 info=0")
_CLOSED = "close {0}"
_ASKED = (_OPENED, _REQUESTED, _CLOSED)


@pytest.fixture
def reader_unit(unit: Unit) -> Unit:
    """A unit whose daemon has the fake device nodes, and which runs."""
    start_daemon(unit)
    return unit


def start_daemon(unit: Unit) -> None:
    """Start the daemon with the fake device nodes and wait for its start-up."""
    unit.daemon.start(environment=cardreader.environment(unit.sandbox))
    unit.hal.expect_call("FindDeviceByCapability")
    unit.settle()


def script(unit: Unit, *lines: str, name: str = "sda1") -> None:
    """Make /dev/`name` a reader's node that behaves like this."""
    cardreader.script(unit.sandbox, name, *lines)


def recorded(unit: Unit, device: str = "/dev/sda1", *, expected: tuple[str, ...]) -> None:
    """Check everything that was done to the device nodes so far."""
    file = f"{cardreader.SCRIPTS}/record"
    lines = unit.content(file).splitlines() if unit.exists(file) else []
    assert lines == [line.format(device) for line in expected]


def descriptors(unit: Unit) -> list[str]:
    """What the daemon's descriptors stand for, without those of other threads' moments."""
    return sorted(name for name in unit.daemon.process.descriptors().values()
                  if not name.startswith(("socket:", "/var/log/")) and not name.endswith(".log"))


def failures(unit: Unit, since: int) -> list[tuple[int, str]]:
    """The log lines about readers that did not answer."""
    return [line for line in said(unit, since) if line[1].startswith(_FAILED)]


@_with_map
@pytest.mark.parametrize("reader, name", [(_READER, "KR20 - 1"), (_OTHER_READER, " - Chart Port")])
def test_a_card_is_known_by_what_the_reader_answers(reader_unit: Unit, reader: str,
                                                    name: str) -> None:
    unit = reader_unit
    script(unit, f"answer {_SERIAL}")
    unit.hal.plug(reader)
    before, since = descriptors(unit), mark(unit)
    unit.hal.plug("volume rd lun=0")
    assert unit.application.next_text() == arrival(
        "/media/sda1", card=True, key=checked(_SERIAL), name=name)
    unit.settle()
    recorded(unit, expected=_ASKED)
    lines = said(unit, since)
    assert (INFO, _MATCHED) in lines
    assert (DEBUG, _SERIAL) in lines
    assert (INFO, f"_PrintHalVolumeInfo: Cid = {_SERIAL}") in lines
    assert failures(unit, since) == []
    wait_until(lambda: descriptors(unit) == before, "the former descriptors are open")


@_with_map
@pytest.mark.parametrize("answer, digits", [
    (bytes(range(16)).hex(), "000102030405060708090A0B0C0D0E0F"),
    (bytes(range(0xf0, 0x100)).hex(), "F0F1F2F3F4F5F6F7F8F9FAFBFCFDFEFF"),
    (32 * "0" + 32 * "1", 32 * "0"),
    (512 * "ab", 16 * "AB")])
def test_sixteen_bytes_are_written_with_two_capital_digits_each(
        reader_unit: Unit, answer: str, digits: str) -> None:
    unit = reader_unit
    script(unit, f"answer {answer}")
    unit.hal.plug(_READER)
    unit.hal.plug("volume rd lun=0")
    assert unit.application.next_text() == arrival(
        "/media/sda1", card=True, key=checked(digits), name="KR20 - 1")
    unit.settle()
    assert (INFO, f"_PrintHalVolumeInfo: Cid = {digits}") in said(unit, 0)


@_with_map
@pytest.mark.parametrize("behaviour", [
    "status 2", "status 8", "host-status 7", "ioctl-result 1", "status 255\nhost-status 255"])
def test_only_the_drivers_status_counts(reader_unit: Unit, behaviour: str) -> None:
    unit = reader_unit
    script(unit, f"answer {_SERIAL}", behaviour)
    unit.hal.plug(_READER)
    unit.hal.plug("volume rd lun=0")
    assert unit.application.next_text() == arrival(
        "/media/sda1", card=True, key=checked(_SERIAL), name="KR20 - 1")
    recorded(unit, expected=_ASKED)


@_with_map
@pytest.mark.parametrize("behaviour, expected", [
    ("open-error 2", (_OPENED,)),
    ("open-error 6", (_OPENED,)),
    ("open-error 123", (_OPENED,)),
    ("descriptor 0", (_OPENED, _CLOSED)),
    ("ioctl-error 5", _ASKED),
    ("ioctl-error 25", _ASKED),
    ("ioctl-error 110", _ASKED),
    ("driver-status 8", _ASKED),
    ("driver-status 255", _ASKED),
    ("driver-status 1\nstatus 2\nhost-status 3", _ASKED)])
def test_a_reader_that_does_not_answer_gives_zeros(reader_unit: Unit, behaviour: str,
                                                   expected: tuple[str, ...]) -> None:
    """Whatever is in the answer, it is not looked at, and the arrival goes on."""
    unit = reader_unit
    lines = [behaviour, f"answer {_SERIAL}"] if behaviour != "descriptor 0" else [
        f"answer {_SERIAL}", behaviour]
    script(unit, *lines)
    unit.hal.plug(_READER)
    before, since = descriptors(unit), mark(unit)
    unit.hal.plug("volume rd lun=0")
    assert unit.application.next_text() == arrival(
        "/media/sda1", card=True, key=checked(32 * "0"), name="KR20 - 1")
    unit.settle()
    recorded(unit, expected=expected)
    assert failures(unit, since) == [(INFO, f"{_FAILED}/dev/sda1")]
    assert (INFO, f"_PrintHalVolumeInfo: Cid = {32 * '0'}") in said(unit, since)
    if behaviour == "descriptor 0":
        before.remove("/dev/null")
    wait_until(lambda: descriptors(unit) == before, "the former descriptors are open")


@_with_map
@pytest.mark.parametrize("device", ["/srv/fifo", 20000 * "y"],
                         ids=["a FIFO", "a name that is too long"])
def test_a_device_that_is_no_reader_gives_zeros(unit: Unit, device: str) -> None:
    """A FIFO without writer must not hold the daemon up."""
    unit.sandbox.run(["mkfifo", "/srv/fifo"])
    start_daemon(unit)
    unit.hal.plug(_READER)
    before, since = descriptors(unit), mark(unit)
    unit.hal.plug(f'volume rd lun=0 mounted=CHARTS volume-block="{device}"')
    assert unit.application.next_text() == arrival(
        "/media/CHARTS", card=True, key=checked(32 * "0"), name="KR20 - 1")
    unit.settle()
    assert failures(unit, since) == [(INFO, f"{_FAILED}{device}")]
    wait_until(lambda: descriptors(unit) == before, "the former descriptors are open")


@pytest.mark.parametrize("reader, name", [
    pytest.param(_READER, "USB Mass Storage"),
    pytest.param(_OTHER_READER, " - Chart Port", marks=pytest.mark.unit_options(
        configuration="name=Chart Port\nusbid=1-1_3\n"))],
    ids=["no USB map", "a map entry for its port, second product"])
def test_the_reader_is_not_asked(reader_unit: Unit, reader: str, name: str) -> None:
    """Without a map, for other devices, and when the port decides, nothing is known of the card."""
    unit = reader_unit
    script(unit, f"answer {_SERIAL}")
    unit.hal.plug(reader)
    unit.hal.plug("volume rd lun=0")
    assert unit.application.next_text() == arrival("/media/sda1", name=name)
    unit.settle()
    recorded(unit, expected=())
    assert not any("SMSC" in text for _, text in said(unit, 0))


@pytest.mark.parametrize("reader, name", [(_READER, "KR20 - 1"), (_OTHER_READER, " - Another")])
@pytest.mark.unit_options(
    configuration="name=Chart Port\nusbid=1-1_3\nname=Another\nusbid=0-0\nname=Third\nusbid=9\n")
def test_a_reader_matches_the_first_entry_even_when_a_later_one_is_for_its_port(
        reader_unit: Unit, reader: str, name: str) -> None:
    unit = reader_unit
    script(unit, f"answer {_SERIAL}")
    unit.hal.plug(reader)
    unit.hal.plug("volume rd lun=0")
    assert unit.application.next_text() == arrival(
        "/media/sda1", card=True, key=checked(_SERIAL), name=name)
    unit.settle()
    assert [text for _, text in said(unit, 0) if " matches " in text] == [
        "_DeviceMounted: HalVolumeInfo.VendorId/ProductId matches SMSC support for id 0-0"]


@_with_map
@pytest.mark.parametrize("product, names", [
    ("0x4040", ["KR20 - 1", "KR20 - 2", "KR20 - 3", "KR20 - 4"]),
    ("0x2240", 4 * [" - Chart Port"])])
def test_each_slot_is_asked_through_its_own_node(reader_unit: Unit, product: str,
                                                 names: list[str]) -> None:
    unit = reader_unit
    unit.hal.plug(f"reader rd product={product} luns=4")
    serials = [f"{number:032X}" for number in range(1, 5)]
    for lun, serial in enumerate(serials):
        script(unit, f"answer {serial}", name=f"sd{'abcd'[lun]}1")
        unit.hal.plug(f"volume rd lun={lun}")
    assert told(unit, 4) == [
        arrival(f"/media/sd{letter}1", card=True, key=checked(serial), name=name)
        for letter, serial, name in zip("abcd", serials, names)]


@_with_map
def test_a_slot_far_beyond_the_others_is_numbered_from_one_too(reader_unit: Unit) -> None:
    reader_unit.hal.plug("reader rd luns=1 scsi_device@0/scsi.lun=int:2147483647")
    reader_unit.hal.plug("volume rd lun=0")
    assert reader_unit.application.next_text() == arrival(
        "/media/sda1", card=True, key=checked(32 * "0"), name="KR20 - 2147483648")


@_with_map
def test_a_card_in_a_built_in_slot_is_not_asked(reader_unit: Unit) -> None:
    unit = reader_unit
    script(unit, f"answer {_SERIAL}", name="mmcblk0p1")
    unit.hal.plug(f"sd card cid={_SERIAL}")
    assert unit.application.next_text() == arrival(
        "/media/mmcblk0p1", card=True, key=checked(_SERIAL), name="Memory Card - 0")
    recorded(unit, expected=())


@_with_map
def test_a_read_only_remount_asks_the_reader_though_it_takes_no_name(reader_unit: Unit) -> None:
    unit = reader_unit
    script(unit, f"answer {_SERIAL}")
    unit.hal.plug(_READER)
    unit.hal.command("quiet plug volume rd lun=0")
    unit.hal.command("quiet mount rd")
    unit.hal.command("remount rd ro")
    assert unit.application.next_text() == arrival(
        "/media/sda1", card=True, key=checked(_SERIAL), read_only=True)
    unit.settle()
    recorded(unit, expected=_ASKED)
    assert (INFO, _MATCHED) in said(unit, 0)


@_with_map
def test_republishing_asks_the_reader_again(reader_unit: Unit) -> None:
    """So a card that could not be read at first gets its identity, and one that is gone not."""
    unit = reader_unit
    script(unit, "ioctl-error 5")
    unit.hal.plug(_READER)
    unit.hal.plug("volume rd lun=0")
    unknown = arrival("/media/sda1", card=True, key=checked(32 * "0"), name="KR20 - 1")
    assert unit.application.next_text() == unknown
    unit.settle()
    script(unit, f"answer {_SERIAL}")
    unit.daemon.signal(10)
    assert unit.application.next_text() == arrival(
        "/media/sda1", card=True, key=checked(_SERIAL), name="KR20 - 1")
    script(unit, "driver-status 6")
    unit.daemon.signal(10)
    assert unit.application.next_text() == unknown
    recorded(unit, expected=3 * _ASKED)


@_with_map
def test_a_card_in_a_reader_is_taken_back_like_any_volume(reader_unit: Unit) -> None:
    unit = reader_unit
    script(unit, f"answer {_SERIAL}")
    unit.hal.plug(_READER)
    for _ in range(2):
        unit.hal.plug("volume rd lun=0")
        unit.application.expect_message("dataarrival", path="/media/sda1", type="memorycard")
        unit.settle()
        assert unit.links() == {"USB Memory Card A1": "sda1"}
        unit.hal.pull("rd:volume")
        unit.application.expect_message("dataremoval", path="/media/sda1")
        unit.settle()
        assert unit.links() == {}


@_with_map
def test_the_scan_asks_the_reader_of_a_mounted_card(unit: Unit) -> None:
    unit.sandbox.path(cardreader.SCRIPTS).mkdir()
    script(unit, f"answer {_SERIAL}")
    unit.hal.plug(_READER)
    unit.hal.plug("volume rd lun=0 mounted")
    start_daemon(unit)
    assert unit.application.next_text() == arrival(
        "/media/sda1", card=True, key=checked(_SERIAL), name="KR20 - 1")
    recorded(unit, expected=_ASKED)
