"""The display application of a long run: what came is handed over and then forgotten."""

import socket
import struct
import threading

from testbed import timeouts
from testbed.application import queued
from testbed.frame import BadFrame, Frame
from testbed.sandbox import Sandbox

#: Stands for a text that may be lost.
LOSS = None
_BACKLOG = 1024
_NO_LINGER = struct.pack("ii", 1, 0)


class Application:
    """Listens, reads, leaves, hangs, and breaks connections.

    While it hangs, connections wait in the kernel's queue; nothing is lost by that.
    """

    def __init__(self, sandbox: Sandbox, port: int = 8080) -> None:
        self._sandbox = sandbox
        self._port = port
        self._listener: socket.socket | None = None
        self._thread: threading.Thread | None = None
        self._reading = threading.Event()
        self._leaving = threading.Event()
        self._lock = threading.Lock()
        self._breaks = 0  # so many connections are to be reset
        self._cuts = 0  # so many are to be closed before they were read to their end
        self._came: list[str | None] = []

    def listen(self) -> None:
        """Be there and read."""
        if self._listener:
            return
        self._reading.set()
        self._listener = self._sandbox.in_network(
            lambda: socket.create_server(("127.0.0.1", self._port), backlog=_BACKLOG))
        self._thread = threading.Thread(target=self._accept, args=(self._listener,), daemon=True)
        self._thread.start()

    def leave(self) -> None:
        """Be absent. What waited is read first; connections that come just now are lost."""
        if not self._listener or not self._thread:
            return
        listener, self._listener = self._listener, None
        self.break_next(0, 0)
        self._leaving.set()
        self._reading.set()
        last = self._sandbox.in_network(lambda: socket.create_connection(
            ("127.0.0.1", self._port), timeouts.EVENT))
        last.close()
        self._thread.join(timeouts.STOP)
        waiting, _ = queued(listener)
        listener.close()
        self._leaving.clear()
        with self._lock:
            self._came += [LOSS] * (waiting + 2)  # the last may come meanwhile

    def hang(self) -> None:
        """Accept nothing until `go_on`."""
        self._reading.clear()

    def go_on(self) -> None:
        """Accept and read."""
        self._reading.set()

    def break_next(self, resets: int, cuts: int) -> None:
        """Reset so many of the next connections; close so many after them before their end."""
        with self._lock:
            self._breaks, self._cuts = resets, cuts

    def behave(self) -> None:
        """Be there, read everything, break nothing any more."""
        self.break_next(0, 0)
        self.listen()
        self.go_on()

    def take(self) -> list[str | None]:
        """What came since the last time, in order: texts, and LOSS for a broken connection."""
        with self._lock:
            came, self._came = self._came, []
        return came

    def _accept(self, listener: socket.socket) -> None:
        while True:
            connection, _ = listener.accept()
            self._reading.wait()
            with connection:
                came = self._serve(connection)
            with self._lock:
                self._came += came
            if not came and self._leaving.is_set():
                return

    def _serve(self, connection: socket.socket) -> list[str | None]:
        connection.settimeout(timeouts.STOP)
        with self._lock:
            reset, cut = self._breaks > 0, self._cuts > 0
            self._breaks -= reset
            self._cuts -= cut and not reset
        raw = b""
        try:
            if reset:
                connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, _NO_LINGER)
                return [LOSS]
            if cut:
                connection.recv(8)
                return [LOSS]
            while piece := connection.recv(65536):
                raw += piece
        except OSError:
            return [LOSS]
        if not raw:
            return []  # republished between connecting and sending
        try:
            return [Frame(raw).text()]
        except BadFrame as error:
            return [f"(malformed frame: {error})"]
