"""A unit on the wire that lives in the test process, and what it says and hears.

`OtherUnit` has a network of its own with an eth0 on the wire; it sends announcements, records what
others send, and answers ARP or does not. `Announcement` is the datagram, written from its format
alone so that it can contradict the daemon:

    offset  0  4 bytes  magic 0x12345678         offset 12  2 bytes  0 writable, else read-only
    offset  4  2 bytes  version 1                offset 14  2 bytes  L1, path with its zero byte
    offset  6  2 bytes  1 announces, 2 withdraws offset 16  2 bytes  L2, key with its zero byte
    offset  8  2 bytes  1000                     offset 18  2 bytes  L3, name with its zero byte
    offset 10  2 bytes  media type               offset 20  path, key, name, each with a zero byte

All fields are little-endian.
"""

import itertools
import socket
import struct
import threading
import time
from dataclasses import dataclass, replace
from pathlib import Path
from typing import Iterable

from testbed import timeouts
from testbed.application import FENCE_PATH
from testbed.lifespan import Lifespan
from testbed.network import Interface, Network
from testbed.sandbox import Sandbox
from testbed.tape import Channel, Mark, Match, Tape, Wanted

GROUP = "224.1.1.1"
PORT = 10000
#: Where a single byte goes that makes a kernel ask for a hardware address.
NUDGE_PORT = 2304
ANNOUNCED, WITHDRAWN = 1, 2

_HEADER = struct.Struct("<IHHHHHHHH")
_MAGIC = 0x12345678
_LOOPBACK = "127.0.0.1"
_IP_PKTINFO, _IP_RECVTTL, _SO_TIMESTAMPNS = 8, 12, 35  # missing from the module `socket`


class BadDatagram(AssertionError):
    """Bytes that are not one whole well-formed announcement."""


@dataclass(frozen=True)
class Announcement:
    """One announcement (or withdrawal) of a volume."""

    path: str
    key: str = ""
    name: str = ""
    read_only: int = 0
    media_type: int = 1
    message_type: int = ANNOUNCED

    def encode(self) -> bytes:
        """The datagram."""
        texts = [text.encode("utf-8", "surrogateescape") + b"\0"
                 for text in (self.path, self.key, self.name)]
        return _HEADER.pack(_MAGIC, 1, self.message_type, 1000, self.media_type, self.read_only,
                            *map(len, texts)) + b"".join(texts)

    def withdrawal(self) -> "Announcement":
        """The same volume, withdrawn."""
        return replace(self, message_type=WITHDRAWN)

    @staticmethod
    def decode(raw: bytes) -> "Announcement":
        """Raises BadDatagram unless every field and the length are as they must be."""
        if len(raw) < _HEADER.size:
            raise BadDatagram(f"only {len(raw)} bytes: {raw.hex(' ')}")
        magic, version, message_type, constant, media_type, read_only, *lengths = (
            _HEADER.unpack_from(raw))
        if (magic, version, constant) != (_MAGIC, 1, 1000) or message_type not in (1, 2):
            raise BadDatagram(f"bad header: {raw.hex(' ')}")
        if len(raw) != _HEADER.size + sum(lengths):
            raise BadDatagram(f"lengths {lengths} do not fit: {raw.hex(' ')}")
        texts, at = [], _HEADER.size
        for length in lengths:
            text = raw[at:at + length]
            if not text.endswith(b"\0") or b"\0" in text[:-1]:
                raise BadDatagram(f"not one zero-terminated text: {text!r}")
            texts.append(text[:-1].decode("utf-8", "surrogateescape"))
            at += length
        return Announcement(*texts, read_only, media_type, message_type)


@dataclass(frozen=True)
class Datagram:
    """One datagram that a peer heard."""

    raw: bytes
    sender: str
    sender_port: int
    destination: str
    port: int
    time_to_live: int
    received: float  # the kernel's time, in seconds since 1970

    def announcement(self) -> Announcement:
        """What is in it. Raises BadDatagram."""
        return Announcement.decode(self.raw)


class OtherUnit(Lifespan):
    """Another unit on the wire.

    It answers ARP like any host (`answer_arp` changes that) and records on its channel what
    comes to the group and to itself, on the announcements' port and on the one of the nudges:
    the data is a `Datagram`, the text "ADDRESS announces PATH", "ADDRESS withdraws PATH", "ADDRESS
    nudges" or the bytes in hexadecimal digits. It mounts nothing and exports nothing.
    """

    def __init__(self, network: Network, log_directory: Path, address: str,
                 tape: Tape | None = None, source: str = "peer") -> None:
        self.address = address
        self.events = Channel(tape or Tape(), source)
        self.sandbox = Sandbox(log_directory)
        self.eth0: Interface | None = None
        self._network = network
        self._marks = itertools.count(1)
        self._sender: socket.socket | None = None
        self._raw_sender: socket.socket | None = None
        self._listeners: list[socket.socket] = []
        self.announcers: list[Announcer] = []  # all that were made, in order

    def start(self) -> None:
        """Be on the wire and listen."""
        self.sandbox.start()
        self.eth0 = self._network.join(self.sandbox, self.address)
        self._sender = self.sandbox.in_network(self._make_sender)
        for port in (PORT, NUDGE_PORT):
            listener = self.sandbox.in_network(lambda: _listen(port))
            self._listeners.append(listener)
            threading.Thread(target=self._hear, args=(listener, port), daemon=True).start()

    def close(self) -> None:
        """Leave the wire. May be called again."""
        for announcer in self.announcers:
            announcer.stop()
        for one in (*self._listeners, self._sender, self._raw_sender):
            if one:
                try:
                    one.shutdown(socket.SHUT_RDWR)
                except OSError:
                    pass  # a socket without a connection says so and ends the reading all the same
                one.close()
        self.sandbox.close()

    def send(self, datagram: bytes | Announcement, to: str = GROUP, port: int = PORT) -> None:
        """Send one datagram from the own address."""
        assert self._sender
        raw = datagram.encode() if isinstance(datagram, Announcement) else datagram
        self._sender.sendto(raw, (to, port))

    def send_from(self, source: str, datagram: bytes | Announcement, to: str = GROUP) -> None:
        """Send one datagram that claims to come from another address."""
        raw = datagram.encode() if isinstance(datagram, Announcement) else datagram
        if not self._raw_sender:
            self._raw_sender = self.sandbox.in_network(lambda: socket.socket(
                socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_RAW))
        udp = struct.pack("!HHHH", PORT, PORT, 8 + len(raw), 0) + raw
        header = struct.pack("!BBHHHBBH4s4s", 0x45, 0, 20 + len(udp), 0, 0, 5,
                             socket.IPPROTO_UDP, 0, socket.inet_aton(source), socket.inet_aton(to))
        self._raw_sender.sendto(header + udp, (to, 0))

    def share(self, *volumes: Announcement) -> None:
        """Announce the volumes, often, until `withdraw`: they are not forgotten meanwhile."""
        self.announce(*volumes, period=0.2)

    def withdraw(self, volume: Announcement) -> None:
        """Announce nothing any more and withdraw this volume."""
        for announcer in self.announcers:
            announcer.stop()
        self.send(volume.withdrawal())

    def announce(self, *volumes: Announcement, period: float = 1.0) -> "Announcer":
        """Announce the volumes now and once a period from now on, until it is stopped."""
        announcer = Announcer(self, volumes, period)
        self.announcers.append(announcer)
        return announcer

    def answer_arp(self, answering: bool) -> None:
        """Whether others can learn the own hardware address by asking for it."""
        done = self.sandbox.run(
            ["ip", "link", "set", "eth0", "arp", "on" if answering else "off"])
        assert done.returncode == 0, done.stderr

    def expect(self, match: Match, timeout: float = timeouts.EVENT) -> Datagram:
        """Wait for a datagram; see `Channel.expect`."""
        return self.events.expect(match, timeout).data

    def expect_announcement(self, path: str, message_type: int = ANNOUNCED,
                            timeout: float = timeouts.EVENT) -> Announcement:
        """Wait for a well-formed announcement (or withdrawal) of this path."""
        word = "announces" if message_type == ANNOUNCED else "withdraws"
        return self.events.expect(Wanted(
            f"{word} {path}",
            lambda event: event.text.endswith(f" {word} {path}")), timeout).data.announcement()

    def heard(self, since: Mark = Mark(0), port: int = PORT,
              until: Match | None = None) -> list[Datagram]:
        """The datagrams that came to this port after the mark and before `until`, in order.

        Without `until` all that came to this unit by now are there: one of its own is waited for.
        What the daemon has not sent yet is not: expect what it does next.
        """
        if until is None:
            until = self._flush(port)
        heard = [event.data for event in self.events.until(until, since) if event.data]
        return [one for one in heard if one.port == port and FENCE_PATH.encode() not in one.raw]

    def mark(self) -> Mark:
        """A place on the tape behind all that came to this unit until now, for `since`."""
        self._flush(PORT)
        return self.events.tape.mark()

    def _flush(self, port: int) -> str:
        """Return when all that came to this port until now is recorded; the text of the event
        behind it."""
        text = f"fence{next(self._marks)}"
        self.send(text.encode(), _LOOPBACK, port)
        self.events.until(text)
        return text

    def _make_sender(self) -> socket.socket:
        sender = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        sender.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        sender.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_TTL, 5)
        sender.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_LOOP, 0)
        return sender

    def _hear(self, listener: socket.socket, port: int) -> None:
        while True:
            try:
                raw, control, _, sender = listener.recvmsg(65536, 256)
            except OSError:
                return
            if not sender or sender[0] == "0.0.0.0":
                return  # shut down
            destination, time_to_live, received = "", 0, 0.0
            for level, kind, value in control:
                if (level, kind) == (socket.IPPROTO_IP, _IP_PKTINFO):
                    destination = socket.inet_ntoa(value[8:12])
                elif (level, kind) == (socket.IPPROTO_IP, socket.IP_TTL):
                    time_to_live = struct.unpack("i", value)[0]
                elif (level, kind) == (socket.SOL_SOCKET, _SO_TIMESTAMPNS):
                    seconds, nanoseconds = struct.unpack("@ll", value)
                    received = seconds + nanoseconds / 1e9
            if sender[0] == _LOOPBACK and raw.startswith(b"fence"):
                self.events.record(raw.decode())
                continue
            heard = Datagram(raw, *sender, destination, port, time_to_live, received)
            self.events.record(f"{sender[0]} {_described(heard)}", heard)


class Announcer:
    """Announces volumes once a period, the first time at once, until it is stopped."""

    def __init__(self, peer: OtherUnit, volumes: Iterable[Announcement], period: float) -> None:
        self._peer = peer
        self._volumes = [volume.encode() for volume in volumes]
        self._period = period
        self._stopping = threading.Event()
        self.last = 0.0  # monotonic time of the last announcement
        self._send_all()
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def stop(self) -> float:
        """Fall silent; the monotonic time of the last announcement. May be called again."""
        self._stopping.set()
        self._thread.join()
        return self.last

    def _run(self) -> None:
        due = time.monotonic()
        while True:
            due += self._period
            if self._stopping.wait(max(0.0, due - time.monotonic())):
                return
            try:
                self._send_all()
            except OSError:
                pass  # no link just now

    def _send_all(self) -> None:
        for raw in self._volumes:
            self._peer.send(raw)
        self.last = time.monotonic()


def _listen(port: int) -> socket.socket:
    listener = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    listener.setsockopt(socket.IPPROTO_IP, _IP_PKTINFO, 1)
    listener.setsockopt(socket.IPPROTO_IP, _IP_RECVTTL, 1)
    listener.setsockopt(socket.SOL_SOCKET, _SO_TIMESTAMPNS, 1)
    listener.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 22)
    listener.bind(("", port))
    if port == PORT:
        listener.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                            socket.inet_aton(GROUP) + socket.inet_aton("0.0.0.0"))
    return listener


def _described(datagram: Datagram) -> str:
    if datagram.port == NUDGE_PORT:
        return "nudges"
    try:
        heard = datagram.announcement()
    except BadDatagram:
        return datagram.raw.hex(" ") or "(empty)"
    return ("announces " if heard.message_type == ANNOUNCED else "withdraws ") + heard.path
