"""A system bus of the root's own and its clients."""

import contextlib
import json
import re
import signal
import socket
import subprocess

from .polling import eventually
from .root import PROJECT

SERVICE = "org.ornix.zoneframework"
OBJECT = "/org/ornix/zoneframework"
INTERFACE = "org.ornix.zoneframework.interface"
SIGNAL = "ZoneStateChangedSignal"
SOCKET = "/run/dbus/system_bus_socket"
POLICY = PROJECT / "packaging" / "dbus" / "org.ornix.zoneframework.conf"
INSTALLED_POLICY = "/usr/share/dbus-1/system.d/org.ornix.zoneframework.conf"

_SIGNAL_LINE = re.compile(
    re.escape(f"{OBJECT}: {INTERFACE}.{SIGNAL} ") + r"\('(?P<zone>.*)', '(?P<state>\w+)'\)"
)


class BusError(Exception):
    """A call that got an error, or no answer, with what the client printed."""


class Bus:
    """A dbus-daemon as system bus, with the project's policy. Not started yet."""

    def __init__(self, root, policy=POLICY):
        self.root = root
        self.process = None
        if policy is not None:
            root.install(policy, INSTALLED_POLICY, 0o644)

    def start(self):
        with open(self.root.scratch / "dbus-daemon.log", "ab") as log:
            self.process = self.root.popen(
                ["dbus-daemon", "--system", "--nofork", "--nopidfile", "--nosyslog"],
                stdout=log,
                stderr=subprocess.STDOUT,
            )
        eventually(self._answers, 20, "the system bus")
        return self

    def _answers(self):
        assert self.process.running, (self.root.scratch / "dbus-daemon.log").read_text()
        with socket.socket(socket.AF_UNIX) as probe, contextlib.suppress(OSError):
            probe.connect(str(self.root.path(SOCKET)))
            return True
        return False

    def stop(self):
        """Ends the bus; its clients see it go away."""
        self.process.signal(signal.SIGTERM)
        self.process.wait()

    def restart(self):
        self.stop()
        return self.start()

    # Calls

    def busctl(self, *arguments, timeout=10.0, uid=None):
        """Runs busctl with JSON output; BusError with its words when it fails."""
        user = [] if uid is None else ["setpriv", f"--reuid={uid}", f"--regid={uid}", "--clear-groups"]
        busctl = ["busctl", "--system", "--json=short", f"--timeout={timeout:.0f}"]
        result = self.root.run([*user, *busctl, *arguments], check=False, timeout=timeout + 20)
        if result.returncode != 0:
            raise BusError(result.stderr.strip())
        return result.stdout.strip()

    def call(self, method, *arguments, signature=None, timeout=10.0, uid=None):
        """Calls a method of the daemon and returns its one result, or None when the reply is empty. The
        arguments are texts unless a signature says otherwise; then they are in busctl's notation."""
        if signature is None:
            signature = "s" * len(arguments)
        parameters = [signature, *arguments] if signature else []
        output = self.busctl(
            "call", "--", SERVICE, OBJECT, INTERFACE, method, *parameters, timeout=timeout, uid=uid
        )
        data = json.loads(output)["data"] if output else []
        return data[0] if data else None

    def attach(self, zone, command=(), environment=(), user=0, group=0):
        """Calls ZoneAttach."""
        return self.call(
            "ZoneAttach",
            zone,
            len(command),
            *command,
            len(environment),
            *environment,
            user,
            group,
            signature="sasasii",
        )

    def owner(self, name=SERVICE):
        """The unique name that owns a name, None when nobody does."""
        try:
            bus = ("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus")
            output = self.busctl("call", *bus, "GetNameOwner", "s", name)
        except BusError:
            return None
        return json.loads(output)["data"][0]

    def wait_owned(self, timeout=10.0):
        """Waits until the daemon owns its name."""
        return eventually(self.owner, timeout, f"an owner of {SERVICE}", step=0.05)

    def introspect(self):
        """The object's introspection data as XML text."""
        output = self.busctl("call", SERVICE, OBJECT, "org.freedesktop.DBus.Introspectable", "Introspect")
        return json.loads(output)["data"][0]

    def listen(self):
        """A SignalListener, listening already. The daemon has to own its name."""
        return SignalListener(self)


class SignalListener:
    """An ordinary client that collects the state-change signals."""

    def __init__(self, bus):
        self._log = bus.root.scratch / f"signals-{id(self)}.log"
        with open(self._log, "wb") as log:
            self.process = bus.root.popen(
                ["gdbus", "monitor", "--system", "--dest", SERVICE, "--object-path", OBJECT],
                stdout=log,
                stderr=subprocess.STDOUT,
            )
        eventually(lambda: "is owned by" in self._log.read_text(), 10, "the signal listener")

    @property
    def signals(self):
        """Pairs of zone and state word, in order."""
        return [(match["zone"], match["state"]) for match in _SIGNAL_LINE.finditer(self._log.read_text())]

    def wait_for(self, zone, state, timeout=10.0):
        return eventually(lambda: (zone, state) in self.signals, timeout, f"signal {zone} {state}")

    def stop(self):
        self.process.kill()
