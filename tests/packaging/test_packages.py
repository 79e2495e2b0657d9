"""The Debian packages in a root of their own: install, run, upgrade, remove, purge.

The tests build on one another in their order. The root is made of the Debian archive and has
name spaces of its own; nothing of this machine is touched. VOLDRAKE_PACKAGES names the directory
with the packages.
"""

import json
import os
import re
import subprocess
from pathlib import Path
from typing import Iterator

import pytest

from debian_root import Root
from testbed import target

pytestmark = pytest.mark.packages

RUN = r"""
set -e
mkdir -p /run/dbus
dbus-daemon --system --fork --nopidfile
mkfifo /run/commands
voldrake-halsim < /run/commands > /run/hal.out &
exec 3> /run/commands
wait_for() { n=0; until grep -qs "$1" "$2"; do n=$((n+1)); [ $n -lt 500 ]; sleep 0.02; done; }
wait_for '^ready' /run/hal.out
voldrake-monitor --count=2 --json > /run/messages 2> /run/monitor.err &
monitor=$!
wait_for listening /run/monitor.err
voldrake --log /var/log/voldrake.log &
daemon=$!
wait_for _ManualScan /var/log/voldrake.log
echo 'plug usb stick label=CHARTS' >&3
wait_for arrival /run/messages
ls -l /media
echo 'pull stick' >&3
wait $monitor
kill -TERM $daemon
wait $daemon
echo "status $?"
cat /run/messages
"""


def traces(root: Root) -> list[str]:
    """Every file whose path tells of the packages, without apt's and dpkg's own records."""
    listing = root.run("find / -xdev -path /proc -prune -o -path /packages -prune -o"
                       " -name '*voldrake*' -print -o -lname '*voldrake*' -print")
    return [line for line in sorted(listing.splitlines())
            if not line.startswith(("/var/lib/dpkg/", "/var/cache/apt/", "/var/lib/apt/"))]


@pytest.fixture(scope="module")
def packages() -> list[Path]:
    directory = Path(os.environ["VOLDRAKE_PACKAGES"])
    found = [package for package in directory.glob("*.deb") if "-dbgsym_" not in package.name]
    assert sorted(package.name.split("_")[0] for package in found) == [
        "voldrake", "voldrake-hald", "voldrake-tools"]
    return found


@pytest.fixture(scope="module")
def root(packages: list[Path]) -> Iterator[Root]:
    here = subprocess.run(["dpkg", "--print-architecture"], text=True, capture_output=True,
                          check=True).stdout.strip()
    if (made_for := fields(packages[0])["Architecture"]) != here:
        pytest.skip(f"packages for {made_for} cannot run in a root on {here}")
    copies = " ".join(str(package) for package in packages)
    with Root(packages[0].parent / "root",
              f"mkdir $1/packages && cp {copies} $1/packages",
              'chroot $1 sh -c "apt-get install --yes --download-only --no-install-recommends'
              ' /packages/*.deb"') as made:
        yield made


def fields(package: Path) -> dict[str, str]:
    text = subprocess.run(["dpkg-deb", "--field", str(package)], text=True, capture_output=True,
                          check=True).stdout
    return dict(re.findall(r"^(\S+): (.*)$", text, re.MULTILINE))


def test_version_is_that_of_the_project(packages: list[Path]) -> None:
    found = re.search(r"VERSION (\S+) LANGUAGES",
                      (target.REPOSITORY / "CMakeLists.txt").read_text())
    assert found
    assert {fields(package)["Version"] for package in packages} == {found[1]}


@pytest.fixture
def programs(packages: list[Path], tmp_path: Path) -> list[Path]:
    """The programs of both packages, taken out of them."""
    for package in packages:
        subprocess.run(["dpkg-deb", "--extract", str(package), str(tmp_path)], check=True)
    found = [*tmp_path.glob("usr/sbin/*"), *tmp_path.glob("usr/bin/*")]
    assert len(found) == 5
    return found


def imports(program: Path) -> set[str]:
    """The functions of shared libraries that a program calls."""
    table = subprocess.run(["readelf", "--wide", "--dyn-syms", str(program)], text=True,
                           capture_output=True, check=True).stdout
    return set(re.findall(r" UND (\w+)@", table))


def test_programs_are_hardened(programs: list[Path]) -> None:
    for program in programs:
        headers = subprocess.run(["readelf", "--wide", "-h", "-l", "-d", "-S", str(program)],
                                 text=True, capture_output=True, check=True).stdout
        assert "DYN (Position-Independent Executable" in headers, program.name
        assert "GNU_RELRO" in headers and "BIND_NOW" in headers, program.name
        assert not re.search(r"GNU_STACK.* RWE ", headers), program.name
        assert ".symtab" not in headers, f"{program.name} is not stripped"
        called = imports(program)
        assert "__stack_chk_fail" in called, f"{program.name} has no stack protector"
        assert any(re.fullmatch(r"__(?!stack_)\w+_chk", name) for name in called), (
            f"{program.name} is not fortified")


def test_daemon_needs_the_bus_library_and_glib_alone(programs: list[Path]) -> None:
    daemon = next(program for program in programs if program.name == "voldrake")
    section = subprocess.run(["readelf", "--wide", "--dynamic", str(daemon)], text=True,
                             capture_output=True, check=True).stdout
    needed = set(re.findall(r"\(NEEDED\).*\[(.+)\.so\.\d+\]", section))
    # The C library's loader gives each thread its variables.
    beyond_the_loader = {name for name in needed if not name.startswith("ld-linux")}
    assert beyond_the_loader == {"libdbus-1", "libglib-2.0", "libc"}


def test_daemon_for_the_unit_is_small_and_counts_in_64_bits(packages: list[Path],
                                                            programs: list[Path]) -> None:
    if fields(packages[0])["Architecture"] != "armhf":
        pytest.skip("not the unit's processor")
    daemon = next(program for program in programs if program.name == "voldrake")
    assert daemon.stat().st_size < 100_000
    called = imports(daemon)
    assert {"__clock_gettime64", "__stat64_time64", "open64"} <= called
    # clock_gettime is called too: by the C++ runtime, for the clock that begins with the unit.
    assert called.isdisjoint({"time", "nanosleep", "stat", "lstat", "fstat", "open", "readdir",
                              "localtime_r", "pthread_cond_timedwait"})


def test_installs_with_what_it_depends_on(root: Root) -> None:
    assert traces(root) == []
    root.run("apt-get install --yes --no-install-recommends /packages/*.deb")
    states = root.run("dpkg-query -W -f '${Package} ${db:Status-Abbrev}\\n' 'voldrake*'")
    assert states.split() == ["voldrake", "ii", "voldrake-hald", "ii", "voldrake-tools", "ii"]
    assert root.run("dpkg --verify voldrake voldrake-hald voldrake-tools") == ""
    missing = root.run("ldd /usr/sbin/voldrake* /usr/bin/voldrake-* | grep 'not found'", check=False)
    assert missing == ""


def test_will_start_at_boot(root: Root) -> None:
    link = "/etc/systemd/system/multi-user.target.wants/voldrake.service"
    assert root.run(f"readlink {link}") == "/lib/systemd/system/voldrake.service\n"


def test_hardware_service_will_be_there_for_its_name(root: Root) -> None:
    link = "/etc/systemd/system/dbus-org.freedesktop.Hal.service"
    assert root.run(f"readlink {link}") == "/lib/systemd/system/voldrake-hald.service\n"


def test_hardware_service_needs_what_it_runs_with(packages: list[Path]) -> None:
    found = {fields(package)["Package"]: package for package in packages}
    text = subprocess.run(["dpkg-deb", "--field", str(found["voldrake-hald"]), "Depends",
                           "Suggests"], text=True, capture_output=True, check=True).stdout
    named = set(re.findall(r"[a-z][\w.+-]+", text))
    assert {"mount", "udev", "default-dbus-system-bus", "libudev1", "libmount1",
            "ntfs-3g"} <= named
    assert "voldrake-hald" in fields(found["voldrake"])["Recommends"]


def test_packages_have_their_own_files_only(packages: list[Path]) -> None:
    for package in packages:
        listing = subprocess.run(["dpkg-deb", "--contents", str(package)], text=True,
                                 capture_output=True, check=True).stdout
        files = {line.split()[5] for line in listing.splitlines() if not line.endswith("/")}
        of_hald = {file for file in files if "hald" in file.removeprefix("./usr/share/doc/")
                   or file.endswith("org.freedesktop.Hal.service")}
        others = {file for file in files - of_hald if "/doc/" not in file}
        if fields(package)["Package"] == "voldrake-hald":
            assert {"./usr/sbin/voldrake-hald", "./lib/systemd/system/voldrake-hald.service",
                    "./usr/share/dbus-1/system-services/org.freedesktop.Hal.service",
                    "./usr/share/dbus-1/system.d/voldrake-hald.conf"} <= of_hald
            assert others == set()
        else:
            assert of_hald == set()


def test_runs(root: Root) -> None:
    """The installed daemon, stand-in service and monitor on the installed bus and its policy."""
    output = root.run(RUN)
    assert "USB Memory Card A1 -> sda1" in output
    assert "status 0\n" in output
    messages = [json.loads(line) for line in output.splitlines() if line.startswith("{")]
    assert [(message["message"], message["path"]) for message in messages] == [
        ("arrival", "/media/sda1"), ("removal", "/media/sda1")]


def test_upgrade_keeps_the_settings(root: Root, packages: list[Path], tmp_path: Path) -> None:
    root.run("echo 'VOLDRAKE_OPTIONS=\"--port 9000\"' > /etc/default/voldrake")
    for package in packages:
        content = tmp_path / package.name
        subprocess.run(["dpkg-deb", "--raw-extract", str(package), str(content)], check=True)
        control = content / "DEBIAN/control"
        control.write_text(re.sub(r"^Version: .*$", r"\g<0>+next", control.read_text(),
                                  flags=re.MULTILINE))
        settings_file = content / "etc/default/voldrake"
        with settings_file.open("a") if settings_file.exists() else open(
                os.devnull, "w", encoding="ascii") as settings:
            settings.write("# A line of the next version.\n")
        subprocess.run(["dpkg-deb", "--root-owner-group", "--build", str(content),
                        str(tmp_path / "next.deb")], check=True, capture_output=True)
        (root.directory / "packages" / f"next-{package.name}").write_bytes(
            (tmp_path / "next.deb").read_bytes())
    root.run("dpkg --force-confold --install /packages/next-*.deb")
    assert root.run("dpkg-query -W -f '${Version}\\n' voldrake").endswith("+next\n")
    assert root.run("cat /etc/default/voldrake") == 'VOLDRAKE_OPTIONS="--port 9000"\n'
    assert root.run("voldrake-monitor --version").startswith("voldrake-monitor ")


def test_removal_keeps_the_settings_only(root: Root) -> None:
    root.run("dpkg --remove voldrake-tools voldrake-hald voldrake")
    kept = [path for path in traces(root) if not path.startswith("/var/lib/systemd/")]
    assert kept == ["/etc/default/voldrake", "/etc/default/voldrake.dpkg-dist",
                    "/etc/logrotate.d/voldrake",
                    "/etc/systemd/system/dbus-org.freedesktop.Hal.service",
                    "/etc/systemd/system/dbus.service.wants/voldrake-bus.service",
                    "/etc/systemd/system/dbus.service.wants/voldrake.service",
                    "/etc/systemd/system/multi-user.target.wants/voldrake-hald.service",
                    "/etc/systemd/system/multi-user.target.wants/voldrake.service",
                    "/var/log/voldrake.log"]


def test_purge_leaves_nothing(root: Root) -> None:
    root.run("dpkg --purge voldrake-tools voldrake-hald voldrake")
    assert traces(root) == ["/var/log/voldrake.log"]
