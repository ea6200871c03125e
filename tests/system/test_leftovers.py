"""zonectl leftovers among real containers: what it finds, what it removes, and what it never touches."""

import contextlib
import json
import os
import pty

import pytest
from zonetest import BUILD, eventually

ZONECTL = BUILD / "bin" / "zonectl"
PID_DIRECTORY = "/run/lxc/pid"


class Leftovers:
    """The command, and the containers to leave something behind."""

    def __init__(self, root, zones):
        self.root = root
        self.zones = zones
        root.mkdir(PID_DIRECTORY)

    def run(self, *options, status=None):
        result = self.root.run([ZONECTL, "leftovers", "--json", *options], check=False)
        assert result.stderr == ""
        report = json.loads(result.stdout)
        assert result.returncode == (0 if report["ok"] else 1)
        assert status is None or result.returncode == status, result.stdout
        return report["leftovers"]

    def start(self, name, *lines):
        """Starts a new zone as the launcher does; the lines go into its configuration."""
        self.zones.define(name)
        config = self.root.path(f"/var/lib/lxc/{name}/config")
        config.write_text(config.read_text() + "\n".join([*lines, ""]))
        self.start_again(name)

    def start_again(self, name):
        self.root.run(["lxc-start", "-n", name, "-d", "-p", f"{PID_DIRECTORY}/{name}.pid"])
        self.root.run(["lxc-wait", "-n", name, "-s", "RUNNING", "-t", "10"])

    def drop_groups_from_configuration(self, name):
        """So that LXC chooses its control groups itself."""
        config = self.root.path(f"/var/lib/lxc/{name}/config")
        lines = [line for line in config.read_text().splitlines() if "lxc.cgroup" not in line]
        config.write_text("\n".join([*lines, ""]))

    def monitor(self, name):
        return int(self.root.read(f"{PID_DIRECTORY}/{name}.pid"))

    def kill_monitor(self, name):
        self.kill(self.monitor(name))
        eventually(lambda: self.zones.state(name) == "STOPPED", 10, "LXC to take notice")

    def kill(self, pid):
        self.root.run(["kill", "-KILL", str(pid)])
        eventually(lambda: not self.alive(pid), 10, f"the end of {pid}")

    def alive(self, pid):
        return self.root.run(["test", "-e", f"/proc/{pid}/root/."], check=False).returncode == 0

    def groups(self, name):
        """All control groups of LXC's for a container."""
        base = self.root.path("/sys/fs/cgroup")
        found = []
        for pattern in (f"lxc.*/{name}", f"lxc.*.{name}", f"lxc.*.{name}-*"):
            found += base.glob(f"*/{pattern}")
        return found


# Without this line a container ends with its monitor process.
OUTLIVES_ITS_MONITOR = ["lxc.monitor.signal.pdeath = 0"]


@pytest.fixture
def leftovers(root, zones):
    return Leftovers(root, zones)


def kinds(found):
    return sorted({leftover["what"] for leftover in found})


def zones_of(found):
    return {leftover["zone"] for leftover in found}


def test_a_healthy_machine_has_none(leftovers, zones):
    assert leftovers.run(status=0) == []
    leftovers.start("red")
    zones.define("idle")
    assert leftovers.run(status=0) == []
    assert leftovers.run("--clean", "--yes", status=0) == []
    zones.kill("red")
    eventually(lambda: leftovers.run() == [], 10, "LXC to clear up")


def test_a_container_in_the_foreground_runs(leftovers, zones, root):
    zones.define("red")
    leftovers.drop_groups_from_configuration("red")
    root.popen(["lxc-start", "-n", "red", "-F"])
    eventually(lambda: zones.state("red") == "RUNNING", 10, "red")
    assert leftovers.run("--clean", "--yes", status=0) == []
    assert zones.state("red") == "RUNNING"


def test_an_init_without_its_monitor_is_removed_with_all_that_is_its(leftovers, zones, root):
    leftovers.start("blue")
    leftovers.start("red", *OUTLIVES_ITS_MONITOR)
    blue, red = zones.init_pid("blue"), zones.init_pid("red")
    blue_groups = leftovers.groups("blue")
    leftovers.kill_monitor("red")
    assert leftovers.alive(red)

    found = leftovers.run(status=1)
    assert zones_of(found) == {"red"}
    assert kinds(found) == ["control group", "init process", "pid file"]
    assert found[0]["where"] == [f"/proc/{red}"]
    assert leftovers.alive(red), "nothing is changed without --clean"

    cleaned = leftovers.run("--clean", "--yes", status=0)
    assert {leftover["outcome"] for leftover in cleaned} == {"removed"}
    assert not leftovers.alive(red)
    assert leftovers.groups("red") == []
    assert leftovers.run(status=0) == []
    assert (zones.state("blue"), zones.init_pid("blue")) == ("RUNNING", blue)
    assert leftovers.groups("blue") == blue_groups
    assert root.exists(f"{PID_DIRECTORY}/blue.pid")
    zones.start("red")
    assert zones.state("red") == "RUNNING"


def test_a_frozen_init_is_removed_too(leftovers, zones, root):
    leftovers.start("red", *OUTLIVES_ITS_MONITOR)
    init = zones.init_pid("red")
    root.run(["lxc-freeze", "-n", "red"])
    assert leftovers.run(status=0) == [], "it was frozen on request"
    leftovers.kill_monitor("red")
    assert kinds(leftovers.run(status=1)) == ["control group", "init process", "pid file"]
    leftovers.run("--clean", "--yes", status=0)
    assert not leftovers.alive(init)
    assert leftovers.run(status=0) == []


def test_what_is_frozen_without_a_container_is_thawed(leftovers, zones, root):
    zones.define("red")
    group = "/sys/fs/cgroup/freezer/lxc.payload/red"
    process = root.popen(["sleep", "600"])
    root.mkdir(group)
    root.run(f"echo {process.inner_pid} > {group}/cgroup.procs")
    root.run(f"echo FROZEN > {group}/freezer.state")
    found = leftovers.run("--clean", "--yes", status=1)
    outcomes = {leftover["what"]: (leftover["where"], leftover["outcome"]) for leftover in found}
    # It is no init, so nothing proves that it is of the container.
    assert outcomes == {"frozen group": ([group], "removed"), "control group": ([group], "failed")}
    assert root.read(f"{group}/freezer.state") == "THAWED\n"
    assert process.running
    process.kill()
    leftovers.run("--clean", "--yes", status=0)
    assert not root.exists(group)


def test_a_zone_that_is_frozen_with_all_others_is_only_named(leftovers, zones, root):
    leftovers.start("red")
    everybody = "/sys/fs/cgroup/freezer/lxc.payload/freezer.state"
    root.run(f"echo FROZEN > {everybody}")
    found = leftovers.run("--clean", "--yes", status=1)
    assert [(leftover["what"], leftover["zone"], leftover["outcome"]) for leftover in found] == [
        ("frozen group", "red", "left alone")
    ]
    assert root.read(everybody) == "FROZEN\n"
    root.run(f"echo THAWED > {everybody}")
    assert leftovers.run(status=0) == []


def test_control_groups_that_keep_a_zone_from_starting(leftovers, zones, root):
    leftovers.start("red")
    init = zones.init_pid("red")
    leftovers.kill_monitor("red")
    eventually(lambda: not leftovers.alive(init), 10, "the end of init")
    root.remove(f"{PID_DIRECTORY}/red.pid")
    assert root.run(["lxc-start", "-n", "red", "-d"], check=False).returncode != 0
    found = leftovers.run(status=1)
    assert kinds(found) == ["control group"]
    below = {os.path.dirname(path) for leftover in found for path in leftover["where"]}
    assert {os.path.basename(path) for path in below} == {"lxc.payload", "lxc.monitor"}
    leftovers.run("--clean", "--yes", status=0)
    zones.start("red")
    assert zones.state("red") == "RUNNING"


def test_control_groups_below_that_of_the_first_process(leftovers, zones, root):
    inner = "/sys/fs/cgroup/freezer/inner"
    root.run(f"mkdir {inner}; echo 1 >{inner}/cgroup.procs")
    leftovers.start("red")
    assert leftovers.run(status=0) == []
    init = zones.init_pid("red")
    leftovers.kill_monitor("red")
    eventually(lambda: not leftovers.alive(init), 10, "the end of init")
    assert root.run(["lxc-start", "-n", "red", "-d"], check=False).returncode != 0
    places = [path for leftover in leftovers.run(status=1) for path in leftover["where"]]
    assert f"{inner}/lxc.payload/red" in places
    leftovers.run("--clean", "--yes", status=0)
    zones.start("red")
    assert zones.state("red") == "RUNNING"


def test_control_groups_of_lxcs_own_naming(leftovers, zones, root):
    """Without a control group of their own in the configuration, LXC makes further copies."""
    leftovers.start("red")
    zones.kill("red")
    leftovers.drop_groups_from_configuration("red")
    for _ in range(2):
        leftovers.start_again("red")
        leftovers.kill_monitor("red")
    zones.start("red")
    assert any(group.name.endswith("-2") for group in leftovers.groups("red"))
    assert leftovers.run("--clean", "--yes", status=0) == [], "it runs in one of them"
    assert zones.state("red") == "RUNNING"
    zones.kill("red")
    eventually(lambda: not any(group.name.endswith("-2") for group in leftovers.groups("red")), 10, "its end")
    assert kinds(leftovers.run(status=1)) == ["control group", "pid file"]
    leftovers.run("--clean", "--yes", status=0)
    assert leftovers.groups("red") == []


def test_a_stale_pid_file(leftovers, zones, root):
    zones.define("red")
    bystander = root.popen(["sleep", "600"])
    root.write(f"{PID_DIRECTORY}/red.pid", f"{bystander.inner_pid}")
    os.utime(root.path(f"{PID_DIRECTORY}/red.pid"), (1, 1))
    found = leftovers.run(status=1)
    assert [leftover["where"] for leftover in found] == [[f"{PID_DIRECTORY}/red.pid"]]
    assert f"process {bystander.inner_pid} is another one by now" in found[0]["why"]
    leftovers.run("--clean", "--yes", status=0)
    assert not root.exists(f"{PID_DIRECTORY}/red.pid")
    assert bystander.running


def test_a_container_of_another_path_is_left_alone(leftovers, zones, root):
    """Its init has lost its monitor process, and its name is one of ours."""
    zones.define("red")
    root.run("cp -a /var/lib/lxc /home/others")
    config = root.read("/home/others/red/config").replace("/var/lib/lxc", "/home/others")
    root.write("/home/others/red/config", "\n".join([config, *OUTLIVES_ITS_MONITOR, ""]))
    root.run(["lxc-start", "-P", "/home/others", "-n", "red", "-d", "-p", "/run/others.pid"])
    root.run(["lxc-wait", "-P", "/home/others", "-n", "red", "-s", "RUNNING", "-t", "10"])
    assert leftovers.run("--clean", "--yes", status=0) == []
    init = int(root.run(["lxc-info", "-P", "/home/others", "-n", "red", "-pH"]).stdout)
    leftovers.kill(int(root.read("/run/others.pid")))
    found = leftovers.run("--clean", "--yes")
    assert all("lxc.monitor" in path for leftover in found for path in leftover["where"])
    assert leftovers.alive(init)


def test_the_daemons_lock_and_fifo_are_harmless(leftovers, zones, bus, daemon):
    zones.define("red")  # without any container the daemon ends
    daemon.start(wait="State Change Monitor(fifo) is created")
    bus.wait_owned()
    assert leftovers.run(status=0) == [], "the daemon holds both"
    daemon.process.kill()
    found = leftovers.run("--clean", "--yes", status=0)
    assert kinds(found) == ["instance lock", "monitor FIFO"]
    assert {leftover["outcome"] for leftover in found} == {"left alone"}
    assert leftovers.run(status=0) == [{**leftover, "outcome": "found"} for leftover in found]


class Conversation:
    """The command at a terminal."""

    def __init__(self, root, *options):
        self.leader, follower = pty.openpty()
        command = [ZONECTL, "leftovers", "--clean", "--color=never", *options]
        self.process = root.popen(command, stdin=follower, stdout=follower, stderr=follower)
        os.close(follower)
        self.text = ""

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        os.close(self.leader)

    def read(self, wanted):
        """Reads on until a text has been read."""
        start = len(self.text)
        while wanted not in self.text[start:]:
            self.text += os.read(self.leader, 4096).decode()

    def answer(self, text):
        os.write(self.leader, f"{text}\n".encode())

    def finish(self):
        """Returns the exit status and the last line."""
        with contextlib.suppress(OSError):  # the end, once all is read
            while True:
                self.text += os.read(self.leader, 4096).decode()
        return self.process.wait(), self.text.splitlines()[-1]


@pytest.mark.parametrize(("answer", "outcome"), [("y", "removed"), ("n", "kept"), ("", "kept")])
def test_it_asks_before_a_removal(zones, leftovers, root, answer, outcome):
    zones.define("red")
    root.write(f"{PID_DIRECTORY}/red.pid", "99999")
    with Conversation(root) as conversation:
        conversation.read(f"Remove the pid file {PID_DIRECTORY}/red.pid (process 99999 is gone)? [y/N]")
        assert root.exists(f"{PID_DIRECTORY}/red.pid")
        conversation.answer(answer)
        status, last = conversation.finish()
    assert last.endswith(f"  {outcome}")
    assert status == (0 if outcome == "removed" else 1)
    assert root.exists(f"{PID_DIRECTORY}/red.pid") == (outcome == "kept")


def test_it_asks_for_each(zones, leftovers, root):
    for name in ("blue", "red"):
        zones.define(name)
        root.write(f"{PID_DIRECTORY}/{name}.pid", "99999")
    with Conversation(root) as conversation:
        conversation.read("blue.pid (process 99999 is gone)? [y/N]")
        conversation.answer("n")
        conversation.read("red.pid (process 99999 is gone)? [y/N]")
        conversation.answer("y")
        assert conversation.finish()[0] == 1
    assert root.exists(f"{PID_DIRECTORY}/blue.pid")
    assert not root.exists(f"{PID_DIRECTORY}/red.pid")


def test_who_does_not_answer_is_not_asked_again(zones, leftovers, root):
    for name in ("blue", "red"):
        zones.define(name)
        root.write(f"{PID_DIRECTORY}/{name}.pid", "99999")
    with Conversation(root, "--timeout", "1") as conversation:
        status, last = conversation.finish()
    assert (status, conversation.text.count("[y/N]")) == (1, 1)
    assert last.endswith("kept: no answer in time")
    assert root.exists(f"{PID_DIRECTORY}/blue.pid")
    assert root.exists(f"{PID_DIRECTORY}/red.pid")


def test_a_container_that_is_started_while_it_asks_is_not_touched(zones, leftovers, root):
    zones.define("red")
    leftovers.drop_groups_from_configuration("red")
    leftovers.start_again("red")
    leftovers.kill_monitor("red")
    root.remove(f"{PID_DIRECTORY}/red.pid")
    stale = leftovers.groups("red")
    with Conversation(root) as conversation:
        conversation.read("[y/N]")
        zones.start("red")
        conversation.answer("y")
        conversation.read("[y/N]")
        conversation.answer("y")
        status, last = conversation.finish()
    assert status == 0
    assert last.endswith("  gone")
    assert set(stale) < set(leftovers.groups("red"))
    assert zones.state("red") == "RUNNING"
