"""The display application: a listener in the unit's network that lives in this process."""

import enum
import itertools
import socket
import struct
import threading

from testbed import timeouts, waiting
from testbed.frame import BadFrame, Frame, Message
from testbed.sandbox import Sandbox
from testbed.tape import Channel, Fence, Mark, Match, Tape, Wanted, no_fence

#: The path in the messages of a fence, which are no messages to a test.
FENCE_PATH = "/media/voldrake-fence"
_FENCE = b"fence "
#: Of a listener, where the kernel's struct tcp_info has its queue.
_LENGTH_AND_LIMIT = 24


class Mode(enum.Enum):
    """How the application treats a connection."""

    READ = "reads it to its end"
    NEVER_READ = "accepts it and never reads"
    RESET = "accepts it and resets it at once"
    CLOSE_EARLY = "reads a few bytes and closes it"
    NEVER_ACCEPT = "lets it wait for ever: the kernel's queue is full, so connecting hangs"


class Application:
    """Records every frame on channel "app": the text is the message's, the data a `Frame`.

    A connection that is not read to its end is an event without data. Absent until `listen`.
    """

    def __init__(self, sandbox: Sandbox, tape: Tape, port: int = 8080,
                 fence: Fence = no_fence) -> None:
        self.events = Channel(tape, "app")
        self.port = port
        self._fence = fence
        self._mode = Mode.READ
        self._marks = itertools.count(1)
        self._sandbox = sandbox
        self._listener: socket.socket | None = None
        self._threads: list[threading.Thread] = []
        self._held: list[socket.socket] = []

    def listen(self, mode: Mode = Mode.READ) -> None:
        """Be there, in this mode; connections succeed on return. Replaces an earlier mode."""
        self.leave()
        self._mode = mode
        self.events.record(f"(listening: {mode.value})")
        backlog = 0 if mode is Mode.NEVER_ACCEPT else 64
        self._listener = self._sandbox.in_network(
            lambda: socket.create_server(("127.0.0.1", self.port), backlog=backlog))
        if mode is Mode.NEVER_ACCEPT:
            self._fill_queue()
        else:
            self._in_thread(self._accept, self._listener, mode)

    def leave(self) -> None:
        """Be absent: connections are refused. Frames that were under way are recorded first."""
        if not self._listener:
            return
        if self._mode is Mode.READ:
            self.flush()
        self._listener.shutdown(socket.SHUT_RDWR)  # ends the accepting thread
        for held in self._held:
            held.close()
        self._held.clear()
        for thread in self._threads:
            thread.join(timeouts.STOP)
        self._threads.clear()
        self._listener.close()
        self._listener = None
        self.events.record("(absent)")

    def expect_message(self, kind: str, timeout: float = timeouts.EVENT,
                       **attributes: str) -> Message:
        """Wait for a message of this kind with (at least) these attributes; others are skipped."""
        return self.events.expect(message(kind, **attributes), timeout).data.message()

    def next_frame(self, timeout: float = timeouts.EVENT) -> Frame:
        """The next frame after the cursor, whatever is in it."""
        return self.events.expect(
            Wanted("any frame", lambda event: isinstance(event.data, Frame)), timeout).data

    def next_text(self, timeout: float = timeouts.EVENT) -> str:
        """The text of the next frame. Raises BadFrame."""
        return self.next_frame(timeout).text()

    def frames(self, since: Mark = Mark(0), until: Match | None = None) -> list[Frame]:
        """The frames after the mark, in order; see `Unit` for `until`."""
        if until is not None:
            return [event.data for event in self.events.until(until, since) if event.data]
        if self._listener:
            assert self._mode is Mode.READ, "no frame is read in this mode"
            self._fence()
            self.flush()
        return [event.data for event in self.events.up_to(self.events.tape.mark(), since)
                if event.data]

    def flush(self) -> None:
        """Return when all connections that were made until now are recorded.

        They are read in their order; so one of its own comes last. Requires: mode READ.
        """
        text = f"(fence {next(self._marks)})"
        with self._sandbox.in_network(
                lambda: socket.create_connection(("127.0.0.1", self.port), timeouts.EVENT)) as own:
            own.sendall(_FENCE + text.encode())
        self.events.until(text, timeout=2 * timeouts.STOP)

    def _accept(self, listener: socket.socket, mode: Mode) -> None:
        while True:
            try:
                connection, _ = listener.accept()
            except OSError:
                return  # not listening any more
            if mode is Mode.READ:
                self._read(connection)  # one after the other, so that their order holds
                continue
            self.events.record(f"(a connection; {mode.value})")
            if mode is Mode.NEVER_READ:
                self._held.append(connection)
            elif mode is Mode.RESET:
                connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
                connection.close()
            else:
                with connection:
                    connection.recv(8)

    def _read(self, connection: socket.socket) -> None:
        raw = b""
        with connection:
            connection.settimeout(timeouts.STOP)
            try:
                while piece := connection.recv(65536):
                    raw += piece
            except OSError as error:
                self.events.record(f"(connection broken: {error}; got {raw.hex(' ')})")
                return
        if raw.startswith(_FENCE):
            self.events.record(raw.removeprefix(_FENCE).decode())
            return
        frame = Frame(raw)
        try:
            text = frame.text()
            self.events.record(text, None if f'"{FENCE_PATH}"' in text else frame)
        except BadFrame as error:
            self.events.record(f"(malformed frame: {error})", frame)

    def _fill_queue(self) -> None:
        """Connect until the kernel's queue is full; it then lets further connections hang."""
        while not self._queue_is_full():
            self._held.append(self._sandbox.in_network(
                lambda: socket.create_connection(("127.0.0.1", self.port), timeouts.EVENT)))
            waiting.wait_until(lambda: queued(self._listener)[0] == len(self._held),
                               "it is in the queue")

    def _queue_is_full(self) -> bool:
        assert self._listener
        length, limit = queued(self._listener)
        return length > limit

    def _in_thread(self, body, *arguments) -> None:
        thread = threading.Thread(target=body, args=arguments, daemon=True)
        self._threads.append(thread)
        thread.start()


def queued(listener: socket.socket) -> tuple[int, int]:
    """How many connections wait to be accepted, and the limit that they may exceed by one."""
    information = listener.getsockopt(socket.IPPROTO_TCP, socket.TCP_INFO, 32)
    return struct.unpack_from("II", information, _LENGTH_AND_LIMIT)


def message(kind: str, **attributes: str) -> Wanted:
    """A message of this kind with (at least) these attributes."""
    return Wanted(f"{kind} {attributes}", lambda event: isinstance(event.data, Frame)
                  and _fits(event.data, kind, attributes))


def _fits(frame: Frame, kind: str, attributes: dict[str, str]) -> bool:
    try:
        found = frame.message()
    except BadFrame:
        return False
    return found.kind == kind and attributes.items() <= found.attributes.items()
