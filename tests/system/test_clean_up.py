"""What an earlier run of a container left behind is cleared away before a start and after a stop."""

import signal

import pytest
from zonetest import READY, eventually

PID_FILE = "/run/lxc/pid/red.pid"
STARTED = "red is started successfully"
LARGEST = 2**31 - 1  # no process has this number


INVALID, NONE = '"Invalid argument"', '"No such process"'


@pytest.fixture
def ready(fake, bus, daemon):
    fake.define("red")
    daemon.start(wait=READY)
    bus.wait_owned()
    return daemon


def clear_up(daemon, bus):
    """Starts the zone; returns what is said between the receipt and the outcome."""
    mark = daemon.mark()
    assert bus.call("ZoneStart", "red") is True
    first = daemon.wait_for("receive the event - ZONE START", after=mark)
    last = daemon.wait_for(STARTED, after=mark)
    records = daemon.records[mark:]
    between = records[records.index(first) + 1 : records.index(last)]
    return [str(record) for record in between if record.tid == first.tid]


def victim(root):
    return root.popen(["sleep", "600"])


def ended(process):
    return process.wait() == -signal.SIGKILL


def groups(root, name="red"):
    """The payload directories of the zone that can be made here, in the order in which the daemon comes by
    them; without the named hierarchies."""
    lines = root.run("cat /proc/self/cgroup").stdout.splitlines()
    controllers = [line.split(":")[1] for line in lines]
    return [f"/sys/fs/cgroup/{each}/lxc.payload/{name}" for each in controllers if each and "=" not in each]


def put_into(root, group, process):
    root.run(f"echo {process.inner_pid} > {group}/cgroup.procs")


# Pid files


@pytest.mark.parametrize(
    ("text", "warnings"),
    [
        ("0\n", [f"0 - {INVALID}"]),
        ("-1\n", [f"-1 - {INVALID}"]),
        ("-4711\n", [f"-4711 - {INVALID}"]),
        (f"{LARGEST}\n", [f"{LARGEST} - {NONE}"]),
        (f"0 {LARGEST}\n\n-1", [f"0 - {INVALID}", f"{LARGEST} - {NONE}", f"-1 - {INVALID}"]),
        (f"{LARGEST} words 0\n", [f"{LARGEST} - {NONE}"]),
        ("words\n", []),
        ("", []),
        ("\n\n", []),
        (b"\0\xff\xfe1\n", []),
    ],
)
def test_whatever_a_pid_file_holds_the_daemon_lives_and_tells(ready, bus, root, text, warnings):
    bystander = victim(root)
    root.write(PID_FILE, text)
    assert clear_up(ready, bus) == [f"warning: Failed to kill signal : {warning}" for warning in warnings]
    assert ready.running
    assert bystander.running
    assert root.exists(PID_FILE)
    assert ready.stop() == 0


def test_the_processes_of_a_pid_file_are_killed(ready, bus, root):
    first, second, bystander = victim(root), victim(root), victim(root)
    root.write(PID_FILE, f"{first.inner_pid}\n  {second.inner_pid}")
    assert clear_up(ready, bus) == []
    assert ended(first)
    assert ended(second)
    assert bystander.running


def test_a_number_that_cannot_be_killed_does_not_save_the_next(ready, bus, root):
    process = victim(root)
    root.write(PID_FILE, f"-1 {process.inner_pid}")
    assert clear_up(ready, bus) == ['warning: Failed to kill signal : -1 - "Invalid argument"']
    assert ended(process)


def test_the_pid_file_of_another_zone_is_left_alone(ready, bus, root):
    process = victim(root)
    root.write("/run/lxc/pid/red2.pid", f"{process.inner_pid}\n")
    assert clear_up(ready, bus) == []
    assert process.running


def test_a_pid_file_that_leads_nowhere_is_none(ready, bus, root):
    root.path(PID_FILE).symlink_to("/run/nowhere")
    assert clear_up(ready, bus) == []


# Control groups


def test_without_leftovers_nothing_is_said(ready, bus):
    assert clear_up(ready, bus) == []


def test_all_directories_and_their_processes_go(ready, bus, root):
    directories = groups(root)
    assert len(directories) > 2
    left = [victim(root), victim(root)]
    for directory in directories:
        root.mkdir(directory)
        for process in left:
            if "cpuset" not in directory:  # takes no process before it is given processors
                put_into(root, directory, process)
    # The first directory counts for the processes, so it has to have them.
    first = next(each for each in directories if "cpuset" not in each)
    for directory in directories[: directories.index(first)]:
        root.path(directory).rmdir()
    assert clear_up(ready, bus) == []
    assert all(ended(process) for process in left)
    assert [each for each in directories if root.exists(each)] == []


def test_only_the_first_directory_counts_for_the_processes(ready, bus, root):
    first, second = [each for each in groups(root) if "cpuset" not in each][:2]
    process = victim(root)
    for directory in (first, second):
        root.mkdir(directory)
    put_into(root, second, process)
    assert clear_up(ready, bus) == [f"fatal: Failed to rmdir {second}"]
    assert process.running
    assert not root.exists(first)
    assert root.exists(second)
    # A directory that was left is tried again by the next clean-up, and now it is the first.
    assert bus.call("ZoneStop", "red") is True
    ready.wait_for("red is stopped successfully")
    assert ended(process)
    eventually(lambda: not root.exists(second), 5)


def test_a_directory_with_a_child_stays(ready, bus, root):
    directory = groups(root)[0]
    root.mkdir(f"{directory}/child")
    assert clear_up(ready, bus) == [f"fatal: Failed to rmdir {directory}"]
    root.path(f"{directory}/child").rmdir()
    root.path(directory).rmdir()


def test_named_hierarchies_are_left_alone(ready, bus, root):
    lines = root.run("cat /proc/self/cgroup").stdout.splitlines()
    named = [line.split(":")[1] for line in lines if "=" in line]
    if not named:
        pytest.skip("this machine has no named hierarchy")
    directory = f"/sys/fs/cgroup/{named[0]}/lxc.payload/red"
    root.mkdir(directory)
    assert clear_up(ready, bus) == []
    assert root.exists(directory)


def test_another_zones_directory_is_left_alone(ready, bus, root):
    directory = groups(root, "red2")[0]
    root.mkdir(directory)
    assert clear_up(ready, bus) == []
    assert root.exists(directory)
    root.path(directory).rmdir()


@pytest.mark.parametrize(
    ("script", "outcome", "left"),
    [(["exit 0"], "Failed to stop red", True), (None, "red is stopped successfully", False)],
)
def test_a_stop_clears_up_only_when_the_container_has_stopped(ready, fake, bus, root, script, outcome, left):
    clear_up(ready, bus)
    directory = groups(root)[0]
    root.mkdir(directory)
    process = victim(root)
    root.write(PID_FILE, f"{process.inner_pid}\n")
    if script:
        fake.script("stop", *script)
    assert bus.call("ZoneStop", "red") is True
    ready.wait_for(outcome)
    assert root.exists(directory) is left
    assert process.running if left else ended(process)
    if left:
        root.path(directory).rmdir()
