"""What a run shows on the way: one line for each step, and that a long one goes on."""

import os
import sys
import threading
import time

PATIENCE = 2  # seconds without a word
STEP = 0.2  # seconds between two looks, on a terminal
REPORT = 15  # seconds between two lines, elsewhere


class Terminal:
    def __init__(self, stream=sys.stdout):
        self.stream = stream
        self.live = stream.isatty() and os.environ.get("TERM", "dumb") != "dumb"
        self.coloured = self.live and not os.environ.get("NO_COLOR")
        self.clear = "\r\x1b[K" if self.live else ""

    def colour(self, number, text):
        return f"\x1b[{number}m{text}\x1b[0m" if self.coloured else text

    def line(self, text):
        print(f"{self.clear}{text}", file=self.stream, flush=True)

    def same_line(self, text):
        print(f"{self.clear}{text}", end="", file=self.stream, flush=True)


class Step:
    """Times what runs inside it. What runs sets `done` and `total` when it can count, and may tell findings
    before it ends."""

    def __init__(self, terminal, name):
        self.terminal = terminal
        self.name = name
        self.done = self.total = 0
        self.told = set()
        self.began = time.monotonic()
        self.ended = threading.Event()
        self.thread = threading.Thread(target=self.show, daemon=True)

    @property
    def seconds(self):
        return time.monotonic() - self.began

    def tell(self, findings):
        for finding in findings:
            if finding not in self.told:
                self.told.add(finding)
                self.terminal.line(finding)

    def show(self):
        wait = PATIENCE
        while not self.ended.wait(wait):
            wait = STEP if self.terminal.live else REPORT
            count = f"  {self.done} of {self.total}" if self.total else ""
            text = f"  {self.name:13} {self.seconds:5.0f} s{count}"
            (self.terminal.same_line if self.terminal.live else self.terminal.line)(text)

    def __enter__(self):
        self.thread.start()
        return self

    def __exit__(self, *_):
        self.ended.set()
        self.thread.join()
        return False
