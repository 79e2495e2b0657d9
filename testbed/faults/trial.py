"""One story with one fault, compared with the same story without."""

from collections import Counter
from dataclasses import dataclass, field
from pathlib import Path
from typing import Mapping, Sequence

from testbed.faults import agreements, errors
from testbed.faults.recording import Recorded
from testbed.faults.unit import LOST_BUS, State
from testbed.lifespan import Lifespan

#: What a fault may have come to, from best to worst.
UNMET, UNHARMED, LOGGED, AGREED, FINDING = ("not met", "unharmed", "lost and logged", "as agreed",
                                            "finding")
#: How often a story without a fault is played, to learn what it says and that it is steady.
REFERENCES = 2
#: Seconds until what others announce, or announce no more, has come about.
STEADY = 4.0
KILL = "signal=KILL"


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
        return view(self.messages)


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


class Trials(Lifespan):
    """Plays stories with faults, one after the other. What it plays them on is made when it is
    needed, and anew when a trial has left something behind."""

    def __init__(self, logs: Path, patience: float = 12.0, excuses: bool = True) -> None:
        """`patience`: seconds after which a program that does nothing counts as hung. Without
        `excuses` no loss counts as agreed."""
        self._logs = logs
        self._patience = patience
        self._agreements = agreements.AGREEMENTS if excuses else ()
        #: By story, and whether the program is killed in it.
        self.references: dict[tuple[str, bool], list[Seen]] = {}

    def start(self) -> None:
        """Nothing runs before it is needed."""

    def close(self) -> None:
        """Leaves nothing but logs."""
        raise NotImplementedError

    def calls(self, story: str) -> list[Recorded]:
        """The calls that the program makes in the story."""
        raise NotImplementedError

    def run(self, fault: Fault) -> Result:
        """Play the story with the fault."""
        references = self._reference(fault.story, fault.action == KILL)
        seen = Seen()
        try:
            seen = self._observe(fault.story, fault, fault.action == KILL)
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
                      {line for one in references for line in one.lines}, self._agreements)

    def _reference(self, story: str, kills: bool) -> list[Seen]:
        """What the story comes to without a fault; always the same."""
        if (story, kills) not in self.references:
            seen = [self._observe(story, None, kills) for _ in range(REFERENCES)]
            expected = self._expected(story, kills)
            for one in seen:
                assert one.deviations.keys() <= expected, \
                    f"{story} without a fault: {one.deviations}"
                assert (one.state, one.messages, one.listed) == (
                    seen[0].state, seen[0].messages, seen[0].listed), \
                    f"{story} is not steady: {differences_between(seen)}"
            self.references[story, kills] = seen
        return self.references[story, kills]

    def _expected(self, story: str, kills: bool) -> frozenset[str]:
        """What is not as it was before the story, with or without a fault."""
        del story, kills
        return frozenset()

    def _observe(self, story: str, fault: Fault | None, kills: bool) -> Seen:
        """Play the story, with the fault if there is one. With `kills` the program is killed in it,
        at its end if there is no fault."""
        raise NotImplementedError


def judged(fault: Fault, seen: Seen, wanted: Seen, known: set[str],
           excuses: Sequence[agreements.Agreement]) -> Result:
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
    if agreed := agreements.agreed(excuses, fault, seen.hit, deviations | lost, said):
        return Result(fault, AGREED, seen.hit, (agreed, *words, *said[:1]))
    if deviations:
        return Result(fault, FINDING, seen.hit, (*words, *said[:3]))
    if said and fault.action != KILL:
        return Result(fault, LOGGED, seen.hit, (*words, *said[:1]))
    return Result(fault, FINDING, seen.hit, (*words, "and no line of the log says so"))


def view(messages: list[str]) -> dict[str, str]:
    """Path -> what its last message says."""
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
