"""One story with one fault, compared with the same story without."""

import time
from collections import Counter
from dataclasses import dataclass, field
from pathlib import Path
from typing import Mapping

from testbed import timeouts
from testbed.faults import agreements, errors
from testbed.faults.recording import Recorded, record
from testbed.faults.stories import STORIES, Story
from testbed.faults.unit import LOST_BUS, PROBE_PATH, FaultUnit, State
from testbed.lifespan import Lifespan
from testbed.strace import Strace
from testbed.tape import Mark

#: What a fault may have come to, from best to worst.
UNMET, UNHARMED, LOGGED, AGREED, FINDING = ("not met", "unharmed", "lost and logged", "as agreed",
                                            "finding")
#: How often a story without a fault is played, to learn what it says and that it is steady.
REFERENCES = 2
#: Seconds until what others announce, or announce no more, has come about.
STEADY = 4.0
#: So long is a call waited for that a thread makes once a second.
_PERIOD = 1.5
KILL = "signal=KILL"
#: What is not as it was before when a daemon is started again while a stick is there, with or
#: without a fault: the link that the first one has left is not the second one's to take away.
AFTER_RESTART = frozenset(("afterwards links",))


@dataclass(frozen=True)
class Fault:
    """What is done to the `number`th call of this name in the thread."""

    story: str
    thread: str
    call: str
    number: int
    action: str  # as strace has it: "error=EMFILE", "signal=KILL"
    text: str = ""  # of the call, as recorded

    def options(self) -> list[str]:
        """For strace."""
        return ["-y", "-e", f"trace={self.call}",
                "-e", f"inject={self.call}:{self.action}:when={self.number}"]

    def misses(self, hit: str) -> bool:
        """True when the error was put into a call that cannot have it: the threads have not done
        everything in the same order as when they were recorded."""
        possible = errors.errors_of(self.call, hit)
        return bool(hit and possible and self.action.startswith("error=")
                    and self.action.removeprefix("error=") not in possible)

    def __str__(self) -> str:
        return f"{self.story}: {self.thread} {self.call} #{self.number} {self.action}"


@dataclass
class Seen:
    """What a story has come to."""

    state: State = field(default_factory=dict)
    messages: list[str] = field(default_factory=list)
    listed: set[str] = field(default_factory=set)
    lines: list[str] = field(default_factory=list)  # of the log
    deviations: dict[str, str] = field(default_factory=dict)  # what is not as it must be
    hit: str = ""  # the call that the fault was put into

    def view(self) -> dict[str, str]:
        """What the application takes for present."""
        return _view(self.messages)


@dataclass(frozen=True)
class Result:
    """One fault, what it has come to and in which words."""

    fault: Fault
    kind: str
    hit: str = ""
    words: tuple[str, ...] = ()

    def row(self) -> dict[str, object]:
        """For the file of figures."""
        return {**vars(self.fault), "kind": self.kind, "hit": self.hit, "words": self.words}


class Bench(Lifespan):
    """A unit, made anew when a trial has left something behind, and what stories come to on it."""

    def __init__(self, logs: Path, patience: float = 12.0, excuses: bool = True) -> None:
        """`patience`: seconds after which a daemon that does nothing counts as hung. Without
        `excuses` no loss counts as agreed."""
        self._logs = logs
        self._patience = patience
        self._excuses = excuses
        self._unit: FaultUnit | None = None
        self._rest: State = {}
        self.references: dict[tuple[str, bool], list[Seen]] = {}

    def start(self) -> None:
        """Units are made when they are needed."""

    def close(self) -> None:
        """Leaves nothing but logs."""
        if self._unit:
            self._unit.close()
            self._unit = None

    def record(self, story: Story) -> list[Recorded]:
        """The calls that the daemon makes in the story."""
        unit, since = self._prepared(story)
        assert unit.unit.daemon.process

        def play() -> None:
            story.play(unit)
            self._follow(unit, story, since)
        calls = record(unit.unit.daemon.process, unit.threads(), self._logs / "recorded", play)
        self.close()
        return calls

    def reference(self, story: Story, kills: bool) -> list[Seen]:
        """What the story comes to without a fault; always the same."""
        key = (story.name, kills)
        if key not in self.references:
            seen = [self._observe(story, None, kills) for _ in range(REFERENCES)]
            expected = AFTER_RESTART if kills or story.ends else frozenset[str]()
            for one in seen:
                assert one.deviations.keys() <= expected, \
                    f"{story.name} without a fault: {one.deviations}"
                assert (one.state, one.messages, one.listed) == (
                    seen[0].state, seen[0].messages, seen[0].listed), \
                    f"{story.name} is not steady: {differences_between(seen)}"
            self.references[key] = seen
        return self.references[key]

    def run(self, fault: Fault) -> Result:
        """Play the story with the fault."""
        story, kills = STORIES[fault.story], fault.action == KILL
        references = self.reference(story, kills)
        seen = Seen()
        try:
            seen = self._observe(story, fault, kills)
        except (AssertionError, OSError, TimeoutError) as failure:
            seen.deviations["trial"] = str(failure) or type(failure).__name__
        if seen.deviations != references[0].deviations:
            self.close()
        if not seen.hit and not seen.deviations:
            return Result(fault, UNMET)
        if fault.misses(seen.hit):
            self.close()
            return Result(fault, UNMET, seen.hit, ("another call has come at this number",))
        return judged(fault, seen, references[0],
                       {line for one in references for line in one.lines}, self._excuses)

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

    def _observe(self, story: Story, fault: Fault | None, kills: bool) -> Seen:
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
            unit.until(lambda: there <= _view(unit.messages(unit.unit.daemon.started)).keys(),
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


def judged(fault: Fault, seen: Seen, wanted: Seen, known: set[str], excuses: bool) -> Result:
    """Compare what was seen with what the story comes to without a fault."""
    deviations = {what: text for what, text in seen.deviations.items()
                  if wanted.deviations.get(what) != text}
    lost = {}
    if not deviations.keys() & {"end", "hang", "bus", "trial"}:
        lost = differences(wanted.state, seen.state)
        if fault.action == KILL:
            lost |= _untold(wanted.view(), seen.view())
        elif seen.messages != wanted.messages:
            lost["messages"] = _difference(wanted.messages, seen.messages)
        if seen.listed != wanted.listed:
            lost["list"] = _difference(sorted(wanted.listed), sorted(seen.listed))
    said = [line for line in dict.fromkeys(seen.lines) if line not in known]
    if any(LOST_BUS in line for line in said):
        deviations.setdefault("bus", "the bus is lost")
    words = tuple(f"{what}: {text}" for what, text in (deviations | lost).items())
    if not words:
        return Result(fault, UNHARMED, seen.hit, tuple(said[:1]))
    if excuses and (agreed := agreements.agreed(fault, seen.hit, deviations | lost, said)):
        return Result(fault, AGREED, seen.hit, (agreed, *words, *said[:1]))
    if deviations:
        return Result(fault, FINDING, seen.hit, (*words, *said[:3]))
    if said and fault.action != KILL:
        return Result(fault, LOGGED, seen.hit, (*words, *said[:1]))
    return Result(fault, FINDING, seen.hit, (*words, "and no line of the log says so"))


def _view(messages: list[str]) -> dict[str, str]:
    """Path -> the last kind of message."""
    return {text.partition('path="')[2].partition('"')[0]:
            "there" if "<dataarrival" in text else "gone" for text in messages}


def _untold(wanted: Mapping[str, str], seen: Mapping[str, str]) -> dict[str, str]:
    """What the application does not know in the end, though it would without the fault."""
    untold = {path: what for path, what in wanted.items() if seen.get(path) != what}
    gone = sorted(path for path, what in untold.items() if what == "gone")
    there = sorted(path for path, what in untold.items() if what == "there")
    told = {"removal untold": f"not told to be gone: {gone}"} if gone else {}
    return told | ({"arrival untold": f"not told to be there: {there}"} if there else {})


def differences(wanted: State, seen: State) -> dict[str, str]:
    return {what: _difference(wanted[what], seen[what]) for what in wanted
            if wanted[what] != seen[what]}


def differences_between(seen: list[Seen]) -> list[tuple[object, ...]]:
    """What several runs without a fault have come to."""
    return [(one.state, one.messages, sorted(one.listed)) for one in seen]


def _difference(wanted: "list[str] | tuple[str, ...]", seen: "list[str] | tuple[str, ...]") -> str:
    missing, more = Counter(wanted) - Counter(seen), Counter(seen) - Counter(wanted)
    parts = [f"missing {sorted(missing)}"] if missing else []
    parts += [f"in addition {sorted(more)}"] if more else []
    return "; ".join(parts) or f"in another order: {seen}"
