"""zonectl where it is not alone or not free: below a root of its own, without some right, among files and
sockets that are not what they seem."""

import pytest
from zonetest import BUILD, init_pid_address, publisher_address

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


class Impostor:
    """A program of an ordinary user that serves at an abstract address which the daemon has left free."""

    PROGRAM = """
import socket, sys
server = socket.socket(socket.AF_UNIX)
server.bind(bytes.fromhex(sys.argv[1]))
server.listen(5)
print("ready", flush=True)
while True:
    client, _ = server.accept()
    client.settimeout(1)
    try:
        print("asked", client.recv(64), flush=True)
        client.send(b"4711")
    except OSError:
        pass
    client.close()
"""

    def __init__(self, root, address, user):
        self.process = root.popen(
            [*as_user(user), "/usr/bin/python3", "-c", self.PROGRAM, address.hex()], stdout=-1, text=True
        )
        assert self.process.popen.stdout.readline() == "ready\n"


def as_user(user):
    return ["setpriv", f"--reuid={user}", f"--regid={user}", "--clear-groups"]


@pytest.mark.parametrize("asking", [0, 65533])
def test_another_users_program_at_the_init_pid_socket_is_not_believed(root, asking):
    Impostor(root, init_pid_address(), 65534)
    result = root.run([*as_user(asking), ZONECTL, "pid", "blue"], check=False)
    assert (result.returncode, result.stdout) == (1, "")
    assert "a program of the user with the number 65534 listens there" in result.stderr


def test_ones_own_program_at_the_init_pid_socket_is_asked(root):
    Impostor(root, init_pid_address(), 65534)
    assert root.run([*as_user(65534), ZONECTL, "pid", "blue"]).stdout == "4711\n"


def test_another_users_program_at_the_subscribers_socket_is_not_believed(root):
    Impostor(root, publisher_address(), 65534)
    result = root.run([ZONECTL, "watch", "--raw", "--timeout", "5"], check=False)
    assert result.returncode == 1 and "are you root?" not in result.stderr
    assert "a program of the user with the number 65534 listens there" in result.stderr
