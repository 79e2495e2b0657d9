"""What comes from the network is data: never shell syntax, a way out, or a line of the log."""

import os
import random
import re

import pytest

from share_helpers import mount, start_listening, start_with_peer
from testbed.daemon import ERROR, WARNING
from testbed.otherunit import WITHDRAWN, Announcement

RUN = "touch /tmp/owned"
NASTY = [
    f"/x$({RUN})", f"/x`{RUN}`", f"/x;{RUN}", f"/x;{RUN};", f"/x&{RUN}&", f"/x|{RUN}",
    f"/x&&{RUN}", f"/x||{RUN}", f"/x\n{RUN}\n", f"/x\r{RUN}", "/x>/tmp/owned", "/x</etc/passwd",
    f"/x'; {RUN}; '", f"/x'$({RUN})'", f'/x"$({RUN})"', f"/x\\$({RUN})", f"/x\\\\`{RUN}`",
    "/x y", "/x\ty", " /x", "/x ", "/x'y", "''", "/x\"y", "/x\\", "/x*", "/*", "/x?", "/[a-z]*",
    "/x~", "~", "~root/x", "/x#y", "#", "/x!y", "/x{a,b}", "/x(y)", "/x$IFS", "/x$HOME", "/x$",
    "-o remount", "--", "-", "=x", "/x=y", "%n", "/x%s", "/caf\xe9", "/x\udcff\udc80", "/x\x01\x7f",
]


def ids(texts: list[str]) -> list[str]:
    return [text.encode("unicode_escape").decode() for text in texts]


def test_no_announced_path_is_shell_syntax(unit, tools, peer) -> None:
    """Each is one word of the mount and the unmount command, as it was announced."""
    start_listening(unit)
    for path in NASTY:
        since = unit.mark()
        peer.share(Announcement(path))
        source = f"169.254.3.7:{path}"
        directory = f"/mnt/{source.replace('/', '-')}"
        unit.application.expect_message("dataarrival")
        assert tools.words(since) == [
            ("mount", "-t", "nfs", "-o", "ro,rsize=1280,soft,udp,noatime,nodiratime", source,
             directory)]
        unit.daemon.signal(10)
        unit.application.expect_message("dataarrival")
        assert tools.words(since)[1:] == [("mountpoint", "-q", directory),
                                          ("mount", "-o", "remount,ro", directory)]
        peer.withdraw(Announcement(path))
        unit.application.expect_message("dataremoval")
        assert tools.words(since)[3:] == [("umount", "-f", "-l", directory)]
        assert not unit.sandbox.path("/tmp/owned").exists()
    assert os.listdir(unit.sandbox.path("/mnt")) == []


def test_no_mount_point_of_a_medium_is_shell_syntax(unit, tools, peer) -> None:
    start_with_peer(unit, peer)
    for number, path in enumerate(path for path in NASTY if path.startswith("/")
                                  and path.isascii() and path.isprintable()):
        since = unit.mark()
        unit.hal.command(f"quiet plug usb stick{number}")
        quoted = path.replace("\\", "\\\\").replace('"', '\\"')
        unit.hal.command(f'set stick{number} volume.mount_point=string:"{quoted}"'
                         " volume.is_mounted=bool:true")
        assert peer.expect_announcement(path).path == path
        unit.hal.pull(f"stick{number}")
        peer.expect_announcement(path, WITHDRAWN)
        tools.expect(f"exportfs -u *:{path}")
        options = "no_root_squash,no_subtree_check"
        assert [words for words in tools.words(since, "exportfs") if words[1] != "-f"] == [
            ("exportfs", "-o", f"rw,{options}", f"169.254.3.7:{path}"),
            ("exportfs", "-o", f"ro,{options}", f"*:{path}"),
            ("exportfs", "-u", f"169.254.3.7:{path}"), ("exportfs", "-u", f"*:{path}")]
    assert not unit.sandbox.path("/tmp/owned").exists()


@pytest.mark.parametrize("path", [
    "/../../etc", "/media/../../../tmp/x", "..", "../..", "/..", "//etc", "/./x", "/" * 50,
    "/a/b/c/d/e/f/g/h/i/j/k", "", "."], ids=repr)
def test_no_path_leads_out_of_the_nfs_root(unit, tools, peer, path: str) -> None:
    start_listening(unit)
    places = [place for place in ("/", "/etc", "/media", "/srv", "/tmp", "/var")]
    before = {place: sorted(os.listdir(unit.sandbox.path(place))) for place in places}
    peer.share(Announcement(path))
    unit.application.expect_message("dataarrival")
    name = f"169.254.3.7:{path.replace('/', '-')}"
    assert tools.calls(tool="mount") == [mount("ro", f"169.254.3.7:{path}", f"/mnt/{name}")]
    assert os.listdir(unit.sandbox.path("/mnt")) == [name]
    assert {place: sorted(os.listdir(unit.sandbox.path(place))) for place in places} == before


@pytest.mark.parametrize("root", ["/", "relative"])
@pytest.mark.parametrize("path", ["/", "/.", "/.."])
def test_no_path_leads_out_of_a_root_with_fewer_slashes(unit, tools, peer, root: str,
                                                        path: str) -> None:
    """Such a root leaves the path a slash of its own. The empty path makes the directory before it."""
    start_listening(unit, "--nfs-root", root)
    peer.send(Announcement(""))
    tools.expect(re.compile("mount -t nfs .*"))
    since = unit.mark()
    peer.send(Announcement(path))
    source, directory = f"169.254.3.7:{path}", f"{root.rstrip('/')}/169.254.3.7:{path}"
    unit.daemon.expect_log(ERROR, f"MountRemoteShare: refused '{source}' at '{directory}'")
    assert tools.calls(since) == []


def test_control_characters_forge_no_log_line(unit, tools, peer) -> None:
    forged = "\n12:00:00: Voldrake: Error:  forged\r\x1b[2J\x7f"
    start_listening(unit)
    since = unit.mark()
    share = Announcement(f"/x{forged}", key=f"k{forged}".ljust(32), name=f"n{forged}")
    peer.share(share)
    unit.application.expect_message("dataarrival")
    unit.daemon.signal(10)
    unit.application.expect_message("dataarrival")
    peer.withdraw(share)
    unit.application.expect_message("dataremoval")
    tools.refuse("mount -t nfs")
    peer.send(share)
    unit.daemon.expect_log(ERROR, re.compile("Mount command: .*FAIL.*"))
    tools.obey()
    peer.share(share)
    unit.application.expect_message("dataarrival")
    tools.refuse("umount")
    peer.withdraw(share)
    unit.daemon.expect_log(WARNING, re.compile("Failed to remove .*"))
    unit.daemon.expect_log(ERROR, re.compile("Umount command: .*FAIL"))
    peer.send(Announcement("/y" * 300 + forged))
    unit.daemon.expect_log(ERROR, re.compile("ERROR Failed to create directory .*"))
    peer.send(Announcement("/end"))
    unit.application.expect_message("dataarrival", path="/mnt/169.254.3.7:-end")
    assert unit.daemon.strange_lines(since) == []
    texts = [line.text for line in unit.daemon.log_lines(since)]
    assert [text for text in texts if text.startswith("forged")] == []
    assert [text for text in texts if re.search(r"[\x00-\x1f\x7f]", text)] == []


REAL = Announcement("/media/real", name="real").encode()
HEADER = Announcement("").encode()[:20]


@pytest.mark.parametrize("datagram, path", [
    pytest.param(HEADER + b"\0", "", id="21 bytes with an empty path"),
    pytest.param(HEADER + b"x", "x", id="21 bytes without a zero byte"),
    pytest.param(HEADER[:14] + b"\xff" * 6 + b"/long\0k\0n\0", "/long", id="lengths of 65,535"),
    pytest.param(HEADER[:14] + b"\0" * 6 + b"/none\0", "/none", id="lengths of zero"),
    pytest.param(HEADER[:4] + b"\xff\xff" + HEADER[6:8] + b"\0\0" + HEADER[10:] + b"/other\0",
                 "/other", id="another version and another constant"),
    pytest.param(HEADER + b"/" + b"y" * 200, "/" + "y" * 200, id="a path that ends with it"),
    pytest.param(HEADER + b"/long\0" + b"\xff" * 2000, "/long", id="more than 1,500 bytes")])
def test_a_strange_datagram_is_taken(unit, tools, peer, datagram: bytes, path: str) -> None:
    start_listening(unit)
    peer.send(datagram)
    assert unit.application.expect_message("dataarrival")["path"] == (
        f"/mnt/169.254.3.7:{path.replace('/', '-')}")
    unit.settle()


@pytest.mark.parametrize("length", [1499, 1500, 1501, 4000])
def test_a_path_without_end_ends_with_the_datagram(unit, tools, peer, length: int) -> None:
    """At most 1,500 bytes are read; the name of the directory is too long to be made."""
    start_listening(unit)
    peer.send(HEADER + b"/" + b"z" * (length - 21))
    path = "/" + "z" * (min(length, 1500) - 21)
    unit.daemon.expect_log(
        ERROR, f"ERROR Failed to create directory '/mnt/169.254.3.7:-{path[1:]}' with error ")
    assert tools.expect(re.compile("mount -t nfs")).data[-2] == f"169.254.3.7:{path}"


@pytest.mark.parametrize("datagram", [
    pytest.param(b"", id="nothing"), pytest.param(b"\0", id="one byte"),
    pytest.param(REAL[:19], id="19 bytes"), pytest.param(REAL[:20], id="20 bytes"),
    pytest.param(bytes.fromhex("12345678") + REAL[4:], id="a big-endian magic"),
    pytest.param(b"\x79" + REAL[1:], id="another magic"),
    pytest.param(b"\xff" * 1500, id="1,500 bytes of nonsense"),
    pytest.param(b"\0" * 1501, id="1,501 zero bytes"),
    pytest.param(b"\xff" * 60000, id="60,000 bytes of nonsense")])
def test_a_datagram_is_ignored(unit, tools, peer, datagram: bytes) -> None:
    start_listening(unit)
    peer.send(datagram)
    peer.send(Announcement("/next"))
    unit.application.expect_message("dataarrival", path="/mnt/169.254.3.7:-next")
    assert len(tools.calls(tool="mount")) == 1


def test_random_bytes_do_no_harm(unit, tools, peer) -> None:
    """Half are wholly random, half have a right magic and type."""
    randomness = random.Random(2304)
    start_listening(unit, "--debuglevel", "3")
    peer.send(Announcement("/first"))
    unit.application.expect_message("dataarrival")
    for number in range(200):
        tail = randomness.randbytes(randomness.randrange(1, 300))
        peer.send(randomness.randbytes(randomness.randrange(0, 1600)))
        peer.send(HEADER[:6] + bytes([1 + number % 2, 0]) + randomness.randbytes(12) + tail)
        if number % 20 == 19:  # as fast as the daemon can take it
            peer.send(Announcement(f"/{number}"))
            unit.application.expect_message("dataarrival", path=f"/mnt/169.254.3.7:-{number}")
    unit.settle()
    assert unit.daemon.terminate() == 0
    assert unit.daemon.stderr() == ""
    assert len(tools.calls(tool="mount")) > 50
    assert unit.daemon.strange_lines() == []
