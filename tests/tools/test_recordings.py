"""zonectl replay and zonectl diff over recordings as zonectl watch writes them."""

import json
import os
import subprocess

import bus_fixtures
import pytest
from bus_fixtures import refused


@pytest.mark.parametrize("arguments", [
    ("replay",), ("replay", "a", "b"), ("replay", "--raw", "a"), ("diff", "a"), ("diff", "a", "b", "c"),
    ("diff", "-", "-"),
])
def test_wrong_usage(arguments):
    result = bus_fixtures.zonectl(*arguments)
    assert refused(result, 2), result
    assert result.stdout == ""


@pytest.fixture
def recording(tmp_path):
    """Writes a recording of events that are given as (seconds, name, state) or as objects."""
    def write(name, *events, header=True):
        lines = [{"format": "zonectl-recording", "version": 1, "clock": "boottime", "at": 50_000_000,
                  "wall_microseconds": 1_700_000_000_000_000, "host": "device", "boot_id": "b",
                  "source": "raw"}] if header else []
        for event in events:
            if isinstance(event, tuple):
                at, zone, state = event
                event = {"event": "state", "at": 50_000_000 + round(at * 1e6), "name": zone, "state": state}
            lines.append(event)
        path = tmp_path / name
        path.write_text("".join(json.dumps(line) + "\n" for line in lines))
        return str(path)

    return write


LIFE = [(1, "red", "STARTING"), (1.5, "red", "RUNNING"), (2, "blue", "STARTING"), (9, "red", "STOPPED"),
        {"event": "gap", "at": 54_000_000 + 6_500_000, "note": "daemon", "microseconds": 500_000},
        {"event": "end", "at": 62_000_000}]


def test_a_replay(recording):
    result = bus_fixtures.zonectl("replay", recording("run", *LIFE), TZ="UTC")
    assert (result.returncode, result.stderr) == (0, "")
    assert result.stdout == (
        "Recorded on device from 2023-11-14 22:13:20.000 for 12.000 s\n\n"
        "      0                                                                 12.000 s\n"
        "blue              sssssssssssssssssssssssssssssssssssssssssssssssss::::         \n"
        "red         sss==============================================......::::         \n"
        "      . STOPPED  s STARTING  = RUNNING  : nobody to tell\n\n"
        "TIME       ZONE  STATE                LASTED\n"
        "+1.000 s   red   STARTING             0.500 s\n"
        "+1.500 s   red   RUNNING              7.500 s\n"
        "+2.000 s   blue  STARTING             at least 8.000 s\n"
        "+9.000 s   red   STOPPED              at least 1.000 s\n"
        "+10.000 s  -     the daemon was away  0.500 s\n")


def test_a_replay_for_programs(recording):
    report = json.loads(bus_fixtures.zonectl("replay", "--json", recording("run", *LIFE)).stdout)
    assert [zone["name"] for zone in report["zones"]] == ["blue", "red"]
    assert report["zones"][1]["intervals"][0] == {
        "state": "STARTING", "from": 1_000_000, "to": 1_500_000, "microseconds": 500_000,
        "begin_seen": True, "end_seen": True}
    assert report["gaps"] == [{"reason": "daemon", "from": 10_000_000, "to": 10_500_000}]
    assert (report["host"], report["microseconds"], report["skipped"]) == ("device", 12_000_000, [])


def test_damaged_and_cut_lines_are_told_and_skipped(recording):
    path = recording("run", *LIFE)
    with open(path, encoding="utf-8") as file:
        lines = file.read().splitlines()
    lines[2] = "\xff nonsense"
    text = "\n".join(lines)
    with open(path, "w", encoding="latin-1") as file:
        file.write(text[:-10])
    result = bus_fixtures.zonectl("replay", path)
    assert result.returncode == 0
    assert result.stderr == (f"zonectl: {path}: line 3 is skipped: damaged or cut\n"
                             f"zonectl: {path}: line 7 is skipped: damaged or cut\n")
    report = json.loads(bus_fixtures.zonectl("replay", "--json", path).stdout)
    assert [damage["line"] for damage in report["skipped"]] == [3, 7]


def test_what_is_no_recording(recording, tmp_path):
    (tmp_path / "empty").write_text("")
    for path in (recording("headless", *LIFE, header=False), str(tmp_path / "empty"), str(tmp_path),
                 str(tmp_path / "none")):
        result = bus_fixtures.zonectl("replay", path)
        assert refused(result, 1) and result.stderr.startswith(f"zonectl: {path}: ")
        assert bus_fixtures.zonectl("diff", path, recording("run", *LIFE)).returncode == 1


def test_a_recording_on_standard_input(recording):
    with open(recording("run", *LIFE), encoding="utf-8") as file:
        result = subprocess.run([str(bus_fixtures.ZONECTL), "replay", "-"], stdin=file, text=True,
                                env=bus_fixtures.environment("x:"), capture_output=True,
                                timeout=bus_fixtures.DEADLINE, check=False)
    assert (result.returncode, result.stderr) == (0, "")
    assert "blue  STARTING" in result.stdout


def test_an_input_that_never_ends_is_given_up(tmp_path):
    os.mkfifo(tmp_path / "fifo")
    holder = os.open(tmp_path / "fifo", os.O_RDWR)
    result = bus_fixtures.zonectl("replay", str(tmp_path / "fifo"), "--timeout", "1")
    os.close(holder)
    assert refused(result, 4) and "within the time limit" in result.stderr


def test_equal_runs_do_not_differ(recording):
    later = [(1, "red", "STARTING"), (2.5, "red", "RUNNING"), (4, "blue", "STARTING"), (9, "red", "STOPPED")]
    result = bus_fixtures.zonectl("diff", recording("a", *LIFE), recording("b", *later))
    assert (result.returncode, result.stderr) == (0, "")
    assert result.stdout.splitlines() == [
        "ZONE  STATE     A        B        DIFFERENCE",
        "blue  STARTING  -        -",
        "red   STARTING  0.500 s  1.500 s  B took 3.00 times as long",
        "red   RUNNING   7.500 s  6.500 s",
        "red   STOPPED   -        -",
    ]


def test_missing_and_extra_steps(recording):
    other = [(1, "red", "STARTING"), (1.5, "red", "ABORTING"), (2, "red", "STOPPED"), (3, "gold", "RUNNING")]
    a, b = recording("a", *LIFE), recording("b", *other)
    result = bus_fixtures.zonectl("diff", a, b)
    assert (result.returncode, result.stderr) == (1, "")
    rows = [line.split(None, 2) for line in result.stdout.splitlines()[1:]]
    notes = {(zone, state): rest.endswith("only in A") - rest.endswith("only in B")
             for zone, state, rest in rows}
    assert notes == {("blue", "STARTING"): 1, ("gold", "RUNNING"): -1, ("red", "STARTING"): 0,
                     ("red", "RUNNING"): 1, ("red", "ABORTING"): -1, ("red", "STOPPED"): 0}
    result = bus_fixtures.zonectl("diff", "--json", a, b)
    report = json.loads(result.stdout)
    assert (result.returncode, report["same"]) == (1, False)
    red = report["zones"][2]
    assert [red["name"], red["same"]] == ["red", False]
    assert red["steps"][0] == {"state": "STARTING", "a": {"microseconds": 500_000},
                               "b": {"microseconds": 500_000}, "percent": None}
    assert red["steps"][1]["b"] is None or red["steps"][1]["a"] is None
