"""The completions, in the shells that they are for: they load, and offer what the programs know."""

import re
import subprocess
from pathlib import Path

import pytest

from testbed import timeouts

PROGRAMS = ["voldrake", "voldrake-hald", "voldrake-monitor", "voldrake-shares", "voldrake-halsim"]

BASH = """
source /usr/share/bash-completion/bash_completion
source "$1"
shift
COMP_WORDS=("$@")
COMP_CWORD=$(($# - 1))
COMP_LINE="$*"
COMP_POINT=${#COMP_LINE}
COMP_TYPE=9 COMP_KEY=9
function=$(complete -p "$1" | sed 's/.*-F \\([^ ]*\\).*/\\1/')
compopt() { :; }
"$function" "$1" "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD-1]}"
printf '%s\\n' "${COMPREPLY[@]}"
"""

#: Types the words into an interactive zsh and lists what it offers.
ZSH = """
import os, pty, select, sys, time
directory, line, timeout = sys.argv[1:]
pid, terminal = pty.fork()
if pid == 0:
    os.environ.update(TERM="dumb", PS1="", HOME="/nonexistent", LC_ALL="C.UTF-8")
    os.execvp("zsh", ["zsh", "-f", "-i"])
def read_until(mark):
    text, end = b"", time.monotonic() + float(timeout)
    while mark not in text:
        if not select.select([terminal], [], [], max(0, end - time.monotonic()))[0]:
            sys.exit(f"no {mark!r} in {text!r}")
        text += os.read(terminal, 65536)
    return text
os.write(terminal, f'''fpath=({directory} $fpath); autoload -U compinit; compinit -u -D
unsetopt beep; setopt no_list_ambiguous; LISTMAX=1000; zstyle ':completion:*' menu no
zstyle ':completion:*' list-prompt ''; zstyle ':completion:*' verbose yes
tell() {{ zle list-choices; zle -R; zle -I; print -r -- "END""OFLIST" }}
zle -N tell; bindkey '^X' tell; print RE''ADY
'''.encode())
read_until(b"READY")
os.write(terminal, line.encode() + b"\\x18")
sys.stdout.buffer.write(read_until(b"ENDOFLIST"))
os.close(terminal)
os.waitpid(pid, 0)
"""


def bash(tree, *words: str) -> list[str]:
    """What bash offers for the last of the words."""
    script = tree.path(f"share/bash-completion/completions/{words[0]}")
    done = subprocess.run(["bash", "--norc", "-c", BASH, "bash", str(script), *words], text=True,
                          capture_output=True, check=False)
    assert done.stderr == ""
    return [word for word in done.stdout.split("\n") if word]


def zsh(tree, line: str) -> str:
    """What zsh shows after the line."""
    directory = tree.path("share/zsh/site-functions")
    done = subprocess.run(
        ["/usr/bin/python3", "-c", ZSH, str(directory), line, str(timeouts.RUN)], text=True,
        capture_output=True, check=False, timeout=3 * timeouts.RUN)
    assert (done.returncode, done.stderr) == (0, ""), done.stderr
    return done.stdout


def known_options(tree, program: str, *command: str) -> set[str]:
    directory = "sbin" if program in ("voldrake", "voldrake-hald") else "bin"
    told = subprocess.run([str(tree.path(f"{directory}/{program}")), *command, "--help"], text=True,
                          capture_output=True, check=True).stdout
    # The program also tells how to ask for the help of its other commands.
    told = re.sub(r"voldrake-shares \w+ --help", "", told)
    return set(re.findall(r"--[a-z][\w-]+", told)) - {"--help-all"} | {"--help"}


COMMANDS = [(program, []) for program in PROGRAMS] + [
    ("voldrake-shares", ["list"]), ("voldrake-shares", ["announce"]),
    ("voldrake-shares", ["withdraw"])]


@pytest.mark.parametrize("program, command", COMMANDS)
def test_bash_offers_every_option(tree, program: str, command: list[str]) -> None:
    assert set(bash(tree, program, *command, "--")) == known_options(tree, program, *command)


@pytest.mark.parametrize("words, offered", [
    (["voldrake", "--deb"], ["--debuglevel"]),
    (["voldrake", "--debuglevel", ""], ["0", "1", "2", "3", "4"]),
    (["voldrake", "--port", ""], []),
    (["voldrake-shares", ""], ["list", "announce", "withdraw"]),
    (["voldrake-shares", "announce", "--re"], ["--read-only", "--repeat"]),
    (["voldrake-monitor", "--co"], ["--count"])])
def test_bash_completes(tree, words: list[str], offered: list[str]) -> None:
    assert bash(tree, *words) == offered


def test_bash_completes_files(tree, tmp_path: Path) -> None:
    (tmp_path / "content-id").touch()
    (tmp_path / "content-directory").mkdir()
    name = str(tmp_path / "content-")
    assert sorted(bash(tree, "voldrake", "--content-id-file", name)) == [
        f"{name}directory", f"{name}id"]
    assert bash(tree, "voldrake", "--nfs-root", name) == [f"{name}directory"]


@pytest.mark.parametrize("program, command", COMMANDS)
def test_zsh_offers_every_option(tree, program: str, command: list[str]) -> None:
    shown = zsh(tree, " ".join([program, *command, "--"]))
    offered = set(re.findall(r"(?<![\w-])--[a-z][\w-]+", shown))
    assert offered == known_options(tree, program, *command)


def test_zsh_offers_commands_and_levels(tree) -> None:
    assert {"list", "announce", "withdraw"} <= set(zsh(tree, "voldrake-shares ").split())
    assert "details" in zsh(tree, "voldrake --debuglevel=")
