"""Checks that includes run one way through the layers: of src/, and of the programs beside it.

    check_layers.py SOURCE_DIRECTORY    prints every offender; status 1 when there is one
    check_layers.py --beside ROOT       the same for the services and tools beside the daemon
    check_layers.py --self-test         checks the checker on a small tree of its own
"""

import re
import sys
import tempfile
from pathlib import Path
from typing import Callable

# What the files of each layer may include. Those above the folders, main.cpp for one, may include
# everything.
LAYERS = {
    "frame": {"frame"},
    "storage": {"frame", "storage"},
    "messaging": {"frame", "messaging"},
    "sharing": {"frame", "sharing"},
    "volumes": {"frame", "storage", "messaging", "sharing", "volumes"},
}

# The same for the folders beside src. The daemon shares no code with them.
BESIDE = {
    "glib": {"glib"},
    "program": {"glib", "program"},
    "hal/face": {"glib", "hal/face"},
    "hal/sim": {"glib", "program", "hal/face", "hal/sim"},
    "hal/kernel": {"glib", "program", "hal/face", "hal/kernel"},
    "tools/common": {"glib", "program", "tools/common"},
    "tools/monitor": {"glib", "program", "tools/common", "tools/monitor"},
    "tools/shares": {"glib", "program", "tools/common", "tools/shares"},
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


def fault(source: Path, layers: dict[str, set[str]], layer: str | None, delimiter: str,
          name: str) -> str | None:
    """What is wrong with one include of a file of `layer` (None: main.cpp); None when nothing."""
    target = name.rpartition("/")[0]
    if delimiter == "<":
        return "a project header in angle brackets" if target in layers else None
    if target not in layers:
        return "a quoted include must carry its folder"
    if not (source / name).is_file():
        return "no such header"
    if layer is None or target in layers[layer]:
        return None
    if layer in MIDDLE_LAYERS and name in RECORDS:
        return None
    return f"{layer} must not include {target}"


def offenders(source: Path) -> list[str]:
    """One line "FILE:LINE: INCLUDE: FAULT" for each offender under a source directory."""
    files = sorted(path for path in source.rglob("*") if path.suffix in {".cpp", ".h"})
    return offenders_among(files, source, LAYERS)


def offenders_beside(root: Path) -> list[str]:
    """The same for the folders beside src. Each of them must be there."""
    files = []
    for folder in BESIDE:
        inside = sorted(path for path in (root / folder).glob("*") if path.suffix in {".cpp", ".h"})
        if not inside:
            return [f"{root / folder}: no source file"]
        files += inside
    return offenders_among(files, root, BESIDE)


def offenders_among(files: list[Path], source: Path, layers: dict[str, set[str]]) -> list[str]:
    """One line "FILE:LINE: INCLUDE: FAULT" for each offender among the files."""
    found = []
    if not files:
        return [f"{source}: no source file"]
    for path in files:
        relative = path.relative_to(source)
        layer = relative.parent.as_posix() if len(relative.parts) > 1 else None
        if layer is not None and layer not in layers:
            found.append(f"{relative}: a folder that is no layer")
            continue
        lines = includes(path)
        for number, delimiter, name in lines:
            text = fault(source, layers, layer, delimiter, name)
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


GOOD_NEIGHBOURS = {
    "glib/Handles.h": "#include <glib.h>\n",
    "program/Output.h": "#include <string>\n",
    "hal/face/DeviceTree.h": '#include "glib/Handles.h"\n',
    "hal/sim/main.cpp": '#include "hal/face/DeviceTree.h"\n#include "program/Output.h"\n',
    "hal/kernel/Media.h": '#include "hal/face/DeviceTree.h"\n',
    "tools/common/TimeText.h": "#include <string>\n",
    "tools/monitor/Frame.h": "#include <string>\n",
    "tools/monitor/main.cpp": '#include "program/Output.h"\n#include "tools/common/TimeText.h"\n',
    "tools/shares/main.cpp": '#include "program/Output.h"\n',
}

BAD_NEIGHBOURS = {
    "hal/face/Up.h": ('#include "hal/kernel/Media.h"\n',
                      "hal/face/Up.h:1: hal/kernel/Media.h: "
                      "hal/face must not include hal/kernel"),
    "hal/sim/Across.cpp": ('#include "hal/kernel/Media.h"\n',
                           "hal/sim/Across.cpp:1: hal/kernel/Media.h: "
                           "hal/sim must not include hal/kernel"),
    "hal/kernel/Tool.cpp": ('#include "tools/monitor/Frame.h"\n',
                            "hal/kernel/Tool.cpp:1: tools/monitor/Frame.h: "
                            "hal/kernel must not include tools/monitor"),
    "tools/shares/Across.cpp": ('#include "tools/monitor/Frame.h"\n',
                                "tools/shares/Across.cpp:1: tools/monitor/Frame.h: "
                                "tools/shares must not include tools/monitor"),
    "tools/common/Lost.cpp": ('#include "tools/common/Lost.h"\n',
                              "tools/common/Lost.cpp:1: tools/common/Lost.h: no such header"),
    "tools/monitor/Daemon.cpp": ('#include "frame/Log.h"\n',
                                 "tools/monitor/Daemon.cpp:1: frame/Log.h: "
                                 "a quoted include must carry its folder"),
}


def write_tree(root: Path, files: dict[str, str]) -> None:
    """Writes files, and the folders above them, under a directory."""
    for name, text in files.items():
        path = root / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text, encoding="utf-8")


def self_test_of(check: Callable[[Path], list[str]], good: dict[str, str],
                 bad: dict[str, tuple[str, str]]) -> list[str]:
    """What one check gets wrong: a good tree has no offender, each bad file exactly its own."""
    wrong = []
    with tempfile.TemporaryDirectory() as directory:
        root = Path(directory)
        if not check(root):
            wrong.append("an empty directory passes")
        write_tree(root, good)
        wrong += [f"found in the good tree: {line}" for line in check(root)]
        for name, (text, expected) in bad.items():
            write_tree(root, {name: text})
            found = check(root)
            if found != [expected]:
                wrong.append(f"{name}: expected {[expected]}, found {found}")
            (root / name).unlink()
    return wrong


def self_test() -> list[str]:
    """What the checker gets wrong."""
    return (self_test_of(offenders, GOOD_TREE, BAD_FILES)
            + self_test_of(offenders_beside, GOOD_NEIGHBOURS, BAD_NEIGHBOURS))


def main(arguments: list[str]) -> int:
    """Runs the check or the self-test; 0 when nothing was found."""
    match arguments:
        case ["--self-test"]:
            lines = self_test()
        case ["--beside", root]:
            lines = offenders_beside(Path(root))
        case [source]:
            lines = offenders(Path(source))
        case _:
            print(__doc__, file=sys.stderr)
            return 2
    for line in lines:
        print(line)
    return 1 if lines else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
