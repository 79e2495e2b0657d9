"""The trials of scripts/faults --hald: some of them, and that their checks can fail."""

from pathlib import Path
from typing import Iterator

import pytest

from testbed.faults.agreements import UNANNOUNCED
from testbed.faults.haldtrials import HaldTrials
from testbed.faults.trial import AGREED, FINDING, KILL, LOGGED, UNHARMED, Fault

pytestmark = pytest.mark.undelayed("its calls are counted")


@pytest.fixture(name="trials")
def fixture_trials(log_directory: Path) -> Iterator[HaldTrials]:
    """What plays stories; a service that does nothing for five seconds counts as hung."""
    with HaldTrials(log_directory / "faults", patience=5.0) as made:
        yield made


@pytest.mark.slow
def test_a_mount_bears_faults_and_what_it_does_not_bear_is_found(trials: HaldTrials) -> None:
    calls = trials.calls("mount")
    directory = next(one for one in calls if one.call == "mkdir" and "/media/sda1" in one.text)
    after_it = next(one for one in calls[calls.index(directory) + 1:] if one.thread == "main")
    sent = [one for one in calls if (one.thread, one.call) == ("gdbus", "sendmsg")]
    for call, action, kind, words in (
            (directory, "error=ENOSPC", LOGGED, "refused "),
            (directory, KILL, AGREED, "mounts: missing"),
            (after_it, KILL, AGREED, "in /media: missing ['sda1']"),
            (sent[0], "error=EINTR", UNHARMED, ""),
            (sent[0], "error=ENOBUFS", LOGGED, "the bus has closed the connection"),
            (directory, "signal=ABRT", FINDING, "end: ['ended with status -6']")):
        result = trials.run(Fault("mount", call.thread, call.call, call.number, action, call.text))
        said = f"{result.kind}: {' | '.join(result.words)}"
        assert result.kind == kind and words in said, said


@pytest.mark.slow
def test_an_arrival_is_lost_by_a_kill_only_if_it_was_recorded(trials: HaldTrials) -> None:
    calls = [one for one in trials.calls("hotplug") if one.thread == "main"]
    recorded = next(at for at, one in enumerate(calls)
                    if one.call == "rename" and "voldrake-hald/state" in one.text)
    before, after = (Fault("hotplug", "main", call.call, call.number, KILL, call.text)
                     for call in calls[recorded:recorded + 2])
    result = trials.run(before)
    assert result.kind == UNHARMED, result.words
    result = trials.run(after)
    assert (result.kind, result.words[1].partition(":")[0]) == (AGREED, UNANNOUNCED), result.words
    # Something that is not recorded is missing, too.
    wanted = trials.references["hotplug", True][0]
    wanted.state = {**wanted.state, "announced": (*wanted.state["announced"], "volume_uuid_Z")}
    result = trials.run(after)
    assert result.kind == FINDING, result.words


@pytest.mark.slow
def test_a_machine_that_loses_power_goes_on_from_there(log_directory: Path) -> None:
    with HaldTrials(log_directory / "faults", patience=5.0, cut=True) as trials:
        made = next(one for one in trials.calls("mount")
                    if one.call == "mkdir" and "/media/sda1" in one.text)
        result = trials.run(Fault("mount", made.thread, made.call, made.number, KILL, made.text))
        assert (result.kind, result.words[1:]) == (AGREED, ("in /media: missing ['sda1']",))
        assert trials.references["mount", True][0].state["objects"]
        unmounting = next(one for one in trials.calls("removal") if one.call.startswith("umount"))
        result = trials.run(Fault("removal", unmounting.thread, unmounting.call,
                                  unmounting.number, KILL, unmounting.text))
        assert (result.kind, set(result.words[1:])) == (
            AGREED, {f"{when}in /media: in addition ['sda1']" for when in ("", "afterwards ")})
