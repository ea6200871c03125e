"""Private roots and the processes in them."""

import contextlib
import ctypes
import os
import shutil
import signal
import socket
import subprocess
import tempfile
import threading
from pathlib import Path

from .polling import SCALE, eventually

PROJECT = Path(__file__).resolve().parents[3]
BUILD = Path(os.environ.get("ZONE_BUILD_DIR", PROJECT / "build" / "release")).resolve()
PRIVATE_ROOT = PROJECT / "scripts" / "private-root"
SANITIZE = os.environ.get("ZONE_SANITIZE", "")

LABEL = "security.SMACK64"
LONGEST_SYMLINK_CHAIN = 40
CLONE_NEWNET = 0x40000000

_libc = ctypes.CDLL(None, use_errno=True)


def _set_namespace(descriptor, kind):
    if _libc.setns(descriptor, kind) != 0:
        error = ctypes.get_errno()
        raise OSError(error, os.strerror(error))


def clean_environment(extra=None):
    """What programs in a root get: the same on every machine, and what steers the sanitizers."""
    environment = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL": "C.UTF-8"}
    for name in ("ASAN_OPTIONS", "LSAN_OPTIONS", "TSAN_OPTIONS", "UBSAN_OPTIONS"):
        if name in os.environ:
            environment[name] = os.environ[name]
    environment.update(extra or {})
    return environment


class Process:
    """A process in a root. `pid` is the machine's number for it, `inner_pid` the root's own."""

    def __init__(self, root, command, env=None, **options):
        self.root = root
        options.setdefault("stdin", subprocess.DEVNULL)
        # The first child enters the root and waits; its own child is the command.
        self.popen = subprocess.Popen(
            [PRIVATE_ROOT, "--join", str(root.pid), "--", *map(str, command)],
            env=clean_environment(env),
            cwd="/",
            **options,
        )
        self._pid = None

    @property
    def pid(self):
        if self._pid is None:
            eventually(self._find_pid, 10, "the process in the root")
        return self._pid

    def _find_pid(self):
        helper = self.popen.pid
        with contextlib.suppress(OSError):
            for child in Path(f"/proc/{helper}/task/{helper}/children").read_text().split():
                with contextlib.suppress(OSError):
                    if os.readlink(f"/proc/{child}/ns/pid") == self.root.pid_namespace:
                        self._pid = int(child)
        return self._pid is not None or self.popen.poll() is not None

    @property
    def inner_pid(self):
        return _numbers(self.pid)[-1]

    @property
    def running(self):
        return self.popen.poll() is None

    def signal(self, number):
        os.kill(self.pid, number)
        if number == signal.SIGCONT and self.running:
            # The waiting parent stops and goes on with its child.
            self.popen.send_signal(number)

    def wait(self, timeout=10.0):
        """Exit status, negative for the signal that ended it."""
        return self.popen.wait(timeout * SCALE)

    def kill(self):
        if self.running and self.pid is not None:
            with contextlib.suppress(ProcessLookupError):
                os.kill(self.pid, signal.SIGKILL)
        self.popen.wait(10)


def _numbers(pid):
    """The numbers of a process, from the machine's own down to that in its innermost namespace."""
    status = Path(f"/proc/{pid}/status").read_text()
    return [int(number) for number in status.partition("NSpid:")[2].partition("\n")[0].split()]


def control_groups_of(supervisor):
    """The control groups of the root that the process with this id supervises, in all hierarchies."""
    # Unlike glob, the walk takes it well when other roots' groups vanish under it.
    name = f"private-root.{supervisor}"
    return [Path(base, name) for base, directories, _ in os.walk("/sys/fs/cgroup") if name in directories]


class PrivateRoot:
    """A private copy of the file system with a network, processes and control groups of its own."""

    def __init__(self, *options):
        self._directory = tempfile.TemporaryDirectory(prefix="zonetest-")
        self.scratch = Path(self._directory.name)
        self._processes = []
        pid_file = self.scratch / "pid"
        share = ["--bind", BUILD] if BUILD.is_dir() else []
        with open(self.scratch / "private-root.log", "wb") as log:
            # The root lives until its input ends, and so never longer than the tests.
            self._supervisor = subprocess.Popen(
                [PRIVATE_ROOT, "--net", *share, *options, "--pid-file", pid_file, "--", "cat"],
                stdin=subprocess.PIPE,
                stdout=subprocess.DEVNULL,
                stderr=log,
                env=clean_environment(),
                cwd=PROJECT,
            )

        def ready():
            text = pid_file.read_text() if pid_file.exists() else ""
            return text.endswith("\n") or self._supervisor.poll() is not None

        try:
            eventually(ready, 30, "a private root")
            if self._supervisor.poll() is not None:
                raise RuntimeError((self.scratch / "private-root.log").read_text())
        except BaseException:
            self.close()
            raise
        self.pid = int(pid_file.read_text())
        self.pid_namespace = os.readlink(f"/proc/{self.pid}/ns/pid")
        self._group = f"/private-root.{self.supervisor}"

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    @property
    def supervisor(self):
        """Process id of the script that keeps the root."""
        return self._supervisor.pid

    def close(self):
        """Ends everything inside and gives all of it back to the machine."""
        if self._supervisor.poll() is None:
            self._supervisor.stdin.close()
            try:
                self._supervisor.wait(20)
            except subprocess.TimeoutExpired:
                self._supervisor.terminate()
                self._supervisor.wait(20)
        for process in self._processes:
            process.popen.wait(10)
            for stream in (process.popen.stdin, process.popen.stdout, process.popen.stderr):
                if stream is not None:
                    stream.close()
        self._directory.cleanup()

    # Programs

    def popen(self, command, env=None, **options):
        """Starts a program inside and returns a Process; options as for subprocess.Popen."""
        process = Process(self, command, env, **options)
        self._processes.append(process)
        return process

    def run(self, command, check=True, input=None, timeout=60.0, env=None):
        """Runs a program inside to its end: a list of arguments, or a text for the shell. Returns a
        CompletedProcess with texts; with `check`, a status other than 0 fails with what it printed."""
        arguments = ["sh", "-c", command] if isinstance(command, str) else list(map(str, command))
        process = self.popen(
            arguments,
            env,
            stdin=subprocess.DEVNULL if input is None else subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            text=True,
        )
        try:
            output, errors = process.popen.communicate(input, timeout * SCALE)
        except subprocess.TimeoutExpired:
            process.kill()
            raise
        status = process.popen.returncode
        assert not check or status == 0, f"{arguments} gave {status}\n{output}{errors}"
        return subprocess.CompletedProcess(arguments, status, output, errors)

    def pids(self):
        """The machine's numbers of all processes of the root, those of its containers too."""
        found = []
        for entry in os.listdir("/proc"):
            if entry.isdigit():
                with contextlib.suppress(OSError):
                    if self._group in Path(f"/proc/{entry}/cgroup").read_text():
                        found.append(int(entry))
        return found

    def host_pid(self, inner):
        """The machine's number of the process that the root calls `inner`; None when there is none."""
        depth = len(_numbers(self.pid))
        for pid in self.pids():
            with contextlib.suppress(OSError):
                numbers = _numbers(pid)
                if len(numbers) >= depth and numbers[depth - 1] == inner:
                    return pid
        return None

    # Files

    def path(self, inside):
        """A path by which the machine reaches a path of the root. Symbolic links are followed as inside."""
        base = f"/proc/{self.pid}/root"
        parts = [part for part in str(inside).split("/") if part]
        resolved = []
        links = 0
        while parts:
            part = parts.pop(0)
            if part == "..":
                resolved = resolved[:-1]
                continue
            candidate = "/".join([base, *resolved, part])
            if part != "." and os.path.islink(candidate):
                links += 1
                if links > LONGEST_SYMLINK_CHAIN:
                    raise OSError(f"too many symbolic links: {inside}")
                target = os.readlink(candidate)
                if target.startswith("/"):
                    resolved = []
                parts = [step for step in target.split("/") if step] + parts
            elif part != ".":
                resolved.append(part)
        return Path("/".join([base, *resolved]))

    def read(self, inside):
        return self.path(inside).read_text()

    def write(self, inside, text="", mode=None):
        """Replaces a file in one step; parents are made."""
        target = self.path(inside)
        target.parent.mkdir(parents=True, exist_ok=True)
        temporary = target.with_name(f".{target.name}.{threading.get_ident()}")
        temporary.write_bytes(text if isinstance(text, bytes) else text.encode())
        if mode is not None:
            temporary.chmod(mode)
        temporary.rename(target)

    def mkdir(self, inside, mode=0o755):
        self.path(inside).mkdir(mode, parents=True, exist_ok=True)

    def remove(self, inside):
        """Removes a file or a whole directory; neither is fine too."""
        target = self.path(inside)
        if target.is_dir():
            shutil.rmtree(target)
        else:
            target.unlink(missing_ok=True)

    def exists(self, inside):
        return self.path(inside).exists()

    def label(self, inside):
        """The path's Smack label, None when it has none."""
        try:
            return os.getxattr(self.path(inside), LABEL).decode()
        except OSError:
            return None

    def set_label(self, inside, label):
        """Makes the directory when it is missing; None takes the label away."""
        if not self.exists(inside):
            self.mkdir(inside)
        if label is None:
            os.removexattr(self.path(inside), LABEL)
        else:
            os.setxattr(self.path(inside), LABEL, label.encode())

    def install(self, source, inside, mode=0o755):
        """Copies a file of the machine into the root."""
        target = self.path(inside)
        target.parent.mkdir(parents=True, exist_ok=True)
        temporary = target.with_name(f".{target.name}.new")
        shutil.copyfile(source, temporary)
        temporary.chmod(mode)
        temporary.rename(target)

    def install_built(self):
        """The built liblxc adapter and launcher, where the daemon looks for them."""
        self.install(BUILD / "lib" / "liblxc.so.1", "/zone/config/liblxc.so.1", 0o644)
        self.install(BUILD / "bin" / "zone-launcher", "/zone/config/zone-launcher")

    def prepare(self):
        """The first labels and directories of a machine, as `scripts/define-zone --prepare` makes them."""
        for directory in ("/run/lxc", "/opt/zone/template/securedata"):
            self.set_label(directory, "_")
        self.mkdir("/opt/var/lib/lxc")

    # Network

    def socket(self, family=socket.AF_UNIX, kind=socket.SOCK_STREAM):
        """A socket of the root's network, where its abstract names are."""
        own = os.open("/proc/thread-self/ns/net", os.O_RDONLY)
        try:
            theirs = os.open(f"/proc/{self.pid}/ns/net", os.O_RDONLY)
            try:
                _set_namespace(theirs, CLONE_NEWNET)
                try:
                    return socket.socket(family, kind)
                finally:
                    _set_namespace(own, CLONE_NEWNET)
            finally:
                os.close(theirs)
        finally:
            os.close(own)
