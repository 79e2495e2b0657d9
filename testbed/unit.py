"""A whole unit: sandbox, bus, hardware service, application, system log and daemon."""

import os
import re
from pathlib import Path
from typing import Sequence

from testbed import target, timeouts
from testbed.application import FENCE_PATH, Application
from testbed.bus import Bus
from testbed.daemon import DEBUG, Daemon
from testbed.hal import FENCE, Hal
from testbed.lifespan import Lifespan
from testbed.network import Interface, Network
from testbed.sandbox import TOOLS, Sandbox
from testbed.syslog import Syslog
from testbed.tape import Channel, Mark, Tape
from testbed.uevents import Uevents

CONFIGURATION = "/etc/voldrake.conf"
FAMILY = "/proc/kelmar_platform/family_id"
#: Device numbers (major:minor) of the disks and first partitions of three memory cards.
CARD_NUMBERS = ("179:0", "179:1", "179:8", "179:9", "179:16", "179:17")

_SANITIZER_WORDS = ("ERROR: AddressSanitizer", "ERROR: LeakSanitizer", "WARNING: ThreadSanitizer",
                    "runtime error:")


class Unit(Lifespan):
    """One unit from `start` to `close`.

    `start` brings up everything but the daemon, and the application listens. `tape` has all that
    happens, on the channels hal, app, log, daemon, syslog and sys.

    Nothing is read without waiting for it. What lists events (`hal.calls`, `daemon.log_lines`,
    `application.frames`, `syslog.records`, `uevents.writes`) or shows a state (`links`, `media`,
    `mounts`, `content`, `entries`, `exists`) makes a fence first: it has something happen that
    comes after everything that the daemon was caused to do, waits until that is seen, and gives
    what came before it. Where a test knows such an event itself it names it as `until`, and the
    list ends there.
    """

    def __init__(self, log_directory: Path, *, mmc_hosts: int = 2, family: str | None = "3 hawk",
                 configuration: str | None = None, port: int = 8080,
                 network: Network | None = None, address: str | None = None,
                 seen: Sequence[Path] = ()) -> None:
        """`mmc_hosts`: how many SD hosts the kernel shows; `family` and `configuration`: content
        of the platform file and of the configuration file, None for no such file; `network` and
        `address`: the wire that eth0 is on; `seen`: directories of this machine that the unit has
        at the same place, write-protected."""
        self.tape = Tape()
        self.sandbox = Sandbox(log_directory, target.read_only_mounts() | {path: path
                                                                           for path in seen})
        self.bus = Bus(self.sandbox)
        self.hal = Hal(self.sandbox, self.tape, fence=self._fence)
        self.application = Application(self.sandbox, self.tape, port, self._fence_messages)
        self.syslog = Syslog(self.tape, self._fence)
        self.uevents = Uevents(self.tape, self._fence)
        self.daemon = Daemon(self.sandbox, self.tape, self._fence, self.hal.flush_signals)
        self.eth0: Interface | None = None
        self._mmc_hosts = mmc_hosts
        self._family = family
        self._configuration = configuration
        self._network = network
        self._address = address
        self._strangers = 0

    def start(self, listen: bool = True) -> None:
        """Bring up everything but the daemon; the application only if it is to `listen`."""
        self.sandbox.start()
        for number in range(self._mmc_hosts):
            self.sandbox.path(f"/sys/class/mmc_host/mmc{number}").mkdir(parents=True)
        self.uevents.start(self.sandbox.path("/sys/dev/block"), CARD_NUMBERS)
        if self._family is not None:
            self.sandbox.write(FAMILY, self._family + "\n")
        if self._configuration is not None:
            self.sandbox.write(CONFIGURATION, self._configuration)
        if self._network:
            self.eth0 = self._network.join(self.sandbox, self._address)
        self.syslog.start(self.sandbox.path("/dev/log"))
        self.bus.start()
        self.hal.start()
        if listen:
            self.application.listen()

    def close(self) -> None:
        """End everything; the logs and the tape remain. May be called again."""
        if not self.daemon.ended():
            self.daemon.kill()
        self.daemon.close()
        self.application.leave()
        self.syslog.close()
        self.uevents.close()
        self.sandbox.close()

    def start_daemon(self, *arguments: str, debug_level: int | None = DEBUG,
                     environment: dict[str, str] | None = None) -> None:
        """Start the daemon and return when its start-up scan is done and it listens to signals.

        Requires: the hardware service is there. Without it use `daemon.start`.
        """
        scan = self.mark()
        self.hal.events.seek(scan)
        self.daemon.start("--port", str(self.application.port), *arguments,
                          debug_level=debug_level, environment=environment)
        self.hal.expect_call("FindDeviceByCapability")
        self.hal.events.seek(scan)
        self.settle()
        told_otherwise = any(word.startswith(("--debuglevel", "--log")) for word in arguments)
        if debug_level == DEBUG and not told_otherwise:
            # Another thread's line, the only one of a start that comes at any time.
            self.daemon.expect_log(DEBUG, "tMessageClient::run", timeouts.START)
            self.daemon.log.seek(scan)

    def settle(self) -> None:
        """Return when the daemon has dealt with every signal sent so far and what follows from it.

        To show that something does not happen: act, settle, look. What the daemon's main thread
        does is then done; what it told the application may still be under way.
        See `Hal.settle` for what it requires.
        """
        self.hal.settle()

    def stranger(self) -> Hal:
        """Another client of the bus, not the hardware service, with commands like its.

        It can `emit` signals, also to one client. Its events are on a channel of its own.
        """
        self._strangers += 1
        other = Hal(self.sandbox, self.tape, f"other{self._strangers}")
        other.start("--absent")
        return other

    def mark(self) -> Mark:
        """A place on the tape behind a fence, for `since` of the readers."""
        self._fence()
        self.hal.flush()
        self.daemon.flush()
        self.syslog.flush()
        self.uevents.flush()
        return self.tape.mark()

    def links(self) -> dict[str, str]:
        """The symbolic links in /media: name -> target as written in the link."""
        self._fence()
        with os.scandir(self.sandbox.path("/media")) as entries:
            return {entry.name: os.readlink(entry.path)
                    for entry in entries if entry.is_symlink()}

    def media(self) -> list[str]:
        """Names of all entries of /media, sorted."""
        return self.entries("/media")

    def content(self, inside: str) -> str:
        """The text of a file inside."""
        self._fence()
        return self.sandbox.path(inside).read_text("utf-8", "surrogateescape")

    def entries(self, inside: str) -> list[str]:
        """Names of all entries of a directory inside, sorted; none when there is no directory."""
        self._fence()
        directory = self.sandbox.path(inside)
        return sorted(os.listdir(directory)) if directory.is_dir() else []

    def exists(self, inside: str) -> bool:
        """True when something has this path inside."""
        self._fence()
        return os.path.lexists(self.sandbox.path(inside))

    def mounts(self) -> dict[str, str]:
        """What is mounted in /media: mount point -> "ro" or "rw"."""
        self._fence()
        mounts = {}
        for line in Path(f"/proc/{self.sandbox.pid}/mounts").read_text().splitlines():
            _, place, _, options, *_ = line.split()
            place = place.encode().decode("unicode_escape")
            if place.startswith("/media/"):
                mounts[place] = options.split(",")[0]
        return mounts

    def add_tool(self, name: str, script: str) -> None:
        """Put a program in front of the system's own of this name: a script with its "#!" line."""
        self.sandbox.write(f"{TOOLS}/{name}", script)
        self.sandbox.path(f"{TOOLS}/{name}").chmod(0o755)

    def sanitizer_reports(self) -> str:
        """What sanitizers built into the programs have reported, empty when nothing."""
        return "\n".join(text for _, text in self.sandbox.errors().items()
                         if any(word in text for word in _SANITIZER_WORDS))

    def report(self) -> str:
        """The tape and everything on the programs' standard errors, for a failed test."""
        parts = [f"tape (seconds since the start; logs in {self.sandbox.logs}):", str(self.tape)]
        for name, text in self.sandbox.errors().items():
            parts += [f"{name}:", text]
        return "\n".join(parts)

    def _fence(self) -> None:
        """Return when the daemon's main thread has done all that it was caused to do until now.

        At once when the daemon is not running. Requires, while it is: `settle` can be used, or
        will be once the start-up scan has begun.
        """
        if not self.daemon.ended():
            scan = Channel(self.tape, "hal")
            scan.seek(self.daemon.started)
            scan.expect(re.compile(r"^call .*\.FindDeviceByCapability\("), timeouts.START)
            self.settle()

    def _fence_messages(self) -> None:
        """Return when all messages of what was caused until now have been sent.

        A stick of its own comes and goes; its messages are the last. Requires, while the daemon
        is running: as `_fence`, the application reads, and sticks are not excluded.
        """
        if self.daemon.ended():
            return
        self._fence()
        told = Channel(self.tape, "app")
        told.seek(self.tape.mark())
        node = FENCE_PATH.replace("/media/", "/dev/")
        self.hal.command(f"plug usb {FENCE} uuid={FENCE} block={node}0 volume-block={node}")
        told.expect(re.compile(f'<dataarrival path="{FENCE_PATH}"'), timeouts.RETRY)
        self.hal.pull(FENCE)
        told.expect(re.compile(f'<dataremoval path="{FENCE_PATH}"'), timeouts.RETRY)
        self._fence()
