"""Checks that the daemon's includes run one way through the layers of src/.

    check_layers.py SOURCE_DIRECTORY    prints every offender; status 1 when there is one
    check_layers.py --self-test         checks the checker on a small tree of its own
"""

import re
import sys
import tempfile
from pathlib import Path

# What the files of each layer may include. Those above the folders, main.cpp for one, may include
# everything.
LAYERS = {
    "frame": {"frame"},
    "storage": {"frame", "storage"},
    "messaging": {"frame", "messaging"},
    "sharing": {"frame", "sharing"},
    "volumes": {"frame", "storage", "messaging", "sharing", "volumes"},
}

# Plain records, which the middle layers may hand to one another.
RECORDS = {
    "messaging/DataSourceInfo.h",
    "sharing/NfsData.h",
    "storage/HalVolumeInfo.h",
}
MIDDLE_LAYERS = {"storage", "messaging", "sharing"}

INCLUDE = re.compile(r'\s*#\s*include\s*(["<])([^">]+)[">]')


def includes(path: Path) -> list[tuple[int, str, str]]:
    """The include lines of a file: line number, opening delimiter, included name."""
    found = []
    for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), start=1):
        match = INCLUDE.match(line)
        if match:
            found.append((number, match[1], match[2]))
    return found


def fault(source: Path, layer: str | None, delimiter: str, name: str) -> str | None:
    """What is wrong with one include of a file of `layer` (None: main.cpp); None when nothing."""
    target = name.split("/")[0] if "/" in name else None
    if delimiter == "<":
        return "a project header in angle brackets" if target in LAYERS else None
    if target not in LAYERS:
        return "a quoted include must carry its folder"
    if not (source / name).is_file():
        return "no such header"
    if layer is None or target in LAYERS[layer]:
        return None
    if layer in MIDDLE_LAYERS and name in RECORDS:
        return None
    return f"{layer} must not include {target}"


def offenders(source: Path) -> list[str]:
    """One line "FILE:LINE: INCLUDE: FAULT" for each offender under a source directory."""
    found = []
    files = sorted(path for path in source.rglob("*") if path.suffix in {".cpp", ".h"})
    if not files:
        return [f"{source}: no source file"]
    for path in files:
        relative = path.relative_to(source)
        layer = relative.parts[0] if len(relative.parts) > 1 else None
        if layer is not None and layer not in LAYERS:
            found.append(f"{relative}: a folder that is no layer")
            continue
        lines = includes(path)
        for number, delimiter, name in lines:
            text = fault(source, layer, delimiter, name)
            if text:
                found.append(f"{relative}:{number}: {name}: {text}")
        own = relative.with_suffix(".h").as_posix()
        first = lines[0][1:] if lines else None
        if path.suffix == ".cpp" and (source / own).is_file() and first != ('"', own):
            found.append(f"{relative}: its own header must be included first")
    return found


GOOD_TREE = {
    "main.cpp": '#include <string>\n#include "frame/Log.h"\n#include "volumes/tTop.h"\n',
    "frame/Log.h": "#pragma once\n#include <string>\n",
    "frame/Log.cpp": '#include "frame/Log.h"\n\n#include <syslog.h>\n#include <sys/stat.h>\n',
    "storage/Disk.h": '#include "frame/Log.h"\n#include "storage/HalVolumeInfo.h"\n',
    "storage/Split.cpp": '#include <string>\n#include "sharing/NfsData.h"\n',
    "storage/HalVolumeInfo.h": "#include <string>\n",
    "messaging/Client.h": '#include "frame/Log.h"\n',
    "messaging/DataSourceInfo.h": "#include <string>\n",
    "sharing/NfsData.h": "#include <string>\n",
    "sharing/Browser.h": '#include "messaging/DataSourceInfo.h"\n',
    "volumes/tTop.h": '#include "storage/Disk.h"\n#include "messaging/Client.h"\n'
                      '#include "sharing/Browser.h"\n',
}

BAD_FILES = {
    "frame/Up.cpp": ('#include "storage/Disk.h"\n',
                     "frame/Up.cpp:1: storage/Disk.h: frame must not include storage"),
    "frame/Record.cpp": ('#include "sharing/NfsData.h"\n',
                         "frame/Record.cpp:1: sharing/NfsData.h: frame must not include sharing"),
    "storage/Across.cpp": ('\n  #  include "messaging/Client.h"\n',
                           "storage/Across.cpp:2: messaging/Client.h: "
                           "storage must not include messaging"),
    "sharing/Up.cpp": ('#include "volumes/tTop.h"\n',
                       "sharing/Up.cpp:1: volumes/tTop.h: sharing must not include volumes"),
    "messaging/Bare.cpp": ('#include "Client.h"\n',
                           "messaging/Bare.cpp:1: Client.h: "
                           "a quoted include must carry its folder"),
    "messaging/Round.cpp": ('#include "../frame/Log.h"\n',
                            "messaging/Round.cpp:1: ../frame/Log.h: "
                            "a quoted include must carry its folder"),
    "messaging/Angle.cpp": ("#include <storage/Disk.h>\n",
                            "messaging/Angle.cpp:1: storage/Disk.h: "
                            "a project header in angle brackets"),
    "volumes/Lost.cpp": ('#include "storage/Lost.h"\n',
                         "volumes/Lost.cpp:1: storage/Lost.h: no such header"),
    "storage/Disk.cpp": ('#include <string>\n#include "storage/Disk.h"\n',
                         "storage/Disk.cpp: its own header must be included first"),
    "sharing/Browser.cpp": ("int browser;\n",
                            "sharing/Browser.cpp: its own header must be included first"),
    "extra/Thing.h": ("", "extra/Thing.h: a folder that is no layer"),
}


def write_tree(root: Path, files: dict[str, str]) -> None:
    """Writes files, and the folders above them, under a directory."""
    for name, text in files.items():
        path = root / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text, encoding="utf-8")


def self_test() -> list[str]:
    """What the checker gets wrong: a good tree has no offender, each bad file exactly its own."""
    wrong = []
    with tempfile.TemporaryDirectory() as directory:
        root = Path(directory)
        if not offenders(root):
            wrong.append("an empty directory passes")
        write_tree(root, GOOD_TREE)
        wrong += [f"found in the good tree: {line}" for line in offenders(root)]
        for name, (text, expected) in BAD_FILES.items():
            write_tree(root, {name: text})
            found = offenders(root)
            if found != [expected]:
                wrong.append(f"{name}: expected {[expected]}, found {found}")
            (root / name).unlink()
    return wrong


def main(arguments: list[str]) -> int:
    """Runs the check or the self-test; 0 when nothing was found."""
    if len(arguments) != 1:
        print(__doc__, file=sys.stderr)
        return 2
    lines = self_test() if arguments[0] == "--self-test" else offenders(Path(arguments[0]))
    for line in lines:
        print(line)
    return 1 if lines else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
