"""One emulated 32-bit ARM machine: the emulator's process and what is plugged into it."""

import subprocess
import time
from dataclasses import dataclass
from pathlib import Path

from testbed.lifespan import Lifespan
from testbed.machine import deadlines
from testbed.machine.qmp import Qmp

#: Ports behind the hub into which sticks are plugged; the kernel calls the first one 1-1.1.
USB_PORTS = ("1.1", "1.2", "1.3", "1.4")
CARD_SLOTS = 2
#: The serial ports through which the machine speaks to the host.
PORTS = ("commands", "journal", "log", "application")


@dataclass(frozen=True)
class Image:
    """What every machine boots from."""

    kernel: Path
    first_root: Path
    disk: Path

    @classmethod
    def in_directory(cls, directory: Path) -> "Image":
        """The one that scripts/machine makes."""
        return cls(directory / "kernel" / "vmlinuz", directory / "first.gz", directory / "disk")


class Emulator(Lifespan):
    """A machine. Its disk's changes, what is plugged in and the cable outlast its power.

    `name` is its host name; the wire joins it to the machine `other`. Everything of it is in
    `directory`, sockets in a directory of their own with a short name.
    """

    def __init__(self, name: str, other: str, number: int, image: Image, directory: Path,
                 sockets: Path) -> None:
        self.name = name
        self.sockets = sockets / name
        self.console = directory / "console"
        self.qmp: Qmp
        self._other = sockets / other / "wire"
        self._hardware_address = f"52:54:00:00:00:{number:02x}"
        self._image = image
        self._directory = directory
        self._process: subprocess.Popen[bytes] | None = None
        self._cards: list[Path | None] = [None] * CARD_SLOTS
        self._sticks: dict[str, tuple[Path, str]] = {}
        self._cable_plugged = True

    def create(self) -> None:
        """Make a fresh disk over the image's."""
        self._directory.mkdir(parents=True, exist_ok=True)
        self.sockets.mkdir(parents=True, exist_ok=True)
        self.console.unlink(missing_ok=True)
        subprocess.run(["qemu-img", "create", "-q", "-f", "qcow2", "-F", "raw",
                        "-b", str(self._image.disk.resolve()), str(self._disk())], check=True)

    def start(self) -> None:
        """Switch the power on; the ports can be connected to on return."""
        for socket in self.sockets.iterdir():
            socket.unlink()
        with self.console.open("ab") as console:
            self._process = subprocess.Popen(self._command(), stdin=subprocess.DEVNULL,
                                             stdout=console, stderr=subprocess.STDOUT)
        deadline = time.monotonic() + deadlines.EMULATOR
        while True:
            try:
                self.qmp = Qmp(self.sockets / "control")
                break
            except OSError:
                assert self.running() and time.monotonic() < deadline, self.console.read_text()
                time.sleep(deadlines.POLL)
        for slot, card in enumerate(self._cards):
            if card:
                self._insert(slot, card)
        for name, (image, port) in self._sticks.items():
            self._plug(name, image, port)
        self.cable(self._cable_plugged)
        self.qmp.command("cont")

    def close(self) -> None:
        """Cut the power."""
        if self._process:
            self._process.kill()
            self._process.wait()
            self.qmp.close()
            self._process = None

    def running(self) -> bool:
        """True until the machine is off."""
        return self._process is not None and self._process.poll() is None

    def wait_until_off(self) -> None:
        """Return once the machine has switched itself off."""
        assert self._process
        try:
            self._process.wait(deadlines.SHUTDOWN)
        except subprocess.TimeoutExpired:
            raise AssertionError(f"{self.name} does not switch itself off") from None

    # The hardware may also be changed while the machine is off.

    def plug(self, name: str, image: Path, port: str) -> None:
        """Plug a USB stick into a port behind the hub."""
        self._sticks[name] = (image, port)
        if self.running():
            self._plug(name, image, port)

    def pull(self, name: str) -> None:
        """Tear a stick out."""
        del self._sticks[name]
        if self.running():
            self.qmp.command("device_del", id=name)
            self.qmp.wait_until_deleted(name)
            self.qmp.command("blockdev-del", node_name=f"medium-{name}")

    def insert(self, slot: int, image: Path) -> None:
        """Put a card into a slot of the unit."""
        self._cards[slot] = image
        if self.running():
            self._insert(slot, image)

    def eject(self, slot: int) -> None:
        """Take the card out of a slot."""
        self._cards[slot] = None
        if self.running():
            self.qmp.command("eject", id=f"card{slot}", force=True)

    def cable(self, plugged: bool) -> None:
        """Pull or plug the network cable."""
        self._cable_plugged = plugged
        if self.running():
            self.qmp.command("set_link", name="eth0", up=plugged)

    def _plug(self, name: str, image: Path, port: str) -> None:
        self.qmp.command("blockdev-add", driver="raw", node_name=f"medium-{name}",
                         file={"driver": "file", "filename": str(image)})
        self.qmp.command("device_add", driver="usb-storage", id=name, drive=f"medium-{name}",
                         bus="xhci.0", port=port, removable=True, serial=f"STICK{name.upper()}")

    def _insert(self, slot: int, image: Path) -> None:
        self.qmp.command("blockdev-change-medium", id=f"card{slot}", filename=str(image),
                         format="raw")

    def _disk(self) -> Path:
        return self._directory / "overlay"

    def _command(self) -> list[str]:
        sockets = self.sockets
        words = [
            # A machine does not outlive this program, and leaves the host to others.
            "setpriv", "--pdeathsig", "KILL",
            "qemu-system-arm", "-name", self.name, "-M", "virt", "-cpu", "cortex-a15",
            "-smp", "1", "-accel", "tcg", "-m", "384", "-no-reboot", "-S", "-nodefaults",
            "-display", "none", "-serial", "stdio",
            "-kernel", str(self._image.kernel), "-initrd", str(self._image.first_root),
            "-append", "console=ttyAMA0 quiet net.ifnames=0 mmcblk.perdev_minors=8"
                       f" next=/sbin/init systemd.hostname={self.name}",
            "-qmp", f"unix:{sockets}/control,server=on,wait=off",
            "-drive", f"file={self._disk()},if=none,id=disk,format=qcow2",
            "-device", "virtio-blk-device,drive=disk",
            "-netdev", f"dgram,id=wire,local.type=unix,local.path={sockets}/wire,"
                       f"remote.type=unix,remote.path={self._other}",
            "-device", f"virtio-net-device,id=eth0,netdev=wire,mac={self._hardware_address}",
            "-device", "qemu-xhci,id=xhci", "-device", "usb-hub,id=hub,bus=xhci.0,port=1",
            "-device", "virtio-serial-device"]
        for name in PORTS:
            words += ["-chardev", f"socket,id={name},path={sockets}/{name},server=on,wait=off",
                      "-device", f"virtserialport,chardev={name},name={name}"]
        for slot in range(CARD_SLOTS):
            words += ["-drive", f"if=none,id=medium{slot}", "-device", f"sdhci-pci,id=slot{slot}",
                      "-device", f"sd-card,id=card{slot},drive=medium{slot},"
                                 f"bus=pcie.0/slot{slot}/sd-bus"]
        return words
