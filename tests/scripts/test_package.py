"""What scripts/package hands to the package builder and leaves behind, with a stand-in for the builder."""

import os
import pathlib
import shutil
import signal
import subprocess
import time

import pytest

PROJECT = pathlib.Path(__file__).resolve().parents[2]
PARTS = ["CHANGELOG.md", "CMakeLists.txt", "cmake", "docs", "include_internal", "packaging", "platform",
         "source", "tools"]
DEADLINE = 30  # seconds; no test waits longer for anything
PACKAGE = "zone-manager_1.2.3_amd64.deb"

# Keeps what it was called with and the tree it was called in, then does what the test says.
BUILDER = """#!/bin/sh
echo "$@" >{notes}/arguments
env >{notes}/environment
cp -R . {notes}/tree
echo "   dh_auto_configure"
echo "[1/2] c++ one"
echo "[2/2] c++ two"
echo "the builder's word"
{does}
"""


class Workshop:
    """A small tree with scripts/package in it."""

    def __init__(self, directory):
        self.tree, self.notes = directory / "tree", directory / "notes"
        self.temporary, self.programs = directory / "tmp", directory / "bin"
        for made in (self.tree / "scripts", self.notes, self.temporary, self.programs):
            made.mkdir(parents=True)
        shutil.copy(PROJECT / "scripts" / "package", self.tree / "scripts")
        self.program(self.tree / "scripts" / "setup", f'#!/bin/sh\necho "$@" >{self.notes}/setup\n')
        for part in PARTS:
            path = self.tree / part
            if path.suffix:
                path.write_text("")
            else:
                path.mkdir()
                (path / "content").write_text(part)
        shutil.copytree(PROJECT / "packaging" / "debian", self.tree / "packaging" / "debian")
        (self.tree / "build").mkdir()
        (self.tree / "CMakeLists.txt").write_text("project(zone-manager VERSION 1.2.3 LANGUAGES CXX)\n")
        self.builder_does(f"echo new >../{PACKAGE}")

    @staticmethod
    def program(path, text):
        path.write_text(text)
        path.chmod(0o755)

    def builder_does(self, does):
        self.program(self.programs / "dpkg-buildpackage", BUILDER.format(notes=self.notes, does=does))

    def start(self, *arguments, **extra):
        environment = {name: value for name, value in os.environ.items() if name != "SOURCE_DATE_EPOCH"}
        environment.update(PATH=f"{self.programs}:{os.environ['PATH']}", TMPDIR=str(self.temporary), **extra)
        return subprocess.Popen([self.tree / "scripts" / "package", *arguments], env=environment, text=True,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE)

    def run(self, *arguments, **extra):
        process = self.start(*arguments, **extra)
        output, errors = process.communicate(timeout=DEADLINE)
        return subprocess.CompletedProcess(arguments, process.returncode, output, errors)

    def note(self, name):
        return (self.notes / name).read_text()

    @property
    def builder_environment(self):
        return dict(line.split("=", 1) for line in self.note("environment").splitlines() if "=" in line)

    @property
    def left_behind(self):
        return list(self.temporary.iterdir())


@pytest.fixture
def workshop(tmp_path):
    return Workshop(tmp_path)


def test_the_package_is_printed_and_nothing_else_is_left(workshop):
    result = workshop.run()
    made = workshop.tree / "build" / "package" / PACKAGE
    assert (result.returncode, result.stdout) == (0, f"{made}\n")
    assert made.read_text() == "new\n"
    assert list(made.parent.iterdir()) == [made] and workshop.left_behind == []


def test_what_is_missing_is_installed_first(workshop):
    workshop.run()
    assert workshop.note("setup") == "--with package\n"


def test_the_builder_gets_the_trees_parts_and_makes_only_the_binary_package(workshop):
    workshop.run()
    tree = workshop.notes / "tree"
    assert sorted(path.name for path in tree.iterdir()) == sorted([*PARTS, "debian"])
    assert (tree / "tools" / "content").read_text() == "tools"
    assert (tree / "debian" / "rules").read_text() == (PROJECT / "packaging/debian/rules").read_text()
    assert workshop.note("arguments") == "-b -us -uc\n"
    options = workshop.builder_environment["DEB_BUILD_OPTIONS"].split()
    assert {"nocheck", "noautodbgsym"} < set(options)


def test_the_changelog_has_the_version_of_the_build_and_the_given_time(workshop):
    workshop.run(SOURCE_DATE_EPOCH="86400")
    parsed = subprocess.run(["dpkg-parsechangelog", "-l", workshop.notes / "tree" / "debian" / "changelog"],
                            capture_output=True, text=True, check=True, timeout=DEADLINE)
    assert parsed.stderr == ""
    assert "\nVersion: 1.2.3\n" in parsed.stdout and "\nTimestamp: 86400\n" in parsed.stdout


def test_without_a_history_the_changelog_says_when(workshop):
    os.utime(workshop.tree / "CHANGELOG.md", (172800, 172800))
    workshop.run()
    assert " Sat, 03 Jan 1970 " in (workshop.notes / "tree" / "debian" / "changelog").read_text()


@pytest.mark.parametrize(("arguments", "profiles"), [
    ((), ""),
    (("--without-liblxc",), "pkg.zone-manager.noliblxc"),
    (("--without-launcher",), "pkg.zone-manager.nolauncher"),
    (("--without-launcher", "--without-liblxc"),
     "pkg.zone-manager.nolauncher pkg.zone-manager.noliblxc"),
])
def test_what_is_left_out_is_a_profile(workshop, arguments, profiles):
    assert workshop.run(*arguments).returncode == 0
    assert workshop.builder_environment["DEB_BUILD_PROFILES"] == profiles


def test_progress_is_told_once_a_step_when_nobody_looks(workshop):
    assert workshop.run().stderr == "== configure\n== compile\n"


def test_the_own_folder_holds_the_latest_alone(workshop):
    own = workshop.tree / "build" / "package"
    own.mkdir()
    (own / "zone-manager_1.0_amd64.deb").write_text("old")
    workshop.run()
    assert [path.name for path in own.iterdir()] == [PACKAGE]


def test_another_folder_is_made_and_keeps_what_is_in_it(workshop, tmp_path):
    other = tmp_path / "a folder" / "deeper"
    assert workshop.run("--output", other).returncode == 0
    (other / "zone-manager_1.0_amd64.deb").write_text("old")
    (other / PACKAGE).write_text("an earlier one")
    result = workshop.run("--output", other)
    assert result.stdout == f"{other / PACKAGE}\n"
    assert sorted(path.name for path in other.iterdir()) == ["zone-manager_1.0_amd64.deb", PACKAGE]
    assert (other / PACKAGE).read_text() == "new\n"
    assert not (workshop.tree / "build" / "package").exists()


def test_a_failed_build_shows_its_end_and_keeps_the_package_that_is_there(workshop):
    workshop.run()
    workshop.builder_does(f"echo half >../{PACKAGE}; exit 3")
    result = workshop.run()
    assert (result.returncode, result.stdout) == (1, "")
    assert "the builder's word\nscripts/package: the package could not be built" in result.stderr
    assert (workshop.tree / "build" / "package" / PACKAGE).read_text() == "new\n"
    assert workshop.left_behind == []


def test_a_full_disk_keeps_the_package_that_is_there(workshop):
    own = workshop.tree / "build" / "package"
    own.mkdir()
    (own / "zone-manager_1.0_amd64.deb").write_text("old")
    workshop.program(workshop.programs / "cp", '#!/bin/sh\ncase "$3" in\n'
                     '*/.zone-manager_*) echo part >"$3"; echo "No space left" >&2; exit 1 ;;\n'
                     'esac\nexec /bin/cp "$@"\n')
    result = workshop.run()
    assert (result.returncode, result.stdout) == (1, "")
    assert "No space left" in result.stderr
    assert [path.name for path in own.iterdir()] == ["zone-manager_1.0_amd64.deb"]


def test_packages_that_cannot_be_installed_end_it(workshop):
    workshop.program(workshop.tree / "scripts" / "setup", "#!/bin/sh\necho no network >&2\nexit 1\n")
    result = workshop.run()
    assert (result.returncode, result.stderr) == (1, "no network\n")
    assert not (workshop.notes / "arguments").exists() and workshop.left_behind == []


def test_a_tree_without_a_version_ends_it(workshop):
    (workshop.tree / "CMakeLists.txt").write_text("project(zone-manager)\n")
    result = workshop.run()
    assert result.returncode == 1 and "CMakeLists.txt names no version" in result.stderr
    assert not (workshop.notes / "arguments").exists() and workshop.left_behind == []


def wait_until(condition):
    end = time.monotonic() + DEADLINE
    while not condition():
        assert time.monotonic() < end, "it did not come"
        time.sleep(0.01)


@pytest.mark.parametrize(("number", "status"),
                         [(signal.SIGINT, 130), (signal.SIGTERM, 143), (signal.SIGHUP, 129)])
def test_an_interrupted_one_ends_its_builder_and_leaves_nothing(workshop, number, status):
    workshop.builder_does(f"sleep 60 & echo $! >{workshop.notes}/pid.new\n"
                          f"mv {workshop.notes}/pid.new {workshop.notes}/pid\nwait")
    process = workshop.start()
    wait_until((workshop.notes / "pid").exists)
    process.send_signal(number)
    process.communicate(timeout=DEADLINE)
    assert process.returncode == status
    wait_until(lambda: not pathlib.Path(f"/proc/{workshop.note('pid').strip()}").exists())
    assert workshop.left_behind == []
    assert list((workshop.tree / "build" / "package").iterdir()) == []


@pytest.mark.parametrize("arguments", [("--nonsense",), ("a name",), ("--output",), ("--output", "")])
def test_a_wrong_call_gives_two_and_the_usage(workshop, arguments):
    result = workshop.run(*arguments)
    assert result.returncode == 2 and "usage: scripts/package" in result.stderr
    assert not (workshop.notes / "setup").exists() and workshop.left_behind == []


def test_an_output_that_is_no_folder_is_refused(workshop, tmp_path):
    (tmp_path / "file").write_text("")
    result = workshop.run("--output", tmp_path / "file")
    assert result.returncode == 1 and f"cannot make the directory {tmp_path}/file" in result.stderr
    assert not (workshop.notes / "setup").exists()


@pytest.mark.parametrize("option", ["--help", "-h"])
def test_help_tells_every_option(workshop, option):
    result = workshop.run(option)
    assert result.returncode == 0 and result.stderr == ""
    for name in ("--without-liblxc", "--without-launcher", "--output", "--help"):
        assert f"\n  {name}" in result.stdout
