"""A whole unit: an emulated machine with what runs on it, seen from outside."""

import json
import re
import time
from dataclasses import dataclass
from pathlib import Path

from testbed.lifespan import Lifespan
from testbed.machine import deadlines, surface
from testbed.machine.emulator import Emulator, Image
from testbed.machine.ports import CommandPort, LinePort
from testbed.machine.surface import Surface
from testbed.machine.volumes import Volume
from testbed.tape import Channel, Mark, Tape

NAMES = ("north", "south")


@dataclass(frozen=True)
class JournalLine:
    """A line of the journal. `time` is the kernel's clock, in seconds since the machine began."""

    time: float
    priority: int
    source: str
    text: str

    @property
    def is_error(self) -> bool:
        """True for errors and worse, also those of a log file."""
        return self.priority <= 3

    def __str__(self) -> str:
        return f"{self.time:12.6f} <{self.priority}> {self.source}: {self.text}"


class Unit(Lifespan):
    """One unit. `start` switches it on and returns when it takes commands; `close` cuts the power.

    `tape` has all that comes from it, on the channels journal, log (the daemon's log file) and
    application (texts of the messages). For the story to keep: `volumes`, what is plugged in;
    `old_links`, links of former runs of the daemon, name -> where to, which it leaves alone until
    it starts again; `old_names`, directories of a former run, and of shares that could not be
    mounted.
    """

    def __init__(self, number: int, image: Image, directory: Path, sockets: Path) -> None:
        """`number` 1 or 2, which decides on name and address."""
        self.name = NAMES[number - 1]
        self.address = f"169.254.1.{number}"
        self.directory = directory / self.name
        self.emulator = Emulator(self.name, NAMES[2 - number], number, image, self.directory,
                                 sockets)
        self.tape = Tape()
        self.journal = Channel(self.tape, "journal")
        self.log = Channel(self.tape, "log")
        self.application = Channel(self.tape, "application")
        self.volumes: list[Volume] = []
        self.old_links: dict[str, str] = {}
        self.old_names: set[str] = set()
        self.commands: CommandPort
        self._ports: list[LinePort] = []
        self._heard = 0  # so many messages have been expected
        self._checked = Mark(0)  # journal lines up to here have been looked at

    def create(self) -> None:
        """A fresh disk; logs of former runs go."""
        self.directory.mkdir(parents=True, exist_ok=True)
        for name in ("journal", "log", "application"):
            (self.directory / name).write_text("")
        self.emulator.create()

    def start(self) -> None:
        """Switch it on; it takes commands on return."""
        self.begin_start()
        self.commands.wait_until_ready()

    def begin_start(self) -> None:
        """Switch it on."""
        self.emulator.start()
        sockets = self.emulator.sockets
        self.commands = CommandPort(sockets / "commands")
        self._ports = [LinePort(sockets / "journal", self._journal_line),
                       LinePort(sockets / "log", self._log_line),
                       LinePort(sockets / "application", self._application_line)]

    def close(self) -> None:
        """Cut the power."""
        self.emulator.close()
        if self._ports:
            self.commands.close()
        for port in self._ports:
            port.close()
        self._ports = []

    def run(self, command: str, check: bool = True, timeout: float = deadlines.COMMAND) -> str:
        """Run a shell command on the unit; its output."""
        return self.commands.run(command, check, timeout)

    def disk_at(self, port: str) -> str:
        """What the kernel calls the disk of the stick in this port, such as "sda", once it has
        seen it."""
        return self.run(f"until ls -d /sys/bus/usb/devices/1-{port}/*/host*/target*/*/block/*;"
                        " do sleep 0.2; done 2>/dev/null | xargs basename",
                        timeout=deadlines.SURFACE).strip()

    def wait_until_started(self) -> None:
        """Return once what starts at boot has been started. Only the wait for a network may have
        failed, which has an end."""
        self.run("systemctl is-system-running --wait", check=False, timeout=deadlines.STARTED)
        failed = [line.split()[0] for line in
                  self.run("systemctl list-units --failed --no-legend --plain").splitlines()]
        assert failed in ([], ["systemd-networkd-wait-online.service"]), \
            f"{self.name} has failed units: {failed}"

    def exportable_volumes(self) -> list[Volume]:
        """Those that other units can have."""
        return [volume for volume in self.volumes if volume.exportable]

    def in_order(self) -> list[Volume]:
        """The volumes in the order in which the application was told of them."""
        told = self.told()
        return sorted(self.volumes, key=lambda volume: -told[::-1].index(volume.arrival()))

    def told(self) -> list[str]:
        """What its application was told until now."""
        return [event.text for event in self.application.up_to(self.tape.mark())]

    def surface(self) -> Surface:
        """Its present surface."""
        return surface.read(self.run("/usr/local/lib/testbed/surface"))

    def wait_for_surface(self, wanted: Surface) -> None:
        """Return once the surface is as wanted."""
        deadline = time.monotonic() + deadlines.SURFACE
        while differences := self.surface().differences(wanted):
            assert time.monotonic() < deadline, \
                f"{self.name} is not as it should be:\n  " + "\n  ".join(differences)
            time.sleep(deadlines.POLL)

    def expect_messages(self, *texts: str) -> None:
        """These messages have come, or come, to the application, in any order, and no others."""
        wanted = sorted(texts)
        deadline = time.monotonic() + deadlines.SURFACE
        while True:
            seen = sorted(self.told()[self._heard:])
            if len(seen) >= len(wanted) or time.monotonic() > deadline:
                break
            with self.tape.added:
                self.tape.added.wait(1)
        assert seen == wanted, (f"the application of {self.name} received\n  "
                                + "\n  ".join(seen or ["nothing"])
                                + "\nand should have received\n  "
                                + "\n  ".join(wanted or ["nothing"]))
        self._heard += len(seen)

    def errors(self, expected: re.Pattern[str]) -> list[str]:
        """Error lines of journal and log file since the last call that are not expected."""
        since, self._checked = self._checked, self.tape.mark()
        return [str(event.data) for event in self.tape.shown(since)
                if isinstance(event.data, JournalLine) and event.data.is_error
                and not expected.search(f"{event.data.source}: {event.data.text}")]

    def _journal_line(self, line: str) -> None:
        try:
            fields = json.loads(line)
        except ValueError:
            return  # cut by the end of the machine
        text = fields.get("MESSAGE") or ""
        if isinstance(text, list):
            text = bytes(text).decode("latin-1")
        entry = JournalLine(int(fields["__MONOTONIC_TIMESTAMP"]) / 1e6,
                            int(fields.get("PRIORITY", 6)),
                            fields.get("SYSLOG_IDENTIFIER", "?"), text)
        self._keep("journal", str(entry))
        self.journal.record(text, entry)

    def _log_line(self, line: str) -> None:
        priority = 3 if re.match(r"\S+ Voldrake: Error:", line) else 6
        self._keep("log", line)
        self.log.record(line, JournalLine(0, priority, "log", line))

    def _application_line(self, line: str) -> None:
        self._keep("application", line)
        told = json.loads(line)
        self.application.record(told.get("text", line))

    def _keep(self, name: str, line: str) -> None:
        with (self.directory / name).open("a", encoding="utf-8") as file:
            file.write(line + "\n")
