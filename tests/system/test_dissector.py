"""The Wireshark dissectors of the announcement datagram and of the messages to the application,
run by tshark over captures made here."""

import json
import struct
import subprocess
from collections.abc import Sequence
from pathlib import Path

import pytest

from testbed import frame

DISSECTOR = Path(__file__).resolve().parents[2] / "tools" / "wireshark" / "voldrake.lua"
PORT = 10000
TSHARK_SECONDS = 60


def announcement(
    path: bytes = b"/media/sda1",
    key: bytes = b"",
    name: bytes = b"Name",
    *,
    message_type: int = 1,
    media_type: int = 1,
    read_only: int = 1,
) -> bytes:
    """The datagram of one share as a unit sends it."""
    texts = [path + b"\0", key + b"\0", name + b"\0"]
    lengths = [len(text) for text in texts]
    header = struct.pack(
        "<I8H", 0x12345678, 1, message_type, 1000, media_type, read_only, *lengths
    )
    return header + b"".join(texts)


def changed(offset: int, replacement: bytes) -> bytes:
    """A sound datagram with some bytes replaced."""
    datagram = announcement()
    return datagram[:offset] + replacement + datagram[offset + len(replacement) :]


def udp_packet(payload: bytes) -> bytes:
    """An Ethernet frame that carries the payload from 169.254.3.7 to the group."""
    udp = struct.pack(">HHHH", 40000, PORT, 8 + len(payload), 0) + payload
    ip = struct.pack(
        ">BBHHHBBH4s4s", 0x45, 0, 20 + len(udp), 0, 0, 5, 17, 0,
        bytes([169, 254, 3, 7]), bytes([224, 1, 1, 1]),
    )  # fmt: skip
    return bytes.fromhex("01005e010101 020000000001 0800") + ip + udp


def write_capture(file: Path, payloads: Sequence[bytes]) -> None:
    """Writes a pcap file with one UDP packet for each payload."""
    write_packets(file, [udp_packet(payload) for payload in payloads])


def write_packets(file: Path, packets: Sequence[bytes]) -> None:
    """Writes a pcap file with these packets, one a second."""
    capture = struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 1)
    for second, packet in enumerate(packets):
        capture += struct.pack("<IIII", second, 0, len(packet), len(packet)) + packet
    file.write_bytes(capture)


@pytest.fixture
def dissect(tmp_path: Path):
    """Calls tshark on payloads; gives these layers of each packet and fails on any Lua error."""

    def run(*payloads: bytes, layers: str = "voldrake _ws.expert _ws.lua") -> list[dict]:
        capture = tmp_path / "capture.pcap"
        write_capture(capture, payloads)
        result = subprocess.run(
            ["tshark", "-n", "-r", capture, "-X", f"lua_script:{DISSECTOR}", "-T", "json"]
            + ["-J", layers, "--no-duplicate-keys"],
            env={"HOME": str(tmp_path), "PATH": "/usr/sbin:/usr/bin:/sbin:/bin"},
            capture_output=True,
            text=True,
            timeout=TSHARK_SECONDS,
            check=True,
        )
        assert "Lua" not in result.stderr, result.stderr
        assert "Lua Error" not in result.stdout, result.stdout
        packets = [packet["_source"]["layers"] for packet in json.loads(result.stdout)]
        assert len(packets) == len(payloads)
        return packets

    return run


def experts(layer: object) -> set[str]:
    """Every message that the dissector marked a packet with."""
    found: set[str] = set()
    if isinstance(layer, dict):
        for name, value in layer.items():
            if name == "_ws.expert.message":
                found.update(value if isinstance(value, list) else [value])
            else:
                found |= experts(value)
    elif isinstance(layer, list):
        for value in layer:
            found |= experts(value)
    return found


def test_every_field_of_an_announcement_is_shown(dissect) -> None:
    (packet,) = dissect(announcement(key=b"00ff", name="Küche".encode()))
    layer = packet["voldrake"]
    assert layer == {
        "voldrake.magic": "0x12345678",
        "voldrake.version": "1",
        "voldrake.type": "1",
        "voldrake.constant": "1000",
        "voldrake.media_type": "1",
        "voldrake.read_only": "1",
        "voldrake.path_length": "12",
        "voldrake.key_length": "5",
        "voldrake.name_length": "7",
        "voldrake.path": "/media/sda1",
        "voldrake.key": "00ff",
        "voldrake.name": "Küche",
    }


def test_a_withdrawal_and_empty_texts_are_sound(dissect) -> None:
    packets = dissect(
        announcement(message_type=2, read_only=0), announcement(b"", b"", b"", read_only=2)
    )
    assert packets[0]["voldrake"]["voldrake.type"] == "2"
    assert packets[1]["voldrake"]["voldrake.path_length"] == "1"
    assert [experts(packet) for packet in packets] == [set(), set()]


@pytest.mark.parametrize(
    ("datagram", "message"),
    [
        (changed(4, b"\x02"), "2 instead of 1"),
        (changed(6, b"\x09"), "The message type is neither 1 nor 2"),
        (changed(8, b"\x00\x00"), "0 instead of 1000"),
        (changed(14, b"\x00\x00"), "The path has no zero byte"),
        (changed(31, b"x"), "The path does not end with a zero byte"),
        (changed(24, b"\0"), "The path ends before its length"),
        (changed(14, b"\xff\xff"), "The path is cut off"),
        (changed(18, b"\x06"), "The friendly name is cut off"),
        (announcement() + b"x", "Bytes follow the friendly name"),
        (announcement(b"/" * 1480), "Units read only 1500 bytes"),
    ],
    ids=lambda value: value if isinstance(value, str) else "",
)
def test_what_no_unit_sends_is_marked(dissect, datagram: bytes, message: str) -> None:
    (packet,) = dissect(datagram)
    assert message in experts(packet)


@pytest.mark.parametrize(
    "datagram",
    [
        changed(0, b"\x12\x34\x56\x78"),
        changed(3, b"\x13"),
        b"\x77",
        b"\x78\x55",
        b"\x78\x56\x34\x13",
    ],
    ids=lambda datagram: datagram[:4].hex(),
)
def test_a_datagram_without_the_magic_is_left_to_others(dissect, datagram: bytes) -> None:
    (packet,) = dissect(datagram)
    assert "voldrake" not in packet


def test_another_protocol_on_the_port_is_dissected_as_what_it_is(dissect) -> None:
    binding_request = struct.pack(">HHI", 0x0001, 0, 0x2112A442) + bytes(range(12))
    (packet,) = dissect(binding_request, layers="stun voldrake")
    assert "voldrake" not in packet
    assert packet["stun"]["stun.type"] == "0x0001"


def test_every_prefix_is_marked_as_truncated(dissect) -> None:
    whole = announcement(key=b"00ff")
    packets = dissect(*(whole[:length] for length in range(1, len(whole))))
    for length, packet in enumerate(packets, start=1):
        assert any("cut off" in message for message in experts(packet)), length


def test_the_summary_names_type_path_and_name(tmp_path: Path) -> None:
    capture = tmp_path / "capture.pcap"
    write_capture(capture, [announcement(), announcement(message_type=2)])
    result = subprocess.run(
        ["tshark", "-n", "-r", capture, "-X", f"lua_script:{DISSECTOR}"]
        + ["-T", "fields", "-e", "_ws.col.Protocol", "-e", "_ws.col.Info"],
        env={"HOME": str(tmp_path), "PATH": "/usr/sbin:/usr/bin:/sbin:/bin"},
        capture_output=True,
        text=True,
        timeout=TSHARK_SECONDS,
        check=True,
    )
    assert result.stdout.splitlines() == [
        'VOLDRAKE\tAnnounce /media/sda1 "Name"',
        'VOLDRAKE\tWithdraw /media/sda1 "Name"',
    ]


# The messages to the display application

APPLICATION_PORT = 8080
ARRIVAL = (
    '<message version="1" type="datasource"><content><dataarrival path="/media/sda1"'
    ' type="harddrive" key="" contentid="" serialnumber="" friendlyname="K\xfcche"'
    ' remote="false" readonly="false" fixed="false" /></content></message>'
)
REMOVAL = (
    '<message version="1" type="datasource"><content><dataremoval path="/media/sda1"/>'
    "</content></message>"
)


def tcp_packet(sequence: int, payload: bytes, flags: int = 0x18, *, port: int) -> bytes:
    """An Ethernet frame with a segment from 127.0.0.1:40000 to the port."""
    tcp = struct.pack(">HHIIBBHHH", 40000, port, sequence, 1, 0x50, flags, 512, 0, 0) + payload
    ip = struct.pack(
        ">BBHHHBBH4s4s", 0x45, 0, 20 + len(tcp), 0, 0, 64, 6, 0,
        bytes([127, 0, 0, 1]), bytes([127, 0, 0, 1]),
    )  # fmt: skip
    return bytes(12) + b"\x08\x00" + ip + tcp


@pytest.fixture
def dissect_stream(tmp_path: Path):
    """Calls tshark on one connection that carries these pieces; gives the layers of each packet,
    the first of which opens it."""

    def run(*pieces: bytes, options: Sequence[str] = (), port: int = APPLICATION_PORT,
            order: Sequence[int] | None = None) -> list[dict]:
        packets, sequence = [tcp_packet(100, b"", 0x02, port=port)], 101
        for piece in pieces:
            packets.append(tcp_packet(sequence, piece, port=port))
            sequence += len(piece)
        capture = tmp_path / "stream.pcap"
        write_packets(capture, [packets[at] for at in order or range(len(packets))])
        result = subprocess.run(
            ["tshark", "-n", "-r", capture, "-X", f"lua_script:{DISSECTOR}", *options,
             "-T", "json", "-J", "voldrake_message http _ws.expert _ws.lua _ws.col"],
            env={"HOME": str(tmp_path), "PATH": "/usr/sbin:/usr/bin:/sbin:/bin"},
            capture_output=True, text=True, timeout=TSHARK_SECONDS, check=True,
        )
        assert "Lua" not in result.stderr, result.stderr
        assert "Lua Error" not in result.stdout, result.stdout
        return [packet["_source"]["layers"]
                for packet in json.loads(result.stdout, object_pairs_hook=all_of_them)]

    return run


def all_of_them(pairs: list[tuple[str, object]]) -> dict:
    """An object whose repeated names have lists: a packet with several messages."""
    found: dict = {}
    for name, value in pairs:
        if name in found and name == "voldrake_message":
            earlier = found[name] if isinstance(found[name], list) else [found[name]]
            found[name] = [*earlier, value]
        else:
            found[name] = value
    return found


def test_every_field_of_a_message_is_shown(dissect_stream) -> None:
    _, packet = dissect_stream(frame.encode(ARRIVAL))
    layer = packet["voldrake_message"]
    assert layer == {
        "voldrake_message.following": str(4 + 2 * len(ARRIVAL)),
        "voldrake_message.zero": "0",
        "voldrake_message.payload_length": str(2 * len(ARRIVAL)),
        "voldrake_message.text": ARRIVAL,
        "voldrake_message.kind": "arrival",
        "voldrake_message.path": "/media/sda1",
    }


@pytest.mark.parametrize("size", [1, 2, 5, 100])
def test_a_message_in_segments_is_put_together(dissect_stream, size: int) -> None:
    whole = frame.encode(REMOVAL)
    packets = dissect_stream(*(whole[at:at + size] for at in range(0, len(whole), size)))
    shown = [packet["voldrake_message"]["voldrake_message.text"] for packet in packets
             if "voldrake_message" in packet]
    assert shown == [REMOVAL]
    assert "voldrake_message" in packets[-1]


def test_a_message_whose_segments_are_turned_round_is_put_together(dissect_stream) -> None:
    whole = frame.encode(REMOVAL)
    packets = dissect_stream(whole[:9], whole[9:30], whole[30:], order=[0, 1, 3, 2],
                             options=["-o", "tcp.reassemble_out_of_order:TRUE"])
    assert [packet["voldrake_message"]["voldrake_message.text"] for packet in packets
            if "voldrake_message" in packet] == [REMOVAL]


def test_several_messages_of_one_segment_are_all_shown(dissect_stream) -> None:
    whole = frame.encode(ARRIVAL) + frame.encode(REMOVAL) + frame.encode("")
    _, packet = dissect_stream(whole)
    texts = [one.get("voldrake_message.text") for one in packet["voldrake_message"]]
    assert texts == [ARRIVAL, REMOVAL, None]


@pytest.mark.parametrize(
    ("sent", "complaint"),
    [
        (bytes.fromhex("0008 0001 0004 0061 0062"), "The second field is not zero"),
        (bytes.fromhex("0008 0000 0006 0061 0062"), "4 bytes follow"),
        (bytes.fromhex("0007 0000 0003 006100"), "3 bytes follow"),
        (bytes.fromhex("0008 0000 0004 0061 0162"), "Code unit 1 is above 00ff"),
        (frame.encode("text"), "The text is not a valid message"),
        (frame.encode(REMOVAL.replace("removal", "other")), "The text is not a valid message"),
    ],
    ids=lambda value: value if isinstance(value, str) else "",
)
def test_a_message_that_the_daemon_does_not_send_is_marked(dissect_stream, sent: bytes,
                                                           complaint: str) -> None:
    _, packet = dissect_stream(sent)
    assert complaint in experts(packet["voldrake_message"])


def test_what_is_no_frame_is_left_to_what_the_port_had_before(dissect_stream) -> None:
    _, packet = dissect_stream(b"GET /charts HTTP/1.0\r\n\r\n")
    assert "voldrake_message" not in packet
    assert packet["http"]


def test_the_preferences_change_the_port(dissect_stream) -> None:
    other = ["-o", "voldrake_message.port:9123"]
    assert "voldrake_message" in dissect_stream(
        frame.encode(REMOVAL), options=other, port=9123)[1]
    assert "voldrake_message" not in dissect_stream(frame.encode(REMOVAL), options=other)[1]
    _, packet = dissect_stream(b"GET /charts HTTP/1.0\r\n\r\n", options=other)
    assert packet["http"]


def test_the_summary_names_the_message(tmp_path: Path) -> None:
    capture = tmp_path / "stream.pcap"
    write_packets(capture, [tcp_packet(101, frame.encode(ARRIVAL), port=APPLICATION_PORT)])
    result = subprocess.run(
        ["tshark", "-n", "-r", capture, "-X", f"lua_script:{DISSECTOR}"]
        + ["-T", "fields", "-e", "_ws.col.Protocol", "-e", "_ws.col.Info"],
        env={"HOME": str(tmp_path), "PATH": "/usr/sbin:/usr/bin:/sbin:/bin"},
        capture_output=True, text=True, timeout=TSHARK_SECONDS, check=True,
    )
    protocol, summary = result.stdout.rstrip("\n").split("\t")
    assert protocol == "VOLDRAKE-MESSAGE"
    assert summary.endswith("arrival /media/sda1")
