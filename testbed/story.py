"""The demo's story of one unit, from the first card to the shutdown."""

import re
import signal

from testbed import timeouts
from testbed.daemon import INFO
from testbed.stage import Stage
from testbed.tape import NotSeen
from testbed.timeline import Timeline


def play(stage: Stage, timeline: Timeline) -> int:
    """Play it; the daemon's exit status. NotSeen when something did not come out as told."""
    unit = stage.unit

    def told(timeout: float = timeouts.EVENT) -> None:
        if not stage.told(timeout):
            raise NotSeen("the display application was not told what the daemon has for it")
        timeline.show()

    timeline.heading("An SD card is in its slot when the unit starts.")
    unit.hal.plug("sd card host=0 cid=1b534d303030303010206bb243009a00 label=ROUTES")
    stage.start_daemon()
    told()

    timeline.heading("A USB stick is plugged in.")
    unit.hal.plug("usb stick port=1-1.3 label=PHOTOS")
    told()

    timeline.heading("A second partition on it appears.")
    unit.hal.plug("volume stick label=MUSIC")
    told()

    timeline.heading("A write-protected card goes into the second slot.")
    unit.hal.plug("sd charts host=1 label=CHARTS readonly")
    told()

    timeline.heading("A stick is plugged into the port that the configuration calls Chart Port.")
    unit.hal.plug("usb update port=1-1.4 label=UPDATE")
    told()

    timeline.heading("The configuration says that /dev/sdc1 is to be ignored.")
    unit.hal.plug("usb workshop port=1-1.5 label=TOOLS")
    told()

    timeline.heading("The unit's own card reader is plugged in; a card goes into its first slot.")
    unit.hal.plug("reader kr20 luns=2 port=1-1.6")
    unit.hal.plug("volume kr20 lun=0 label=LOGBOOK")
    told()

    timeline.heading("The display application wants to hear everything again (SIGUSR1).")
    unit.daemon.signal(signal.SIGUSR1)
    unit.daemon.expect_log(INFO, re.compile(r'Republish: "KR20 - 1" .*'))
    told()

    timeline.heading("An operator takes cards out and puts them back without touching them (SIGUSR2).")
    unit.daemon.signal(signal.SIGUSR2)
    unit.daemon.expect_log(INFO, "_ManualScan()")
    told()

    timeline.heading("The first stick is pulled out.")
    unit.hal.pull("stick")
    told()

    timeline.heading("The display application is away while a stick comes.")
    stage.monitor.stop()
    unit.hal.plug("usb late port=1-1.3 label=LATE")
    unit.settle()
    stage.monitor.start()
    timeline.note("It is back. The daemon keeps the message and tries again every 10 seconds ...")
    told(timeouts.RETRY)

    timeline.heading("What stands under /media now:")
    for name, destination in sorted(unit.links().items()):
        timeline.note(f"{name} -> {destination}")

    timeline.heading("The unit is switched off.")
    stage.begin_ending()
    status = stage.finish()
    timeline.show()
    return status
