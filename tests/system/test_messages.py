"""The messages to the application: their texts and bytes, the card's check digits, and limits."""

import pytest

from local_volumes import (CARD, CID, STICK, arrival, checked, correction, mark, removal, said,
                           told)
from testbed.daemon import DEBUG, ERROR, INFO, WARNING
from testbed.frame import encode
from testbed.unit import Unit

_CONTENT, _SERIAL = "/etc/content-id", "/etc/serial-number"
_MAX_BYTES = 8190
_LONG_NAME = _MAX_BYTES - len(arrival("/media/sda1", name=" - "))


def named(length: int, port: str = "1-1_1") -> str:
    """A configuration that gives the stick at this port a name of so many characters."""
    return f"name={length * 'n'}\nusbid={port}\n"


def test_the_bytes_of_an_arrival_and_of_a_removal(running_unit: Unit) -> None:
    unit = running_unit
    unit.hal.plug(STICK)
    text = ('<message version="1" type="datasource"><content><dataarrival path="/media/sda1"'
            ' type="harddrive" key="" contentid="" serialnumber="" friendlyname="USB Mass Storage"'
            ' remote="false" readonly="false" fixed="false" /></content></message>')
    assert len(text) == 233
    frame = unit.application.next_frame().raw
    assert frame[:6] == bytes([466 + 4 >> 8, 466 + 4 & 0xFF, 0, 0, 466 >> 8, 466 & 0xFF])
    assert frame[6:] == b"".join(bytes([0, ord(character)]) for character in text)
    unit.settle()
    unit.hal.pull("stick")
    text = ('<message version="1" type="datasource"><content><dataremoval path="/media/sda1"/>'
            '</content></message>')
    assert len(text) == 101
    frame = unit.application.next_frame().raw
    assert frame[:6] == bytes([0, 206, 0, 0, 0, 202])
    assert frame[6:] == b"".join(bytes([0, ord(character)]) for character in text)
    unit.daemon.expect_log(DEBUG, "data size: 466")
    unit.daemon.expect_log(DEBUG, "data size: 202")


@pytest.mark.parametrize("options, expected", [
    (f"plug {STICK} readonly", arrival("/media/sda1", read_only=True)),
    (f"plug {CARD}", arrival("/media/mmcblk0p1", card=True, key=CID, name="Memory Card - 0"))],
    ids=["a read-only stick", "a writable card"])
def test_what_a_volume_is_stands_in_its_flags(running_unit: Unit, options: str,
                                              expected: str) -> None:
    running_unit.hal.command(options)
    assert running_unit.application.next_frame().raw == encode(expected)


@pytest.mark.parametrize("cid, key", [
    ("0353445355303847802A5B1C4A00F3D1", "0353445355303847802A5B1C4A00F3b1"),
    # A pair of digits counts as far as it is one.
    ("5z" + 30 * "0", "5z" + checked("05" + 30 * "0")[2:])],
    ids=["mixed letters", "half a pair"])
def test_a_cards_last_byte_is_computed(running_unit: Unit, cid: str, key: str) -> None:
    unit, since = running_unit, mark(running_unit)
    unit.hal.plug(f"sd card uuid=1769-6A29 cid={cid}")
    message = arrival("/media/mmcblk0p1", card=True, key=key, name="Memory Card - 0")
    assert unit.application.next_text() == message
    unit.settle()
    lines = said(unit, since)
    place = lines.index((INFO, message))
    assert lines[place - 3:place] == correction(cid, key)
    assert (INFO, f"_PrintHalVolumeInfo: Cid = {cid}") in lines
    unit.daemon.signal(10)
    assert unit.application.next_text() == message


@pytest.mark.parametrize("cid", [CID[:31], "Ä" + CID[:31]], ids=["31", "33 in 32 characters"])
def test_a_card_number_of_another_length_is_sent_as_it_is(running_unit: Unit, cid: str) -> None:
    """Lengths are in bytes."""
    unit, since = running_unit, mark(running_unit)
    unit.hal.plug(f"sd card cid={cid}")
    message = arrival("/media/mmcblk0p1", card=True, key=cid.encode().decode("latin-1"),
                      name="Memory Card - 0")
    assert unit.application.next_text() == message
    unit.settle()
    assert unit.daemon.logged(WARNING, "Error computing CID CRC - Invalid CID length", since) == 1


@pytest.mark.parametrize("text, escaped", [
    ('<say "yes" & %s>', "&lt;say &quot;yes&quot; &amp; %s&gt;"),
    ("\x01\x1fÅ", "??" + "Å".encode().decode("latin-1"))])
def test_what_xml_cannot_carry_as_it_is_is_escaped(unit: Unit, text: str, escaped: str) -> None:
    """In every value; each byte of a text is a character of its own."""
    unit.sandbox.write("/etc/voldrake.conf", f"name={text}\nusbid=1-1_1\n")
    unit.sandbox.write(_CONTENT, text)
    unit.sandbox.write(_SERIAL, text)
    unit.start_daemon("--content-id-file", _CONTENT, "--serial-number-file", _SERIAL)
    shown = text.encode("unicode_escape").decode("ascii").replace('"', '\\"')
    path = f"/media/{text}" if text.isascii() and text.isprintable() and "/" not in text else ""
    if path:
        unit.hal.command(f'plug {STICK} mounted="{shown}"')
    else:
        unit.hal.command(f"plug {STICK}")
    expected = arrival(f"/media/{escaped}" if path else "/media/sda1", content_id=escaped,
                       serial_number=escaped, name=f" - {escaped}")
    frame = unit.application.next_frame()
    assert frame.raw == encode(expected)
    message = frame.message()
    for name in ("contentid", "serialnumber"):
        raw = text.encode().decode("latin-1")
        assert message[name] == raw.replace("\x01", "?").replace("\x1f", "?")
    unit.settle()
    unit.hal.pull("stick")
    assert unit.application.next_text() == removal(f"/media/{escaped}" if path else "/media/sda1")


def test_white_space_keeps_its_kind(unit: Unit) -> None:
    """A reader of XML would turn line breaks and tabs in values into blanks."""
    unit.sandbox.write("/etc/voldrake.conf", "name=a\tb\rc\nusbid=1-1_1\n")
    unit.sandbox.write(_CONTENT, "a\tb\rc\n")
    unit.start_daemon("--content-id-file", _CONTENT)
    unit.hal.command(f'quiet plug {STICK} volume/volume.mount_point=string:"a\\tb\\rc"')
    unit.hal.command("set stick volume.is_mounted=bool:true")
    message = unit.application.next_frame().message()
    assert (message["path"], message["contentid"]) == ("a\tb\rc", "a\tb\rc")
    assert message["friendlyname"] == " - a\tb\rc"


@pytest.mark.unit_options(configuration=named(_LONG_NAME))
def test_the_longest_text_is_sent_whole(running_unit: Unit) -> None:
    unit = running_unit
    unit.hal.plug(STICK)
    text = arrival("/media/sda1", name=" - " + _LONG_NAME * "n")
    assert len(text) == _MAX_BYTES
    frame = unit.application.next_frame().raw
    assert frame[:6] == bytes([0x40, 0x00, 0, 0, 0x3F, 0xFC])
    assert frame == encode(text)
    unit.daemon.expect_log(DEBUG, "data size: 16380")


@pytest.mark.unit_options(configuration=named(_LONG_NAME + 1))
def test_a_longer_text_is_refused_and_the_volume_kept(running_unit: Unit) -> None:
    unit, since = running_unit, mark(running_unit)
    unit.hal.plug(STICK)
    unit.hal.plug("usb other")
    assert unit.application.next_text() == arrival("/media/sdb1")
    unit.settle()
    refusals = [line for line in said(unit, since) if "refused" in line[1]]
    assert refusals == [(ERROR, f"PublishDataSource: message of {_MAX_BYTES + 1} bytes refused,"
                                " at most 8190 can be sent")]
    assert len(unit.application.frames()) == 1
    unit.hal.pull("stick")
    assert unit.application.next_text() == removal("/media/sda1")


def test_a_text_is_refused_for_its_length_after_escaping(unit: Unit) -> None:
    """Two texts of 511 bytes that take five times as much, and a name that goes over the limit."""
    limit = _MAX_BYTES - len(arrival("/media/sda1", name=" - ")) - 2 * 511 * len("&amp;")
    unit.sandbox.write(_CONTENT, 511 * "&")
    unit.sandbox.write(_SERIAL, 511 * "&")
    unit.sandbox.write("/etc/voldrake.conf",
                       named(limit + 1) + f"name={limit * 'm'}\nusbid=1-1_2\n")
    unit.start_daemon("--content-id-file", _CONTENT, "--serial-number-file", _SERIAL)
    unit.hal.plug(STICK)
    unit.hal.plug("usb other")
    texts = told(unit, 1)
    assert texts == [arrival("/media/sdb1", content_id=511 * "&amp;", serial_number=511 * "&amp;",
                             name=" - " + limit * "m")]
    assert len(texts[0]) == _MAX_BYTES


@pytest.mark.unit_options(port=9090)
def test_messages_go_to_the_port_of_the_command_line(running_unit: Unit) -> None:
    running_unit.hal.plug(STICK)
    assert running_unit.application.next_text() == arrival("/media/sda1")
