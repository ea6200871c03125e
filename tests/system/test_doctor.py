"""zonectl doctor on a healthy machine that is broken in one way after another."""

import re

import pytest
from doctor.clinic import ZONECTL, Clinic, Report
from doctor.recipes import RECIPES, WANTS
from zonetest import PROJECT, READY, Bus, eventually, messages

MESSAGES = [messages.expression(message.text) for message in messages.catalogue()]
IDS = re.findall(r'= "([a-z.-]+)";', (PROJECT / "tools" / "zonectl" / "Doctor" / "FindingIds.h").read_text())
# What no recipe can do to a machine: another user, a kernel or a library of another kind, a daemon that runs.
ELSEWHERE = {
    "daemon.stale",
    "daemon.gone",
    "daemon.silent",
    "user.not-root",
    "launcher.unreadable",
    "directory.hidden",
    "holder.unknown",
    "container.unreadable",
    "smack.inactive",
    "liblxc.untried",
    "lxcpath.none",
    "container.autostart-value",
}
HELD = {"lock.held", "fifo.held", "socket.taken"}
ZONES = ("blue", "gold", "red")
RED = "/var/lib/lxc/red"


@pytest.fixture(scope="module")
def clinics():
    """The worker's clinic, made when it is first needed and again when a test leaves it in disorder."""
    held = []
    yield held
    for each in held:
        each.close()


@pytest.fixture
def clinic(clinics):
    if not clinics:
        clinics.append(Clinic())
    yield clinics[0]
    if not clinics[0].recovers():
        clinics.pop().close()


def each(recipes):
    return pytest.mark.parametrize("recipe", recipes, ids=[recipe.name for recipe in recipes])


@each(RECIPES)
def test_the_doctor_names_what_is_wrong_and_what_mends_it(clinic, recipe):
    clinic.infect(recipe)
    report = clinic.examine()
    assert report.ids == recipe.finds, report.bad
    assert report.status == (1 if any(each["severity"] == "problem" for each in report.bad) else 0)
    assert all(finding["remedy"] for finding in report.bad)
    for message in report.messages:
        sample = message.replace("%d", "1")
        assert any(expression.fullmatch(sample) for expression in MESSAGES), message
    fixable = all(finding["fixable"] for finding in report.bad)
    healed = clinic.treat(recipe, report)
    assert healed.ids == (), healed.bad
    if report.status == 1 and not recipe.daemon:  # which the next test sees to
        clinic.daemon_starts_its_zones()
    if fixable:
        clinic.restore()
        clinic.infect(recipe)
        fixed = clinic.examine("--fix", "--yes")
        assert (fixed.status, fixed.ids) == (0, ()), fixed.data["fixes"]
        assert {fix["id"] for fix in fixed.data["fixes"] if fix["done"]} >= set(recipe.finds)


@each([recipe for recipe in RECIPES if recipe.daemon])
def test_the_daemon_writes_what_the_doctor_says_and_starts_its_zones_afterwards(clinic, recipe):
    clinic.infect(recipe)
    report = clinic.examine()
    assert len(report.messages) == len(recipe.finds), report.bad
    clinic.daemon_writes(report.messages)
    assert clinic.treat(recipe, report).ids == ()
    clinic.daemon_starts_its_zones()


def test_every_finding_has_a_recipe():
    found = {name for recipe in RECIPES for name in recipe.finds}
    assert {name for name in IDS if "." in name} == found | ELSEWHERE
    assert not found & ELSEWHERE


def test_without_systemd_no_remedy_asks_it(root, zones):
    zones.define("red")
    Bus(root)  # its policy alone: no bus is started
    for unit in ("lxc.service", "lxc-monitord.service"):
        root.run(["ln", "-sf", f"/lib/systemd/system/{unit}", f"{WANTS}/{unit}"])
    report = Report(root.run([ZONECTL, "doctor", "--json"], check=False))
    assert report.ids == ("bus.unreachable", "unit.lxc", "unit.lxc-monitord")
    for finding in report.bad:
        assert "systemctl" not in finding["remedy"]
        root.run(finding["remedy"])
    assert Report(root.run([ZONECTL, "doctor", "--json"], check=False)).ids == ()


def test_with_systemd_it_is_asked(clinic):
    clinic.shell(f"mkdir -p /run/systemd/system; ln -s /lib/systemd/system/lxc-monitord.service {WANTS}")
    begin(clinic)
    clinic.shell("mv /var/lib/lxc/red /root/red")
    try:
        assert {finding["remedy"] for finding in clinic.examine().bad} == {
            "systemctl restart zone-manager", "systemctl disable --now lxc-monitord.service"}
        (monitord,) = [each for each in clinic.examine().bad if each["id"] == "unit.lxc-monitord"]
        assert "systemd stops the zone manager and does not start it again" in monitord["text"]
    finally:
        clinic.shell(f"mv /root/red /var/lib/lxc; rm -r /run/systemd {WANTS}/lxc-monitord.service")


@pytest.mark.parametrize("breaks, finds", [
    ("mkdir -p /var/lib/lxc", "containers.none"), ("rm -rf /var/lib/lxc", "lxcpath.missing")])
def test_the_first_zone_is_defined_by_the_remedy(root, zones, bus, daemon, breaks, finds):
    root.run(breaks)
    report = Report(root.run([ZONECTL, "doctor", "--json"], check=False))
    (finding,) = [each for each in report.bad if each["id"] == finds]
    root.run(finding["remedy"])
    report = Report(root.run([ZONECTL, "doctor", "--json"], check=False))
    assert [name for name in report.ids if not name.startswith("unit.")] == []
    daemon.start(wait=READY)
    assert bus.call("ZoneStart", "red")
    eventually(lambda: zones.state("red") == "RUNNING", 20, "red to run")


APT = 'apt() { [ "$*" = "install busybox-static" ] && mv /root/busybox /bin; }'


def test_what_the_first_zone_is_made_of_is_installed_before(root, zones):
    root.run('mkdir -p /var/lib/lxc; mv "$(command -v busybox)" /root/busybox')
    report = Report(root.run([ZONECTL, "doctor", "--json"], check=False))
    (finding,) = [each for each in report.bad if each["id"] == "containers.none"]
    assert finding["remedy"].startswith("apt install busybox-static; NAME=red; lxc-create ")
    root.run(f"{APT}; {finding['remedy']}")
    assert root.exists("/var/lib/lxc/red/rootfs/bin/busybox")


def begin(clinic):
    """Starts the daemon; when it is on the bus, it has its zones."""
    clinic.daemon.start()
    clinic.bus.wait_owned()


def begin_again(clinic, report):
    """Does the first remedy's command, which ends the daemon, and starts it again as told."""
    command, _, rest = report.bad[0]["remedy"].partition(" # ")
    assert rest == "and start the daemon again when it has ended"
    clinic.shell(command)
    assert clinic.daemon.wait_exit() == 0
    begin(clinic)


def told(report):
    return {(finding["id"], finding["subject"], finding["severity"]) for finding in report.bad}


def test_what_was_corrected_is_a_zone_after_a_restart_only(clinic):
    clinic.shell(f"sed -i '/^zone.container_type/d' {RED}/config")
    begin(clinic)
    assert clinic.examine().ids == ("container.no-kind",), "not twice"
    clinic.restore()
    report = clinic.examine()
    assert (report.status, told(report)) == (1, {("daemon.stale", "red", "problem")})
    assert "automatic-start" not in [finding["id"] for finding in report.data["findings"]]
    begin_again(clinic, report)
    assert clinic.examine().ids == ()


def test_what_is_defined_and_what_is_destroyed_while_the_daemon_runs(clinic):
    away = "/root/away"
    clinic.shell(f"mkdir {away}; mv /var/lib/lxc/blue {away}")
    begin(clinic)
    clinic.shell(f"mv {away}/blue /var/lib/lxc; mv {RED} {away}")
    try:
        report = clinic.examine()
        assert told(report) == {("daemon.stale", "blue", "problem"), ("daemon.gone", "red", "warning")}
        begin_again(clinic, report)
        assert clinic.examine().ids == ()
    finally:
        clinic.shell(f"mv {away}/red /var/lib/lxc; rmdir {away}")


def seen_by_another(clinic):
    """The report of another user's doctor, and what in it is no more than a remark."""
    report = Report(clinic.zonectl_of_another_user("doctor", "--json"))
    notes = [each for each in report.data["findings"] if each["severity"] == "note"]
    assert {each["remedy"] for each in notes} <= {None, "sudo zonectl doctor"}
    return report, {(each["id"], each["subject"]) for each in notes}


@pytest.mark.parametrize("shows, notes", [
    ("chmod 644 /var/lib/lxc/*/config", set()),
    ("chmod 644 /var/lib/lxc/*/config; chmod 700 /opt/var/lib/lxc/blue", {("container.unreadable", "blue")}),
    ("chmod 644 /var/lib/lxc/*/config; chmod 700 /opt/var", {
        ("directory.hidden", "/opt/var/lib/lxc"), *(("container.unreadable", name) for name in ZONES)}),
    ("chmod 640 /var/lib/lxc/*/config", {("container.unreadable", "containers")}),
    ("chmod 700 /var/lib/lxc/*", {("container.unreadable", "containers")}),
    ("chmod 700 /var/lib/lxc", {("container.unreadable", "containers")}),
    ("chmod 644 /var/lib/lxc/*/config; chmod 700 /zone/config", {("launcher.unreadable", "launcher")}),
], ids=["nothing", "writable directory", "their base", "configurations", "containers", "path", "launcher"])
def test_another_user_is_not_alarmed_by_what_only_root_may_see(clinic, shows, notes):
    begin(clinic)
    clinic.shell(shows)
    try:
        report, remarks = seen_by_another(clinic)
        text = clinic.zonectl_of_another_user("doctor").stdout
    finally:
        clinic.shell("chmod 755 /var/lib/lxc /var/lib/lxc/* /opt/var /opt/var/lib/lxc/* /zone/config")
    assert set(report.ids) <= {"user.not-root", "daemon.silent"}, report.bad
    assert not report.data["refused"] and not report.data["automatic_start_blocked"]
    always = {("smack.inactive", "smack"), ("liblxc.untried", "liblxc"),
              ("holder.unknown", "state socket"), ("holder.unknown", "init-pid socket")}
    assert remarks == always | notes
    assert text.startswith("problem  user: not root") and "kill" not in text


@each([recipe for recipe in RECIPES if recipe.holds and set(recipe.finds) & HELD])
def test_another_user_is_not_told_to_kill_who_may_be_the_daemon(clinic, recipe):
    clinic.infect(recipe)
    report, remarks = seen_by_another(clinic)
    assert len([id for id, _ in remarks if id == "holder.unknown"]) == 1 and not set(report.ids) & HELD
    assert clinic.treat(recipe, clinic.examine()).ids == (), "root knows better"


def test_who_may_not_ask_the_daemon_is_told_that_it_was_not_asked(clinic):
    begin(clinic)
    clinic.shell("chmod 644 /var/lib/lxc/*/config")
    assert ("daemon.silent", "zones", "warning") in told(seen_by_another(clinic)[0])


@pytest.mark.parametrize("options", [(), ("--tmpfiles",)])
def test_containers_whose_labels_are_not_known_are_named(clinic, options):
    assert clinic.zonectl("labels", *options).returncode == 0
    clinic.shell(f"echo 'lxc.tty.max = many' >>{RED}/config")
    result = clinic.zonectl("labels", *options)
    assert (result.returncode, result.stderr) == (
        1, "zonectl: left out red: liblxc refuses its configuration\n")
    assert "/opt/var/lib/lxc/blue" in result.stdout and "/red" not in result.stdout


def test_another_user_is_told_whose_labels_stay_unknown(clinic):
    clinic.shell("chmod 644 /var/lib/lxc/*/config; chmod 640 /var/lib/lxc/[br]*/config")
    result = clinic.zonectl_of_another_user("labels")
    assert (result.returncode, result.stderr) == (1, "".join(
        f"zonectl: left out {name}: this user may not read its configuration\n" for name in ("blue", "red")))
    clinic.shell("chmod 644 /var/lib/lxc/*/config; chmod 700 /opt/var/lib/lxc/blue")
    try:
        result = clinic.zonectl_of_another_user("labels")
    finally:
        clinic.shell("chmod 755 /opt/var/lib/lxc/blue")
    assert (result.returncode, result.stderr) == (1, "")
    (line,) = [line for line in result.stdout.splitlines() if line.startswith("/opt/var/lib/lxc/blue/opt")]
    assert line.endswith("cannot be seen by this user")
    clinic.shell("chmod 700 /var/lib/lxc")
    try:
        result = clinic.zonectl_of_another_user("labels")
    finally:
        clinic.shell("chmod 755 /var/lib/lxc")
    assert (result.returncode, result.stderr) == (
        1, "zonectl: left out what is defined below /var/lib/lxc: this user may not look there\n")


def test_a_healthy_machine_and_its_daemon(clinic):
    report = clinic.examine()
    assert (report.status, report.ids, report.data["ok"]) == (0, (), True)
    assert not report.data["automatic_start_blocked"] and report.data["listed"] == 3
    clinic.daemon_starts_its_zones()
    assert clinic.examine().ids == ()


def test_looking_changes_nothing(clinic):
    find = "find /run/lxc /var/lib/lxc /opt/var /zone -printf '%p %M %u %s %T@ %C@\\n'"
    look = f"{find} | sort; cat /proc/mounts"
    clinic.root.run("rm -rf /run/lxc/lock")
    before = clinic.root.run(look).stdout
    clinic.examine()
    clinic.zonectl("labels")
    assert clinic.root.run(look).stdout == before
