"""Which test runs which lines of the sources: made once by running every test in the coverage build."""

import concurrent.futures
import functools
import hashlib
import json
import os
import shutil
from pathlib import Path

from suite import Suite
from workshop import Failure, load_json, save_json

# Where the plug-in of the system tests lays down each test's counters.
DIRECTORY_VARIABLE = "ZONE_MUTATE_COUNTERS"


class CoverageMap:
    """What an earlier run found. A test that it has not seen counts as one that runs every line."""

    def __init__(self, path, project):
        stored = load_json(path, {"files": {}, "tests": {}})
        reaching = {_file_of(test) for test, files in stored["tests"].items() if files}
        self._tests = {
            test: {file: frozenset(lines) for file, lines in files.items()}
            for test, files in stored["tests"].items()
            # Without counters among others that have some: its daemon was killed before it could write them.
            if files or _file_of(test) not in reaching
        }
        self._same = {
            file
            for file, digest in stored["files"].items()
            if (project.path / file).exists() and _digest_of(project.path / file) == digest
        }
        self._is_run = functools.lru_cache(None)(self._find_whether_run)

    def __bool__(self):
        return bool(self._tests)

    def covers(self, test, mutant):
        """Whether the test may notice the mutant, because it runs the statement. Where no test does, the
        function counts; what belongs to no function, or to a file that has changed since, is as wide as the
        file."""
        files = self._tests.get(test)
        if files is None:
            return True
        if not mutant.function or mutant.file not in self._same:
            return any(file in files for file in (mutant.file, *mutant.units))
        lines = mutant.statement if self._is_run(mutant.file, mutant.statement) else mutant.function
        return _runs(files, mutant.file, lines)

    def misses(self, mutant):
        """Whether no test runs the statement, as far as the map can tell."""
        known = bool(mutant.function) and mutant.file in self._same
        return known and not self._is_run(mutant.file, mutant.statement)

    def _find_whether_run(self, file, lines):
        return any(_runs(files, file, lines) for files in self._tests.values())


def _file_of(test):
    return test.partition("::")[0]


def _runs(files, file, lines):
    return not files.get(file, frozenset()).isdisjoint(range(lines[0], lines[1] + 1))


def _digest_of(path):
    return hashlib.sha256(path.read_bytes()).hexdigest()


def make_map(path, tree, tell):
    """Runs every test in `tree`, which is configured for coverage, and writes the map to `path`."""
    suite = Suite(tree, CoverageMap(Path(os.devnull).with_name("no-map"), tree.project))
    tell("building for coverage")
    built, output = tree.build({unit.target for unit in suite.units} | suite.system_targets)
    if not built:
        raise Failure(f"the coverage build failed:\n{output}")
    counters = tree.build_directory / "counters"
    shutil.rmtree(counters, ignore_errors=True)
    tell(f"running {len(suite.units)} unit tests")
    for unit in suite.units:
        own = counters / unit.name
        own.mkdir(parents=True)
        (own / "test").write_text(unit.name)
        build = tree.build_directory
        tree.run(_sharing(build, unit.command), {**dict(unit.env), **variables(own, build)}, cwd=build)
    if suite.system:
        tell(f"running {len(suite.system)} system tests")
        plugins = str(Path(__file__).parent)
        status, output = suite.run_system_with(
            "counters_plugin", {DIRECTORY_VARIABLE: str(counters), "PYTHONPATH": plugins}
        )
        if status not in (0, 1):
            raise Failure(f"the system tests could not be run:\n{output}")
    tell("reading the counters")
    directories = sorted(one for one in counters.iterdir() if (one / "test").exists())
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        lines = pool.map(functools.partial(_lines_of, tree), directories)
        tests = {(one / "test").read_text(): found for one, found in zip(directories, lines)}
    known = sorted({file for files in tests.values() for file in files})
    digests = {file: _digest_of(tree.path / file) for file in known}
    save_json(path, {"files": digests, "tests": tests})
    shutil.rmtree(counters)
    return len(tests)


def variables(directory, build):
    """What makes an instrumented program of this build write its counters below `directory`."""
    return {"GCOV_PREFIX": str(directory), "GCOV_PREFIX_STRIP": str(len(Path(build).parts) - 1)}


def _sharing(directory, command):
    """A private root would throw the counters away."""
    words = list(command)
    for index, word in enumerate(words):
        if Path(word).name == "private-root":
            words[index + 1 : index + 1] = ["--bind", directory]
            break
    return words


def _lines_of(tree, directory):
    """File -> lines that the counters in `directory` have run."""
    counters = list((directory / "source").rglob("*.gcda"))
    if not counters:
        return {}
    for path in counters:
        notes = (tree.build_directory / path.relative_to(directory)).with_suffix(".gcno")
        path.with_suffix(".gcno").symlink_to(notes)
    form = ["--json-format", "--stdout", "--relative-only", "--source-prefix", tree.path]
    status, output, _ = tree.run(["gcov", *form, *counters])
    if status != 0:
        raise Failure(f"gcov failed:\n{output}")
    found = {}
    for document in output.splitlines():
        if not document.startswith("{"):
            continue
        for entry in json.loads(document)["files"]:
            file = Path(tree.path, entry["file"])
            if file.is_relative_to(tree.path) and file.is_file():
                lines = found.setdefault(str(file.relative_to(tree.path)), set())
                lines.update(line["line_number"] for line in entry["lines"] if line["count"])
    return {file: sorted(lines) for file, lines in found.items() if lines}
