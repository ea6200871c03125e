"""The daemon's log records, as the console shows them."""

import re
from dataclasses import dataclass

LEVELS = {"D": "debug", "I": "info", "W": "warning", "E": "error", "F": "fatal"}
COLOURS = {"debug": "34", "info": "32", "warning": "35", "error": "31", "fatal": "35"}

_LINE = re.compile(
    r"(?P<letter>[DIWEF])/ZONE_MANAGER\((?P<pid>\d+):(?P<tid>\d+)\): "
    r"(?P<file>[^:]+): (?P<func>[^()]+)\((?P<line>\d+)\) > "
    r"\x1b\[(?P<colours>\d+;\d+;\d+)m\[(?P<signature>.*?):(?P<line_again>\d+)\] (?P<body>.*)\x1b\[0m\Z"
)
# The lambdas' and operators' names hold parentheses of their own.
_LINE_ODD_NAME = re.compile(_LINE.pattern.replace(r"[^()]+", ".+?", 1))


@dataclass(frozen=True)
class Record:
    level: str
    file: str
    func: str
    line: int
    colours: str
    signature: str
    body: str
    pid: int
    tid: int

    def __str__(self):
        return f"{self.level}: {self.body}"


def parse(text):
    """The record in one line of output, None when the line is none."""
    match = _LINE.match(text) or _LINE_ODD_NAME.match(text)
    if match is None or match["line"] != match["line_again"]:
        return None
    return Record(
        level=LEVELS[match["letter"]],
        file=match["file"],
        func=match["func"],
        line=int(match["line"]),
        colours=match["colours"],
        signature=match["signature"],
        body=match["body"],
        pid=int(match["pid"]),
        tid=int(match["tid"]),
    )
