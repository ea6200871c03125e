"""What the package brings besides programs."""

import os
import pathlib
import re
import shutil
import subprocess
import tempfile
import xml.etree.ElementTree as ElementTree

import bus_fixtures
import pytest

PACKAGING = bus_fixtures.REPOSITORY / "packaging"
MAN_PAGES = sorted((bus_fixtures.REPOSITORY / "docs" / "man").glob("*.[158]"))
NAME = "org.ornix.zoneframework"
INTERFACE = f"{NAME}.interface"
NOBODY = 65534

# The policy of a system bus, before the packaged one is added.
SYSTEM_POLICY = """<policy context="default">
    <allow user="*"/><deny own="*"/><deny send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_call"/><allow receive_type="method_return"/>
    <allow receive_type="error"/><allow receive_type="signal"/>
    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus"/>
  </policy>
  <policy user="root">
    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus.Debug.Stats"/>
  </policy>
  <include>{policy}</include>"""


@pytest.fixture
def open_directory():
    """A directory that every user can reach. Not one of pytest's, which closes those whenever it starts."""
    with tempfile.TemporaryDirectory(prefix="zonectl-test.") as name:
        os.chmod(name, 0o755)
        yield pathlib.Path(name)


@pytest.fixture
def policed_bus(open_directory):
    if os.geteuid() != 0:
        pytest.skip("only root can act for two users")
    bus = bus_fixtures.PrivateBus(open_directory,
                                  SYSTEM_POLICY.format(policy=PACKAGING / "dbus" / f"{NAME}.conf"))
    yield bus
    bus.stop()


def send(bus, member, *arguments, user):
    return subprocess.run(
        ["dbus-send", f"--bus={bus.address}", "--print-reply", "--reply-timeout=5000", f"--dest={NAME}",
         "/org/ornix/zoneframework", member, *arguments],
        capture_output=True, text=True, user=user, timeout=bus_fixtures.DEADLINE, check=False)


def test_root_owns_the_name_and_may_call(policed_bus):
    service = bus_fixtures.MockService(policed_bus.address)
    result = send(policed_bus, f"{INTERFACE}.ZoneGetState", "string:media", user=0)
    assert result.returncode == 0 and "int32 3" in result.stdout
    service.stop()


def test_others_may_look_and_not_touch(policed_bus):
    service = bus_fixtures.MockService(policed_bus.address)
    seen = send(policed_bus, "org.freedesktop.DBus.Introspectable.Introspect", user=NOBODY)
    assert seen.returncode == 0 and "ZoneStart" in seen.stdout
    for method in ("ZoneStart", "ZoneStop", "ZoneGetState", "GetVersion"):
        result = send(policed_bus, f"{INTERFACE}.{method}", "string:media", user=NOBODY)
        assert result.returncode != 0 and "AccessDenied" in result.stderr, method
    service.stop()


def test_others_may_not_own_the_name(policed_bus):
    result = subprocess.run(
        ["dbus-send", f"--bus={policed_bus.address}", "--print-reply", "--dest=org.freedesktop.DBus", "/",
         "org.freedesktop.DBus.RequestName", f"string:{NAME}", "uint32:0"],
        capture_output=True, text=True, user=NOBODY, timeout=bus_fixtures.DEADLINE, check=False)
    assert result.returncode != 0 and "AccessDenied" in result.stderr


@pytest.fixture
def reachable_copy(open_directory):
    """A copy of the program where another user can reach it."""
    return shutil.copy(bus_fixtures.ZONECTL, open_directory / "zonectl")


def test_others_hear_of_state_changes(policed_bus, reachable_copy):
    service = bus_fixtures.MockService(policed_bus.address)
    watch = subprocess.Popen([reachable_copy, "watch", "--json"], user=NOBODY, text=True,
                             env=bus_fixtures.environment(policed_bus.address), stdout=subprocess.PIPE)
    policed_bus.wait_for_match("ZoneStateChangedSignal")
    assert bus_fixtures.zonectl("start", "--wait", "nav", address=policed_bus.address).returncode == 0
    assert '"name":"nav","state":"STARTING"' in watch.stdout.readline()
    watch.terminate()
    assert watch.wait(bus_fixtures.DEADLINE) == 0
    watch.stdout.close()
    service.stop()


def test_others_are_told_that_they_may_not(policed_bus, reachable_copy):
    service = bus_fixtures.MockService(policed_bus.address)
    result = subprocess.run([reachable_copy, "start", "nav"], user=NOBODY, text=True,
                            capture_output=True, env=bus_fixtures.environment(policed_bus.address),
                            check=False, timeout=bus_fixtures.DEADLINE)
    assert result.returncode == 1 and "are you root?" in result.stderr
    service.stop()


def test_the_introspection_file_holds_the_published_interface():
    interface = ElementTree.parse(PACKAGING / "dbus" / f"{NAME}.xml").getroot().find("interface")
    assert interface.get("name") == INTERFACE
    methods = {
        method.get("name"): (
            [(arg.get("type"), arg.get("name")) for arg in method if arg.get("direction") == "in"],
            [(arg.get("type"), arg.get("name")) for arg in method if arg.get("direction") == "out"])
        for method in interface.findall("method")}
    zone = ("s", "zoneName")
    assert methods == {
        "GetVersion": ([zone], [("s", "version")]),
        "GetZoneList": ([], [("as", "zone_list")]),
        "ZoneGetState": ([zone], [("i", "retval")]),
        "ZoneGetPid": ([zone], [("i", "retval")]),
        "ZoneGetInitPid": ([zone], [("i", "retval")]),
        "ZoneStart": ([zone], [("b", "retval")]),
        "ZoneStop": ([zone], [("b", "retval")]),
        "ZoneFreeze": ([zone], [("b", "retval")]),
        "ZoneUnfreeze": ([zone], [("b", "retval")]),
        "ZoneLock": ([zone, ("b", "force_stop")], [("b", "retval")]),
        "ZoneUnlock": ([zone], [("b", "retval")]),
        "ZoneAttach": ([zone, ("as", "cmdline"), ("as", "environment"), ("i", "uid"), ("i", "gid")],
                       [("b", "retval")]),
        "ZoneAttachWait": ([zone], [("u", "retval")]),
    }
    signals = interface.findall("signal")
    assert [signal.get("name") for signal in signals] == ["ZoneStateChangedSignal"]
    assert list(signals[0]) == []


@pytest.mark.parametrize("name", [f"{NAME}.xml", f"{NAME}.conf"])
def test_the_bus_files_are_sound_xml(name):
    subprocess.run(["xmllint", "--noout", "--nonet", PACKAGING / "dbus" / name], check=True,
                   timeout=bus_fixtures.DEADLINE)


def test_tmpfiles_make_and_label_the_directories(tmp_path):
    if os.geteuid() != 0:
        pytest.skip("only root can set labels")
    (tmp_path / "run").mkdir()
    (tmp_path / "opt").mkdir()
    subprocess.run(["systemd-tmpfiles", "--create", f"--root={tmp_path}",
                    PACKAGING / "tmpfiles.d" / "zone-manager.conf"], check=True,
                   timeout=bus_fixtures.DEADLINE)
    assert (tmp_path / "opt/var/lib/lxc").is_dir()
    for path in ("run/lxc", "opt/zone/template/securedata"):
        assert os.getxattr(tmp_path / path, "security.SMACK64") == b"!"
    assert bus_fixtures.zonectl("labels", "--root", str(tmp_path)).returncode == 0


def test_systemd_takes_the_unit(tmp_path):
    text = (PACKAGING / "systemd" / "zone-manager.service.in").read_text()
    unit = tmp_path / "zone-manager.service"
    unit.write_text(text.replace("@ZONE_MANAGER_PROGRAM@", "/bin/true"))
    result = subprocess.run(["systemd-analyze", "verify", "--man=no", unit], capture_output=True, text=True,
                            timeout=60, check=False)
    assert "zone-manager.service" not in result.stderr, result.stderr


def test_the_unit_takes_the_state_messages_from_lxcs_own_monitor():
    """Debian enables and starts it; while it reads the FIFO the daemon cannot start."""
    lines = (PACKAGING / "systemd" / "zone-manager.service.in").read_text().splitlines()
    assert "Conflicts=lxc-monitord.service" in lines
    assert "Before=lxc-monitord.service lxc.service" in lines


@pytest.mark.parametrize("page", MAN_PAGES, ids=lambda page: page.name)
def test_man_pages_are_clean(page):
    result = subprocess.run(["mandoc", "-Tlint", "-Wwarning", page], capture_output=True, text=True,
                            timeout=bus_fixtures.DEADLINE, check=False)
    assert result.stdout == ""


def test_the_man_page_of_zonectl_names_what_the_help_names():
    page = (bus_fixtures.REPOSITORY / "docs/man/zonectl.1").read_text()
    help_text = bus_fixtures.zonectl("--help").stdout
    for command in re.findall(r"^  ([a-z][a-z-]*) ", help_text, re.MULTILINE):
        assert f".It Ic {command}" in page, command
    for option in re.findall(r"--([a-z]+)", help_text):
        assert re.search(rf"Fl (h , )?-{option}\b", page), option


def test_the_installed_unit_starts_the_installed_program():
    unit = bus_fixtures.BUILD / "packaging" / "zone-manager.service"
    if not unit.exists():
        pytest.skip("this build has no packages")
    program = re.search(r"^ExecStart=(.*)$", unit.read_text(), re.MULTILINE).group(1)
    assert pathlib.PurePath(program).is_absolute() and program.endswith("/sbin/zone-manager")
