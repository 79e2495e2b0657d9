"""The manuals: free of faults, and complete where they list something."""

import os
import re
import subprocess
from pathlib import Path

import pytest

from testbed import target

PAGES = ["voldrake.8", "voldrake-hald.8", "voldrake.conf.5", "voldrake-monitor.1",
         "voldrake-shares.1",
         "voldrake-halsim.1", "voldrake-datasource.7", "voldrake-announcement.7"]
SOURCE = target.REPOSITORY


def page(tree, name: str) -> Path:
    return tree.path(f"share/man/man{name[-1]}/{name}")


def rendered(path: Path) -> str:
    """The page as text, without the overstriking of a terminal."""
    text = subprocess.run(["mandoc", "-Tutf8", "-O", "width=1000", str(path)], text=True,
                          capture_output=True, check=True).stdout
    return re.sub(".\b", "", text)


@pytest.mark.parametrize("name", PAGES)
def test_has_no_fault(tree, name: str) -> None:
    done = subprocess.run(["mandoc", "-Tlint", str(page(tree, name))], text=True, check=False,
                          env=os.environ | {"MANPATH": str(tree.path("share/man"))},
                          capture_output=True)
    # References to others' manuals cannot be looked up here; those to our own are tested below.
    assert [line for line in done.stdout.splitlines()
            if "referenced manual not found" not in line] == []


@pytest.mark.parametrize("name", PAGES)
def test_refers_to_pages_that_exist(tree, name: str) -> None:
    references = re.findall(r"^\.Xr (voldrake\S*) (\d)", page(tree, name).read_text(), re.MULTILINE)
    assert references
    assert {f"{other}.{section}" for other, section in references} <= set(PAGES)


def test_nothing_else_is_installed_as_a_manual(tree) -> None:
    installed = {Path(file).name for file in tree.files() if file.startswith("share/man/")}
    assert installed == set(PAGES)


def test_explains_every_option_of_the_daemon(tree) -> None:
    source = (SOURCE / "src/frame/CommandLine.cpp").read_text()
    options = set(re.findall(r'^    \{"([\w-]+)", ', source, re.MULTILINE))
    assert "port" in options
    options |= {"help", "version"}
    told = subprocess.run([str(tree.path("sbin/voldrake")), "--help"], text=True,
                          capture_output=True, check=True).stdout
    assert set(re.findall(r"^  --([\w-]+)", told, re.MULTILINE)) == options
    explained = re.findall(r"^\.It Fl -([\w-]+)", page(tree, "voldrake.8").read_text(),
                           re.MULTILINE)
    assert sorted(explained) == sorted(options)


@pytest.mark.parametrize("name", ["voldrake-hald.8", "voldrake-monitor.1", "voldrake-shares.1",
                                  "voldrake-halsim.1"])
def test_explains_every_option_of_a_tool(tree, name: str) -> None:
    text = rendered(page(tree, name))
    name = name[:-2]
    for option in tool_options(tree, name):
        assert re.search(rf"{option}\b", text), f"{option} is not explained"


def tool_options(tree, name: str) -> set[str]:
    """The long options that the program tells."""
    commands = [[], ["announce"]] if name == "voldrake-shares" else [[]]
    options: set[str] = set()
    for command in commands:
        directory = "sbin" if name == "voldrake-hald" else "bin"
        told = subprocess.run([str(tree.path(f"{directory}/{name}")), *command, "--help"], text=True,
                              capture_output=True, check=True)
        options |= set(re.findall(r"(--[a-z][\w-]+)", told.stdout))
    assert "--version" in options
    return options


def test_explains_every_key_of_the_configuration(tree) -> None:
    source = (SOURCE / "src/frame/ConfigManager.cpp").read_text()
    keys = re.findall(r'if \(key == "(\w+)"\)', source)
    assert len(keys) == 5
    explained = re.findall(r"^\.It Cm (\w+)", page(tree, "voldrake.conf.5").read_text(),
                           re.MULTILINE)
    assert explained == keys


def test_shows_the_example_that_is_installed(tree) -> None:
    example = tree.path("share/doc/voldrake/examples/voldrake.conf").read_text()
    assert example in page(tree, "voldrake.conf.5").read_text()


@pytest.mark.parametrize("name, document", [
    ("voldrake-datasource.7", "messages.md"), ("voldrake-halsim.1", "halsim.md")])
def test_says_everything_that_the_document_says(tree, name: str, document: str) -> None:
    """Every word of the document's running text is in the page, in the same order."""
    shown = iter(words(rendered(page(tree, name))))
    text = (SOURCE / "docs" / document).read_text()
    text = re.sub(r"```.*?```|^#.*$|^\|.*$|^    .*$", "", text, flags=re.DOTALL | re.MULTILINE)
    for word in words(text):
        assert word in shown, f"missing or misplaced: {word}"


def words(text: str) -> list[str]:
    return re.findall(r"\w{4,}", text.replace("`", ""))
