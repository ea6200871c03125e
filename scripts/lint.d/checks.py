"""Runs the checks of scripts/lint, which says what they are and has installed what they need."""

import argparse
import functools
import json
import os
import pathlib
import re
import subprocess
import sys

from progress import Step, Terminal
from tidy import Cache, Tidy
from tree import Tree

ROOT = pathlib.Path(__file__).resolve().parents[2]
HERE = pathlib.Path(__file__).resolve().parent
LINE_LIMIT = 110

# What cppcheck is not asked about, and why. A single place is excused beside it, in the source.
CPPCHECK_SUPPRESSIONS = {
    "useStlAlgorithm": "a loop of two lines often reads better",
    "unusedStructMember": "it does not see members that are read in a loop over a table",
    "usleepCalled": "POSIX has dropped it, Linux has not",
}


class Failure(Exception):
    """A check could not be made."""


def output_of(command, statuses=(0, 1)):
    """What a program that is not found clean prints; its exit status must be one of these."""
    result = subprocess.run(command, cwd=ROOT, capture_output=True, text=True, check=False)
    if result.returncode not in statuses:
        raise Failure(f"{command[0]} ended with status {result.returncode}: "
                      f"{(result.stderr or result.stdout).strip()}")
    return result.stdout + result.stderr


def relative(text):
    """Findings with names below the tree's root."""
    return text.replace(f"{ROOT}/", "")


class Checks:
    def __init__(self, options):
        self.options = options
        self.tree = Tree(ROOT)

    def clang_format(self, _):
        files = [file.name for file in self.tree.code("source", "include_internal", "platform", "tools",
                                                      "tests", "docs/examples", "scripts/lint.d")]
        output = output_of(["clang-format", "--dry-run", "-Werror", *files])
        lines = re.findall(r"^([^:\n]+:\d+):\d+: error: (.*)$", output, re.MULTILINE)
        return sorted({f"{place}: {text}" for place, text in lines}), f"{len(files)} files"

    def shellcheck(self, _):
        files = [file.name for file in self.tree.files.values() if file.is_shell or file.path.suffix == ".sh"]
        output = output_of(["shellcheck", "--external-sources", "--format=gcc", *files])
        lines = re.findall(r"^([^:\n]+:\d+):\d+: (.*)$", output, re.MULTILINE)
        return [f"{place}: {text}" for place, text in lines], f"{len(files)} scripts"

    def python(self, _):
        files = [file for file in self.tree.files.values() if file.is_python]
        findings = []
        for file in files:
            try:
                compile(file.content, file.name, "exec")
            except (SyntaxError, ValueError) as error:
                findings.append(f"{file.name}:{getattr(error, 'lineno', None) or 1}: {error}")
            findings += [f"{file.name}:{number}: {len(line)} columns, {LINE_LIMIT} are the limit"
                         for number, line in enumerate((file.text or "").split("\n"), 1)
                         if len(line) > LINE_LIMIT]
        excused = {f"{file.name}:{number}" for file in files
                   for number, line in enumerate((file.text or "").split("\n"), 1) if "# noqa: F" in line}
        output = output_of(["/usr/bin/python3", "-m", "pyflakes", *(file.name for file in files)])
        lines = re.findall(r"^([^:\n]+:\d+):(?:\d+:?)? (.*)$", output, re.MULTILINE)
        findings += [f"{place}: {text}" for place, text in lines if place not in excused]
        return findings, f"{len(files)} files"

    def house_rules(self, _):
        command = [HERE / "house-rules", *(["--verbose"] if self.options.verbose else [])]
        lines = output_of(command).splitlines()
        notes = [line for line in lines if re.match(r"[^:]+:\d+: note: ", line)]
        for note in notes:
            self.options.terminal.line(note)
        return [line for line in lines if line not in notes], f"{len(self.tree.files)} files"

    @functools.cached_property
    def build(self):
        """The configured build directory."""
        output_of(["cmake", "--preset", self.options.preset], statuses=(0,))
        build = ROOT / "build" / self.options.preset
        if not (build / "compile_commands.json").exists():
            raise Failure(f"{build} has no compile_commands.json")
        return build

    @functools.cached_property
    def commands(self):
        """The compiler's command for each source; the first, where several targets share one."""
        commands = {}
        for entry in json.loads((self.build / "compile_commands.json").read_text()):
            commands.setdefault(pathlib.Path(entry["file"]), entry["command"])
        return commands

    @property
    def production(self):
        return {path: command for path, command in self.commands.items()
                if not path.is_relative_to(ROOT / "tests")}

    def cppcheck(self, _):
        # A database of its own, in which one header is another one; see there.
        # Without the tests: it gets lost in GoogleTest's macros, and stand-ins look wrong to it on purpose.
        commands = self.production
        own = self.build / "lint" / "cppcheck"
        own.mkdir(parents=True, exist_ok=True)
        database = own / "compile_commands.json"
        database.write_text(json.dumps([
            {"directory": str(self.build), "file": str(path),
             "command": command.replace(" ", f" -I{HERE}/cppcheck ", 1)}
            for path, command in commands.items()]))
        output = output_of([
            "cppcheck", f"--project={database}", f"-j{os.cpu_count()}", "--quiet", "--error-exitcode=1",
            "--enable=warning,performance,portability,style", "--inline-suppr",
            "--library=gnu,posix",
            "--template={file}:{line}: {message} [{id}]",
            *(f"--suppress={suppressed}" for suppressed in CPPCHECK_SUPPRESSIONS)])
        return (sorted(set(relative(output).splitlines())),
                f"{len(commands)} sources without the tests'")

    def clang_tidy(self, step):
        cache = Cache(None if self.options.no_cache else self.build / "lint" / "clang-tidy")
        tidy = Tidy(ROOT, self.build, cache)
        # The tests take more than twice as long as everything else together.
        commands = self.commands if self.options.all else self.production
        findings, looked_at = tidy.run(commands, step)
        rest = len(commands) - looked_at
        return (findings,
                f"{len(commands)} sources" + ("" if self.options.all else " without the tests'")
                + (f", {rest} unchanged" if rest else ""))


CHECKS = {
    "clang-format": Checks.clang_format,
    "shellcheck": Checks.shellcheck,
    "python": Checks.python,
    "house-rules": Checks.house_rules,
    "cppcheck": Checks.cppcheck,
    "clang-tidy": Checks.clang_tidy,
}


def run(checks, name, terminal):
    """Runs one check, prints what it found, and returns the line that sums it up."""
    with Step(terminal, name) as step:
        try:
            findings, about = CHECKS[name](checks, step)
            failed = False
        except (Failure, OSError) as error:
            findings, about, failed = [f"{name}: {error}"], "could not be made", True
    step.tell(findings)
    if failed:
        verdict = terminal.colour(31, "failed")
    elif findings:
        verdict = terminal.colour(31, f"{len(findings)} found")
    else:
        verdict = terminal.colour(32, "clean")
    padding = " " * max(0, 10 - len(re.sub(r"\x1b\[\d+m", "", verdict)))
    terminal.line(f"  {name:13} {verdict}{padding} {step.seconds:6.1f} s  {about}")
    return not findings


def main():
    parser = argparse.ArgumentParser(prog="scripts/lint")
    parser.add_argument("--all", action="store_true")
    parser.add_argument("--preset", default="release")
    parser.add_argument("--only", action="append", choices=CHECKS)
    parser.add_argument("--no-cache", action="store_true")
    parser.add_argument("--verbose", action="store_true")
    options = parser.parse_args()
    terminal = options.terminal = Terminal()
    checks = Checks(options)
    dirty = [name for name in CHECKS
             if (not options.only or name in options.only) and not run(checks, name, terminal)]
    terminal.line(terminal.colour(31, f"not clean: {', '.join(dirty)}") if dirty
                  else terminal.colour(32, "all clean"))
    return 1 if dirty else 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except KeyboardInterrupt:
        sys.exit(130)
