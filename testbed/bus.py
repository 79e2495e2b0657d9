"""The private message bus that is a unit's system bus."""

import threading

from testbed import timeouts
from testbed.process import Process
from testbed.sandbox import Sandbox

_SOCKET = "/run/dbus/system_bus_socket"
_CONFIGURATION = """<!DOCTYPE busconfig PUBLIC
 "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path={socket}</listen>
  <auth>{authentication}</auth>
  <allow_anonymous/>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_destination="*" eavesdrop="true"/>
    <allow receive_sender="*" eavesdrop="true"/>
  </policy>
</busconfig>
"""


class Bus:
    """A dbus-daemon inside the sandbox at the system bus's usual address."""

    def __init__(self, sandbox: Sandbox) -> None:
        self._sandbox = sandbox
        self.process: Process | None = None

    def start(self, authentication: str = "EXTERNAL") -> None:
        """Start the bus; clients can connect on return. Also after `stop` or `kill`.

        With the authentication "ANONYMOUS" it does not know which user a client is.
        """
        self._sandbox.write("/etc/dbus-1/unit.conf", _CONFIGURATION.format(
            socket=_SOCKET, authentication=authentication))
        socket = self._sandbox.path(_SOCKET)
        socket.parent.mkdir(exist_ok=True)
        socket.unlink(missing_ok=True)  # of a bus that was killed
        ready = threading.Event()
        self.process = self._sandbox.spawn(
            ["dbus-daemon", "--config-file=/etc/dbus-1/unit.conf", "--nofork", "--nopidfile",
             "--print-address=1"], "bus", on_line=lambda _: ready.set())
        assert ready.wait(timeouts.START), f"no message bus: {self.process.stderr()}"

    def stop(self) -> None:
        """End the bus in good order."""
        assert self.process
        self.process.terminate()

    def kill(self) -> None:
        """End the bus at once."""
        assert self.process
        self.process.kill()
