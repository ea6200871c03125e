"""How the daemon runs its launcher: what the child gets, and which outcomes count."""

import re
import signal

import pytest
from zonetest import READY, Subscriber, eventually

LAUNCHER = "/zone/config/zone-launcher"
RUNNING = ("set init_pid PID", "set running 1")


@pytest.fixture
def zone(fake):
    return fake.define("red")


@pytest.fixture
def request_start(zone, bus, daemon):
    """Requests a start and returns what came of it."""

    def request():
        mark = daemon.mark()
        assert bus.call("ZoneStart", "red") is True
        outcome = daemon.wait_for(re.compile("red is started successfully|Failed to start red"), after=mark)
        return str(outcome).partition("(")[0]

    daemon.start(wait=READY)
    bus.wait_owned()
    return request


SUCCESS, FAILURE = "info: red is started successfully", "fatal: Failed to start red"
STOPPED = "red is stopped successfully"


def test_the_child_gets_nothing_of_the_daemons_but_its_output(fake, request_start, bus, daemon, root):
    # By now there are the lock, the FIFO, both servers, the bus connection, and two subscribers.
    with Subscriber(root), Subscriber(root):
        eventually(lambda: daemon.count("client connection is added to GIO Channel List") == 2, 10)
        assert request_start() == SUCCESS
        assert bus.call("ZoneStop", "red") is True
        daemon.wait_for("red is stopped successfully")
    start, stop = fake.launches()
    assert start["argv"] == [LAUNCHER, "start", "red"]
    assert stop["argv"] == [LAUNCHER, "stop", "red"]
    log = start["fds"]["1"]
    for launch in (start, stop):
        assert launch["fds"] == {"0": "/dev/null", "1": log, "2": log}
        assert int(launch["blocked"], 16) == int(launch["ignored"], 16) == 0
        assert launch["umask"] == 0


def test_the_child_gets_the_signal_mask_that_the_daemon_was_started_with(fake, zone, bus, daemon, root):
    script = [
        "#!/usr/bin/python3",
        "import os, signal",
        "signal.pthread_sigmask(signal.SIG_BLOCK, [signal.SIGUSR1])",
        f"os.execv('{daemon.program}', ['zone-manager'])",
    ]
    root.write("/usr/local/bin/blocking", "\n".join(script), mode=0o755)
    daemon.program = "/usr/local/bin/blocking"
    daemon.start(wait=READY)
    bus.wait_owned()
    assert bus.call("ZoneStart", "red") is True
    daemon.wait_for("red is started successfully")
    assert int(fake.launches()[0]["blocked"], 16) == 1 << (signal.SIGUSR1 - 1)


@pytest.mark.parametrize(
    ("script", "outcome"),
    [
        pytest.param([*RUNNING, "exit 3"], SUCCESS, id="failing, but the container runs"),
        pytest.param([*RUNNING, "signal 9"], SUCCESS, id="killed, but the container runs"),
        pytest.param(["exit 3"], FAILURE, id="failing"),
        pytest.param(["signal 15"], FAILURE, id="killed"),
        pytest.param(["exit 0"], FAILURE, id="working, but the container does not run"),
    ],
)
def test_only_the_container_counts_for_a_start(fake, request_start, daemon, script, outcome):
    fake.script("start", *script)
    assert request_start() == outcome
    assert len(fake.launches()) == 1
    assert daemon.stop() == 0


@pytest.mark.parametrize(
    ("script", "level", "outcome"),
    [
        pytest.param(["set running 0", "exit 3"], "info", STOPPED, id="failing, but stopped"),
        pytest.param(["set running 0", "signal 9"], "info", STOPPED, id="killed, but stopped"),
        pytest.param(["exit 0"], "error", "Failed to stop red", id="working, but the container runs on"),
    ],
)
def test_only_the_container_counts_for_a_stop(fake, request_start, bus, daemon, script, level, outcome):
    assert request_start() == SUCCESS
    fake.script("stop", *script)
    assert bus.call("ZoneStop", "red") is True
    assert daemon.wait_for(outcome).level == level


@pytest.mark.parametrize(
    "spoil",
    [
        pytest.param(lambda root: root.remove(LAUNCHER), id="missing"),
        pytest.param(lambda root: root.path(LAUNCHER).chmod(0o644), id="not executable"),
        pytest.param(lambda root: root.write(LAUNCHER, "no program", mode=0o755), id="nonsense"),
    ],
)
@pytest.mark.parametrize("running", [False, True])
def test_a_launcher_that_cannot_be_run_leaves_the_outcome_to_the_container(
    fake, request_start, daemon, root, spoil, running
):
    spoil(root)
    if running:
        fake.put("red", "running", 1)
    mark = daemon.mark()
    assert request_start() == (SUCCESS if running else FAILURE)
    # The child ends with 0 and without a word: no second line of anything, and no second end of the daemon.
    assert daemon.bodies(after=mark).count("ZoneManager is terminated...") == 0
    assert daemon.strays == []
    assert {record.pid for record in daemon.records} == {daemon.inner_pid}
    assert daemon.stop() == 0


def test_a_launcher_whose_end_cannot_be_awaited_is_a_failed_start(fake, zone, bus, daemon, root):
    root.write("/usr/local/bin/childless", f"#!/bin/bash\ntrap '' CHLD\nexec {daemon.program}\n", mode=0o755)
    daemon.program = "/usr/local/bin/childless"
    daemon.start(wait=READY)
    bus.wait_owned()
    assert bus.call("ZoneStart", "red") is True
    daemon.wait_for("Failed to start red")
    child = fake.launches()[0]["pid"]
    errors = [body for body in daemon.bodies("error") if "wait" in body]
    assert errors == [
        f'Failed to waitpid : {child} - "No child processes"',
        f"Failed wait_for_pid - pid : {child}",
    ]


def test_a_slow_launcher_holds_up_its_own_zone_only(fake, bus, daemon):
    fake.define("red")
    fake.define("blue")
    fake.script("start", "wait go", *RUNNING, name="red")
    daemon.start(wait=READY)
    bus.wait_owned()
    assert bus.call("ZoneStart", "red") is True
    eventually(fake.launches, 10, "the launcher of red")
    assert bus.call("ZoneStart", "blue") is True
    daemon.wait_for("blue is started successfully")
    assert bus.call("ZoneGetState", "red") == 1
    assert daemon.find("red is started") is None
    fake.set("go")
    daemon.wait_for("red is started successfully")
