"""What is in the package, and what lintian says of it."""

import configparser
import re
import subprocess
from pathlib import Path

import pytest
from debian_package import DEADLINE, PROJECT, output_of

LIBLXC = "/zone/config/liblxc.so.1"
LAUNCHER = "/zone/config/zone-launcher"
FILES = {
    "/lib/systemd/system/zone-manager.service": "-rw-r--r--",
    "/usr/bin/zonectl": "-rwxr-xr-x",
    "/usr/share/bash-completion/completions/zonectl": "-rw-r--r--",
    "/usr/share/zsh/vendor-completions/_zonectl": "-rw-r--r--",
    "/usr/lib/tmpfiles.d/zone-manager.conf": "-rw-r--r--",
    "/usr/sbin/zone-manager": "-rwxr-xr-x",
    "/usr/share/dbus-1/interfaces/org.ornix.zoneframework.xml": "-rw-r--r--",
    "/usr/share/dbus-1/system.d/org.ornix.zoneframework.conf": "-rw-r--r--",
    "/usr/share/man/man1/zonectl.1.gz": "-rw-r--r--",
    "/usr/share/man/man5/zone.config.5.gz": "-rw-r--r--",
    "/usr/share/man/man8/zone-launcher.8.gz": "-rw-r--r--",
    "/usr/share/man/man8/zone-manager.8.gz": "-rw-r--r--",
    LIBLXC: "-rw-r--r--",
    LAUNCHER: "-rwxr-xr-x",
}
VARIANTS = [(), ("--without-liblxc",), ("--without-launcher",), ("--without-liblxc", "--without-launcher")]
LEFT_OUT = {"--without-liblxc": LIBLXC, "--without-launcher": LAUNCHER}

variants = pytest.mark.parametrize("options", VARIANTS, ids=lambda options: " ".join(options) or "all")


def documents(files):
    return {path for path in files if path.startswith(("/usr/share/doc/", "/usr/share/lintian/"))}


@variants
def test_everything_is_in_its_place_but_what_is_left_out(workshop, options):
    files = workshop.package(*options).files
    left_out = {LEFT_OUT[option] for option in options}
    assert {path: mode for path, mode in files.items() if path not in documents(files)} == {
        path: mode for path, mode in FILES.items() if path not in left_out}


@variants
def test_only_what_is_in_it_makes_it_depend_on_lxc(workshop, options):
    expected = {"lxc", "liblxc1"}
    if "--without-liblxc" in options:
        expected.remove("liblxc1")
    if "--without-launcher" in options:
        expected.remove("lxc")
    needed = workshop.package(*options).dependencies
    assert {name for name in needed if "lxc" in name} == expected
    assert {"default-dbus-system-bus", "libc6", "libglib2.0-0", "libjson-glib-1.0-0", "libstdc++6"} <= needed


@variants
def test_lintian_has_nothing_to_say(workshop, options):
    result = subprocess.run(
        ["lintian", "--allow-root", "--fail-on", "error,warning", workshop.package(*options).path],
        capture_output=True, text=True, timeout=DEADLINE, check=False)
    assert (result.returncode, result.stdout) == (0, "")


def test_each_override_of_lintian_has_its_reason_before_it():
    lines = (PROJECT / "packaging/debian/zone-manager.lintian-overrides").read_text().splitlines()
    assert lines[0].startswith("# ") and any(line.startswith("zone-manager: ") for line in lines)


def test_the_links_of_its_documents_lead_to_files_of_its_own(package, tmp_path):
    place = Path(package.unpack(tmp_path)) / "usr/share/doc/zone-manager"
    links = {link for document in place.glob("*.md")
             for link in re.findall(r"\]\(([^)#:]+)(?:#[^)]*)?\)", document.read_text())}
    assert "examples/init-pid.c" in links
    assert [link for link in sorted(links) if not (place / link).exists()] == []


def test_its_files_are_roots(package):
    assert package.owners == {"root/root"}


def test_it_has_the_version_of_the_build(package):
    version = re.search(r"^project\(zone-manager VERSION (\S+)", (PROJECT / "CMakeLists.txt").read_text(),
                        re.MULTILINE)[1]
    assert package.field("Version") == version


def test_nobody_else_is_told_of_our_liblxc(package):
    """No file that says who else may link against it, and no trigger for the linker's cache."""
    assert package.control_files == {"control", "md5sums", "postinst", "postrm", "prerm"}


def test_its_documents_come_along(package):
    names = {path.rpartition("/")[2] for path in documents(package.files)}
    examples = {path.name for path in (PROJECT / "docs" / "examples").iterdir()}
    assert names == {"CHANGELOG.md", "architecture.md", "changelog.gz", "copyright", "interfaces.md",
                     "operations.md", "zone-manager"} | examples


def test_the_daemon_looks_for_liblxc_in_the_devices_own_folder_alone(package, tmp_path):
    dynamic = output_of("readelf", "--dynamic", package.unpack(tmp_path) / "usr/sbin/zone-manager")
    assert re.findall(r"NEEDED.*\[(liblxc.*)\]", dynamic) == ["liblxc.so.1"]
    assert re.findall(r"(?:RUNPATH|RPATH).*\[(.*)\]", dynamic) == ["/zone/config"]


def test_what_is_text_is_that_of_the_tree(package, tmp_path):
    content, packaging = package.unpack(tmp_path), PROJECT / "packaging"
    for packaged, source in {
        "usr/share/dbus-1/interfaces/org.ornix.zoneframework.xml": "dbus/org.ornix.zoneframework.xml",
        "usr/share/dbus-1/system.d/org.ornix.zoneframework.conf": "dbus/org.ornix.zoneframework.conf",
        "usr/lib/tmpfiles.d/zone-manager.conf": "tmpfiles.d/zone-manager.conf",
    }.items():
        assert (content / packaged).read_text() == (packaging / source).read_text()


def test_the_unit_keeps_zones_alive_and_out_of_every_sandbox(package, tmp_path):
    unit = configparser.ConfigParser(strict=True, interpolation=None)
    unit.optionxform = str
    unit.read(package.unpack(tmp_path) / "lib/systemd/system/zone-manager.service")
    assert dict(unit["Service"]) == {
        "Type": "dbus",
        "BusName": "org.ornix.zoneframework",
        "ExecStart": "/usr/sbin/zone-manager",
        "EnvironmentFile": "-/etc/default/zone-manager",
        "KillMode": "process",
        "Delegate": "yes",
        "Restart": "always",
        "RestartSec": "5",
        "NotifyAccess": "main",
        "WatchdogSec": "60",
        "TimeoutStartSec": "60",
        "TimeoutStopSec": "20",
        "StandardOutput": "journal",
        "StandardError": "journal",
    }
    assert unit["Install"]["WantedBy"] == "multi-user.target"


def test_the_same_tree_gives_the_same_package(workshop, package):
    again = workshop.make("again")
    assert again.path.read_bytes() == package.path.read_bytes()


@pytest.mark.parametrize("page", ["man1/zonectl.1", "man5/zone.config.5", "man8/zone-launcher.8",
                                  "man8/zone-manager.8"])
def test_a_manual_page_is_shown_without_complaint(package, page, tmp_path):
    path = package.unpack(tmp_path) / "usr/share/man" / f"{page}.gz"
    shown = subprocess.run(["man", "--warnings", "--local-file", path], capture_output=True, text=True,
                           timeout=DEADLINE, check=False, env={"PATH": "/usr/bin:/bin", "LC_ALL": "C.UTF-8"})
    name, section = page.rpartition("/")[2].rsplit(".", 1)
    assert (shown.returncode, shown.stderr) == (0, "")
    assert shown.stdout.startswith(f"{name.upper()}({section})") and "DESCRIPTION" in shown.stdout
