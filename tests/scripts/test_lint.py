"""scripts/lint as a whole: its calls, its summary, and that its checks see what they are for."""

import pathlib
import subprocess
import sys
import types

import pytest

PROJECT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(PROJECT / "scripts" / "lint.d"))

import checks  # noqa: E402
import tidy  # noqa: E402
from progress import Step, Terminal  # noqa: E402
from tree import Tree  # noqa: E402


def lint(*arguments):
    return subprocess.run([PROJECT / "scripts" / "lint", *arguments], capture_output=True, text=True,
                          timeout=120, check=False)


@pytest.mark.parametrize("arguments", [
    ("--nonsense",), ("here",), ("--only",), ("--only", "nonsense"), ("--preset",),
    ("--preset", "nonsense"), ("--preset", "base"),
])
def test_refuses_a_wrong_call(arguments):
    result = lint(*arguments)
    assert result.returncode == 2
    assert result.stdout == "" and "usage: scripts/lint" in result.stderr


def test_explains_itself():
    result = lint("--help")
    assert result.returncode == 0 and result.stdout.startswith("usage: scripts/lint")
    for name in checks.CHECKS:
        assert name in result.stdout


@pytest.fixture
def tree(tmp_path, monkeypatch):
    """Checks of an empty tree, into which a test writes what they are to find."""
    monkeypatch.setattr(checks, "ROOT", tmp_path)
    return tmp_path


def found(tree, name):
    findings, _ = checks.CHECKS[name](checks.Checks(types.SimpleNamespace(verbose=False)), None)
    return findings


def write(tree, name, text):
    path = tree / name
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text(text)
    return path


def test_the_format_is_checked(tree):
    write(tree, "source/Common/A.cpp", "int  a;\n")
    write(tree, "source/Common/B.cpp", "int b;\n")
    assert found(tree, "clang-format") == [
        "source/Common/A.cpp:1: code should be clang-formatted [-Wclang-format-violations]"]


def test_scripts_are_known_by_their_first_line(tree):
    write(tree, "scripts/a", "#!/usr/bin/env bash\necho $1\n")
    write(tree, "scripts/b", "#!/bin/sh\necho $1\n")
    write(tree, "scripts/c", "echo $1\n")
    places = [finding.split(" ")[0] for finding in found(tree, "shellcheck")]
    assert places == ["scripts/a:2:", "scripts/b:2:"]


def test_python_is_checked(tree):
    write(tree, "a.py", "import os\n")
    write(tree, "b", "#!/usr/bin/env python3\nif\n")
    write(tree, "c.py", f"A = '{'x' * 120}'\n")
    places = [finding.split(": ")[0] for finding in found(tree, "python")]
    assert sorted(set(places)) == ["a.py:1", "b:2", "c.py:1"]


def test_a_program_that_fails_is_no_clean_check(tree, capsys):
    write(tree, "build/empty", "")
    options = types.SimpleNamespace(verbose=False, preset="nonsense")
    assert not checks.run(checks.Checks(options), "cppcheck", Terminal(sys.stdout))
    output = capsys.readouterr().out
    assert "cppcheck: cmake ended with status" in output and "failed" in output


class CountingTidy(tidy.Tidy):
    """Notes what is looked at, and finds something wherever the word `bad` stands."""

    def __init__(self, root, cache):
        super().__init__(root, root, cache)
        self.looked_at = []

    def check(self, path):
        self.looked_at.append(path.name)
        return [f"{path.name}:1: bad"] if b"bad" in path.read_bytes() else []


def look(tree, names):
    """What clang-tidy would look at in a further run, and what is found."""
    counting = CountingTidy(tree, tidy.Cache(tree / "cache"))
    findings, _ = counting.run({tree / name: f"c++ -I{tree}/include -c {name}" for name in names},
                               Step(Terminal(sys.stdout), "tidy"))
    return sorted(counting.looked_at), findings


def test_only_what_changed_is_looked_at_again(tree):
    write(tree, "a.cpp", '#include "one.h"\n')
    write(tree, "b.cpp", "int b;\n")
    write(tree, "include/one.h", '#include "two.h"\n')
    header = write(tree, "include/two.h", "int two;\n")
    names = ("a.cpp", "b.cpp")
    assert look(tree, names) == (["a.cpp", "b.cpp"], [])
    assert look(tree, names) == ([], [])
    header.write_text("int changed;\n")
    assert look(tree, names) == (["a.cpp"], [])
    write(tree, ".clang-tidy", "Checks: '*'\n")
    assert look(tree, names) == (["a.cpp", "b.cpp"], [])


def test_what_was_bad_is_looked_at_again(tree):
    write(tree, "a.cpp", "bad\n")
    for _ in range(2):
        assert look(tree, ("a.cpp",)) == (["a.cpp"], ["a.cpp:1: bad"])


def test_findings_of_clang_tidy_are_read(tree, monkeypatch):
    output = (f"{tree}/source/../a.h:7:3: error: it is wrong [bugprone-x,-warnings-as-errors]\n"
              f"{tree}/a.h:8:3: note: see here\n")
    monkeypatch.setattr(tidy.subprocess, "run", lambda *_, **__: types.SimpleNamespace(
        stdout=output, stderr="", returncode=1))
    checked = tidy.Tidy.__new__(tidy.Tidy)
    checked.root, checked.database = tree, tree
    assert checked.check(tree / "a.cpp") == ["a.h:7: it is wrong [bugprone-x]"]


def test_the_tree_leaves_out_what_is_built(tree):
    for name in ("build/a.cpp", "source/a.cpp", "source/__pycache__/b.pyc", ".git/c"):
        write(tree, name, "")
    assert list(Tree(tree).files) == ["source/a.cpp"]
