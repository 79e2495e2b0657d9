"""The daemon's own account of what it does: its log, read as it grows.

`Ledger` follows which volumes are registered and which shares are reported, hands every message to
its `Delivery` and keeps what the last republication listed. A line that cannot be true raises
Violation: a removal of what never arrived, a second arrival, a line that is no entry.
"""

import os
import re
from pathlib import Path
from typing import Iterable

from testbed.soak import Violation
from testbed.soak.delivery import Delivery

_LINE = re.compile(r"\d\d:\d\d:\d\d: Voldrake: (Error:  |Warning:|Log:    |Debug:  )(.*)")
_MESSAGE = re.compile(r'<message version="1" type="datasource"><content>'
                      r'<data(arrival|removal) path="([^"]*)"')
_IDENTITIES = re.compile(r' contentid="([^"]*)" serialnumber="([^"]*)"')
_REPUBLISHED = re.compile(r'Republish: "(.*)" --> (.*?):(/.*)')
_RECORD = re.compile(r"_PrintHalVolumeInfo: (VolumeId|MountPoint|BlockDevice) = (.*)")
_LINK_FAILED = re.compile(r"symlink failed: (/media/.*) -> (.*)")
_RULE = "-" * 75
_SIGNAL = "SIGUSR1: Republishing all mounted FS to VessaApp"
_RESCAN = "SIGUSR2: Simulating removing/inserting SD card"
#: Other threads may queue so many messages beside a line of the main thread.
_SLACK = 3


class Ledger:
    """What the log tells. Times and debug lines are of no interest."""

    def __init__(self, identities: Iterable[str] = ("",)) -> None:
        """`identities`: what the identity files have ever held."""
        self.local = Delivery("a volume", 0)
        self.remote = Delivery("a share", _SLACK)
        self.volumes: dict[str, int] = {}  # path as messages have it -> how many are registered
        self.shares: set[str] = set()  # paths of the shares that are reported
        self.linkless: set[str] = set()  # targets of links that could not be made
        self.udis: dict[tuple[str, str], set[str]] = {}  # device and mount point -> volumes
        self.republished: list[tuple[str, str]] = []  # device and mount point
        self.republications = 0
        self.rescans = 0
        self.identities = set(identities)
        self.messages = 0
        self.lines = 0
        self.recent: list[str] = []
        self._undecided: str | None = None  # path of an arrival: registered or republished
        self._record: dict[str, str] = {}

    def line(self, line: str) -> None:
        """Take in the next line."""
        self.lines += 1
        self.recent = [*self.recent[-60:], line]
        match = _LINE.fullmatch(line)
        if not match:
            raise Violation(f"no entry of the log: {line!r}")
        text = match[2]
        if text.startswith("<message "):
            self._message(text)
        elif text == _SIGNAL:
            self.local.discarded()
            self.remote.discarded()
            self.republished = []
            self.republications += 1
        elif text == _RESCAN:
            self.rescans += 1
        elif text.startswith("Republish: "):
            self._republished(text)
        elif text == _RULE:
            self._registered()
        elif found := _RECORD.match(text):
            self._describe(found[1], found[2])
        elif found := _LINK_FAILED.fullmatch(text):
            self.linkless.add(found[2])

    def _message(self, text: str) -> None:
        match = _MESSAGE.match(text)
        if not match:
            raise Violation(f"malformed message: {text}")
        self.messages += 1
        kind, path = match.groups()
        if path.startswith("/mnt/"):
            self._share(kind, path, text)
        else:
            self._volume(kind, path, text)

    def _share(self, kind: str, path: str, text: str) -> None:
        self.remote.queued(_as_bytes(text))
        if kind == "arrival":
            if path in self.shares and not self.republications:
                raise Violation(f"a share arrived twice: {path}")
            self.shares.add(path)
        elif path in self.shares:
            self.shares.remove(path)
        else:
            raise Violation(f"a share was removed that had not arrived: {path}")

    def _volume(self, kind: str, path: str, text: str) -> None:
        self.local.queued(_as_bytes(text))
        if self._undecided is not None:
            raise Violation(f"an arrival that was neither registered nor republished:"
                            f" {self._undecided}")
        if kind == "arrival":
            self._undecided = path
            self._check_identities(text)
        elif self.volumes.get(path, 0) > 0:
            self.volumes[path] -= 1
            self.linkless.discard(path[len("/media/"):])
        else:
            raise Violation(f"a volume was removed that had not arrived: {path}")

    def _check_identities(self, text: str) -> None:
        match = _IDENTITIES.search(text)
        if not match or not set(match.groups()) <= self.identities:
            raise Violation(f"an identity that no file ever held: {text}")

    def _registered(self) -> None:
        if self._undecided is not None:
            path, self._undecided = self._undecided, None
            self.volumes[path] = self.volumes.get(path, 0) + 1

    def _republished(self, text: str) -> None:
        match = _REPUBLISHED.fullmatch(text)
        if not match or self._undecided is None:
            raise Violation(f"a republication without a message: {text}")
        path, self._undecided = self._undecided, None
        if not self.volumes.get(path):
            raise Violation(f"a republication of what had not arrived: {path}")
        self.republished.append((match[2], match[3]))

    def _describe(self, key: str, value: str) -> None:
        self._record = {key: value} if key == "VolumeId" else self._record | {key: value}
        if key == "BlockDevice" and len(self._record) == 3:
            place = (self._record["BlockDevice"], self._record["MountPoint"])
            self.udis.setdefault(place, set()).add(self._record["VolumeId"])


def _as_bytes(text: str) -> str:
    """A text of the log as the application gets it: a character for each byte."""
    return text.encode("utf-8", "surrogateescape").decode("latin-1")


class LogFile:
    """A log that is opened anew for each line and moved away now and then."""

    def __init__(self, path: Path, ledger: Ledger) -> None:
        self._path = path
        self._ledger = ledger
        self._files: list[tuple[int, Path]] = []  # the present one last
        self._rest = b""

    def read(self) -> None:
        """Hand every line that is there by now to the ledger."""
        if not self._files and self._path.exists():
            self._files = [(os.open(self._path, os.O_RDONLY | os.O_CLOEXEC), self._path)]
        for number in range(len(self._files)):
            while data := os.read(self._files[number][0], 1 << 18):
                *lines, self._rest = (self._rest + data).split(b"\n")
                for line in lines:
                    self._ledger.line(line.decode("utf-8", "surrogateescape"))

    def rotate(self) -> None:
        """Move the file away. A line that is being written may still go there: it is read on
        until `settled`."""
        self.read()
        if self._path.exists():
            away = self._path.with_suffix(f".{len(self._files)}")
            self._path.rename(away)
            self._files = [(file, away if path == self._path else path)
                           for file, path in self._files]
            self._path.touch()
            self._files.append((os.open(self._path, os.O_RDONLY | os.O_CLOEXEC), self._path))

    def settled(self) -> None:
        """Nothing is being written: files that were moved away are done with."""
        self.read()
        for file, path in self._files[:-1]:
            os.close(file)
            path.unlink()
        del self._files[:-1]

    def close(self) -> None:
        """Read no more."""
        for file, _ in self._files:
            os.close(file)
        self._files.clear()
