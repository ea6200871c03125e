"""SIGTERM at any moment: exit status 0, promptly, whatever the threads are in the middle of."""

import random
import threading
import time

import pytest
from zonetest import READY, eventually, init_pid_address, send_states

SEED = 20261121
ROUNDS = 20  # in each of the ten tests below: 200 moments in all
LONGEST = 4.0  # seconds after the loop is known to run: beyond the first poll timeouts of every thread
PROMPT = 10.0  # seconds; generous for a loaded machine, far below any launcher's sleep

STORIES = [("STARTING", "RUNNING"), ("STOPPED",), ("FROZEN",)]
LAST_LINE = "ZoneManager is terminated..."


def define_zones(fake):
    fake.define("alpha", "hybrid", auto=True)
    fake.define("beta", "isolation", auto=True)
    fake.define("gamma", "protection")


class Traffic:
    """Writes state changes and deaths of a zone into the monitor FIFO until it is stopped."""

    def __init__(self, root, seed):
        self.root = root
        self.random = random.Random(seed)
        self.stopping = threading.Event()
        self.thread = threading.Thread(target=self._run, daemon=True)

    def _run(self):
        while not self.stopping.wait(self.random.uniform(0.001, 0.02)):
            name = self.random.choice(["alpha", "beta", "nobody"])
            try:
                send_states(self.root, name, *self.random.choice(STORIES))
            except (OSError, AssertionError):
                continue  # no reader between two daemons

    def __enter__(self):
        self.thread.start()
        return self

    def __exit__(self, *_):
        self.stopping.set()
        self.thread.join(10)


def start_until_loop_runs(daemon):
    """The main loop runs when it has dispatched its first timer."""
    mark = daemon.mark()
    daemon.start()
    daemon.wait_for(READY, timeout=30, after=mark)
    return mark


def terminate_at_random_moments(daemon, seed, rounds, longest=LONGEST):
    moments = random.Random(seed)
    for number in range(rounds):
        mark = start_until_loop_runs(daemon)
        moment = moments.uniform(0, longest)
        time.sleep(moment)  # the moment itself is what is tested
        daemon.signal()
        status = daemon.wait_exit(PROMPT)
        assert status == 0, f"seed {seed}, round {number}, {moment:.4f} s: status {status}"
        assert daemon.bodies("fatal", after=mark)[-1] == LAST_LINE
        assert not daemon.root.exists("/var/run/lxc/lock/zone-manager.lock")
        assert daemon.sanitizer_report() == ""


@pytest.mark.timeout(900)
@pytest.mark.parametrize("worker", range(3))
def test_during_the_automatic_start(fake, daemon, worker):
    define_zones(fake)
    terminate_at_random_moments(daemon, SEED + worker, ROUNDS)


@pytest.mark.timeout(900)
@pytest.mark.parametrize("worker", range(3))
def test_while_messages_are_relayed(fake, bus, daemon, root, worker):
    define_zones(fake)
    with Traffic(root, SEED + worker):
        terminate_at_random_moments(daemon, SEED + 10 + worker, ROUNDS, longest=1.5)


@pytest.mark.timeout(900)
@pytest.mark.parametrize("worker", range(2))
def test_during_restarts(fake, daemon, worker):
    define_zones(fake)
    fake.script("start", "state STARTING", "exit 1")  # every start fails and is asked for again
    terminate_at_random_moments(daemon, SEED + 20 + worker, ROUNDS)


@pytest.mark.timeout(900)
@pytest.mark.parametrize("worker", range(2))
def test_while_a_launcher_takes_minutes(fake, daemon, worker):
    define_zones(fake)
    fake.script("start", "sleep 300000")
    terminate_at_random_moments(daemon, SEED + 30 + worker, ROUNDS, longest=1.5)


def test_the_zone_whose_launcher_takes_minutes_holds_nobody_up(fake, daemon):
    define_zones(fake)
    fake.script("start", "sleep 300000")
    mark = start_until_loop_runs(daemon)
    eventually(fake.launches, 20, "a launcher")
    daemon.signal()
    assert daemon.wait_exit(PROMPT) == 0
    bodies = daemon.bodies(after=mark)
    # The others go as ever; what its thread may still touch stays.
    assert any(body.startswith("Zone object is destroyed(zone name : beta)") for body in bodies)
    assert any(body.startswith("Zone object is destroyed(zone name : gamma)") for body in bodies)
    assert not any("Zone object is destroyed(zone name : alpha)" in body for body in bodies)
    assert 'The count of Zone Object is "1"' in bodies
    assert daemon.bodies("fatal")[-1] == LAST_LINE


def test_a_silent_client_in_the_middle_of_a_query_holds_nobody_up(fake, daemon, root):
    define_zones(fake)
    start_until_loop_runs(daemon)
    with root.socket() as silent:
        silent.connect(init_pid_address())
        daemon.wait_for("is connected[listen socket", timeout=20)
        daemon.signal()
        assert daemon.wait_exit(PROMPT) == 0
    assert daemon.bodies("fatal")[-1] == LAST_LINE


def test_the_order_of_an_ordinary_end(fake, bus, daemon):
    fake.define("alpha", "hybrid")
    fake.define("beta", "isolation")
    mark = start_until_loop_runs(daemon)
    bus.wait_owned()
    daemon.signal()
    assert daemon.wait_exit(PROMPT) == 0
    main_thread = daemon.records[mark].tid
    records = daemon.records[mark:]
    first = next(index for index, record in enumerate(records) if 'received "Terminated"' in record.body)
    assert records[first].body == '[Main Thread] received "Terminated" signal : 15'
    assert records[first].level == "fatal"
    lines = [record.body for record in records[first + 1 :] if record.tid == main_thread]
    tid = main_thread

    def quit_loops(verb):
        terminated = []
        for name in ("alpha", "beta"):
            terminated += [
                f"Thread is {verb}(thread name : {name}, thread id : {tid})",
                f"The mainloop of thread is terminated (thread name : {name})",
            ]
        return terminated + [
            f"Thread is {verb}(thread name : zone-monitor, thread id : {tid})",
            f"Thread is {verb}(thread name : zone-manager, thread id : {tid})",
            f"[zone-manager:{tid}] The mainloop of thread zone-manager is terminated",
        ]

    def released(name):
        return f"release the event source from the main context(thread name : {name}, thread id : {tid})"

    def destroyed_zone(kind, number, name):
        return [
            f"{kind} zone is destroyed...[type : {number}, thread name : {name}, thread id : {tid}]",
            "thread count of container...[1]",
            "Container object is destroyed...",
            f"Zone object is destroyed(zone name : {name})",
            released(name),
            released(name),
            f"Thread is destroyed(thread name : {name}, thread id : {tid})",
        ]

    fifo = next(line for line in lines if "State GIO Channels are destroyed" in line)
    numbers = [line for line in lines if "GIO Channel is destroyed[fd" in line]
    assert len(numbers) == 3
    expected = [
        *quit_loops("terminated"),
        *quit_loops("not running"),
        f"destroy the async event queue(thread name : zone-manager, thread id : {tid})",
        "zone group controller instance is destroyed",
        f"[zone-monitor:{tid}] Remove all client connections[count : 0]",
        f"[zone-monitor:{tid}] All client connections are removed",
        fifo,
        *numbers,
        f"[zone-monitor:{tid}] Monitor Interface Handle is initialized",
        f"[zone-monitor:{tid}] Monitor Interface Handle is closed(/zone/config/liblxc.so.1)",
        f"[tid : {tid}] zone monitor instance is destroyed",
        released("zone-monitor"),
        f"Thread is destroyed(thread name : zone-monitor, thread id : {tid})",
        'The remained count of Zone Object in ZoneContext "2"',
        *destroyed_zone("HybridZone", 2, "alpha"),
        *destroyed_zone("IsolateZone", 1, "beta"),
        'The count of Zone Object is "0"',
        "ZoneContext object is destroyed",
        "zone manager instance is destroyed",
        released("zone-manager"),
        released("zone-manager"),
        f"Thread is destroyed(thread name : zone-manager, thread id : {tid})",
        "Release zone manager lock - /var/run/lxc/lock/zone-manager.lock",
        LAST_LINE,
    ]
    # How the container's threads are counted is liblxc's business.
    count = "thread count of container...[1]"
    lines = [count if "thread count of container" in line else line for line in lines]
    assert lines == expected


def test_the_order_of_the_end_of_a_start_without_a_zone(fake, daemon):
    daemon.start()
    assert daemon.wait_exit(PROMPT) == 255
    tid = daemon.records[0].tid
    lines = [str(record) for record in daemon.records]
    failed = "error: Exception occurred : Failed to initialize the ZoneManager object"
    at = f"(thread name : zone-manager, thread id : {tid})"
    assert lines[lines.index(failed) + 1 :] == [
        f"info: Thread is not running{at}",
        f"info: [zone-manager:{tid}] The mainloop of thread zone-manager is terminated",
        'info: The remained count of Zone Object in ZoneContext "0"',
        'info: The count of Zone Object is "0"',
        "info: ZoneContext object is destroyed",
        "info: zone manager instance is destroyed",
        f"info: release the event source from the main context{at}",
        f"info: Thread is destroyed{at}",
        "info: Release zone manager lock - /var/run/lxc/lock/zone-manager.lock",
        f"fatal: {LAST_LINE}",
    ]
    assert not daemon.root.exists("/var/run/lxc/lock/zone-manager.lock")


def test_containers_without_a_zone_are_told_and_hold_nobody_up(fake, daemon):
    fake.define("alpha", "hybrid")
    fake.define("beta", "hybrid", type="9")
    fake.define("gamma", "hybrid", type="9")
    # The check never ends, but it tells that the loop runs.
    daemon.start(wait="Zone Threads are not initialized yet")
    daemon.signal()
    assert daemon.wait_exit(PROMPT) == 0
    main = daemon.records[0].tid
    lines = [str(record) for record in daemon.records if record.tid == main]
    first = lines.index('fatal: [Main Thread] received "Terminated" signal : 15') + 1
    missing = "error: Can not get a zone object"
    for verb in ("terminated", "not running"):
        assert lines[first : first + 5] == [
            f"info: Thread is {verb}(thread name : alpha, thread id : {main})",
            "info: The mainloop of thread is terminated (thread name : alpha)",
            missing,
            missing,
            f"info: Thread is {verb}(thread name : zone-monitor, thread id : {main})",
        ]
        first += 7  # the manager's own two lines
    assert lines.count(missing) == 4


def test_a_second_signal_during_the_teardown_does_no_harm(fake, daemon):
    define_zones(fake)
    for _ in range(10):
        mark = start_until_loop_runs(daemon)
        daemon.signal()
        while daemon.running:
            try:
                daemon.signal()
            except (OSError, AssertionError):
                break
        assert daemon.wait_exit(PROMPT) == 0
        assert daemon.bodies("fatal", after=mark)[-1] == LAST_LINE


def test_before_the_main_loop_runs_it_is_told_and_nothing_ends(fake, daemon):
    # The set-up of the monitor is held up long enough for the signal to come first.
    define_zones(fake)
    fake.set("delays/lxc_monitor_fifo_name", "1500")
    mark = daemon.mark()
    daemon.start()
    daemon.wait_for("Monitor Interface Symbols are set", after=mark)
    daemon.signal()
    daemon.wait_for('received "Terminated" signal : 15', timeout=20, after=mark)
    daemon.wait_for("Thread is not running(thread name : zone-manager", timeout=20, after=mark)
    # The zones' loops ran already and have been quit, so the start-up check goes on for ever.
    daemon.wait_for("Zone Threads are not initialized yet(thread name : zone-manager", timeout=20, after=mark)
    assert daemon.running
    daemon.signal()
    assert daemon.wait_exit(PROMPT) == 0
