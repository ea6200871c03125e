"""zonectl's requests to the daemon among real containers: how they end, and what is said when they fail."""

import json

import pytest
from zonetest import BUILD, READY

ZONECTL = BUILD / "bin" / "zonectl"
HANG_GUARD = 60
OK, FAILED, UNREACHABLE, TIME_LIMIT = 0, 1, 3, 4


@pytest.fixture
def zonectl(root):
    def run(*arguments, status=OK):
        result = root.run([ZONECTL, *arguments], check=False, timeout=HANG_GUARD)
        assert result.returncode == status, f"{result.stdout}{result.stderr}"
        return result

    return run


@pytest.fixture
def managed(zones, bus, daemon):
    """Two zones that do not run, under a daemon that is ready."""
    zones.define("blue", "isolation")
    zones.define("red", "hybrid")
    daemon.start(wait=READY)
    bus.wait_owned()
    return zones


def test_zones_are_started_and_stopped_together(managed, zonectl):
    result = zonectl("start", "--wait", "red", "blue")
    assert result.stdout == "red: RUNNING\nblue: RUNNING\n"
    for name in ("red", "blue"):
        assert f"{name}: start is queued; the daemon begins within 3 s" in result.stderr
        assert f"{name}: STARTING (after " in result.stderr
        assert managed.state(name) == "RUNNING"
    zones = json.loads(zonectl("stop", "--wait", "--json", "red", "blue").stdout)
    assert [(zone["name"], zone["state"], zone["done"]) for zone in zones] == [
        ("red", "STOPPED", True),
        ("blue", "STOPPED", True),
    ]
    assert managed.state("red") == managed.state("blue") == "STOPPED"


def test_a_frozen_zone_goes_on_and_a_wait_sees_it_pass(managed, zonectl, root):
    zonectl("start", "--wait", "red")
    root.run(["lxc-freeze", "-n", "red"])
    zonectl("wait", "red", "FROZEN")
    assert "a start fails until it is thawed" in zonectl("start", "red", status=FAILED).stderr
    assert managed.state("red") == "FROZEN"
    waiting = root.popen([ZONECTL, "wait", "red", "THAWED"], stdout=-1, stderr=-1, text=True)
    assert "red: waiting up to 30 s for THAWED" in waiting.popen.stderr.readline()
    assert zonectl("unfreeze", "--wait", "red").stdout == "red: RUNNING\n"
    output, _ = waiting.popen.communicate(timeout=HANG_GUARD)
    assert (waiting.popen.returncode, output) == (OK, "red: THAWED\n")


def test_a_start_that_the_launcher_cannot_carry_out(managed, zonectl, root):
    root.path("/var/lib/lxc/red/rootfs/sbin/init").unlink()
    result = zonectl("start", "--wait", "red", status=FAILED)
    assert "zonectl: red: the start failed: it was STARTING and came to " in result.stderr
    assert "'zonectl explain red' tells from the log why" in result.stderr


def test_a_request_that_nothing_comes_of(managed, zonectl, root):
    """Without a launcher LXC has nothing to tell."""
    root.remove("/zone/config/zone-launcher")
    result = zonectl("start", "--wait=5", "red", status=TIME_LIMIT)
    assert "it was not RUNNING within 5 s (last state: STOPPED); 'zonectl explain red'" in result.stderr


def test_names_that_are_refused(managed, zones, zonectl):
    zones.define("gold", "protection")
    result = zonectl("start", "gold", "nosuch", status=FAILED)
    assert "gold: the start was refused: it is a protection zone" in result.stderr
    no_such_zone = "the daemon has no such zone (there are: blue, gold, red)"
    assert f"nosuch: the start was refused: {no_such_zone}" in result.stderr
    assert "has no such zone" in zonectl("wait", "nosuch", "RUNNING", status=FAILED).stderr


def test_the_daemon_goes_while_somebody_waits(managed, zonectl, root, daemon):
    waiting = root.popen([ZONECTL, "wait", "red", "RUNNING"], stdout=-1, stderr=-1, text=True)
    assert "waiting up to" in waiting.popen.stderr.readline()
    daemon.stop()
    _, errors = waiting.popen.communicate(timeout=HANG_GUARD)
    assert waiting.popen.returncode == UNREACHABLE
    assert "zonectl: red: the zone manager has left the bus" in errors


def test_attach_is_queued_and_runs_nothing(managed, zonectl, daemon, root):
    zonectl("start", "--wait", "red")
    result = zonectl("attach", "red", "--", "touch", "/witness")
    assert "The daemon runs no command for it" in result.stdout
    daemon.wait_for("receive the event - ZONE ATTACH")
    assert not root.exists("/var/lib/lxc/red/rootfs/witness")
    assert "refused" in zonectl("attach", "nosuch", "--", "true", status=FAILED).stderr


def test_the_version_of_both(managed, zonectl):
    versions = json.loads(zonectl("version", "--json").stdout)
    assert versions["daemon"].split("/")[0] == versions["zonectl"]
    assert zonectl("version", "blue").stdout == zonectl("version").stdout
