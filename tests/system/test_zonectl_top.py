"""What zonectl top tells of real zones, with and without the daemon."""

import json

import pytest
from zonetest import BUILD, READY, eventually

ZONECTL = BUILD / "bin" / "zonectl"


@pytest.fixture
def look(root):
    """One look at all zones, by their names."""

    def run(*names):
        result = root.run([ZONECTL, "top", "--json", "--timeout", "2", *names], check=False)
        assert (result.returncode, result.stderr) == (0, "")
        return {zone["name"]: zone for zone in json.loads(result.stdout.splitlines()[0])}

    return run


@pytest.fixture
def running(zones, bus, daemon):
    """The daemon, with a zone that runs and one that does not."""
    zones.define("red")
    zones.define("idle")
    daemon.start(wait=READY)
    bus.wait_owned()
    assert bus.call("ZoneStart", "red") is True
    daemon.wait_for("Now, red is running", timeout=30)


def in_zone(root, name, command):
    """Starts a program in a zone's control groups."""
    groups = f"/sys/fs/cgroup/*/lxc.payload/{name}/cgroup.procs"
    return root.popen(["sh", "-c", f"for group in {groups}; do echo 0 > $group; done; exec {command}"])


def test_a_zone_that_runs_and_one_that_does_not(running, zones, look):
    zones_seen = look()
    assert zones_seen.keys() == {"red", "idle"}
    red, idle = zones_seen["red"], zones_seen["idle"]
    assert (red["state"], red["state_source"]) == ("RUNNING", "daemon")
    assert red["processes"] >= 1 and red["memory_bytes"] > 0 and red["uptime_seconds"] >= 0
    assert red["cpu_permille"] is not None
    assert (idle["state"], idle["state_source"]) == ("STOPPED", "daemon")
    assert {idle[name] for name in ("processes", "memory_bytes", "uptime_seconds", "cpu_permille")} == {None}


def test_a_busy_zone_uses_the_processor(running, zones, root, look):
    before = look("red")["red"]["processes"]
    busy = in_zone(root, "red", "sh -c 'while :; do :; done'")
    eventually(lambda: look("red")["red"]["processes"] == before + 1, 20, "the process to be counted")
    eventually(lambda: look("red")["red"]["cpu_permille"] > 0, 20, "its use of the processor")
    busy.kill()
    eventually(lambda: look("red")["red"]["processes"] == before, 20, "its end to be seen")


def test_without_the_daemon_the_control_groups_tell(running, zones, root, daemon, look):
    daemon.stop()
    zones_seen = look()
    assert (zones_seen["red"]["state"], zones_seen["red"]["state_source"]) == ("RUNNING", "control-groups")
    assert (zones_seen["idle"]["state"], zones_seen["idle"]["state_source"]) == ("STOPPED", "control-groups")
    root.run(["lxc-freeze", "-n", "red"])
    assert look("red")["red"]["state"] == "FROZEN"
    root.run(["lxc-unfreeze", "-n", "red"])
    assert look("red")["red"]["state"] == "RUNNING"


def test_a_zone_with_groups_of_lxcs_own_naming(zones, root, look):
    zones.define("red")
    lines = root.read("/var/lib/lxc/red/config").splitlines(keepends=True)
    root.write("/var/lib/lxc/red/config", "".join(line for line in lines if "lxc.cgroup" not in line))
    zones.start("red")
    red = look("red")["red"]
    assert red["state"] == "RUNNING" and red["processes"] >= 1
    assert red["cpu_permille"] is not None


def test_a_protection_zone_is_seen_by_its_control_groups(zones, bus, daemon, look):
    zones.define("gold", "protection")
    daemon.start(wait=READY)
    bus.wait_owned()
    zones.start("gold")
    gold = look()["gold"]
    assert (gold["state"], gold["state_source"]) == ("RUNNING", "control-groups")
