"""What the programs under test were built for, and where they are.

VOLDRAKE_BUILD_DIR names the build directory; the default is build/dev. A daemon built for another
processor needs two more: VOLDRAKE_EMULATOR, a static user-mode emulator, and VOLDRAKE_SYSROOT,
whose libraries it uses. Then only the daemon is emulated; the bus, the stand-ins (those of
build/dev) and the tools that the daemon runs stay native. With a daemon that has the thread
sanitizer the stand-ins are those of build/dev, too: the sanitizer does not see how GLib's threads
meet, and would report all that they share.
"""

import functools
import os
from pathlib import Path

REPOSITORY = Path(__file__).resolve().parent.parent

#: Where programs and helpers stand inside a sandbox.
INSIDE = Path("/opt/voldrake")
_SYSROOT_INSIDE = INSIDE / "sysroot"
_EMULATOR_INSIDE = INSIDE / "emulator"

_PROGRAMS = {
    "voldrake": "src/voldrake",
    "voldrake-halsim": "hal/sim/voldrake-halsim",
    "voldrake-hald": "hal/kernel/voldrake-hald",
    "voldrake-monitor": "tools/voldrake-monitor",
    "voldrake-shares": "tools/voldrake-shares",
}


_DEFAULT_BUILD = "build/dev"


def emulated() -> bool:
    """True when the daemon was built for another processor."""
    return "VOLDRAKE_EMULATOR" in os.environ


def build_directory() -> Path:
    """The directory that the daemon was built in."""
    return (REPOSITORY / os.environ.get("VOLDRAKE_BUILD_DIR", _DEFAULT_BUILD)).resolve()


def check_build_directory() -> None:
    """Raise NotADirectoryError when VOLDRAKE_BUILD_DIR names something in which nothing was ever
    configured."""
    if "VOLDRAKE_BUILD_DIR" in os.environ and not (build_directory() / "CMakeCache.txt").exists():
        raise NotADirectoryError(
            f"VOLDRAKE_BUILD_DIR is {build_directory()}, which is not a build directory")


def built_with(option: str) -> bool:
    """True if this option of the build is on in the build directory."""
    cache = build_directory() / "CMakeCache.txt"
    return cache.exists() and f"\n{option}:BOOL=ON\n" in cache.read_text()


def sanitized() -> bool:
    """True if the daemon was built with the address or thread sanitizer."""
    return _mentions("__asan_init") or thread_sanitized()


def thread_sanitized() -> bool:
    """True if the daemon was built with the thread sanitizer."""
    return _mentions("__tsan_init")


def sanitizer_threads() -> int:
    """The threads that a sanitizer has in the daemon; it starts them before the daemon's own."""
    return 1 if thread_sanitized() else 0


def sanitizer_options() -> dict[str, str]:
    """What a program in a sandbox is started with for the daemon's sanitizer: it is silent about what
    is known of libdbus, and does not pause at the end to catch other threads."""
    if not thread_sanitized():
        return {}
    options = os.environ.get("TSAN_OPTIONS", "")
    known = INSIDE / "helpers/thread-sanitizer"
    return {"TSAN_OPTIONS": f"{options}:suppressions={known}:atexit_sleep_ms=0"}


def traced_to_its_end() -> dict[str, str]:
    """What a program in a sandbox is started with that a tracer will not let go before it ends: a
    sanitizer's leak check, which is a tracer itself, would miss threads and take what only they
    know for lost."""
    return {"LSAN_OPTIONS": f"{os.environ.get('LSAN_OPTIONS', '')}:detect_leaks=0"}


def preloading(*libraries: str) -> dict[str, str]:
    """What a program in a sandbox is started with to load these libraries before all others. An
    address sanitizer that is linked dynamically wants to be the first."""
    options = os.environ.get("ASAN_OPTIONS", "")
    return {"LD_PRELOAD": ":".join(libraries), "ASAN_OPTIONS": f"{options}:verify_asan_link_order=0"}


def log_directory() -> Path:
    """Where logs are kept: VOLDRAKE_LOG_DIR, or `logs` in the build directory."""
    chosen = os.environ.get("VOLDRAKE_LOG_DIR")
    return Path(chosen).resolve() if chosen else build_directory() / "logs"


def program(name: str) -> str:
    """Path of a program inside a sandbox. Raises FileNotFoundError when it is not built."""
    outside = built(name)
    if not outside.exists():
        raise FileNotFoundError(f"{outside} is not built")
    return str(INSIDE / "bin" / name)


def daemon_command() -> list[str]:
    """The words that start the daemon inside a sandbox, with the emulator where one is set."""
    command = [program("voldrake")]
    if emulated():
        return [str(_EMULATOR_INSIDE), "-L", str(_SYSROOT_INSIDE), *command]
    return command


def read_only_mounts() -> dict[Path, Path]:
    """What a sandbox needs besides the system: path inside -> path outside."""
    programs = {INSIDE / "bin" / name: built(name) for name in _PROGRAMS}
    mounts = {inside: outside for inside, outside in programs.items() if outside.exists()}
    mounts[INSIDE / "helpers"] = REPOSITORY / "testbed" / "helpers"
    mounts[INSIDE / "examples"] = REPOSITORY / "docs" / "examples"
    if emulated():
        mounts[_EMULATOR_INSIDE] = Path(os.environ["VOLDRAKE_EMULATOR"]).resolve()
    # Libraries only: the emulator sends every path that exists there into the sysroot, so it
    # must hold no /etc, /proc or /media.
    if "VOLDRAKE_SYSROOT" in os.environ:
        sysroot = Path(os.environ["VOLDRAKE_SYSROOT"]).resolve()
        mounts |= {_SYSROOT_INSIDE / part: (sysroot / part).resolve() for part in ("lib", "usr")}
    return mounts


def written_by_programs() -> list[Path]:
    """Directories out here that the programs write into: with VOLDRAKE_COVERAGE their build
    directory, where they count what they execute."""
    return [build_directory()] if "VOLDRAKE_COVERAGE" in os.environ else []


def built(name: str) -> Path:
    """Where a program has been built, or would be."""
    if name != "voldrake" and (emulated() or thread_sanitized()):
        return REPOSITORY / _DEFAULT_BUILD / _PROGRAMS[name]
    return build_directory() / _PROGRAMS[name]


@functools.cache
def _mentions(symbol: str) -> bool:
    daemon = built("voldrake")
    return daemon.exists() and symbol.encode() in daemon.read_bytes()
