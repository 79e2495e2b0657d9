"""The daemon of a long run, and what is known of it."""

import shutil
import time
from pathlib import Path

from testbed.lifespan import Lifespan
from testbed.network import Network
from testbed.soak.checks import Checks
from testbed.soak.figures import processor_seconds
from testbed.soak.unit import SoakUnit

_REPLAYED = 25.0  # seconds for what needs its time, while shortening


class DaemonPlayer(Lifespan):
    """Plays stories on a daemon in a sandbox of its own."""

    def __init__(self, logs: Path, real_mounts: bool, speed: float = 1, replay: bool = False,
                 yields: bool = False) -> None:
        """See `SoakUnit`. A `replay` is less patient: it is one of many, and most fail again."""
        shutil.rmtree(logs, ignore_errors=True)
        logs.mkdir(parents=True)
        self._network = Network()
        self.unit = SoakUnit(logs, self._network, real_mounts, speed, yields)
        self.checks = Checks(self.unit, _REPLAYED) if replay else Checks(self.unit)

    def start(self) -> None:
        """Everything runs."""
        self._network.start()
        self.unit.start()

    def close(self) -> None:
        """Leaves nothing but logs."""
        self.unit.close()
        self._network.close()

    def play(self, line: str) -> None:
        """See `program.Player`."""
        if check := self.checks.verbs.get(line):
            check()
        else:
            self.unit.play(line)

    def figures(self) -> dict[str, int]:
        """See `program.Player`."""
        unit = self.unit
        return {"datagrams": sum(neighbour.sent for neighbour in unit.neighbours),
                "messages": unit.ledger.local.delivered + unit.ledger.remote.delivered,
                "checks": self.checks.done,
                "sure %": 100 * self.checks.sure // max(self.checks.mounted, 1),
                "RSS kB": unit.status("VmRSS"),
                **self.checks.resting}

    def times(self) -> dict[str, float]:
        """See `program.Player`."""
        unit = self.unit
        assert unit.process and unit.bus.process
        daemon, commands = processor_seconds(unit.process.pid)
        service, mounts = processor_seconds(unit.service.pid())
        return {"daemon": daemon, "its commands": commands, "hardware service": service + mounts,
                "bus": processor_seconds(unit.bus.process.pid)[0], "soak": time.process_time()}
