"""The outer wrapper and the way into other namespaces.

Tests and demo run inside one wrapper of namespaces: what they start ends with it, and the
machine's own processes, mounts and network are out of reach. No privilege is needed where the
kernel allows user namespaces.
"""

import ctypes
import os
import subprocess
import sys
import threading
from typing import Callable, NoReturn, Sequence, TypeVar

_Result = TypeVar("_Result")

#: The shell is the first process, and collects what has lost its parent.
_WRAPPER = ["unshare", "--user", "--map-root-user", "--net", "--mount", "--mount-proc",
            "--pid", "--fork", "--kill-child", "sh", "-c", '"$@"; exit $?', "sh"]
_MARK = "VOLDRAKE_WRAPPED"
_CLONE_FS = 0x200
_libc = ctypes.CDLL(None, use_errno=True)


def inside_wrapper() -> bool:
    """True when this process was started through `run_in_wrapper`."""
    return _MARK in os.environ


def run_in_wrapper(argv: Sequence[str]) -> NoReturn:
    """Replace this process by `argv` running in the wrapper; its exit status is passed on.

    Where the wrapper cannot be made, a message on standard error says why and the process ends
    with status 1. Inside a wrapper `argv` simply replaces the process.
    """
    if inside_wrapper():
        os.execvp(argv[0], list(argv))
    reason = _why_impossible()
    if reason:
        sys.exit(f"testbed: {reason}")
    os.environ[_MARK] = "1"
    os.execvp(_WRAPPER[0], [*_WRAPPER, *argv])


def in_network_of(pid: int, action: Callable[[], _Result]) -> _Result:
    """Run `action` in the network namespace of process `pid` and return its result.

    It runs in a thread of its own, so the caller's namespace is untouched. Sockets made there
    stay in that namespace and can be used by any thread.
    """
    return _in_namespace(pid, "net", action)


def in_mounts_of(pid: int, action: Callable[[], _Result]) -> _Result:
    """As `in_network_of`, but in the process's mount namespace: it sees the files as that does."""
    return _in_namespace(pid, "mnt", action)


def checked(result: int, what: str) -> int:
    """The result of a call of the C library. Raises OSError when that has failed."""
    if result < 0:
        error = ctypes.get_errno()
        raise OSError(error, f"{what}: {os.strerror(error)}")
    return result


def _in_namespace(pid: int, kind: str, action: Callable[[], _Result]) -> _Result:
    outcome: list[_Result] = []
    failure: list[BaseException] = []

    def body() -> None:
        try:
            with open(f"/proc/{pid}/ns/{kind}", "rb") as namespace:
                # A thread that shares its working directory cannot change its mounts.
                checked(_libc.unshare(_CLONE_FS), "unshare")
                checked(_libc.setns(namespace.fileno(), 0), "setns")
            outcome.append(action())
        except BaseException as error:  # handed to the caller, whatever it is
            failure.append(error)

    thread = threading.Thread(target=body)
    thread.start()
    thread.join()
    if failure:
        raise failure[0]
    return outcome[0]


def _why_impossible() -> str | None:
    try:
        probe = subprocess.run([*_WRAPPER, "true"], capture_output=True, text=True, check=False)
    except FileNotFoundError:
        return "unshare is missing (Debian package util-linux)"
    if probe.returncode == 0:
        return None
    return (f"this machine does not allow user namespaces: {probe.stderr.strip()}\n"
            "Look at the sysctl settings user.max_user_namespaces,"
            " kernel.unprivileged_userns_clone and\n"
            "kernel.apparmor_restrict_unprivileged_userns; in a container, at its security"
            " profile and at a masked /proc.")
