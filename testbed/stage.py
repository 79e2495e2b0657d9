"""What the demo plays on: a unit whose display application is the monitor, or the user's own."""

import signal
from dataclasses import dataclass
from pathlib import Path

from testbed import cardreader, timeouts
from testbed.daemon import DEBUG, INFO, LogLine
from testbed.lifespan import Lifespan
from testbed.medialinks import MediaLinks
from testbed.monitor import Monitor, Told
from testbed.network import Network
from testbed.nfs import NfsTools
from testbed.ownapplication import OwnApplication
from testbed.tape import Wanted
from testbed.unit import Unit
from testbed.waiting import wait_until

CONFIGURATION = """\
name=Chart Port
usbid=1-1_4--1_0
name=Workshop stick
usbid=unused
ignore=true
ignoreDevice=/dev/sdc1
"""


#: What the card in the reader's first slot answers when it is asked who it is.
CARD_IN_READER = "0353445355303847802A5B1C4A00F300"


@dataclass(frozen=True)
class Command:
    """A display application that takes the monitor's place: its words, and where it runs."""

    words: list[str]
    directory: Path


class Stage(Lifespan):
    """A unit with three SD hosts, the configuration above and stand-in tools for NFS. With a
    network it is on that wire, and units with the same list of neighbours read each other's
    files. `display` is the display application."""

    def __init__(self, log_directory: Path, network: Network | None = None,
                 address: str | None = None, neighbours: list[NfsTools] | None = None,
                 command: Command | None = None) -> None:
        self.unit = Unit(log_directory, mmc_hosts=3, configuration=CONFIGURATION,
                         network=network, address=address,
                         seen=[command.directory] if command else [])
        self._own = (OwnApplication(self.unit.sandbox, self.unit.tape, command.words,
                                    command.directory) if command else None)
        self.display = self._own or Monitor(self.unit.sandbox, self.unit.tape)
        self._neighbours = neighbours
        self._links: MediaLinks | None = None

    def start(self) -> None:
        """Bring up everything but the daemon."""
        self.unit.start(listen=False)
        self.tools = NfsTools(self.unit, self._neighbours)
        self._links = MediaLinks(self.unit.tape, self.unit.sandbox.path("/media"))
        self.display.start()

    def close(self) -> None:
        """End everything; the tape is kept with the logs."""
        if self._links:
            self._links.close()
            self._links = None
        self.unit.close()
        (self.unit.sandbox.logs / "tape.txt").write_text(f"{self.unit.tape}\n")

    def start_daemon(self, *arguments: str) -> None:
        """Start the daemon and return when its start-up scan is done.

        It finds a card with the identity `CARD_IN_READER` behind /dev/sdd1.
        """
        sandbox = self.unit.sandbox
        environment = cardreader.environment(sandbox)
        cardreader.script(sandbox, "sdd1", f"answer {CARD_IN_READER}")
        # Only at level 4 the log tells what was sent.
        self.unit.start_daemon(*arguments, debug_level=DEBUG if self._own else INFO,
                               environment=environment)

    def told(self, timeout: float = timeouts.EVENT) -> bool:
        """Wait until the application has been told all that the daemon has for it.

        False when that is not so after `timeout` seconds.
        """
        self.unit.daemon.log_lines()  # behind a fence: what is to be told is in the log
        try:
            wait_until(self._is_all_told, "all is told", timeout)
        except AssertionError:
            return False
        return True

    def expect_told(self, message: str, path: str, timeout: float = timeouts.EVENT) -> None:
        """Wait until the monitor is told this "arrival" or "removal"; NotSeen otherwise."""
        self.display.events.expect(Wanted(
            f"{message} of {path}",
            lambda event: isinstance(event.data, Told)
            and (event.data.fields.get("message"), event.data.fields.get("path"))
            == (message, path)), timeout)

    def begin_ending(self) -> None:
        """Tell the daemon to end."""
        self.unit.daemon.signal(signal.SIGTERM)

    def finish(self) -> int:
        """Wait for the daemon's end, to which it was told; its exit status."""
        return self.unit.daemon.wait(timeouts.STOP)

    def _is_all_told(self) -> bool:
        events = self.unit.tape.shown()
        lines = [event.data.text for event in events if isinstance(event.data, LogLine)]
        if self._own:
            # What has waited when it asked for everything will not be sent.
            asked = [number for number, line in enumerate(lines) if line.startswith("SIGUSR1: ")]
            lines = lines[asked[-1]:] if asked else lines
            told = sum(line.startswith("data size: ") for line in lines)
            if not self._own.has_read_all():
                return False
        else:
            told = sum(isinstance(event.data, Told) for event in events)
        return told >= sum(line.startswith("<message ") for line in lines)
