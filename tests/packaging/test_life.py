"""The package on a device: installed, used, upgraded, removed, purged."""

import pytest
from debian_package import NAME
from zonetest import DEFINE_ZONE, Bus, BusError, Daemon, RealZones, eventually

ZONES = {"blue": "isolation", "gold": "protection", "red": "hybrid"}
UNIT = "/lib/systemd/system/zone-manager.service"
ENABLED = "/etc/systemd/system/multi-user.target.wants/zone-manager.service"
NOBODY = 65534
UP = 60.0  # seconds, for three zones one after another

# Notes what a systemd that runs the machine would be asked for; what concerns files alone is really done.
SYSTEMCTL = """#!/bin/sh
case "$*" in
    *--root=/*) exec /usr/bin/systemctl.real "$@" ;;
esac
echo "$*" >>/run/systemctl.calls
"""


def dpkg(root, *arguments):
    return root.run(["dpkg", *arguments])


def install(root, package):
    return dpkg(root, "--install", package.path)


def status(root):
    return root.run(["dpkg-query", "-W", "-f", "${db:Status-Status} ${Version}", NAME], check=False).stdout


def snapshot(root):
    """Every file that a package may make or leave, but for the package manager's own books."""
    places = "/etc /opt /usr /var $(test ! -e /zone || echo /zone)"
    books = "/var/lib/dpkg /var/cache /var/log /var/lib/apt"
    prunes = " -o ".join(f"-path {book}" for book in books.split())
    return set(root.run(f"find {places} -xdev \\( {prunes} \\) -prune -o -print").stdout.splitlines())


@pytest.fixture
def device(root, package):
    """A root with the package installed and its programs running on three zones."""
    install(root, package)
    for name, kind in ZONES.items():
        root.run([DEFINE_ZONE, "--auto", name, kind])
    return Device(root)


class Device:
    def __init__(self, root):
        self.root = root
        self.zones = RealZones(root, install=False)
        self.bus = Bus(root, policy=None).start()
        self.daemon = Daemon(root, program="/usr/sbin/zone-manager")

    def start(self):
        self.daemon.start()
        self.bus.wait_owned()
        eventually(lambda: all(self.zones.state(name) == "RUNNING" for name in ZONES), UP,
                   "three running zones", step=0.1)
        return self

    def init_pids(self):
        return {name: self.zones.init_pid(name) for name in ZONES}


def test_a_fresh_installation_prepares_the_machine(root, package):
    install(root, package)
    assert status(root) == f"installed {package.field('Version')}"
    for path in ("/run/lxc", "/opt/zone/template/securedata"):
        assert root.label(path) == "!"
    assert root.path("/opt/var/lib/lxc").is_dir()
    assert root.run(["readlink", "-f", ENABLED]).stdout.strip() == f"/usr{UNIT}"
    assert root.run("zonectl labels").stdout.count(" ok") == 2
    # The unit, with the programs and manual pages that it names.
    assert root.run(["systemd-analyze", "verify", UNIT]).stderr == ""
    assert "zone.container_type" in root.run("man zone.config", env={"MANPAGER": "cat"}).stdout


def test_zones_of_all_kinds_run_from_the_package(device):
    device.start()
    assert device.bus.call("ZoneGetState", "red") == 3
    listed = device.root.run(["zonectl", "list"]).stdout
    for name, state in {"blue": "RUNNING", "gold": "RUNNING?", "red": "RUNNING"}.items():
        assert [line.split()[2] for line in listed.splitlines() if line.startswith(f"{name} ")] == [state]
    assert device.root.label("/opt/var/lib/lxc/blue") == "System"
    # The installed policy, on a real bus.
    with pytest.raises(BusError, match="Access denied"):
        device.bus.call("ZoneStop", "red", uid=NOBODY)
    device.root.run(["zonectl", "stop", "--wait", "red"])
    assert device.zones.state("red") == "STOPPED"
    # liblxc and the launcher are those of the package.
    maps = device.root.read(f"/proc/{device.daemon.inner_pid}/maps")
    assert "/zone/config/liblxc.so.1" in maps


def test_no_upgrade_and_no_removal_touches_a_zone(device, newer):
    before = device.start().init_pids()
    install(device.root, newer)
    assert status(device.root) == f"installed {newer.field('Version')}"
    assert device.root.exists("/usr/share/doc/zone-manager/newer")
    assert device.init_pids() == before
    # The daemon is still the one that was started before, and works with the launcher that is there now.
    for request in ("stop", "start"):
        device.root.run(["zonectl", request, "--wait", "red"])
    before = device.init_pids()
    install(device.root, newer)
    assert device.daemon.running
    dpkg(device.root, "--remove", NAME)
    assert device.daemon.wait_exit() == 0
    dpkg(device.root, "--purge", NAME)
    assert device.init_pids() == before
    assert all(device.zones.state(name) == "RUNNING" for name in ZONES)


def test_a_purge_leaves_nothing_of_ours(root, package):
    before = snapshot(root)
    install(root, package)
    assert snapshot(root) > before
    dpkg(root, "--remove", NAME)
    dpkg(root, "--purge", NAME)
    assert snapshot(root) ^ before == set()


def test_a_removal_keeps_what_a_purge_takes(root, package):
    install(root, package)
    dpkg(root, "--remove", NAME)
    assert not root.exists("/usr/bin/zonectl") and not root.exists("/zone")
    assert root.exists("/opt/zone/template/securedata") and root.exists("/opt/var/lib/lxc")


def test_a_purge_leaves_what_is_the_users(root, package):
    install(root, package)
    root.run([DEFINE_ZONE, "blue", "isolation"])
    theirs = {
        "/opt/zone/template/securedata/key": "secret",
        "/opt/var/lib/lxc/blue/opt/file": "data",
        "/etc/default/zone-manager": "ZONE_LOG_LEVEL=info\n",
        "/zone/config/vendor": "theirs",
    }
    for path, text in theirs.items():
        root.write(path, text)
    dpkg(root, "--purge", NAME)
    assert {path: root.read(path) for path in theirs} == theirs
    assert root.run(["lxc-ls", "-1"]).stdout.split() == ["blue"]
    assert root.label("/opt/var/lib/lxc/blue") == "_"


class TestUnderSystemd:
    """With a stand-in that notes what the service manager is asked for."""

    @pytest.fixture
    def asked(self, root):
        root.mkdir("/run/systemd/system")
        root.run(["mv", "/usr/bin/systemctl", "/usr/bin/systemctl.real"])
        root.write("/usr/bin/systemctl", SYSTEMCTL, mode=0o755)
        root.remove("/usr/sbin/policy-rc.d")

        def calls():
            text = root.read("/run/systemctl.calls") if root.exists("/run/systemctl.calls") else ""
            root.remove("/run/systemctl.calls")
            return text.splitlines()
        return calls

    def test_it_is_never_started_and_stopped_only_when_it_goes(self, root, package, newer, asked):
        said = install(root, package).stdout
        assert asked() == ["--system daemon-reload"]
        assert "starts at the next boot" in said
        said = install(root, newer).stdout
        assert asked() == ["--system daemon-reload"]
        assert "a daemon that runs goes on as it is" in said
        dpkg(root, "--remove", NAME)
        assert asked() == ["stop zone-manager.service", "--system daemon-reload"]
        dpkg(root, "--purge", NAME)
        assert asked() == ["daemon-reload"]

    def test_one_that_was_disabled_stays_so(self, root, package, newer, asked):
        install(root, package)
        assert root.exists(ENABLED)
        root.run(["systemctl", "--root=/", "disable", "zone-manager.service"])
        install(root, newer)
        assert not root.exists(ENABLED)
