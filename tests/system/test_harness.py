"""The bench itself: private roots, zone definitions, fakes, log reading, clients."""

import os
import re
import signal
import subprocess
import time
from pathlib import Path

import pytest
from zonetest import (
    DEFINE_ZONE,
    EXIT,
    PRIVATE_ROOT,
    SANITIZE,
    Bus,
    BusError,
    Client,
    Daemon,
    Message,
    PrivateRoot,
    RealZones,
    Timeout,
    eventually,
    fifo_path,
    init_pid_address,
    publisher_address,
    send_messages,
    send_states,
)
from zonetest import records
from zonetest.fakelxc import FAKES

CONTROL_GROUPS = Path("/sys/fs/cgroup")


def groups_of(supervisor):
    return [path for path in CONTROL_GROUPS.rglob(f"private-root.{supervisor}")]


def private_root(*arguments, **options):
    command = [PRIVATE_ROOT, *arguments]
    return subprocess.run(command, capture_output=True, text=True, timeout=30, check=False, **options)


@pytest.fixture
def real(root):
    return RealZones(root, install=False)


# scripts/private-root


def test_the_status_is_the_commands(tmp_path):
    assert private_root("sh", "-c", "exit 7").returncode == 7
    assert private_root("sh", "-c", "kill -9 $$").returncode == 128 + 9
    assert private_root("--", "no-such-command").returncode == 127


@pytest.mark.parametrize(
    "arguments",
    [(), ("--bogus", "true"), ("--bind", "/nowhere", "true"), ("--bind", "/run", "true"), ("--join", "x", "true")],
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


def test_what_is_changed_inside_stays_inside(root):
    root.run("echo changed >/etc/hostname; rm /etc/passwd; mkdir /zone; touch /tmp/zonetest-inside /dev/shm/inside")
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
        supervisor = root._supervisor.pid
        scratch = root.scratch
        root.run("setsid sleep 600 >/dev/null 2>&1 & mkdir /sys/fs/cgroup/cpu/left; mount -t tmpfs left /mnt")
        assert root.run("pgrep -x sleep").stdout
        assert groups_of(supervisor)
        processes = root.pids()
    assert not groups_of(supervisor)
    assert not [pid for pid in processes if Path(f"/proc/{pid}/exe").exists()]
    assert not scratch.exists()
    assert "private-root" not in Path("/proc/self/mountinfo").read_text()


def test_a_terminated_root_leaves_nothing_behind(tmp_path):
    process = subprocess.Popen([PRIVATE_ROOT, "--pid-file", tmp_path / "pid", "sleep", "600"])
    eventually(lambda: (tmp_path / "pid").exists() and (tmp_path / "pid").read_text(), 20)
    process.terminate()
    assert process.wait(20) == 128 + signal.SIGTERM
    assert not groups_of(process.pid)


def test_the_next_root_clears_up_after_a_killed_one(tmp_path):
    process = subprocess.Popen([PRIVATE_ROOT, "--pid-file", tmp_path / "pid", "sleep", "600"])
    eventually(lambda: (tmp_path / "pid").exists() and (tmp_path / "pid").read_text(), 20)
    first = int((tmp_path / "pid").read_text())
    process.kill()
    process.wait(20)
    eventually(lambda: not Path(f"/proc/{first}").exists(), 10, "the end of the killed root")
    assert private_root("true").returncode == 0
    assert not groups_of(process.pid)


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


# scripts/define-zone


@pytest.mark.parametrize(
    "arguments",
    [(), ("red",), ("red", "purple"), ("../red", "hybrid"), ("-x", "hybrid"), ("", "hybrid"), ("--prepare", "red")],
)
def test_wrong_definitions_give_two_and_the_usage(arguments):
    result = subprocess.run([DEFINE_ZONE, *arguments], capture_output=True, text=True, check=False)
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
        supervisor = root._supervisor.pid
        zones = RealZones(root, install=False)
        zones.define("red", "hybrid")
        zones.start("red")
        root.run(["lxc-freeze", "-n", "red"])
        first = root.host_pid(zones.init_pid("red"))
    assert not Path(f"/proc/{first}/exe").exists()
    assert not groups_of(supervisor)


# The fakes

PROBE = r"""
#include <lxc/lxccontainer.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
int lxc_monitor_fifo_name(const char *, char *, size_t, int);
int lxc_monitor_sock_name(const char *, struct sockaddr_un *);
int lxc_abstract_unix_open(const char *, int, int);
const char *lxc_state2str(int);
static const char *shown(const char *text) { return text ? text : "(null)"; }
int main(void)
{
    setvbuf(stdout, NULL, _IOLBF, 0);
    char line[64], buffer[4096];
    const char *path = lxc_get_global_config_item("lxc.lxcpath");
    printf("path %s, version %s\n", shown(path), lxc_get_version());
    struct lxc_container **found = NULL;
    int count = list_defined_containers(path, NULL, &found);
    printf("count %d\n", count);
    while (fgets(line, sizeof line, stdin)) {
        struct lxc_container *c = found[0];
        memset(buffer, 0, sizeof buffer);
        int length = c->get_config_item(c, "lxc.rootfs.path", buffer, sizeof buffer);
        printf("%s type %d auto %d rootfs %d %s state %s running %d pid %d control %d get %d\n", c->name,
               c->get_config_item(c, "lxc.container_type", NULL, 0), c->get_config_item(c, "lxc.start.auto", NULL, 0),
               length, buffer, shown(c->state(c)), c->is_running(c), c->init_pid(c), c->may_control(c),
               lxc_container_get(c));
    }
    struct sockaddr_un address;
    printf("fifo %d %s\n", lxc_monitor_fifo_name(path, buffer, sizeof buffer, 1), buffer);
    printf("socket %d %s\n", lxc_monitor_sock_name(path, &address), address.sun_path + 1);
    int fd = lxc_abstract_unix_open(address.sun_path, SOCK_STREAM, 512);
    printf("open %d, states %s %s %s\n", fd, shown(lxc_state2str(0)), shown(lxc_state2str(7)), shown(lxc_state2str(8)));
    int client = fd < 0 ? -1 : accept(fd, NULL, NULL);
    if (client >= 0 && write(client, "served", 6) != 6) return 1;
    return 0;
}
"""


class Probe:
    """A small program that uses the fake liblxc; each line of input makes it ask all about the first container."""

    def __init__(self, fake, tmp_path):
        program = tmp_path / "probe"
        subprocess.run(
            ["gcc", "-o", program, "-x", "c", "-", "-x", "none", FAKES / "liblxc.so.1"],
            input=PROBE,
            text=True,
            check=True,
        )
        fake.root.install(program, "/zone/config/probe")
        self.process = fake.root.popen(
            ["/zone/config/probe"],
            {"LD_LIBRARY_PATH": "/zone/config"},
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            text=True,
        )
        self.path_line = self.line()
        self.count_line = self.line()

    def line(self):
        return self.process.popen.stdout.readline().rstrip("\n")

    def ask(self):
        self.process.popen.stdin.write("\n")
        self.process.popen.stdin.flush()
        return self.line()

    def end(self):
        self.process.popen.stdin.close()
        return [self.line() for _ in range(3)]


uninstrumented = pytest.mark.skipif(bool(SANITIZE), reason="the probe is not instrumented, and the library is")


@uninstrumented
def test_the_fake_answers_anew_each_time(fake, tmp_path):
    fake.define("red", "isolation", auto=True)
    fake.define("blue", 9)
    fake.set("order", "red\nblue")
    probe = Probe(fake, tmp_path)
    assert (probe.path_line, probe.count_line) == ("path /var/lib/lxc, version 4.0.12", "count 2")
    usual = "red type 1 auto 1 rootfs 23 /var/lib/lxc/red/rootfs state"
    assert probe.ask() == f"{usual} STOPPED running 0 pid -1 control 1 get 1"
    for file, value in {"state": "RUNNING", "init_pid": 77, "may_control": 0, "get_fails": ""}.items():
        fake.put("red", file, value)
    assert probe.ask() == f"{usual} RUNNING running 1 pid 77 control 0 get 0"
    fake.put("red", "running", 0)
    fake.put("red", "state_null")
    fake.drop("red", "auto")
    fake.drop("red", "rootfs")
    assert probe.ask() == "red type 1 auto -1 rootfs -1  state (null) running 0 pid 77 control 0 get 0"
    assert fake.references("red") == 2
    assert fake.references("blue") == 1
    assert [call.references for call in fake.calls("lxc_container_get", "red") if call.detail != "failed"] == [2]
    assert [call.function for call in fake.calls()][:3] == [
        "lxc_get_global_config_item",
        "lxc_get_version",
        "list_defined_containers",
    ]


@uninstrumented
def test_the_fake_gives_liblxcs_names_and_serves(fake, tmp_path):
    fake.define("red")
    probe = Probe(fake, tmp_path)
    probe.process.popen.stdin.close()
    assert probe.line() == f"fifo 0 {fifo_path()}"
    assert probe.line() == "socket 0 " + publisher_address()[1:].decode()
    assert re.fullmatch(r"open \d+, states STOPPED THAWED \(null\)", probe.line())
    with Client(fake.root, publisher_address()) as client:
        assert client.receive(100) == b"served"
    assert probe.process.wait() == 0
    assert fake.root.path("/run/lxc/var/lib/lxc").stat().st_mode & 0o777 == 0o755
    assert [call.detail for call in fake.calls("lxc_abstract_unix_open")] == ["1,512"]


@uninstrumented
def test_the_fake_fails_on_demand(fake, tmp_path):
    fake.define("red")
    for name in ("fifo_name_fails", "sock_name_fails", "unix_open_fails"):
        fake.set(name)
    fake.set("count_override", 5)
    fake.set("state2str/7")
    fake.set("state2str/8", "BROKEN")
    probe = Probe(fake, tmp_path)
    assert probe.count_line == "count 5"
    lines = probe.end()
    assert lines[0].startswith("fifo -1")
    assert lines[1].startswith("socket -1")
    assert lines[2] == "open -1, states STOPPED (null) BROKEN"


@uninstrumented
def test_the_fake_without_a_path_or_a_listing(fake, tmp_path):
    fake.unset("lxcpath")
    fake.set("list_fails")
    probe = Probe(fake, tmp_path)
    assert (probe.path_line, probe.count_line) == ("path (null), version 4.0.12", "count -1")
    probe.process.kill()


def test_the_incomplete_fake_lacks_one_function(fake):
    def symbols():
        return fake.root.run(["nm", "-D", "--defined-only", "/zone/config/liblxc.so.1"]).stdout

    assert " lxc_state2str\n" in symbols()
    fake.install_incomplete()
    assert " lxc_state2str\n" not in symbols()
    assert " lxc_abstract_unix_open\n" in symbols()


@pytest.fixture
def fifo(fake):
    """The monitor FIFO, open for reading."""
    fake.root.mkdir(os.path.dirname(fifo_path()))
    path = fake.root.path(fifo_path())
    os.mkfifo(path, 0o600)
    fd = os.open(path, os.O_RDWR | os.O_NONBLOCK)
    yield fd
    os.close(fd)


def read_messages(fd, count):
    return [Message.unpack(os.read(fd, Message.SIZE)) for _ in range(count)]


LAUNCHER = "/zone/config/zone-launcher"


def test_the_fake_launcher_starts_and_stops(fake, fifo):
    fake.define("red")
    fake.root.run([LAUNCHER, "start", "red"])
    assert (fake.of("red", "state"), fake.of("red", "running")) == ("RUNNING", "1")
    assert int(fake.of("red", "init_pid")) == fake.launches()[0]["pid"]
    fake.root.run([LAUNCHER, "stop", "red"])
    assert (fake.of("red", "state"), fake.of("red", "running"), fake.of("red", "init_pid")) == ("STOPPED", "0", "-1")
    stopping, ended, stopped = [Message.state("red", "STOPPING"), Message(EXIT, "red", 0), Message(0, "red", 0)]
    started = [Message.state("red", "STARTING"), Message.state("red", "RUNNING")]
    assert read_messages(fifo, 5) == [*started, stopping, ended, stopped]


def test_the_fake_launcher_follows_its_script(fake, fifo):
    fake.define("red")
    fake.script("start", "set init_pid 5", "wait go", "message 2 256", "sleep 1", "exit 3")
    fake.script("stop", "signal 9", name="red")
    process = fake.root.popen([LAUNCHER, "start", "red"])
    eventually(lambda: fake.of("red", "init_pid") == "5", 10)
    assert process.running
    fake.set("go")
    assert process.wait() == 3
    assert read_messages(fifo, 1) == [Message(EXIT, "red", 256)]
    assert fake.root.run([LAUNCHER, "stop", "red"], check=False).returncode == -signal.SIGKILL
    fake.script("stop", "nonsense", name="red")
    assert fake.root.run([LAUNCHER, "stop", "red"], check=False).returncode == 1


def test_the_fake_launcher_records_what_it_got(fake):
    fake.define("red")
    fake.root.run(f"umask 027; exec 7</etc/passwd; trap '' USR1; {LAUNCHER} start red >/dev/null")
    launch = fake.launches()[0]
    assert launch["argv"] == [LAUNCHER, "start", "red"]
    assert launch["umask"] == 0o027
    assert int(launch["ignored"], 16) & 1 << (signal.SIGUSR1 - 1)
    assert int(launch["blocked"], 16) == 0
    assert (launch["fds"]["1"], launch["fds"]["7"]) == ("/dev/null", "/etc/passwd")
    assert set(launch["fds"]) == {"0", "1", "2", "7"}


def test_messages_reach_the_fifo(fake, fifo):
    send_states(fake.root, "red", "STARTING", "RUNNING")
    send_messages(fake.root, Message(EXIT, "red", 9), b"short")
    expected = [Message(0, "red", 1), Message(0, "red", 2), Message(EXIT, "red", 9)]
    assert read_messages(fifo, 3) == expected
    assert os.read(fifo, 300) == b"short"


def test_a_client_can_be_another_user(root):
    with root.socket() as server:
        server.bind(init_pid_address())
        server.listen()
        with Client(root, init_pid_address(), uid=1234):
            accepted, _ = server.accept()
            with accepted:
                assert accepted.getsockopt(1, 17, 12)[4:8] == (1234).to_bytes(4, "little")
    assert os.geteuid() == 0


# The log

LINE = (
    "E/ZONE_MANAGER(12:34): Zone.cpp: start(56) > \x1b[01;31;40m"
    '[virtual bool ZoneCore::Zone::start(const std::string&):56] "red" : [a] (b) > c\x1b[0m'
)


def test_a_record_is_taken_apart():
    record = records.parse(LINE)
    assert (record.level, record.file, record.func, record.line) == ("error", "Zone.cpp", "start", 56)
    assert record.signature == "virtual bool ZoneCore::Zone::start(const std::string&)"
    assert record.body == '"red" : [a] (b) > c'
    assert (record.pid, record.tid, record.colours) == (12, 34, "01;31;40")
    assert records.parse(LINE.replace("start(56)", "operator()(56)")).func == "operator()"


@pytest.mark.parametrize("text", ["", "GLib-WARNING", LINE[:-1], LINE.replace("start(56)", "start(57)"), "x" + LINE])
def test_other_lines_are_no_records(text):
    assert records.parse(text) is None


class StandIn:
    """A program in the daemon's place that prints records and runs on until it is told to end."""

    def __init__(self, root, ending="exec sleep 600"):
        printed = "\n".join(f"printf '%s\\n' '{line}'" for line in (LINE, "plain", LINE.replace("red", "blue")))
        root.write("/usr/local/bin/stand-in", f"#!/bin/sh\n{printed}\n{ending}\n", mode=0o755)
        self.daemon = Daemon(root, "/usr/local/bin/stand-in")


def test_the_daemons_log_is_awaited(root):
    daemon = StandIn(root).daemon.start(wait="blue")
    assert [record.body.split('"')[1] for record in daemon.wait_order('"red"', re.compile('^"blue"'))] == ["red", "blue"]
    assert daemon.wait_for("[a] (b)", level="error").line == 56
    assert daemon.count("[a]") == 2 and daemon.find("red", after=1) is None
    assert daemon.lines[1] == "plain"
    assert len(daemon.bodies("error")) == 2 and not daemon.bodies("info")
    with pytest.raises(AssertionError, match="plain"):
        daemon.wait_for("nothing of this kind", timeout=0.1)
    daemon.never("green", 0.05)
    assert daemon.stop() == -signal.SIGTERM
    assert not daemon.sanitizer_report()


def test_a_daemon_that_ended_fails_the_wait_at_once(root):
    daemon = StandIn(root, "echo 'Zone.cpp:1:2: runtime error: overflow'; exit 255").daemon.start()
    began = time.monotonic()
    with pytest.raises(AssertionError, match="ended without"):
        daemon.wait_for("never written", timeout=60)
    assert time.monotonic() - began < 30
    assert daemon.wait_exit() == 255
    assert "overflow" in daemon.sanitizer_report()


def test_waiting_is_bounded():
    with pytest.raises(Timeout, match="the impossible"):
        eventually(lambda: False, 0.01, "the impossible")


# The bus


def test_a_bus_starts_stops_and_starts_again(root):
    bus = Bus(root, policy=None).start()
    assert bus.owner("org.freedesktop.DBus") == "org.freedesktop.DBus"
    assert bus.owner() is None
    with pytest.raises(BusError):
        bus.call("GetZoneList")
    bus.stop()
    assert bus.owner("org.freedesktop.DBus") is None
    bus.start()
    assert bus.owner("org.freedesktop.DBus") == "org.freedesktop.DBus"
    bus.restart()
    assert bus.process.running
