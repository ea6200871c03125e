"""The fake liblxc and launcher, and the clients of the daemon's sockets and FIFO."""

import os
import re
import signal
import subprocess

import pytest
from zonetest import (
    EXIT,
    SANITIZE,
    Client,
    Message,
    eventually,
    fifo_path,
    init_pid_address,
    publisher_address,
    send_messages,
    send_states,
)
from zonetest.fakelxc import FAKES

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
               c->get_config_item(c, "lxc.container_type", NULL, 0),
               c->get_config_item(c, "lxc.start.auto", NULL, 0), length, buffer, shown(c->state(c)),
               c->is_running(c), c->init_pid(c), c->may_control(c),
               lxc_container_get(c));
    }
    struct sockaddr_un address;
    printf("fifo %d %s\n", lxc_monitor_fifo_name(path, buffer, sizeof buffer, 1), buffer);
    printf("socket %d %s\n", lxc_monitor_sock_name(path, &address), address.sun_path + 1);
    int fd = lxc_abstract_unix_open(address.sun_path, SOCK_STREAM, 512);
    printf("open %d, states %s %s %s\n", fd, shown(lxc_state2str(0)), shown(lxc_state2str(7)),
           shown(lxc_state2str(8)));
    int client = fd < 0 ? -1 : accept(fd, NULL, NULL);
    if (client >= 0 && write(client, "served", 6) != 6) return 1;
    return 0;
}
"""


class Probe:
    """A program that uses the fake liblxc. Each line of input makes it ask about the first container."""

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


uninstrumented = pytest.mark.skipif(bool(SANITIZE), reason="the library is instrumented, the probe is not")


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
    taken = [call for call in fake.calls("lxc_container_get", "red") if call.detail != "failed"]
    assert [call.references for call in taken] == [2]
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
    assert (fake.of("red", "state"), fake.of("red", "running")) == ("STOPPED", "0")
    assert fake.of("red", "init_pid") == "-1"
    assert read_messages(fifo, 5) == [
        Message.state("red", "STARTING"),
        Message.state("red", "RUNNING"),
        Message.state("red", "STOPPING"),
        Message(EXIT, "red", 0),
        Message.state("red", "STOPPED"),
    ]


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
