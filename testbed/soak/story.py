"""Makes stories: every choice follows from one seed, and each kind of event has a weight."""

import random
import shlex

from testbed.otherunit import Announcement
from testbed.soak.service import PREFIX
from testbed.soak.unit import IGNORED

#: Names that an attacker would choose, and ordinary ones.
_NAMES = ("CHARTS", "A&B", 'say "hello"', "<tag/>", "$(touch /srv/soak/owned)",
          "'; touch /srv/soak/owned; '", "`touch /srv/soak/owned`", "K\u00fcste", "x" * 120)
_PATHS = ("/media/sda1", "/media/sdb1", "/media/$(touch /srv/soak/owned)",
          "/media/a'; touch /srv/soak/owned; '", "/media/../../etc", "/media/with blank", "/x;y",
          "/media/" + "long" * 30)
_USB = tuple(f"usb{number}" for number in range(6))
_CARDS = tuple(f"sd{number}" for number in range(3))
_READERS = ("reader0",)
_SERVED = (*_USB, *_CARDS, *_READERS)
_QUERIES = ("GetPropertyString", "GetPropertyBoolean", "GetPropertyInteger",
            "GetPropertyString:info.parent", "GetPropertyString:block.device",
            "GetPropertyString:volume.mount_point", "FindDeviceByCapability")
_UNITS = range(3)
_MOST_SHARES = 6
_ADDRESSES = ("169.254.7.1", "169.254.7.77")


class Story:
    """The lines of one story, which follow from its seed."""

    def __init__(self, seed: str, lines: int) -> None:
        self._choice = random.Random(seed)
        self._plugged: set[str] = set()
        self._shares: list[tuple[int, str]] = []
        self._makers = {  # what makes lines, and how often
            self._plug: 30, self._pull: 22, self._volume: 4, self._remount: 6, self._mount: 6,
            self._again: 4, self._refusal: 5, self._delay: 2, self._silent: 3, self._lie: 4,
            self._strange: 2, self._away: 2, self._settle: 30, self._signal: 4, self._rotate: 1,
            self._identity: 2, self._application: 5, self._share: 5, self._unshare: 5,
            self._garbage: 4, self._chatter: 3, self._network: 1, self._tool: 2, self._leave: 2,
            self._property: 5}
        self.lines: list[str] = []
        kinds, weights = list(self._makers), list(self._makers.values())
        while len(self.lines) < lines:
            self.lines += self._choice.choices(kinds, weights)[0]()
            lot = self._choice.random()
            if lot < 0.015:
                self.lines.append("quiet")
            elif lot < 0.03:  # else what is in doubt would soon be most of all
                self.lines.append("heal")
        if self._choice.random() < 0.2:
            self.lines.append("compare")
        self.lines.append("rest")

    def _plug(self) -> list[str]:
        name = self._choice.choice((*_SERVED, "scsi0", "ignored0", "lost0"))
        if name in self._plugged and self._choice.random() < 0.8:
            return []
        self._plugged.add(name)
        return [f"hal plug {self._hardware(name)}{self._options(name)}"]

    def _hardware(self, name: str) -> str:
        number = int(name[-1])
        if name in _USB:
            twin = self._choice.random() < 0.1
            return f"usb {name} serial={name} uuid=" + ("TWIN" if twin else f"U{number}")
        if name in _CARDS:
            return f"sd {name} host={number}"
        if name in _READERS:
            return f"reader {name} product={self._choice.choice(('0x2240', '0x4040'))}"
        if name == "lost0":
            return f"sd {name} host=3 card/mmc.cid=unset"
        if name == "ignored0":
            return f"usb {name} block=/dev/sdz volume-block={IGNORED}"
        return f"scsi {name}"

    def _options(self, name: str) -> str:
        if name in _READERS:
            return ""
        options = ""
        if self._choice.random() < 0.3:
            options += " label=" + _quoted(self._choice.choice(_NAMES))
        if self._choice.random() < 0.2:
            options += " readonly"
        if self._choice.random() < 0.15 and name != "ignored0":
            options += f" partitions={self._choice.randrange(4)}"
        elif self._choice.random() < 0.1:
            options += " mounted"
        if self._choice.random() < 0.1:
            options += " fstype=" + self._choice.choice(("ext4", "ntfs", '""'))
        return options

    def _pull(self) -> list[str]:
        name = self._some()
        self._plugged.discard(name)
        return [f"hal pull {name}"]

    def _volume(self) -> list[str]:
        if self._choice.random() < 0.5:
            return [f"hal plug volume reader0 lun={self._choice.randrange(4)}"]
        return [f"hal pull reader0:volume1@{self._choice.randrange(4)}"]

    def _remount(self) -> list[str]:
        return [f"hal remount {self._some()} {self._choice.choice(('ro', 'rw'))}"]

    def _mount(self) -> list[str]:
        name = self._some()
        place = self._choice.choice(("", "", f" {name}x", f" /media/{name}y", f" /srv/{name}"))
        return self._choice.choice(([f"hal unmount {name}"], [f"hal mount {name}{place}"],
                                    [f"hal unmount {name}", "settle", f"hal mount {name}{place}"]))

    def _again(self) -> list[str]:
        number = self._choice.randrange(len(_USB))
        member = self._choice.choice(("DeviceAdded", "DeviceAdded", "DeviceRemoved"))
        return [f"hal emit {_MANAGER} {member} ('{PREFIX}volume_uuid_U{number}',)"]

    def _refusal(self) -> list[str]:
        if self._choice.random() < 0.4:
            return ["hal fail Mount org.freedesktop.Hal.Device.Volume.UnknownFailure no"]
        return [f"hal fail {self._choice.choice(_QUERIES)} org.freedesktop.Hal.Soak no"]

    def _delay(self) -> list[str]:
        method = self._choice.choice(("Mount", *_QUERIES))
        return [f"hal delay {method} {self._choice.randrange(1, 40)}"]

    def _silent(self) -> list[str]:
        line = self._choice.choice((self._plug, self._pull, self._remount))()
        return [text.replace("hal ", "hal quiet ", 1) for text in line]

    def _lie(self) -> list[str]:
        number = self._choice.randrange(len(_USB))
        volume = f"{PREFIX}volume_uuid_U{number}"
        return [self._choice.choice((
            f"hal answer {self._choice.choice(_QUERIES)} (7,)",
            f"hal emit {volume} {_DEVICE} PropertyModified"
            " (9, [('volume.is_mounted', false, false), ('volume.is_mounted', true, true)])",
            f"hal emit {volume} {_DEVICE} PropertyModified ('text',)",
            f"hal emit {volume} {_DEVICE} PropertyModified"
            " (1, [('volume.is_mounted_read_only', false, false)])",
            f"hal emit {_MANAGER} DeviceAdded (42,)",
            f"hal emit {_MANAGER} DeviceRemoved",
            f"hal emit {_MANAGER} DeviceAdded ('{PREFIX}volume_of_nobody',)"))]

    def _strange(self) -> list[str]:
        member = self._choice.choice(("DeviceAdded", "DeviceRemoved"))
        return [f"stranger emit {_MANAGER} {member} ('{PREFIX}volume_uuid_U0',)"]

    def _away(self) -> list[str]:
        lines = [self._choice.choice(("hal drop", "hal drop answer", "hal drop name"))]
        if self._choice.random() < 0.3:
            lines.insert(0, f"hal ignore {self._choice.choice(_QUERIES)}")
        if self._choice.random() < 0.5:
            lines += self._choice.choice((self._plug, self._pull))()
        return [*lines, "hal return"]

    def _settle(self) -> list[str]:
        return ["settle"]

    def _signal(self) -> list[str]:
        return ["signal " + self._choice.choice(("USR1", "USR2", "HUP"))]

    def _rotate(self) -> list[str]:
        return ["rotate"]

    def _identity(self) -> list[str]:
        name = self._choice.choice(("content-id", "serial"))
        return [f"identity {name} {self._choice.randrange(10 ** 9)}"]

    def _application(self) -> list[str]:
        what = self._choice.choice(("leave", "listen", "listen", "hang", "go", "go", "reset",
                                    "cut"))
        return [f"application {what}"]

    def _share(self) -> list[str]:
        if len(self._shares) >= _MOST_SHARES:
            return []
        unit, path = self._choice.choice(_UNITS), self._choice.choice(_PATHS)
        if (unit, path) in self._shares:
            return []
        self._shares.append((unit, path))
        name = shlex.quote(self._choice.choice(_NAMES))
        key = "1b534d303030303010206bb243009a33" if self._choice.random() < 0.5 else "''"
        return [f"share {unit} {shlex.quote(path)} {key} {name}"
                f" {self._choice.choice(('ro', 'rw'))}"]

    def _unshare(self) -> list[str]:
        if not self._shares:
            return []
        unit, path = self._shares.pop(self._choice.randrange(len(self._shares)))
        return [f"{self._choice.choice(('silent', 'withdraw'))} {unit} {shlex.quote(path)}"]

    def _garbage(self) -> list[str]:
        raw = Announcement("/media/liar", "", self._choice.choice(_NAMES)).encode()
        cut = self._choice.randrange(3)
        if cut == 0:
            raw = raw[:self._choice.randrange(20)]
        elif cut == 1:
            raw = b"\x12\x34\x56\x78" + raw[4:]
        else:
            raw = Announcement("/media/liar").withdrawal().encode()
            raw = raw[:14] + self._choice.randbytes(6) + raw[20:]
        return [f"datagram {self._choice.choice(_UNITS)} {self._choice.randrange(1, 20)} "
                + raw.hex()]

    def _chatter(self) -> list[str]:
        if not self._shares:
            return []
        unit, path = self._choice.choice(self._shares)
        raw = Announcement("/media/nobody").withdrawal().encode()
        return [f"datagram {unit} {self._choice.randrange(1, 400)} {raw.hex()}"]

    def _network(self) -> list[str]:
        return [self._choice.choice(("network down", "network up",
                                     f"network up {self._choice.choice(_ADDRESSES)}"))]

    def _tool(self) -> list[str]:
        return [self._choice.choice(("refuse exportfs", "refuse mount", "obey", "obey"))]

    def _leave(self) -> list[str]:
        return [self._choice.choice(("leave-behind sda1", "leave-behind sdb1",
                                     "leave-behind mmcblk0p1", "link-gone 'Memory Card - 1'"))]

    def _property(self) -> list[str]:
        return [f"hal set {self._some()} volume.label=string:"
                + _quoted(self._choice.choice(_NAMES))]

    def _some(self) -> str:
        return self._choice.choice(sorted(self._plugged) or ["usb0"])


_DEVICE = "org.freedesktop.Hal.Device"
_MANAGER = "/org/freedesktop/Hal/Manager org.freedesktop.Hal.Manager"


def _quoted(text: str) -> str:
    """As the service's commands have a word."""
    return '"' + text.replace("\\", "\\\\").replace('"', '\\"') + '"'
