"""What the whole emulated units are compared with: it can tell right from wrong."""

import pytest

from testbed.machine import surface
from testbed.machine.surface import Surface
from testbed.machine.volumes import Volume, card, key_of

NFS = "rw,vers=3,rsize=1024,wsize=32768,namlen=255,soft,proto=udp,timeo=11,retrans=3,sec=sys"
SEEN = f"""\
25 1 254:0 / / rw,relatime - ext4 /dev/vda rw
90 25 8:1 / /media/sda1 rw,nosuid,nodev,relatime shared:40 - vfat /dev/sda1 rw,fmask=0022
91 25 0:40 / /mnt/169.254.1.2:-media-sda rw,noatime shared:41 - nfs 169.254.1.2:/media/sda {NFS}
==
/media/USB Memory Card A1\tsda1
==
/media:
sda1
USB Memory Card A1

/mnt:
169.254.1.2:-media-sda
==
/media/sda1   \t169.254.1.2(sync,wdelay,hide,no_subtree_check,sec=sys,rw,secure,no_root_squash)
/media/sda1   \t<world>(sync,wdelay,hide,no_subtree_check,sec=sys,ro,secure,no_root_squash)
"""
OWN, SHARE, PEER = Volume("sda1"), Volume("sda"), "169.254.1.2"


def wanted() -> Surface:
    return surface.expected([OWN], [OWN], [SHARE], PEER)


def test_a_surface_as_it_should_be_does_not_differ():
    assert surface.read(SEEN).differences(wanted()) == []


@pytest.mark.parametrize("was, becomes, difference", [
    ("90 25 8:1 / /media/sda1 rw", "90 25 8:1 / /media/sda1 ro",
     "mount /media/sda1: vfat ro, wanted: vfat rw"),
    ("90 25", "89 25 8:17 / /media/sdb1 rw - vfat /dev/sdb1 rw\n90 25",
     "mount /media/sdb1: vfat rw, wanted: none"),
    ("90 25", "89 25 8:1 / /media/sda1 rw - vfat /dev/sda1 rw\n90 25",
     "mount /media/sda1: vfat rw twice, wanted: vfat rw"),
    ("proto=udp", "proto=tcp",
     "mount /mnt/169.254.1.2:-media-sda: nfs with "
     f"{NFS.replace('udp', 'tcp')} rw, wanted: nfs rw"),
    ("A1\tsda1", "A1\tsdb1", "link /media/USB Memory Card A1: sdb1, wanted: sda1"),
    ("sda1\nUSB", "sda1\nold\nUSB", "name old: left over"),
    ("169.254.1.2:-media-sda\n==", "==", "name 169.254.1.2:-media-sda: missing"),
    ("sec=sys,rw,", "sec=sys,ro,", "export /media/sda1 for 169.254.1.2: ro, wanted: rw"),
    ("/media/sda1   \t<world>", "/media/sdb1   \t<world>",
     "export /media/sda1 for <world>: missing, wanted: ro"),
])
def test_every_difference_is_shown(was, becomes, difference):
    assert was in SEEN
    assert difference in surface.read(SEEN.replace(was, becomes)).differences(wanted())


def test_an_export_with_a_long_path_is_read():
    text = SEEN.replace("/media/sda1   \t<world>", "/media/mmcblk0p1\n\t\t<world>")
    assert surface.read(text).exports["/media/mmcblk0p1 for <world>"] == "ro"


def test_the_key_of_a_card_ends_in_its_checksum():
    assert key_of("02544d53413038471060f9a4f600a200") == "02544d53413038471060f9a4f600a24f"
    assert key_of("") == ""


def test_a_card_is_told_as_one():
    assert card().arrival() == (
        '<message version="1" type="datasource"><content><dataarrival path="/media/mmcblk0p1"'
        ' type="memorycard" key="aa585951454d552101deadbeef006219" contentid="CHARTS-2026"'
        ' serialnumber="100234" friendlyname="Memory Card - 0" remote="false" readonly="false"'
        ' fixed="false" /></content></message>')
