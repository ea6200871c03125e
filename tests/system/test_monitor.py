"""The monitor's set-up, and what it makes of the messages that containers write."""

import fcntl
import os
import re
import signal

import pytest
from zonetest import (
    EXIT,
    PRIORITY,
    READY,
    STATE,
    Message,
    Subscriber,
    fifo_path,
    init_pid_address,
    publisher_address,
    send_messages,
    send_states,
)

LAST_LINE = "ZoneManager is terminated..."
LOCK = "/var/run/lxc/lock/zone-manager.lock"
FIFO = fifo_path()
SOCKET_NAME = publisher_address()[1:].decode()


@pytest.fixture
def zone(fake):
    return fake.define("red", "isolation")


def plain(text):
    """A record with thread ids and descriptors taken out."""
    text = re.sub(r"\[([\w-]*):\d+\]", r"[\1]", text)
    return re.sub(r"(\[fd : |/ \[)\d+(?=[,\]])", r"\1N", text)


# Set-up


def errors_of_failed_start(daemon):
    """Runs a daemon whose monitor fails, to its end, and returns the errors of the monitor."""
    daemon.start()
    assert daemon.wait_exit() == 255
    assert daemon.bodies("fatal")[-1] == LAST_LINE
    assert not daemon.root.exists(LOCK)
    errors = [plain(body) for body in daemon.bodies("error") if '"/var/lib/lxc/red"' not in body]
    assert errors[-2:] == [
        "[zone-manager] Failed to create zone monitor",
        "Exception occurred : Failed to initialize the ZoneManager object",
    ]
    # The teardown is whole, but a zone whose thread may still begin is let be.
    assert 'The remained count of Zone Object in ZoneContext "1"' in daemon.bodies("info")
    return errors[:-2]


@pytest.mark.parametrize(
    ("steering", "error"),
    [
        ("fifo_name_fails", "Failed to create the name of fifo path for state events - /var/lib/lxc / "),
        ("sock_name_fails", "Failed to create the socket name - /var/lib/lxc"),
        (
            "unix_open_fails",
            f"Failed to open the unix domain socket for monitor publisher - /var/lib/lxc / {SOCKET_NAME}",
        ),
    ],
)
def test_a_failing_liblxc_function_ends_the_start(fake, zone, daemon, root, steering, error):
    fake.set(steering)
    assert errors_of_failed_start(daemon) == [f"[zone-monitor] {error}"]
    assert not root.exists(FIFO)


def test_a_liblxc_that_lacks_a_function_ends_the_start(fake, zone, daemon, root):
    fake.install_incomplete()
    library = "/zone/config/liblxc.so.1"
    assert errors_of_failed_start(daemon) == [
        "[zone-monitor] Failed to get symbol of lxc_state2str - "
        f"{library}: undefined symbol: lxc_state2str"
    ]
    # What was opened is closed by the teardown.
    assert [plain(body) for body in daemon.bodies("info") if "Interface Handle" in body] == [
        "[] Monitor Interface Handle is initialized",
        f"[zone-monitor] Monitor Interface Handle is opened({library})",
        "[zone-monitor] Monitor Interface Handle is initialized",
        f"[zone-monitor] Monitor Interface Handle is closed({library})",
    ]
    assert not root.exists(FIFO)


def test_a_fifo_path_without_lxc_is_refused_and_removed(fake, zone, daemon, root):
    fake.set("fifo_name", "/run/elsewhere/fifo")
    assert errors_of_failed_start(daemon) == [
        "[zone-monitor] Can not find string(lxc) - /run/elsewhere/fifo(ref count : 1)"
    ]
    assert root.exists("/run/elsewhere")
    assert not root.exists("/run/elsewhere/fifo")


def test_a_fifo_whose_directory_cannot_be_labelled_is_refused_and_removed(fake, zone, daemon, root):
    fake.set("fifo_name", "/srv/my-lxc-files/fifo")
    root.mkdir("/srv/my-lxc")
    assert errors_of_failed_start(daemon) == [
        'Failed to get smack label of "/srv/my-lxc"("!") - "No data available"',
        "[zone-monitor] Failed to set container access label - "
        "/var/lib/lxc / /srv/my-lxc-files/fifo(ref count : 1)",
    ]
    assert not root.exists("/srv/my-lxc-files/fifo")


def test_a_fifo_that_cannot_be_made_ends_the_start(fake, zone, daemon):
    fake.set("fifo_name", "/proc/lxc-fifo")
    assert errors_of_failed_start(daemon) == [
        "[zone-monitor] Failed to create the node for monitor fifo - "
        "/var/lib/lxc / /proc/lxc-fifo(ref count : 1)"
    ]


def test_a_fifo_that_cannot_be_opened_ends_the_start(zone, daemon, root):
    root.mkdir(FIFO)
    assert errors_of_failed_start(daemon) == [
        f"[zone-monitor] Failed to open the monitor fifo - /var/lib/lxc / {FIFO}(ref count : 1)"
    ]


def test_a_fifo_that_another_process_has_locked_is_removed_by_the_letter(zone, daemon, root):
    root.mkdir(os.path.dirname(FIFO))
    os.mkfifo(root.path(FIFO), 0o600)
    with open(os.open(root.path(FIFO), os.O_RDWR), "wb", buffering=0) as owner:
        fcntl.lockf(owner, fcntl.LOCK_EX | fcntl.LOCK_NB)
        assert errors_of_failed_start(daemon) == [
            "[zone-monitor] Failed to set flock for monitor fifo - /var/lib/lxc / [N]"
        ]
    assert not root.exists(FIFO)


@pytest.mark.parametrize(
    ("address", "error"),
    [
        (
            publisher_address(),
            f"Failed to open the unix domain socket for monitor publisher - /var/lib/lxc / {SOCKET_NAME}",
        ),
        (init_pid_address(), "Failed to bind"),
    ],
    ids=["publisher", "init pid"],
)
def test_an_address_in_use_ends_the_start(zone, daemon, root, address, error):
    with root.socket() as owner:
        owner.bind(address)
        owner.listen()
        assert errors_of_failed_start(daemon) == [f"[zone-monitor] {error}"]
    assert not root.exists(FIFO)


def test_a_leftover_fifo_is_used_again_and_stays(zone, daemon, root):
    daemon.start(wait=READY)
    node = root.path(FIFO).stat()
    assert node.st_mode == 0o10600
    assert daemon.stop() == 0
    assert root.path(FIFO).stat().st_ino == node.st_ino
    mark = daemon.mark()
    daemon.start()
    daemon.wait_for(READY, after=mark)
    assert root.path(FIFO).stat().st_ino == node.st_ino
    send_states(root, "red", "STARTING")
    daemon.wait_for("The state of red is changed to STARTING", after=mark)


def test_the_fifo_is_locked_while_the_daemon_runs(zone, daemon, root):
    daemon.start(wait=READY)
    with open(os.open(root.path(FIFO), os.O_RDWR), "wb", buffering=0) as other:
        with pytest.raises(OSError, match="temporarily unavailable"):
            fcntl.lockf(other, fcntl.LOCK_EX | fcntl.LOCK_NB)
        daemon.stop()
        fcntl.lockf(other, fcntl.LOCK_EX | fcntl.LOCK_NB)


# Messages


def watch_message(daemon, *messages, until):
    """Sends messages and returns what the monitor's thread says of them, up to a text that ends a record."""
    mark = daemon.mark()
    send_messages(daemon.root, *messages)
    end = daemon.wait_for(re.compile(re.escape(until) + "$"), after=mark)
    records = daemon.records[mark:]
    own = [record for record in records[: records.index(end) + 1] if record.tid == end.tid]
    return [plain(str(record)) for record in own]


def silence(daemon, mark):
    """Fails unless the monitor has done with the messages before this one, and said nothing more of them."""
    send_messages(daemon.root, Message(PRIORITY, "end", 0))
    daemon.wait_for("priority message is received", after=mark)
    return daemon.bodies(after=mark)


def received(subscribers=0):
    return f"info: [zone-monitor] state change IO event is received[fd : N, count : {subscribers}]"


def test_a_priority_message_is_only_told(zone, daemon):
    daemon.start(wait=READY)
    assert watch_message(daemon, Message(PRIORITY, "red", 2), until="priority message is received") == [
        received(),
        "info: [zone-monitor] priority message is received",
    ]


@pytest.mark.parametrize(
    ("status", "code"), [(0x0100, 1), (0, 0), (9, 0), (0xFF00, 255), (0x12345, 0x23), (-1, 255)]
)
def test_an_exit_message_tells_the_second_byte_of_the_wait_status(zone, daemon, status, code):
    daemon.start(wait=READY)
    told = 'Restart flag is set of "red" to [0]'
    assert watch_message(daemon, Message(EXIT, "red", status), until=told) == [
        received(),
        f"info: [zone-monitor] exit message is received - red is exited with status code : {code}",
        f"info: {told}",
    ]


def test_an_exit_message_of_no_zone_is_told_twice(zone, daemon):
    daemon.start(wait=READY)
    mark = daemon.mark()
    send_messages(daemon.root, Message(EXIT, "nobody", 0))
    silence(daemon, mark)
    assert daemon.bodies("error", after=mark) == ["Can not find zone object (zone name : nobody)"] * 2
    assert daemon.count('There is no "nobody" object', after=mark) == 2


@pytest.mark.parametrize("kind", [3, -1, 2**31 - 1])
def test_a_message_of_an_unknown_type_is_an_error(zone, daemon, kind):
    daemon.start(wait=READY)
    assert watch_message(daemon, Message(kind, "red", 2), until="case error") == [
        received(),
        "error: [zone-monitor] case error",
    ]


@pytest.mark.parametrize("number", [8, -1, 4711])
def test_a_state_number_without_a_word_reaches_nobody(zone, bus, daemon, root, number):
    daemon.start(wait=READY)
    bus.wait_owned()
    listener = bus.listen()
    with Subscriber(root) as subscriber:
        daemon.wait_for("client connection is added to GIO Channel List")
        warning = f"Invalid zone state value - {number}"
        assert watch_message(daemon, Message(STATE, "red", number), until=warning) == [
            received(1),
            "info: [zone-monitor] The state of red is changed to (null)",
            f"warning: [zone-monitor] {warning}",
        ]
        send_states(root, "red", "FROZEN")
        assert subscriber.next() == Message.state("red", "FROZEN")
    listener.wait_for("red", "FROZEN")
    assert listener.signals == [("red", "FROZEN")]


def test_a_name_that_is_no_zone_reaches_everybody_but_a_zone(zone, bus, daemon, root):
    daemon.start(wait=READY)
    bus.wait_owned()
    listener = bus.listen()
    with Subscriber(root) as subscriber:
        daemon.wait_for("client connection is added to GIO Channel List")
        last = "State Change Event is notified to all subscribers - nobody => STOPPING"
        lines = watch_message(daemon, Message.state("nobody", "STOPPING"), until=last)
        assert subscriber.next() == Message.state("nobody", "STOPPING")
    assert [line for line in lines if "instance is" not in line and "ZoneStateChangedSignal" not in line] == [
        received(1),
        "info: [zone-monitor] The state of nobody is changed to STOPPING",
        'info: There is no "nobody" object',
        "error: Can not find zone object (zone name : nobody)",
        'warning: [zone-monitor] Failed to send zone event to "nobody : STOPPING"',
        "info: [zone-monitor] Request broadcasting signals for changing container state "
        "[zone name : nobody / STOPPING]",
        "info: Parameters - nobody / STOPPING",
        "info: Broadcasting Signals - nobody / STOPPING",
        "info: [zone-monitor] nobody => STOPPING message is notified to [fd : N, count : 1]",
        f"info: [zone-monitor] {last}",
    ]
    listener.wait_for("nobody", "STOPPING")


def test_a_name_that_fills_its_field_is_taken_whole(zone, bus, daemon, root):
    daemon.start(wait=READY)
    bus.wait_owned()
    listener = bus.listen()
    name = "x" * 256
    send_states(root, name, "FREEZING")
    daemon.wait_for(re.compile(f"The state of {name} is changed to FREEZING$"))
    listener.wait_for(name, "FREEZING")
    mark = daemon.mark()
    send_messages(root, Message(EXIT, name, 0x0200))
    daemon.wait_for(f"- {name} is exited with status code : 2", after=mark)
    assert daemon.stop() == 0


def test_a_name_that_is_no_text_does_no_harm(zone, bus, daemon, root):
    daemon.start(wait=READY)
    bus.wait_owned()
    mark = daemon.mark()
    message = bytearray(Message.state("red", "FREEZING").pack())
    message[4:7] = b"\xff\xfe\x80"
    send_messages(root, bytes(message))
    silence(daemon, mark)
    assert daemon.running
    mark = daemon.mark()
    send_states(root, "red", "FREEZING")
    daemon.wait_for("ZONE CHANGE STATE[6]", after=mark)


@pytest.mark.parametrize("length", [1, Message.SIZE - 1])
def test_a_short_read_ends_the_relay_and_nothing_else(zone, bus, daemon, root, length):
    daemon.start(wait=READY)
    bus.wait_owned()
    error = "Failed to read state messages from container"
    part = Message(PRIORITY, "red", 0).pack()[:length]
    assert watch_message(daemon, part, until=error) == [received(), f"error: [zone-monitor] {error}"]
    mark = daemon.mark()
    send_states(root, "red", "STARTING", "RUNNING")
    daemon.never("state change IO event is received", 1.0, after=mark)
    # Requests are still carried out, and so are the monitor's other duties.
    assert bus.call("ZoneStart", "red") is True
    daemon.wait_for("red is started successfully", after=mark)
    with Subscriber(root):
        daemon.wait_for("client connection is added to GIO Channel List", after=mark)
    assert daemon.stop() == 0


def test_a_stop_without_the_restart_flag_still_says_that_a_restart_is_sent(zone, daemon):
    daemon.start(wait=READY)
    mark = daemon.mark()
    lines = watch_message(
        daemon, Message.state("red", "STOPPED"), until="Restart event for red is sent to Zone Manager"
    )
    assert lines[-1] == "info: [zone-monitor] Restart event for red is sent to Zone Manager"
    silence(daemon, mark)
    assert daemon.find(re.compile(r"zone event\(\d\) is sent to Zone Manager"), after=mark) is None


def test_a_stop_of_no_zone_says_so_too(zone, daemon):
    daemon.start(wait=READY)
    lines = watch_message(
        daemon, Message.state("nobody", "STOPPED"), until="Restart event for nobody is sent to Zone Manager"
    )
    assert lines.count("error: Can not find zone object (zone name : nobody)") == 2


def test_any_running_container_sets_off_a_check_of_the_automatic_start(zone, daemon):
    daemon.start(wait=READY)
    mark = daemon.mark()
    lines = watch_message(
        daemon, Message.state("stranger", "RUNNING"), until="Check Auto Start event is sent to Zone Manager"
    )
    assert lines[-2:] == [
        "info: [zone-manager] zone event(8) is sent to Zone Manager",
        "info: [zone-monitor] Check Auto Start event is sent to Zone Manager",
    ]
    daemon.wait_order(
        "receive the event - CHECK AUTO START ZONE(thread name : zone-manager",
        'Checking auto start zone for "red" - 0 / 0 / NONE',
        "Requested to check auto start zone(thread name : zone-manager",
        after=mark,
    )


EXPRESSION = "stateToEnumMap.find(state) != stateToEnumMap.end()"
FUNCTION = re.compile(
    r"ZoneCore::ZoneState ZoneCore::ZoneContainerState::stateToEnum\(const (std::)?string&\)"
)


@pytest.mark.parametrize("word", ["BROKEN", "running", "INVALID STATE"])
def test_a_word_that_liblxc_does_not_know_ends_the_daemon(fake, zone, daemon, root, word):
    fake.set("state2str/2", word)
    daemon.start(wait=READY)
    send_states(root, "red", "RUNNING")
    assert daemon.wait_exit() == -signal.SIGABRT
    assert daemon.bodies()[-1] == "ZoneContainerState instance is created"
    assert any(EXPRESSION in line and FUNCTION.search(line) for line in daemon.strays), daemon.strays


def test_so_does_an_unknown_word_of_a_container_that_is_asked(fake, zone, bus, daemon):
    fake.put("red", "state", "ASLEEP")
    daemon.start(wait=READY)
    bus.wait_owned()
    with pytest.raises(Exception, match=r"."):
        bus.call("ZoneGetState", "red")
    assert daemon.wait_exit() == -signal.SIGABRT
    assert daemon.find('The state of zone is received - "ASLEEP"').level == "info"
    assert any(EXPRESSION in line for line in daemon.strays)
