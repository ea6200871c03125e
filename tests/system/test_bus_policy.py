"""What the packaged bus policy lets other users do: look and listen."""

import pytest
from zonetest import READY, eventually, never, send_states
from zonetest.bus import INTERFACE, OBJECT, SERVICE

OTHER = ["setpriv", "--reuid=1000", "--regid=1000", "--clear-groups"]
CALL = ["busctl", "--system", "--timeout=10", "call", "--"]
BUS = ["org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus"]


@pytest.fixture
def red(fake, bus, daemon):
    fake.define("red", "hybrid", state="RUNNING")
    daemon.start(wait=READY)
    bus.wait_owned()
    return "red"


@pytest.mark.parametrize(
    "arguments",
    [
        ["GetVersion", "s", "red"],
        ["GetZoneList"],
        ["ZoneGetState", "s", "red"],
        ["ZoneGetPid", "s", "red"],
        ["ZoneGetInitPid", "s", "red"],
        ["ZoneStart", "s", "red"],
        ["ZoneStop", "s", "red"],
        ["ZoneFreeze", "s", "red"],
        ["ZoneUnfreeze", "s", "red"],
        ["ZoneLock", "sb", "red", "true"],
        ["ZoneUnlock", "s", "red"],
        ["ZoneAttach", "sasasii", "red", "0", "0", "0", "0"],
        ["ZoneAttachWait", "s", "red"],
    ],
    ids=lambda arguments: arguments[0],
)
def test_another_user_may_call_nothing(red, daemon, root, arguments):
    mark = daemon.mark()
    result = root.run([*OTHER, *CALL, SERVICE, OBJECT, INTERFACE, *arguments], check=False)
    assert (result.returncode, result.stdout, result.stderr) == (1, "", "Call failed: Access denied\n")
    assert daemon.bodies(after=mark) == []


def test_another_user_may_not_ask_for_properties_or_ping(red, root):
    for call in (
        ["org.freedesktop.DBus.Properties", "GetAll", "s", INTERFACE],
        ["org.freedesktop.DBus.Peer", "Ping"],
    ):
        result = root.run([*OTHER, *CALL, SERVICE, OBJECT, *call], check=False)
        assert result.stderr == "Call failed: Access denied\n"


def test_another_user_may_introspect(red, root):
    first = root.run([*OTHER, "busctl", "--system", "introspect", SERVICE, OBJECT]).stdout
    assert first == root.run(["busctl", "--system", "introspect", SERVICE, OBJECT]).stdout
    assert ".ZoneAttachWait " in first
    root.run([*OTHER, "gdbus", "introspect", "--system", "--dest", SERVICE, "--object-path", OBJECT])


def test_another_user_hears_the_signal_and_nothing_else(red, bus, root):
    output = root.scratch / "monitor.log"
    monitor = ["gdbus", "monitor", "--system", "--dest", SERVICE, "--object-path", OBJECT]
    with open(output, "wb") as log:
        root.popen([*OTHER, *monitor], stdout=log)
    eventually(lambda: "is owned by" in output.read_text(), 10, "the listener")
    bus.call("GetVersion", "red")
    send_states(root, "red", "FREEZING", "FROZEN")
    head = f"{OBJECT}: {INTERFACE}.ZoneStateChangedSignal"
    expected = [f"{head} ('red', 'FREEZING')", f"{head} ('red', 'FROZEN')"]
    eventually(lambda: output.read_text().splitlines()[-2:] == expected, 10, "both signals")
    never(lambda: output.read_text().splitlines()[-2:] != expected, 0.5)


def test_another_user_cannot_own_the_name(fake, bus, root):
    result = root.run([*OTHER, *CALL, *BUS, "RequestName", "su", SERVICE, "0"], check=False)
    assert (result.returncode, result.stderr) == (1, "Call failed: Access denied\n")
    assert root.run([*CALL, *BUS, "RequestName", "su", SERVICE, "0"]).stdout == "u 1\n"


def test_a_daemon_that_may_not_own_its_name_says_so_and_goes_on(fake, bus, daemon, root):
    """Without the policy, nobody may own the name."""
    root.remove("/usr/share/dbus-1/system.d/org.ornix.zoneframework.conf")
    bus.restart()
    fake.define("red", "hybrid")
    daemon.start(wait=READY)
    assert daemon.wait_for(f'Bus is lost("{SERVICE}")').level == "error"
    assert bus.owner() is None
    assert daemon.stop() == 0
