"""The daemon under test and its log."""

import os
import re
import signal
import subprocess

from . import records
from .polling import SCALE, eventually, never
from .root import BUILD, SANITIZE

TAIL = 60
# What the daemon writes when all that it starts on its own is running.
READY = "thread running check timer is terminated"
SHAKE = os.environ.get("ZONE_SHAKE")
_SANITIZER = re.compile(
    r"AddressSanitizer|ThreadSanitizer|LeakSanitizer|UndefinedBehaviorSanitizer|runtime error:"
)


class Daemon:
    """`zone-manager` in a root. It may be started again after it ended; the log goes on."""

    def __init__(self, root, program=BUILD / "bin" / "zone-manager"):
        self.root = root
        self.program = program
        self.process = None
        self._log = root.scratch / "zone-manager.log"
        self._log.touch()
        self._offset = 0
        self._partial = ""
        self._lines = []
        self._records = []

    # Life

    def start(self, env=None, wait=None):
        """Starts the daemon with these environment variables too; with `wait`, waits for such a record."""
        environment = {"ZONE_LOG_TARGET": "console"}
        environment.update(env or {})
        if SHAKE:
            environment.update({"ZONE_SHAKE": SHAKE, "LD_PRELOAD": BUILD / "tests" / "fake" / "shaker.so"})
        # ThreadSanitizer needs its addresses where they always are.
        prefix = ["setarch", "-R"] if "thread" in SANITIZE else []
        mark = self.mark()
        with open(self._log, "ab") as log:
            self.process = self.root.popen(
                [*prefix, self.program], environment, stdout=log, stderr=subprocess.STDOUT
            )
        if wait is not None:
            self.wait_for(wait, after=mark)
        return self

    @property
    def pid(self):
        """The machine's number for it; the log and D-Bus show `inner_pid`."""
        return self.process.pid

    @property
    def inner_pid(self):
        return self.process.inner_pid

    @property
    def running(self):
        return self.process is not None and self.process.running

    def signal(self, number=signal.SIGTERM):
        self.process.signal(number)

    def wait_exit(self, timeout=20.0):
        """The exit status as a shell shows it for an exit (255 for -1), negative for a signal."""
        try:
            return self.process.wait(timeout)
        except subprocess.TimeoutExpired:
            message = f"the daemon did not end within {timeout * SCALE:.1f} s\n{self.tail()}"
            raise AssertionError(message) from None

    def stop(self, timeout=20.0):
        """SIGTERM, then the exit status."""
        if self.running:
            self.signal(signal.SIGTERM)
        return self.wait_exit(timeout)

    # Log

    def _read(self):
        with open(self._log, encoding="utf-8", errors="replace", newline="\n") as log:
            log.seek(self._offset)
            text = log.read()
            self._offset = log.tell()
        *complete, self._partial = (self._partial + text).split("\n")
        for line in complete:
            self._lines.append(line)
            record = records.parse(line)
            if record is not None:
                self._records.append(record)

    @property
    def lines(self):
        """All output, record or not."""
        self._read()
        return self._lines

    @property
    def records(self):
        self._read()
        return self._records

    @property
    def strays(self):
        """Output that is no record, such as a warning of GLib."""
        return [line for line in self.lines if line and records.parse(line) is None]

    def bodies(self, level=None, after=0):
        """The messages themselves, of one level or of all."""
        return [record.body for record in self.records[after:] if level in (None, record.level)]

    def mark(self):
        """The present end of the log, for `after`."""
        return len(self.records)

    def find(self, wanted, after=0, level=None):
        """The first record from `after` on whose body holds the text, or in which the compiled expression is
        found; None without one."""
        for record in self.records[after:]:
            if level in (None, record.level) and _matches(wanted, record.body):
                return record
        return None

    def count(self, wanted, after=0):
        """How many records from `after` on match, by the same rule as `find`."""
        return sum(_matches(wanted, record.body) for record in self.records[after:])

    def _wait(self, look, timeout, wanted):
        """Waits until `look` finds a record. Fails at once when the daemon ended without it."""

        def found_or_ended():
            ended = not self.running
            return look() or ended

        try:
            result = eventually(found_or_ended, timeout, f"record {wanted!r}")
        except AssertionError as error:
            raise AssertionError(f"{error}\n{self.tail()}") from None
        assert result is not True, f"the daemon ended without record {wanted!r}\n{self.tail()}"
        return result

    def wait_for(self, wanted, timeout=10.0, after=0, level=None):
        """Waits for a record, by the same rule as `find`. Fails at once when the daemon ended without it."""
        return self._wait(lambda: self.find(wanted, after, level), timeout, wanted)

    def wait_order(self, *wanted, timeout=10.0, after=0):
        """Waits for records and returns them. Those of one thread must come in the given order; what two
        threads write at the same time has none: a line that tells of something sent is written after the
        sending, and the receiver may have told of it by then."""
        found = []
        reached = {}

        def next_one(each):
            for index, record in enumerate(self.records):
                if index >= reached.get(record.tid, after) and _matches(each, record.body):
                    reached[record.tid] = index + 1
                    return record
            return None

        for each in wanted:
            found.append(self._wait(lambda each=each: next_one(each), timeout, each))
        return found

    def never(self, wanted, duration, after=0):
        """Fails when a matching record comes within `duration` seconds."""
        never(lambda: self.find(wanted, after), duration, f"record {wanted!r}")

    def tail(self, lines=TAIL):
        return "\n".join(self.lines[-lines:])

    def sanitizer_report(self):
        """What a sanitizer wrote, from its first line on; empty when none did."""
        lines = [*self.lines, self._partial]
        for index, line in enumerate(lines):
            if _SANITIZER.search(line):
                return "\n".join(lines[max(0, index - 1) :])
        return ""


def _matches(wanted, body):
    return bool(wanted.search(body)) if isinstance(wanted, re.Pattern) else wanted in body
