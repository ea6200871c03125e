"""The catalogue of messages against the sources, and how records are held against it."""

from collections import Counter
from dataclasses import replace

import pytest
from zonetest import messages, records

LINE = (
    "I/ZONE_MANAGER(12:34): Zone.cpp: start(56) > \x1b[01;32;40m"
    "[virtual bool ZoneCore::Zone::start(const std::string&):56] red is started(1)\x1b[0m"
)
RECORD = records.parse(LINE)
CHECKER = messages.Checker([messages.Message("info", "Zone.cpp", "start", "%s is started(%d)")])


def test_the_catalogue_lists_the_messages_of_the_sources():
    listed = {(message.level, message.file, message.text) for message in messages.catalogue()}
    written = {(call.level, call.file, call.text) for call in messages.calls()}
    assert listed - written == set(), "listed but not written"
    assert written - listed == set(), "written but not listed"


def test_every_message_is_listed_once():
    assert [each for each, count in Counter(messages.catalogue()).items() if count > 1] == []


def test_a_record_of_a_message_is_nothing_to_complain_about():
    assert CHECKER.complaint(RECORD) == ""
    assert CHECKER.complaint(replace(RECORD, file="Other.cpp", body="anything")) == ""


@pytest.mark.parametrize(
    ("change", "complaint"),
    [
        ({"level": "error"}, "no such message"),
        ({"func": "stop"}, "no such message"),
        ({"body": "red is stopped(1)"}, "no such message"),
        ({"body": "red is started(one)"}, "no such message"),
        ({"body": "red is started(1) "}, "no such message"),
        ({"colours": "01;31;40"}, "colours"),
        ({"signature": "bool ZoneCore::Zone::restart()"}, "signature"),
    ],
)
def test_another_record_is_complained_about(change, complaint):
    assert complaint in CHECKER.complaint(replace(RECORD, **change))


def test_calls_are_found_in_the_sources(tmp_path):
    folder = tmp_path / "source" / "Core"
    folder.mkdir(parents=True)
    folder.joinpath("Zone.cpp").write_text('a();\nZLOGE("one \\"%s\\""\n      " two", x);\nZLOGI("three");\n')
    assert messages.calls(tmp_path / "source") == [
        messages.Call("source/Core/Zone.cpp", 2, "error", 'one "%s" two'),
        messages.Call("source/Core/Zone.cpp", 4, "info", "three"),
    ]


def test_a_line_that_is_no_message_is_refused(tmp_path):
    path = tmp_path / "catalogue.txt"
    path.write_text("Zone.cpp\n  I start without a bar\n")
    with pytest.raises(ValueError, match="without a bar"):
        messages.catalogue(path)


def test_what_was_seen_is_noted(tmp_path, monkeypatch):
    monkeypatch.setenv("ZONE_MESSAGES_SEEN", str(tmp_path))
    own = replace(RECORD, file="Own.cpp")
    assert messages.complaints([own, own]) == []
    assert [path.read_text() for path in tmp_path.iterdir()] == ["Own.cpp:56\n"]
