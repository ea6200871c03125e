"""The examples of docs/interfaces.md: what is shown is what is built and run here."""

import re
import signal
import subprocess

import pytest
from zonetest import PROJECT, READY, eventually, send_states

LISTED = "client connection is added to GIO Channel List"
DOCUMENT = PROJECT / "docs" / "interfaces.md"
EXAMPLES = PROJECT / "docs" / "examples"
SHOWN = re.compile(r"^\[`examples/(\S+)`\]\(examples/\1\):\n\n```(\w+)\n(.*?)^```$", re.MULTILINE | re.DOTALL)
BUILD_LINE = re.compile(r"^//   build: (cc .*)$", re.MULTILINE)
OTHER = ["setpriv", "--reuid=1000", "--regid=1000", "--clear-groups"]


@pytest.fixture
def served(fake, bus, daemon):
    for name, kind in (("red", "hybrid"), ("blue", "isolation"), ("black", "protection")):
        fake.define(name, kind)
    daemon.start(wait=READY)
    bus.wait_owned()
    return daemon


@pytest.fixture
def program(root, tmp_path):
    """A function that gives a path in the root for an example; C ones are compiled by their own line."""

    def build(name):
        source = EXAMPLES / name
        if source.suffix == ".sh":
            return str(source)
        line = BUILD_LINE.search(source.read_text())[1]
        strict = line.replace("cc ", "cc -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror ", 1)
        strict = strict.replace(f"-o {source.stem}", f"-o {tmp_path / source.stem}")
        subprocess.run(strict, shell=True, check=True, cwd=EXAMPLES, timeout=120)
        installed = f"/usr/local/bin/{source.stem}"
        root.install(tmp_path / source.stem, installed)
        return installed

    return build


class Output:
    """What a program that runs in the root prints."""

    def __init__(self, root, command):
        self.path = root.scratch / f"example-{id(self)}.log"
        with open(self.path, "wb") as log:
            self.process = root.popen(command, stdout=log, stderr=subprocess.STDOUT)

    @property
    def lines(self):
        return self.path.read_text().splitlines()

    def wait_for(self, lines, timeout=10):
        eventually(lambda: self.lines[: len(lines)] == lines, timeout, f"{lines} from the example")


def test_the_document_shows_every_example_as_it_is():
    shown = SHOWN.findall(DOCUMENT.read_text())
    assert sorted(name for name, _, _ in shown) == sorted(path.name for path in EXAMPLES.iterdir())
    for name, language, text in shown:
        assert text == (EXAMPLES / name).read_text(), name
        assert name.endswith(f".{language}")


def test_the_documents_links_lead_somewhere():
    text = DOCUMENT.read_text()
    headings = {
        re.sub(r"[^\w -]", "", heading.lower()).replace(" ", "-")
        for heading in re.findall(r"^#+ (.*)$", text, re.MULTILINE)
    }
    targets = re.findall(r"\]\((\S+?)\)", text)
    assert targets
    for target in targets:
        inside = target.startswith("#")
        assert target[1:] in headings if inside else (DOCUMENT.parent / target).exists(), target


# Calls


def test_start_zone(served, root, program):
    assert root.run([program("start-zone.sh"), "red"]).stdout == "red runs\n"
    refused = root.run([program("start-zone.sh"), "black"], check=False)
    assert refused.returncode == 1
    assert refused.stderr == "black is not a zone that may be controlled over the bus\n"


def test_list_zones(served, fake, root, program):
    fake.put("red", "state", "RUNNING")
    assert root.run([program("list-zones.sh")]).stdout == "black -1\nblue 1\nred 3\n"
    fake.unset("lxcpath")
    assert root.run([program("list-zones.sh")]).stdout == ""


def test_zone_call(served, bus, root, program):
    zone_call = program("zone-call.c")
    replies = {
        ("GetVersion", "red"): "('4.0.28/4.0.12',)",
        ("ZoneGetState", "red"): "(1,)",
        ("ZoneGetState", "black"): "(-1,)",
        ("ZoneGetInitPid", "blue"): "(-1,)",
        ("ZoneStop", "red"): "(true,)",
        ("ZoneFreeze", "red"): "(false,)",
    }
    for arguments, reply in replies.items():
        assert root.run([zone_call, *arguments]).stdout == f"{reply}\n"
    wrong = root.run([zone_call, "ZoneExplode", "red"], check=False)
    assert wrong.returncode == 1
    assert wrong.stderr.startswith("zone-call: GDBus.Error:org.freedesktop.DBus.Error.UnknownMethod: ")
    late = root.run([zone_call, "ZoneAttachWait", "red"], check=False)
    assert (late.returncode, late.stderr) == (1, "zone-call: Timeout was reached\n")
    refused = root.run([*OTHER, zone_call, "ZoneGetState", "red"], check=False)
    assert refused.stderr.startswith("zone-call: GDBus.Error:org.freedesktop.DBus.Error.AccessDenied: ")
    bus.stop()
    assert root.run([zone_call, "GetVersion", "red"], check=False).returncode == 1


def test_the_attach_of_the_document(served, root):
    (command,) = re.findall(r"^```\n(busctl .*?)^```$", DOCUMENT.read_text(), re.MULTILINE | re.DOTALL)
    assert root.run(command).stdout == "b true\n"
    assert [body for body in served.bodies("info") if body.startswith("Vector element")] == [
        "Vector element /bin/sh",
        "Vector element -l",
        "Vector element PATH=/bin",
    ]


# Watching


def watched(output, root):
    """Sends a change until the program has shown it, since it does not say when it listens; then others."""

    def first():
        send_states(root, "first", "STARTING")
        return "first STARTING" in output.lines

    eventually(first, 10, "the first change", step=0.1)
    expected = ["red FREEZING", "red FROZEN", "red FROZEN", "black RUNNING", "nobody ABORTING"]
    for line in expected:
        send_states(root, *line.split())
    eventually(lambda: output.lines[-len(expected) :] == expected, 10, f"{expected}, not {output.lines}")
    assert set(output.lines[: -len(expected)]) == {"first STARTING"}


@pytest.mark.parametrize("name", ["watch-signal.sh", "watch-signal.c", "watch-records.sh", "watch-records.c"])
def test_watch(served, root, program, name):
    watched(Output(root, [program(name)]), root)


@pytest.mark.parametrize("name", ["watch-signal.sh", "watch-signal.c"])
def test_any_user_may_watch_the_signal(served, root, program, name):
    watched(Output(root, [*OTHER, program(name)]), root)


def test_the_signal_goes_on_with_another_daemon(served, bus, root, program):
    output = Output(root, [program("watch-signal.c")])
    watched(output, root)
    assert served.stop() == 0
    mark = served.mark()
    served.start()
    served.wait_for(READY, after=mark)
    bus.wait_owned()
    eventually(lambda: send_states(root, "red", "THAWED") or "red THAWED" in output.lines, 10, step=0.1)


def test_watch_records_under_another_path_and_user(served, root, program):
    watch = program("watch-records.c")
    wrong = root.run([watch, "/elsewhere"], check=False)
    assert (wrong.returncode, wrong.stderr) == (1, "watch-records: Connection refused\n")
    # Closed at once, like any end of the stream.
    refused = root.run([*OTHER, watch], check=False)
    assert (refused.returncode, refused.stdout) == (0, "")
    served.wait_for("Process Permission is not matched [1000 <-> 0]")


def test_watch_records_of_a_long_path(fake, daemon, root, program):
    path = "/var/lib/" + "long" * 30
    fake.set("lxcpath", path)
    fake.define("red", "hybrid")
    root.mkdir(f"{path}/red")
    root.mkdir(f"/opt{path}")
    daemon.start(wait="GIO Watchers are added to thread context")
    output = Output(root, [program("watch-records.c"), path])
    daemon.wait_for(LISTED)
    send_states(root, "red", "FROZEN", lxc_path=path)
    output.wait_for(["red FROZEN"])


def test_watch_records_ends_with_the_daemon(served, root, program):
    output = Output(root, [program("watch-records.c")])
    served.wait_for(LISTED)
    assert served.stop() == 0
    assert output.process.wait() == 0
    output = root.run([program("watch-records.c")], check=False)
    assert (output.returncode, output.stderr) == (1, "watch-records: Connection refused\n")


# Init-pid


@pytest.mark.parametrize(("name", "none"), [("init-pid.sh", 0), ("init-pid.c", 1)])
def test_init_pid(served, fake, root, program, name, none):
    fake.put("blue", "init_pid", 4711)
    ask = program(name)
    assert root.run([ask, "blue"]).stdout == "4711\n"
    assert root.run([*OTHER, ask, "blue"]).stdout == "4711\n"
    for other in ("red", "black", "nobody"):
        answer = root.run([ask, other], check=False)
        assert (answer.returncode, answer.stdout) == (none, "0\n")
    served.signal(signal.SIGTERM)
    assert served.wait_exit() == 0
    gone = root.run([ask, "blue"], check=False)
    assert gone.returncode != 0
    assert "Connection refused" in gone.stderr


def test_init_pid_asks_for_nothing_that_cannot_be_answered(served, root, program):
    ask = program("init-pid.c")
    for name in ("", "x" * 64):
        assert root.run([ask, name], check=False).returncode == 2
    assert root.run([ask, "x" * 63], check=False).stdout == "0\n"
