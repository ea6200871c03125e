"""Plays the demo inside a private root: one function a scene, in the order of the list at the end.

Arguments: the directory for the results, and 1 to leave the daemon to the user before the end, else 0.
Exit status: 0 when everything was seen, 1 when not, 130 when interrupted.
"""

import os
import pathlib
import shutil
import signal
import subprocess
import sys
import time

from account import Account, Checks
from daemon import INTERFACE, LOCK, OBJECT, SERVICE, Daemon, lock_is_held, zones_on_the_bus
from zones import UNCHANGED, Zone, label_of, run

PROJECT = pathlib.Path(__file__).resolve().parents[2]
BUILD = PROJECT / "build" / "release"
BUS_SOCKET = pathlib.Path("/run/dbus/system_bus_socket")
LOG_STEP = 0.05  # seconds between two looks at the log
FACTS_STEP = 0.25  # seconds between two looks at the containers

ZONES = (
    Zone("demo-hybrid", "hybrid", automatic=True),
    Zone("demo-isolation", "isolation", automatic=True),
    Zone("demo-protected", "protection", automatic=False),
)
AUTOMATIC = [zone for zone in ZONES if zone.automatic]
PROTECTED = ZONES[2]

CHECKS = {
    "service": "the daemon holds its lock and answers on the bus",
    "first": "the first automatic zone came up",
    "second": "the second was asked to start only when the first ran, and came up",
    "protected": "the protection zone stayed stopped",
    "labels": "each zone's directories have the labels of its kind",
    "killed": "the zone whose init process was killed came back with a new pid",
    "other": "the other zone ran on undisturbed",
    "end": "SIGTERM ended the daemon with status 0",
    "lock": "the daemon's lock file is gone",
    "outlive": "the containers outlived the daemon",
    "stopped": "the containers were stopped, and their control groups are gone",
}


class NotSeen(Exception):
    """Something that had to happen did not; the demo cannot go on."""


class Demo:
    """What the scenes share."""

    def __init__(self, results):
        self.results = results
        self.interrupted = False
        self.account = Account()
        self.checks = Checks(results / "results", self.account, CHECKS)
        log = results / "zone-manager.log"
        log.touch()
        self.daemon = Daemon(BUILD / "bin" / "zone-manager", log, [zone.name for zone in ZONES], self.tell)
        self.bus = None
        self.lxc_path = ""
        self.labels_before = {}
        self.first = self.second = None  # the automatic zones in the order of their starts
        self.out_of_turn = False  # an automatic zone began before the one ahead of it ran
        self.protected_states = set()
        self.pids = {}

    def tell(self, event):
        self.account.event(event.zone or "zone-manager", event.words, event.style)

    def wait_for(self, what, condition, limit=30, watch=None):
        """Follows the log until the condition gives something true, and returns that. NotSeen after the
        limit, in seconds, or when the daemon ends before. `watch` is called too, but less often."""
        began = time.monotonic()
        looked = 0.0
        while True:
            self.daemon.follow()
            if watch is not None and time.monotonic() - looked >= FACTS_STEP:
                watch()
                looked = time.monotonic()
            result = condition()
            passed = time.monotonic() - began
            if result:
                self.account.waited()
                return result
            if self.daemon.process is not None and not self.daemon.running:
                self.daemon.follow()
                status = self.daemon.process.returncode
                raise NotSeen(f"the daemon ended with status {status}, while waiting for {what}")
            if passed > limit:
                raise NotSeen(f"not within {limit} s: {what}")
            self.account.waiting(what, passed, limit)
            time.sleep(LOG_STEP)

    def look_at_zones(self):
        """Notes what must not happen: a start of the protection zone, or of the second before its turn."""
        self.protected_states.add(PROTECTED.state)
        if self.first is not None and self.second not in self.pids:
            # In this order: if the second was on its way before, the first has to run by now.
            second_began = self.second.state != "STOPPED"
            if second_began and self.first.state != "RUNNING":
                self.out_of_turn = True

    def runs(self, zone, times=1):
        """Whether the daemon has started the zone that often and LXC says that it runs."""
        told = min(self.daemon.count("started", zone.name), self.daemon.count("watched", zone.name))
        return told >= times and zone.state == "RUNNING"


def define_zones(demo):
    """Three zones are defined"""
    # The private root is a copy of the machine, and containers of the machine are none of the demo's.
    demo.lxc_path = run("lxc-config", "lxc.lxcpath").strip()
    for directory in (demo.lxc_path, f"/opt{demo.lxc_path}"):
        os.makedirs(directory, exist_ok=True)
        run("mount", "-t", "tmpfs", "-o", "mode=755", "zones", directory)
    run(PROJECT / "scripts" / "define-zone", "--prepare")
    for zone in ZONES:
        automatic = ["--auto"] if zone.automatic else []
        run(PROJECT / "scripts" / "define-zone", *automatic, zone.name, zone.kind)
        how = "automatic start" if zone.automatic else "no automatic start"
        demo.account.event(zone.name, f"busybox container, {zone.kind} zone, {how}")
        for directory in zone.directories(demo.lxc_path):
            demo.labels_before[directory] = label_of(directory)


def start_daemon(demo):
    """The daemon starts"""
    install()
    demo.bus = subprocess.Popen(
        ["dbus-daemon", "--system", "--nofork", "--nopidfile", "--nosyslog"], stdin=subprocess.DEVNULL,
        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, start_new_session=True,
    )  # fmt: skip
    demo.wait_for("the system bus", BUS_SOCKET.exists)
    demo.account.event("dbus-daemon", "a system bus of the private root's own")
    demo.daemon.start()
    demo.wait_for("the daemon's name on the bus", lambda: demo.daemon.count("service"))
    names = zones_on_the_bus()
    demo.checks.check(
        "service",
        lock_is_held() and sorted(names) == sorted(zone.name for zone in ZONES),
        f"lock held; asked over the bus, it has {len(names)} zones",
        f"lock held: {lock_is_held()}; zones named over the bus: {', '.join(names) or 'none'}",
    )


def install():
    """Puts the build where a device has it."""
    target = pathlib.Path("/zone/config")
    target.mkdir(parents=True, exist_ok=True)
    shutil.copy(BUILD / "lib" / "liblxc.so.1", target)
    shutil.copy(BUILD / "bin" / "zone-launcher", target)
    shutil.copy(BUILD / "bin" / "zonectl", "/usr/local/bin")
    shutil.copy(PROJECT / "packaging" / "dbus" / f"{SERVICE}.conf", "/usr/share/dbus-1/system.d")


def zones_come_up(demo):
    """The automatic zones come up, one after another"""
    look = demo.look_at_zones
    demo.first = demo.wait_for("a zone to be asked to start", lambda: first_requested(demo), watch=look)
    demo.second = next(zone for zone in AUTOMATIC if zone is not demo.first)
    first, second = demo.first, demo.second
    demo.wait_for(f"{first.name} to run", lambda: demo.runs(first), watch=look)
    demo.pids[first] = first.info()[1]
    demo.checks.seen("first", f"{first.name} is RUNNING, init pid {demo.pids[first]}, says lxc-info")

    demo.wait_for(f"{second.name} to run", lambda: demo.runs(second), 60, look)
    demo.pids[second] = second.info()[1]
    first_ran = demo.daemon.place("state", first.name, state="RUNNING")
    in_turn = 0 <= first_ran < demo.daemon.place("requested", second.name) and not demo.out_of_turn
    demo.checks.check(
        "second",
        in_turn,
        f"{second.name} is RUNNING, init pid {demo.pids[second]}, "
        f"and was asked to start only when {first.name} ran",
        f"{second.name} runs, but did not wait for {first.name}",
    )


def first_requested(demo):
    """The zone that the daemon asked to start first, or None."""
    return next((zone for zone in AUTOMATIC if demo.daemon.count("requested", zone.name)), None)


def show_labels(demo):
    """The Smack labels of the zones' directories"""
    right = True
    demo.account.text(f"{'directory':<38} {'before':<8} {'now':<8} wanted")
    for zone in ZONES:
        for directory, wanted in zip(zone.directories(demo.lxc_path), zone.wanted_labels, strict=True):
            before, now = demo.labels_before[directory], label_of(directory)
            # A directory that the daemon made has the label that the kernel gives.
            right = right and directory.is_dir() and (now == before if wanted is UNCHANGED else now == wanted)
            cells = (f"{before or '-':<8}", f"{now or '-':<8}", wanted or "any")
            demo.account.text(f"{str(directory):<38} {' '.join(cells)}")
    demo.checks.check("labels", right, "every kind has its labels", "a label is not the wanted one")


def kill_init(demo):
    """The init process of a zone is killed"""
    victim, other = demo.first, demo.second
    old = demo.pids[victim]
    times = demo.daemon.count("watched", victim.name)
    os.kill(old, signal.SIGKILL)
    demo.account.event("the demo", f"kills process {old}, the init of {victim.name}", "bold")
    demo.wait_for(f"{victim.name} to run again", lambda: demo.runs(victim, times + 1), 60, demo.look_at_zones)
    new = demo.pids[victim] = victim.info()[1]
    demo.checks.check(
        "killed",
        new is not None and new != old,
        f"{victim.name} is RUNNING again, init pid {new} instead of {old}",
        f"{victim.name} runs with init pid {new}, which was {old} before",
    )
    state, pid = other.info()
    demo.checks.check(
        "other",
        state == "RUNNING" and pid == demo.pids[other],
        f"{other.name} ran on with init pid {pid}",
        f"{other.name} is {state}, init pid {pid} instead of {demo.pids[other]}",
    )
    states = demo.protected_states
    demo.checks.check(
        "protected",
        states == {"STOPPED"},
        f"{PROTECTED.name} was STOPPED at every look",
        f"{PROTECTED.name} was {', '.join(sorted(states))}",
    )


def leave_to_user(demo):
    """It is yours"""
    first = (demo.results / "root.pid").read_text().strip()
    demo.account.text(
        f"The daemon and the zones run on. "
        f"On another terminal, as root, this gives a shell in the private root:\n"
        f"\n"
        f"    {PROJECT}/scripts/private-root --join {first} -- bash\n"
        f"\n"
        f"And there, for example:\n"
        f"\n"
        f"    zonectl list\n"
        f"    zonectl stop {demo.second.name}      (a request may wait 3 s)\n"
        f"    zonectl start {demo.second.name}\n"
        f"    zonectl start {PROTECTED.name}        (is refused)\n"
        f"    busctl introspect {SERVICE} \\\n"
        f"        {OBJECT} {INTERFACE}\n"
        f"    lxc-ls -f\n"
        f"    lxc-attach -n {demo.first.name} -- ps\n"
        f"\n"
        f"What the daemon does goes on to appear here. Ctrl-C ends it.\n"
    )
    try:
        while demo.daemon.running:
            demo.daemon.follow()
            time.sleep(LOG_STEP)
    except KeyboardInterrupt:
        demo.account.waited()
        return
    demo.daemon.follow()
    status = demo.daemon.process.returncode
    demo.account.event("the demo", f"the daemon has ended, with status {status}", "bold")


def end_daemon(demo):
    """SIGTERM, and the clean end"""
    before = {zone: zone.info() for zone in AUTOMATIC}
    if demo.daemon.running:
        pid = demo.daemon.process.pid
        demo.account.event("the demo", f"sends SIGTERM to the daemon, process {pid}", "bold")
        demo.daemon.terminate()
        try:
            demo.daemon.process.wait(30)
        except subprocess.TimeoutExpired:
            raise NotSeen("not within 30 s: the end of the daemon") from None
    demo.daemon.follow()
    status = demo.daemon.process.returncode
    told = demo.daemon.count("end") == 1
    demo.checks.check(
        "end",
        status == 0 and told,
        "the daemon ended with status 0",
        f"the daemon ended with status {status}",
    )
    demo.checks.check("lock", not LOCK.exists(), f"{LOCK} is gone", f"{LOCK} is still there")
    after = {zone: zone.info() for zone in AUTOMATIC}
    survivors = [zone.name for zone, (state, _) in after.items() if state == "RUNNING"]
    demo.checks.check(
        "outlive",
        bool(survivors) and before == after,
        f"{' and '.join(survivors)}: same init pid as before; containers outlive the daemon by design",
        "a container did not outlive the daemon",
    )


def stop_zones(demo):
    """The containers are stopped"""
    for zone in (zone for zone in ZONES if zone.runs):
        zone.kill()
        demo.account.event(zone.name, "stopped by lxc-stop -k")
    deadline = time.monotonic() + 10
    while (left := what_is_left()) and time.monotonic() < deadline:
        time.sleep(LOG_STEP)
    demo.checks.check(
        "stopped", not left, "no zone runs, and no control group of one is left", f"left: {', '.join(left)}"
    )


def what_is_left():
    """The zones that run, and the directories of control groups."""
    running = [zone.name for zone in ZONES if zone.runs]
    return running + [str(path) for zone in ZONES for path in zone.control_groups()]


def clear_up(demo):
    """Ends everything, whatever state the demo is in. An interrupt is only noted; all of it is bounded."""
    signal.signal(signal.SIGINT, lambda *_: setattr(demo, "interrupted", True))
    demo.account.waited()
    if demo.daemon.running:
        demo.daemon.terminate()
        try:
            demo.daemon.process.wait(10)
        except subprocess.TimeoutExpired:
            demo.daemon.process.kill()
    if demo.lxc_path:
        play(demo, stop_zones)
    if demo.bus is not None:
        demo.bus.kill()
        demo.bus.wait()


def play(demo, scene):
    demo.account.heading(scene.__doc__)
    scene(demo)


def note_namespaces(path):
    """Writes the numbers of this root's namespaces, for the machine to find processes left in them."""
    names = ("mnt", "net", "pid")
    path.write_text("".join(f"{os.stat(f'/proc/self/ns/{name}').st_ino}\n" for name in names))


def main(results, keep):
    note_namespaces(results / "namespaces")
    demo = Demo(results)
    scenes = [define_zones, start_daemon, zones_come_up, show_labels, kill_init]
    if keep:
        scenes.append(leave_to_user)
    scenes.append(end_daemon)
    try:
        for scene in scenes:
            play(demo, scene)
    except NotSeen as problem:
        demo.account.waited()
        demo.account.event("NOT SEEN", str(problem), "bad")
    except (subprocess.SubprocessError, OSError) as problem:
        words = getattr(problem, "stderr", None) or ""
        demo.account.event("NOT SEEN", f"{problem} {words}", "bad")
    except KeyboardInterrupt:
        demo.interrupted = True
    finally:
        clear_up(demo)
    if demo.interrupted:
        return 130
    return 0 if demo.checks.all_seen else 1


if __name__ == "__main__":
    sys.exit(main(pathlib.Path(sys.argv[1]), sys.argv[2] == "1"))
