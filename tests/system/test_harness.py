"""The bench itself: reading the daemon's log, waiting, the bus."""

import re
import signal
import time

import pytest
from zonetest import Bus, BusError, Daemon, Timeout, eventually, records

LINE = (
    "E/ZONE_MANAGER(12:34): Zone.cpp: start(56) > \x1b[01;31;40m"
    '[virtual bool ZoneCore::Zone::start(const std::string&):56] "red" : [a] (b) > c\x1b[0m'
)


def test_a_record_is_taken_apart():
    record = records.parse(LINE)
    assert (record.level, record.file, record.func, record.line) == ("error", "Zone.cpp", "start", 56)
    assert record.signature == "virtual bool ZoneCore::Zone::start(const std::string&)"
    assert record.body == '"red" : [a] (b) > c'
    assert (record.pid, record.tid, record.colours) == (12, 34, "01;31;40")
    assert records.parse(LINE.replace("start(56)", "operator()(56)")).func == "operator()"


@pytest.mark.parametrize("text", ["", "GLib-WARNING", LINE[:-1], LINE.replace("(56)", "(57)"), "x" + LINE])
def test_other_lines_are_no_records(text):
    assert records.parse(text) is None


class StandIn:
    """A program in the daemon's place that prints records and runs on until it is told to end."""

    def __init__(self, root, ending="exec sleep 600"):
        lines = (LINE, "plain", LINE.replace("red", "blue"))
        printed = "\n".join(f"printf '%s\\n' '{line}'" for line in lines)
        root.write("/usr/local/bin/stand-in", f"#!/bin/sh\n{printed}\n{ending}\n", mode=0o755)
        self.daemon = Daemon(root, "/usr/local/bin/stand-in")


def test_the_daemons_log_is_awaited(root):
    daemon = StandIn(root).daemon.start(wait="blue")
    found = daemon.wait_order('"red"', re.compile('^"blue"'))
    assert [record.body.split('"')[1] for record in found] == ["red", "blue"]
    with pytest.raises(AssertionError, match="red"):
        daemon.wait_order("blue", "red", timeout=0.1)
    assert daemon.wait_for("[a] (b)", level="error").line == 56
    assert daemon.count("[a]") == 2 and daemon.find("red", after=1) is None
    assert daemon.strays == ["plain"]
    assert len(daemon.bodies("error")) == 2 and not daemon.bodies("info")
    with pytest.raises(AssertionError, match="plain"):
        daemon.wait_for("nothing of this kind", timeout=0.1)
    daemon.never("green", 0.05)
    assert daemon.stop() == -signal.SIGTERM
    assert not daemon.sanitizer_report()


def test_what_two_threads_write_has_no_order(root):
    daemon = Daemon(root, "/usr/local/bin/two-threads")
    lines = (LINE.replace(":34)", ":35)"), LINE.replace("red", "blue"))
    printed = "\n".join(f"printf '%s\\n' '{line}'" for line in lines)
    root.write("/usr/local/bin/two-threads", f"#!/bin/sh\n{printed}\nexec sleep 600\n", mode=0o755)
    daemon.start(wait="blue")
    assert [record.tid for record in daemon.wait_order("blue", "red")] == [34, 35]
    assert daemon.stop() == -signal.SIGTERM


def test_a_daemon_that_ended_fails_the_wait_at_once(root):
    daemon = StandIn(root, "echo 'Zone.cpp:1:2: runtime error: overflow'; exit 255").daemon.start()
    began = time.monotonic()
    with pytest.raises(AssertionError, match="ended without"):
        daemon.wait_for("never written", timeout=60)
    assert time.monotonic() - began < 30
    assert daemon.wait_exit() == 255
    assert "overflow" in daemon.sanitizer_report()


def test_waiting_is_bounded():
    with pytest.raises(Timeout, match="the impossible"):
        eventually(lambda: False, 0.01, "the impossible")


def test_a_bus_starts_stops_and_starts_again(root):
    bus = Bus(root, policy=None).start()
    assert bus.owner("org.freedesktop.DBus") == "org.freedesktop.DBus"
    assert bus.owner() is None
    with pytest.raises(BusError):
        bus.call("GetZoneList")
    bus.stop()
    assert bus.owner("org.freedesktop.DBus") is None
    bus.start()
    assert bus.owner("org.freedesktop.DBus") == "org.freedesktop.DBus"
    bus.restart()
    assert bus.process.running
