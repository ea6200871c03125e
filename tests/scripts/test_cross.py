"""What scripts/cross runs, in which order and what it concludes, with stand-ins for all of it."""

import json
import os
import pathlib
import re
import shutil
import subprocess

import pytest

PROJECT = pathlib.Path(__file__).resolve().parents[2]

LINKED = """ 0x00000001 (NEEDED)                     Shared library: [liblxc.so.1]
 0x0000001d (RUNPATH)                    Library runpath: [/zone/config]
"""
REPORT = """[ RUN      ] Masks.AreInherited
masks.cpp:7: Skipped
the emulator keeps them to itself

[  SKIPPED ] Masks.AreInherited (0 ms)
[  SKIPPED ] 1 test, listed below:
[  SKIPPED ] Masks.AreInherited
"""
# Writes its call down; as readelf, shows what lies beside the file that it is asked about.
STAND_IN = """#!/bin/sh
echo {name} "$@" >>{tree}/calls
eval last=\\${{$#}}
case $1 in
    -d) cat "{tree}/$last.linked" ;;
    -p) cat "{tree}/$last.text" ;;
esac 2>/dev/null
case "{name} $*" in
    $FAILS) echo the stand-in fails >&2; exit 1 ;;
esac
"""


class Tree:
    """A copy of the script among stand-ins, each of which writes its call down."""

    def __init__(self, directory):
        self.directory = directory
        scripts, self.programs = directory / "scripts", directory / "bin"
        scripts.mkdir()
        self.programs.mkdir()
        shutil.copy(PROJECT / "scripts" / "cross", scripts)
        in_path = ("cmake", "ctest", "arm-linux-gnueabihf-readelf", "aarch64-linux-gnu-readelf")
        for stand_in in (scripts / "setup", scripts / "sysroot", *(self.programs / name for name in in_path)):
            stand_in.write_text(STAND_IN.format(tree=directory, name=stand_in.name))
            stand_in.chmod(0o755)
        for architecture in ("armhf", "aarch64"):
            for program in ("bin/zone-manager", "bin/zonectl", "bin/zone-launcher", "lib/liblxc.so.1"):
                self.write(f"build/{architecture}/{program}", "")
            self.write(f"build/{architecture}/bin/zone-manager.linked", LINKED)
            self.write(f"build/{architecture}/Testing/Temporary/LastTest.log", REPORT)

    def write(self, name, text):
        file = self.directory / name
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_text(text)

    def run(self, *arguments, fails="nothing"):
        self.write("calls", "")
        environment = {**os.environ, "PATH": f"{self.programs}:{os.environ['PATH']}", "FAILS": fails}
        return subprocess.run([self.directory / "scripts" / "cross", *arguments], env=environment,
                              capture_output=True, text=True, timeout=60, check=False)

    def calls(self, *names):
        made = (self.directory / "calls").read_text().splitlines()
        return [call for call in made if call.split(" ")[0] in names]


@pytest.fixture
def tree(tmp_path):
    return Tree(tmp_path)


@pytest.mark.parametrize(("arguments", "complaint"), [
    (("mips",), "unknown architecture: mips"),
    (("--all",), "unknown argument: --all"),
    (("armhf", "--only"), "--only needs an expression"),
])
def test_a_wrong_call_is_told_and_runs_nothing(tree, arguments, complaint):
    result = tree.run(*arguments)
    assert result.returncode == 2
    assert complaint in result.stderr and "usage: scripts/cross" in result.stderr
    assert (tree.directory / "calls").read_text() == ""


@pytest.mark.parametrize("architecture", ["armhf", "aarch64"])
def test_an_architecture_has_a_preset_a_toolchain_and_the_packages_of_both(architecture):
    presets = json.loads((PROJECT / "CMakePresets.json").read_text())
    configured = {preset["name"]: preset for preset in presets["configurePresets"]}[architecture]
    toolchain = f"cmake/toolchains/{architecture}.cmake"
    assert configured["toolchainFile"] == f"${{sourceDir}}/{toolchain}"
    assert architecture in [preset["name"] for preset in presets["buildPresets"]]
    target = re.search(r"set\(ZONE_TARGET (\S+)\)", (PROJECT / toolchain).read_text())[1]
    setup = (PROJECT / "scripts" / "setup", "--with", "cross", "--list")
    packages = subprocess.run(setup, capture_output=True, text=True, timeout=60, check=True).stdout.split()
    assert {f"g++-{target}", "qemu-user"} <= set(packages)


def test_an_architecture_is_prepared_built_and_tested(tree):
    result = tree.run("armhf")
    assert result.returncode == 0, result.stderr
    assert tree.calls("setup", "sysroot", "cmake", "ctest") == [
        "setup --with cross", "sysroot --keep armhf", "cmake --preset armhf", "cmake --build --preset armhf",
        r"ctest --test-dir build/armhf --output-on-failure --no-tests=error -j 2 -L ^unit$ -R ^unit\."]
    assert "passed: armhf; failed: none" in result.stdout


@pytest.mark.parametrize("arguments", [(), ("armhf", "arm64")])
def test_both_architectures_one_after_the_other(tree, arguments):
    assert tree.run(*arguments).returncode == 0
    assert tree.calls("sysroot", "ctest", "setup") == [
        "setup --with cross",
        "sysroot --keep armhf", *tree.calls("ctest")[:1], "sysroot --keep aarch64", *tree.calls("ctest")[1:]]


def test_only_some_tests(tree):
    assert tree.run("aarch64", "--only", "unit.Zone").returncode == 0
    assert tree.calls("ctest")[0].endswith(" -R unit.Zone")


def test_what_was_skipped_is_named_with_its_reason(tree):
    assert tree.run("armhf").stdout.count("skipped: ") == 1
    assert "skipped: Masks.AreInherited: the emulator keeps them to itself\n" in tree.run("armhf").stdout


@pytest.mark.parametrize(("fails", "last"), [
    ("sysroot*armhf", "sysroot"), ("cmake*--preset*armhf", "cmake"), ("cmake --build*armhf", "cmake"),
    ("ctest*armhf*", "ctest")])
def test_a_failure_ends_its_architecture_alone(tree, fails, last):
    result = tree.run(fails=fails)
    assert result.returncode == 1
    assert "the stand-in fails" in result.stderr
    assert "passed: aarch64; failed: armhf" in result.stdout
    calls = tree.calls("sysroot", "cmake", "ctest")
    assert calls[calls.index("sysroot --keep aarch64") - 1].startswith(last)


@pytest.mark.parametrize(("file", "text", "complaint"), [
    ("bin/zone-manager.linked", LINKED.replace("liblxc", "libother"), "does not need liblxc.so.1"),
    ("bin/zone-manager.linked", LINKED.replace("[/zone", "[/opt:/zone"), "run path is not /zone/config"),
    ("bin/zonectl.linked", LINKED, "bin/zonectl has a run path"),
    ("lib/liblxc.so.1.text", "PROJECT/build/sysroot/armhf/liblxc.so.1", "names this machine's folders"),
], ids=["another library", "a longer run path", "a run path too many", "a path of this machine"])
def test_programs_that_a_device_could_not_use_fail(tree, file, text, complaint):
    tree.write(f"build/armhf/{file}", text.replace("PROJECT", str(tree.directory)))
    result = tree.run("armhf")
    assert result.returncode == 1
    assert complaint in result.stderr and tree.calls("ctest") == []


def test_a_program_that_was_not_built_fails(tree):
    (tree.directory / "build/armhf/bin/zone-launcher").unlink()
    result = tree.run("armhf")
    assert result.returncode == 1
    assert "armhf: there is no bin/zone-launcher" in result.stderr and tree.calls("ctest") == []
