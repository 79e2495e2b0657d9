"""The example for systemd-networkd, as systemd-networkd takes it."""

import socket
import struct

from testbed import timeouts
from testbed.network import Network
from testbed.sandbox import Sandbox
from testbed.waiting import wait_until

_NETWORKD = "/usr/lib/systemd/systemd-networkd"


def test_the_unit_can_join_the_group(tree, sandbox: Sandbox) -> None:
    """By the route alone; an address comes later."""
