"""The roads of a request and of a dead zone, and the end of the daemon, with real containers."""

import os
import re
import signal
import time
from contextlib import suppress
from pathlib import Path

import pytest
from zonetest import READY, Daemon, eventually, never

LOCK = "/var/run/lxc/lock/zone-manager.lock"


def inits(zones, name="red"):
    """The machine's numbers of the first processes that the container's control group has."""
    found = []
    for pid in zones.root.pids():
        with suppress(OSError):
            groups = Path(f"/proc/{pid}/cgroup").read_text()
            status = Path(f"/proc/{pid}/status").read_text()
            if f"/lxc.payload/{name}\n" in groups and re.search(r"NSpid:.*\t1\n", status):
                found.append(pid)
    return found


def lxc_monitor(zones, name="red"):
    """The machine's number of the process that LXC keeps beside a running container."""
    for pid in zones.root.pids():
        with suppress(OSError):
            words = Path(f"/proc/{pid}/cmdline").read_text().rstrip("\0").split()
            if words[:2] == ["[lxc", "monitor]"] and words[-1] == name:
                return pid
    return None


def open_files(pid):
    """What a process has open: number to target, as the machine names it."""
    found = {}
    for link in Path(f"/proc/{pid}/fd").iterdir():
        with suppress(OSError):
            found[int(link.name)] = os.readlink(link)
    return found


def running(zones, daemon, bus, name="red"):
    """Has the daemon start a zone on request, and defines it when there is none."""
    if not zones.root.exists(f"/var/lib/lxc/{name}"):
        zones.define(name, "hybrid")
    daemon.start(wait=READY)
    bus.wait_owned()
    assert bus.call("ZoneStart", name) is True
    daemon.wait_for(f"Now, {name} is running", timeout=30)
    daemon.wait_for("Zone Watcher Is registered", timeout=30)
    return name


def test_zones_come_up_strictly_one_after_another(zones, daemon):
    for name in ("alpha", "beta", "gamma"):
        zones.define(name, "hybrid", auto=True)
    zones.define("idle", "hybrid")
    daemon.start()
    daemon.wait_for(re.compile("Now, (alpha|beta|gamma) is running"), timeout=30)
    eventually(lambda: daemon.count(re.compile("Now, .* is running")) == 3, 60, "three running zones")
    road = re.compile(
        r"zone event\(1\) is sent \(zone name : (\w+)\)|The state of (\w+) is changed to RUNNING"
    )
    steps = [road.search(body) for body in daemon.bodies("info")]
    steps = [next(filter(None, step.groups())) for step in steps if step]
    # Request and report in turn, each time of the same zone.
    assert len(steps) == 6
    assert steps[0::2] == steps[1::2]
    assert sorted(steps[0::2]) == ["alpha", "beta", "gamma"]
    assert [zones.state(name) for name in ("alpha", "beta", "gamma", "idle")] == ["RUNNING"] * 3 + ["STOPPED"]


def test_a_request_starts_and_stops_a_container(zones, bus, daemon):
    running(zones, daemon, bus)
    assert zones.state("red") == "RUNNING"
    assert len(inits(zones)) == 1
    told = daemon.find(re.compile(r"The init pid\((\d+)\) of zone\(red\) is set"))
    assert re.search(r"\d+", told.body)[0] == str(zones.init_pid("red"))
    assert bus.call("ZoneGetState", "red") == 3
    assert bus.call("ZoneGetInitPid", "red") == zones.init_pid("red")
    mark = daemon.mark()
    assert bus.call("ZoneStop", "red") is True
    daemon.wait_for("red is stopped successfully", timeout=40, after=mark)
    daemon.wait_order(
        'Restart flag is set of "red" to [0]',
        "The state of red is changed to STOPPED",
        "Restart event for red is sent to Zone Manager",
        "Zone Watcher Is removed",
        after=mark,
        timeout=20,
    )
    assert zones.state("red") == "STOPPED"
    assert inits(zones) == []
    assert zones.groups("red") == []
    assert bus.call("ZoneGetState", "red") == 1
    # It stays so: nobody asks for another start.
    daemon.never(re.compile(r"zone event\((1|7)\) is sent"), 1.0, after=mark)


def test_a_frozen_container_is_unfrozen_on_request(zones, bus, daemon):
    running(zones, daemon, bus)
    zones.root.run(["lxc-freeze", "-n", "red"])
    daemon.wait_for("ZONE CHANGE STATE[7]", timeout=20)
    mark = daemon.mark()
    assert bus.call("ZoneUnfreeze", "red") is True
    daemon.wait_for("red is unfreezed successfully", timeout=20, after=mark)
    daemon.wait_for("Now, red is running", timeout=20, after=mark)
    assert zones.state("red") == "RUNNING"
    assert bus.call("ZoneGetState", "red") == 3


def test_a_zone_whose_init_process_is_killed_comes_back_with_another(zones, bus, daemon):
    running(zones, daemon, bus)
    mark = daemon.mark()
    (before,) = inits(zones)
    number = zones.init_pid("red")
    os.kill(before, signal.SIGKILL)
    daemon.wait_order(
        "exit message is received - red is exited with status code : 0",
        'Restart flag is set of "red" to [1]',
        "The state of red is changed to STOPPED",
        "zone event(7) is sent to Zone Manager",
        "Restart event for red is sent to Zone Manager",
        "receive the event - ZONE RESTART(thread name : zone-manager",
        "Restart event for red is sent(thread name : zone-manager",
        "receive the event - ZONE START(thread name : red",
        "red is started successfully",
        "Now, red is running",
        "The init pid(",
        after=mark,
        timeout=40,
    )
    (after,) = inits(zones)
    assert after != before
    assert zones.init_pid("red") not in (None, number)
    assert daemon.find(f"The init pid({zones.init_pid('red')}) of zone(red) is set", after=mark)


@pytest.mark.parametrize("survives", [False, True])
def test_a_container_whose_lxc_monitor_was_killed_comes_back_once(zones, bus, daemon, survives):
    zones.define("red", "hybrid")
    if survives:
        # By default LXC has the container end together with its monitor.
        with open(zones.root.path("/var/lib/lxc/red/config"), "a") as config:
            config.write("lxc.monitor.signal.pdeath = SIGCHLD\n")
    running(zones, daemon, bus)
    (before,) = inits(zones)
    mark = daemon.mark()
    os.kill(lxc_monitor(zones), signal.SIGKILL)
    eventually(lambda: lxc_monitor(zones) is None, 10, "the end of LXC's monitor")
    left = [before] if survives else []
    eventually(lambda: inits(zones) == left, 10, "what is left of the container")
    never(lambda: inits(zones) != left, 2, "another end of the container", step=0.2)
    # Nobody reports the end of a container without its monitor; the watcher sees that it is out of control.
    warning = daemon.wait_for("Restarting red(", timeout=30, after=mark)
    assert warning.body.startswith("Restarting red(current zone pid : -1, ")
    assert daemon.find("exit message is received", after=mark) is None
    daemon.wait_for("red is re-started successfully", timeout=30, after=mark)
    daemon.wait_for("Now, red is running", timeout=20, after=mark)
    # What was left has been cleared away, or there would be two now.
    (after,) = inits(zones)
    assert after != before
    assert not Path(f"/proc/{before}/exe").exists()
    assert zones.state("red") == "RUNNING"


def test_a_container_survives_the_daemon_and_holds_nothing_of_it(zones, bus, daemon, root):
    running(zones, daemon, bus)
    (init,) = inits(zones)
    monitor = lxc_monitor(zones)
    own = {target for number, target in open_files(daemon.pid).items() if number > 2}
    assert {"/run/lxc/lock/zone-manager.lock", "/run/lxc/var/lib/lxc/monitor-fifo"} <= own
    assert sum(target.startswith("socket:") for target in own) >= 3
    for pid in (monitor, init):
        held = set(open_files(pid).values())
        assert held
        # Anonymous ones that are the same for every process do not tell anything.
        assert not {each for each in held & own if not each.startswith("anon_inode:") and each != "/dev/null"}
    assert daemon.stop() == 0
    assert inits(zones) == [init]
    assert not root.exists(LOCK)

    # The next daemon takes over at once, and the FIFO, too: it hears of the container's end.
    second = Daemon(root)
    mark = second.mark()
    began = time.monotonic()
    second.start()
    try:
        second.wait_for(READY, after=mark)
        assert time.monotonic() - began < 30
        bus.wait_owned()
        assert inits(zones) == [init]
        assert bus.call("ZoneGetState", "red") == 3
        zones.kill("red")
        second.wait_for("The state of red is changed to STOPPED", timeout=20, after=mark)
    finally:
        assert second.stop() == 0


def test_a_killed_daemon_is_followed_by_another_at_once(zones, bus, daemon):
    running(zones, daemon, bus)
    (init,) = inits(zones)
    daemon.signal(signal.SIGKILL)
    assert daemon.wait_exit() == -signal.SIGKILL
    mark = daemon.mark()
    daemon.start()
    daemon.wait_for(READY, after=mark)
    bus.wait_owned()
    assert inits(zones) == [init]
    # A start requested now clears the container of the earlier run away before it starts another.
    assert bus.call("ZoneStart", "red") is True
    daemon.wait_for("red is started successfully", timeout=40, after=mark)
    (after,) = inits(zones)
    assert after != init


def test_the_shipped_launcher_gives_containers_an_ordinary_umask_and_signal_mask(zones, bus, daemon):
    running(zones, daemon, bus)
    (init,) = inits(zones)
    status = Path(f"/proc/{init}/status")
    assert "Umask:\t0022\n" in status.read_text()
    # The container's init blocks signals for moments of its own; what it inherited would stay.
    eventually(lambda: "SigBlk:\t0000000000000000\n" in status.read_text(), 10, "an empty signal mask")
