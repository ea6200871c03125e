"""A healthy machine on which set-ups are broken and mended again, one after another."""

import json
import re
import subprocess

from zonetest import BUILD, PROJECT, Bus, Daemon, PrivateRoot, RealZones, eventually

ZONECTL = BUILD / "bin" / "zonectl"
VISITS = 3
BAD = ("warning", "problem")
CHECKED = re.compile("Zone Threads are not initialized yet|thread running check timer is terminated")
AS_THEY_WERE = "/root/as-they-were"

KEEP = f"""set -e
mkdir -p {AS_THEY_WERE}
cp -p --parents /var/lib/lxc/*/config /etc/lxc/*.conf {AS_THEY_WERE}"""

# What a remedy adds to a configuration stays there, as do its backups and what is mounted.
RESTORE = f"""set -e
for name in red blue gold; do lxc-stop -k -n $name >/dev/null 2>&1 || :; done
while umount /run/lxc /var/lib/lxc/gold 2>/dev/null; do :; done
cp -rp {AS_THEY_WERE}/. /
rm -f /etc/lxc/kind.conf
find /var/lib/lxc /etc/lxc /run /opt -xdev -name '*.before-zonectl' -delete"""


class Report:
    """What the doctor said of a machine."""

    def __init__(self, result):
        self.status = result.returncode
        assert result.stderr == "", result.stderr
        self.data = json.loads(result.stdout)
        self.bad = [finding for finding in self.data["findings"] if finding["severity"] in BAD]

    @property
    def ids(self):
        return tuple(sorted(finding["id"] for finding in self.bad))

    @property
    def messages(self):
        return [finding["message"] for finding in self.bad if finding["message"]]


class Clinic:
    """A private root with a bus, and three zones of which two start automatically."""

    def __init__(self):
        self.root = PrivateRoot()
        try:
            self.bus = Bus(self.root).start()
            self.zones = RealZones(self.root)
            self.daemon = Daemon(self.root)
            self.zones.define("red", "hybrid", auto=True)
            self.zones.define("blue", "isolation", auto=True)
            self.zones.define("gold", "protection")
            self.root.run("rm -f /etc/systemd/system/multi-user.target.wants/lxc*.service")
            self.root.run("touch /etc/lxc/lxc.conf")
            self.root.run(KEEP)
            healthy = self.examine()
            assert (healthy.status, healthy.ids) == (0, ()), healthy.data
        except BaseException:
            self.close()
            raise
        self._holder = None

    def close(self):
        self.root.close()

    def zonectl(self, *arguments):
        return self.root.run([ZONECTL, *arguments], check=False)

    def zonectl_of_another_user(self, *arguments):
        """What somebody sees who is not root; whether or not they may go where it was built."""
        copy = "/usr/local/bin/zonectl-for-all"
        self.root.run(["install", "-m", "755", ZONECTL, copy])
        return self.root.run(
            ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", copy, *arguments], check=False
        )

    def examine(self, *options):
        return Report(self.zonectl("doctor", "--json", *options))

    def shell(self, script):
        self.root.run(f"cd {PROJECT} && {{ {script}\n}}")

    def infect(self, recipe):
        self.shell(recipe.breaks)
        if recipe.holds:
            self._holder = self.root.popen(
                ["/usr/bin/python3", "-c", recipe.holds], stdout=subprocess.PIPE, text=True
            )
            assert self._holder.popen.stdout.readline() == "held\n"

    def treat(self, recipe, report):
        """Does what the doctor says, or what somebody does whom it tells to; and what it says then. Returns
        its last report."""
        if recipe.mends:
            self.shell(recipe.mends)
            return self.examine()
        for _ in range(VISITS):
            for finding in report.bad:
                self.shell(finding["remedy"])
            if self._holder is not None:
                self._holder.wait()  # which the remedy has ended
                self._holder = None
            report = self.examine()
            if not report.bad:
                break
        return report

    def restore(self):
        self.shell(RESTORE)

    def recovers(self):
        """Whether the next one finds a healthy machine."""
        try:
            if self.daemon.running:
                self.daemon.stop()
            self.restore()
            return self._holder is None and self.examine().ids == ()
        except AssertionError:
            return False

    def daemon_writes(self, messages):
        """Starts the daemon and waits for what it has to write, however it goes on from there."""
        mark = self.daemon.mark()
        self.daemon.start()
        for message in messages:
            wanted = re.compile(re.escape(message).replace("%d", r"-?\d+") + "$")
            self.daemon.wait_for(wanted, after=mark)
        # It hears SIGTERM when its main loop runs, which the check of the threads is a sign of.
        daemon = self.daemon
        eventually(lambda: not daemon.running or daemon.find(CHECKED, mark), 20, "an end or the main loop")
        if self.daemon.running:
            assert self.daemon.stop() == 0

    def daemon_starts_its_zones(self):
        """The witness that is not the doctor. A zone that runs already would be none, and would let the
        daemon be ended before its main loop runs."""
        for name in ("red", "blue"):
            assert self.zones.state(name) == "STOPPED", name
        self.daemon.start()
        for name in ("red", "blue"):
            eventually(lambda name=name: self.zones.state(name) == "RUNNING", 20, f"{name} to run")
        assert self.daemon.stop() == 0
