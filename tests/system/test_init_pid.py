"""The init-pid socket: one question, one number, and clients that behave badly."""

import os
import re
import resource
import socket

import pytest
from zonetest import (
    READY,
    Client,
    Message,
    Subscriber,
    ask_init_pid,
    busy_monitor,
    eventually,
    init_pid_address,
    send_states,
)

NAME_SIZE = 64


@pytest.fixture
def served(fake, daemon):
    for name, kind in (("hybrid", "hybrid"), ("isolated", "isolation"), ("protected", "protection")):
        fake.define(name, kind, state="RUNNING", init_pid=4711)
    daemon.start(wait=READY)
    return daemon


def refused(name):
    return (
        f"[zone-monitor] There is no access permission to protection zone({name}) - "
        "Operation is not permitted"
    )


# Answers


def test_real_containers(zones, bus, daemon, root):
    for name, kind in (("blue", "isolation"), ("red", "hybrid"), ("late", "isolation")):
        zones.define(name, kind)
    daemon.start(wait=READY)
    bus.wait_owned()
    for name in ("red", "blue"):
        assert bus.call("ZoneStart", name) is True
        daemon.wait_for(f"Now, {name} is running", timeout=20)
    assert ask_init_pid(root, "blue") == str(zones.init_pid("blue"))
    assert ask_init_pid(root, "red") == "0"
    assert ask_init_pid(root, "late") == "-1"  # liblxc's answer for what does not run
    # It is the container's first process.
    assert root.read(f"/proc/{ask_init_pid(root, 'blue')}/cgroup").count("lxc.payload/blue") > 0


def test_an_isolation_zone_is_answered_without_an_error(served, root):
    mark = served.mark()
    assert ask_init_pid(root, "isolated") == "4711"
    assert served.bodies("error", after=mark) == []


@pytest.mark.parametrize("name", ["hybrid", "protected"])
def test_other_kinds_are_answered_with_nought(served, root, name):
    mark = served.mark()
    assert ask_init_pid(root, name) == "0"
    assert served.bodies("error", after=mark) == [refused(name)]


@pytest.mark.parametrize("name", ["nobody", "isolated2", "isolate", "Isolated", " isolated", "%s%n"])
def test_unknown_names_are_answered_with_nought(served, root, name):
    mark = served.mark()
    assert ask_init_pid(root, name) == "0"
    assert served.bodies("error", after=mark) == [
        f"Can not find zone object (zone name : {name})",
        refused(name),
    ]


def test_a_new_line_is_part_of_the_name(served, root):
    assert ask_init_pid(root, "isolated\n") == "0"


def test_an_empty_name_is_answered_with_nought(served, root):
    for question in (b"\0", b"\0isolated"):
        mark = served.mark()
        assert ask_init_pid(root, question) == "0"
        assert served.bodies("error", after=mark) == ["Can not find zone object (zone name : )", refused("")]
    mark = served.mark()
    with Client(root, init_pid_address()) as client:
        client.socket.shutdown(socket.SHUT_WR)  # asks nothing at all, and listens
        assert client.receive(64) == b"0"
    assert served.bodies("error", after=mark) == ["Can not find zone object (zone name : )", refused("")]


def test_the_name_ends_at_its_first_zero_byte(served, root):
    for question in (b"isolated\0", b"isolated\0garbage", b"isolated".ljust(NAME_SIZE, b"\0")):
        assert ask_init_pid(root, question) == "4711"


@pytest.mark.parametrize("length", [NAME_SIZE - 1, NAME_SIZE])
def test_a_name_up_to_the_limit_is_found(fake, daemon, root, length):
    name = fake.define("x" * length, "isolation", init_pid=4711)
    daemon.start(wait=READY)
    assert ask_init_pid(root, name) == "4711"


def test_of_a_longer_name_the_first_64_bytes_count(fake, daemon, root):
    fake.define("x" * (NAME_SIZE + 1), "isolation", init_pid=4711)
    daemon.start(wait=READY)
    for length in (NAME_SIZE + 1, 4000):
        mark = daemon.mark()
        with Client(root, init_pid_address()) as client:
            client.socket.sendall(b"x" * length)
            assert client.receive(1) == b"0"
            # What was not read of the question makes the end of the connection an error.
            with pytest.raises(ConnectionResetError):
                client.socket.recv(1)
        cut = "x" * NAME_SIZE
        assert daemon.bodies("error", after=mark) == [
            f"Can not find zone object (zone name : {cut})",
            refused(cut),
        ]


def test_only_the_first_part_of_a_name_in_parts_counts(served, root):
    with Client(root, init_pid_address()) as client:
        client.socket.sendall(b"isolated")
        assert client.receive(64) == b"4711"
    mark = served.mark()
    with Client(root, init_pid_address()) as client:
        client.socket.sendall(b"iso")
        assert client.receive(64) == b"0"
    assert served.bodies("error", after=mark)[-1] == refused("iso")


def test_each_answer_is_as_liblxc_gives_it_now(served, fake, root):
    for pid in ("1", "2147483647", "-1"):
        fake.put("isolated", "init_pid", pid)
        assert ask_init_pid(root, "isolated") == pid


def test_any_user_may_ask(served, root):
    with Client(root, init_pid_address(), uid=1000) as client:
        client.socket.sendall(b"isolated")
        assert client.receive(64) == b"4711"


def test_a_query_is_told(served, root):
    mark = served.mark()
    ask_init_pid(root, "isolated")
    (told,) = served.bodies("info", after=mark)
    assert re.fullmatch(r"\[zone-monitor:\d+\] Client\[fd : \d+\] is connected\[listen socket : \d+\]", told)


# The address


@pytest.mark.parametrize(
    "address",
    [
        b"\0zonemanager_socket",
        b"\0zonemanager_socket\0",
        b"\0zonemanager_socket".ljust(107, b"\0"),
        b"\0zonemanager_socket ".ljust(108, b"\0"),
    ],
    ids=["exact", "with its terminator", "one byte short", "another name"],
)
def test_an_address_of_another_length_reaches_nobody(served, root, address):
    with pytest.raises(ConnectionRefusedError):
        Client(root, address)
    assert ask_init_pid(root, "isolated") == "4711"


# Bad clients


@pytest.mark.parametrize("question", [b"isolated", b"", b"nobody"])
@pytest.mark.parametrize("unread", [False, True])
def test_a_client_that_vanishes_before_the_answer(served, root, question, unread):
    with busy_monitor(served):
        mark = served.mark()
        clients = [Client(root, init_pid_address()) for _ in range(5)]
        for client in clients:
            client.socket.sendall(question)
            if unread:
                client.socket.sendall(b"x" * 100)
            client.close()
    eventually(lambda: served.count("is connected[listen socket", after=mark) == len(clients), 10)
    assert ask_init_pid(root, "isolated") == "4711"
    assert served.running
    assert served.stop() == 0


def test_a_silent_client_holds_the_relay_up_until_it_goes(bus, served, root):
    """A known limit: queries and state changes are one thread's work. Requests are another's."""
    bus.wait_owned()
    with Subscriber(root) as subscriber:
        served.wait_for("client connection is added to GIO Channel List")
        mark = served.mark()
        with Client(root, init_pid_address()):
            served.wait_for("is connected[listen socket", after=mark)
            send_states(root, "isolated", "FROZEN")
            assert subscriber.silent_for(1.0)
            assert bus.call("ZoneUnfreeze", "isolated") is True
        assert subscriber.next() == Message.state("isolated", "FROZEN")


def test_without_a_descriptor_left_the_service_ends_and_nothing_else(served, root):
    soft, hard = resource.prlimit(served.pid, resource.RLIMIT_NOFILE)
    used = len(os.listdir(root.path(f"/proc/{served.inner_pid}/fd")))
    resource.prlimit(served.pid, resource.RLIMIT_NOFILE, (used, hard))
    with Client(root, init_pid_address()):
        failure = served.wait_for("Failed to accept client connection[listen socket : ")
        assert failure.level == "error"
    resource.prlimit(served.pid, resource.RLIMIT_NOFILE, (soft, hard))
    with pytest.raises(TimeoutError):
        ask_init_pid(root, "isolated", timeout=1)
    mark = served.mark()
    with Subscriber(root) as subscriber:
        served.wait_for("client connection is added to GIO Channel List", after=mark)
        send_states(root, "isolated", "FROZEN")
        assert subscriber.next() == Message.state("isolated", "FROZEN")
    assert served.count("Failed to accept client connection") == 1
    assert served.stop() == 0


def test_a_hundred_clients_are_answered_one_after_another(served, root):
    with busy_monitor(served):
        clients = [Client(root, init_pid_address()) for _ in range(100)]
        for number, client in enumerate(clients):
            client.socket.sendall(b"isolated" if number % 2 else b"hybrid")
    for number, client in enumerate(clients):
        with client:
            assert client.receive(64) == (b"4711" if number % 2 else b"0")
