"""What a story has made uncertain, and why.

The daemon acts on what it is told and on the answers that it gets. Where a story has spoilt either,
the daemon is right whatever it has registered of the volumes concerned; where it has made a mount
impossible, it is right not to have it mounted. These are the cases, each part of the contract:

- a query that is refused, never answered or answered with another type ends the handling of that
  event, and nothing tries again;
- a signal that was never sent (a change made silently, or while the service is away) is unknown;
- a signal that lies is believed, when it comes from the service;
- of two moves of a volume that come faster than they are looked at only the present place is seen,
  and a registered volume keeps its entry: see `moved`;
- a mount that was refused is not tried again, and what somebody else has unmounted stays so.

`heal` of the unit ends every doubt: each volume concerned is taken back and shown anew.
"""

import re
import threading
from typing import Mapping

_EDITS = ("plug", "pull", "set", "mount", "unmount", "remount")
_MOUNT = "Mount"


class Doubts:
    """Names, as volumes are plugged with, that nothing is sure about. Any thread."""

    def __init__(self, names: Mapping[str, str]) -> None:
        """`names`: the name of each object path."""
        self._names = names
        self._lock = threading.Lock()
        self._doubted: set[str] = set()
        self._excused: set[str] = set()  # those that need not be mounted
        self._touched: set[str] = set()  # since everything was quiet
        self._unmounted: set[str] = set()  # likewise
        self._vague = False  # anything that is touched is doubtful
        self._away = False
        self._plugged: set[str] = set()

    def command(self, text: str) -> None:
        """The service is told this."""
        words = text.split()
        silent = words[0] == "quiet"
        if silent:
            words = words[1:]
        with self._lock:
            if words[0] in ("drop", "return"):
                self._away = words[0] == "drop"
                self._doubted |= self._touched
            elif words[0] in ("answer", "ignore"):
                self._vague = True
                self._doubted |= self._touched
            elif words[0] == "emit":
                names = self._mentioned(text)
                self._touched |= names
                if "DeviceRemoved" in words or self._away or self._vague:
                    self._doubted |= names
            elif words[0] in _EDITS:
                self._edit(words, silent)

    def rescan(self) -> None:
        """The daemon is told to look at everything anew."""
        with self._lock:
            self._touched |= self._plugged
            if self._away or self._vague:
                self._doubted |= self._plugged

    def refused(self, error: str, path: str, method: str) -> None:
        """The service has refused a call, as told or by its own rules."""
        name = self._names.get(path)
        with self._lock:
            if method == _MOUNT and error:
                self._excused |= {name} if name else set()
            elif not error or error.endswith(".Soak"):
                self._doubted |= {name} if name else self._plugged

    def quiet(self) -> None:
        """Everything that was caused has been dealt with, and no fault is waiting."""
        with self._lock:
            self._touched.clear()
            self._unmounted.clear()
            self._vague = False

    def healed(self) -> None:
        """The volumes in doubt were shown anew."""
        with self._lock:
            self._excused |= self._doubted  # nobody has asked for their mounts again
            self._doubted.clear()

    def doubted(self) -> set[str]:
        """The names in doubt."""
        with self._lock:
            return set(self._doubted)

    def plugged(self) -> set[str]:
        """The names of what must be plugged in."""
        with self._lock:
            return set(self._plugged)

    def excused(self) -> set[str]:
        """The names whose volumes need not be mounted."""
        with self._lock:
            return self._excused | self._doubted

    def _edit(self, words: list[str], silent: bool) -> None:
        verb = words[0]
        name = words[2] if verb == "plug" else words[1].partition(":")[0]
        whole = verb in ("plug", "pull") and words[1] != "volume" and ":" not in words[1]
        if verb == "plug" and whole:
            if name in self._plugged:
                return  # the service refuses it
            self._plugged.add(name)
            if name not in self._doubted:
                self._excused.discard(name)
        if verb == "pull" and whole:
            self._plugged.discard(name)
        if verb in ("unmount", "pull"):
            self._excused.add(name)
        if verb == "unmount":
            self._unmounted.add(name)
        moved = verb == "mount" and name in self._unmounted
        if moved or silent or self._away or self._vague:
            self._doubted.add(name)
            self._excused.add(name)
        self._touched.add(name)

    def _mentioned(self, text: str) -> set[str]:
        paths = re.findall(r"/org/freedesktop/Hal/devices/\w+", text)
        return {self._names[path] for path in paths if path in self._names}
