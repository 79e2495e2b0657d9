"""What the tests of the stand-in hardware service share: it alone on a bus, and a client."""

import itertools
import os
import re
import shutil
import subprocess
from pathlib import Path
from typing import Iterator

import pytest

from testbed import target, timeouts
from testbed.bus import Bus
from testbed.hal import Hal
from testbed.process import Process
from testbed.sandbox import Sandbox
from testbed.tape import Channel, NotSeen, Tape
from testbed.waiting import wait_until

PREFIX = "/org/freedesktop/Hal/devices/"
ROOT = PREFIX + "computer"
MANAGER = "/org/freedesktop/Hal/Manager"
DEVICE_INTERFACE = "org.freedesktop.Hal.Device"
VOLUME_INTERFACE = "org.freedesktop.Hal.Device.Volume"
MANAGER_INTERFACE = "org.freedesktop.Hal.Manager"


class Client:
    """An ordinary client of the bus: calls methods, and hears what is broadcast."""

    def __init__(self, sandbox: Sandbox, tape: Tape) -> None:
        self.heard = Channel(tape, "client")
        self._sandbox = sandbox
        self._numbers = itertools.count(1)

    def listen(self, hal: Hal) -> None:
        """Record every signal of the service from now on."""
        self._sandbox.spawn(["gdbus", "monitor", "--system", "--dest", hal.unique_name],
                            "monitor", on_line=self.heard.record)
        # It does not say when it hears; so it is spoken to until it does.
        def answered() -> bool:
            hal.command("emit /hello com.example.Test Hello ('first',)")
            try:
                self.heard.expect("/hello: com.example.Test.Hello ('first',)", 20 * timeouts.POLL)
                return True
            except NotSeen:
                return False

        wait_until(answered, "the client hears", timeouts.START)

    def heard_of(self, hal: Hal) -> list[str]:
        """The signals that were heard of what the service has sent until now, without greetings."""
        arguments = f"('last {next(self._numbers)}',)"
        hal.command(f"emit /hello com.example.Test Hello {arguments}")
        return [event.text
                for event in self.heard.until(f"/hello: com.example.Test.Hello {arguments}")
                if event.text.startswith("/") and not event.text.startswith("/hello: ")]

    def call(self, path: str, method: str, *arguments: str) -> str:
        """Call a method; the answer as GVariant text, or "NAME: TEXT" of the error."""
        return _outcome(self._sandbox.run(_call_command(path, method, arguments)))

    def start_call(self, path: str, method: str, *arguments: str) -> Process:
        """Call a method without waiting for the answer."""
        return self._sandbox.spawn(_call_command(path, method, arguments), "call")

    def get(self, udi: str, key: str, kind: str = "String") -> str:
        """Ask for one property."""
        return self.call(udi, f"{DEVICE_INTERFACE}.GetProperty{kind}", key)

    def mount(self, udi: str, name: str, fstype: str = "vfat", options: str = "[]") -> str:
        """Ask for a mount."""
        return self.call(udi, f"{VOLUME_INTERFACE}.Mount", name, fstype, options)


def _call_command(path: str, method: str, arguments: tuple[str, ...]) -> list[str]:
    return ["gdbus", "call", "--system", "--timeout", str(int(timeouts.START)), "--dest",
            "org.freedesktop.Hal", "--object-path", path, "--method", method, "--", *arguments]


def _outcome(result: subprocess.CompletedProcess[str]) -> str:
    if result.returncode == 0:
        return result.stdout.strip()
    error = re.search(r"GDBus\.Error:(.*)", result.stderr)
    return error.group(1) if error else result.stderr.strip()


@pytest.fixture(scope="module", name="box")
def fixture_box(request: pytest.FixtureRequest) -> Iterator[Sandbox]:
    """A sandbox with a bus, for all tests of a module."""
    worker = os.environ.get("PYTEST_XDIST_WORKER", "main")
    logs = target.log_directory() / "system" / f"{Path(request.node.name).stem}-{worker}"
    with Sandbox(logs, target.read_only_mounts()) as sandbox:
        Bus(sandbox).start()
        yield sandbox


@pytest.fixture(name="hal")
def fixture_hal(box: Sandbox) -> Iterator[Hal]:
    """The service, not started yet; a test that does not start it itself takes `sim`."""
    hal = Hal(box, Tape())
    yield hal
    hal.close()
    for left in box.path("/media").iterdir():
        shutil.rmtree(left)
    print(hal.events.tape)


@pytest.fixture(name="sim")
def fixture_sim(hal: Hal) -> Hal:
    """The service, started."""
    hal.start(real_mounts=False)
    return hal


@pytest.fixture(name="client")
def fixture_client(box: Sandbox, hal: Hal) -> Client:
    """A client on the same bus."""
    return Client(box, hal.events.tape)


def signals(hal: Hal) -> list[str]:
    """The signals until now: member, and the last part of the first object path in it."""
    lines = [text.split(" ", 3) for text in hal.lines() if text.startswith("signal ")]
    return [f"{words[1]} {re.sub(r'.*/', '', words[2])}" if words[1] == "PropertyModified"
            else f"{words[1]} {re.sub(r'.*/', '', words[3]).rstrip(chr(39) + ')')}"
            for words in lines]
