"""The documents against what they speak of: the messages that they quote, and the files that they link to."""

import pathlib
import re
import sys

import pytest

PROJECT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(PROJECT / "tests" / "system"))

from zonetest import messages, records  # noqa: E402 (the path comes first)

OPERATIONS = PROJECT / "docs" / "operations.md"
DOCUMENTS = [PROJECT / "README.md", PROJECT / "CHANGELOG.md", *sorted((PROJECT / "docs").glob("*.md"))]
MESSAGES = {(message.level, message.text) for message in messages.catalogue()}

FENCE = re.compile(r"^ *```(\w*)\n(.*?)^ *```$", re.MULTILINE | re.DOTALL)
QUOTE = re.compile(r"`([DIWEF]) ([^`]+)`")
LINK = re.compile(r"\[[^\]]+\]\(([^()\s]+)\)")
HEADING = re.compile(r"^#+ (.+)$", re.MULTILINE)


def without_examples(document):
    return FENCE.sub("", document)


def quotes(document):
    """The messages that a document quotes: pairs of a level and a text."""
    return {(records.LEVELS[letter], text) for letter, text in QUOTE.findall(without_examples(document))}


def log_lines(document):
    """The lines of its examples of a log: pairs of a level and a record's body."""
    blocks = [body for language, body in FENCE.findall(document) if language == "log"]
    return [(records.LEVELS[line[0]], line[2:]) for block in blocks for line in block.splitlines()]


def links(document):
    """The places in the tree that it links to: pairs of a path, empty for the document itself, and an anchor,
    empty for the whole."""
    found = [link.partition("#") for link in LINK.findall(without_examples(document)) if "://" not in link]
    return [(path, anchor) for path, _, anchor in found]


def anchors(document):
    """The anchors of a document's headings; the second of the same name gets a number."""
    found = []
    for heading in HEADING.findall(without_examples(document)):
        name = re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-")
        count = sum(re.fullmatch(rf"{name}(-\d+)?", other) is not None for other in found)
        found.append(f"{name}-{count}" if count else name)
    return found


def test_every_message_is_explained_to_operators():
    assert MESSAGES - quotes(OPERATIONS.read_text()) == set()


@pytest.mark.parametrize("path", DOCUMENTS, ids=lambda path: path.name)
def test_every_quoted_message_is_one_of_the_daemons(path):
    assert quotes(path.read_text()) - MESSAGES == set()


def test_every_line_of_a_shown_log_is_one_of_the_daemons():
    lines = log_lines(OPERATIONS.read_text())
    assert lines
    for level, body in lines:
        known = [messages.expression(text) for other, text in MESSAGES if other == level]
        assert any(expression.fullmatch(body) for expression in known), body


@pytest.mark.parametrize("path", DOCUMENTS, ids=lambda path: path.name)
def test_every_link_leads_somewhere(path):
    for target, anchor in links(path.read_text()):
        leads_to = path.parent / target if target else path
        assert leads_to.exists(), target
        assert not anchor or anchor in anchors(leads_to.read_text()), f"{target}#{anchor}"


def test_what_a_document_says_is_found_in_it():
    document = (
        "# The end\n`I one %s` and `W two`, `zonectl list`\n"
        "## The end\n[a](b.md) [c](d.md#e) [f](#the-end-1) [w](https://example.org)\n"
        "```log\nE three `I four`\n```\n"
        "```sh\n# no [g](h.md) heading\n```\n"
    )
    assert quotes(document) == {("info", "one %s"), ("warning", "two")}
    assert log_lines(document) == [("error", "three `I four`")]
    assert links(document) == [("b.md", ""), ("d.md", "e"), ("", "the-end-1")]
    assert anchors(document) == ["the-end", "the-end-1"]
