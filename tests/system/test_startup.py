"""Start-up, the single-instance lock and the runtime directories."""

import os
import re
import signal

import pytest
from zonetest import READY, Daemon, send_states

LOCK = "/var/run/lxc/lock/zone-manager.lock"
MISSING = '"No such file or directory"'
LAST_LINE = "ZoneManager is terminated..."

LABELLED_ALREADY = [
    '"/var/run/lxc" smack label is "!"(1)',
    '"/var/run/lxc" smack label is already set as "!"',
]


@pytest.fixture
def zone(fake):
    return fake.define("red", "hybrid")


def wrap(daemon, *preparation, arguments=""):
    """Has a shell do something first and then become the daemon."""
    script = "\n".join(["#!/bin/bash", *preparation, f"exec {daemon.program} {arguments}", ""])
    daemon.root.write("/usr/local/bin/wrapped-daemon", script, mode=0o755)
    daemon.program = "/usr/local/bin/wrapped-daemon"
    return daemon


def mode(root, path):
    return root.path(path).stat().st_mode & 0o7777


def refused(daemon):
    """Starts the daemon, which has to fail before it has built anything, and returns all that it says."""
    mark = daemon.mark()
    daemon.start()
    assert daemon.wait_exit() == 255
    assert daemon.strays == []
    return [(record.level, record.body) for record in daemon.records[mark:]]


# Order

WATCHED = re.compile(r"info: \[zone-monitor:MAIN\] IO\(\d+\) watcher is added to Thread Context")


def test_the_order_of_an_ordinary_start(zone, daemon):
    daemon.start(wait=READY)
    main = daemon.inner_pid
    lines = [str(record) for record in daemon.records if record.tid == main]
    # Descriptors are what they are.
    lines = [line.replace(f":{main}]", ":MAIN]") for line in lines]
    descriptors = re.compile(r"(?<=[a-z ])\[\d+( / \d+)?\](?=$|\()")
    lines = [descriptors.sub("[FD]", line) if "[zone-monitor:" in line else line for line in lines]
    fifo = "/run/lxc//var/lib/lxc/monitor-fifo"
    missing = 'does not exist - "No such file or directory"'
    unlabelled = '- "No data available"'
    writable = "/opt/var/lib/lxc/red"
    permitted = '[red:MAIN] "red" is Hybrid Zone...It is permitted...'
    last = f"info: Watchdog Is registered[360 / 15000](thread name : zone-manager, tid : {main})"
    assert lines[: lines.index(last) + 1] == [
        "fatal: Start Zone Manager...",
        f"info: Get zone manager lock - {LOCK}",
        'info: "/var/run/lxc" smack label is "_"(1)',
        'info: "/var/run/lxc" smack label is changed to "!" successfully',
        f"debug: The contianer lock path(/var/run/lxc/lock) {missing}",
        "info: reference count of security interface - 1",
        *(f"info: {line}" for line in LABELLED_ALREADY * 2),
        f"debug: The contianer pidfile path(/var/run/lxc/pid) {missing}",
        'info: "/opt/zone/template/securedata" smack label is "_"(1)',
        'info: "/opt/zone/template/securedata" smack label is changed to "!" successfully',
        "info: Thread is created",
        "info: zone manager instance is created",
        "info: Singletone object of Zone Manager is created...",
        "info: ZoneContext object is created",
        "info: Singletone object of Zone Context is created...",
        "info: Thread is created",
        "info: Zone object is created",
        "info: HybridZone object is created...[type : 2]",
        "info: [Zone Name : red] / [Zone Base Path : /var/lib/lxc] / [Zone Type : 2]",
        f'error: Failed to get smack label of "/var/lib/lxc/red" {unlabelled}',
        f"info: {permitted}[ro path : /var/lib/lxc/red /  - _](ref count : 1)",
        f"debug: The contianer path({writable}) {missing}",
        f"info: [red:MAIN] RW path of Hybrid Zone(RW) is created...[rw path : {writable}]",
        f'error: Failed to get smack label of "{writable}" {unlabelled}',
        f"info: {permitted}[rw path : {writable} /  - _](ref count : 1)",
        f"debug: The contianer path({writable}/opt) {missing}",
        f"info: [red:MAIN] RW path of Hybrid Zone(RW) is created...[rw path : {writable}/opt]",
        f'error: Failed to get smack label of "{writable}/opt" {unlabelled}',
        f"info: {permitted}[rw path : {writable}/opt /  - _](ref count : 1)",
        f"info: {permitted}",
        f"info: thread is created(thread name : red, thread id : {main})",
        'info: Start the zone thread for "red"',
        'info: "red" is added to Zone Context!',
        "info: Zone count is set to [1 / 1]",
        "info: Zone Context is created successfully (lxc base path : /var/lib/lxc, zone count : 1)",
        "info: Thread is created",
        f"info: [tid : {main}] zone monitor instance is created",
        "info: [:MAIN] Monitor Interface Handle is initialized",
        "info: [zone-monitor:MAIN] Monitor Interface Handle is opened(/zone/config/liblxc.so.1)",
        "info: [zone-monitor:MAIN] Monitor Interface Symbols are set",
        'info: "/run/lxc" smack label is "!"(1)',
        'info: "/run/lxc" smack label is already set as "!"',
        f"info: [zone-monitor:MAIN] FIFO node is created to {fifo} for /var/lib/lxc[FD](ref count : 1)",
        "info: [zone-monitor:MAIN] FLock is set for fifo [FD]",
        f"info: [zone-monitor:MAIN] State Change Monitor(fifo) is created - /var/lib/lxc / {fifo}[FD]",
        "info: [zone-monitor:MAIN] Server is created - /var/lib/lxc / lxc/ad055575fe28ddd5//var/lib/lxc[FD]",
        "info: [zone-monitor:MAIN] Server is created - zonemanager_socket[FD]",
        "info: [zone-monitor:MAIN] GIO Channels for state change monitor & server are created "
        "- /var/lib/lxc[FD]",
        *[line for line in lines if WATCHED.fullmatch(line)],
        "info: [zone-monitor:MAIN] GIO Watchers are added to thread context - /var/lib/lxc[FD]",
        f"info: thread is created(thread name : zone-monitor, thread id : {main})",
        "info: zone group controller instance is created",
        f"info: Timer Source Count : 0(thread name : zone-manager, thread id : {main})",
        last,
    ]
    assert sum(bool(WATCHED.fullmatch(line)) for line in lines) == 3
    assert daemon.stop() == 0


def test_it_leaves_its_directory_umask_and_command_line_alone(zone, daemon):
    wrap(daemon, "cd /tmp", "umask 077", arguments="--help stop nonsense").start(wait=READY)
    assert os.path.samefile(f"/proc/{daemon.pid}/cwd", f"/proc/{daemon.pid}/root")
    status = daemon.root.path(f"/proc/{daemon.inner_pid}/status").read_text()
    assert "Umask:\t0000\n" in status
    assert daemon.find("Failed to change the root path") is None
    assert daemon.stop() == 0


def test_only_sigterm_is_caught(zone, daemon):
    daemon.start(wait=READY)
    status = daemon.root.path(f"/proc/{daemon.inner_pid}/status").read_text()
    caught = int(re.search(r"SigCgt:\t(\w+)", status)[1], 16)
    for number in (signal.SIGINT, signal.SIGHUP, signal.SIGQUIT, signal.SIGUSR1, signal.SIGCHLD):
        assert not caught & 1 << (number - 1), number
    assert caught & 1 << (signal.SIGTERM - 1)
    daemon.signal(signal.SIGINT)
    assert daemon.wait_exit() == -signal.SIGINT
    assert daemon.find(LAST_LINE) is None


# The lock


def test_a_second_instance_is_refused_and_the_first_goes_on(zone, daemon, root):
    daemon.start(wait=READY)
    first, before = daemon.inner_pid, root.path(LOCK).stat()
    mark = daemon.mark()
    second = Daemon(root).start()
    assert second.wait_exit() == 255
    found = [(record.level, record.body) for record in daemon.records[mark:] if record.pid != first]
    busy = '"Resource temporarily unavailable"'
    assert found == [
        ("fatal", "Start Zone Manager..."),
        ("info", f"Get zone manager lock - {LOCK}"),
        *(("info", line) for line in LABELLED_ALREADY),
        ("error", f"Another instance of Zone Manager is running - {busy}"),
        ("error", f"Failed to get exclusive & non-blocking lock(ref count : 1) - {busy}"),
        ("error", f"Failed to get zone manager lock({LOCK})"),
    ]
    after = root.path(LOCK).stat()
    assert (after.st_ino, after.st_ctime_ns) == (before.st_ino, before.st_ctime_ns)
    mark = daemon.mark()
    send_states(root, "red", "STARTING")
    daemon.wait_for("The state of red is changed to STARTING", after=mark)
    assert daemon.stop() == 0
    assert not root.exists(LOCK)


def test_what_a_killed_daemon_leaves_stops_nobody(zone, daemon, root):
    for number in (signal.SIGKILL, signal.SIGHUP):
        daemon.start(wait=READY)
        daemon.signal(number)
        assert daemon.wait_exit() == -number
        assert root.exists(LOCK)
    mark = daemon.mark()
    daemon.start()
    daemon.wait_for(READY, after=mark)
    assert daemon.bodies("error", after=mark).count("Failed to get zone manager lock") == 0
    assert daemon.stop() == 0
    assert not root.exists(LOCK)


def test_a_stale_lock_file_is_locked_again(zone, daemon, root):
    root.write(LOCK, "4711\n")
    daemon.start(wait=READY)
    assert root.read(LOCK) == "4711\n"
    assert daemon.find("lock path") is None
    assert daemon.stop() == 0
    assert not root.exists(LOCK)


def test_lock_and_directories_get_their_modes(zone, daemon, root):
    wrap(daemon, "umask 077").start(wait=READY)
    assert mode(root, LOCK) == 0o660
    for directory in ("/run/lxc/lock", "/run/lxc/pid", "/opt/var/lib/lxc/red"):
        assert mode(root, directory) == 0o755, directory
    assert root.label("/run/lxc") == root.label("/opt/zone/template/securedata") == "!"
    assert root.label("/run/lxc/pid") is None


def test_the_lock_file_may_be_gone_at_the_end(zone, daemon, root):
    daemon.start(wait=READY)
    root.remove(LOCK)
    assert daemon.stop() == 0
    gone = f'Failed to call remove() syscall - {LOCK} - "No such file or directory"'
    assert daemon.bodies("error")[-1] == gone
    assert daemon.bodies("fatal")[-1] == LAST_LINE


def lock_failure(*lines):
    return [
        ("fatal", "Start Zone Manager..."),
        ("info", f"Get zone manager lock - {LOCK}"),
        *lines,
        ("error", f"Failed to get zone manager lock({LOCK})"),
    ]


NO_LABEL = [
    ("error", 'Failed to get smack label of "/var/run/lxc"("!") - "No data available"'),
    ("error", "Failed to set container access label(!) to the basepath of container running(/var/run/lxc)"),
    ("error", "Failed to ensure Container Run Path(/var/run/lxc)"),
    ("error", "Failed to create the basepath of zone-manager lock - /var/run/lxc/lock"),
]


def test_an_unlabelled_run_directory_ends_the_start(zone, daemon, root):
    root.set_label("/run/lxc", None)
    assert refused(daemon) == lock_failure(*NO_LABEL)
    assert not root.exists("/run/lxc/lock")


def test_a_missing_run_directory_is_made_but_has_no_label(zone, daemon, root):
    root.remove("/run/lxc")
    missing = 'The contianer run path(/var/run/lxc) does not exist - "No such file or directory"'
    assert refused(daemon) == lock_failure(("debug", missing), *NO_LABEL)
    assert mode(root, "/run/lxc") == 0o755


def test_a_run_directory_that_cannot_be_made_ends_the_start(zone, daemon, root):
    root.remove("/run/lxc")
    root.run("mount -o remount,ro /run")
    missing = 'The contianer run path(/var/run/lxc) does not exist - "No such file or directory"'
    assert refused(daemon) == lock_failure(
        ("debug", missing),
        ("error", 'Failed to create the container run path(/var/run/lxc) - "Read-only file system"'),
        *NO_LABEL[2:],
    )


def make_read_only(root, *directories):
    """Makes /run/lxc read-only but for these directories of it."""
    root.set_label("/run/lxc", "!")
    for directory in directories:
        root.mkdir(f"/run/lxc/{directory}")
    root.run("mount --bind /run/lxc /run/lxc")
    for directory in directories:
        root.run(["mount", "-t", "tmpfs", "writable", f"/run/lxc/{directory}"])
    root.run("mount -o remount,ro,bind /run/lxc")


EXISTING_READ_ONLY = [
    ("debug", 'The contianer run path(/var/run/lxc) does not exist - "Read-only file system"'),
    ("info", "The container run path(/var/run/lxc) does exist"),
    *(("info", line) for line in LABELLED_ALREADY),
]


def test_a_lock_directory_that_cannot_be_made_ends_the_start(zone, daemon, root):
    make_read_only(root)
    assert refused(daemon) == lock_failure(
        *EXISTING_READ_ONLY,
        ("debug", 'The contianer lock path(/var/run/lxc/lock) does not exist - "No such file or directory"'),
        ("error", 'Failed to create the container lock path(/var/run/lxc/lock) - "Read-only file system"'),
        NO_LABEL[-1],
    )


def test_a_pid_directory_that_cannot_be_made_ends_the_start_and_gives_the_lock_back(zone, daemon, root):
    make_read_only(root, "lock")
    assert refused(daemon) == [
        ("fatal", "Start Zone Manager..."),
        ("info", f"Get zone manager lock - {LOCK}"),
        *EXISTING_READ_ONLY,
        ("info", "reference count of security interface - 1"),
        *EXISTING_READ_ONLY * 2,
        ("debug", f"The contianer pidfile path(/var/run/lxc/pid) does not exist - {MISSING}"),
        ("error", 'Failed to create the container pidfile path(/var/run/lxc/pid) - "Read-only file system"'),
        ("error", "Failed to create the basepath of container pidfile - /var/run/lxc/pid"),
        ("info", f"Release zone manager lock - {LOCK}"),
    ]
    assert not root.exists(LOCK)


def test_a_lock_directory_that_only_seems_missing_is_accepted(zone, daemon, root):
    root.path("/run/lxc/lock").symlink_to("/run/nowhere")
    found = refused(daemon)
    assert ("info", "The container lock path(/var/run/lxc/lock) does exist") in found
    assert found[-2:] == [
        ("error", f'Failed to open "{LOCK}"...(ref count : 1) - "No such file or directory"'),
        ("error", f"Failed to get zone manager lock({LOCK})"),
    ]


def test_a_pid_directory_that_only_seems_missing_is_accepted(zone, daemon, root):
    root.path("/run/lxc/pid").symlink_to("/run/nowhere")
    daemon.start(wait=READY)
    record = daemon.find("The container pidfile path(/var/run/lxc/pid) does exist")
    assert record.level == "info"


def test_a_lock_file_that_cannot_be_opened_ends_the_start(zone, daemon, root):
    root.mkdir(LOCK)
    assert refused(daemon) == lock_failure(
        ("info", '"/var/run/lxc" smack label is "_"(1)'),
        ("info", '"/var/run/lxc" smack label is changed to "!" successfully'),
        ("error", f'Failed to open "{LOCK}"...(ref count : 1) - "Is a directory"'),
    )


@pytest.mark.parametrize(("there", "checks"), [(False, 3), (True, 2)])
def test_a_writable_pid_directory_is_not_ensured_again(zone, daemon, root, there, checks):
    if there:
        root.mkdir("/run/lxc/pid")
    daemon.start(wait=READY)
    # Once for the lock, once at start-up, once more only for the directory of the pid files.
    assert daemon.count('"/var/run/lxc" smack label is "') == checks
    assert daemon.count("pidfile path") == (0 if there else 1)


# The template directories

SECURE = "/opt/zone/template/securedata"


@pytest.mark.parametrize(
    ("prepare", "errors"),
    [
        pytest.param(
            lambda root: (root.remove("/opt/zone"), root.mkdir("/opt/zone")),
            [
                f'Failed to get smack label of "{SECURE}"("!") - "No data available"',
                f"Failed to set container access label (!) to the ({SECURE})",
            ],
            id="unlabelled",
        ),
        pytest.param(
            lambda root: root.remove("/opt/zone"),
            [
                'Failed to create the container path(/opt/zone/template) - "No such file or directory"',
                'Failed to create path (/opt/zone/template) - "No such file or directory"',
            ],
            id="no parent",
        ),
        pytest.param(
            lambda root: (root.remove("/opt/zone"), root.write("/opt/zone/template")),
            [
                f'Failed to create the container path({SECURE}) - "Not a directory"',
                f'Failed to create path ({SECURE}) - "Not a directory"',
            ],
            id="a file",
        ),
        pytest.param(lambda root: root.set_label(SECURE, "!"), [], id="labelled"),
    ],
)
def test_failures_of_the_template_directories_are_only_told(zone, daemon, root, prepare, errors):
    prepare(root)
    daemon.start(wait=READY)
    assert [body for body in daemon.bodies("error") if "/opt/zone/" in body] == errors
    assert daemon.stop() == 0


def test_missing_template_directories_are_made(zone, daemon, root):
    root.remove("/opt/zone")
    root.mkdir("/opt/zone")
    daemon.start(wait=READY)
    assert mode(root, "/opt/zone/template") == mode(root, SECURE) == 0o755
    for path in ("/opt/zone/template", SECURE):
        missing = f'The contianer path({path}) does not exist - "No such file or directory"'
        assert daemon.find(missing).level == "debug"


# Without liblxc


def test_without_its_library_it_is_not_even_loaded(zone, daemon, root):
    root.remove("/zone/config/liblxc.so.1")
    for directory in ("/lib", "/usr/lib"):
        for library in root.path(directory).glob("*/liblxc.so.1"):
            library.unlink()
    daemon.start()
    assert daemon.wait_exit() == 127
    assert "liblxc.so.1" in daemon.lines[0]
