"""What the daemons are to make of a volume: the texts and names that its interfaces promise."""

from dataclasses import dataclass, replace

#: The card's identity as the emulated controllers tell it, always the same.
EMULATED_CID = "aa585951454d552101deadbeef006200"
CONTENT_ID = "CHARTS-2026"
SERIAL_NUMBER = "100234"

#: What other units can have. exportfs takes the others too, but the NFS server then refuses them.
_EXPORTABLE = ("vfat", "ext4", "ntfs")


@dataclass(frozen=True)
class Volume:
    """A volume in a unit: the node's name, such as "sda1", what is on it, what it hangs on.

    Before its disk is plugged in the name is only the place on the disk; see `on`.
    """

    name: str
    kind: str = "vfat"
    friendly_name: str = "USB Mass Storage"
    cid: str = ""

    def on(self, disk: str) -> "Volume":
        """The volume at this place of a disk that the kernel calls so."""
        return replace(self, name=disk + self.name)

    @property
    def mount_point(self) -> str:
        """Where it is mounted."""
        return f"/media/{self.name}"

    @property
    def link(self) -> str:
        """Name of its link in /media, on a unit with two slots for cards."""
        if self.name.startswith("mmcblk"):
            return "Memory Card"
        return f"USB Memory Card {self.name[2:].upper()}"

    @property
    def file_system(self) -> str:
        """Type in the mount table."""
        return "fuseblk" if self.kind == "ntfs" else self.kind

    @property
    def exportable(self) -> bool:
        """True when other units can have it."""
        return self.kind in _EXPORTABLE

    def arrival(self) -> str:
        """Text of the message to the display application of its own unit."""
        return _arrival(self, self.mount_point, CONTENT_ID, SERIAL_NUMBER)

    def removal(self) -> str:
        """The message when it goes."""
        return _removal(self.mount_point)

    def share_point(self, address: str) -> str:
        """Where the other unit mounts it from a unit with this address."""
        return f"/mnt/{address}:-media-{self.name}"

    def share_arrival(self, address: str) -> str:
        """The message to the display application of the other unit, whose peer this one is."""
        return _arrival(self, self.share_point(address), "", "")

    def share_removal(self, address: str) -> str:
        """The other unit's message when it goes."""
        return _removal(self.share_point(address))


def partition(number: int, kind: str = "vfat") -> Volume:
    """A partition of a stick that is not plugged in yet."""
    return Volume(str(number), kind)


def whole_disk(kind: str = "vfat") -> Volume:
    """A file system on a stick without a table that is not plugged in yet."""
    return Volume("", kind)


def card(name: str = "mmcblk0p1", cid: str = EMULATED_CID) -> Volume:
    """A card in a slot of the unit."""
    return Volume(name, friendly_name=f"Memory Card - {name[6]}", cid=cid)


def key_of(cid: str) -> str:
    """A card's identity with the checksum of the SD standard in its last byte."""
    if not cid:
        return ""
    crc = 0
    for byte in bytes.fromhex(cid[:30]):
        for bit in range(7, -1, -1):
            crc = (crc << 1 & 0x7f) ^ (0x09 if (crc >> 6 ^ byte >> bit) & 1 else 0)
    return f"{cid[:30]}{crc << 1 | 1:02x}"


def _arrival(volume: Volume, path: str, content_id: str, serial_number: str) -> str:
    kind = "memorycard" if volume.cid else "harddrive"
    return ('<message version="1" type="datasource"><content>'
            f'<dataarrival path="{path}" type="{kind}" key="{key_of(volume.cid)}"'
            f' contentid="{content_id}" serialnumber="{serial_number}"'
            f' friendlyname="{volume.friendly_name}" remote="false" readonly="false"'
            ' fixed="false" /></content></message>')


def _removal(path: str) -> str:
    return ('<message version="1" type="datasource"><content>'
            f'<dataremoval path="{path}"/></content></message>')
