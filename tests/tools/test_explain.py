"""zonectl explain over logs that a daemon wrote, in the forms in which they are met.

logs/blocked.log: one container is refused. logs/life.log: a second run, in which `media` is started
automatically, dies and comes back, and `nav` is started and stopped over D-Bus. Each line of both has its
time in front.
"""

import datetime
import json
import os
import pathlib
import re
import subprocess

import bus_fixtures
import pytest

LOGS = pathlib.Path(__file__).with_name("logs")
BLOCKED = LOGS / "blocked.log"
LIFE = LOGS / "life.log"
CONSOLE = re.compile(r"(?P<time>\S+) device (?P<level>[DIWEF])/ZONE_MANAGER\((?P<pid>\d+):(?P<tid>\d+)\): "
                     r"(?P<message>.*)")


def explain(*arguments, **extra):
    return bus_fixtures.zonectl("explain", *arguments, TZ="UTC", **extra)


def report_of(log, *arguments):
    result = explain("--json", "--file", str(log), *arguments)
    assert result.stderr == ""
    return json.loads(result.stdout)


def zone_of(report, name):
    return next(zone for zone in report["zones"] if zone["name"] == name)


def refused(result, status):
    """The command failed with this status, and said why in one line."""
    return (result.returncode == status and result.stdout == "" and result.stderr.startswith("zonectl: ")
            and result.stderr.count("\n") == 1)


def rewritten(log, line_of):
    """The log with every record in another form."""
    matches = [CONSOLE.match(line) for line in log.read_text().split("\n")]
    return "".join(line_of(match) + "\n" for match in matches if match)


def as_console(record):
    return record.string.split(" device ")[1]


def as_journal_short(record):
    return f"Nov 21 {record['time'][11:19]} device zone-manager[{record['pid']}]: {as_console(record)}"


def as_syslog(record):
    message = record["message"].replace("\x1b", "#033")
    return f"{record['time']} device ZONE_MANAGER[{record['pid']}]: {message}"


def as_json(record):
    moment = datetime.datetime.strptime(record["time"], "%Y-%m-%dT%H:%M:%S.%f%z")
    return json.dumps({"SYSLOG_IDENTIFIER": "ZONE_MANAGER", "_PID": record["pid"], "TID": record["tid"],
                       "__REALTIME_TIMESTAMP": str(round(moment.timestamp() * 1000000)),
                       "MESSAGE": list(record["message"].encode())})


@pytest.mark.parametrize("arguments", [
    ("a", "b"), ("",), ("--file",), ("--file=",), ("--wait",), ("--root", "/image"),
    ("--file", "x", "a", "b"),
])
def test_wrong_usage(arguments):
    assert refused(explain(*arguments), 2)


def test_other_commands_take_no_file():
    assert refused(bus_fixtures.zonectl("doctor", "--file", "x"), 2)


def test_the_help_names_it():
    assert "  explain [--file FILE] [NAME]" in bus_fixtures.zonectl("--help").stdout
    assert bus_fixtures.zonectl("explain", "--help").stdout.startswith(
        "Usage: zonectl [OPTION...] explain [--file FILE] [NAME]\n")


def test_a_blocked_automatic_start_is_the_first_thing_told():
    result = explain("--file", str(BLOCKED))
    assert result.returncode == 1
    lines = result.stdout.splitlines()
    assert lines[0] == "*** NOTHING STARTS AUTOMATICALLY ***"
    assert "and has 1, since it refused shady; it looked 3 times since 2026-11-21 " in lines[1]
    assert lines[1].endswith('the daemon says "Can not get a zone object (2 / 2)"')
    assert 'shady: refused as a zone; the daemon says "Failed to create the zone object...shady"' in lines[3]
    assert "zone.container_type = KIND" in lines[4]
    # It concerns every zone.
    assert explain("--file", str(BLOCKED), "good").stdout.startswith("\n".join(lines[:5]))


def test_a_blocked_automatic_start_for_programs():
    report = report_of(BLOCKED)
    start = report["automatic_start"]
    assert (start["blocked"], start["begun"], start["still_to_start"]) == (True, False, ["good"])
    assert start["waiting_message"] == "Can not get a zone object (2 / 2)"
    assert start["waiting_since"].startswith("2026-11-21T")
    [container] = report["refused"]
    assert container["name"] == "shady"
    assert container["messages"] == ["Failed to create the zone object...shady",
                                     "Failed to create Zone Object - shady[1]"]


def test_the_story_of_a_life():
    result = explain("--file", str(LIFE), "media")
    assert (result.returncode, result.stderr) == (0, "")
    headline, *story = result.stdout.split("\n\n")[-1].splitlines()
    assert re.fullmatch(r"media: RUNNING since [-0-9]{10} [:0-9.]{12}, hybrid, starts automatically, "
                        r"restarts: 1, died with exit status 9", headline)
    texts = [re.sub(r"^  \S+ \S+  ", "", line) for line in story]
    assert [re.sub(r" \(after \d+\.\d{3} s\)$", " (after N)", text) for text in texts] == [
        "taken as a zone, to be started automatically",
        "start is asked for by the automatic start",
        "start begins (after N)",
        "STARTING",
        "the launcher has started it (after N)",
        "RUNNING (after N)",
        "its init process is 49",
        "its init process ends with exit status 9",
        "it should run: it will be restarted",
        "STOPPED",
        "start is asked for again, since it ended with exit status 9",
        "start begins (after N)",
        "STARTING",
        "RUNNING (after N)",
        "the launcher has started it (after N)",
        "its init process is 51",
    ]
    assert "\nnav:" not in result.stdout and "earlier events" not in result.stdout


def test_what_happens_again_and_again_is_summed_up(tmp_path):
    lines = LIFE.read_text().splitlines(keepends=True)
    restart = max(number for number, line in enumerate(lines) if "receive the event - ZONE RESTART" in line)
    other = tmp_path / "log"
    other.write_text("".join(lines + 6 * lines[restart:]))
    story = explain("--file", str(other), "media").stdout.split("\n\nmedia: ")[1].splitlines()
    assert re.fullmatch(r"  \.\.\. the same 5 times more until [-0-9]{10} [:0-9.]{12}", story[-1])
    assert sum("start is asked for again" in line for line in story) == 2
    events = zone_of(report_of(other, "media"), "media")["events"]
    assert sum(event["event"] == "start-asked" for event in events) == 8, "programs are told of each"


def test_that_a_log_has_no_times_is_said_once(tmp_path):
    other = tmp_path / "log"
    other.write_text(rewritten(LIFE, as_console))
    said = "The log has no times, so that it does not tell when, nor how long\n"
    assert explain("--file", str(other)).stdout.count(said) == 1
    assert said not in explain("--file", str(LIFE)).stdout


def test_the_last_run_is_told_and_the_others_are_counted():
    report = report_of(LIFE)
    assert report["earlier_runs"] == 1
    assert report["daemon"]["complete"] is True and report["daemon"]["terminated"] is False
    assert [zone["name"] for zone in report["zones"]] == ["media", "nav"]
    asked = [(event["cause"], event["text"]) for event in zone_of(report, "nav")["events"]
             if event["event"] in ("asked", "start-asked")]
    assert asked == [("bus", "start is asked for over D-Bus by :1.3"),
                     ("bus", "stop is asked for over D-Bus by :1.4")]


@pytest.mark.parametrize("line_of, times", [
    (as_console, False), (as_journal_short, True), (as_syslog, True), (as_json, True),
], ids=lambda value: getattr(value, "__name__", ""))
def test_every_form_of_a_log_tells_the_same(tmp_path, line_of, times):
    other = tmp_path / "log"
    other.write_text(rewritten(LIFE, line_of))
    report = report_of(other)
    expected = report_of(LIFE)
    assert (report["records"], report["skipped"], report["earlier_runs"]) == (expected["records"], 0, 1)
    for zone in report["zones"]:
        same = zone_of(expected, zone["name"])
        assert [event["text"] for event in zone["events"]] == [event["text"] for event in same["events"]]
        assert zone["state"] == same["state"] and zone["exit_statuses"] == same["exit_statuses"]
        assert all((event["time"] is not None) == times for event in zone["events"])
        assert any(event["microseconds"] is not None for event in zone["events"]) == times


def test_foreign_and_damaged_lines_are_counted(tmp_path):
    other = tmp_path / "log"
    lines = BLOCKED.read_bytes().split(b"\n")
    other.write_bytes(b"\n".join([*lines[:5], b"kernel: hello", lines[5][:70], b"\xff\xfe\x00", *lines[5:]]))
    report, expected = report_of(other), report_of(BLOCKED)
    assert report["skipped"] == expected["skipped"] + 3
    assert report["records"] == expected["records"]
    assert report["zones"] == expected["zones"]


def test_a_last_line_without_its_end_is_taken(tmp_path):
    other = tmp_path / "log"
    other.write_bytes(BLOCKED.read_bytes().removesuffix(b"\n"))
    assert report_of(other) == report_of(BLOCKED)


def test_a_line_without_end_takes_no_memory(tmp_path):
    other = tmp_path / "log"
    other.write_bytes(b"x" * (3 << 20) + b"\n" + BLOCKED.read_bytes())
    report = report_of(other)
    assert report["skipped"] > 1, "it is dropped in pieces"
    assert report["zones"] == report_of(BLOCKED)["zones"]


def test_of_many_events_the_last_are_shown_unless_the_zone_is_named(tmp_path):
    other = tmp_path / "log"
    change = next(line for line in LIFE.read_text().splitlines(keepends=True)
                  if "The state of media is changed to RUNNING" in line)
    other.write_text(LIFE.read_text() + 100 * change)
    story = explain("--file", str(other)).stdout.split("\n\nmedia: ")[1].split("\n\n")[0].splitlines()
    assert story[1] == "  (76 earlier events: name the zone to see them)"
    assert len(story) == 2 + 40
    named = explain("--file", str(other), "media").stdout.split("\n\nmedia: ")[1].splitlines()
    assert len(named) == 1 + 116


def test_standard_input():
    result = subprocess.run([str(bus_fixtures.ZONECTL), "explain", "--json", "--file", "-"],
                            input=BLOCKED.read_text(), env=bus_fixtures.environment("x:"), text=True,
                            capture_output=True, timeout=bus_fixtures.DEADLINE, check=False)
    assert json.loads(result.stdout)["automatic_start"]["blocked"] is True


def test_a_log_that_never_ends_is_given_up(tmp_path):
    fifo = tmp_path / "fifo"
    os.mkfifo(fifo)
    result = explain("--file", str(fifo), "--timeout", "1")
    assert refused(result, 4) and "within the time limit" in result.stderr


def test_nothing_to_tell(tmp_path):
    foreign = tmp_path / "log"
    foreign.write_text("one\ntwo\n")
    result = explain("--file", str(foreign))
    assert refused(result, 1) and "no record of the zone manager (2 lines of something else)" in result.stderr
    result = explain("--file", str(LIFE), "nobody")
    assert refused(result, 1) and "says nothing of a zone 'nobody'" in result.stderr
    assert refused(explain("--file", str(tmp_path / "none")), 1)
    assert refused(explain("--file", str(tmp_path)), 1)


@pytest.fixture
def journal(tmp_path):
    """Puts a journalctl that runs this shell text before the machine's."""

    def install(text):
        program = tmp_path / "bin" / "journalctl"
        program.parent.mkdir(exist_ok=True)
        program.write_text(f"#!/bin/sh\necho \"$@\" > {tmp_path}/arguments\n{text}\n")
        program.chmod(0o755)
        return {"PATH": f"{program.parent}:{os.environ['PATH']}"}

    return install


def test_the_journal_is_the_default(journal, tmp_path):
    (tmp_path / "log").write_text(rewritten(BLOCKED, as_json))
    result = explain("--json", **journal(f"cat {tmp_path}/log"))
    assert json.loads(result.stdout)["refused"][0]["name"] == "shady"
    assert (tmp_path / "arguments").read_text() == "-t ZONE_MANAGER -o json --all -b --no-pager\n"


@pytest.mark.parametrize("text, said", [
    ("echo No journal files were found. >&2", ": No journal files were found."), ("exit 1", ""),
])
def test_a_journal_that_is_not_there(journal, text, said):
    result = explain(**journal(text))
    assert refused(result, 1)
    assert f"the journal has nothing of the zone manager{said} (a log kept elsewhere" in result.stderr
    assert "--file FILE" in result.stderr


def test_no_journalctl_at_all(tmp_path):
    result = explain(PATH=str(tmp_path))
    assert refused(result, 1) and "--file FILE" in result.stderr


def test_a_journal_that_does_not_end_is_given_up(journal):
    result = explain("--timeout", "1", **journal("exec sleep 30"))
    assert refused(result, 4) and "within the time limit" in result.stderr
