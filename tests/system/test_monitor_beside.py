"""`voldrake-monitor --beside`: what it shows of a unit where the application holds the port."""

import json
import random
import re
import socket
from typing import Any, Callable, Iterator

import pytest

from testbed import frame, target, timeouts
from testbed.application import Mode
from testbed.process import Process
from testbed.tape import Channel, Wanted
from testbed.unit import Unit

PORT = 8080
REMOVAL = (
    '<message version="1" type="datasource"><content><dataremoval path="/media/sda1"/>'
    "</content></message>"
)
CLOCK = r"\d\d:\d\d:\d\d\.\d{3}"
LOST = "the application closed the connection before it had read everything"
#: How many connections it follows at a time.
CONNECTIONS = 64


class Beside:
    """The program in a unit's network: each line that it prints is an event."""

    def __init__(self, unit: Unit, *options: str, port: int = PORT) -> None:
        self.events = Channel(unit.tape, f"beside {port}")
        self.process: Process = unit.sandbox.spawn(
            [target.program("voldrake-monitor"), "--beside", "--port", str(port), *options],
            "beside", on_line=self.events.record)
        self.process.expect_stderr(f"voldrake-monitor: watching 127.0.0.1:{port}\n")

    def line(self, timeout: float = timeouts.EVENT) -> str:
        """The next line."""
        return self.events.expect(Wanted("any line", lambda _: True), timeout).text

    def object(self, timeout: float = timeouts.EVENT) -> dict[str, Any]:
        """The next line as a JSON object."""
        return json.loads(self.line(timeout))

    def until(self, timeout: float = timeouts.EVENT, **fields: Any) -> dict[str, Any]:
        """The next JSON object with (at least) these fields; others are passed over."""
        event = self.events.expect(Wanted(
            str(fields), lambda event: fields.items() <= json.loads(event.text).items()), timeout)
        return json.loads(event.text)


@pytest.fixture(name="watch")
def _watch(unit: Unit) -> Iterator[Callable[..., Beside]]:
    """Starts it; after the test it must end in good order."""
    started: list[Beside] = []

    def start(*options: str, port: int = PORT) -> Beside:
        started.append(Beside(unit, *options, port=port))
        return started[-1]

    yield start
    for one in started:
        one.process.terminate()
        assert one.process.wait() == 0


def send(unit: Unit, *pieces: bytes, port: int = PORT) -> None:
    """Be another peer of the application."""
    with unit.sandbox.in_network(
            lambda: socket.create_connection(("127.0.0.1", port), timeouts.EVENT)) as connection:
        connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        for piece in pieces:
            connection.sendall(piece)


# With the daemon

def test_it_shows_what_the_application_is_told(unit: Unit, watch: Callable[..., Beside]) -> None:
    beside = watch("--json")
    unit.start_daemon()
    unit.hal.plug("usb stick")
    assert beside.until(message="arrival")["path"] == "/media/sda1"
    unit.hal.pull("stick")
    assert beside.until(message="removal")["path"] == "/media/sda1"
    told = [unit.application.next_text() for _ in range(2)]
    shown = [json.loads(event.text) for event in beside.events.up_to(unit.tape.mark())]
    assert [one["text"] for one in shown] == told


def test_it_prints_the_line_that_the_monitor_prints(unit: Unit,
                                                    watch: Callable[..., Beside]) -> None:
    beside = watch()
    unit.start_daemon()
    unit.hal.plug("usb stick")
    assert re.fullmatch(
        CLOCK + r'  arrival  /media/sda1 +"USB Mass Storage" +harddrive   readonly=false .*',
        beside.line())


def test_a_refused_attempt_is_shown_and_the_message_when_it_comes(
        unit: Unit, watch: Callable[..., Beside]) -> None:
    unit.application.leave()
    beside = watch("--json")
    unit.start_daemon()
    unit.hal.plug("usb stick")
    refused = beside.object()
    assert (refused["incident"], refused["reason"]) == (
        "refused", "nobody listens on 127.0.0.1:8080")
    assert "path" not in refused
    unit.application.listen()
    unit.application.expect_message("dataarrival", timeouts.RETRY)
    assert beside.until(timeouts.RETRY, well_formed=True)["path"] == "/media/sda1"


@pytest.mark.parametrize("mode", [Mode.RESET, Mode.CLOSE_EARLY])
def test_a_lost_message_is_shown(unit: Unit, watch: Callable[..., Beside], mode: Mode) -> None:
    unit.application.listen(mode)
    beside = watch("--json")
    unit.start_daemon()
    unit.hal.plug("usb stick")
    lost = beside.until(incident="lost")
    assert lost["reason"] == LOST
    if mode is Mode.CLOSE_EARLY:
        assert (lost["message"], lost["path"]) == ("arrival", "/media/sda1")


def test_an_application_that_does_not_close_is_shown(unit: Unit,
                                                     watch: Callable[..., Beside]) -> None:
    unit.application.listen(Mode.NEVER_READ)
    beside = watch("--json")
    unit.start_daemon()
    unit.hal.plug("usb stick")
    assert beside.object()["path"] == "/media/sda1"
    late = beside.object()
    assert (late["incident"], late["message"], late["path"]) == ("late", "arrival", "/media/sda1")
    assert late["reason"] == "the application has not closed the connection for 2 s"
    # What it had not read is lost when it goes.
    unit.application.leave()
    assert beside.until(incident="lost")["path"] == "/media/sda1"


def test_an_application_that_does_not_answer_is_shown(unit: Unit,
                                                      watch: Callable[..., Beside]) -> None:
    unit.application.listen(Mode.NEVER_ACCEPT)
    beside = watch()
    unit.start_daemon()
    unit.hal.plug("usb stick")
    assert re.fullmatch(CLOCK + "  waiting  a connection has not been answered for 2 s",
                        beside.line())


@pytest.mark.unit_options(port=9123)
def test_it_watches_the_given_port_only(unit: Unit, watch: Callable[..., Beside]) -> None:
    elsewhere, beside = watch("--json"), watch("--json", port=9123)
    unit.start_daemon()
    unit.hal.plug("usb stick")
    assert beside.object()["path"] == "/media/sda1"
    send_refused(unit)
    assert elsewhere.object()["incident"] == "refused"


def send_refused(unit: Unit) -> None:
    with pytest.raises(ConnectionRefusedError):
        send(unit, b"")


# With anybody

def test_a_message_in_small_segments_is_put_together(unit: Unit,
                                                     watch: Callable[..., Beside]) -> None:
    beside = watch("--json")
    whole = frame.encode(REMOVAL)
    send(unit, *(whole[at:at + 3] for at in range(0, len(whole), 3)))
    assert beside.object()["text"] == REMOVAL


def test_what_is_no_message_is_shown_with_its_bytes(unit: Unit,
                                                    watch: Callable[..., Beside]) -> None:
    beside = watch("--json")
    send(unit, b"GET / HTTP/1.0\r\n\r\n")
    told = beside.object()
    assert told["reason"] == ("the first length field is 18245, a frame has 4 to 16384;"
                              " the peer closed the connection")
    assert bytes.fromhex(told["bytes"]) == b"GET / HTTP/1.0\r\n\r\n"


def test_random_bytes_come_back_whole(unit: Unit, watch: Callable[..., Beside]) -> None:
    chance = random.Random(7)
    beside = watch("--json")
    for _ in range(100):
        sent = chance.randbytes(chance.randrange(1, 400))
        send(unit, sent)
        shown = b""
        while len(shown) < len(sent):
            shown += bytes.fromhex(beside.object()["bytes"])
        assert shown == sent
    send(unit, frame.encode(REMOVAL))
    assert beside.object()["text"] == REMOVAL


def test_more_connections_than_it_follows_push_the_oldest_out(
        unit: Unit, watch: Callable[..., Beside]) -> None:
    unit.application.listen(Mode.NEVER_READ)
    beside = watch("--json")
    held = [unit.sandbox.in_network(
        lambda: socket.create_connection(("127.0.0.1", PORT), timeouts.EVENT))
        for _ in range(CONNECTIONS + 1)]
    assert beside.object()["reason"] == "no byte was sent; too many connections are open"
    held[-1].sendall(frame.encode(REMOVAL))
    assert beside.object()["text"] == REMOVAL
    for connection in held:
        connection.close()


# The program

def test_count_counts_messages_only(unit: Unit) -> None:
    unit.application.leave()
    beside = Beside(unit, "--json", "--count=1")
    send_refused(unit)
    assert beside.object()["incident"] == "refused"
    unit.application.listen()
    send(unit, frame.encode(REMOVAL))
    assert beside.object()["well_formed"]
    assert beside.process.wait() == 0


def test_without_the_capability_it_says_what_it_takes(unit: Unit) -> None:
    done = unit.sandbox.run(["setpriv", "--bounding-set=-net_raw",
                             target.program("voldrake-monitor"), "--beside"])
    assert (done.returncode, done.stdout) == (1, "")
    assert re.fullmatch(
        r"voldrake-monitor: cannot capture on lo: .*; it requires root, or the capability"
        r" CAP_NET_RAW\n", done.stderr)


def test_it_takes_a_port(unit: Unit) -> None:
    done = unit.sandbox.run([target.program("voldrake-monitor"), "--beside", "--port=0"])
    assert (done.returncode, done.stdout, done.stderr) == (
        1, "", "voldrake-monitor: --beside needs the application's port\n")
