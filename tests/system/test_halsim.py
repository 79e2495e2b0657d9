"""The stand-in hardware service, seen by an ordinary client: devices, signals, mounts."""

import re

import pytest

from halsim_client import (  # noqa: F401  (fixtures)
    DEVICE_INTERFACE, MANAGER, MANAGER_INTERFACE, PREFIX, ROOT, VOLUME_INTERFACE, Client,
    fixture_box, fixture_client, fixture_hal, fixture_sim, signals)
from testbed.hal import CommandFailed, Hal
from testbed.sandbox import Sandbox
from testbed.strace import Strace

# Names, chains and properties

def test_a_stick_has_the_object_names_of_its_chain(sim: Hal) -> None:
    udis = sim.plug("usb stick serial=AA99 uuid=0000-060C")
    usb = PREFIX + "usb_device_90c_1000_AA99"
    assert udis == {
        "usb_device": usb,
        "usb_interface": usb + "_if0",
        "scsi_host": usb + "_if0_scsi_host",
        "scsi_device": usb + "_if0_scsi_host_scsi_device_lun0",
        "storage": PREFIX + "storage_serial_Acme_Voyager_AA99_0_0",
        "volume1": PREFIX + "volume_uuid_0000_060C",
    }


def test_a_stick_s_chain_leads_from_the_volume_to_the_root(sim: Hal, client: Client) -> None:
    udis = sim.plug("usb stick")
    chain = ["volume1", "storage", "scsi_device", "scsi_host", "usb_interface", "usb_device"]
    for child, parent in zip(chain, chain[1:]):
        assert client.get(udis[child], "info.parent") == f"('{udis[parent]}',)"
    assert client.get(udis["usb_device"], "info.parent") == f"('{ROOT}',)"
    assert client.get(ROOT, "info.parent").startswith("org.freedesktop.Hal.NoSuchProperty: ")


@pytest.mark.parametrize("port, path", [
    ("1-1", "usb1/1-1/1-1:1.0"),
    ("1-1.3", "usb1/1-1/1-1.3/1-1.3:1.0"),
    ("2-1.4.2", "usb2/2-1/2-1.4/2-1.4.2/2-1.4.2:1.0"),
])
def test_the_port_gives_the_scsi_host_s_sysfs_path(sim: Hal, client: Client, port: str,
                                                   path: str) -> None:
    udis = sim.plug(f"usb stick port={port} scsi-host=2")
    assert client.get(udis["scsi_host"], "linux.sysfs_path") == (
        f"('/sys/devices/platform/ehci/{path}/host2',)")


def test_usb_ids_stand_on_the_device_alone(sim: Hal, client: Client) -> None:
    udis = sim.plug("usb stick vendor=0x0424 product=0x2240")
    assert client.get(udis["usb_device"], "usb_device.vendor_id", "Integer") == "(1060,)"
    assert client.get(udis["usb_device"], "usb_device.product_id", "Integer") == "(8768,)"
    assert client.get(udis["usb_interface"], "usb_device.vendor_id", "Integer").startswith(
        "org.freedesktop.Hal.NoSuchProperty: ")


def test_an_sd_card_has_the_names_of_its_chain_and_brings_its_host(sim: Hal,
                                                                   client: Client) -> None:
    listing = sim.command("plug sd card cid=1b534d303030303010206bb243009a33 uuid=1769-6A29")
    host = PREFIX + "platform_sdhci_0_mmc_host"
    assert listing == [
        f"device host0:controller {PREFIX}platform_sdhci_0",
        f"device host0:host {host}",
        f"device card:card {host}_mmc_card_rca58916",
        f"device card:storage {PREFIX}storage_serial_0x206bb243",
        f"device card:volume1 {PREFIX}volume_uuid_1769_6A29",
    ]
    assert client.get(host, "mmc_host.host", "Integer") == "(0,)"
    assert client.get(f"{host}_mmc_card_rca58916", "mmc.cid") == (
        "('1b534d303030303010206bb243009a33',)")
    assert signals(sim) == ["DeviceAdded platform_sdhci_0_mmc_host_mmc_card_rca58916",
                            "DeviceAdded storage_serial_0x206bb243",
                            "DeviceAdded volume_uuid_1769_6A29"]


def test_a_host_can_stand_beside_the_card(sim: Hal, client: Client) -> None:
    sim.plug("host left number=0")
    host = sim.plug("host right number=1 cards-on=controller")
    card = sim.plug("sd card host=1")
    assert client.get(card["card"], "info.parent") == f"('{host['controller']}',)"
    assert client.get(host["host"], "info.parent") == f"('{host['controller']}',)"
    assert client.call(MANAGER, f"{MANAGER_INTERFACE}.FindDeviceByCapability", "mmc_host") == (
        f"(['{PREFIX}platform_sdhci_0_mmc_host', '{host['host']}'],)")


def test_a_reader_has_one_host_and_a_disk_for_each_slot(sim: Hal, client: Client) -> None:
    reader = sim.plug("reader rd luns=2")
    assert list(reader) == ["usb_device", "usb_interface", "scsi_host", "scsi_device@0",
                            "storage@0", "scsi_device@1", "storage@1"]
    card = sim.plug("volume rd lun=1")
    assert client.get(card["volume1@1"], "info.parent") == f"('{reader['storage@1']}',)"
    assert client.get(card["volume1@1"], "block.device") == "('/dev/sdb1',)"
    assert client.get(reader["scsi_device@1"], "scsi.lun", "Integer") == "(1,)"
    sim.pull("rd:storage@1")
    assert client.get(card["volume1@1"], "block.device").startswith(
        "org.freedesktop.Hal.NoSuchDevice: ")
    assert client.get(reader["storage@1"], "block.device") == "('/dev/sdb',)"


def test_an_unknown_disk_is_a_child_of_the_root(sim: Hal, client: Client) -> None:
    card = sim.plug("sd lost unknown block=/dev/mmcblk1")
    assert card["storage"] == PREFIX + "computer_storage_unknown_disk"
    assert client.get(card["storage"], "info.parent") == f"('{ROOT}',)"
    assert client.get(card["storage"], "block.device") == "('/dev/mmcblk1',)"


def test_a_volume_of_no_known_bus_tells_none_in_its_names(sim: Hal) -> None:
    udis = sim.plug("scsi disk")
    assert "scsi" in udis["scsi_device"]
    assert not any(word in udi for udi in udis.values() for word in ("usb", "mmc"))


def test_a_file_system_on_the_whole_disk_is_a_volume_below_the_disk(sim: Hal,
                                                                    client: Client) -> None:
    udis = sim.plug("usb stick whole-disk")
    assert client.get(udis["volume0"], "block.device") == "('/dev/sda',)"
    assert client.get(udis["volume0"], "info.parent") == f"('{udis['storage']}',)"
    assert client.get(udis["volume0"], "volume.is_partition", "Boolean") == "(false,)"


def test_the_same_uuid_twice_gets_a_number(sim: Hal) -> None:
    names = [sim.plug(f"usb {name} uuid=AA")["volume1"] for name in ("a", "b", "c")]
    assert names == [PREFIX + "volume_uuid_AA", PREFIX + "volume_uuid_AA_0",
                     PREFIX + "volume_uuid_AA_1"]


def test_properties_of_new_devices_can_be_given_and_taken_away(sim: Hal, client: Client) -> None:
    udis = sim.plug("usb stick volume/volume.label=int:5 usb_device/usb_device.vendor_id=unset"
                    " scsi_host/linux.sysfs_path=string:\"/sys/no where\"")
    assert client.get(udis["volume1"], "volume.label", "Integer") == "(5,)"
    assert client.get(udis["usb_device"], "usb_device.vendor_id", "Integer").startswith(
        "org.freedesktop.Hal.NoSuchProperty: ")
    assert client.get(udis["scsi_host"], "linux.sysfs_path") == "('/sys/no where',)"


# Methods

@pytest.mark.parametrize("method, arguments, answer", [
    ("GetProperty", ["volume.size"], "(<uint64 77>,)"),
    ("GetPropertyString", ["volume.label"], "('it\\'s',)"),
    ("GetPropertyStringList", ["info.capabilities"], "(['volume', 'block'],)"),
    ("GetPropertyInteger", ["block.minor"], "(1,)"),
    ("GetPropertyBoolean", ["volume.is_mounted"], "(false,)"),
    ("GetPropertyType", ["volume.label"], f"({ord('s')},)"),
    ("PropertyExists", ["volume.label"], "(true,)"),
    ("PropertyExists", ["no.such"], "(false,)"),
    ("QueryCapability", ["volume"], "(true,)"),
    ("QueryCapability", ["mmc_host"], "(false,)"),
])
def test_device_methods(sim: Hal, client: Client, method: str, arguments: list[str],
                        answer: str) -> None:
    volume = sim.plug("usb stick size=77 label=\"it's\"")["volume1"]
    found = client.call(volume, f"{DEVICE_INTERFACE}.{method}", *arguments)
    assert found.replace('"it\'s"', "'it\\'s'") == answer


def test_manager_methods(sim: Hal, client: Client) -> None:
    udis = sim.plug("usb stick fstype=ext3")

    def ask(method: str, *arguments: str) -> str:
        return client.call(MANAGER, f"{MANAGER_INTERFACE}.{method}", *arguments)

    everything = [ROOT, *udis.values()]
    assert ask("GetAllDevices") == f"({everything},)"
    assert all(f"('{udi}', {{" in ask("GetAllDevicesWithProperties") for udi in everything)
    assert ask("DeviceExists", udis["storage"]) == "(true,)"
    assert ask("DeviceExists", PREFIX + "none") == "(false,)"
    assert ask("FindDeviceStringMatch", "volume.fstype", "ext3") == f"(['{udis['volume1']}'],)"
    assert ask("FindDeviceByCapability", "storage") == f"(['{udis['storage']}'],)"
    assert ask("FindDeviceByCapability", "camera") == "(@as [],)"


@pytest.mark.parametrize("path, method, arguments, error", [
    (PREFIX + "none", "Device.GetPropertyString", ["x"], "org.freedesktop.Hal.NoSuchDevice"),
    ("/nowhere", "Device.GetPropertyString", ["x"], "org.freedesktop.Hal.NoSuchDevice"),
    (ROOT, "Device.GetPropertyString", ["x"], "org.freedesktop.Hal.NoSuchProperty"),
    (ROOT, "Device.GetPropertyInteger", ["info.udi"], "org.freedesktop.Hal.TypeMismatch"),
    (ROOT, "Device.GetAllProperties", ["'too much'"], "org.freedesktop.Hal.SyntaxError"),
    (ROOT, "Device.Reboot", [], "org.freedesktop.DBus.Error.UnknownMethod"),
    (ROOT, "Device.Volume.Unmount", ["@as []"], "org.freedesktop.DBus.Error.UnknownMethod"),
])
def test_errors(sim: Hal, client: Client, path: str, method: str, arguments: list[str],
                error: str) -> None:
    answer = client.call(path, f"org.freedesktop.Hal.{method}", *arguments)
    assert answer.startswith(f"{error}: ")
    sim.expect(re.compile(f"^error-reply {re.escape(error)} :"))


def test_introspection_tells_children_and_interfaces(sim: Hal, box: Sandbox) -> None:
    volume = sim.plug("usb stick uuid=AA")["volume1"]

    def introspect(path: str) -> str:
        return box.run(["gdbus", "introspect", "--system", "--dest", "org.freedesktop.Hal",
                        "--object-path", path]).stdout

    assert "node volume_uuid_AA" in introspect("/org/freedesktop/Hal/devices")
    assert "Mount(in  s mount_point," in introspect(volume)
    assert "FindDeviceByCapability(in  s capability," in introspect(MANAGER)
    assert VOLUME_INTERFACE not in introspect(ROOT)


# Arrival, removal and changes

def test_clients_hear_arrival_and_removal_in_order(sim: Hal, client: Client) -> None:
    client.listen(sim)
    udis = sim.plug("usb stick")
    for udi in udis.values():
        client.heard.expect(f"{MANAGER}: {MANAGER_INTERFACE}.DeviceAdded ('{udi}',)")
    sim.pull("stick")
    for role in ("volume1", "scsi_device", "usb_interface", "usb_device", "scsi_host", "storage"):
        client.heard.expect(f"{MANAGER}: {MANAGER_INTERFACE}.DeviceRemoved ('{udis[role]}',)")


def test_a_mounted_device_that_is_pulled_is_unmounted_first(sim: Hal, client: Client,
                                                            box: Sandbox) -> None:
    volume = sim.plug("usb stick uuid=AA")["volume1"]
    assert client.mount(volume, "sda1") == "(0,)"
    sim.pull("stick")
    events = sim.lines()
    unmounted = events.index(f"unmounted {volume} /media/sda1")
    assert events[unmounted + 1].startswith(f"signal PropertyModified {volume} ")
    assert events[unmounted + 2].startswith("signal DeviceRemoved ")
    assert not box.path("/media/sda1").exists()


def test_gaps_put_time_between_the_objects(sim: Hal, box: Sandbox) -> None:
    sim.command("gap storage 200")
    sim.command("gap volume 100")
    with Strace(sim.process, box.logs / "strace-gaps", "-s", "500", "-e", "trace=write") as trace:
        udis = sim.plug("sd card")
        for role in ("card", "storage", "volume1"):
            sim.expect(re.compile(f"^signal DeviceAdded .*'{udis[role]}'"))
    card, storage, volume = trace.times(
        "signal DeviceAdded .*'(" + "|".join(udis[role] for role in udis) + ")'")
    assert storage - card >= 0.2
    assert volume - storage >= 0.1


def test_a_device_that_is_pulled_while_it_arrives_never_comes(sim: Hal, client: Client) -> None:
    sim.command("gap storage 60000")
    udis = sim.plug("usb stick")
    assert client.get(udis["storage"], "info.udi").startswith("org.freedesktop.Hal.NoSuchDevice")
    sim.pull("stick")
    assert signals(sim)[-1] == "DeviceRemoved usb_device_90c_1000_stick_if0_scsi_host"
    sim.command("gap storage 0")
    assert sim.plug("usb stick") == udis


def test_after_the_removal_gap_the_objects_go(sim: Hal, client: Client) -> None:
    volume = sim.plug("usb stick mounted")["volume1"]
    sim.command("gap removal 60000")
    sim.pull("stick")
    assert client.get(volume, "volume.is_mounted", "Boolean") == "(false,)"
    with pytest.raises(CommandFailed, match="is being pulled"):
        sim.pull("stick")
    other = sim.plug("usb other mounted")
    sim.command("gap removal 100")
    sim.pull("other")
    sim.expect(re.compile(f"^signal DeviceRemoved .*'{other['storage']}'"))
    assert client.get(other["volume1"], "info.udi").startswith("org.freedesktop.Hal.NoSuchDevice")


def test_changes_are_announced_newest_first_and_only_if_they_change(sim: Hal,
                                                                    client: Client) -> None:
    volume = sim.plug("usb stick label=OLD")["volume1"]
    client.listen(sim)
    sim.command("set stick volume.label=string:OLD")
    sim.command("set stick volume.label=string:NEW my.own=int:1 volume.fstype=unset"
                " volume.uuid=string:x")
    assert client.heard_of(sim) == [
        f"{volume}: {DEVICE_INTERFACE}.PropertyModified (4, [('volume.uuid', false, false),"
        " ('volume.fstype', false, true), ('my.own', true, false), ('volume.label', false, false)])"
    ]


def test_quiet_changes_send_no_signal(sim: Hal, client: Client) -> None:
    for command in ("plug usb stick uuid=AA", "set stick volume.label=string:x", "mount stick"):
        sim.command(f"quiet {command}")
    assert client.get(PREFIX + "volume_uuid_AA", "volume.mount_point") == "('/media/sda1',)"
    sim.command("quiet pull stick")
    assert signals(sim) == []


def test_a_script_runs_before_the_name_is_taken(hal: Hal, client: Client) -> None:
    hal.start(script="# before\nplug usb stick uuid=AA mounted\nnonsense\n", real_mounts=False)
    assert client.call(MANAGER, f"{MANAGER_INTERFACE}.FindDeviceByCapability", "volume") == (
        f"(['{PREFIX}volume_uuid_AA'],)")
    assert signals(hal) == []
    texts = hal.lines()
    assert texts.index('error: unknown command "nonsense"') < texts.index(
        f"ready {hal.unique_name}")


# Mounting

def test_a_mount_makes_the_directory_and_changes_three_properties(sim: Hal, client: Client,
                                                                  box: Sandbox) -> None:
    volume = sim.plug("usb stick readonly")["volume1"]
    client.listen(sim)
    assert client.mount(volume, "disk one") == "(0,)"
    client.heard.expect(
        f"{volume}: {DEVICE_INTERFACE}.PropertyModified (3, [('volume.mount_point', false, false),"
        " ('volume.is_mounted_read_only', false, false), ('volume.is_mounted', false, false)])")
    assert box.path("/media/disk one").is_dir()
    assert client.get(volume, "volume.mount_point") == "('/media/disk one',)"
    assert client.get(volume, "volume.is_mounted_read_only", "Boolean") == "(true,)"
    texts = sim.lines()
    announced = next(i for i, text in enumerate(texts) if text.startswith("signal PropertyM"))
    answered = next(i for i, text in enumerate(texts) if text.endswith(".Mount(0)"))
    assert announced < answered


def test_the_mount_command_gets_what_it_needs(hal: Hal, client: Client, box: Sandbox) -> None:
    hal.start("--mount-command=env > $MOUNT_POINT/env", "--unmount-command=rm $MOUNT_POINT/env",
              real_mounts=False)
    volume = hal.plug("usb stick label=CHARTS")["volume1"]
    assert client.mount(volume, "sda1", "vfat", "['utf8,shortname=mixed']") == "(0,)"
    environment = box.path("/media/sda1/env").read_text().splitlines()
    assert {f"UDI={volume}", "DEVICE=/dev/sda1", "MOUNT_POINT=/media/sda1", "FSTYPE=vfat",
            "OPTIONS=utf8,shortname=mixed,nosuid,nodev", "LABEL=CHARTS"} <= set(environment)
    assert client.call(volume, f"{VOLUME_INTERFACE}.Unmount", "@as []") == "(0,)"
    assert not box.path("/media/sda1").exists()


def test_a_failing_mount_command_leaves_nothing(hal: Hal, client: Client, box: Sandbox) -> None:
    hal.start("--mount-command=exit 32", real_mounts=False)
    volume = hal.plug("usb stick")["volume1"]
    assert client.mount(volume, "sda1").startswith(f"{VOLUME_INTERFACE}.UnknownFailure: ")
    assert not box.path("/media/sda1").exists()
    assert client.get(volume, "volume.is_mounted", "Boolean") == "(false,)"


def test_a_failing_unmount_command_is_busy(hal: Hal, client: Client, box: Sandbox) -> None:
    hal.start("--unmount-command=test \"$OPTIONS\" = lazy", real_mounts=False)
    volume = hal.plug("usb stick")["volume1"]
    client.mount(volume, "sda1")
    assert client.call(volume, f"{VOLUME_INTERFACE}.Unmount", "@as []").startswith(
        f"{VOLUME_INTERFACE}.Busy: ")
    assert client.get(volume, "volume.is_mounted", "Boolean") == "(true,)"
    hal.pull("stick")
    assert not box.path("/media/sda1").exists()


@pytest.mark.parametrize("name, fstype, options, error", [
    ("a/b", "vfat", "[]", "InvalidMountpoint"),
    ("a\nb", "vfat", "[]", "InvalidMountpoint"),
    ("..", "vfat", "[]", "MountPointNotAvailable"),
    ("taken", "vfat", "[]", "MountPointNotAvailable"),
    ("sda1", "vfat", "['nonsense']", "InvalidMountOption"),
    ("sda1", "vfat", "['utf8,nonsense=1']", "InvalidMountOption"),
    ("sda1", "", "[]", "UnknownFilesystemType"),
    ("sda1", "vfat", "['remount', 'ro']", "CannotRemount"),
])
def test_a_mount_is_refused(sim: Hal, client: Client, box: Sandbox, name: str, fstype: str,
                            options: str, error: str) -> None:
    box.path("/media/taken").mkdir()
    volume = sim.plug("usb stick fstype=")["volume1"]
    assert client.mount(volume, name, fstype, options).startswith(f"{VOLUME_INTERFACE}.{error}: ")
    assert [left.name for left in box.path("/media").iterdir()] == ["taken"]
    assert not [text for text in signals(sim) if text.startswith("PropertyModified")]


def test_without_a_list_of_valid_options_every_option_is_taken(sim: Hal, client: Client) -> None:
    volume = sim.plug("usb stick volume/volume.mount.valid_options=unset")["volume1"]
    assert client.mount(volume, "sda1", "vfat", "['nonsense']") == "(0,)"


def test_a_mounted_volume_can_be_remounted_and_not_mounted_again(sim: Hal, client: Client) -> None:
    volume = sim.plug("usb stick")["volume1"]
    client.mount(volume, "sda1")
    assert client.mount(volume, "other").startswith(f"{VOLUME_INTERFACE}.AlreadyMounted: ")
    client.listen(sim)
    assert client.mount(volume, "sda1", "vfat", "['remount', 'ro']") == "(0,)"
    client.heard.expect(f"{volume}: {DEVICE_INTERFACE}.PropertyModified"
                        " (1, [('volume.is_mounted_read_only', false, false)])")


def test_an_empty_name_is_chosen_by_the_service(sim: Hal, client: Client, box: Sandbox) -> None:
    for name, label, expected in (("a", "CHARTS", "CHARTS"), ("b", "CHARTS", "CHARTS-1"),
                                  ("c", "no/name", "disk")):
        volume = sim.plug(f"usb {name} label={label}")["volume1"]
        assert client.mount(volume, "") == "(0,)"
        assert box.path(f"/media/{expected}").is_dir()


def test_mounts_of_others_are_told_apart(sim: Hal, client: Client, box: Sandbox) -> None:
    volume = sim.plug("usb stick")["volume1"]
    unmount = f"{VOLUME_INTERFACE}.Unmount"
    assert client.call(volume, unmount, "@as []").startswith(f"{VOLUME_INTERFACE}.NotMounted: ")
    sim.command("mount stick /mnt/stick ro")
    assert box.path("/mnt/stick").is_dir()
    assert client.get(volume, "volume.mount_point") == "('/mnt/stick',)"
    assert client.call(volume, unmount, "@as []").startswith(
        f"{VOLUME_INTERFACE}.NotMountedByHal: ")
    sim.command("remount stick rw")
    assert client.get(volume, "volume.is_mounted_read_only", "Boolean") == "(false,)"
    sim.command("unmount stick")
    assert not box.path("/mnt/stick").exists()


def test_eject_takes_all_volumes_of_the_disk_away(sim: Hal, client: Client) -> None:
    udis = sim.plug("usb stick partitions=2")
    client.mount(udis["volume2"], "sda2")
    assert client.call(udis["volume1"], f"{VOLUME_INTERFACE}.Eject", "@as []") == "(0,)"
    for role, exists in (("volume1", "false"), ("volume2", "false"), ("storage", "true")):
        assert client.call(MANAGER, f"{MANAGER_INTERFACE}.DeviceExists", udis[role]) == (
            f"({exists},)")
