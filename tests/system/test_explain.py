"""What `zonectl explain` makes of the log that the daemon has just written."""

import json
import re
import subprocess

import pytest
from zonetest import BUILD, EXIT, Message, eventually, send_messages, send_states

PROGRAM_READY = "thread running check timer is terminated"
ALPHA_RUNS = "Now, alpha is running"


@pytest.fixture
def explain(daemon, tmp_path):
    """Runs zonectl on the log so far. The console has no times, so each line gets one that is half a second
    later than the line before."""

    def run(*arguments):
        log = tmp_path / "log"
        stamps = (divmod(number, 120) for number in range(len(daemon.lines)))
        lines = zip(stamps, daemon.lines, strict=False)
        text = [
            f"2026-01-02T{minute // 60:02}:{minute % 60:02}:{half / 2:04.1f}Z {line}\n"
            for (minute, half), line in lines
        ]
        log.write_text("".join(text), encoding="utf-8")
        return subprocess.run(
            [BUILD / "bin" / "zonectl", "explain", "--file", log, *arguments],
            capture_output=True,
            text=True,
            timeout=30,
            check=False,
        )

    return run


def story(result):
    assert result.stderr == ""
    return json.loads(result.stdout)


def zone_of(report, name):
    return next(zone for zone in report["zones"] if zone["name"] == name)


def told(zone, *events):
    """The texts of a zone's events of these kinds."""
    return [event["text"] for event in zone["events"] if event["event"] in events]


def test_an_automatic_start_that_works(fake, bus, daemon, explain):
    for name in ("alpha", "beta"):
        fake.define(name, "hybrid", auto=True)
    daemon.start()
    daemon.wait_for("Now, beta is running", timeout=20)
    result = explain("--json")
    report = story(result)
    assert result.returncode == 0
    assert (report["findings"], report["refused"], report["skipped"]) == ([], [], 0)
    start = report["automatic_start"]
    assert (start["blocked"], start["begun"], start["still_to_start"]) == (False, True, [])
    assert start["last_asked"] == "beta"
    for name in ("alpha", "beta"):
        zone = zone_of(report, name)
        assert (zone["taken"], zone["automatic"], zone["kind"]) == (True, True, "hybrid")
        assert (zone["state"], zone["restarts"], zone["exit_statuses"]) == ("RUNNING", 0, [])
        assert told(zone, "start-asked") == ["start is asked for by the automatic start"]
        assert told(zone, "begun", "started") == ["start begins", "the launcher has started it"]
        durations = {event["event"]: event["microseconds"] for event in zone["events"]}
        assert durations["begun"] > 0 and durations["started"] > 0


def test_a_refused_container_is_told_of_first_and_in_plain_words(fake, bus, daemon, explain):
    fake.define("good", "hybrid", auto=True)
    fake.define("shady", kind=None)
    fake.define("idle", "hybrid")
    daemon.start()
    bus.wait_owned()
    eventually(lambda: daemon.count("Zone Threads are not initialized yet") >= 2, 10, "a wait that goes on")
    result = explain()
    assert result.returncode == 1
    alarm, cause, remedy, refusal, advice, *_ = result.stdout.splitlines()
    assert alarm == "*** NOTHING STARTS AUTOMATICALLY ***"
    assert "waits for 3 zones before it starts the first, and has 2, since it refused shady" in cause
    assert 'the daemon says "Can not get a zone object (3 / 3)"' in cause
    assert " since 2026-01-02 " in cause and remedy.strip().startswith("-> ")
    assert 'shady: refused as a zone; the daemon says "Failed to create the zone object...shady"' in refusal
    assert "zone.container_type" in advice
    # Whoever asks for the zone that does not come up is told as well.
    assert explain("good").stdout.startswith(alarm)
    report = story(explain("--json"))
    assert report["automatic_start"]["blocked"] is True
    assert [refused["name"] for refused in report["refused"]] == ["shady"]
    assert zone_of(report, "shady")["taken"] is False
    # A zone that is started on request sets the automatic start going, as the remedy says.
    assert "a zone that is started on request lets the others follow" in remedy
    assert bus.call("ZoneStart", "idle") is True
    daemon.wait_for("Now, good is running", timeout=30)
    result = explain()
    assert result.returncode == 1 and alarm not in result.stdout
    assert result.stdout.startswith("warning  automatic start: it never began by itself")
    assert "problem  shady: refused as a zone" in result.stdout


def test_a_zone_that_dies_and_comes_back_and_is_stopped_on_request(fake, bus, daemon, root, explain):
    fake.define("alpha", "hybrid", auto=True)
    daemon.start()
    bus.wait_owned()
    daemon.wait_for("alpha is started successfully", timeout=20)
    daemon.wait_for(ALPHA_RUNS, timeout=20)
    mark = daemon.mark()
    send_messages(root, Message(EXIT, "alpha", 9 << 8))
    send_states(root, "alpha", "STOPPED")
    daemon.wait_for("alpha is started successfully", after=mark, timeout=30)
    daemon.wait_for(ALPHA_RUNS, after=mark, timeout=20)
    mark = daemon.mark()
    assert bus.call("ZoneStop", "alpha") is True
    daemon.wait_for("alpha is stopped successfully", after=mark, timeout=20)
    # Told by another thread, before or after.
    daemon.wait_for("The state of alpha is changed to STOPPED", after=mark, timeout=20)
    daemon.stop()
    report = story(explain("--json", "alpha"))
    zone = zone_of(report, "alpha")
    assert (zone["state"], zone["restarts"], zone["exit_statuses"]) == ("STOPPED", 1, [9])
    assert zone["restart_loop"] is False
    asked = [(event["cause"], event["text"]) for event in zone["events"] if event["event"].endswith("asked")]
    assert asked[0] == ("automatic", "start is asked for by the automatic start")
    assert asked[1] == ("death", "start is asked for again, since it ended with exit status 9")
    assert asked[2][0] == "bus" and asked[2][1].startswith("stop is asked for over D-Bus by :1.")
    assert len(asked) == 3
    assert report["daemon"]["terminated"] is True
    assert "RUNNING" in told(zone, "state")


def test_a_restart_loop(fake, daemon, explain):
    fake.define("alpha", "hybrid", auto=True)
    fake.script("start", "exit 1")
    daemon.start()
    eventually(lambda: daemon.count("Failed to start alpha") >= 4, 60, "three restarts")
    result = explain()
    assert result.returncode == 1
    assert "problem  alpha: is in a restart loop: restarted 3 times from 2026-01-02 " in result.stdout
    assert 'the daemon says "Failed to start alpha(thread name : alpha' in result.stdout
    zone = zone_of(story(explain("--json")), "alpha")
    assert zone["restart_loop"] is True and zone["restarts"] >= 3
    assert {event["cause"] for event in zone["events"] if event["event"] == "start-asked"} == {
        "automatic",
        "failed-start",
    }


def test_a_daemon_that_is_not_in_the_journal_logs_elsewhere(fake, root, daemon):
    fake.define("alpha", "hybrid")
    daemon.start(wait=PROGRAM_READY)
    result = root.run([BUILD / "bin" / "zonectl", "explain"], check=False, timeout=30)
    assert result.returncode == 1
    assert re.search(r": .*zone-manager \d+ runs and so logs elsewhere", result.stderr)
    assert "ZONE_LOG_TARGET" in result.stderr and "--file FILE" in result.stderr


def test_refused_questions_are_told_in_one_line(fake, bus, daemon, explain):
    fake.define("gold", "protection")
    daemon.start(wait=PROGRAM_READY)
    bus.wait_owned()
    for method in ("ZoneGetState", "ZoneGetInitPid", "ZoneGetState"):
        assert bus.call(method, "gold") == -1
    assert bus.call("ZoneStop", "gold") is False
    result = explain("gold")
    assert result.stdout.count("a question over D-Bus is refused") == 1
    assert " (3 times, the last at 2026-01-02 " in result.stdout
    assert result.stdout.count("a request over D-Bus is refused") == 1


def test_the_last_of_two_runs_is_told(fake, daemon, explain):
    fake.define("alpha", "hybrid")
    daemon.start(wait=PROGRAM_READY)
    daemon.stop()
    daemon.start(wait=PROGRAM_READY)
    report = story(explain("--json"))
    assert report["earlier_runs"] == 1
    assert report["daemon"]["terminated"] is False and report["daemon"]["complete"] is True
