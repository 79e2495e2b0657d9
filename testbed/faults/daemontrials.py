"""The daemon's stories, each with one fault."""

import time
from pathlib import Path

from testbed import timeouts
from testbed.faults.recording import Recorded, record
from testbed.faults.stories import STORIES, Story
from testbed.faults.trial import KILL, STEADY, Fault, Seen, Trials, differences, view
from testbed.faults.unit import PROBE_PATH, FaultUnit, State
from testbed.strace import Strace
from testbed.tape import Mark

#: So long is a call waited for that a thread makes once a second.
_PERIOD = 1.5
#: What is not as it was before when a daemon is started again while a stick is there, with or
#: without a fault: the link that the first one has left is not the second one's to take away.
AFTER_RESTART = frozenset(("afterwards links",))


class DaemonTrials(Trials):
    """Of the daemon, on a unit beside another one."""

    def __init__(self, logs: Path, patience: float = 12.0, excuses: bool = True,
                 cut: bool = False) -> None:
        """With `cut` the whole unit ends with a daemon that is killed, as in a power cut."""
        super().__init__(logs, patience, excuses)
        self._cut = cut
        self._unit: FaultUnit | None = None
        self._rest: State = {}

    def close(self) -> None:
        """See `Trials`."""
        if self._unit:
            self._unit.close()
            self._unit = None

    def calls(self, story: str) -> list[Recorded]:
        """See `Trials`."""
        played = STORIES[story]
        unit, since = self._prepared(played)
        assert unit.unit.daemon.process

        def play() -> None:
            played.play(unit)
            self._follow(unit, played, since)
        calls = record(unit.unit.daemon.process, unit.threads(), self._logs / "recorded", play)
        self.close()
        return calls

    def _expected(self, story: str, kills: bool) -> frozenset[str]:
        return AFTER_RESTART if kills or STORIES[story].ends else frozenset()

    # ---- Playing

    def _prepared(self, story: Story) -> tuple[FaultUnit, Mark]:
        unit = self._ready()
        since = unit.unit.tape.mark()
        story.prepare(unit)
        if not unit.until(lambda: story.prepared(unit, since), self._patience):
            raise AssertionError(f"{story.name} could not be prepared: {unit.state()}")
        return unit, unit.unit.mark()

    def _ready(self) -> FaultUnit:
        if self._unit and self._unit.unit.daemon.ended():
            self.close()
        if not self._unit:
            self._unit = FaultUnit(self._logs)
            self._unit.start()
            self._unit.start_daemon()
            self._rest = self._unit.state()
        return self._unit

    def _follow(self, unit: FaultUnit, story: Story, since: Mark) -> None:
        """Give the story its time."""
        longest = self._patience if story.ends else story.longest
        unit.until(lambda: unit.unit.daemon.ended() or story.complete(unit, since), longest)

    def _observe(self, story: str, fault: Fault | None, kills: bool) -> Seen:
        return self._observed(STORIES[story], fault, kills)

    def _observed(self, story: Story, fault: Fault | None, kills: bool) -> Seen:
        unit, since = self._prepared(story)
        seen = Seen()
        if fault:
            self._play_with(fault, unit, story, since, seen)
        else:
            story.play(unit)
            self._follow(unit, story, since)
        self._see_end(unit, story, fault, kills, seen)
        if kills and fault and not seen.hit:
            return seen  # nothing has happened, and the daemon is not needed any more
        if not seen.deviations:
            self._see_rest(unit, story, since, kills, seen)
        seen.lines = [line.text for line in unit.lines(since)]
        return seen

    def _play_with(self, fault: Fault, unit: FaultUnit, story: Story, since: Mark,
                   seen: Seen) -> None:
        assert unit.unit.daemon.process
        output = self._logs / "trial.strace"
        strace = Strace(unit.unit.daemon.process, output, *fault.options(),
                        thread=unit.threads()[fault.thread])

        def hit() -> str:
            if fault.action.startswith("signal="):
                return "a signal" if unit.unit.daemon.ended() else ""
            return next((line.split(None, 1)[1]
                         for line in output.read_text(errors="replace").splitlines()
                         if "(INJECTED)" in line), "")
        try:
            with strace:
                story.play(unit)
                self._follow(unit, story, since)
                unit.until(lambda: bool(hit()), _PERIOD)
        except (AssertionError, OSError):
            # The very first call may end the daemon, and strace with it.
            if fault.action != KILL or not unit.until(unit.unit.daemon.ended, _PERIOD):
                raise
        seen.hit = hit()

    def _see_end(self, unit: FaultUnit, story: Story, fault: Fault | None, kills: bool,
                 seen: Seen) -> None:
        """The daemon has ended, or not, as it had to; it runs afterwards."""
        ended = unit.ended()
        if kills:
            if not ended:
                unit.unit.daemon.kill()
            if fault and not seen.hit:
                return
        elif story.ends and not ended:
            seen.deviations["hang"] = f"it has not ended within {self._patience:g} s"
            return
        elif ended and (not story.ends or ended != "ended with status 0"):
            seen.deviations["end"] = ended
            return
        if kills and self._cut:
            unit.power_cut()
        if ended or kills:
            unit.start_daemon()

    def _see_rest(self, unit: FaultUnit, story: Story, since: Mark, kills: bool,
                  seen: Seen) -> None:
        if trouble := unit.settle(self._patience):
            seen.deviations["bus" if "bus" in trouble else "hang"] = trouble
            return
        wanted = self.references.get((story.name, kills), [])
        seen.state = self._steady(unit, wanted[0].state if wanted else None)
        if wanted and (kills or story.ends):
            # A share that was mounted before the end is the new daemon's when it is told again.
            there = {path for path, what in wanted[0].view().items() if what == "there"}
            unit.until(lambda: there <= view(unit.messages(unit.unit.daemon.started)).keys(),
                       STEADY)
        self._see_probe(unit, since, seen)
        undone = unit.unit.tape.mark()
        story.undo(unit)
        if trouble := unit.settle(self._patience):
            seen.deviations["hang"] = f"afterwards: {trouble}"
            return
        unit.until(lambda: unit.delivered(undone), self._patience)
        left = self._steady(unit, self._rest)
        for what, text in differences(self._rest, left).items():
            seen.deviations[f"afterwards {what}"] = text
        unit.clear_links()
        sizes = unit.sizes
        if not unit.until(lambda: (len(unit.threads()), len(unit.descriptors())) == sizes, STEADY):
            seen.deviations["size"] = (f"threads and descriptors were {sizes}, are"
                                       f" {len(unit.threads())} and {unit.descriptors()}")

    def _see_probe(self, unit: FaultUnit, since: Mark, seen: Seen) -> None:
        """The next stick is served; what waits to be told is told before it."""
        mark = unit.unit.tape.mark()
        unit.plug_probe()
        told = unit.until(lambda: unit.told("dataarrival", PROBE_PATH, mark), self._patience)
        seen.messages = [text for text in unit.messages(since) if PROBE_PATH not in text]
        if not told:
            seen.deviations["next stick"] = "it is not reported"
        elif not unit.until(unit.probe_is_linked, self._patience):
            seen.deviations["next stick"] = "it is not linked"
        seen.listed = unit.republish(self._patience)
        if not any(PROBE_PATH in entry for entry in seen.listed):
            seen.deviations["next stick"] = "it is not listed"
        if stray := seen.listed - unit.mounted():
            seen.deviations["list"] = f"listed and not mounted: {stray}"
        unit.pull_probe()

    @staticmethod
    def _steady(unit: FaultUnit, wanted: State | None) -> State:
        """What stands outside, as soon as it is as wanted or its time is over; the first time,
        when it has stayed the same for long enough."""
        if wanted is not None:
            unit.until(lambda: unit.state() == wanted, STEADY)
            return unit.state()
        state, since = unit.state(), time.monotonic()
        while time.monotonic() < since + STEADY:
            time.sleep(timeouts.POLL)
            if (now := unit.state()) != state:
                state, since = now, time.monotonic()
        return state
