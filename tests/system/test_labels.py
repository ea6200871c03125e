"""The labels that each kind of zone asks of its directories."""

import re

import pytest
from zonetest import READY

ROOT_PATH = "/var/lib/lxc/red"
WRITABLE = "/opt/var/lib/lxc/red"
OPT = "/opt/var/lib/lxc/red/opt"
REFUSED = [
    "error: The smack label(!) of zone(red) is invalid...",
    "error: Failed to create Zone Object - red[0]",
]


def judged(daemon):
    """Starts the daemon and returns what the check of the one zone says, without the lines before and
    behind it."""
    daemon.start(wait=re.compile(r"Zone count is set to \[1 / \d\]"))
    if accepted(daemon):
        daemon.wait_for(READY)
    else:
        assert daemon.wait_exit() == 255
    records = daemon.records
    main = [str(record) for record in records if record.tid == records[0].tid]
    lines = [re.sub(r"\[red:\d+\]", "[red]", line) for line in main]
    begin = next(number for number, line in enumerate(lines) if line.startswith("info: [Zone Name : red]"))
    end = next(
        number
        for number, line in enumerate(lines)
        if line.startswith(("info: thread is created(thread name : red", REFUSED[0]))
    )
    return lines[begin + 1 : end]


def accepted(daemon):
    return daemon.find(re.compile(r"Zone count is set to \[1 / 1\]")) is not None


def no_label(path, wanted=None):
    label = f'("{wanted}")' if wanted else ""
    return f'error: Failed to get smack label of "{path}"{label} - "No data available"'


def changed(path, before, after):
    return [
        f'info: "{path}" smack label is "{before}"({len(before)})',
        f'info: "{path}" smack label is changed to "{after}" successfully',
    ]


def writable(kind, path):
    word = "rw path : " if kind in ("Hybrid", "Isolation") else ""
    return f"info: [red] RW path of {kind} Zone(RW) is created...[{word}{path}]"


def told(level, kind, access):
    return f"{level}: [red] Access Level of {kind} Zone({access}) is"


def permitted(kind, access, path, label):
    return f"{told('info', kind, access)} permitted...[{path} / {label} == {label}](ref count : 1)"


def is_set(kind, access, path, label):
    return f"{told('info', kind, access)} set successfully...[{path} => {label}](ref count : 1)"


def not_permitted(kind, access, path, label):
    return f"{told('error', kind, access)} not permitted...[{path} != {label}](ref count : 1)"


def seen(kind, access, path, label):
    where = f"[{access} path : {path} / {label} - _](ref count : 1)"
    return f'info: [red] "red" is {kind} Zone...It is permitted...{where}'


# Real containers


def test_each_kind_of_real_container_gets_its_labels(zones, daemon, root):
    for name in ("hybrid", "isolation", "protection"):
        zones.define(name, name)
    daemon.start(wait=READY)
    assert "Zone count is set to [3 / 3]" in daemon.bodies("info")
    for name, labels in (
        ("hybrid", [None, None, None]),
        ("isolation", [None, "System", "_"]),
        ("protection", ["!", "!", "_"]),
    ):
        paths = [f"/var/lib/lxc/{name}", f"/opt/var/lib/lxc/{name}", f"/opt/var/lib/lxc/{name}/opt"]
        assert [root.label(path) for path in paths] == labels, name
    for end in ("", "/opt"):
        assert root.path(f"/opt/var/lib/lxc/hybrid{end}").stat().st_mode & 0o7777 == 0o755


def test_a_real_container_without_first_labels_is_refused_or_not_by_its_kind(zones, daemon, root):
    for name in ("hybrid", "isolation", "protection"):
        zones.define(name, name, unlabelled=True)
    daemon.start(wait="Zone count is set to [3 / 1]")
    daemon.wait_for("Can not get a zone object (2 / 3)")
    told = [body for body in daemon.bodies("error") if "invalid" in body or "Zone Object" in body]
    # LXC lists containers in no order of its own.
    assert sorted(re.sub(r"\[\d\]$", "", body) for body in told) == [
        "Failed to create Zone Object - isolation",
        "Failed to create Zone Object - protection",
        "The smack label(!) of zone(isolation) is invalid...",
        "The smack label(!) of zone(protection) is invalid...",
    ]
    assert root.label("/var/lib/lxc/protection") is None


# Hybrid zones


def test_a_hybrid_zone_needs_no_label_and_keeps_what_it_has(fake, daemon, root):
    fake.define("red", "hybrid")
    root.set_label(ROOT_PATH, "Anything")
    root.set_label(OPT, "Else")
    assert judged(daemon) == [
        seen("Hybrid", "ro", ROOT_PATH, "Anything"),
        writable("Hybrid", WRITABLE),
        no_label(WRITABLE),
        seen("Hybrid", "rw", WRITABLE, ""),
        writable("Hybrid", OPT),
        seen("Hybrid", "rw", OPT, "Else"),
        'info: [red] "red" is Hybrid Zone...It is permitted...',
    ]
    assert accepted(daemon)
    assert [root.label(path) for path in (ROOT_PATH, WRITABLE, OPT)] == ["Anything", None, "Else"]


@pytest.mark.parametrize("kind", ["hybrid", "isolation"])
def test_without_its_root_a_zone_is_refused(fake, daemon, root, kind):
    fake.define("red", kind)
    root.remove(ROOT_PATH)
    assert judged(daemon) == [f"error: [red] There is no read-only path...[{ROOT_PATH} / _]"]
    errors = [str(record) for record in daemon.records if record.level == "error"]
    assert errors[1:3] == REFUSED
    # Its container was never taken.
    assert fake.calls("lxc_container_get") == []


@pytest.mark.parametrize(
    ("kind", "path_word", "end"),
    [
        ("Hybrid", "rw path : ", ""),
        ("Isolation", "rw path : ", "(ref count : 1)"),
        ("Protection", "", "(ref count : 1)"),
    ],
)
def test_a_writable_directory_that_cannot_be_made_refuses_the_zone(fake, daemon, root, kind, path_word, end):
    fake.define("red", kind.lower())
    root.set_label(ROOT_PATH, "!")
    root.remove("/opt/var/lib/lxc")
    lines = judged(daemon)
    gone = '"No such file or directory"'
    assert lines[-3:] == [
        f"debug: The contianer path({WRITABLE}) does not exist - {gone}",
        f"error: Failed to create the container path({WRITABLE}) - {gone}",
        f"error: [red] Failed to create RW path of {kind} Zone(RW)...[{path_word}{WRITABLE}]{end}",
    ]
    assert not accepted(daemon)


# Isolation zones


def test_an_isolation_zone_gets_its_labels_and_its_root_none(fake, daemon, root):
    fake.define("red", "isolation")
    assert judged(daemon) == [
        no_label(ROOT_PATH),
        seen("Isolation", "ro", ROOT_PATH, ""),
        writable("Isolation", WRITABLE),
        *changed(WRITABLE, "_", "System"),
        is_set("Isolation", "RW", WRITABLE, "System"),
        writable("Isolation", OPT),
        permitted("Isolation", "RW", OPT, "_"),
        'info: [red] "red" is Isolation Zone...It is permitted...',
    ]
    assert accepted(daemon)
    assert [root.label(path) for path in (ROOT_PATH, WRITABLE, OPT)] == [None, "System", "_"]


def test_labels_that_are_right_are_not_written(fake, daemon, root):
    fake.define("red", "isolation")
    root.set_label(WRITABLE, "System")
    before = root.path(WRITABLE).stat().st_ctime_ns
    assert permitted("Isolation", "RW", WRITABLE, "System") in judged(daemon)
    assert root.path(WRITABLE).stat().st_ctime_ns == before


def test_the_beginning_of_the_wanted_label_counts_as_set(fake, daemon, root):
    fake.define("red", "isolation")
    root.set_label(WRITABLE, "Sys")
    lines = judged(daemon)
    assert f'info: "{WRITABLE}" smack label is already set as "System"' in lines
    assert is_set("Isolation", "RW", WRITABLE, "System") in lines
    assert root.label(WRITABLE) == "Sys"


def test_a_longer_label_is_another(fake, daemon, root):
    fake.define("red", "isolation")
    root.set_label(WRITABLE, "System::Shared")
    root.set_label(OPT, "System")
    judged(daemon)
    assert (root.label(WRITABLE), root.label(OPT)) == ("System", "_")


def test_an_isolation_zone_without_a_first_label_is_refused(fake, daemon, root):
    fake.define("red", "isolation", labels=None)
    root.mkdir("/opt/var/lib/lxc")
    missing = f'debug: The contianer path({WRITABLE}) does not exist - "No such file or directory"'
    assert judged(daemon) == [
        no_label(ROOT_PATH),
        seen("Isolation", "ro", ROOT_PATH, ""),
        missing,
        writable("Isolation", WRITABLE),
        no_label(WRITABLE),
        no_label(WRITABLE, "System"),
        not_permitted("Isolation", "RW", WRITABLE, "System"),
    ]
    assert not accepted(daemon)
    assert root.path(WRITABLE).stat().st_mode & 0o7777 == 0o755
    assert not root.exists(OPT)


def test_the_directory_below_needs_a_first_label_of_its_own(fake, daemon, root):
    fake.define("red", "isolation")
    root.set_label(OPT, None)
    assert judged(daemon)[-2:] == [no_label(OPT, "_"), not_permitted("Isolation", "RW", OPT, "_")]
    assert not accepted(daemon)


# Protection zones


def test_a_protection_zone_gets_its_labels(fake, daemon, root):
    fake.define("red", "protection")
    assert judged(daemon) == [
        *changed(ROOT_PATH, "_", "!"),
        is_set("Protection", "RO", ROOT_PATH, "!"),
        writable("Protection", WRITABLE),
        *changed(WRITABLE, "_", "!"),
        is_set("Protection", "RW", WRITABLE, "!"),
        writable("Protection", OPT),
        permitted("Protection", "RW", OPT, "_"),
        'info: [red] "red" is Protection Zone...It is permitted...',
    ]
    assert accepted(daemon)
    assert [root.label(path) for path in (ROOT_PATH, WRITABLE, OPT)] == ["!", "!", "_"]


def test_a_protection_zone_without_a_first_label_is_refused(fake, daemon, root):
    fake.define("red", "protection", labels=None)
    assert judged(daemon) == [
        no_label(ROOT_PATH),
        no_label(ROOT_PATH, "!"),
        not_permitted("Protection", "RO", ROOT_PATH, "!"),
    ]
    assert not accepted(daemon)
    assert not root.exists(WRITABLE)


def test_a_protection_zone_without_its_root_is_refused(fake, daemon, root):
    fake.define("red", "protection")
    root.remove(ROOT_PATH)
    assert judged(daemon) == [
        f'error: Failed to get smack label of "{ROOT_PATH}" - "No such file or directory"',
        f"error: [red] There is no read-only path({ROOT_PATH})...[ / !](ref count : 1)",
    ]
    assert not accepted(daemon)


@pytest.mark.parametrize("label", ["_", "!"])
def test_a_root_on_a_read_only_mount_has_to_have_its_label_already(fake, daemon, root, label):
    fake.define("red", "protection")
    root.set_label(ROOT_PATH, label)
    root.run(f"mount --bind {ROOT_PATH} {ROOT_PATH} && mount -o remount,ro,bind {ROOT_PATH}")
    lines = judged(daemon)
    if label == "!":
        assert lines[0] == permitted("Protection", "RO", ROOT_PATH, "!")
        assert accepted(daemon)
    else:
        assert lines == [f"error: [red] This is RO directory({ROOT_PATH})..."]
        assert not accepted(daemon)
