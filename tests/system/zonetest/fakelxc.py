"""Steering of the fake liblxc and the fake launcher; their sources say what each control file does."""

import json
from dataclasses import dataclass

from .root import BUILD

CONTROL = "/run/fake-lxc"
LXC_PATH = "/var/lib/lxc"
FAKES = BUILD / "tests" / "fake"
TYPES = {"isolation": 1, "hybrid": 2, "protection": 3}


@dataclass(frozen=True)
class Call:
    """One call of a liblxc function; `references` is the handle's count after it, None without a handle."""

    function: str
    container: str
    references: int | None
    detail: str


class FakeLxc:
    """Installs the fakes in a root, in the places where the daemon looks, and steers them."""

    def __init__(self, root):
        self.root = root
        root.prepare()
        root.install(FAKES / "liblxc.so.1", "/zone/config/liblxc.so.1", 0o644)
        root.install(FAKES / "zone-launcher", "/zone/config/zone-launcher")
        root.mkdir(f"{CONTROL}/containers")
        self.set("lxcpath", LXC_PATH)

    def install_incomplete(self):
        """The liblxc without lxc_state2str."""
        self.root.install(FAKES / "incomplete" / "liblxc.so.1", "/zone/config/liblxc.so.1", 0o644)

    # Control files

    def set(self, name, value=""):
        """Writes a control file."""
        self.root.write(f"{CONTROL}/{name}", f"{value}\n" if value != "" else "")

    def unset(self, name):
        self.root.remove(f"{CONTROL}/{name}")

    def get(self, name):
        """A control file's text without its newline, None when there is none."""
        path = f"{CONTROL}/{name}"
        return self.root.read(path).removesuffix("\n") if self.root.exists(path) else None

    # Containers

    def define(self, name, kind="hybrid", auto=None, rootfs=True, labels="_", **files):
        """Defines a container with what its kind of zone needs to be accepted: directories, and first labels.

        kind    a word of TYPES, a number, or None for a container without a type
        auto    value of lxc.start.auto; True is "1", None leaves the item out
        rootfs  value of lxc.rootfs.path; True for the usual one, None leaves it out
        labels  first label of the zone's directories, None for none
        files   further control files of the container
        """
        if kind is not None:
            self.put(name, "type", TYPES.get(kind, kind))
        if auto is not None:
            self.put(name, "auto", "1" if auto is True else auto)
        if rootfs is not None:
            self.put(name, "rootfs", f"{LXC_PATH}/{name}/rootfs" if rootfs is True else rootfs)
        self.root.mkdir(f"{CONTROL}/containers/{name}")
        self.root.mkdir(f"{LXC_PATH}/{name}")
        if labels is not None:
            if kind in ("protection", 3):
                self.root.set_label(f"{LXC_PATH}/{name}", labels)
            if kind in ("isolation", "protection", 1, 3):
                self.root.set_label(f"/opt{LXC_PATH}/{name}", labels)
                self.root.set_label(f"/opt{LXC_PATH}/{name}/opt", labels)
        for file, value in files.items():
            self.put(name, file, value)
        return name

    def put(self, name, file, value=""):
        """Writes a control file of a container."""
        self.set(f"containers/{name}/{file}", value)

    def drop(self, name, file):
        self.unset(f"containers/{name}/{file}")

    def of(self, name, file):
        """A control file of a container, None when there is none."""
        return self.get(f"containers/{name}/{file}")

    def script(self, verb, *actions, name=None):
        """What the launcher does on "start" or "stop", for one container or for all."""
        where = f"containers/{name}" if name else "launcher"
        self.set(f"{where}/{verb}", "\n".join(actions))

    # What happened

    def calls(self, function=None, container=None):
        """The calls of liblxc so far, in order."""
        found = []
        for line in (self.get("calls") or "").splitlines():
            name, target, references, detail = line.split(" ", 3)
            call = Call(name, target, None if references == "-" else int(references), detail)
            if function in (None, name) and container in (None, target):
                found.append(call)
        return found

    def references(self, container):
        """References to the container that nobody has given back yet, over all its handles."""
        change = {"lxc_container_new": 1, "lxc_container_get": 1, "lxc_container_put": -1}
        calls = [call for call in self.calls(container=container) if call.detail != "failed"]
        return sum(change.get(call.function, 0) for call in calls)

    def launches(self):
        """One dictionary for each run of the launcher: pid, argv, umask, blocked, ignored, fds."""
        return [json.loads(line) for line in (self.get("launches") or "").splitlines()]
