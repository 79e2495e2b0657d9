"""Other units on the wire: they announce, fall silent, withdraw, lie and chatter."""

import socket
import threading
import time
from pathlib import Path
from typing import Sequence

from testbed.lifespan import Lifespan
from testbed.network import Interface, Network
from testbed.otherunit import GROUP, PORT, Announcement
from testbed.sandbox import Sandbox

_PERIOD = 0.7  # seconds; a share is forgotten after three


class Neighbour(Lifespan):
    """One other unit. What it shares is announced again and again on a thread of its own."""

    def __init__(self, network: Network, log_directory: Path, address: str,
                 speed: float = 1) -> None:
        """It announces `speed` times as often as a unit does."""
        self.address = address
        self.sent = 0
        self._period = _PERIOD / speed
        self._sandbox = Sandbox(log_directory)
        self._network = network
        self._interface: Interface | None = None
        self._socket: socket.socket | None = None
        self._lock = threading.Lock()
        self._shares: dict[str, Announcement] = {}
        self._stopping = threading.Event()

    def start(self) -> None:
        """Be on the wire, with nothing to share."""
        self._sandbox.start()
        self._interface = self._network.join(self._sandbox, self.address)
        self._socket = self._sandbox.in_network(_sender)
        threading.Thread(target=self._announce, daemon=True).start()

    def close(self) -> None:
        """Leave the wire."""
        self._stopping.set()
        if self._socket:
            self._socket.close()
        self._sandbox.close()

    def hardware_address(self) -> str:
        """Of its interface."""
        assert self._interface
        return self._interface.hardware_address()

    def share(self, announcement: Announcement) -> None:
        """Announce it now and from now on."""
        with self._lock:
            self._shares[announcement.path] = announcement
        self.send(announcement.encode())

    def fall_silent(self, path: str) -> None:
        """Announce it no more; the others forget it."""
        with self._lock:
            self._shares.pop(path, None)

    def withdraw(self, path: str) -> None:
        """Say that it is shared no more."""
        with self._lock:
            announcement = self._shares.pop(path, None)
        self.send((announcement or Announcement(path)).withdrawal().encode())

    def shared(self) -> list[str]:
        """The paths, as announced."""
        with self._lock:
            return list(self._shares)

    def send(self, datagram: bytes, count: int = 1) -> None:
        """Send any bytes to the group, so many times."""
        assert self._socket
        for _ in range(count):
            try:
                self._socket.sendto(datagram, (GROUP, PORT))
                self.sent += 1
            except OSError:
                return  # closed, or no link just now

    def _announce(self) -> None:
        while not self._stopping.wait(self._period):
            with self._lock:
                datagrams = [share.encode() for share in self._shares.values()]
            for datagram in datagrams:
                self.send(datagram)


class Ear:
    """Hears what the daemon announces, from the network of another unit."""

    def __init__(self, neighbour: Neighbour, others: Sequence[str]) -> None:
        """`others`: addresses that are not the daemon's."""
        self._others = others
        self._lock = threading.Lock()
        self._heard: dict[str, float] = {}  # path -> when announced; withdrawn ones are missing
        listener = neighbour._sandbox.in_network(_listener)
        threading.Thread(target=self._hear, args=(listener,), daemon=True).start()

    def announced(self, within: float) -> set[str]:
        """The paths announced within the last seconds and not withdrawn since."""
        since = time.monotonic() - within
        with self._lock:
            return {path for path, at in self._heard.items() if at >= since}

    def _hear(self, listener: socket.socket) -> None:
        while True:
            try:
                raw, (sender, _) = listener.recvfrom(2048)
            except OSError:
                return
            if sender in self._others or not raw:
                continue
            told = Announcement.decode(raw)
            with self._lock:
                if told.message_type == 1:
                    self._heard[told.path] = time.monotonic()
                else:
                    self._heard.pop(told.path, None)


def _sender() -> socket.socket:
    sender = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    sender.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_TTL, 5)
    sender.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_LOOP, 0)
    return sender


def _listener() -> socket.socket:
    listener = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    listener.bind(("", PORT))
    listener.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                        socket.inet_aton(GROUP) + socket.inet_aton("0.0.0.0"))
    return listener
