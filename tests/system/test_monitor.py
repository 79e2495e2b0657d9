"""`voldrake-monitor` as a program: what it prints for what is sent to it."""

import json
import os
import random
import re
import signal
import socket
from typing import Any, Callable, Iterator

import pytest

from testbed import frame, target, timeouts
from testbed.process import Process
from testbed.sandbox import Sandbox
from testbed.tape import Channel, Tape, Wanted
from testbed.unit import Unit
from testbed.waiting import wait_until

ARRIVAL = (
    '<message version="1" type="datasource"><content><dataarrival path="/media/mmcblk0p1"'
    ' type="memorycard" key="02544d53413038471060f9a4f600a24f" contentid="C 1" serialnumber="S-2"'
    ' friendlyname="Memory Card - 1" remote="false" readonly="true" fixed="false" />'
    "</content></message>"
)
REMOVAL = (
    '<message version="1" type="datasource"><content><dataremoval path="/media/sda1"/>'
    "</content></message>"
)
CLOCK = re.compile(r"\d\d:\d\d:\d\d\.\d{3}")
#: How long the monitor lets one frame take.
FRAME_SECONDS = 5
#: How many connections it holds at a time.
CONNECTIONS = 64


class Monitor:
    """The program in a sandbox: each line that it prints is an event."""

    def __init__(self, sandbox: Sandbox, *options: str, port: int = 0) -> None:
        self.events = Channel(Tape(), "monitor")
        self._sandbox = sandbox
        self.process: Process = sandbox.spawn(
            [target.program("voldrake-monitor"), "--port", str(port), *options],
            "monitor", on_line=self.events.record)
        self.port = self._port()

    def connect(self) -> socket.socket:
        """A connection to it."""
        return self._sandbox.in_network(
            lambda: socket.create_connection(("127.0.0.1", self.port), timeouts.EVENT))

    def send(self, *pieces: bytes) -> None:
        """Send pieces over one connection and close it."""
        with self.connect() as connection:
            for piece in pieces:
                connection.sendall(piece)

    def line(self, timeout: float = timeouts.EVENT) -> str:
        """The next line."""
        return self.events.expect(Wanted("any line", lambda _: True), timeout).text

    def object(self, timeout: float = timeouts.EVENT) -> dict[str, Any]:
        """The next line as a JSON object."""
        return json.loads(self.line(timeout))

    def _port(self) -> int:
        return int(self.process.expect_stderr(re.compile(r"listening on 127\.0\.0\.1:(\d+)\n"))[1])


@pytest.fixture(name="box", scope="module")
def _box() -> Iterator[Sandbox]:
    worker = os.environ.get("PYTEST_XDIST_WORKER", "main")
    logs = target.log_directory() / "system" / f"test_monitor-{worker}"
    with Sandbox(logs, target.read_only_mounts()) as sandbox:
        yield sandbox


@pytest.fixture(name="start")
def _start(box: Sandbox) -> Iterator[Callable[..., Monitor]]:
    """Starts monitors; after the test each is ended and must have ended in good order."""
    started: list[Monitor] = []

    def start(*options: str, port: int = 0) -> Monitor:
        started.append(Monitor(box, *options, port=port))
        return started[-1]

    yield start
    for monitor in started:
        if not monitor.process.collected:
            assert monitor.process.terminate() == 0, monitor.process.stderr()


# What well-formed messages look like

def test_an_arrival_is_one_line_with_every_attribute(start: Callable[..., Monitor]) -> None:
    monitor = start()
    monitor.send(frame.encode(ARRIVAL))
    clock, rest = monitor.line().split("  ", 1)
    assert CLOCK.fullmatch(clock)
    assert rest == (
        'arrival  /media/mmcblk0p1       "Memory Card - 1"        memorycard  '
        "readonly=true  remote=false fixed=false "
        'key="02544d53413038471060f9a4f600a24f" contentid="C 1" serialnumber="S-2"'
    )


def test_a_removal_is_one_line_with_the_path(start: Callable[..., Monitor]) -> None:
    monitor = start()
    monitor.send(frame.encode(REMOVAL))
    assert monitor.line().split("  ", 1)[1] == "removal  /media/sda1"


def test_json_has_every_attribute_the_text_and_the_time(start: Callable[..., Monitor]) -> None:
    monitor = start("--json")
    monitor.send(frame.encode(ARRIVAL))
    monitor.send(frame.encode(REMOVAL))
    arrival, removal = monitor.object(), monitor.object()
    assert re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z", arrival.pop("time"))
    assert arrival == {
        "well_formed": True, "message": "arrival", "path": "/media/mmcblk0p1",
        "type": "memorycard", "key": "02544d53413038471060f9a4f600a24f", "contentid": "C 1",
        "serialnumber": "S-2", "friendlyname": "Memory Card - 1", "remote": False,
        "readonly": True, "fixed": False, "text": ARRIVAL,
    }
    removal.pop("time")
    assert removal == {
        "well_formed": True, "message": "removal", "path": "/media/sda1", "text": REMOVAL,
    }


def test_raw_shows_the_bytes_of_the_frame(start: Callable[..., Monitor]) -> None:
    monitor = start("--raw")
    sent = frame.encode(REMOVAL)
    monitor.send(sent)
    assert monitor.line().endswith(f"  removal  {len(sent)} bytes")
    shown = b""
    while len(shown) < len(sent):
        shown += bytes.fromhex(monitor.line()[10:58])
    assert shown == sent


def test_frames_come_out_whole_however_they_are_sent(start: Callable[..., Monitor]) -> None:
    monitor = start("--json")
    stream = frame.encode(ARRIVAL) + frame.encode(REMOVAL) + frame.encode(ARRIVAL)
    monitor.send(stream)
    monitor.send(*(stream[at : at + 7] for at in range(0, len(stream), 7)))
    kinds = [monitor.object()["message"] for _ in range(6)]
    assert kinds == ["arrival", "removal", "arrival"] * 2


def test_bytes_from_0x80_up_are_kept_exactly(start: Callable[..., Monitor]) -> None:
    name = bytes(range(0x80, 0x100)).decode("latin-1")
    text = ARRIVAL.replace("Memory Card - 1", name)
    monitor = start("--json")
    monitor.send(frame.encode(text))
    told = monitor.object()
    assert (told["friendlyname"], told["text"]) == (name, text)


def test_utf8_in_a_value_is_readable_and_control_characters_are_not_passed_on(
    start: Callable[..., Monitor]
) -> None:
    monitor = start()
    name = "Küche".encode().decode("latin-1") + "\x7f\x9b2J&#10;&quot;"
    monitor.send(frame.encode(ARRIVAL.replace("Memory Card - 1", name)))
    assert r'"Küche\x7f\x9b2J\x0a\""' in monitor.line()


def test_the_longest_text_is_taken(start: Callable[..., Monitor]) -> None:
    longest = REMOVAL.replace("sda1", "x" * (8190 - len(REMOVAL) + 4))
    monitor = start("--json")
    monitor.send(frame.encode(longest))
    assert monitor.object()["text"] == longest


def test_what_the_daemon_sends_is_shown(unit: Unit) -> None:
    unit.application.leave()
    monitor = Monitor(unit.sandbox, "--json", port=unit.application.port)
    unit.start_daemon()
    unit.hal.plug("sd card host=1 cid=02544d53413038471060f9a4f600a200 label=Charts")
    arrival = monitor.object()
    assert arrival["well_formed"] and arrival["message"] == "arrival"
    assert arrival["key"] == "02544d53413038471060f9a4f600a24f"
    assert (arrival["type"], arrival["friendlyname"]) == ("memorycard", "Memory Card - 1")
    unit.hal.pull("card")
    removal = monitor.object()
    assert removal["well_formed"] and removal["message"] == "removal"
    assert removal["path"] == arrival["path"]
    assert monitor.process.terminate() == 0


# What is not well formed

FAULTY = {
    "nothing": (b"", "no byte was sent; the peer closed the connection"),
    "one byte": (b"\0", "the frame ends within its first length field; the peer closed the"
                 " connection"),
    "half a frame": (bytes.fromhex("0008 0000 0004 0061"),
                     "the frame has 8 bytes instead of 10; the peer closed the connection"),
    "first length too small": (bytes.fromhex("0003 0000 00"),
                               "the first length field is 3, a frame has 4 to 16384; the peer"
                               " closed the connection"),
    "first length too large": (bytes.fromhex("ffff 0000 0004"),
                               "the first length field is 65535, a frame has 4 to 16384; the peer"
                               " closed the connection"),
    "second field": (bytes.fromhex("0004 0001 0000"), "the second field is 0001 instead of zero"),
    "second length": (bytes.fromhex("0006 0000 0004 0061"),
                      "the payload length is 4, but 2 bytes follow it"),
    "odd length": (bytes.fromhex("0005 0000 0001 00"), "the payload length 1 is odd"),
    "high byte": (bytes.fromhex("0008 0000 0004 0061 20ac"),
                  "code unit 1 is 20ac, above 00ff"),
    "no XML": (frame.encode("ab"), "the text is not a valid message: "),
    "other XML": (frame.encode("<message/>"),
                  "the text is not a valid message: element \"message\" has no"
                  " attribute \"version\""),
    "control character": (frame.encode(REMOVAL.replace("sda1", "\x1b[2J")),
                          "the text is not a valid message: it contains a control character (0x1b)"),
}


@pytest.mark.parametrize("case", FAULTY)
def test_a_faulty_frame_is_shown_with_its_bytes_and_the_next_one_is_heard(
    start: Callable[..., Monitor], case: str
) -> None:
    sent, reason = FAULTY[case]
    monitor = start("--json")
    monitor.send(sent)
    monitor.send(frame.encode(REMOVAL))
    told = monitor.object()
    assert not told["well_formed"]
    assert told["reason"] == reason or (reason.endswith(": ") and told["reason"].startswith(reason))
    assert bytes.fromhex(told["bytes"]) == sent
    assert monitor.object()["text"] == REMOVAL


def test_a_faulty_frame_is_readable_and_has_no_control_characters(
    start: Callable[..., Monitor]
) -> None:
    monitor = start()
    monitor.send(bytes.fromhex("0004 1b07 0000"))
    assert monitor.line().endswith("  faulty   the second field is 1b07 instead of zero")
    assert monitor.line() == (
        "00000000  00 04 1b 07 00 00                                 |......|"
    )


def test_the_frame_after_a_faulty_one_on_the_same_connection_is_heard(
    start: Callable[..., Monitor]
) -> None:
    monitor = start("--json")
    monitor.send(bytes.fromhex("0004 0001 0000") + frame.encode(REMOVAL))
    assert [monitor.object()["well_formed"] for _ in range(2)] == [False, True]


def test_random_bytes_come_back_whole(start: Callable[..., Monitor]) -> None:
    chance = random.Random(7)
    monitor = start("--json")
    for _ in range(200):
        sent = chance.randbytes(chance.randrange(1, 400))
        monitor.send(sent)
        shown = b""
        while len(shown) < len(sent):
            told = monitor.object()
            assert not told["well_formed"]
            shown += bytes.fromhex(told["bytes"])
        assert shown == sent
    monitor.send(frame.encode(REMOVAL))
    assert monitor.object()["well_formed"]


# Peers that do not end

def test_silent_and_slow_peers_are_shown_and_dropped(start: Callable[..., Monitor]) -> None:
    monitor = start("--json")
    with monitor.connect() as silent, monitor.connect() as half, monitor.connect() as idle:
        half.sendall(b"\x00\x08\x00")
        idle.sendall(frame.encode(REMOVAL))
        assert monitor.object()["well_formed"]
        told = [monitor.object(FRAME_SECONDS + timeouts.EVENT) for _ in range(2)]
        assert sorted(one["reason"] for one in told) == [
            "no byte was sent; no whole frame came in time",
            "the frame has 3 bytes instead of 10; no whole frame came in time",
        ]
        for connection in (silent, half, idle):
            connection.settimeout(FRAME_SECONDS + timeouts.EVENT)
            assert connection.recv(1) == b""
    monitor.send(frame.encode(REMOVAL))
    assert monitor.object()["well_formed"]  # and nothing about the idle one before it


def test_a_peer_that_never_ends_its_frame_is_dropped_when_no_frame_can_come(
    start: Callable[..., Monitor]
) -> None:
    monitor = start("--json")
    with monitor.connect() as endless, pytest.raises(ConnectionError):
        while True:
            endless.sendall(b"\xff" * 65536)
    told = monitor.object()
    assert told["reason"].endswith("; no frame can follow")
    assert bytes.fromhex(told["bytes"]) == b"\xff" * 16386


def test_more_connections_than_are_held_wait_and_are_heard(start: Callable[..., Monitor]) -> None:
    monitor = start("--json")
    alone = len(monitor.process.descriptors())
    held = [monitor.connect() for _ in range(CONNECTIONS + 20)]
    monitor.send(frame.encode(REMOVAL))  # the kernel takes it
    wait_until(lambda: len(monitor.process.descriptors()) - alone >= CONNECTIONS, "as many are open")
    for connection in held:
        # One more may have been accepted at the moment when the limit was reached.
        assert len(monitor.process.descriptors()) - alone <= CONNECTIONS + 1
        connection.close()
    told = [monitor.object()["well_formed"] for _ in range(len(held) + 1)]
    assert sorted(told) == [False] * len(held) + [True]


# The program

def test_count_ends_it_after_so_many_messages(start: Callable[..., Monitor]) -> None:
    monitor = start("--count", "2")
    monitor.send(b"")  # no message
    monitor.send(frame.encode(REMOVAL))
    monitor.send(bytes.fromhex("0004 0001 0000"))
    assert monitor.process.wait() == 0


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_a_signal_ends_it_in_good_order(start: Callable[..., Monitor], number: int) -> None:
    monitor = start()
    with monitor.connect() as connection:
        connection.sendall(b"\x00\x08")
        monitor.process.signal(number)
        assert monitor.process.wait() == 0


def test_a_taken_port_is_told(start: Callable[..., Monitor], box: Sandbox) -> None:
    port = str(start().port)
    result = box.run([target.program("voldrake-monitor"), "--port", port])
    assert result.returncode == 1
    assert result.stderr == (
        f"voldrake-monitor: cannot listen on 127.0.0.1:{port}: "
        f"Error binding to address 127.0.0.1:{port}: Address already in use\n"
    )


@pytest.mark.parametrize(("options", "complaint"), [
    (["--port", "65536"], "the port must be 0 to 65535"),
    (["--port", "-1"], "the port must be 0 to 65535"),
    (["--count", "-1"], "the count cannot be negative"),
    (["--json", "--raw"], "--json and --raw exclude each other"),
    (["word"], "unexpected word: word"),
    (["--unknown"], "Unknown option --unknown"),
])
def test_wrong_options_are_told(box: Sandbox, options: list[str], complaint: str) -> None:
    result = box.run([target.program("voldrake-monitor"), *options])
    assert (result.returncode, result.stdout) == (1, "")
    assert result.stderr == f"voldrake-monitor: {complaint}\n"


def test_it_ends_when_nobody_hears_it(box: Sandbox) -> None:
    process = box.spawn(
        ["/bin/sh", "-c", f"exec {target.program('voldrake-monitor')} --port 8081 >/dev/full"],
        "deaf")
    process.expect_stderr("listening")
    connection = box.in_network(lambda: socket.create_connection(("127.0.0.1", 8081)))
    with connection:
        connection.sendall(frame.encode(REMOVAL))
        assert process.wait() == 1
    assert process.stderr().endswith("voldrake-monitor: cannot write to standard output\n")
