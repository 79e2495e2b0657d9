"""What a process has used."""

import os
from pathlib import Path


def processor_seconds(pid: int) -> tuple[float, float]:
    """Of a process, and of its children that have ended."""
    fields = Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()
    ticks = [int(field) / os.sysconf("SC_CLK_TCK") for field in fields[11:15]]
    return sum(ticks[:2]), sum(ticks[2:])
