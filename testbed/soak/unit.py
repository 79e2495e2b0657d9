"""A unit that plays stories as fast as its daemon takes them.

A story's lines:

    hal COMMAND                       the hardware service gets this command (docs/halsim.md)
    stranger COMMAND                  another client of the bus gets it, who is not the service
    settle                            the daemon deals with what it was told
    quiet                             everything comes to rest, and what must be true is checked
    heal                              the same, and nothing is in doubt afterwards
    compare                           the same, and with the network, the shares and the messages
    rest                              the same, and all that was plugged or shared goes
    signal USR1|USR2|HUP              the daemon gets the signal
    rotate                            its log is moved away
    identity content-id|serial TEXT   the file has this content and a new time
    application leave|listen|hang|go|reset|cut
    share UNIT PATH KEY NAME ro|rw    another unit announces it, from now on
    silent UNIT PATH                  and no more
    withdraw UNIT PATH                and says so
    datagram UNIT COUNT HEX           it sends these bytes so often
    network down|up|address ADDRESS   the unit's own interface
    refuse TOOL, obey                 calls of the tool fail; all work again
    leave-behind NAME                 a directory with a file is left in /media
    link-gone NAME                    somebody takes a link away

What cannot be done just now (a name that is not plugged, ...) has no effect, so that a story stays
one when lines are taken out.
"""

import os
import shlex
import shutil
import signal
import struct
from dataclasses import dataclass
from pathlib import Path
from typing import Callable

from testbed import target, timeouts
from testbed.bus import Bus
from testbed.lifespan import Lifespan
from testbed.network import Interface, Network
from testbed.otherunit import Announcement
from testbed.process import Process
from testbed.sandbox import TOOLS, Sandbox
from testbed.soak.application import LOSS, Application
from testbed.soak.doubts import Doubts
from testbed.soak.ledger import Ledger, LogFile
from testbed.soak.neighbours import Ear, Neighbour
from testbed.soak.service import ANSWER, Service
from testbed.soak.tools import ToolCalls
from testbed.waiting import wait_until

ADDRESS = "169.254.7.1"
INTERNAL = "/srv/internal"
IGNORED = "/dev/sdz1"
_CONFIGURATION = f"""name=Chart Port
usbid=1-1_3
name=None
usbid=none
ignore=true
ignoreDevice={IGNORED}
name=Last
usbid=2-9
"""
_HEAP_COUNTER = "tests/libsoak-heap-counter.so"
_HEAP_COUNTS = "/srv/soak/heap-counts"
_HEAP = struct.Struct("qq")
#: More messages than ever wait for the daemon in a story.
_MANY_MESSAGES = 1000
_YIELDS = "testbed/preload/libdelays.so"
#: Microseconds that a daemon spends on giving way: each time a busy machine may do something else.
_GIVING_WAY = 3_000_000
#: In /usr/lib: libfaketime for programs with threads.
_FAST_CLOCK = "*/faketime/libfaketimeMT.so.1"
_NEIGHBOURS = 3
_IDENTITIES = {"content-id": "/etc/content-id", "serial": "/etc/serial"}


@dataclass(frozen=True)
class Heap:
    """What a program has on its heap."""

    size: int  # in bytes
    blocks: int


class SoakUnit(Lifespan):
    """A daemon with everything around it; see the module's text for what it plays."""

    def __init__(self, logs: Path, network: Network, real_mounts: bool, speed: float = 1,
                 yields: bool = False) -> None:
        """With `real_mounts` a mount is one, which takes a process; else a directory. The daemon's
        clock runs `speed` times as fast as ours, and other units announce as much more often. With
        `yields` each of its threads gives way to the others before each lock."""
        self.sandbox = Sandbox(logs, target.read_only_mounts())
        self.bus = Bus(self.sandbox)
        self.service = Service(self.sandbox, self._refused)
        self.stranger = Service(self.sandbox, lambda *_: None)
        self.doubts = Doubts(self.service.names)
        self.application = Application(self.sandbox)
        self.ledger = Ledger()
        self.log = LogFile(logs / "voldrake.log", self.ledger)
        self.neighbours = [
            Neighbour(network, logs / f"unit{number}", f"169.254.7.{number + 2}", speed)
            for number in range(_NEIGHBOURS)]
        self.tools = ToolCalls(self.sandbox)
        self.ear: Ear | None = None
        self.process: Process | None = None
        self.left_behind: set[str] = set()
        self._network = network
        self._eth0: Interface | None = None
        self._real_mounts = real_mounts
        self.speed = speed
        self._yields = yields
        self._identity_time = 1_000_000_000
        self._ignored = False  # a call may wait for an answer
        self._rescans = 0  # before the last SIGUSR2
        self._verbs = _verbs(self)

    def start(self) -> None:
        """Everything runs on return, and the daemon has done its start-up scan."""
        self.sandbox.logs.mkdir(parents=True, exist_ok=True)
        self.sandbox.start()
        for number in range(3):
            self.sandbox.path(f"/sys/class/mmc_host/mmc{number}").mkdir(parents=True)
        self.sandbox.write("/etc/voldrake.conf", _CONFIGURATION)
        for name in _IDENTITIES:
            self.identity(name, "0")
        self.tools.install(self.sandbox.path(TOOLS))
        self._eth0 = self._network.join(self.sandbox, ADDRESS)
        for neighbour in self.neighbours:
            neighbour.start()
        self.ear = Ear(self.neighbours[1], [other.address for other in self.neighbours])
        self.bus.start()
        helpers = target.INSIDE / "helpers"
        mounts = [f"--mount-command={helpers}/mount-volume",
                  f"--unmount-command={helpers}/unmount-volume"] if self._real_mounts else []
        self.service.start("service", *mounts)
        self.stranger.start("stranger", "--absent")
        self.application.listen()
        self.start_daemon()

    def close(self) -> None:
        """End everything; the logs remain. May be called again."""
        if self.process and not self.process.ended():
            self.process.kill()
        for neighbour in self.neighbours:
            neighbour.close()
        self.log.close()
        self.sandbox.close()

    def play(self, line: str) -> None:
        """Do what one line of a story says, but for what `checks` does."""
        verb, _, rest = line.partition(" ")
        words = [rest] if verb in ("hal", "stranger") else shlex.split(rest)
        self._verbs[verb](*words)

    # ---- What a story can say

    def hal(self, text: str) -> None:
        self._ignored = self._ignored or text.startswith("ignore ")
        self.doubts.command(text)
        self.service.command(text)

    def settle(self) -> None:
        self.service.command("forget")
        if self._ignored:
            # The bus frees a daemon that waits for an answer which never comes.
            self._ignored = False
            self.service.command("drop")
            self.doubts.command("drop")
        self.service.command("return")
        self.doubts.command("return")
        wait_until(self._has_rescanned, "the scan on SIGUSR2", ANSWER)
        self.service.settle()
        self.doubts.quiet()
        self.follow()

    def signal(self, name: str) -> None:
        assert self.process
        if name == "USR2":
            self.log.read()
            self._rescans = self.ledger.rescans + 1
            self.doubts.rescan()
        self.process.signal(getattr(signal, f"SIG{name}"))

    def rotate(self) -> None:
        self.log.rotate()  # another one after each start of the daemon

    def identity(self, name: str, text: str) -> None:
        self.ledger.identities.add(text)
        path = self.sandbox.path(_IDENTITIES[name])
        path.write_text(text + "\n")
        # The daemon looks at whole seconds.
        self._identity_time += 1
        os.utime(path, (self._identity_time, self._identity_time))

    def application_does(self, what: str) -> None:
        {"leave": self.application.leave, "listen": self.application.listen,
         "hang": self.application.hang, "go": self.application.go_on,
         "reset": lambda: self.application.break_next(1, 0),
         "cut": lambda: self.application.break_next(0, 1)}[what]()

    def share(self, unit: str, path: str, key: str, name: str, mode: str) -> None:
        self.neighbours[int(unit)].share(Announcement(path, key, name, int(mode == "ro")))

    def silent(self, unit: str, path: str) -> None:
        self.neighbours[int(unit)].fall_silent(path)

    def withdraw(self, unit: str, path: str) -> None:
        self.neighbours[int(unit)].withdraw(path)

    def datagram(self, unit: str, count: str, digits: str = "") -> None:
        self.neighbours[int(unit)].send(bytes.fromhex(digits), int(count))

    def network(self, what: str, address: str = ADDRESS) -> None:
        assert self._eth0
        if what == "down":
            self._eth0.clear_address()
        else:
            self._eth0.set_address(address)

    def leave_behind(self, name: str) -> None:
        directory = self.sandbox.path(f"/media/{name}")
        try:
            directory.mkdir()
            (directory / "file").write_text("left")
        except OSError:
            return  # the service has one of that name, or the daemon has removed this one already
        self.left_behind.add(name)

    def link_gone(self, name: str) -> None:
        self.log.read()
        link = self.sandbox.path(f"/media/{name}")
        try:
            to = os.readlink(link)
            link.unlink()
        except OSError:
            return  # there is none, or the daemon has just removed it
        self.ledger.linkless.add(to)

    # ---- What follows it

    def follow(self) -> None:
        """Take in what was logged and what the application got."""
        came = self.application.take()  # before the log, which has every text earlier
        self.log.read()
        for text in came:
            if text is LOSS:
                self.ledger.local.lost()
                self.ledger.remote.lost()
            else:
                remote = ' path="/mnt/' in text
                (self.ledger.remote if remote else self.ledger.local).came(text)

    def all_delivered(self) -> bool:
        """True when no message is under way."""
        self.follow()
        return self.ledger.local.complete() and self.ledger.remote.complete()

    def heap(self) -> Heap | None:
        """The daemon's; None when it is not counted."""
        counts = self.sandbox.path(_HEAP_COUNTS)
        return Heap(*_HEAP.unpack(counts.read_bytes())) if counts.exists() else None

    def status(self, name: str) -> int:
        """As `Process.status`, of the daemon."""
        assert self.process
        return self.process.status(name)

    def descriptors(self) -> int:
        """How many the daemon has open."""
        assert self.process
        return len(self.process.descriptors())

    def start_daemon(self) -> None:
        """It has done its start-up scan on return. The account of what it does begins anew."""
        self.log.close()
        for file in self.sandbox.logs.glob("voldrake.*"):
            file.unlink()
        self.ledger = Ledger(self.ledger.identities)
        self.log = LogFile(self.sandbox.logs / "voldrake.log", self.ledger)
        self.application.take()
        self._rescans = 0
        options = ["--log", "/var/log/voldrake.log", "--debuglevel", "3",
                   "--content-id-file", _IDENTITIES["content-id"],
                   "--serial-number-file", _IDENTITIES["serial"],
                   "--internal-share-path", INTERNAL, "--vfat-mount-opts", "utf8",
                   "--peer-mac", self.neighbours[0].hardware_address()]
        # Not for what leads into the sandbox, where these libraries are.
        environment = [f"{name}={value}" for name, value in self._environment().items()]
        self.process = self.sandbox.spawn(
            ["/usr/bin/env", *environment, *target.daemon_command(), *options], "voldrake")
        wait_until(lambda: "_ManualScan()" in "".join(self._log_text()), "the start-up scan",
                   timeouts.START)
        self.settle()

    def let_messages_wait(self) -> None:
        """Many messages wait for the daemon at once; it has dealt with them on return. The bus
        library keeps the memory that it needs for the longest queue ever."""
        assert self.process
        self.process.pause()
        wait_for_answers = self.service.announce_nothing(_MANY_MESSAGES)
        self.service.flush()
        self.process.resume()
        wait_for_answers()

    def _environment(self) -> dict[str, str]:
        environment, preloaded = dict(self.tools.environment()), []
        # A sanitizer bears no other allocator, and an emulator would run with ours itself.
        if not target.sanitized() and not target.emulated():
            preloaded.append(self._copied(_HEAP_COUNTER))
            self.sandbox.write(_HEAP_COUNTS, bytes(_HEAP.size))
            environment["HEAP_COUNTER_FILE"] = _HEAP_COUNTS
        if self.speed != 1:
            preloaded += map(str, Path("/usr/lib").glob(_FAST_CLOCK))
            environment |= {"FAKETIME": f"+0 x{self.speed:g}", "FAKETIME_ONLY_CMDS": "voldrake",
                            "FAKETIME_DISABLE_SHM": "1"}
        if self._yields:
            preloaded.append(self._copied(_YIELDS))
            environment["VOLDRAKE_DELAYS"] = f"voldrake 0 1 0 {_GIVING_WAY}"
        return environment | target.preloading(*preloaded)

    def _copied(self, library: str) -> str:
        """The place in the sandbox of this library of the build."""
        inside = f"/srv/soak/{Path(library).name}"
        shutil.copy(target.build_directory() / library, self.sandbox.path(inside))
        return inside

    def _has_rescanned(self) -> bool:
        self.log.read()
        return self.ledger.rescans >= self._rescans

    def _log_text(self) -> list[str]:
        self.log.read()
        return self.ledger.recent

    def _refused(self, error: str, path: str, method: str) -> None:
        self.doubts.refused(error, path, method)


def _verbs(unit: SoakUnit) -> dict[str, Callable[..., None]]:
    return {"hal": unit.hal, "stranger": unit.stranger.command, "settle": unit.settle,
            "signal": unit.signal, "rotate": unit.rotate, "identity": unit.identity,
            "application": unit.application_does, "share": unit.share, "silent": unit.silent,
            "withdraw": unit.withdraw, "datagram": unit.datagram, "network": unit.network,
            "refuse": unit.tools.refuse, "obey": unit.tools.obey,
            "leave-behind": unit.leave_behind, "link-gone": unit.link_gone}
