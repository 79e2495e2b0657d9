"""What the daemon costs at rest: wake-ups, processor time, memory and size."""

import re
import shutil
import struct
import subprocess
import time
from pathlib import Path
from statistics import median

from bench import stage
from bench.announcements import greet, listens
from bench.figures import CannotMeasure, Figure
from bench.stage import Stage, processor_nanoseconds, threads, wait_until
from testbed import target
from testbed.application import Application
from testbed.network import Network
from testbed.otherunit import Announcement, OtherUnit
from testbed.tape import Tape

#: The daemon's threads in the order of their start, and how often their waits end in a second.
_THREADS = (("main loop", 0), ("message client", 2), ("publisher", 1), ("service list", 10),
            ("browser", 0), ("signals", 0))
#: The browser's, while there is no network to listen to.
_BROWSER_WAITING = 10

_APPLICATION_PORT = 8081  # where the driver does not listen


def idle(logs: Path, seconds: float) -> list[Figure]:
    """Wake-ups of each thread beside the specified waits, and processor time."""
    with (Network() as network, Stage(logs, network, "169.254.1.1") as on_network,
          Stage(logs / "alone") as alone):
        for place in (on_network, alone):
            place.drive(0, place.daemon(*stage.QUIET))
        wait_until(lambda: listens(on_network), "the daemon listens")
        pids = [place.pid_of(stage.DAEMON) for place in (on_network, alone)]
        for pid in pids:
            wait_until(lambda: len(threads(pid)) == len(_THREADS), "the daemon's threads run")
        time.sleep(2)  # the first passes, which find the network
        begin, used = time.monotonic(), processor_nanoseconds(pids[0])
        before = [wake_ups(pid) for pid in pids]
        time.sleep(seconds)
        after = [wake_ups(pid) for pid in pids]
        used, length = processor_nanoseconds(pids[0]) - used, time.monotonic() - begin
    rates = [[(late[thread] - early[thread]) / length for thread in early]
             for early, late in zip(before, after)]
    figures = [_wake_up_figure(name, rate, waits)
               for (name, waits), rate in zip(_THREADS, rates[0])]
    figures.append(_wake_up_figure("browser without network", rates[1][4], _BROWSER_WAITING))
    figures.append(Figure("idle: CPU per hour", used / 1e9 / length * 3600, None, None, "s"))
    return figures


def memory(logs: Path, few: int, many: int) -> list[Figure]:
    """Resident and heap memory beside an empty main loop's, and what each volume adds."""
    heaps = {}
    for count in (1, few, many):
        with Stage(logs) as place:
            place.drive(count, _counted(place, place.daemon(*stage.QUIET)))
            heaps[count] = _settled_heap(place)
    with Stage(logs) as place:
        place.spawn(_counted(place, [place.program(stage.BARE_LOOP)]))
        empty_heap = _settled_heap(place)
    with Stage(logs) as place:
        place.drive(1, place.daemon(*stage.QUIET))
        place.spawn([place.program(stage.BARE_LOOP)])
        time.sleep(1)  # both at rest, sharing what they share
        ours, empty = (resident(place.pid_of(program))
                       for program in (stage.DAEMON, stage.BARE_LOOP))
    per_volume = (heaps[many] - heaps[few]) / (many - few)
    return [Figure("memory at rest: PSS", ours, empty, 1.3, "KB"),
            Figure("memory at rest: heap", heaps[1] / 1024, empty_heap / 1024, 1.5, "KB"),
            Figure("memory: heap a volume", per_volume, None, 1024, "bytes")]


def share_memory(logs: Path, few: int, many: int) -> list[Figure]:
    """Heap memory that each share of another unit adds."""
    with (Network() as network, Stage(logs, network, "169.254.1.1") as place,
          OtherUnit(network, logs / "peer", "169.254.3.7") as peer):
        application = Application(place, Tape(), _APPLICATION_PORT)
        application.listen()
        daemon = [place.program(stage.DAEMON), "--port", str(_APPLICATION_PORT), *stage.QUIET]
        place.drive(0, _counted(place, daemon))
        wait_until(lambda: listens(place), "the daemon listens")
        greet(place, peer)
        heaps, announced = [], 0
        for count in (few, many):
            while announced < count:
                peer.announce(*(Announcement(f"/media/sd{number}", name=" - Chart Port")
                                for number in range(announced, announced + few)))
                announced += few
                wait_until(lambda: len(application.frames()) >= announced, "every share is told")
            heaps.append(_settled_heap(place))
            if len(application.frames()) != announced:
                raise CannotMeasure("shares were forgotten while they were announced")
        application.leave()
    return [Figure("memory: heap a share", (heaps[1] - heaps[0]) / (announced - few), None, 512,
                   "bytes")]


def size(logs: Path) -> list[Figure]:
    """The daemon's file as an image has it."""
    logs.mkdir(parents=True, exist_ok=True)
    sizes = []
    for program in (stage.DAEMON, stage.BARE_LOOP):
        stripped = logs / "stripped"
        shutil.copy(target.build_directory() / program, stripped)
        subprocess.run(["strip", stripped], check=True)
        sizes.append(stripped.stat().st_size / 1024)
    return [Figure("size of the program, stripped", sizes[0], None, None, "KB")]


def _wake_up_figure(thread: str, rate: float, waits: int) -> Figure:
    # The ends of the stretch may add one.
    return Figure(f"idle: wake-ups of the {thread}", rate, waits or None, 1.02 if waits else 0.05,
                  "1/s")


def wake_ups(pid: int) -> dict[int, int]:
    """How often each thread has waited for something so far, in the order of their start."""
    counts = {}
    for thread in threads(pid):
        status = Path(f"/proc/{pid}/task/{thread}/status").read_text()
        counts[thread] = int(re.search(r"^voluntary_ctxt_switches:\s*(\d+)$", status,
                                       re.MULTILINE)[1])
    return counts


def resident(pid: int) -> float:
    """Proportional set size in KB; several looks, for the kernel counts roughly."""
    def look() -> int:
        text = Path(f"/proc/{pid}/smaps_rollup").read_text()
        return int(re.search(r"^Pss:\s*(\d+) kB$", text, re.MULTILINE)[1])
    return median(look() for _ in range(5))


def _counted(place: Stage, command: list[str]) -> list[str]:
    """The command with its heap counted in a file."""
    place.write("/srv/heap", bytes(16))
    return ["/usr/bin/env", f"LD_PRELOAD={place.program(stage.HEAP_COUNTER)}",
            "HEAP_COUNTER_FILE=/srv/heap", *command]


def _settled_heap(place: Stage) -> int:
    """Bytes on the heap of the counted program once that does not change any more."""
    last = 0

    def settled() -> bool:
        nonlocal last
        time.sleep(0.7)  # longer than the longest wait between two messages
        before, last = last, struct.unpack("q", place.path("/srv/heap").read_bytes()[:8])[0]
        return last == before and last > 0

    wait_until(settled, "the heap is at rest")
    return last
