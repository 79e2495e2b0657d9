"""A unit's surface: mounts, links, directories and exports, as they are and as they should be."""

import re
from dataclasses import dataclass, field

from testbed.machine.volumes import Volume

_EVERYBODY = "<world>"


@dataclass(frozen=True)
class Surface:
    """What is to be seen under /media and /mnt, and what the NFS server exports."""

    #: Mount point -> "TYPE ACCESS".
    mounts: dict[str, str] = field(default_factory=dict)
    #: Link in /media -> where it points.
    links: dict[str, str] = field(default_factory=dict)
    #: Names in /media and /mnt.
    names: set[str] = field(default_factory=set)
    #: "PATH for CLIENT" -> "ro" or "rw".
    exports: dict[str, str] = field(default_factory=dict)

    def mounted_names(self) -> set[str]:
        """Names in /media and /mnt on which something is mounted."""
        return {point.rpartition("/")[2] for point in self.mounts}

    def differences(self, wanted: "Surface") -> list[str]:
        """What is missing here and what is too much, a line each; nothing when they are equal."""
        lines = []
        for title, here, there in (("mount", self.mounts, wanted.mounts),
                                   ("link", self.links, wanted.links),
                                   ("export", self.exports, wanted.exports)):
            for key in sorted(here.keys() | there.keys()):
                if here.get(key) != there.get(key):
                    lines.append(f"{title} {key}: {here.get(key, 'missing')},"
                                 f" wanted: {there.get(key, 'none')}")
        for name in sorted(self.names ^ wanted.names):
            lines.append(f"name {name}: {'left over' if name in self.names else 'missing'}")
        return lines


def read(text: str) -> Surface:
    """The surface as the guest's `surface` shows it."""
    mounts, links, names, exports = re.split(r"^==\n", text, flags=re.MULTILINE)
    return Surface(dict(_mounts(mounts)), _links(links), _names(names), _exports(exports))


def expected(own: list[Volume], exported: list[Volume], shares: list[Volume], peer: str) -> Surface:
    """The surface of a unit with its own volumes, of which some are exported, to everybody and to
    the peer at that address, and with these shares of the peer."""
    surface = Surface()
    for volume in own:
        surface.mounts[volume.mount_point] = f"{volume.file_system} rw"
        surface.links[f"/media/{volume.link}"] = volume.name
        surface.names.update({volume.name, volume.link})
    for volume in exported:
        surface.exports[f"{volume.mount_point} for {_EVERYBODY}"] = "ro"
        surface.exports[f"{volume.mount_point} for {peer}"] = "rw"
    for share in shares:
        point = share.share_point(peer)
        surface.mounts[point] = "nfs rw"
        surface.names.add(point.rpartition("/")[2])
    return surface


def _mounts(text: str) -> list[tuple[str, str]]:
    found = []
    for line in text.splitlines():
        before, _, behind = line.partition(" - ")
        point = before.split()[4].encode().decode("unicode_escape")
        if not point.startswith(("/media", "/mnt")):
            continue
        kind, _, options = behind.split(" ", 2)
        access = before.split()[5].split(",")[0]
        words = options.split(",")
        if kind == "nfs" and not {"vers=3", "proto=udp", "rsize=1024", "soft"} <= set(words):
            kind += f" with {options}"
        found.append((point, f"{kind} {access}"))
    repeated = {point for point, _ in found if [p for p, _ in found].count(point) > 1}
    return [(point, f"{kind} twice" if point in repeated else kind) for point, kind in found]


def _links(text: str) -> dict[str, str]:
    return dict(line.split("\t") for line in text.splitlines())


def _names(text: str) -> set[str]:
    return {line for line in text.splitlines() if line and not re.fullmatch(r"/\w+:", line)}


def _exports(text: str) -> dict[str, str]:
    """A path too long for its column stands on a line of its own."""
    exports = {}
    for path, client, options in re.findall(r"^(/\S+)\s+(\S+?)\((\S+)\)$", text, re.MULTILINE):
        access = "rw" if "rw" in options.split(",") else "ro"
        exports[f"{path} for {client}"] = access
    return exports
