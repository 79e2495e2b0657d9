"""The nearest daemons of the field at rest beside ours: udisks2 and avahi-daemon.

scripts/bench unpacks Debian's packages beside the build; they run in the sandbox only.
"""

import os
import time
from pathlib import Path

from bench import stage
from bench.figures import CannotMeasure, Figure
from bench.rest import resident, wake_ups
from bench.stage import Stage
from testbed.network import Network

_INSIDE = Path("/srv/neighbours")
_AVAHI_CONFIGURATION = "[server]\nallow-interfaces=eth0\nuse-ipv6=no\n[publish]\n"
_COMMANDS = {
    "udisksd": ["usr/libexec/udisks2/udisksd"],
    "avahi-daemon": ["usr/sbin/avahi-daemon", "--no-drop-root", "--no-chroot", "--no-rlimits",
                     "--file=/srv/avahi.conf"],
}


def measure(logs: Path, packages: Path, seconds: float) -> tuple[list[Figure], str]:
    """Memory and wake-ups of those that run; what is to be said of those that do not."""
    if not (packages / "usr").exists():
        return [], "The packages of udisks2 and avahi-daemon could not be had.\n"
    figures, remarks = [], ""
    for name in _COMMANDS:
        try:
            figures += _at_rest(logs / name, packages, name, seconds)
        except CannotMeasure as reason:
            remarks += f"{name} does not run in the sandbox: {reason}\n"
    return figures, remarks


def _at_rest(logs: Path, packages: Path, name: str, seconds: float) -> list[Figure]:
    with Network() as network, Stage(logs, network, "169.254.1.1", {_INSIDE: packages}) as place:
        place.drive(1, place.daemon(*stage.QUIET))
        pid = _start(place, name)
        before, begin = wake_ups(pid), time.monotonic()
        time.sleep(seconds)
        after, length = wake_ups(pid), time.monotonic() - begin
        lasting = before.keys() & after.keys()  # a pool lets threads go that have nothing to do
        rate = sum(after[thread] - before[thread] for thread in lasting) / length
        # Both at rest, sharing what they share.
        return [Figure(f"memory at rest: PSS, beside {name}", resident(place.pid_of(stage.DAEMON)),
                       resident(pid), 1.0, "KB"),
                Figure(f"beside it: {name}, wake-ups of its {len(lasting)} threads", rate, None,
                       None, "1/s")]


def _start(place: Stage, name: str) -> int:
    """Start the neighbour in the sandbox; its process id once it is at rest."""
    place.write("/srv/avahi.conf", _AVAHI_CONFIGURATION)
    # The one user that there is in the sandbox, by the name that avahi-daemon looks for.
    for file, entry in (("passwd", "avahi:x:0:0::/:/bin/false"), ("group", "avahi:x:0:")):
        with place.path(f"/etc/{file}").open("a", encoding="ascii") as users:
            users.write(entry + "\n")
    for directory in ("/run/avahi-daemon", "/run/udisks2", "/var/lib/udisks2", "/run/udev"):
        place.path(directory).mkdir(parents=True)
    libraries = _INSIDE / f"usr/lib/{os.uname().machine}-linux-gnu"
    program, *arguments = _COMMANDS[name]
    process = place.spawn([str(_INSIDE / program), *arguments],
                          environment={"LD_LIBRARY_PATH": str(libraries)})
    time.sleep(5)  # its start-up
    if process.ended() or process.pid is None:
        raise CannotMeasure(_last_line(process.stdout() + process.stderr()))
    return process.pid


def _last_line(text: str) -> str:
    return (text.strip().splitlines() or ["it said nothing"])[-1]
