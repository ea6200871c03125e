"""zonectl leftovers on trees that stand for machines, and its command line."""

import json
import os
import pty
import subprocess

import bus_fixtures
import pytest


def leftovers(*arguments, **extra):
    return bus_fixtures.zonectl("leftovers", *arguments, **extra)


@pytest.fixture
def machine(tmp_path):
    """A machine with one container that does not run and a version 1 and a version 2 hierarchy."""
    (tmp_path / "proc/self").mkdir(parents=True)
    (tmp_path / "proc/self/mounts").write_text("cgroup /sys/fs/cgroup/cpu cgroup rw 0 0\n"
                                               "cgroup2 /sys/fs/cgroup/unified cgroup2 rw 0 0\n")
    (tmp_path / "proc/locks").write_text("")
    (tmp_path / "var/lib/lxc/red").mkdir(parents=True)
    (tmp_path / "var/lib/lxc/red/config").write_text("lxc.rootfs.path = /r\n")
    (tmp_path / "run/lxc/pid").mkdir(parents=True)
    return tmp_path


def add_group(machine, hierarchy, name):
    group = machine / "sys/fs/cgroup" / hierarchy / name
    group.mkdir(parents=True)
    (group / "cgroup.procs").write_text("")


@pytest.mark.parametrize("arguments", [
    ("extra",), ("--yes",), ("--wait",), ("--clean", "--yes", "--root", "/image"), ("--root", "image")])
def test_wrong_usage(arguments):
    result = leftovers(*arguments)
    assert result.returncode == 2 and result.stdout == ""
    assert result.stderr.startswith("zonectl: ") and result.stderr.count("\n") == 1


@pytest.mark.parametrize("option", ["--clean", "--yes"])
def test_other_commands_clean_nothing(option):
    result = bus_fixtures.zonectl("labels", option)
    assert result.returncode == 2 and f"{option} has no meaning for labels" in result.stderr


def test_cleaning_needs_a_terminal_or_yes():
    result = leftovers("--clean")
    assert result.returncode == 2 and result.stdout == ""
    assert "needs a terminal" in result.stderr


def test_a_terminal_to_read_from_is_not_enough():
    leader, follower = pty.openpty()
    try:
        result = subprocess.run([bus_fixtures.ZONECTL, "leftovers", "--clean"], stdin=follower,
                                capture_output=True, text=True, timeout=bus_fixtures.DEADLINE)
    finally:
        os.close(leader)
        os.close(follower)
    assert result.returncode == 2 and "needs a terminal" in result.stderr


def test_only_root_may_look():
    result = subprocess.run(["setpriv", "--reuid=65534", "--clear-groups", bus_fixtures.ZONECTL, "leftovers"],
                            capture_output=True, text=True, timeout=bus_fixtures.DEADLINE)
    if "Permission denied" in result.stderr:
        pytest.skip("the build cannot be run by others")
    assert result.returncode == 1 and "only root" in result.stderr


def test_help_names_its_options():
    text = leftovers("--help").stdout
    assert text.startswith("Usage: zonectl [OPTION...] leftovers [--clean [--yes]]\n")


def test_nothing_found(machine):
    result = leftovers("--root", str(machine))
    assert (result.returncode, result.stdout, result.stderr) == (0, "Nothing was left behind.\n", "")
    result = leftovers("--json", "--root", str(machine))
    assert (result.returncode, json.loads(result.stdout)) == (0, {"ok": True, "leftovers": []})


def test_what_is_found(machine):
    add_group(machine, "cpu", "lxc.payload/red")
    add_group(machine, "unified", "lxc.payload/red")
    (machine / "run/lxc/pid/red.pid").write_text("4711")
    result = leftovers("--root", str(machine))
    assert result.returncode == 1 and result.stderr == ""
    rows = [line.split("  ") for line in result.stdout.splitlines()]
    rows = [[cell.strip() for cell in row if cell] for row in rows]
    assert rows == [
        ["WHAT", "ZONE", "WHERE", "WHY", "REMEDY"],
        ["control group", "red", "/sys/fs/cgroup/*/lxc.payload/red", "its container does not run",
         "find /sys/fs/cgroup/*/lxc.payload/red -depth -type d -exec rmdir {} \\;"],
        ["pid file", "red", "/run/lxc/pid/red.pid", "process 4711 is gone", "rm /run/lxc/pid/red.pid"]]


def test_what_is_found_as_json(machine):
    add_group(machine, "cpu", "lxc.payload/red")
    add_group(machine, "unified", "lxc.payload/red")
    result = leftovers("--root", str(machine), "--json")
    report = json.loads(result.stdout)
    assert result.returncode == 1 and not report["ok"]
    assert report["leftovers"] == [
        {"what": "control group", "zone": "red",
         "where": ["/sys/fs/cgroup/cpu/lxc.payload/red", "/sys/fs/cgroup/unified/lxc.payload/red"],
         "why": "its container does not run",
         "remedy": "find /sys/fs/cgroup/*/lxc.payload/red -depth -type d -exec rmdir {} \\;",
         "harmless": False, "outcome": "found", "problem": None}]


def test_what_is_harmless_is_no_failure(machine):
    (machine / "run/lxc/lock").mkdir()
    (machine / "run/lxc/lock/zone-manager.lock").write_text("")
    result = leftovers("--root", str(machine))
    assert result.returncode == 0
    assert "instance lock" in result.stdout and "(harmless)" in result.stdout


def test_a_hostile_name_does_not_steer_the_terminal(machine):
    add_group(machine, "cpu", "lxc.payload/\x1b[2Jx")
    result = leftovers("--root", str(machine))
    assert result.returncode == 1 and "\x1b" not in result.stdout
