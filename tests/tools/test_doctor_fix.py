"""zonectl doctor --fix on trees that stand for machines, and its questions on a terminal."""

import json
import os
import pty
import select
import subprocess
import time

import bus_fixtures
import pytest
from machine_trees import LABEL, container

ARGUMENTS = ("doctor", "--fix")


def fix(machine, *options):
    result = bus_fixtures.zonectl(*ARGUMENTS, "--yes", "--json", "--root", str(machine), *options)
    assert result.stderr == ""
    return result.returncode, json.loads(result.stdout)


class Terminal:
    """zonectl with somebody at a terminal, who answers each question when it is there."""

    QUESTION = b"[y/N] "

    def __init__(self, *options, typed_ahead=b""):
        self.leader, follower = pty.openpty()
        self.shown = b""
        os.write(self.leader, typed_ahead)
        while self.shown.count(b"\n") < typed_ahead.count(b"\n"):
            self.read()  # the terminal's echo: by then it is there to be read
        self.process = subprocess.Popen([bus_fixtures.ZONECTL, *ARGUMENTS, *options], stdin=follower,
                                        stdout=subprocess.PIPE, stderr=follower, text=True)
        os.close(follower)

    def read(self):
        assert select.select([self.leader], [], [], bus_fixtures.DEADLINE)[0], self.shown
        self.shown += os.read(self.leader, 65536)

    def answer(self, *answers):
        for text in answers:
            begin = len(self.shown)
            while self.QUESTION not in self.shown[begin:]:
                self.read()
            os.write(self.leader, text)
        return self

    def finish(self):
        output, _ = self.process.communicate(timeout=bus_fixtures.DEADLINE)
        return self.process.returncode, output, self.shown.decode() + bus_fixtures.shown_on(self.leader)


@pytest.fixture
def broken(machine):
    """Three things are wrong that can be mended: two directories and a configuration."""
    os.removexattr(machine / "run/lxc", LABEL)
    (machine / "zone/config/zone-launcher").chmod(0o644)
    config = machine / "var/lib/lxc/media/config"
    config.write_text(config.read_text().replace("lxc.payload/media", "elsewhere"))
    return machine


@pytest.mark.parametrize("arguments", [
    ("doctor", "--yes"), ("labels", "--fix"), ("doctor", "--fix", "extra"), ("doctor", "--tmpfiles")])
def test_wrong_usage(arguments):
    result = bus_fixtures.zonectl(*arguments)
    assert result.returncode == 2 and result.stdout == ""
    assert result.stderr.startswith("zonectl: ") and result.stderr.count("\n") == 1


def test_fixing_needs_a_terminal_or_yes(broken):
    result = bus_fixtures.zonectl(*ARGUMENTS, "--root", str(broken))
    assert result.returncode == 2 and result.stdout == "" and "needs a terminal" in result.stderr


def test_only_root_may_change_the_running_machine():
    result = subprocess.run(
        ["setpriv", "--reuid=65534", "--clear-groups", bus_fixtures.ZONECTL, *ARGUMENTS, "--yes"],
        capture_output=True, text=True, timeout=bus_fixtures.DEADLINE)
    if "Permission denied" in result.stderr:
        pytest.skip("the build cannot be run by others")
    assert result.returncode == 1 and "only root" in result.stderr


def test_everything_is_mended_and_told(broken):
    before = (broken / "var/lib/lxc/media/config").read_text()
    status, report = fix(broken)
    assert status == 0 and report["ok"]
    assert [(each["id"], each["done"], each["problem"]) for each in report["fixes"]] == [
        ("launcher.not-executable", True, None), ("directory.no-label", True, None),
        ("container.cgroups", True, None)]
    assert os.getxattr(broken / "run/lxc", LABEL) == b"!"
    config = broken / "var/lib/lxc/media/config"
    assert config.read_text() == before + "\nlxc.cgroup.dir.container = lxc.payload/media\n"
    assert config.with_name("config.before-zonectl").read_text() == before
    assert fix(broken)[1]["fixes"] == []


def test_without_fix_nothing_is_mended(broken):
    result = bus_fixtures.zonectl("doctor", "--root", str(broken))
    assert result.returncode == 1 and LABEL not in os.listxattr(broken / "run/lxc")


def test_one_remedy_brings_the_next_to_light(machine):
    directory = container(machine, "nav", None, "lxc.include = /etc/kind.conf")
    (machine / "etc").mkdir()
    (machine / "etc/kind.conf").write_text("zone.container_type = isolation\n")
    status, report = fix(machine)
    assert status == 0
    assert [each["id"] for each in report["fixes"]] == [
        "container.included-kind", "container.no-label", "container.no-label"]
    assert "zone.container_type = isolation" in (directory / "config").read_text()


def test_what_cannot_be_mended_is_told_again(broken):
    (broken / "zone/config/liblxc.so.1").unlink()
    status, report = fix(broken)
    assert status == 1
    assert [each["id"] for each in report["findings"] if each["severity"] == "problem"] == ["liblxc.missing"]


def test_it_ends_with_what_is_left_to_somebody_who_decides(broken):
    container(broken, "none-zone", None)
    result = bus_fixtures.zonectl(*ARGUMENTS, "--yes", "--root", str(broken))
    assert result.returncode == 1
    _, left = result.stdout.split("\nLeft to you:\n")
    config = f"{broken}/var/lib/lxc/none-zone/config"
    first, second = left.splitlines()
    assert first == "  none-zone: is refused: its configuration names no valid kind (zone.container_type)"
    assert second.startswith("    -> ") and second.endswith(f"{config} # or isolation, or protection")
    assert "Left to you" not in bus_fixtures.zonectl("doctor", "--root", str(broken)).stdout
    (broken / "var/lib/lxc/none-zone/config").unlink()
    assert "Left to you" not in bus_fixtures.zonectl(*ARGUMENTS, "--yes", "--root", str(broken)).stdout


def test_a_failure_is_told_and_the_others_are_mended(broken):
    (broken / "away").mkdir()
    (broken / "run/lxc").rename(broken / "away/lxc")
    (broken / "run").rmdir()
    (broken / "run").symlink_to("/away")
    status, report = fix(broken)
    assert status == 1
    done = {each["id"]: (each["done"], each["problem"]) for each in report["fixes"]}
    assert done["launcher.not-executable"] == (True, None)
    assert done["directory.no-label"][0] is False and "symbolic link" in done["directory.no-label"][1]
    assert LABEL not in os.listxattr(broken / "away/lxc")


def test_each_change_is_asked_for(broken):
    status, output, asked = Terminal("--root", str(broken)).answer(b"n\n", b"y\n", b"\n").finish()
    assert status == 1
    assert asked.count("Do that? [y/N]") == 3
    assert f"chmod 755 {broken}/zone/config/zone-launcher" in asked
    words = [line.split()[0] for line in output.splitlines()[:3]]
    assert words == ["kept", "fixed", "kept"]
    assert os.getxattr(broken / "run/lxc", LABEL) == b"!"
    assert (broken / "zone/config/zone-launcher").stat().st_mode & 0o777 == 0o644


def test_what_was_typed_before_a_question_is_no_answer_to_it(broken):
    terminal = Terminal("--root", str(broken), typed_ahead=b"y\ny\ny\n")
    status, output, _ = terminal.answer(b"n\n", b"n\n", b"n\n").finish()
    assert status == 1 and output.count("kept ") == 3


def test_the_end_of_the_input_is_a_no(broken):
    status, output, _ = Terminal("--root", str(broken)).answer(b"\x04", b"\x04", b"\x04").finish()
    assert status == 1 and output.count("kept ") == 3


def test_a_question_does_not_wait_for_ever(broken):
    begin = time.monotonic()
    status, output, asked = Terminal("--timeout", "1", "--root", str(broken)).finish()
    assert status == 1 and asked.count("[y/N]") == 1, "who does not answer is not asked again"
    assert output.count("no answer in time") == 3
    assert time.monotonic() - begin >= 1
