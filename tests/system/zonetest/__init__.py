"""The bench on which the built programs run in earnest.

Each test gets a private root: a throw-away copy of the machine's file system with processes, a network and
control groups of its own (scripts/private-root). The daemon runs there with its compiled-in paths. Nothing
inside is seen by another test, so names need not differ and tests run side by side:

    tests/system/run-tests [pytest's options]       ZONE_BUILD_DIR names the build, build/release by default

Fixtures (conftest.py)

    root      PrivateRoot, empty but for what the machine has
    fake      FakeLxc: the fake liblxc and launcher are installed, no container is defined, first labels are
              there
    zones     RealZones: the built liblxc adapter and launcher are installed, first labels are there
    bus       Bus: a running system bus with the project's policy
    daemon    Daemon, not started. At the end it is stopped by SIGTERM; a sanitizer's report, or a record that
              the catalogue of messages (tests/messages) does not have, fails the test,
              and a failed test shows the log

        def test_starts_a_zone(fake, bus, daemon):
            fake.define("red", "hybrid", auto=True)
            daemon.start(wait="Zone Context is created successfully")
            bus.wait_owned()
            assert bus.call("ZoneGetState", "red") == 3

PrivateRoot
    run(command)            to its end: list, or text for the shell; .stdout .stderr as texts, .returncode
    popen(command)          a Process: .pid (the machine's number) .inner_pid (the root's) .signal() .wait()
                            .kill()
    path("/run/lxc")        path by which the test reaches a path of the root; links are followed as inside
    read, write, mkdir, remove, exists, install, label, set_label
    prepare()               first labels and directories; install_built() the built adapter and launcher
    socket()                a socket in the root's network
    pids(), host_pid(n)     processes of the root, and the machine's number for the root's number n

Daemon
    start(env, wait), stop(), signal(), wait_exit(), running, pid, inner_pid
    records                 list of Record(level, file, func, line, colours, signature, body, pid, tid)
    bodies(level), find, count, wait_for(wanted, timeout, after), wait_order(*wanted), never(wanted, duration)
                            wanted: a text that the body holds, or a compiled expression
    mark()                  the log's present end, for `after=`
    lines, tail(), strays   everything it printed, the end of it, and what of it is no record

FakeLxc
    define(name, kind, auto, rootfs, labels, **control_files)
    put(name, file, value), drop, of        control files of a container, such as state, init_pid, running
    set(name, value), unset, get            other control files, such as lxcpath, list_fails, fifo_name_fails
    script("start", "set init_pid 7", "state RUNNING", "exit 3", name="red")       what the launcher does
    calls(function, container), references(container), launches(), install_incomplete()

Clients
    Subscriber(root)        .next() gives a Message, None at the end; uid=1000 connects as another user
    ask_init_pid(root, name)
    send_states(root, "red", "STARTING", "RUNNING"), send_messages(root, Message(EXIT, "red", 9), b"bytes")
    bus.call("ZoneStart", "red"), bus.attach(...), bus.introspect(), bus.busctl(...); BusError
    bus.listen()            .signals, .wait_for("red", "RUNNING")
    bus.stop(), bus.start(), bus.restart()

Waiting is done by `eventually(check, timeout)` and what is built on it; a test never sleeps to wait for
something.
"""

from .bus import Bus, BusError, SignalListener
from .clients import (
    EXIT,
    PRIORITY,
    STATE,
    STATES,
    Client,
    Message,
    Subscriber,
    ask_init_pid,
    busy_monitor,
    fifo_path,
    init_pid_address,
    publisher_address,
    send_messages,
    send_states,
)
from .daemon import READY, Daemon
from .fakelxc import FakeLxc
from .polling import Timeout, eventually, never
from .records import Record
from .root import BUILD, PRIVATE_ROOT, PROJECT, SANITIZE, PrivateRoot, Process, control_groups_of
from .zones import DEFINE_ZONE, RealZones

__all__ = [
    "BUILD",
    "Bus",
    "BusError",
    "Client",
    "DEFINE_ZONE",
    "Daemon",
    "EXIT",
    "FakeLxc",
    "Message",
    "PRIORITY",
    "PRIVATE_ROOT",
    "PROJECT",
    "PrivateRoot",
    "Process",
    "READY",
    "RealZones",
    "Record",
    "SANITIZE",
    "STATE",
    "STATES",
    "SignalListener",
    "Subscriber",
    "Timeout",
    "ask_init_pid",
    "busy_monitor",
    "control_groups_of",
    "eventually",
    "fifo_path",
    "init_pid_address",
    "never",
    "publisher_address",
    "send_messages",
    "send_states",
]
