"""scripts/mutate: what it changes in a source, and its runs over a small project of their own."""

import hashlib
import json
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import threading
import time

import pytest

PROJECT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(PROJECT / "scripts" / "mutate.d"))

import mutants  # noqa: E402
import workshop  # noqa: E402
from campaign import State, read_equivalents  # noqa: E402
from coverage_map import CoverageMap  # noqa: E402
from workshop import Children, Failure, Interrupted  # noqa: E402

LOG = """
void write(const char* format, ...);
#define ZLOG(level, format, ...) write(level "%s" format "." __VA_OPT__(,) __VA_ARGS__)
#define ZLOGI(...) ZLOG("I", __VA_ARGS__)
#define ZLOGE(...) ZLOG("E", __VA_ARGS__)
"""
DECLARATIONS = """
#define TWICE(x) ((x) + (x))
int first(int), second(int);
struct Name { bool operator==(const Name&) const; int size() const; };
"""


def write(path, text):
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text(text)
    return path


def enumerated(tree, text):
    """The mutants of a source with this text."""
    write(tree / "log.h", LOG)
    source = write(tree / "source" / "Sample.cpp", f'#include "../log.h"\n{text}')
    command = f"g++ -std=c++20 -o Sample.o -c {source}"
    commands = write(tree / "commands.json", json.dumps([{"file": str(source), "command": command}]))
    return mutants.enumerate_mutants(tree, commands)


def changes(tree, body):
    """The kinds and changes of the mutants of a function with this body."""
    text = f"{DECLARATIONS}\nint f(int a, int b, bool yes, Name left, Name right)\n{{\n{body}\n}}\n"
    return {(mutant.kind, mutant.change) for mutant in enumerated(tree, text)}


@pytest.mark.parametrize("body, expected", [
    ("return a < b;", {("operator", "< -> <=")}),
    ("return left == right;", {("operator", "== -> !=")}),
    ("return (a + b) * a;", {("operator", "+ -> -"), ("operator", "* -> /")}),
    ("return a << b | a;", {("operator", "<< -> >>"), ("operator", "| -> &")}),
    ("a += b; return a;", {("operator", "+= -> -=")}),
    ("++a; return a;", {("operator", "++ -> --")}),
    ("if (yes) { return a; } return b;", {("condition", "negate yes")}),
    ("if (a == b) { return a; } return b;", {("operator", "== -> !=")}),
    ("if (!yes) { return a; } return b;", {("operator", "! -> ")}),
    ("if (yes && a) { return a; } return b;", {("operator", "&& -> ||"), ("condition", "negate yes && a")}),
    ("if (int c = a; yes) { return c; } return b;", {("condition", "negate yes")}),
    ("if (const int c = a) { return c; } return b;", set()),
    ("while (yes) { return a; } return b;", {("condition", "negate yes")}),
    ("for (; yes;) { return a; } return b;", {("condition", "negate yes")}),
    ("return yes ? a : b;", {("condition", "negate yes")}),
    ("return 0;", {("constant", "0 -> 1")}),
    ("return 1;", {("constant", "1 -> 0")}),
    ("return 0600;", {("constant", "0600 -> 0601")}),
    ("return 0xffU;", {("constant", "0xffU -> 0x100U")}),
    ("return 1'000;", {("constant", "1'000 -> 1001")}),
    ("return 'a';", {("constant", "'a' -> 'x'")}),
    ("return yes == true;", {("operator", "== -> !="), ("constant", "true -> false")}),
    ('static const char* text = "/word"; return *text;', {("text", '"/word" -> "/wordx"')}),
    ('static const char* text = "19"; return *text;', {("text", '"19" -> "10"')}),
    ("first(a); return b;", {("deletion", "delete first(a);")}),
    ("static_cast<void>(first(a)); return b;", {("deletion", "delete static_cast<void>(first(a));")}),
    ("static_cast<void>(a); return b;", set()),
    ("// 1 + 1\n/* if (yes) first(a); */ return a;", set()),
    ("static_assert(1 + 1 == 2); return a;", set()),
    ("return __LINE__;", set()),
    ("return TWICE(a + 1);", set()),
    ("return TWICE(a) + b;", {("operator", "+ -> -")}),
])  # fmt: skip
def test_changes_what_means_something(tmp_path, body, expected):
    assert changes(tmp_path, body) == expected


def test_changes_a_record_in_every_respect(tmp_path):
    assert changes(tmp_path, 'ZLOGE("broken %d of %d as %s", a, b, "x");\nreturn a;') == {
        ("level", "ZLOGE -> ZLOGW"),
        ("text", '"broken %d of %d as %s" -> "brokenx %d of %d as %s"'),
        ("arguments", "swap a with b"),
        ("deletion", 'delete ZLOGE("broken %d of %d as %s", a, b, "x");'),
    }


def orders(tree, body):
    return {change for kind, change in changes(tree, body) if kind == "order"}


@pytest.mark.parametrize("body, expected", [
    ("first(a); second(b); return a;", {"swap first(a); with second(b);"}),
    ("first(a); b = a; return b;", set()),
    ("first(a); a = b; return a;", {"swap first(a); with a = b;"}),
    ("if (yes) { first(a); }\nsecond(b);\nreturn a;", {"swap if (yes) { first(a); } with second(b);"}),
    ("const int c = first(a); second(c); return c;", set()),
    ("left.size(); right.size(); return a;", set()),
    ("a = b; b = a; return a;", set()),
    ("first(a); return b;", set()),
])  # fmt: skip
def test_swaps_statements_whose_order_can_be_told(tmp_path, body, expected):
    assert orders(tmp_path, body) == expected


def test_makes_one_edit(tmp_path):
    found = enumerated(tmp_path, "int first(int), second(int);\nvoid f() { first(2); second(3); }\n")
    content = (tmp_path / "source/Sample.cpp").read_bytes()
    bodies = {mutant.apply(content).decode().splitlines()[2] for mutant in found}
    assert bodies == {
        "void f() { first(3); second(3); }",
        "void f() { first(2); second(4); }",
        "void f() {  second(3); }",
        "void f() { first(2);  }",
        "void f() { second(3); first(2); }",
    }


def test_names_a_mutant_alike_when_lines_are_added_above(tmp_path):
    line = "    return a + 1;\n"
    text = f"int f(int a)\n{{\n{line}}}\nint g(int a)\n{{\n{line}}}\n"
    before = {mutant.ident for mutant in enumerated(tmp_path, text)}
    assert len(before) == 4  # two of each line
    assert before == {mutant.ident for mutant in enumerated(tmp_path, f"// news\n\n{text}")}


def test_draws_the_same_sample_for_the_same_seed(tmp_path):
    text = "".join(f"int f{count}() {{ return {count + 2}; }}\n" for count in range(50))
    found = enumerated(tmp_path, text)
    assert mutants.shuffled(found, 7) == mutants.shuffled(list(reversed(found)), 7)
    assert mutants.shuffled(found, 7) != mutants.shuffled(found, 8)


def test_tells_a_source_that_it_does_not_understand(tmp_path):
    with pytest.raises(mutants.ParseError, match="unknown type"):
        enumerated(tmp_path, "nonsense f();\n")


def test_refuses_an_equivalent_without_a_reason(tmp_path):
    path = write(tmp_path / "equivalent.txt", "file: source/A.cpp\nline: return 1;\nchange: 1 -> 0\n")
    with pytest.raises(Failure, match="reason"):
        read_equivalents(path)


def test_leaves_out_tests_that_do_not_run_the_statement(tmp_path):
    mutant, = enumerated(tmp_path, "int f(int a)\n{\n    return -a;\n}\nint g() { return 'a'; }\n")[:1]
    project = type("Project", (), {"path": tmp_path})
    file = "source/Sample.cpp"
    digests = {file: hashlib.sha256((tmp_path / file).read_bytes()).hexdigest()}
    tests = {"a::runs it": {file: [4]}, "a::runs another": {file: [6]}, "a::is killed": {}, "b::reads": {}}
    path = write(tmp_path / "map.json", json.dumps({"files": digests, "tests": tests}))
    coverage = CoverageMap(path, project)
    covered = {test for test in [*tests, "new"] if coverage.covers(test, mutant)}
    assert covered == {"a::runs it", "a::is killed", "new"}
    assert not coverage.misses(mutant)


def test_knows_what_no_test_runs(tmp_path):
    mutant = enumerated(tmp_path, "int f(int a)\n{\n    return -a;\n}\n")[0]
    project = type("Project", (), {"path": tmp_path})
    file = "source/Sample.cpp"
    path = tmp_path / "map.json"
    assert not CoverageMap(path, project).misses(mutant)
    digests = {file: hashlib.sha256((tmp_path / file).read_bytes()).hexdigest()}
    write(path, json.dumps({"files": digests, "tests": {"a::enters": {file: [2]}}}))
    coverage = CoverageMap(path, project)
    assert coverage.misses(mutant) and coverage.covers("a::enters", mutant)
    write(tmp_path / file, "// changed since\n")
    assert not CoverageMap(path, project).misses(mutant)


@pytest.mark.parametrize("deafness", ["", "trap '' TERM; "])
def test_ends_what_takes_too_long_with_all_its_children(tmp_path, monkeypatch, deafness):
    monkeypatch.setattr(workshop, "GRACE", 0.2)
    marker = tmp_path / "pid"
    script = f"{deafness}sleep 100 & echo $! >{marker}; wait"
    status, _ = Children().run(["sh", "-c", script], tmp_path, limit=1)
    assert status is None
    wait_for(lambda: not pathlib.Path(f"/proc/{marker.read_text().strip()}/exe").exists())


def test_stops_what_runs(tmp_path):
    children = Children()
    started = tmp_path / "started"
    outcome = []

    def run():
        try:
            outcome.append(children.run(["sh", "-c", f"touch {started}; sleep 100"], tmp_path))
        except Interrupted as stopped:
            outcome.append(stopped)

    thread = threading.Thread(target=run)
    thread.start()
    wait_for(started.exists)
    children.stop()
    thread.join(20)
    assert [type(one) for one in outcome] == [Interrupted]
    with pytest.raises(Interrupted):
        children.run(["touch", tmp_path / "too late"], tmp_path)
    assert not (tmp_path / "too late").exists()


def test_takes_up_a_state_whose_last_line_is_torn(tmp_path):
    line = json.dumps({"ident": "aa", "status": "caught", "by": "x", "seconds": 1})
    state = State(write(tmp_path / "state", f'{line}\n{{"ident": "bb", "sta'))
    assert list(state.results) == ["aa"]


def wait_for(check, seconds=60):
    deadline = time.monotonic() + seconds
    while not check():
        assert time.monotonic() < deadline, "what was waited for did not come"
        time.sleep(0.02)


# Whole runs, over a project with one function that is tested and one that is not.

GAUGE = """int isHigh(int value)
{
    return value > 10;
}

int isLow(int value)
{
    return value < 5;
}
"""
GAUGE_TEST = """#include <cstdlib>
#include <unistd.h>
int isHigh(int value);
int main()
{
    if (std::getenv("GAUGE_BLOCKS")) {
        pause();
    }
    return isHigh(11) && !isHigh(10) ? 0 : 1;
}
"""
CMAKE = """cmake_minimum_required(VERSION 3.25)
project(gauge CXX)
add_compile_options(-Wall -Werror)
add_library(gauge STATIC source/Gauge.cpp)
add_executable(GaugeTest tests/Core/GaugeTest.cpp)
target_link_libraries(GaugeTest gauge)
enable_testing()
add_test(NAME unit.GaugeTest COMMAND env $<TARGET_FILE:GaugeTest>)
set_tests_properties(unit.GaugeTest PROPERTIES LABELS unit)
"""
PRESETS = {
    "version": 6,
    "configurePresets": [{
        "name": "debug",
        "generator": "Ninja",
        "binaryDir": "${sourceDir}/build/${presetName}",
        "cacheVariables": {"CMAKE_BUILD_TYPE": "Debug", "CMAKE_EXPORT_COMPILE_COMMANDS": "ON"},
    }],
}  # fmt: skip


class SmallProject:
    def __init__(self, path):
        self.path = path
        write(path / "source/Gauge.cpp", GAUGE)
        write(path / "tests/Core/GaugeTest.cpp", GAUGE_TEST)
        write(path / "CMakeLists.txt", CMAKE)
        write(path / "CMakePresets.json", json.dumps(PRESETS))
        write(path / ".gitignore", "/build/\n__pycache__/\n")
        shutil.copytree(PROJECT / "scripts/mutate.d", path / "scripts/mutate.d")
        write(path / "scripts/mutate.d/equivalent.txt", "")
        shutil.copy(PROJECT / "scripts/mutate", path / "scripts/mutate")
        subprocess.run(["git", "init", "-q", path], check=True, timeout=60)

    def start(self, *arguments, **env):
        return subprocess.Popen(
            [self.path / "scripts/mutate", *map(str, arguments)], text=True, cwd=self.path,
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, env={**os.environ, **env})  # fmt: skip

    def mutate(self, *arguments):
        """The exit status, the report and the progress."""
        process = self.start(*arguments)
        output, errors = process.communicate(timeout=240)
        return process.returncode, output, errors

    def state(self):
        return next((self.path / "build/mutation").glob("state-*.jsonl"))


@pytest.fixture
def project(tmp_path):
    return SmallProject(tmp_path / "gauge")


@pytest.mark.parametrize("arguments", [
    ("--nonsense",), ("here",), ("--sample",), ("--sample", "0"), ("--sample", "x"), ("--jobs", "0"),
    ("--threshold", "101"), ("--only", "nowhere"), ("--only", "/etc"), ("--list", "--report"),
])  # fmt: skip
def test_refuses_a_wrong_call(project, arguments):
    status, output, errors = project.mutate(*arguments)
    assert status == 2 and output == "" and "usage: scripts/mutate" in errors


def test_explains_itself(project):
    status, output, _ = project.mutate("--help")
    assert status == 0 and output.startswith("usage: scripts/mutate") and "Exit status" in output


def test_lists_the_sample_and_tries_nothing(project):
    status, output, _ = project.mutate("--list", "--sample", 2)
    assert status == 0 and len(re.findall(r"^\w{8} source/Gauge.cpp:\d+ ", output, re.MULTILINE)) == 2
    assert not list((project.path / "build/mutation").glob("state-*"))


def test_reports_what_is_open_and_tries_nothing(project):
    status, output, _ = project.mutate("--report", "--threshold", 1)
    assert status == 1 and "0 of 0 mutants caught" in output and "4 still open" in output
    assert not list((project.path / "build/mutation").glob("state-*"))


def test_tells_which_mutants_live(project, tmp_path):
    report = tmp_path / "report.json"
    status, output, _ = project.mutate("--json", report)
    assert status == 1
    assert "2 of 4 mutants caught: 50.0 % (threshold 90 %)" in output
    living = re.findall(r"^living \w{8} (.*)$", output, re.MULTILINE)
    assert sorted(living) == ["source/Gauge.cpp:8 constant: 5 -> 6", "source/Gauge.cpp:8 operator: < -> <="]
    assert "    -    return value < 5;\n    +    return value <= 5;" in output
    statuses = {(one["line"], one["status"], one["by"]) for one in json.loads(report.read_text())["mutants"]}
    assert statuses == {(3, "caught", "unit.GaugeTest"), (8, "living", "")}
    assert (project.path / "source/Gauge.cpp").read_text() == GAUGE
    assert (project.path / "build/mutation/tree-1/source/Gauge.cpp").read_text() == GAUGE

    assert project.mutate("--report", "--threshold", 50)[:2] == (0, output.replace("90 %", "50 %"))


def test_goes_on_where_it_was_stopped(project):
    project.mutate("--sample", 1)
    first = project.state().read_text()
    stopped = project.start("--sample", 4, "--jobs", 1, GAUGE_BLOCKS="1")
    blocked = project.path / "build/mutation/tree-1/build/debug/GaugeTest"
    wait_for(lambda: any(running(blocked)))
    stopped.send_signal(signal.SIGINT)
    _, errors = stopped.communicate(timeout=60)
    assert stopped.returncode == 130 and "goes on from here" in errors
    assert not any(running(blocked)) and project.state().read_text() == first
    assert (project.path / "build/mutation/tree-1/source/Gauge.cpp").read_text() == GAUGE

    _, output, errors = project.mutate("--sample", 4)
    assert "2 of 4 mutants caught" in output
    assert len(re.findall(r"\| (caught|living)", errors)) == 3
    assert project.state().read_text().startswith(first)
    assert "|" not in project.mutate("--sample", 4)[2]


def running(program):
    """Whether each process of the machine runs it."""
    for entry in pathlib.Path("/proc").glob("[0-9]*/exe"):
        try:
            yield os.readlink(entry) == str(program)
        except OSError:
            yield False


def test_counts_reviewed_equivalents_neither_way(project):
    entry = "# seen\nfile: source/Gauge.cpp\nline: return value < 5;\nchange: {}\nreason: {}\n\n"
    entries = entry.format("5 -> 6", "nobody asks for 5") + entry.format("gone -> away", "it was there")
    write(project.path / "scripts/mutate.d/equivalent.txt", entries)
    status, output, errors = project.mutate("--threshold", 60)
    assert status == 0 and "2 of 3 mutants caught: 66.7 %" in output and "1 equivalent" in output
    assert re.search(r"^equivalent \w{8} source/Gauge.cpp:8: 5 -> 6\n    nobody asks for 5$", output, re.M)
    assert "no longer there: source/Gauge.cpp: gone -> away" in errors


def test_replaces_what_does_not_compile(project):
    write(project.path / "source/Gauge.cpp", f"constexpr int one = 1;\nstatic_assert(one);\n{GAUGE}")
    _, output, _ = project.mutate("--threshold", 0)
    assert "2 of 4 mutants caught" in output and "not counted: 1 that do not compile" in output


def test_refuses_to_go_on_when_the_unchanged_tree_fails(project):
    write(project.path / "tests/Core/GaugeTest.cpp", "int main() { return 1; }\n")
    status, output, errors = project.mutate()
    assert status == 1 and output == "" and "fail on the unchanged tree: unit.GaugeTest" in errors


LOW = """import os, pathlib, subprocess

def test_low():
    program = os.environ['ZONE_BUILD_DIR'] + '/gauge-low'
    assert subprocess.run([program, '2', '3', '4', '5']).returncode == 0
"""
# Fails for a mutant, though only the first time that one is there.
HASTY = """
def test_hasty():
    seen = pathlib.Path(os.environ['ZONE_BUILD_DIR'], 'seen')
    changed = '<= 5' in pathlib.Path('../../source/Gauge.cpp').read_text()
    assert not changed or seen.exists() or seen.touch()
"""


def add_system_tests(project, text):
    write(project.path / "CMakeLists.txt", CMAKE + "add_executable(gauge-low source/main.cpp)\n"
          "target_link_libraries(gauge-low gauge)\n")  # fmt: skip
    write(project.path / "source/main.cpp", "int isLow(int);\nint main(int count, char**)\n"
          "{ return isLow(count); }\n")  # fmt: skip
    run_tests = write(project.path / "tests/system/run-tests", "#!/bin/sh\nexec /usr/bin/python3 -m pytest "
                      "-p no:cacheprovider -n $ZONE_TEST_JOBS \"$@\"\n")  # fmt: skip
    run_tests.chmod(0o755)
    write(project.path / "tests/system/test_low.py", text)


def test_does_not_count_a_system_test_that_fails_once_only(project):
    add_system_tests(project, HASTY.replace("\n", "import os, pathlib\n", 1))
    _, output, errors = project.mutate("--only", "source/Gauge.cpp", "--jobs", 1)
    assert "2 of 4 mutants caught" in output
    assert "test_low.py::test_hasty failed once and then passed" in errors


def test_asks_the_system_tests_about_what_the_unit_tests_let_live(project):
    add_system_tests(project, LOW)
    _, output, errors = project.mutate("--only", "source/Gauge.cpp")
    assert "4 of 4 mutants caught" in output and errors.count("caught by test_low.py::test_low") == 2
    assert "2 of 4 mutants caught" in project.mutate("--only", "source/Gauge.cpp", "--units-only")[1]
