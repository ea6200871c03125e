"""The shipped zonectl against a mock zone manager on a private bus."""

import json
import os
import pty
import re
import signal
import subprocess

import bus_fixtures
import pytest

TIME = r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}[+-]\d\d:\d\d"


def refused(result, status):
    """The command failed with this status, and said why in one line."""
    return (result.returncode == status and result.stderr.startswith("zonectl: ")
            and result.stderr.count("\n") == 1)


@pytest.mark.parametrize("arguments", [
    (), ("frobnicate",), ("list", "extra"), ("pid",), ("status", ""), ("pid", "a", "b"),
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


BUS_COMMANDS = [("list",), ("status", "a"), ("version",), ("start", "a"), ("stop", "a"), ("unfreeze", "a"),
                ("wait", "a", "RUNNING"), ("attach", "a", "--", "true"), ("watch",)]


@pytest.mark.parametrize("arguments", BUS_COMMANDS)
def test_without_a_bus(arguments):
    result = bus_fixtures.zonectl(*arguments)
    assert refused(result, 3) and "cannot reach the system bus" in result.stderr


@pytest.mark.parametrize("arguments", BUS_COMMANDS)
def test_without_the_daemon(bus, arguments):
    result = bus_fixtures.zonectl(*arguments, address=bus.address)
    assert refused(result, 3) and "the zone manager is not running" in result.stderr


def test_an_answer_of_the_wrong_form(zonectl):
    result = zonectl("status", "odd")
    assert refused(result, 1) and "in an unexpected form" in result.stderr


def test_an_error_stays_on_one_line(zonectl):
    result = zonectl("status", "angry")
    assert refused(result, 1) and result.stderr == "zonectl: ZoneGetState failed: no?mood\n"


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
    assert "\033[" not in zonectl("status", "media").stdout
    assert "\033[32mRUNNING\033[0m" in zonectl("status", "media", "--color=always").stdout
    assert "\033[32mRUNNING\033[0m" in on_a_terminal(bus, "status", "media")
    assert "\033[" not in on_a_terminal(bus, "status", "media", NO_COLOR="1")
    assert "\033[" not in on_a_terminal(bus, "status", "media", "--color=never")
    assert "\033[" not in on_a_terminal(bus, "list", "--json")


def test_output_that_cannot_be_written(bus, service):
    with open("/dev/full", "w", encoding="ascii") as full:
        result = subprocess.run([str(bus_fixtures.ZONECTL), "list"],
                                env=bus_fixtures.environment(bus.address), stdout=full,
                                stderr=subprocess.PIPE, text=True, timeout=bus_fixtures.DEADLINE,
                                check=False)
    assert refused(result, 1)
