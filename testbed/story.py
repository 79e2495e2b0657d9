"""The demo's story of one unit, from the first card to the shutdown."""

import re
import signal

from testbed import timeouts
from testbed.daemon import INFO
from testbed.stage import Stage
from testbed.tape import NotSeen
from testbed.timeline import Timeline

#: What is plugged in while the unit runs: what it is, and the commands.
_ARRIVALS = (
    ("A USB stick is plugged in.",
     "usb stick port=1-1.3 label=PHOTOS"),
    ("A second partition on it appears.",
     "volume stick label=MUSIC"),
    ("A write-protected card goes into the second slot.",
     "sd charts host=1 label=CHARTS readonly"),
    ("A stick is plugged into the port that the configuration calls Chart Port.",
     "usb update port=1-1.4 label=UPDATE"),
    ("The configuration ignores /dev/sdc1.",
     "usb workshop port=1-1.5 label=TOOLS"),
    ("The unit's own card reader is plugged in; a card goes into its first slot.",
     "reader kr20 luns=2 port=1-1.6",
     "volume kr20 lun=0 label=LOGBOOK"),
)


def play(stage: Stage, timeline: Timeline) -> int:
    """Play it; the daemon's exit status. NotSeen when something did not come out as told."""
    unit = stage.unit

    def told(timeout: float = timeouts.EVENT) -> None:
        if not stage.told(timeout):
            raise NotSeen("the display application did not receive what the daemon has for it")
        timeline.show()

    timeline.heading("An SD card is in its slot when the unit starts.")
    unit.hal.plug("sd card host=0 cid=1b534d303030303010206bb243009a00 label=ROUTES")
    stage.start_daemon()
    told()

    for heading, *devices in _ARRIVALS:
        timeline.heading(heading)
        for device in devices:
            unit.hal.plug(device)
        told()

    timeline.heading("The display application asks for all reports again (SIGUSR1).")
    unit.daemon.signal(signal.SIGUSR1)
    unit.daemon.expect_log(INFO, re.compile(r'Republish: "KR20 - 1" .*'))
    told()

    timeline.heading("An operator simulates the removal and reinsertion of cards (SIGUSR2).")
    unit.daemon.signal(signal.SIGUSR2)
    unit.daemon.expect_log(INFO, "_ManualScan()")
    told()

    timeline.heading("The first stick is pulled out.")
    unit.hal.pull("stick")
    told()

    timeline.heading("The display application is away while a stick arrives.")
    stage.display.stop()
    unit.hal.plug("usb late port=1-1.3 label=LATE")
    unit.settle()
    stage.display.start()
    timeline.note("It is back. The daemon keeps the message and tries again every 10 seconds ...")
    told(timeouts.RETRY)

    timeline.heading("The links under /media now:")
    for name, destination in sorted(unit.links().items()):
        timeline.note(f"{name} -> {destination}")

    timeline.heading("The unit is switched off.")
    stage.begin_ending()
    status = stage.finish()
    timeline.show()
    return status
