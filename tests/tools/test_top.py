"""zonectl top with a mock zone manager, on a terminal and without one."""

import fcntl
import json
import os
import pty
import re
import select
import signal
import struct
import subprocess
import termios
import time

import bus_fixtures
import pytest
from bus_fixtures import refused

ENTER, LEAVE = "\033[?1049h\033[?25l", "\033[?25h\033[?1049l"


class Terminal:
    """zonectl top on a terminal of its own."""

    def __init__(self, address, *arguments, columns=80, rows=24):
        self.leader, self.follower = pty.openpty()
        self.before = termios.tcgetattr(self.follower)
        self.resize(columns, rows)
        self.text = ""
        self.process = subprocess.Popen(
            [str(bus_fixtures.ZONECTL), "top", *arguments], stdin=self.follower, stdout=self.follower,
            stderr=self.follower, env=bus_fixtures.environment(address, TERM="xterm", NO_COLOR="1"))

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait(bus_fixtures.DEADLINE)
        os.close(self.follower)
        os.close(self.leader)

    def resize(self, columns, rows):
        fcntl.ioctl(self.follower, termios.TIOCSWINSZ, struct.pack("4H", rows, columns, 0, 0))

    def read_until(self, pattern):
        """Reads until what came since the call holds the expression, and returns that."""
        begin = len(self.text)
        end = time.monotonic() + bus_fixtures.DEADLINE
        while not re.search(pattern, self.text[begin:]):
            assert select.select([self.leader], [], [], end - time.monotonic())[0], self.text[begin:]
            self.text += os.read(self.leader, 65536).decode()
        return self.text[begin:]

    def type(self, keys):
        os.write(self.leader, keys.encode())

    def finish(self):
        """Waits for the end; whether the terminal is as it was, and the status."""
        status = self.process.wait(bus_fixtures.DEADLINE)
        return termios.tcgetattr(self.follower) == self.before, status


def rows_of(text):
    """The rows of a table by their zones."""
    lines = [line.split() for line in text.splitlines()]
    assert lines[0] == ["ZONE", "STATE", "UPTIME", "CPU", "%", "MEMORY", "PROCESSES"]
    return {line[0]: line[1:] for line in lines[1:]}


@pytest.mark.parametrize("arguments", [("",), ("--wait",), ("--record", "x"), ("--timeout", "0")])
def test_wrong_usage(arguments):
    assert refused(bus_fixtures.zonectl("top", *arguments), 2)


def test_without_a_terminal_one_table_is_printed(zonectl):
    result = zonectl("top")
    assert (result.returncode, result.stderr) == (0, "")
    rows = rows_of(result.stdout)
    none = ["-", "-", "-", "-"]
    assert rows.pop("*") is not None
    assert rows == {"brief": ["STOPPED", *none], "guard": ["STOPPED*", *none], "icy": ["FROZEN", *none],
                    "media": ["RUNNING", *none], "nav": ["STOPPED", *none], "stuck": ["STOPPED", *none],
                    "weak": ["STOPPED", *none]}


def test_only_the_named_zones_are_shown(zonectl):
    assert rows_of(zonectl("top", "nav", "icy").stdout).keys() == {"nav", "icy"}


def test_a_name_that_nobody_has(zonectl):
    result = zonectl("top", "nosuch", "nav")
    assert refused(result, 1) and "no such zone: nosuch (there are: brief, " in result.stderr
    assert rows_of(result.stdout).keys() == {"nav"}
    result = zonectl("top", "nosuch")
    assert refused(result, 1) and result.stdout == ""
    result = zonectl("top", "--json", "nav", "nosuch")
    assert refused(result, 1)
    assert [zone["name"] for zone in json.loads(result.stdout)] == ["nav"]


def test_a_name_that_nobody_has_ends_it_on_a_terminal(bus, service):
    with Terminal(bus.address, "nosuch") as top:
        assert "no such zone: nosuch" in top.read_until("there are:.*\r\n")
        assert top.finish() == (True, 1)


def test_a_zone_without_an_answer_holds_nobody_up(zonectl):
    rows = rows_of(zonectl("top", "mute", "media").stdout)
    assert (rows["mute"][0], rows["media"][0]) == ("STOPPED*", "RUNNING")


def test_an_array_a_look(zonectl):
    result = zonectl("top", "--json", "--timeout", "3", "nav", "mute")
    assert (result.returncode, result.stderr) == (0, "")
    looks = [json.loads(line) for line in result.stdout.splitlines()]
    assert len(looks) >= 2
    for look in looks:
        assert [zone["name"] for zone in look] == ["nav", "mute"]
        assert look[0] == {"name": "nav", "state": "STOPPED", "state_source": "daemon",
                           "uptime_seconds": None, "cpu_permille": None, "memory_bytes": None,
                           "processes": None}
        assert look[1]["state_source"] == "control-groups"


def test_an_old_answer_is_not_shown_again(zonectl):
    result = zonectl("top", "--json", "--timeout", "4", "fickle")
    sources = [json.loads(line)[0]["state_source"] for line in result.stdout.splitlines()]
    assert sources[0] == "daemon" and set(sources[1:]) == {"control-groups"}


def test_it_goes_on_without_a_daemon_and_notices_one(bus):
    process = subprocess.Popen([str(bus_fixtures.ZONECTL), "top", "--json", "nav"], stdout=subprocess.PIPE,
                               env=bus_fixtures.environment(bus.address), text=True)
    assert json.loads(process.stdout.readline())[0]["state_source"] == "control-groups"
    service = bus_fixtures.MockService(bus.address)

    def source():
        return json.loads(process.stdout.readline())[0]["state_source"]

    end = time.monotonic() + bus_fixtures.DEADLINE
    while source() != "daemon":
        assert time.monotonic() < end
    service.stop()
    while source() != "control-groups":
        assert time.monotonic() < end
    process.send_signal(signal.SIGINT)
    assert process.wait(bus_fixtures.DEADLINE) == 0
    process.stdout.close()


def test_without_a_bus_the_control_groups_tell():
    result = bus_fixtures.zonectl("top", "nav")
    assert refused(result, 3) and "cannot reach the system bus: " in result.stderr
    assert rows_of(result.stdout)["nav"][0] == "STOPPED*"


def test_without_a_daemon_the_control_groups_tell(bus):
    result = bus_fixtures.zonectl("top", "nav", address=bus.address)
    assert refused(result, 3) and "the zone manager is not running" in result.stderr
    assert rows_of(result.stdout)["nav"][0] == "STOPPED*"


def test_whom_the_policy_refuses_the_states_sees_the_control_groups(tmp_path):
    bus = bus_fixtures.PrivateBus(tmp_path, bus_fixtures.NO_QUESTIONS_POLICY)
    service = bus_fixtures.MockService(bus.address)
    result = bus_fixtures.zonectl("top", "nav", address=bus.address)
    assert refused(result, 1) and "the bus does not permit you" in result.stderr
    assert rows_of(result.stdout)["nav"][0] == "STOPPED*"
    service.stop()
    bus.stop()


def test_output_that_cannot_be_written(bus):
    with open("/dev/full", "w", encoding="ascii") as full:
        result = subprocess.run([str(bus_fixtures.ZONECTL), "top", "--json", "nav"], stdout=full,
                                stderr=subprocess.PIPE, env=bus_fixtures.environment(bus.address), text=True,
                                timeout=bus_fixtures.DEADLINE, check=False)
    assert refused(result, 1)


@pytest.mark.parametrize("end", [
    lambda top: top.type("xq"), lambda top: top.process.send_signal(signal.SIGINT),
    lambda top: top.process.terminate(), lambda top: top.process.send_signal(signal.SIGHUP),
], ids=["q", "SIGINT", "SIGTERM", "SIGHUP"])
def test_on_a_terminal_it_draws_until_it_is_told_to_end(bus, service, end):
    with Terminal(bus.address, "media") as top:
        text = top.read_until("media  RUNNING ")
        assert text.startswith(ENTER + "\033[H") and LEAVE not in text
        assert termios.tcgetattr(top.follower) != top.before, "keys are read at once"
        top.read_until(re.escape("\033[H"))
        end(top)
        assert top.read_until(re.escape(LEAVE)).endswith(LEAVE)
        assert top.finish() == (True, 0)


def test_its_time_ends_it_on_a_terminal(bus):
    with Terminal(bus.address, "--timeout", "1", "media") as top:
        top.read_until(re.escape(LEAVE))
        assert top.finish() == (True, 0)


def test_a_narrow_terminal_is_filled_and_no_more(bus, service):
    with Terminal(bus.address, "nav", "media", columns=12, rows=2) as top:
        top.read_until(re.escape("\033[HZONE   STATE\033[K\r\nnav    STOPP\033[K"))
        top.resize(60, 20)
        top.process.send_signal(signal.SIGWINCH)
        assert "PROCESSES" in top.read_until("media .*\r\n")
