"""A wire that joins units: a bridge in the wrapper's own network."""

import itertools
import os
import subprocess

from testbed.lifespan import Lifespan
from testbed.sandbox import Sandbox

_numbers = itertools.count(1)


class Network(Lifespan):
    """Units with an interface "eth0", a link-local address each and a route for multicast.

    Requires: running inside the wrapper of `namespaces`.
    """

    def __init__(self, bridge: str = "") -> None:
        """`bridge`: name of the interface, at most 12 characters; by default one of its own."""
        self._bridge = bridge or f"w{os.getpid()}n{next(_numbers)}"
        self._made = False
        self._ports = 0

    def start(self) -> None:
        """Make the wire. Raises RuntimeError, and leaves nothing behind, when it cannot be made."""
        _ip(f"link add {self._bridge} up type bridge mcast_snooping 0")
        self._made = True

    def close(self) -> None:
        """Remove the wire; units still joined lose their link."""
        if self._made:
            self._made = False
            _ip(f"link delete {self._bridge}")

    def join(self, sandbox: Sandbox, address: str | None = None,
             index: int | None = None) -> "Interface":
        """Give the sandbox an eth0 on this wire, up and with this address (such as
        "169.254.1.1"); None leaves it down and without one. `index` is the number that the
        kernel gives it, by default one that was not used yet."""
        self._ports += 1
        port = f"{self._bridge}p{self._ports}"
        number = f"index {index} " if index else ""
        _ip(f"link add eth0 {number}netns {sandbox.pid} type veth peer name {port}")
        _ip(f"link set {port} master {self._bridge} up")
        interface = Interface(sandbox, port)
        if address:
            interface.up()
            interface.set_address(address)
        return interface


class Interface:
    """A unit's eth0."""

    def __init__(self, sandbox: Sandbox, port: str) -> None:
        self._sandbox = sandbox
        self._port = port  # the other end of the cable, out here

    def up(self) -> None:
        """Switch the interface on."""
        self._inside("link set eth0 up")

    def down(self) -> None:
        """Switch the interface off; its routes go with it."""
        self._inside("link set eth0 down")

    def plug_cable(self) -> None:
        """Give the link back."""
        _ip(f"link set {self._port} up")

    def pull_cable(self) -> None:
        """Take the link away; address and routes stay."""
        _ip(f"link set {self._port} down")

    def set_address(self, address: str) -> None:
        """Replace the addresses by this one, with a route for multicast."""
        self.clear_address()
        self._inside(f"address add {address}/16 dev eth0")
        self._inside("route replace 224.0.0.0/4 dev eth0")

    def clear_address(self) -> None:
        """Take all addresses away."""
        self._inside("-4 address flush dev eth0")

    def hardware_address(self) -> str:
        """Such as "02:00:5e:10:00:01"."""
        return self._inside("-br link show eth0").split()[2]

    def _inside(self, command: str) -> str:
        done = self._sandbox.run(["ip", *command.split()])
        if done.returncode != 0:
            raise RuntimeError(f"ip {command}: {done.stderr.strip()}")
        return done.stdout


def _ip(command: str) -> None:
    done = subprocess.run(["ip", *command.split()], capture_output=True, text=True, check=False)
    if done.returncode != 0:
        raise RuntimeError(f"ip {command}: {done.stderr.strip()}")
