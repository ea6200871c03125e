"""scripts/private-root, alone and as the tests use it."""

import os
import signal
import subprocess
from pathlib import Path

import pytest
from zonetest import PRIVATE_ROOT, PrivateRoot, control_groups_of, eventually


def private_root(*arguments, **options):
    command = [PRIVATE_ROOT, *arguments]
    return subprocess.run(command, capture_output=True, text=True, timeout=60, check=False, **options)


def test_the_status_is_the_commands(tmp_path):
    assert private_root("sh", "-c", "exit 7").returncode == 7
    assert private_root("sh", "-c", "kill -9 $$").returncode == 128 + 9
    assert private_root("--", "no-such-command").returncode == 127


@pytest.mark.parametrize(
    "arguments",
    [
        (),
        ("--bogus", "true"),
        ("--bind", "/nowhere", "true"),
        ("--bind", "/run", "true"),
        ("--join", "x", "true"),
        ("--net",),
    ],
)
def test_wrong_arguments_give_two_and_the_usage(arguments):
    result = private_root(*arguments)
    assert result.returncode == 2
    assert "usage: scripts/private-root" in result.stderr


def test_only_the_first_process_of_a_root_can_be_joined():
    result = private_root("--join", str(os.getpid()), "true")
    assert result.returncode == 125
    assert "not the first process" in result.stderr


def test_input_goes_to_the_command():
    assert private_root("cat", input="a line\n").stdout == "a line\n"


def test_a_root_in_a_root():
    result = private_root(PRIVATE_ROOT, "sh", "-c", "touch /etc/inner; exit 9")
    assert result.returncode == 9, result.stderr


def test_a_current_directory_on_another_file_system_is_there_and_private(tmp_path):
    script = f"""
        mount -t tmpfs other {tmp_path}; mkdir '{tmp_path}/a, b:c'; cd '{tmp_path}/a, b:c'; echo before >file
        {PRIVATE_ROOT} sh -c 'pwd; cat file; echo inside >file'; cat file"""
    result = subprocess.run(
        ["unshare", "-m", "--propagation", "private", "sh", "-c", script],
        capture_output=True,
        text=True,
        timeout=30,
        check=False,
    )
    assert result.stdout.splitlines() == [f"{tmp_path}/a, b:c", "before", "before"], result.stderr


def test_a_shared_directory_keeps_what_is_written(tmp_path):
    private_root("--bind", tmp_path, "touch", tmp_path / "kept")
    assert (tmp_path / "kept").exists()


def test_a_pid_file_is_where_the_caller_is(tmp_path):
    command = [PRIVATE_ROOT, "--pid-file", "pid", "true"]
    assert subprocess.run(command, cwd=tmp_path, timeout=30, check=False).returncode == 0
    assert int((tmp_path / "pid").read_text()) > 1


def test_what_is_changed_inside_stays_inside(root):
    root.run("echo changed >/etc/hostname; rm /etc/passwd")
    root.run("mkdir /zone; touch /tmp/zonetest-inside /dev/shm/inside")
    assert Path("/etc/hostname").read_text() != "changed\n"
    assert Path("/etc/passwd").exists()
    for path in ("/zone", "/tmp/zonetest-inside", "/dev/shm/inside"):
        assert root.exists(path)
        assert not Path(path).exists()


def test_roots_do_not_see_each_other(root):
    address = "\0zonetest-same-name"
    with PrivateRoot() as other, root.socket() as first, other.socket() as second:
        first.bind(address)
        second.bind(address)
        root.write("/run/mine", "1")
        assert not other.exists("/run/mine")
        sleeper = other.popen(["sleep", "600"])
        assert sleeper.pid not in root.pids()
        assert sleeper.pid in other.pids()


def test_the_network_has_the_loopback_alone(root):
    devices = root.run(["ip", "-o", "link"]).stdout
    assert devices.startswith("1: lo: <LOOPBACK,UP,LOWER_UP>")
    assert len(devices.splitlines()) == 1


def test_a_root_leaves_nothing_behind():
    with PrivateRoot() as root:
        supervisor = root.supervisor
        scratch = root.scratch
        root.run("setsid sleep 600 >/dev/null 2>&1 & mkdir /sys/fs/cgroup/cpu/left; mount -t tmpfs left /mnt")
        assert root.run("pgrep -x sleep").stdout
        assert control_groups_of(supervisor)
        processes = root.pids()
    assert not control_groups_of(supervisor)
    assert not [pid for pid in processes if Path(f"/proc/{pid}/exe").exists()]
    assert not scratch.exists()
    assert "private-root" not in Path("/proc/self/mountinfo").read_text()


def test_a_terminated_root_leaves_nothing_behind(tmp_path):
    process = subprocess.Popen([PRIVATE_ROOT, "--pid-file", tmp_path / "pid", "sleep", "600"])
    eventually(lambda: (tmp_path / "pid").exists() and (tmp_path / "pid").read_text(), 20)
    process.terminate()
    assert process.wait(20) == 128 + signal.SIGTERM
    assert not control_groups_of(process.pid)


def test_the_next_root_clears_up_after_a_killed_one(tmp_path):
    process = subprocess.Popen([PRIVATE_ROOT, "--pid-file", tmp_path / "pid", "sleep", "600"])
    eventually(lambda: (tmp_path / "pid").exists() and (tmp_path / "pid").read_text(), 20)
    first = int((tmp_path / "pid").read_text())
    process.kill()
    process.wait(20)
    eventually(lambda: not Path(f"/proc/{first}").exists(), 10, "the end of the killed root")
    assert private_root("true").returncode == 0
    assert not control_groups_of(process.pid)


def test_processes_carry_both_numbers_and_their_status(root):
    process = root.popen(["sleep", "600"])
    assert root.host_pid(process.inner_pid) == process.pid
    assert root.run(["ps", "-o", "comm=", "-p", str(process.inner_pid)]).stdout == "sleep\n"
    process.signal(signal.SIGTERM)
    assert process.wait() == -signal.SIGTERM


def test_paths_follow_links_as_inside(root):
    root.write("/var/run/zonetest-file", "inside", mode=0o640)
    assert root.read("/run/zonetest-file") == "inside"
    assert not Path("/run/zonetest-file").exists()
    assert root.path("/run/zonetest-file").stat().st_mode & 0o777 == 0o640


def test_labels_are_read_and_set(root):
    root.mkdir("/opt/labelled")
    assert root.label("/opt/labelled") is None
    root.set_label("/opt/labelled", "System")
    assert root.label("/opt/labelled") == "System"
    root.set_label("/opt/labelled", None)
    assert root.label("/opt/labelled") is None


def test_a_failing_command_shows_its_output(root):
    with pytest.raises(AssertionError, match="the reason"):
        root.run("echo the reason >&2; exit 1")
    with pytest.raises(subprocess.TimeoutExpired):
        root.run(["sleep", "600"], timeout=0.3)
