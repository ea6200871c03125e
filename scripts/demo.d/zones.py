"""The containers as LXC and the kernel see them, without asking the daemon."""

import contextlib
import dataclasses
import os
import pathlib
import subprocess

CGROUPS = pathlib.Path("/sys/fs/cgroup")
LABEL = "security.SMACK64"
UNCHANGED = None
STATES = ("STOPPED", "STARTING", "RUNNING", "STOPPING", "ABORTING", "FREEZING", "FROZEN", "THAWED")


def run(*command, timeout=60, check=True):
    """Runs a tool, out of reach of the keyboard's interrupt, and returns what it prints."""
    return subprocess.run(
        [str(word) for word in command], stdin=subprocess.DEVNULL, capture_output=True, text=True,
        check=check, timeout=timeout, start_new_session=True,
    ).stdout  # fmt: skip


def label_of(path):
    """The Smack label of a path, None when it has none or does not exist."""
    try:
        return os.getxattr(path, LABEL).decode(errors="replace")
    except OSError:
        return None


@dataclasses.dataclass(frozen=True)
class Zone:
    """A container of the demo."""

    name: str
    kind: str
    automatic: bool

    # Of the container's directory, its writable directory and the "opt" in that, by kind.
    LABELS = {
        "hybrid": (UNCHANGED, UNCHANGED, UNCHANGED),
        "isolation": (UNCHANGED, "System", "_"),
        "protection": ("!", "!", "_"),
    }

    def directories(self, lxc_path):
        writable = pathlib.Path(f"/opt{lxc_path}") / self.name
        return pathlib.Path(lxc_path) / self.name, writable, writable / "opt"

    @property
    def wanted_labels(self):
        return self.LABELS[self.kind]

    def info(self):
        """LXC's word for the state, ABSENT without such a container, and the init process id or None."""
        words = run("lxc-info", "-n", self.name, "-s", "-p", "-H", timeout=20, check=False).split()
        state = next((word for word in words if word in STATES), "ABSENT")
        pid = next((int(word) for word in words if word.isdigit()), None)
        return state, pid

    @property
    def state(self):
        return self.info()[0]

    @property
    def runs(self):
        """Whether there is anything to be stopped."""
        return self.state not in ("STOPPED", "ABSENT")

    def kill(self):
        """Stops the container the hard way. One that resists is left to the end of the private root."""
        with contextlib.suppress(subprocess.TimeoutExpired):
            run("lxc-stop", "-k", "-n", self.name, timeout=20, check=False)

    def control_groups(self):
        """The directories that the kernel still has for the container."""
        names = (f"{parent}/{self.name}" for parent in ("lxc.payload", "lxc.monitor"))
        return [path for name in names for pattern in (name, f"*/{name}") for path in CGROUPS.glob(pattern)]
