"""A Debian root in a directory, for what must not touch this machine."""

import os
import signal
import subprocess
import time
from pathlib import Path
from typing import BinaryIO, Callable

from testbed import timeouts
from testbed.lifespan import Lifespan

_SOURCES = Path("/etc/apt/sources.list.d/debian.sources")
#: Making a root takes half a minute; with a slow archive and many packages a multiple of it.
_MAKE = 900 * timeouts.SCALE


class Root(Lifespan):
    """A root, made of the Debian archive. Commands run in it one at a time, in name spaces of
    their own and without a network. Requires: being root, since a package's files belong to
    several users.
    """

    def __init__(self, directory: Path, *hooks: str) -> None:
        """The hooks are shell commands that run with a network at last, with the root as $1."""
        self.directory = directory
        self._hooks = hooks

    def start(self) -> None:
        """Make the root, in place of one that was left there."""
        self.close()
        with _SOURCES.open(encoding="ascii") as sources:
            subprocess.run(
                ["mmdebstrap", "--mode=root", "--variant=apt", "--format=directory",
                 "--skip=cleanup/apt", *(f"--customize-hook={hook}" for hook in self._hooks),
                 "bookworm", str(self.directory), "-"],
                stdin=sources, check=True, timeout=_MAKE)

    def close(self) -> None:
        """Remove the root."""
        subprocess.run(["rm", "-rf", "--one-file-system", str(self.directory)],
                       check=False)

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


_CGROUPS = Path("/sys/fs/cgroup")


def _control_groups() -> list[Path]:
    """The trees of control groups that a systemd in a root can use; none on some machines."""
    unified = (_CGROUPS / "cgroup.controllers").exists()
    trees = [_CGROUPS] if unified else [_CGROUPS / "systemd", _CGROUPS / "unified"]
    return [tree for tree in trees
            if (tree / "cgroup.procs").exists() and os.access(tree, os.W_OK)]


class BootedRoot(Lifespan):
    """A root whose systemd has booted and runs, in name spaces of its own and without a network.
    Requires: systemd in the root, and being root.
    """

    def __init__(self, root: Root, console: Path, booted: str = "is-system-running") -> None:
        """What the booted system writes to its console goes into the file `console`. It has booted
        when `systemctl BOOTED` says so; by default when all that starts at boot has been started.
        """
        self.root = root.directory
        self._console = console
        self._booted = booted
        # In each tree one that is removed at the end, whatever is left of it.
        self._groups = [tree / f"voldrake-boot-{os.getpid()}" for tree in _control_groups()]
        self._container: subprocess.Popen[bytes] | None = None

    def why_impossible(self) -> str | None:
        """Why this machine cannot run a container of the root; None when it can."""
        if not self._groups:
            return "no control groups for a systemd in a root"
        try:
            with self._console.open("wb") as console:
                status = self._start_container(console, "/bin/true").wait(timeouts.RUN)
        finally:
            self._remove_groups()
        return f"systemd-nspawn: {self._console.read_text().strip()}" if status else None

    def start(self) -> None:
        """Boot, and return when it has booted."""
        with self._console.open("wb") as console:
            self._container = self._start_container(console, "--boot")
        self.wait_for(lambda: self._init() != 0 and self.run(
            f"systemctl {self._booted}", check=False).strip() in ("running", "degraded", "active"))

    def close(self) -> None:
        """Shut it down."""
        if self._container:
            self._container.terminate()  # which nspawn takes as an order to shut down
            try:
                self._container.wait(timeout=3 * timeouts.RUN)
            except subprocess.TimeoutExpired:
                if init := self._init():
                    os.kill(init, signal.SIGKILL)
                self._container.wait(timeout=timeouts.RUN)
            self._container = None
        self._remove_groups()

    def run(self, command: str, check: bool = True) -> str:
        """Run a shell command in the booted system; its output, that on standard error included."""
        done = subprocess.run(
            ["nsenter", "--target", str(self._init()), "--mount", "--uts", "--ipc", "--net",
             "--pid", "sh", "-c", command + " 2>&1"],
            env={"PATH": os.environ["PATH"], "LC_ALL": "C.UTF-8", "SYSTEMD_PAGER": ""},
            text=True, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, check=False,
            timeout=6 * timeouts.RUN)
        assert done.returncode == 0 or not check, done.stdout
        return done.stdout

    def wait_for(self, condition: Callable[[], bool]) -> None:
        """Return once it holds. Fails when it does not in time, or the system has ended."""
        deadline = time.monotonic() + 3 * timeouts.RUN
        while not condition():
            assert self._container and self._container.poll() is None, self._console.read_text()
            assert time.monotonic() < deadline, self._console.read_text()
            time.sleep(0.05)

    def _init(self) -> int:
        """Process id of the booted system's first process; 0 while there is none."""
        for group in self._groups:
            try:
                return int((group / "payload/init.scope/cgroup.procs").read_text().split()[0])
            except (FileNotFoundError, IndexError):
                pass
        return 0

    def _start_container(self, output: BinaryIO, *words: str) -> subprocess.Popen[bytes]:
        for group in self._groups:
            group.mkdir()
        join = "".join(f"echo $$ > {group}/cgroup.procs; " for group in self._groups)
        return subprocess.Popen(
            ["unshare", "--mount", "sh", "-e", "-c",
             f"{join} mount -t tmpfs run /run; exec systemd-nspawn --quiet --register=no"
             ' --keep-unit --private-network --console=pipe --directory="$0" "$@"',
             str(self.root), *words],
            stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.STDOUT)

    def _remove_groups(self) -> None:
        for group in filter(Path.exists, self._groups):
            subprocess.run(["find", str(group), "-depth", "-type", "d", "-exec", "rmdir", "{}",
                            ";"], check=False)
