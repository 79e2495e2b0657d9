"""The example for systemd-networkd, as systemd-networkd takes it."""

import socket
import struct
from pathlib import Path

from testbed import timeouts
from testbed.network import Network
from testbed.sandbox import Sandbox
from testbed.waiting import wait_until

_NETWORKD = "/usr/lib/systemd/systemd-networkd"
_EXAMPLE = "share/doc/voldrake/examples/50-voldrake.network"


def join_the_group(sandbox: Sandbox) -> None:
    """As the daemon does: on any interface. OSError when there is no route."""
    with sandbox.in_network(lambda: socket.socket(socket.AF_INET, socket.SOCK_DGRAM)) as heard:
        heard.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                         struct.pack("4s4s", socket.inet_aton("224.1.1.1"), bytes(4)))


def can_join(sandbox: Sandbox) -> bool:
    """Whether the group can be joined now."""
    try:
        join_the_group(sandbox)
    except OSError:
        return False
    return True


def test_the_example_gives_the_route_of_the_group(tree, log_directory: Path) -> None:
    with Network() as wire, Sandbox(log_directory) as sandbox:
        # It gives up root for this user, and waits for udev unless /sys is write-protected.
        sandbox.write("/etc/passwd", "systemd-network:x:0:0::/:/bin/sh\n")
        assert sandbox.run(["mount", "-o", "remount,bind,ro", "/sys"]).returncode == 0
        sandbox.write("/etc/systemd/network/50-voldrake.network",
                      tree.path(_EXAMPLE).read_bytes())
        wire.join(sandbox)
        assert not can_join(sandbox)
        sandbox.spawn([_NETWORKD], "networkd")
        wait_until(lambda: can_join(sandbox), "the group can be joined", timeouts.START)
