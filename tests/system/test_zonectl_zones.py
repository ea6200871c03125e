"""zonectl's zones among real containers: what it tells of them, what it asks for, and how it waits."""

import contextlib
import fcntl
import json
import os
import signal
from pathlib import Path

import pytest
from zonetest import BUILD, READY, eventually, init_pid_address

ZONECTL = BUILD / "bin" / "zonectl"
HANG_GUARD = 30
OK, FAILED, USAGE, UNREACHABLE, TIME_LIMIT = 0, 1, 2, 3, 4
SERVICE = ("org.ornix.zoneframework", "/org/ornix/zoneframework", "org.ornix.zoneframework.interface")


class Zonectl:
    def __init__(self, root, *prefix):
        self.root = root
        self.command = [*prefix, ZONECTL]

    def run(self, *arguments, status=OK):
        result = self.root.run([*self.command, *arguments], check=False, timeout=HANG_GUARD)
        assert result.returncode == status, f"{result.stdout}{result.stderr}"
        return result

    def json(self, *arguments, status=OK):
        return json.loads(self.run(*arguments, "--json", status=status).stdout)

    def zones(self, command="list", *names, status=OK):
        return {zone["name"]: zone for zone in self.json(command, *names, status=status)}

    def popen(self, *arguments):
        return self.root.popen([*self.command, *arguments], stdout=-1, stderr=-1, text=True)

    @property
    def processes(self):
        """The processes of the program that live, also those that it made."""
        found = []
        for pid in self.root.pids():
            with contextlib.suppress(OSError):
                if Path(f"/proc/{pid}/comm").read_text().strip() == "zonectl":
                    found.append(pid)
        return found


@pytest.fixture
def zonectl(root):
    return Zonectl(root)


@pytest.fixture
def managed(zones, bus, daemon):
    """Two zones that run, one that is to be started, and one that nobody may control."""
    zones.define("blue", "isolation", auto=True)
    zones.define("gold", "protection")
    zones.define("green", "hybrid")
    zones.define("red", "hybrid", auto=True)
    daemon.start(wait=READY)
    bus.wait_owned()
    for name in ("blue", "red"):
        daemon.wait_for(f"Now, {name} is running", timeout=40)
    return zones


@pytest.fixture
def silence(root):
    """Stops LXC's monitor process of a container; at the end each goes on, whatever has happened."""
    stopped = []

    def stop(name):
        title = f"[lxc monitor] /var/lib/lxc {name}".encode()
        for pid in root.pids():
            with contextlib.suppress(OSError):
                if Path(f"/proc/{pid}/cmdline").read_bytes().rstrip(b"\0") == title:
                    stopped.append(pid)
                    os.kill(pid, signal.SIGSTOP)
        assert len(stopped) == 1, "there is one monitor of that name in the root"

    yield stop
    for pid in stopped:
        with contextlib.suppress(ProcessLookupError):
            os.kill(pid, signal.SIGCONT)


def test_what_is_told_of_each_zone(managed, zonectl):
    told = zonectl.zones()
    assert list(told) == ["blue", "gold", "green", "red"]
    assert told["blue"] == {
        "name": "blue",
        "kind": "isolation",
        "access": "granted",
        "state": "RUNNING",
        "init_pid": managed.init_pid("blue"),
        "automatic": True,
        "source": "daemon",
        "note": None,
    }
    assert (told["green"]["state"], told["green"]["init_pid"], told["green"]["automatic"]) == (
        "STOPPED",
        None,
        False,
    )
    assert (told["gold"]["access"], told["gold"]["state"]) == ("protected", "STOPPED")
    assert zonectl.zones("status", "red") == {"red": told["red"]}
    assert int(zonectl.run("pid", "blue").stdout) == managed.init_pid("blue")
    assert "'red' is no isolation zone" in zonectl.run("pid", "red", status=FAILED).stderr
    nobody = zonectl.run("pid", "nobody", status=FAILED).stderr
    assert "no container is called 'nobody' (there are: blue, gold, green, red)" in nobody


NO_CALL = "zonectl: {}the bus does not permit you to call {} (are you root?)\n"
REFUSED_TO_OTHERS = {
    ("list",): ("", "GetZoneList"),
    ("status", "blue", "gold"): ("", "GetZoneList"),
    ("version",): ("", "GetZoneList"),
    ("version", "blue"): ("", "GetVersion"),
    ("start", "--wait", "green"): ("green: ", "ZoneGetState"),
    ("stop", "blue"): ("blue: ", "ZoneGetState"),
    ("unfreeze", "blue"): ("blue: ", "ZoneGetState"),
    ("wait", "blue", "STOPPED"): ("blue: ", "ZoneGetState"),
    ("attach", "blue", "--", "ls"): ("", "ZoneAttach"),
}


def test_who_is_not_root_is_told_why_it_is_refused(managed, root, bus):
    """Everybody gets what files and the init-pid socket tell; of all else, one line says who may ask."""
    other = Zonectl(root, "setpriv", "--reuid=65534", "--regid=65534", "--clear-groups")
    for arguments, (zone, method) in REFUSED_TO_OTHERS.items():
        assert other.run(*arguments, status=FAILED).stderr == NO_CALL.format(zone, method), arguments
    assert bus.call("ZoneGetState", "blue") == 3 and bus.call("ZoneGetState", "green") == 1
    [request] = other.json("start", "green", status=FAILED)
    assert (request["queued"], request["done"]) == (False, False)
    assert "the bus does not permit you to call" in request["reason"]

    assert int(other.run("pid", "blue").stdout) == managed.init_pid("blue")
    assert "'red' is no isolation zone" in other.run("pid", "red", status=FAILED).stderr
    managed.define("late", "isolation")
    assert "'late' is no isolation zone of the daemon's" in other.run("pid", "late", status=FAILED).stderr
    root.remove("/var/lib/lxc/late/config")
    tables = [json.loads(line) for line in other.run("top", "--json", "--timeout=1").stdout.splitlines()]
    assert {row["name"]: row["state"] for row in tables[-1]} == {
        "blue": "RUNNING",
        "gold": "STOPPED",
        "green": "STOPPED",
        "red": "RUNNING",
    }
    assert {row["state_source"] for row in tables[-1]} == {"control-groups"}
    left_out = other.run("labels", status=FAILED).stderr
    for name in ("blue", "gold", "green", "red"):
        assert f"left out {name}: this user may not read its configuration\n" in left_out
    assert other.run("complete", "--", "status", "g").stdout == "gold\ngreen\n"


def test_of_a_protection_zone_the_processes_tell(managed, zonectl):
    managed.start("gold")
    assert zonectl.zones("status", "gold")["gold"] == {
        "name": "gold",
        "kind": "protection",
        "access": "protected",
        "state": "RUNNING",
        "init_pid": managed.init_pid("gold"),
        "automatic": False,
        "source": "proc",
        "note": "protected, from /proc",
    }
    row = zonectl.run("status", "gold").stdout.splitlines()[1]
    assert row.split()[:3] == ["gold", "protection", "RUNNING?"] and row.endswith("  protected, from /proc")


def test_a_protection_zone_is_waited_for_from_the_state_that_its_processes_tell(managed, zonectl):
    [stopped] = zonectl.json("wait", "gold", "stopped", "--timeout=5")
    assert (stopped["done"], stopped["state"]) == (True, "STOPPED")
    assert stopped["reason"] == "protected, from /proc"
    told = zonectl.run("wait", "gold", "RUNNING", "--timeout=1", status=TIME_LIMIT).stderr
    assert "(last state: STOPPED)" in told
    waiting = zonectl.popen("wait", "gold", "RUNNING", "--timeout=20")
    assert "gold: waiting up to 20 s for RUNNING" in waiting.popen.stderr.readline()
    managed.start("gold")
    assert waiting.wait() == OK
    assert waiting.popen.stdout.read() == "gold: RUNNING\n"


def test_what_has_changed_since_the_daemon_began(managed, zonectl, root):
    """A container that it does not have as a zone, and a zone without a container."""
    managed.define("late", "isolation")
    root.remove("/var/lib/lxc/green/config")
    told = zonectl.zones("status", "late", "green")
    assert (told["late"]["access"], told["late"]["source"]) == ("refused", "daemon")
    assert "since it began (restart the daemon), or refused ('zonectl doctor' tells)" in told["late"]["note"]
    assert told["late"]["note"] in zonectl.run("start", "late", status=FAILED).stderr
    assert told["late"]["note"] in zonectl.run("pid", "late", status=FAILED).stderr
    assert (told["green"]["state"], told["green"]["note"]) == (
        "STOPPED",
        "no container of that name is defined any more",
    )
    assert told["green"]["note"] in zonectl.run("start", "green", status=FAILED).stderr


def test_a_silent_monitor_spoils_neither_the_answer_nor_the_daemon(managed, silence, zonectl, bus, daemon):
    """liblxc waits for the monitor without a limit, and with it the daemon, if it were asked."""
    blue = managed.init_pid("blue")
    silence("blue")
    told = zonectl.zones()
    assert told["blue"] == {
        "name": "blue",
        "kind": "isolation",
        "access": None,
        "state": "RUNNING",
        "init_pid": blue,
        "automatic": True,
        "source": "proc",
        "note": "monitor silent, from /proc",
    }
    assert {name: told[name]["source"] for name in ("gold", "green", "red")} == {
        "gold": "proc",
        "green": "daemon",
        "red": "daemon",
    }
    assert told["red"]["state"] == "RUNNING"
    assert zonectl.processes == []
    row = next(line for line in zonectl.run("status", "blue").stdout.splitlines() if "blue" in line)
    assert row.split()[:5] == ["blue", "isolation", "RUNNING?", str(blue), "yes"]
    assert row.endswith("  monitor silent, from /proc")
    assert bus.call("ZoneGetState", "red") == 3
    assert daemon.running


def test_a_held_lock_of_a_container_is_no_silence(managed, root, zonectl):
    """Whoever changes a container's configuration holds LXC's lock on it, and opening it waits for that."""
    with root.path("/run/lxc/lock/var/lib/lxc/.red").open("w") as lock:
        fcntl.lockf(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
        told = zonectl.zones()
        assert zonectl.zones("status", "red") == {"red": told["red"]}
    assert {name: (zone["state"], zone["source"]) for name, zone in told.items()} == {
        "blue": ("RUNNING", "daemon"),
        "gold": ("STOPPED", "proc"),
        "green": ("STOPPED", "daemon"),
        "red": ("RUNNING", "daemon"),
    }


def test_a_zone_of_a_silent_monitor_can_be_waited_for(managed, silence, zonectl, bus):
    """Then only signals tell of it, and nothing that has asked the monitor is left."""
    silence("blue")
    waiting = zonectl.popen("wait", "blue", "STOPPED", "--timeout=3")
    told = waiting.popen.stderr.readline() + waiting.popen.stderr.readline()
    assert "blue: its LXC monitor is silent" in told and "blue: waiting up to 3 s for STOPPED" in told
    assert zonectl.processes == [waiting.pid]
    assert waiting.wait() == TIME_LIMIT
    assert "(last state: RUNNING)" in waiting.popen.stderr.read()
    [running] = zonectl.json("wait", "blue", "running", "--timeout=5")
    assert (running["state"], running["reason"]) == ("RUNNING", "monitor silent, from /proc")
    assert bus.call("ZoneGetState", "red") == 3


def test_a_monitor_that_falls_silent_while_somebody_waits(managed, silence, zonectl, bus, daemon):
    waiting = zonectl.popen("wait", "blue", "STOPPED", "--timeout=5")
    asked = "[DBus] ZoneGetState on zone 'blue'"
    eventually(lambda: daemon.count(asked) >= 2, 10, "a question between two others")
    silence("blue")
    assert waiting.wait() == TIME_LIMIT
    assert "(last state: RUNNING)" in waiting.popen.stderr.read()
    assert bus.call("ZoneGetState", "red") == 3


def test_watch_does_not_ask_about_a_zone_of_a_silent_monitor(managed, silence, zonectl, bus):
    silence("blue")
    lines = zonectl.run("watch", "--json", "--timeout=4").stdout.splitlines()
    present = {event["name"]: event for event in map(json.loads, lines)}
    assert {name: (event["state"], event["source"]) for name, event in present.items()} == {
        "blue": ("RUNNING", "proc"),
        "gold": ("STOPPED", "proc"),
        "green": ("STOPPED", "query"),
        "red": ("RUNNING", "query"),
    }
    assert present["blue"]["note"] == "monitor silent, from /proc"
    assert present["gold"]["note"] == "protected, from /proc"
    assert bus.call("ZoneGetState", "red") == 3
    assert zonectl.processes == []


def test_top_does_not_ask_about_a_zone_of_a_silent_monitor(managed, silence, zonectl, bus):
    silence("blue")
    lines = zonectl.run("top", "--json", "--timeout=4").stdout.splitlines()
    looks = [{zone["name"]: zone for zone in json.loads(line)} for line in lines]
    told = [{name: (zone["state"], zone["state_source"]) for name, zone in look.items()} for look in looks]
    assert {look["blue"] for look in told} == {("RUNNING", "control-groups")}
    assert told[-1]["red"] == ("RUNNING", "daemon") and told[-1]["green"] == ("STOPPED", "daemon")
    assert bus.call("ZoneGetState", "red") == 3
    assert zonectl.processes == []


def test_a_daemon_that_waits_for_a_silent_monitor_itself(managed, silence, zonectl, root, daemon):
    silence("blue")
    asking = root.popen(["busctl", "--timeout=120", "call", *SERVICE, "ZoneGetState", "s", "blue"], stdout=-1)
    daemon.wait_for("[DBus] ZoneGetState on zone 'blue'")
    told = zonectl.zones(status=UNREACHABLE)
    assert {name: (zone["state"], zone["source"]) for name, zone in told.items()} == {
        "blue": ("RUNNING", "proc"),
        "gold": ("STOPPED", "proc"),
        "green": ("STOPPED", "proc"),
        "red": ("RUNNING", "proc"),
    }
    assert "did not answer in time" in zonectl.run("status", "red", status=UNREACHABLE).stderr
    assert "did not answer in time" in zonectl.run("top", "--timeout=2", status=UNREACHABLE).stderr
    request = zonectl.run("start", "--wait", "--timeout=1", "green", status=UNREACHABLE)
    assert "did not answer ZoneGetState" in request.stderr
    assert asking.running


def test_without_a_daemon_the_processes_tell(zones, bus, root, zonectl):
    zones.define("blue", "isolation")
    zones.define("red", auto=True)
    zones.start("blue")
    root.run(["lxc-freeze", "-n", "blue"])
    told = zonectl.zones(status=UNREACHABLE)
    assert (told["blue"]["state"], told["blue"]["init_pid"]) == ("FROZEN", zones.init_pid("blue"))
    assert (told["red"]["state"], told["red"]["automatic"]) == ("STOPPED", True)
    result = zonectl.run("status", "red", "nosuch", status=UNREACHABLE)
    assert "the zone manager is not running" in result.stderr
    assert "STOPPED?" in result.stdout and "nosuch" not in result.stdout


@pytest.fixture
def init_pid_server(root):
    """A socket where the daemon's would be; nobody accepts until the test does."""
    with root.socket() as server:
        server.settimeout(HANG_GUARD)
        server.bind(init_pid_address())
        yield server


def test_pid_without_a_server(root, zonectl):
    assert "nobody serves the init-pid socket" in zonectl.run("pid", "blue", status=UNREACHABLE).stderr
    assert "up to 63 bytes" in zonectl.run("pid", "b" * 64, status=USAGE).stderr


def test_pid_of_a_server_that_never_answers(init_pid_server, zonectl):
    init_pid_server.listen(1)
    assert "did not answer in time" in zonectl.run("pid", "blue", "--timeout=1", status=TIME_LIMIT).stderr


def test_pid_of_a_server_that_is_full(init_pid_server, root, zonectl):
    """A connect waits then, as a read does."""
    init_pid_server.listen(0)
    with root.socket() as other:
        other.connect(init_pid_address())
        assert "did not answer in time" in zonectl.run("pid", "blue", "--timeout=1", status=TIME_LIMIT).stderr


@pytest.mark.parametrize(
    ("answer", "status", "text"),
    [
        (b"17", OK, "17\n"),
        (b"0", FAILED, "'blue' is no isolation zone"),
        (b"-1", FAILED, "zone 'blue' has not run"),
        (b"", FAILED, "which is no number"),
        (b"17x", FAILED, "answered '17x', which is no number"),
        (b"9" * 30, FAILED, "which is no number"),
    ],
)
def test_what_the_socket_answers(init_pid_server, zonectl, answer, status, text):
    init_pid_server.listen(1)
    asking = zonectl.popen("pid", "blue")
    client, _ = init_pid_server.accept()
    with client:
        assert client.recv(64) == b"blue"
        client.sendall(answer)
    output, errors = asking.popen.communicate(timeout=HANG_GUARD)
    assert asking.popen.returncode == status
    assert text in (errors if status else output)
