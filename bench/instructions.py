"""How many instructions an arrival and an announcement take, counted by callgrind.

The count of a build with the flags of the preset `dev` is kept in instructions.json, with what it
depends on. What the daemon's own code takes differs by a few instructions from count to count;
with the libraries, which also poll and wait, it is about one per cent.

Run by scripts/bench inside the wrapper of namespaces:

    python3 -m bench.instructions --check    counts and compares; status 1 when a count is above
                                             what is recorded, 2 when they cannot be compared
    python3 -m bench.instructions --keep     counts and records
"""

import json
import re
import subprocess
import sys
from pathlib import Path

from bench.announcements import greet, listens, udp_queue
from bench.figures import CannotMeasure, Figure, table
from bench.stage import QUIET, wait_until
from testbed import target
from testbed.network import Network
from testbed.otherunit import Announcement, OtherUnit
from testbed.unit import Unit

_RECORD = Path(__file__).parent / "instructions.json"
_FLAGS = {"CMAKE_BUILD_TYPE": "Debug", "CMAKE_CXX_FLAGS": "-Og"}
#: How far a count may be above the recorded one; repeated counts of one build differ by about 1 %.
_ALLOWED = 1.05

_STICKS = 20
_BURSTS, _BURST = 20, 20
_SHUTDOWN = 60.0

# What is counted: dealing with a signal of the hardware service, delivering a message, and
# dealing with a datagram but for the mount that the first one leads to.
_COUNTED = ("tHalManager::dBusHandler*", "tMessageClient::_DeliverOne*",
            "CServiceBrowser::_ReceiveOne*", "tVoldrake::OnServiceAdded*")
_OF_ANNOUNCEMENTS = "CServiceBrowser::_ReceiveOne"


def count(log_directory: Path) -> dict[str, int]:
    """Instructions per arrival of a stick, and per announcement of a known share.

    Requires: inside the wrapper; a build directory with the daemon and the stand-in hardware
    service.
    """
    for file in log_directory.glob("callgrind.out*"):
        file.unlink()
    with (Network() as network, Unit(log_directory, network=network) as unit,
          OtherUnit(network, log_directory / "peer", "169.254.3.7") as peer):
        for tool, does in (("exportfs", "true"), ("mount", "true"), ("umount", "true"),
                           ("mountpoint", "false")):
            unit.sandbox.path(f"/srv/tools/{tool}").symlink_to(f"/usr/bin/{does}")
        daemon = unit.sandbox.spawn(
            ["valgrind", "--tool=callgrind", "--separate-threads=yes", "--collect-atstart=no",
             "--callgrind-out-file=/var/log/callgrind.out",
             *(f"--toggle-collect={function}" for function in _COUNTED),
             *target.daemon_command(), "--port", str(unit.application.port), *QUIET],
            "callgrind")
        unit.hal.expect_call("FindDeviceByCapability", timeout=_SHUTDOWN)
        unit.settle()
        for stick in range(_STICKS):
            unit.hal.plug(f"usb stick{stick} port=1-1.{stick} uuid={stick:04X}-060C")
            unit.application.expect_message("dataarrival")
        unit.settle()
        _announce(unit, peer)
        daemon.terminate(_SHUTDOWN)
        return _read(log_directory)


def beside_recorded(counts: dict[str, int]) -> list[Figure]:
    """The counts with the recorded ones as their floor."""
    recorded = json.loads(_RECORD.read_text())["instructions"]
    return [Figure(f"instructions per {what}, beside the recorded", number, recorded[what],
                   _ALLOWED, "1") for what, number in counts.items()]


def _circumstances() -> dict[str, str]:
    """What the counts depend on besides the code: compiler and libraries."""
    packages = ("g++-12", "libc6", "libdbus-1-3", "libglib2.0-0", "libstdc++6", "valgrind")
    versions = subprocess.run(["dpkg-query", "-W", "-f", "${Package} ${Version}\n", *packages],
                              capture_output=True, text=True, check=False).stdout
    machine = subprocess.run(["uname", "-m"], capture_output=True, text=True, check=True).stdout
    return {"machine": machine.strip(), **dict(line.split() for line in versions.splitlines())}


def _build_flags(directory: Path) -> dict[str, str]:
    """The flags that the programs in a build directory were built with, as `_FLAGS` names them."""
    cache = (directory / "CMakeCache.txt").read_text()
    return {name: re.search(rf"^{name}:\w+=(.*)$", cache, re.MULTILINE)[1] for name in _FLAGS}


def _announce(unit: Unit, peer: OtherUnit) -> None:
    """Let the unit hear of one share, and then many times again."""
    assert unit.eth0
    unit.eth0.up()
    unit.eth0.set_address("169.254.1.1")
    wait_until(lambda: listens(unit.sandbox), "the daemon listens", _SHUTDOWN)
    greet(unit.sandbox, peer)
    share = Announcement("/media/sda1", name=" - Chart Port")
    peer.send(share)
    unit.application.expect_message("dataarrival", remote="true", timeout=_SHUTDOWN)
    for _ in range(_BURSTS):
        for _ in range(_BURST):
            peer.send(share)
        wait_until(lambda: udp_queue(unit.sandbox)[0] == 0, "every announcement was read")
    if udp_queue(unit.sandbox)[1]:
        raise CannotMeasure("announcements were dropped")


def _read(log_directory: Path) -> dict[str, int]:
    """The counts from the files that callgrind has left, one for each thread."""
    arrivals = own = announcements = 0
    for file in log_directory.glob("callgrind.out-*"):
        everywhere, in_daemon = _sums(file)
        if _OF_ANNOUNCEMENTS in file.read_text():
            announcements += everywhere
        else:
            arrivals += everywhere
            own += in_daemon
    if not own or not announcements:
        raise CannotMeasure("callgrind counted nothing")
    return {"arrival": arrivals // _STICKS, "arrival, in the daemon's own code": own // _STICKS,
            "announcement": announcements // (_BURSTS * _BURST)}


def _sums(file: Path) -> tuple[int, int]:
    """The instructions in one of callgrind's files: all, and those in the daemon's program."""
    objects: dict[str, str] = {}
    everywhere = in_daemon = 0
    at, inclusive = "", False
    for line in file.read_text().splitlines():
        if named := re.match(r"(c?)ob=\((\d+)\)(?: (.+))?", line):
            objects.setdefault(named[2], named[3] or "")
            at = at if named[1] else objects[named[2]]
        elif line.startswith("calls="):
            inclusive = True  # the next line has what the called function took
        elif cost := re.match(r"[+*\-\d]\S* (\d+)", line):
            everywhere += 0 if inclusive else int(cost[1])
            in_daemon += 0 if inclusive or not at.endswith("/voldrake") else int(cost[1])
            inclusive = False
    return everywhere, in_daemon


def _check(logs: Path) -> int:
    """Count and compare; the exit status."""
    here, there = _circumstances(), json.loads(_RECORD.read_text())["counted with"]
    if others := [f"{name} {there.get(name)}, here {here.get(name)}"
                  for name in sorted(here | there) if here.get(name) != there.get(name)]:
        raise CannotMeasure("the recorded counts are of " + "; ".join(others))
    figures = beside_recorded(count(logs))
    print(table(figures, floor="recorded"), end="")
    above = [figure for figure in figures if not figure.meets_goal()]
    if above:
        print(f"{len(above)} of {len(figures)} counts are above the recorded ones. A change that"
              " costs more on purpose records its own: scripts/bench --keep")
    return 1 if above else 0


def _keep(logs: Path) -> int:
    """Count and write instructions.json; the exit status."""
    content = {"counted with": _circumstances(), "instructions": count(logs)}
    _RECORD.write_text(json.dumps(content, indent=1) + "\n")
    print(_RECORD.read_text(), end="")
    return 0


def main() -> None:
    """Entry point: see the module's text."""
    what = {("--check",): _check, ("--keep",): _keep}.get(tuple(sys.argv[1:]))
    if not what:
        sys.exit(__doc__)
    try:
        if (flags := _build_flags(target.build_directory())) != _FLAGS:
            raise CannotMeasure(f"{target.build_directory()} is built with {flags}, not {_FLAGS}")
        status = what(target.log_directory() / "instructions")
    except (CannotMeasure, AssertionError, OSError, subprocess.SubprocessError) as reason:
        print(f"scripts/bench: cannot measure: {reason}", file=sys.stderr)
        status = 2
    sys.exit(status)


if __name__ == "__main__":
    main()
