"""The bus comes, goes, belongs to somebody else or is not there at all: the daemon goes on."""

import re
import signal

import pytest
from zonetest import (
    READY,
    Bus,
    BusError,
    Subscriber,
    ask_init_pid,
    busy_monitor,
    eventually,
    send_states,
)
from zonetest.bus import SERVICE

LOST = f'Bus is lost("{SERVICE}")'
LAST_LINE = "ZoneManager is terminated..."
LISTED = "client connection is added to GIO Channel List"
KNOWN_STRAY = re.compile(r"GLib-CRITICAL \*\*: \S+ g_async_queue_unref: assertion 'queue' failed$")


@pytest.fixture
def red(fake):
    return fake.define("red", "isolation", init_pid=4711)


def without_lines_of_the_bus(daemon, mark):
    """What the daemon says of one state change while it has no bus."""
    return [
        re.sub(r"\[zone-monitor:\d+\]", "[zone-monitor]", str(record))
        for record in daemon.records[mark:]
        if record.level in ("warning", "error")
    ]


def relays_without_a_bus(daemon, root, word):
    """A state change reaches the zone and a subscriber, and only the signal fails."""
    mark = daemon.mark()
    with Subscriber(root) as subscriber:
        daemon.wait_for(LISTED, after=mark)
        send_states(root, "red", word)
        message = subscriber.next()
        assert (message.name, message.value) == ("red", 6 if word == "FROZEN" else 5)
    daemon.wait_for(f"State Change Event is notified to all subscribers - red => {word}", after=mark)
    assert without_lines_of_the_bus(daemon, mark) == [
        f"error: Failed to emit signal for changing container state [red => {word}]",
        "warning: [zone-monitor] Failed to send signal for changing state [zone name : red]",
    ]
    daemon.wait_for(f"ZONE CHANGE STATE[{7 if word == 'FROZEN' else 6}]", after=mark)
    assert ask_init_pid(root, "red") == "4711"


def ends_in_order(daemon):
    assert daemon.stop() == 0
    assert daemon.bodies("fatal")[-1] == LAST_LINE
    # The bus library says nothing of what it lost; the other line is the event queue's, and known.
    complaints = [line for line in daemon.strays if "GLib" in line]
    assert [line for line in complaints if not KNOWN_STRAY.search(line)] == []


@pytest.mark.parametrize("number", [signal.SIGKILL, signal.SIGTERM], ids=["killed", "ended"])
def test_a_bus_that_goes_away_and_comes_back(red, bus, daemon, root, number):
    daemon.start(wait=READY)
    bus.wait_owned()
    listener = bus.listen()
    send_states(root, "red", "STARTING")
    listener.wait_for("red", "STARTING")
    bus.process.signal(number)
    bus.process.wait()
    assert daemon.wait_for(LOST).level == "error"
    relays_without_a_bus(daemon, root, "FROZEN")
    # Nothing is retried: the new bus knows no such name, and the daemon does as before.
    bus.start()
    relays_without_a_bus(daemon, root, "FREEZING")
    assert bus.owner() is None
    assert daemon.count(LOST) == 1
    assert daemon.running
    ends_in_order(daemon)


def test_without_any_bus(red, daemon, root):
    daemon.start(wait=READY)
    assert daemon.wait_for(LOST).level == "error"
    relays_without_a_bus(daemon, root, "FROZEN")
    assert daemon.find(re.compile("is acquired$")) is None
    ends_in_order(daemon)


def test_a_bus_that_comes_after_the_daemon_is_not_joined(red, daemon, root):
    daemon.start(wait=LOST)
    bus = Bus(root).start()
    relays_without_a_bus(daemon, root, "FROZEN")
    assert bus.owner() is None
    ends_in_order(daemon)


@pytest.mark.parametrize("with_bus", [True, False])
def test_a_vanished_subscriber_is_no_signal_to_end(red, daemon, root, with_bus, request):
    """The write to a socket without a peer raises SIGPIPE, which the bus library would ignore; without a bus
    nobody but the daemon does."""
    if with_bus:
        bus = request.getfixturevalue("bus")
    daemon.start(wait=READY)
    if with_bus:
        bus.wait_owned()
    subscriber = Subscriber(root)
    daemon.wait_for(LISTED)
    with busy_monitor(daemon):
        send_states(root, "red", "FROZEN")
        subscriber.close()
    broken = "Failed to write the state change event to subscribers - red => FROZEN - \"Broken pipe\""
    assert daemon.wait_for(broken).level == "warning"
    daemon.wait_for("Current client connection count[count : 0]")
    assert daemon.running
    assert daemon.stop() == 0


OWNER = f"""
from gi.repository import Gio, GLib
bus = Gio.bus_get_sync(Gio.BusType.SYSTEM)
reply = bus.call_sync("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "RequestName",
                      GLib.Variant("(su)", ("{SERVICE}", 0)), None, 0, 5000)
assert reply[0] == 1, reply
print("owned", flush=True)
GLib.MainLoop().run()
"""


def test_behind_another_owner_the_daemon_waits_for_the_name(red, bus, daemon, root):
    output = root.scratch / "owner.log"
    with open(output, "wb") as log:
        owner = root.popen(["/usr/bin/python3", "-c", OWNER], stdout=log)
    eventually(lambda: "owned" in output.read_text(), 10, "the other owner")
    first = bus.owner()
    daemon.start(wait=READY)
    assert daemon.wait_for(LOST).level == "error"
    assert bus.owner() == first
    mark = daemon.mark()
    owner.kill()
    daemon.wait_for(f'Name("{SERVICE}") is acquired', after=mark)
    assert bus.wait_owned() != first
    assert bus.call("GetVersion", "red") == "4.0.28/4.0.12"


def test_the_names_life_is_told(red, bus, daemon):
    with pytest.raises(BusError, match="not provided by any .service files"):
        bus.call("GetVersion", "red")
    daemon.start(wait=READY)
    daemon.wait_order(
        f'Bus("{SERVICE}") is acquired',
        re.compile(r'^DBus object\("/org/ornix/zoneframework"\) is registered\(Object ID : \d+d\)$'),
        f'Name("{SERVICE}") is acquired',
    )
    assert bus.wait_owned()
    assert daemon.stop() == 0
    assert bus.owner() is None
