"""tests/stress and what it disturbs a test by."""

import itertools
import os
import random
import re
import subprocess
from pathlib import Path

import pytest

from testbed import disturbance, target, timeouts
from testbed.disturbance import OBSERVERS, PROGRAMS, Delays, Disturbance
from testbed.unit import Unit

SCRIPT = target.REPOSITORY / "tests/stress"

OBSERVED_TEST = """
import threading
import time

from testbed.tape import Channel, Tape

def observe(seen):
    for number in range(200):
        seen.record(str(number))

def test_bounds_the_time_that_an_observer_takes():
    begun = time.monotonic()
    observer = threading.Thread(target=observe, args=(Channel(Tape(), "seen"),))
    observer.start()
    observer.join()
    assert time.monotonic() - begun < 0.01

def test_waits_for_the_observer():
    seen = Channel(Tape(), "seen")
    threading.Thread(target=observe, args=(seen,)).start()
    seen.expect("199")
"""


def test_the_same_seed_disturbs_a_test_the_same_way() -> None:
    names = [f"test_{number}" for number in range(50)]
    assert ([Disturbance.of(7, name) for name in names]
            == [Disturbance.of(7, name) for name in names])


def test_another_seed_and_another_test_are_disturbed_another_way() -> None:
    chosen = {str(Disturbance.of(seed, name))
              for seed in range(20) for name in ("test_a", "test_b")}
    assert len(chosen) > 30


def test_every_way_of_disturbing_is_chosen_now_and_then() -> None:
    chosen = [Disturbance.of(seed, "test_a") for seed in range(300)]
    for who in (*PROGRAMS, OBSERVERS, disturbance.TEST):
        assert {None, *disturbance.DELAYS} == {one.delays.get(who) for one in chosen}, who
    assert set.union(*(set(one.lowest_priority) for one in chosen)) == {*PROGRAMS, OBSERVERS}
    assert set.union(*(set(one.idle_class) for one in chosen)) == {*PROGRAMS}
    assert {one.one_processor for one in chosen} == {True, False}


@pytest.mark.parametrize("delays", disturbance.DELAYS)
def test_one_step_of_so_many_is_delayed_and_none_for_longer(delays: Delays) -> None:
    choice = random.Random(1)
    steps = [disturbance.next_delay(choice, delays) for _ in range(8000)]
    delayed = [step for step in steps if step]
    assert 0.8 * 8000 / delays.rarity < len(delayed) < 1.2 * 8000 / delays.rarity
    assert 0.9 * delays.longest < max(delayed) <= delays.longest


def test_nothing_is_disturbed_unasked(unit: Unit) -> None:
    """This test has the unit as it is without tests/stress."""
    if disturbance.active():
        pytest.skip("tests/stress runs this test")
    unit.start_daemon()
    process = Path(f"/proc/{unit.daemon.process.pid}")
    assert b"LD_PRELOAD" not in (process / "environ").read_bytes()
    assert os.getpriority(os.PRIO_PROCESS, unit.daemon.process.pid) == os.getpriority(
        os.PRIO_PROCESS, 0)


# ---- The delays in a program


preloaded = pytest.mark.native("the library is for the daemon alone")


def delays_of(tmp_path: Path, settings: str) -> list[tuple[str, str]]:
    """The delayed calls of a small program with these settings, each with its delay."""
    output = tmp_path / "calls"
    library = target.build_directory() / "testbed/preload/libdelays.so"
    subprocess.run(
        ["strace", "-o", output, "-e", "trace=read,clock_nanosleep", "-E", f"LD_PRELOAD={library}",
         "-E", f"VOLDRAKE_DELAYS={settings}", "dd", "if=/dev/zero", "of=/dev/null", "bs=1",
         "count=300"], check=True, capture_output=True, timeout=timeouts.RUN)
    reads, delayed = 0, []
    for line in output.read_text().splitlines():
        reads += line.startswith("read(0")
        if match := re.match(r"clock_nanosleep\(.*\{tv_sec=(\d+), tv_nsec=(\d+)\}", line):
            delayed.append((reads, int(match[1]) * 10**9 + int(match[2])))
    return delayed


@preloaded
def test_a_program_is_delayed_at_the_same_calls_by_the_same_seed(tmp_path: Path) -> None:
    first = delays_of(tmp_path, "dd 5 10 2000 1000000")
    assert 30 < len(first) < 90  # of 300 calls of read and 300 of write
    assert all(0 < delay <= 2_000_000 for _, delay in first)
    assert delays_of(tmp_path, "dd 5 10 2000 1000000") == first
    assert delays_of(tmp_path, "dd 6 10 2000 1000000") != first


@preloaded
def test_a_program_is_delayed_no_longer_than_so_much_in_all(tmp_path: Path) -> None:
    assert 0 < sum(delay for _, delay in delays_of(tmp_path, "dd 5 1 2000 5000")) <= 5_000_000


@preloaded
@pytest.mark.parametrize("settings", ["cat 5 1 2000 1000000", "dd 5 0 2000 1000000", "dd 5 1", ""])
def test_another_program_is_not_delayed(tmp_path: Path, settings: str) -> None:
    assert delays_of(tmp_path, settings) == []


# ---- The script


def run(*arguments: object) -> "subprocess.CompletedProcess[str]":
    return subprocess.run([SCRIPT, *map(str, arguments)], capture_output=True, text=True,
                          check=False, timeout=10 * timeouts.RUN)


@pytest.fixture
def observed(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> Path:
    """A file with a test that relies on a quick observer and one that does not."""
    monkeypatch.setenv("VOLDRAKE_LOG_DIR", str(tmp_path / "logs"))
    file = tmp_path / "test_observed.py"
    file.write_text(OBSERVED_TEST)
    return file


def test_a_race_is_found_and_named_with_the_command_that_shows_it(observed: Path) -> None:
    bad = f"{observed}::test_bounds_the_time_that_an_observer_takes"
    seed = next(seed for seed in itertools.count()
                if Disturbance.of(seed, bad).delays.get(OBSERVERS) == disturbance.DELAYS[0])
    done = run("--rounds", 2, "--seed", seed, "-n", 0, observed)
    assert done.returncode == 1
    assert f"  FAILED: {bad}\n    tests/stress --seed {seed} {bad}\n" in done.stdout
    assert "rounds: 2, tests: 4\n" in done.stdout
    assert re.search(rf"^ {{7}}[12]  {seed}\b.*  {bad}$", done.stdout, re.MULTILINE)
    assert "test_waits" not in done.stdout

    alone = run("--seed", seed, bad)
    assert (alone.returncode, alone.stdout.count("FAILED")) == (1, 1)


def test_without_a_failure_it_ends_with_status_0(observed: Path) -> None:
    done = run("--rounds", 2, "--seed", 1, "-n", 0, observed, "-k", "waits")
    assert done.returncode == 0
    assert done.stdout.splitlines()[-1] == "rounds: 2, tests: 2: no failure"


def test_a_selection_of_no_test_at_all_is_a_failure(observed: Path) -> None:
    done = run("--seed", 1, "-n", 0, observed, "-k", "no_such_test")
    assert done.returncode == 1
    assert "(pytest ended with status 5)" in done.stdout
