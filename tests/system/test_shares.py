"""`voldrake-shares` as a program: what it lists and sends on a wire between two units."""

import itertools
import json
import os
import signal
import socket
import struct
from pathlib import Path
from typing import Any, Callable, Iterator

import pytest

from testbed import target, timeouts
from testbed.network import Network
from testbed.process import Process
from testbed.sandbox import Sandbox
from testbed.strace import Strace
from testbed.tape import Channel, Tape, Wanted
from testbed.waiting import wait_until

PROGRAM = target.INSIDE / "bin" / "voldrake-shares"
HERE, THERE = "169.254.1.1", "169.254.1.2"
GROUP = ("224.1.1.1", 10000)
#: linux/in.h; Python has no name for it.
IP_RECVTTL = 12
#: How long a share lives after its last announcement.
LIFE_SECONDS = 3
#: /media/sda1, no key, "Name", read-only.
DATAGRAM = bytes.fromhex(
    "78563412 0100 0100 e803 0100 0100 0c00 0100 0500"
) + b"/media/sda1\0\0Name\0"

_numbers = itertools.count()


@pytest.fixture(name="here")
def _here(sandboxes: tuple[Sandbox, Sandbox]) -> Sandbox:
    return sandboxes[0]


@pytest.fixture(name="there")
def _there(sandboxes: tuple[Sandbox, Sandbox]) -> Sandbox:
    return sandboxes[1]


@pytest.fixture(name="sandboxes")
def _sandboxes(log_directory: Path) -> Iterator[tuple[Sandbox, Sandbox]]:
    """Two units on a wire of their own, without daemons."""
    mounts = target.read_only_mounts()
    with (
        Network(f"w{os.getpid()}n{next(_numbers)}") as network,
        Sandbox(log_directory / "here", mounts) as here,
        Sandbox(log_directory / "there", mounts) as there,
    ):
        network.join(here, HERE)
        network.join(there, THERE)
        yield here, there


class Listing:
    """The program listing in a sandbox: each line is an event."""

    def __init__(self, sandbox: Sandbox, *options: str) -> None:
        self.events = Channel(Tape(), "shares")
        self.process: Process = sandbox.spawn(
            [str(PROGRAM), *options], "listing", on_line=self.events.record)
        self.process.expect_stderr("listening")

    def line(self, timeout: float = timeouts.EVENT) -> str:
        """The next line."""
        return self.events.expect(Wanted("any line", lambda _: True), timeout).text

    def object(self, timeout: float = timeouts.EVENT) -> dict[str, Any]:
        """The next line as a JSON object, without its time."""
        told = json.loads(self.line(timeout))
        told.pop("time")
        return told


def send(sandbox: Sandbox, *datagrams: bytes) -> None:
    """Send datagrams from a sandbox to the group."""
    def action() -> None:
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
            for datagram in datagrams:
                sender.sendto(datagram, GROUP)
    sandbox.in_network(action)


def heard_by(sandbox: Sandbox, address: str, action: Callable[[], object]) -> tuple[bytes, int]:
    """The datagram that comes to port 10000 of an address while `action` runs, and its TTL."""
    def listen() -> socket.socket:
        receiver = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        receiver.setsockopt(socket.IPPROTO_IP, IP_RECVTTL, 1)
        receiver.bind((address, GROUP[1]))
        if address == GROUP[0]:
            membership = socket.inet_aton(address) + socket.inet_aton("0.0.0.0")
            receiver.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, membership)
        return receiver
    with sandbox.in_network(listen) as receiver:
        receiver.settimeout(timeouts.EVENT)
        action()
        datagram, ancillary, _, _ = receiver.recvmsg(2000, 64)
        return datagram, struct.unpack("i", ancillary[0][2])[0]


def is_read(sandbox: Sandbox) -> bool:
    """True when no datagram waits in the sandbox."""
    table = sandbox.in_network(Path("/proc/thread-self/net/udp").read_text)
    return all(line.split()[4].endswith(":00000000") for line in table.splitlines()[1:])


def run(sandbox: Sandbox, *words: str) -> str:
    """Run the program to its good end; its output."""
    result = sandbox.run([str(PROGRAM), *words])
    assert result.returncode == 0, result.stderr
    return result.stdout


SHARE = ("--path", "/media/sda1", "--name", "Name", "--read-only")


def test_an_announcement_is_the_datagram_of_a_unit(here: Sandbox, there: Sandbox) -> None:
    datagram, time_to_live = heard_by(there, GROUP[0], lambda: run(here, "announce", *SHARE))
    assert (datagram, time_to_live) == (DATAGRAM, 5)


def test_a_withdrawal_to_one_unit(here: Sandbox, there: Sandbox) -> None:
    datagram, _ = heard_by(
        there, THERE, lambda: run(here, "withdraw", *SHARE, "--to", THERE))
    assert datagram == DATAGRAM[:6] + b"\2" + DATAGRAM[7:]


def test_every_field_can_be_chosen(here: Sandbox, there: Sandbox) -> None:
    datagram, _ = heard_by(there, GROUP[0], lambda: run(
        here, "announce", "--path", "/p", "--key", "k", "--media-type", "513", "--type", "9",
        "--interface", "eth0"))
    assert datagram == bytes.fromhex(
        "78563412 0100 0900 e803 0102 0000 0300 0200 0100") + b"/p\0k\0\0"


def test_a_share_comes_and_goes(here: Sandbox, there: Sandbox) -> None:
    listing = Listing(there, "--json")
    share = {"sender": HERE, "path": "/media/sda1", "key": "", "friendlyname": "Name",
             "mediatype": 1, "readonly": True}
    run(here, "announce", *SHARE)
    assert listing.object() == {"event": "appeared"} | share
    run(here, "announce", *SHARE)
    run(here, "announce", "--path", "/media/sda1", "--name", "Other")
    changed = share | {"friendlyname": "Other", "readonly": False}
    assert listing.object() == {"event": "changed"} | changed
    run(here, "withdraw", "--path", "/media/sda1")
    assert listing.object() == {"event": "withdrawn"} | changed
    assert listing.process.terminate() == 0


def test_a_share_that_is_repeated_stays_and_goes_three_seconds_after_it_fell_silent(
    here: Sandbox, there: Sandbox
) -> None:
    listing = Listing(there, "--json")
    repeating = here.spawn([str(PROGRAM), "announce", *SHARE, "--repeat"])
    assert listing.object()["event"] == "appeared"
    present = run(there, "--once", "4", "--json").splitlines()
    assert [json.loads(line)["event"] for line in present] == ["present"]
    assert repeating.terminate() == 0
    with Strace(listing.process, there.logs / "strace", "-s", "500",
                "-e", "trace=write,recvmsg,recvfrom") as trace:
        run(here, "announce", *SHARE)
        assert listing.object()["event"] == "silent"
    heard = trace.times(r"^recv.*= [1-9]")
    told, = trace.times("^write.*silent")
    assert told - heard[-1] >= LIFE_SECONDS
    # In the four seconds it did not go and come back.
    assert listing.process.terminate() == 0
    lines = listing.process.stdout().splitlines()
    assert [json.loads(line)["event"] for line in lines] == ["appeared", "silent"]


def test_once_lists_and_ends(here: Sandbox, there: Sandbox) -> None:
    listing = Listing(there)
    repeating = here.spawn([str(PROGRAM), "announce", *SHARE, "--repeat"])
    assert "appeared" in listing.line()
    assert run(there, "--once", "4") == (
        '169.254.1.1:/media/sda1            "Name"                   read-only  media=1 key=""\n')
    assert repeating.terminate() == 0


@pytest.mark.parametrize("seconds", ["0.2", "0"])
@pytest.mark.parametrize("form", [[], ["--json"]], ids=["table", "json"])
def test_once_says_that_nothing_was_announced(there: Sandbox, seconds: str,
                                              form: list[str]) -> None:
    done = there.run([str(PROGRAM), f"--once={seconds}", *form])
    assert (done.returncode, done.stdout, done.stderr) == (
        0, "", "voldrake-shares: no share was announced\n")


@pytest.mark.parametrize("command, does", [
    ([], "Shows the shares that units announce"),
    (["announce"], "Sends the announcement of one share"),
    (["withdraw"], "Sends the withdrawal of one share")], ids=["list", "announce", "withdraw"])
def test_the_help_is_of_the_command(here: Sandbox, command: list[str], does: str) -> None:
    lines = run(here, *command, "--help").splitlines()
    assert lines[0] == " ".join(["Usage: voldrake-shares", *command, "[OPTION]..."])
    assert lines[2].startswith(does)
    assert ("  --path=PATH" in "\n".join(lines)) == bool(command)


def test_malformed_datagrams_are_shown_and_listening_goes_on(
    here: Sandbox, there: Sandbox
) -> None:
    listing = Listing(there, "--json")
    malformed = [b"x", DATAGRAM[:20], DATAGRAM[:21], b"\x12" + DATAGRAM[1:], DATAGRAM + b"x",
                 b"\x1b" * 9000]
    send(here, b"", *malformed, DATAGRAM)
    told = [listing.object() for _ in malformed]
    assert [bytes.fromhex(one["bytes"]) for one in told] == malformed
    assert [one["taken_by_units"] for one in told] == [False, False, True, False, True, False]
    assert {(one["event"], one["sender"]) for one in told} == {("malformed", HERE)}
    assert listing.object()["event"] == "appeared"


def test_text_from_the_network_cannot_drive_the_terminal(here: Sandbox, there: Sandbox) -> None:
    listing = Listing(there)
    run(here, "announce", "--path", "/\x1b[2J\n", "--name", 'K\u00fc\x9b"')
    assert listing.line().split("  ", 1)[1] == (
        r'appeared   169.254.1.1:/\x1b[2J\x0a           "Kü\xc2\x9b\""           '
        'writable   media=1 key=""')


def test_a_flood_of_shares_is_bounded(here: Sandbox, there: Sandbox) -> None:
    quiet = there.spawn(["/bin/sh", "-c", f"exec {PROGRAM} >/dev/null"], "flooded")
    quiet.expect_stderr("listening")

    def named(number: int) -> bytes:
        path = b"/%d" % number + b"x" * 1000 + b"\0"
        return DATAGRAM[:14] + struct.pack("<H", len(path)) + DATAGRAM[16:20] + path + b"\0Name\0"
    send(here, *(named(number) for number in range(20000)))
    wait_until(lambda: is_read(there), "all that came is read")
    assert quiet.status("VmRSS") < 100_000  # KB; 20,000 would be more
    quiet.signal(signal.SIGINT)
    assert quiet.wait() == 0


@pytest.mark.parametrize(("words", "complaint"), [
    (["announce"], "--path is missing"),
    (["announce", "--path", "/x", "--media-type", "65536"], "a type must be 0 to 65535"),
    (["announce", "--path", "/" + "x" * 1480], "the texts do not fit into 1500 bytes"),
    (["announce", "--path", "/x", "--to", "unit"], "unit is not a valid IPv4 address"),
    (["announce", "--path", "/x", "--interface", "eth9"], "there is no interface eth9"),
    (["--interface", "eth9"], "there is no interface eth9"),
    (["--once", "-1"], "the seconds must be 0 to 86400"),
    (["--once=nan"], "the seconds must be 0 to 86400"),
    (["--once=2s"], "the seconds must be 0 to 86400"),
    (["--once="], "the seconds must be 0 to 86400"),
    (["other"], "unknown command: other"),
])
def test_what_cannot_be_done_is_told(here: Sandbox, words: list[str], complaint: str) -> None:
    result = here.run([str(PROGRAM), *words])
    assert (result.returncode, result.stdout) == (1, "")
    assert result.stderr == f"voldrake-shares: {complaint}\n"


def test_a_missing_route_is_told(here: Sandbox) -> None:
    removed = here.run(["ip", "route", "delete", "224.0.0.0/4"])
    assert removed.returncode == 0, removed.stderr
    listing = here.run([str(PROGRAM), "--once", "1"])
    assert listing.returncode == 1
    assert listing.stderr == (
        "voldrake-shares: cannot join 224.1.1.1 port 10000: Error joining multicast group: "
        "No such device (is there a route to it? Otherwise name an interface)\n")
    assert run(here, "--once", "0.1", "--interface", "eth0") == ""
