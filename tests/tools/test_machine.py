"""zonectl doctor and zonectl labels on trees that stand for machines."""

import json
import os
import re
import shutil
import subprocess

import bus_fixtures
import pytest
from bus_fixtures import REPOSITORY
from machine_trees import LABEL, container, labelled

def doctor(root):
    result = bus_fixtures.zonectl("doctor", "--json", "--root", str(root))
    assert result.stderr == ""
    return result.returncode, json.loads(result.stdout)


def findings(report, severity):
    return {finding["subject"]: finding for finding in report["findings"] if finding["severity"] == severity}


def test_a_sound_machine(machine):
    status, report = doctor(machine)
    assert status == 0 and report["ok"]
    assert (report["listed"], report["refused"], report["automatic_start_blocked"]) == (1, [], False)
    assert findings(report, "problem") == findings(report, "warning") == {}
    text = bus_fixtures.zonectl("doctor", "--root", str(machine))
    assert text.returncode == 0 and text.stdout.endswith("No problem was found.\n")


@pytest.mark.parametrize("kind", [None, "4", "Hybrid"])
def test_a_container_without_a_kind_is_reported_loudly(machine, kind):
    container(machine, "broken", kind)
    status, report = doctor(machine)
    assert status == 1 and report["automatic_start_blocked"]
    assert [refused["name"] for refused in report["refused"]] == ["broken"]
    text = bus_fixtures.zonectl("doctor", "--root", str(machine)).stdout
    assert text.startswith("*** NOTHING STARTS AUTOMATICALLY ***\n2 containers are listed, 1 of them become")
    assert "until some zone reaches RUNNING another way" in text


@pytest.mark.parametrize("path, breaks", [
    ("zone/config/liblxc.so.1", "liblxc"), ("zone/config/zone-launcher", "launcher")])
def test_a_missing_file(machine, path, breaks):
    (machine / path).unlink()
    status, report = doctor(machine)
    assert status == 1 and list(findings(report, "problem")) == [breaks]


def test_a_launcher_that_cannot_be_run(machine):
    (machine / "zone/config/zone-launcher").chmod(0o644)
    status, report = doctor(machine)
    assert status == 1 and "not executable" in findings(report, "problem")["launcher"]["text"]


def test_an_unlabelled_run_directory(machine):
    os.removexattr(machine / "run/lxc", LABEL)
    status, report = doctor(machine)
    assert status == 1 and "setfattr" in findings(report, "problem")["/run/lxc"]["remedy"]


def test_unlabelled_secure_data_is_only_a_warning(machine):
    os.removexattr(machine / "opt/zone/template/securedata", LABEL)
    status, report = doctor(machine)
    assert status == 0 and "/opt/zone/template/securedata" in findings(report, "warning")


def test_a_missing_base_of_the_writable_directories(machine):
    (machine / "opt/var/lib/lxc").rmdir()
    status, report = doctor(machine)
    assert status == 1
    remedy = findings(report, "problem")["/opt/var/lib/lxc"]["remedy"]
    assert remedy == f"mkdir -p {machine}/opt/var/lib/lxc", "for this system, not for the running one"
    assert report["refused"][0]["name"] == "media"


def test_a_container_without_a_root_file_system(machine):
    (machine / "var/lib/lxc/media/config").write_text("zone.container_type = 2\n")
    status, report = doctor(machine)
    assert status == 1
    assert report["refused"] == [
        {"name": "media", "reasons": ["its configuration names no lxc.rootfs.path"]}]


def test_a_library_of_another_system_is_not_tried(machine):
    assert "liblxc.untried" in [finding["id"] for finding in doctor(machine)[1]["findings"]]


def test_who_is_not_root_sees_less():
    result = subprocess.run(
        ["setpriv", "--reuid=65534", "--clear-groups", bus_fixtures.ZONECTL, "doctor", "--json"],
        env=bus_fixtures.environment("unix:path=/nonexistent"), capture_output=True, text=True,
        timeout=bus_fixtures.DEADLINE)
    if "Permission denied" in result.stderr:
        pytest.skip("the build cannot be run by others")
    report = json.loads(result.stdout)
    assert result.returncode == 1 and report["findings"][0]["id"] == "user.not-root"


def test_the_manual_lists_every_finding():
    ids = re.findall(r'= "([a-z.-]+)";', (REPOSITORY / "tools/zonectl/Doctor/FindingIds.h").read_text())
    manual = (REPOSITORY / "docs/man/zonectl.1").read_text()
    section = manual.partition(".Ss Findings")[2].partition(".Ss ")[0]
    listed = re.findall(r"^\.It (\S+)$", section, re.MULTILINE)
    assert listed == [name for name in ids if "." in name]


def isolated(machine):
    container(machine, "nav", "isolation")
    labelled(machine / "opt/var/lib/lxc/nav", "System")
    labelled(machine / "opt/var/lib/lxc/nav/opt", "_")


def protected(machine):
    labelled(container(machine, "guard", "3"), "!")
    labelled(machine / "opt/var/lib/lxc/guard", "_")
    labelled(machine / "opt/var/lib/lxc/guard/opt", "_")


def labels(root):
    result = bus_fixtures.zonectl("labels", "--json", "--root", str(root))
    assert result.stderr == ""
    return result.returncode, {row["path"]: row for row in json.loads(result.stdout)}


def test_labels_of_all_kinds(machine):
    isolated(machine)
    protected(machine)
    status, rows = labels(machine)
    assert status == 0
    assert rows["/run/lxc"] == {"path": "/run/lxc", "zone": None, "label": "!", "wanted": "!",
                                "enforced": True, "good": True, "verdict": "ok"}
    assert rows["/opt/var/lib/lxc/nav"]["wanted"] == "System"
    assert rows["/opt/var/lib/lxc/guard"]["verdict"] == "set at the daemon's start"
    assert rows["/var/lib/lxc/nav"]["verdict"] == "ok, any label will do"
    assert rows["/opt/var/lib/lxc/media"]["verdict"] == "made at the daemon's start"
    assert doctor(machine)[0] == 0


def test_a_missing_first_label_refuses_the_zone(machine):
    isolated(machine)
    os.removexattr(machine / "opt/var/lib/lxc/nav/opt", LABEL)
    status, rows = labels(machine)
    assert status == 1 and not rows["/opt/var/lib/lxc/nav/opt"]["good"]
    status, report = doctor(machine)
    assert status == 1 and [refused["name"] for refused in report["refused"]] == ["nav"]
    text = bus_fixtures.zonectl("labels", "--root", str(machine))
    assert text.returncode == 1
    assert any("nav/opt" in line and line.endswith("needs a first label (the zone is refused)")
               for line in text.stdout.splitlines())


def tmpfiles(root):
    """What `labels --tmpfiles` prints, applied to the tree by systemd."""
    result = bus_fixtures.zonectl("labels", "--tmpfiles", "--root", str(root))
    assert (result.returncode, result.stderr) == (0, "")
    lines = root.parent / f"{root.name}.conf"
    lines.write_text(result.stdout)
    applied = subprocess.run(["systemd-tmpfiles", "--create", f"--root={root}", str(lines)],
                             capture_output=True, text=True, timeout=bus_fixtures.DEADLINE)
    assert (applied.returncode, applied.stderr) == (0, "")
    return result.stdout


def rid_of_labels(root):
    for path in root.rglob("*"):
        if LABEL in os.listxattr(path, follow_symlinks=False):
            os.removexattr(path, LABEL, follow_symlinks=False)


def test_the_lines_for_tmpfiles_satisfy_all_kinds(machine):
    for name, kind in (("nav", "isolation"), ("guard", "protection"), ("plain", "hybrid")):
        container(machine, name, kind)
    rid_of_labels(machine)
    shutil.rmtree(machine / "opt")
    shutil.rmtree(machine / "run")
    assert labels(machine)[0] == 1
    tmpfiles(machine)
    status, rows = labels(machine)
    assert status == 0 and all(row["good"] for row in rows.values())
    assert all(row["label"] == row["wanted"] for row in rows.values() if row["enforced"])
    assert (machine / "opt/var/lib/lxc/plain/opt").is_dir()
    assert doctor(machine)[0] == 0


@pytest.mark.parametrize("name", ["a b", "50%", "%n", "x[1]", "it's", 'q"', "b\\s", "st*r", "tab\tname"])
def test_the_lines_for_tmpfiles_of_unusual_names(machine, name):
    container(machine, name, "isolation")
    container(machine, "x1", "isolation")
    assert labels(machine)[0] == 1
    tmpfiles(machine)
    status, rows = labels(machine)
    assert status == 0 and rows[f"/opt/var/lib/lxc/{name}"]["label"] == "System"


def test_the_lines_for_tmpfiles_take_nothing_from_a_zone(machine):
    container(machine, "nav", "isolation")
    for path, label in (("nav", "System"), ("nav/opt", "_")):
        labelled(machine / "opt/var/lib/lxc" / path, label)
        (machine / "opt/var/lib/lxc" / path).chmod(0o770)
        os.chown(machine / "opt/var/lib/lxc" / path, 1000, 1000)
    tmpfiles(machine)
    status = (machine / "opt/var/lib/lxc/nav/opt").stat()
    assert (status.st_mode & 0o7777, status.st_uid, status.st_gid) == (0o770, 1000, 1000)


@pytest.mark.parametrize("options", [(), ("--json",), ("--tmpfiles",)])
def test_containers_without_labels_are_named(machine, options):
    complete = bus_fixtures.zonectl("labels", *options, "--root", str(machine))
    assert (complete.returncode, complete.stderr) == (0, "")
    container(machine, "none", None)
    container(machine, "bad", "4")
    result = bus_fixtures.zonectl("labels", *options, "--root", str(machine))
    assert (result.returncode, result.stdout) == (1, complete.stdout), "the rest is printed all the same"
    assert result.stderr.splitlines() == [
        "zonectl: left out bad: its configuration names no valid kind (zone.container_type = 4)",
        "zonectl: left out none: its configuration names no valid kind (zone.container_type)"]


def test_the_lines_for_tmpfiles_are_no_json(machine):
    result = bus_fixtures.zonectl("labels", "--tmpfiles", "--json", "--root", str(machine))
    assert (result.returncode, result.stdout) == (2, "") and "--tmpfiles" in result.stderr


def test_a_name_of_two_lines_adds_no_line_for_tmpfiles(machine):
    container(machine, "x\ny", "isolation")
    lines = tmpfiles(machine).splitlines()
    assert all(line.startswith(("d /run", "d /opt", "t /run", "t /opt", "# left out")) for line in lines)
    assert "# left out: a path that no line can hold" in lines
