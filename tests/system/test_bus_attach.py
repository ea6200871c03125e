"""ZoneAttach: its strings are copied, told, and gone before the zone's thread hears of the request."""

import pytest
from zonetest import READY, eventually
from zonetest.bus import INTERFACE, OBJECT, SERVICE

ELEMENT = "Vector element "
FLOOD = 100


@pytest.fixture
def red(fake, bus, daemon):
    """A daemon with the running hybrid zone "red"."""
    fake.define("red", "hybrid", state="RUNNING")
    daemon.start(wait=READY)
    bus.wait_owned()
    return "red"


def elements(daemon, mark):
    return [
        body.removeprefix(ELEMENT)
        for body in daemon.bodies("info", after=mark)
        if body.startswith(ELEMENT)
    ]


def test_an_empty_command_line_is_queued(red, bus, daemon):
    mark = daemon.mark()
    assert bus.attach("red") is True
    assert elements(daemon, mark) == []
    daemon.wait_order(
        "[DBus] ZoneAttach zoneName[red]",
        "zone event(5) is sent (zone name : red)",
        "receive the event - ZONE ATTACH(thread name : red",
        after=mark,
    )
    assert daemon.strays == []


@pytest.mark.parametrize(
    ("command", "environment"),
    [
        (["/bin/sh", "-c", "echo $0"], ["PATH=/bin", "HOME=/"]),
        ([], ["ONLY=environment"]),
        (["", "", ""], [""]),
        (["%s%n%s", "a b", "Größe"], ["%d"]),
    ],
)
def test_each_string_is_told_the_command_lines_first(red, bus, daemon, command, environment):
    mark = daemon.mark()
    assert bus.attach("red", command, environment, 1000, -1) is True
    assert elements(daemon, mark) == [*command, *environment]
    assert daemon.strays == []


def test_a_thousand_strings_are_told_in_order(red, bus, daemon):
    command = [f"argument-{number}" for number in range(1000)]
    environment = [f"VARIABLE_{number}=value" for number in range(1000)]
    mark = daemon.mark()
    assert bus.attach("red", command, environment) is True
    assert elements(daemon, mark) == [*command, *environment]
    daemon.wait_for("receive the event - ZONE ATTACH(thread name : red", after=mark)
    assert daemon.strays == []


@pytest.mark.parametrize("zone", ["nobody", ""])
def test_a_refused_request_has_its_strings_unread(red, bus, daemon, zone):
    mark = daemon.mark()
    assert bus.attach(zone, ["sh"], ["A=b"]) is False
    assert elements(daemon, mark) == []
    assert daemon.count("zone event(5)", after=mark) == 0


def test_a_flood_is_carried_out_one_by_one(red, bus, daemon, root):
    """The zone's thread gets each request after its strings have been freed: a sanitizer's build reports
    the slightest look at them."""
    strings = " ".join(f"argument-{number}" for number in range(20))
    call = (
        f"busctl --system call -- {SERVICE} {OBJECT} {INTERFACE} "
        f"ZoneAttach sasasii red 20 {strings} 1 A=b 0 0"
    )
    mark = daemon.mark()
    # Two clients at once, so that the zone works while requests come in.
    loop = f"for i in $(seq {FLOOD // 2}); do {call} || exit 1; done"
    replies = root.run(f"({loop}) & ({loop}) && wait $!").stdout
    assert replies == "b true\n" * FLOOD
    assert len(elements(daemon, mark)) == FLOOD * 21
    handled = "receive the event - ZONE ATTACH(thread name : red"
    eventually(lambda: daemon.count(handled, after=mark) == FLOOD, 20, "the last request")
    assert daemon.strays == []
    assert daemon.stop() == 0


def test_a_teardown_with_requests_in_the_queue_does_no_harm(red, bus, daemon):
    for _ in range(5):
        assert bus.attach("red", ["sh"] * 10, ["A=b"]) is True
    assert daemon.stop() == 0
