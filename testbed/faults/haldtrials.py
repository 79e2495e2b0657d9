"""The hardware service's stories, each with one fault.

The calls are those of the mocking library, too. A service that ends with status 1 and a reason in
the log is started again, as its supervisor does; what it then shows and has announced is compared.
"""

from collections import Counter
from contextlib import ExitStack
from pathlib import Path

from testbed.faults.agreements import POWER_CUT, UNANNOUNCED, WITHOUT_THREAD
from testbed.faults.haldunit import HALD_STORIES, HaldStory, HaldUnit
from testbed.faults.recording import Recorded, record
from testbed.faults.trial import STEADY, Fault, Seen, Trials, differences
from testbed.faults.unit import State
from testbed.strace import Strace, Trace
from testbed.waiting import wait_until

_TRACE = "/var/log/trial.strace"
#: The first says that it has logged why; the second is the tool's own.
_GOOD_ENDS = ("ended with status 1", "killed")
#: What is not as it was before when the power is lost while a stick is mounted: the service does
#: not know any more that the directory is its own. The daemon clears it away before the next mount.
AFTER_POWER_CUT = frozenset(("afterwards in /media",))


class HaldTrials(Trials):
    """Of the hardware service, on a machine whose kernel and udev are mocked."""

    def __init__(self, logs: Path, patience: float = 12.0, excuses: bool = True,
                 cut: bool = False) -> None:
        """With `cut` the whole machine ends with a service that is killed, as in a power cut."""
        super().__init__(logs, patience, excuses)
        self._cut = cut
        if cut and excuses:
            self._agreements += (POWER_CUT,)
        self._unit: HaldUnit | None = None
        self._rest: State = {}
        self._sizes = (0, 0)
        self._cold = False  # the unit is one of a cold start

    def close(self) -> None:
        """See `Trials`."""
        if self._unit:
            self._unit.close()
            self._unit = None

    def calls(self, story: str) -> list[Recorded]:
        """See `Trials`; of a cold start the main thread's."""
        played = HALD_STORIES[story]
        unit = self._prepared(played)
        if played.cold:
            unit.start_service("strace", "-D", "-y", "-r", "-o", _TRACE)
            calls, counts = [], Counter[str]()
            own = False  # after what the loader calls before the program begins
            for made in Trace(unit.machine.sandbox.path(_TRACE)).made():
                counts[made.name] += 1
                if own:
                    calls.append(Recorded("main", made.name, counts[made.name], made.text))
                own = own or made.name == "prlimit64"
        else:
            assert unit.machine.process

            def play() -> None:
                played.play(unit)
                unit.settle(self._patience)
            calls = record(unit.machine.process, unit.threads(), self._logs / "recorded", play)
        self.close()
        return calls

    def _prepared(self, story: HaldStory) -> HaldUnit:
        if self._unit and (story.cold or self._cold or self._unit.machine.process is None
                           or self._unit.machine.process.ended()):
            self.close()
        if not self._unit:
            self._unit, self._cold = HaldUnit(self._logs), story.cold
            self._unit.start()
            if not story.cold:
                self._unit.start_service()
                self._rest, self._sizes = self._unit.state(), self._unit.sizes()
        unit = self._unit
        unit.ends.clear()
        story.prepare(unit)
        if not story.cold:
            assert not (trouble := unit.settle(self._patience)), trouble
        return unit

    def _expected(self, story: str, kills: bool) -> frozenset[str]:
        return AFTER_POWER_CUT if kills and self._cut else frozenset()

    def _observe(self, story: str, fault: Fault | None, kills: bool) -> Seen:
        return self._observed(HALD_STORIES[story], fault, kills)

    def _observed(self, story: HaldStory, fault: Fault | None, kills: bool) -> Seen:
        unit, seen = self._prepared(story), Seen()
        since = unit.machine.mark()
        unit.loses_power = kills and self._cut
        if story.cold:
            options = fault.options() if fault else []
            unit.start_service(*(["strace", "-D", "-r", "-o", _TRACE, *options] if fault else []))
            seen.hit = self._hit(unit.machine.sandbox.path(_TRACE), unit) if fault else ""
        else:
            self._play(story, fault, unit, seen)
        ended = unit.note_end() or unit.machine.process is None
        if kills and not unit.ends:
            unit.machine.kill_service()
            ended = unit.note_end()
        recorded: set[str] = set()
        if ended:
            if unit.loses_power:
                unit.power_cut()
            elif kills:
                recorded = unit.recorded()
            unit.start_service()
        if kills:
            unit.ends[:] = ["killed"]
        self._see(unit, story, kills, seen)
        if recorded:
            self._see_unannounced(story, recorded, seen)
        ends = seen.state.get("ended by itself", ())
        if WITHOUT_THREAD in ends:
            seen.deviations[WITHOUT_THREAD] = "and started again"
            ends = tuple(end for end in ends if end != WITHOUT_THREAD)
            seen.state = {**seen.state, "ended by itself": ends}
        if bad := [end for end in ends if end not in _GOOD_ENDS]:
            seen.deviations["end"] = str(bad)
        # That it serves again is no word about why it has ended.
        seen.lines = [line for line in unit.lines(since) if not line.startswith("serving ")]
        return seen

    def _play(self, story: HaldStory, fault: Fault | None, unit: HaldUnit, seen: Seen) -> None:
        assert unit.machine.process
        output = self._logs / "trial.strace"
        with ExitStack() as attached:
            if fault:
                try:
                    attached.enter_context(Strace(
                        unit.machine.process, output, *fault.options(),
                        thread=unit.threads()[fault.thread]))
                except (AssertionError, OSError):
                    if not unit.machine.process.ended():
                        raise
            story.play(unit)
            if trouble := unit.settle(self._patience):
                if trouble != "ended":
                    seen.deviations["hang"] = trouble
        if fault:
            seen.hit = self._hit(output, unit)

    @staticmethod
    def _hit(output: Path, unit: HaldUnit) -> str:
        lines = output.read_text(errors="replace").splitlines() if output.exists() else []
        killed = any("killed by" in line for line in lines)
        return next((line.split(None, 1)[1] for line in lines if "(INJECTED)" in line),
                    "a signal" if killed else "")

    def _see(self, unit: HaldUnit, story: HaldStory, kills: bool, seen: Seen) -> None:
        if seen.deviations:
            return
        trouble = unit.settle(self._patience)
        if trouble == "ended":  # some time after the fault
            unit.note_end()
            unit.start_service()
            trouble = unit.settle(self._patience)
        if trouble:
            seen.deviations["hang"] = trouble
            return
        references = self.references.get((story.name, kills))
        wanted = references[0].state if references else None
        seen.state = self._steady(unit, wanted)
        unit.ends.clear()
        self._see_probe(unit, seen)
        unit.pull()
        if trouble := unit.settle(self._patience):
            seen.deviations["hang"] = f"afterwards: {trouble}"
            return
        rest = {what: () for what in seen.state} if story.cold else self._rest
        left = self._steady(unit, rest)
        for what, text in differences(rest, left).items():
            seen.deviations[f"afterwards {what}"] = text
        if unit.loses_power:
            unit.clear_directories()
        if not story.cold and not seen.state["ended by itself"]:
            self._see_sizes(unit, seen)

    def _see_unannounced(self, story: HaldStory, recorded: set[str], seen: Seen) -> None:
        """The next run takes what is recorded for announced."""
        references = self.references.get((story.name, True))
        if references and seen.state:
            announced = seen.state["announced"]
            lost = recorded & set(references[0].state["announced"]) - set(announced)
            if lost:
                seen.deviations[UNANNOUNCED] = str(sorted(lost))
                seen.state = {**seen.state, "announced": tuple(sorted((*announced, *lost)))}

    def _see_sizes(self, unit: HaldUnit, seen: Seen) -> None:
        try:
            wait_until(lambda: unit.sizes() == self._sizes, "as many as before", STEADY)
        except AssertionError:
            seen.deviations["size"] = f"threads and descriptors {unit.sizes()}, were {self._sizes}"

    def _see_probe(self, unit: HaldUnit, seen: Seen) -> None:
        """The next stick is served, mounted and unmounted."""
        unit.machine.udev.plug(unit.probe)
        if trouble := unit.settle(self._patience):
            seen.deviations["next stick"] = trouble
            return
        answers = (unit.mount("volume_uuid_B", "sdb1"), unit.unmount("volume_uuid_B"))
        if answers != ("(0,)", "(0,)"):
            seen.deviations["next stick"] = f"mount and unmount: {answers}"
        unit.machine.udev.pull(unit.probe)

    @staticmethod
    def _steady(unit: HaldUnit, wanted: State | None) -> State:
        if wanted is not None:
            try:
                wait_until(lambda: unit.state() == wanted, "as wanted", STEADY)
            except AssertionError:
                pass  # what differs says it
        return unit.state()

