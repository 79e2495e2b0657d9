"""What may be lost without a word, or for longer: each is part of the daemon's contract.

An agreement holds for a result only when all that is not as without the fault is named by it.
"""

import re
from dataclasses import dataclass
from typing import TYPE_CHECKING, Iterable, Mapping

if TYPE_CHECKING:
    from testbed.faults.trial import Fault


@dataclass(frozen=True)
class Agreement:
    """`calls` is searched in the text of the call, `said` in the log's new lines."""

    words: str
    what: frozenset[str]
    calls: str = ""
    threads: str = ""
    said: str = ""
    stories: str = ""
    kills: bool = False

    def holds(self, fault: "Fault", text: str, deviations: Iterable[str],
              lines: Iterable[str]) -> bool:
        """True when it covers all of these deviations."""
        return (self.kills == (fault.action == "signal=KILL") and set(deviations) <= self.what
                and re.search(self.calls, text) is not None
                and re.fullmatch(self.threads or ".*", fault.thread) is not None
                and re.fullmatch(self.stories or ".*", fault.story) is not None
                and (not self.said or any(re.search(self.said, line) for line in lines)))


def _agreement(words: str, *what: str, calls: str = "", threads: str = "", said: str = "",
               stories: str = "", kills: bool = False) -> Agreement:
    return Agreement(words, frozenset(what), calls, threads, said, stories, kills)


_NO_PROCESS = r"^(clone3?|vfork|mmap|wait4)\("

#: What the hardware service has recorded and not announced when it is killed.
UNANNOUNCED = "recorded and never announced"
#: How the library of its main loop ends the hardware service.
WITHOUT_THREAD = "ended for want of a thread"

AGREEMENTS = (
    _agreement("a message whose sending fails is lost without a line", "messages",
               calls=r"^(sendto|poll)\(", threads="messages"),
    _agreement("a link that cannot be taken away stays without a line",
               "links", "afterwards links", calls=r"^unlink(at)?\(.*/media/", threads="main"),
    _agreement("a volume stays exported when there is no process to withdraw it, and the log says"
               " so",
               "exports", "afterwards exports", calls=_NO_PROCESS, said=r"_Unexport: "),
    _agreement("a share stays mounted when there is no process to unmount it, and the log says so",
               "mounted in /mnt", "in /mnt", "afterwards mounted in /mnt", "afterwards in /mnt",
               calls=_NO_PROCESS, said=r"Umount command: .* FAIL"),
    _agreement("a share's directory that cannot be removed stays, and the log says so",
               "in /mnt", "afterwards in /mnt", calls=r"^rmdir\(", said=r"Failed to remove "),
    _agreement("a mount's directory that cannot be removed stays, and the log says so",
               "in /media", "afterwards in /media", calls=r"^rmdir\(", said=r"^cannot remove "),
    _agreement("a volume that cannot be unmounted when its disk goes stays mounted, and the log says"
               " so",
               "mounts", "in /media", "afterwards mounts", "afterwards in /media",
               calls=r"^umount2\(", said=r"^cannot detach "),
    _agreement("the library of the hardware service's main loop ends it when a thread of the library"
               " cannot be made, and says so on standard error",
               WITHOUT_THREAD, calls=r"^(clone3?\(|mmap\(.*MAP_STACK|mprotect\()"),
    _agreement("a connection to the bus that breaks is not made again",
               "bus", said=r"HAL: Connection - lost"),
    _agreement("what goes while no daemon runs is never told, nor what was still to be told",
               "removal untold", stories="removal", kills=True),
    _agreement("a share that goes while no daemon runs stays mounted until it is announced again,"
               " and its end is never told",
               "removal untold", "mounted in /mnt", "in /mnt", "afterwards mounted in /mnt",
               "afterwards in /mnt", stories="sharing|silence", kills=True),
    _agreement("a mount or unmount that is under way when the hardware service is killed is done or"
               " not, and its client gets no answer",
               "mounts", "said to be mounted", "in /media", stories="mount|unmount", kills=True),
    _agreement("an arrival that is recorded and not yet announced when the hardware service is"
               " killed is never announced",
               UNANNOUNCED, stories="hotplug", kills=True),
)

#: With the power the hardware service loses what it has noted of its directories.
POWER_CUT = _agreement("the directory of a mount stays when the power is lost before it is undone",
                       "in /media", "afterwards in /media", stories="unmount|removal", kills=True)


def agreed(agreements: Iterable[Agreement], fault: "Fault", hit: str,
           deviations: Mapping[str, str], lines: Iterable[str]) -> str:
    """The words of the agreement that covers all of it; empty when there is none."""
    for agreement in agreements:
        if agreement.holds(fault, hit or fault.text, deviations, list(lines)):
            return agreement.words
    return ""
