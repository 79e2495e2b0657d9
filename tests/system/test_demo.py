"""The demo plays to its end and shows what it is there to show."""

import os
import re
import subprocess
import sys
from pathlib import Path
from xml.etree import ElementTree

import pytest

from testbed import target, timeouts


def run(log_directory: Path, *options: str, text: str = "") -> subprocess.CompletedProcess[str]:
    """A demo to its end."""
    return subprocess.run(
        [sys.executable, "-m", "testbed", "demo", *options], cwd=target.REPOSITORY, input=text,
        env=os.environ | {"VOLDRAKE_LOG_DIR": str(log_directory)}, capture_output=True, text=True,
        timeout=6 * timeouts.RUN, check=False)


def demo(log_directory: Path, *options: str, text: str = "") -> list[str]:
    """Lines of a demo that must end with status 0, without times, prompts and alignment."""
    done = run(log_directory, *options, text=text)
    assert (done.returncode, done.stderr) == (0, ""), done.stdout + done.stderr
    return [" ".join(re.sub(r"^(voldrake> )*( *\d+\.\d{3}  )?", "", line).split())
            for line in done.stdout.splitlines()]


def assert_in_order(wanted: list[str], lines: list[str]) -> None:
    position = 0
    for line in wanted:
        assert line in lines[position:], f"{line!r} is missing after {lines[:position]}"
        position += lines[position:].index(line) + 1


@pytest.mark.native("the pace is another")
def test_the_story_shows_every_kind_of_event(log_directory: Path) -> None:
    lines = demo(log_directory)
    assert_in_order([
        "An SD card is in its slot when the unit starts.",
        'reported arrival /media/mmcblk0p1 "Memory Card - 0"'
        " (memorycard, writable, key 1b534d303030303010206bb243009ae5)",
        "A second partition on it appears.",
        'reported arrival /media/sda2 "USB Mass Storage" (harddrive, writable)',
        "A write-protected card goes into the second slot.",
        'reported arrival /media/mmcblk1p1 "Memory Card - 1"'
        " (memorycard, read-only, key 1b534d303030303010ca9f5228009aef)",
        'reported arrival /media/sdb1 " - Chart Port" (harddrive, writable)',
        "ignored /dev/sdc1",
        'reported arrival /media/sdd1 "KR20 - 1"'
        " (memorycard, writable, key 0353445355303847802A5B1C4A00F3b1)",
        "daemon signal SIGUSR1",
        'reported arrival /media/sdd1 "KR20 - 1"'
        " (memorycard, writable, key 0353445355303847802A5B1C4A00F3b1)",
        "daemon signal SIGUSR2",
        "reported removal /media/sdb1",
        'reported arrival /media/sdb1 " - Chart Port" (harddrive, writable)',
        "pulled stick",
        "reported removal /media/sda2",
        "the display application has stopped",
        "the display application has started",
        'reported arrival /media/sda1 "USB Mass Storage" (harddrive, writable)',
        "Memory Card - 0 -> mmcblk0p1", "Memory Card - 1 -> mmcblk1p1",
        "USB Memory Card A1 -> sda1", "USB Memory Card B1 -> sdb1",
        "daemon ended with status 0",
        "Both units are switched off.",
    ], lines)
    assert "asked Mount('sda2', 'vfat', [])" in lines
    assert "unlinked /media/USB Memory Card A2 -> sda2" in lines
    assert not any("sdc1" in line for line in lines if line.startswith(("reported", "mounted")))
    assert not any("\x1b" in line for line in lines)
    assert lines[-1].startswith(f"The logs of all programs are in {log_directory}/demo;")
    assert (log_directory / "demo/unit/voldrake.log").exists()


@pytest.mark.native("no question for hardware addresses comes through")
def test_two_units_read_and_write_each_other_s_files(log_directory: Path) -> None:
    file = log_directory / "timeline.svg"
    lines = demo(log_directory, "--two-units", f"--timeline={file}")
    assert_in_order([
        "north ran exportfs -o ro,no_root_squash,no_subtree_check *:/media/mmcblk0p1",
        "south ran mount -t nfs -o rw,rsize=1280,soft,udp,noatime,nodiratime"
        " 169.254.1.1:/media/mmcblk0p1 /mnt/169.254.1.1:-media-mmcblk0p1",
        "south reads /mnt/169.254.1.1:-media-mmcblk0p1/route.txt: Harbour to lighthouse",
        "south reads /media/sda1/answer.txt: On my way",
        "south ran umount -f -l /mnt/169.254.1.1:-media-mmcblk0p1",
        "north reported removal /mnt/169.254.1.2:-media-sda1",
    ], lines)
    drawn = [text.text for text in ElementTree.parse(file).iter("{http://www.w3.org/2000/svg}text")]
    assert {"hardware service", "daemon", "application", "other unit", "north", "south",
            "card ROUTES plugged in", "mount rw 169.254.1.1:mmcblk0p1",
            "removal 169.254.1.2:sda1"} <= set(drawn)


def test_the_prompt_carries_out_its_commands(log_directory: Path) -> None:
    commands = ["help", "plug usb stick label=X", "list", "plug usb stick", "away", "back",
                "pull stick", "log 2", "nonsense", "quit"]
    lines = demo(log_directory, "--interactive", text="\n".join(commands) + "\n")
    assert_in_order([
        "plug sd NAME [host=0] [cid=...] [label=TEXT] ... an SD card",
        "plugged: stick", "mounted: /media/sda1 rw",
        "linked: /media/USB Memory Card A1 -> sda1",
        'refused there is a "stick" already',
        "reported removal /media/sda1",
        'refused unknown command "nonsense"',
        "daemon ended with status 0",
    ], lines)


def test_the_end_of_input_ends_the_prompt(log_directory: Path) -> None:
    assert "daemon ended with status 0" in demo(log_directory, "--interactive")


@pytest.mark.native("the pace is another")
def test_the_user_s_own_application_takes_the_monitor_s_place(log_directory: Path) -> None:
    """It asks for everything at each of its starts, and so receives everything when it is back."""
    lines = demo(log_directory, "--application=docs/examples/display.py"
                                " --ask='kill -USR1 $(pidof voldrake)'")
    away = lines.index("the display application has stopped")
    assert_in_order([
        "says received: dataarrival /media/mmcblk0p1",
        "says shown: /media/mmcblk0p1 (Memory Card - 0)",
        "says received: dataremoval /media/sda2",
    ], lines[:away])
    assert_in_order([
        "the display application has stopped",
        "says shown:",
        "says received: dataarrival /media/mmcblk0p1",
        "says received: dataarrival /media/sda1",
    ], lines[away:])
    assert "daemon ended with status 0" in lines[away:]
    assert not any(line.startswith("reported") for line in lines)


@pytest.mark.parametrize("options, status, complaint", [
    (["--application=sh -c 'echo no display; exit 3'"], 1,
     "sh has ended with status 3 and does not listen on port 8080: no display"),
    (["--application="], 2, "--application needs a command"),
    (["--application='"], 2, "--application: No closing quotation"),
    (["--application=x", "--directory=/tmp"], 2, "the sandbox has a /tmp of its own"),
    (["--application=x", "--two-units"], 2, "--application goes with one unit"),
], ids=lambda value: " ".join(value) if isinstance(value, list) else "")
def test_what_cannot_be_an_application_is_refused(log_directory: Path, options: list[str],
                                                  status: int, complaint: str) -> None:
    done = run(log_directory, *options)
    assert done.returncode == status
    assert complaint in done.stdout + done.stderr
