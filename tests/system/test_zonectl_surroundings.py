"""zonectl where it is not alone or not free: below a root of its own, without some right, among files and
sockets that are not what they seem."""

import pytest
from zonetest import BUILD

ZONECTL = BUILD / "bin" / "zonectl"
INNER = "/mnt/inner"


@pytest.fixture
def inner(root, zones):
    """A root directory inside of the root, which has all that the outer one has but an /opt of its own."""
    zones.define("red")
    root.mkdir(INNER)
    root.run(f"mount --rbind --make-rprivate / {INNER} && mount -t tmpfs inner {INNER}/opt")
    root.remove("/opt/var")
    return INNER


def test_the_doctor_stays_below_its_root_directory(root, inner):
    result = root.run(["chroot", inner, ZONECTL, "doctor", "--fix", "--yes"], check=False)
    assert "fixed    /opt/var/lib/lxc" in result.stdout, result.stdout + result.stderr
    assert root.exists(f"{inner}/opt/var/lib/lxc") and not root.exists("/opt/var")


def test_without_the_right_to_change_roots_it_still_sees_the_real_run_directory(root, zones):
    zones.define("red")
    root.write("/run/lxc/pid/red.pid", "4194304\n")
    result = root.run(["setpriv", "--bounding-set", "-sys_chroot", ZONECTL, "leftovers"], check=False)
    assert "/run/lxc/pid/red.pid" in result.stdout and result.returncode == 1, result.stdout + result.stderr


def test_a_configuration_that_is_no_file_holds_nothing_up(root, zones):
    zones.define("red")
    root.run("mkdir /var/lib/lxc/queue && mkfifo /var/lib/lxc/queue/config")
    result = root.run([ZONECTL, "list", "--timeout", "1"], check=False, timeout=20)
    assert "red" in result.stdout and "queue" in result.stdout and result.returncode == 3, result.stderr
