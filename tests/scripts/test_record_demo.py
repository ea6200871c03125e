"""What scripts/record-demo keeps of a run, with stand-ins for the demo and for the recorder."""

import os
import pathlib
import shutil
import subprocess

import pytest

PROJECT = pathlib.Path(__file__).resolve().parents[2]

# The recorder runs the command that follows "-c" and writes the picture that it is told.
RECORDER = """#!/bin/sh
output=$1
while [ "$1" != -c ]; do shift; done
sh -c "$2"
echo '<svg/>' >"$output"
"""


@pytest.fixture
def record(tmp_path):
    scripts, programs = tmp_path / "scripts", tmp_path / "bin"
    scripts.mkdir()
    programs.mkdir()
    shutil.copy(PROJECT / "scripts" / "record-demo", scripts)
    # The run before the recorded one succeeds.
    demo = f'#!/bin/sh\necho >>{tmp_path}/runs\n[ "$(wc -l <{tmp_path}/runs)" = 1 ] || exit "$DEMO_STATUS"\n'
    for program, text in ((scripts / "setup", "#!/bin/sh\n"), (scripts / "demo", demo),
                          (programs / "termtosvg", RECORDER)):
        program.write_text(text)
        program.chmod(0o755)

    def run(*arguments, status=0):
        environment = {**os.environ, "PATH": f"{programs}:{os.environ['PATH']}", "DEMO_STATUS": str(status)}
        return subprocess.run([scripts / "record-demo", *arguments], env=environment, capture_output=True,
                              text=True, timeout=60, check=False)
    return run


def test_the_picture_goes_where_it_is_wanted(record, tmp_path):
    assert record("--output", str(tmp_path / "new" / "picture.svg")).returncode == 0
    assert (tmp_path / "new" / "picture.svg").read_text() == "<svg/>\n"


def test_without_a_name_it_becomes_the_readmes(record, tmp_path):
    assert record().returncode == 0
    assert (tmp_path / "docs" / "pictures" / "demo.svg").exists()


def test_a_demo_that_fails_leaves_the_picture_as_it_was(record, tmp_path):
    picture = tmp_path / "picture.svg"
    picture.write_text("older")
    result = record("--output", str(picture), status=1)
    assert result.returncode == 1 and "the demo failed" in result.stderr
    assert picture.read_text() == "older"


@pytest.mark.parametrize("arguments", [["--output"], ["--no-such"], ["picture.svg"]])
def test_wrong_arguments_are_told_with_the_usage(record, tmp_path, arguments):
    result = record(*arguments)
    assert result.returncode == 2 and "usage: scripts/record-demo" in result.stderr
    assert not (tmp_path / "runs").exists()
