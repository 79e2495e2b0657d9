"""The picture of the demo's timeline: what a tape has becomes dots and labels in their lanes."""

import io
import re
from xml.etree import ElementTree

import pytest

from testbed import picture
from testbed.hal import Call
from testbed.monitor import Told
from testbed.tape import Tape
from testbed.timeline import Chapter, Happening, Timeline

_SVG = "{http://www.w3.org/2000/svg}"
_VOLUME = "/org/freedesktop/Hal/devices/volume_uuid_1"


def told(message: str, path: str) -> Told:
    return Told({"well_formed": True, "message": message, "path": path, "type": "harddrive",
                 "readonly": False, "key": "", "friendlyname": "USB Mass Storage"})


def record_an_arrival(tape: Tape) -> None:
    """What a stick leaves on a unit's tape."""
    tape.record("hal", "> plug usb stick label=A&B<")
    query = Call(":1.1", _VOLUME, "org.freedesktop.Hal.Device", "GetProperty", "'info.parent'")
    mount = Call(":1.1", _VOLUME, "org.freedesktop.Hal.Device.Volume", "Mount", "'sda1', '', []")
    tape.record("hal", "call", query)
    tape.record("hal", "call", mount)
    tape.record("hal", f"mounted {_VOLUME} /media/sda1 rw")
    tape.record("hal", f"reply :1.1 {_VOLUME} org.freedesktop.Hal.Device.Volume.Mount(0)")
    tape.record("tools", "exportfs -o ro,no_root_squash,no_subtree_check *:/media/sda1")
    tape.record("links", "+ USB Memory Card A1 -> sda1")
    tape.record("app", "{}", told("arrival", "/media/sda1"))


def drawn(stories: list[tuple[list[str], list[Chapter]]]) -> ElementTree.Element:
    return ElementTree.fromstring(picture.draw(stories))


def labels(svg: ElementTree.Element) -> list[tuple[float, float, str]]:
    """Place and text of every label of an event."""
    return [(float(text.attrib["x"]), float(text.attrib["y"]), text.text or "")
            for text in svg.iter(f"{_SVG}text") if "class" not in text.attrib]


def texts(svg: ElementTree.Element, style: str) -> list[str]:
    return [text.text or "" for text in svg.iter(f"{_SVG}text")
            if text.attrib.get("class") == style]


def test_a_tape_becomes_lanes_with_its_events_in_their_order() -> None:
    first, second = Tape(), Tape()
    timeline = Timeline({"north": first, "south": second}, io.StringIO())
    first.record("presence", "before the first heading")
    timeline.heading("A stick arrives.")
    record_an_arrival(first)
    second.record("tools", "mountpoint -q /mnt/169.254.1.1:-media-sda1")
    second.record("tools", "mount -t nfs -o rw,rsize=1280,soft,udp,noatime,nodiratime"
                           " 169.254.1.1:/media/sda1 /mnt/169.254.1.1:-media-sda1")
    second.record("app", "{}", told("arrival", "/mnt/169.254.1.1:-media-sda1"))
    timeline.heading("It goes.")
    first.record("hal", "> pull stick")
    timeline.show()
    svg = drawn([(timeline.units, timeline.chapters)])

    seen = sorted(labels(svg))
    assert [text for _, _, text in seen] == [
        "stick A&B< plugged in", "mounted sda1 rw", "exportfs ro *",
        "linked USB Memory Card A1", "arrival /media/sda1", "mount rw 169.254.1.1:sda1",
        "arrival 169.254.1.1:sda1", "stick pulled out"]
    for part, name in enumerate(("hardware service", "daemon", "application", "other unit")):
        assert texts(svg, f"title part{part}") == [name]
    assert texts(svg, "title") == ["A stick arrives.", "It goes."]
    dots = [(float(dot.attrib["cx"]), dot.attrib["class"]) for dot in svg.iter(f"{_SVG}circle")]
    assert [lane for _, lane in sorted(dots)] == [
        "part0", "part0", "part1", "part1", "part2", "part3", "part3", "part0"]


def test_a_single_unit_has_no_lane_for_another() -> None:
    tape = Tape()
    timeline = Timeline({"": tape}, io.StringIO())
    record_an_arrival(tape)
    timeline.show()
    svg = drawn([(timeline.units, timeline.chapters)])
    assert texts(svg, "title part2") == ["application"]
    assert texts(svg, "title part3") == []


def test_no_label_touches_another_or_a_line() -> None:
    happenings = [Happening(0.001 * number, "", "ran", f"exportfs -f {'x' * (number % 7)}")
                  for number in range(12)]
    svg = drawn([([""], [Chapter("Many at once", happenings)])])
    boxes = [(x, x + 6 * len(text), y - 9, y + 2) for x, y, text in labels(svg)]
    assert len(boxes) == 12
    leaders = [(float(line.attrib["x1"]), float(line.attrib["y1"]), float(line.attrib["y2"]))
               for line in svg.iter(f"{_SVG}line") if line.attrib["class"] == "leader"]
    for left, right, top, bottom in boxes:
        assert [box for box in boxes if box[0] < right and left < box[1]
                and box[2] < bottom and top < box[3]] == [(left, right, top, bottom)]
        assert not [x for x, above, below in leaders
                    if left < x < right and above < bottom and top < below]


def test_many_chapters_take_several_lines() -> None:
    chapters = [Chapter(f"Chapter {number}", [Happening(number, "", "pulled", "stick")])
                for number in range(20)]
    svg = drawn([([""], chapters)])
    assert float(svg.attrib["width"]) <= 1160
    assert texts(svg, "title part0") == ["hardware service"] * 4
    heights = [y for _, y, _ in labels(svg)]
    assert heights == sorted(heights) and len(set(heights)) == 4
    assert float(svg.attrib["height"]) > max(heights)


@pytest.mark.parametrize("kind, text, label", [
    ("plugged", "sd card host=0 label=ROUTES", "card ROUTES plugged in"),
    ("plugged", "reader kr20 luns=2", "reader kr20 plugged in"),
    ("unmounted", "/media/sda1", "unmounted sda1"),
    ("refused", "Mount('sda1', 'vfat', []): x.Busy", "refused to mount sda1"),
    ("refused", "no device x", "refused no device x"),
    ("ran", "exportfs -u 169.254.1.2:/media/sda1", "exportfs -u 169.254.1.2"),
    ("ran", "exportfs -a -r", "exportfs -a -r"),
    ("ran", "umount -f -l /mnt/169.254.1.2:-media-sda1", "umount 169.254.1.2:sda1"),
    ("unlinked", "/media/Memory Card - 0 -> mmcblk0p1", "unlinked Memory Card - 0"),
    ("ignored", "/dev/sdc1", "ignored /dev/sdc1"),
    ("daemon", "signal SIGUSR1", "signal SIGUSR1"),
    ("daemon", "started: voldrake --log /x", "started"),
    ("reported", "removal  /media/sda1", "removal /media/sda1"),
    ("says", "hello", "says hello"),
    ("", "the display application has stopped", "stopped"),
])
def test_a_label_has_few_words(kind: str, text: str, label: str) -> None:
    svg = drawn([([""], [Chapter("", [Happening(0, "", kind, text)])])])
    assert [text for _, _, text in labels(svg)] == [label]


def test_colours_are_given_for_light_and_dark() -> None:
    style = picture.draw([])
    colours = dict.fromkeys(re.findall(r"\.part\d", style), 0)
    for part in colours:
        assert style.count(f"{part} {{") == 2
    assert len(colours) == 4 and "prefers-color-scheme: dark" in style
