"""The shipped zonectl against a mock zone manager on a private bus."""

import json
import os
import pty
import socket
import subprocess
import threading

import bus_fixtures
import pytest
from bus_fixtures import refused


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


@pytest.fixture
def mute_address(tmp_path):
    """The address of somebody who accepts every connection and says nothing."""
    with socket.socket(socket.AF_UNIX) as mute:
        mute.bind(str(tmp_path / "mute"))
        mute.listen()
        yield f"unix:path={tmp_path}/mute"


@pytest.mark.parametrize("arguments", BUS_COMMANDS)
def test_a_bus_that_says_nothing_is_given_up(mute_address, arguments):
    result = bus_fixtures.zonectl("--timeout", "1", *arguments, address=mute_address)
    assert refused(result, 3) and "did not answer" in result.stderr


def let_in(listener):
    """Takes one client, agrees to whatever it proposes as a bus does, and answers no message."""
    client, _ = listener.accept()
    with client:
        client.settimeout(bus_fixtures.DEADLINE)
        while words := client.recv(4096):
            if b"AUTH EXTERNAL" in words:
                client.sendall(b"OK " + b"0" * 32 + b"\r\n")
            elif b"NEGOTIATE_UNIX_FD" in words:
                client.sendall(b"AGREE_UNIX_FD\r\n")
            elif b"AUTH" in words:
                client.sendall(b"REJECTED EXTERNAL\r\n")


def test_a_bus_that_says_nothing_after_a_welcome_is_given_up(tmp_path):
    with socket.socket(socket.AF_UNIX) as listener:
        listener.bind(str(tmp_path / "bus"))
        listener.listen()
        bus = threading.Thread(target=let_in, args=(listener,))
        bus.start()
        result = bus_fixtures.zonectl("list", "--timeout=1", address=f"unix:path={tmp_path}/bus")
        bus.join(bus_fixtures.DEADLINE)
    assert refused(result, 3) and "did not answer in time" in result.stderr


def test_nobody_waits_for_a_bus_that_can_be_done_without(mute_address):
    assert bus_fixtures.zonectl("complete", "--", "status", "no-such", address=mute_address).returncode == 0
    assert bus_fixtures.zonectl("top", "--json", "--timeout=1", address=mute_address).returncode in (0, 3)
    found = json.loads(bus_fixtures.zonectl("doctor", "--json", address=mute_address).stdout)["findings"]
    (bus,) = (finding for finding in found if finding["subject"] == "bus")
    assert "cannot reach the system bus: it did not answer in time" in bus["text"]


def test_an_answer_of_the_wrong_form(zonectl):
    result = zonectl("status", "odd")
    assert refused(result, 1) and "in an unexpected form" in result.stderr


def test_an_error_stays_on_one_line(zonectl):
    result = zonectl("status", "angry")
    assert refused(result, 1) and result.stderr == "zonectl: ZoneGetState failed: no?mood\n"


def on_a_terminal(bus, *arguments, **extra):
    """What the program writes when its standard output is a terminal."""
    leader, follower = pty.openpty()
    subprocess.run([str(bus_fixtures.ZONECTL), *arguments],
                   env=bus_fixtures.environment(bus.address, TERM="xterm", **extra), stdout=follower,
                   check=True, timeout=bus_fixtures.DEADLINE)
    os.close(follower)
    return bus_fixtures.shown_on(leader)


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
