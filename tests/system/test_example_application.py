"""The example of a display application, docs/examples/display.py: what it shows is what is there,
whatever waited while it was away."""

import re
import signal
import socket
from contextlib import ExitStack

import pytest

from local_volumes import OTHER, STICK, arrival
from testbed import target, timeouts
from testbed.daemon import DEBUG, INFO
from testbed.frame import encode
from testbed.process import Process
from testbed.unit import Unit
from testbed.waiting import wait_until

_EXAMPLE = str(target.INSIDE / "examples" / "display.py")
#: How many connections the kernel keeps for the example before it accepts one.
_WAITING_CONNECTIONS = 17


def start_example(unit: Unit, ask: str = "") -> Process:
    """The example as the unit's application; `ask` is what it does once it listens."""
    unit.sandbox.path("/tmp/listens").unlink(missing_ok=True)
    example = unit.sandbox.spawn(
        ["python3", _EXAMPLE, f"--port={unit.application.port}",
         f"--ask=touch /tmp/listens; {ask}"], "display")
    wait_until(unit.sandbox.path("/tmp/listens").exists, "the example listens", timeouts.START)
    return example


def said(example: Process, what: str) -> list[str]:
    """The rest of each line that begins with this word; the example has been ended."""
    return [line.removeprefix(f"{what}:").strip() for line in
            example.out.read_text().splitlines() if line.startswith(f"{what}:")]


def ask(unit: Unit) -> None:
    """Have everything told again, and return when the daemon has begun with it."""
    unit.daemon.signal(signal.SIGUSR1)
    unit.daemon.expect_log(INFO, "SIGUSR1: Republishing all mounted FS to VessaApp")
    unit.settle()


def connect(unit: Unit) -> socket.socket:
    """A connection to the application that carries nothing yet."""
    return unit.sandbox.in_network(lambda: socket.create_connection(
        ("127.0.0.1", unit.application.port), timeouts.EVENT))


def test_volumes_come_and_go(running_unit: Unit) -> None:
    unit = running_unit
    unit.application.leave()
    example = start_example(unit)
    example.expect_stdout("shown:\n")
    unit.hal.plug(STICK)
    example.expect_stdout("received: dataarrival /media/sda1\n"
                          "shown: /media/sda1 (USB Mass Storage)\n", timeouts.RETRY)
    unit.hal.pull("stick")
    example.expect_stdout("received: dataremoval /media/sda1\n", timeouts.RETRY)
    example.kill()
    assert said(example, "shown") == ["", "/media/sda1 (USB Mass Storage)", ""]


def test_after_a_restart_it_shows_what_was_told_to_its_predecessor(running_unit: Unit) -> None:
    unit = running_unit
    unit.application.leave()
    example = start_example(unit)
    unit.hal.plug(STICK)
    example.expect_stdout("received: dataarrival /media/sda1\n", timeouts.RETRY)
    example.kill()
    unit.hal.plug(OTHER)
    unit.settle()

    example = start_example(unit)
    ask(unit)
    both = "shown: /media/sda1 (USB Mass Storage) /media/sdb1 (USB Mass Storage)\n"
    example.expect_stdout(both, timeouts.RETRY)
    example.kill()


def pull_a_stick_while_it_is_away(unit: Unit) -> None:
    """The application goes; two sticks come, and one of them is pulled."""
    unit.application.leave()
    unit.hal.plug(STICK)
    unit.hal.plug(OTHER)
    unit.settle()
    unit.hal.pull("stick")
    unit.settle()


def test_a_stick_pulled_while_it_was_away_is_not_shown(running_unit: Unit) -> None:
    """The arrival that waited is delivered, the removal behind it is dropped by the signal: by
    the messages alone the stick is there for good."""
    unit = running_unit
    pull_a_stick_while_it_is_away(unit)

    # Room for the two arrivals, so that the removal stays in the daemon's queue.
    unit.daemon.process.pause()
    example = start_example(unit, "until test -e /tmp/asked; do sleep 0.1; done")
    with ExitStack() as crowd:
        for _ in range(_WAITING_CONNECTIONS - 2):
            crowd.enter_context(connect(unit))
        unit.daemon.process.resume()
        for _ in range(2):
            unit.daemon.expect_log(DEBUG, re.compile("data size: .*"), timeouts.RETRY)
        ask(unit)
        unit.sandbox.write("/tmp/asked", "")
    again = "received: dataarrival /media/sdb1\n"
    example.expect_stdout(re.compile(f"{again}(shown: .*\n)?{again}"), timeouts.RETRY)
    unit.hal.pull("other")
    example.expect_stdout("received: dataremoval /media/sdb1\n", timeouts.RETRY)
    example.kill()

    assert listed_by_messages(said(example, "received")) == {"/media/sda1"}
    assert said(example, "shown") == ["", "/media/sdb1 (USB Mass Storage)", ""]


def listed_by_messages(told: list[str]) -> set[str]:
    """The list of an application that goes by the messages alone."""
    paths: set[str] = set()
    for line in told:
        kind, path = line.split(" ", 1)
        (paths.add if kind == "dataarrival" else paths.discard)(path)
    return paths


def test_a_daemon_that_is_started_after_it_listens_has_nothing_that_waits(unit: Unit) -> None:
    """So the messages alone are enough then."""
    unit.start_daemon()
    pull_a_stick_while_it_is_away(unit)
    assert unit.daemon.terminate() == 0
    example = start_example(unit)
    unit.start_daemon()
    unit.hal.pull("other")
    example.expect_stdout("received: dataremoval /media/sdb1\n", timeouts.RETRY)
    example.kill()
    assert said(example, "received") == ["dataarrival /media/sdb1", "dataremoval /media/sdb1"]


def test_a_volume_is_found_behind_a_link(running_unit: Unit) -> None:
    """As where the image has a link in place of /mnt."""
    unit = running_unit
    unit.application.leave()
    unit.sandbox.path("/tmp/link").symlink_to("/media")
    example = start_example(unit)
    with connect(unit) as other:
        other.sendall(encode(arrival("/tmp/link/sda1")))
    example.expect_stdout("received: dataarrival /tmp/link/sda1\n")
    unit.hal.plug(STICK)
    example.expect_stdout("shown: /tmp/link/sda1 (USB Mass Storage)", timeouts.RETRY)
    example.kill()


@pytest.mark.parametrize("sent", [
    b"", b"\0", encode("<message/>")[:-1], encode("<message/>"), encode("<message >"),
    b"\0\x06\0\0\0\x02\xd8\0", b"\0\x06\0\x01\0\x02\0a", b"\0\x06\0\0\0\x04\0a",
    b"\0\x05\0\0\0\x01a",
    encode("<message ><content><dataarrival path='&#300;'/></content></message>"),
    encode("<!DOCTYPE message [<!ENTITY a 'b'>]><message ><content/></message>"),
], ids=repr)
def test_what_the_daemon_does_not_send_is_ignored(running_unit: Unit, sent: bytes) -> None:
    unit = running_unit
    unit.application.leave()
    example = start_example(unit)
    with connect(unit) as other:
        other.sendall(sent)
    unit.hal.plug(STICK)
    example.expect_stdout("shown: /media/sda1 (USB Mass Storage)\n", timeouts.RETRY)
    example.kill()
    assert len(said(example, "ignored")) == 1
    assert said(example, "received") == ["dataarrival /media/sda1"]


def test_a_connection_that_says_nothing_is_given_up(running_unit: Unit) -> None:
    unit = running_unit
    unit.application.leave()
    example = start_example(unit)
    with connect(unit):
        unit.hal.plug(STICK)
        example.expect_stdout("received: dataarrival /media/sda1\n", timeouts.RETRY)
    example.kill()
    assert said(example, "ignored") == ["timed out"]
