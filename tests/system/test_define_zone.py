"""scripts/define-zone, and the real containers that it defines."""

from pathlib import Path

import pytest
from zonetest import DEFINE_ZONE, PrivateRoot, RealZones, control_groups_of, eventually


@pytest.fixture
def real(root):
    """Real containers without the programs under test."""
    return RealZones(root, install=False)


@pytest.mark.parametrize(
    "arguments",
    [
        (),
        ("red",),
        ("red", "purple"),
        ("../red", "hybrid"),
        ("-x", "hybrid"),
        ("", "hybrid"),
        ("--prepare", "red"),
        ("--prepare", "--remove"),
        ("red", "hybrid", "extra"),
        ("--remove",),
        ("--remove", "red", "hybrid"),
        ("--remove", "--auto", "red"),
        ("--remove", "../red"),
    ],
)
def test_wrong_definitions_give_two_and_the_usage(real, arguments):
    # In a root: what is taken by mistake must not be done to the machine.
    result = real.root.run([DEFINE_ZONE, *arguments], check=False)
    assert result.returncode == 2
    assert "usage: scripts/define-zone" in result.stderr


def test_preparing_twice_keeps_labels(real):
    real.root.set_label("/run/lxc", "!")
    real.root.run([DEFINE_ZONE, "--prepare"])
    assert real.root.label("/run/lxc") == "!"
    assert real.root.label("/opt/zone/template/securedata") == "_"


@pytest.mark.parametrize(
    ("kind", "line", "labelled"),
    [
        ("isolation", "zone.container_type = 1", ["/opt/var/lib/lxc/red", "/opt/var/lib/lxc/red/opt"]),
        ("hybrid", "zone.container_type = 2", []),
        (
            "protection",
            "zone.container_type = 3",
            ["/var/lib/lxc/red", "/opt/var/lib/lxc/red", "/opt/var/lib/lxc/red/opt"],
        ),
        ("7", "zone.container_type = 7", []),
        ("none", None, []),
    ],
)
def test_a_definition_has_its_kinds_configuration_and_labels(real, kind, line, labelled):
    real.define("red", kind, auto=True)
    lines = real.root.read("/var/lib/lxc/red/config").splitlines()
    assert [each for each in lines if each.startswith("zone.")] == ([line] if line else [])
    assert "lxc.start.auto = 1" in lines
    assert "lxc.cgroup.dir.container = lxc.payload/red" in lines
    assert not [each for each in lines if "apparmor" in each and not each.startswith("#")]
    for path in ("/var/lib/lxc/red", "/opt/var/lib/lxc/red", "/opt/var/lib/lxc/red/opt"):
        assert real.root.label(path) == ("_" if path in labelled else None)
    assert real.root.run(["lxc-ls", "-1"]).stdout.split() == ["red"]


def test_a_definition_without_labels(real):
    real.define("red", "protection", unlabelled=True)
    assert real.root.label("/var/lib/lxc/red") is None
    assert "lxc.start.auto" not in real.root.read("/var/lib/lxc/red/config")


def test_a_name_is_defined_once(real):
    real.define("red", "hybrid")
    before = real.root.read("/var/lib/lxc/red/config")
    result = real.root.run([DEFINE_ZONE, "red", "isolation"], check=False)
    assert (result.returncode, real.root.read("/var/lib/lxc/red/config")) == (1, before)
    assert "already" in result.stderr


@pytest.mark.parametrize("broken", ["lxc-create", "setfattr"])
def test_a_failed_definition_leaves_nothing(real, broken):
    real.root.write(f"/usr/local/bin/{broken}", "#!/bin/sh\nexit 1\n", mode=0o755)
    result = real.root.run(
        [DEFINE_ZONE, "red", "protection"], check=False, env={"PATH": "/usr/local/bin:/usr/bin:/bin"}
    )
    assert result.returncode == 1
    assert not real.root.exists("/var/lib/lxc/red")
    assert not real.root.exists("/opt/var/lib/lxc/red")


def test_a_real_container_lives_in_its_payload_groups(real):
    real.define("red", "hybrid")
    real.start("red")
    assert real.state("red") == "RUNNING"
    groups = real.groups("red")
    assert "/sys/fs/cgroup/memory/lxc.payload/red" in groups
    assert "/sys/fs/cgroup/freezer/lxc.payload/red" in groups
    first = real.init_pid("red")
    # The kernel lists the numbers that the reader knows.
    members = real.root.run(["cat", "/sys/fs/cgroup/memory/lxc.payload/red/cgroup.procs"]).stdout.split()
    assert str(first) in members
    assert Path(f"/proc/{real.root.host_pid(first)}/comm").read_text() == "init\n"
    real.kill("red")
    assert real.state("red") == "STOPPED"
    eventually(lambda: not real.groups("red"), 10, "the end of the control groups")


def test_a_frozen_container_ends_with_its_root():
    with PrivateRoot() as root:
        supervisor = root.supervisor
        zones = RealZones(root, install=False)
        zones.define("red", "hybrid")
        zones.start("red")
        root.run(["lxc-freeze", "-n", "red"])
        first = root.host_pid(zones.init_pid("red"))
    assert not Path(f"/proc/{first}/exe").exists()
    assert not control_groups_of(supervisor)


def test_a_removed_zone_leaves_nothing(real):
    real.define("red", "isolation")
    assert "red is removed" in real.root.run([DEFINE_ZONE, "--remove", "red"]).stdout
    assert not real.root.exists("/var/lib/lxc/red")
    assert not real.root.exists("/opt/var/lib/lxc/red")


def test_what_a_removed_zone_has_written_stays_and_is_named(real):
    real.define("red", "isolation")
    real.root.write("/opt/var/lib/lxc/red/data", "of somebody")
    result = real.root.run([DEFINE_ZONE, "--remove", "red"])
    assert "/opt/var/lib/lxc/red is not empty and stays" in result.stdout
    assert real.root.read("/opt/var/lib/lxc/red/data") == "of somebody"
    assert not real.root.exists("/var/lib/lxc/red")


def test_a_running_zone_is_not_removed(real):
    real.define("red", "hybrid")
    real.start("red")
    result = real.root.run([DEFINE_ZONE, "--remove", "red"], check=False)
    assert result.returncode == 1 and "red is RUNNING: stop it first" in result.stderr
    assert real.root.exists("/var/lib/lxc/red/config")
    real.kill("red")


def test_what_is_not_there_cannot_be_removed(real):
    result = real.root.run([DEFINE_ZONE, "--remove", "red"], check=False)
    assert result.returncode == 1 and "no container red" in result.stderr
