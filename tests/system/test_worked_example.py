"""The unit by hand of docs/halsim.md: its commands, typed as they stand there, do what it says."""

import os
import re
import shlex
import signal
import subprocess
import tempfile
from pathlib import Path
from typing import Iterator

import pytest

from testbed import target, timeouts
from testbed.waiting import wait_until

_SECTION = re.compile(r"^### By hand\n(.*?)^## ", re.MULTILINE | re.DOTALL)
_BLOCK = re.compile(r"^```(sh)?\n(.*?)^```$", re.MULTILINE | re.DOTALL)
_PROGRAMS = ("voldrake", "voldrake-halsim", "voldrake-monitor")


class Typist:
    """A shell that is started by one command and typed into."""

    def __init__(self, command: str, output: Path, directory: str) -> None:
        """`output` gets what is on its screen; temporary files are made in `directory`."""
        output.parent.mkdir(parents=True, exist_ok=True)
        self._output = output
        places = {str(target.built(name).parent) for name in _PROGRAMS}
        environment = {"PATH": ":".join([*places, "/usr/sbin", "/usr/bin", "/sbin", "/bin"]),
                       "TMPDIR": directory, "LC_ALL": "C.UTF-8"}
        with open(output, "wb") as screen:
            self._shell = subprocess.Popen(
                shlex.split(command), stdin=subprocess.PIPE, stdout=screen, stderr=screen,
                env=os.environ | environment, start_new_session=True)

    def type(self, text: str) -> None:
        """Enter these lines."""
        assert self._shell.stdin
        self._shell.stdin.write(text.encode())
        self._shell.stdin.flush()

    def text(self) -> str:
        """What is on the screen."""
        return self._output.read_text()

    def expect(self, pattern: str) -> None:
        """Wait until a whole line of the screen has this pattern."""
        wait_until(lambda: re.search(f"(?m)^{pattern}$", self.text()),
                   f"{pattern!r} on the screen", timeouts.START)

    def end(self) -> int:
        """End of input, which ends the shell and all that runs in its unit; its status."""
        assert self._shell.stdin
        self._shell.stdin.close()
        try:
            return self._shell.wait(timeouts.STOP)
        except subprocess.TimeoutExpired:
            os.killpg(self._shell.pid, signal.SIGKILL)
            raise


def blocks() -> tuple[list[str], list[str]]:
    """What is to be typed, and what is to be seen."""
    section = _SECTION.search((target.REPOSITORY / "docs/halsim.md").read_text())
    assert section
    found = _BLOCK.findall(section[1])
    return ([text for kind, text in found if kind], [text for kind, text in found if not kind])


@pytest.fixture
def typist(log_directory: Path) -> Iterator[Typist]:
    """One that has typed the document's first command."""
    with tempfile.TemporaryDirectory() as directory:  # the bus's address must be short
        shell = Typist(blocks()[0][0], log_directory / "screen", directory)
        yield shell
        shell.end()


@pytest.mark.native("the programs are run without it")
def test_the_commands_do_what_the_document_says(typist: Typist) -> None:
    _, start, plug, more = blocks()[0]
    (arrival,) = blocks()[1]
    clock = r"\d\d:\d\d:\d\d\.\d{3}"
    typist.type(start + plug)
    typist.expect(clock + re.escape(arrival.strip()[len("14:03:59.120"):]))
    look, ask, pull = more.splitlines(keepends=True)
    typist.type(look)
    typist.expect(r".* USB Memory Card A1 -> sda1")
    typist.type(ask)
    wait_until(lambda: len(re.findall("arrival  /media/sda1", typist.text())) == 2,
               "the stick is told again", timeouts.START)
    typist.type(pull)
    typist.expect(clock + r"  removal  /media/sda1")
