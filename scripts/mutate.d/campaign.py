"""One run over a sample: workers that build and test mutants, what they found, and the report."""

import dataclasses
import difflib
import json
import queue
import threading
import time

from suite import SYSTEM_JOBS
from workshop import Failure

UNIT_SLACK = 10.0  # seconds
SLOWER = 10  # times that a unit test may take longer than on the unchanged tree
SYSTEM_SLACK = 60.0
SYSTEM_SLOWER = 4

CAUGHT, LIVING, UNBUILDABLE, EQUIVALENT = "caught", "living", "unbuildable", "equivalent"
COUNTED = (CAUGHT, LIVING)
UNREACHED = "no test in the map runs it"


@dataclasses.dataclass(frozen=True)
class Result:
    ident: str
    status: str
    by: str = ""
    seconds: float = 0.0


def read_equivalents(path):
    """The reviewed list: key -> reason. Entries are four lines, `file`, `line`, `change` and `reason`, apart
    by empty ones; lines with a # are comments."""
    entries, names = {}, ("file", "line", "change", "reason")
    if not path.exists():
        return entries
    for block in path.read_text().split("\n\n"):
        lines = [line for line in block.splitlines() if line.strip() and not line.startswith("#")]
        if not lines:
            continue
        fields = dict(line.split(": ", 1) for line in lines if ": " in line)
        if tuple(fields) != names or len(lines) != len(names) or not fields["reason"].strip():
            raise Failure(f"{path.name}: an entry needs the lines {', '.join(names)}:\n{block.strip()}")
        entries[fields["file"], fields["line"], fields["change"]] = fields["reason"]
    return entries


class State:
    """The results so far. Each is appended at once, so that a run that was stopped goes on from there."""

    def __init__(self, path, fresh=False):
        self._path = path
        self.results = {}
        self.baseline = {}  # what passed on the unchanged tree, and its seconds
        if fresh:
            path.unlink(missing_ok=True)
        if path.exists():
            for line in path.read_text().splitlines():
                self._take(line)

    def _take(self, line):
        try:
            record = json.loads(line)
        except ValueError:
            return  # half a line: the machine went down
        if "baseline" in record:
            self.baseline.update(record["baseline"])
        else:
            self.results[record["ident"]] = Result(**record)

    def _append(self, record):
        self._path.parent.mkdir(parents=True, exist_ok=True)
        with open(self._path, "a") as file:
            file.write(json.dumps(record) + "\n")

    def add(self, result):
        self.results[result.ident] = result
        self._append(dataclasses.asdict(result))

    def add_baseline(self, seconds):
        self.baseline.update(seconds)
        self._append({"baseline": seconds})


class Campaign:
    """`order` is the shuffled sequence; the sample is its first `size` mutants that count."""

    def __init__(self, order, size, state, equivalents, tell):
        self.order = order
        self.size = size
        self.state = state
        self.equivalents = equivalents
        self.tell = tell
        self._results = queue.Queue()
        self._begin = time.monotonic()
        self._done = 0  # of those that count, in this run
        self.system_jobs = SYSTEM_JOBS

    # The unchanged tree

    def check_unchanged(self, tree, suite, system):
        """Builds what the sample needs and runs its tests without any mutant."""
        ahead = [mutant for mutant in self.order[: 2 * self.size] if mutant.key not in self.equivalents]
        units, nodes = {}, {}
        for mutant in ahead:
            for tests in suite.units_for(mutant):
                units.update(dict.fromkeys(tests))
            if system:
                nodes.update(dict.fromkeys(suite.system_for(mutant)))
        self._build_unchanged(tree, suite, units, system)
        failed = []
        for unit in units:
            if unit.name not in self.state.baseline:
                problem, _, seconds = suite.run_unit(unit, None)
                failed += [unit.name] if problem else []
                self.state.add_baseline({} if problem else {unit.name: seconds})
        fresh = [node for node in nodes if node not in self.state.baseline]
        if fresh and not failed:
            self.tell(f"{len(fresh)} system tests on the unchanged tree")
            problem, _, seconds = suite.run_system(fresh, None, SYSTEM_JOBS)
            failed += [problem] if problem else []
            self.state.add_baseline({} if problem else dict.fromkeys(fresh, seconds))
        if failed:
            raise Failure(f"these tests fail on the unchanged tree: {', '.join(failed)}")

    def _build_unchanged(self, tree, suite, units, system):
        targets = {unit.target for unit in units} | (suite.system_targets if system else set())
        built, output = tree.build(targets) if targets else (True, "")
        if not built:
            raise Failure(f"the unchanged tree cannot be built:\n{output}")

    # Mutants

    def run(self, workers, system):
        """Tries what is open of the sample. `workers` are pairs of a tree and its suite."""
        self._begin = time.monotonic()
        open_ones, tasks, threads = iter(self.order), queue.SimpleQueue(), []
        for worker in workers:
            threads.append(threading.Thread(target=self._work, args=(*worker, tasks, system), daemon=True))
            threads[-1].start()
        counted = pending = 0
        try:
            while True:
                while counted + pending < self.size and (mutant := next(open_ones, None)):
                    known = self._known(mutant)
                    if known is None:
                        tasks.put(mutant)
                        pending += 1
                    else:
                        counted += known.status in COUNTED
                if pending == 0:
                    return
                counted += self._take_result()
                pending -= 1
        finally:
            if pending:
                workers[0][0].children.stop()
            for _ in threads:
                tasks.put(None)
            for thread in threads:
                thread.join()

    def _known(self, mutant):
        result = self.state.results.get(mutant.ident)
        if mutant.key in self.equivalents:
            return Result(mutant.ident, EQUIVALENT)
        return result

    def _take_result(self):
        mutant, outcome = self._results.get()
        if isinstance(outcome, Exception):
            raise outcome
        self.state.add(outcome)
        self._show(mutant, outcome)
        return outcome.status in COUNTED

    def _work(self, tree, suite, tasks, system):
        while mutant := tasks.get():
            try:
                outcome = self._try(mutant, tree, suite, system)
            except Exception as error:  # for the main thread, whatever it is
                outcome = error
            self._results.put((mutant, outcome))

    def _try(self, mutant, tree, suite, system):
        begin = time.monotonic()
        path = tree.path / mutant.file
        content = path.read_bytes()
        path.write_bytes(mutant.apply(content))
        try:
            status, by = self._outcome(mutant, tree, suite, system)
        finally:
            path.write_bytes(content)
        return Result(mutant.ident, status, by, round(time.monotonic() - begin, 1))

    def _outcome(self, mutant, tree, suite, system):
        steps = list(suite.units_for(mutant))
        for units in steps:
            if not units:
                continue
            if not tree.build({unit.target for unit in units})[0]:
                return UNBUILDABLE, ""
            for unit in units:
                limit = UNIT_SLACK + SLOWER * self.state.baseline.get(unit.name, 1.0)
                problem, _, _ = suite.run_unit(unit, limit)
                if problem:
                    return CAUGHT, unit.name if problem != "timeout" else f"{unit.name} (timeout)"
        nodes = [node for node in suite.system_for(mutant) if node in self.state.baseline] if system else []
        # Where no unit test does, this tells whether it compiles at all.
        if nodes or not any(steps):
            if not tree.build(suite.system_targets)[0]:
                return UNBUILDABLE, ""
        for batch in suite.batches(nodes):
            problem = self._fails(batch, suite)
            if problem:
                return CAUGHT, problem
        return LIVING, UNREACHED if suite.coverage.misses(mutant) else ""

    def _fails(self, batch, suite):
        """Which of these system tests fails, and does so again by itself: one that fails once on a busy
        machine has noticed nothing. Empty when none does."""
        limit = SYSTEM_SLACK + SYSTEM_SLOWER * max(self.state.baseline[node] for node in batch)
        while batch:
            problem, _, _ = suite.run_system(batch, limit, self.system_jobs)
            if problem is None:
                return ""
            if problem == "timeout":
                return "system tests (timeout)"
            if problem not in batch or suite.run_system([problem], limit, 1)[0]:
                return problem
            self.tell(f"{problem} failed once and then passed")
            batch = [node for node in batch if node != problem]
        return ""

    # Telling

    def _show(self, mutant, result):
        counts = self.counts()
        done = counts[CAUGHT] + counts[LIVING]
        elapsed = time.monotonic() - self._begin
        self._done += result.status in COUNTED
        by = f", {result.by}" if result.by == UNREACHED else f" by {result.by}" if result.by else ""
        left = elapsed / max(self._done, 1) * (self.size - done)
        self.tell(
            f"{done}/{self.size} caught {counts[CAUGHT]} living {counts[LIVING]}, {_minutes(elapsed)} gone, "
            f"about {_minutes(left)} to go | {result.status}{by} ({result.seconds:.0f} s): "
            f"{mutant.file}:{mutant.line} {mutant.kind}: {mutant.change}"
        )

    def sample(self):
        """The mutants up to the last that counts, each with its result; without one where it is open."""
        found, counted = [], 0
        for mutant in self.order:
            if counted == self.size:
                break
            result = self._known(mutant)
            found.append((mutant, result))
            counted += result is None or result.status in COUNTED
        return found

    def counts(self):
        found = dict.fromkeys((CAUGHT, LIVING, UNBUILDABLE, EQUIVALENT, "open"), 0)
        for _, result in self.sample():
            found[result.status if result else "open"] += 1
        return found

    def share(self):
        """Of the mutants that were tried and count, in per cent."""
        counts = self.counts()
        done = counts[CAUGHT] + counts[LIVING]
        if done == 0:
            return 0.0 if counts["open"] else 100.0
        return 100.0 * counts[CAUGHT] / done

    def report(self, project, threshold):
        lines = []
        for mutant, result in self.sample():
            if result is not None and result.status == LIVING:
                place = f"{mutant.file}:{mutant.line} {mutant.kind}"
                remark = f" ({result.by})" if result.by else ""
                lines += ["", f"living {mutant.ident} {place}: {mutant.change}{remark}"]
                lines += diff_of(mutant, project)
        for mutant, result in self.sample():
            if result is not None and result.status == EQUIVALENT:
                lines += ["", f"equivalent {mutant.ident} {mutant.file}:{mutant.line}: {mutant.change}"]
                lines += [f"    {self.equivalents[mutant.key]}"]
        counts = self.counts()
        lines += [
            "",
            f"{counts[CAUGHT]} of {counts[CAUGHT] + counts[LIVING]} mutants caught: {self.share():.1f} % "
            f"(threshold {threshold:g} %); not counted: {counts[UNBUILDABLE]} that do not compile, "
            f"{counts[EQUIVALENT]} equivalent" + (f"; {counts['open']} still open" if counts["open"] else ""),
        ]
        return "\n".join(lines[1:])

    def as_json(self, project):
        mutants = []
        for mutant, result in self.sample():
            mutants.append(
                {
                    "id": mutant.ident,
                    "file": mutant.file,
                    "line": mutant.line,
                    "kind": mutant.kind,
                    "change": mutant.change,
                    "status": result.status if result else "open",
                    "by": result.by if result else "",
                    "seconds": result.seconds if result else 0,
                    "diff": "\n".join(diff_of(mutant, project)),
                }
            )
        return {"share": round(self.share(), 2), "counts": self.counts(), "mutants": mutants}


def diff_of(mutant, project):
    content = (project.path / mutant.file).read_bytes()
    before, after = (text.decode().splitlines() for text in (content, mutant.apply(content)))
    diff = difflib.unified_diff(before, after, mutant.file, mutant.file, lineterm="", n=1)
    return [f"    {line}" for line in diff]


def _minutes(seconds):
    return f"{int(seconds) // 60}:{int(seconds) % 60:02}"
