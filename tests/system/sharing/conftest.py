"""Fixtures of the tests of sharing: a unit on a wire, its tools, other units made of sockets."""

from pathlib import Path
from typing import Callable, Iterator

import pytest

from testbed.network import Network
from testbed.nfs import NfsTools
from testbed.otherunit import OtherUnit
from testbed.unit import Unit


@pytest.fixture
def unit(request: pytest.FixtureRequest, make_unit: Callable[..., Unit], network: Network) -> Unit:
    """A unit on the wire with everything but the daemon started; the mark `unit_options`
    changes its options."""
    mark = request.node.get_closest_marker("unit_options")
    options = {"network": network, "address": "169.254.1.1"} | (mark.kwargs if mark else {})
    return make_unit(**options)


@pytest.fixture
def tools(unit: Unit) -> NfsTools:
    """The unit's stand-in tools."""
    return NfsTools(unit)


@pytest.fixture
def make_peer(network: Network, unit: Unit,
              log_directory: Path) -> Iterator[Callable[..., OtherUnit]]:
    """Makes one more unit of sockets, with this address; its events are on the unit's tape."""
    peers: list[OtherUnit] = []

    def make(address: str) -> OtherUnit:
        name = f"peer{len(peers) + 1}"
        peer = OtherUnit(network, log_directory / name, address, unit.tape, name)
        peers.append(peer)
        peer.start()
        return peer

    yield make
    for peer in peers:
        peer.close()


@pytest.fixture
def peer(make_peer: Callable[..., OtherUnit]) -> OtherUnit:
    """Another unit of sockets at 169.254.3.7."""
    return make_peer("169.254.3.7")
