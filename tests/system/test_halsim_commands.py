"""The stand-in hardware service: raw signals, faults, leaving, bad commands, its end."""

import re

import pytest

from halsim_client import (  # noqa: F401  (fixtures)
    DEVICE_INTERFACE, MANAGER, PREFIX, ROOT, Client,
    fixture_box, fixture_client, fixture_hal, fixture_sim, signals)
from testbed import target
from testbed.bus import Bus
from testbed.hal import CommandFailed, Hal
from testbed.sandbox import Sandbox
from testbed.strace import Strace
from testbed.tape import Tape

# Raw signals and faults

def test_a_raw_signal_is_sent_as_it_is_told(sim: Hal, client: Client) -> None:
    client.listen(sim)
    sim.command(f"emit {ROOT} {DEVICE_INTERFACE} PropertyModified (3, [('x', false, false)])")
    client.heard.expect(f"{ROOT}: {DEVICE_INTERFACE}.PropertyModified"
                        " (3, [('x', false, false)])")
    sim.command(f"emit {MANAGER} com.example.Other DeviceAdded (uint32 42,)")
    client.heard.expect(f"{MANAGER}: com.example.Other.DeviceAdded (uint32 42,)")


def test_a_raw_signal_can_go_to_one_client(sim: Hal) -> None:
    sim.command(f"emit to={sim.unique_name} /a a.b Member")
    sim.expect(f"signal Member /a a.b() to {sim.unique_name}")


def test_the_next_call_can_be_refused_answered_oddly_or_late(sim: Hal, client: Client,
                                                             box: Sandbox) -> None:
    sim.command("fail GetPropertyString:info.udi org.freedesktop.Hal.PermissionDenied \"not you\"")
    sim.command("answer GetPropertyString (7,)")
    sim.command("delay GetPropertyString 300")
    assert client.get(ROOT, "linux.sysfs_path") == "(7,)"
    assert client.get(ROOT, "info.udi") == "org.freedesktop.Hal.PermissionDenied: not you"
    with Strace(sim.process, box.logs / "strace-delay", "-s", "500", "-e", "trace=write") as trace:
        assert client.get(ROOT, "info.udi") == f"('{ROOT}',)"
    asked, answered = trace.times(r"(call|reply) .*GetPropertyString\(")
    assert answered - asked >= 0.3
    assert client.get(ROOT, "info.udi") == f"('{ROOT}',)"


def test_a_fault_that_is_taken_back_does_not_happen(sim: Hal, client: Client) -> None:
    sim.command("fail GetPropertyString org.freedesktop.Hal.Error")
    sim.command("forget")
    assert client.get(ROOT, "info.udi") == f"('{ROOT}',)"


def test_leaving_in_the_middle_of_a_call_leaves_it_unanswered(sim: Hal, client: Client) -> None:
    sim.command("ignore GetPropertyString")
    call = client.start_call(ROOT, f"{DEVICE_INTERFACE}.GetPropertyString", "info.udi")
    sim.expect(re.compile("^no-reply "))
    sim.command("drop")
    assert call.wait() != 0
    assert "org.freedesktop.DBus.Error.NoReply" in call.stderr()
    assert "org.freedesktop.DBus.Error.ServiceUnknown" in client.get(ROOT, "info.udi")
    sim.plug("usb stick uuid=AA")
    sim.command("return")
    assert client.get(PREFIX + "volume_uuid_AA", "volume.uuid") == "('AA',)"
    assert signals(sim) == []


def test_a_delayed_call_can_be_answered_on_leaving(sim: Hal, client: Client) -> None:
    sim.command("delay GetPropertyString 60000")
    call = client.start_call(ROOT, f"{DEVICE_INTERFACE}.GetPropertyString", "info.udi")
    sim.expect_call("GetPropertyString")
    sim.command("drop answer")
    assert call.wait() == 0
    assert call.stdout() == f"('{ROOT}',)\n"


def test_the_name_can_go_while_the_connection_stays(sim: Hal, client: Client) -> None:
    sim.command("delay GetPropertyString 300")
    call = client.start_call(ROOT, f"{DEVICE_INTERFACE}.GetPropertyString", "info.udi")
    sim.expect_call("GetPropertyString")
    sim.command("drop name")
    assert "ServiceUnknown" in client.get(ROOT, "info.udi")
    assert call.wait() == 0
    sim.command("return")
    assert client.get(ROOT, "info.udi") == f"('{ROOT}',)"


# Commands

@pytest.mark.parametrize("line, error", [
    (f"emit /a a.b M {'(' * 33}1{',)' * 33}", "the value is nested too deeply"),
    ("x" * 65537, "the line is too long"),
], ids=["a value", "a line"])
def test_a_bad_command_is_answered_and_changes_nothing(sim: Hal, line: str, error: str) -> None:
    with pytest.raises(CommandFailed, match=re.escape(f"error: {error}")):
        sim.command(line)
    assert sim.command("list") == [f"device - {ROOT}"]


def test_what_show_prints_can_be_given_back_to_set(sim: Hal) -> None:
    sim.plug('usb stick label="a \\"b\\" \\\\ \\n \\x7f" volume/d=double:0.5 volume/l=strlist:')
    shown = [line.removeprefix("property ") for line in sim.command("show stick")]
    before = signals(sim)
    sim.command(f"set stick {' '.join(shown)}")
    assert signals(sim) == before


def test_it_ends_on_quit_on_end_of_input_and_when_told(hal: Hal) -> None:
    hal.start(real_mounts=False)
    assert hal.process
    hal.command("quit")
    assert hal.process.wait() == 0
    hal.start(real_mounts=False)
    hal.process.close_input()
    assert hal.process.wait() == 0
    hal.start(real_mounts=False)
    assert hal.stop() == 0


def test_the_bus_can_go_and_come_back(box: Sandbox) -> None:
    with Sandbox(box.logs / "bus", target.read_only_mounts()) as sandbox:
        bus = Bus(sandbox)
        bus.start()
        hal = Hal(sandbox, Tape())
        hal.start(real_mounts=False)
        bus.kill()
        hal.expect("disconnected")
        with pytest.raises(CommandFailed):
            hal.command("return")
        hal.plug("usb stick uuid=AA")
        bus.start()
        hal.command("return")
        client = Client(sandbox, hal.events.tape)
        assert client.get(PREFIX + "volume_uuid_AA", "volume.uuid") == "('AA',)"
        assert hal.stop() == 0


@pytest.mark.parametrize("arguments, text", [
    (["--nonsense"], "voldrake-halsim: Unknown option --nonsense"),
    (["nonsense"], "voldrake-halsim: unexpected word: nonsense"),
    (["--root="], "voldrake-halsim: the value of --root is missing"),
    (["--address=unix:path=/nowhere"], "voldrake-halsim: "),
    (["--file=/nowhere"], "voldrake-halsim: cannot read /nowhere"),
])
def test_a_start_that_fails_says_why(box: Sandbox, arguments: list[str], text: str) -> None:
    result = box.run([target.program("voldrake-halsim"), *arguments])
    assert result.returncode == 1
    assert result.stderr.startswith(text)


def test_a_name_that_is_taken_ends_the_second_service(sim: Hal, box: Sandbox) -> None:
    assert sim.unique_name
    result = box.run([target.program("voldrake-halsim")])
    assert result.returncode == 1
    assert "owned by somebody else" in result.stderr
