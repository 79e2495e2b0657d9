"""Stand-ins for the tools that the daemon shares and mounts with, and the NFS behind them.

`NfsTools(unit)` puts its own exportfs, mount, umount and mountpoint in front of the system's:

- every call is recorded on channel "tools" of the unit's tape: the text is the words joined by
  blanks, the data is the tuple of words exactly as the tool got them;
- `exportfs` keeps the table `exports` and has no other effect;
- `mount -t nfs` mounts something real in place of the network share: where the exporting unit is
  one of the `neighbours`, the very directory that it exports, so that a file written on one unit is
  read on the other; for any other address an empty file system in memory;
- `umount` and `mountpoint` are the system's own.

For two units that read each other's files:

    neighbours = []
    tools = [NfsTools(unit, neighbours) for unit in (first, second)]

Calls can be told to fail, to end by a signal or to wait: `refuse`, `kill`, `hold`, `obey`.
What the stand-in hardware service runs goes to the system's own tools and is not recorded.
"""

import ctypes
import fcntl
import os
import re
import socket
import struct
import threading
from dataclasses import dataclass, field

from testbed import target, timeouts
from testbed.application import FENCE_PATH
from testbed.namespaces import checked, in_mounts_of
from testbed.tape import Channel, Event, Mark, Match
from testbed.unit import Unit

TOOLS = ("exportfs", "mount", "mountpoint", "umount")
_PORT = 2049  # on the sandbox's loopback; helpers/stand-in-tool connects to it
_SIOCGIFADDR = 0x8915
_NFS_OPTIONS = ",rsize=1280,soft,udp,noatime,nodiratime"

_libc = ctypes.CDLL(None, use_errno=True)


@dataclass
class _Rule:
    pattern: re.Pattern[str]
    answer: str
    released: threading.Event = field(default_factory=threading.Event)


class NfsTools:
    """The unit's exportfs, mount, umount and mountpoint; see the module's text.

    Requires: the unit is started. Ends with the unit's sandbox.
    """

    def __init__(self, unit: Unit, neighbours: "list[NfsTools] | None" = None) -> None:
        """`neighbours` is the list that all units on a wire share; this one enters itself."""
        self.events = Channel(unit.tape, "tools")
        self.exports: dict[str, str] = {}  # target such as "*:/media/sda1" -> options
        self._sandbox = unit.sandbox
        self._unit = unit
        self._neighbours = neighbours if neighbours is not None else []
        self._neighbours.append(self)
        self._rules: list[_Rule] = []
        self._lock = threading.Lock()
        self._listener = unit.sandbox.in_network(
            lambda: socket.create_server(("127.0.0.1", _PORT), backlog=64))
        script = (target.REPOSITORY / "testbed/helpers/stand-in-tool").read_text()
        for tool in TOOLS:
            unit.add_tool(tool, script)
        threading.Thread(target=self._accept, daemon=True).start()

    def expect(self, match: Match, timeout: float = timeouts.EVENT) -> Event:
        """Wait for a call; a text is all words joined by blanks. See `Channel.expect`."""
        return self.events.expect(match, timeout)

    def calls(self, since: Mark = Mark(0), tool: str = "", until: Match | None = None) -> list[str]:
        """The calls (of one tool) after the mark, in order, as texts; see `Unit` for `until`.

        A call is on the tape before it is answered, so before all that the daemon does next on that
        thread. The fence is the main thread's: what the threads of sharing do is seen first by
        `expect`ing what they do next, a message, a log line, a datagram.
        """
        return [" ".join(words) for words in self.words(since, tool, until)]

    def words(self, since: Mark = Mark(0), tool: str = "",
              until: Match | None = None) -> list[tuple[str, ...]]:
        """As `calls`, but the words that the tool got."""
        if until is None and not self._unit.daemon.ended():
            self._unit.settle()
        events = (self.events.up_to(self.events.tape.mark(), since) if until is None
                  else self.events.until(until, since))
        return [event.data for event in events if tool in ("", event.data[0])
                and not event.data[-1].endswith(FENCE_PATH)]

    def refuse(self, pattern: str, status: int = 1) -> None:
        """From now on calls whose text has this pattern do nothing and end with this status."""
        self._add_rule(pattern, f"exit {status}")

    def kill(self, pattern: str, signal: str = "KILL") -> None:
        """From now on calls whose text has this pattern do nothing, and the shell that the daemon
        runs them with ends by this signal."""
        self._add_rule(pattern, f"kill {signal}")

    def hold(self, pattern: str) -> None:
        """From now on calls whose text has this pattern wait for `obey`, which lets them go on."""
        self._add_rule(pattern, "")

    def obey(self) -> None:
        """Work as at first; the calls that wait go on."""
        with self._lock:
            rules, self._rules = self._rules, []
        for rule in rules:
            rule.released.set()

    def address(self) -> str:
        """The unit's own IPv4 address on eth0; empty when it has none."""
        def query() -> str:
            with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
                request = struct.pack("16s24x", b"eth0")
                try:
                    return socket.inet_ntoa(fcntl.ioctl(probe, _SIOCGIFADDR, request)[20:24])
                except OSError:
                    return ""
        return self._sandbox.in_network(query)

    def _add_rule(self, pattern: str, answer: str) -> None:
        with self._lock:
            self._rules.insert(0, _Rule(re.compile(pattern), answer))

    def _accept(self) -> None:
        while True:
            try:
                connection, _ = self._listener.accept()
            except OSError:
                return
            threading.Thread(target=self._serve, args=(connection,), daemon=True).start()

    def _serve(self, connection: socket.socket) -> None:
        with connection:
            words = _read_words(connection)
            if not words:
                return
            text = " ".join(words)
            self.events.record(text, words)
            try:
                connection.sendall(f"{self._answer(words, text)}\n".encode())
            except OSError:
                pass  # the tool was killed

    def _answer(self, words: tuple[str, ...], text: str) -> str:
        with self._lock:
            rule = next((rule for rule in self._rules if rule.pattern.search(text)), None)
        if rule and rule.answer:
            return rule.answer
        if rule:
            rule.released.wait()
        if words[0] == "exportfs":
            return self._exportfs(words[1:])
        if words[:3] == ("mount", "-t", "nfs"):
            return self._mount(*words[3:])
        if words[0] == "mount" and words[2].startswith("remount,"):
            return self._remount(words[2].removeprefix("remount,"), words[3])
        return "run"

    def _exportfs(self, words: tuple[str, ...]) -> str:
        with self._lock:
            if words == ("-a", "-r"):
                self.exports.clear()
            elif words[0] == "-o" and len(words) == 3:
                self.exports[words[2]] = words[1]
            elif words[0] == "-u" and len(words) == 2:
                if self.exports.pop(words[1], None) is None:
                    return "exit 1"
            elif words != ("-f",):
                return "exit 2"
        return "exit 0"

    def _mount(self, dash_o: str, options: str, source: str, directory: str) -> str:
        mode = options.removesuffix(_NFS_OPTIONS)
        if dash_o != "-o" or mode not in ("ro", "rw") or mode == options:
            return "exit 1"
        address, _, path = source.partition(":")
        exporter = next((other for other in self._neighbours if other.address() == address), None)
        try:
            if exporter is None:
                in_mounts_of(self._sandbox.pid, lambda: _mount_memory(directory, mode == "ro"))
                return "exit 0"
            exported = exporter._export_for(self.address(), path)
            if exported is None:
                return "exit 32"
            read_only = mode == "ro" or exported == "ro"
            tree = in_mounts_of(exporter._sandbox.pid, lambda: _clone_tree(path, read_only))
            try:
                in_mounts_of(self._sandbox.pid, lambda: _attach_tree(tree, directory))
            finally:
                os.close(tree)
        except OSError as error:
            self.events.tape.record("tools!", f"{source}: {error}")
            return "exit 32"
        return "exit 0"

    def _remount(self, mode: str, directory: str) -> str:
        try:
            in_mounts_of(self._sandbox.pid,
                         lambda: _set_read_only(_AT_FDCWD, directory, mode == "ro"))
        except OSError as error:
            self.events.tape.record("tools!", f"{directory}: {error}")
            return "exit 32"
        return "exit 0"

    def _export_for(self, client: str, path: str) -> str | None:
        """"rw" or "ro", or None when the client may not mount the path."""
        with self._lock:
            options = self.exports.get(f"{client}:{path}") or self.exports.get(f"*:{path}")
        return options.split(",")[0] if options else None


def _read_words(connection: socket.socket) -> tuple[str, ...]:
    """The words of a call: their number, the tool and its arguments, each followed by a zero."""
    data = b""
    while True:
        piece = connection.recv(65536)
        data += piece
        words = data.decode("utf-8", "surrogateescape").split("\0")
        if words[0] and len(words) >= 2 and len(words) == int(words[0]) + 3:
            return tuple(words[1:-1])
        if not piece:
            return ()


# The kernel's calls that the C library has no names for; the numbers are the same everywhere.
_OPEN_TREE, _MOVE_MOUNT, _MOUNT_SETATTR = 428, 429, 442
_AT_FDCWD, _AT_EMPTY_PATH = -100, 0x1000
_OPEN_TREE_CLONE, _OPEN_TREE_CLOEXEC = 1, os.O_CLOEXEC
_MOVE_MOUNT_F_EMPTY_PATH = 4
_MOUNT_ATTR_RDONLY = 1
_MS_RDONLY = 1


def _syscall(what: str, number: int, *arguments: object) -> int:
    return checked(_libc.syscall(ctypes.c_long(number), *arguments), what)


def _clone_tree(path: str, read_only: bool) -> int:
    """A detached copy of what is mounted there, as a descriptor."""
    tree = _syscall("open_tree", _OPEN_TREE, ctypes.c_int(_AT_FDCWD), os.fsencode(path),
                    ctypes.c_uint(_OPEN_TREE_CLONE | _OPEN_TREE_CLOEXEC))
    _set_read_only(tree, "", read_only)
    return tree


def _attach_tree(tree: int, directory: str) -> None:
    _syscall("move_mount", _MOVE_MOUNT, ctypes.c_int(tree), b"", ctypes.c_int(_AT_FDCWD),
             os.fsencode(directory), ctypes.c_uint(_MOVE_MOUNT_F_EMPTY_PATH))


def _set_read_only(at: int, path: str, read_only: bool) -> None:
    flags = (_MOUNT_ATTR_RDONLY, 0) if read_only else (0, _MOUNT_ATTR_RDONLY)
    attributes = struct.pack("=QQQQ", *flags, 0, 0)
    _syscall("mount_setattr", _MOUNT_SETATTR, ctypes.c_int(at), os.fsencode(path),
             ctypes.c_uint(_AT_EMPTY_PATH), attributes, ctypes.c_size_t(len(attributes)))


def _mount_memory(directory: str, read_only: bool) -> None:
    checked(_libc.mount(b"tmpfs", os.fsencode(directory), b"tmpfs",
                         ctypes.c_ulong(_MS_RDONLY if read_only else 0), None), "mount")
