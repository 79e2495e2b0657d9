"""When a daemon that was started can be told something."""

import re
from pathlib import Path

from testbed import timeouts
from testbed.sandbox import TOOLS, Sandbox
from testbed.waiting import wait_until


def expect_line(sandbox: Sandbox, log: str, text: str) -> None:
    """Wait until the log has this text."""
    file = sandbox.path(log)
    wait_until(lambda: file.exists() and text in file.read_text(), f"{text!r} in {log}",
               timeouts.START)


def expect_handler(sandbox: Sandbox, number: int) -> None:
    """Wait until the sandbox's daemon handles this signal; before, it would end by it."""
    wait_until(lambda: any(_handles(pid, number) for pid, line in sandbox.processes().items()
                           if "/voldrake" in line), f"signal {number} is handled", timeouts.START)


def make_starts_slow(sandbox: Sandbox) -> None:
    """What start-stop-daemon starts in the background begins two seconds after it has returned."""
    tool = sandbox.path(f"{TOOLS}/start-stop-daemon")
    tool.unlink()
    tool.write_text("""#!/bin/sh
if [ "$1" = -S ]; then
    { /usr/bin/sleep 2; exec /usr/bin/busybox start-stop-daemon "$@"; } >/dev/null 2>&1 &
else
    exec /usr/bin/busybox start-stop-daemon "$@"
fi
""")
    tool.chmod(0o755)


def _handles(pid: int, number: int) -> bool:
    try:
        status = Path(f"/proc/{pid}/status").read_text()
    except FileNotFoundError:
        return False
    caught = re.search(r"^SigCgt:\s*(\w+)$", status, re.MULTILINE)
    return caught is not None and bool(int(caught[1], 16) >> (number - 1) & 1)
