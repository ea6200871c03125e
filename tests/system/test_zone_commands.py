"""Requests as a zone's own thread carries them out, the restarts, and the watcher of the init process."""

import re

import pytest
from zonetest import EXIT, READY, Message, eventually, send_messages, send_states

RESTART_SENT = "zone event(7) is sent to Zone Manager"


def start(daemon, bus):
    daemon.start(wait=READY)
    bus.wait_owned()
    return daemon


def on_thread(daemon, text, name="red"):
    """The record's text with the end that a zone's thread gives it."""
    end = re.escape(f"(thread name : {name}, ")
    return re.compile(re.escape(text) + end + r"(tid|thread id) : \d+\)$")


def carry_out(daemon, bus, method, received, until=None, name="red"):
    """Requests something; returns what the zone's thread says of it, from the receipt to a text, or to the
    next request's receipt when it says nothing."""
    mark = daemon.mark()
    assert bus.call(method, name) is True
    first = daemon.wait_for(on_thread(daemon, f"receive the event - {received}", name), after=mark)
    if until is None:
        assert bus.attach(name) is True
        last = daemon.wait_for(on_thread(daemon, "receive the event - ZONE ATTACH", name), after=mark)
    else:
        last = daemon.wait_for(on_thread(daemon, until, name), after=mark)
    records = daemon.records[mark:]
    begin, end = records.index(first), records.index(last) + (until is not None)
    own = [record for record in records[begin:end] if record.tid == first.tid]
    return [str(record) for record in own if "GSource" not in record.body and "Dispatch" not in record.body]


def said(*lines, tid, name="red"):
    return [f"{line}(thread name : {name}, tid : {tid})" for line in lines]


def tid_of(lines):
    return re.search(r"tid : (\d+)", lines[0])[1]


# Start


def test_zones_come_up_strictly_one_after_another(fake, daemon):
    for name in ("alpha", "beta", "gamma"):
        fake.define(name, "hybrid", auto=True)
        running = ("set init_pid PID", "set running 1", "state RUNNING")
        fake.script("start", f"wait go-{name}", *running, name=name)
    daemon.start(wait=READY)
    launched = []
    for name in ("alpha", "beta", "gamma"):
        launched.append(name)
        eventually(lambda: len(fake.launches()) == len(launched), 15, f"the launch of {name}")
        mark = daemon.mark()
        # Long enough for all threads to look at their queues again; nobody may ask for the next one.
        daemon.never("zone event(1) is sent", 1.0, after=mark)
        assert [launch["argv"][2] for launch in fake.launches()] == launched
        fake.set(f"go-{name}")
        daemon.wait_for(f"The state of {name} is changed to RUNNING", after=mark)
    daemon.wait_for('Checking auto start zone for "gamma" - 1 / 1', timeout=15)
    assert [body for body in daemon.bodies("info") if body.startswith("zone event(1) is sent")] == [
        f"zone event(1) is sent (zone name : {name})" for name in launched
    ]


def test_a_start_is_told_and_reported(fake, bus, daemon):
    fake.define("red")
    start(daemon, bus)
    lines = carry_out(daemon, bus, "ZoneStart", "ZONE START", "red is started successfully")
    tid = tid_of(lines)
    assert lines == said(
        "info: receive the event - ZONE START", "info: red is started successfully", tid=tid
    )
    pid = fake.launches()[0]["pid"]
    daemon.wait_order(
        f"receive the event - ZONE CHANGE STATE[2] (thread name : red, tid : {tid})",
        f"receive the event - ZONE CHANGE STATE[3] (thread name : red, tid : {tid})",
        f"Now, red is running(thread name : red, tid : {tid})",
        f"The init pid({pid}) of zone(red) is set(thread name : red, tid : {tid})",
        f"Zone Watcher Is registered[interval : 15000](thread name : red, tid : {tid})",
        f"Starting zone watcher timer for checking zone alive(thread name : red, tid : {tid})",
        timeout=20,
    )
    assert daemon.find("Now, red is running").level == "fatal"


def test_a_running_zone_is_not_started_again(fake, bus, daemon, root):
    fake.define("red")
    start(daemon, bus)
    send_states(root, "red", "RUNNING")
    daemon.wait_for("Failed to get initpid of red", timeout=15)
    lines = carry_out(daemon, bus, "ZoneStart", "ZONE START")
    assert lines == said(
        "info: receive the event - ZONE START", "warning: red is already running", tid=tid_of(lines)
    )
    assert fake.launches() == []


def test_a_frozen_zone_is_started_again(fake, bus, daemon, root):
    fake.define("red")
    start(daemon, bus)
    send_states(root, "red", "RUNNING", "FROZEN")
    daemon.wait_for("ZONE CHANGE STATE[7]", timeout=20)
    carry_out(daemon, bus, "ZoneStart", "ZONE START", "red is started successfully")
    assert len(fake.launches()) == 1


def test_a_failed_start_on_request_is_left_at_that(fake, bus, daemon):
    fake.define("red")
    fake.script("start", "exit 1")
    start(daemon, bus)
    lines = carry_out(daemon, bus, "ZoneStart", "ZONE START")
    assert lines == said(
        "info: receive the event - ZONE START", "fatal: Failed to start red", tid=tid_of(lines)
    )
    assert daemon.find(RESTART_SENT) is None
    assert len(fake.launches()) == 1


def test_a_failed_automatic_start_is_tried_again_once_for_each_failure(fake, daemon):
    fake.define("red", auto=True)
    fake.script("start", "exit 1")
    daemon.start(wait=READY)
    first = daemon.wait_for("Failed to start red", timeout=15)
    assert first.level == "fatal"
    main = daemon.inner_pid
    daemon.wait_order(
        RESTART_SENT,
        f"receive the event - ZONE RESTART(thread name : zone-manager, tid : {main})",
        f"Restart event for red is sent(thread name : zone-manager, tid : {main})",
        "receive the event - ZONE START",
        "Failed to start red",
        after=daemon.records.index(first),
        timeout=20,
    )
    fake.unset("launcher/start")
    daemon.wait_for("red is started successfully", timeout=25)
    assert daemon.count(RESTART_SENT) == daemon.count("Failed to start red") >= 2
    assert daemon.count("ZONE RESTART(") == daemon.count("Restart event for red is sent(")
    assert daemon.bodies("error").count("Failed to start red") == 0


# Stop


def test_a_stopped_zone_stays_stopped(fake, bus, daemon):
    fake.define("red")
    start(daemon, bus)
    carry_out(daemon, bus, "ZoneStart", "ZONE START", "red is started successfully")
    daemon.wait_for("Zone Watcher Is registered", timeout=20)
    mark = daemon.mark()
    lines = carry_out(daemon, bus, "ZoneStop", "ZONE STOP", "red is stopped successfully")
    tid = tid_of(lines)
    assert lines == said("info: receive the event - ZONE STOP", "info: red is stopped successfully", tid=tid)
    daemon.wait_order(
        "exit message is received - red is exited with status code : 0",
        'Restart flag is set of "red" to [0]',
        "The state of red is changed to STOPPED",
        "Restart event for red is sent to Zone Manager",
        f"receive the event - ZONE CHANGE STATE[1] (thread name : red, tid : {tid})",
        f"Zone Watcher Is removed(thread name : red, tid : {tid})",
        f"Removing zone watcher timer from zone thread context(thread name : red, tid : {tid})",
        after=mark,
        timeout=20,
    )
    assert daemon.find(RESTART_SENT) is None
    assert [launch["argv"][1:] for launch in fake.launches()] == [["start", "red"], ["stop", "red"]]


@pytest.mark.parametrize(
    ("file", "told"), [("may_control", "is not controlled"), ("running", "is not running")]
)
def test_a_stop_of_a_zone_that_cannot_be_stopped_is_dropped(fake, bus, daemon, file, told):
    fake.define("red", state="RUNNING", **{file: 0})
    start(daemon, bus)
    lines = carry_out(daemon, bus, "ZoneStop", "ZONE STOP", f"red {told}")
    assert lines == said("info: receive the event - ZONE STOP", f"info: red {told}", tid=tid_of(lines))
    assert fake.launches() == []


def test_a_failed_stop_is_an_error_and_forgets_the_operation(fake, bus, daemon, root):
    fake.define("red")
    fake.script("stop", "exit 0")
    start(daemon, bus)
    carry_out(daemon, bus, "ZoneStart", "ZONE START", "red is started successfully")
    lines = carry_out(daemon, bus, "ZoneStop", "ZONE STOP", "Failed to stop red")
    assert lines == said(
        "info: receive the event - ZONE STOP", "error: Failed to stop red", tid=tid_of(lines)
    )
    # A zone whose last operation is none is not restarted.
    send_messages(root, Message(EXIT, "red", 0))
    daemon.wait_for('Restart flag is set of "red" to [0]')


# Unfreeze and attach


def test_a_frozen_zone_is_unfrozen(fake, bus, daemon, root):
    fake.define("red", state="FROZEN")
    start(daemon, bus)
    lines = carry_out(daemon, bus, "ZoneUnfreeze", "ZONE UNFREEZE", "red is unfreezed successfully")
    assert [line for line in lines if "ZoneContainerState" not in line] == [
        *said("info: receive the event - ZONE UNFREEZE", tid=tid_of(lines)),
        'info: The state of zone is received - "FROZEN"',
        *said("info: red is unfreezed successfully", tid=tid_of(lines)),
    ]
    assert len(fake.calls("unfreeze")) == 1
    # An unfrozen zone is one that was meant to run.
    send_messages(root, Message(EXIT, "red", 9))
    daemon.wait_for('Restart flag is set of "red" to [1]')


@pytest.mark.parametrize("state", ["FREEZING", "RUNNING", "STOPPED", "THAWED", None])
def test_only_a_frozen_zone_is_unfrozen(fake, bus, daemon, state):
    fake.define("red", **({"state": state} if state else {"state_null": ""}))
    start(daemon, bus)
    lines = carry_out(daemon, bus, "ZoneUnfreeze", "ZONE UNFREEZE")
    asked = (
        f'info: The state of zone is received - "{state}"'
        if state
        else "warning: Failed to get state info of zone"
    )
    assert [line for line in lines[1:] if "ZoneContainerState" not in line] == [asked]
    assert fake.calls("unfreeze") == []


def test_a_zone_out_of_control_is_not_unfrozen(fake, bus, daemon):
    fake.define("red", state="FROZEN", may_control=0)
    start(daemon, bus)
    lines = carry_out(daemon, bus, "ZoneUnfreeze", "ZONE UNFREEZE", "red is not controlled")
    assert len(lines) == 2
    assert lines[1].startswith("info: ")
    assert fake.calls("state") == fake.calls("unfreeze") == []


def test_a_failed_unfreeze_is_an_error(fake, bus, daemon, root):
    fake.define("red", state="FROZEN", unfreeze_fails="")
    start(daemon, bus)
    lines = carry_out(daemon, bus, "ZoneUnfreeze", "ZONE UNFREEZE", "Failed to unfreeze red")
    assert lines[-1].startswith("error: ")
    send_messages(root, Message(EXIT, "red", 9))
    daemon.wait_for('Restart flag is set of "red" to [0]')


@pytest.mark.parametrize("running", [0, 1])
def test_an_attach_only_looks_whether_the_zone_runs(fake, bus, daemon, running):
    fake.define("red", running=running)
    start(daemon, bus)
    assert bus.attach("red", ["/bin/true"]) is True
    daemon.wait_for(on_thread(daemon, "receive the event - ZONE ATTACH"))
    # The request after it shows that it is done with.
    outcome = "red is stopped successfully" if running else "red is not running"
    carry_out(daemon, bus, "ZoneStop", "ZONE STOP", outcome)
    assert daemon.bodies("error").count("Failed to unfreeze zone : red") == (0 if running else 1)
    assert len(fake.launches()) == running


# State and watcher


def test_a_null_state_counts_as_none(fake, bus, daemon):
    fake.define("red", state_null="")
    start(daemon, bus)
    assert bus.call("ZoneGetState", "red") == 0
    assert daemon.find("Failed to get state info of zone").level == "warning"


def test_a_zone_without_an_init_process_gets_no_watcher(fake, daemon, root):
    fake.define("red", state="RUNNING")
    daemon.start(wait=READY)
    send_states(root, "red", "RUNNING", "STARTING")
    error = daemon.wait_for(on_thread(daemon, "Failed to get initpid of red"), timeout=15)
    assert error.level == "error"
    daemon.wait_for("ZONE CHANGE STATE[2]", timeout=15)
    assert daemon.find("Zone Watcher Is") is None


def test_a_zone_has_one_watcher_at_a_time(fake, daemon, root):
    fake.define("red", state="RUNNING", init_pid=77)
    daemon.start(wait=READY)
    send_states(root, "red", "RUNNING", "RUNNING", "STOPPED", "STOPPED", "RUNNING")
    eventually(lambda: daemon.count("Starting zone watcher timer") == 3, 40, "three watchers")
    tid = daemon.find("Release previous").tid
    own = [record.body.partition("(thread")[0] for record in daemon.records if record.tid == tid]
    told = [body for body in own if re.search("[Ww]atcher|init pid", body)]
    set_up = [
        "The init pid(77) of zone(red) is set",
        "Zone Watcher Is registered[interval : 15000]",
        "Starting zone watcher timer for checking zone alive",
    ]
    # The line about the removal comes whether or not there was a watcher.
    removal = ["Zone Watcher Is removed", "Removing zone watcher timer from zone thread context"]
    again = [set_up[0], "Release previous watcher timer source", *set_up[1:]]
    assert told == [*set_up, *again, *removal, *removal, *set_up]
    assert daemon.find(
        f"Release previous watcher timer source(thread name : red, thread id : {tid}, interval : 15000)"
    )


def test_a_watcher_that_is_due_during_a_stop_does_not_undo_it(fake, bus, daemon, root):
    fake.define("red")
    fake.define("blue", state="RUNNING", init_pid=77)
    fake.script("stop", "wait stop-may-end", "set running 0", "set init_pid -1", name="red")
    start(daemon, bus)
    carry_out(daemon, bus, "ZoneStart", "ZONE START", "red is started successfully")
    daemon.wait_for(on_thread(daemon, "Zone Watcher Is registered[interval : 15000]"), timeout=20)
    # Blue's watcher is set up after red's: when it is heard of, red's is due as well.
    send_states(root, "blue", "RUNNING")
    daemon.wait_for("The init pid(77) of zone(blue) is set", timeout=20)
    fake.put("blue", "init_pid", 78)
    assert bus.call("ZoneStop", "red") is True
    eventually(lambda: len(fake.launches()) == 2, 20, "the stop to begin")
    daemon.wait_for("Restarting blue(", timeout=20)
    fake.set("stop-may-end")
    daemon.wait_for(on_thread(daemon, "red is stopped successfully"), timeout=20)
    mark = daemon.mark()
    send_states(root, "red", "STOPPED")
    daemon.wait_for(on_thread(daemon, "Zone Watcher Is removed"), timeout=20, after=mark)
    assert daemon.find("Restarting red(") is None
    assert [launch["argv"][1:] for launch in fake.launches() if launch["argv"][2] == "red"] == [
        ["start", "red"], ["stop", "red"]]


def test_the_watcher_starts_a_zone_again_whose_init_process_is_another_or_gone(fake, daemon, root):
    for name in ("changed", "failing", "gone", "same"):
        fake.define(name, state="RUNNING", init_pid=77)
    fake.script("start", "set running 0", "exit 1", name="failing")
    fake.script("start", "set init_pid 79", "set running 1", name="changed")
    fake.script("start", "set running 1", name="gone")
    daemon.start(wait=READY)
    for name in ("changed", "failing", "gone", "same"):
        send_states(root, name, "RUNNING")
        daemon.wait_for(f"The init pid(77) of zone({name}) is set", timeout=20)
    fake.put("changed", "init_pid", 78)
    fake.put("failing", "init_pid", -1)
    fake.put("gone", "may_control", 0)
    for name, current, level, outcome in (
        ("changed", 78, "info", "changed is re-started successfully"),
        ("failing", -1, "error", "Failed to re-start failing"),
        ("gone", -1, "info", "gone is re-started successfully"),
    ):
        warning = daemon.wait_for(f"Restarting {name}(", timeout=20)
        end = f"thread name : {name}, tid : {warning.tid})"
        assert str(warning) == f"warning: Restarting {name}(current zone pid : {current}, {end}"
        assert str(daemon.wait_for(outcome)) == f"{level}: {outcome}({end}"
    # Only what the watcher starts counts as started: the death of the one that failed is nobody's business.
    send_messages(root, Message(EXIT, "changed", 9), Message(EXIT, "failing", 9))
    daemon.wait_for('Restart flag is set of "changed" to [1]')
    daemon.wait_for('Restart flag is set of "failing" to [0]')
    assert daemon.find("Restarting same") is None
    # The timer goes on: a failed start is tried again, and a zone that is still out of control, too.
    eventually(lambda: daemon.count("Failed to re-start failing") == 2, 20, "the second attempt")
    assert sorted({launch["argv"][2] for launch in fake.launches()}) == ["changed", "failing", "gone"]
    assert daemon.find("Restarting same") is None


# Restart after a death


@pytest.mark.parametrize("status", [9, 0])
def test_a_zone_that_dies_while_it_should_run_is_started_again(fake, bus, daemon, root, status):
    fake.define("red")
    start(daemon, bus)
    carry_out(daemon, bus, "ZoneStart", "ZONE START", "red is started successfully")
    daemon.wait_for("Now, red is running", timeout=20)
    mark = daemon.mark()
    fake.put("red", "running", 0)
    fake.put("red", "state", "STOPPED")
    send_messages(root, Message(EXIT, "red", status), Message.state("red", "STOPPED"))
    main = daemon.inner_pid
    daemon.wait_order(
        'Restart flag is set of "red" to [1]',
        "The state of red is changed to STOPPED",
        RESTART_SENT,
        "Restart event for red is sent to Zone Manager",
        f"receive the event - ZONE RESTART(thread name : zone-manager, tid : {main})",
        f"Restart event for red is sent(thread name : zone-manager, tid : {main})",
        "receive the event - ZONE START",
        "red is started successfully",
        "Now, red is running",
        after=mark,
        timeout=20,
    )
    # The start cleared the flag: another end without an exit message is let be.
    mark = daemon.mark()
    send_states(root, "red", "STOPPED")
    daemon.wait_for("Restart event for red is sent to Zone Manager", after=mark)
    assert daemon.find(RESTART_SENT, after=mark) is None


def test_a_zone_that_nobody_started_is_not_started_again(fake, daemon, root):
    fake.define("red", state="RUNNING", init_pid=77)
    daemon.start(wait=READY)
    send_states(root, "red", "RUNNING")
    send_messages(root, Message(EXIT, "red", 9))
    send_states(root, "red", "STOPPED")
    daemon.wait_order('Restart flag is set of "red" to [0]', "Restart event for red is sent to Zone Manager")
    assert daemon.find(RESTART_SENT) is None
