"""The unit whose daemon is tried, and what can be seen of it from outside."""

import os
import signal
import time
from collections import Counter
from pathlib import Path
from typing import Callable, Mapping

from testbed import target, timeouts
from testbed.daemon import INFO, LOG_FILE, LogLine
from testbed.frame import Frame
from testbed.lifespan import Lifespan
from testbed.network import Network
from testbed.otherunit import PORT, Announcement
from testbed.sandbox import TOOLS
from testbed.soak.neighbours import Ear, Neighbour
from testbed.soak.tools import ToolCalls
from testbed.tape import Mark
from testbed.unit import Unit
from testbed.waiting import wait_until

ADDRESS, OTHER_ADDRESS = "169.254.7.1", "169.254.7.2"
INTERNAL = "/srv/internal"
_IDENTITIES = ("/etc/content-id", "/etc/serial")
_ROOT = "/org/freedesktop/Hal/devices/computer"
_MEMORY = "scsi_host/usb_device.vendor_id=int:0x90c scsi_host/usb_device.product_id=int:0x1000"
#: The stick of the stories, and the one that shows that the next one is served.
STICK = f"usb stick uuid=0000-060C {_MEMORY}"
STICK_PATH = "/media/sda1"
_PROBE = f"usb probe uuid=FFFF-060C block=/dev/sdz volume-block=/dev/sdz1 {_MEMORY}"
PROBE_PATH = "/media/sdz1"
_PROBE_LINK = "USB Memory Card Z1"
SHARE = Announcement("/media/sdb1", "", "CHARTS", 1)
SHARE_PATH = f"/mnt/{OTHER_ADDRESS}:-media-sdb1"
#: The threads in the order in which the daemon starts them; GLib's own is the last one.
THREADS = ("main", "messages", "publisher", "shares", "browser", "signals")
#: Announcements come once a second.
_ANNOUNCED_WITHIN = 2.5
_LOOKS = 30  # at the open descriptors
_LOST_BYTES = 512  # at the end of a file that a power cut has kept from being written
LOST_BUS = "HAL: Connection - lost"

#: What is seen: a name for each kind of thing, and the things.
State = Mapping[str, tuple[str, ...]]


class FaultUnit(Lifespan):
    """A unit with a neighbour on its network; the daemon is started by `start_daemon`."""

    def __init__(self, logs: Path) -> None:
        self._network = Network()
        self.unit = Unit(logs / "unit", network=self._network, address=ADDRESS)
        self.neighbour = Neighbour(self._network, logs / "neighbour", OTHER_ADDRESS)
        self.tools = ToolCalls(self.unit.sandbox)
        self.sizes: tuple[int, int] = (0, 0)  # threads and descriptors of the daemon at rest
        self._ear: Ear | None = None
        self._identity = 0

    def start(self) -> None:
        """Everything runs but the daemon."""
        self._network.start()
        self.unit.start()
        self.unit.hal.close()
        self._start_hal()
        self.neighbour.start()
        self._ear = Ear(self.neighbour, [OTHER_ADDRESS])
        self.tools.install(self.unit.sandbox.path(TOOLS))
        self.new_identities()

    def close(self) -> None:
        """Leaves nothing but logs. May be called again."""
        if self.unit.daemon.process and not self.unit.daemon.ended():
            self.unit.daemon.process.resume()  # a fault may have stopped it
        self.neighbour.close()
        self.unit.close()
        self._network.close()

    # ---- The daemon

    def start_daemon(self) -> None:
        """It has scanned what is there, shares the internal disk and has all its threads."""
        content_id, serial = _IDENTITIES
        self.unit.start_daemon("--internal-share-path", INTERNAL, "--content-id-file", content_id,
                               "--serial-number-file", serial, debug_level=INFO,
                               environment=dict(self.tools.environment()))
        wait_until(lambda: len(self.threads()) == len(THREADS), "all threads", timeouts.START)
        wait_until(lambda: self._announced() >= {INTERNAL}, "the first announcement",
                   timeouts.START)
        # What is heard just now may still be its predecessor's.
        wait_until(self._has_sockets, "the sockets of the publisher and the browser",
                   timeouts.START)
        self.sizes = len(self.threads()), self._usual_descriptors()

    def ended(self) -> str:
        """How the daemon has ended; empty while it runs."""
        daemon = self.unit.daemon
        if not daemon.ended():
            return ""
        status = daemon.wait()
        reason = f" {daemon.failed_assertion()}" if status else ""
        return f"ended with status {status}{reason}".strip()

    def threads(self) -> dict[str, int]:
        """The daemon's threads by name."""
        assert self.unit.daemon.process
        tasks = Path(f"/proc/{self.unit.daemon.process.pid}/task")
        numbers = sorted(int(task.name) for task in tasks.iterdir())
        del numbers[1:1 + target.sanitizer_threads()]
        return dict(zip(THREADS, numbers))

    def descriptors(self) -> list[str]:
        """What the daemon has open."""
        assert self.unit.daemon.process
        return sorted(self.unit.daemon.process.descriptors().values())

    def settle(self, patience: float) -> str:
        """Wait until the daemon has dealt with all signals until now; empty, or why it has not."""
        for _ in range(2):
            trouble = self._settle_once(patience)
            if trouble:
                return trouble
        return ""

    def republish(self, patience: float) -> set[str]:
        """What the daemon lists on SIGUSR1, as "DEVICE:MOUNT POINT"."""
        since = self.unit.tape.mark()
        self.unit.daemon.signal(signal.SIGUSR1)
        self.unit.daemon.log.seek(since)
        self.unit.daemon.expect_log(INFO, "SIGUSR1: Republishing all mounted FS to VessaApp",
                                    patience)
        assert not (trouble := self.settle(patience)), trouble
        return {line.text.rpartition(" --> ")[2] for line in self.lines(since)
                if line.text.startswith("Republish: ")}

    def power_cut(self) -> None:
        """With the daemon everything else has ended, nothing is mounted or exported any more, and
        the file of the log ends in zeros. What is on the disk stays: links, directories. All is up
        again on return, with the same sticks, but for the daemon. Requires: it has ended."""
        hal = self.unit.hal
        present = {line.split()[1].partition(":")[0] for line in hal.command("list")}
        hal.close()
        self.unit.bus.kill()
        self.tools.lose_power()
        with open(self.unit.sandbox.path(LOG_FILE), "ab") as log:
            log.write(bytes(_LOST_BYTES))
        self.unit.bus.start()
        self._start_hal()
        for name, text in (("stick", STICK), ("probe", _PROBE)):
            if name in present:
                hal.plug(text)

    # ---- The world around it

    def new_identities(self) -> None:
        """The identity files have another content, and another time."""
        self._identity += 1
        for file in _IDENTITIES:
            self.unit.sandbox.write(file, f"{self._identity}\n")
            # The daemon looks at whole seconds.
            os.utime(self.unit.sandbox.path(file), (10**9 + self._identity,) * 2)

    def state(self) -> State:
        """What stands outside the daemon just now."""
        self.tools.read()
        media = self.unit.sandbox.path("/media")
        links, others = [], []
        for name in sorted(os.listdir(media)):
            try:
                links.append(f"{name} -> {os.readlink(media / name)}")
            except OSError:  # no link, or gone just now
                others += [name] if os.path.lexists(media / name) else []
        return {
            "links": tuple(links),
            "in /media": tuple(others),
            "exports": tuple(sorted(self.tools.exports)),
            "mounted in /mnt": tuple(sorted(self.tools.mounted())),
            "in /mnt": tuple(sorted(os.listdir(self.unit.sandbox.path("/mnt")))),
            "announced": tuple(sorted(self._announced())),
        }

    def clear_links(self) -> None:
        """Take away what stands in /media without a directory behind it."""
        media = self.unit.sandbox.path("/media")
        for entry in list(media.iterdir()):
            if entry.is_symlink() and not (media / os.readlink(entry)).exists():
                entry.unlink()

    def mounted(self) -> set[str]:
        """What the hardware service says is mounted, as "DEVICE:MOUNT POINT"."""
        found = set()
        for line in self.unit.hal.command("list"):
            _, name, udi = line.split()
            if ":volume" in name:
                shown = dict(text.removeprefix("property ").partition("=")[::2]
                             for text in self.unit.hal.command(f"show {udi}"))
                if shown.get("volume.is_mounted") == "bool:true":
                    found.add(":".join(_text(shown.get(key, ""))
                                       for key in ("block.device", "volume.mount_point")))
        return found

    def until(self, condition: Callable[[], bool], seconds: float) -> bool:
        """Wait for the condition; False when it has not come true in that time, or by the daemon's
        end."""
        try:
            wait_until(lambda: condition() or self.unit.daemon.ended(), "", seconds)
        except AssertionError:
            return False
        return condition()

    def messages(self, since: Mark, until: Mark | None = None) -> list[str]:
        """What the application was told between the marks, first of this unit's volumes and then
        of the others' shares: threads of their own tell of them. A connection without a single
        byte, which an application has to bear, is nothing."""
        if until is None:
            self.unit.application.flush()
            until = self.unit.tape.mark()
        texts = [self._plain(event.text)
                 for event in self.unit.application.events.up_to(until, since)
                 if isinstance(event.data, Frame) and event.data.raw]
        return sorted(texts, key=lambda text: 'path="/mnt/' in text)

    def told(self, kind: str, path: str, since: Mark) -> bool:
        """True when the application has this message by now."""
        events = self.unit.application.events.up_to(self.unit.tape.mark(), since)
        return any(f'<{kind} path="{path}"' in event.text for event in events)

    def delivered(self, since: Mark) -> bool:
        """True when the application has every message that was queued after the mark."""
        queued = Counter(line.text for line in self.lines(since)
                         if line.text.startswith("<message "))
        return not queued - Counter(self.messages(since))

    def plug_probe(self) -> None:
        """One more stick comes."""
        self.unit.hal.plug(_PROBE)

    def pull_probe(self) -> None:
        """It goes."""
        self.unit.hal.pull("probe")

    def probe_is_linked(self) -> bool:
        """True when it has its link."""
        return f"{_PROBE_LINK} -> {PROBE_PATH[len('/media/'):]}" in self.state()["links"]

    def lines(self, since: Mark) -> list[LogLine]:
        """The log after the mark."""
        self.unit.daemon.flush()
        log = self.unit.daemon.log
        return [LogLine("", event.data.level if event.data else 0,
                        self._plain(event.data.text if event.data else event.text))
                for event in log.up_to(self.unit.tape.mark(), since)]

    def _start_hal(self) -> None:
        self.unit.hal.start(real_mounts=False)
        self.unit.hal.command(f"quiet set {_ROOT} volume.is_mounted=bool:false")

    def _settle_once(self, patience: float) -> str:
        begun = self.unit.tape.mark()
        hal = self.unit.hal

        def answered() -> str:
            if self.unit.daemon.ended():
                return "ended"
            if any(event.text.startswith("reply ") and f" {_ROOT} " in event.text
                   for event in self.unit.tape.shown(begun) if event.source == "hal"):
                return "answered"
            lost = any(LOST_BUS in event.text
                       for event in self.unit.tape.shown(self.unit.daemon.started)
                       if event.source == "log")
            return "the bus is lost" if lost else ""
        hal.command(f"emit {_ROOT} org.freedesktop.Hal.Device PropertyModified"
                    " (1, [('volume.is_mounted', false, false)])")
        try:
            how = wait_until(answered, "the daemon answers a change", patience)
        except AssertionError:
            return f"it does not answer a change within {patience:g} s"
        return "" if how == "answered" else how

    def _plain(self, text: str) -> str:
        """The text without what the identity files hold just now, which is never the same."""
        return text.replace(f'id="{self._identity}"', 'id="present"').replace(
            f'number="{self._identity}"', 'number="present"')

    def _announced(self) -> set[str]:
        assert self._ear
        return self._ear.announced(_ANNOUNCED_WITHIN)

    def _has_sockets(self) -> bool:
        """True when the daemon has the socket that announces, which has a port with the first
        announcement, and the one that hears what others announce."""
        assert self.unit.daemon.process
        table = Path(f"/proc/{self.unit.daemon.process.pid}/net/udp").read_text()
        sockets = table.splitlines()[1:]
        return len(sockets) == 2 and any(f":{PORT:04X} " in socket for socket in sockets)

    def _usual_descriptors(self) -> int:
        """Its threads open some for a moment, again and again."""
        counts = []
        for _ in range(_LOOKS):
            counts.append(len(self.descriptors()))
            time.sleep(2 * timeouts.POLL)
        return min(counts)


def _text(value: str) -> str:
    return value.partition(":")[2].strip('"')
