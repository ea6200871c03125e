"""zonectl doctor on a healthy machine that is broken in one way after another."""

import re

import pytest
from doctor.clinic import Clinic
from doctor.recipes import RECIPES
from zonetest import PROJECT, messages

MESSAGES = [messages.expression(message.text) for message in messages.catalogue()]
IDS = re.findall(r'= "([a-z.-]+)";', (PROJECT / "tools" / "zonectl" / "Doctor" / "FindingIds.h").read_text())
# What no recipe can do to a machine: another user, a kernel or a library of another kind.
ELSEWHERE = {
    "user.not-root",
    "smack.inactive",
    "liblxc.untried",
    "lxcpath.none",
    "container.autostart-value",
}


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
