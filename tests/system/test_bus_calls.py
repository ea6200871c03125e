"""Every method of the bus service, called by busctl and gdbus."""

import re
import xml.etree.ElementTree as ElementTree

import pytest
from zonetest import PROJECT, READY, BusError, eventually, never
from zonetest.bus import INTERFACE, OBJECT, SERVICE

DESCRIPTION = PROJECT / "packaging" / "dbus" / "org.ornix.zoneframework.xml"
INVALID_ARGUMENTS = "org.freedesktop.DBus.Error.InvalidArgs"
UNKNOWN_METHOD = "org.freedesktop.DBus.Error.UnknownMethod"
WRONG_SHAPE = re.compile(
    r"GLib-GIO-WARNING .*Type of return value is incorrect: expected '\(u\)', got '\(i\)'$"
)
BOUNDED = 2  # seconds for an answer that does not come

# Method, its number, and its arguments behind the zone's name: busctl's signature and arguments, gdbus's.
METHODS = [
    ("GetVersion", 0, "s", [], []),
    ("ZoneGetState", 2, "s", [], []),
    ("ZoneGetPid", 3, "s", [], []),
    ("ZoneGetInitPid", 4, "s", [], []),
    ("ZoneStart", 5, "s", [], []),
    ("ZoneStop", 6, "s", [], []),
    ("ZoneFreeze", 7, "s", [], []),
    ("ZoneUnfreeze", 8, "s", [], []),
    ("ZoneLock", 9, "sb", ["true"], ["true"]),
    ("ZoneUnlock", 10, "s", [], []),
    ("ZoneAttach", 11, "sasasii", ["1", "sh", "0", "0", "0"], ["['sh']", "@as []", "0", "0"]),
]
NAMES = [method[0] for method in METHODS]
VERSION = "4.0.28/4.0.12"
REPLIES = {
    "GetVersion": (f's "{VERSION}"', f"('{VERSION}',)"),
    "ZoneGetState": ("i 3", "(3,)"),
    "ZoneGetPid": ("i 0", "(0,)"),
    "ZoneGetInitPid": ("i 4711", "(4711,)"),
    "ZoneStart": ("b true", "(true,)"),
    "ZoneStop": ("b true", "(true,)"),
    "ZoneFreeze": ("b false", "(false,)"),
    "ZoneUnfreeze": ("b true", "(true,)"),
    "ZoneLock": ("b false", "(false,)"),
    "ZoneUnlock": ("b false", "(false,)"),
    "ZoneAttach": ("b true", "(true,)"),
}
REFUSALS = {
    "s": ('s "none"', "('none',)"),
    "i": ("i -1", "(-1,)"),
    "b": ("b false", "(false,)"),
}


@pytest.fixture
def served(fake, bus, daemon):
    """A running daemon with a zone of each kind; the zones that may be called run with init process 4711."""
    for name, kind in (("hybrid", "hybrid"), ("isolated", "isolation"), ("protected", "protection")):
        fake.define(name, kind, state="RUNNING", init_pid=4711)
    daemon.start(wait=READY)
    bus.wait_owned()
    return daemon


def busctl(bus, method, *arguments, timeout=10):
    """What busctl prints for people, and its status."""
    command = ["busctl", "--system", f"--timeout={timeout}", "call", "--", SERVICE, OBJECT, INTERFACE, method]
    return bus.root.run([*command, *arguments], check=False)


def gdbus(bus, method, *arguments, timeout=10):
    target = ["--dest", SERVICE, "--object-path", OBJECT, "--method", f"{INTERFACE}.{method}"]
    command = ["gdbus", "call", "--system", f"--timeout={timeout}", *target]
    return bus.root.run([*command, *arguments], check=False)


def call_both(bus, method, zone):
    """The replies to one call by each client, as they print them."""
    _, _, signature, more, gdbus_more = next(row for row in METHODS if row[0] == method)
    first = busctl(bus, method, signature, zone, *more)
    second = gdbus(bus, method, zone, *gdbus_more)
    for result in (first, second):
        assert (result.returncode, result.stderr) == (0, "")
    return first.stdout, second.stdout


# Replies


@pytest.mark.parametrize("zone", ["hybrid", "isolated"])
def test_the_reply_of_every_method(served, bus, zone):
    for method in NAMES:
        expected = tuple(f"{reply}\n" for reply in REPLIES[method])
        assert call_both(bus, method, zone) == expected, method
    assert served.strays == []


def test_every_call_is_told_with_its_number(served, bus):
    for method, number, signature, more, _ in METHODS:
        mark = served.mark()
        busctl(bus, method, signature, "hybrid", *more)
        call, _ = served.wait_order(
            re.compile(
                rf"^sender : :1\.\d+ / object path : {OBJECT} / interface name : {INTERFACE} / "
                rf"method name : {method}$"
            ),
            re.compile(rf'^method name type of "{method}" is {number}$'),
            after=mark,
        )
        # The zone's own thread may tell of an earlier request meanwhile, as of a start that a stop overtook.
        own = [record for record in served.records[mark:] if record.tid == call.tid]
        assert [record.body for record in own if record.level == "error"] == []


REQUEST_LINES = {
    **{
        method: f"[DBus] {method} on zone 'hybrid'"
        for method in ("ZoneGetState", "ZoneGetInitPid", "ZoneStart", "ZoneStop", "ZoneUnfreeze")
    },
    **{method: f"[DBus] {method} not implemanted" for method in ("ZoneFreeze", "ZoneLock", "ZoneUnlock")},
    "ZoneAttach": "[DBus] ZoneAttach zoneName[hybrid]",
    "GetVersion": None,
    "ZoneGetPid": None,
}


def test_every_request_is_told_in_its_own_words(served, bus):
    for method, _, signature, more, _ in METHODS:
        mark = served.mark()
        busctl(bus, method, signature, "hybrid", *more)
        told = [body for body in served.bodies("info", after=mark) if body.startswith("[DBus]")]
        expected = REQUEST_LINES[method]
        assert told == ([] if expected is None else [expected]), method


def test_a_state_that_changed_is_another_answer(served, fake, bus):
    for number, word in enumerate(
        ("STOPPED", "STARTING", "RUNNING", "STOPPING", "ABORTING", "FREEZING", "FROZEN", "THAWED"), start=1
    ):
        fake.put("hybrid", "state", word)
        assert busctl(bus, "ZoneGetState", "s", "hybrid").stdout == f"i {number}\n"


def test_a_freeze_request_leaves_the_zone_alone(served, fake, bus):
    assert call_both(bus, "ZoneFreeze", "hybrid") == ("b false\n", "(false,)\n")
    served.never(re.compile("ZONE FREEZE|zone event"), 4.0)  # longer than a zone waits for its next look
    assert fake.calls("freeze") == []
    assert fake.of("hybrid", "state") == "RUNNING"


def test_requests_are_only_queued(served, bus):
    """The reply comes at once, the zone looks at its queue seconds later."""
    mark = served.mark()
    assert bus.call("ZoneStop", "hybrid") is True
    sent = served.wait_for("zone event(2) is sent (zone name : hybrid)", after=mark)
    done = served.wait_for("receive the event - ZONE STOP(thread name : hybrid", after=mark)
    assert (sent.tid, sent.tid != done.tid) == (served.inner_pid, True)
    served.wait_for("hybrid is stopped successfully", after=mark)


def test_the_recorded_init_process_is_answered_even_after_a_stop(fake, bus, daemon):
    fake.define("red", "hybrid")
    daemon.start(wait=READY)
    bus.wait_owned()
    assert bus.call("ZoneGetInitPid", "red") == -1  # liblxc's answer for a container that does not run
    assert bus.call("ZoneStart", "red") is True
    daemon.wait_for(re.compile(r"The init pid\(\d+\) of zone\(red\) is set"))
    recorded = int(fake.of("red", "init_pid"))
    assert bus.call("ZoneGetInitPid", "red") == recorded
    assert bus.call("ZoneStop", "red") is True
    daemon.wait_for("Removing zone watcher timer from zone thread context(thread name : red")
    assert fake.of("red", "init_pid") == "-1"
    assert bus.call("ZoneGetInitPid", "red") == recorded


# The list


def test_the_list_holds_every_container_in_liblxcs_order(served, fake, bus):
    fake.set("order", "protected\nhybrid\nisolated")
    names = ["protected", "hybrid", "isolated"]
    assert busctl(bus, "GetZoneList").stdout == 'as 3 "protected" "hybrid" "isolated"\n'
    assert gdbus(bus, "GetZoneList").stdout == f"({names},)\n"
    # Also what became no zone, since it was defined later.
    fake.set("order", "late\nhybrid")
    fake.define("late", "hybrid")
    assert bus.call("GetZoneList") == ["late", "hybrid"]
    assert served.strays == []
    assert not any("There is no access permission" in body for body in served.bodies("error"))


@pytest.mark.parametrize(("steering", "value"), [("lxcpath", None), ("list_fails", "")])
def test_without_a_listing_the_list_is_empty(served, fake, bus, steering, value):
    if value is None:
        fake.unset(steering)
    else:
        fake.set(steering, value)
    mark = served.mark()
    assert busctl(bus, "GetZoneList").stdout == "as 0\n"
    assert gdbus(bus, "GetZoneList").stdout == "(@as [],)\n"
    assert served.bodies("error", after=mark) == ["Failed to find containers(-1)"] * 2
    assert served.strays == []


def test_no_container_at_all_is_no_error(served, fake, bus):
    for name in ("hybrid", "isolated", "protected"):
        fake.root.remove(f"/run/fake-lxc/containers/{name}")
    mark = served.mark()
    assert bus.call("GetZoneList") == []
    assert served.bodies("error", after=mark) == []


# Refusals


@pytest.mark.parametrize("zone", ["protected", "nobody", ""])
def test_a_protection_zone_and_no_zone_are_refused_in_the_methods_own_shape(served, bus, zone):
    shapes = {"GetVersion": "s", "ZoneGetState": "i", "ZoneGetPid": "i", "ZoneGetInitPid": "i"}
    for method in NAMES:
        mark = served.mark()
        expected = tuple(f"{reply}\n" for reply in REFUSALS[shapes.get(method, "b")])
        assert call_both(bus, method, zone) == expected, method
        unknown = [] if zone == "protected" else [f"Can not find zone object (zone name : {zone})"]
        errors = served.bodies("error", after=mark)
        assert [re.sub(r":1\.\d+", ":1.N", line) for line in errors] == [
            *unknown,
            f'[DBus] There is no access permission to protection zone("{zone}") - Operation is not permitted',
            f"sender : :1.N / object path : {OBJECT} / interface name : {INTERFACE} / method name : {method}",
        ] * 2
        assert not any("[DBus] Zone" in body for body in served.bodies("info", after=mark)), method
    assert served.strays == []


def test_a_refused_request_reaches_no_container(served, fake, bus):
    calls = len(fake.calls(container="protected"))
    for method in ("ZoneStart", "ZoneStop", "ZoneUnfreeze", "ZoneGetState", "ZoneGetInitPid"):
        call_both(bus, method, "protected")
    assert len(fake.calls(container="protected")) == calls
    assert fake.launches() == []


# ZoneAttachWait: declared "u", answered "i"


@pytest.mark.parametrize("zone", ["isolated", "protected", "nobody"])
def test_the_answer_of_attach_wait_is_not_delivered(served, bus, zone):
    first = busctl(bus, "ZoneAttachWait", "s", zone, timeout=BOUNDED)
    second = gdbus(bus, "ZoneAttachWait", zone, timeout=BOUNDED)
    assert (first.stdout, first.stderr) == ("", "Call failed: Connection timed out\n")
    assert (second.stdout, second.stderr) == ("", "Error: Timeout was reached\n")
    assert len(served.strays) == 2
    assert all(WRONG_SHAPE.search(line) for line in served.strays)
    refused = served.count("There is no access permission to protection zone")
    assert refused == (0 if zone == "isolated" else 2)
    assert served.count(f"[DBus] ZoneAttachWait on zone '{zone}'") == 2 - refused
    # Others are served meanwhile and afterwards.
    assert bus.call("GetVersion", "isolated") == VERSION


def test_many_undelivered_answers_cost_nothing(served, bus, root):
    """A sanitizer's build reports what they leak, once GLib takes all its memory from the C library."""
    assert served.stop() == 0
    mark = served.mark()
    served.start({"G_SLICE": "always-malloc"})
    served.wait_for(READY, after=mark)
    bus.wait_owned()
    call = f"busctl --system --timeout=10ms call {SERVICE} {OBJECT} {INTERFACE} ZoneAttachWait s isolated"
    root.run(f"for i in $(seq 50); do {call} 2>/dev/null && exit 1; done; true")
    eventually(lambda: served.count("[DBus] ZoneAttachWait on zone 'isolated'") == 50, 20)
    eventually(lambda: sum(bool(WRONG_SHAPE.search(line)) for line in served.strays) == 50, 10)
    assert bus.call("GetVersion", "isolated") == VERSION
    assert served.stop() == 0


# What the bus library refuses before the daemon sees it


@pytest.mark.parametrize(
    ("method", "parameters", "got", "wanted"),
    [
        ("ZoneStart", ["i", "3"], "(i)", "(s)"),
        ("ZoneStart", [], "()", "(s)"),
        ("ZoneStart", ["ss", "hybrid", "more"], "(ss)", "(s)"),
        ("ZoneStop", ["o", "/hybrid"], "(o)", "(s)"),
        ("GetVersion", ["v", "s", "hybrid"], "(v)", "(s)"),
        ("GetZoneList", ["s", "hybrid"], "(s)", "()"),
        ("ZoneLock", ["s", "hybrid"], "(s)", "(sb)"),
        ("ZoneLock", ["bs", "true", "hybrid"], "(bs)", "(sb)"),
        ("ZoneAttach", ["sasasi", "hybrid", "0", "0", "0"], "(sasasi)", "(sasasii)"),
        ("ZoneAttach", ["sasasuu", "hybrid", "0", "0", "0", "0"], "(sasasuu)", "(sasasii)"),
        ("ZoneAttachWait", ["u", "1"], "(u)", "(s)"),
    ],
)
def test_arguments_of_wrong_types_are_invalid(served, bus, method, parameters, got, wanted):
    mark = served.mark()
    result = busctl(bus, method, *parameters)
    text = f"Type of message, “{got}”, does not match expected type “{wanted}”"
    assert (result.returncode, result.stderr) == (1, f"Call failed: {text}\n")
    with pytest.raises(BusError):
        bus.call(method, *parameters[1:], signature=parameters[0] if parameters else None)
    assert served.bodies(after=mark) == []
    assert served.strays == []


def test_errors_have_their_usual_names(served, bus):
    wrong = gdbus(bus, "ZoneLock", "hybrid", "true", "more")
    assert f"{UNKNOWN_METHOD}" not in wrong.stderr
    for method, arguments, name in (
        ("ZoneStart", ("1", "2"), INVALID_ARGUMENTS),
        ("ZoneExplode", ("hybrid",), UNKNOWN_METHOD),
    ):
        result = gdbus(bus, method, *arguments)
        assert result.returncode == 1
        assert f"GDBus.Error:{name}: " in result.stderr, result.stderr


@pytest.mark.parametrize("method", ["ZoneAtt", "Zone", "zonestart", "ZoneStarted", "ZoneStateChangedSignal"])
def test_a_part_of_a_methods_name_is_no_method(served, bus, method):
    mark = served.mark()
    result = busctl(bus, method, "s", "hybrid")
    assert (result.returncode, result.stderr) == (1, f"Call failed: No such method “{method}”\n")
    assert served.bodies(after=mark) == []


def test_there_is_nothing_but_the_one_object_and_interface(served, bus):
    for path, interface in (("/org/ornix", INTERFACE), ("/", INTERFACE), (OBJECT, SERVICE)):
        with pytest.raises(BusError):
            bus.busctl("call", SERVICE, path, interface, "GetVersion", "s", "hybrid")


# The published description


def structure(text):
    """Methods and signals with their arguments, in order; nothing but the project's own interface."""
    node = ElementTree.fromstring(text)
    (interface,) = [each for each in node.iter("interface") if each.get("name") == INTERFACE]
    return [
        (
            member.tag,
            member.get("name"),
            [(arg.get("type"), arg.get("name"), arg.get("direction")) for arg in member.iter("arg")],
        )
        for member in interface
    ]


def test_the_packaged_description_is_what_the_daemon_answers(served, bus):
    answered = structure(bus.introspect())
    assert answered == structure(DESCRIPTION.read_text())
    assert [name for kind, name, _ in answered if kind == "method"] == [
        "GetVersion",
        "GetZoneList",
        *NAMES[1:],
        "ZoneAttachWait",
    ]
    assert answered[-1] == ("signal", "ZoneStateChangedSignal", [])
    assert len(answered) == 14


INTROSPECTED = """\
.GetVersion                         method    s         s            -
.GetZoneList                        method    -         as           -
.ZoneAttach                         method    sasasii   b            -
.ZoneAttachWait                     method    s         u            -
.ZoneFreeze                         method    s         b            -
.ZoneGetInitPid                     method    s         i            -
.ZoneGetPid                         method    s         i            -
.ZoneGetState                       method    s         i            -
.ZoneLock                           method    sb        b            -
.ZoneStart                          method    s         b            -
.ZoneStop                           method    s         b            -
.ZoneUnfreeze                       method    s         b            -
.ZoneUnlock                         method    s         b            -
.ZoneStateChangedSignal             signal    -         -            -
"""


def test_both_clients_show_the_interface(served, bus, root):
    shown = root.run(["busctl", "--system", "introspect", SERVICE, OBJECT]).stdout
    assert shown.endswith(f"{INTERFACE}   interface -         -            -\n{INTROSPECTED}")
    tree = root.run(["gdbus", "introspect", "--system", "--dest", SERVICE, "--object-path", OBJECT]).stdout
    own = tree[tree.index(f"interface {INTERFACE}") :]
    methods = re.findall(r"^      (\w+)\(", own, re.MULTILINE)
    assert methods == ["GetVersion", "GetZoneList", *NAMES[1:], "ZoneAttachWait", "ZoneStateChangedSignal"]
    assert "in  b force_stop" in own
    assert "ZoneStateChangedSignal();" in own
    assert root.run(["busctl", "--system", "tree", "--list", SERVICE]).stdout.split()[-1] == OBJECT


# The signal, which is declared without arguments and has two


def test_dbus_monitor_sees_each_signal(served, bus, root):
    output = root.scratch / "dbus-monitor.log"
    rule = f"type='signal',interface='{INTERFACE}'"
    with open(output, "wb") as log:
        monitor = root.popen(["dbus-monitor", "--system", rule], stdout=log)
    # It is there once it is told that it lost its name, as becoming a monitor goes.
    eventually(lambda: "NameLost" in output.read_text(), 10)
    assert bus.call("ZoneStop", "hybrid") is True
    eventually(lambda: output.read_text().count("member=ZoneStateChangedSignal") == 2, 10)
    never(lambda: output.read_text().count("member=ZoneStateChangedSignal") > 2, 0.5)
    monitor.kill()
    text = output.read_text()
    head = rf"path={OBJECT}; interface={re.escape(INTERFACE)}; member=ZoneStateChangedSignal\n"
    found = re.findall(
        rf"^signal time=\S+ sender=(\S+) -> destination=(.*) serial=\d+ {head}"
        r'   string "(.*)"\n   string "(.*)"\n(?!   )',
        text,
        re.MULTILINE,
    )
    owner = bus.owner()
    assert found == [
        (owner, "(null destination)", "hybrid", "STOPPING"),
        (owner, "(null destination)", "hybrid", "STOPPED"),
    ], text
    assert served.strays == []
