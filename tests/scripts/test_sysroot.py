"""scripts/sysroot, offline: with packages of the tests' own and an apt that hands them out."""

import os
import pathlib
import subprocess

import pytest

SYSROOT = pathlib.Path(__file__).resolve().parents[2] / "scripts" / "sysroot"

APT = """#!/bin/sh
# Hands out the packages of {mirror}; `fails` there names the call that does not work.
echo "$@" >>{mirror}/calls
configuration=${{1#-c=}}
call=install
case " $* " in *" update "*) call=update ;; *" --print-uris "*) call=resolve ;; esac
cp "$configuration" {mirror}/configuration.$call
if [ "$(cat {mirror}/fails)" = $call ]; then echo "E: $call: no"; exit 100; fi
cd {mirror}
case $call in
    resolve)
        for package in *.deb; do
            echo "'http://mirror/$package' $package $(stat -c %s $package) $(md5sum <$package)"
        done
        ;;
    install) cp *.deb "$(sed -n 's/^Dir::Cache "\\(.*\\)";/\\1/p' "$configuration")/archives" ;;
esac
"""


class Mirror:
    """The packages that the stand-in of apt knows, and what it was asked."""

    def __init__(self, directory):
        self.directory = directory
        self.programs = directory / "bin"
        self.programs.mkdir(parents=True)
        for name in ("apt-get", "apt-cache"):
            (self.programs / name).write_text(APT.format(mirror=directory))
            (self.programs / name).chmod(0o755)
        self.fail("nothing")

    def fail(self, call):
        (self.directory / "fails").write_text(call)

    def publish(self, name, files=(), links=()):
        """Makes a package of files, each with its path as text, and of links."""
        tree = self.directory / name
        (tree / "DEBIAN").mkdir(parents=True)
        (tree / "DEBIAN" / "control").write_text(
            f"Package: {name}\nVersion: 1\nArchitecture: armhf\nMaintainer: nobody\nDescription: a test's\n")
        for file in files:
            (tree / file).parent.mkdir(parents=True, exist_ok=True)
            (tree / file).write_text(file)
        for link, target in links:
            (tree / link).parent.mkdir(parents=True, exist_ok=True)
            (tree / link).symlink_to(target)
        subprocess.run(["dpkg-deb", "-b", tree, self.directory / f"{name}.deb"], check=True,
                       capture_output=True)

    def calls(self):
        return (self.directory / "calls").read_text().splitlines()


@pytest.fixture
def mirror(tmp_path):
    made = Mirror(tmp_path / "mirror")
    made.publish("libone", ["usr/lib/one.so.1", "usr/include/one.h", "etc/one", "usr/bin/one"],
                 [("usr/lib/one.so", "/usr/lib/one.so.1"), ("lib/near.so", "far.so")])
    return made


def sysroot(*arguments, path=None):
    environment = dict(os.environ)
    if path is not None:
        environment["PATH"] = f"{path}:{environment['PATH']}"
    return subprocess.run([SYSROOT, *arguments], env=environment, capture_output=True, text=True, timeout=300,
                          check=False)


def entries(directory):
    return sorted(entry.name for entry in directory.iterdir())


@pytest.mark.parametrize(("arguments", "complaint"), [
    ((), "no architecture"),
    (("riscv64",), "unknown architecture: riscv64"),
    (("armhf", "--fast"), "unknown argument: --fast"),
    (("armhf", "--output"), "--output needs a value"),
    (("armhf", "--mirror", ""), "--mirror needs a value"),
])
def test_a_wrong_call_is_told_and_makes_nothing(tmp_path, arguments, complaint):
    result = subprocess.run([SYSROOT, *arguments], cwd=tmp_path, capture_output=True, text=True, timeout=60,
                            check=False)
    assert result.returncode == 2
    assert complaint in result.stderr and "usage: scripts/sysroot" in result.stderr
    assert entries(tmp_path) == []


def test_help_is_no_error(tmp_path):
    result = sysroot("--help", "--output", tmp_path / "out")
    assert result.returncode == 0 and result.stdout.startswith("usage: scripts/sysroot")
    assert entries(tmp_path) == []


def test_an_unreachable_mirror_is_told_and_leaves_nothing(tmp_path):
    result = sysroot("armhf", "--output", tmp_path, "--mirror", "http://127.0.0.1:1/debian")
    assert result.returncode == 1
    assert "127.0.0.1" in result.stderr and "is the mirror reachable" in result.stderr
    assert entries(tmp_path) == []


@pytest.mark.parametrize(("name", "folder", "debian"), [
    ("armhf", "armhf", "armhf"), ("aarch64", "aarch64", "arm64"), ("arm64", "aarch64", "arm64")])
def test_apt_is_asked_for_debians_architecture(mirror, tmp_path, name, folder, debian):
    result = sysroot(name, "--output", tmp_path / "out", path=mirror.programs)
    assert result.returncode == 0, result.stderr
    assert entries(tmp_path / "out") == [folder]
    asked = (mirror.directory / "configuration.update").read_text()
    assert f'APT::Architecture "{debian}";' in asked


def test_apts_state_and_hooks_are_its_own(mirror, tmp_path):
    assert sysroot("armhf", "--output", tmp_path / "out", path=mirror.programs).returncode == 0
    for call in ("update", "resolve", "install"):
        told = (mirror.directory / f"configuration.{call}").read_text().splitlines()
        folders = [line.split('"')[1] for line in told if line.startswith("Dir::")]
        assert len(folders) == 4
        assert all(folder.startswith(f"{tmp_path}/out/.armhf.") for folder in folders)
        assert "#clear APT::Update::Post-Invoke-Success;" in told
    assert all(call.startswith("-c=") for call in mirror.calls())


def test_only_headers_and_libraries_are_unpacked_and_no_link_leads_out(mirror, tmp_path):
    assert sysroot("armhf", "--output", tmp_path / "out", path=mirror.programs).returncode == 0
    made = tmp_path / "out" / "armhf"
    assert entries(made) == [".packages", "lib", "usr"]
    assert entries(made / "usr") == ["include", "lib"]
    assert os.readlink(made / "usr/lib/one.so") == "one.so.1"
    assert os.readlink(made / "lib/near.so") == "far.so"
    assert (made / "usr/include/one.h").read_text() == "usr/include/one.h"


def test_the_same_packages_are_not_fetched_again(mirror, tmp_path):
    output = ("--output", tmp_path / "out")
    sysroot("armhf", *output, path=mirror.programs)
    (tmp_path / "out/armhf/mark").touch()
    (mirror.directory / "calls").unlink()
    again = sysroot("armhf", *output, path=mirror.programs)
    assert again.returncode == 0 and "up to date" in again.stdout
    assert (tmp_path / "out/armhf/mark").exists()
    assert not any("--download-only" in call for call in mirror.calls())


def test_other_packages_replace_the_whole_folder(mirror, tmp_path):
    output = ("--output", tmp_path / "out")
    sysroot("armhf", *output, path=mirror.programs)
    (mirror.directory / "libone.deb").unlink()
    mirror.publish("libtwo", ["usr/lib/two.so"])
    assert sysroot("armhf", *output, path=mirror.programs).returncode == 0
    assert entries(tmp_path / "out") == ["armhf"]
    assert entries(tmp_path / "out/armhf/usr/lib") == ["two.so"]


def test_a_folder_that_is_kept_asks_nobody(mirror, tmp_path):
    output = ("--output", tmp_path / "out")
    assert sysroot("--keep", "armhf", *output, path=mirror.programs).returncode == 0
    (mirror.directory / "calls").unlink()
    kept = sysroot("--keep", "armhf", *output, path=mirror.programs)
    assert kept.returncode == 0 and "kept" in kept.stdout
    assert not (mirror.directory / "calls").exists()
    # Made for other wishes, it is no longer good enough.
    (tmp_path / "out/armhf/.packages").write_text("# libc6-dev\n")
    assert sysroot("--keep", "armhf", *output, path=mirror.programs).returncode == 0
    assert mirror.calls()


@pytest.mark.parametrize("call", ["resolve", "install"])
def test_a_failure_of_apt_leaves_the_old_folder(mirror, tmp_path, call):
    output = ("--output", tmp_path / "out")
    sysroot("armhf", *output, path=mirror.programs)
    mirror.publish("libtwo", ["usr/lib/two.so"])
    mirror.fail(call)
    result = sysroot("armhf", *output, path=mirror.programs)
    assert result.returncode == 1 and "scripts/sysroot: armhf: " in result.stderr
    assert call == "resolve" or "E: install: no" in result.stderr
    assert entries(tmp_path / "out") == ["armhf"]
    assert entries(tmp_path / "out/armhf/usr/lib") == ["one.so", "one.so.1"]


def test_a_package_that_cannot_be_unpacked_leaves_the_old_folder(mirror, tmp_path):
    output = ("--output", tmp_path / "out")
    sysroot("armhf", *output, path=mirror.programs)
    (mirror.directory / "broken.deb").write_text("no package")
    result = sysroot("armhf", *output, path=mirror.programs)
    assert result.returncode == 1 and "cannot unpack broken.deb" in result.stderr
    assert entries(tmp_path / "out") == ["armhf"]
    assert (tmp_path / "out/armhf/usr/lib/one.so.1").exists()


def test_lists_that_cannot_be_read_are_told_and_the_others_taken(mirror, tmp_path):
    mirror.fail("update")
    result = sysroot("armhf", "--output", tmp_path / "out", path=mirror.programs)
    assert result.returncode == 0
    assert "some package lists could not be read" in result.stderr and "E: update: no" in result.stderr
    assert entries(tmp_path / "out") == ["armhf"]
