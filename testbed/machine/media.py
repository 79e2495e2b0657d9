"""Media for the emulated hardware: image files with partitions and file systems."""

import subprocess
from dataclasses import dataclass, field
from pathlib import Path

_MIB = 1 << 20
_PARTITION_TYPES = {"vfat": "c", "exfat": "7", "ntfs": "7", "ext4": "83"}


@dataclass(frozen=True)
class FileSystem:
    """What a partition, or a whole medium, holds. Files: name -> content, vfat only."""

    kind: str
    label: str
    mib: int = 16
    files: dict[str, str] = field(default_factory=dict)


def make(image: Path, *partitions: FileSystem) -> Path:
    """Make a medium with a table of these partitions; its image."""
    image.unlink(missing_ok=True)  # zeros are not written
    table = "label: dos\n"
    start = 1
    for number, partition in enumerate(partitions, 1):
        kind = _PARTITION_TYPES[partition.kind]
        table += f"start={start}MiB, size={partition.mib}MiB, type={kind}\n"
        part = image.with_suffix(f".{number}")
        whole(part, partition)
        _copy(part, image, start)
        part.unlink()
        start += partition.mib
    _extend(image, start + 1)
    _run("sfdisk", "--quiet", "--no-tell-kernel", str(image), text=table)
    return image


def whole(image: Path, content: FileSystem) -> Path:
    """Make a medium without a table; its image."""
    image.parent.mkdir(parents=True, exist_ok=True)
    image.unlink(missing_ok=True)
    _extend(image, content.mib)
    _format(image, content)
    return image


def card(image: Path, content: FileSystem) -> Path:
    """Make a memory card with one partition: its size is a power of two, as the emulator wants."""
    make(image, content)
    size = 1
    while size < image.stat().st_size:
        size *= 2
    _extend(image, size // _MIB)
    return image


def _format(image: Path, content: FileSystem) -> None:
    path, label = str(image), content.label
    if content.kind == "vfat":
        _run("mkfs.vfat", "-n", label, path)
        for name, text in content.files.items():
            _run("mcopy", "-i", path, "-", f"::{name}", text=text)
    elif content.kind == "exfat":
        _run("mkfs.exfat", "-L", label, path)
    elif content.kind == "ntfs":
        _run("mkntfs", "--fast", "--force", "--quiet", "--label", label, path)
    else:
        _run("mke2fs", "-q", "-t", content.kind, "-L", label, path)


def _extend(image: Path, mib: int) -> None:
    with image.open("ab") as file:
        file.truncate(mib * _MIB)


def _copy(part: Path, image: Path, mib: int) -> None:
    _run("dd", f"if={part}", f"of={image}", "bs=1M", f"seek={mib}", "conv=sparse,notrunc",
         "status=none")


def _run(*words: str, text: str = "") -> None:
    done = subprocess.run(words, input=text.encode(), stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, check=False)
    if done.returncode != 0:
        raise RuntimeError(f"{' '.join(words)}: {done.stdout.decode(errors='replace')}")
