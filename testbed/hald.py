"""The hardware service over the kernel's devices, `voldrake-hald`, on a machine of mocked ones."""

import itertools
import re
import signal
from pathlib import Path
from typing import Sequence

from testbed import target, timeouts
from testbed.bus import Bus
from testbed.lifespan import Lifespan
from testbed.process import Process
from testbed.sandbox import TOOLS, Sandbox
from testbed.syslog import Record, Syslog
from testbed.tape import Channel, Mark, Tape
from testbed.udev import Udev

PREFIX = "/org/freedesktop/Hal/devices/"
MANAGER = "/org/freedesktop/Hal/Manager"
NAME = "org.freedesktop.Hal"
STATE_FILE = "/run/voldrake-hald/state"
#: The types that the machine's kernel knows.
FILESYSTEMS = "/proc/filesystems"

_SIGNALS = ("DeviceAdded ", "DeviceRemoved ", "PropertyModified ")
SANITIZER_WORDS = ("ERROR: AddressSanitizer", "ERROR: LeakSanitizer", "runtime error:")

_HEADER = re.compile(r"(signal|method call|method return|error) time=(?P<time>\S+) sender=(?P<sender>\S+)"
                     r" -> destination=(?P<destination>.*?) (error_name=\S+ )?"
                     r"(serial=(?P<serial>\d+) ?)?(path=(?P<path>\S+); interface=\S+;"
                     r" member=(?P<member>\w+))?(reply_serial=(?P<reply>\d+))?$")
_TEXT = re.compile(r' +string "(.*)"')


class BusWatch:
    """What the service sends, on channel "hal": "DeviceAdded NAME", "DeviceRemoved NAME",
    "PropertyModified NAME KEY KEY"; besides "answered TEXT" for `Manager.DeviceExists(TEXT)` and
    "Mount NAME" when that is called. The data is the time at which the bus passed it on."""

    def __init__(self, sandbox: Sandbox, tape: Tape) -> None:
        self.events = Channel(tape, "hal")
        self._sandbox = sandbox
        self._ready = Channel(tape, "bus-watch")
        self._member = ""
        self._time = 0.0
        self._texts: list[str] = []
        self._question = ("", "")
        self._asked: dict[tuple[str, str], str] = {}  # by sender and number of the call

    def start(self) -> None:
        """Hears everything from the return on."""
        self._sandbox.spawn(["dbus-monitor", "--system"], "bus-watch", on_line=self._line)
        # The bus takes the watcher's name away when it makes it one.
        self._ready.expect("listening", timeouts.START)

    def _line(self, line: str) -> None:
        header = _HEADER.match(line)
        if header:
            self._begin(header)
        elif match := _TEXT.fullmatch(line):
            self._texts.append(match[1])
            if self._member in ("DeviceAdded", "DeviceRemoved"):
                self._tell()
            elif self._member == "DeviceExists":
                self._asked[self._question] = match[1]
        elif line == "   ]" and self._member.startswith("PropertyModified"):
            self._tell()

    def _begin(self, header: re.Match[str]) -> None:
        self._member, self._texts = header["member"] or "", []
        self._time = float(header["time"])
        if self._member == "NameLost":
            self._ready.record("listening")
        elif self._member == "PropertyModified":
            self._member += " " + header["path"].removeprefix(PREFIX)
        elif self._member == "Mount":
            self.events.record("Mount " + header["path"].removeprefix(PREFIX), self._time)
        elif self._member == "DeviceExists":
            self._question = (header["sender"], header["serial"])
        elif header["reply"]:
            text = self._asked.pop((header["destination"], header["reply"]), None)
            if text is not None:
                self.events.record(f"answered {text}", self._time)

    def _tell(self) -> None:
        texts = [text.removeprefix(PREFIX) for text in self._texts]
        self.events.record(" ".join([self._member, *texts]), self._time)
        self._member = ""


class HaldMachine(Lifespan):
    """A machine with a bus, a system log and mocked devices, on which `voldrake-hald` runs.

    `tape` has all that happens, on the channels hal and syslog.
    """

    def __init__(self, log_directory: Path) -> None:
        self.tape = Tape()
        self.sandbox = Sandbox(log_directory, target.read_only_mounts())
        self.bus = Bus(self.sandbox)
        self.syslog = Syslog(self.tape)
        self.udev = Udev(self.sandbox)
        self.hal = BusWatch(self.sandbox, self.tape)
        self.process: Process | None = None
        self._fences = itertools.count(1)

    def start(self) -> None:
        """Bring up everything but the service."""
        self.sandbox.start()
        self.sandbox.write(FILESYSTEMS, "nodev\ttmpfs\n\tvfat\n")
        self.syslog.start(self.sandbox.path("/dev/log"))
        self.bus.start()
        self.udev.start()
        self.hal.start()
        helpers = target.INSIDE / "helpers"
        self.sandbox.path(f"{TOOLS}/mount").symlink_to(helpers / "mount-memory")

    def close(self) -> None:
        """End everything; the logs and the tape remain. May be called again."""
        self.syslog.close()
        self.sandbox.close()

    def start_service(self, *arguments: str, launcher: Sequence[str] = (),
                      debug: bool = True) -> None:
        """Start the service; it owns its name and has announced what it had to on return."""
        self.launch(*arguments, launcher=launcher, debug=debug)
        self.syslog.events.expect(re.compile("serving [0-9]+ devices"), timeouts.START)

    def launch(self, *arguments: str, launcher: Sequence[str] = (),
               debug: bool = True) -> Process:
        """Start the service without waiting for more. Without `debug` there is no `settle`."""
        self.syslog.events.seek(self.mark())
        self.process = self.sandbox.spawn(
            [*launcher, target.program("voldrake-hald"), *(["--debug"] if debug else []),
             *arguments], "hald",
            environment=self.udev.environment())
        return self.process

    def kill_service(self) -> None:
        """SIGKILL."""
        assert self.process
        self.process.signal(signal.SIGKILL)
        self.process.wait()

    def settle(self) -> None:
        """Return when the service has dealt with every event until now, and all that it sent is
        on the tape."""
        since = self.mark()
        path = self.udev.fence()
        reader = Channel(self.tape, "syslog")
        reader.seek(since)
        reader.expect(re.compile(f"udev: change {path}$"), timeouts.RUN)
        self.fence_bus()

    def told(self, since: Mark = Mark(0)) -> list[str]:
        """What the service has sent after the mark, everything until now being dealt with."""
        self.settle()
        return [event.text for event in self.hal.events.up_to(self.mark(), since)
                if event.text.startswith(_SIGNALS)]

    def records(self, since: Mark = Mark(0)) -> list[Record]:
        """What the service has logged after the mark but for debug lines, everything until now
        being dealt with."""
        return [record for record in self.debug_records(since) if record.priority < 7]

    def debug_records(self, since: Mark = Mark(0)) -> list[Record]:
        """As `records`, the debug lines too."""
        self.settle()
        return [event.data for event in self.syslog.events.up_to(self.mark(), since)
                if event.data and event.data.ident == "voldrake-hald"]

    def mark(self) -> Mark:
        """The present end of the tape."""
        return self.tape.mark()

    def call(self, path: str, method: str, *arguments: str) -> str:
        """Call a method; the answer as GVariant text, or "NAME: TEXT" of the error."""
        result = self.sandbox.run(
            ["gdbus", "call", "--system", "--timeout", str(int(timeouts.START)), "--dest", NAME,
             "--object-path", path, "--method", method, "--", *arguments])
        if result.returncode == 0:
            return result.stdout.strip()
        error = re.search(r"GDBus\.Error:(.*)", result.stderr)
        return error[1] if error else result.stderr.strip()

    def get(self, name: str, key: str, kind: str = "String") -> str:
        """One property of an object, as GVariant text."""
        return self.call(PREFIX + name, f"org.freedesktop.Hal.Device.GetProperty{kind}", key)

    def mount(self, name: str, directory: str, fstype: str = "vfat", options: str = "[]") -> str:
        """Ask for a mount; what the service sends of it is on the tape on return."""
        answer = self.call(PREFIX + name, "org.freedesktop.Hal.Device.Volume.Mount", directory,
                           fstype, options)
        self.fence_bus()
        return answer

    def objects(self) -> list[str]:
        """The names of all objects but the root, sorted."""
        answer = self.call(MANAGER, "org.freedesktop.Hal.Manager.GetAllDevices")
        return sorted(name for name in re.findall(f"'{PREFIX}([^']*)'", answer)
                      if name != "computer")

    def volumes(self) -> list[str]:
        """The names of all volumes, sorted."""
        return [name for name in self.objects() if name.startswith("volume_")]

    def mounts(self) -> dict[str, str]:
        """The kernel's mount table below /media and /mnt: place -> device."""
        found = {}
        for line in Path(f"/proc/{self.sandbox.pid}/mounts").read_text().splitlines():
            source, place, *_ = line.split()
            if place.startswith(("/media/", "/mnt/")):
                found[place] = source
        return found

    def run(self, *words: str) -> None:
        """Run a program of the machine that has to succeed, such as the system's own mount."""
        result = self.sandbox.run(list(words))
        assert result.returncode == 0, result.stderr

    def sanitizer_reports(self) -> str:
        """What sanitizers built into the programs have reported, empty when nothing."""
        return "\n".join(text for text in self.sandbox.errors().values()
                         if any(word in text for word in SANITIZER_WORDS))

    def report(self) -> str:
        """The tape and what the service wrote, for a failed test."""
        return "\n".join([str(self.tape), *self.sandbox.errors().values()])

    def fence_bus(self) -> None:
        """The service has dealt with all that the bus brought until now."""
        text = f"fence {next(self._fences)}"
        self.call(MANAGER, "org.freedesktop.Hal.Manager.DeviceExists", text)
        self.hal.events.expect(f"answered {text}")
