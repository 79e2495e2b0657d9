"""Device nodes of a USB card reader that answers as a script tells it."""

from testbed import target
from testbed.sandbox import Sandbox

#: Where the scripts of the nodes are, and the file `record` of what was done to them.
SCRIPTS = "/srv/reader"
_LIBRARY = "/srv/fake-reader.so"


def environment(sandbox: Sandbox) -> dict[str, str]:
    """What the daemon is started with so that each node with a script is such a reader's."""
    library = target.build_directory() / "testbed/preload/libfake-reader.so"
    sandbox.write(_LIBRARY, library.read_bytes())
    sandbox.path(SCRIPTS).mkdir(exist_ok=True)
    return target.preloading(_LIBRARY) | {"FAKE_READER": SCRIPTS}


def script(sandbox: Sandbox, node: str, *lines: str) -> None:
    """Make /dev/`node` a reader's that behaves like this, from its next use on."""
    sandbox.write(f"{SCRIPTS}/{node}", "\n".join(lines) + "\n")
