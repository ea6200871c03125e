"""zonectl watch with a mock zone manager that comes and goes, on a private bus that does."""

import ctypes
import json
import os
import queue
import re
import select
import signal
import socket
import struct
import subprocess
import threading
import time

import bus_fixtures
import pytest
from bus_fixtures import refused

TIME = r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}[+-]\d\d:\d\d"
CLONE_NEWNET = 0x40000000
PRESENT = {"brief": "STOPPED", "guard": None, "icy": "FROZEN", "media": "RUNNING", "nav": "STOPPED",
           "stuck": "STOPPED", "weak": "STOPPED"}


class Watch:
    """A running `zonectl watch`, whose lines are read one by one."""

    def __init__(self, address, *arguments, **options):
        self.process = subprocess.Popen([str(bus_fixtures.ZONECTL), "watch", *arguments],
                                        env=bus_fixtures.environment(address), text=True,
                                        stdout=subprocess.PIPE, stderr=subprocess.PIPE, **options)
        self._lines = queue.Queue()
        self._reader = threading.Thread(target=self._read)
        self._reader.start()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait(bus_fixtures.DEADLINE)
        self._reader.join()
        self.process.stdout.close()
        self.process.stderr.close()

    def _read(self):
        for line in self.process.stdout:
            self._lines.put(line)
        self._lines.put(None)

    def line(self):
        """The next line, None at the end."""
        return self._lines.get(timeout=bus_fixtures.DEADLINE)

    def event(self):
        return json.loads(self.line())

    def until(self, **members):
        """The next event that has these members; those before it are passed over."""
        while True:
            event = self.event()
            if members.items() <= event.items():
                return event

    def skip_present(self, zones=PRESENT):
        """Passes over the present states, and returns them."""
        found = [self.event() for _ in zones]
        assert {event["event"] for event in found} == {"present"}
        return {event["name"]: event["state"] for event in found}

    def end(self, number=signal.SIGTERM):
        """Ends it; returns its status, what is left of its output, and its complaints."""
        self.process.send_signal(number)
        status = self.process.wait(bus_fixtures.DEADLINE)
        self._reader.join()
        rest = []
        while (line := self._lines.get_nowait()) is not None:
            rest.append(line)
        return status, rest, self.process.stderr.read()


@pytest.fixture
def watch(bus, service):
    """`zonectl watch` with a zone manager on the bus; ended with the test."""
    running = []

    def start(*arguments, **options):
        running.append(Watch(bus.address, *arguments, **options))
        return running[-1]

    yield start
    for one in running:
        one.__exit__()


def call(bus, method, zone):
    subprocess.run(["dbus-send", f"--bus={bus.address}", "--print-reply", "--dest=org.ornix.zoneframework",
                    "/org/ornix/zoneframework", f"org.ornix.zoneframework.interface.{method}",
                    f"string:{zone}"], check=True, capture_output=True, timeout=bus_fixtures.DEADLINE)


def start_nav(bus):
    call(bus, "ZoneStart", "nav")


def recorded(path):
    """The header and the events of a recording."""
    header, *events = [json.loads(line) for line in path.read_text().splitlines()]
    return header, events


@pytest.mark.parametrize("arguments", [
    ("watch", ""), ("watch", "--record="), ("watch", "--file", "x"), ("list", "--raw"),
    ("list", "--record", "x"),
])
def test_wrong_usage(arguments):
    result = bus_fixtures.zonectl(*arguments)
    assert refused(result, 2), result
    assert result.stdout == ""


def test_the_present_states_come_first_and_then_each_change(watch, zonectl):
    seen = watch()
    present = sorted(re.fullmatch(f"{TIME}  (.*)\n", seen.line())[1] for _ in PRESENT)
    assert present == ["brief  STOPPED (present)", "guard  unknown (refused)", "icy  FROZEN (present)",
                       "media  RUNNING (present)", "nav  STOPPED (present)", "stuck  STOPPED (present)",
                       "weak  STOPPED (present)"]
    zonectl("start", "--wait", "nav")
    assert re.fullmatch(f"{TIME}  nav  STARTING\n", seen.line())
    assert re.fullmatch(f"{TIME}  nav  RUNNING\n", seen.line())
    assert seen.end() == (0, [], "")


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, signal.SIGHUP])
def test_it_ends_well_when_it_is_interrupted(watch, number, tmp_path):
    seen = watch("--json", "--record", str(tmp_path / "run"))
    seen.skip_present()
    assert seen.end(number) == (0, [], "")
    assert recorded(tmp_path / "run")[1][-1]["event"] == "end"


def test_who_is_told_to_outlive_the_terminal_does(bus, watch):
    """As nohup tells it."""
    seen = watch("--json", preexec_fn=lambda: signal.signal(signal.SIGHUP, signal.SIG_IGN))
    seen.skip_present()
    seen.process.send_signal(signal.SIGHUP)
    start_nav(bus)
    assert [seen.event()["state"] for _ in range(2)] == ["STARTING", "RUNNING"]
    assert seen.end() == (0, [], "")


def test_an_event_for_programs(watch, zonectl):
    seen = watch("--json", "nav")
    event = seen.event()
    assert re.fullmatch(TIME, event.pop("time"))
    assert event == {"event": "present", "name": "nav", "state": "STOPPED", "source": "query"}
    zonectl("start", "--wait", "nav")
    event = seen.event()
    assert re.fullmatch(TIME, event.pop("time"))
    assert event == {"event": "state", "name": "nav", "state": "STARTING", "source": "signal"}


def test_only_the_named_zones_are_watched(watch, zonectl):
    seen = watch("--json", "media", "icy")
    assert seen.skip_present(("media", "icy")) == {"media": "RUNNING", "icy": "FROZEN"}
    zonectl("start", "--wait", "nav")
    zonectl("stop", "--wait", "media")
    assert seen.event()["name"] == "media"


def test_a_zone_without_an_answer_is_unknown_and_holds_nobody_up(watch, zonectl):
    seen = watch("--json", "mute", "nav")
    assert (seen.event()["name"], zonectl("start", "nav").returncode) == ("nav", 0)
    assert [seen.event()["state"] for _ in range(2)] == ["STARTING", "RUNNING"]
    unknown = seen.event()
    assert (unknown["event"], unknown["name"], unknown["state"]) == ("present", "mute", None)
    assert unknown["note"] == "no answer"


def test_a_change_tells_more_than_an_answer_that_was_asked_for_before(watch, bus):
    seen = watch("--json", "--timeout", "5", "nav", "mute")
    seen.skip_present(("nav",))
    subprocess.run(["dbus-send", f"--bus={bus.address}", "--type=method_call",
                    "--dest=org.ornix.zoneframework", "/org/ornix/zoneframework",
                    "org.ornix.zoneframework.interface.ZoneLock", "string:mute"],
                   check=True, timeout=bus_fixtures.DEADLINE)
    assert seen.event()["event"] == "state"
    assert seen.line() is None, "mute is not told to be unknown"
    assert seen.process.wait(bus_fixtures.DEADLINE) == 0


def test_an_error_is_said_once_and_the_watch_goes_on(watch, zonectl):
    seen = watch("--json", "angry", "odd", "nav")
    assert seen.event()["name"] == "nav"
    zonectl("start", "--wait", "nav")
    assert seen.event()["state"] == "STARTING"
    status, _, errors = seen.end()
    assert (status, errors.count("\n")) == (0, 1)
    assert errors.startswith("zonectl: no present states: ")


def test_whom_the_policy_refuses_the_states_sees_the_changes(tmp_path):
    bus = bus_fixtures.PrivateBus(tmp_path, bus_fixtures.NO_QUESTIONS_POLICY)
    service = bus_fixtures.MockService(bus.address)
    with Watch(bus.address, "--json") as seen:
        assert "no present states: the bus does not permit you" in seen.process.stderr.readline()
        start_nav(bus)
        assert [seen.event()["state"] for _ in range(2)] == ["STARTING", "RUNNING"]
        assert seen.end() == (0, [], "")
    service.stop()
    bus.stop()


def test_a_malformed_signal_is_passed_over(bus, watch):
    seen = watch("--json", "nav")
    seen.skip_present(("nav",))
    call(bus, "ZoneLock", "nav")
    assert seen.event()["name"] == "nav"
    assert seen.end() == (0, [], "")


def test_it_ends_after_its_time(zonectl):
    result = zonectl("watch", "--timeout", "1", "--json")
    assert (result.returncode, result.stderr) == (0, "")
    assert len(result.stdout.splitlines()) == len(PRESENT)


def test_output_that_cannot_be_written_ends_it(bus, service):
    with open("/dev/full", "w", encoding="ascii") as full:
        result = subprocess.run([str(bus_fixtures.ZONECTL), "watch"], stdout=full, stderr=subprocess.PIPE,
                                env=bus_fixtures.environment(bus.address), text=True,
                                timeout=bus_fixtures.DEADLINE, check=False)
    assert refused(result, 1) and "the output could not be written" in result.stderr


# The daemon and the bus come and go


def test_the_daemon_comes_back(tmp_path):
    bus = bus_fixtures.PrivateBus(tmp_path)
    service = bus_fixtures.MockService(bus.address)
    with Watch(bus.address, "--json") as seen:
        seen.skip_present()
        service.stop()
        assert seen.process.stderr.readline() == "zonectl: the daemon has left; waiting for it\n"
        service = bus_fixtures.MockService(bus.address)
        gap = seen.event()
        assert (gap["event"], gap["reason"]) == ("gap", "daemon")
        assert gap["microseconds"] > 0
        assert seen.skip_present() == PRESENT
        assert seen.process.stderr.readline() == "zonectl: the daemon is back\n"
        start_nav(bus)
        assert [seen.event()["state"] for _ in range(2)] == ["STARTING", "RUNNING"]
        assert seen.end() == (0, [], "")
    service.stop()
    bus.stop()


def test_the_bus_comes_back(tmp_path):
    bus = bus_fixtures.PrivateBus(tmp_path)
    service = bus_fixtures.MockService(bus.address)
    with Watch(bus.address) as seen:
        for _ in PRESENT:
            seen.line()
        bus.stop()
        service.wait()
        while seen.process.stderr.readline() != "zonectl: the bus has left; waiting for it\n":
            assert seen.process.poll() is None
        bus = bus_fixtures.PrivateBus(tmp_path)
        service = bus_fixtures.MockService(bus.address)
        assert re.fullmatch(r"--- gap: the bus was away for \d+\.\d{3} s ---\n", seen.line())
        assert {seen.line().split()[1] for _ in PRESENT} == set(PRESENT)
        start_nav(bus)
        assert seen.line().endswith("  nav  STARTING\n")
        assert seen.line().endswith("  nav  RUNNING\n")
        assert seen.end()[:2] == (0, [])
    service.stop()
    bus.stop()


def test_who_ends_in_a_gap_tells_of_it(bus, watch, service, tmp_path):
    seen = watch("--json", "--record", str(tmp_path / "run"))
    seen.skip_present()
    service.stop()
    seen.process.stderr.readline()
    status, rest, _ = seen.end()
    assert (status, [json.loads(line)["event"] for line in rest]) == (0, ["gap"])
    assert [event["event"] for event in recorded(tmp_path / "run")[1][-2:]] == ["gap", "end"]


def test_a_bus_that_says_nothing_is_given_up(tmp_path):
    with socket.socket(socket.AF_UNIX) as mute:
        mute.bind(str(tmp_path / "mute"))
        mute.listen()
        result = bus_fixtures.zonectl("watch", address=f"unix:path={tmp_path}/mute")
        assert refused(result, 3) and "cannot reach the system bus" in result.stderr
        result = bus_fixtures.zonectl("watch", "--timeout", "1", address=f"unix:path={tmp_path}/mute")
        assert refused(result, 3) and "the bus did not answer" in result.stderr


# The subscribers' socket


STATES = ("STOPPED", "STARTING", "RUNNING", "STOPPING", "ABORTING", "FREEZING", "FROZEN", "THAWED")


def record(name, state, kind=0):
    return struct.pack("=i256si", kind, name, STATES.index(state))


class Publisher:
    """Stands in for the publisher at the address of LXC's usual path."""

    ADDRESS = b"\0lxc/ad055575fe28ddd5//var/lib/lxc"

    def __init__(self):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.settimeout(bus_fixtures.DEADLINE)
        self.socket.bind(self.ADDRESS)
        self.socket.listen()
        self.subscriber = None

    def accept(self):
        self.subscriber = self.socket.accept()[0]
        return self

    def send(self, data):
        self.subscriber.sendall(data)

    def stop(self):
        self.socket.close()
        if self.subscriber:
            self.subscriber.close()


@pytest.fixture
def network():
    """A network of the test's own, to which abstract addresses belong; root alone can have one."""
    libc = ctypes.CDLL(None, use_errno=True)
    shared = os.open("/proc/thread-self/ns/net", os.O_RDONLY)
    moved = libc.unshare(CLONE_NEWNET) == 0
    yield
    if moved:
        assert libc.setns(shared, CLONE_NEWNET) == 0
    os.close(shared)


@pytest.fixture
def publisher(network):
    one = Publisher()
    yield one
    one.stop()


def test_records_without_a_bus(publisher):
    with Watch("unix:path=/nonexistent", "--raw", "--json") as seen:
        publisher.accept()
        assert "no present states, since the bus cannot be reached" in seen.process.stderr.readline()
        publisher.send(record(b"nav\0rest", "STARTING") + record(b"other", "STOPPED", kind=2))
        event = seen.event()
        assert re.fullmatch(TIME, event.pop("time"))
        assert event == {"event": "state", "name": "nav", "state": "STARTING", "source": "raw"}
        whole = record(256 * b"n", "RUNNING")
        publisher.send(whole[:100])
        assert not select.select([seen.process.stdout], [], [], 0)[0]
        publisher.send(whole[100:])
        assert seen.event()["name"] == 256 * "n"
        assert seen.end() == (0, [], "")


def test_records_of_the_named_zones(publisher):
    with Watch("unix:path=/nonexistent", "--raw", "--json", "nav") as seen:
        publisher.accept()
        publisher.send(record(b"media", "RUNNING") + record(b"nav", "RUNNING"))
        assert seen.event()["name"] == "nav"


def test_records_and_the_present_states_of_the_bus(publisher, watch):
    seen = watch("--raw", "--json")
    publisher.accept()
    assert seen.skip_present() == PRESENT
    publisher.send(record(b"nav", "RUNNING"))
    assert seen.event()["state"] == "RUNNING"
    assert seen.end() == (0, [], "")


def test_the_publisher_comes_back(publisher, watch):
    seen = watch("--raw", "--json")
    publisher.accept()
    seen.skip_present()
    publisher.send(record(b"nav", "RUNNING")[:50])
    publisher.stop()
    assert seen.process.stderr.readline() == "zonectl: the daemon has left; waiting for it\n"
    again = Publisher().accept()
    assert seen.event()["event"] == "gap"
    seen.skip_present()
    again.send(record(b"media", "STOPPED"))
    assert seen.event()["name"] == "media", "half a record is forgotten"
    again.stop()


def test_without_a_publisher(network):
    result = bus_fixtures.zonectl("watch", "--raw")
    assert refused(result, 3) and "the zone manager is not running" in result.stderr


# Recordings


def test_a_recording_has_all_that_was_seen(watch, zonectl, tmp_path):
    path = tmp_path / "run"
    seen = watch("--json", "--record", str(path))
    seen.skip_present()
    zonectl("start", "--wait", "nav")
    seen.until(state="RUNNING")
    header, events = recorded(path)
    assert (header["format"], header["version"], header["source"]) == ("zonectl-recording", 1, "signal")
    assert header["host"] and header["boot_id"] and abs(header["wall_microseconds"] / 1e6 - time.time()) < 60
    assert {event["name"]: event["state"] for event in events[:len(PRESENT)]} == PRESENT
    assert [event["state"] for event in events[len(PRESENT):]] == ["STARTING", "RUNNING"]
    assert seen.end() == (0, [], "")
    times = [header["at"], *(event["at"] for event in recorded(path)[1])]
    assert times == sorted(times)
    assert recorded(path)[1][-1]["event"] == "end"


def test_a_recording_is_never_overwritten(zonectl, tmp_path):
    path = tmp_path / "run"
    path.write_text("dear\n")
    result = zonectl("watch", "--record", str(path))
    assert refused(result, 1) and "never overwritten" in result.stderr
    assert (result.stdout, path.read_text()) == ("", "dear\n")


def test_a_recording_that_cannot_be_written_ends_the_watch(zonectl):
    result = zonectl("watch", "--record", "/dev/full")
    assert refused(result, 1) and "No space left on device" in result.stderr
