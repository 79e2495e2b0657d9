"""The emulator's control socket."""

import json
import socket
import threading
import time
from pathlib import Path
from typing import Any

from testbed.machine import deadlines


class Refused(RuntimeError):
    """The emulator has refused a command."""


class Qmp:
    """A connection to the control socket. Safe for any thread; one command runs at a time."""

    def __init__(self, path: Path) -> None:
        """Connect. Raises OSError when nobody listens."""
        self._socket = socket.socket(socket.AF_UNIX)
        self._socket.settimeout(deadlines.CONTROL)
        self._socket.connect(str(path))
        self._lines = self._socket.makefile("r", encoding="utf-8")
        self._one_at_a_time = threading.Lock()
        self._events: list[dict[str, Any]] = []
        self._read()  # the greeting
        self.command("qmp_capabilities")

    def close(self) -> None:
        """Close the connection."""
        self._lines.close()
        self._socket.close()

    def command(self, name: str, /, **arguments: Any) -> Any:
        """Run a command; what it returns. Raises Refused, or OSError when the emulator is gone."""
        words = {key.replace("_", "-"): value for key, value in arguments.items()}
        with self._one_at_a_time:
            order = {"execute": name, "arguments": words}
            self._socket.sendall(json.dumps(order).encode() + b"\n")
            while True:
                answer = self._read()
                if "event" in answer:
                    self._events.append(answer)
                elif "error" in answer:
                    raise Refused(f"{name} {words}: {answer['error']['desc']}")
                else:
                    return answer["return"]

    def wait_until_deleted(self, device: str) -> None:
        """Return once the guest has let go of a device that was unplugged by `device_del`."""
        deadline = time.monotonic() + deadlines.CONTROL
        with self._one_at_a_time:
            while not any(event["event"] == "DEVICE_DELETED"
                          and event["data"].get("device") == device for event in self._events):
                assert time.monotonic() < deadline, f"{device} is not let go"
                answer = self._read()
                if "event" in answer:
                    self._events.append(answer)
            self._events.clear()

    def _read(self) -> dict[str, Any]:
        line = self._lines.readline()
        if not line:
            raise ConnectionError("the emulator has closed its control socket")
        return json.loads(line)
