"""The catalogue of the daemon's messages: what its log may hold, and what of it the tests have seen."""

import os
import re
import tempfile
from dataclasses import dataclass

from .records import COLOURS, LEVELS
from .root import PROJECT

CATALOGUE = PROJECT / "tests" / "messages" / "catalogue.txt"
_CALL = re.compile(r'\bZLOG([DIWEF])\(\s*((?:"(?:[^"\\]|\\.)*"\s*)+)')
_LITERAL = re.compile(r'"((?:[^"\\]|\\.)*)"')
_CONVERSION = re.compile(r"%[lz]?([dus])")
_PATTERNS = {"d": r"-?\d+", "u": r"\d+", "s": r".*"}


@dataclass(frozen=True)
class Message:
    level: str
    file: str
    func: str
    text: str


@dataclass(frozen=True)
class Call:
    """A place in the sources where a message is written."""

    path: str
    line: int
    level: str
    text: str

    @property
    def file(self):
        return self.path.rpartition("/")[2]


def catalogue(path=CATALOGUE):
    """The messages that are listed. ValueError for a line that is none."""
    found, file = [], ""
    for line in path.read_text(encoding="utf-8").splitlines():
        if not line or line.startswith("#"):
            continue
        if not line.startswith(" "):
            file = line
            continue
        match = re.fullmatch(r"  ([DIWEF]) (\S+) \| (.*)", line)
        if match is None or not file:
            raise ValueError(f"{path}: no message: {line}")
        found.append(Message(LEVELS[match[1]], file, match[2], match[3]))
    return found


def calls(folder=PROJECT / "source"):
    """All places below a folder of sources where a message is written."""
    found = []
    for path in sorted(folder.rglob("*.cpp")):
        source = path.read_text(encoding="utf-8")
        for match in _CALL.finditer(source):
            escaped = "".join(_LITERAL.findall(match[2]))
            text = escaped.encode().decode("unicode_escape")
            line = source.count("\n", 0, match.start()) + 1
            found.append(Call(str(path.relative_to(folder.parent)), line, LEVELS[match[1]], text))
    return found


def expression(text):
    """What the bodies of a message's records look like."""
    pattern, position = "", 0
    for match in _CONVERSION.finditer(text):
        pattern += re.escape(text[position : match.start()]) + _PATTERNS[match[1]]
        position = match.end()
    return re.compile(pattern + re.escape(text[position:]), re.DOTALL)


class Checker:
    """Holds records against the catalogue."""

    def __init__(self, messages):
        self._files = {message.file for message in messages}
        self._expressions = {}
        for message in messages:
            key = (message.level, message.file, message.func)
            self._expressions.setdefault(key, []).append(expression(message.text))

    def complaint(self, record):
        """What is wrong with a record; empty when nothing, or when none of the catalogue's files wrote it."""
        if record.file not in self._files:
            return ""
        known = self._expressions.get((record.level, record.file, record.func), ())
        if not any(each.fullmatch(record.body) for each in known):
            return "the catalogue has no such message at this level of this function"
        if record.colours != f"01;{COLOURS[record.level]};40":
            return f"these are not the colours of the level: {record.colours}"
        if not re.search(rf"(^|[ :&*]){re.escape(record.func)}\(", record.signature):
            return f"this is not the signature of the function: {record.signature}"
        return ""


_CHECKER = Checker(catalogue())


def complaints(records):
    """A line for each record that is no message of the daemon. Notes where the others came from, a
    "FILE:LINE" each, in a new file in the folder that the environment variable ZONE_MESSAGES_SEEN names, if
    there is one."""
    found, seen = [], set()
    for record in records:
        complaint = _CHECKER.complaint(record)
        if complaint:
            found.append(f"{record.file}:{record.line} {record.func}() wrote {record}\n  {complaint}")
        else:
            seen.add(f"{record.file}:{record.line}\n")
    folder = os.environ.get("ZONE_MESSAGES_SEEN")
    if folder and seen:
        descriptor, _ = tempfile.mkstemp(prefix="system-", dir=folder)
        with open(descriptor, "w", encoding="utf-8") as notes:
            notes.writelines(sorted(seen))
    return found
