"""The environment: where the log goes, what of it is dropped, and the service manager's watchdog."""

import re
import socket
import struct
import time

import pytest
from zonetest import READY, eventually

LAST_LINE = "ZoneManager is terminated..."
JOURNAL = "/run/systemd/journal/socket"
COLOURS = {
    "debug": "01;34;40",
    "info": "01;32;40",
    "warning": "01;35;40",
    "error": "01;31;40",
    "fatal": "01;35;40",
}


# The end of the event queue is released twice on purpose, which GLib reports and ignores.
QUEUE_LINE = re.compile(
    r"\(process:\d+\): GLib-CRITICAL \*\*: [\d:.]+: g_async_queue_unref: assertion 'queue' failed"
)


def other_lines(daemon):
    """What the daemon printed beside its records, without GLib's line of an ordinary end."""
    return [line for line in daemon.strays if not QUEUE_LINE.fullmatch(line)]


def start(daemon, wait=None, **environment):
    # The leak checker tells of what it was told to let be, which is no output of the daemon.
    return daemon.start({"LSAN_OPTIONS": "print_suppressions=0", **environment}, wait)


@pytest.fixture
def zone(fake):
    return fake.define("red", "hybrid")


def wait_until_it_owns(bus, daemon):
    """Without a log, the bus tells when the daemon runs."""
    bus.wait_owned()
    eventually(lambda: bus.call("ZoneGetState", "red") == 1, 10, "an answer")
    return daemon


def receiver(root, path):
    """A datagram socket at a path of the root."""
    root.mkdir(path.rpartition("/")[0])
    server = root.socket(kind=socket.SOCK_DGRAM)
    server.bind(str(root.path(path)))
    return server


# The log


def test_every_record_has_the_agreed_form(fake, zone, bus, daemon):
    fake.put("red", "state_null")
    start(daemon, READY)
    bus.wait_owned()
    assert bus.call("ZoneGetState", "red") == 0
    daemon.stop()
    assert len(daemon.strays) == 1
    assert other_lines(daemon) == []
    assert {record.level: record.colours for record in daemon.records} == COLOURS
    for record in daemon.records:
        assert re.fullmatch(r"\w+\.(cpp|h)", record.file), record
        assert record.func.lstrip("~") in record.signature, record


@pytest.mark.parametrize(
    ("level", "kept"),
    [
        ("debug", {"debug", "info", "error", "fatal"}),
        ("info", {"info", "error", "fatal"}),
        ("error", {"error", "fatal"}),
        ("fatal", {"fatal"}),
    ],
)
def test_records_below_the_level_are_dropped(zone, bus, daemon, level, kept):
    start(daemon, ZONE_LOG_LEVEL=level)
    wait_until_it_owns(bus, daemon)
    # The main loop runs, since it has answered.
    assert daemon.stop() == 0
    assert {record.level for record in daemon.records} == kept
    assert other_lines(daemon) == []
    assert daemon.bodies("fatal")[-1] == LAST_LINE


def test_an_unknown_level_is_told_once_and_all_is_logged(zone, daemon):
    start(daemon, READY, ZONE_LOG_LEVEL="loud")
    assert len(daemon.strays) == 1
    assert "ZONE_LOG_LEVEL" in daemon.strays[0]
    assert "loud" in daemon.strays[0]
    assert daemon.bodies("debug")


def test_an_unknown_target_is_told_once_and_the_default_holds(zone, daemon, root):
    assert not root.exists(JOURNAL)
    start(daemon, READY, ZONE_LOG_TARGET="printer")
    assert len(daemon.strays) == 1
    assert "ZONE_LOG_TARGET" in daemon.strays[0]
    assert "printer" in daemon.strays[0]


def test_the_null_target_is_silent(zone, bus, daemon):
    start(daemon, ZONE_LOG_TARGET="null")
    wait_until_it_owns(bus, daemon)
    assert daemon.stop() == 0
    assert daemon.records == other_lines(daemon) == []


def test_the_journal_gets_each_record_with_its_fields(zone, bus, daemon, root):
    with receiver(root, JOURNAL) as journal:
        start(daemon, ZONE_LOG_TARGET="journal")
        journal.settimeout(20)
        # The message comes in the protocol's form for any bytes: its length, then itself.
        head, _, message = journal.recv(65536).partition(b"MESSAGE\n")
        fields = dict(line.split("=", 1) for line in head.decode().splitlines())
        assert fields["PRIORITY"] == "2"
        assert fields["SYSLOG_IDENTIFIER"] == "ZONE_MANAGER"
        assert fields["CODE_FILE"] == "main.cpp"
        assert fields["CODE_FUNC"] == "main"
        assert fields["TID"] == str(daemon.inner_pid)
        (length,) = struct.unpack_from("<Q", message)
        assert message[8 : 8 + length].endswith(b"] Start Zone Manager...\x1b[0m")
        # Nobody reads from here on, which holds nobody up.
        wait_until_it_owns(bus, daemon)
        assert daemon.stop() == 0
    assert daemon.records == other_lines(daemon) == []


# The watchdog


WATCHED = {"red": "360 / 15000", "zone-monitor": "180 / 20000", "zone-manager": "360 / 15000"}


def test_every_thread_registers_with_its_own_interval(zone, daemon):
    start(daemon, READY)
    main = daemon.inner_pid
    for name, values in WATCHED.items():
        record = daemon.wait_for(f"Watchdog Is registered[{values}](thread name : {name}, tid : ")
        assert record.level == "info"
        assert (record.tid == main) == (name == "zone-manager")


@pytest.mark.parametrize("address", ["/run/notify", "@zone-notify"])
def test_the_service_manager_is_told_that_all_threads_live(zone, daemon, root, address):
    if address.startswith("@"):
        manager = root.socket(kind=socket.SOCK_DGRAM)
        manager.bind("\0" + address[1:])
    else:
        manager = receiver(root, address)
    with manager:
        manager.settimeout(60)
        began = time.monotonic()
        start(daemon, READY, NOTIFY_SOCKET=address)
        told = []
        while len(told) < 3:
            told.append(manager.recv(256))
            # The manager and the zone notify every 15 s, the monitor every 20 s.
            assert time.monotonic() - began > (19.5 if len(told) == 3 else 14.5)
        assert told == [b"WATCHDOG=1"] * 3


def test_a_service_manager_that_is_gone_does_no_harm(zone, daemon):
    start(daemon, READY, NOTIFY_SOCKET="/run/nobody")
    assert daemon.stop() == 0
    assert other_lines(daemon) == []
