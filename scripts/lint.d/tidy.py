"""clang-tidy over a compile database, several at once, without looking twice at what was clean."""

import concurrent.futures
import functools
import hashlib
import os
import pathlib
import re
import shlex
import subprocess

INCLUDE = re.compile(r'^[ \t]*#[ \t]*include[ \t]*"([^"\n]+)"', re.MULTILINE)
FINDING = re.compile(r"^(?P<path>/[^:\n]+):(?P<line>\d+):\d+: (?:error|warning): (?P<text>.*)$", re.MULTILINE)


class Cache:
    """Remembers in a directory, by an empty file each, what was clean. Without a directory it forgets."""

    SIZE = 1000

    def __init__(self, directory):
        self.directory = directory
        if directory:
            directory.mkdir(parents=True, exist_ok=True)

    def knows(self, key):
        if self.directory is None or not (self.directory / key).exists():
            return False
        self.remember(key)
        return True

    def remember(self, key):
        if self.directory:
            (self.directory / key).touch()

    def trim(self):
        """Forgets what has not been asked for longest."""
        entries = sorted(self.directory.iterdir() if self.directory else (),
                         key=lambda entry: entry.stat().st_mtime, reverse=True)
        for entry in entries[self.SIZE:]:
            entry.unlink()


class Tidy:
    def __init__(self, root, database, cache):
        self.root = root
        self.database = database
        self.cache = cache
        version = subprocess.run(["clang-tidy", "--version"], capture_output=True, check=True).stdout
        # The system's headers are known by the version of what brings them.
        packages = subprocess.run(["dpkg-query", "-W", "*-dev*"], capture_output=True, check=False).stdout
        self.machine = version + packages

    @functools.lru_cache(maxsize=None)
    def content(self, path):
        return path.read_bytes()

    def configuration(self, path):
        """The .clang-tidy files that have a say about a file."""
        return [folder / ".clang-tidy" for folder in path.parents
                if folder.is_relative_to(self.root) and (folder / ".clang-tidy").exists()]

    def dependencies(self, path, command):
        """The file and every header of this project that it reads, itself or by way of others."""
        arguments = shlex.split(command)
        folders = [pathlib.Path(argument[2:]) for argument in arguments if argument.startswith("-I")]
        found, left = {path}, [path]
        while left:
            current = left.pop()
            for name in INCLUDE.findall(self.content(current).decode(errors="replace")):
                for folder in (current.parent, *folders):
                    header = pathlib.Path(os.path.normpath(folder / name))
                    if header not in found and header.is_relative_to(self.root) and header.is_file():
                        found.add(header)
                        left.append(header)
        return sorted(found)

    def key(self, path, command):
        digest = hashlib.sha256(self.machine + command.encode())
        for file in (*self.configuration(path), *self.dependencies(path, command)):
            digest.update(f"\n{file} {len(self.content(file))}\n".encode() + self.content(file))
        return digest.hexdigest()

    def check(self, path):
        """Findings for one source, in the order of their lines."""
        result = subprocess.run(["clang-tidy", "-p", self.database, "--quiet", path],
                                capture_output=True, text=True, check=False)
        findings = set()
        for match in FINDING.finditer(result.stdout):
            file = pathlib.Path(os.path.normpath(match["path"]))
            name = file.relative_to(self.root).as_posix() if file.is_relative_to(self.root) else str(file)
            findings.add((name, int(match["line"]), match["text"].replace(",-warnings-as-errors", "")))
        if result.returncode != 0 and not findings:
            name = path.relative_to(self.root).as_posix()
            findings.add((name, 1, f"clang-tidy failed: {(result.stderr or result.stdout).strip()}"))
        return [f"{name}:{line}: {text}" for name, line, text in sorted(findings)]

    def run(self, commands, step):
        """Findings for all sources, given with their commands."""
        keys = {path: self.key(path, command) for path, command in commands.items()}
        # The largest first, so that no core is left alone with one at the end.
        work = sorted((path for path, key in keys.items() if not self.cache.knows(key)),
                      key=lambda path: -path.stat().st_size)
        step.total = len(work)
        findings = []
        with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
            running = {pool.submit(self.check, path): path for path in work}
            try:
                for future in concurrent.futures.as_completed(running):
                    step.done += 1
                    step.tell(future.result())
                    findings += future.result()
                    if not future.result():
                        self.cache.remember(keys[running[future]])
            except BaseException:
                pool.shutdown(cancel_futures=True)
                raise
        self.cache.trim()
        # What is in a header is found by each source that reads it.
        return sorted(set(findings)), len(work)
