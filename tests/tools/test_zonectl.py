"""The shipped zonectl against a mock zone manager on a private bus."""

import json
import os
import pty
import re
import signal
import subprocess
import time

import bus_fixtures
import pytest

TIME = r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}[+-]\d\d:\d\d"


def refused(result, status):
    """The command failed with this status, and said why in one line."""
    return (result.returncode == status and result.stderr.startswith("zonectl: ")
            and result.stderr.count("\n") == 1)


@pytest.mark.parametrize("arguments", [
    (), ("frobnicate",), ("list", "extra"), ("state",), ("state", ""), ("start", "a", "b"),
    ("list", "--nonsense"), ("list", "--timeout", "soon"), ("list", "--timeout=0"), ("list", "--color=blue"),
    ("watch", "--wait"), ("list", "--root", "/image"), ("doctor", "--root", "relative"),
])
def test_wrong_usage(arguments):
    result = bus_fixtures.zonectl(*arguments)
    assert refused(result, 2), result
    assert result.stdout == ""


def test_help_and_version_need_nothing():
    assert bus_fixtures.zonectl("--version").stdout == "zonectl 4.0.28\n"
    for arguments in (("--help",), ("-h",), ("start", "--help")):
        result = bus_fixtures.zonectl(*arguments)
        assert (result.returncode, result.stderr) == (0, "")
        assert result.stdout.startswith("Usage: zonectl ")


BUS_COMMANDS = [("list",), ("state", "a"), ("init-pid", "a"), ("version", "a"), ("start", "a"), ("stop", "a"),
                ("unfreeze", "a"), ("watch",)]


@pytest.mark.parametrize("arguments", BUS_COMMANDS)
def test_without_a_bus(arguments):
    result = bus_fixtures.zonectl(*arguments)
    assert refused(result, 3) and "cannot reach the system bus" in result.stderr


@pytest.mark.parametrize("arguments", BUS_COMMANDS)
def test_without_the_daemon(bus, arguments):
    result = bus_fixtures.zonectl(*arguments, address=bus.address)
    assert refused(result, 3) and "the zone manager is not running" in result.stderr


def test_list(zonectl):
    result = zonectl("list")
    assert (result.returncode, result.stderr) == (0, "")
    rows = [line.split() for line in result.stdout.splitlines()]
    assert rows == [["NAME", "KIND", "STATE", "INIT", "PID"],
                    ["guard", "-", "protected/refused", "-"],
                    ["icy", "-", "FROZEN", "-"],
                    ["media", "-", "RUNNING", "4242"],
                    ["nav", "-", "STOPPED", "-"]]


def test_list_as_json(zonectl):
    zones = {zone["name"]: zone for zone in json.loads(zonectl("--json", "list").stdout)}
    assert list(zones) == ["guard", "icy", "media", "nav"]
    assert zones["media"] == {"name": "media", "kind": None, "access": "granted", "state": "RUNNING",
                              "init_pid": 4242}
    assert zones["guard"] == {"name": "guard", "kind": None, "access": "protected/refused", "state": None,
                              "init_pid": None}


def test_facts_about_a_zone(zonectl):
    assert zonectl("state", "media").stdout == "RUNNING\n"
    assert zonectl("init-pid", "media").stdout == "4242\n"
    assert zonectl("version", "media").stdout == "4.0.28/4.0.12\n"
    assert json.loads(zonectl("state", "media", "--json").stdout) == {"name": "media", "state": "RUNNING"}
    assert json.loads(zonectl("init-pid", "media", "--json").stdout) == {"name": "media", "init_pid": 4242}


@pytest.mark.parametrize("command", ["state", "init-pid", "version", "start", "stop", "unfreeze"])
def test_a_refused_zone(zonectl, command):
    result = zonectl(command, "guard")
    assert refused(result, 1) and "protection zone" in result.stderr
    assert result.stdout == ""


def test_a_zone_without_init_is_no_refused_zone(zonectl):
    result = zonectl("init-pid", "nav")
    assert refused(result, 1) and "has no init process" in result.stderr


def test_a_daemon_that_does_not_answer(zonectl):
    begin = time.monotonic()
    result = zonectl("state", "mute", "--timeout", "1")
    assert refused(result, 3) and "did not answer ZoneGetState" in result.stderr
    assert time.monotonic() - begin < 5


def test_an_answer_of_the_wrong_form(zonectl):
    result = zonectl("state", "odd")
    assert refused(result, 1) and "in an unexpected form" in result.stderr


def test_an_error_stays_on_one_line(zonectl):
    result = zonectl("state", "angry")
    assert refused(result, 1) and result.stderr == "zonectl: ZoneGetState failed: no?mood\n"


def test_a_request_is_only_queued(zonectl):
    result = zonectl("start", "stuck")
    assert (result.returncode, result.stderr) == (0, "")
    assert "start is queued" in result.stdout
    assert json.loads(zonectl("--json", "stop", "stuck").stdout) == {
        "name": "stuck", "request": "stop", "queued": True}


@pytest.mark.parametrize("command, zone, state", [
    ("start", "nav", "RUNNING"), ("stop", "media", "STOPPED"), ("unfreeze", "icy", "RUNNING"),
    ("start", "media", "RUNNING"),
])
def test_waiting_for_the_outcome(zonectl, command, zone, state):
    result = zonectl(command, "--wait", zone)
    assert (result.returncode, result.stderr) == (0, "")
    assert result.stdout == (f"{zone}: {command} is queued; waiting up to 30 s for {state}\n"
                             f"{zone}: {state}\n")


def test_waiting_as_json(zonectl):
    assert json.loads(zonectl("start", "--wait", "--json", "nav").stdout) == {
        "name": "nav", "request": "start", "queued": True, "state": "RUNNING", "done": True}


def test_waiting_sees_a_state_that_passes_at_once(zonectl):
    result = zonectl("start", "--wait", "brief")
    assert result.returncode == 0 and result.stdout.endswith("brief: RUNNING\n")


def test_waiting_is_bounded(zonectl):
    begin = time.monotonic()
    result = zonectl("start", "--wait", "--timeout=1", "stuck")
    assert refused(result, 1) and "was not RUNNING within 1 s (last state: STOPPED)" in result.stderr
    assert time.monotonic() - begin < 5


class Watch:
    """A running `zonectl watch` that listens already."""

    def __init__(self, bus, *arguments):
        self.process = subprocess.Popen([str(bus_fixtures.ZONECTL), "watch", *arguments],
                                        env=bus_fixtures.environment(bus.address), text=True,
                                        stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        bus.wait_for_match("ZoneStateChangedSignal")

    def end(self, number):
        self.process.send_signal(number)
        output, errors = self.process.communicate(timeout=bus_fixtures.DEADLINE)
        return self.process.returncode, output, errors


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_watch_prints_each_change_at_once_and_ends_well(bus, service, zonectl, number):
    watch = Watch(bus)
    zonectl("start", "--wait", "nav")
    lines = [watch.process.stdout.readline() for _ in range(2)]
    assert re.fullmatch(f"{TIME}  nav  STARTING\n", lines[0])
    assert re.fullmatch(f"{TIME}  nav  RUNNING\n", lines[1])
    status, _, errors = watch.end(number)
    assert (status, errors) == (0, "")


def test_watch_of_one_zone_as_json(bus, service, zonectl):
    watch = Watch(bus, "--json", "media")
    zonectl("start", "--wait", "nav")
    zonectl("stop", "--wait", "media")
    change = json.loads(watch.process.stdout.readline())
    assert re.fullmatch(TIME, change.pop("time"))
    assert change == {"name": "media", "state": "STOPPED"}
    assert watch.end(signal.SIGINT) == (0, "", "")


def test_watch_passes_over_a_malformed_signal(bus, service):
    watch = Watch(bus, "--json")
    subprocess.run(["dbus-send", f"--bus={bus.address}", "--print-reply", "--dest=org.ornix.zoneframework",
                    "/org/ornix/zoneframework", "org.ornix.zoneframework.interface.ZoneLock", "string:nav"],
                   check=True, capture_output=True, timeout=bus_fixtures.DEADLINE)
    assert json.loads(watch.process.stdout.readline())["name"] == "nav"
    assert watch.end(signal.SIGINT) == (0, "", "")


def test_watch_ends_after_its_time(zonectl):
    result = zonectl("watch", "--timeout", "1")
    assert (result.returncode, result.stdout, result.stderr) == (0, "", "")


def test_watch_outlives_the_daemon_and_not_the_bus(tmp_path):
    bus = bus_fixtures.PrivateBus(tmp_path)
    service = bus_fixtures.MockService(bus.address)
    watch = Watch(bus)
    service.stop()
    assert "has left the bus" in watch.process.stderr.readline()
    service = bus_fixtures.MockService(bus.address)
    assert "is back" in watch.process.stderr.readline()
    bus.stop()
    service.process.wait(bus_fixtures.DEADLINE)
    service.process.stdout.close()
    _, errors = watch.process.communicate(timeout=bus_fixtures.DEADLINE)
    assert watch.process.returncode == 3
    assert errors == "zonectl: the connection to the bus was lost\n"


def on_a_terminal(bus, *arguments, **extra):
    """What the program writes when its standard output is a terminal."""
    leader, follower = pty.openpty()
    subprocess.run([str(bus_fixtures.ZONECTL), *arguments],
                   env=bus_fixtures.environment(bus.address, TERM="xterm", **extra), stdout=follower,
                   check=True, timeout=bus_fixtures.DEADLINE)
    os.close(follower)
    output = os.read(leader, 65536).decode()
    os.close(leader)
    return output


def test_color_only_where_it_is_wanted(bus, service, zonectl):
    assert "\033[" not in zonectl("state", "media").stdout
    assert "\033[32mRUNNING\033[0m" in zonectl("state", "media", "--color=always").stdout
    assert "\033[32mRUNNING\033[0m" in on_a_terminal(bus, "state", "media")
    assert "\033[" not in on_a_terminal(bus, "state", "media", NO_COLOR="1")
    assert "\033[" not in on_a_terminal(bus, "state", "media", "--color=never")
    assert "\033[" not in on_a_terminal(bus, "list", "--json")


def test_output_that_cannot_be_written(bus, service):
    with open("/dev/full", "w", encoding="ascii") as full:
        result = subprocess.run([str(bus_fixtures.ZONECTL), "list"],
                                env=bus_fixtures.environment(bus.address), stdout=full,
                                stderr=subprocess.PIPE, text=True, timeout=bus_fixtures.DEADLINE,
                                check=False)
    assert refused(result, 1)
