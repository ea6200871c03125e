"""The live account of the demo on the terminal, and the list of what has to be seen."""

import os
import sys
import textwrap
import time

WHO_WIDTH = 14
EVENT_INDENT = 8 + WHO_WIDTH + 2
STYLES = {"bold": "1", "dim": "2", "good": "32", "bad": "31", "note": "36"}


class Account:
    """Prints headings and time-stamped events; on a terminal also, in place, what is waited for."""

    def __init__(self):
        terminal = sys.stdout.isatty() and os.environ.get("TERM", "dumb") != "dumb"
        self._live = terminal
        self._coloured = terminal and not os.environ.get("NO_COLOR")
        self._width = 79
        if terminal:
            self._width = max(50, min(os.get_terminal_size(sys.stdout.fileno()).columns, 80) - 1)
        self._zero = time.monotonic()
        self._status = ""

    def heading(self, text):
        self._print("")
        self._print(self._styled(text, "bold"))

    def text(self, text=""):
        """A paragraph; lines that begin with a blank stand as they are."""
        for line in text.splitlines() or [""]:
            wrapped = [line] if line.startswith(" ") else textwrap.wrap(line, self._width - 2)
            for part in wrapped or [""]:
                self._print("  " + part if part else "")

    def event(self, who, what, style=None):
        """One thing that happened, now."""
        stamp = f"{time.monotonic() - self._zero:6.1f}"
        lines = textwrap.wrap(what, self._width - EVENT_INDENT, break_on_hyphens=False)
        self._print(f"{self._styled(stamp, 'dim')}  {who:<{WHO_WIDTH}}  {self._styled(lines[0], style)}")
        for line in lines[1:]:
            self._print(" " * EVENT_INDENT + self._styled(line, style))

    def waiting(self, what, seconds, limit):
        """Called again and again while something is waited for; the first time with 0 seconds."""
        if not self._live:
            if self._status != what and seconds >= 2:
                self._status = what
                self.event("", f"waiting for {what}, {limit} s at most")
            return
        status = f"        waiting for {what}: {seconds:.0f} of {limit} s at most"[: self._width]
        if seconds >= 0.5 and status != self._status:
            self._status = status
            self._write("\r\x1b[K" + self._styled(status, "dim"))

    def waited(self):
        """Ends the waiting."""
        if self._live and self._status:
            self._write("\r\x1b[K")
        self._status = ""

    def _styled(self, text, style):
        return f"\x1b[{STYLES[style]}m{text}\x1b[0m" if self._coloured and style else text

    def _print(self, line):
        if self._live and self._status:
            line = "\r\x1b[K" + line
            self._status = ""
        self._write(line + "\n")

    @staticmethod
    def _write(text):
        try:
            sys.stdout.write(text)
            sys.stdout.flush()
        except BrokenPipeError:
            # Nobody reads any more; the demo still has to clear up.
            sys.stdout = open(os.devnull, "w", encoding="utf-8")


class Checks:
    """What has to be seen, in order, each with its text. The file always says how far it got."""

    def __init__(self, path, account, texts):
        self._path = path
        self._account = account
        self._texts = texts
        self._seen = set()
        self._save()

    def seen(self, key, what):
        """The check holds, for this reason."""
        self._account.event("ok", what, "good")
        self._seen.add(key)
        self._save()

    def check(self, key, holds, what, otherwise):
        """The check holds, or it does not."""
        if holds:
            self.seen(key, what)
        else:
            self._account.event("NOT SEEN", otherwise, "bad")

    @property
    def all_seen(self):
        return self._seen == set(self._texts)

    def _save(self):
        words = {True: "ok", False: "NOT SEEN"}
        lines = [f"{words[key in self._seen]}\t{text}\n" for key, text in self._texts.items()]
        self._path.write_text("".join(lines))
