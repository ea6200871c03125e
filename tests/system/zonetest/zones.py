"""Real containers, defined as a user of the project does."""

from .root import PROJECT

DEFINE_ZONE = PROJECT / "scripts" / "define-zone"
LXC_PATH = "/var/lib/lxc"


class RealZones:
    """Real containers in a root, with the built liblxc adapter and launcher installed."""

    def __init__(self, root, install=True):
        self.root = root
        root.run([DEFINE_ZONE, "--prepare"])
        if install:
            root.install_built()

    def define(self, name, kind="hybrid", auto=False, unlabelled=False):
        """`scripts/define-zone`. Tests may use the same names: roots do not see each other's containers."""
        options = [option for option, wanted in (("--auto", auto), ("--unlabelled", unlabelled)) if wanted]
        self.root.run([DEFINE_ZONE, *options, name, str(kind)])
        return name

    def start(self, name):
        """Starts it behind the daemon's back."""
        self.root.run(["lxc-start", "-n", name])

    def kill(self, name):
        """Ends it behind the daemon's back."""
        self.root.run(["lxc-stop", "-k", "-n", name])

    def state(self, name):
        return self.root.run(["lxc-info", "-n", name, "-sH"]).stdout.strip()

    def init_pid(self, name):
        """The root's number of the container's first process, None when it does not run."""
        text = self.root.run(["lxc-info", "-n", name, "-pH"], check=False).stdout.strip()
        return int(text) if text.lstrip("-").isdigit() and int(text) > 0 else None

    def groups(self, name):
        """The container's payload control groups, as the root names them."""
        base = self.root.path("/sys/fs/cgroup")
        found = sorted(base.glob(f"*/lxc.payload/{name}"))
        return [f"/sys/fs/cgroup/{group.relative_to(base)}" for group in found]
