"""The tests: what there is, which of them a mutant needs, and running them."""

import dataclasses
import json
import re
from pathlib import Path

from workshop import Failure, load_json

SYSTEM = Path("tests/system")
SYSTEM_JOBS = 12  # as many as tests/system/run-tests takes for itself
# These read the sources instead of running them: they notice texts that no test has ever seen written.
READERS = ("test_messages.py::test_the_catalogue_lists_the_messages_of_the_sources",)
FIRST_BATCH = 24
LEAST_PIECE = 16  # characters that a piece of a text must have to tell which test quotes it
_LINKED = re.compile(r"^(\S+): \w+_(?:EXECUTABLE|SHARED_LIBRARY)_LINKER", re.MULTILINE)
_OBJECT = re.compile(r" -o (\S+)")
_FAILED = re.compile(r"^(?:FAILED|ERROR) (\S+?\.py(?:::.*?)?)(?: - .*)?$", re.MULTILINE)
_NODE = re.compile(r"^test_\w+\.py::.*$", re.MULTILINE)


@dataclasses.dataclass(frozen=True)
class UnitTest:
    name: str
    command: tuple
    env: tuple
    target: str  # what to build for it
    folder: str  # where its source lies, below tests/


class Suite:
    """The tests of a configured tree. `coverage` is a CoverageMap."""

    def __init__(self, tree, coverage):
        self.tree = tree
        self.coverage = coverage
        self.units = self._find_units()
        programs = {unit.target for unit in self.units}
        self.system_targets = set(_LINKED.findall(tree.ninja("-t", "targets", "all"))) - programs
        commands = load_json(tree.build_directory / "compile_commands.json")
        self._objects = {
            str(Path(command["file"]).relative_to(tree.path)): _OBJECT.search(command["command"])[1]
            for command in commands
            if Path(command["file"]).is_relative_to(tree.path)
        }
        self._linked = {}
        self._texts = {path.name: path.read_text() for path in (tree.path / SYSTEM).glob("test_*.py")}
        self.system = self._find_system()

    def _find_units(self):
        build = self.tree.build_directory
        status, output, _ = self.tree.run(["ctest", "--test-dir", build, "--show-only=json-v1"])
        if status != 0:
            raise Failure(f"ctest cannot list the tests:\n{output}")
        sources = {path.stem: path for path in (self.tree.path / "tests").rglob("*.cpp")}
        found = []
        for test in json.loads(output[output.index("{") :])["tests"]:
            properties = {one["name"]: one["value"] for one in test.get("properties", [])}
            if "unit" not in properties.get("LABELS", []):
                continue
            program = next(Path(word) for word in test["command"] if word.startswith(f"{build}/"))
            source = sources.get(program.name, self.tree.path / "tests")
            found.append(
                UnitTest(
                    test["name"],
                    tuple(test["command"]),
                    tuple(word.partition("=")[::2] for word in properties.get("ENVIRONMENT", [])),
                    str(program.relative_to(build)),
                    str(source.parent.relative_to(self.tree.path / "tests")),
                )
            )
        return found

    def _find_system(self):
        if not (self.tree.path / SYSTEM / "run-tests").exists():
            return []
        status, output, _ = self._run_system(["--collect-only", "-q"], 1)
        nodes = _NODE.findall(output)
        if status != 0 or not nodes:
            raise Failure(f"the system tests cannot be listed:\n{output}")
        return [node for node in nodes if node not in READERS]

    def _run_system(self, arguments, jobs, limit=None, extra=None):
        env = {"ZONE_BUILD_DIR": str(self.tree.build_directory), "ZONE_TEST_JOBS": str(jobs), **(extra or {})}
        return self.tree.run(["./run-tests", *arguments], env, limit, cwd=self.tree.path / SYSTEM)

    # Which

    def _programs_with(self, units):
        """The targets that these translation units end up in."""
        known = frozenset(units)
        if known not in self._linked:
            reached, fresh = set(), {self._objects[unit] for unit in units}
            while fresh:
                reached |= fresh
                fresh = _outputs(self.tree.ninja("-t", "query", *sorted(fresh))) - reached
            self._linked[known] = reached
        return self._linked[known]

    def units_for(self, mutant):
        """The unit tests that a mutant needs: first those of its own file, then the others."""
        linked = self._programs_with(mutant.units)
        needed = [
            unit for unit in self.units if unit.target in linked and self.coverage.covers(unit.name, mutant)
        ]
        ranks = {unit: _distance(mutant.file, unit) for unit in needed}
        nearest = min(ranks.values(), default=0)
        near = [unit for unit in needed if ranks[unit] <= max(nearest, 1)]
        far = [unit for unit in needed if unit not in near]
        return sorted(near, key=ranks.get), sorted(far, key=ranks.get)

    def system_for(self, mutant):
        """The system tests that it needs, the most useful ones first: those in whose file the texts around
        the mutant are quoted, and one file's tests in turn with the other files'."""
        needed = [node for node in self.system if self.coverage.covers(node, mutant)]
        quoted = self._pieces(mutant)
        quotes = {name: sum(piece in text for piece in quoted) for name, text in self._texts.items()}
        places, order = {}, {}
        for node in needed:
            name = node.partition("::")[0]
            places[name] = places.get(name, -1) + 1
            order[node] = (places[name], -quotes.get(name, 0), name)
        return sorted(needed, key=order.get)

    def _pieces(self, mutant):
        """What tests may quote of the function around it: the texts between the conversions."""
        lines = (self.tree.project.path / mutant.file).read_text().splitlines()
        first, last = mutant.function or (mutant.line, mutant.line)
        literals = re.findall(r'"((?:[^"\\]|\\.)*)"', "\n".join(lines[first - 1 : last]))
        pieces = {piece.strip() for literal in literals for piece in re.split(r"%[a-z]+|\\.", literal)}
        return {piece for piece in pieces if len(piece) >= LEAST_PIECE}

    @staticmethod
    def batches(nodes):
        """Few at first: mostly one of them fails."""
        return [batch for batch in (nodes[:FIRST_BATCH], nodes[FIRST_BATCH:]) if batch]

    # Running

    def run_unit(self, unit, limit):
        """Returns None when it passes, else how it failed, and the seconds."""
        status, output, seconds = self.tree.run(
            unit.command, dict(unit.env), limit, cwd=self.tree.build_directory
        )
        return (None if status == 0 else "timeout" if status is None else unit.name), output, seconds

    def run_system_with(self, plugin, env):
        """All of them with this plug-in; returns the status and what was printed."""
        return self._run_system(["-p", plugin, "-q", "--tb=no"], SYSTEM_JOBS, extra=env)[:2]

    def run_system(self, nodes, limit, jobs):
        """As run_unit, for these tests; stops at the first that fails."""
        status, output, seconds = self._run_system(["-x", "-q", "--tb=no", *nodes], jobs, limit)
        if status == 0:
            return None, output, seconds
        failed = _FAILED.search(output)
        if status is not None and status not in (1, 2) and not failed:
            raise Failure(f"the system tests could not be run:\n{output}")
        return ("timeout" if status is None else failed[1] if failed else "system tests"), output, seconds


def _outputs(query):
    """The outputs in what `ninja -t query` prints."""
    found, inside = set(), False
    for line in query.splitlines():
        if line.startswith("    ") and inside:
            found.add(line.strip())
        else:
            inside = line.strip() == "outputs:"
    return found - {"all"}


def _distance(file, unit):
    """0 for the mirror of a source file, 1 for what begins with its name, 2 for the same folder."""
    stem, program = Path(file).stem, Path(unit.target).name
    if program == f"{stem}Test":
        return 0
    if program.startswith(stem) and program[len(stem) :][:1].isupper():
        return 1
    return 2 if unit.folder == Path(file).parent.name else 3
