"""zonectl's commands about zones on a bus with a mock of the zone manager: answers, requests, waiting."""

import json
import os
import pty
import re
import subprocess

import bus_fixtures
import pytest

KNOWN = "brief, guard, icy, media, nav, stuck, weak"


def complains(result, status, text):
    """Whether the program ended with that status and one line for the user that holds the text."""
    return (result.returncode == status and result.stderr.count("\n") == 1 and text in result.stderr
            and result.stderr.startswith("zonectl: "))


def report_of(result):
    """The one zone of a JSON report."""
    (zone,) = json.loads(result.stdout)
    return zone


def test_list(zonectl):
    result = zonectl("list")
    assert (result.returncode, result.stderr) == (0, "")
    rows = [line.split() for line in result.stdout.splitlines()]
    assert rows == [["NAME", "KIND", "STATE", "INIT", "PID", "AUTO"],
                    ["brief", "-", "STOPPED", "-", "-"],
                    ["guard", "-", "protected/refused", "-", "-"],
                    ["icy", "-", "FROZEN", "-", "-"],
                    ["media", "-", "RUNNING", "4242", "-"],
                    ["nav", "-", "STOPPED", "-", "-"],
                    ["stuck", "-", "STOPPED", "-", "-"],
                    ["weak", "-", "STOPPED", "-", "-"]]


def test_list_as_json(zonectl):
    zones = {zone["name"]: zone for zone in json.loads(zonectl("--json", "list").stdout)}
    assert list(zones) == KNOWN.split(", ")
    assert zones["media"] == {"name": "media", "kind": None, "access": "granted", "state": "RUNNING",
                              "init_pid": 4242, "automatic": None, "source": "daemon", "note": None}
    assert zones["guard"] == {"name": "guard", "kind": None, "access": "protected/refused", "state": None,
                              "init_pid": None, "automatic": None, "source": "daemon", "note": None}


def test_status_shows_those_that_are_named(zonectl):
    assert zonectl("status").stdout == zonectl("list").stdout
    lines = zonectl("status", "nav", "media").stdout.splitlines()
    assert [line.split()[0] for line in lines] == ["NAME", "nav", "media"]
    assert report_of(zonectl("status", "nav", "--json"))["state"] == "STOPPED"


def test_status_of_a_name_that_nobody_has(zonectl):
    result = zonectl("status", "nosuch", "media", "neither")
    assert complains(result, 1, f"no such zone: nosuch, neither (there are: {KNOWN})")
    assert "media" in result.stdout and "nosuch" not in result.stdout


def test_a_zone_whose_container_was_removed(zonectl):
    gone = report_of(zonectl("status", "gone", "--json"))
    assert (gone["state"], gone["source"]) == ("STOPPED", "daemon")
    assert gone["note"] == "no container of that name is defined any more"
    result = zonectl("start", "gone")
    assert complains(result, 1, "gone: it was not asked to start: no container of that name is defined any")
    assert report_of(zonectl("start", "--json", "gone"))["queued"] is False
    assert zonectl("stop", "gone").returncode == 0, "one that runs still can be stopped"


def test_a_daemon_that_does_not_answer(zonectl):
    result = zonectl("status", "media", "mute", "--timeout", "1")
    assert complains(result, 3, "did not answer in time")
    assert "media" in result.stdout, "what was answered is shown"


def test_versions(zonectl):
    assert zonectl("version").stdout == "zonectl 4.0.28\ndaemon 4.0.28/4.0.12\n"
    assert json.loads(zonectl("version", "nav", "--json").stdout) == {
        "zonectl": "4.0.28", "daemon": "4.0.28/4.0.12"}
    result = zonectl("version", "guard")
    assert complains(result, 1, "protection zone") and result.stdout == "zonectl 4.0.28\n"


def test_the_own_version_needs_no_daemon(bus):
    result = bus_fixtures.zonectl("version", address=bus.address)
    assert complains(result, 3, "is not running") and result.stdout == "zonectl 4.0.28\n"
    result = bus_fixtures.zonectl("version", "--json", address=bus.address)
    assert json.loads(result.stdout) == {"zonectl": "4.0.28", "daemon": None}


@pytest.mark.parametrize("command", ["start", "stop", "unfreeze"])
def test_a_refused_request(zonectl, command):
    result = zonectl(command, "guard")
    assert complains(result, 1, f"guard: the {command} was refused: it is a protection zone")
    assert result.stdout == ""
    result = zonectl(command, "nosuch")
    assert complains(result, 1, f"the daemon has no such zone (there are: {KNOWN})")


def test_a_request_is_only_queued(zonectl):
    result = zonectl("start", "stuck")
    assert (result.returncode, result.stderr) == (0, "")
    assert result.stdout == "stuck: start is queued; 'zonectl status stuck' or --wait tells the outcome\n"
    assert report_of(zonectl("--json", "start", "stuck")) == {
        "name": "stuck", "request": "start", "wanted": "RUNNING", "queued": True, "state": "STOPPED",
        "done": False, "reason": None}


@pytest.mark.parametrize("command, zone, state", [
    ("start", "nav", "RUNNING"), ("stop", "media", "STOPPED"), ("unfreeze", "icy", "RUNNING"),
])
def test_waiting_for_the_outcome(zonectl, command, zone, state):
    result = zonectl(command, "--wait", zone)
    assert (result.returncode, result.stdout) == (0, f"{zone}: {state}\n")
    first, *changes = result.stderr.splitlines()
    assert first == (f"{zone}: {command} is queued; the daemon begins within 3 s, "
                     f"waiting up to 30 s for {state}")
    assert re.fullmatch(rf"{zone}: {state} \(after \d+\.\d s\)", changes[-1])


def test_waiting_as_json_says_nothing_else(zonectl):
    result = zonectl("start", "--wait", "--json", "nav")
    assert result.stderr == ""
    assert report_of(result) == {"name": "nav", "request": "start", "wanted": "RUNNING", "queued": True,
                                 "state": "RUNNING", "done": True, "reason": None}


@pytest.mark.parametrize("command, zone, state", [("start", "media", "RUNNING"), ("stop", "nav", "STOPPED"),
                                                  ("unfreeze", "media", "RUNNING")])
def test_what_is_so_already_is_said(zonectl, command, zone, state):
    result = zonectl(command, zone)
    assert (result.returncode, result.stderr) == (0, "")
    assert result.stdout == f"{zone}: {state} (it was {state} already; the daemon drops such a request)\n"


def test_a_frozen_zone_is_not_started(zonectl):
    result = zonectl("start", "--wait", "icy")
    assert complains(result, 1, "it is FROZEN, and a start fails until it is thawed: 'zonectl unfreeze icy'")
    assert report_of(zonectl("status", "icy", "--json"))["state"] == "FROZEN"


def test_a_stopped_zone_is_not_thawed(zonectl):
    assert complains(zonectl("unfreeze", "nav"), 1, "nothing to thaw")


def test_waiting_sees_a_state_that_passes_at_once(zonectl):
    result = zonectl("start", "--wait", "brief")
    assert (result.returncode, result.stdout) == (0, "brief: RUNNING\n")
    result = zonectl("unfreeze", "--wait", "icy", "--json")
    assert report_of(result)["done"] is True


def test_a_start_that_fails_is_not_waited_for(zonectl):
    result = zonectl("start", "--wait", "weak")
    assert result.returncode == 1 and result.stdout == ""
    assert "zonectl: weak: the start failed: it was STARTING and came to ABORTING" in result.stderr
    assert "zonectl explain weak" in result.stderr


def test_waiting_is_bounded(zonectl):
    result = zonectl("start", "--wait=1", "stuck")
    assert result.returncode == 4
    assert ("zonectl: stuck: it was not RUNNING within 1 s (last state: STOPPED); "
            "'zonectl explain stuck'") in result.stderr


def test_several_zones_are_asked_and_the_worst_counts(zonectl):
    result = zonectl("start", "--wait=2", "--json", "nav", "guard", "stuck", "nav", "media")
    assert result.returncode == 4
    zones = json.loads(result.stdout)
    assert [(zone["name"], zone["queued"], zone["done"]) for zone in zones] == [
        ("nav", True, True), ("guard", False, False), ("stuck", True, False), ("media", True, True)]
    assert zones[1]["reason"] in result.stderr and zones[2]["reason"] in result.stderr


def test_a_daemon_that_goes_ends_the_waiting(bus, service):
    waiting = subprocess.Popen([str(bus_fixtures.ZONECTL), "start", "--wait", "stuck"],
                               env=bus_fixtures.environment(bus.address), text=True, stderr=subprocess.PIPE)
    assert "is queued" in waiting.stderr.readline()
    service.stop()
    _, errors = waiting.communicate(timeout=bus_fixtures.DEADLINE)
    assert waiting.returncode == 3
    assert errors == "zonectl: stuck: the zone manager has left the bus; what was queued is lost with it\n"
    bus_fixtures.MockService(bus.address).stop()


@pytest.fixture
def waiting(bus, service):
    """A `zonectl wait` that listens and has said so."""
    process = None

    def begin(*arguments):
        nonlocal process
        process = subprocess.Popen([str(bus_fixtures.ZONECTL), "wait", *arguments], text=True,
                                   env=bus_fixtures.environment(bus.address), stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE)
        assert f"waiting up to 30 s for {arguments[1].upper()}" in process.stderr.readline()
        return process

    yield begin
    process.kill()
    process.communicate()


@pytest.mark.parametrize("state", ["THAWED", "thawed", "RUNNING"])
def test_wait_for_what_others_bring_about(waiting, zonectl, state):
    process = waiting("icy", state)
    zonectl("unfreeze", "icy")
    output, _ = process.communicate(timeout=bus_fixtures.DEADLINE)
    assert (process.returncode, output) == (0, f"icy: {state.upper()}\n")


def test_wait_for_a_state_that_is(zonectl):
    result = zonectl("wait", "media", "RUNNING")
    assert (result.returncode, result.stdout, result.stderr) == (0, "media: RUNNING\n", "")
    assert report_of(zonectl("wait", "media", "RUNNING", "--json")) == {
        "name": "media", "request": "wait", "wanted": "RUNNING", "state": "RUNNING", "done": True,
        "reason": None}


def test_wait_for_what_can_never_be(zonectl):
    assert complains(zonectl("wait", "nosuch", "RUNNING"), 1, f"has no such zone (there are: {KNOWN})")
    result = zonectl("wait", "nav", "ASLEEP")
    assert complains(result, 2, "'ASLEEP' is no state (there are: NONE, STOPPED, STARTING, RUNNING, "
                                "STOPPING, ABORTING, FREEZING, FROZEN, THAWED)")


def test_wait_is_bounded(zonectl):
    result = zonectl("wait", "nav", "FROZEN", "--timeout=1", "--json")
    assert complains(result, 4, "nav: it was not FROZEN within 1 s (last state: STOPPED)")
    assert report_of(result)["done"] is False


def test_attach_says_what_it_is_worth(zonectl):
    result = zonectl("attach", "media", "--", "ls", "--color")
    assert (result.returncode, result.stderr) == (0, "")
    assert "the attach is queued. The daemon runs no command" in result.stdout
    assert "lxc-attach -n media" in result.stdout
    assert json.loads(zonectl("attach", "--json", "media", "--", "ls").stdout) == {
        "name": "media", "request": "attach", "queued": True}
    result = zonectl("attach", "guard", "--", "ls")
    assert complains(result, 1, "the attach was refused: it is a protection zone")


def test_a_name_that_looks_like_an_option(bus):
    service = bus_fixtures.MockService(bus.address, "-z")

    def run(*arguments):
        return bus_fixtures.zonectl(*arguments, address=bus.address)

    assert report_of(run("status", "--json", "--", "-z"))["state"] == "STOPPED"
    for arguments in (("--", "-z", "--", "ls"), ("--", "-z", "ls"), ("--", "media", "--", "ls", "-l")):
        assert run("attach", *arguments).returncode == 0, arguments
    for arguments in (("media", "--", "--", "-l"), ("--", "-z", "--", "--", "-l")):
        assert "the attach was refused" in run("attach", *arguments).stderr, "the command is meant so"
    assert run("attach", "--", "-z", "--").returncode == 2
    late = run("wait", "--timeout=1", "--json", "--", "-z", "FROZEN")
    assert complains(late, 4, "'zonectl explain -- -z' tells")
    assert "'zonectl status -- -z' or --wait tells" in run("start", "--", "-z").stdout
    service.stop()


def test_an_empty_name_is_none(zonectl):
    for arguments in (("status", ""), ("wait", "", "RUNNING"), ("attach", "", "--", "ls")):
        assert complains(zonectl(*arguments), 2, "the zone's name is empty")
    assert complains(zonectl("wait", "nav", ""), 2, "'' is no state")


def test_progress_is_rewritten_on_a_terminal(bus, service):
    leader, follower = pty.openpty()
    result = subprocess.run([str(bus_fixtures.ZONECTL), "start", "--wait", "nav"], stdout=subprocess.PIPE,
                            env=bus_fixtures.environment(bus.address, TERM="xterm"), stderr=follower,
                            text=True, timeout=bus_fixtures.DEADLINE, check=True)
    os.close(follower)
    shown = bus_fixtures.shown_on(leader)
    assert result.stdout == "nav: RUNNING\n"
    assert re.search(r"\r\033\[Knav STOPPED \(\d+ s of 30 s; the daemon begins within 3 s\)", shown)
    assert "\n" not in shown and shown.endswith("\r\033[K"), "nothing is left of it"
