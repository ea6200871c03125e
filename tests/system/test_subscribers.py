"""The subscribers' socket: who is let in, who gets what, and how little a bad subscriber can do."""

import contextlib
import os
import re
import resource
import signal
import socket
import subprocess

import pytest
from zonetest import (
    EXIT,
    PRIORITY,
    READY,
    STATE,
    Client,
    Message,
    Subscriber,
    ask_init_pid,
    busy_monitor,
    eventually,
    never,
    publisher_address,
    send_messages,
    send_states,
)

LISTED = "client connection is added to GIO Channel List[client fd : "
GONE = "Current client connection count[count : "
MANY = 200
BATCH = 100  # messages that the FIFO holds for sure
CHANGE = re.compile(r"^'(\w+)' changed state to \[(\w+)\]$")


@pytest.fixture
def red(fake, daemon):
    fake.define("red", "isolation", init_pid=4711)
    daemon.start(wait=READY)
    return "red"


def subscribe(daemon, count=1, **options):
    """Subscribers that the daemon has listed, one after another, each with its descriptor in the daemon."""
    found = []
    for _ in range(count):
        mark = daemon.mark()
        subscriber = Subscriber(daemon.root, **options)
        record = daemon.wait_for(LISTED, after=mark)
        subscriber.fd = int(re.search(r"client fd : (\d+)", record.body)[1])
        subscriber.count = int(re.search(r"count : (\d+)", record.body)[1])
        found.append(subscriber)
    return found


def plain(daemon, mark):
    """The monitor's messages from a mark on, without thread ids."""
    lines = [str(record) for record in daemon.records[mark:]]
    return [re.sub(r"\[zone-monitor:\d+\]", "[zone-monitor]", line) for line in lines]


def numbered(first, count):
    """State messages of containers that nobody knows, to be told apart."""
    return [Message.state(f"m-{number}", "FREEZING") for number in range(first, first + count)]


def notified_after(daemon, mark):
    """Descriptors to which the next state change is written."""
    send_states(daemon.root, "red", "FROZEN")
    daemon.wait_for("State Change Event is notified to all subscribers - red => FROZEN", after=mark)
    lines = "\n".join(daemon.bodies("info", after=mark))
    return [int(fd) for fd in re.findall(r"red => FROZEN message is notified to \[fd : (\d+),", lines)]


# Debian's own lxc-monitor


def test_lxc_monitor_prints_every_change_of_real_containers(zones, bus, daemon, root):
    for name, kind in (("red", "hybrid"), ("blue", "isolation")):
        zones.define(name, kind)
    daemon.start(wait=READY)
    bus.wait_owned()
    output = root.scratch / "lxc-monitor.log"
    with open(output, "wb") as log:
        monitor = root.popen(["lxc-monitor", "-n", ".*"], stdout=log, stderr=subprocess.STDOUT)
    daemon.wait_for(LISTED)

    def changes(name):
        matches = [CHANGE.match(line) for line in output.read_text().splitlines()]
        return [match[2] for match in matches if match[1] == name]

    bus.call("ZoneStart", "red")
    eventually(lambda: changes("red") == ["STARTING", "RUNNING"], 20, "the start")
    zones.start("blue")
    root.run(["lxc-freeze", "-n", "red"])
    root.run(["lxc-unfreeze", "-n", "red"])
    thawed = ["STARTING", "RUNNING", "FREEZING", "FROZEN", "FROZEN", "THAWED", "THAWED", "RUNNING"]
    eventually(lambda: changes("red") == thawed, 20, "freeze and thaw")
    # Its own server found the FIFO taken and gave way.
    daemons = root.run("ps ax -o comm=").stdout.split()
    assert ("lxc-monitord" in daemons, "lxc-monitor" in daemons) == (False, True)
    bus.call("ZoneStop", "red")
    eventually(lambda: changes("red")[-1:] == ["STOPPED"], 30, "the stop")
    assert changes("red") == [*thawed, *changes("red")[len(thawed) :]]
    assert set(changes("red")[len(thawed) :]) == {"STOPPING", "STOPPED"}
    assert changes("blue") == ["STARTING", "RUNNING"]
    # Line for line what the daemon relayed.
    relayed = [
        re.search(r"- (\w+) => (\w+)$", body).groups()
        for body in daemon.bodies("info")
        if "State Change Event is notified to all subscribers" in body
    ]
    assert [CHANGE.match(line).groups() for line in output.read_text().splitlines()] == relayed
    mark = daemon.mark()
    monitor.kill()
    daemon.wait_for(f"{GONE}0]", after=mark)


def test_lxc_monitors_request_to_quit_is_noise(red, daemon, root):
    root.run(["lxc-monitor", "-Q"])
    daemon.wait_for(re.compile(r"read data from clients\[\d+\] - quit$"))
    daemon.wait_for(f"{GONE}0]")
    (subscriber,) = subscribe(daemon)
    with subscriber:
        send_states(root, "red", "FROZEN")
        assert subscriber.next() == Message.state("red", "FROZEN")
    assert daemon.running


# Who is let in, and what is sent


def test_only_the_daemons_own_user_is_let_in(red, daemon, root):
    mark = daemon.mark()
    with Subscriber(root, uid=1000) as stranger:
        assert stranger.next() is None
        refusal = daemon.wait_for("Process Permission is not matched", after=mark)
        assert refusal.level == "error"
        assert re.fullmatch(
            r"Process Permission is not matched \[1000 <-> 0\], \[fd : \d+\]", refusal.body
        )
        lines = plain(daemon, mark)
        assert len(lines) == 3, lines
        assert lines[0].startswith("info: [zone-monitor] server accept IO event is received[fd : ")
        assert lines[0].endswith(", count : 0]")
        assert re.fullmatch(
            r"info: \[zone-monitor\] Client\[fd : \d+\] is connected\[listen socket : \d+\]", lines[1]
        )
        # The next one is let in, and is the only one served.
        (subscriber,) = subscribe(daemon)
        assert subscriber.count == 1
        with subscriber:
            mark = daemon.mark()
            assert notified_after(daemon, mark) == [subscriber.fd]
            assert subscriber.next() == Message.state("red", "FROZEN")
        assert stranger.socket.recv(1) == b""


def test_a_new_subscriber_is_told_step_by_step(red, daemon, root):
    mark = daemon.mark()
    (subscriber,) = subscribe(daemon)
    listening = re.search(r"listen socket : (\d+)", "\n".join(daemon.bodies(after=mark)))[1]
    fd = subscriber.fd
    assert plain(daemon, mark) == [
        f"info: [zone-monitor] server accept IO event is received[fd : {listening}, count : 0]",
        f"info: [zone-monitor] Client[fd : {fd}] is connected[listen socket : {listening}]",
        f"info: Process Permission is allowed [0 <-> 0], [fd : {fd}]",
        "info: [zone-monitor] G_IO_FLAG_NONBLOCK flag is set for client connection"
        f"[client fd : {fd}, count : 0]",
        f"info: [zone-monitor] IO({fd}) watcher is added to Thread Context",
        f"info: [zone-monitor] client connection is added to GIO Channel List[client fd : {fd}, count : 1]",
    ]
    flags = root.path(f"/proc/{daemon.inner_pid}/fdinfo/{fd}").read_text().splitlines()[1]
    assert flags.startswith("flags:")
    assert int(flags.split()[1], 8) & (os.O_NONBLOCK | os.O_CLOEXEC) == os.O_NONBLOCK | os.O_CLOEXEC
    subscriber.close()


def test_a_subscriber_gets_the_264_bytes_as_they_were_written(red, daemon, root):
    (subscriber,) = subscribe(daemon)
    record = bytearray(Message.state("red", "FREEZING").pack())
    record[8:260] = bytes(range(1, 253))  # what follows the name's terminator goes along
    with subscriber:
        send_messages(root, bytes(record))
        assert subscriber.receive(264) == bytes(record)


def test_only_state_messages_are_relayed(red, daemon, root):
    (subscriber,) = subscribe(daemon)
    with subscriber:
        unknown_type, unknown_state = Message(7, "red", 1), Message(STATE, "red", 99)
        send_messages(root, Message(PRIORITY, "red", 1), Message(EXIT, "red", 9), unknown_type, unknown_state)
        send_states(root, "red", "FROZEN")
        assert subscriber.next() == Message.state("red", "FROZEN")
        assert subscriber.silent_for(0.5)


@pytest.mark.parametrize("change", [b"\0", b"", None], ids=["longer", "shorter", "whole"])
def test_the_address_has_exactly_the_names_length(red, root, change):
    address = publisher_address()
    wrong = {b"\0": address + b"\0", b"": address[:-1], None: address.ljust(108, b"\0")}[change]
    with pytest.raises(ConnectionRefusedError):
        Client(root, wrong)
    Client(root, address).close()


# Many of them


def connected(root):
    """A subscriber; None while as many wait to be let in as the daemon's socket has room for."""
    try:
        return Subscriber(root)
    except BlockingIOError:
        return None


def test_two_hundred_subscribers_get_every_message(red, daemon, root):
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    if soft < 4 * MANY:
        resource.setrlimit(resource.RLIMIT_NOFILE, (min(4 * MANY, hard), hard))
    with contextlib.ExitStack() as stack:
        everybody = [stack.enter_context(eventually(lambda: connected(root))) for _ in range(MANY)]
        daemon.wait_for(re.compile(rf"client connection is added .*count : {MANY}\]$"), timeout=30)
        words = ["STARTING", "FREEZING", "FROZEN", "THAWED"]
        send_states(root, "red", *words)
        for subscriber in everybody:
            assert [subscriber.next() for _ in words] == [Message.state("red", word) for word in words]
        for subscriber in everybody[::2]:
            subscriber.close()
        daemon.wait_for(f"{GONE}{MANY // 2}]", timeout=30)
        mark = daemon.mark()
        served = notified_after(daemon, mark)
        assert len(served) == len(set(served)) == MANY // 2
        for subscriber in everybody[1::2]:
            assert subscriber.next() == Message.state("red", "FROZEN")
            assert subscriber.silent_for(0.001)


def test_a_hang_up_removes_exactly_that_one(red, daemon, root):
    first, second, third = subscribe(daemon, 3)
    assert [each.count for each in (first, second, third)] == [1, 2, 3]
    mark = daemon.mark()
    second.close()
    daemon.wait_for(f"GIO Channel is destroyed[fd : {second.fd}]", after=mark)
    assert plain(daemon, mark) == [
        f"info: [zone-monitor] client IO event is received[fd : {second.fd}, count : 3]",
        f"info: [zone-monitor] client socket connection is broken(Hung up)[fd : {second.fd}]",
        f"info: [zone-monitor] Remove client connections[{second.fd}] - [count : 3]",
        f"info: [zone-monitor] Found client connection from client GIO List[client socket : {second.fd}]",
        "info: [zone-monitor] Current client connection count[count : 2]",
        f"info: [zone-monitor] GIO Channel is destroyed[fd : {second.fd}]",
    ]
    assert not os.path.lexists(root.path(f"/proc/{daemon.inner_pid}/fd") / str(second.fd))
    assert notified_after(daemon, daemon.mark()) == [first.fd, third.fd]
    for subscriber in (first, third):
        assert subscriber.next() == Message.state("red", "FROZEN")
        subscriber.close()
    daemon.wait_for(f"{GONE}0]")


def test_the_daemons_end_is_every_subscribers_end(red, daemon):
    subscribers = subscribe(daemon, 3)
    assert daemon.stop() == 0
    assert [subscriber.next() for subscriber in subscribers] == [None] * 3
    assert daemon.count(re.compile(r"Remove all client connections\[count : 3\]$")) == 1
    for subscriber in subscribers:
        assert daemon.count(f"from client GIO List[client socket : {subscriber.fd}]") == 1
        subscriber.close()


# Bad ones


def test_a_subscriber_that_never_reads_loses_records_and_nobody_else_does(red, daemon, root):
    slow, quick = subscribe(daemon, 2)
    failed = re.compile(
        r"^\[zone-monitor:\d+\] Failed to write the state change event to subscribers - "
        r'm-\d+ => FREEZING - "Resource temporarily unavailable"$'
    )
    sent = 0
    with slow, quick:
        for _ in range(30):
            send_messages(root, *numbered(sent, BATCH))
            assert [quick.next() for _ in range(BATCH)] == numbered(sent, BATCH)
            sent += BATCH
            if daemon.count(failed) > BATCH:
                break
        last = f"State Change Event is notified to all subscribers - m-{sent - 1} => FREEZING"
        mark = daemon.mark()
        daemon.wait_for(last)
        lost = daemon.count(failed)
        assert BATCH < lost < sent
        assert {record.level for record in daemon.records if failed.search(record.body)} == {"warning"}
        assert ask_init_pid(root, "red") == "4711"
        # Whole records, the oldest ones; the rest is lost for good.
        assert [slow.next() for _ in range(sent - lost)] == numbered(0, sent - lost)
        assert slow.silent_for(0.2)
        # It is still listed, and now it gets the next one.
        assert notified_after(daemon, mark) == [slow.fd, quick.fd]
        assert slow.next() == quick.next() == Message.state("red", "FROZEN")


def test_subscribers_killed_while_messages_flow(red, daemon, root):
    """lxc-monitor, killed at whatever it was doing, again and again."""
    (steady,) = subscribe(daemon)
    sent = 0
    for _ in range(10):
        mark = daemon.mark()
        victims = [
            root.popen(["lxc-monitor", "-n", ".*"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            for _ in range(3)
        ]
        daemon.wait_for(re.compile(r"client connection is added .*count : 4\]$"), after=mark)
        send_messages(root, *numbered(sent, BATCH // 2))
        for victim in victims:
            os.kill(victim.pid, signal.SIGKILL)
        send_messages(root, *numbered(sent + BATCH // 2, BATCH // 2))
        assert [steady.next() for _ in range(BATCH)] == numbered(sent, BATCH)
        sent += BATCH
        daemon.wait_for(f"{GONE}1]", after=mark)
    steady.close()
    assert daemon.running
    assert daemon.stop() == 0


def test_a_subscriber_that_closes_between_two_messages(red, daemon, root):
    leaving, staying = subscribe(daemon, 2)
    send_states(root, "red", "FREEZING")
    assert leaving.next() == staying.next() == Message.state("red", "FREEZING")
    mark = daemon.mark()
    # Both at once for the daemon: the message is relayed before the hang-up is seen.
    with busy_monitor(daemon):
        send_states(root, "red", "FROZEN")
        leaving.close()
    daemon.wait_order(
        "Failed to write the state change event to subscribers - red => FROZEN - \"Broken pipe\"",
        f"red => FROZEN message is notified to [fd : {leaving.fd}, count : 2]",
        f"red => FROZEN message is notified to [fd : {staying.fd}, count : 2]",
        f"client socket connection is broken(Hung up)[fd : {leaving.fd}]",
        after=mark,
    )
    assert staying.next() == Message.state("red", "FROZEN")
    staying.close()
    assert daemon.stop() == 0


def processor_time(pid):
    """Seconds that a process has used so far, from its scheduler statistics."""
    total = 0
    for task in os.listdir(f"/proc/{pid}/task"):
        with open(f"/proc/{pid}/task/{task}/schedstat") as statistics:
            total += int(statistics.read().split()[0])
    return total / 1e9


def test_a_subscriber_that_will_send_nothing_goes_on_listening(red, daemon, root):
    half, whole = subscribe(daemon, 2)
    mark = daemon.mark()
    half.socket.shutdown(socket.SHUT_WR)
    daemon.wait_for(f"IO({half.fd}) watcher is added to Thread Context", after=mark)
    # Its side stays at its end for ever, which must keep nobody busy.
    events = f"client IO event is received[fd : {half.fd}"
    before = processor_time(daemon.pid)
    never(lambda: daemon.count(events, after=mark) > 1, 2.0, "another wake-up")
    assert processor_time(daemon.pid) - before < 0.2
    for word in ("FREEZING", "FROZEN", "THAWED"):
        send_states(root, "red", word)
        assert half.next() == whole.next() == Message.state("red", word)
    assert notified_after(daemon, daemon.mark()) == [half.fd, whole.fd]
    mark = daemon.mark()
    half.close()
    daemon.wait_for(f"{GONE}1]", after=mark)
    assert notified_after(daemon, daemon.mark()) == [whole.fd]
    whole.close()


def test_data_and_the_end_of_it_in_one_go(red, daemon, root):
    (half,) = subscribe(daemon)
    mark = daemon.mark()
    half.socket.sendall(b"abcdefg")
    half.socket.shutdown(socket.SHUT_WR)
    daemon.wait_order("] - abcd", "] - efg", f"IO({half.fd}) watcher is added", after=mark)
    send_states(root, "red", "FROZEN")
    with half:
        assert half.next() == Message.state("red", "FROZEN")


@pytest.mark.parametrize(
    ("garbage", "told"),
    [
        (b"abcdefghij", ["abcd", "efgh", "ij"]),
        (b"%s%n%x%d", ["%s%n", "%x%d"]),
        (b"\0\0\0\0ab\0c", ["", "ab"]),
        (b"x", ["x"]),
    ],
)
def test_what_a_subscriber_sends_is_read_four_bytes_at_a_time(red, daemon, root, garbage, told):
    first, second = subscribe(daemon, 2)
    mark = daemon.mark()
    second.socket.sendall(garbage)
    head = f"read data from clients[{second.fd}] - "
    eventually(lambda: daemon.count(head, after=mark) == len(told), 10, "all of it read")
    assert [body.partition(head)[2] for body in daemon.bodies(after=mark) if head in body] == told
    assert daemon.count(f"client IO event is received[fd : {second.fd}, count : 2]", after=mark) == len(told)
    # Nobody minds.
    assert notified_after(daemon, daemon.mark()) == [first.fd, second.fd]
    for subscriber in (first, second):
        assert subscriber.next() == Message.state("red", "FROZEN")
        subscriber.close()


def test_without_a_descriptor_left_the_next_one_waits(red, daemon, root):
    (first,) = subscribe(daemon)
    mark = daemon.mark()
    used = len(os.listdir(root.path(f"/proc/{daemon.inner_pid}/fd")))
    _, hard = resource.prlimit(daemon.pid, resource.RLIMIT_NOFILE)
    resource.prlimit(daemon.pid, resource.RLIMIT_NOFILE, (used, hard))
    with Subscriber(root) as second:
        failure = daemon.wait_for("Failed to accept client connection[listen socket : ", after=mark)
        first.close()
        assert failure.level == "error"
        daemon.wait_for(re.compile(r"client connection is added .*count : 1\]$"), after=mark)
        send_states(root, "red", "FROZEN")
        assert second.next() == Message.state("red", "FROZEN")


def test_a_flood_of_garbage_holds_nobody_up(red, daemon, root):
    noisy, quiet = subscribe(daemon, 2)
    noise = bytes(range(256)) * 40
    noisy.socket.sendall(noise)
    with noisy, quiet:
        send_states(root, "red", "FROZEN")
        assert quiet.next() == noisy.next() == Message.state("red", "FROZEN")
        eventually(
            lambda: daemon.count(f"client IO event is received[fd : {noisy.fd}") == len(noise) // 4, 30
        )
