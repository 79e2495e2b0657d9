"""Stories for the hardware service over the kernel's devices.

    plug DISK LAYOUT             a disk comes; the layout is what its partitions hold
    pull DISK                    it is torn out
    format DISK PARTITION UUID   it holds another file system now
    rebuild DISK                 somebody writes "remove" and "add" to its files `uevent`
    flood DISK COUNT             so many changes that change nothing
    odd DISK ACTION              an event that nobody sends
    ask DISK PARTITION NAME      a client asks for a mount
    mount DISK PARTITION NAME    somebody else mounts it
    unmount NAME                 and unmounts what is at that place
    restart kill|term [DISK]     the service ends and comes back; meanwhile the disk vanishes or
                                 comes
    quiet, rest                  what must be true is checked; all goes, and the same
"""

import random

DISKS = ("sda", "sdb", "sdc", "sdd", "mmcblk0", "mmcblk1")
#: What the partitions hold, by number: a UUID, or nothing that is a volume. "w" is a whole disk.
LAYOUTS = ("A", "B", "AB", "AA", "A-", "-", "ABC", "w", "", "-C")
_ACTIONS = ("bind", "unbind", "move", "change", "add")
_PLACES = ("sda1", "sdb1", "one", "two", "..", "a/b")


class HaldStory:
    """The lines of one story, which follow from its seed."""

    def __init__(self, seed: str, lines: int) -> None:
        self._choice = random.Random(seed)
        makers = {
            self._plug: 30, self._pull: 22, self._format: 6, self._rebuild: 4, self._flood: 2,
            self._odd: 5, self._ask: 10, self._mount: 4, self._unmount: 4, self._restart: 1}
        self.lines: list[str] = []
        kinds, weights = list(makers), list(makers.values())
        while len(self.lines) < lines:
            self.lines.append(self._choice.choices(kinds, weights)[0]())
            if self._choice.random() < 0.04:
                self.lines.append("quiet")
        self.lines.append("rest")

    def _plug(self) -> str:
        return f"plug {self._disk()} {self._choice.choice(LAYOUTS) or '-'}"

    def _pull(self) -> str:
        return f"pull {self._disk()}"

    def _format(self) -> str:
        return (f"format {self._disk()} {self._choice.randrange(1, 3)}"
                f" {self._choice.choice(('A', 'B', 'NEW', '-'))}")

    def _rebuild(self) -> str:
        return f"rebuild {self._disk()}"

    def _flood(self) -> str:
        return f"flood {self._disk()} {self._choice.randrange(1, 200)}"

    def _odd(self) -> str:
        return f"odd {self._disk()} {self._choice.choice(_ACTIONS)}"

    def _ask(self) -> str:
        return (f"ask {self._disk()} {self._choice.randrange(3)}"
                f" {self._choice.choice(_PLACES)}")

    def _mount(self) -> str:
        return (f"mount {self._disk()} {self._choice.randrange(1, 3)}"
                f" {self._choice.choice(_PLACES[2:4])}")

    def _unmount(self) -> str:
        return f"unmount {self._choice.choice(_PLACES[2:4])}"

    def _restart(self) -> str:
        disk = self._choice.choice((self._disk(), ""))
        return f"restart {self._choice.choice(('kill', 'term'))} {disk}".strip()

    def _disk(self) -> str:
        return self._choice.choice(DISKS)
