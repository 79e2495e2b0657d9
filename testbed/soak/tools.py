"""The stand-ins for exportfs, mount, umount and mountpoint of a long run: files tell of them.

They are made by testbed/helpers/soak-tool, a script that takes no longer than the shell that the
daemon runs it with.
"""

import os
from pathlib import Path
from typing import Mapping

from testbed.sandbox import Sandbox
from testbed.soak import Violation

TOOLS = ("exportfs", "mount", "mountpoint", "umount")
_FIELD, _RECORD = "\x1f", "\x1e"
_HERE = "/srv/soak"
#: Nothing that a name holds may ever be run.
TRAP = "owned"


class ToolCalls:
    """What the daemon has run until now: the table of exports, and what failed."""

    def __init__(self, sandbox: Sandbox) -> None:
        self.exports: dict[str, str] = {}  # "*:/media/sda1" -> options
        self.failed: set[str] = set()  # targets whose last export was refused
        self.left: set[str] = set()  # names in /mnt of mounts that were refused
        self.calls = 0
        self._sandbox = sandbox
        self._place = 0
        self._rest = b""

    def install(self, directory: Path) -> None:
        """Put the tools into this directory of the sandbox."""
        here = self._sandbox.path(_HERE)
        (here / "mounted").mkdir(parents=True)
        (here / "calls").touch()
        script = Path(__file__).parent.parent / "helpers/soak-tool"
        for tool in TOOLS:
            (directory / tool).write_text(script.read_text())
            (directory / tool).chmod(0o755)

    def environment(self) -> Mapping[str, str]:
        """What the daemon has to be started with, for its tools."""
        return {"FIELD": _FIELD, "RECORD": _RECORD}

    def refuse(self, tool: str) -> None:
        """Calls of the tool fail from now on."""
        (self._sandbox.path(_HERE) / f"refuse-{tool}").touch()

    def obey(self) -> None:
        """All of them work."""
        for file in self._sandbox.path(_HERE).glob("refuse-*"):
            file.unlink()

    def lose_power(self) -> None:
        """What was mounted and exported is not any more."""
        self.read()
        for file in (self._sandbox.path(_HERE) / "mounted").iterdir():
            file.unlink()
        self.exports.clear()
        self.failed.clear()

    def mounted(self) -> set[str]:
        """The names in /mnt where something is mounted."""
        return set(os.listdir(self._sandbox.path(f"{_HERE}/mounted")))

    def read(self) -> None:
        """Take in the calls until now. Raises Violation for one that the daemon does not make."""
        if self._sandbox.path(f"{_HERE}/{TRAP}").exists():
            raise Violation("a name was run as a command")
        with open(self._sandbox.path(f"{_HERE}/calls"), "rb") as file:
            file.seek(self._place)
            data = file.read()
        self._place += len(data)
        *records, self._rest = (self._rest + data).split(_RECORD.encode())
        for record in records:
            self.calls += 1
            status, *words = record.decode("utf-8", "surrogateescape").split(_FIELD)
            self._call(status == "0", words)

    def forget(self) -> None:
        """Drop the file's content. Requires: nothing is running."""
        self.read()
        os.truncate(self._sandbox.path(f"{_HERE}/calls"), 0)
        self._place = 0

    def _call(self, done: bool, words: list[str]) -> None:
        if words[0] == "exportfs":
            self._exportfs(done, words[1:])
        elif words[0] == "mount" and not done:
            self.left.add(words[-1].removeprefix("/mnt/"))
        elif words[0] in ("mount", "umount", "mountpoint"):
            if not words[-1].startswith("/mnt/"):
                raise Violation(f"a call outside /mnt: {words}")
            if words[0] == "mount":
                self.left.discard(words[-1].removeprefix("/mnt/"))

    def _exportfs(self, done: bool, words: list[str]) -> None:
        if words == ["-a", "-r"]:
            if done:
                self.exports.clear()
                self.failed.clear()
        elif words[0] == "-o" and len(words) == 3:
            self.failed.discard(words[2])
            if done:
                self.exports[words[2]] = words[1]
            else:
                self.failed.add(words[2])
        elif words[0] == "-u" and len(words) == 2:
            self.failed.discard(words[1])
            if done:
                self.exports.pop(words[1], None)
            else:
                self.failed.add(words[1])
        elif words != ["-f"]:
            raise Violation(f"a strange call: exportfs {words}")
