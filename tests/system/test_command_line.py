"""The command line: defaults, every option's effect, and what bad command lines get."""

import pytest

from testbed import target
from testbed.daemon import DEBUG, INFO, WARNING
from testbed.unit import Unit

WORDS_THAT_END_IT = {
    "an option without its argument, after good ones":
        (["--port", "9000", "--daemon", "--log"], "Missing required argument: --log"),
    "stray words before and after options":
        (["one", "--port", "9000", "two"], "The following were ignored: one two"),
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


@pytest.mark.parametrize("question", ANSWERS)
def test_a_question_is_answered_and_nothing_else_is_done(unit: Unit, question: str) -> None:
    log = "/var/log/asked.log"
    done = unit.sandbox.run([*target.daemon_command(), "--log", log, "--daemon",
                             "--file-timeout=60", "stray", question])
    assert (done.returncode, done.stderr) == (0, "")
    assert done.stdout.startswith(ANSWERS[question])
    assert not unit.exists(log)
    assert unit.syslog.records() == []
    assert unit.hal.calls() == []


def test_a_question_whose_answer_nobody_gets_fails(unit: Unit) -> None:
    done = unit.sandbox.run(
        ["/bin/sh", "-c", 'exec "$@" >/dev/full', "sh", *target.daemon_command(), "--version"])
    assert done.returncode == 1


HARDLY_MEANT = {
    "a port that is no number":
        (["--port=abc"], 'Option --port: "abc" is not a number, using 0'),
    "an identity file that is not there":
        (["--serial-number-file=/etc/serail"], "Identity file /etc/serail is missing or empty"),
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


@pytest.mark.parametrize("words, port", [([], 8080), (["--port=-5"], -5)],
                         ids=["by default", "negative"])
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


@pytest.mark.unit_options(mmc_hosts=0, family=None)
def test_without_hosts_a_card_has_no_link_of_its_own(unit: Unit) -> None:
    """Not even the directory of the hosts is there."""
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
