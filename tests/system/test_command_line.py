"""The command line: defaults, every option's effect, and what bad command lines get."""

import pytest

from testbed import target
from testbed.daemon import DEBUG, INFO, WARNING
from testbed.unit import Unit

WORDS_THAT_END_IT = {
    "an option at the end without its argument":
        (["--port"], "Missing required argument: --port"),
    "another option without its argument, after good ones":
        (["--port", "9000", "--daemon", "--log"], "Missing required argument: --log"),
    "an unknown option": (["--bogus"], "Unknown option: --bogus"),
    "an unknown option with a value joined to it": (["--bogus=5"], "Unknown option: --bogus=5"),
    "a short option": (["-p"], "Unknown option: -p"),
    "an argument for the option that takes none":
        (["--daemon=yes"], "Unknown option: --daemon=yes"),
    "the first of two errors": (["--bogus", "--port"], "Unknown option: --bogus"),
    "a stray word": (["extra"], "The following were ignored: extra"),
    "stray words before and after options":
        (["one", "--port", "9000", "two"], "The following were ignored: one two"),
    "an option word after the end of options":
        (["--", "--port"], "The following were ignored: --port"),
    "an empty stray word": ([""], "The following were ignored: "),
    "a stray word of one that would detach":
        (["--daemon", "extra"], "The following were ignored: extra"),
}


@pytest.mark.parametrize("words, message", WORDS_THAT_END_IT.values(), ids=WORDS_THAT_END_IT)
def test_a_bad_command_line_ends_it_with_one_message(unit: Unit, words: list[str],
                                                     message: str) -> None:
    log = "/var/log/refused.log"
    done = unit.sandbox.run([*target.daemon_command(), "--log", log, *words])
    assert (done.returncode, done.stdout, done.stderr) == (1, "", message + "\n")
    assert not unit.exists(log)
    assert unit.syslog.records() == []
    assert unit.hal.calls() == []


ANSWERS = {
    "--help": "Usage: voldrake [OPTION]...\n",
    "--version": "voldrake 1.10\n",
}


@pytest.mark.parametrize("words", [[], ["--daemon", "--file-timeout=60"], ["stray"]],
                         ids=["alone", "after options", "after a stray word"])
@pytest.mark.parametrize("question", ANSWERS)
def test_a_question_is_answered_and_nothing_else_is_done(unit: Unit, question: str,
                                                         words: list[str]) -> None:
    log = "/var/log/asked.log"
    done = unit.sandbox.run([*target.daemon_command(), "--log", log, *words, question])
    assert (done.returncode, done.stderr) == (0, "")
    assert done.stdout.startswith(ANSWERS[question])
    assert not unit.exists(log)
    assert unit.syslog.records() == []
    assert unit.hal.calls() == []


@pytest.mark.parametrize("question", ANSWERS)
def test_a_question_whose_answer_nobody_gets_fails(unit: Unit, question: str) -> None:
    done = unit.sandbox.run(
        ["/bin/sh", "-c", 'exec "$@" >/dev/full', "sh", *target.daemon_command(), question])
    assert done.returncode == 1


HARDLY_MEANT = {
    "a port that is no number":
        (["--port=abc"], 'Option --port: "abc" is not a number, using 0'),
    "a port that is none":
        (["--port=80800"], 'Option --port: "80800" is not a port, which is 1 to 65535'),
    "a peer that is no hardware address":
        (["--peer-mac=xyz"],
         'Option --peer-mac: "xyz" is not a hardware address, no unit is the peer'),
    "a time-out that is no number":
        (["--file-timeout=soon"], 'Option --file-timeout: "soon" is not a number, using 0'),
    "an identity file that is not there":
        (["--serial-number-file=/etc/serail"], "Identity file /etc/serail is missing or empty"),
    "one that is empty":
        (["--content-id-file=/dev/null"], "Identity file /dev/null is missing or empty"),
}


@pytest.mark.parametrize("words, warning", HARDLY_MEANT.values(), ids=HARDLY_MEANT)
def test_a_value_that_can_hardly_be_meant_is_warned_of(unit: Unit, words: list[str],
                                                       warning: str) -> None:
    unit.daemon.start(*words)
    unit.hal.expect_call("FindDeviceByCapability")
    assert [line.text for line in unit.daemon.log_lines() if line.level == WARNING] == [warning]


def test_without_such_a_value_there_is_no_warning(unit: Unit) -> None:
    unit.sandbox.write("/etc/serial", "7\n")
    unit.start_daemon("--peer-mac=00:11:22:33:44:55", "--serial-number-file=/etc/serial",
                      "--file-timeout=0")
    assert [line for line in unit.daemon.log_lines() if line.level <= WARNING] == []


UNWRITABLE_LOGS = {
    "a directory": (["--log=/srv"], "/srv: Is a directory"),
    "a file in a directory that does not exist":
        (["--log=/nowhere/voldrake.log"], "/nowhere/voldrake.log: No such file or directory"),
    "a directory of a daemon that detaches to the root":
        (["--log=srv", "--daemon"], "srv: Is a directory"),
}


@pytest.mark.parametrize("words, complaint", UNWRITABLE_LOGS.values(), ids=UNWRITABLE_LOGS)
def test_a_log_that_cannot_be_written_is_told_on_standard_error(
        unit: Unit, words: list[str], complaint: str) -> None:
    """The daemon runs all the same."""
    unit.daemon.start(*words, log_file=None)
    unit.hal.expect_call("FindDeviceByCapability")
    unit.daemon.process.expect_stderr(f"Nothing is logged to {complaint}\n")


OPTIONS_AND_VERSIONS = {
    "by default": ([], 8080),
    "given as the next word": (["--port", "9000"], 9000),
    "joined by an equals sign": (["--port=9001"], 9001),
    "given twice, the last one counts": (["--port", "1", "--port", "9002"], 9002),
    "not a number": (["--port", "x"], 0),
    "with letters behind the number": (["--port", "77seven"], 77),
    "negative": (["--port", "-5"], -5),
    "in base ten whatever it looks like": (["--port", "0x10"], 0),
}


@pytest.mark.parametrize("words, port", OPTIONS_AND_VERSIONS.values(), ids=OPTIONS_AND_VERSIONS)
def test_the_version_line_shows_the_port(unit: Unit, words: list[str], port: int) -> None:
    unit.daemon.start(*words)
    unit.daemon.expect_log(INFO, "Voldrake startup")
    unit.daemon.expect_log(INFO, f"Version - 1.10 Client port - {port}")


@pytest.mark.unit_options(port=9123)
def test_the_application_is_told_at_the_given_port(running_unit: Unit) -> None:
    running_unit.hal.plug("usb stick")
    running_unit.application.expect_message("dataarrival", path="/media/sda1")


def test_without_options_it_logs_to_syslog_at_level_three_and_stays_in_the_foreground(
        unit: Unit) -> None:
    unit.daemon.start(log_file=None, debug_level=None)
    unit.hal.expect_call("FindDeviceByCapability")
    unit.settle()
    assert [record.text for record in unit.syslog.records()] == [
        "Voldrake startup", "Version - 1.10 Client port - 8080", "_ManualScan()"]
    unit.hal.plug("usb stick")
    unit.application.expect_message("dataarrival", path="/media/sda1")
    assert unit.daemon.terminate() == 0
    assert unit.daemon.stderr() == ""


NFS_ROOTS = {
    "none": ([], "/srv/nfs/usb1", "/srv/nfs/usb1"),
    "without a slash at its end": (["--nfs-root", "/srv/nfs"], "/srv/nfs/usb1", "/mnt/usb1"),
    "with a slash at its end": (["--nfs-root", "/srv/nfs/"], "/srv/nfs/usb1", "/mnt/usb1"),
    "and a path that is the root itself": (["--nfs-root", "/srv/nfs"], "/srv/nfs/", "/mnt/"),
    "and a path that only begins like it":
        (["--nfs-root", "/srv/nfs"], "/srv/nfs2/a", "/srv/nfs2/a"),
    "and a path elsewhere": (["--nfs-root", "/srv/nfs"], "/media/sda1", "/media/sda1"),
    "empty": (["--nfs-root", ""], "/srv/nfs/usb1", "/srv/nfs/usb1"),
    "given twice": (["--nfs-root", "/a", "--nfs-root", "/b"], "/b/usb1", "/mnt/usb1"),
}


@pytest.mark.parametrize("words, mount_point, told", NFS_ROOTS.values(), ids=NFS_ROOTS)
def test_paths_under_the_nfs_root_are_told_as_under_mnt(unit: Unit, words: list[str],
                                                        mount_point: str, told: str) -> None:
    unit.start_daemon(*words)
    unit.hal.plug(f"usb stick volume/volume.is_mounted=bool:true"
                  f" volume/volume.mount_point=string:{mount_point}")
    assert unit.application.expect_message("dataarrival")["path"] == told
    unit.hal.command("quiet set stick volume.is_mounted=bool:false")
    unit.hal.pull("stick")
    assert unit.application.expect_message("dataremoval")["path"] == told


@pytest.mark.unit_options(mmc_hosts=0)
@pytest.mark.parametrize("entries, name", [
    (["mmc0", "mmc1"], "Memory Card"),
    (["mmc0", "mmc1", "mmc2"], "Memory Card - 0"),
    (["mmc0", "mmcother", "usb0", "mm", "xmmc1"], "Memory Card"),
], ids=["two hosts", "three hosts", "only entries that begin with mmc count"])
def test_a_card_is_named_by_the_number_of_hosts(unit: Unit, entries: list[str], name: str) -> None:
    for entry in entries:
        unit.sandbox.path(f"/sys/class/mmc_host/{entry}").mkdir(parents=True)
    unit.start_daemon()
    unit.hal.plug("sd card")
    unit.application.expect_message("dataarrival")
    unit.settle()
    assert unit.links() == {name: "mmcblk0p1"}


@pytest.mark.unit_options(mmc_hosts=0, family=None)
@pytest.mark.parametrize("entries", [None, [], ["mmc0"]],
                         ids=["no directory", "no hosts", "one host"])
def test_with_less_than_two_hosts_a_card_has_no_link_of_its_own(unit: Unit,
                                                                entries: list[str] | None) -> None:
    for entry in [".", *entries] if entries is not None else []:
        unit.sandbox.path(f"/sys/class/mmc_host/{entry}").mkdir(parents=True)
    unit.start_daemon()
    assert [line for line in unit.daemon.log_lines() if line.level <= WARNING] == []
    unit.hal.plug("sd card")
    unit.application.expect_message("dataarrival", friendlyname="Memory Card - 0")
    unit.settle()
    assert unit.links() == {}


def test_a_text_option_for_vfat_reaches_the_mount_whole(unit: Unit) -> None:
    unit.start_daemon("--vfat-mount-opts", "ro", "--vfat-mount-opts=utf8,shortname=mixed")
    unit.hal.plug("usb stick fstype=vfat")
    call = unit.hal.expect_call("Mount")
    assert call.arguments == "'sda1', 'vfat', ['utf8,shortname=mixed']"
    unit.settle()
    assert unit.daemon.logged(DEBUG, "utf8,shortname=mixed") == 1
