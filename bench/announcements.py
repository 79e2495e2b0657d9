"""What hearing announcements of a known share costs."""

import socket
import time
from pathlib import Path
from statistics import median

from bench import stage
from bench.figures import CannotMeasure, Figure
from bench.stage import Stage, processor_nanoseconds, wait_until
from testbed.network import Network
from testbed.otherunit import PORT, Announcement, OtherUnit
from testbed.sandbox import Sandbox

_BURST = 20
#: Datagrams a second at first; halved whenever some were dropped.
_PACE = 16000
_SLOWEST = 200

_GROUP_IN_KERNEL_TABLE = "010101E0"  # 224.1.1.1

_SHARE = Announcement("/media/sda1", name=" - Chart Port")


def announcement(logs: Path, rounds: int, count: int) -> list[Figure]:
    """Processor time of the daemon for one, and of a bare loop of the same system calls."""
    samples: dict[str, list[float]] = {"ours": [], "floor": []}
    for _ in range(rounds):
        for who, found in samples.items():
            with (Network() as network, Stage(logs, network, "169.254.1.1") as place,
                  OtherUnit(network, logs / "peer", "169.254.3.7") as peer):
                pid = _start(place, who)
                _make_known(place, peer, pid)
                found.append(_cost_of_one(place, peer, pid, count))
    ours, floor = (median(found) / 1000 for found in samples.values())
    return [Figure("announcement of a known share: CPU", ours, floor, 1.15, "us")]


def listens(place: Sandbox) -> bool:
    """True while a program in there is a member of the announcements' group."""
    table = place.in_network(lambda: Path("/proc/thread-self/net/igmp").read_text())
    return _GROUP_IN_KERNEL_TABLE in table


def udp_queue(place: Sandbox) -> tuple[int, int]:
    """Bytes that wait at the announcements' port, and datagrams dropped there so far.

    Requires: somebody listens.
    """
    table = place.in_network(lambda: Path("/proc/thread-self/net/udp").read_text())
    for line in table.splitlines()[1:]:
        words = line.split()
        if int(words[1].split(":")[1], 16) == PORT:
            return int(words[4].split(":")[1], 16), int(words[-1])
    raise CannotMeasure("nobody listens to announcements")


def send_paced(place: Sandbox, peer: OtherUnit, count: int, pace: float) -> bool:
    """Send that many announcements of the share and wait until all were read.

    False when some were dropped.
    """
    _, dropped = udp_queue(place)
    due = time.monotonic()
    for _ in range(count // _BURST):
        for _ in range(_BURST):
            peer.send(_SHARE)
        due += _BURST / pace
        time.sleep(max(0.0, due - time.monotonic()))
    wait_until(lambda: udp_queue(place)[0] == 0, "every announcement was read")
    return udp_queue(place)[1] == dropped


def _start(place: Stage, who: str) -> int:
    """Start what listens; its process id, once it does."""
    program = stage.DAEMON if who == "ours" else stage.BARE_RECEIVER
    place.spawn(place.daemon(*stage.QUIET) if who == "ours" else [place.program(program)])
    wait_until(lambda: listens(place), f"{program} listens")
    return place.pid_of(program)


def _make_known(place: Stage, peer: OtherUnit, pid: int) -> None:
    """Return when the hardware address is known, and to the daemon also the share."""
    greet(place, peer)
    before = processor_nanoseconds(pid)
    peer.send(_SHARE)
    wait_until(lambda: processor_nanoseconds(pid) > before and udp_queue(place)[0] == 0,
               "the first announcement was read")
    time.sleep(1)  # the mount that follows


def greet(place: Sandbox, peer: OtherUnit) -> None:
    """Have the kernel of the place learn the peer's hardware address."""
    known = f"{peer.address} "
    with place.in_network(lambda: socket.socket(socket.AF_INET, socket.SOCK_DGRAM)) as greeter:
        greeter.sendto(b"", (peer.address, 9))
    wait_until(lambda: known in place.in_network(
        lambda: Path("/proc/thread-self/net/arp").read_text()), "the peer's address is known")


def _cost_of_one(place: Stage, peer: OtherUnit, pid: int, count: int) -> float:
    """Nanoseconds, at the fastest pace that drops none."""
    pace = _PACE
    while pace >= _SLOWEST:
        before = processor_nanoseconds(pid)
        if send_paced(place, peer, count, pace):
            return (processor_nanoseconds(pid) - before) / count
        pace //= 2
    raise CannotMeasure(f"announcements are dropped even at {_SLOWEST} a second")
