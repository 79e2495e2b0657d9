"""The trials of scripts/faults: some of them, and that each of their checks can fail."""

from dataclasses import replace
from pathlib import Path
from typing import Iterator

import pytest

from testbed.faults import errors
from testbed.faults.daemontrials import DaemonTrials
from testbed.faults.program import Figures, plan
from testbed.faults.recording import Recorded
from testbed.faults.trial import AGREED, FINDING, KILL, LOGGED, UNHARMED, UNMET, Fault, Result

pytestmark = [pytest.mark.undelayed("its calls are counted"),
              pytest.mark.native("other calls would be seen")]


@pytest.fixture(name="trials")
def fixture_trials(log_directory: Path) -> Iterator[DaemonTrials]:
    """What plays stories; a daemon that does nothing for five seconds counts as hung."""
    with DaemonTrials(log_directory / "faults", patience=5.0) as made:
        yield made


def found(calls: list[Recorded], thread: str, call: str, text: str = "") -> Recorded:
    """The first such call whose text has `text`."""
    return next(one for one in calls
                if (one.thread, one.call) == (thread, call) and text in one.text)


def fault(story: str, call: Recorded, action: str) -> Fault:
    """The action on this call."""
    return Fault(story, call.thread, call.call, call.number, action, call.text)


def said(result: Result) -> str:
    """All that is said of it."""
    return f"{result.kind}: {' | '.join((result.hit, *result.words))}"


def test_an_arrival_bears_faults_and_what_it_does_not_bear_is_found(trials: DaemonTrials) -> None:
    calls = trials.calls("arrival")
    figures = Figures()
    assert len(plan("arrival", calls, False, figures)) > len(calls)
    assert figures.unknown == set()
    link = found(calls, "main", "symlink")
    connection = found(calls, "messages", "connect")
    log = found(calls, "main", "openat", "voldrake.log")
    for call, action, kind, words in (
            (link, "error=ENOSPC", LOGGED, "symlink failed: /media/USB Memory Card A1"),
            (connection, "error=ECONNREFUSED", UNHARMED, ""),
            (replace(log, number=9999), "error=EMFILE", UNMET, ""),
            # What no error brings about, but a fault of the daemon would.
            (log, "signal=ILL", FINDING, "end: ended with status -4"),
            (log, "signal=STOP", FINDING, "hang: it does not answer a change within"),
            (found(calls, "main", "close"), "error=EIO", FINDING, "size: threads and descriptors"),
            (link, "retval=0", FINDING, "and no line of the log says so")):
        result = trials.run(fault("arrival", call, action))
        assert result.kind == kind and words in said(result), said(result)
    # Something else was expected to come of it.
    for wanted in trials.references["arrival", False]:
        wanted.state = {**wanted.state, "exports": ()}
    result = trials.run(fault("arrival", connection, "error=ETIMEDOUT"))
    assert result.kind == FINDING and "exports: in addition" in said(result), said(result)


def test_a_loss_is_agreed_or_found(trials: DaemonTrials) -> None:
    link = found(trials.calls("removal"), "main", "unlink")
    result = trials.run(fault("removal", link, "error=EACCES"))
    assert result.kind == AGREED, said(result)
    trials._agreements = ()
    result = trials.run(fault("removal", link, "error=EACCES"))
    assert result.kind == FINDING, said(result)
    assert "links: in addition ['USB Memory Card A1 -> sda1']" in result.words


def test_a_daemon_that_is_killed_goes_on_from_there(trials: DaemonTrials) -> None:
    link = found(trials.calls("arrival"), "main", "symlink")
    result = trials.run(fault("arrival", link, KILL))
    assert result.kind == UNHARMED, said(result)
    for wanted in trials.references["arrival", True]:
        wanted.state = {**wanted.state, "links": ()}
    result = trials.run(fault("arrival", link, KILL))
    assert result.kind == FINDING and "links: in addition" in said(result), said(result)


def test_a_unit_that_loses_power_goes_on_from_there(log_directory: Path) -> None:
    with DaemonTrials(log_directory / "faults", patience=5.0, cut=True) as trials:
        link = found(trials.calls("arrival"), "main", "symlink")
        result = trials.run(fault("arrival", link, KILL))
        assert result.kind == UNHARMED, said(result)
        assert trials.references["arrival", True][0].state["exports"]


@pytest.mark.parametrize("call, text, wanted", [
    ("openat", 'openat(AT_FDCWD</>, "/var/log/x", O_WRONLY|O_CREAT, 0666) = 7</var/log/x>',
     ("EMFILE", "EACCES", "ENOMEM", "ENOSPC")),
    ("write", "write(7</var/log/x>, ...) = 9", ("ENOSPC", "EIO", "EINTR")),
    ("write", "write(4<anon_inode:[eventfd]>, ...) = 8", ("EINTR",)),
    ("sendto", "sendto(9<socket:[1]>, ..., {sa_family=AF_INET, ...}, 16) = 9",
     ("ENOBUFS", "ENETUNREACH", "EPERM", "EINTR")),
    ("fcntl", "fcntl(7, F_GETFD) = 0", ()),
    ("futex", "futex(...) = 0", ()),
    ("invented", "invented() = 0", None)])
def test_the_errors_of_a_call_depend_on_what_it_is_made_for(
        call: str, text: str, wanted: tuple[str, ...] | None) -> None:
    assert errors.errors_of(call, text) == wanted


def test_an_error_that_another_call_has_got_is_no_trial() -> None:
    full = Fault("shutdown", "shares", "write", 1, "error=ENOSPC")
    assert full.misses("write(4<anon_inode:[eventfd]>, ...) = -1 ENOSPC")
    assert not full.misses("write(7</var/log/x>, ...) = -1 ENOSPC")
    assert not full.misses("")
    assert not replace(full, action="signal=SEGV").misses("write(4<anon_inode:[eventfd]>, ...)")
