"""Copies of the tree in which mutants are built and tested, and the programs that run there."""

import contextlib
import hashlib
import json
import os
import shlex
import shutil
import signal
import subprocess
import tempfile
import threading
import time
from pathlib import Path

PRESET = "debug"
# What a mutant in an endless loop may take of the machine.
MOST_MEMORY = 8 << 30
LARGEST_FILE = 1 << 30
OUTPUT_KEPT = 1 << 26
GRACE = 5.0


class Failure(Exception):
    """The run cannot go on; the text says why."""


class Interrupted(Exception):
    """Somebody asked to stop."""


class Children:
    """Runs programs, each in a process group of its own, so that all of it can be ended."""

    def __init__(self):
        self._lock = threading.Lock()
        self._running = set()
        self._stopped = False

    def run(self, command, cwd, env=None, limit=None):
        """Runs to the end. Returns the exit status, None when it took longer than `limit` seconds, and the
        end of what it printed."""
        bounds = ["prlimit", f"--as={MOST_MEMORY}", f"--fsize={LARGEST_FILE}", "--core=0", "--"]
        with tempfile.TemporaryFile() as output:
            with self._lock:
                if self._stopped:
                    raise Interrupted
                process = subprocess.Popen(
                    [*bounds, *map(str, command)],
                    cwd=cwd,
                    env={**os.environ, **(env or {})},
                    stdin=subprocess.DEVNULL,
                    stdout=output,
                    stderr=subprocess.STDOUT,
                    start_new_session=True,
                )
                self._running.add(process)
            try:
                status = process.wait(limit)
            except subprocess.TimeoutExpired:
                status = None
            finally:
                _end_group(process)
                with self._lock:
                    self._running.discard(process)
            if self._stopped:
                raise Interrupted
            output.seek(max(0, output.seek(0, os.SEEK_END) - OUTPUT_KEPT))
            return status, output.read().decode(errors="replace")

    def stop(self):
        """Ends what runs; nothing can be started any more."""
        with self._lock:
            self._stopped = True
        for number, patience in ((signal.SIGTERM, GRACE), (signal.SIGKILL, GRACE)):
            with self._lock:
                running = list(self._running)
            for process in running:
                _signal_group(process, number)
            deadline = time.monotonic() + patience
            while self._running and time.monotonic() < deadline:
                time.sleep(0.05)


def _signal_group(process, number):
    with contextlib.suppress(ProcessLookupError, PermissionError):
        os.killpg(process.pid, number)


def _end_group(process):
    """What is left of the group goes too; private roots are given the time to give back what they took."""
    if process.poll() is None:
        _signal_group(process, signal.SIGTERM)
        with contextlib.suppress(subprocess.TimeoutExpired):
            process.wait(GRACE)
    _signal_group(process, signal.SIGKILL)
    process.wait()


class Project:
    """The files of the checkout, as git knows them, with what is changed and new in the working tree."""

    def __init__(self, path):
        self.path = path
        listing = subprocess.run(
            ["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard"],
            cwd=path,
            capture_output=True,
            check=False,
        )
        if listing.returncode != 0:
            raise Failure(f"git cannot list the files of {path}: {listing.stderr.decode().strip()}")
        names = {os.fsdecode(name) for name in listing.stdout.split(b"\0") if name}
        self.files = sorted(name for name in names if (path / name).is_file() or (path / name).is_symlink())

    def digest(self, paths=()):
        """Of the texts that begin with these paths, or of all on which a mutant's fate depends."""
        total = hashlib.sha256()
        for name in self.files:
            if paths and not name.startswith(paths):
                continue
            if not paths and name.startswith(("scripts/mutate", "docs/testing.md")):
                continue
            total.update(f"{name}\0{hashlib.sha256((self.path / name).read_bytes()).hexdigest()}\n".encode())
        return total.hexdigest()[:12]


class Tree:
    """A copy of the project that is kept between runs, so that later ones build only what is new."""

    def __init__(self, path, project, children, jobs, preset=PRESET):
        self.path = path
        self.project = project
        self.children = children
        self.jobs = jobs
        self.preset = preset
        self.build_directory = path / "build" / preset

    def synchronise(self):
        wanted = set(self.project.files)
        for folder, directories, names in os.walk(self.path):
            if Path(folder) == self.path and "build" in directories:
                directories.remove("build")
            for name in names:
                if os.path.relpath(os.path.join(folder, name), self.path) not in wanted:
                    os.unlink(os.path.join(folder, name))
        for name in self.project.files:
            source, target = self.project.path / name, self.path / name
            if source.is_symlink() or not _same(source, target):
                target.parent.mkdir(parents=True, exist_ok=True)
                target.unlink(missing_ok=True)
                shutil.copy(source, target, follow_symlinks=False)

    def _environment(self):
        if shutil.which("ccache") is None:
            return {}
        return {
            "CMAKE_C_COMPILER_LAUNCHER": "ccache",
            "CMAKE_CXX_COMPILER_LAUNCHER": "ccache",
            "CCACHE_BASEDIR": str(self.path),
            "CCACHE_NOHASHDIR": "1",
        }

    def configure(self):
        # Nobody looks at a mutant with a debugger, and debug information takes half of the time.
        command = ["cmake", "--preset", self.preset, "-DCMAKE_CXX_FLAGS_DEBUG=-O0"]
        status, output = self.children.run(command, self.path, self._environment())
        if status != 0:
            raise Failure(f"cmake --preset {self.preset} failed:\n{output}")

    def build(self, targets):
        """Returns whether it could be compiled and linked, and what was printed."""
        command = ["ninja", "-C", self.build_directory, f"-j{self.jobs}", *sorted(targets)]
        status, output = self.children.run(command, self.path, self._environment())
        if status != 0 and "error:" not in output:
            raise Failure(f"ninja failed:\n{output}")
        return status == 0, output

    def ninja(self, *arguments):
        status, output = self.children.run(["ninja", "-C", self.build_directory, *arguments], self.path)
        if status != 0:
            raise Failure(f"ninja {shlex.join(arguments)} failed:\n{output}")
        return output

    def run(self, command, env=None, limit=None, cwd=None):
        """As Children.run, and how long it took."""
        begin = time.monotonic()
        status, output = self.children.run(command, cwd or self.path, env, limit)
        return status, output, time.monotonic() - begin


def _same(source, target):
    return (
        target.is_file()
        and source.read_bytes() == target.read_bytes()
        and source.stat().st_mode == target.stat().st_mode
    )


def load_json(path, default=None):
    """What `path` holds; the default when there is no such file."""
    try:
        return json.loads(path.read_text())
    except FileNotFoundError:
        return default


def save_json(path, value):
    """In one step, so that nobody finds half of it."""
    path.parent.mkdir(parents=True, exist_ok=True)
    temporary = path.with_suffix(".new")
    temporary.write_text(json.dumps(value))
    temporary.rename(path)
