"""zonectl watch by both doors while real zones live, the daemon is killed and the bus goes; recordings."""

import json
import signal

import pytest
from zonetest import BUILD, READY, eventually

ZONECTL = BUILD / "bin" / "zonectl"
LISTED = "client connection is added to GIO Channel List[client fd : "
STARTED = ["STARTING", "RUNNING"]
STOPPED = ["STOPPING", "STOPPED"]


class Watch:
    """A running `zonectl watch --json` in a root."""

    def __init__(self, root, *arguments, prefix=()):
        self._output = root.scratch / f"watch-{id(self)}.out"
        self._errors = root.scratch / f"watch-{id(self)}.err"
        with open(self._output, "wb") as output, open(self._errors, "wb") as errors:
            self.process = root.popen(
                [*prefix, ZONECTL, "watch", "--json", *arguments], stdout=output, stderr=errors
            )

    @property
    def events(self):
        *lines, _ = self._output.read_text().split("\n")
        return [json.loads(line) for line in lines]

    @property
    def errors(self):
        return self._errors.read_text()

    def states(self, zone="red"):
        """The states that the zone came into, without those that LXC reports again."""
        words = self._of("state", zone)
        return [word for place, word in enumerate(words) if words[:place][-1:] != [word]]

    def present(self, zone="red"):
        """The answers to the question for its state."""
        return self._of("present", zone)

    def _of(self, kind, zone):
        found = [event for event in self.events if event["event"] == kind]
        return [event["state"] for event in found if event["name"] == zone]

    def gaps(self):
        return [event["reason"] for event in self.events if event["event"] == "gap"]

    def wait_for_states(self, *words, zone="red"):
        eventually(lambda: self.states(zone)[-len(words) :] == list(words), 30, f"{words} of {zone}")

    def wait_for_present(self, count=1, zone="red"):
        eventually(lambda: len(self.present(zone)) >= count, 15, f"the present state of {zone}")

    def end(self):
        self.process.signal(signal.SIGTERM)
        return self.process.wait()


@pytest.fixture
def red(zones, bus, daemon):
    """A zone that does not run, of a daemon that does."""
    zones.define("red")
    daemon.start(wait=READY)
    bus.wait_owned()
    return "red"


@pytest.fixture
def watch(root, daemon):
    """Starts a watch that has its zone's present state."""

    def start(*arguments, **options):
        mark = daemon.mark()
        one = Watch(root, *arguments, **options)
        if "--raw" in arguments:
            daemon.wait_for(LISTED, after=mark)
        one.wait_for_present()
        return one

    return start


def life(bus, root, *watches):
    """A zone is started, frozen, thawed and stopped."""
    assert bus.call("ZoneStart", "red") is True
    for one in watches:
        one.wait_for_states(*STARTED)
    root.run(["lxc-freeze", "-n", "red"])
    root.run(["lxc-unfreeze", "-n", "red"])
    for one in watches:
        one.wait_for_states("THAWED", "RUNNING")
    assert bus.call("ZoneStop", "red") is True
    for one in watches:
        one.wait_for_states(*STOPPED)


def test_both_doors_tell_of_one_life_in_the_same_order(red, bus, root, watch):
    by_signal, by_record = watch(), watch("--raw")
    life(bus, root, by_signal, by_record)
    for one in (by_signal, by_record):
        assert one.present() == ["STOPPED"]
        assert one.states() == [*STARTED, "FREEZING", "FROZEN", "THAWED", "RUNNING", *STOPPED]
        assert (one.end(), one.errors, one.gaps()) == (0, "", [])


@pytest.mark.parametrize("door", [(), ("--raw",)], ids=["signal", "raw"])
def test_a_daemon_that_is_killed_and_comes_back_leaves_a_gap(red, zones, bus, daemon, watch, door):
    one = watch(*door)
    assert bus.call("ZoneStart", "red") is True
    one.wait_for_states(*STARTED)
    daemon.signal(signal.SIGKILL)
    daemon.wait_exit()
    eventually(lambda: "the daemon has left" in one.errors, 10, "the end to be told")
    zones.kill("red")
    mark = daemon.mark()
    daemon.start(wait=READY)
    if door:
        daemon.wait_for(LISTED, after=mark)
    one.wait_for_present(2)
    assert one.present() == ["STOPPED", "STOPPED"]
    assert one.gaps() == ["daemon"]
    assert [event["event"] for event in one.events] == ["present", "state", "state", "gap", "present"]
    bus.wait_owned()
    assert bus.call("ZoneStart", "red") is True
    one.wait_for_states(*STARTED, *STARTED)
    assert one.end() == 0


def test_a_bus_that_is_restarted_leaves_a_gap_by_signal_and_none_by_record(red, bus, root, daemon, watch):
    by_signal, by_record = watch(), watch("--raw")
    bus.stop()
    eventually(lambda: "the bus has left" in by_signal.errors, 10, "the end to be told")
    root.run(["lxc-start", "-n", "red"])
    by_record.wait_for_states(*STARTED)
    bus.start()
    # The daemon goes on without the bus that it lost, and has to be started again.
    assert daemon.stop() == 0
    daemon.start(wait=READY)
    by_signal.wait_for_present(2)
    assert (by_signal.present(), by_signal.states()) == (["STOPPED", "RUNNING"], [])
    assert by_signal.gaps() == ["bus"]
    by_record.wait_for_present(2)
    assert by_record.gaps() == ["daemon"]
    assert (by_signal.end(), by_record.end()) == (0, 0)


def test_who_is_not_root_sees_the_signals_alone(red, bus, daemon, root):
    nobody = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"]
    one = Watch(root, prefix=nobody)
    eventually(lambda: "no present states: the bus does not permit you" in one.errors, 10, "the refusal")
    assert bus.call("ZoneStart", "red") is True
    one.wait_for_states(*STARTED)
    assert (one.present(), one.end()) == ([], 0)
    refused = root.run([*nobody, ZONECTL, "watch", "--raw"], check=False)
    assert refused.returncode == 1
    assert "takes subscribers of its own user only" in refused.stderr


def test_without_a_bus_the_records_are_seen(zones, daemon, root):
    zones.define("red")
    daemon.start(wait=READY)
    one = Watch(root, "--raw")
    daemon.wait_for(LISTED)
    zones.start("red")
    one.wait_for_states(*STARTED)
    assert one.errors.count("no present states, since the bus cannot be reached") == 1
    assert one.end() == 0


def test_two_runs_are_recorded_shown_and_compared(red, zones, bus, root, watch):
    for name, door in (("first", ()), ("second", ("--raw",))):
        one = watch("--record", f"/home/{name}", *door)
        life(bus, root, one)
        assert one.end() == 0

    def zonectl(*arguments, status=0):
        result = root.run([ZONECTL, "--json", *arguments], check=False)
        assert (result.returncode, result.stderr) == (status, "")
        return json.loads(result.stdout)

    for name in ("first", "second"):
        report = zonectl("replay", f"/home/{name}")
        [timeline] = report["zones"]
        intervals = timeline["intervals"]
        assert [interval["state"] for interval in intervals] == [
            "STOPPED",
            *STARTED,
            "FREEZING",
            "FROZEN",
            "THAWED",
            "RUNNING",
            *STOPPED,
        ]
        assert all(interval["begin_seen"] and interval["end_seen"] for interval in intervals[1:-1])
        assert not intervals[0]["begin_seen"] and not intervals[-1]["end_seen"]
        assert (report["skipped"], report["gaps"]) == ([], [])

    comparison = zonectl("diff", "/home/first", "/home/second")
    assert comparison["same"] is True
    assert all(step["a"] and step["b"] for step in comparison["zones"][0]["steps"])
    # A run that stops in the middle lacks what the other has.
    lines = root.read("/home/second").splitlines(keepends=True)
    frozen = next(place for place, line in enumerate(lines) if "FROZEN" in line)
    root.write("/home/half", "".join(lines[:frozen]))
    comparison = zonectl("diff", "/home/first", "/home/half", status=1)
    missing = [step["state"] for step in comparison["zones"][0]["steps"] if step["b"] is None]
    assert missing == ["FROZEN", "THAWED", "RUNNING", *STOPPED]
    shown = root.run([ZONECTL, "replay", "/home/first"]).stdout
    assert shown.splitlines()[3].startswith("red  ")
    assert shown.count("  red   ") == len(intervals)
    occupied = root.run([ZONECTL, "watch", "--record", "/home/first"], check=False)
    assert (occupied.returncode, occupied.stdout) == (1, "")
