"""The story that two whole units go through, and the table of its steps."""

import re
import time
from typing import Callable

from testbed.machine import deadlines, media
from testbed.machine.media import FileSystem
from testbed.machine.pair import Pair
from testbed.machine.unit import Unit
from testbed.machine.volumes import Volume, card, partition, whole_disk
from testbed.tape import Mark

#: Error lines of a healthy unit, and why they come.
_ALWAYS_EXPECTED = (
    # The emulated processor.
    r"kernel: (CPU0: Spectre v2: firmware did not|/cpus/cpu@0 missing clock-frequency)",
    # The daemon looks for a property on each object of a chain, and asks about a volume that has
    # just gone; every refusal is a line.
    r"org\.freedesktop\.Hal\.NoSuchProperty: No property usb_device\.(vendor|product)_id on",
    r"org\.freedesktop\.Hal\.NoSuchDevice: No device with id \S+/volume_",
    # A medium that is torn out while it is mounted, or that was and is seen again.
    r"kernel: .*(I/O error, dev (sd|mmcblk)|Buffer I/O error on dev|FAT-fs \(\w+\): (unable to read"
    r"|Directory bread|FAT read failed|Volume was not properly)|EXT4-fs (error|\(\w+\): I/O error)"
    r"|device offline error|access beyond end of device|Synchronize Cache|exFAT-fs \(\w+\): error)",
)

#: A share is offered while its server is not there yet, or no more.
_SHARES_COME_AND_GO = r"[mM]ount command: .*FAIL"
#: A datagram is read when the cable is out: the kernel has forgotten the addresses of both units.
_SENDERS_FORGOTTEN = r"attempt 4 to obtain MAC for 169\.254\.1\.[12] failed with error 6"
#: The daemon finds the links that it made before it was started again.
_LINKS_OF_FORMER_RUN = r"symlink (failed: /media/|error: File exists)"
#: So many unexpected error lines are shown.
_ERRORS_SHOWN = 20

Step = tuple[str, Callable[[], None]]


class Story:
    """The steps, in order, over a pair of units."""

    def __init__(self, pair: Pair) -> None:
        self.pair = pair
        self.north, self.south = pair.north, pair.south
        self._media = pair.directory / "media"
        self._expected_errors: list[str] = []

    def steps(self) -> list[Step]:
        """Title and work of each."""
        return [
            ("cold boot, a card in north", self.cold_boot),
            ("a stick: write a file, tear out while it is open, plug again", self.tear_out),
            ("a stick with three partitions, one without a table", self.partitions),
            ("exFAT, which is not shared, and NTFS", self.exfat_and_ntfs),
            ("a reader with two slots, a card swapped", self.reader),
            ("a file of north's stick on south, and back", self.files_both_ways),
            ("tear-out on north while south reads", self.tear_out_under_reader),
            ("cable out for five seconds", self.cable),
            ("power cut of north, back without a cable", self.power_cut),
            ("SIGUSR1, SIGUSR2", self.signals),
            ("log rotation", self.rotation),
            ("the daemon started again", self.restart_daemon),
            ("the hardware service started again", self.restart_hardware_service),
            ("the bus started again", self.restart_bus),
            ("the NFS server started again", self.restart_nfs_server),
            ("orderly shutdown with shares mounted", self.shutdown),
        ]

    def play(self, tell: Callable[[str, float, str], None], words: list[str]) -> bool:
        """Go through the steps; False when one failed, with which it ends. `tell` is given title,
        seconds and "ok" or what failed, of each. `words`: those of the titles to be chosen behind
        the first step; none for all."""
        for title, work in self._chosen(words):
            begin = time.monotonic()
            self._expected_errors = []
            try:
                work()
                self._check_errors()
            except Exception as failure:  # whatever it is, the units' journals tell more
                tell(title, time.monotonic() - begin, f"FAILED: {failure}")
                return False
            tell(title, time.monotonic() - begin, "ok")
        return True

    def _chosen(self, words: list[str]) -> list[Step]:
        boot, *others = self.steps()
        return [boot, *(step for step in others
                        if not words or any(word in step[0] for word in words))]

    def cold_boot(self) -> None:
        """The card is told, and mounted by the other unit once the NFS server is there. The driver
        for disks and card readers is a module, and loaded though there is no such device yet: the
        daemon may ask a reader only if it was there when the daemon was started."""
        self._expected_errors.append(_SHARES_COME_AND_GO)
        charts = media.card(self._media / "card", FileSystem("vfat", "CHARTS", 30,
                                                             {"route.txt": "To the lighthouse\n"}))
        for unit in self.pair.units:
            media.make(self._media / unit.name, FileSystem("vfat", unit.name.upper()))
        self.north.emulator.insert(0, charts)
        self.north.volumes.append(card())
        self.pair.switch_on(self.north, self.south)
        self.pair.settle()
        self._expect_file(self.north, card().mount_point, "route.txt", "To the lighthouse")
        self.north.run("modinfo --field=filename sd_mod | grep -q ^/ && ! ls /sys/block/sd*")
        self.north.run("grep -qw sd /proc/devices")

    def tear_out(self) -> None:
        """While a file is open the kernel keeps the disk's name, and the stick comes back with
        another."""
        name = self.north.name
        first = self._stick_in(self.north)
        self._write(self.north, first.mount_point, "log.txt", "Fair winds")
        self._expect_file(self.north, first.mount_point, "log.txt", "Fair winds")
        self.north.run("sync")
        self.north.run("systemd-run --quiet --service-type=exec --unit=reader"
                       f" --property=StandardInput=file:{first.mount_point}/log.txt sleep infinity")
        self.pair.pull(name)
        self.pair.settle()
        second = self._stick_in(self.north)
        assert second.name != first.name, f"{first.name} was given again while a file was open"
        self._expect_file(self.north, second.mount_point, "log.txt", "Fair winds")
        self.north.run("systemctl stop reader.service")
        self.pair.pull(name)
        self.pair.settle()
        self._stick_in(self.north)

    def partitions(self) -> None:
        """Three partitions, of which one is ext4, and a file system on the whole disk."""
        self._stick_in(self.north)
        parts = media.make(self._media / "parts", FileSystem("vfat", "ONE"),
                           FileSystem("vfat", "TWO B"), FileSystem("ext4", "THREE"))
        self.pair.plug(self.north, "parts", parts, partition(1), partition(2),
                       partition(3, "ext4"))
        self.pair.settle()
        plain = media.whole(self._media / "plain", FileSystem("vfat", "PLAIN"))
        self.pair.plug(self.north, "plain", plain, whole_disk())
        self.pair.settle()
        self.pair.pull("parts")
        self.pair.settle()
        self.pair.pull("plain")
        self.pair.settle()

    def exfat_and_ntfs(self) -> None:
        """Both are announced. The NFS server refuses every mount of exFAT; NTFS as ntfs-3g mounts
        it can be shared."""
        self._stick_in(self.north)
        self._expected_errors.append(_SHARES_COME_AND_GO)
        exfat = media.whole(self._media / "exfat", FileSystem("exfat", "EXFAT"))
        ntfs = media.make(self._media / "ntfs", FileSystem("ntfs", "NTFS"))
        for name, image, place in (("exfat", exfat, whole_disk("exfat")),
                                   ("ntfs", ntfs, partition(1, "ntfs"))):
            [volume] = self.pair.plug(self.north, name, image, place)
            if not volume.exportable:
                self._expected_errors.append(
                    rf"_Export: error exporting \S+:{volume.mount_point}$")
                share = volume.share_point(self.north.address)
                self.south.old_names.add(share.rpartition("/")[2])
            self.pair.settle()
            self._write(self.north, volume.mount_point, "note.txt", "Ahoy")
            self._expect_file(self.north, volume.mount_point, "note.txt", "Ahoy")
            self.pair.pull(name)
            self.pair.settle()

    def files_both_ways(self) -> None:
        """What one unit writes the other one reads, in both directions; the peer writes too."""
        sticks = {unit: self._stick_in(unit) for unit in self.pair.units}
        for owner, reader in ((self.north, self.south), (self.south, self.north)):
            stick = sticks[owner]
            share = stick.share_point(owner.address)
            self._write(owner, stick.mount_point, "from.txt", owner.name)
            self._expect_file(reader, share, "from.txt", owner.name)
            self._write(reader, share, "answer.txt", reader.name)
            self._expect_file(owner, stick.mount_point, "answer.txt", reader.name)

    def tear_out_under_reader(self) -> None:
        """A reader on south gets an error or its end, not a hang; nothing stays behind."""
        self._expected_errors.append(_SHARES_COME_AND_GO)
        stick = self._stick_in(self.north)
        share = stick.share_point(self.north.address)
        self.north.run(f"dd if=/dev/urandom of={stick.mount_point}/large bs=64k count=64; sync")
        reading = self.south.commands.begin(f"while cat {share}/large; do :; done >/dev/null 2>&1")
        self.south.run(f"test -n \"$(ls {share})\"")
        self.pair.pull(self.north.name)
        self.pair.settle()
        self.south.commands.result(reading, deadlines.SURFACE, "reading of a share that goes")
        self._stick_in(self.north)

    def cable(self) -> None:
        """Three seconds after the last announcement each gives the other up."""
        self._expected_errors += [_SHARES_COME_AND_GO, _SENDERS_FORGOTTEN]
        stick = self._stick_in(self.north)
        self._stick_in(self.south)
        self._write(self.north, stick.mount_point, "cable.txt", "in again")
        self.pair.pull_cable()
        self.pair.settle()
        time.sleep(5)
        self.pair.plug_cable()
        self.pair.settle()
        self._expect_file(self.south, stick.share_point(self.north.address), "cable.txt",
                          "in again")

    def power_cut(self) -> None:
        """No goodbye; what an earlier run left in /media does not stand in the way. At the boot
        local volumes do not wait for the network, and exports survive the start of the NFS server,
        which does."""
        self._expected_errors += [_SHARES_COME_AND_GO, _SENDERS_FORGOTTEN]
        for unit in self.pair.units:
            self._stick_in(unit)
        self.north.run("sync")
        self.pair.cut_power(self.north)
        self.north.old_links = {volume.link: volume.name for volume in self.north.volumes}
        self.north.old_names = {volume.share_point(self.south.address).rpartition("/")[2]
                                for volume in self.south.volumes}
        self.north.old_names |= {volume.name for volume in self.north.volumes}
        self.pair.settle()
        self.pair.pull_cable()
        boot = self.north.tape.mark()
        self.pair.restore_power(self.north)
        self.pair.settle()
        self._expect_before(self.north, boot, r"^symlink( failed)?: /media/Memory Card ",
                            r"Reached target network-online\.target")
        self.pair.plug_cable()
        self.north.wait_until_started()
        self.pair.settle()

    def signals(self) -> None:
        """Everything is told again; every other volume is taken out and put in again."""
        for unit in self.pair.units:
            self._stick_in(unit)
        self._signal(self.north, "USR1")
        self.pair.settle(north=self._everything(self.north))
        self._signal(self.north, "USR2")
        taken_out = self.north.in_order()[::2]
        again = [text for volume in taken_out for text in (volume.removal(), volume.arrival())]
        shared_again = [text for volume in taken_out
                        for text in (volume.share_removal(self.north.address),
                                     volume.share_arrival(self.north.address))]
        self.pair.settle(north=again, south=shared_again)

    def rotation(self) -> None:
        """The daemon on south writes a log file: it goes on with a new one."""
        self.south.run("logrotate --force /etc/logrotate.d/voldrake")
        self.south.log.expect(re.compile("Starting new log file"), deadlines.SURFACE)
        self.south.run("test -s /var/log/voldrake.log.1.gz")

    def restart_daemon(self) -> None:
        """At rest on south, with media in on north: everything comes again."""
        self._expected_errors.append(_SHARES_COME_AND_GO)
        self._one_at_rest()
        for unit in self.pair.units:
            self._restart(unit, "voldrake.service")
            self.pair.settle(**self._begun_anew(unit))

    def restart_hardware_service(self) -> None:
        """Nobody notices; a tear-out while it is away is noticed when it is back."""
        self._one_at_rest()
        for unit in self.pair.units:
            self._restart(unit, "voldrake-hald.service")
            self.pair.settle()
        self.north.run("systemctl stop voldrake-hald.service")
        self.pair.pull(self.north.name)
        self.north.run("systemctl start voldrake-hald.service")
        self.pair.settle()

    def restart_bus(self) -> None:
        """Daemon and hardware service begin anew with it."""
        self._expected_errors += [_SHARES_COME_AND_GO,
                                  r"voldrake-hald: the bus has closed the connection"]
        self._one_at_rest()
        for unit in self.pair.units:
            self._restart(unit, "dbus.service")
            self.pair.settle(**self._begun_anew(unit))

    def restart_nfs_server(self) -> None:
        """Exports are there afterwards, and the other unit's mounts work again."""
        self._expected_errors.append(_SHARES_COME_AND_GO)
        stick = self._one_at_rest()
        for unit in self.pair.units:
            self._restart(unit, "nfs-server.service")
            self.pair.settle()
        share = stick.share_point(self.north.address)
        self._write(self.south, share, "again.txt", "still there")
        self._expect_file(self.north, stick.mount_point, "again.txt", "still there")

    def shutdown(self) -> None:
        """South says goodbye; both ends are bounded in time, though shares are mounted."""
        for unit in self.pair.units:
            self._stick_in(unit)
        for unit in (self.south, self.north):
            unit.commands.begin("systemctl poweroff")
            unit.emulator.wait_until_off()
            if unit is self.south:
                self.south.volumes.clear()
                self.pair.settle()

    def reader(self) -> None:
        """Cards in the unit's own reader are told by their identity, and by their slot."""
        first, second, third = (f"0{number}544d53413038471060f9a4f600a200" for number in (2, 3, 4))
        self.north.run("mkfifo /run/reader; for card in 0 1 2; do truncate -s 8M /run/card$card;"
                       " mkfs.vfat -n CARD$card /run/card$card; done >/dev/null")
        service = self.north.commands.begin(
            "exec 3<>/run/reader; exec python3 -I /usr/local/lib/testbed/card-reader 2"
            " <&3 >/run/reader-says 2>&1")
        nodes = self._reader_nodes()
        cards = [Volume(nodes[slot], friendly_name=f"KR20 - {slot + 1}", cid=cid.upper())
                 for slot, cid in ((0, first), (1, second), (0, third))]
        for orders, gone, come in ((["insert 0 /run/card0 " + first], None, cards[0]),
                                   (["insert 1 /run/card1 " + second], None, cards[1]),
                                   (["eject 0"], cards[0], None),
                                   (["insert 0 /run/card2 " + third], None, cards[2]),
                                   (["eject 1"], cards[1], None)):
            for order in orders:
                self.north.run(f"echo {order} >/run/reader")
            if gone:
                self.north.volumes.remove(gone)
            if come:
                self.north.volumes.append(come)
            self.pair.settle()
        self.north.run("echo quit >/run/reader")
        self.north.volumes.remove(cards[2])
        self.pair.settle()
        self.north.commands.result(service, deadlines.COMMAND, "card reader")

    def _reader_nodes(self) -> list[str]:
        """The disk of each slot: the kernel gives them letters in any order."""
        deadline = time.monotonic() + deadlines.SURFACE
        while True:
            text = self.north.run("for disk in /sys/block/sd*; do echo ${disk##*/}"
                                  " $(cat $disk/device/model) $(readlink $disk/device); done")
            found = {int(words[-1].rpartition(":")[2]): words[0]
                     for words in map(str.split, text.splitlines()) if "reader" in words}
            if len(found) == 2:
                return [found[0], found[1]]
            assert time.monotonic() < deadline, \
                "no reader: " + self.north.run("cat /run/reader-says", check=False)
            time.sleep(deadlines.POLL)

    def _stick_in(self, unit: Unit) -> Volume:
        """What is on the unit's stick, which is plugged in unless a former step has left it in. It
        is the same stick all the time."""
        if not self.pair.volumes_of(unit.name):
            self.pair.plug(unit, unit.name, self._media / unit.name, partition(1))
            self.pair.settle()
        [volume] = self.pair.volumes_of(unit.name)
        return volume

    def _one_at_rest(self) -> Volume:
        """A stick in north, whose volume is returned, and no medium in south."""
        if self.pair.volumes_of(self.south.name):
            self.pair.pull(self.south.name)
            self.pair.settle()
        return self._stick_in(self.north)

    def _signal(self, unit: Unit, name: str) -> None:
        unit.run(f"systemctl kill --kill-who=main --signal={name} voldrake.service")

    def _restart(self, unit: Unit, service: str) -> None:
        if service != "nfs-server.service" and service != "voldrake-hald.service":
            unit.old_links = {volume.link: volume.name for volume in unit.volumes}
        unit.run(f"systemctl restart {service}", timeout=deadlines.RESTART)

    def _everything(self, unit: Unit) -> list[str]:
        """What an application is told when all is told again."""
        address = self.pair.other(unit).address
        return [*(volume.arrival() for volume in unit.volumes),
                *(volume.share_arrival(address) for volume in self.pair.shares(unit))]

    def _begun_anew(self, unit: Unit) -> dict[str, list[str]]:
        """What both applications are told when the daemon of a unit ends and begins anew."""
        other = self.pair.other(unit)
        own = self._everything(unit)
        own += [volume.share_removal(other.address) for volume in self.pair.shares(unit)]
        seen_from_other = [text for volume in self.pair.shares(other)
                           for text in (volume.share_removal(unit.address),
                                        volume.share_arrival(unit.address))]
        return {unit.name: own, other.name: seen_from_other}

    def _expect_before(self, unit: Unit, since: Mark, first: str, later: str) -> None:
        """The journal has the first line, and before it none of the later one."""
        for event in unit.journal.up_to(unit.tape.mark(), since):
            assert not re.search(later, event.text), f"{event.text!r} came before {first!r}"
            if re.search(first, event.text):
                return
        raise AssertionError(f"{first!r} is not in the journal of {unit.name}")

    def _write(self, unit: Unit, place: str, name: str, text: str) -> None:
        unit.run(f"echo '{text}' >'{place}/{name}'")

    def _expect_file(self, unit: Unit, place: str, name: str, text: str) -> None:
        seen = unit.run(f"cat '{place}/{name}'").strip()
        assert seen == text, f"{place}/{name} on {unit.name} holds {seen!r}"

    def _check_errors(self) -> None:
        patterns = [*_ALWAYS_EXPECTED, *self._expected_errors]
        if any(unit.old_links for unit in self.pair.units):
            patterns.append(_LINKS_OF_FORMER_RUN)
        expected = re.compile("|".join(patterns))
        lines = [f"{unit.name}: {line}" for unit in self.pair.units
                 for line in unit.errors(expected)]
        shown = lines[:_ERRORS_SHOWN]
        assert not lines, f"{len(lines)} unexpected error lines:\n  " + "\n  ".join(shown)
