"""Broken set-ups: what each does to a healthy machine, and what the doctor has to find then."""

from dataclasses import dataclass

from zonetest import init_pid_address, publisher_address

RED = "/var/lib/lxc/red/config"  # hybrid, starts automatically
LABEL = "security.SMACK64"
LIBRARY = "/zone/config/liblxc.so.1"
LAUNCHER = "/zone/config/zone-launcher"
RUN = "/run/lxc"
LOCK = f"{RUN}/lock/zone-manager.lock"
FIFO = f"{RUN}//var/lib/lxc/monitor-fifo"
POLICY = "/usr/share/dbus-1/system.d/org.ornix.zoneframework.conf"
WANTS = "/etc/systemd/system/multi-user.target.wants"

# It tells by the descriptor that it serves; without containers it would end within half a minute.
START_MONITORD = (
    "/usr/libexec/lxc/lxc-monitord /var/lib/lxc 9 9>/run/served >/dev/null 2>&1 & echo $! >/run/monitord;"
    " for i in $(seq 100); do [ -s /run/served ] && break; sleep 0.1; done"
)
END_MONITORD = "kill $(cat /run/monitord); while kill -0 $(cat /run/monitord) 2>&-; do sleep 0.1; done"


@dataclass(frozen=True)
class Recipe:
    """`breaks` is for the shell, as is `mends`: what somebody does whom the remedy tells to, where it is no
    command. `holds` is a Python program that holds something and says so by a line."""

    name: str
    finds: tuple
    breaks: str = ":"
    mends: str = ""
    holds: str = ""
    daemon: bool = False  # the daemon itself is asked too, before and after


def recipe(name, *finds, **rest):
    return Recipe(name, tuple(sorted(finds)), **rest)


def dropped(key, config=RED):
    """Takes the lines with a key out of a configuration."""
    return f"sed -i '/^{key}/d' {config}"


def bound(name):
    return (
        "import socket, time\n"
        "s = socket.socket(socket.AF_UNIX)\n"
        f"s.bind({name!r})\n"
        "print('held', flush=True); time.sleep(600)"
    )


HOLD_LOCK = f"""import fcntl, time
file = open({LOCK!r}, "w")
fcntl.flock(file, fcntl.LOCK_EX)
print("held", flush=True); time.sleep(600)"""

HOLD_FIFO = f"""import fcntl, time
file = open({FIFO!r}, "r+b", 0)
fcntl.lockf(file, fcntl.LOCK_EX)
print("held", flush=True); time.sleep(600)"""

HOLD_NAME = """from gi.repository import Gio, GLib
Gio.bus_own_name(Gio.BusType.SYSTEM, "org.ornix.zoneframework", 0, None,
                 lambda *_: print("held", flush=True), lambda *_: exit(1))
GLib.MainLoop().run()"""

AT_THE_PROCESSOR = "dd seek=18 bs=1 conv=notrunc status=none"

SAVE = "cp -a {0} /root/saved"
BACK = "rm -rf {0}; mv /root/saved {0}"


def replaced(path, breaks):
    """A recipe's two scripts: for what is done to a file of which the package has another copy."""
    return {"breaks": f"{SAVE.format(path)}; {breaks}", "mends": BACK.format(path)}


def labelled(path, label="!"):
    return f"setfattr -n {LABEL} -v '{label}' {path}"


KERNEL = [
    recipe(
        "no controllers",
        "cgroups.none",
        breaks="mount -t tmpfs none /sys/fs/cgroup",
        mends="umount /sys/fs/cgroup",
    ),
    recipe(
        "the first process in a control group of its own",
        "cgroups.nested",
        breaks="for c in freezer memory; do mkdir -p /sys/fs/cgroup/$c/inner;"
        " echo 1 >/sys/fs/cgroup/$c/inner/cgroup.procs; done",
    ),
]

BUS = [
    recipe("no policy", "policy.missing", **replaced(POLICY, f"rm {POLICY}")),
    recipe(
        "a policy that gives nobody the name",
        "policy.no-owner",
        **replaced(POLICY, f"sed -i '/allow own=/d' {POLICY}"),
    ),
    recipe(
        "a policy of another user",
        "policy.no-owner",
        **replaced(POLICY, f"sed -i 's/user=\"root\"/user=\"daemon\"/' {POLICY}"),
    ),
    recipe(
        "a policy that is no XML",
        "policy.no-owner",
        **replaced(POLICY, f"sed -i 's|</busconfig>||' {POLICY}"),
    ),
    recipe(
        "a policy that lets everybody call",
        "policy.open",
        **replaced(POLICY, f"sed -i 's|<deny send_destination|<allow send_destination|' {POLICY}"),
    ),
    recipe("the name is somebody else's", "bus.name-taken", holds=HOLD_NAME),
    recipe(
        "no bus",
        "bus.unreachable",
        breaks="mv /run/dbus/system_bus_socket /run/dbus/away",
        mends="mv /run/dbus/away /run/dbus/system_bus_socket",
    ),
    recipe(
        "the distribution's starter is enabled",
        "unit.lxc",
        breaks=f"ln -s /lib/systemd/system/lxc.service {WANTS}/lxc.service",
    ),
    recipe(
        "the distribution's monitor is enabled",
        "unit.lxc-monitord",
        breaks=f"ln -s /lib/systemd/system/lxc-monitord.service {WANTS}/lxc-monitord.service",
    ),
]

PROGRAMS = [
    recipe("no library", "liblxc.missing", daemon=True, **replaced(LIBRARY, f"rm {LIBRARY}")),
    recipe(
        "the distribution's library in the place of the daemon's",
        "liblxc.functions",
        **replaced(LIBRARY, f"cp -L /usr/lib/*/liblxc.so.1 {LIBRARY}"),
    ),
    recipe(
        "a library that is no library",
        "liblxc.unloadable",
        **replaced(LIBRARY, f"echo no library >{LIBRARY}"),
    ),
    recipe(
        "a library that is cut short",
        "liblxc.unloadable",
        **replaced(LIBRARY, f"truncate -s 4096 {LIBRARY}"),
    ),
    recipe(
        "a library that tells no kind",
        "liblxc.kind",
        daemon=True,
        # It looks for another key then. In optimised code the key stands in pieces of eight bytes.
        **replaced(LIBRARY, f"sed -i 's/zone\\.con/zone.kon/g' {LIBRARY}"),
    ),
    recipe(
        "a library with other words for the states",
        "liblxc.monitor",
        **replaced(LIBRARY, f"sed -i 's/RUNNING/WALKING/g' {LIBRARY}"),
    ),
    recipe("no launcher", "launcher.missing", daemon=True, **replaced(LAUNCHER, f"rm {LAUNCHER}")),
    recipe(
        "a launcher that may not be run",
        "launcher.not-executable",
        breaks=f"chmod 644 {LAUNCHER}",
        daemon=True,
    ),
    recipe(
        "a launcher whose interpreter is missing",
        "launcher.interpreter",
        **replaced(LAUNCHER, f"printf '#!/opt/python -u\\n' >{LAUNCHER}"),
    ),
    recipe(
        "a launcher without an interpreter",
        "launcher.format",
        **replaced(LAUNCHER, f"echo 'exec lxc-start \"$2\"' >{LAUNCHER}"),
    ),
    recipe(
        "a launcher for another processor",
        "launcher.format",
        **replaced(LAUNCHER, f"printf '\\250' | {AT_THE_PROCESSOR} of={LAUNCHER}"),
    ),
    recipe(
        "an empty launcher", "launcher.format", **replaced(LAUNCHER, f"truncate -s 0 {LAUNCHER}")
    ),
    recipe(
        "a launcher that is a link to nowhere",
        "launcher.dangling",
        **replaced(LAUNCHER, f"ln -sf /nowhere/launcher {LAUNCHER}"),
    ),
    recipe(
        "a directory in the place of the launcher",
        "launcher.format",
        **replaced(LAUNCHER, f"rm {LAUNCHER}; mkdir {LAUNCHER}"),
    ),
    recipe("a launcher that anybody may change", "launcher.unprotected", breaks=f"chmod 777 {LAUNCHER}"),
]

DIRECTORIES = [
    recipe("no runtime directory", "directory.missing", breaks=f"rm -r {RUN}"),
    recipe(
        "no label on the runtime directory",
        "directory.no-label",
        breaks=f"setfattr -x {LABEL} {RUN}",
        daemon=True,
    ),
    recipe("the runtime directory of a user", "directory.owner", breaks=f"chown daemon {RUN}"),
    recipe("a runtime directory for all", "directory.mode", breaks=f"chmod 777 {RUN}"),
    recipe("pid files of a user", "directory.owner", breaks=f"mkdir -p {RUN}/pid; chown daemon {RUN}/pid"),
    recipe("pid files for a group", "directory.mode", breaks=f"mkdir -p {RUN}/pid; chmod 775 {RUN}/pid"),
    recipe("a lock directory for all", "directory.mode", breaks=f"mkdir -p {RUN}/lock; chmod 757 {RUN}/lock"),
    recipe(
        "a FIFO directory for all",
        "directory.mode",
        breaks=f"mkdir -p {RUN}/var/lib/lxc; chmod 777 {RUN}/var/lib",
    ),
    recipe(
        "a file in the place of the runtime directory",
        "directory.not-a-directory",
        breaks=f"rm -r {RUN}; echo >{RUN}",
    ),
    recipe(
        "a file in the place of the lock directory",
        "directory.not-a-directory",
        breaks=f"rm -rf {RUN}/lock; echo >{RUN}/lock",
    ),
    recipe(
        "a runtime directory without extended attributes",
        "directory.no-attributes",
        breaks=f"mount -t ramfs -o mode=755 none {RUN}",
        mends=f"umount {RUN}",
        daemon=True,
    ),
    recipe(
        "a runtime directory that is read-only",
        "directory.read-only",
        breaks=f"mount -t tmpfs -o mode=755 none {RUN}; {labelled(RUN)}; mount -o remount,ro {RUN}",
    ),
    recipe(
        "a runtime directory that is full",
        "directory.full",
        breaks=f"mount -t tmpfs -o mode=755,size=64k none {RUN}; {labelled(RUN)};"
        f" head -c 1M /dev/zero >{RUN}/filled 2>&- || :",
        mends=f"umount {RUN}",
    ),
    recipe(
        "a runtime directory without inodes",
        "directory.full",
        breaks=f"mount -t tmpfs -o mode=755,nr_inodes=2 none {RUN}; {labelled(RUN)}; echo >{RUN}/filled || :",
        mends=f"umount {RUN}",
    ),
    recipe("no zone directory", "directory.missing", breaks="rm -r /opt/zone"),
    recipe(
        "no label on the template's data",
        "directory.no-label",
        breaks=f"setfattr -x {LABEL} /opt/zone/template/securedata",
        daemon=True,
    ),
    recipe(
        "no base of the writable directories",
        "directory.missing",
        breaks="rm -r /opt/var",
    ),
]

HOLDERS = [
    recipe("the lock is taken", "lock.held", holds=HOLD_LOCK, breaks=f"mkdir -p {RUN}/lock", daemon=True),
    recipe(
        "the FIFO is read by another",
        "fifo.held",
        holds=HOLD_FIFO,
        breaks=f"mkdir -p {RUN}/var/lib/lxc; rm -f {FIFO}; mkfifo {FIFO}",
        daemon=True,
    ),
    recipe(
        "a file in the place of the FIFO",
        "fifo.not-a-fifo",
        breaks=f"mkdir -p {RUN}/var/lib/lxc; rm -f {FIFO}; echo >{FIFO}",
    ),
    recipe(
        "a directory in the place of the FIFO", "fifo.not-a-fifo", breaks=f"rm -f {FIFO}; mkdir -p {FIFO}"
    ),
    recipe("the init-pid socket is taken", "socket.taken", holds=bound(init_pid_address()), daemon=True),
    recipe("the state socket is taken", "socket.taken", holds=bound(publisher_address()), daemon=True),
    recipe(
        "the distribution's monitor runs",
        "fifo.held",
        "socket.taken",
        breaks=START_MONITORD,
        mends=END_MONITORD,
    ),
]

CONTAINERS = [
    recipe(
        "no container",
        "containers.none",
        breaks="mv /var/lib/lxc /root/saved; mkdir /var/lib/lxc",
        mends="rmdir /var/lib/lxc; mv /root/saved /var/lib/lxc",
        daemon=True,
    ),
    recipe(
        "a container path that leads nowhere",
        "lxcpath.missing",
        breaks="echo 'lxc.lxcpath = /nowhere' >>/etc/lxc/lxc.conf",
        daemon=True,
    ),
    recipe("no kind", "container.no-kind", breaks=dropped("zone.container_type"), daemon=True),
    recipe(
        "a misspelt kind",
        "container.bad-kind",
        breaks=f"sed -i 's/^zone.container_type.*/zone.container_type = hybird/' {RED}",
        daemon=True,
    ),
    recipe(
        "a kind out of range",
        "container.bad-kind",
        breaks=f"sed -i 's/^zone.container_type.*/zone.container_type = 4/' {RED}",
    ),
    recipe(
        "a kind in an included file",
        "container.included-kind",
        breaks=f"{dropped('zone.container_type')}; echo 'zone.container_type = hybrid' >/etc/lxc/kind.conf;"
        f" echo 'lxc.include = /etc/lxc/kind.conf' >>{RED}",
    ),
    recipe(
        "a key that stock liblxc does not know",
        "container.unloadable",
        breaks=f"sed -i 's/^zone.container_type/lxc.container_type/' {RED}",
    ),
    recipe(
        "an automatic start that is not 1",
        "container.unloadable",
        breaks=f"sed -i 's/^lxc.start.auto.*/lxc.start.auto = yes/' {RED}",
    ),
    recipe(
        "a line that liblxc does not understand",
        "container.unloadable",
        breaks=f"echo 'lxc.tty.max = many' >>{RED}",
        mends=dropped("lxc.tty.max = many"),
    ),
    recipe(
        "no root file system is named", "container.no-rootfs", breaks=dropped("lxc.rootfs.path"), daemon=True
    ),
    recipe(
        "no root file system anywhere",
        "container.no-rootfs",
        breaks=f"{dropped('lxc.rootfs.path')}; mv /var/lib/lxc/red/rootfs /root/saved",
        mends="mv /root/saved /var/lib/lxc/red/rootfs;"
        f" echo 'lxc.rootfs.path = /var/lib/lxc/red/rootfs' >>{RED}",
    ),
    recipe(
        "a root file system that is not there",
        "container.rootfs-missing",
        breaks=f"sed -i 's|^lxc.rootfs.path.*|lxc.rootfs.path = dir:/mnt/gone|' {RED}",
    ),
    recipe(
        "a root file system of a marked zone is gone",
        "container.rootfs-missing",
        breaks="mv /var/lib/lxc/blue/rootfs /root/saved",
        mends="mv /root/saved /var/lib/lxc/blue/rootfs",
    ),
    recipe(
        "the usual control groups",
        "container.cgroups",
        breaks=dropped("lxc.cgroup.dir"),
    ),
    recipe(
        "other control groups",
        "container.cgroups",
        breaks=f"sed -i 's|^lxc.cgroup.dir.container.*|lxc.cgroup.dir.container = zones/red|' {RED}",
    ),
    recipe(
        "no place for the monitor at the end",
        "container.cgroups",
        breaks=dropped("lxc.cgroup.dir.monitor.pivot"),
    ),
    recipe(
        "the machine's network",
        "container.shared-network",
        breaks=f"sed -i 's/^lxc.net.0.type.*/lxc.net.0.type = none/' {RED}",
    ),
    recipe(
        "no label on a writable directory",
        "container.no-label",
        breaks=f"setfattr -x {LABEL} /opt/var/lib/lxc/blue",
        daemon=True,
    ),
    recipe(
        "no label on the directory in it",
        "container.no-label",
        breaks=f"setfattr -x {LABEL} /opt/var/lib/lxc/blue/opt",
    ),
    recipe(
        "no label on a protection zone",
        "container.no-label",
        breaks=f"setfattr -x {LABEL} /var/lib/lxc/gold",
        daemon=True,
    ),
    recipe(
        "no writable directory",
        "container.no-label",
        "container.no-label",
        breaks="rm -r /opt/var/lib/lxc/blue",
    ),
    recipe(
        "a writable directory without extended attributes",
        "container.no-attributes",
        "container.no-label",
        breaks="mount -t ramfs none /opt/var/lib/lxc/blue",
        mends="umount /opt/var/lib/lxc/blue",
    ),
    recipe(
        "a protection zone on a read-only mount",
        "container.read-only",
        breaks=f"{labelled('/var/lib/lxc/gold', '_')}; mount --bind /var/lib/lxc/gold /var/lib/lxc/gold;"
        " mount -o remount,bind,ro /var/lib/lxc/gold",
        daemon=True,
    ),
    recipe(
        "a name that is too long",
        "container.long-name",
        breaks="N=$(printf 'x%.0s' $(seq 240)); cp -r /var/lib/lxc/red /var/lib/lxc/$N;"
        " sed -i \"s|/red|/$N|\" /var/lib/lxc/$N/config",
        mends="rm -r /var/lib/lxc/xxx*",
    ),
    recipe(
        "two things wrong with one zone",
        "container.no-kind",
        "container.cgroups",
        breaks=f"{dropped('zone.container_type')}; {dropped('lxc.cgroup.dir')}",
    ),
    recipe(
        "two zones with something wrong",
        "container.no-kind",
        "container.no-label",
        breaks=f"{dropped('zone.container_type')}; setfattr -x {LABEL} /var/lib/lxc/gold",
    ),
]

RECIPES = [*KERNEL, *BUS, *PROGRAMS, *DIRECTORIES, *HOLDERS, *CONTAINERS]
