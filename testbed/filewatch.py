"""Tells at once when files change, through the kernel's inotify."""

import ctypes
import os
import select
import struct
import threading
from pathlib import Path
from typing import Callable

from testbed.namespaces import checked

#: What can be watched for.
MODIFIED, CLOSED_AFTER_WRITING, OPENED = 0x0002, 0x0008, 0x0020
APPEARED, DISAPPEARED = 0x0080 | 0x0100, 0x0040 | 0x0200

_RECORD = struct.Struct("iIII")
_libc = ctypes.CDLL(None, use_errno=True)


class FileWatch:
    """Calls `on_change(path, name)` on a thread of its own for each change, in their order.

    `path` is what was added; `name` is the changed entry in it when that is a directory. Changes
    that follow from one another faster than they are read can be reported as one.
    """

    def __init__(self, on_change: Callable[[Path, str], None]) -> None:
        self._on_change = on_change
        self._inotify = checked(_libc.inotify_init1(os.O_CLOEXEC), "inotify_init1")
        self._stop_read, self._stop_write = os.pipe()
        self._paths: dict[int, Path] = {}
        self._thread = threading.Thread(target=self._follow, daemon=True)

    def add(self, path: Path, changes: int) -> None:
        """Watch a file or a directory, before `start`. Raises OSError."""
        watch = checked(_libc.inotify_add_watch(self._inotify, bytes(path), changes),
                        f"cannot watch {path}")
        self._paths[watch] = path

    def start(self) -> None:
        """Begin; changes since `add` are reported first."""
        self._thread.start()

    def close(self) -> None:
        """Report what has changed until now and stop."""
        os.close(self._stop_write)
        if self._thread.is_alive():
            self._thread.join()
        os.close(self._stop_read)
        os.close(self._inotify)

    def _follow(self) -> None:
        while True:
            readable, _, _ = select.select([self._inotify, self._stop_read], [], [])
            if self._inotify in readable:
                self._report(os.read(self._inotify, 65536))
            else:
                return

    def _report(self, records: bytes) -> None:
        while records:
            watch, _, _, length = _RECORD.unpack_from(records)
            name = records[_RECORD.size:_RECORD.size + length].rstrip(b"\0")
            records = records[_RECORD.size + length:]
            if watch in self._paths:
                self._on_change(self._paths[watch], os.fsdecode(name))
