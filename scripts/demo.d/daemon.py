"""The daemon's process, and its log told in plain words."""

import dataclasses
import fcntl
import os
import pathlib
import re
import signal
import subprocess

LOCK = pathlib.Path("/run/lxc/lock/zone-manager.lock")
SERVICE = "org.ornix.zoneframework"
OBJECT = "/org/ornix/zoneframework"
INTERFACE = "org.ornix.zoneframework.interface"

# FILE: FUNCTION(LINE) > COLOUR [SIGNATURE:LINE] BODY COLOUR-RESET, after the console's own prefix.
RECORD = re.compile(
    r"[DIWEF]/ZONE_MANAGER\(\d+:\d+\): \S+: \S+?\((\d+)\) > \x1b\[[\d;]*m\[.*?:\1\] (?P<body>.*)\x1b\[0m"
)
KINDS = {"1": "isolation", "2": "hybrid", "3": "protection"}


@dataclasses.dataclass(frozen=True)
class Rule:
    """A record worth telling: what its text looks like, the event's key, what to say, and how."""

    pattern: str
    key: str
    words: str
    style: str | None = None


# The part "zone" of a pattern is the zone that the event is about; without one it is about the daemon.
RULES = (
    Rule(r"Start Zone Manager\.\.\.", "begin", "begins"),
    Rule(r"\[Zone Name : (?P<zone>\S+)\] / .*\[Zone Type : (?P<kind>\d)\]",
         "found", "found, of the {kind} kind"),
    Rule(r'"(?P<path>[^"]+)" smack label is changed to "(?P<label>.*)" successfully',
         "label", 'label "{label}" for {path}'),
    Rule(r"auto start flag is true\.\.\.(?P<zone>\S+)", "automatic", "marked for automatic start"),
    Rule(r'Name\("(?P<name>[^"]+)"\) is acquired', "service", "is {name} on the bus"),
    Rule(r"zone event\(1\) is sent \(zone name : (?P<zone>\S+)\)", "requested", "is asked to start", "note"),
    Rule(r"\[.*\] The state of (?P<zone>\S+) is changed to (?P<state>\w+)", "state", "{state}"),
    Rule(r"(?P<zone>\S+) is started successfully\(.*", "started", "the launcher has started it"),
    Rule(r"(?P<zone>\S+) is stopped successfully\(.*", "stopped", "the launcher has stopped it"),
    Rule(r"Failed to (?:re-)?start (?P<zone>\S+?)\(.*", "failed", "could not be started", "bad"),
    Rule(r"The init pid\((?P<pid>\d+)\) of zone\((?P<zone>\S+)\) is set\(.*",
         "watched", "watched from now on, init pid {pid}"),
    Rule(r"\[.*\] exit message is received - (?P<zone>\S+) is exited with.*",
         "exited", "its container has ended", "note"),
    Rule(r"Restart event for (?P<name>\S+) is sent\(.*", "restart", "restarts {name}", "note"),
    Rule(r"Restarting (?P<zone>\S+?)\(current zone pid.*", "watcher", "its watcher restarts it", "note"),
    Rule(r"\[DBus\] (?P<method>Zone(?:Start|Stop|Unfreeze)) on zone '(?P<zone>.*)'",
         "request", "{method} asked for over the bus"),
    Rule(r"\[DBus\] (?P<method>ZoneAttach) zoneName\[(?P<zone>.*)\]",
         "request", "{method} asked for over the bus"),
    Rule(r'\[DBus\] There is no access permission to protection zone\("(?P<zone>.*)"\).*', "refused",
         "refused to a bus client: a protection zone"),
    Rule(r'\[Main Thread\] received "(?P<signal>.*)" signal : \d+',
         "signal", "has received the signal {signal}"),
    Rule(r"ZoneManager is terminated\.\.\.", "end", "has cleared up and ends"),
)  # fmt: skip
PATTERNS = tuple((re.compile(rule.pattern), rule) for rule in RULES)


@dataclasses.dataclass(frozen=True)
class Event:
    """What a record of the log means."""

    key: str
    zone: str | None
    words: str
    style: str | None
    detail: dict


def interpret(line, zones):
    """The event that a line of the log tells, or None."""
    record = RECORD.fullmatch(line)
    if record is None:
        # The launcher's complaints are in the same file.
        return Event("launcher", None, line, "bad", {}) if line.startswith("zone-launcher:") else None
    for pattern, rule in PATTERNS:
        match = pattern.fullmatch(record["body"])
        if match is None:
            continue
        detail = match.groupdict()
        if "kind" in detail:
            detail["kind"] = KINDS.get(detail["kind"], "unknown")
        zone = detail.get("zone")
        if "path" in detail:
            zone = next((name for name in zones if name in pathlib.Path(detail["path"]).parts), None)
        return Event(rule.key, zone, rule.words.format(**detail), rule.style, detail)
    return None


class Daemon:
    """zone-manager with its log in a file. Every event read from the log is kept and handed to a listener."""

    def __init__(self, program, log, zones, listener):
        self._program = program
        self._log = log
        self._zones = zones
        self._listener = listener
        self._read = 0
        self._rest = b""
        self.events = []
        self.process = None

    def start(self):
        environment = {"PATH": os.environ["PATH"], "ZONE_LOG_TARGET": "console"}
        with open(self._log, "ab") as log:
            self.process = subprocess.Popen(
                [self._program], env=environment, stdin=subprocess.DEVNULL, stdout=log, stderr=log,
                start_new_session=True,
            )  # fmt: skip

    @property
    def running(self):
        return self.process is not None and self.process.poll() is None

    def terminate(self):
        self.process.send_signal(signal.SIGTERM)

    def follow(self):
        """Reads what the log has new."""
        with open(self._log, "rb") as log:
            log.seek(self._read)
            new = log.read()
        self._read += len(new)
        *lines, self._rest = (self._rest + new).split(b"\n")
        for line in lines:
            event = interpret(line.decode(errors="replace"), self._zones)
            if event is not None:
                self.events.append(event)
                self._listener(event)

    def count(self, key, zone=None, **detail):
        """How many such events there were."""
        return len(self._places(key, zone, detail))

    def place(self, key, zone=None, **detail):
        """The place of the first such event among all; -1 when there was none."""
        return next(iter(self._places(key, zone, detail)), -1)

    def _places(self, key, zone, detail):
        return [
            place
            for place, event in enumerate(self.events)
            if event.key == key and event.zone == zone and detail.items() <= event.detail.items()
        ]


def lock_is_held():
    """Whether some process holds the daemon's lock."""
    try:
        with open(LOCK, "rb+") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except BlockingIOError:
        return True
    except FileNotFoundError:
        return False
    return False


def zones_on_the_bus():
    """The names that the daemon gives as its zones, empty when it does not answer."""
    result = subprocess.run(
        ["busctl", "--system", "--timeout=10", "call", SERVICE, OBJECT, INTERFACE, "GetZoneList"],
        capture_output=True, text=True, check=False, timeout=30, start_new_session=True,
    )  # fmt: skip
    return re.findall(r'"([^"]*)"', result.stdout)
