"""scripts/setup in a private root, with stand-ins for the programs that know and install packages."""

import pathlib
import subprocess

import pytest

PROJECT = pathlib.Path(__file__).resolve().parents[2]
POLICY = "/usr/sbin/policy-rc.d"
OURS = "# Made by scripts/setup, which removes it when it ends."
# Nothing is installed yet; who installs notes what it is told and whether services may be started.
STAND_INS = {
    "dpkg-query": "echo not-installed",
    "apt-get": f'echo "$@" >>calls; cp {POLICY} policy 2>/dev/null',
}


@pytest.fixture
def machine(tmp_path):
    """Runs a script in a private root whose results stay in the test's directory; $setup is the program."""
    for name, text in STAND_INS.items():
        (tmp_path / name).write_text(f"#!/bin/sh\ncd {tmp_path}\n{text}\n")
        (tmp_path / name).chmod(0o755)

    def run(script):
        preamble = (f"set -e; cd {tmp_path}; rm -f {POLICY}\n"
                    f"PATH={tmp_path}:$PATH setup={PROJECT}/scripts/setup\n")
        return subprocess.run(
            [PROJECT / "scripts/private-root", "--bind", tmp_path, "--", "bash", "-c", preamble + script],
            capture_output=True, text=True, timeout=60, check=False)
    return run


def test_no_service_is_started_while_packages_are_installed(machine, tmp_path):
    result = machine(f"$setup; test ! -e {POLICY}; ls /tmp >left")
    assert result.returncode == 0, result.stderr
    update, install = (tmp_path / "calls").read_text().splitlines()
    assert update == "update -q" and " lxc " in install
    assert (tmp_path / "policy").read_text() == f"#!/bin/sh\n{OURS}\nexit 101\n"


@pytest.mark.parametrize(("text", "stays"), [(OURS, False), ("exit 0", True)], ids=["its own", "another's"])
def test_a_policy_that_is_there_already(machine, text, stays):
    result = machine(f"echo '{text}' >{POLICY}; $setup; test -e {POLICY} && echo stays || echo gone")
    assert result.stdout.splitlines()[-1] == ("stays" if stays else "gone"), result.stderr


def test_two_at_once_install_one_after_the_other(machine):
    result = machine("""exec 9</var/lib/dpkg; flock 9
        $setup 9<&- & for _ in $(seq 100); do grep -q -e '-> FLOCK' /proc/locks && break; sleep 0.1; done
        test ! -e calls && echo waits
        flock -u 9; wait $!; test -e calls && echo done""")
    assert result.stdout.splitlines()[1:] == ["waits", "done"], result.stdout + result.stderr


def test_a_failure_is_shown_and_leaves_no_policy(machine, tmp_path):
    (tmp_path / "apt-get").write_text("#!/bin/sh\necho no network\nexit 100\n")
    result = machine(f"$setup && exit 7; test ! -e {POLICY}")
    assert (result.returncode, result.stderr) == (
        0, "no network\nscripts/setup: the packages could not be installed\n")


@pytest.mark.parametrize("arguments", [("--with",), ("--with", "nothing"), ("--lists",)])
def test_a_wrong_call_gives_two_and_the_usage(arguments):
    result = subprocess.run([PROJECT / "scripts/setup", *arguments], capture_output=True, text=True,
                            timeout=30, check=False)
    assert (result.returncode, result.stdout) == (2, "")
    assert "usage: scripts/setup" in result.stderr
