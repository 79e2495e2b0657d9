"""The Yocto recipe and the Buildroot package, as far as they can be checked without either."""

import os
import re
import subprocess
from fnmatch import fnmatch
from pathlib import Path

import kconfiglib
import pytest

from testbed import target

PACKAGING = target.REPOSITORY / "packaging"
LAYER = PACKAGING / "yocto/meta-voldrake"
RECIPE = LAYER / "recipes-voldrake/voldrake/voldrake_1.10.bb"
BUILDROOT = PACKAGING / "buildroot"
#: A shell function of a recipe: its name and its body.
FUNCTION = re.compile(r"^([\w:${}-]+)\(\) \{\n(.*?)^\}\n", re.MULTILINE | re.DOTALL)

#: bitbake.conf's own directories, and the packages that it fills by itself.
DIRECTORIES = {
    "bindir": "/usr/bin", "sbindir": "/usr/sbin", "sysconfdir": "/etc", "datadir": "/usr/share",
    "libdir": "/usr/lib", "nonarch_libdir": "/usr/lib", "PN": "voldrake",
    "systemd_system_unitdir": "/usr/lib/systemd/system"}
DOCUMENTS = ["/usr/share/doc", "/usr/share/man"]


def cmake_options() -> set[str]:
    """The options that the project's CMake files know."""
    files = [target.REPOSITORY / "CMakeLists.txt", *target.REPOSITORY.glob("*/CMakeLists.txt")]
    return {name for file in files
            for name in re.findall(r"(?:option\(|set\()(VOLDRAKE_\w+)", file.read_text())}


def cmake_version() -> str:
    """The oldest CMake that will do."""
    found = re.search(r"cmake_minimum_required\(VERSION (\S+)\)",
                      (target.REPOSITORY / "CMakeLists.txt").read_text())
    assert found
    return found[1]


def project_version() -> str:
    found = re.search(r"VERSION (\S+) LANGUAGES",
                      (target.REPOSITORY / "CMakeLists.txt").read_text())
    assert found
    return found[1]


# ---- Yocto

@pytest.fixture(scope="module")
def recipe() -> dict[str, str]:
    """The recipe's variables; "inherit" has the classes. Every line has to be understood."""
    variables: dict[str, str] = {"inherit": ""}
    text = re.sub(r"\\\n", "", FUNCTION.sub("", RECIPE.read_text()))
    for line in text.splitlines():
        if not line or line.startswith("#"):
            continue
        if line.startswith("inherit "):
            variables["inherit"] += line.removeprefix("inherit") + " "
            continue
        found = re.fullmatch(r'([\w:${}\[\]-]+) (=|\+=|=\+|\?=|\?\?=|\.=) "([^"]*)"', line)
        assert found, f"not BitBake: {line}"
        name, operator, value = found.groups()
        if operator in ("+=", "=+"):
            variables[name] = f"{variables.get(name, '')} {value}"
        else:
            variables.setdefault(name, value)
    return variables


def expanded(value: str) -> list[str]:
    for name, directory in DIRECTORIES.items():
        value = value.replace("${" + name + "}", directory)
    return value.split()


def test_recipe_is_of_this_version() -> None:
    assert RECIPE.name == f"voldrake_{project_version()}.bb"


def test_recipe_balances_its_brackets() -> None:
    for opening, closing in ("{}", "()", "[]"):
        assert RECIPE.read_text().count(opening) == RECIPE.read_text().count(closing)
    for expression in re.findall(r"\$\{@(.*?)\}(?:/|\"| |\\|$)", RECIPE.read_text(), re.MULTILINE):
        compile(expression, "recipe", "eval")


def test_recipe_leads_to_the_repository() -> None:
    up = re.search(r"\+ '((?:/\.\.)+)'", RECIPE.read_text())
    assert up
    assert Path(f"{RECIPE.parent}{up[1]}").resolve() == target.REPOSITORY


def test_recipe_passes_options_that_exist(recipe: dict[str, str]) -> None:
    passed = set(re.findall(r"-D(VOLDRAKE_\w+)", RECIPE.read_text()))
    assert {"VOLDRAKE_SYSTEMD", "VOLDRAKE_SYSV", "VOLDRAKE_TOOLS"} <= passed
    assert passed <= cmake_options()


def test_recipe_puts_every_installed_file_into_one_package(recipe: dict[str, str], tree) -> None:
    order = [name for name in expanded(recipe["PACKAGES"])] + ["voldrake"]
    patterns = {name: expanded(recipe[f"FILES:{name.replace('voldrake', '${PN}', 1)}"])
                for name in order}
    files = [image_path(file) for file in tree.files()] + [
        "/etc/init.d/voldrake", "/etc/init.d/voldrake-hald"]
    homes: dict[str, str] = {}
    for file in files:
        if any(file.startswith(directory + "/") for directory in DOCUMENTS):
            continue
        found = next((name for name in order if any(
            file.startswith(pattern + "/") or fnmatch(file, pattern)
            for pattern in patterns[name])), None)
        assert found, f"{file} is in no package"
        homes[file] = found
    assert homes["/usr/sbin/voldrake"] == "voldrake"
    assert homes["/etc/init.d/voldrake"] == "voldrake"
    for file in ("/usr/sbin/voldrake-hald", "/etc/init.d/voldrake-hald",
                 "/usr/lib/systemd/system/voldrake-hald.service",
                 "/usr/share/dbus-1/system-services/org.freedesktop.Hal.service",
                 "/usr/share/dbus-1/system.d/voldrake-hald.conf"):
        assert homes[file] == "voldrake-hald", file
    assert homes["/usr/share/dbus-1/system.d/voldrake.conf"] == "voldrake"
    assert homes["/usr/bin/voldrake-monitor"] == "voldrake-tools"
    assert set(homes.values()) == set(order), "a package would be empty"


def image_path(file: str) -> str:
    """Where a file that is installed under a prefix is in an image."""
    file = re.sub(r"^lib/[^/]+-linux-[^/]+/", "lib/", file)
    return f"/{file}" if file.startswith("etc/") else f"/usr/{file}"


def test_recipe_keeps_the_settings_of_an_upgraded_image(recipe: dict[str, str], tree) -> None:
    kept = set(expanded(recipe["CONFFILES:${PN}"]))
    assert kept == {image_path(file) for file in tree.files() if file.startswith("etc/")}


def test_recipe_needs_what_the_build_needs(recipe: dict[str, str]) -> None:
    modules = re.findall(r"pkg_check_modules\(\w+ REQUIRED IMPORTED_TARGET ([\w.-]+)",
                         (target.REPOSITORY / "src/CMakeLists.txt").read_text())
    providers = {"dbus-1": "dbus", "glib-2.0": "glib-2.0"}
    assert {providers[module] for module in modules} == set(recipe["DEPENDS"].split())
    hald = re.findall(r"pkg_check_modules\(\w+ REQUIRED IMPORTED_TARGET GLOBAL ([\w.-]+)",
                      (target.REPOSITORY / "hal/kernel/CMakeLists.txt").read_text())
    option = recipe["PACKAGECONFIG[hald]"].split(",")
    assert {{"libudev": "udev", "mount": "util-linux"}[module] for module in hald} == set(
        option[2].split())
    assert option[:2] == ["-DVOLDRAKE_HALD=ON", "-DVOLDRAKE_HALD=OFF"]
    assert "hald" in recipe["PACKAGECONFIG"].split()
    assert {"cmake", "pkgconfig", "systemd", "update-rc.d"} <= set(recipe["inherit"].split())


def test_recipe_installs_what_nfs_version_3_needs(recipe: dict[str, str]) -> None:
    assert {"kernel-module-nfs", "kernel-module-nfsv3", "kernel-module-nfsd", "nfs-utils",
            "nfs-utils-client"} <= set(recipe["RRECOMMENDS:${PN}"].split())


@pytest.mark.parametrize("there", [None, "/srv *(ro)\n"])
def test_recipe_sees_to_a_list_of_exports(tmp_path: Path, there: str | None) -> None:
    """Without the file the NFS server does not start and exportfs fails; an image's own stays."""
    functions = dict(FUNCTION.findall(RECIPE.read_text()))
    exports = tmp_path / "etc/exports"
    exports.parent.mkdir()
    if there:
        exports.write_text(there)
    body = functions["pkg_postinst:${PN}"].replace("${sysconfdir}", "/etc")
    subprocess.run(["sh", "-eu", "-c", body], env={"D": str(tmp_path), "PATH": os.environ["PATH"]},
                   check=True)
    assert exports.read_text() == (there or "")


def test_layer_finds_the_recipe() -> None:
    pattern = re.search(r'BBFILES \+= "\$\{LAYERDIR\}/(\S+)"',
                        (LAYER / "conf/layer.conf").read_text())
    assert pattern
    assert list(LAYER.glob(pattern[1])) == [RECIPE]


# ---- Buildroot

#: What Buildroot defines around a package's makefile.
BUILDROOT_MAKE = """
BR2_EXTERNAL_VOLDRAKE_PATH = {path}
{settings}
define cmake-package
$(foreach name,VERSION SITE SITE_METHOD DEPENDENCIES CONF_OPTS,$(info $(name)=$(VOLDRAKE_$(name))))
endef
include {path}/external.mk
all: ;
"""


def buildroot(**settings: str) -> dict[str, str]:
    """The package's variables as make sees them with these settings of the image."""
    lines = "\n".join(f"{name} = {value}" for name, value in settings.items())
    done = subprocess.run(
        ["make", "--warn-undefined-variables", "-s", "-f", "-"], text=True, capture_output=True,
        input=BUILDROOT_MAKE.format(path=BUILDROOT, settings=lines), check=False)
    assert done.returncode == 0, done.stderr
    unknown = set(re.findall(r"undefined variable '(\w+)'", done.stderr))
    assert all(name.startswith("BR2_") for name in unknown), unknown
    return dict(line.split("=", 1) for line in done.stdout.splitlines())


def test_buildroot_package_is_of_this_version_and_place() -> None:
    package = buildroot()
    assert package["VERSION"] == project_version()
    assert package["SITE_METHOD"] == "local"
    assert Path(package["SITE"]).resolve() == target.REPOSITORY


@pytest.mark.parametrize("settings, systemd, sysv, tools", [
    ({}, "OFF", "ON", "OFF"),
    ({"BR2_INIT_SYSTEMD": "y"}, "ON", "OFF", "OFF"),
    ({"BR2_PACKAGE_VOLDRAKE_TOOLS": "y"}, "OFF", "ON", "ON")])
def test_buildroot_image_gets_what_it_starts_with(
        settings: dict[str, str], systemd: str, sysv: str, tools: str) -> None:
    options = dict(re.findall(r"-D(\w+)=(\S+)", buildroot(**settings)["CONF_OPTS"]))
    assert options["VOLDRAKE_SYSTEMD"] == systemd
    assert options["VOLDRAKE_SYSV"] == sysv
    assert options["VOLDRAKE_TOOLS"] == tools
    # Buildroot starts /etc/init.d/S?? in order.
    assert re.fullmatch(r"S\d\dvoldrake", options["VOLDRAKE_SYSV_NAME"])
    assert {name for name in options if name.startswith("VOLDRAKE_")} <= cmake_options()


#: What Buildroot knows of the toolchain, and the packages that are selected with their own needs.
BUILDROOT_TOOLCHAIN = [
    "BR2_INSTALL_LIBSTDCPP", "BR2_TOOLCHAIN_GCC_AT_LEAST_11", "BR2_TOOLCHAIN_HAS_THREADS",
    "BR2_USE_MMU", "BR2_USE_WCHAR"]
BUILDROOT_PACKAGES = {
    "BR2_HOST_CMAKE_AT_LEAST_3_24": "y",
    "BR2_PACKAGE_DBUS": "BR2_TOOLCHAIN_HAS_THREADS && BR2_USE_MMU",
    "BR2_PACKAGE_LIBPCAP": "y",
    "BR2_PACKAGE_LIBGLIB2": "BR2_TOOLCHAIN_HAS_THREADS && BR2_USE_MMU && BR2_USE_WCHAR",
    "BR2_PACKAGE_NFS_UTILS": "BR2_TOOLCHAIN_HAS_THREADS && BR2_USE_MMU && !BR2_STATIC_LIBS",
    "BR2_PACKAGE_NFS_UTILS_RPC_NFSD": "BR2_PACKAGE_NFS_UTILS",
    "BR2_PACKAGE_UTIL_LINUX": "y",
    "BR2_PACKAGE_UTIL_LINUX_LIBMOUNT": "BR2_PACKAGE_UTIL_LINUX",
    "BR2_PACKAGE_UTIL_LINUX_MOUNT": "BR2_PACKAGE_UTIL_LINUX && BR2_USE_MMU"}
#: What the image has instead of offering.
BUILDROOT_IMAGE = ["BR2_PACKAGE_HAS_UDEV", "BR2_STATIC_LIBS"]


class BuildrootMenu:
    """The package's menu as Kconfig reads it within Buildroot's, for a toolchain that lacks these
    symbols. Any warning fails: a symbol that nobody defines, a package selected against its needs."""

    def __init__(self, directory: Path, monkeypatch: pytest.MonkeyPatch, *lacking: str) -> None:
        root = directory / "Config.in"
        root.write_text("".join(
            [f"config {symbol}\n\tbool \"{symbol}\"\n"
             for symbol in [*BUILDROOT_TOOLCHAIN, *BUILDROOT_IMAGE]]
            + [f"config {name}\n\tbool\n\tdepends on {needs}\n"
               for name, needs in BUILDROOT_PACKAGES.items()]
            + ['source "$BR2_EXTERNAL_VOLDRAKE_PATH/Config.in"\n']))
        monkeypatch.setenv("BR2_EXTERNAL_VOLDRAKE_PATH", str(BUILDROOT))
        monkeypatch.setenv("CONFIG_", "")  # Buildroot's symbols have no prefix.
        monkeypatch.setenv("KCONFIG_WARN_UNDEF", "y")
        self._menu = kconfiglib.Kconfig(str(root), warn_to_stderr=False)
        self._written = directory / ".config"
        self.answer("y", *({*BUILDROOT_TOOLCHAIN, "BR2_PACKAGE_HAS_UDEV"} - set(lacking)))

    def answer(self, value: str, *symbols: str) -> None:
        """Give one answer to these questions; the menu keeps it while it does not apply."""
        for symbol in symbols:
            self._menu.syms[symbol].set_value(value)

    def chosen(self) -> set[str]:
        """What is chosen or selected, the toolchain aside."""
        self._menu.write_config(str(self._written))
        assert self._menu.warnings == []
        chosen = set(re.findall(r"^(\w+)=y$", self._written.read_text(), re.MULTILINE))
        return chosen - {*BUILDROOT_TOOLCHAIN, *BUILDROOT_IMAGE}

    def comments(self) -> list[str]:
        """The comments that are shown."""
        return [node.prompt[0] for node in self._menu.node_iter()
                if node.item == kconfiglib.COMMENT
                and kconfiglib.expr_value(node.dep) > 0]


def test_buildroot_selects_what_the_package_needs(
        tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    menu = BuildrootMenu(tmp_path, monkeypatch)
    assert menu.chosen() == set()
    menu.answer("y", "BR2_PACKAGE_VOLDRAKE")
    needed = {f"BR2_PACKAGE_{name.upper().replace('-', '_')}"
              for name in buildroot()["DEPENDENCIES"].split() if not name.startswith("host-")}
    needed.add("BR2_HOST_CMAKE_AT_LEAST_" + cmake_version().replace(".", "_"))
    defaults = {"BR2_PACKAGE_VOLDRAKE", "BR2_PACKAGE_VOLDRAKE_STATIC_RUNTIME"}
    # BusyBox's mount does not call mount.nfs as Buildroot configures it.
    mount = {"BR2_PACKAGE_UTIL_LINUX", "BR2_PACKAGE_UTIL_LINUX_LIBMOUNT",
             "BR2_PACKAGE_UTIL_LINUX_MOUNT"}
    sharing = {"BR2_PACKAGE_VOLDRAKE_SHARING", "BR2_PACKAGE_NFS_UTILS",
               "BR2_PACKAGE_NFS_UTILS_RPC_NFSD"} | mount
    hald = {"BR2_PACKAGE_VOLDRAKE_HALD"} | mount
    assert menu.chosen() == defaults | needed | sharing | hald
    menu.answer("n", "BR2_PACKAGE_VOLDRAKE_HALD")
    assert menu.chosen() == defaults | needed | sharing
    menu.answer("n", "BR2_PACKAGE_VOLDRAKE_SHARING")
    menu.answer("y", "BR2_PACKAGE_VOLDRAKE_HALD")
    assert menu.chosen() == defaults | needed | hald
    menu.answer("n", "BR2_PACKAGE_VOLDRAKE_HALD")
    menu.answer("y", "BR2_PACKAGE_VOLDRAKE_TOOLS")
    tools = {"BR2_PACKAGE_VOLDRAKE_TOOLS", "BR2_PACKAGE_LIBPCAP"}
    assert menu.chosen() == defaults | tools | needed
    assert menu.comments() == []


@pytest.mark.parametrize("lacking", BUILDROOT_TOOLCHAIN)
def test_buildroot_offers_the_package_only_where_it_can_be_built(
        tmp_path: Path, monkeypatch: pytest.MonkeyPatch, lacking: str) -> None:
    menu = BuildrootMenu(tmp_path, monkeypatch, lacking)
    menu.answer("y", "BR2_PACKAGE_VOLDRAKE")
    assert menu.chosen() == set()
    # Nothing is said of processors on which it can never run.
    told = [] if lacking == "BR2_USE_MMU" else [
        "voldrake needs a toolchain w/ C++, gcc >= 11, threads, wchar"]
    assert menu.comments() == told


def test_buildroot_image_of_static_libraries_does_without_sharing(
        tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    menu = BuildrootMenu(tmp_path, monkeypatch)
    menu.answer("y", "BR2_STATIC_LIBS", "BR2_PACKAGE_VOLDRAKE", "BR2_PACKAGE_VOLDRAKE_SHARING")
    assert not {name for name in menu.chosen() if name.endswith(("_SHARING", "NFS_UTILS"))}


def test_buildroot_image_without_udev_does_without_the_hardware_service(
        tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    menu = BuildrootMenu(tmp_path, monkeypatch, "BR2_PACKAGE_HAS_UDEV")
    menu.answer("y", "BR2_PACKAGE_VOLDRAKE")
    assert "BR2_PACKAGE_VOLDRAKE" in menu.chosen()
    assert not {name for name in menu.chosen() if name.endswith("_HALD")}
    assert menu.comments() == ["the hardware service needs udev /dev management"]


def test_buildroot_builds_the_hardware_service_with_what_it_needs() -> None:
    package = buildroot(BR2_PACKAGE_VOLDRAKE_HALD="y")
    assert {"udev", "util-linux"} <= set(package["DEPENDENCIES"].split())
    assert {"udev", "util-linux"}.isdisjoint(buildroot()["DEPENDENCIES"].split())
    names = dict(re.findall(r"-D(VOLDRAKE\w*SYSV_NAME)=(\S+)", package["CONF_OPTS"]))
    # The daemon looks for the service once.
    assert names["VOLDRAKE_HALD_SYSV_NAME"] < names["VOLDRAKE_SYSV_NAME"]


def test_images_build_the_tools_with_what_they_need(recipe: dict[str, str]) -> None:
    libraries = set(re.findall(r"pkg_check_modules\(\w+ IMPORTED_TARGET lib([\w.-]+)",
                               (target.REPOSITORY / "tools/CMakeLists.txt").read_text()))
    assert libraries == {"pcap"}
    needed = {f"lib{name}" for name in libraries}
    assert recipe["PACKAGECONFIG[tools]"].split(",") == [
        "-DVOLDRAKE_TOOLS=ON", "-DVOLDRAKE_TOOLS=OFF", *needed]
    assert needed <= set(buildroot(BR2_PACKAGE_VOLDRAKE_TOOLS="y")["DEPENDENCIES"].split())
    assert needed.isdisjoint(buildroot()["DEPENDENCIES"].split())


@pytest.mark.parametrize("option", ["HALD", "STATIC_RUNTIME", "IGNORE_UNKNOWN_ANNOUNCEMENTS"])
def test_buildroot_menu_reaches_the_build(option: str) -> None:
    for setting, value in ({}, "OFF"), ({f"BR2_PACKAGE_VOLDRAKE_{option}": "y"}, "ON"):
        assert f"-DVOLDRAKE_{option}={value}" in buildroot(**setting)["CONF_OPTS"].split()


def test_buildroot_tree_has_its_name() -> None:
    assert "name: VOLDRAKE\n" in (BUILDROOT / "external.desc").read_text()
