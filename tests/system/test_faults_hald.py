"""The trials of scripts/faults --hald: some of them, and that their checks can fail."""

from pathlib import Path
from typing import Iterator

import pytest

from testbed.faults import agreements
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
            (directory, "signal=SEGV", FINDING, "end: ['ended with status -11']")):
        result = trials.run(Fault("mount", call.thread, call.call, call.number, action, call.text))
        said = f"{result.kind}: {' | '.join(result.words)}"
        assert result.kind == kind and words in said, said


@pytest.mark.parametrize("how, agreed", [
    ("missing ['volume_uuid_A']", True),
    ("in addition ['volume_uuid_A']", False),
    ("missing ['volume_uuid_A']; in addition ['volume_uuid_B']", False)])
def test_an_arrival_may_be_lost_by_a_kill_and_not_be_repeated(how: str, agreed: bool) -> None:
    fault = Fault("hotplug", "main", "fsync", 2, KILL, "fsync(10</run/voldrake-hald>) = 0")
    words = agreements.agreed(agreements.AGREEMENTS, fault, "a signal", {"announced": how}, ())
    assert ("never announced" in words) == agreed


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
