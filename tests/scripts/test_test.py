"""What scripts/test runs, in which order, with stand-ins for all of it."""

import os
import pathlib
import shutil
import subprocess

import pytest

PROJECT = pathlib.Path(__file__).resolve().parents[2]


@pytest.fixture
def calls(tmp_path):
    """Runs a copy of scripts/test; returns its result and the calls that it made."""
    scripts, programs = tmp_path / "scripts", tmp_path / "bin"
    scripts.mkdir()
    programs.mkdir()
    (tmp_path / "tmp").mkdir()
    shutil.copy(PROJECT / "scripts" / "test", scripts)
    for stand_in in (scripts / "setup", scripts / "lint", programs / "cmake", programs / "ctest"):
        stand_in.write_text("#!/bin/sh\n"
                            f'echo {stand_in.name} "$@" >>{tmp_path}/calls\n'
                            f'echo the word of {stand_in.name}\n'
                            f'ls "$TMPDIR" >{tmp_path}/held\n'
                            f'[ "{stand_in.name}" != "$FAILS" ]\n')
        stand_in.chmod(0o755)

    def run(*arguments, fails=""):
        (tmp_path / "calls").write_text("")
        environment = {**os.environ, "PATH": f"{programs}:{os.environ['PATH']}", "FAILS": fails,
                       "TMPDIR": str(tmp_path / "tmp")}
        result = subprocess.run([scripts / "test", *arguments], env=environment, capture_output=True,
                                text=True, timeout=60, check=False)
        return result, (tmp_path / "calls").read_text().splitlines()
    return run


def names(made):
    return [call.split(" ")[0] for call in made]


def test_the_tree_is_checked_once_before_the_tests(calls):
    result, made = calls()
    assert result.returncode == 0
    assert names(made) == ["setup", "lint", "cmake", "cmake", "ctest"]
    assert made[1] == "lint --preset release"


def test_all_checks_the_tests_too(calls):
    result, made = calls("--all")
    assert result.returncode == 0
    assert names(made) == ["setup", "lint", *["cmake", "cmake", "ctest"] * 3]
    assert made[1] == "lint --all --preset release"


@pytest.mark.parametrize("arguments", [("--no-lint",), ("--only", "unit"), ("--all", "--no-lint")])
def test_the_tree_can_be_left_unchecked(calls, arguments):
    result, made = calls(*arguments)
    assert result.returncode == 0
    assert "lint" not in names(made) and "ctest" in names(made)


@pytest.mark.parametrize("failing", ["lint", "ctest"])
def test_one_failure_keeps_nothing_else_from_running(calls, failing):
    result, made = calls(fails=failing)
    assert result.returncode == 1 and "FAILED: " in result.stdout
    assert names(made) == ["setup", "lint", "cmake", "cmake", "ctest"]


def test_a_configuration_that_fails_is_shown_and_leaves_nothing(calls, tmp_path):
    result, made = calls("--no-lint", fails="cmake")
    assert (result.returncode, names(made)) == (1, ["setup", "cmake"])
    assert "the word of cmake" in result.stderr
    # Under a name that nobody can foresee.
    assert (tmp_path / "held").read_text() != "" and list((tmp_path / "tmp").iterdir()) == []
