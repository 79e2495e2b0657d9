"""When messages go out: one per connection and tick, in order, and what a bad application costs."""

import contextlib
import re
import signal
import socket
import threading
from pathlib import Path
from typing import Callable

import pytest

from local_volumes import STICK, arrival, removal, told
from observations import processor_seconds, wait_until
from testbed import timeouts
from testbed.application import Mode
from testbed.daemon import INFO
from testbed.strace import Strace
from testbed.unit import Unit

#: Sticks at ports of the second hub have a name that makes a message of 16,000 bytes.
_LONG = 7700 * "n"
_long_names = pytest.mark.unit_options(configuration=f"name={_LONG}\nusbid=2-1\n")
_TICK, _RETRY, _DELIVERY, _SHUTDOWN = 0.5, 10.0, 2.0, 3.0
#: What strace's clock and the daemon's may differ by.
_ROUNDING = 0.01
_TICKS_OF_RETRY = 20
_CONNECT = r"^connect\(.*sin_port=htons\(8080\)"

#: Deals with a connection; the text that was read, or the connection if it is to stay open.
Step = Callable[[socket.socket], str | socket.socket | None]


class ScriptedApplication:
    """An application that treats each of its first connections in a way of its own.

    Later connections are read to their ends like those of the step `read`. One connection at a
    time. Ends with the block that it is used in.
    """

    def __init__(self, unit: Unit, *steps: Step) -> None:
        self.texts: list[str | None] = []
        self._kept: list[socket.socket] = []
        self._unit = unit
        self._steps = steps
        self._changed = threading.Condition()

    def __enter__(self) -> "ScriptedApplication":
        self._unit.application.leave()
        self._listener = self._unit.sandbox.in_network(
            lambda: socket.create_server(("127.0.0.1", self._unit.application.port)))
        self._thread = threading.Thread(target=self._serve, daemon=True)
        self._thread.start()
        return self

    def __exit__(self, *_: object) -> None:
        self._listener.shutdown(socket.SHUT_RDWR)
        self._thread.join(timeouts.STOP)
        self._listener.close()
        for connection in self._kept:
            connection.close()

    def wait_for(self, connections: int, timeout: float) -> None:
        """Wait until so many connections have been dealt with."""
        with self._changed:
            assert self._changed.wait_for(lambda: len(self.texts) >= connections, timeout), (
                f"only {len(self.texts)} connections: {self.texts}")

    def _serve(self) -> None:
        while True:
            try:
                connection, _ = self._listener.accept()
            except OSError:
                return
            number = len(self.texts)
            step = self._steps[number] if number < len(self._steps) else read
            outcome = step(connection)
            if isinstance(outcome, socket.socket):
                self._kept.append(outcome)
            else:
                connection.close()
            with self._changed:
                self.texts.append(outcome if isinstance(outcome, str) else None)
                self._changed.notify_all()


def read(connection: socket.socket) -> str | None:
    """Read the frame to its end; its text."""
    raw = b""
    while piece := connection.recv(65536):
        raw += piece
    return raw[6:].decode("utf-16-be")


def close_early(connection: socket.socket) -> None:
    """Read a few bytes and close with the rest unread."""
    connection.recv(8)


def leave_open(connection: socket.socket) -> socket.socket:
    """Read nothing and keep the connection."""
    return connection


def trickle(connection: socket.socket) -> socket.socket:
    """Read on all the while, far too slowly."""
    pause = threading.Event()

    def body() -> None:
        with contextlib.suppress(OSError):
            while connection.recv(16):
                pause.wait(0.05)

    threading.Thread(target=body, daemon=True).start()
    return connection


def shrink_buffers(unit: Unit) -> None:
    """Let the kernel take so little of a message that sending it waits for its reader."""
    for name in ("ipv4/tcp_wmem", "ipv4/tcp_rmem"):
        unit.sandbox.set_network_option(name, "4096 4096 4096")


def long_arrival(letter: str) -> str:
    """The message of a stick with the long name."""
    return arrival(f"/media/sd{letter}1", name=f" - {_LONG}")


def tcp_counter(unit: Unit, name: str) -> int:
    """What the kernel has counted in the unit's network so far."""
    counters = unit.sandbox.in_network(lambda: Path("/proc/thread-self/net/snmp").read_text())
    names, values = [line.split() for line in counters.splitlines() if line.startswith("Tcp:")]
    return int(values[names.index(name)])


def refused(unit: Unit, publish: Callable[[], object]) -> None:
    """Have a message published while the application is absent, and one attempt made for it."""
    before = tcp_counter(unit, "AttemptFails")
    publish()
    wait_until(lambda: tcp_counter(unit, "AttemptFails") > before, "an attempt is refused")


def gaps(times: list[float]) -> list[float]:
    """The times between neighbours."""
    return [later - earlier for earlier, later in zip(times, times[1:])]


def traced(unit: Unit) -> Strace:
    """The daemon's connections, waits and log lines, with the times of its own clock."""
    return Strace(unit.daemon.process, unit.sandbox.logs / "strace", "-s", "1000",
                  "-e", "trace=connect,write,exit_group,/futex,/poll")


def woken(trace: Strace) -> list[bool]:
    """For each connection, whether the wait before it ended by a call and not by its time."""
    ran_out: dict[str, bool] = {}
    found = []
    for call in trace.made():
        if re.search(_CONNECT, call.text):
            found.append(not ran_out.get(call.thread, True))
        if "FUTEX_WAIT_BITSET" in call.text:
            ran_out[call.thread] = call.timed_out()
    return found


def test_a_message_goes_out_at_once(running_unit: Unit) -> None:
    """It ends the wait. Once in a while that ends of itself at the same moment; not five times."""
    unit = running_unit
    with traced(unit) as trace:
        for number in range(5):
            unit.hal.plug(f"usb stick{number}")
            text = unit.application.next_text()
            assert text == arrival(f"/media/sd{'abcde'[number]}1")
            unit.daemon.expect_log(3, text)
            trace.expect("FUTEX_WAIT_BITSET.*ETIMEDOUT")
    assert len(woken(trace)) == 5
    assert any(woken(trace))


def test_waiting_messages_go_out_with_the_next_one_in_order_one_each_tick(
        running_unit: Unit) -> None:
    """A new message ends the wait for the next try; each message has a connection of its own."""
    unit = running_unit
    unit.application.leave()
    refused(unit, lambda: unit.hal.plug("usb first"))
    refused(unit, lambda: unit.hal.plug("usb second"))
    refused(unit, lambda: unit.hal.pull("first"))
    with traced(unit) as trace:
        unit.application.listen()
        unit.hal.plug("usb third volume-block=/dev/sdx1")
        assert told(unit, 4) == [arrival("/media/sda1"), arrival("/media/sdb1"),
                                 removal("/media/sda1"), arrival("/media/sdx1")]
        unit.settle()
    for gap in gaps(trace.times(_CONNECT)[-4:]):
        assert gap >= _TICK - _ROUNDING
    assert trace.waits_between(_CONNECT)[-3:] == [1, 1, 1]


def test_an_absent_application_is_tried_again_after_ten_seconds(running_unit: Unit) -> None:
    """Nothing but the time makes the daemon try again; the other messages follow tick by tick."""
    unit = running_unit
    unit.application.leave()
    refused(unit, lambda: unit.hal.plug("usb first"))
    with traced(unit) as trace:
        refused(unit, lambda: unit.hal.plug("usb second"))
        unit.application.listen()
        assert told(unit, 2, timeouts.RETRY) == [arrival("/media/sda1"), arrival("/media/sdb1")]
        unit.settle()
    retry, tick = gaps(trace.times(_CONNECT)[-3:])
    assert retry >= _RETRY - _ROUNDING
    assert tick >= _TICK - _ROUNDING
    assert trace.waits_between(_CONNECT)[-2:] == [_TICKS_OF_RETRY, 1]


def test_a_connection_to_itself_reaches_no_application(running_unit: Unit) -> None:
    """Where nobody listens and its own end gets the same port, a socket connects to itself."""
    unit = running_unit
    unit.application.leave()
    port, others = unit.application.port, "32768 60999"
    unit.sandbox.set_network_option("ipv4/ip_local_port_range", f"{port} {port}")
    before = tcp_counter(unit, "EstabResets")
    unit.hal.plug("usb first")
    wait_until(lambda: tcp_counter(unit, "EstabResets") > before, "the connection is closed again")
    unit.sandbox.set_network_option("ipv4/ip_local_port_range", others)
    unit.application.listen()
    unit.hal.plug("usb second")
    assert told(unit, 2) == [arrival("/media/sda1"), arrival("/media/sdb1")]


@_long_names
def test_a_message_whose_sending_fails_is_lost_and_the_next_waits_ten_seconds(
        running_unit: Unit) -> None:
    """All four wait for the application; the third is cut off by it."""
    unit = running_unit
    shrink_buffers(unit)
    unit.application.leave()
    refused(unit, lambda: unit.hal.plug("usb first port=2-1.1"))
    refused(unit, lambda: unit.hal.plug("usb second port=1-1.1"))
    refused(unit, lambda: unit.hal.plug("usb third port=2-1.2"))
    with (traced(unit) as trace,
          ScriptedApplication(unit, read, read, close_early) as application):
        unit.hal.plug("usb fourth port=1-1.2")
        application.wait_for(3, timeouts.EVENT)
        application.wait_for(4, timeouts.RETRY)
        unit.settle()
    assert application.texts == [long_arrival("a"), arrival("/media/sdb1"), None,
                                 arrival("/media/sdd1")]
    second, third, fourth = gaps(trace.times(_CONNECT)[-4:])
    assert second >= _TICK - _ROUNDING
    assert third >= _TICK - _ROUNDING
    assert fourth >= _RETRY - _ROUNDING
    assert trace.waits_between(_CONNECT)[-3:] == [1, 1, _TICKS_OF_RETRY]


@pytest.mark.parametrize("mode", [Mode.RESET, Mode.CLOSE_EARLY, Mode.NEVER_READ])
def test_a_bad_connection_never_costs_the_next_message(running_unit: Unit, mode: Mode) -> None:
    unit = running_unit
    unit.application.listen(mode)
    unit.hal.plug("usb first")
    unit.application.events.expect(f"(a connection; {mode.value})")
    unit.settle()
    unit.application.listen()
    unit.hal.plug("usb second")
    unit.application.expect_message("dataarrival", path="/media/sdb1")
    unit.hal.pull("first")
    unit.application.expect_message("dataremoval", path="/media/sda1")


@_long_names
@pytest.mark.parametrize("step", [leave_open, trickle], ids=["never reads", "hardly reads"])
def test_an_application_that_does_not_read_on_is_given_up_after_two_seconds(
        running_unit: Unit, step: Step) -> None:
    """Its message is lost; meanwhile the daemon uses no processor time and leaks no descriptor."""
    unit = running_unit
    shrink_buffers(unit)
    with traced(unit) as trace, ScriptedApplication(unit, step) as application:
        unit.hal.plug("usb first port=2-1.1")
        application.wait_for(1, timeouts.EVENT)
        unit.hal.plug("usb second port=1-1.1")
        unit.settle()
        used = processor_seconds(unit)
        assert unit.daemon.process.inherited_descriptors().keys() <= {0, 1, 2}
        application.wait_for(2, timeouts.EVENT)
        assert processor_seconds(unit) - used <= 0.2 * timeouts.SCALE
        assert application.texts[1] == arrival("/media/sdb1")
        unit.settle()
    published = trace.times("^write.*<message ")[0]
    assert trace.times(_CONNECT)[1] - published >= _DELIVERY - _ROUNDING


def test_an_application_that_takes_no_connection_is_given_up_after_two_seconds(
        running_unit: Unit) -> None:
    """No message is lost by that: the first goes out as soon as somebody listens again."""
    unit = running_unit
    unit.application.listen(Mode.NEVER_ACCEPT)
    unit.hal.plug("usb first")
    unit.hal.plug("usb second")
    unit.settle()
    unit.application.listen()
    assert told(unit, 2) == [arrival("/media/sda1"), arrival("/media/sdb1")]


def test_failed_attempts_leave_no_descriptors(running_unit: Unit) -> None:
    unit = running_unit
    unit.hal.plug("usb other")
    unit.application.next_text()
    unit.settle()
    before = len(unit.daemon.process.descriptors())
    unit.application.leave()
    for _ in range(10):
        unit.hal.plug(STICK)
        unit.settle()
        unit.hal.pull("stick")
        unit.settle()
    # After the first signal only this text waits, so that it is the next one of any attempt.
    unit.daemon.signal(signal.SIGUSR1)
    unit.daemon.expect_log(INFO, "SIGUSR1: Republishing all mounted FS to VessaApp")
    unit.settle()
    unit.application.listen()
    unit.daemon.signal(signal.SIGUSR1)
    assert unit.application.next_text() == arrival("/media/sda1")
    # Other threads have sockets for moments.
    wait_until(lambda: len(unit.daemon.process.descriptors()) <= before,
               "only the former ones are open")


def test_an_answer_of_the_application_is_not_waited_for(running_unit: Unit) -> None:
    """It may keep the connection open after the frame, and say what it likes."""
    unit = running_unit
    talking = threading.Event()

    def talk(connection: socket.socket) -> str | None:
        connection.sendall(b"HTTP/1.1 200 OK\r\n\r\n")
        talking.set()
        return None

    with ScriptedApplication(unit, talk) as application:
        unit.hal.plug("usb first")
        assert talking.wait(timeouts.EVENT)
        unit.hal.plug("usb second")
        application.wait_for(2, timeouts.EVENT)
        assert application.texts[1] == arrival("/media/sdb1")


@pytest.mark.usefixtures("traced_to_its_end")
@pytest.mark.parametrize("mode", [
    pytest.param(Mode.NEVER_READ, marks=_long_names), Mode.NEVER_ACCEPT, None],
    ids=["never reads", "takes no connection", "is absent"])
def test_a_bad_application_does_not_hold_up_the_end(running_unit: Unit, mode: Mode | None) -> None:
    """Three seconds of the end belong to the other units, two at most to the application: two for
    each message would be too long."""
    unit = running_unit
    if mode is Mode.NEVER_READ:
        shrink_buffers(unit)
    if mode:
        unit.application.listen(mode)
    else:
        unit.application.leave()
    for number in range(3):
        unit.hal.plug(f"usb stick{number} port=2-1.{number + 1}")
    unit.settle()
    with traced(unit) as trace:
        unit.daemon.signal(signal.SIGTERM)
        assert unit.daemon.wait() == 0
    begin, end = trace.times("^write.*  Exiting|^exit_group")
    assert end - begin >= _SHUTDOWN
