"""One sandbox: a root, a network and processes of its own, made with bubblewrap.

Everything inside but /usr lives in memory and goes with the sandbox. The one exception is
/var/log, which is the log directory outside, so that logs outlive it.
"""

import itertools
import json
import os
import re
import resource
import signal
import subprocess
import time
from pathlib import Path
from typing import Callable, Mapping, Sequence, TypeVar

from testbed import disturbance, namespaces, target, timeouts
from testbed.lifespan import Lifespan
from testbed.process import Process

_Result = TypeVar("_Result")

_MEMORY_DIRECTORIES = ("/etc", "/media", "/mnt", "/var", "/sys", "/proc", "/tmp", "/run", "/srv")
_SYSTEM_DIRECTORIES = ("bin", "sbin", "lib", "lib32", "lib64", "libx32")
#: First in PATH: tools that stand in for the system's own are put here.
TOOLS = "/srv/tools"
#: How many processes and threads a sandbox may ever have: pidof and start-stop-daemon look for theirs
#: in /proc, and so does a leak check at the end of a program. A module may share one.
_PROCESS_LINKS = 1000
_ENVIRONMENT = {
    "PATH": f"{TOOLS}:/usr/sbin:/usr/bin",
    "TZ": "UTC",
    "LC_ALL": "C.UTF-8",
    "HOME": "/tmp",
}
_PASSED_ON = ("ASAN_OPTIONS", "LSAN_OPTIONS", "TSAN_OPTIONS", "UBSAN_OPTIONS", "GLIBCXX_TUNABLES")
#: Of every bus where the limit of open files is lower and cannot be raised; it is high enough.
_BUS_WITHOUT_PRIVILEGE = re.compile(
    r"^dbus-daemon\[\d+\]: \[system\] org\.freedesktop\.DBus\.Error\.AccessDenied:"
    r" Failed to set fd limit to \d+: Operation not permitted\n", re.MULTILINE)
_ETC = {
    "passwd": "root:x:0:0:root:/tmp:/bin/sh\n",
    "group": "root:x:0:\n",
    "nsswitch.conf": "passwd: files\ngroup: files\nhosts: files\n",
    "hosts": "127.0.0.1 localhost\n",
    "machine-id": "0123456789abcdef0123456789abcdef\n",
}


class Sandbox(Lifespan):
    """A sandbox that exists from `start` to `close`.

    Requires: running inside the wrapper of `namespaces`. It ends when the thread that started it
    ends, so start it on a thread that outlives it. Paths inside are written as the programs in
    there see them.
    """

    def __init__(self, log_directory: Path, read_only: Mapping[Path, Path] | None = None,
                 system_root: Path = Path("/")) -> None:
        """`read_only` maps more paths inside to paths outside; `system_root` holds /usr."""
        self.logs = log_directory
        self.pid = 0  # the sandbox's first process, as seen out here
        self._read_only = dict(read_only or {}) | disturbance.mounts()
        self._system_root = system_root
        self._holder: subprocess.Popen[bytes] | None = None
        self._counter = itertools.count(1)
        self._processes: list[Process] = []
        #: A descriptor of that of the processes. While it is open, no other has the same number.
        self._namespace: int | None = None
        self._own: set[int] = set()  # the processes that hold the sandbox

    def start(self) -> None:
        """Make the sandbox; it is ready on return. Raises RuntimeError when it cannot be made."""
        if not namespaces.inside_wrapper():
            raise RuntimeError("a sandbox is made inside the wrapper only:"
                               " /usr/bin/python3 -m testbed run COMMAND")
        self.logs.mkdir(parents=True, exist_ok=True)
        read_end, write_end = os.pipe()
        with open(self.logs / "sandbox.err", "wb") as errors:
            self._holder = subprocess.Popen(
                self._command(write_end), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                stderr=errors, pass_fds=[write_end], start_new_session=True,
                preexec_fn=_set_limit_and_signals)
        os.close(write_end)
        with open(read_end, encoding="ascii") as information:
            text = information.read()
        assert self._holder.stdout
        if self._holder.stdout.readline() != b"ready\n":
            self.close()
            reason = (self.logs / "sandbox.err").read_text().strip()
            raise RuntimeError(f"bubblewrap made no sandbox: {reason}")
        self.pid = json.loads(text)["child-pid"]
        self._namespace = os.open(f"/proc/{self.pid}/ns/pid", os.O_RDONLY)
        self._own = set(self.processes())
        for name, content in _ETC.items():
            self.path(f"/etc/{name}").write_text(content)
        self.path(TOOLS).mkdir()
        for number in range(1, _PROCESS_LINKS + 1):
            os.symlink(f"/run/proc/{number}", self.path(f"/proc/{number}"))

    def close(self) -> None:
        """End everything inside; nothing but the logs remains. May be called again."""
        if not self._holder:
            return
        self._holder.kill()
        if self.pid:
            try:
                os.kill(self.pid, signal.SIGKILL)  # every process in there ends with its first
            except ProcessLookupError:
                pass
        self._holder.wait()
        assert self._holder.stdout
        self._holder.stdout.close()
        self._holder = None
        for process in self._processes:
            process.wait()
        deadline = time.monotonic() + timeouts.STOP
        while self.processes():
            assert time.monotonic() < deadline, f"still running: {self.processes()}"
            time.sleep(timeouts.POLL)
        if self._namespace is not None:
            os.close(self._namespace)
            self._namespace = None

    def path(self, inside: str | Path) -> Path:
        """Path out here of a path inside.

        A symbolic link as last component with an absolute target leads out of the sandbox: look
        at it with `readlink`.
        """
        return Path(f"/proc/{self.pid}/root") / Path(inside).relative_to("/")

    def write(self, inside: str | Path, content: str | bytes) -> None:
        """Make a file inside, with its directories; an existing one is replaced."""
        path = self.path(inside)
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(content.encode() if isinstance(content, str) else content)

    def spawn(self, argv: Sequence[str], name: str = "", *, stdin: bool = False,
              environment: Mapping[str, str] | None = None,
              on_line: Callable[[str], None] | None = None) -> Process:
        """Start a program inside; it runs on return.

        Its output goes to files in the log directory named after `name`. Standard input is
        empty, or a pipe with `stdin`. `environment` is added to the sandbox's own. `on_line` gets
        each line of its output as it comes, on another thread.
        """
        def prepare() -> None:
            _set_limit_and_signals()
            disturbance.set_priority(name)

        stem = f"{next(self._counter):02}-{name or Path(argv[0]).name}"
        out, err = self.logs / f"{stem}.out", self.logs / f"{stem}.err"
        with open(out, "wb") as out_file, open(err, "wb") as err_file:
            entry = subprocess.Popen(
                self._enter(argv), bufsize=0,
                env=self._environment(disturbance.environment(name, environment)),
                stdin=subprocess.PIPE if stdin else subprocess.DEVNULL,
                stdout=subprocess.PIPE if on_line else out_file, stderr=err_file,
                start_new_session=True, preexec_fn=prepare)
        process = Process(entry, stem, out, err, on_line)
        self._processes.append(process)
        return process

    def run(self, argv: Sequence[str], text: str = "",
            timeout: float = timeouts.RUN) -> subprocess.CompletedProcess[str]:
        """Run a program inside to its end, with `text` as its input, and collect its output."""
        return subprocess.run(self._enter(argv), input=text, capture_output=True, text=True,
                              env=self._environment(None), timeout=timeout, check=False)

    def in_network(self, action: Callable[[], _Result]) -> _Result:
        """Run `action` in this process but in the sandbox's network: sockets made are its own."""
        return namespaces.in_network_of(self.pid, action)

    def set_network_option(self, name: str, value: str) -> None:
        """Set a kernel setting of the sandbox's network, such as "ipv4/tcp_wmem"."""
        self.in_network(lambda: Path("/proc/sys/net", name).write_text(value))

    def errors(self) -> dict[str, str]:
        """What programs inside have written to standard error, by the log's name."""
        texts = {file.name: _BUS_WITHOUT_PRIVILEGE.sub("", file.read_text(errors="replace")).strip()
                 for file in sorted(self.logs.glob("*.err"))}
        return {name: text for name, text in texts.items() if text}

    def processes(self) -> dict[int, str]:
        """Command lines of the processes inside, without the sandbox's own; by outer id.

        Processes that have ended but were not collected do not count.
        """
        if self._namespace is None:
            return {}
        found, namespace = {}, os.fstat(self._namespace)
        for entry in Path("/proc").glob("[0-9]*"):
            try:
                words = (entry / "cmdline").read_bytes().replace(b"\0", b" ")
                line = words.decode("utf-8", "replace").strip()
                if line and os.path.samestat(os.stat(entry / "ns/pid"), namespace):
                    found[int(entry.name)] = line
            except OSError:
                pass  # ended meanwhile
        return {pid: line for pid, line in found.items() if pid not in self._own}

    def _command(self, information: int) -> list[str]:
        command = ["bwrap", "--die-with-parent", "--unshare-net", "--unshare-pid", "--unshare-ipc",
                   "--cap-add", "ALL", "--info-fd", str(information)]
        command += ["--ro-bind", str(self._system_root / "usr"), "/usr"]
        for name in _SYSTEM_DIRECTORIES:
            source = self._system_root / name
            if source.is_symlink():
                command += ["--symlink", os.readlink(source), f"/{name}"]
            elif source.is_dir():
                command += ["--ro-bind", str(source), f"/{name}"]
        for directory in _MEMORY_DIRECTORIES:
            command += ["--tmpfs", directory]
        command += ["--dev", "/dev", "--proc", "/run/proc"]
        # /proc holds what the unit's own kernel has there, and what programs need of this one's;
        # links to the processes are made by `start`.
        for name in ("self", "mounts", "net", "sys"):
            command += ["--symlink", f"/run/proc/{name}", f"/proc/{name}"]
        command += ["--symlink", "../run", "/var/run", "--bind", str(self.logs), "/var/log"]
        for inside, outside in self._read_only.items():
            command += ["--ro-bind", str(outside), str(inside)]
        for directory in target.written_by_programs():
            command += ["--bind", str(directory), str(directory)]
        return [*command, "--", "/bin/sh", "-c", "echo ready; exec sleep infinity"]

    def _enter(self, argv: Sequence[str]) -> list[str]:
        return ["nsenter", "-t", str(self.pid), "-m", "-n", "-p", "-i", "--", *argv]

    @staticmethod
    def _environment(more: Mapping[str, str] | None) -> dict[str, str]:
        passed_on = {name: os.environ[name] for name in _PASSED_ON if name in os.environ}
        return _ENVIRONMENT | passed_on | target.sanitizer_options() | dict(more or {})


def has_own(directory: Path) -> bool:
    """True for a directory that a sandbox has one of its own for, so that it cannot be put there
    from outside."""
    names = {"/", "/usr", "/dev", "/opt", *_MEMORY_DIRECTORIES,
             *(f"/{name}" for name in _SYSTEM_DIRECTORIES)}
    return str(directory) in names


def _set_limit_and_signals() -> None:
    """Whatever runs the tests, a program leaves no core file, and ignores no signal: nohup(1) and
    a shell's background ignore some."""
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    for number in (signal.SIGHUP, signal.SIGINT, signal.SIGQUIT):
        signal.signal(number, signal.SIG_DFL)
