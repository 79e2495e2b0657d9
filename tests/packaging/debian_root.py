"""A Debian root in a directory, for what must not touch this machine."""

import os
import subprocess
from pathlib import Path

from testbed import timeouts

_SOURCES = Path("/etc/apt/sources.list.d/debian.sources")
#: Making a root takes half a minute; with a slow archive and many packages a multiple of it.
_MAKE = 900 * timeouts.SCALE


class Root:
    """A root, made of the Debian archive, that exists within `with`. Commands run in it one at a
    time, in name spaces of their own and without a network. Requires: being root, since a
    package's files belong to several users.
    """

    def __init__(self, directory: Path, *hooks: str) -> None:
        """The hooks are shell commands that run with a network at last, with the root as $1."""
        self.directory = directory
        self._hooks = hooks

    def __enter__(self) -> "Root":
        self._remove()
        try:
            with _SOURCES.open(encoding="ascii") as sources:
                subprocess.run(
                    ["mmdebstrap", "--mode=root", "--variant=apt", "--format=directory",
                     "--skip=cleanup/apt", *(f"--customize-hook={hook}" for hook in self._hooks),
                     "bookworm", str(self.directory), "-"],
                    stdin=sources, check=True, timeout=_MAKE)
        except BaseException:
            self._remove()
            raise
        return self

    def __exit__(self, *_: object) -> None:
        self._remove()

    def run(self, command: str, check: bool = True, timeout: float = 10 * timeouts.RUN) -> str:
        """Run a shell command in the root; its output, that on standard error included."""
        enter = ("ip link set lo up; mount -t proc proc $0/proc; mount -t tmpfs run $0/run;"
                 ' exec chroot $0 sh -c "$1" 2>&1')
        done = subprocess.run(
            ["unshare", "--mount", "--net", "--pid", "--fork", "--kill-child",
             "sh", "-c", enter, str(self.directory), command],
            env={"PATH": os.environ["PATH"], "LC_ALL": "C.UTF-8",
                 "DEBIAN_FRONTEND": "noninteractive"},
            text=True, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, check=False,
            timeout=timeout)
        assert done.returncode == 0 or not check, done.stdout
        return done.stdout

    def _remove(self) -> None:
        subprocess.run(["rm", "-rf", "--one-file-system", str(self.directory)],
                       check=False)
